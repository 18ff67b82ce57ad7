// Tests of the log thread: event-log files and lines, placeholders, origin
// suffix, operator broadcasts through a fake shell, the "wall" spill file,
// the message-file switch and the log directory. Everything happens in a
// private temporary directory with a manual clock in UTC.
#include "log/LogTh.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "core/ShellRunner.h"
#include "ipc/IpcCTrlMTh.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/RecordingShell.h"
#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;

namespace {

int fakeHost(char* name, size_t length)
{
    snprintf(name, length, "%s", "hostA");
    return 0;
}

int brokenHost(char*, size_t)
{
    errno = EFAULT;
    return -1;
}

EVENTMSGINFO event(int code, std::vector<int> params) { return eventRecord(5, code, params); }

const char kMessages[] =
    "0=$MACHINE: shutdown in $MINUTES minutes ($MINUTES)$SEGMENT, $MACHINE$SEGMENT\n"
    "1=$MACHINE: shutdown in one minute\n"
    "2=$MACHINE: shutdown cancelled\n"
    "5=five\n"
    "6=Daemon started on $MACHINE\n"
    "11=Communication established\n"
    "204=Scheduled shutdown in $MINUTES minutes\n"
    "206=Scheduled shutdown cancelled\n";

class LogThTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_TRUE(tmp.made());
        dir = tmp.path();

        writeFile(dir + "/Kestrava.ini", "UPSController=1\nPath=" + dir + "\nCtrlIPAddress1=10.1.2.3\n");
        writeFile(dir + "/alert.rc", kMessages);

        savedConfig = gpMapConfig;
        savedMessage = gpMapMessage;
        savedHome = gHomeDir;
        savedMember = g_pMemberTh[0];
        config = new FileMap(dir + "/Kestrava.ini");
        gpMapConfig = config;
        gpMapMessage = new FileMap(dir + "/alert.rc");
        gHomeDir = dir + "/";

        ctrl = new StCTrl(&clock, config);
        log = new LogTh(5, ctrl, &clock);
        log->setMessageMapPresent(1);
        log->setHostNameSource(&fakeHost);
    }

    void TearDown() override
    {
        delete log;
        delete ctrl;
        delete gpMapMessage;
        delete config;
        gpMapConfig = savedConfig;
        gpMapMessage = savedMessage;
        gHomeDir = savedHome;
        g_pMemberTh[0] = savedMember;
    }

    void post(int code, std::vector<int> params)
    {
        EVENTMSGINFO ev = event(code, params);
        log->writeLog(&ev);
    }

    std::string logFile(const std::string& name) { return readFile(dir + "/log/" + name); }

    TempDir tmp{"logth_test."};
    std::string dir;
    ManualClock clock;
    FileMap* config = nullptr;
    StCTrl* ctrl = nullptr;
    LogTh* log = nullptr;
    FileMap* savedConfig = nullptr;
    FileMap* savedMessage = nullptr;
    std::string savedHome;
    IpcCTrlMTh* savedMember = nullptr;
};

TEST_F(LogThTest, MonthlyFileFollowsTheLocalMonthToTheSecond)
{
    clock.set(ManualClock::utc(2026, 11, 30, 23, 59, 59));
    post(500, {1, 6});
    clock.advance(1);
    post(500, {1, 11});

    // The "log" directory did not exist: the first entry created it.
    EXPECT_TRUE(fs::is_directory(dir + "/log"));
    EXPECT_EQ(logFile("202611.log"), "2026/11/30 23:59:59 Daemon started on hostA\n");
    EXPECT_EQ(logFile("202612.log"), "2026/12/01 00:00:00 Communication established\n");
}

TEST_F(LogThTest, PlaceholdersAreReplacedAtTheirFirstOccurrenceOnly)
{
    clock.set(ManualClock::utc(2026, 11, 14, 8, 5, 3));
    // Message 0 with its value 5: the value stands for "$MINUTES" and is
    // not written again as message "5"; the next item is a message again.
    post(500, {1, 0, 5, 5});
    EXPECT_EQ(logFile("202611.log"), "2026/11/14 08:05:03 hostA: shutdown in 5 minutes ($MINUTES), $MACHINE$SEGMENT\n"
                                     "2026/11/14 08:05:03 five\n");

    // A host name that cannot be read is "localhost"; a record with a count
    // of 1 or less writes nothing; a missing message number gives an empty text.
    fs::remove(dir + "/log/202611.log");
    log->setHostNameSource(&brokenHost);
    post(500, {1});
    post(500, {1, 6});
    post(500, {1, 999});
    EXPECT_EQ(logFile("202611.log"), "2026/11/14 08:05:03 Daemon started on localhost\n"
                                     "2026/11/14 08:05:03 \n");
}

TEST_F(LogThTest, OriginSuffixOnlyOnAMemberForAFollowedController)
{
    clock.set(ManualClock::utc(2026, 11, 14, 8, 0, 0));
    IpcCTrlMTh member(8);
    g_pMemberTh[0] = &member;

    // A controller names no origin, even for index 8.
    post(500, {8, 6});
    std::string name;
    log->GetCtrlName(&name, 8);
    EXPECT_EQ(name, "");

    // A member names the controller it follows (by address); not for its
    // own entries (index 1) and not for a slot without a thread.
    config->setConf("UPSController", "2");
    post(500, {8, 6});
    post(500, {1, 6});
    g_pMemberTh[0] = nullptr;
    post(500, {8, 6});
    log->GetCtrlName(&name, 8);
    EXPECT_EQ(name, "\\(10.1.2.3\\)");

    EXPECT_EQ(logFile("202611.log"), "2026/11/14 08:00:00 Daemon started on hostA\n"
                                     "2026/11/14 08:00:00 (10.1.2.3)Daemon started on hostA\n"
                                     "2026/11/14 08:00:00 Daemon started on hostA\n"
                                     "2026/11/14 08:00:00 Daemon started on hostA\n");
}

TEST_F(LogThTest, OperatorBroadcasts)
{
    RecordingShell shell;
    ScopedShell scoped(&shell);

    post(300, {1, 8});
    post(300, {5, 8});
    post(301, {8});
    post(304, {7, 8});
    post(305, {8});
    config->setConf("UPSController", "2");
    post(300, {3, 9});
    config->setConf("CtrlIPAddress2", "10.9.9.9");
    post(305, {9});

    std::vector<std::string> expected = {
        "wall hostA: shutdown in one minute",
        "wall hostA: shutdown in 5 minutes ($MINUTES)$SEGMENT, $MACHINE$SEGMENT",
        "wall hostA: shutdown cancelled",
        "wall Scheduled shutdown in 7 minutes",
        "wall Scheduled shutdown cancelled",
        "wall \\(\\)hostA: shutdown in 3 minutes ($MINUTES)$SEGMENT, $MACHINE$SEGMENT",
        "wall \\(10.9.9.9\\)Scheduled shutdown cancelled",
    };
    EXPECT_EQ(shell.runCommands(), expected);
}

// A shell whose first "wall" fails, as when the text cannot be passed as
// arguments; it notes what the spill file held at each call.
class FailingWall : public ShellRunner {
public:
    explicit FailingWall(std::string spill) : mSpill(std::move(spill)) {}
    int run(const std::string& command) override
    {
        commands.push_back(command);
        std::ifstream in(mSpill, std::ios::binary);
        if (in) {
            std::ostringstream ss;
            ss << in.rdbuf();
            spillAtCall.push_back(ss.str());
        } else {
            spillAtCall.push_back("<none>");
        }
        return commands.size() == 1 ? 256 : 0;
    }
    pid_t launchDetached(const std::string&) override { return -1; }

    std::vector<std::string> commands;
    std::vector<std::string> spillAtCall;

private:
    std::string mSpill;
};

TEST_F(LogThTest, SpillFileExistsOnlyWhileTheSecondWallRuns)
{
    const std::string spill = dir + "/SndMsgStr.tmp";
    {
        FailingWall shell(spill);
        ScopedShell scoped(&shell);
        log->MsgDisp("power failure; shut down now");
        EXPECT_EQ(shell.commands, (std::vector<std::string>{"wall power failure; shut down now", "wall " + spill}));
        EXPECT_EQ(shell.spillAtCall, (std::vector<std::string>{"<none>", "power failure; shut down now\n"}));
        EXPECT_FALSE(fs::exists(spill));
    }
    {
        // A spill file left over from before is replaced, not appended to.
        writeFile(spill, "stale text\n");
        FailingWall shell(spill);
        ScopedShell scoped(&shell);
        log->MsgDisp("second");
        ASSERT_EQ(shell.spillAtCall.size(), 2u);
        EXPECT_EQ(shell.spillAtCall[1], "second\n");
        EXPECT_FALSE(fs::exists(spill));
    }
    {
        // A wall that works needs no spill file.
        RecordingShell shell;
        ScopedShell scoped(&shell);
        log->MsgDisp("fine");
        EXPECT_EQ(shell.runCommands(), (std::vector<std::string>{"wall fine"}));
    }
}

TEST_F(LogThTest, MessageFileSwitchLoadsEachVariantOnce)
{
    writeFile(dir + "/alert3so.rc", "2=three so\n");
    EXPECT_EQ(log->currentVariant(), 0);

    post(503, {3});
    FileMap* first = gpMapMessage;
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->getConf("2"), "three so");
    EXPECT_EQ(log->currentVariant(), 3);

    // The same variant again loads nothing: the changed file is not read.
    writeFile(dir + "/alert3so.rc", "2=changed\n");
    log->ReloadAlertFile(3);
    EXPECT_EQ(gpMapMessage, first);
    EXPECT_EQ(gpMapMessage->getConf("2"), "three so");

    // Any other mode selects "alert.rc".
    log->ReloadAlertFile(1);
    EXPECT_EQ(log->currentVariant(), 1);
    EXPECT_EQ(gpMapMessage->getConf("2"), "$MACHINE: shutdown cancelled");
    FileMap* second = gpMapMessage;
    log->ReloadAlertFile(0);
    EXPECT_EQ(gpMapMessage, second);
}

TEST_F(LogThTest, MissingMessageFileEndsTheProcessWithStatus1)
{
    // alert3so.rc does not exist. Run in a child: the switch ends the process.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        log->ReloadAlertFile(3);
        _exit(gpMapMessage == nullptr ? 3 : 4);
    }
    int status = waitBounded(pid, 20);
    ASSERT_NE(status, -1) << "child did not end";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

TEST_F(LogThTest, UnusableLogDirectoryIsReportedOnceAndLosesTheLine)
{
    clock.set(ManualClock::utc(2026, 11, 14, 8, 0, 0));
    config->setConf("Path", dir + "/missing/deeper");
    testing::internal::CaptureStderr();
    post(500, {1, 6});
    post(500, {1, 6});
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "kestrava: cannot create the log directory " + dir +
                       "/missing/deeper/log: No such file or directory\n");
    EXPECT_FALSE(fs::exists(dir + "/missing"));

    // Once the directory can be made, entries are written again.
    fs::create_directories(dir + "/missing/deeper");
    post(500, {1, 6});
    EXPECT_EQ(readFile(dir + "/missing/deeper/log/202611.log"), "2026/11/14 08:00:00 Daemon started on hostA\n");
}

TEST_F(LogThTest, UnknownCodesAreIgnored)
{
    RecordingShell shell;
    ScopedShell scoped(&shell);
    post(499, {1, 6});
    post(506, {1, 6});
    EXPECT_TRUE(shell.runCommands().empty());
    EXPECT_FALSE(fs::exists(dir + "/log"));
}

} // namespace
