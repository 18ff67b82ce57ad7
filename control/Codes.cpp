#include "control/Codes.h"

#include <cstddef>

namespace {

struct Named {
    int value;
    const char* name;
};

template <size_t N>
std::string lookup(const Named (&table)[N], int value)
{
    for (const Named& n : table)
        if (n.value == value)
            return std::string(n.name) + "(" + std::to_string(value) + ")";
    return "?(" + std::to_string(value) + ")";
}

const Named kThreadNo[] = {
    {ThTimer, "ThTimer"},
    {ThTimerIF, "ThTimerIF"},
    {ThXcp, "ThXcp"},
    {ThXcpIF, "ThXcpIF"},
    {ThPower, "ThPower"},
    {ThLog, "ThLog"},
    {ThCui, "ThCui"},
    {ThCtrlSlot0, "ThCtrlSlot0"},
    {ThCtrlSlot1, "ThCtrlSlot1"},
    {ThCtrlSlot2, "ThCtrlSlot2"},
    {ThCtrlSlot3, "ThCtrlSlot3"},
    {ThHostName, "ThHostName"},
    {ThIpcIF, "ThIpcIF"},
};

const Named kEventCode[] = {
    {EvTimerStart, "EvTimerStart"},
    {EvTimerStop, "EvTimerStop"},
    {EvTimerStopAll, "EvTimerStopAll"},
    {EvTimerShift, "EvTimerShift"},
    {EvUpsDetect, "EvUpsDetect"},
    {EvUpsPoll, "EvUpsPoll"},
    {EvUpsPowerOff, "EvUpsPowerOff"},
    {EvUpsRedetect, "EvUpsRedetect"},
    {EvPowerFailReport, "EvPowerFailReport"},
    {EvPowerRestoredReport, "EvPowerRestoredReport"},
    {EvAppTerm, "EvAppTerm"},
    {EvHostShutdown, "EvHostShutdown"},
    {EvScheduleReport, "EvScheduleReport"},
    {EvScheduleCancelReport, "EvScheduleCancelReport"},
    {EvScheduleRelay, "EvScheduleRelay"},
    {EvLog, "EvLog"},
    {EvMeterLog, "EvMeterLog"},
    {EvLogDelete, "EvLogDelete"},
    {EvMessageFile, "EvMessageFile"},
    {EvControllerInfo, "EvControllerInfo"},
    {EvMemberShutdownLog, "EvMemberShutdownLog"},
    {EvNetReceived, "EvNetReceived"},
    {EvHealthTimeout, "EvHealthTimeout"},
    {EvSendUpsStatus, "EvSendUpsStatus"},
    {EvNetTimeout, "EvNetTimeout"},
    {EvNetTimeout2, "EvNetTimeout2"},
    {EvConfigChanged, "EvConfigChanged"},
    {EvTimingChanged, "EvTimingChanged"},
    {EvShutdownStatus, "EvShutdownStatus"},
    {EvTimersStopped, "EvTimersStopped"},
    {EvResolveHost, "EvResolveHost"},
};

const Named kNotifyCode[] = {
    {NtTimerExpired, "NtTimerExpired"},
    {NtUpsEstablished, "NtUpsEstablished"},
    {NtUpsNotDetected, "NtUpsNotDetected"},
    {NtUpsPollResult, "NtUpsPollResult"},
    {NtUpsCommError, "NtUpsCommError"},
    {NtUpsDetectAgain, "NtUpsDetectAgain"},
    {NtUpsCommRestored, "NtUpsCommRestored"},
    {NtAppCommandDone, "NtAppCommandDone"},
    {NtNetReceived, "NtNetReceived"},
    {NtHealthTimerStart, "NtHealthTimerStart"},
    {NtNetTimerStart, "NtNetTimerStart"},
    {NtNetTimerCancel, "NtNetTimerCancel"},
    {NtCommErrTimerStart, "NtCommErrTimerStart"},
    {NtCommErrTimerCancel, "NtCommErrTimerCancel"},
    {NtMemberPowerReport, "NtMemberPowerReport"},
    {NtMemberCountdownEnd3, "NtMemberCountdownEnd3"},
    {NtMemberCountdownEnd4, "NtMemberCountdownEnd4"},
    {NtMemberCountdownEnd5, "NtMemberCountdownEnd5"},
    {NtSchedule, "NtSchedule"},
    {NtDaemonStopping, "NtDaemonStopping"},
    {NtMemberLog, "NtMemberLog"},
    {NtMessageFile, "NtMessageFile"},
    {NtControllerInfo, "NtControllerInfo"},
    {NtResolveHost, "NtResolveHost"},
    {NtConfigChanged, "NtConfigChanged"},
    {NtTimingChanged, "NtTimingChanged"},
    {NtMeterRateChanged, "NtMeterRateChanged"},
    {NtStopAllTimers, "NtStopAllTimers"},
    {NtAllTimersStopped, "NtAllTimersStopped"},
};

const Named kTimerId[] = {
    {TmUpsDetect, "TmUpsDetect"},
    {TmUpsPoll, "TmUpsPoll"},
    {TmWink, "TmWink"},
    {TmCountdown, "TmCountdown"},
    {TmMeterLog, "TmMeterLog"},
    {TmAppEnd, "TmAppEnd"},
    {TmLogDelete, "TmLogDelete"},
    {TmHealth, "TmHealth"},
    {TmScheduleA, "TmScheduleA"},
    {TmScheduleB, "TmScheduleB"},
    {TmNetFirst, "TmNetFirst"},
    {TmNetLast, "TmNetLast"},
    {TmNet2First, "TmNet2First"},
    {TmNet2Last, "TmNet2Last"},
};

const Named kLogCode[] = {
    {LogCountdownMinute, "LogCountdownMinute"},
    {LogCountdownLast, "LogCountdownLast"},
    {LogCountdownCancelled, "LogCountdownCancelled"},
    {LogShutdownStarted, "LogShutdownStarted"},
    {LogDaemonStarted, "LogDaemonStarted"},
    {LogDaemonStopping, "LogDaemonStopping"},
    {LogUpsCommError, "LogUpsCommError"},
    {LogUpsCommEstablished, "LogUpsCommEstablished"},
    {LogOnBattery, "LogOnBattery"},
    {LogOnBatteryCleared, "LogOnBatteryCleared"},
    {LogPowerFail, "LogPowerFail"},
    {LogPowerFailCleared, "LogPowerFailCleared"},
    {LogScheduleWarning, "LogScheduleWarning"},
    {LogScheduleCancelled, "LogScheduleCancelled"},
    {LogHostShutdown, "LogHostShutdown"},
    {LogWaitingOthers, "LogWaitingOthers"},
    {LogAppEnded, "LogAppEnded"},
    {LogOutputOff, "LogOutputOff"},
    {LogOutputOn, "LogOutputOn"},
    {LogOutputOffFirst, "LogOutputOffFirst"},
    {LogOutputOnFirst, "LogOutputOnFirst"},
    {LogStartedSetLater, "LogStartedSetLater"},
    {LogPowerFailEarly, "LogPowerFailEarly"},
    {LogPowerFailClearedEarly, "LogPowerFailClearedEarly"},
    {LogOnBatteryEarly, "LogOnBatteryEarly"},
    {LogOnBatteryClearedEarly, "LogOnBatteryClearedEarly"},
};

const Named kUpsState[] = {
    {UpsNoContact, "UpsNoContact"},
    {UpsNotDetected, "UpsNotDetected"},
    {UpsCommunicating, "UpsCommunicating"},
    {UpsCommError, "UpsCommError"},
};

} // namespace

std::string threadName(int value) { return lookup(kThreadNo, value); }
std::string eventName(int value) { return lookup(kEventCode, value); }
std::string notifyName(int value) { return lookup(kNotifyCode, value); }
std::string timerName(int value)
{
    // Per-slot timers print as the slot-0 name plus the slot.
    struct Range {
        int first;
        int last;
        const char* name;
    };
    static const Range ranges[] = {{TmWink, TmWink + 3, "TmWink"},
                                   {TmCountdown, TmCountdown + 3, "TmCountdown"},
                                   {TmAppEnd, TmAppEnd + 3, "TmAppEnd"},
                                   {TmHealth, TmHealth + 3, "TmHealth"},
                                   {TmScheduleA, TmScheduleA + 3, "TmScheduleA"},
                                   {TmScheduleB, TmScheduleB + 3, "TmScheduleB"},
                                   {TmNetFirst, TmNetLast, "TmNetFirst"},
                                   {TmNet2First, TmNet2Last, "TmNet2First"}};
    for (const Range& r : ranges)
        if (value > r.first && value <= r.last)
            return std::string(r.name) + "+" + std::to_string(value - r.first) + "(" + std::to_string(value) + ")";
    return lookup(kTimerId, value);
}
std::string logCodeName(int value) { return lookup(kLogCode, value); }
std::string upsStateName(int value) { return lookup(kUpsState, value); }
