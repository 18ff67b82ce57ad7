// TimerIFTh: the timer list and its 300 ms tick (thread number 1). Holds at
// most one running timer per id (0..331) in starting order, shifts all of
// them when the wall clock jumps, and reports each expiry to the controller
// as notification 1000 (id, seconds late, owner).
#pragma once

#include <atomic>
#include <list>

#include "control/Records.h"
#include "core/MutexControl.h"
#include "core/tthread.h"

class Clock;
class StCTrl;

class TimerIFTh : public tthread {
public:
    // Number of timer ids: 0..331.
    static const int kIds = 332;

    // ctrl: the controller expiries are reported to. clock: the wall clock
    // the ticks read (null = the system clock).
    TimerIFTh(int number, StCTrl* ctrl, Clock* clock = nullptr);
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
    // Ends thread_main after its current tick (for tests; the daemon's tick
    // loop runs until the process ends).
    void requestStop() { mStop.store(true); }

protected:
    void thread_main() override;
    // The wait between two ticks (300 ms).
    virtual void pause();

private:
    struct Slot {
        bool active;
        std::list<TimerMng>::iterator entry;
    };

    static bool validId(int id) { return id >= 0 && id < kIds; }

    static const int kListLock = 3;

    time_t mLast;
    Slot mSlots[kIds];
    std::list<TimerMng> mTimers;
    MutexControl mMutex;
    StCTrl* mCtrl;
    Clock* mClock;
    std::atomic<bool> mStop;
};
