// ManualClock: a clock that tests set and step by hand, to simulate time
// passing and clock jumps without touching the machine's clock.
#pragma once

#include <atomic>

#include "core/Clock.h"

class ManualClock : public Clock {
public:
    explicit ManualClock(time_t start = 1794000000) : mNow(start) {}
    time_t now() override { return mNow.load(); }
    void set(time_t t) { mNow.store(t); }
    void advance(time_t seconds) { mNow.fetch_add(seconds); }

private:
    std::atomic<time_t> mNow;
};
