// The member's operator files: the bytes of "Controller.inf", the shutdown
// and controller logs, and the start-up check of the controller list with a
// recording uninstall exchange, in UTC.
#include "operator/CreateMultiControllerFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "config/FileMap.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;
using CMCF = CreateMultiControllerFile;

namespace {

class ControllerFilesTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        clock.set(ManualClock::utc(2026, 11, 23, 9, 5, 7));
        CMCF::setClock(&clock);
        mkdir((dir + "CONTROLLER").c_str(), 0755);
        mkdir((dir + "SHUTDOWN").c_str(), 0755);
    }
    void TearDown() override
    {
        CMCF::setClock(nullptr);
        CMCF::setUninstaller(nullptr);
    }
    FileMap* loadConfig(const std::string& text)
    {
        writeFile(dir + "Kestrava.ini", "Path=" + tmp.path() + "\n" + text);
        config.load();
        return &config;
    }
    std::string controllerLog() { return readFile(dir + "CONTROLLER/Controller.log"); }

    TempDir tmp{"cmcf_test."};
    std::string dir = tmp.path() + "/";
    ManualClock clock;
    FileMap config{dir + "Kestrava.ini"};
};

TEST_F(ControllerFilesTest, ControllerInfRowsAndNamesBySlotStateAndDisplayType)
{
    loadConfig("CtrlIPAddress1=10.213.0.1\nWinkTime1=60\nShutdownTime1=5\nAppTermTimeOut1=120\nShutdownDelay1=180\n"
               "AppTermCommand1=/usr/bin/stop-db\nUGName2=never shown\n"
               "UGName3=Office\x1b[2J\nWinkTime3=10000\nShutdownTime3=2\nAppTermTimeOut3=30\nShutdownDelay3=7\n"
               "AppTermCommand3=cmd\nCtrlIPAddress4=10.213.0.4\n");
    writeFile(dir + "Membercnt.cfg", "IPAddress4=ctrl-four\n");
    FileMap members(dir + "Membercnt.cfg");
    ShutCNT info;
    memset(&info, 0, sizeof info);
    info.startShutdown = 1;
    // Slot 1: heard, power failed, output on, a command: its time is marked.
    info.active[0] = 1, info.commStatus[0] = 1, info.pfStatus[0] = 1, info.outputStatus[0] = 1;
    // Slot 2 not in use: no row and no name even though it has a thread.
    info.commStatus[1] = 1;
    // Slot 3: lost while on low battery; a timing above 9999 drops the mark.
    info.active[2] = 1, info.commStatus[2] = 2, info.pfStatus[2] = 2;
    // Slot 4: never heard: power and output unknown; host name not yet known.
    info.active[3] = 1, info.pfStatus[3] = 1, info.outputStatus[3] = 1;
    std::vector<int> types = {0, 1, 1, 2};
    CMCF::WriteControllerInf(&info, dir.c_str(), &config, &members, [&](int k) { return types[k]; });
    EXPECT_EQ(readFile(dir + "CONTROLLER/Controller.inf"),
              "SHUTDOWN MODE : SHUTDOWN\n\n"
              "No COMM_ST   PS OUTPUT WINK COUNT APL_END SYS_DOWN \n"
              "----------------------------------------------------- \n"
              " 1 Active    PF  ON      60     5   120*     180\n"
              " 3 COMM Fail LB OFF    10000     2     30       7\n"
              " 4 NotActive -    -       0     0      0       0\n"
              "\nUPSController Name\n"
              "  No.1 10.213.0.1\n"
              "  No.3 Office?[2J\n"
              "  No.4 ctrl-four\n");

    // Rewritten whole: a slot without a thread keeps its row but has no
    // name; feeding mode; no temporary file is left beside it.
    info.startShutdown = 0;
    info.active[2] = info.active[3] = 0;
    CMCF::WriteControllerInf(&info, dir.c_str(), &config, &members, [](int k) { return k == 0 ? -1 : 0; });
    EXPECT_EQ(readFile(dir + "CONTROLLER/Controller.inf"),
              "SHUTDOWN MODE : FEEDING\n\nNo COMM_ST   PS OUTPUT WINK COUNT APL_END SYS_DOWN \n"
              "----------------------------------------------------- \n"
              " 1 Active    PF  ON      60     5   120*     180\n\nUPSController Name\n");
    EXPECT_EQ(std::distance(fs::directory_iterator(dir + "CONTROLLER"), fs::directory_iterator()), 1);
    EXPECT_TRUE(CMCF::InfShutTimeCheck(9999, 9999, 9999));
    EXPECT_FALSE(CMCF::InfShutTimeCheck(1, 1, 10000));
}

TEST_F(ControllerFilesTest, ShutdownAndControllerLogLines)
{
    DG2_ShutdownTimming t = {60, 5, 120, 180, "stop", 1};
    CMCF::WriteShutdownLog(1, "10.213.0.1", 1, &t, dir.c_str());
    t.marker = 0;
    CMCF::WriteShutdownLog(0, "bad\nname", 0, &t, dir.c_str());
    CMCF::WriteShutdownLog(1, "c", 6, &t, dir.c_str());
    CMCF::WriteShutdownLog(1, "c", 5, &t, dir.c_str());
    EXPECT_EQ(readFile(dir + "SHUTDOWN/202611_sh.log"),
              "2026/11/23 09:05:07 Shutdown 10.213.0.1 Power Failure 60, 5, 120*, 180\n"
              "2026/11/23 09:05:07 Feeding bad?name Unknown 60, 5, 120, 180\n"
              "2026/11/23 09:05:07 Shutdown c Unknown 60, 5, 120, 180\n"
              "2026/11/23 09:05:07 Shutdown c Timer Shutdown(Shutdown/Reboot) 60, 5, 120, 180\n");

    const int before = CMCF::UninstallSuccesses();
    CMCF::WriteCtrlerLog(0, 0, "a", dir.c_str());
    CMCF::WriteCtrlerLog(1, 0, "b", dir.c_str());
    CMCF::WriteCtrlerLog(1, 1, "c", dir.c_str());
    for (int code : {0, 1, 2, 3, 4})
        CMCF::WriteCtrlerErrLog(code, dir.c_str());
    EXPECT_EQ(CMCF::UninstallSuccesses(), before + 1);
    const std::string s = "2026/11/23 09:05:07 ";
    EXPECT_EQ(controllerLog(), s + "Add Controller (a)\n" + s + "Delete Controller (b)\n" + s +
                                   "Uninstall Success (b)\n" + s + "Delete Controller (c)\n" + s +
                                   "Uninstall Failure (c)\n" + s + "Configuration File Lost\n" + s +
                                   "IP Address is too wordy\n" + s + "There is none of IP Address or same it\n" + s +
                                   "Port Error\n");

    // A directory that is missing: the line is skipped and said once.
    fs::remove_all(dir + "SHUTDOWN");
    testing::internal::CaptureStderr();
    CMCF::WriteShutdownLog(1, "c", 1, &t, dir.c_str());
    CMCF::WriteShutdownLog(1, "c", 1, &t, dir.c_str());
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("SHUTDOWN/202611_sh.log"), std::string::npos);
    EXPECT_EQ(err.find('\n'), err.size() - 1);
}

// An uninstall exchange that records its call and answers chosen results.
struct RecordedUninstall {
    int calls = 0;
    std::vector<std::string> addresses;
    std::vector<unsigned short> ports;
    std::string own;
    unsigned short ownPort = 0;
    std::vector<unsigned char> answer;
    CMCF::Uninstaller fn()
    {
        return [this](unsigned char count, char* addrs, unsigned short* p, char* ownAddr, unsigned short op,
                      unsigned char* results) {
            ++calls;
            for (int i = 0; i < count; ++i) {
                addresses.push_back(std::string(addrs + 32 * i));
                ports.push_back(p[i]);
                results[i] = answer[i];
            }
            own = ownAddr, ownPort = op;
            return 0;
        };
    }
};

TEST_F(ControllerFilesTest, StartUpCheckAddsRemovesAndReplacesControllers)
{
    loadConfig("CtrlIPAddress1=10.213.0.1\nCtrlPort1=9861\nCtrlIPAddress2=10.213.0.2\nCtrlPort2=9870\nMyID2=@7\n"
               "MemberEntry2=1\nHostName2=old\nCtrlIPAddress3=10.213.0.3\nCtrlPort3=9871\nMemberEntry3=1\n"
               "CtrlIPAddress4=\nCtrlPort4=1\nMemberEntry4=1\nMyID4=@9\n");
    writeFile(dir + "Membercnt.cfg", "IPAddress1=10.213.0.1\nPort1=9861\nIPAddress2=\nIPAddress3=ctrl-b\nPort3=9872\n"
                                     "IPAddress4=10.213.0.4\nPort4=9873\n");
    RecordedUninstall u;
    u.answer = {0, 1};
    CMCF::setUninstaller(u.fn());
    FileMap* members = nullptr;
    bool changed = true;
    EXPECT_EQ(CMCF::CheckControllerFile("10.213.0.9", 9862, dir, &config, &members, nullptr, &changed), 0);
    ASSERT_NE(members, nullptr);
    EXPECT_FALSE(changed);
    // One exchange for both controllers that go, at their old ports.
    EXPECT_EQ(u.calls, 1);
    EXPECT_EQ(u.addresses, (std::vector<std::string>{"10.213.0.2", "10.213.0.3"}));
    EXPECT_EQ(u.ports, (std::vector<unsigned short>{9870, 9871}));
    EXPECT_EQ(u.own, "10.213.0.9");
    EXPECT_EQ(u.ownPort, 9862);
    const std::string s = "2026/11/23 09:05:07 ";
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
    delete members;

    // Started again with the same list: nothing to do, nothing written.
    const std::string log = controllerLog();
    EXPECT_EQ(CMCF::CheckControllerFile("10.213.0.9", 9862, dir, &config, &members, nullptr, &changed), 0);
    EXPECT_EQ(u.calls, 1);
    EXPECT_EQ(controllerLog(), log);
    delete members;

    // A list that is missing: the error line, no map, a failure.
    fs::remove(dir + "Membercnt.cfg");
    EXPECT_EQ(CMCF::CheckControllerFile("10.213.0.9", 9862, dir, &config, &members, nullptr, &changed), 1);
    EXPECT_EQ(members, nullptr);
    EXPECT_EQ(controllerLog(), log + s + "Configuration File Lost\n");
}

TEST_F(ControllerFilesTest, StartUpCheckLeavesSlotsInErrorUnusedAndKeepsTheirKeys)
{
    loadConfig("CtrlIPAddress1=10.213.0.1\nCtrlPort1=9861\nCtrlIPAddress2=\nCtrlPort2=\nCtrlIPAddress3=10.213.0.3\n"
               "CtrlPort3=9861\nCtrlIPAddress4=\nCtrlPort4=9861\n");
    writeFile(dir + "Membercnt.cfg", "IPAddress1=10.213.0.1\nPort1=70000\nIPAddress2=10.213.0.22\nPort2=\n"
                                     "IPAddress3=" + std::string(32, 'h') + "\nIPAddress4=10.213.0.22\n");
    RecordedUninstall u;
    u.answer = {1, 1, 1, 1};
    CMCF::setUninstaller(u.fn());
    FileMap* members = nullptr;
    EXPECT_EQ(CMCF::CheckControllerFile("*", 9862, dir, &config, &members, nullptr, nullptr), 0);
    const std::string s = "2026/11/23 09:05:07 ";
    // Slot 1: bad port; slot 2: no port at all; slot 3: 32 bytes; slot 4
    // the same as slot 2 (which is itself in error, so slot 4 is used).
    EXPECT_EQ(controllerLog(), s + "Port Error\n" + s + "Port Error\n" + s + "IP Address is too wordy\n" + s +
                                   "Add Controller (10.213.0.22)\n");
    EXPECT_EQ(u.calls, 0);
    for (int n : {1, 2, 3})
        EXPECT_EQ(members->getConf("IPAddress" + std::to_string(n)), "");
    EXPECT_EQ(members->getConf("IPAddress4"), "10.213.0.22");
    EXPECT_EQ(config.getConf("CtrlIPAddress1"), "10.213.0.1");
    EXPECT_EQ(config.getConf("CtrlIPAddress3"), "10.213.0.3");
    delete members;

    // Two slots naming the same controller: the second is dropped; no
    // controller at all: the same line (and every followed one goes).
    const std::string none = s + "There is none of IP Address or same it\n";
    writeFile(dir + "Membercnt.cfg", "IPAddress1=10.213.0.1\nPort1=9861\nIPAddress2=10.213.0.1\nPort2=9861\n");
    fs::remove(dir + "CONTROLLER/Controller.log");
    CMCF::CheckControllerFile("*", 9862, dir, &config, &members, nullptr, nullptr);
    EXPECT_EQ(members->getConf("IPAddress1"), "10.213.0.1");
    EXPECT_EQ(members->getConf("IPAddress2"), "");
    EXPECT_EQ(controllerLog().substr(0, none.size()), none);
    delete members;
    writeFile(dir + "Membercnt.cfg", "IPAddress1=\n");
    fs::remove(dir + "CONTROLLER/Controller.log");
    CMCF::CheckControllerFile("*", 9862, dir, &config, &members, nullptr, nullptr);
    delete members;
    EXPECT_EQ(controllerLog(), none + s + "Delete Controller (10.213.0.1)\n" + s + "Uninstall Failure (10.213.0.1)\n");
    EXPECT_EQ(u.addresses, (std::vector<std::string>{"10.213.0.3", "10.213.0.22", "10.213.0.1"}));
}

TEST_F(ControllerFilesTest, ReceivedTimingAndCommandFollowTheAcceptanceKeys)
{
    const std::string own = "WinkTime1=60\nShutdownTime1=5\nAppTermTimeOut1=120\nShutdownDelay1=180\n"
                            "AppTermCommand1=/usr/bin/own\n";
    writeFile(dir + "Membercnt.cfg", "IPAddress1=\nWinkTime=60\nShutdownTime=5\nAppTermTimeOut=120\nShutdownDelay=180\n"
                                     "AppTermCommand=rm -rf /\n");
    struct Case {
        std::string keys;
        bool changed;
        std::string command;
    } cases[] = {
        {"", true, "rm -rf /"},                                        // the controller's command is a change
        {"AcceptControllerCommand=0\n", false, "/usr/bin/own"},          // own command; timing equal
        {"AcceptControllerTiming=0\nWinkTime1=1\n", false, "/usr/bin/own"}, // own timing, never changed
    };
    for (const Case& c : cases) {
        loadConfig(c.keys + own);
        DG2_ShutdownTimming t;
        memset(&t, 0, sizeof t);
        bool changed = !c.changed;
        FileMap* members = nullptr;
        CMCF::CheckControllerFile("*", 9862, dir, &config, &members, &t, &changed);
        delete members;
        EXPECT_EQ(changed, c.changed) << c.keys;
        EXPECT_EQ(std::string(t.appTermCommand), c.command) << c.keys;
        EXPECT_EQ(t.winkTime, 60) << c.keys;
        EXPECT_EQ(t.shutdownDelay, 180) << c.keys;
    }
}

} // namespace
