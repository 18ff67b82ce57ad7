// EventRecords: event records and their texts "to:EvName(code):p0,p1,..."
// ("NtName(code):p0,..." for notifications) for compact comparisons.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "control/Codes.h"
#include "control/Records.h"
#include "control/StCTrl.h"

inline EVENTMSGINFO eventRecord(int to, int code, const std::vector<int>& params)
{
    EVENTMSGINFO ev{};
    ev.to = to, ev.code = code, ev.count = static_cast<int>(params.size());
    std::copy(params.begin(), params.end(), ev.params);
    return ev;
}

inline std::vector<EVENTMSGINFO> drainEvents(StCTrl& ctrl)
{
    std::vector<EVENTMSGINFO> out;
    EVENTMSGINFO ev;
    while (ctrl.popHeadForTest(&ev))
        out.push_back(ev);
    return out;
}

inline std::string describe(const EVENTMSGINFO& ev)
{
    std::string s = std::to_string(ev.to) + ":" + eventName(ev.code) + ":";
    for (int i = 0; i < ev.count; ++i)
        s += (i ? "," : "") + std::to_string(ev.params[i]);
    return s;
}

inline std::string describe(const _NOTIFYMSGINFO& nt)
{
    std::string s = notifyName(nt.code) + ":";
    for (int i = 0; i < nt.count && i < 256; ++i)
        s += (i ? "," : "") + std::to_string(nt.params[i]);
    return s;
}

inline std::vector<std::string> drainDescribed(StCTrl& ctrl)
{
    std::vector<std::string> out;
    for (const EVENTMSGINFO& ev : drainEvents(ctrl))
        out.push_back(describe(ev));
    return out;
}
