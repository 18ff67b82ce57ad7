// The console interface thread on a loopback port, and the console client
// run as a process against it.
#include "operator/CuiIFTh.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <fcntl.h>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "daemon/Globals.h"
#include "core/FatalStop.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

namespace {

const std::string kConsole = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-console";

// A loopback port nothing uses; with `listener`, a socket kept listening on it.
int freePort(int* listener = nullptr)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    listener ? (listen(fd, 1), *listener = fd) : close(fd);
    return ntohs(addr.sin_port);
}

std::string boundAddress(int fd) // dotted
{
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    return inet_ntoa(addr.sin_addr);
}

// A connection to 127.0.0.1:port whose receives wait at most 5 s.
int connectTo(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    struct timeval limit = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0 ? fd : (close(fd), -1);
}

CUIMSGINFO record(int command, const char* key = "", const char* value = "")
{
    CUIMSGINFO rec{};
    rec.command = command;
    snprintf(rec.key, sizeof rec.key, "%s", key);
    snprintf(rec.value, sizeof rec.value, "%s", value);
    return rec;
}

// Sends a record and reads its whole answer; the answer's command, or -1 on
// time-out, peer close or a short record.
int ask(int fd, const CUIMSGINFO& rec)
{
    CUIMSGINFO answer{};
    if (send(fd, &rec, sizeof rec, MSG_NOSIGNAL) != sizeof rec
        || recv(fd, &answer, sizeof answer, MSG_WAITALL) != sizeof answer)
        return -1;
    return answer.command;
}
int ask(int fd, int command, const char* key = "", const char* value = "") { return ask(fd, record(command, key, value)); }

class CuiIFThTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        writeFile(ini, "# console test\nUPSController=1\nCuiPort=" + std::to_string(port)
                           + "\nDumpLogRate=5\nShutdownDelay1=30\nAccessCode1=abc\nGroupName=g\n"
                             "AppTermCommand1=/bin/true\nPath=/opt/k\n");
        config.load();
        savedConfig = gpMapConfig;
        gpMapConfig = &config;
        ctrl.Set_State_UPS(2);
        ctrl.setLogConfig();
        server.setIdleTimeout(300);
        ASSERT_TRUE(server.st());
        ASSERT_TRUE(waitFor([&] { return server.listenSocket() >= 0; }, 10, 20));
    }
    void TearDown() override
    {
        server.requestStop();
        EXPECT_FALSE(server.sp());
        gpMapConfig = savedConfig;
        FatalStop::resetForTests();
    }

    // (addressee, code, parameters 0 and 2) of the events the controller
    // posted, waiting at most 5 s until `count` are queued.
    std::vector<std::vector<int>> events(size_t count)
    {
        waitFor([&] { return ctrl.queuedEvents() >= count; }, 5, 25);
        std::vector<std::vector<int>> out;
        for (const EVENTMSGINFO& ev : drainEvents(ctrl))
            out.push_back({ev.to, ev.code, ev.params[0], ev.params[2]});
        return out;
    }

    TempDir tmp{"cuiifth_test."};
    std::string ini = tmp.file("Kestrava.ini");
    int port = freePort();
    ManualClock clock;
    FileMap config{ini};
    FileMap* savedConfig = nullptr;
    StCTrl ctrl{&clock, &config};
    CuiIFTh server{6, &ctrl, &gpMapConfig};
};

TEST_F(CuiIFThTest, SetConfigurationKeySavesAnswersThenNotifies)
{
    int fd = connectTo(port);
    ASSERT_EQ(ask(fd, 10, "DumpLogRate", "10"), 128);
    // Stored and saved before the answer.
    EXPECT_EQ(config.getConf("DumpLogRate"), "10");
    EXPECT_NE(readFile(ini).find("DumpLogRate= 10\n"), std::string::npos);
    // Then notification 8002: the meter timer (11) restarts every 600 s and
    // the meter log records the change.
    EXPECT_EQ(events(4), (std::vector<std::vector<int>>{{0, 102, 11, 0}, {0, 100, 11, 600}, {5, 501, 0, 0},
                                                       {5, 501, 11, 0}}));

    // The other immediate keys (the last without a notification) reach the network thread 8.
    for (const auto& kv : {std::make_pair("AccessCode1", "xyz"), {"ShutdownDelay1", "45"}, {"GroupName", "h"}})
        EXPECT_EQ(ask(fd, 10, kv.first, kv.second), 128) << kv.first;
    std::vector<std::vector<int>> ev = events(2);
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ((std::vector<int>{ev[0][0], ev[0][1], ev[1][0], ev[1][1]}), (std::vector<int>{8, 800, 8, 801}));
    EXPECT_EQ(ctrl.getShutdownDelay(0), 45);
    close(fd);

    // The console client, with the port taken from the given Kestrava.ini.
    ChildRun r = runProgram(tmp.path(), {kConsole, "--config", ini, "set", "GroupName", "k"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kestrava-console: GroupName set to k\n");
}

TEST_F(CuiIFThTest, UnknownCommandIsIgnoredAndAShortRequestEndsOnlyItsConnection)
{
    int fd = connectTo(port);
    CUIMSGINFO unknown = record(5, "DumpLogRate", "99");
    ASSERT_EQ(send(fd, &unknown, sizeof unknown, MSG_NOSIGNAL), 260);
    EXPECT_EQ(ask(fd, 1), 128);
    char c;
    EXPECT_EQ(recv(fd, &c, 1, MSG_DONTWAIT), -1); // no second answer: 5 had none
    EXPECT_EQ(config.getConf("DumpLogRate"), "5");

    char shortRequest[259] = {1};
    ASSERT_EQ(send(fd, shortRequest, sizeof shortRequest, MSG_NOSIGNAL), 259);
    EXPECT_EQ(recv(fd, &c, 1, 0), 0); // closed by the server
    close(fd);
    fd = connectTo(port); // the next client is served
    EXPECT_EQ(ask(fd, 1), 128);
    close(fd);
}

TEST_F(CuiIFThTest, KeysThatRunProgramsOrNameFilesAreRefusedUnlessTheOperatorOptsIn)
{
    const std::string before = readFile(ini);
    int fd = connectTo(port);
    for (const char* key : {"AppTermCommand1", "AppTermCommand4", "Path", "DeviceName", "UPSController",
                            "CuiAddress", "CuiPort", "CuiAllowCommandKeys"})
        EXPECT_EQ(ask(fd, 10, key, "/tmp/x"), 129) << key;
    // Line breaks, missing terminators and empty keys are refused the same way.
    CUIMSGINFO unterminatedKey = record(10, "", "v"), unterminatedValue = record(10, "GroupName");
    memset(unterminatedKey.key, 'K', sizeof unterminatedKey.key);
    memset(unterminatedValue.value, 'v', sizeof unterminatedValue.value);
    for (const CUIMSGINFO& rec : {unterminatedKey, unterminatedValue, record(10, "GroupName", "a\nPath=/"), record(10, "", "a")})
        EXPECT_EQ(ask(fd, rec), 129) << rec.key;
    EXPECT_EQ(readFile(ini), before);
    EXPECT_EQ(config.getConf("AppTermCommand1") + config.getConf("Path") + config.getConf("GroupName"), "/bin/true/opt/kg");
    EXPECT_EQ(ctrl.queuedEvents(), 0u);
    close(fd);

    ChildRun r = runProgram(tmp.path(), {kConsole, "--port", std::to_string(port), "set", "Path", "/"});
    EXPECT_EQ(r.status, 3);
    EXPECT_NE(r.err.find("the daemon refused to set \"Path\": "), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("CuiAllowCommandKeys=1"), std::string::npos) << r.err;

    // The opt-in is read at each request; the allow key itself stays out of reach.
    config.setConf("CuiAllowCommandKeys", "1");
    fd = connectTo(port);
    EXPECT_EQ(ask(fd, 10, "AppTermCommand1", "/usr/local/bin/stop-db"), 128);
    EXPECT_EQ(ask(fd, 10, "CuiAllowCommandKeys", "0"), 129);
    EXPECT_EQ(ask(fd, 10, "GroupName", "a\nb"), 129);
    close(fd);
    EXPECT_NE(readFile(ini).find("AppTermCommand1= /usr/local/bin/stop-db\n"), std::string::npos);
    EXPECT_EQ(config.getConf("CuiAllowCommandKeys"), "1");
}

TEST_F(CuiIFThTest, ListensOnLoopbackClosesIdleConnectionsAndHandsAcceptFailuresToMain)
{
    EXPECT_EQ(boundAddress(server.listenSocket()), "127.0.0.1");
    EXPECT_TRUE(fcntl(server.listenSocket(), F_GETFD) & FD_CLOEXEC);
    // An idle connection is closed after the idle time-out; the next is served.
    int idle = connectTo(port);
    char c;
    EXPECT_EQ(recv(idle, &c, 1, 0), 0);
    close(idle);
    int fd = connectTo(port);
    EXPECT_EQ(ask(fd, 1), 128);
    close(fd);

    // "*" binds every address; an invalid address falls back to the loopback.
    for (auto setting : {std::make_pair("*", "0.0.0.0"), std::make_pair("192.168.300.1", "127.0.0.1")}) {
        config.setConf("CuiAddress", setting.first);
        config.setConf("CuiPort", std::to_string(freePort()));
        CuiIFTh other(6, &ctrl, &gpMapConfig);
        ASSERT_TRUE(other.st());
        ASSERT_TRUE(waitFor([&] { return other.listenSocket() >= 0; }, 10, 20));
        EXPECT_EQ(boundAddress(other.listenSocket()), setting.second) << setting.first;
        other.requestStop();
        EXPECT_FALSE(other.sp());
    }

    // A failing accept is not a stop request: the main thread is asked to
    // end the daemon with status 1, and the thread returns.
    shutdown(server.listenSocket(), SHUT_RDWR);
    EXPECT_TRUE(waitFor([] { return FatalStop::requested(); }, 5, 20));
    EXPECT_EQ(FatalStop::status(), 1);
    EXPECT_EQ(runProgram(tmp.path(), {kConsole, "--port", "1", "set", "Key", "two\nlines"}).status, 2);
}

TEST_F(CuiIFThTest, StatusIsAnsweredReadOnlyAndTheClientShowsItWithAMonitoringExitStatus)
{
    // A UPS that supports alarm 59 (utility not present), which is active.
    UpsDataBlock ups(&clock);
    UpsDataBlock* upsPtr = &ups;
    const unsigned char map[8] = {0, 0, 0, 0, 0, 0, 0, 0x08};
    ups.setAlarmNo(map, 8, 0);
    const unsigned char on = 1, off = 0;
    ups.setActionLevel(&on, 1, 0);
    ups.checkAlarm(0);
    const int statusPort = freePort();
    config.setConf("CuiPort", std::to_string(statusPort));
    CuiIFTh status(6, &ctrl, &gpMapConfig, &upsPtr);
    ASSERT_TRUE(status.st());
    ASSERT_TRUE(waitFor([&] { return status.listenSocket() >= 0; }, 10, 20));

    // The request's key and value are not looked at: nothing is stored.
    const std::string before = readFile(ini);
    int fd = connectTo(statusPort);
    CUIMSGINFO req = record(20, "DumpLogRate", "99");
    ASSERT_EQ(send(fd, &req, sizeof req, MSG_NOSIGNAL), 260);
    std::vector<std::string> keys;
    CUIMSGINFO answer{};
    while (recv(fd, &answer, sizeof answer, MSG_WAITALL) == sizeof answer && answer.command == 130 && keys.size() < 100)
        keys.push_back(std::string(answer.key) + "=" + answer.value);
    EXPECT_EQ(answer.command, 128);
    EXPECT_EQ(keys, (std::vector<std::string>{"role=controller", "ups.state=communicating", "ups.power=battery",
                                              "alarm=59 8 Utility not present"}));
    EXPECT_EQ(ask(fd, 1), 128); // the connection serves the next request
    close(fd);
    EXPECT_EQ(readFile(ini), before);
    EXPECT_EQ(config.getConf("DumpLogRate"), "5");
    EXPECT_EQ(ctrl.queuedEvents(), 0u);

    const std::string portArg = std::to_string(statusPort);
    ChildRun r = runProgram(tmp.path(), {kConsole, "--port", portArg, "status"});
    EXPECT_EQ(r.status, 1) << r.err;
    EXPECT_NE(r.out.find("Power: on battery\nAlarms: 59 Utility not present\n"), std::string::npos) << r.out;

    // Power back: 0 for the monitoring check.
    ups.setActionLevel(&off, 1, 0);
    ups.checkAlarm(0);
    r = runProgram(tmp.path(), {kConsole, "--port", portArg, "status"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(r.out.find("Power: on utility\nAlarms: none\nCountdown: none\n"), std::string::npos) << r.out;
    status.requestStop();
    EXPECT_FALSE(status.sp());

    // 2 when no daemon listens, or when it never answers the request (a
    // daemon that does not know it), with the reason on standard error.
    r = runProgram(tmp.path(), {kConsole, "--port", portArg, "status"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("no daemon listens"), std::string::npos) << r.err;
    int silentFd = -1;
    const int silent = freePort(&silentFd);
    r = runProgram(tmp.path(), {kConsole, "--timeout", "1", "--port", std::to_string(silent), "status", "--json"});
    close(silentFd);
    EXPECT_EQ(r.status, 2);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("no answer from the daemon within 1 s"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("does not answer \"status\""), std::string::npos) << r.err;
}

} // namespace
