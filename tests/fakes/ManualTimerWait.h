// ManualTimerWait: the timer service's wait in virtual time on a ManualClock,
// for a loop run on the test's own thread. Each wait runs the test's step
// (what happens while the thread sleeps), then returns ClockSet after
// setClock(), Woken after wake(), or else moves the clock (wall and
// monotonic) to the armed second and returns Expired.
#pragma once

#include <cstdlib>
#include <functional>

#include "core/TimerWait.h"
#include "tests/fakes/ManualClock.h"

class ManualTimerWait : public TimerWait {
public:
    explicit ManualTimerWait(ManualClock& clock) : mClock(clock) {}

    void arm(time_t second) override { mArmed = second; }
    void wake() override { mWoken = true; }
    Result wait() override
    {
        if (++mWaits > 10000)
            abort(); // the loop under test never stopped
        if (onWait)
            onWait(mWaits);
        if (mClockSet || mWoken) {
            Result r = mClockSet ? ClockSet : Woken;
            mClockSet = mWoken = false;
            return r;
        }
        if (mArmed > mClock.now())
            mClock.advance(mArmed - mClock.now());
        return Expired;
    }

    // Sets the wall clock as an administrator would: the wait returns at once.
    void setClock(time_t t) { mClock.set(t), mClockSet = true; }
    time_t armed() const { return mArmed; }

    // Runs at the start of wait number n (1, 2, ...).
    std::function<void(int n)> onWait;

private:
    ManualClock& mClock;
    time_t mArmed = 0;
    bool mClockSet = false, mWoken = false;
    int mWaits = 0;
};
