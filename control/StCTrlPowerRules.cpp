// Power, schedule and application-end rules of the controller core: what a
// poll result (2002) or a controller's power report on a member (6006) does
// to a slot, the wink/countdown/application-end/schedule timer expiries, the
// scheduled-shutdown rule (6010), member-side countdown ends (6007-6009),
// the daemon stopping (6011) and the launch report of a termination
// command (3001). All run inside SetNotify under slot 0.
#include <cstring>

#include "control/StCTrl.h"

namespace {

bool validOwner(int n) { return n >= ThCtrlSlot0 && n <= ThCtrlSlot3; }

// Largest parameter count of one alarm-list log event.
const int kAlarmListMax = 255;
} // namespace

// A poll result or power report for slot n: params 0 and 1 name the power
// condition, param 2 the seconds since the condition began, params 4 up to
// the one before the last the changed alarm codes, the last one the owner.
void StCTrl::powerRules(_NOTIFYMSGINFO* nt, int n)
{
    if (!validOwner(n))
        return;
    const int k = SetMyThreadOffset(n);
    PowerRecord& p = mPower[k];
    const int cond = nt->params[0];
    const int utility = nt->params[1];
    const int elapsed = nt->params[2];
    EVENTMSGINFO ev;

    // The alarm numbers are logged first, translated by the phase the slot
    // was in when this result arrived (before the rules below move it).
    if (nt->count > 5)
        alarmList(nt, n);

    if (cond == 4 && utility == 3) {
        // Power failure: only a slot in normal operation starts anything.
        if (p.phase != PhaseNormal)
            return;
        p.failureStart = static_cast<int32_t>(mNow - elapsed);
        const int wink = getWinkTime(k);
        const int minutes = getCountdownTime(k);
        if (wink > elapsed) {
            setWinkTimerStartEvent(&ev, elapsed, n);
            post(&ev);
            p.phase = PhaseWink;
        } else if (wink + minutes * 60 > elapsed) {
            p.remaining = minutes;
            countdownStart(&ev, elapsed - wink, n);
            p.phase = PhaseCountdown;
        } else {
            setHappenPowerEvent(n);
            countdownEnd(&ev, 1, n, true);
            p.phase = PhaseEnded;
        }
        return;
    }

    if (cond == 5 && utility == 3) {
        // Second condition: the battery alarm while utility power is lost.
        // The remaining wink or countdown is not waited for any more.
        if (p.phase == PhaseWink) {
            setWinkTimerStopEvent(&ev, n);
            post(&ev);
        } else if (p.phase == PhaseCountdown) {
            setShutdownTimerStopEvent(&ev, n);
            post(&ev);
        }
        if (p.phase > PhaseCountdown)
            return;
        if (p.phase == PhaseNormal)
            p.failureStart = static_cast<int32_t>(mNow - elapsed);
        if (p.phase != PhaseCountdown)
            setHappenPowerEvent(n);
        // Role test: a controller records the power event in its meter log
        // as a countdown start would; in both roles the countdown ends now.
        if (isController())
            postMeterControl(MeterPowerFailure);
        countdownEnd(&ev, 1, n, true);
        p.phase = PhaseEnded;
        return;
    }

    if ((cond == 4 || cond == 5) && utility == 2) {
        // Power restored (4, 2), or the end of the second condition (5, 2).
        switch (p.phase) {
        case PhaseWink:
            setWinkTimerStopEvent(&ev, n);
            post(&ev);
            p.phase = PhaseNormal;
            break;
        case PhaseCountdown:
            countdownCancel(&ev, n);
            p.phase = PhaseNormal;
            break;
        case PhaseEnded:
            if (!GetPFAPPEnd(k) && mCont.contCount > 1 && GetAppStatus(k) != 2) {
                CancelAppTime(k);
                p.phase = PhaseNormal;
                p.endInProgress = 0;
                p.memberEnded = 0;
            } else {
                p.phase = PhaseAppEnd;
            }
            break;
        default:
            break;
        }
    }
}

// The alarm codes of a poll result: params 4 up to the one before the last.
void StCTrl::alarmList(_NOTIFYMSGINFO* nt, int n)
{
    const int last = nt->count < 256 ? nt->count - 1 : 255; // the owner
    if (last <= 4)
        return;
    logAlarmCodes(nt->params + 4, last - 4, nt->params[0], nt->params[1], nt->params[2], n);
}

void StCTrl::logAlarmCodes(const int32_t* codes, int num, int cond, int utility, int elapsed, int n)
{
    if (!validOwner(n))
        return;
    const int k = SetMyThreadOffset(n);
    const int phase = mPower[k].phase;
    const bool failure = cond == 4 && utility == 3;
    const bool inWink = elapsed < getWinkTime(k);

    EVENTMSGINFO ev;
    makeEvent(&ev, ThLog, EvLog, {n});
    for (int i = 0; i < num; ++i) {
        int code = codes[i];
        if (phase == PhaseNormal && failure) {
            // A failure still inside the wink is logged as such; beyond it
            // the power event itself is reported by the countdown path.
            if (code == LogOnBattery || code == LogPowerFail) {
                if (!inWink)
                    continue;
                code = (code == LogOnBattery) ? LogOnBatteryEarly : LogPowerFailEarly;
            }
        } else if (phase == PhaseWink) {
            if (code == LogOnBattery)
                code = LogOnBatteryEarly;
            else if (code == LogOnBatteryCleared)
                code = LogOnBatteryClearedEarly;
            else if (code == LogPowerFail)
                code = LogPowerFailEarly;
            else if (code == LogPowerFailCleared)
                code = LogPowerFailClearedEarly;
        }
        if (!searchNo(ev.params + 1, ev.count - 1, code))
            continue;
        if (ev.count + 1 > kAlarmListMax) {
            post(&ev);
            makeEvent(&ev, ThLog, EvLog, {n});
        }
        ev.params[ev.count++] = code;
    }
    if (ev.count > 1)
        post(&ev);
}

void StCTrl::winkExpiry(int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    PowerRecord& p = mPower[k];
    if (p.phase != PhaseWink)
        return;
    EVENTMSGINFO ev;
    const int minutes = getCountdownTime(k);
    if (minutes > 0) {
        p.remaining = minutes;
        countdownStart(&ev, 0, n);
        p.phase = PhaseCountdown;
    } else {
        setHappenPowerEvent(n);
        countdownEnd(&ev, 1, n, true);
        p.phase = PhaseEnded;
    }
}

void StCTrl::countdownTick(int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    PowerRecord& p = mPower[k];
    if (p.phase != PhaseCountdown)
        return;
    EVENTMSGINFO ev;
    p.remaining -= 1;
    if (p.remaining > 0) {
        countdownContinue(&ev, n);
    } else {
        p.remaining = 0;
        countdownEnd(&ev, 1, n, true);
        p.phase = PhaseEnded;
    }
}

void StCTrl::appEndExpiry(int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    PowerRecord& p = mPower[k];
    EVENTMSGINFO ev;
    if (GetAppStatus(k) == 2) {
        // This slot started the host shutdown and its applications have had
        // their time: shut the host down.
        shutdown(&ev, n);
        return;
    }
    // This slot waited for the other controllers for its application-end
    // time plus its UPS's shutdown delay: its UPS has stopped by now. It is
    // marked ended (no longer powering this host) and its schedule and
    // application state are cleared.
    EndPFAPPEnd(k);
    SetAPPEndStatus(k, 1);
    ShutDownSetSCHStatus(k, 0);
    CancelAppTime(k);
    if (p.scheduleTimer) {
        postTimerStop(p.scheduleTimer);
        p.scheduleTimer = 0;
    }
    p.lastSchedule = -1;
    p.reportValue = 0;
    p.endInProgress = 0;
    p.memberEnded = 0;
    if (p.phase == PhaseAppEnd)
        p.phase = PhaseNormal; // power came back while it waited
    if (setPowerLogEvent(&ev, LogAppEnded, n))
        post(&ev);
}

// A schedule timer of the slot expired: hand its current minutes to the
// power thread, which returns them one lower as notification 6010.
void StCTrl::scheduleTimerExpiry(int id, int owner)
{
    if (!validOwner(owner))
        return;
    EVENTMSGINFO ev;
    makeEvent(&ev, ThPower, EvScheduleRelay, {mPower[SetMyThreadOffset(owner)].lastSchedule, id, owner});
    post(&ev);
}

// Scheduled shutdown: params minutes, timer id (0 from the member side), owner.
// Each schedule step runs a 60-second one-shot timer; the slot alternates
// between its two timer ids (21 + k and 25 + k), so a relay of a timer that
// was stopped meanwhile no longer matches the stored id and is ignored.
void StCTrl::scheduleRule(_NOTIFYMSGINFO* nt)
{
    if (nt->count < 3)
        return;
    const int minutes = nt->params[0];
    const int timerId = nt->params[1];
    const int n = nt->params[nt->count - 1];
    if (!validOwner(n))
        return;
    const int k = SetMyThreadOffset(n);
    PowerRecord& p = mPower[k];
    EVENTMSGINFO ev;

    mMutex.SCHLock();
    if ((timerId != 0 && timerId != p.scheduleTimer) || p.phase > PhaseCountdown || p.endInProgress ||
        p.memberEnded) {
        mMutex.SCHunLock();
        return;
    }

    if (minutes > 5 || minutes == -1) {
        ShutDownSetSCHStatus(k, 0);
        if (p.lastSchedule >= 1 && p.lastSchedule <= 5) {
            p.lastSchedule = -1;
            if (setPowerLogEvent(&ev, LogScheduleCancelled, n)) {
                post(&ev);
                makeEvent(&ev, ThLog, EvScheduleCancelReport, {n});
                post(&ev);
            }
        }
        if (p.scheduleTimer) {
            postTimerStop(p.scheduleTimer);
            p.scheduleTimer = 0;
        }
        if (minutes == -1) {
            p.lastSchedule = -1;
            p.reportValue = 0;
        }
    } else if (minutes >= 1) {
        ShutDownSetSCHStatus(k, 1);
        if (minutes != p.lastSchedule) {
            p.lastSchedule = minutes;
            p.reportValue = minutes;
            if (setPowerLogEvent(&ev, LogScheduleWarning, n)) {
                post(&ev);
                makeEvent(&ev, ThLog, EvScheduleReport, {minutes, n});
                post(&ev);
            }
            const int next = (p.scheduleTimer == TmScheduleA + k) ? TmScheduleB + k : TmScheduleA + k;
            if (p.scheduleTimer)
                postTimerStop(p.scheduleTimer);
            p.scheduleTimer = next;
            postTimerStart(next, static_cast<int>(mNow + 60), 0, n);
        }
    } else if (minutes == 0) {
        ShutDownSetSCHStatus(k, 1);
        p.lastSchedule = 0;
        countdownEnd(&ev, 2, n, false);
        p.endInProgress = 1;
        if (p.scheduleTimer) {
            postTimerStop(p.scheduleTimer);
            p.scheduleTimer = 0;
        }
    }
    // Other negative values mean nothing.
    mMutex.SCHunLock();
}

// The member side ended a controller's countdown (6007, 6008, 6009 with
// value, value, owner): reason 3, 4 or 5.
void StCTrl::memberCountdownEnd(_NOTIFYMSGINFO* nt)
{
    if (nt->count < 1)
        return;
    const int n = nt->params[nt->count - 1];
    if (!validOwner(n))
        return;
    const int k = SetMyThreadOffset(n);
    EVENTMSGINFO ev;
    countdownEnd(&ev, nt->code - NtMemberCountdownEnd3 + 3, n, ShutDownGetPFStatus(k));
    mPower[k].memberEnded = 1;
}

void StCTrl::daemonStopping()
{
    EVENTMSGINFO ev;
    if (isController()) {
        setMeterTimerStopEvent(&ev);
        post(&ev);
        postMeterControl(MeterStopped);
    }
    postLog(LogDaemonStopping, kOwnerDaemon);
    setAppEndEvent();
}

// A termination command was launched: the slot that started the host
// shutdown now has its application end under way.
void StCTrl::appCommandLaunched()
{
    for (int k = 0; k < 4; ++k) {
        if (GetAppStatus(k) == 2)
            SetAPPEndStatus(k, 1);
    }
}
