// EventRecords: event records for tests of the controller core and the
// threads it feeds: eventRecord fills one (addressee, code, parameters) the
// way the core queues it, drainEvents takes every queued event out of a
// local controller core, oldest first.
#pragma once

#include <vector>

#include "control/Records.h"
#include "control/StCTrl.h"

inline EVENTMSGINFO eventRecord(int to, int code, const std::vector<int>& params)
{
    EVENTMSGINFO ev{};
    ev.to = to;
    ev.code = code;
    ev.count = static_cast<int>(params.size());
    for (size_t i = 0; i < params.size(); ++i)
        ev.params[i] = params[i];
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
