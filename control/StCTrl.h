// StCTrl: the controller core (global gCStCtrl). It owns the one event queue
// through which every worker thread receives its work, the UPS/battery/power
// state of this machine, the per-controller shutdown settings and status, and
// the rules that turn notifications into events and drive the countdown.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <initializer_list>
#include <string>

#include "control/Codes.h"
#include "control/Records.h"
#include "core/MutexControl.h"

class Clock;
class FileMap;
class UpsDataBlock;

class StCTrl {
public:
    // Power phase of a controller slot.
    enum Phase { PhaseNormal = 0, PhaseWink = 1, PhaseCountdown = 2, PhaseEnded = 3, PhaseAppEnd = 4 };

    // Per-controller power record (ten 32-bit values).
    struct PowerRecord {
        int32_t phase;            // Phase
        int32_t remaining;        // remaining countdown minutes
        int32_t reportValue;      // countdown report value added to log code 204
        int32_t memberEnded;      // a member-side countdown end (6007-6009) was applied
        int32_t failureStart;     // wall-clock time the power failure began
        int32_t lastSchedule;     // last schedule minutes reported (-1 none)
        int32_t scheduleTimer;    // stored schedule timer id (0 none)
        int32_t endInProgress;    // countdown end in progress
        int32_t reason;           // reason of the last countdown end
        int32_t reported;         // member: a power report of the slot's controller arrived
    };

    // Shutdown settings of a controller slot.
    struct Settings {
        int32_t winkTime;        // seconds
        int32_t countdownTime;   // minutes
        int32_t appEndTime;      // seconds
        int32_t shutdownDelay;   // seconds
        std::string runCommand;
    };

    // What the daemon's own controller core reads, handed over once by the
    // composition root: the addresses of the pointers start-up fills (the
    // core exists before the maps are loaded) and the home directory.
    struct Wiring {
        FileMap** config = nullptr;           // "Kestrava.ini"
        FileMap** members = nullptr;          // "Membercnt.cfg" (member role)
        UpsDataBlock** ups = nullptr;         // the UPS data (its active alarms)
        const std::string* homeDir = nullptr; // where "upsCommInfo.tmp" is written
    };

    // clock: the clock every decision time is read from (the system clock by
    // default). config: the configuration map to read (none: every key
    // reads empty). A core made this way has no member map, no UPS data and
    // publishes no UPS communication text.
    explicit StCTrl(Clock* clock = nullptr, FileMap* config = nullptr);
    // The daemon's controller core.
    explicit StCTrl(const Wiring& wiring);
    virtual ~StCTrl();

    StCTrl(const StCTrl&) = delete;
    StCTrl& operator=(const StCTrl&) = delete;

    // ---- queue ----
    // Queues the event for its addressee. Once the composition root has
    // marked threads as running, an event for a thread that does not run is
    // dropped with a log line instead: it would stay at the head of the one
    // queue and hold up every later event.
    int SetEvent(EVENTMSGINFO* ev);
    // Marks a thread number as running (called as each worker starts).
    // While no number is marked, events for every number are queued.
    void markRunning(int number);
    bool delivers(int to) const;
    int GetEvent(EVENTMSGINFO* out, int me);
    int SetNotify(_NOTIFYMSGINFO* nt);
    void set_event_pushback(EVENTMSGINFO* ev);
    // Number of events waiting (for tests and diagnostics).
    size_t queuedEvents();
    // Takes the head event whatever its addressee, without waiting; false when
    // the queue is empty (for tests that inspect what the rules posted).
    bool popHeadForTest(EVENTMSGINFO* out);

    // ---- start ----
    void LetsGo(bool setLater);

    // ---- state ----
    void Set_State_UPS(int v) { mStateUps = v; }
    int GetStateUPS() const { return mStateUps; }
    void Set_State_BATTERY(int v) { mStateBattery = v; }
    int GetStateBATTERY() const { return mStateBattery; }
    void Set_State_POWER(int v) { mStatePower = v; }
    int GetStatePOWER() const { return mStatePower; }

    static int GetMyThreadOffset(int k) { return k + 8; }
    static int SetMyThreadOffset(int n) { return n - 8; }

    int getWinkTime(int k);
    int getCountdownTime(int k);
    int getAppEndTime(int k);
    int getShutdownDelay(int k);
    std::string getRunCommand(int k);

    void setShutdownTiming(int k);
    void getShutdownTiming(int k);

    PowerRecord& power(int k) { return mPower[k & 3]; }
    // Copies of slot k's power record and settings taken under the rules'
    // lock (slot 0), for readers outside the rules (the console's status).
    void slotSnapshot(int k, PowerRecord* p, Settings* s) { mMutex.Lock(0); *p = mPower[k & 3]; *s = mSettings[k & 3]; mMutex.unLock(0); }
    time_t now() const { return mNow; }
    void refreshNow();

    // ---- status record ----
    void GetContInfo(ShutCNT* out);
    void CheckContInfo();
    // Called (from the writing thread, under the member-information lock)
    // when the record comes to differ from what CheckContInfo last saw; set
    // once at start-up, before the threads run.
    void setContInfoWake(std::function<void()> wake) { mContWake = std::move(wake); }
    int SetOutPutStatus(bool on, bool quiet, int slot);
    void SetMemCfgPort(int index, unsigned short port);
    void SetUPSCommInfo(const char* text);
    // True when the UPS data reports this alarm for the slot (false with no data).
    bool upsAlarmActive(int alarm, int k);

    void ShutDownSetSCHStatus(int k, int v);
    int ShutDownGetSCHStatus(int k);
    void ShutDownSetPFStatus(int k, int v);
    bool ShutDownGetPFStatus(int k);
    void ShutDownSetCommStatus(int k, int v);
    int ShutDownGetCommStatus(int k);
    void ShutDownSetUPSCom(int k, int v);
    void SetAPPEndStatus(int k, int v);
    void CancelAppTime(int k);
    void StartPFAPPEnd(int k);
    bool GetPFAPPEnd(int k);
    void EndPFAPPEnd(int k);
    int GetAppStatus(int k);
    int GetDummyAPP_Down(int k);
    int GetStartShutdownStatus();

    // Member role: controllers followed.
    void SetMemberContCount(int count);
    void SetMemberContActive(int k, bool active);
    bool IsContActive(int k);
    DG2_ShutdownTimming* ShutdownTimming() { return &mTiming; }
    bool* TimingChanged() { return &mTimingChanged; }
    void SetCheckResult(int r) { mCheckResult = r; }
    int GetCheckResult() const { return mCheckResult; }

    // ---- event builders (fill a record, do not post it) ----
    void setDetectTimerStartEvent(EVENTMSGINFO* ev);
    void setPollingEvent(EVENTMSGINFO* ev);
    void setWinkTimerStartEvent(EVENTMSGINFO* ev);
    void setWinkTimerStartEvent(EVENTMSGINFO* ev, int elapsed, int n);
    void setShutdownTimerStartEvent(EVENTMSGINFO* ev, int n);
    void setShutdownTimerStartEvent(EVENTMSGINFO* ev, int elapsed, int n);
    void setAppTermTimerStart(EVENTMSGINFO* ev, int n);
    void setDummyAppTermTimerStart(EVENTMSGINFO* ev, int n);
    void setLogDeleteTimerStartEvent(EVENTMSGINFO* ev);
    void setLogDeleteTimerStopEvent(EVENTMSGINFO* ev);
    void setMeterTimerStartEvent(EVENTMSGINFO* ev);
    void setMeterTimerStopEvent(EVENTMSGINFO* ev);
    void setHealthChkTimerStopEvent(EVENTMSGINFO* ev, int n);
    void setWinkTimerStopEvent(EVENTMSGINFO* ev, int n);
    void setShutdownTimerStopEvent(EVENTMSGINFO* ev, int n);
    void CancelAppTermTimerStart(EVENTMSGINFO* ev, int n);
    void setAllTimerStopEvent(EVENTMSGINFO* ev, int flag);
    void setWinkTimerResetEvent(EVENTMSGINFO* ev, int seconds, int n);
    void setAppTermEvent(EVENTMSGINFO* ev, int n);
    void setShutdownEvent(EVENTMSGINFO* ev);
    void setPowerWrongEvent(EVENTMSGINFO* ev, int n);
    void setPowerRecoveryEvent(EVENTMSGINFO* ev, int n);
    bool setPowerLogEvent(EVENTMSGINFO* ev, int code, int n);
    void setMeterLogEvent(EVENTMSGINFO* ev);
    void setMeterLogEvent(EVENTMSGINFO* ev, int flag);
    void setPutUpsStatusEvent(EVENTMSGINFO* ev);

    static int searchNo(const int32_t* list, int count, int value);
    // Clears the record and fills addressee, code and parameters.
    static void makeEvent(EVENTMSGINFO* ev, int to, int code, std::initializer_list<int> params);

    // ---- rules (run under slot 0 by SetNotify) ----
    void NotifyToEvent(_NOTIFYMSGINFO* nt);
    // Logs the alarm codes of a poll result for slot n as events 500 (owner
    // first, each code once, split before an event passes 255 parameters),
    // translated by the slot's phase; cond, utility and elapsed are the poll
    // result's first three values.
    void logAlarmCodes(const int32_t* codes, int num, int cond, int utility, int elapsed, int n);

    // ---- countdown and shutdown timing ----
    void countdownStart(EVENTMSGINFO* ev, int elapsed, int n);
    void countdownContinue(EVENTMSGINFO* ev, int n);
    void countdownCancel(EVENTMSGINFO* ev, int n);
    void countdownEnd(EVENTMSGINFO* ev, int reason, int n, bool powerFailure);
    bool ISStartShutdown(int k, int reason);
    void StartShutdown(int k, int reason);
    // Member with several controllers: slot i still feeds this host.
    bool stillSupplies(int i);
    void shutdown(EVENTMSGINFO* ev, int n);
    void setHappenPowerEvent(int n);
    void setAppEndEvent();
    void setLogConfig();

    // Reads a configuration key through the map this controller uses.
    std::string conf(const std::string& key);
    int confNum(const std::string& key);
    // A numeric key limited to [lo, hi] (clamped with a log line): the
    // seconds and minutes that become timer expiries.
    int confBounded(const std::string& key, int lo, int hi);
    bool isController(); // "UPSController" is not "2"

private:
    // Post helpers used by the rules.
    void post(EVENTMSGINFO* ev) { SetEvent(ev); }
    void postLog(int code, int owner);
    void postTimerStart(int id, int expiry, int interval, int owner);
    void postTimerStop(int id);
    void postMeterControl(int flag);
    void restartMeterTimer();

    // Rule groups: dispatch and UPS link (StCTrlRules.cpp).
    void upsLinkRule(_NOTIFYMSGINFO* nt);
    void timerExpiry(_NOTIFYMSGINFO* nt);
    void networkRule(_NOTIFYMSGINFO* nt);
    // Power, schedule and application-end rules (StCTrlPowerRules.cpp).
    void powerRules(_NOTIFYMSGINFO* nt, int n);
    void alarmList(_NOTIFYMSGINFO* nt, int n);
    void winkExpiry(int n);
    void countdownTick(int n);
    void appEndExpiry(int n);
    void scheduleTimerExpiry(int id, int owner);
    void scheduleRule(_NOTIFYMSGINFO* nt);
    void memberCountdownEnd(_NOTIFYMSGINFO* nt);
    void daemonStopping();
    void appCommandLaunched();

    std::deque<EVENTMSGINFO> mQueue;
    // Read without the controller's lock (the start-up wait for the UPS, the
    // UPS link thread), written under it by the rules.
    std::atomic<int> mStateUps;
    std::atomic<int> mStateBattery;
    std::atomic<int> mStatePower;
    PowerRecord mPower[4];
    Settings mSettings[4];
    time_t mNow;
    std::string mDumpLogRate;
    MutexControl mMutex;
    ShutCNT mCont;
    ShutCNT mContSnapshot;
    std::function<void()> mContWake;
    // After a write of mCont (member-information lock held): wakes the status check.
    void contInfoWritten();
    DG2_ShutdownTimming mTiming;
    bool mTimingChanged;
    int mCheckResult;
    int mMemberContCount;
    Clock* mClock;
    FileMap* mConfig;
    Wiring mWiring;
    std::atomic<unsigned> mRunning; // bit n: thread n runs
};
