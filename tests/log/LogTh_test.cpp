// The log thread: event-log lines, member files, broadcasts, the message-file switch, write failures.
#include "log/LogTh.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "core/FatalStop.h"
#include "core/ShellRunner.h"
#include "ipc/IpcCTrlMTh.h"
#include "operator/CreateMultiControllerFile.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/RecordingShell.h"
#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;

namespace {

class LogThTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        writeFile(dir + "/Kestrava.ini", "UPSController=1\nPath=" + dir + "\nCtrlIPAddress1=10.1.2.3\x07\n");
        writeFile(dir + "/alert.rc", "0=$MACHINE: $MINUTES min ($MINUTES)$SEGMENT, $MACHINE$SEGMENT\n1=$MACHINE: one\n"
                                     "2=$MACHINE: cancelled\n5=five\n6=Up on $MACHINE\n11=Link\n204=In $MINUTES\n");
        config.load();
        messages = new FileMap(dir + "/alert.rc");
        log.setMessageMapPresent(1);
        log.setHostNameSource([](char* name, size_t length) { return snprintf(name, length, "hostA") < 0 ? 1 : 0; });
        CreateMultiControllerFile::setClock(&clock);
    }
    void TearDown() override { delete messages, CreateMultiControllerFile::setClock(nullptr); }
    void post(int code, std::vector<int> p) { EVENTMSGINFO ev = eventRecord(ThLog, code, p); log.writeLog(&ev); }

    TempDir tmp{"logth_test."};
    std::string dir = tmp.path(), home = dir + "/home/";
    ManualClock clock{ManualClock::utc(2026, 11, 30, 23, 59, 59)};
    FileMap config{dir + "/Kestrava.ini"};
    FileMap *configPtr = &config, *messages = nullptr, *members = nullptr;
    UpsDataBlock* ups = nullptr;
    IpcCTrlMTh* threads[4] = {nullptr, nullptr, nullptr, nullptr};
    StCTrl ctrl{&clock, &config};
    LogTh log{5, &ctrl, LogTh::Wiring{&configPtr, &messages, &members, &ups, &home, threads}, &clock};
};

TEST_F(LogThTest, EventLogLinesOriginAndMemberFilesUnderPath)
{
    // Message 0's value fills "$MINUTES" (not read as message 5); a count of 1 writes nothing; a missing
    // message is an empty text; an unreadable host name is "localhost"; the next second is December's file.
    post(EvLog, {1, 0, 5, 5});
    clock.advance(1);
    post(EvLog, {1});
    log.setHostNameSource([](char*, size_t) { return -1; });
    post(EvLog, {1, 6, 999});
    // Only a member names the controller it follows, not for index 1 nor for a slot without a thread.
    IpcCTrlMTh member(8);
    threads[0] = &member;
    post(EvLog, {8, 11});
    config.setConf("UPSController", "2");
    post(EvLog, {8, 11}), post(EvLog, {1, 11});
    EXPECT_EQ(readFile(dir + "/log/202611.log"), "2026/11/30 23:59:59 hostA: 5 min ($MINUTES), $MACHINE$SEGMENT\n"
                                                 "2026/11/30 23:59:59 five\n");
    const std::string s = "2026/12/01 00:00:00 ";
    EXPECT_EQ(readFile(dir + "/log/202612.log"),
              s + "Up on localhost\n" + s + "\n" + s + "Link\n" + s + "(10.1.2.3?)Link\n" + s + "Link\n");

    // Controller information and the shutdown log go under "Path", the slot's name made printable.
    config.setConf("AppTermCommand1", "/usr/bin/stop");
    ctrl.setShutdownTiming(0), ctrl.SetMemberContActive(0, true);
    fs::create_directory(dir + "/CONTROLLER"), fs::create_directory(dir + "/SHUTDOWN");
    post(EvControllerInfo, {}), post(EvMemberShutdownLog, {0, 1});
    EXPECT_NE(readFile(dir + "/CONTROLLER/Controller.inf").find("\n  No.1 10.1.2.3?\n"), std::string::npos);
    EXPECT_EQ(readFile(dir + "/SHUTDOWN/202612_sh.log"), s + "Shutdown 10.1.2.3? Power Failure 0, 0, 0*, 0\n");
    EXPECT_FALSE(fs::exists(home));
}

TEST_F(LogThTest, BroadcastsReachWallAsOneQuotedWordAndSpillWhenItFails)
{
    RecordingShell shell;
    ScopedShell recording(&shell);
    log.MsgDisp("it's");
    EXPECT_EQ(shell.runCommands(), std::vector<std::string>{"wall 'it'\\''s'"});
    // A real shell and a "wall" refusing "refused": each text is its one argument, nothing in it runs,
    // and the spill file holds the text only while the second "wall" runs.
    SystemShellRunner real;
    ScopedShell system(&real);
    fs::create_directories(dir + "/bin"), fs::create_directories(home);
    const std::string out = dir + "/wall.txt";
    writeFile(dir + "/bin/wall", "#!/bin/sh\nprintf '%s|%s\\n' \"$#\" \"$1\" >> " + out +
              "\n[ -f \"$1\" ] && cat \"$1\" >> " + out + "\ncase \"$1\" in *refused*) exit 1;; esac\n", 0755);
    const std::string path = getenv("PATH");
    setenv("PATH", (dir + "/bin:" + path).c_str(), 1);
    post(499, {1, 6}), post(EvPowerFailReport, {1, 8}), post(EvPowerRestoredReport, {8});
    config.setConf("UPSController", "2");
    config.setConf("CtrlIPAddress2", "'$(touch " + dir + "/a)\x1b");
    post(EvScheduleReport, {7, 9});
    const std::string text = "refused $(touch " + dir + "/b) `touch " + dir + "/c`; touch " + dir + "/d \\' \"";
    log.MsgDisp(text.c_str());
    setenv("PATH", path.c_str(), 1);
    EXPECT_EQ(readFile(out), "1|hostA: one\n1|hostA: cancelled\n1|('$(touch " + dir + "/a)?)In 7\n1|" + text + "\n1|" +
                                 home + "SndMsgStr.tmp\n" + text + "\n");
    for (const char* f : {"/a", "/b", "/c", "/d", "/home/SndMsgStr.tmp", "/log"})
        EXPECT_FALSE(fs::exists(dir + f)) << f;
}

TEST_F(LogThTest, MessageFileSwitchLoadsOnceAndAMissingFileKeepsTheTexts)
{
    writeFile(dir + "/alert3so.rc", "2=three so\n");
    post(EvMessageFile, {3});
    FileMap* first = messages;
    writeFile(dir + "/alert3so.rc", "2=back\n");
    log.ReloadAlertFile(3); // loaded once
    EXPECT_TRUE(messages == first && first->getConf("2") == "three so");
    log.ReloadAlertFile(0);
    FileMap* second = messages;
    log.ReloadAlertFile(1); // any mode but 3 is "alert.rc"
    EXPECT_TRUE(messages == second && second->getConf("2") == "$MACHINE: cancelled");
    // A missing file keeps the texts in use, said once; the next request after it is back loads it.
    fs::rename(dir + "/alert3so.rc", dir + "/saved.rc");
    testing::internal::CaptureStderr();
    post(EvMessageFile, {3}), post(EvMessageFile, {3});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kestrava: cannot read the message file " + dir + "/alert3so.rc; the texts in use are kept\n");
    EXPECT_TRUE(!FatalStop::requested() && messages == second);
    fs::rename(dir + "/saved.rc", dir + "/alert3so.rc");
    post(EvMessageFile, {3});
    EXPECT_EQ(messages->getConf("2"), "back");
}

TEST_F(LogThTest, WriteFailuresAreReportedOnceUntilAWriteSucceeds)
{
    const std::string missing = dir + "/missing/deeper";
    config.setConf("Path", missing);
    testing::internal::CaptureStderr();
    post(EvLog, {1, 6}), post(EvLog, {1, 6});
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "kestrava: cannot create the log directory " + missing + "/log: No such file or directory\n"
              "kestrava: cannot write the log file " + missing + "/log/202611.log: No such file or directory; "
              "log lines are lost until it works again\n");
    // A full disk fails at the flush: said again only after a line was written in between.
    std::string full = "/dev/full", good = dir + "/good.log", line = "x";
    testing::internal::CaptureStderr();
    for (std::string* path : {&good, &full, &full, &good, &full, &full})
        EXPECT_EQ(LogTh::write(path, &line), path == &good ? 1 : 0);
    const std::string once = "kestrava: cannot write the log file /dev/full: No space left on device; "
                             "log lines are lost until it works again\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), once + once);
}

} // namespace
