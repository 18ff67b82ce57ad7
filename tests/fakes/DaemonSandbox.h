// DaemonSandbox: the real daemon and the UPS simulator (serving "<home>ups")
// in a home of their own, with every system path and `wall` moved inside.
// finish() ends both by pid with bounded waits; a failed test keeps the home.
#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

// One line of the simulator's frame log: "RX", "TX" or "NOTE", and the text
// after it ("AB 01 35 1F", "AB 01 35 1F (ignored: silent)").
struct FrameLine {
    std::string kind;
    std::string text;
    // A received frame the simulator took (answered or not).
    bool taken() const { return kind == "RX" && text.find('(') == std::string::npos; }
    // Command code of a received frame ("35").
    std::string code() const { return kind == "RX" && text.size() >= 8 ? text.substr(6, 2) : std::string(); }
};

class DaemonSandbox {
public:
    DaemonSandbox(const std::string& stem, int pollMs) : mDir(stem), mPollMs(pollMs)
    {
        home = mDir.path() + "/";
        frames = home + "frames.log";
    }
    ~DaemonSandbox() { finish(::testing::Test::HasFailure()); }

    template <typename Cond>
    bool waitFor(Cond cond, int seconds)
    {
        return ::waitFor(cond, seconds, mPollMs);
    }

    // The simulator, and the daemon as a controller on it with `ini` added;
    // waits until the daemon polls. The shutdown command records its runs in
    // "shutdown-runs", the fake `wall` in "wall.txt".
    void startController(const std::vector<std::string>& simOptions, const std::string& ini)
    {
        ASSERT_TRUE(mDir.made());
        for (const char* d : {"lock", "bin", "log"})
            mkdir((home + d).c_str(), 0755);
        std::vector<std::string> args = {KESTRAVA_BINARY_DIR "/kestrava-upssim", "--log", frames, "--quiet",
                                         "--link", home + "ups"};
        args.insert(args.end(), simOptions.begin(), simOptions.end());
        int in[2], out[2];
        ASSERT_TRUE(pipe2(in, O_CLOEXEC) == 0 && pipe2(out, O_CLOEXEC) == 0);
        simPid = spawnProgram(args, in[0], out[1], {});
        close(in[0]);
        close(out[1]);
        simIn = in[1];
        simOut = out[0];
        ASSERT_EQ(home + "ups", readSimLine()) << "the simulator printed no device path";

        const int port = 20000 + (getpid() % 10000) * 3;
        ctrlPort = port + 1;
        writeFile(home + "Kestrava.ini",
                  "UPSController=1\nDeviceName=" + home + "ups\n" + ini + "Path=" + mDir.path() +
                      "\nDumpLogRate=0\nDumpLogDays=30\nCuiPort=" + std::to_string(port) +
                      "\nIPAddress=127.0.0.1\nCtrlPort1=" + std::to_string(port + 1) +
                      "\nMemberPort=" + std::to_string(port + 2) + "\nAccessCode1=\n");
        writeFile(home + "alert.rc", readFile(KESTRAVA_SOURCE_DIR "/packaging/alert.rc"));
        writeFile(home + "shutdown.sh", "#!/bin/sh\ndate +%s.%N >> " + home + "shutdown-runs\n", 0755);
        writeFile(home + "bin/wall", "#!/bin/sh\necho \"$*\" >> " + home + "wall.txt\nexit 0\n", 0755);
        ASSERT_EQ(symlink(KESTRAVA_BINARY_DIR "/kestrava", (home + "kestrava").c_str()), 0);

        const char* path = getenv("PATH");
        pid_t starter = spawnProgram({home + "kestrava"}, -1, -1,
                              {"KESTRAVA_PID_FILE=" + home + "Kestrava.pid", "KESTRAVA_LOCK_DIR=" + home + "lock",
                               "KESTRAVA_SHUTDOWN_CMD=" + home + "shutdown.sh",
                               "PATH=" + home + "bin:" + (path ? path : "/usr/bin:/bin")});
        EXPECT_NE(-1, waitBounded(starter, 20)) << "the daemon did not detach";
        waitFor([&] { return (daemonPid = atoi(readFile(home + "Kestrava.pid").c_str())) > 0; }, 20);
        ASSERT_GT(daemonPid, 0) << "the daemon wrote no pid file";
        ASSERT_TRUE(waitFor([&] { return findTaken(frameLog(), "35") >= 0; }, 90)) << "the daemon never polled";
    }

    std::vector<FrameLine> frameLog() const
    {
        std::vector<FrameLine> out;
        for (const auto& line : readLines(frames)) {
            // "YYYY-MM-DD HH:MM:SS.mmm KIND text"
            int used = 0;
            char kind[8] = {0};
            if (sscanf(line.c_str(), "%*s %*s %7s %n", kind, &used) == 1)
                out.push_back({kind, line.substr(used)});
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

    // The event log's lines (every monthly file), without their time stamps "YYYY/MM/DD HH:MM:SS ".
    std::vector<std::string> eventLog() const
    {
        std::vector<std::string> all;
        std::error_code ec;
        for (const auto& e : std::filesystem::directory_iterator(home + "log", ec))
            if (e.path().extension() == ".log")
                for (const auto& l : readLines(e.path()))
                    all.push_back(l.size() > 20 ? l.substr(20) : l);
        return all;
    }

    // A runtime command to the simulator; true when it answered "ok".
    bool simCommand(const std::string& cmd)
    {
        std::string line = cmd + "\n";
        return write(simIn, line.data(), line.size()) == static_cast<ssize_t>(line.size()) &&
               readSimLine().rfind("ok", 0) == 0;
    }

    // Ends the daemon (killed after 15 s) and the simulator, which must end
    // with status 0 and take its link away.
    void finish(bool keep)
    {
        if (daemonPid > 0) {
            kill(daemonPid, SIGTERM);
            if (!waitFor([&] { return !pidAlive(daemonPid); }, 15))
                kill(daemonPid, SIGKILL);
            daemonPid = -1;
        }
        if (simPid > 0) {
            kill(simPid, SIGTERM);
            int status = waitBounded(simPid, 10);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "simulator wait status " << status;
            struct stat st;
            EXPECT_NE(0, lstat((home + "ups").c_str(), &st)) << "the simulator left its link";
            simPid = -1;
            close(simIn);
            close(simOut);
        }
        if (keep && !mDir.path().empty() && !mKept) {
            mKept = true;
            mDir.keep();
            fprintf(stderr, "test files kept in %s\n", home.c_str());
        }
    }

    std::string home;   // with a trailing slash
    std::string frames; // the simulator's frame log
    pid_t daemonPid = -1;
    int ctrlPort = 0;   // the daemon's coordination port ("CtrlPort1", on 127.0.0.1)

private:
    // One line of the simulator's standard output, waiting at most 10 s.
    std::string readSimLine()
    {
        std::string line;
        char c;
        struct pollfd p = {simOut, POLLIN, 0};
        while (poll(&p, 1, 10000) > 0 && read(simOut, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }

    TempDir mDir;
    int mPollMs;
    bool mKept = false;
    pid_t simPid = -1;
    int simIn = -1, simOut = -1;
};
