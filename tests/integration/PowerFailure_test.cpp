// A power failure end to end: the real daemon as a controller talking XCP to
// the UPS simulator on a pseudo-terminal. Utility power lost (alarm 59)
// leads through the wink and a one-minute countdown to the UPS's delayed
// power-off, the application termination command and the host shutdown
// command; power back during the countdown cancels it. Everything runs in a
// temporary home directory with its own pid file, lock directory, shutdown
// command (a script that records its runs) and a fake `wall`.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "tests/fakes/DaemonSandbox.h"

namespace {

const char kAuthFrame[] = "AB 04 CF 69 E8 D5 5C";
// Delayed power-off with restart, delay 297 + 3 = 300 s (0x012C).
const char kPowerOffFrame[] = "AB 03 8A 2C 01 9B";
// Request of the current alarm block: the first step of every poll.
const char kAlarmPollPrefix[] = "AB 01 35";

// One line of the simulator's frame log: wall-clock time and the text after
// the time stamp ("RX AB 01 35 ...").
struct FrameLine {
    double time;
    std::string kind;
    std::string hex;
};

std::vector<FrameLine> frameLog(const std::string& path)
{
    std::vector<FrameLine> out;
    for (const auto& line : readLines(path)) {
        // "YYYY-MM-DD HH:MM:SS.mmm KIND text"
        struct tm tm;
        memset(&tm, 0, sizeof tm);
        int ms = 0;
        char kind[8] = {0};
        int used = 0;
        if (sscanf(line.c_str(), "%d-%d-%d %d:%d:%d.%d %7s %n", &tm.tm_year, &tm.tm_mon, &tm.tm_mday, &tm.tm_hour,
                   &tm.tm_min, &tm.tm_sec, &ms, kind, &used) < 8)
            continue;
        tm.tm_year -= 1900;
        tm.tm_mon -= 1;
        tm.tm_isdst = -1;
        out.push_back({static_cast<double>(mktime(&tm)) + ms / 1000.0, kind, line.substr(used)});
    }
    return out;
}

// Times (seconds since the epoch, as written by `date +%s.%N`) of the runs
// recorded in a file.
std::vector<double> runTimes(const std::string& path)
{
    std::vector<double> out;
    for (const auto& l : readLines(path))
        out.push_back(strtod(l.c_str(), nullptr));
    return out;
}

// The whole event log (every monthly file in the log directory).
std::string eventLog(const std::string& dir)
{
    std::string all;
    DIR* d = opendir(dir.c_str());
    if (!d)
        return all;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".log") == 0)
            for (const auto& l : readLines(dir + "/" + name))
                all += l + "\n";
    }
    closedir(d);
    return all;
}

bool contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class PowerFailure : public ::testing::Test, public DaemonSandbox {
protected:
    PowerFailure() : DaemonSandbox("kestrava-pf-", 200) {}

    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(makeHome());
        appRuns = home + "app-runs";
        shutdownRuns = home + "shutdown-runs";

        startSimulator({});
        ASSERT_FALSE(ttyPath.empty()) << "the simulator printed no terminal path";
        writeConfiguration();
        startDaemon();
        ASSERT_GT(daemonPid, 0) << "the daemon wrote no pid file";
    }

    void TearDown() override { finish(HasFailure()); }

    void writeConfiguration()
    {
        const int base = 20000 + (getpid() % 20000);
        std::ostringstream ini;
        ini << "UPSController=1\n"
            << "DeviceName=" << ttyPath << "\n"
            << "WinkTime1=2\n"
            << "ShutdownTime1=1\n"
            << "AppTermTimeOut1=3\n"
            << "ShutdownDelay1=297\n"
            << "AppTermCommand1=date +%s.%N >> " << appRuns << "\n"
            << homeKeys(base)
            << "GroupName=PowerFailureTest\n"
            << "SetUpID=*KESTRAVATEST\n"
            << "AccessCode1=\n"
            << "MemberIDData=0\n";
        writeHomeFiles(ini.str(), "#!/bin/sh\ndate +%s.%N >> " + shutdownRuns + "\n");
    }

    // Index in the frame log of the first alarm poll after `from`.
    int nextAlarmPoll(const std::vector<FrameLine>& log, size_t from)
    {
        for (size_t i = from; i < log.size(); ++i)
            if (log[i].kind == "RX" && log[i].hex.rfind(kAlarmPollPrefix, 0) == 0)
                return static_cast<int>(i);
        return -1;
    }

    int find(const std::vector<FrameLine>& log, const std::string& hex, size_t from = 0)
    {
        for (size_t i = from; i < log.size(); ++i)
            if (log[i].kind == "RX" && log[i].hex == hex)
                return static_cast<int>(i);
        return -1;
    }

    // Waits until the daemon polls the UPS regularly, then raises alarm 59
    // and returns the time of the poll that reports it.
    double raiseUtilityFailure()
    {
        bool polling = waitFor([&] { return nextAlarmPoll(frameLog(frames), 0) >= 0; }, 90);
        EXPECT_TRUE(polling) << "the daemon never polled the UPS";
        if (!polling)
            return 0;
        size_t mark = frameLog(frames).size();
        EXPECT_TRUE(simCommand("alarm set 59"));
        int poll = -1;
        waitFor(
            [&] {
                poll = nextAlarmPoll(frameLog(frames), mark);
                return poll >= 0;
            },
            30);
        EXPECT_GE(poll, 0) << "no poll after the alarm was raised";
        return poll >= 0 ? frameLog(frames)[poll].time : 0;
    }

    std::string appRuns, shutdownRuns;
};

TEST_F(PowerFailure, UtilityLossEndsInUpsPowerOffAndHostShutdown)
{
    double reported = raiseUtilityFailure();
    ASSERT_GT(reported, 0);

    // Wink 2 s and one countdown minute: the power-off comes about 62 s later.
    int off = -1;
    ASSERT_TRUE(waitFor(
        [&] {
            off = find(frameLog(frames), kPowerOffFrame);
            return off >= 0;
        },
        120))
        << "no delayed power-off reached the UPS";
    auto log = frameLog(frames);
    ASSERT_GT(off, 0);
    EXPECT_EQ(log[off - 1].hex, kAuthFrame) << "the power-off was not preceded by the authorisation";
    const double afterPoll = log[off].time - reported;
    EXPECT_GE(afterPoll, 60.0);
    EXPECT_LE(afterPoll, 90.0);

    ASSERT_TRUE(waitFor([&] { return !runTimes(shutdownRuns).empty(); }, 30)) << "the host shutdown never ran";
    // Nothing runs twice.
    std::this_thread::sleep_for(std::chrono::seconds(5));
    auto app = runTimes(appRuns);
    auto down = runTimes(shutdownRuns);
    ASSERT_EQ(app.size(), 1u);
    ASSERT_EQ(down.size(), 1u);
    EXPECT_GE(down[0] - app[0], 2.0);
    EXPECT_LE(down[0] - app[0], 15.0);
    EXPECT_GE(app[0], log[off].time - 5.0);

    log = frameLog(frames);
    int offs = 0;
    for (const auto& l : log)
        offs += (l.kind == "RX" && l.hex == kPowerOffFrame) ? 1 : 0;
    EXPECT_EQ(offs, 1);

    const std::string events = eventLog(home + "log");
    EXPECT_TRUE(contains(events, "Utility power not present (within wink time).")) << events;
    EXPECT_TRUE(contains(events, "will shut down in 1 minute")) << events;
    EXPECT_TRUE(contains(events, "Host shutdown started.")) << events;
    EXPECT_TRUE(contains(events, "Running the host shutdown command.")) << events;
}

TEST_F(PowerFailure, PowerBackDuringTheCountdownCancelsIt)
{
    double reported = raiseUtilityFailure();
    ASSERT_GT(reported, 0);

    // Well inside the countdown minute, power comes back.
    std::this_thread::sleep_for(std::chrono::seconds(20));
    ASSERT_TRUE(simCommand("alarm clear 59"));

    // Past the moment the countdown would have ended, with room to spare.
    auto until = reported + 80.0;
    while (static_cast<double>(time(nullptr)) < until)
        std::this_thread::sleep_for(std::chrono::seconds(1));

    EXPECT_LT(find(frameLog(frames), kPowerOffFrame), 0) << "the UPS was told to power off";
    EXPECT_TRUE(runTimes(appRuns).empty());
    EXPECT_TRUE(runTimes(shutdownRuns).empty());
    EXPECT_TRUE(pidAlive(daemonPid));

    const std::string events = eventLog(home + "log");
    EXPECT_TRUE(contains(events, "will shut down in 1 minute")) << events;
    EXPECT_TRUE(contains(events, "Power has been restored.")) << events;
    EXPECT_FALSE(contains(events, "Host shutdown started.")) << events;
    std::string walls;
    for (const auto& l : readLines(home + "wall.txt"))
        walls += l + "\n";
    EXPECT_TRUE(contains(walls, "Power has been restored.")) << walls;
}

} // namespace
