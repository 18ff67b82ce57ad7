// ManualTimerWait: the timer service's wait in virtual time on a ManualClock.
// Each wait first runs the test's step (what happens while the thread
// sleeps), then returns ClockSet after setClock(), Woken after wake(), or
// else moves the clock (wall and monotonic) to the armed second and returns
// Expired. Every arm() is recorded.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <vector>

#include "core/TimerWait.h"
#include "tests/fakes/ManualClock.h"

class ManualTimerWait : public TimerWait {
public:
    explicit ManualTimerWait(ManualClock& clock) : mClock(clock) {}

    void arm(time_t second) override
    {
        std::lock_guard<std::mutex> l(mMutex);
        mArmed = second;
        mArms.push_back(second);
    }

    Result wait() override
    {
        if (++mWaits > kMaxWaits) {
            fprintf(stderr, "ManualTimerWait: the loop did not stop after %d waits\n", kMaxWaits);
            abort();
        }
        if (onWait)
            onWait(mWaits);
        std::lock_guard<std::mutex> l(mMutex);
        if (mClockSet) {
            mClockSet = false;
            return ClockSet;
        }
        if (mWoken) {
            mWoken = false;
            return Woken;
        }
        if (mArmed > mClock.now())
            mClock.advance(mArmed - mClock.now());
        return Expired;
    }

    void wake() override
    {
        std::lock_guard<std::mutex> l(mMutex);
        mWoken = true;
    }

    // Sets the wall clock as an administrator would: the wait returns at once.
    void setClock(time_t t)
    {
        std::lock_guard<std::mutex> l(mMutex);
        mClock.set(t);
        mClockSet = true;
    }

    std::vector<time_t> arms()
    {
        std::lock_guard<std::mutex> l(mMutex);
        return mArms;
    }
    time_t armed()
    {
        std::lock_guard<std::mutex> l(mMutex);
        return mArmed;
    }
    int waits() const { return mWaits; }

    // Runs at the start of wait number n (1, 2, ...) on the waiting thread.
    std::function<void(int n)> onWait;

private:
    static const int kMaxWaits = 10000;
    ManualClock& mClock;
    std::mutex mMutex;
    time_t mArmed = 0;
    std::vector<time_t> mArms;
    bool mClockSet = false;
    bool mWoken = false;
    int mWaits = 0;
};
