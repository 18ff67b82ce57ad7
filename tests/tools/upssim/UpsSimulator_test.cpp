// Tests of the simulated UPS: framing, the block layouts as the daemon's
// parsers read them, and the simulator serving a real pseudo-terminal.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"
#include "tools/upssim/SimOptions.h"
#include "tools/upssim/UpsModel.h"
#include "tools/upssim/XcpCommandReader.h"
#include "tools/upssim/XcpFrameCodec.h"

using namespace upssim;

namespace {

using Clock = std::chrono::steady_clock;

unsigned word(const Bytes& b, size_t at) { return b.at(at) | (b.at(at + 1) << 8); }

// What the daemon's identification-block parser takes from block 1.
struct ParsedId {
    std::string firmware, unitName, secondText;
    unsigned rating = 0, configLength = 0;
    Bytes meterMap, alarmMap;
};

ParsedId parseId(const Bytes& d) {
    ParsedId id;
    size_t f = d.at(0), pos = 2 * f + 1;
    char buf[16] = "--.--";
    if (d.size() > 4 && f > 1 && (d[3] || d[4])) std::snprintf(buf, sizeof buf, "%X.%02X", d[4], d[3]);
    id.firmware = buf;
    id.rating = d.at(pos++) * 1000u;
    if (id.rating == 0) {
        id.rating = word(d, pos) * 50u;
        pos += 2;
    }
    pos += 2;  // identification bytes 1 and 2
    auto field = [&] {
        size_t n = d.at(pos++);
        Bytes out(d.begin() + static_cast<long>(pos), d.begin() + static_cast<long>(pos + n));
        pos += n;
        return out;
    };
    auto text = [&] {
        Bytes b = field();
        return std::string(b.begin(), b.end());
    };
    id.unitName = text();
    id.meterMap = field();
    id.alarmMap = field();
    id.configLength = word(d, pos);
    pos += 2;
    id.secondText = text();
    EXPECT_LE(pos, d.size());
    return id;
}

// The daemon's meter walk: values in hundredths per meter number.
std::map<int, long> parseMeters(const Bytes& map, const Bytes& data) {
    std::map<int, long> values;
    size_t pos = 0;
    for (size_t n = 0; n < map.size(); ++n) {
        if (map[n] == 0) continue;
        uint32_t raw = word(data, pos) | (word(data, pos + 2) << 16);
        pos += 4;
        float fl;
        memcpy(&fl, &raw, sizeof fl);
        long v = map[n] >= 0xF0 ? static_cast<int32_t>(raw) * 100L : std::lround(fl * 10.0) * 10;
        for (int i = 0; map[n] >= 0xF0 && i < (map[n] & 0x0F); ++i) v /= 10;
        if (map[n] < 0xE0 || map[n] >= 0xF0) values[static_cast<int>(n)] = v;  // 0xE0: unused
    }
    EXPECT_EQ(pos, data.size());
    return values;
}

std::vector<int> supportedFromMap(const Bytes& map) {
    std::vector<int> out;
    for (size_t i = 0; i < map.size() * 8; ++i)
        if (map[i / 8] & (1 << (i % 8))) out.push_back(static_cast<int>(i));
    return out;
}

bool parseArgs(std::vector<std::string> args, SimOptions* o, std::string* error) {
    std::vector<char*> argv;
    args.insert(args.begin(), "kestrava-upssim");
    for (std::string& a : args) argv.push_back(&a[0]);
    return SimOptions::parse(static_cast<int>(argv.size()), argv.data(), o, error);
}

SimOptions optionsFrom(const std::vector<std::string>& args) {
    SimOptions o;
    std::string error;
    EXPECT_TRUE(parseArgs(args, &o, &error)) << error;
    return o;
}

UpsModel::Reply ask(UpsModel& m, int code, const Bytes& args = Bytes()) {
    std::vector<std::string> notes;
    return m.handle(static_cast<uint8_t>(code), args, 0, &notes);
}

}  // namespace

TEST(XcpFrameCodec, ChecksumsCommandFramesAndNumberedReplyFrames) {
    EXPECT_EQ(0x23, XcpFrameCodec::checksum(Bytes{0xAB, 0x01, 0x31}));
    EXPECT_EQ((Bytes{0xAB, 0x01, 0x31, 0x23}), XcpFrameCodec::encodeCommand(0x31));

    Bytes data(600);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    std::vector<Bytes> frames = XcpFrameCodec::encodeReplyFrames(0x04, data);
    ASSERT_EQ(3u, frames.size());
    const uint8_t seqs[] = {0x01, 0x02, 0x83}, lens[] = {255, 255, 90};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ((Bytes{0xAB, 0x04, lens[i], seqs[i]}), Bytes(frames[i].begin(), frames[i].begin() + 4));
        EXPECT_EQ(0, XcpFrameCodec::checksum(frames[i])) << "frame " << i;
    }
    Bytes wire = XcpFrameCodec::encodeReply(0x04, data), back;
    EXPECT_EQ(0, XcpFrameCodec::decodeReply(wire, 0x04, &back));
    EXPECT_EQ(data, back);

    // A small frame size splits small blocks too; an empty block is one frame.
    std::vector<Bytes> small = XcpFrameCodec::encodeReplyFrames(9, Bytes{1, 2, 3, 4, 5}, 2);
    ASSERT_EQ(3u, small.size());
    EXPECT_EQ((Bytes{0xAB, 9, 1, 0x83}), Bytes(small[2].begin(), small[2].begin() + 4));
    EXPECT_EQ((Bytes{0xAB, 0x05, 0x00, 0x81, 0xCF}), XcpFrameCodec::encodeReply(5, Bytes()));
    EXPECT_EQ(6, XcpFrameCodec::decodeReply(Bytes(wire.begin(), wire.end() - 1), 0x04, &back));  // incomplete
}

TEST(XcpCommandReader, ReassemblesFramesAcrossReadsAndSkipsNoise) {
    using Kind = XcpCommandReader::Kind;
    XcpCommandReader r;
    std::vector<XcpCommandReader::Item> items;
    Bytes f = XcpFrameCodec::encodeCommand(0x42, Bytes{0x00});
    for (size_t i = 0; i < f.size(); ++i) r.feed(&f[i], 1, static_cast<long>(i), &items);  // a byte per read
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ(Kind::Command, items[0].kind);
    EXPECT_EQ(0x42, items[0].code);
    EXPECT_EQ(Bytes{0x00}, items[0].args);

    // Escape, junk, a frame with a bad checksum, then a good frame, in one read.
    items.clear();
    Bytes wire = {0x1B, 0x00, 0x17, 0xAB, 0x01, 0x31, 0x24, 0xAB, 0x01, 0x35, 0x1F};
    r.feed(wire.data(), wire.size(), 30, &items);
    ASSERT_EQ(4u, items.size());
    EXPECT_EQ(Kind::Escape, items[0].kind);
    EXPECT_EQ(Kind::Junk, items[1].kind);
    EXPECT_EQ((Bytes{0x00, 0x17}), items[1].raw);
    EXPECT_EQ(Kind::BadChecksum, items[2].kind);
    EXPECT_EQ(Kind::Command, items[3].kind);
    EXPECT_EQ(0x35, items[3].code);
    EXPECT_FALSE(r.pending());

    // A start byte whose frame never completes is dropped after the stale
    // time, and a frame hidden behind it is still found.
    items.clear();
    Bytes stale = {0xAB, 0x09, 0xAB, 0x01, 0x33, 0x21};
    r.feed(stale.data(), stale.size(), 1000, &items);
    r.expire(1000 + XcpCommandReader::kStaleMs - 1, &items);
    EXPECT_TRUE(items.empty());
    r.expire(1000 + XcpCommandReader::kStaleMs, &items);
    ASSERT_GE(items.size(), 2u);
    EXPECT_EQ(Kind::Incomplete, items[0].kind);
    EXPECT_EQ(Kind::Command, items.back().kind);
    EXPECT_EQ(0x33, items.back().code);
}

TEST(UpsModel, BlocksParseAsTheDaemonReadsThem) {
    UpsModel m(optionsFrom({"--model", "Test UPS", "--serial", "SN1234", "--firmware", "3.0A", "--alarms", "57",
                            "--supported-alarms", "1,25,228"}));
    EXPECT_EQ(ask(m, 0xA0).data, ask(m, 0x31).data);
    ParsedId p = parseId(ask(m, 0x31).data);
    EXPECT_EQ("3.0A", p.firmware);
    EXPECT_EQ(1500u, p.rating);  // 0 then 30 units of 50 VA
    EXPECT_EQ("Test UPS", p.unitName);
    EXPECT_EQ("KS-SIM-1500", p.secondText);
    EXPECT_EQ((std::vector<int>{1, 25, 56, 57, 59, 228}), supportedFromMap(p.alarmMap));

    // Meters in meter-map order, in hundredths; utility fail: no input voltage.
    std::map<int, long> v = parseMeters(p.meterMap, ask(m, 0x34).data);
    const std::map<int, long> expected = {{56, 0}, {78, 23000}, {33, 5420}, {27, 5000},
                                          {21, 45000}, {62, 2500}, {3, 215}};
    for (const auto& e : expected) EXPECT_EQ(e.second, v[e.first]) << "meter " << e.first;

    // One alarm byte per supported alarm, ascending: 57 is the fourth.
    EXPECT_EQ((Bytes{0, 0, 0, 1, 0, 0}), ask(m, 0x35).data);
    std::string error;
    EXPECT_TRUE(m.setAlarm(57, false, &error));
    EXPECT_TRUE(m.setAlarm(56, true, &error));
    EXPECT_FALSE(m.setAlarm(58, true, &error));
    EXPECT_EQ((Bytes{0, 0, 1, 0, 0, 0}), ask(m, 0x35).data);
    v = parseMeters(p.meterMap, ask(m, 0x34).data);
    EXPECT_EQ(23000, v[56]);
    EXPECT_EQ(4600, v[33]);  // battery low pulls the battery voltage down

    Bytes config = ask(m, 0x36).data;
    ASSERT_GE(config.size(), 80u);
    EXPECT_LE(config.size(), p.configLength);
    EXPECT_EQ(std::string("SN1234", 7), std::string(config.begin() + 64, config.begin() + 71));
    EXPECT_EQ((Bytes{0, 4, 0xB0, 0x04, 0x60, 0x09, 0x80, 0x25, 0x00, 0x4B, 16}), ask(m, 0x42, Bytes{0}).data);
    Bytes list = ask(m, 0x40).data;
    EXPECT_EQ(list.size() - 2, list.at(0));
    EXPECT_EQ(0x0010u, word(ask(m, 0x43).data, 0));
    EXPECT_EQ((Bytes{2, 6, 1, 1, 0, 0, 0, 0, 2, 1, 0, 0, 0, 0}), ask(m, 0x41).data);
    Bytes battery = ask(m, 0x3B).data;
    size_t n = battery.at(18);
    EXPECT_EQ("Test passed", std::string(battery.begin() + 19, battery.begin() + 19 + static_cast<long>(n)));
    EXPECT_EQ(battery.size(), 20 + n + battery.at(19 + n));

    // A whole-kVA rating uses the single byte; the command count can be faked.
    UpsModel big(optionsFrom({"--rating", "6000", "--commands", "31,33,A0", "--command-count", "10",
                              "--firmware", "0.00"}));
    ParsedId pb = parseId(ask(big, 0x31).data);
    EXPECT_EQ(6000u, pb.rating);
    EXPECT_EQ("--.--", pb.firmware);
    EXPECT_EQ((Bytes{10, 1, 0x31, 0x33, 0xA0}), ask(big, 0x40).data);
}

TEST(UpsModel, ActionCommandsEchoAndChangeState) {
    UpsModel m(optionsFrom({"--speeds", "9600"}));
    EXPECT_FALSE(ask(m, 0xCF, Bytes{0x69, 0xE8, 0xD5}).send);
    for (int code : {0x89, 0x93, 0x97, 0x8A})
        EXPECT_EQ((Bytes{UpsModel::kAccepted, static_cast<uint8_t>(code)}),
                  ask(m, code, Bytes{0x02, 0x01, 0x00, 0x00}).data) << code;
    EXPECT_EQ(UpsModel::kNotImplemented, ask(m, 0x77).data.at(0));

    // Communication parameter: the new speed is answered at from then on.
    EXPECT_FALSE(m.acceptsSpeed(19200));
    EXPECT_EQ(0x98, ask(m, 0x98, Bytes{0x00, 0x01, 0x00, 0x4B}).data.at(1));
    EXPECT_TRUE(m.acceptsSpeed(19200));
    EXPECT_TRUE(m.acceptsSpeed(9600));

    // Delayed power-off of the whole UPS: outlets report pending, then off,
    // then restart once utility is present.
    UpsModel u(optionsFrom({"--alarms", "57"}));
    std::vector<std::string> notes;
    u.handle(0x8A, Bytes{0x2C, 0x01}, 1000, &notes);
    ASSERT_FALSE(notes.empty());
    EXPECT_NE(std::string::npos, notes[0].find("delay 300 s, segment 0"));
    EXPECT_EQ(3, u.outletBlock(1000)[3]);
    u.tick(300999, &notes);
    EXPECT_TRUE(u.outputOn());
    u.tick(301000, &notes);
    EXPECT_FALSE(u.outputOn());
    EXPECT_EQ(0, u.outletBlock(301000)[3]);
    u.tick(400000, &notes);
    EXPECT_FALSE(u.outputOn());  // still on battery
    std::string error;
    u.setAlarm(57, false, &error);
    u.tick(400001, &notes);
    EXPECT_TRUE(u.outputOn());
}

TEST(SimOptions, ParsesAndRejects) {
    SimOptions o = optionsFrom({"--speeds=9600,2400", "--cap-speeds", "2400,19200", "--commands", "0x31,A0"});
    EXPECT_EQ((std::set<int>{2400, 9600}), o.speeds);
    EXPECT_EQ((std::vector<int>{2400, 19200}), o.capSpeeds);
    EXPECT_EQ((std::vector<uint8_t>{0x31, 0xA0}), o.commands);
    const std::vector<std::vector<std::string>> bad = {
        {"--speeds", "9601"}, {"--frame-size", "0"}, {"--serial", "12345678901234567"}, {"--firmware", "2"},
        {"--bogus"}, {"--alarms", "58", "--supported-alarms", "1"}, {"--log"}};
    for (const auto& args : bad) {
        SimOptions out;
        std::string error;
        EXPECT_FALSE(parseArgs(args, &out, &error)) << args[0];
        EXPECT_FALSE(error.empty());
    }
}

namespace {

// Reads fd for at most waitMs, until done(what was read) holds.
template <typename Done>
std::string readUntil(int fd, int waitMs, Done done) {
    std::string got;
    auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    while (!done(got) && Clock::now() < deadline) {
        struct pollfd p = {fd, POLLIN, 0};
        char buf[512];
        ssize_t n = poll(&p, 1, 10) > 0 ? read(fd, buf, sizeof buf) : -1;
        if (n > 0) got.append(buf, static_cast<size_t>(n));
        if (n == 0) break;
    }
    return got;
}

// Test side of the line: opens the slave as the daemon does.
class HostPort {
public:
    explicit HostPort(const std::string& path) : fd_(open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK)) {
        EXPECT_GE(fd_, 0) << strerror(errno);
    }
    ~HostPort() {
        if (fd_ >= 0) close(fd_);
    }
    void setSpeed(speed_t speed) {
        struct termios t;
        ASSERT_EQ(0, tcgetattr(fd_, &t));
        cfmakeraw(&t);  // 8 data bits, no echo, no line editing
        cfsetspeed(&t, speed);
        ASSERT_EQ(0, tcsetattr(fd_, TCSANOW, &t));
        tcflush(fd_, TCIOFLUSH);
    }
    void send(const Bytes& b) { ASSERT_EQ(static_cast<ssize_t>(b.size()), write(fd_, b.data(), b.size())); }
    // Sends the command; the reply walk's result once a reply is complete or 3 s passed.
    int exchange(uint8_t code, const Bytes& args, Bytes* data) {
        send(XcpFrameCodec::encodeCommand(code, args));
        int rc = 6;
        readUntil(fd_, 3000, [&](const std::string& s) {
            return !s.empty()
                   && (rc = XcpFrameCodec::decodeReply(Bytes(s.begin(), s.end()),
                                                       XcpFrameCodec::expectedBlock(code), data)) != 6;
        });
        return rc;
    }
    std::string drain(int waitMs) { return readUntil(fd_, waitMs, [](const std::string&) { return false; }); }

private:
    int fd_;
};

// The control socket: one command line out, its answer line back.
std::string control(int sock, const std::string& cmd) {
    std::string line = cmd + "\n";
    EXPECT_EQ(static_cast<ssize_t>(line.size()), write(sock, line.data(), line.size()));
    std::string answer = readUntil(sock, 5000, [](const std::string& a) { return !a.empty() && a.back() == '\n'; });
    return answer.empty() ? answer : answer.substr(0, answer.size() - 1);
}

long ignoredCount(int sock) {
    std::string s = control(sock, "status");
    size_t at = s.find(" ignored=");
    return at == std::string::npos ? -1 : std::atol(s.c_str() + at + 9);
}

// The command frame is read and counted as ignored, and nothing comes back.
void expectIgnored(int sock, HostPort& host, uint8_t code) {
    long before = ignoredCount(sock);
    host.send(XcpFrameCodec::encodeCommand(code));
    EXPECT_TRUE(waitFor([&] { return ignoredCount(sock) > before; }, 3, 20));
    EXPECT_TRUE(host.drain(300).empty());
}

}  // namespace

// The program itself: prints its terminal, takes runtime commands on the
// control socket, answers only at accepted speeds, logs every frame and
// cleans up on SIGTERM.
TEST(UpsSimulator, ServesAPseudoTerminalOnlyAtAcceptedSpeedsAndCleansUp) {
    const std::string program = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-upssim";
    TempDir dir("upssim_test_");
    std::string sockPath = dir.file("ctl.sock"), pidfile = dir.file("sim.pid");
    int out[2];
    ASSERT_EQ(0, pipe(out));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);  // standard input at end of file at once
        dup2(devnull, 2);
        dup2(out[1], 1);
        execl(program.c_str(), program.c_str(), "--control", sockPath.c_str(), "--pidfile", pidfile.c_str(),
              "--speeds", "9600,2400", "--model", "Pty UPS", "--log", dir.file("frames.log").c_str(),
              "--frame-size", "64", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            if (pid > 0) waitBounded(pid, 0);  // kills and reaps
        }
    } reaper{pid};
    std::string tty = readUntil(out[0], 5000, [](const std::string& s) { return s.find('\n') != s.npos; });
    close(out[0]);
    ASSERT_EQ(0u, tty.find("/dev/pts/")) << tty;
    tty.resize(tty.find('\n'));

    // The control socket appears once the simulator runs.
    int sock = -1;
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strncpy(addr.sun_path, sockPath.c_str(), sizeof addr.sun_path - 1);
    ASSERT_TRUE(waitFor([&] {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0) return (sock = fd) >= 0;
        close(fd);
        return false;
    }, 5, 50));

    Bytes data;
    {
        HostPort host(tty);
        host.setSpeed(B9600);
        host.send(Bytes{0x1B});  // wake-up byte of the speed hunt: ignored
        ASSERT_EQ(0, host.exchange(0x31, Bytes(), &data));
        EXPECT_EQ("Pty UPS", parseId(data).unitName);
        EXPECT_EQ("2.15", parseId(data).firmware);

        // Authorisation is never answered; the action after it is.
        host.send(XcpFrameCodec::encodeCommand(0xCF, Bytes{0x69, 0xE8, 0xD5}));
        ASSERT_EQ(0, host.exchange(0x89, Bytes{1}, &data));
        EXPECT_EQ(0x89, data.at(1));

        // Runtime commands change what the next poll sees.
        EXPECT_EQ("ok alarm 59 active", control(sock, "alarm set 59"));
        ASSERT_EQ(0, host.exchange(0x35, Bytes(), &data));
        EXPECT_EQ(1, std::count(data.begin(), data.end(), 1));  // alarm 59, the only one active
        EXPECT_EQ(0u, control(sock, "bogus").find("error:"));
        EXPECT_EQ("ok garbage before the next reply", control(sock, "garbage"));
        EXPECT_EQ(4, host.exchange(0x33, Bytes(), &data));
        host.drain(200);

        // A speed the UPS does not accept, and the hang-up speed: read, never answered.
        host.setSpeed(B4800);
        expectIgnored(sock, host, 0x31);
        host.setSpeed(B0);
        expectIgnored(sock, host, 0x31);

        // The speed step-up is answered at the old speed, then the new one works.
        host.setSpeed(B2400);
        ASSERT_EQ(0, host.exchange(0x98, Bytes{0x00, 0x01, 0x00, 0x4B}, &data));
        EXPECT_EQ(0x98, data.at(1));
        host.setSpeed(B19200);
        ASSERT_EQ(0, host.exchange(0x34, Bytes(), &data));
    }
    // The daemon closes and re-opens the port: the line keeps working.
    {
        HostPort host(tty);
        host.setSpeed(B9600);
        EXPECT_EQ("ok silent on", control(sock, "silent on"));
        expectIgnored(sock, host, 0x33);
        control(sock, "silent off");
        ASSERT_EQ(0, host.exchange(0x36, Bytes(), &data));
        EXPECT_GE(data.size(), 80u);  // 96 bytes in two frames of at most 64
    }
    EXPECT_EQ(std::to_string(pid) + "\n", readFile(pidfile));  // written before serving
    close(sock);
    ASSERT_EQ(0, kill(pid, SIGTERM));
    int status = waitBounded(pid, 5);
    reaper.pid = 0;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    struct stat st;
    EXPECT_NE(0, lstat(sockPath.c_str(), &st));
    EXPECT_NE(0, lstat(pidfile.c_str(), &st));

    std::string log = dir.read("frames.log");
    for (const char* line : {" RX AB 01 31 23\n", " RX AB 01 31 23 (ignored: line speed 4800 not accepted)\n",
                             " RX 1B (escape, ignored)\n", " TX AB 01 40 01 ", " TX AB 06 20 82 ",
                             " TX 5A 00 C3 11 7E FF (garbage)\n"})
        EXPECT_NE(std::string::npos, log.find(line)) << line;
}
