// The log thread: event-log lines, operator broadcasts through a fake
// shell, the message-file switch and write failures, in UTC.
#include "log/LogTh.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "core/FatalStop.h"
#include "core/ShellRunner.h"
#include "daemon/Globals.h"
#include "ipc/IpcCTrlMTh.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/RecordingShell.h"
#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;

namespace {

int fakeHost(char* name, size_t length) { return snprintf(name, length, "hostA") < 0; }

int brokenHost(char*, size_t) { return -1; }

class LogThTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        writeFile(dir + "/Kestrava.ini", "UPSController=1\nPath=" + dir + "\nCtrlIPAddress1=10.1.2.3\n");
        writeFile(dir + "/alert.rc", "0=$MACHINE: shutdown in $MINUTES minutes ($MINUTES)$SEGMENT, $MACHINE$SEGMENT\n"
                                     "1=$MACHINE: shutdown in one minute\n2=$MACHINE: shutdown cancelled\n5=five\n"
                                     "6=Daemon started on $MACHINE\n11=Communication established\n"
                                     "204=Scheduled shutdown in $MINUTES minutes\n206=Scheduled shutdown cancelled\n");
        config.load();
        gpMapConfig = &config;
        gpMapMessage = new FileMap(dir + "/alert.rc");
        gHomeDir = dir + "/";
        log.setMessageMapPresent(1);
        log.setHostNameSource(&fakeHost);
    }
    void TearDown() override
    {
        delete gpMapMessage; // the switch may have replaced it
        gpMapConfig = saved.config;
        gpMapMessage = saved.message;
        gHomeDir = saved.home;
        g_pMemberTh[0] = saved.member;
    }

    void post(int code, std::vector<int> params)
    {
        EVENTMSGINFO ev = eventRecord(ThLog, code, params);
        log.writeLog(&ev);
    }
    std::string logFile(const std::string& name) { return readFile(dir + "/log/" + name); }

    struct {
        FileMap* config = gpMapConfig;
        FileMap* message = gpMapMessage;
        std::string home = gHomeDir;
        IpcCTrlMTh* member = g_pMemberTh[0];
    } saved;
    TempDir tmp{"logth_test."};
    std::string dir = tmp.path();
    ManualClock clock;
    FileMap config{dir + "/Kestrava.ini"};
    StCTrl ctrl{&clock, &config};
    LogTh log{5, &ctrl, LogTh::Wiring{&gpMapConfig, &gpMapMessage, &gpm_Memcnt, &gUpsData, &gHomeDir, g_pMemberTh}, &clock};
};

TEST_F(LogThTest, EventLogFilesPlaceholdersAndOrigin)
{
    clock.set(ManualClock::utc(2026, 11, 30, 23, 59, 59));
    // Message 0 with its value 5: the value stands for "$MINUTES" and is
    // not written again as message "5"; the next item is a message again.
    post(EvLog, {1, 0, 5, 5});
    // A host name that cannot be read is "localhost"; a record with a count
    // of 1 or less writes nothing; a missing message number gives an empty text.
    clock.advance(1);
    log.setHostNameSource(&brokenHost);
    post(EvLog, {1});
    post(EvLog, {1, 6});
    post(EvLog, {1, 999});
    // The "log" directory did not exist: the first entry created it.
    EXPECT_EQ(logFile("202611.log"), "2026/11/30 23:59:59 hostA: shutdown in 5 minutes ($MINUTES), $MACHINE$SEGMENT\n"
                                     "2026/11/30 23:59:59 five\n");

    // Origin: only a member names the controller it follows (by address),
    // not for its own entries (index 1) nor for a slot without a thread.
    IpcCTrlMTh member(8);
    g_pMemberTh[0] = &member;
    post(EvLog, {8, 11});
    config.setConf("UPSController", "2");
    post(EvLog, {8, 11});
    post(EvLog, {1, 11});
    g_pMemberTh[0] = nullptr;
    post(EvLog, {8, 11});
    EXPECT_EQ(logFile("202612.log"), "2026/12/01 00:00:00 Daemon started on localhost\n2026/12/01 00:00:00 \n"
                                     "2026/12/01 00:00:00 Communication established\n"
                                     "2026/12/01 00:00:00 (10.1.2.3)Communication established\n"
                                     "2026/12/01 00:00:00 Communication established\n"
                                     "2026/12/01 00:00:00 Communication established\n");
}

// A shell whose first "wall" fails, as when the text cannot be passed as
// arguments; it notes what the spill file held at each call.
struct FailingWall : RecordingShell {
    explicit FailingWall(std::string path) : spill(std::move(path)) {}
    int run(const std::string& command) override
    {
        spillAtCall.push_back(fs::exists(spill) ? readFile(spill) : "<none>");
        setStatus(spillAtCall.size() == 1 ? 256 : 0);
        return RecordingShell::run(command);
    }
    std::string spill;
    std::vector<std::string> spillAtCall;
};

TEST_F(LogThTest, OperatorBroadcastsAndTheSpillFile)
{
    RecordingShell shell;
    ScopedShell scoped(&shell);
    post(499, {1, 6});
    post(506, {1, 6});
    post(EvPowerFailReport, {1, 8});
    post(EvPowerRestoredReport, {8});
    post(EvScheduleReport, {7, 8});
    post(EvScheduleCancelReport, {8});
    config.setConf("UPSController", "2");
    post(EvPowerFailReport, {3, 9});
    config.setConf("CtrlIPAddress2", "10.9.9.9");
    post(EvScheduleCancelReport, {9});
    EXPECT_EQ(shell.runCommands(), (std::vector<std::string>{
                                       "wall hostA: shutdown in one minute",
                                       "wall hostA: shutdown cancelled",
                                       "wall Scheduled shutdown in 7 minutes",
                                       "wall Scheduled shutdown cancelled",
                                       "wall \\(\\)hostA: shutdown in 3 minutes ($MINUTES)$SEGMENT, $MACHINE$SEGMENT",
                                       "wall \\(10.9.9.9\\)Scheduled shutdown cancelled",
                                   }));
    EXPECT_FALSE(fs::exists(dir + "/log")); // no event-log entry either

    // When "wall" fails, the spill file exists only while the second "wall" runs.
    const std::string spill = dir + "/SndMsgStr.tmp";
    FailingWall failing(spill);
    ScopedShell spilling(&failing);
    log.MsgDisp("power failure; shut down now");
    EXPECT_EQ(failing.runCommands(), (std::vector<std::string>{"wall power failure; shut down now", "wall " + spill}));
    EXPECT_EQ(failing.spillAtCall, (std::vector<std::string>{"<none>", "power failure; shut down now\n"}));
    EXPECT_FALSE(fs::exists(spill));
}

TEST_F(LogThTest, MessageFileSwitchLoadsEachVariantOnceAndAMissingFileStops)
{
    writeFile(dir + "/alert3so.rc", "2=three so\n");
    post(EvMessageFile, {3});
    FileMap* first = gpMapMessage;
    EXPECT_EQ(first->getConf("2"), "three so");
    EXPECT_EQ(log.currentVariant(), 3);

    // The same variant again loads nothing: the changed file is not read.
    writeFile(dir + "/alert3so.rc", "2=changed\n");
    log.ReloadAlertFile(3);
    EXPECT_EQ(gpMapMessage, first);
    EXPECT_EQ(gpMapMessage->getConf("2"), "three so");

    // Any other mode selects "alert.rc", once.
    log.ReloadAlertFile(1);
    EXPECT_EQ(gpMapMessage->getConf("2"), "$MACHINE: shutdown cancelled");
    FileMap* second = gpMapMessage;
    log.ReloadAlertFile(0);
    EXPECT_EQ(gpMapMessage, second);

    // A missing file asks the main thread to end the daemon; the thread
    // then takes its events without touching the maps or the logs.
    fs::remove(dir + "/alert3so.rc");
    testing::internal::CaptureStderr();
    post(EvMessageFile, {3});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kestrava: cannot read the message file " + dir + "/alert3so.rc; stopping\n");
    EXPECT_TRUE(FatalStop::requested());
    EXPECT_EQ(FatalStop::status(), 1);
    FatalStop::resetForTests();
    EXPECT_EQ(gpMapMessage, nullptr);
    post(EvLog, {1, 6});
    EXPECT_FALSE(fs::exists(dir + "/log"));
}

TEST_F(LogThTest, WriteFailuresAreReportedOnceUntilAWriteSucceeds)
{
    clock.set(ManualClock::utc(2026, 11, 14, 8, 0, 0));
    config.setConf("Path", dir + "/missing/deeper");
    testing::internal::CaptureStderr();
    post(EvLog, {1, 6});
    post(EvLog, {1, 6});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kestrava: cannot create the log directory " + dir + "/missing/deeper/log: No such file or directory\n"
              "kestrava: cannot write the log file " + dir + "/missing/deeper/log/202611.log: No such file or "
              "directory; log lines are lost until it works again\n");

    // A full disk fails at the flush: reported once, and again only after
    // a line was written in between.
    std::string full = "/dev/full", good = dir + "/good.log", line = "x";
    testing::internal::CaptureStderr();
    for (std::string* path : {&good, &full, &full, &good, &full, &full})
        EXPECT_EQ(LogTh::write(path, &line), path == &good ? 1 : 0);
    const std::string once = "kestrava: cannot write the log file /dev/full: No space left on device; "
                             "log lines are lost until it works again\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), once + once);
}

} // namespace
