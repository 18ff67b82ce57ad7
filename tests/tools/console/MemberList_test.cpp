// kestrava-console members: the status table the daemon's member table
// writes, read back and summarised by the console client run as a process.
#include <gtest/gtest.h>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "ipc/IpcData.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace {

const std::string kConsole = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-console";

TEST(MemberListTest, ListsTheDaemonsStatusTableWithItsActiveCount)
{
    TempDir dir("members");
    {
        ManualClock clock;
        StCTrl core(&clock);
        IpcData table(core, dir.path(), dir.path());
        table.InitMember("127.0.0.2", 3069, "db-host", false, ThCtrlSlot0, SqNew, nullptr);
        table.InitMember("127.0.0.3", 3070, " ABCD0001", true, ThCtrlSlot0, SqNew, nullptr);
        DUP_MEMB_INFO m;
        table.GetMembInfo(1, &m), table.SetMembStatus(&m, MembActive, false);
        table.GetMembInfo(2, &m), table.SetMembStatus(&m, MembCommFail, false);
    }
    const std::string table = dir.read("membCommInfo.tmp");
    ChildRun run = runProgram(dir.path(), {kConsole, "--home", dir.path(), "members"});
    EXPECT_EQ(0, run.status) << run.err;
    EXPECT_EQ(table + "2 members, 1 active: the active hosts are told of a power failure.\n", run.out);

    // Through the daemon's configuration path, before any member registered.
    unlink(dir.file("membCommInfo.tmp").c_str());
    run = runProgram(dir.path(), {kConsole, "--config", dir.path() + "/Kestrava.ini", "members"});
    EXPECT_EQ(0, run.status);
    EXPECT_NE(std::string::npos, run.out.find("No shutdown member has registered")) << run.out;

    run = runProgram(dir.path(), {kConsole, "members"});
    EXPECT_EQ(2, run.status);
    EXPECT_NE(std::string::npos, run.err.find("--home DIR")) << run.err;
}

} // namespace
