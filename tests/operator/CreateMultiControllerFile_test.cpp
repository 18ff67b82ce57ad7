// The member's operator files in UTC: "Controller.inf", the shutdown log, and the start-up check of the
// controller list with its controller log and a recording uninstall exchange.
#include "operator/CreateMultiControllerFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "config/FileMap.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;
using CMCF = CreateMultiControllerFile;

namespace {

const std::string s = "2026/11/23 09:05:07 "; // every line's time stamp

class ControllerFilesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1), tzset();
        CMCF::setClock(&clock);
        fs::create_directory(dir + "CONTROLLER"), fs::create_directory(dir + "SHUTDOWN");
    }
    void TearDown() override { CMCF::setClock(nullptr), CMCF::setUninstaller(nullptr); }
    void setUp(const std::string& ini, const std::string& list)
    {
        writeFile(dir + "Kestrava.ini", "Path=" + tmp.path() + "\n" + ini);
        config.load();
        writeFile(dir + "Membercnt.cfg", list);
        fs::remove(dir + "CONTROLLER/Controller.log");
    }
    // The start-up check; `members` is the list it loaded (null: none).
    int check(const std::string& address = "*", DG2_ShutdownTimming* t = nullptr, bool* changed = nullptr)
    {
        FileMap* m = nullptr;
        const int rc = CMCF::CheckControllerFile(address, 9862, dir, &config, &m, t, changed);
        return members.reset(m), rc;
    }
    std::string controllerLog() { return readFile(dir + "CONTROLLER/Controller.log"); }

    TempDir tmp{"cmcf_test."};
    std::string dir = tmp.path() + "/";
    ManualClock clock{ManualClock::utc(2026, 11, 23, 9, 5, 7)};
    FileMap config{dir + "Kestrava.ini"};
    std::unique_ptr<FileMap> members;
};

TEST_F(ControllerFilesTest, ControllerInfRowsAndNamesBySlotStateAndDisplayType)
{
    setUp("CtrlIPAddress1=10.213.0.1\nWinkTime1=60\nShutdownTime1=5\nAppTermTimeOut1=120\nShutdownDelay1=180\n"
          "AppTermCommand1=/usr/bin/stop-db\nUGName2=never shown\n"
          "UGName3=Office\x1b[2J\nWinkTime3=10000\nShutdownTime3=2\nAppTermTimeOut3=30\nShutdownDelay3=7\n"
          "AppTermCommand3=cmd\nCtrlIPAddress4=10.213.0.4\n",
          "IPAddress4=ctrl-four\n");
    FileMap list(dir + "Membercnt.cfg");
    ShutCNT info{};
    info.startShutdown = 1; // 1: heard, power failed, output on, a command: its time is marked.
    info.active[0] = 1, info.commStatus[0] = 1, info.pfStatus[0] = 1, info.outputStatus[0] = 1;
    info.commStatus[1] = 1; // 2: not in use: no row, no name, though it has a thread
    // 3: lost on low battery; a timing above 9999 drops the mark.
    info.active[2] = 1, info.commStatus[2] = 2, info.pfStatus[2] = 2;
    // 4: never heard: power and output unknown; host name not yet known.
    info.active[3] = 1, info.pfStatus[3] = 1, info.outputStatus[3] = 1;
    const std::string head = "\nNo COMM_ST   PS OUTPUT WINK COUNT APL_END SYS_DOWN \n"
                             "----------------------------------------------------- \n"
                             " 1 Active    PF  ON      60     5   120*     180\n";
    const int types[] = {0, 1, 1, 2};
    CMCF::WriteControllerInf(&info, dir.c_str(), &config, &list, [&](int k) { return types[k]; });
    EXPECT_EQ(readFile(dir + "CONTROLLER/Controller.inf"),
              "SHUTDOWN MODE : SHUTDOWN\n" + head + " 3 COMM Fail LB OFF    10000     2     30       7\n"
              " 4 NotActive -    -       0     0      0       0\n\nUPSController Name\n  No.1 10.213.0.1\n"
              "  No.3 Office?[2J\n  No.4 ctrl-four\n");

    // Rewritten whole, no temporary file left; a slot without a thread keeps its row but has no name.
    info.startShutdown = info.active[2] = info.active[3] = 0;
    CMCF::WriteControllerInf(&info, dir.c_str(), &config, &list, [](int k) { return k == 0 ? -1 : 0; });
    EXPECT_EQ(readFile(dir + "CONTROLLER/Controller.inf"), "SHUTDOWN MODE : FEEDING\n" + head + "\nUPSController Name\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir + "CONTROLLER"), fs::directory_iterator()), 1);
}

TEST_F(ControllerFilesTest, ShutdownLogLinesAndAMissingDirectorySaidOnce)
{
    DG2_ShutdownTimming t = {60, 5, 120, 180, "stop", 1};
    CMCF::WriteShutdownLog(1, "10.213.0.1", 1, &t, dir.c_str());
    t.marker = 0;
    for (int reason : {0, 6, 5}) // unknown reasons, then the timer's
        CMCF::WriteShutdownLog(reason != 0, reason ? "c" : "bad\nname", reason, &t, dir.c_str());
    EXPECT_EQ(readFile(dir + "SHUTDOWN/202611_sh.log"),
              s + "Shutdown 10.213.0.1 Power Failure 60, 5, 120*, 180\n" + s + "Feeding bad?name Unknown 60, 5, 120, 180\n" +
                  s + "Shutdown c Unknown 60, 5, 120, 180\n" + s +
                  "Shutdown c Timer Shutdown(Shutdown/Reboot) 60, 5, 120, 180\n");

    // The directory missing: the line is skipped and said once.
    fs::remove_all(dir + "SHUTDOWN");
    testing::internal::CaptureStderr();
    CMCF::WriteShutdownLog(1, "c", 1, &t, dir.c_str()), CMCF::WriteShutdownLog(1, "c", 1, &t, dir.c_str());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(err.find("SHUTDOWN/202611_sh.log") != std::string::npos && err.find('\n') == err.size() - 1) << err;
}

TEST_F(ControllerFilesTest, StartUpCheckAddsRemovesAndReplacesControllers)
{
    setUp("CtrlIPAddress1=10.213.0.1\nCtrlPort1=9861\nCtrlIPAddress2=10.213.0.2\nCtrlPort2=9870\nMyID2=@7\n"
          "MemberEntry2=1\nHostName2=old\nCtrlIPAddress3=10.213.0.3\nCtrlPort3=9871\nMemberEntry3=1\n"
          "CtrlIPAddress4=\nCtrlPort4=1\nMemberEntry4=1\nMyID4=@9\n",
          "IPAddress1=10.213.0.1\nPort1=9861\nIPAddress2=\nIPAddress3=ctrl-b\nPort3=9872\nIPAddress4=10.213.0.4\n"
          "Port4=9873\n");
    // The uninstall exchange records its call: both going controllers in one call, at their old ports;
    // the first confirms.
    std::vector<std::string> calls;
    CMCF::setUninstaller([&](unsigned char n, char* addrs, unsigned short* ports, char* own, unsigned short ownPort,
                             unsigned char* results) {
        calls.push_back(std::string(own) + ":" + std::to_string(ownPort));
        for (int i = 0; i < n; ++i)
            calls.back() += " " + std::string(addrs + 32 * i) + ":" + std::to_string(ports[i]), results[i] = i > 0;
        return 0;
    });
    bool changed = true;
    const int successes = CMCF::UninstallSuccesses();
    EXPECT_EQ(check("10.213.0.9", nullptr, &changed), 0);
    ASSERT_NE(members, nullptr);
    EXPECT_TRUE(CMCF::UninstallSuccesses() == successes + 1 && !changed);
    EXPECT_EQ(calls, std::vector<std::string>{"10.213.0.9:9862 10.213.0.2:9870 10.213.0.3:9871"});
    EXPECT_EQ(controllerLog(), s + "Delete Controller (10.213.0.2)\n" + s + "Uninstall Success (10.213.0.2)\n" + s +
                                   "Delete Controller (10.213.0.3)\n" + s + "Uninstall Failure (10.213.0.3)\n" + s +
                                   "Add Controller (ctrl-b)\n" + s + "Add Controller (10.213.0.4)\n");
    // Saved: the followed list is the operator's list, registrations reset.
    FileMap saved(dir + "Kestrava.ini");
    for (auto kv : std::vector<std::pair<std::string, std::string>>{
             {"CtrlIPAddress1", "10.213.0.1"}, {"CtrlIPAddress2", ""}, {"MyID2", ""}, {"MemberEntry2", "0"},
             {"HostName2", ""}, {"CtrlIPAddress3", "ctrl-b"}, {"CtrlPort3", "9872"}, {"MemberEntry3", "0"},
             {"CtrlIPAddress4", "10.213.0.4"}, {"CtrlPort4", "9873"}, {"MemberEntry4", "0"}, {"MyID4", ""}})
        EXPECT_EQ(saved.getConf(kv.first), kv.second) << kv.first;

    // Started again with the same list: nothing to do, nothing written. The list missing: the error line,
    // no map, a failure.
    const std::string log = controllerLog();
    EXPECT_EQ(check("10.213.0.9"), 0);
    EXPECT_TRUE(calls.size() == 1 && controllerLog() == log);
    fs::remove(dir + "Membercnt.cfg");
    EXPECT_EQ(check("10.213.0.9"), 1);
    EXPECT_EQ(members, nullptr);
    EXPECT_EQ(controllerLog(), log + s + "Configuration File Lost\n");
}

TEST_F(ControllerFilesTest, StartUpCheckLeavesSlotsInErrorUnusedAndKeepsTheirKeys)
{
    std::vector<std::string> gone;
    CMCF::setUninstaller([&](unsigned char n, char* addrs, unsigned short*, char*, unsigned short,
                             unsigned char* results) {
        for (int i = 0; i < n; ++i)
            gone.push_back(addrs + 32 * i), results[i] = 1;
        return 0;
    });
    // 1: bad port; 2: no port at all; 3: 32 bytes; 4: the same as 2 (itself
    // in error, so 4 is used).
    setUp("CtrlIPAddress1=10.213.0.1\nCtrlPort1=9861\nCtrlIPAddress2=\nCtrlPort2=\nCtrlIPAddress3=10.213.0.3\n"
          "CtrlPort3=9861\nCtrlIPAddress4=\nCtrlPort4=9861\n",
          "IPAddress1=10.213.0.1\nPort1=70000\nIPAddress2=10.213.0.22\nPort2=\nIPAddress3=" + std::string(32, 'h') +
              "\nIPAddress4=10.213.0.22\n");
    EXPECT_EQ(check(), 0);
    EXPECT_EQ(controllerLog(), s + "Port Error\n" + s + "Port Error\n" + s + "IP Address is too wordy\n" + s +
                                   "Add Controller (10.213.0.22)\n");
    EXPECT_TRUE(gone.empty());
    for (auto kv : std::vector<std::pair<std::string, std::string>>{
             {"IPAddress1", ""}, {"IPAddress2", ""}, {"IPAddress3", ""}, {"IPAddress4", "10.213.0.22"}})
        EXPECT_EQ(members->getConf(kv.first), kv.second) << kv.first;
    EXPECT_EQ(config.getConf("CtrlIPAddress1") + " " + config.getConf("CtrlIPAddress3"), "10.213.0.1 10.213.0.3");

    // Two slots naming the same controller: the second is dropped; none at all: the same line, all go.
    const std::string none = s + "There is none of IP Address or same it\n";
    writeFile(dir + "Membercnt.cfg", "IPAddress1=10.213.0.1\nPort1=9861\nIPAddress2=10.213.0.1\nPort2=9861\n");
    fs::remove(dir + "CONTROLLER/Controller.log");
    check();
    EXPECT_EQ(members->getConf("IPAddress1") + "|" + members->getConf("IPAddress2"), "10.213.0.1|");
    EXPECT_EQ(controllerLog().substr(0, none.size()), none);
    writeFile(dir + "Membercnt.cfg", "IPAddress1=\n");
    fs::remove(dir + "CONTROLLER/Controller.log");
    check();
    EXPECT_EQ(controllerLog(), none + s + "Delete Controller (10.213.0.1)\n" + s + "Uninstall Failure (10.213.0.1)\n");
    EXPECT_EQ(gone, (std::vector<std::string>{"10.213.0.3", "10.213.0.22", "10.213.0.1"}));
}

TEST_F(ControllerFilesTest, ReceivedTimingAndCommandFollowTheAcceptanceKeys)
{
    // Whether the controller's timing and command are taken: {keys, changed, command}.
    const std::tuple<std::string, bool, std::string> cases[] = {
        {"", true, "rm -rf /"}, {"AcceptControllerCommand=0\n", false, "/usr/bin/own"}, // timing equal
        {"AcceptControllerTiming=0\nWinkTime1=1\n", false, "/usr/bin/own"}};          // own timing, never changed
    for (const auto& [keys, expectChanged, command] : cases) {
        setUp(keys + "WinkTime1=60\nShutdownTime1=5\nAppTermTimeOut1=120\nShutdownDelay1=180\n"
                     "AppTermCommand1=/usr/bin/own\n",
              "IPAddress1=\nWinkTime=60\nShutdownTime=5\nAppTermTimeOut=120\nShutdownDelay=180\n"
              "AppTermCommand=rm -rf /\n");
        DG2_ShutdownTimming t{};
        bool changed = !expectChanged;
        check("*", &t, &changed);
        EXPECT_EQ(std::to_string(changed) + " " + t.appTermCommand + " " + std::to_string(t.winkTime) + " " +
                      std::to_string(t.shutdownDelay), std::to_string(expectChanged) + " " + command + " 60 180") << keys;
    }
}

} // namespace
