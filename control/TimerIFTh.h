// TimerIFTh: the timer list and its tick (thread number 1). Holds at most one
// running timer per id (0..331) in starting order, shifts all of them when
// the wall clock jumps, and reports each expiry to the controller as
// notification 1000 (id, seconds late, owner). The thread sleeps until the
// earliest expiry, a setting of the clock, or a change of the controller's
// member-information record.
#pragma once

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>

#include "control/Records.h"
#include "core/MutexControl.h"
#include "core/tthread.h"

class Clock;
class StCTrl;
class TimerFdWait;
class TimerWait;

class TimerIFTh : public tthread {
public:
    // Number of timer ids: 0..331.
    static const int kIds = 332;

    // ctrl: the controller expiries are reported to. clock: the clocks the
    // ticks read (null = the system clock). wait: what the thread sleeps on
    // (null = a TimerFdWait made when the thread starts).
    TimerIFTh(int number, StCTrl* ctrl, Clock* clock = nullptr, TimerWait* wait = nullptr);
    ~TimerIFTh() override;

    TimerIFTh(const TimerIFTh&) = delete;
    TimerIFTh& operator=(const TimerIFTh&) = delete;

    // Starts a copy of *tm unless its id already runs (then the running
    // timer keeps its expiry). Returns the id.
    int Timer_Start(TimerMng* tm);
    // Removes the timer of the id; 1 when it was not running, else 0.
    // Takes no lock: the caller holds the list lock.
    int Timer_Stop(int id);
    // Timer_Stop under the list lock; returns 0.
    int Timer_Cancel(int id);
    // Moves the expiry of a running timer by the seconds; returns the id,
    // or 0 when the id is not running.
    int Timer_Reset(int id, int seconds);
    // Stops every running timer with id 0..330.
    void Timer_Cancel_All();
    // Stops the running timers whose ids lie in [first, last].
    void Timer_Cancel_All(int first, int last);
    // Fills notification 1000 with (id, late, owner).
    void TimeOut_Set(_NOTIFYMSGINFO* nt, int id, int late, int owner);
    // One tick: shift on a clock jump, report and re-arm or remove what expired.
    void TimeOut_func();

    // True when a timer with that id runs.
    bool isActive(int id);
    // Number of running timers.
    int runningTimers();
    // Ends thread_main after its current ticks (for tests; the daemon's tick
    // loop runs until the process ends). Wakes the wait.
    void requestStop();
    // The controller's member-information record was written: tick without
    // sleeping until the status check has run. Safe from any thread.
    void wakeContInfo();

protected:
    void thread_main() override;

private:
    struct Slot {
        bool active;
        std::list<TimerMng>::iterator entry;
    };

    static bool validId(int id) { return id >= 0 && id < kIds; }
    // The wait before a tick: none while a stop or a status check is pending.
    void pause();
    // Arms the wait at the earliest expiry (with no timer, a day ahead, so
    // that a setting of the clock is still seen). List lock held.
    void armEarliest(time_t now);
    // Re-arms the wait when `expiry` comes before the armed second. List lock held.
    void armIfEarlier(time_t expiry);

    static const int kListLock = 3;

    // The previous tick: its wall-clock second and monotonic reading. A tick
    // expects the wall clock to have moved by the monotonic time in between.
    time_t mLast;
    int64_t mLastMono;
    time_t mArmed; // the second the wait is armed at (0: not armed yet)
    Slot mSlots[kIds];
    std::list<TimerMng> mTimers;
    MutexControl mMutex;
    StCTrl* mCtrl;
    Clock* mClock;
    std::atomic<bool> mStop;
    std::atomic<bool> mContPending;
    std::atomic<TimerWait*> mWait;
    std::unique_ptr<TimerFdWait> mOwnWait;
};
