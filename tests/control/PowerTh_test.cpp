// The power thread: host shutdown command, detached termination commands
// (never waited for, never left as zombies), the 3001 launch report and the
// schedule relay 306 -> 6010.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <dirent.h>
#include <fstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/PowerTh.h"
#include "control/StCTrl.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/RecordingShell.h"
#include "tests/fakes/TempDir.h"

namespace {

// The host shutdown command of this test process: set before anything reads
// the system paths, so the real shutdown command can never be chosen.
const char kShutdownCmd[] = "/nonexistent/kestrava-test-shutdown";
const bool kShutdownCmdSet = setenv("KESTRAVA_SHUTDOWN_CMD", kShutdownCmd, 1) == 0;

// A power thread whose reports are recorded instead of handed to a controller.
class RecordingPowerTh : public PowerTh {
public:
    using PowerTh::PowerTh;
    std::vector<_NOTIFYMSGINFO> seen;

protected:
    void notify(_NOTIFYMSGINFO* nt) override { seen.push_back(*nt); }
};

EVENTMSGINFO event(int code, std::vector<int> params = {}) { return eventRecord(4, code, params); }

class Power : public ::testing::Test {
protected:
    Power() : ctrl(&clock, &cfg) {}

    void command(int index, const std::string& cmd)
    {
        cfg.setConf("AppTermCommand" + std::to_string(index), cmd);
        ctrl.setShutdownTiming(index - 1);
    }

    ManualClock clock;
    FileMap cfg;
    StCTrl ctrl;
};

// Zombie processes whose parent is this test process.
int zombieChildren()
{
    int zombies = 0;
    DIR* d = opendir("/proc");
    if (!d)
        return 0;
    const pid_t me = getpid();
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] < '0' || e->d_name[0] > '9')
            continue;
        std::ifstream in(std::string("/proc/") + e->d_name + "/stat");
        std::string line;
        if (!std::getline(in, line))
            continue;
        // pid (comm) state ppid ...: the comm may hold spaces, so parse after ')'.
        size_t close = line.rfind(')');
        if (close == std::string::npos || close + 4 > line.size())
            continue;
        char state = line[close + 2];
        long ppid = strtol(line.c_str() + close + 4, nullptr, 10);
        if (ppid == me && state == 'Z')
            ++zombies;
    }
    closedir(d);
    return zombies;
}

int lines(const std::string& path) { return static_cast<int>(readLines(path).size()); }

TEST_F(Power, ShutdownEventRunsTheShutdownCommand)
{
    RecordingShell shell;
    ScopedShell installed(&shell);
    RecordingPowerTh pt(4, &ctrl);
    EVENTMSGINFO ev = event(303);
    pt.handle(&ev);
    ASSERT_TRUE(kShutdownCmdSet);
    EXPECT_EQ(shell.runCommands(), std::vector<std::string>{kShutdownCmd});
    EXPECT_TRUE(shell.launchedCommands().empty());
    EXPECT_TRUE(pt.seen.empty());

    // Codes that are not the power thread's do nothing.
    ev = event(304, {1, 8});
    pt.handle(&ev);
    EXPECT_EQ(shell.runCommands().size(), 1u);
    EXPECT_TRUE(pt.seen.empty());
}

TEST_F(Power, TerminationCommandIsLaunchedAndReportedWithTheKeptCount)
{
    RecordingShell shell;
    ScopedShell installed(&shell);
    command(2, "/opt/app/stop --now");
    RecordingPowerTh pt(4, &ctrl);

    // Empty command for slot 0: nothing starts, the report still goes out.
    EVENTMSGINFO ev = event(302, {0});
    pt.handle(&ev);
    EXPECT_TRUE(shell.launchedCommands().empty());
    ASSERT_EQ(pt.seen.size(), 1u);
    EXPECT_EQ(pt.seen[0].code, 3001);
    EXPECT_EQ(pt.seen[0].count, 0);

    ev = event(302, {1});
    pt.handle(&ev);
    EXPECT_EQ(shell.launchedCommands(), std::vector<std::string>{"/opt/app/stop --now"});
    EXPECT_TRUE(shell.runCommands().empty());

    // A schedule step is relayed one minute lower; the record keeps its count.
    ev = event(306, {5, 21, 8});
    pt.handle(&ev);
    ASSERT_EQ(pt.seen.size(), 3u);
    EXPECT_EQ(pt.seen[2].code, 6010);
    EXPECT_EQ(pt.seen[2].count, 3);
    EXPECT_EQ(pt.seen[2].params[0], 4);
    EXPECT_EQ(pt.seen[2].params[1], 21);
    EXPECT_EQ(pt.seen[2].params[2], 8);

    ev = event(302, {0});
    pt.handle(&ev);
    ASSERT_EQ(pt.seen.size(), 4u);
    EXPECT_EQ(pt.seen[3].code, 3001);
    EXPECT_EQ(pt.seen[3].count, 3);
}

TEST_F(Power, ScheduleRelayReachesTheControllerRules)
{
    cfg.setConf("UPSController", "2");
    ctrl.SetMemberContCount(1);
    PowerTh pt(4, &ctrl);
    EVENTMSGINFO ev = event(306, {5, 0, 8});
    pt.handle(&ev);
    EVENTMSGINFO out;
    ASSERT_TRUE(ctrl.popHeadForTest(&out));
    EXPECT_EQ(out.code, 500);
    EXPECT_EQ(out.params[1], 204);
    EXPECT_EQ(out.params[2], 4);
}

TEST_F(Power, TwoTerminationCommandsRunSideBySideAndLeaveNoZombie)
{
    TempDir tmp("kestrava-power-");
    ASSERT_TRUE(tmp.made());
    const std::string dir = tmp.path();
    const std::string out = dir + "/out";
    // Each command waits before it writes: if the thread waited for the
    // first, the file would already hold its line when the second starts.
    command(1, "sleep 2; echo x >> " + out);
    SystemShellRunner real;
    ScopedShell installed(&real);
    RecordingPowerTh pt(4, &ctrl);

    EVENTMSGINFO ev = event(302, {0});
    pt.handle(&ev);
    pt.handle(&ev);
    EXPECT_EQ(lines(out), 0);
    EXPECT_EQ(pt.seen.size(), 2u);

    for (int i = 0; i < 100 && lines(out) < 2; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(lines(out), 2);
    // Give the shells a moment to exit after their last write.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(zombieChildren(), 0);
}

} // namespace
