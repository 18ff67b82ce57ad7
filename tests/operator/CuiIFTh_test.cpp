// Tests of the console interface thread on a loopback port, with a local
// controller core and a configuration file in a private directory, and of
// the console client kestrava-console run as a process against it.
#include "operator/CuiIFTh.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"

namespace {

const std::string kConsole = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-console";

sockaddr_in loopback(int port)
{
    sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// A loopback port that nothing listens on at the moment.
int freePort()
{
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

// Connects to 127.0.0.1:port, retrying while the server is starting
// (at most `seconds`). -1 when no connection was made.
int connectTo(int port, int seconds = 10)
{
    for (int i = 0; i < seconds * 20; ++i) {
        int fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr = loopback(port);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0)
            return fd;
        close(fd);
        usleep(50 * 1000);
    }
    return -1;
}

bool readable(int fd, int ms)
{
    struct pollfd p = {fd, POLLIN, 0};
    return poll(&p, 1, ms) > 0;
}

// Reads a whole answer record within a bounded time. false on time-out,
// peer close or a short record.
bool readAnswer(int fd, CUIMSGINFO* out, int ms = 5000)
{
    size_t got = 0;
    while (got < sizeof *out) {
        if (!readable(fd, ms))
            return false;
        ssize_t n = recv(fd, reinterpret_cast<char*>(out) + got, sizeof *out - got, 0);
        if (n <= 0)
            return false;
        got += static_cast<size_t>(n);
    }
    return true;
}

bool sendRequest(int fd, int command, const char* key = "", const char* value = "")
{
    CUIMSGINFO req;
    memset(&req, 0, sizeof req);
    req.command = command;
    snprintf(req.key, sizeof req.key, "%s", key);
    snprintf(req.value, sizeof req.value, "%s", value);
    return send(fd, &req, sizeof req, MSG_NOSIGNAL) == static_cast<ssize_t>(sizeof req);
}

// The peer closed the connection (end of file seen within the time).
bool closedByPeer(int fd, int ms = 5000)
{
    char c;
    return readable(fd, ms) && recv(fd, &c, 1, 0) == 0;
}

struct ProcessResult {
    int status = -1; // exit status, -1 when it did not exit normally in time
    std::string out;
    std::string err;
};

// Runs a program with its output in files, bounded in time.
ProcessResult run(const std::vector<std::string>& args, const std::string& scratch, int seconds = 20)
{
    ProcessResult result;
    const std::string outPath = scratch + "/out.txt";
    const std::string errPath = scratch + "/err.txt";
    pid_t pid = fork();
    if (pid == 0) {
        if (!freopen(outPath.c_str(), "w", stdout) || !freopen(errPath.c_str(), "w", stderr))
            _exit(126);
        std::vector<char*> argv;
        for (const auto& a : args)
            argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(argv[0], argv.data());
        _exit(127);
    }
    int status = waitBounded(pid, seconds);
    if (status != -1 && WIFEXITED(status))
        result.status = WEXITSTATUS(status);
    result.out = readFile(outPath);
    result.err = readFile(errPath);
    return result;
}

class CuiIFThTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(tmp.made());
        dir = tmp.path();
        port = freePort();
        ini = dir + "/Kestrava.ini";
        writeFile(ini, "# console test\nUPSController=1\nCuiPort=" + std::to_string(port) +
                           "\nDumpLogRate=5\nShutdownDelay1=30\nAccessCode1=abc\nGroupName=g\n");
        savedConfig = gpMapConfig;
        config = new FileMap(ini);
        gpMapConfig = config;
        ctrl = new StCTrl(&clock, config);
        ctrl->Set_State_UPS(2);
        ctrl->setLogConfig();
        server = new CuiIFTh(6, ctrl);
        server->setListenAddress("127.0.0.1");
        ASSERT_TRUE(server->st());
    }

    void TearDown() override
    {
        server->requestStop();
        EXPECT_FALSE(server->sp());
        delete server;
        delete ctrl;
        delete config;
        gpMapConfig = savedConfig;
    }

    // Events the controller posted, waiting (bounded) until `count` are queued.
    std::vector<EVENTMSGINFO> events(size_t count)
    {
        for (int i = 0; i < 200 && ctrl->queuedEvents() < count; ++i)
            usleep(25 * 1000);
        return drainEvents(*ctrl);
    }

    TempDir tmp{"cuiifth_test."};
    std::string dir;
    std::string ini;
    int port = 0;
    ManualClock clock;
    FileMap* config = nullptr;
    FileMap* savedConfig = nullptr;
    StCTrl* ctrl = nullptr;
    CuiIFTh* server = nullptr;
};

TEST_F(CuiIFThTest, SetConfigurationKeySavesAnswersThenNotifies)
{
    int fd = connectTo(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendRequest(fd, 10, "DumpLogRate", "10"));
    CUIMSGINFO answer;
    ASSERT_TRUE(readAnswer(fd, &answer));
    EXPECT_EQ(answer.command, 128);
    // Stored and saved before the answer.
    EXPECT_EQ(config->getConf("DumpLogRate"), "10");
    EXPECT_NE(readFile(ini).find("DumpLogRate= 10\n"), std::string::npos);

    // Notification 8002: the meter timer restarts with the new rate and the
    // meter log records the change.
    std::vector<EVENTMSGINFO> ev = events(4);
    ASSERT_EQ(ev.size(), 4u);
    EXPECT_EQ(ev[0].code, 102);
    EXPECT_EQ(ev[0].params[0], 11);
    EXPECT_EQ(ev[1].code, 100);
    EXPECT_EQ(ev[1].params[0], 11);
    EXPECT_EQ(ev[1].params[2], 600);
    EXPECT_EQ(ev[2].code, 501);
    EXPECT_EQ(ev[2].params[0], 0);
    EXPECT_EQ(ev[3].code, 501);
    EXPECT_EQ(ev[3].params[0], 11);

    // The other immediate keys, and one without a notification.
    ASSERT_TRUE(sendRequest(fd, 10, "AccessCode1", "xyz"));
    ASSERT_TRUE(readAnswer(fd, &answer));
    ASSERT_TRUE(sendRequest(fd, 10, "ShutdownDelay1", "45"));
    ASSERT_TRUE(readAnswer(fd, &answer));
    ASSERT_TRUE(sendRequest(fd, 10, "GroupName", "h"));
    ASSERT_TRUE(readAnswer(fd, &answer));
    ev = events(2);
    ASSERT_EQ(ev.size(), 2u);
    EXPECT_EQ(ev[0].to, 8);
    EXPECT_EQ(ev[0].code, 800);
    EXPECT_EQ(ev[1].to, 8);
    EXPECT_EQ(ev[1].code, 801);
    EXPECT_EQ(ctrl->getShutdownDelay(0), 45);
    EXPECT_EQ(config->getConf("GroupName"), "h");
    close(fd);
}

TEST_F(CuiIFThTest, UnknownCommandIsNotAnsweredAndTheConnectionStays)
{
    int fd = connectTo(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendRequest(fd, 5, "DumpLogRate", "99"));
    EXPECT_FALSE(readable(fd, 300));
    ASSERT_TRUE(sendRequest(fd, 1));
    CUIMSGINFO answer;
    ASSERT_TRUE(readAnswer(fd, &answer));
    EXPECT_EQ(answer.command, 128);
    EXPECT_EQ(config->getConf("DumpLogRate"), "5");
    close(fd);
}

TEST_F(CuiIFThTest, ShortRequestEndsTheConnectionOnly)
{
    int fd = connectTo(port);
    ASSERT_GE(fd, 0);
    char shortRequest[259];
    memset(shortRequest, 0, sizeof shortRequest);
    shortRequest[0] = 1;
    ASSERT_EQ(send(fd, shortRequest, sizeof shortRequest, MSG_NOSIGNAL), 259);
    EXPECT_TRUE(closedByPeer(fd));
    close(fd);

    // The next client is served.
    fd = connectTo(port);
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(sendRequest(fd, 1));
    CUIMSGINFO answer;
    EXPECT_TRUE(readAnswer(fd, &answer));
    close(fd);
}

TEST_F(CuiIFThTest, ConsoleClientPingsAndSets)
{
    int fd = connectTo(port); // the server listens
    ASSERT_GE(fd, 0);
    close(fd);

    ProcessResult r = run({kConsole, "--port", std::to_string(port), "ping"}, dir);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kestrava-console: daemon answered\n");

    // The port comes from the given Kestrava.ini.
    r = run({kConsole, "--config", ini, "set", "DumpLogRate", "10"}, dir);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "kestrava-console: DumpLogRate set to 10\n");
    EXPECT_EQ(config->getConf("DumpLogRate"), "10");
    EXPECT_NE(readFile(ini).find("DumpLogRate= 10\n"), std::string::npos);
}

TEST(ConsoleClient, FailsClearlyWithoutADaemonOrAnswer)
{
    TempDir tmp("console_test.");
    ASSERT_TRUE(tmp.made());
    const std::string dir = tmp.path();

    // Nothing listens.
    int port = freePort();
    ProcessResult r = run({kConsole, "--port", std::to_string(port), "ping"}, dir);
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.out, "");
    EXPECT_NE(r.err.find("no daemon listens on 127.0.0.1 port " + std::to_string(port)), std::string::npos) << r.err;

    // Something listens but never answers.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    ASSERT_EQ(listen(fd, 1), 0);
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    r = run({kConsole, "--timeout", "1", "--port", std::to_string(ntohs(addr.sin_port)), "set", "A", "b"}, dir);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("no answer from the daemon within 1 s"), std::string::npos) << r.err;
    close(fd);

    // Usage errors: status 2 with a hint; --help explains.
    r = run({kConsole, "ping"}, dir);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("--port N or the daemon's Kestrava.ini with --config FILE"), std::string::npos) << r.err;
    r = run({kConsole, "--port", "1", "set", "Key"}, dir);
    EXPECT_EQ(r.status, 2);
    r = run({kConsole, "--port", "1", "set", "Key", "two\nlines"}, dir);
    EXPECT_EQ(r.status, 2);
    r = run({kConsole, "--config", dir + "/missing.ini", "ping"}, dir);
    EXPECT_EQ(r.status, 2);
    EXPECT_NE(r.err.find("cannot read " + dir + "/missing.ini"), std::string::npos) << r.err;
    r = run({kConsole, "--help"}, dir);
    EXPECT_EQ(r.status, 0);
    EXPECT_NE(r.out.find("set KEY VALUE"), std::string::npos);
    EXPECT_NE(r.out.find("--config FILE"), std::string::npos);
}

TEST(CuiIFThAccept, AcceptFailureEndsTheProcessWithStatus1)
{
    // Runs in a child: the failing accept ends the whole process.
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char tmpl[] = "/tmp/cuiifth_exit.XXXXXX";
        if (!mkdtemp(tmpl))
            _exit(5);
        const std::string ini = std::string(tmpl) + "/Kestrava.ini";
        writeFile(ini, "CuiPort=" + std::to_string(freePort()) + "\n");
        FileMap config(ini);
        gpMapConfig = &config;
        ManualClock clock;
        StCTrl ctrl(&clock, &config);
        CuiIFTh server(6, &ctrl);
        server.setListenAddress("127.0.0.1");
        if (!server.st())
            _exit(6);
        for (int i = 0; i < 200 && server.listenSocket() < 0; ++i)
            usleep(25 * 1000);
        unlink(ini.c_str());
        rmdir(tmpl);
        // Not a stop request: accept fails under the running thread.
        shutdown(server.listenSocket(), SHUT_RDWR);
        sleep(10);
        _exit(7);
    }
    int status = waitBounded(pid, 30);
    ASSERT_NE(status, -1) << "child did not end";
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);
}

} // namespace
