// Codes: the names of the numbers the threads exchange through the
// controller core: thread numbers (addressees of events), event codes,
// notification codes, timer ids and event-log codes, and the meter-log
// control values. The values are fixed: they appear in the logs, the
// message files and on the wire. codeName-style functions give each value a
// printable name for diagnostics and test traces ("EvUpsPowerOff(202)").
#pragma once

#include <string>

// Thread numbers: every worker's number, which is also the addressee of its
// events.
enum ThreadNo : int {
    ThTimer = 0,       // TimerTh: runs the timer list
    ThTimerIF = 1,     // TimerIFTh: timer ticks, expiries become notifications
    ThXcp = 2,         // XcpTh: the UPS link's command side
    ThXcpIF = 3,       // XcpIFTh: the serial line to the UPS
    ThPower = 4,       // PowerTh: application-termination and host-shutdown commands
    ThLog = 5,         // LogTh: event log, meter log, broadcasts
    ThCui = 6,         // CuiIFTh: the console port
    ThCtrlSlot0 = 8,   // IpcCTrlCTh on a controller, IpcCTrlMTh #1 on a member (slot 0)
    ThCtrlSlot1 = 9,   // IpcCTrlMTh #2 (slot 1)
    ThCtrlSlot2 = 10,  // IpcCTrlMTh #3 (slot 2)
    ThCtrlSlot3 = 11,  // IpcCTrlMTh #4 (slot 3)
    ThHostName = 12,   // GetHostNameTh: host-name resolution for members
    ThIpcIF = 13,      // IpcIFTh: the UDP transport
};

// Owner value of daemon-level event-log entries (not a slot's thread).
constexpr int kOwnerDaemon = 1;

// UPS state held by the controller core.
enum UpsState : int {
    UpsNoContact = 0,     // before any UPS contact
    UpsNotDetected = 1,   // UPS not (yet) detected
    UpsCommunicating = 2, // communication established (the network side starts then)
    UpsCommError = 3,     // communication error
};

// Event codes (controller core -> one worker thread).
enum EventCode : int {
    EvTimerStart = 100,          // to TimerTh: id, expiry, interval, owner
    EvTimerStop = 102,           // to TimerTh: id (and owner)
    EvTimerStopAll = 103,        // to TimerTh: notify flag (1: answer with NtAllTimersStopped)
    EvTimerShift = 104,          // to TimerTh: id, seconds to move its expiry by
    EvUpsDetect = 200,           // to XcpTh: detect the UPS
    EvUpsPoll = 201,             // to XcpTh: poll the UPS
    EvUpsPowerOff = 202,         // to XcpTh: countdown ended, delayed UPS power-off with restart
    EvUpsRedetect = 203,         // to XcpTh: detect again after a communication error
    EvPowerFailReport = 300,     // to LogTh: minutes left, owner: countdown announcement to users
    EvPowerRestoredReport = 301, // to LogTh: owner: power restored announcement
    EvAppTerm = 302,             // to PowerTh: slot: run its application-termination command
    EvHostShutdown = 303,        // to PowerTh: shut the host down
    EvScheduleReport = 304,      // to LogTh: minutes, owner: scheduled shutdown announcement
    EvScheduleCancelReport = 305, // to LogTh: owner: scheduled shutdown cancelled
    EvScheduleRelay = 306,       // to PowerTh: value, timer id, owner: returned as NtSchedule
    EvLog = 500,                 // to LogTh: owner, then log codes (and values): event-log lines
    EvMeterLog = 501,            // to LogTh: no parameter: measurement; one: meter-log control value
    EvLogDelete = 502,           // to LogTh: delete expired meter logs
    EvMessageFile = 503,         // to LogTh: message-file variant to switch to
    EvControllerInfo = 504,      // to LogTh: rewrite the member's controller information
    EvMemberShutdownLog = 505,   // to LogTh: slot, reason: host shutdown started on a member
    EvNetReceived = 600,         // to a slot thread: datagram received
    EvHealthTimeout = 601,       // to a slot thread: health-check time-out of its controller
    EvSendUpsStatus = 602,       // to IpcCTrlCTh: send the UPS status to the members
    EvNetTimeout = 603,          // to the owner: network time-out (timer id)
    EvNetTimeout2 = 604,         // to the owner: further network time-out (id - TmNet2First)
    EvConfigChanged = 800,       // to IpcCTrlCTh: configuration changed on the console
    EvTimingChanged = 801,       // to IpcCTrlCTh: shutdown timing changed on the console
    EvShutdownStatus = 802,      // to a slot thread: host shutdown started (flag, slot)
    EvTimersStopped = 803,       // to each active slot thread: all timers were stopped
    EvResolveHost = 900,         // to GetHostNameTh: resolve a host name
};

// Notification codes (observer -> controller core rules).
enum NotifyCode : int {
    NtTimerExpired = 1000,       // timer service: id, seconds late, owner
    NtUpsEstablished = 2000,     // UPS link: UPS detected, communication established
    NtUpsNotDetected = 2001,     // UPS link: no UPS answered the detection
    NtUpsPollResult = 2002,      // UPS link: poll result (condition, alarms, owner)
    NtUpsCommError = 2003,       // UPS link: communication error
    NtUpsDetectAgain = 2005,     // UPS link: detect again
    NtUpsCommRestored = 2006,    // UPS link: communication restored
    NtAppCommandDone = 3001,     // PowerTh: an application-termination command was launched
    NtNetReceived = 6000,        // IPC transport: datagram received
    NtHealthTimerStart = 6001,   // member side: start a health-check timer
    NtNetTimerStart = 6002,      // IPC: start a network time-out timer
    NtNetTimerCancel = 6003,     // member table: stop a network time-out timer
    NtCommErrTimerStart = 6004,  // IPC: start a communication-error timer
    NtCommErrTimerCancel = 6005, // IPC: stop a communication-error timer (id, owner)
    NtMemberPowerReport = 6006,  // member side: a controller's power report (like a poll result)
    NtMemberCountdownEnd3 = 6007, // member side: end the slot's countdown with reason 3
    NtMemberCountdownEnd4 = 6008, // member side: end the slot's countdown with reason 4
    NtMemberCountdownEnd5 = 6009, // member side: end the slot's countdown with reason 5
    NtSchedule = 6010,           // schedule step: minutes, timer id, owner
    NtDaemonStopping = 6011,     // termination: the daemon stops
    NtMemberLog = 6012,          // member side: value, log code, owner
    NtMessageFile = 6013,        // member side: message-file variant
    NtControllerInfo = 6014,     // controller information changed
    NtResolveHost = 6015,        // member side: resolve a host name
    NtConfigChanged = 8000,      // console: a configuration key changed ("AccessCode1")
    NtTimingChanged = 8001,      // console: shutdown timing changed ("ShutdownDelay1")
    NtMeterRateChanged = 8002,   // console: "DumpLogRate" changed
    NtStopAllTimers = 9000,      // IPC: stop all timers and answer
    NtAllTimersStopped = 9001,   // TimerTh: all timers stopped
};

// Timer ids (first parameter of EvTimerStart/EvTimerStop/EvTimerShift and
// of NtTimerExpired). Per-slot timers are the slot-0 id plus the slot.
enum TimerId : int {
    TmUpsDetect = 1,      // UPS detection, 5 s one-shot
    TmUpsPoll = 2,        // UPS polling, 5 s one-shot
    TmWink = 3,           // wink of slot 0 (3..6)
    TmCountdown = 7,      // shutdown countdown of slot 0, every 60 s (7..10)
    TmMeterLog = 11,      // meter log measurement, every "DumpLogRate" minutes
    TmAppEnd = 12,        // application end of slot 0 (12..15)
    TmLogDelete = 16,     // meter log deletion, every 1800 s
    TmHealth = 17,        // health check of slot 0 (17..20)
    TmScheduleA = 21,     // first schedule timer of slot 0 (21..24)
    TmScheduleB = 25,     // second schedule timer of slot 0 (25..28)
    TmNetFirst = 30,      // first per-member network time-out
    TmNetLast = 265,      // last per-member network time-out
    TmNet2First = 266,    // first further network time-out
    TmNet2Last = 330,     // last further network time-out
};

// Event-log codes (the message numbers that EvLog carries after the owner).
enum LogCode : int {
    LogCountdownMinute = 0,     // countdown minute report (remaining minutes follow)
    LogCountdownLast = 1,       // last countdown minute
    LogCountdownCancelled = 2,  // countdown cancelled, power restored
    LogShutdownStarted = 3,     // host shutdown started
    LogDaemonStarted = 6,       // daemon started
    LogDaemonStopping = 7,      // daemon stopping
    LogUpsCommError = 10,       // UPS communication error / not detected
    LogUpsCommEstablished = 11, // UPS communication established
    LogOnBattery = 14,          // "Utility power not present" (power event and UPS alarm)
    LogOnBatteryCleared = 15,   // "Utility not present cleared" (UPS alarm)
    LogPowerFail = 357,         // "Utility power failure" (power event and UPS alarm)
    LogPowerFailCleared = 657,  // "Utility fail cleared" (UPS alarm)
    LogScheduleWarning = 204,   // scheduled shutdown warning (minutes follow)
    LogScheduleCancelled = 206, // scheduled shutdown warning cancelled
    LogHostShutdown = 208,      // host shutdown command run
    LogWaitingOthers = 217,     // waiting for the other controllers
    LogAppEnded = 218,          // application ended
    LogOutputOff = 234,         // a controller's output went off
    LogOutputOn = 235,          // a controller's output came on
    LogOutputOffFirst = 236,    // a controller's output is off (first report)
    LogOutputOnFirst = 237,     // a controller's output is on (first report)
    LogStartedSetLater = 265,   // started with "SetLater"
    LogPowerFailEarly = 1000,   // LogPowerFail within the wink time
    LogPowerFailClearedEarly = 1001, // LogPowerFailCleared within the wink time
    LogOnBatteryEarly = 1002,   // LogOnBattery within the wink time
    LogOnBatteryClearedEarly = 1003, // LogOnBatteryCleared within the wink time
};

// Meter-log control values (EvMeterLog with one parameter): indexes of the
// meter log's event texts.
enum MeterControl : int {
    MeterStarted = 0,      // "Log started"
    MeterStopped = 1,      // "Log stopped"
    MeterPowerFailure = 2, // "Power failure"
    MeterCommFail = 9,     // "Comm Fail"
    MeterCommResolved = 10, // "Comm Fail Resolved"
    MeterRateSet = 11,     // "Log rate set to ..."
};

// Printable names: "EvUpsPowerOff(202)"; an unknown value prints as
// "?(<value>)".
std::string eventName(int code);
std::string notifyName(int code);
std::string threadName(int number);
std::string timerName(int id);
std::string logCodeName(int code);
std::string upsStateName(int state);
