// DaemonSandbox: the real daemon and the UPS simulator for an integration
// test, in a home directory of their own ("/tmp/<stem>XXXXXX/"): the
// `kestrava` symlink beside Kestrava.ini and the shipped alert.rc, a
// shutdown command script, a fake `wall` first in PATH, a "log" directory,
// and the pid file and lock directory moved inside through
// KESTRAVA_PID_FILE, KESTRAVA_LOCK_DIR and KESTRAVA_SHUTDOWN_CMD.
// It starts kestrava-upssim and reads the terminal path it prints, sends it
// runtime commands, starts the daemon and reads its pid from the pid file,
// and finish() ends both by pid with bounded waits. The home directory is
// removed, or kept (and named on standard error) when the test failed.
// Every wait is bounded and looks again every `pollMs`.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

class DaemonSandbox {
public:
    DaemonSandbox(const std::string& stem, int pollMs) : mDir(stem), mPollMs(pollMs)
    {
        if (mDir.made()) {
            home = mDir.path() + "/";
            frames = home + "frames.log";
        }
    }
    ~DaemonSandbox() { finish(::testing::Test::HasFailure()); }
    DaemonSandbox(const DaemonSandbox&) = delete;
    DaemonSandbox& operator=(const DaemonSandbox&) = delete;

    // Checks `cond` until it holds, at most `seconds`.
    template <typename Cond>
    bool waitFor(Cond cond, int seconds)
    {
        return ::waitFor(cond, seconds, mPollMs);
    }

    // The home directory with its "lock", "bin" and "log" directories.
    void makeHome()
    {
        ASSERT_TRUE(mDir.made());
        mkdir((home + "lock").c_str(), 0755);
        mkdir((home + "bin").c_str(), 0755);
        mkdir((home + "log").c_str(), 0755);
    }

    // The Kestrava.ini keys every sandboxed daemon needs: this home as its
    // path, no meter log, and its console, controller and member ports on
    // the loopback from `basePort` on.
    std::string homeKeys(int basePort) const
    {
        return "Path=" + home.substr(0, home.size() - 1) + "\n" +
               "DumpLogRate=0\n"
               "DumpLogDays=30\n"
               "CuiPort=" + std::to_string(basePort) + "\n" +
               "IPAddress=127.0.0.1\n"
               "CtrlPort1=" + std::to_string(basePort + 1) + "\n" +
               "MemberPort=" + std::to_string(basePort + 2) + "\n";
    }

    // Kestrava.ini with `ini`, the shipped alert.rc, "shutdown.sh" with
    // `shutdownScript`, the fake `wall` (appends its text to "wall.txt")
    // and the `kestrava` symlink to the daemon.
    void writeHomeFiles(const std::string& ini, const std::string& shutdownScript)
    {
        writeFile(home + "Kestrava.ini", ini, 0644);
        writeFile(home + "alert.rc", readFile(std::string(KESTRAVA_SOURCE_DIR) + "/packaging/alert.rc"), 0644);
        writeFile(home + "shutdown.sh", shutdownScript, 0755);
        writeFile(home + "bin/wall", "#!/bin/sh\necho \"$*\" >> " + home + "wall.txt\nexit 0\n", 0755);
        std::string daemon = std::string(KESTRAVA_BINARY_DIR) + "/kestrava";
        ASSERT_EQ(symlink(daemon.c_str(), (home + "kestrava").c_str()), 0);
    }

    // Starts the simulator (frame log in `frames`, quiet, then `options`)
    // and reads the terminal path from its first line of output.
    void startSimulator(const std::vector<std::string>& options)
    {
        int in[2], out[2];
        ASSERT_EQ(pipe(in), 0);
        ASSERT_EQ(pipe(out), 0);
        simPid = fork();
        ASSERT_GE(simPid, 0);
        if (simPid == 0) {
            dup2(in[0], 0);
            dup2(out[1], 1);
            close(in[0]);
            close(in[1]);
            close(out[0]);
            close(out[1]);
            std::string bin = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-upssim";
            std::vector<std::string> args = {bin, "--log", frames, "--quiet"};
            args.insert(args.end(), options.begin(), options.end());
            std::vector<char*> argv;
            for (std::string& a : args)
                argv.push_back(&a[0]);
            argv.push_back(nullptr);
            execv(bin.c_str(), argv.data());
            _exit(127);
        }
        close(in[0]);
        close(out[1]);
        simIn = in[1];
        simOut = out[0];
        ttyPath = readSimLine(10);
    }

    // One line of the simulator's standard output, waiting at most `seconds`.
    std::string readSimLine(int seconds)
    {
        std::string line;
        auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
        while (std::chrono::steady_clock::now() < end) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(simOut, &set);
            struct timeval tv = {0, 200000};
            if (select(simOut + 1, &set, nullptr, nullptr, &tv) <= 0)
                continue;
            char c;
            if (read(simOut, &c, 1) != 1)
                break;
            if (c == '\n')
                return line;
            line += c;
        }
        return line;
    }

    // A runtime command to the simulator; true when it answered "ok".
    bool simCommand(const std::string& cmd)
    {
        std::string line = cmd + "\n";
        if (write(simIn, line.data(), line.size()) != static_cast<ssize_t>(line.size()))
            return false;
        return readSimLine(10).rfind("ok", 0) == 0;
    }

    // Runs the daemon through its symlink with the overrides and the fake
    // `wall`; daemonPid is then the pid from the pid file.
    void startDaemon()
    {
        pid_t starter = fork();
        ASSERT_GE(starter, 0);
        if (starter == 0) {
            setenv("KESTRAVA_PID_FILE", (home + "Kestrava.pid").c_str(), 1);
            setenv("KESTRAVA_LOCK_DIR", (home + "lock").c_str(), 1);
            setenv("KESTRAVA_SHUTDOWN_CMD", (home + "shutdown.sh").c_str(), 1);
            std::string path = home + "bin:" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
            setenv("PATH", path.c_str(), 1);
            int devnull = open("/dev/null", O_RDWR);
            if (devnull >= 0) {
                dup2(devnull, 0);
                dup2(devnull, 1);
            }
            std::string self = home + "kestrava";
            execl(self.c_str(), self.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        // The daemon detaches: the started process returns soon, the daemon
        // lives on under the pid written to the pid file.
        int status = 0;
        waitFor([&] { return waitpid(starter, &status, WNOHANG) == starter; }, 20);
        if (pidAlive(starter) && waitpid(starter, &status, WNOHANG) == 0) {
            // Not detached after all: it is the daemon itself.
            daemonPid = starter;
            directChild = true;
        }
        waitFor(
            [&] {
                auto l = readLines(home + "Kestrava.pid");
                if (l.empty())
                    return false;
                daemonPid = static_cast<pid_t>(atol(l[0].c_str()));
                return daemonPid > 0;
            },
            20);
    }

    // Termination signal, then the kill signal when it is still there.
    void stopDaemon()
    {
        if (daemonPid <= 0)
            return;
        kill(daemonPid, SIGTERM);
        if (!waitFor([&] { return !pidAlive(daemonPid) || reapedDirect(); }, 15)) {
            kill(daemonPid, SIGKILL);
            waitFor([&] { return !pidAlive(daemonPid) || reapedDirect(); }, 5);
        }
        daemonPid = -1;
    }

    void stopSimulator()
    {
        if (simPid > 0) {
            kill(simPid, SIGTERM);
            int status;
            if (!waitFor([&] { return waitpid(simPid, &status, WNOHANG) == simPid; }, 10)) {
                kill(simPid, SIGKILL);
                waitpid(simPid, &status, 0);
            }
            simPid = -1;
        }
        if (simIn >= 0)
            close(simIn);
        if (simOut >= 0)
            close(simOut);
        simIn = simOut = -1;
    }

    // Ends the daemon and the simulator; removes the home directory, or
    // keeps it when `keep` (a failed test).
    void finish(bool keep)
    {
        stopDaemon();
        stopSimulator();
        if (home.empty() || mFinished)
            return;
        mFinished = true;
        if (keep) {
            mDir.keep();
            fprintf(stderr, "test files kept in %s\n", home.c_str());
        }
    }

    std::string home;   // with a trailing slash
    std::string frames; // the simulator's frame log
    std::string ttyPath;
    pid_t simPid = -1;
    pid_t daemonPid = -1;
    bool directChild = false; // the daemon did not detach: reap it ourselves
    int simIn = -1;
    int simOut = -1;

private:
    bool reapedDirect()
    {
        int status;
        return directChild && waitpid(daemonPid, &status, WNOHANG) == daemonPid;
    }

    TempDir mDir;
    int mPollMs;
    bool mFinished = false;
};
