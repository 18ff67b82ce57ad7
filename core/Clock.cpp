#include "core/Clock.h"

// The precise clock, not time(): time() may still show the previous second
// for a moment after a timer armed on CLOCK_REALTIME fired for the next one.
time_t SystemClock::now()
{
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ts.tv_sec;
}

int64_t SystemClock::monotonicNs()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

Clock& Clock::system()
{
    static SystemClock clock;
    return clock;
}
