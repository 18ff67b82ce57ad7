#include "core/Clock.h"

time_t SystemClock::now() { return ::time(nullptr); }

Clock& Clock::system()
{
    static SystemClock clock;
    return clock;
}
