// Countdown and shutdown timing of the controller core: how one controller
// slot k (thread number n = 8 + k) goes from a power failure through the
// minute countdown to the application end and the host shutdown. These run
// inside the notification rules (under slot 0) and act only by posting events.
//
// Locking: countdownEnd holds the member-information lock while it decides,
// and ISStartShutdown/StartShutdown run inside it. They therefore change the
// status record directly and never call the setters that take that lock
// themselves (it is a plain mutex). Posting under it is safe: SetEvent takes
// the queue slot and a wake-up slot, and no holder of those ever waits for
// the member-information lock.
#include <cstring>

#include "control/StCTrl.h"
#include "xcp/UpsDataBlock.h"


void StCTrl::countdownStart(EVENTMSGINFO* ev, int elapsed, int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    PowerRecord& p = mPower[k];
    if (p.phase < PhaseCountdown) {
        setHappenPowerEvent(n);
        if (isController())
            postMeterControl(MeterPowerFailure);
    }
    // Whole minutes already gone come off the countdown; the first tick
    // falls where the running minute ends.
    if (elapsed >= 60)
        p.remaining -= elapsed / 60;
    // The first minute report is always given, also when the countdown
    // starts a little late (a wink timer that fired a second late, a power
    // report that arrived after the wink time).
    if (setPowerLogEvent(ev, p.remaining == 1 ? 1 : 0, n)) {
        post(ev);
        setPowerWrongEvent(ev, n);
        post(ev);
    }
    if (elapsed == 0)
        setShutdownTimerStartEvent(ev, n);
    else
        setShutdownTimerStartEvent(ev, elapsed % 60, n);
    post(ev);
}

void StCTrl::countdownContinue(EVENTMSGINFO* ev, int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    if (!setPowerLogEvent(ev, mPower[k].remaining == 1 ? 1 : 0, n))
        return;
    post(ev);
    setPowerWrongEvent(ev, n);
    post(ev);
}

void StCTrl::countdownCancel(EVENTMSGINFO* ev, int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    if (setPowerLogEvent(ev, LogCountdownCancelled, n)) {
        post(ev);
        setPowerRecoveryEvent(ev, n);
        post(ev);
    }
    if (isController())
        postMeterControl(3);
    setShutdownTiming(k);
    setShutdownTimerStopEvent(ev, n);
    post(ev);
}

void StCTrl::countdownEnd(EVENTMSGINFO* ev, int reason, int n, bool powerFailure)
{
    const int k = SetMyThreadOffset(n) & 3;
    PowerRecord& p = mPower[k];
    mMutex.MEMInfoLock();
    if (!isController() && mCont.contCount >= 2) {
        // Several controllers: once this slot has decided (it started the
        // host shutdown or waits for the others) it does not end again. A
        // member-side end (reason 3) only stops once the host is going down.
        bool done = (reason == 3) ? mCont.startShutdown != 0 : mCont.appStatus[k] != 0;
        if (done) {
            mMutex.MEMInfoUnLock();
            return;
        }
    } else if (p.phase > PhaseCountdown || p.endInProgress) {
        mMutex.MEMInfoUnLock();
        return;
    }

    setShutdownTimerStopEvent(ev, n);
    post(ev);

    if (ISStartShutdown(k, reason)) {
        p.reason = reason;
        p.phase = PhaseEnded;
        if (setPowerLogEvent(ev, LogShutdownStarted, n))
            post(ev);
        if (isController()) {
            postMeterControl(5);
            // The UPS link orders the UPS's delayed power-off with restart.
            makeEvent(ev, ThXcp, EvUpsPowerOff, {});
            post(ev);
        }
        setAppTermEvent(ev, n);
        post(ev);
        // A wait for other controllers may hold the same timer id: restart it.
        CancelAppTermTimerStart(ev, n);
        post(ev);
        setAppTermTimerStart(ev, n);
        post(ev);
    } else {
        if (powerFailure)
            mCont.pfAppEnd[k] = 1;
        setDummyAppTermTimerStart(ev, n);
        post(ev);
        if (setPowerLogEvent(ev, LogWaitingOthers, n))
            post(ev);
    }
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

// Decides whether the end of slot k's countdown takes the host down now.
// Runs with the member-information lock held (see countdownEnd).
bool StCTrl::ISStartShutdown(int k, int reason)
{
    k &= 3;
    if (mCont.startShutdown)
        return false;

    const bool memberSide = reason >= 3 && reason <= 5;
    if (!memberSide && mCont.appStatus[k] != 0)
        return false;

    // One controller: nothing else powers this host, so it goes down.
    if (isController() || mCont.contCount <= 1) {
        StartShutdown(k, reason);
        return true;
    }

    // Several controllers (ended by the timer, the schedule or the member
    // side alike): the host goes down only when no other followed
    // controller still supplies it.
    for (int i = 0; i < 4; ++i) {
        if (i != k && stillSupplies(i)) {
            mCont.appStatus[k] = 1;
            mCont.dummyAppDown[k] = static_cast<uint8_t>(reason);
            return false;
        }
    }
    StartShutdown(k, reason);
    return true;
}

// Whether controller slot i still feeds this member, judged from what its
// controller last reported: it is followed, it has reported, its output is
// on, its utility power is present, and it is neither in a power failure of
// its own nor marked ended after waiting for the others. A controller that
// went silent after reporting good power still counts (silence alone never
// takes the host down); one that never reported does not (nothing is known
// to feed the host through it). Runs with the member-information lock held.
bool StCTrl::stillSupplies(int i)
{
    return mCont.active[i] && mPower[i].reported && mCont.outputStatus[i] && mCont.pfStatus[i] == 0 &&
           mCont.appEndStatus[i] == 0 && mPower[i].phase == PhaseNormal;
}

// Marks the host shutdown as started by slot k. Runs with the
// member-information lock held.
void StCTrl::StartShutdown(int k, int reason)
{
    k &= 3;
    mCont.appStatus[k] = 2;
    mCont.startShutdown = 1;
    mPower[k].reason = reason;
    if (!isController()) {
        // The member's shutdown log records which controller took it down.
        EVENTMSGINFO ev;
        makeEvent(&ev, ThLog, EvMemberShutdownLog, {k, reason});
        post(&ev);
    }
}

void StCTrl::shutdown(EVENTMSGINFO* ev, int n)
{
    setHealthChkTimerStopEvent(ev, n);
    post(ev);
    if (setPowerLogEvent(ev, LogHostShutdown, n))
        post(ev);
    if (isController()) {
        setMeterTimerStopEvent(ev);
        post(ev);
    }
    setShutdownEvent(ev);
    post(ev);
}

void StCTrl::setHappenPowerEvent(int n)
{
    const int k = SetMyThreadOffset(n) & 3;
    // An alarm the UPS data already shows active is not logged again here.
    if (!upsAlarmActive(57, k))
        postLog(LogPowerFail, n);
    if (!upsAlarmActive(59, k))
        postLog(LogOnBattery, n);
}

// The daemon is stopping: tell the peers that this side's applications end.
// A controller tells its members through its protocol thread (only started
// once the UPS link was up); a member tells every controller it follows.
// Message 127 carries (host shutdown started 0/1, slot index).
void StCTrl::setAppEndEvent()
{
    EVENTMSGINFO ev;
    const int started = GetStartShutdownStatus() ? 1 : 0;
    if (isController()) {
        if (GetStateUPS() >= 2) {
            makeEvent(&ev, ThCtrlSlot0, EvShutdownStatus, {started, 0});
            post(&ev);
        }
        return;
    }
    for (int k = 0; k < 4; ++k) {
        if (!IsContActive(k))
            continue;
        makeEvent(&ev, GetMyThreadOffset(k), EvShutdownStatus, {started, k});
        post(&ev);
    }
}
