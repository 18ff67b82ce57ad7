// ChildProcess: helpers for tests that start processes or wait for what
// another thread or process does. Every wait here is bounded.
#pragma once

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/types.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/fakes/TempDir.h"

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
    int status = 0;
    if (waitFor([&] { return waitpid(pid, &status, WNOHANG) == pid; }, seconds, 50))
        return status;
    kill(pid, SIGKILL);
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

// Replaces the calling (child) process with args[0] run with args; 127 when
// it cannot be run.
[[noreturn]] inline void execArgs(const std::vector<std::string>& args)
{
    std::vector<char*> argv;
    for (const std::string& a : args)
        argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

// Starts args[0] with standard input and output on `in` and `out` (-1:
// /dev/null) and `env` added to the environment; its pid.
inline pid_t spawnProgram(const std::vector<std::string>& args, int in, int out, const std::vector<std::string>& env)
{
    pid_t pid = fork();
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(in >= 0 ? in : devnull, 0);
        dup2(out >= 0 ? out : devnull, 1);
        for (const std::string& e : env)
            putenv(strdup(e.c_str()));
        execArgs(args);
    }
    return pid;
}

// A child's exit status (-1: not a normal exit in time) and its output.
struct ChildRun {
    int status = -1;
    std::string out, err;
};

// Runs fn in a forked child (output to files in `scratch`), killed after
// `seconds`; it ends with status 0 when fn returns (unflushed stdio is lost).
template <typename Fn>
ChildRun runChild(const std::string& scratch, Fn fn, int seconds = 20)
{
    static int runs = 0;
    const std::string stem = scratch + "/child-" + std::to_string(++runs);
    pid_t pid = fork();
    if (pid == 0) {
        int out = open((stem + ".out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = open((stem + ".err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0)
            _exit(126);
        fn();
        _exit(0);
    }
    ChildRun run;
    int status = pid < 0 ? -1 : waitBounded(pid, seconds);
    if (status != -1 && WIFEXITED(status))
        run.status = WEXITSTATUS(status);
    run.out = readFile(stem + ".out");
    run.err = readFile(stem + ".err");
    return run;
}

// Runs a program (args[0] is its path) the same way.
inline ChildRun runProgram(const std::string& scratch, const std::vector<std::string>& args, int seconds = 20)
{
    return runChild(scratch, [&] { execArgs(args); }, seconds);
}
