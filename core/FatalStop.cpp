#include "core/FatalStop.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {
struct State {
    std::mutex lock;
    std::condition_variable woken;
    bool requested = false;
    int status = 0;
    std::string reason;
    // Made once, before any request can be made (the first call of state()).
    int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
};

State& state()
{
    static State s;
    return s;
}
} // namespace

void FatalStop::request(int status, const char* why)
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    if (s.requested)
        return;
    s.requested = true;
    s.status = status;
    s.reason = why ? why : "";
    s.woken.notify_all();
    if (s.fd >= 0) {
        const uint64_t one = 1;
        ssize_t n = write(s.fd, &one, sizeof one);
        (void)n;
    }
}

int FatalStop::descriptor() { return state().fd; }

int FatalStop::wait()
{
    State& s = state();
    std::unique_lock<std::mutex> hold(s.lock);
    s.woken.wait(hold, [&] { return s.requested; });
    return s.status;
}

bool FatalStop::waitFor(int seconds)
{
    State& s = state();
    std::unique_lock<std::mutex> hold(s.lock);
    return s.woken.wait_for(hold, std::chrono::seconds(seconds), [&] { return s.requested; });
}

bool FatalStop::requested()
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    return s.requested;
}

int FatalStop::status()
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    return s.status;
}

const char* FatalStop::reason()
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    return s.reason.c_str();
}

void FatalStop::resetForTests()
{
    State& s = state();
    std::lock_guard<std::mutex> hold(s.lock);
    s.requested = false;
    s.status = 0;
    s.reason.clear();
    uint64_t count;
    while (s.fd >= 0 && read(s.fd, &count, sizeof count) > 0) {
    }
}
