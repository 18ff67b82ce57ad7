// Tests of the console interface thread on a loopback port, with a local
// controller core and a configuration file in a private directory, and of
// the console client kestrava-console run as a process against it.
#include "operator/CuiIFTh.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "daemon/Globals.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace {

const std::string kConsole = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-console";

sockaddr_in loopback(int port)
{
    return sockaddr_in{AF_INET, htons(static_cast<uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
}

// A loopback socket bound to a free port; listening when `listening`.
int boundSocket(int* port, bool listening)
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof addr;
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    *port = ntohs(addr.sin_port);
    if (listening)
        listen(fd, 1);
    return fd;
}

// A loopback port that nothing listens on at the moment.
int freePort()
{
    int port = 0;
    close(boundSocket(&port, false));
    return port;
}

// Connects to 127.0.0.1:port, retrying for at most 10 s while the server
// starts; every receive on the connection waits at most 5 s.
int connectTo(int port)
{
    int fd = -1;
    waitFor([&] {
        fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(port);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return true;
        close(fd);
        fd = -1;
        return false;
    }, 10, 50);
    struct timeval limit = {5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    return fd;
}

bool sendRequest(int fd, int command, const char* key = "", const char* value = "")
{
    CUIMSGINFO rec{};
    rec.command = command;
    snprintf(rec.key, sizeof rec.key, "%s", key);
    snprintf(rec.value, sizeof rec.value, "%s", value);
    return send(fd, &rec, sizeof rec, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof rec);
}

// Sends a request and reads its whole answer; the answer's command, or -1
// on time-out, peer close or a short record.
int ask(int fd, int command, const char* key = "", const char* value = "")
{
    CUIMSGINFO rec{};
    if (!sendRequest(fd, command, key, value) || recv(fd, &rec, sizeof rec, MSG_WAITALL) != sizeof rec)
        return -1;
    return rec.command;
}

class CuiIFThTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        writeFile(ini, "# console test\nUPSController=1\nCuiPort=" + std::to_string(port)
                           + "\nDumpLogRate=5\nShutdownDelay1=30\nAccessCode1=abc\nGroupName=g\n");
        config.load();
        savedConfig = gpMapConfig;
        gpMapConfig = &config;
        ctrl.Set_State_UPS(2);
        ctrl.setLogConfig();
        server.setListenAddress("127.0.0.1");
        ASSERT_TRUE(server.st());
    }
    void TearDown() override
    {
        server.requestStop();
        EXPECT_FALSE(server.sp());
        gpMapConfig = savedConfig;
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
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ask(fd, 10, "DumpLogRate", "10"), 128);
    // Stored and saved before the answer.
    EXPECT_EQ(config.getConf("DumpLogRate"), "10");
    EXPECT_NE(readFile(ini).find("DumpLogRate= 10\n"), std::string::npos);
    // Then notification 8002: the meter timer (11) restarts every 600 s and
    // the meter log records the change.
    EXPECT_EQ(events(4), (std::vector<std::vector<int>>{{0, 102, 11, 0}, {0, 100, 11, 600}, {5, 501, 0, 0},
                                                       {5, 501, 11, 0}}));

    // The other immediate keys, and one without a notification.
    EXPECT_EQ(ask(fd, 10, "AccessCode1", "xyz"), 128);
    EXPECT_EQ(ask(fd, 10, "ShutdownDelay1", "45"), 128);
    EXPECT_EQ(ask(fd, 10, "GroupName", "h"), 128);
    std::vector<std::vector<int>> ev = events(2);
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(std::make_pair(ev[0][0], ev[0][1]), std::make_pair(8, 800));
    EXPECT_EQ(std::make_pair(ev[1][0], ev[1][1]), std::make_pair(8, 801));
    EXPECT_EQ(ctrl.getShutdownDelay(0), 45);
    EXPECT_EQ(config.getConf("GroupName"), "h");
    close(fd);
}

TEST_F(CuiIFThTest, UnknownCommandIsIgnoredAndAShortRequestEndsOnlyItsConnection)
{
    int fd = connectTo(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendRequest(fd, 5, "DumpLogRate", "99"));
    usleep(300 * 1000);
    char c;
    EXPECT_EQ(recv(fd, &c, 1, MSG_DONTWAIT), -1); // no answer, and the connection stays
    EXPECT_EQ(ask(fd, 1), 128);
    EXPECT_EQ(config.getConf("DumpLogRate"), "5");

    char shortRequest[259] = {1};
    ASSERT_EQ(send(fd, shortRequest, sizeof shortRequest, MSG_NOSIGNAL), 259);
    EXPECT_EQ(recv(fd, &c, 1, 0), 0); // closed by the server
    close(fd);
    fd = connectTo(port); // the next client is served
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ask(fd, 1), 128);
    close(fd);
}

TEST_F(CuiIFThTest, ConsoleClientPingsAndSets)
{
    close(connectTo(port)); // the server listens
    ChildRun r = runProgram(tmp.path(), {kConsole, "--port", std::to_string(port), "ping"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kestrava-console: daemon answered\n");

    // The port comes from the given Kestrava.ini.
    r = runProgram(tmp.path(), {kConsole, "--config", ini, "set", "DumpLogRate", "10"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kestrava-console: DumpLogRate set to 10\n");
    EXPECT_NE(readFile(ini).find("DumpLogRate= 10\n"), std::string::npos);
}

TEST(ConsoleClient, FailsClearlyWithoutADaemonOrAnswer)
{
    TempDir tmp("console_test.");
    const std::string dir = tmp.path();
    int port = freePort();
    ChildRun r = runProgram(dir, {kConsole, "--port", std::to_string(port), "ping"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("no daemon listens on 127.0.0.1 port " + std::to_string(port)), std::string::npos) << r.err;

    // Something listens but never answers.
    int fd = boundSocket(&port, true);
    r = runProgram(dir, {kConsole, "--timeout", "1", "--port", std::to_string(port), "set", "A", "b"});
    close(fd);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no answer from the daemon within 1 s"), std::string::npos) << r.err;

    // Usage errors: status 2 with a hint; --help explains.
    r = runProgram(dir, {kConsole, "ping"});
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--port N or the daemon's Kestrava.ini with --config FILE"), std::string::npos) << r.err;
    EXPECT_EQ(runProgram(dir, {kConsole, "--port", "1", "set", "Key", "two\nlines"}).status, 2);
    r = runProgram(dir, {kConsole, "--help"});
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("set KEY VALUE"), std::string::npos);
}

TEST(CuiIFThAccept, AcceptFailureEndsTheProcessWithStatus1)
{
    // In a child: the failing accept ends the whole process.
    TempDir tmp("cuiifth_exit.");
    writeFile(tmp.file("Kestrava.ini"), "CuiPort=" + std::to_string(freePort()) + "\n");
    ChildRun r = runChild(tmp.path(), [&] {
        FileMap config(tmp.file("Kestrava.ini"));
        gpMapConfig = &config;
        ManualClock clock;
        StCTrl ctrl(&clock, &config);
        CuiIFTh server(6, &ctrl, &gpMapConfig);
        server.setListenAddress("127.0.0.1");
        if (!server.st() || !waitFor([&] { return server.listenSocket() >= 0; }, 5, 25))
            _exit(6);
        shutdown(server.listenSocket(), SHUT_RDWR); // not a stop request
        sleep(10);
        _exit(7);
    }, 30);
    EXPECT_EQ(r.status, 1);
}

} // namespace
