#include "core/TimerFdWait.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <string>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include "core/ErrorLog.h"

TimerFdWait::TimerFdWait()
    : mTimer(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK)),
      mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK))
{
    if (!ready())
        ErrorLog::report(std::string("timer service: no timer descriptor (") + std::strerror(errno) +
                         "), ticking once a second");
}

TimerFdWait::~TimerFdWait()
{
    if (mTimer >= 0)
        close(mTimer);
    if (mWake >= 0)
        close(mWake);
}

void TimerFdWait::arm(time_t second)
{
    if (mTimer < 0)
        return;
    struct itimerspec setting;
    memset(&setting, 0, sizeof setting);
    // A zero value would disarm: the earliest second stands for "already due".
    setting.it_value.tv_sec = second > 0 ? second : 1;
    if (timerfd_settime(mTimer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &setting, nullptr) == 0)
        return;
    // ECANCELED: the clock was set since the last read and this call took
    // that news from the waiting thread (the timer is armed all the same),
    // so pass it on as a wake.
    if (errno == ECANCELED)
        wake();
}

TimerWait::Result TimerFdWait::wait()
{
    if (!ready()) {
        sleep(1);
        return Expired;
    }
    for (;;) {
        struct pollfd fds[2] = {{mTimer, POLLIN, 0}, {mWake, POLLIN, 0}};
        if (poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            ErrorLog::report(std::string("timer service: poll failed: ") + std::strerror(errno));
            sleep(1);
            return Expired;
        }
        bool woken = false;
        if (fds[1].revents & POLLIN) {
            uint64_t count;
            woken = read(mWake, &count, sizeof count) == sizeof count;
        }
        if (fds[0].revents & POLLIN) {
            uint64_t count;
            ssize_t n = read(mTimer, &count, sizeof count);
            if (n < 0 && errno == ECANCELED)
                return ClockSet;
            if (n == sizeof count)
                return Expired;
        }
        if (woken)
            return Woken;
    }
}

void TimerFdWait::wake()
{
    if (mWake < 0)
        return;
    uint64_t one = 1;
    // A full counter is still readable: the wake is not lost.
    (void)!write(mWake, &one, sizeof one);
}
