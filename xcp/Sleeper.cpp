#include "xcp/Sleeper.h"

#include <cerrno>
#include <ctime>

namespace {
class RealSleeper : public Sleeper {
public:
    void sleepMs(int ms) override
    {
        if (ms <= 0)
            return;
        timespec ts;
        ts.tv_sec = ms / 1000;
        ts.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
        while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
        }
    }
};
} // namespace

Sleeper& Sleeper::real()
{
    static RealSleeper sleeper;
    return sleeper;
}
