// ChildProcess: helpers for tests that start processes or wait for what
// another thread or process does. Every wait here is bounded: waitFor polls
// a condition until it holds or the time is up, waitBounded waits for a
// child and kills it when it does not end in time; deadPid gives a pid that
// belonged to a process already ended and reaped; pidAlive tells whether a
// pid (not necessarily a child) is still in use.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// Checks `cond` every `pollMs` until it holds or `seconds` have passed;
// whether it held (checked once more at the end).
template <typename Cond>
bool waitFor(Cond cond, int seconds, int pollMs)
{
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (std::chrono::steady_clock::now() < deadline) {
        if (cond())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(pollMs));
    }
    return cond();
}

// Waits at most `seconds` for the child (every 50 ms); kills it on time-out.
// Returns the wait status, or -1 when the child had to be killed.
inline int waitBounded(pid_t pid, int seconds)
{
    for (int i = 0; i < seconds * 20; ++i) {
        int status = 0;
        if (waitpid(pid, &status, WNOHANG) == pid)
            return status;
        usleep(50 * 1000);
    }
    kill(pid, SIGKILL);
    int status = 0;
    waitpid(pid, &status, 0);
    return -1;
}

// A pid that belonged to a process which has ended and been reaped.
inline pid_t deadPid()
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(0);
    waitpid(pid, nullptr, 0);
    return pid;
}

// True while a process with this pid exists (ours to signal or not).
inline bool pidAlive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }
