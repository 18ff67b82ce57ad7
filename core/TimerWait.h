// TimerWait: what the timer service's thread sleeps on between two ticks. It
// is armed at a wall-clock second and returns when that second is reached,
// at once when the wall clock is set, or when another thread wakes it. The
// daemon uses TimerFdWait; tests use a wait that runs in virtual time.
#pragma once

#include <ctime>

class TimerWait {
public:
    enum Result {
        Expired,  // the armed second was reached
        ClockSet, // the wall clock was set (stepped) while waiting
        Woken,    // wake() was called
    };

    virtual ~TimerWait() {}

    // Arms the wait for the wall-clock second `second` (a past second makes
    // the next wait return at once). Safe from any thread.
    virtual void arm(time_t second) = 0;
    // Blocks until one of the results happens.
    virtual Result wait() = 0;
    // Makes the current or next wait return. Safe from any thread.
    virtual void wake() = 0;
};
