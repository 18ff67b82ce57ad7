// DaemonSandbox: the real daemon and the UPS simulator for an integration
// test, in a home directory of their own ("/tmp/<stem>XXXXXX/"): the
// `kestrava` symlink beside Kestrava.ini and the shipped alert.rc, a
// shutdown command script, a fake `wall` first in PATH, a "log" directory,
// and the pid file and lock directory moved inside through
// KESTRAVA_PID_FILE, KESTRAVA_LOCK_DIR and KESTRAVA_SHUTDOWN_CMD.
// It starts kestrava-upssim behind a stable link ("<home>ups", the daemon's
// device, which survives the simulator's hang-ups), sends it runtime
// commands, reads its frame log, starts the daemon and reads its pid from
// the pid file, reads the event log, and finish() ends both by pid with
// bounded waits. The home directory is removed, or kept (and named on
// standard error) when the test failed. Every wait is bounded and looks
// again every `pollMs`.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

// One line of the simulator's frame log: its wall-clock time, the kind
// ("RX", "TX" or "NOTE") and the text after it ("AB 01 35 1F",
// "AB 01 35 1F (ignored: silent)", "line speed 4800: answering").
struct FrameLine {
    double time;
    std::string kind;
    std::string text;
    // A received frame the simulator took (answered, or took without an
    // answer like the authentication).
    bool taken() const { return kind == "RX" && text.find('(') == std::string::npos; }
    // Command code of a received frame ("35").
    std::string code() const { return kind == "RX" && text.size() >= 8 ? text.substr(6, 2) : std::string(); }
};

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
            std::vector<std::string> args = {bin, "--log", frames, "--quiet", "--link", home + "ups"};
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

    // A home with "lock", "bin" (the fake `wall`, appending to "wall.txt")
    // and "log", the shipped alert.rc and a `kestrava` link to the daemon;
    // the simulator with `simOptions`, and the daemon as a controller on it
    // with a Kestrava.ini of the controller keys, `ini` and the home keys.
    // Waits until the daemon polls. The shutdown command records its runs
    // (`date +%s.%N`) in "shutdown-runs".
    void startController(const std::vector<std::string>& simOptions, const std::string& ini)
    {
        ASSERT_TRUE(mDir.made());
        for (const char* d : {"lock", "bin", "log"})
            mkdir((home + d).c_str(), 0755);
        startSimulator(simOptions);
        ASSERT_EQ(home + "ups", ttyPath) << "the simulator printed no device path";
        // This home as the path, no meter log, the ports on the loopback.
        const int port = 20000 + (getpid() % 10000) * 3;
        writeFile(home + "Kestrava.ini",
                  "UPSController=1\nDeviceName=" + ttyPath + "\n" + ini + "Path=" + home.substr(0, home.size() - 1) +
                      "\nDumpLogRate=0\nDumpLogDays=30\nCuiPort=" + std::to_string(port) +
                      "\nIPAddress=127.0.0.1\nCtrlPort1=" + std::to_string(port + 1) +
                      "\nMemberPort=" + std::to_string(port + 2) + "\nAccessCode1=\n",
                  0644);
        writeFile(home + "alert.rc", readFile(std::string(KESTRAVA_SOURCE_DIR) + "/packaging/alert.rc"), 0644);
        writeFile(home + "shutdown.sh", "#!/bin/sh\ndate +%s.%N >> " + home + "shutdown-runs\n", 0755);
        writeFile(home + "bin/wall", "#!/bin/sh\necho \"$*\" >> " + home + "wall.txt\nexit 0\n", 0755);
        ASSERT_EQ(symlink((std::string(KESTRAVA_BINARY_DIR) + "/kestrava").c_str(), (home + "kestrava").c_str()), 0);
        startDaemon();
        ASSERT_GT(daemonPid, 0) << "the daemon wrote no pid file";
        ASSERT_TRUE(waitFor([&] { return findTaken(frameLog(), "35") >= 0; }, 90)) << "the daemon never polled";
    }

    std::vector<FrameLine> frameLog() const
    {
        std::vector<FrameLine> out;
        for (const auto& line : readLines(frames)) {
            // "YYYY-MM-DD HH:MM:SS.mmm KIND text"
            struct tm tm;
            memset(&tm, 0, sizeof tm);
            int ms = 0, used = 0;
            char kind[8] = {0};
            if (sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d %7s %n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday,
                       &tm.tm_hour, &tm.tm_min, &tm.tm_sec, &ms, kind, &used) < 8)
                continue;
            tm.tm_year -= 1900;
            tm.tm_mon -= 1;
            tm.tm_isdst = -1;
            out.push_back({static_cast<double>(mktime(&tm)) + ms / 1000.0, kind, line.substr(used)});
        }
        return out;
    }

    // Index of the first taken frame with this code at or after `from`; -1 if none.
    static int findTaken(const std::vector<FrameLine>& log, const std::string& code, size_t from = 0)
    {
        for (size_t i = from; i < log.size(); ++i)
            if (log[i].taken() && log[i].code() == code)
                return static_cast<int>(i);
        return -1;
    }

    // The event log's lines (every monthly file), without their time stamps.
    std::vector<std::string> eventLog() const
    {
        std::vector<std::string> all;
        DIR* d = opendir((home + "log").c_str());
        if (!d)
            return all;
        while (dirent* e = readdir(d)) {
            std::string name = e->d_name;
            if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0)
                for (const auto& l : readLines(home + "log/" + name))
                    all.push_back(l.size() > 20 ? l.substr(20) : l);  // "YYYY/MM/DD HH:MM:SS "
        }
        closedir(d);
        return all;
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
        EXPECT_NE(-1, waitBounded(starter, 20)) << "the daemon did not detach";
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
        if (!waitFor([&] { return !pidAlive(daemonPid); }, 15)) {
            kill(daemonPid, SIGKILL);
            waitFor([&] { return !pidAlive(daemonPid); }, 5);
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
    int simIn = -1;
    int simOut = -1;

private:
    TempDir mDir;
    int mPollMs;
    bool mFinished = false;
};
