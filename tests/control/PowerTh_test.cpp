// The power thread: host shutdown, detached termination commands (never
// waited for, never left as zombies), their reports and the schedule relay.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <vector>

#include "config/FileMap.h"
#include "control/PowerTh.h"
#include "control/StCTrl.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/RecordingShell.h"
#include "tests/fakes/TempDir.h"

namespace {
using V = std::vector<std::string>;

// Set before anything reads the system paths: the real shutdown command is never chosen.
const char kShutdownCmd[] = "/nonexistent/kestrava-test-shutdown";
const bool kShutdownCmdSet = setenv("KESTRAVA_SHUTDOWN_CMD", kShutdownCmd, 1) == 0;

// A power thread whose reports are recorded instead of handed to a controller.
struct RecordingPowerTh : PowerTh {
    using PowerTh::PowerTh;
    V seen;
    void handle(int code, std::vector<int> params = {})
    {
        EVENTMSGINFO ev = eventRecord(ThPower, code, params);
        PowerTh::handle(&ev);
    }
    void notify(_NOTIFYMSGINFO* nt) override { seen.push_back(describe(*nt)); }
};

class Power : public ::testing::Test {
protected:
    Power() : ctrl(&clock, &cfg), pt(ThPower, &ctrl) {}
    void command(int index, const std::string& cmd)
    {
        cfg.setConf("AppTermCommand" + std::to_string(index), cmd);
        ctrl.setShutdownTiming(index - 1);
    }

    ManualClock clock;
    FileMap cfg;
    StCTrl ctrl;
    RecordingPowerTh pt;
};

TEST_F(Power, ShutdownAndTerminationCommandsAndTheirReports)
{
    RecordingShell shell;
    ScopedShell installed(&shell);
    ASSERT_TRUE(kShutdownCmdSet);
    pt.handle(EvHostShutdown);
    EXPECT_EQ(shell.runCommands(), V{kShutdownCmd});
    pt.handle(EvScheduleReport, {1, 8});  // not the power thread's
    EXPECT_TRUE(shell.runCommands().size() == 1 && pt.seen.empty());

    // Empty command for slot 0: nothing starts, the report still goes out.
    command(2, "/opt/app/stop --now");
    pt.handle(EvAppTerm, {0});
    pt.handle(EvAppTerm, {1});
    EXPECT_EQ(shell.launchedCommands(), V{"/opt/app/stop --now"});
    EXPECT_EQ(shell.runCommands().size(), 1u);
    // A schedule step is relayed one minute lower; the record keeps its count.
    pt.handle(EvScheduleRelay, {5, 21, 8});
    pt.handle(EvAppTerm, {0});
    EXPECT_EQ(pt.seen, (V{"NtAppCommandDone(3001):", "NtAppCommandDone(3001):", "NtSchedule(6010):4,21,8",
                          "NtAppCommandDone(3001):4,21,8"}));
}

TEST_F(Power, TwoTerminationCommandsRunSideBySideAndLeaveNoZombie)
{
    TempDir tmp("kestrava-power-");
    ASSERT_TRUE(tmp.made());
    const std::string out = tmp.file("out"), go = tmp.file("go");
    // Each command waits for "go": a thread waiting for the first would never start the second.
    command(1, "while [ ! -e " + go + " ]; do sleep 0.05; done; echo x >> " + out);
    SystemShellRunner real;
    ScopedShell installed(&real);
    pt.handle(EvAppTerm, {0});
    pt.handle(EvAppTerm, {0});
    EXPECT_EQ(pt.seen.size(), 2u);
    writeFile(go, "");
    EXPECT_TRUE(waitFor([&] { return readLines(out).size() == 2; }, 10, 50));
    // Once both shells left this process's children (a zombie stays listed), none is left to reap.
    EXPECT_TRUE(waitFor([] { return readFile("/proc/self/task/" + std::to_string(getpid()) + "/children").empty(); },
                        10, 50));
    EXPECT_LE(waitpid(-1, nullptr, WNOHANG), 0) << "a zombie child remained";
}
} // namespace
