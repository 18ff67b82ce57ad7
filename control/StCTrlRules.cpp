// The notification dispatch of the controller core, with the UPS link,
// timer-expiry and network/console rules. Power, schedule and
// application-end rules are in StCTrlPowerRules.cpp.
#include <cstring>

#include "control/StCTrl.h"

namespace {

int lastParam(const _NOTIFYMSGINFO* nt) { return nt->count > 0 ? nt->params[nt->count - 1] : ThCtrlSlot0; }
} // namespace

void StCTrl::NotifyToEvent(_NOTIFYMSGINFO* nt)
{
    refreshNow();
    switch (nt->code) {
    case NtTimerExpired:
        timerExpiry(nt);
        break;
    case NtUpsEstablished:
    case NtUpsNotDetected:
    case NtUpsPollResult:
    case NtUpsCommError:
    case NtUpsDetectAgain:
    case NtUpsCommRestored:
        upsLinkRule(nt);
        break;
    case NtAppCommandDone:
        appCommandLaunched();
        break;
    case NtMemberPowerReport: {
        int n = lastParam(nt);
        if (n >= ThCtrlSlot0 && n <= ThCtrlSlot3) {
            mPower[SetMyThreadOffset(n)].reported = 1;
            powerRules(nt, n);
        }
        break;
    }
    case NtMemberCountdownEnd3:
    case NtMemberCountdownEnd4:
    case NtMemberCountdownEnd5:
        memberCountdownEnd(nt);
        break;
    case NtSchedule:
        scheduleRule(nt);
        break;
    case NtDaemonStopping:
        daemonStopping();
        break;
    default:
        networkRule(nt);
        break;
    }
}

void StCTrl::upsLinkRule(_NOTIFYMSGINFO* nt)
{
    EVENTMSGINFO ev;
    switch (nt->code) {
    case NtUpsEstablished:
        setPollingEvent(&ev);
        post(&ev);
        Set_State_UPS(UpsCommunicating);
        postLog(LogUpsCommEstablished, ThCtrlSlot0);
        postMeterControl(MeterCommResolved);
        restartMeterTimer();
        SetUPSCommInfo("UPS Monitor Established");
        break;
    case NtUpsNotDetected:
        setDetectTimerStartEvent(&ev);
        post(&ev);
        if (GetStateUPS() == UpsNoContact) {
            Set_State_UPS(UpsNotDetected);
            postLog(LogUpsCommError, ThCtrlSlot0);
            postMeterControl(MeterCommFail);
            SetUPSCommInfo("UPS Communication Error");
        }
        break;
    case NtUpsPollResult:
        if (nt->count > 5 || nt->params[3] == 1) {
            setPutUpsStatusEvent(&ev);
            post(&ev);
        }
        setPollingEvent(&ev);
        post(&ev);
        powerRules(nt, ThCtrlSlot0);
        break;
    case NtUpsCommError:
        if (GetStateUPS() == UpsCommError)
            break;
        if (isController()) {
            setDetectTimerStartEvent(&ev);
            post(&ev);
            postMeterControl(MeterCommFail);
        }
        postLog(LogUpsCommError, ThCtrlSlot0);
        Set_State_UPS(UpsCommError);
        SetUPSCommInfo("UPS Communication Error");
        break;
    case NtUpsDetectAgain:
        setDetectTimerStartEvent(&ev);
        post(&ev);
        break;
    case NtUpsCommRestored:
        if (GetStateUPS() != UpsCommError)
            break;
        Set_State_UPS(UpsCommunicating);
        if (isController()) {
            setPollingEvent(&ev);
            post(&ev);
            postMeterControl(MeterCommResolved);
        }
        postLog(LogUpsCommEstablished, ThCtrlSlot0);
        SetUPSCommInfo("UPS Communication Established");
        break;
    default:
        break;
    }
}

void StCTrl::timerExpiry(_NOTIFYMSGINFO* nt)
{
    EVENTMSGINFO ev;
    const int id = nt->params[0];
    const int owner = nt->params[2];
    if (id == TmUpsDetect) {
        makeEvent(&ev, ThXcp, GetStateUPS() == UpsCommError ? EvUpsRedetect : EvUpsDetect, {});
        post(&ev);
    } else if (id == TmUpsPoll) {
        makeEvent(&ev, ThXcp, EvUpsPoll, {});
        post(&ev);
    } else if (id >= TmWink && id <= TmWink + 3) {
        winkExpiry(ThCtrlSlot0 + id - TmWink);
    } else if (id >= TmCountdown && id <= TmCountdown + 3) {
        countdownTick(ThCtrlSlot0 + id - TmCountdown);
    } else if (id == TmMeterLog) {
        setMeterLogEvent(&ev);
        post(&ev);
    } else if (id >= TmAppEnd && id <= TmAppEnd + 3) {
        appEndExpiry(ThCtrlSlot0 + id - TmAppEnd);
    } else if (id == TmLogDelete) {
        makeEvent(&ev, ThLog, EvLogDelete, {});
        post(&ev);
    } else if (id >= TmHealth && id <= TmHealth + 3) {
        makeEvent(&ev, ThCtrlSlot0 + id - TmHealth, EvHealthTimeout, {});
        post(&ev);
    } else if (id >= TmScheduleA && id <= TmScheduleB + 3) {
        scheduleTimerExpiry(id, owner);
    } else if (id >= TmNetFirst && id <= TmNetLast) {
        makeEvent(&ev, owner, EvNetTimeout, {id});
        post(&ev);
    } else if (id >= TmNet2First && id <= TmNet2Last) {
        makeEvent(&ev, owner, EvNetTimeout2, {id - TmNet2First});
        post(&ev);
    }
    // Ids 0, 29 and above 330 start nothing.
}

void StCTrl::networkRule(_NOTIFYMSGINFO* nt)
{
    EVENTMSGINFO ev;
    switch (nt->code) {
    case NtNetReceived: {
        // The transport names the protocol thread that owns the datagram:
        // on a member each followed controller has its own.
        int to = nt->count > 0 ? nt->params[0] : ThCtrlSlot0;
        if (to < ThCtrlSlot0 || to > ThCtrlSlot3)
            to = ThCtrlSlot0;
        makeEvent(&ev, to, EvNetReceived, {});
        post(&ev);
        break;
    }
    case NtHealthTimerStart:
    case NtNetTimerStart:
    case NtCommErrTimerStart:
        // Timer start requested by the network side: id, seconds from now,
        // interval, owner.
        postTimerStart(nt->params[0], int(mNow + nt->params[1]), nt->params[2], nt->params[3]);
        break;
    case NtNetTimerCancel:
        postTimerStop(nt->params[0]);
        break;
    case NtCommErrTimerCancel:
        makeEvent(&ev, ThTimer, EvTimerStop, {nt->params[0], nt->params[1]});
        post(&ev);
        break;
    case NtMemberLog:
        postLog(nt->params[1], lastParam(nt));
        break;
    case NtMessageFile:
        makeEvent(&ev, ThLog, EvMessageFile, {nt->params[0]});
        post(&ev);
        break;
    case NtControllerInfo:
        makeEvent(&ev, ThLog, EvControllerInfo, {});
        post(&ev);
        break;
    case NtResolveHost:
        makeEvent(&ev, ThHostName, EvResolveHost, {nt->params[0]});
        post(&ev);
        break;
    case NtConfigChanged:
        makeEvent(&ev, ThCtrlSlot0, EvConfigChanged, {});
        post(&ev);
        break;
    case NtTimingChanged:
        getShutdownTiming(0);
        makeEvent(&ev, ThCtrlSlot0, EvTimingChanged, {});
        post(&ev);
        break;
    case NtMeterRateChanged: {
        std::string rate = conf("DumpLogRate");
        if (rate != mDumpLogRate && GetStateUPS() == UpsCommunicating) {
            restartMeterTimer();
            postMeterControl(MeterStarted);
            postMeterControl(MeterRateSet);
        }
        setLogConfig();
        break;
    }
    case NtStopAllTimers:
        // The network went quiet: its own timers (health checks, reply
        // time-outs) stop and every followed controller is registered anew
        // (9001 -> 803). A running wink, countdown, application end or
        // schedule goes on, and so do the communication-error timers, so a
        // silent controller is still noticed.
        for (int k = 0; k < 4; ++k) {
            makeEvent(&ev, ThTimer, EvTimerStop, {TmHealth + k});
            post(&ev);
        }
        makeEvent(&ev, ThTimer, EvTimerStopAll, {1, TmNetFirst, TmNetLast});
        post(&ev);
        break;
    case NtAllTimersStopped:
        for (int k = 0; k < 4; ++k) {
            if (IsContActive(k)) {
                makeEvent(&ev, ThCtrlSlot0 + k, EvTimersStopped, {});
                post(&ev);
            }
        }
        break;
    default:
        break;
    }
}
