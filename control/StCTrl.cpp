// Controller core: the event queue, state accessors, status record and the
// event builders. The notification rules live in StCTrlRules.cpp and the
// countdown path in StCTrlCountdown.cpp.
#include "control/StCTrl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <syslog.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "core/BoundedNumber.h"
#include "core/Clock.h"
#include "xcp/UpsDataBlock.h"

namespace {
const int kNotifySlot = 0;
const int kQueueSlot = 1;
// Largest timing values taken from the configuration: one day.
const int kMaxSeconds = 86400;
const int kMaxMinutes = 1440;
} // namespace

StCTrl::StCTrl(const Wiring& wiring) : StCTrl(nullptr, nullptr) { mWiring = wiring; }

StCTrl::StCTrl(Clock* clock, FileMap* config)
    : mStateUps(0), mStateBattery(0), mStatePower(0), mNow(0), mTimingChanged(false), mCheckResult(0),
      mMemberContCount(0), mClock(clock), mConfig(config), mRunning(0)
{
    memset(mPower, 0, sizeof mPower);
    for (auto& p : mPower) {
        p.lastSchedule = -1;
    }
    for (auto& s : mSettings) {
        s.winkTime = s.countdownTime = s.appEndTime = s.shutdownDelay = 0;
    }
    mMutex.MutexInit();
    memset(&mCont, 0, sizeof mCont);
    mCont.contCount = 1;
    mCont.single = 1;
    mContSnapshot = mCont;
    memset(&mTiming, 0, sizeof mTiming);
}

StCTrl::~StCTrl() {}

// ---------------------------------------------------------------- queue

void StCTrl::set_event_pushback(EVENTMSGINFO* ev)
{
    mMutex.Lock(kQueueSlot);
    mQueue.push_back(*ev);
    mMutex.unLock(kQueueSlot);
}

void StCTrl::markRunning(int number)
{
    if (number >= 0 && number < 32)
        mRunning.fetch_or(1u << number);
}

bool StCTrl::delivers(int to) const
{
    unsigned running = mRunning.load();
    if (running == 0)
        return true;
    return to >= 0 && to < 32 && (running >> to & 1u) != 0;
}

int StCTrl::SetEvent(EVENTMSGINFO* ev)
{
    if (!delivers(ev->to)) {
        const std::string what = eventName(ev->code);
        fprintf(stderr, "kestrava: %s for thread %d dropped: that thread is not running\n", what.c_str(), ev->to);
        syslog(LOG_DAEMON | LOG_WARNING, "%s for thread %d dropped: that thread is not running", what.c_str(), ev->to);
        return 0;
    }
    set_event_pushback(ev);
    int slot = ev->to + 2;
    if (slot >= 2 && slot < MutexControl::kSlots) {
        // Taking the wake-up slot's mutex around the signal means a consumer
        // that has just found the queue empty cannot miss this wake-up.
        mMutex.Lock(slot);
        mMutex.Signal(slot);
        mMutex.unLock(slot);
    }
    return 0;
}

int StCTrl::GetEvent(EVENTMSGINFO* out, int me)
{
    const int wake = me + 2;
    for (;;) {
        mMutex.Lock(wake);
        for (;;) {
            mMutex.Lock(kQueueSlot);
            bool empty = mQueue.empty();
            mMutex.unLock(kQueueSlot);
            if (!empty)
                break;
            mMutex.Wait_time(wake);
        }
        mMutex.Lock(kQueueSlot);
        bool otherHead = false;
        if (!mQueue.empty()) {
            *out = mQueue.front();
            if (mQueue.front().to == me) {
                mQueue.pop_front();
                mMutex.unLock(kQueueSlot);
                mMutex.unLock(wake);
                return 0;
            }
            otherHead = true;
        }
        mMutex.unLock(kQueueSlot);
        mMutex.unLock(wake);
        if (otherHead)
            usleep(100 * 1000);
    }
}

int StCTrl::SetNotify(_NOTIFYMSGINFO* nt)
{
    mMutex.Lock(kNotifySlot);
    NotifyToEvent(nt);
    mMutex.unLock(kNotifySlot);
    return 0;
}

size_t StCTrl::queuedEvents()
{
    mMutex.Lock(kQueueSlot);
    size_t n = mQueue.size();
    mMutex.unLock(kQueueSlot);
    return n;
}

bool StCTrl::popHeadForTest(EVENTMSGINFO* out)
{
    mMutex.Lock(kQueueSlot);
    bool any = !mQueue.empty();
    if (any) {
        *out = mQueue.front();
        mQueue.pop_front();
    }
    mMutex.unLock(kQueueSlot);
    return any;
}

// ---------------------------------------------------------------- configuration

std::string StCTrl::conf(const std::string& key)
{
    FileMap* map = mConfig ? mConfig : mWiring.config ? *mWiring.config : nullptr;
    return map ? map->getConf(key) : std::string();
}

int StCTrl::confNum(const std::string& key) { return static_cast<int>(strtol(conf(key).c_str(), nullptr, 10)); }

int StCTrl::confBounded(const std::string& key, int lo, int hi)
{
    return static_cast<int>(BoundedNumber::read(key, conf(key), lo, hi));
}

bool StCTrl::isController() { return conf("UPSController") != "2"; }

void StCTrl::refreshNow() { mNow = mClock ? mClock->now() : Clock::system().now(); }

// ---------------------------------------------------------------- start

void StCTrl::LetsGo(bool setLater)
{
    EVENTMSGINFO ev;
    refreshNow();
    // Every controller slot has its own timing (a controller uses slot 0).
    for (int k = 0; k < 4; ++k)
        setShutdownTiming(k);
    setLogConfig();
    postLog(LogDaemonStarted, kOwnerDaemon);
    if (setLater)
        postLog(LogStartedSetLater, kOwnerDaemon);
    if (isController()) {
        postMeterControl(MeterStarted);
        setLogDeleteTimerStartEvent(&ev);
        post(&ev);
        setDetectTimerStartEvent(&ev);
        post(&ev);
    }
    SetUPSCommInfo("UPS Monitor Loaded");
}

void StCTrl::setLogConfig() { mDumpLogRate = conf("DumpLogRate"); }

// ---------------------------------------------------------------- settings

int StCTrl::getWinkTime(int k) { return mSettings[k & 3].winkTime; }
int StCTrl::getCountdownTime(int k) { return mSettings[k & 3].countdownTime; }
int StCTrl::getAppEndTime(int k) { return mSettings[k & 3].appEndTime; }
int StCTrl::getShutdownDelay(int k) { return mSettings[k & 3].shutdownDelay; }
std::string StCTrl::getRunCommand(int k) { return mSettings[k & 3].runCommand; }

void StCTrl::setShutdownTiming(int k)
{
    Settings& s = mSettings[k & 3];
    char key[32];
    int idx = (k & 3) + 1;
    // Bounded so that "now" plus any of them stays a valid expiry time.
    snprintf(key, sizeof key, "WinkTime%d", idx);
    s.winkTime = confBounded(key, 0, kMaxSeconds);
    snprintf(key, sizeof key, "ShutdownTime%d", idx);
    s.countdownTime = confBounded(key, 0, kMaxMinutes);
    snprintf(key, sizeof key, "AppTermTimeOut%d", idx);
    s.appEndTime = confBounded(key, 0, kMaxSeconds);
    snprintf(key, sizeof key, "ShutdownDelay%d", idx);
    s.shutdownDelay = confBounded(key, 0, kMaxSeconds);
    snprintf(key, sizeof key, "AppTermCommand%d", idx);
    s.runCommand = conf(key);
}

void StCTrl::getShutdownTiming(int k) { setShutdownTiming(k); }

// ---------------------------------------------------------------- status record

void StCTrl::GetContInfo(ShutCNT* out)
{
    mMutex.MEMInfoLock();
    *out = mCont;
    mMutex.MEMInfoUnLock();
}

void StCTrl::CheckContInfo()
{
    if (conf("UPSController") == "1")
        return;
    mMutex.MEMInfoLock();
    bool changed = memcmp(&mCont, &mContSnapshot, sizeof mCont) != 0;
    mContSnapshot = mCont;
    mMutex.MEMInfoUnLock();
    if (changed) {
        EVENTMSGINFO ev;
        makeEvent(&ev, ThLog, EvControllerInfo, {});
        post(&ev);
    }
}

void StCTrl::contInfoWritten()
{
    if (mContWake && memcmp(&mCont, &mContSnapshot, sizeof mCont) != 0)
        mContWake();
}

int StCTrl::SetOutPutStatus(bool on, bool quiet, int slot)
{
    int k = slot & 3;
    int code = 0;
    mMutex.MEMInfoLock();
    bool several = mCont.contCount > 1;
    if (mCont.outputKnown[k]) {
        if ((mCont.outputStatus[k] != 0) == on)
            code = 0;
        else
            code = (several && !quiet) ? (on ? LogOutputOn : LogOutputOff) : 0;
    } else if (several && !quiet) {
        mCont.outputKnown[k] = 1;
        code = on ? LogOutputOnFirst : LogOutputOffFirst;
    }
    mCont.outputStatus[k] = on ? 1 : 0;
    contInfoWritten();
    mMutex.MEMInfoUnLock();
    return code;
}

void StCTrl::SetMemCfgPort(int index, unsigned short port)
{
    FileMap* members = mWiring.members ? *mWiring.members : nullptr;
    if (!members)
        return;
    char key[32];
    snprintf(key, sizeof key, "Port%d", index);
    members->setConfNum(key, port);
    members->save();
}

void StCTrl::SetUPSCommInfo(const char* text)
{
    // Only the daemon's own controller publishes its text for the console.
    if (!mWiring.homeDir)
        return;
    std::string path = *mWiring.homeDir + "upsCommInfo.tmp";
    FILE* f = fopen(path.c_str(), "w");
    if (!f)
        return;
    fprintf(f, "%s\n", text);
    fclose(f);
}

bool StCTrl::upsAlarmActive(int alarm, int k)
{
    UpsDataBlock* ups = mWiring.ups ? *mWiring.ups : nullptr;
    return ups && ups->isAlarmActive(alarm, k);
}

void StCTrl::ShutDownSetSCHStatus(int k, int v)
{
    mMutex.MEMInfoLock();
    mCont.schStatus[k & 3] = static_cast<uint8_t>(v);
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}
int StCTrl::ShutDownGetSCHStatus(int k) { return mCont.schStatus[k & 3]; }

void StCTrl::ShutDownSetPFStatus(int k, int v)
{
    mMutex.MEMInfoLock();
    mCont.pfStatus[k & 3] = static_cast<uint8_t>(v);
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}
bool StCTrl::ShutDownGetPFStatus(int k) { return mCont.pfStatus[k & 3] == 1 || mCont.pfStatus[k & 3] == 2; }

void StCTrl::ShutDownSetCommStatus(int k, int v)
{
    mMutex.MEMInfoLock();
    mCont.commStatus[k & 3] = static_cast<uint8_t>(v);
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}
int StCTrl::ShutDownGetCommStatus(int k) { return mCont.commStatus[k & 3]; }

void StCTrl::ShutDownSetUPSCom(int k, int v)
{
    mMutex.MEMInfoLock();
    mCont.upsCom[k & 3] = static_cast<uint8_t>(v);
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

void StCTrl::SetAPPEndStatus(int k, int v)
{
    mMutex.MEMInfoLock();
    mCont.appEndStatus[k & 3] = static_cast<uint8_t>(v);
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

void StCTrl::CancelAppTime(int k)
{
    mMutex.MEMInfoLock();
    mCont.appStatus[k & 3] = 0;
    mCont.dummyAppDown[k & 3] = 0;
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

void StCTrl::StartPFAPPEnd(int k)
{
    mMutex.MEMInfoLock();
    mCont.pfAppEnd[k & 3] = 1;
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}
bool StCTrl::GetPFAPPEnd(int k) { return mCont.pfAppEnd[k & 3] != 0; }

void StCTrl::EndPFAPPEnd(int k)
{
    mMutex.MEMInfoLock();
    mCont.pfAppEnd[k & 3] = 0;
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

int StCTrl::GetAppStatus(int k) { return mCont.appStatus[k & 3]; }
int StCTrl::GetDummyAPP_Down(int k) { return mCont.dummyAppDown[k & 3]; }
int StCTrl::GetStartShutdownStatus() { return mCont.startShutdown; }

void StCTrl::SetMemberContCount(int count)
{
    mMutex.MEMInfoLock();
    mMemberContCount = count;
    mCont.contCount = count;
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

void StCTrl::SetMemberContActive(int k, bool active)
{
    mMutex.MEMInfoLock();
    mCont.active[k & 3] = active ? 1 : 0;
    contInfoWritten();
    mMutex.MEMInfoUnLock();
}

bool StCTrl::IsContActive(int k) { return mCont.active[k & 3] != 0; }

// ---------------------------------------------------------------- builders

void StCTrl::setDetectTimerStartEvent(EVENTMSGINFO* ev)
{
    makeEvent(ev, ThTimer, EvTimerStart, {TmUpsDetect, int(mNow + 5), 0, ThCtrlSlot0});
}

void StCTrl::setPollingEvent(EVENTMSGINFO* ev)
{
    makeEvent(ev, ThTimer, EvTimerStart, {TmUpsPoll, int(mNow + 5), 0, ThCtrlSlot0});
}

void StCTrl::setWinkTimerStartEvent(EVENTMSGINFO* ev)
{
    makeEvent(ev, ThTimer, EvTimerStart, {TmWink, int(mNow + getWinkTime(0)), 0, ThCtrlSlot0});
}

void StCTrl::setWinkTimerStartEvent(EVENTMSGINFO* ev, int elapsed, int n)
{
    int k = SetMyThreadOffset(n);
    makeEvent(ev, ThTimer, EvTimerStart, {TmWink + k, int(mNow + getWinkTime(k) - elapsed), 0, n});
}

void StCTrl::setShutdownTimerStartEvent(EVENTMSGINFO* ev, int n)
{
    makeEvent(ev, ThTimer, EvTimerStart, {TmCountdown + SetMyThreadOffset(n), int(mNow + 60), 60, n});
}

void StCTrl::setShutdownTimerStartEvent(EVENTMSGINFO* ev, int elapsed, int n)
{
    makeEvent(ev, ThTimer, EvTimerStart, {TmCountdown + SetMyThreadOffset(n), int(mNow - elapsed + 60), 60, n});
}

void StCTrl::setAppTermTimerStart(EVENTMSGINFO* ev, int n)
{
    int k = SetMyThreadOffset(n);
    makeEvent(ev, ThTimer, EvTimerStart, {TmAppEnd + k, int(mNow + getAppEndTime(k)), 0, n});
}

void StCTrl::setDummyAppTermTimerStart(EVENTMSGINFO* ev, int n)
{
    int k = SetMyThreadOffset(n);
    makeEvent(ev, ThTimer, EvTimerStart, {TmAppEnd + k, int(mNow + getAppEndTime(k) + getShutdownDelay(k)), 0, n});
}

void StCTrl::setLogDeleteTimerStartEvent(EVENTMSGINFO* ev)
{
    makeEvent(ev, ThTimer, EvTimerStart, {TmLogDelete, int(mNow + 1800), 1800, ThCtrlSlot0});
}

void StCTrl::setLogDeleteTimerStopEvent(EVENTMSGINFO* ev)
{
    // Kept as it always was: despite its name this builds a start command
    // that re-uses whatever id and times the record still holds.
    ev->to = ThTimer;
    ev->code = EvTimerStart;
    ev->count = 4;
    ev->params[3] = ThCtrlSlot0;
}

void StCTrl::setMeterTimerStartEvent(EVENTMSGINFO* ev)
{
    int minutes = confBounded("DumpLogRate", 0, kMaxMinutes);
    if (minutes <= 0) {
        // A meter log rate of 0 (or none) turns the periodic measurement off.
        makeEvent(ev, ThTimer, EvTimerStop, {TmMeterLog});
        return;
    }
    makeEvent(ev, ThTimer, EvTimerStart, {TmMeterLog, int(mNow + minutes * 60), minutes * 60, ThCtrlSlot0});
}

void StCTrl::setMeterTimerStopEvent(EVENTMSGINFO* ev) { makeEvent(ev, ThTimer, EvTimerStop, {TmMeterLog}); }

void StCTrl::setHealthChkTimerStopEvent(EVENTMSGINFO* ev, int n)
{
    makeEvent(ev, ThTimer, EvTimerStop, {TmHealth + SetMyThreadOffset(n)});
}

void StCTrl::setWinkTimerStopEvent(EVENTMSGINFO* ev, int n)
{
    makeEvent(ev, ThTimer, EvTimerStop, {TmWink + SetMyThreadOffset(n), n});
}

void StCTrl::setShutdownTimerStopEvent(EVENTMSGINFO* ev, int n)
{
    makeEvent(ev, ThTimer, EvTimerStop, {TmCountdown + SetMyThreadOffset(n), n});
}

void StCTrl::CancelAppTermTimerStart(EVENTMSGINFO* ev, int n)
{
    makeEvent(ev, ThTimer, EvTimerStop, {TmAppEnd + SetMyThreadOffset(n), n});
}

void StCTrl::setAllTimerStopEvent(EVENTMSGINFO* ev, int flag) { makeEvent(ev, ThTimer, EvTimerStopAll, {flag}); }

void StCTrl::setWinkTimerResetEvent(EVENTMSGINFO* ev, int seconds, int n)
{
    makeEvent(ev, ThTimer, EvTimerShift, {TmWink + SetMyThreadOffset(n), seconds});
}

void StCTrl::setAppTermEvent(EVENTMSGINFO* ev, int n) { makeEvent(ev, ThPower, EvAppTerm, {SetMyThreadOffset(n)}); }

void StCTrl::setShutdownEvent(EVENTMSGINFO* ev) { makeEvent(ev, ThPower, EvHostShutdown, {}); }

void StCTrl::setPowerWrongEvent(EVENTMSGINFO* ev, int n)
{
    // The report announces the minutes left to the users (the log thread
    // reads its first value as minutes), so it carries the slot's remaining
    // minutes rather than its power phase.
    makeEvent(ev, ThLog, EvPowerFailReport, {mPower[SetMyThreadOffset(n) & 3].remaining, n});
}

void StCTrl::setPowerRecoveryEvent(EVENTMSGINFO* ev, int n) { makeEvent(ev, ThLog, EvPowerRestoredReport, {n}); }

bool StCTrl::setPowerLogEvent(EVENTMSGINFO* ev, int code, int n)
{
    if (mCont.startShutdown &&
        (code == LogCountdownMinute || code == LogCountdownLast || code == LogCountdownCancelled ||
         code == LogScheduleWarning || code == LogScheduleCancelled))
        return false;
    makeEvent(ev, ThLog, EvLog, {n, code});
    int k = SetMyThreadOffset(n) & 3;
    if (code == LogCountdownMinute) {
        ev->params[2] = mPower[k].remaining;
        ev->count = 3;
    } else if (code == LogScheduleWarning) {
        ev->params[2] = mPower[k].reportValue;
        ev->count = 3;
    }
    return true;
}

void StCTrl::setMeterLogEvent(EVENTMSGINFO* ev) { makeEvent(ev, ThLog, EvMeterLog, {}); }

void StCTrl::setMeterLogEvent(EVENTMSGINFO* ev, int flag) { makeEvent(ev, ThLog, EvMeterLog, {flag}); }

void StCTrl::setPutUpsStatusEvent(EVENTMSGINFO* ev) { makeEvent(ev, ThCtrlSlot0, EvSendUpsStatus, {}); }

void StCTrl::makeEvent(EVENTMSGINFO* ev, int to, int code, std::initializer_list<int> params)
{
    memset(ev, 0, sizeof *ev);
    ev->to = to;
    ev->code = code;
    ev->count = static_cast<int>(params.size());
    int i = 0;
    for (int p : params)
        ev->params[i++] = p;
}

int StCTrl::searchNo(const int32_t* list, int count, int value)
{
    for (int i = 0; i < count; ++i)
        if (list[i] == value)
            return 0;
    return 1;
}

// ---------------------------------------------------------------- posting helpers

void StCTrl::postLog(int code, int owner)
{
    EVENTMSGINFO ev;
    if (setPowerLogEvent(&ev, code, owner))
        post(&ev);
}

void StCTrl::postTimerStart(int id, int expiry, int interval, int owner)
{
    EVENTMSGINFO ev;
    makeEvent(&ev, ThTimer, EvTimerStart, {id, expiry, interval, owner});
    post(&ev);
}

void StCTrl::postTimerStop(int id)
{
    EVENTMSGINFO ev;
    makeEvent(&ev, ThTimer, EvTimerStop, {id});
    post(&ev);
}

void StCTrl::postMeterControl(int flag)
{
    EVENTMSGINFO ev;
    setMeterLogEvent(&ev, flag);
    post(&ev);
}

void StCTrl::restartMeterTimer()
{
    EVENTMSGINFO ev;
    setMeterTimerStopEvent(&ev);
    post(&ev);
    setMeterTimerStartEvent(&ev);
    post(&ev);
}
