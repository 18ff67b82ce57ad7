// Tests of the simulated UPS: framing, the block layouts as the daemon's
// parsers read them, and the simulator serving a real pseudo-terminal.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
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
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tools/upssim/SimOptions.h"
#include "tools/upssim/UpsModel.h"
#include "tools/upssim/UpsSimulator.h"
#include "tools/upssim/XcpCommandReader.h"
#include "tools/upssim/XcpFrameCodec.h"

using namespace upssim;

namespace {

Bytes bytesOf(std::initializer_list<int> v) {
    Bytes b;
    for (int x : v) b.push_back(static_cast<uint8_t>(x));
    return b;
}

unsigned word(const Bytes& b, size_t at) { return b.at(at) | (b.at(at + 1) << 8); }

// What the daemon's identification-block parser takes from block 1.
struct ParsedId {
    std::string firmware;
    unsigned rating = 0;
    std::string unitName;
    Bytes meterMap;
    Bytes alarmMap;
    unsigned configLength = 0;
    std::string secondText;
};

ParsedId parseId(const Bytes& d) {
    ParsedId id;
    size_t f = d.at(0);
    char buf[16];
    if (d.size() > 4 && f > 1 && (d[3] || d[4])) {
        std::snprintf(buf, sizeof buf, "%X.%02X", d[4], d[3]);
        id.firmware = buf;
    } else {
        id.firmware = "--.--";
    }
    size_t pos = 2 * f + 1;
    id.rating = d.at(pos++) * 1000u;
    if (id.rating == 0) {
        id.rating = word(d, pos) * 50u;
        pos += 2;
    }
    pos += 2;  // identification bytes 1 and 2
    auto field = [&](Bytes* out) {
        size_t n = d.at(pos++);
        out->assign(d.begin() + static_cast<long>(pos), d.begin() + static_cast<long>(pos + n));
        pos += n;
    };
    Bytes name;
    field(&name);
    id.unitName.assign(name.begin(), name.end());
    field(&id.meterMap);
    field(&id.alarmMap);
    id.configLength = word(d, pos);
    pos += 2;
    Bytes text;
    field(&text);
    id.secondText.assign(text.begin(), text.end());
    EXPECT_LE(pos, d.size());
    return id;
}

// The daemon's meter walk: values in hundredths per meter number.
std::map<int, long> parseMeters(const Bytes& map, const Bytes& data) {
    std::map<int, long> values;
    size_t pos = 0;
    for (size_t n = 0; n < map.size(); ++n) {
        uint8_t fmt = map[n];
        if (fmt == 0) continue;
        uint32_t raw = data.at(pos) | (data.at(pos + 1) << 8) | (data.at(pos + 2) << 16) |
                       (static_cast<uint32_t>(data.at(pos + 3)) << 24);
        pos += 4;
        if (fmt == 0xE0 || fmt == 0xE1) continue;
        long v;
        if (fmt == 0xE2) {
            v = static_cast<int32_t>(raw) * 100L;
        } else if (fmt >= 0xF0) {
            v = static_cast<int32_t>(raw) * 100L;
            for (int i = 0; i < (fmt & 0x0F); ++i) v /= 10;
        } else {
            float fl;
            memcpy(&fl, &raw, sizeof fl);
            v = static_cast<long>(std::floor(fl * 10.0 + 0.5)) * 10;
        }
        values[static_cast<int>(n)] = v;
    }
    EXPECT_EQ(pos, data.size());
    return values;
}

std::vector<int> supportedFromMap(const Bytes& map) {
    std::vector<int> out;
    for (size_t i = 0; i < map.size(); ++i)
        for (int b = 0; b < 8; ++b)
            if (map[i] & (1 << b)) out.push_back(static_cast<int>(i * 8 + b));
    return out;
}

SimOptions optionsFrom(std::vector<std::string> args) {
    std::vector<char*> argv;
    args.insert(args.begin(), "kestrava-upssim");
    for (std::string& a : args) argv.push_back(&a[0]);
    SimOptions o;
    std::string error;
    EXPECT_TRUE(SimOptions::parse(static_cast<int>(argv.size()), argv.data(), &o, &error)) << error;
    return o;
}

UpsModel::Reply ask(UpsModel& m, int code, const Bytes& args = Bytes()) {
    std::vector<std::string> notes;
    return m.handle(static_cast<uint8_t>(code), args, 0, &notes);
}

}  // namespace

TEST(XcpFrameCodec, ChecksumsAndCommandFrames) {
    EXPECT_EQ(0x23, XcpFrameCodec::checksum(bytesOf({0xAB, 0x01, 0x31})));
    EXPECT_EQ(bytesOf({0xAB, 0x01, 0x31, 0x23}), XcpFrameCodec::encodeCommand(0x31));
    Bytes auth = XcpFrameCodec::encodeCommand(0xCF, bytesOf({0x69, 0xE8, 0xD5}));
    ASSERT_EQ(7u, auth.size());
    EXPECT_EQ(bytesOf({0xAB, 0x04, 0xCF, 0x69, 0xE8, 0xD5}), Bytes(auth.begin(), auth.end() - 1));
    EXPECT_EQ(0, XcpFrameCodec::checksum(auth));
    EXPECT_EQ("AB 01 31 23", XcpFrameCodec::toHex(XcpFrameCodec::encodeCommand(0x31)));
    EXPECT_EQ(1, XcpFrameCodec::expectedBlock(0xA0));
    EXPECT_EQ(0x10, XcpFrameCodec::expectedBlock(0x40));
    EXPECT_EQ(0x13, XcpFrameCodec::expectedBlock(0x43));
    EXPECT_EQ(9, XcpFrameCodec::expectedBlock(0x8A));
}

TEST(XcpFrameCodec, LongBlocksSplitIntoNumberedFrames) {
    Bytes data(600);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7);
    std::vector<Bytes> frames = XcpFrameCodec::encodeReplyFrames(0x04, data);
    ASSERT_EQ(3u, frames.size());
    const int seqs[] = {0x01, 0x02, 0x83};
    const size_t lens[] = {255, 255, 90};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(0xAB, frames[i][0]);
        EXPECT_EQ(0x04, frames[i][1]);
        EXPECT_EQ(lens[i], frames[i][2]);
        EXPECT_EQ(seqs[i], frames[i][3]);
        EXPECT_EQ(lens[i] + 5, frames[i].size());
        EXPECT_EQ(0, XcpFrameCodec::checksum(frames[i])) << "frame " << i;
    }
    Bytes wire = XcpFrameCodec::encodeReply(0x04, data), back;
    EXPECT_EQ(0, XcpFrameCodec::decodeReply(wire, 0x04, &back));
    EXPECT_EQ(data, back);

    // A small frame size splits small blocks too; an empty block is one frame.
    std::vector<Bytes> small = XcpFrameCodec::encodeReplyFrames(9, bytesOf({1, 2, 3, 4, 5}), 2);
    ASSERT_EQ(3u, small.size());
    EXPECT_EQ(0x83, small[2][3]);
    EXPECT_EQ(1u, small[2][2]);
    EXPECT_EQ(bytesOf({0xAB, 0x05, 0x00, 0x81, 0xCF}), XcpFrameCodec::encodeReply(5, Bytes()));

    // The daemon-side walk rejects what it must.
    EXPECT_EQ(5, XcpFrameCodec::decodeReply(wire, 0x05, &back));
    Bytes badSeq = wire;
    badSeq[255 + 5 + 3] = 0x03;
    EXPECT_NE(0, XcpFrameCodec::decodeReply(badSeq, 0x04, &back));
    Bytes shifted = wire;
    shifted.insert(shifted.begin(), 0x5A);
    EXPECT_EQ(4, XcpFrameCodec::decodeReply(shifted, 0x04, &back));
    Bytes cut(wire.begin(), wire.end() - 1);
    EXPECT_EQ(6, XcpFrameCodec::decodeReply(cut, 0x04, &back));
}

TEST(XcpCommandReader, ReassemblesFramesAcrossReadsAndSkipsNoise) {
    XcpCommandReader r;
    std::vector<XcpCommandReader::Item> items;
    Bytes f = XcpFrameCodec::encodeCommand(0x42, bytesOf({0x00}));
    r.feed(&f[0], 1, 0, &items);
    r.feed(&f[1], 2, 10, &items);
    EXPECT_TRUE(items.empty());
    r.feed(&f[3], f.size() - 3, 20, &items);
    ASSERT_EQ(1u, items.size());
    EXPECT_EQ(XcpCommandReader::Kind::Command, items[0].kind);
    EXPECT_EQ(0x42, items[0].code);
    EXPECT_EQ(bytesOf({0x00}), items[0].args);

    // Escape, junk, a frame with a bad checksum, then a good frame, in one read.
    items.clear();
    Bytes wire = bytesOf({0x1B, 0x00, 0x17, 0xAB, 0x01, 0x31, 0x24});
    Bytes good = XcpFrameCodec::encodeCommand(0x35);
    wire.insert(wire.end(), good.begin(), good.end());
    r.feed(wire.data(), wire.size(), 30, &items);
    ASSERT_EQ(4u, items.size());
    EXPECT_EQ(XcpCommandReader::Kind::Escape, items[0].kind);
    EXPECT_EQ(XcpCommandReader::Kind::Junk, items[1].kind);
    EXPECT_EQ(bytesOf({0x00, 0x17}), items[1].raw);
    EXPECT_EQ(XcpCommandReader::Kind::BadChecksum, items[2].kind);
    EXPECT_EQ(XcpCommandReader::Kind::Command, items[3].kind);
    EXPECT_EQ(0x35, items[3].code);
    EXPECT_FALSE(r.pending());

    // A start byte whose frame never completes is dropped after the stale
    // time, and a frame hidden behind it is still found.
    items.clear();
    Bytes stale = bytesOf({0xAB, 0x09});
    Bytes hidden = XcpFrameCodec::encodeCommand(0x33);
    stale.insert(stale.end(), hidden.begin(), hidden.end());
    r.feed(stale.data(), stale.size(), 1000, &items);
    EXPECT_TRUE(items.empty());
    r.expire(1000 + XcpCommandReader::kStaleMs - 1, &items);
    EXPECT_TRUE(items.empty());
    r.expire(1000 + XcpCommandReader::kStaleMs, &items);
    ASSERT_GE(items.size(), 2u);
    EXPECT_EQ(XcpCommandReader::Kind::Incomplete, items[0].kind);
    EXPECT_EQ(XcpCommandReader::Kind::Command, items.back().kind);
    EXPECT_EQ(0x33, items.back().code);
}

TEST(UpsModel, BlocksParseAsTheDaemonReadsThem) {
    SimOptions o = optionsFrom({"--model", "Test UPS", "--serial", "SN1234", "--firmware", "3.0A",
                                "--alarms", "57", "--supported-alarms", "1,25,228"});
    UpsModel m(o);

    UpsModel::Reply id = ask(m, 0xA0);
    ASSERT_TRUE(id.send);
    EXPECT_EQ(1, id.block);
    EXPECT_EQ(id.data, ask(m, 0x31).data);
    ParsedId p = parseId(id.data);
    EXPECT_EQ("3.0A", p.firmware);
    EXPECT_EQ(1500u, p.rating);  // 0 then 30 units of 50 VA
    EXPECT_EQ("Test UPS", p.unitName);
    EXPECT_EQ("KS-SIM-1500", p.secondText);
    ASSERT_GT(p.meterMap.size(), 78u);
    for (int meter : {56, 78, 33, 27, 21, 62}) EXPECT_NE(0, p.meterMap[meter]) << "meter " << meter;
    std::vector<int> supported = supportedFromMap(p.alarmMap);
    EXPECT_EQ((std::vector<int>{1, 25, 56, 57, 59, 228}), supported);

    // Meters in meter-map order, with plausible values (hundredths).
    UpsModel::Reply meters = ask(m, 0x34);
    EXPECT_EQ(4, meters.block);
    std::map<int, long> v = parseMeters(p.meterMap, meters.data);
    EXPECT_EQ(0, v[56]);  // utility fail is active: no input voltage
    EXPECT_EQ(23000, v[78]);
    EXPECT_EQ(5420, v[33]);
    EXPECT_EQ(5000, v[27]);
    EXPECT_EQ(45000, v[21]);
    EXPECT_EQ(2500, v[62]);
    EXPECT_EQ(215, v[3]);

    // One alarm byte per supported alarm, ascending: 57 is the fourth.
    EXPECT_EQ(bytesOf({0, 0, 0, 1, 0, 0}), ask(m, 0x35).data);
    std::string error;
    EXPECT_TRUE(m.setAlarm(57, false, &error));
    EXPECT_TRUE(m.setAlarm(56, true, &error));
    EXPECT_FALSE(m.setAlarm(58, true, &error));
    EXPECT_EQ(bytesOf({0, 0, 1, 0, 0, 0}), ask(m, 0x35).data);
    v = parseMeters(p.meterMap, ask(m, 0x34).data);
    EXPECT_EQ(23000, v[56]);
    EXPECT_EQ(4600, v[33]);  // battery low pulls the battery voltage down

    UpsModel::Reply config = ask(m, 0x36);
    EXPECT_EQ(6, config.block);
    EXPECT_GE(config.data.size(), 80u);
    EXPECT_LE(config.data.size(), p.configLength);
    EXPECT_EQ("SN1234", std::string(config.data.begin() + 64, config.data.begin() + 70));
    EXPECT_EQ(0, config.data[70]);
    EXPECT_EQ(1, config.data[37]);
    EXPECT_EQ(2, config.data[36]);

    UpsModel::Reply limits = ask(m, 0x3C);
    EXPECT_EQ(0x0C, limits.block);
    EXPECT_GE(limits.data.size(), 31u);
    EXPECT_EQ("KS", std::string(limits.data.begin() + 6, limits.data.begin() + 8));

    UpsModel::Reply caps = ask(m, 0x42, bytesOf({0}));
    EXPECT_EQ(0x12, caps.block);
    EXPECT_EQ(bytesOf({0, 4, 0xB0, 0x04, 0x60, 0x09, 0x80, 0x25, 0x00, 0x4B, 16}), caps.data);

    UpsModel::Reply list = ask(m, 0x40);
    EXPECT_EQ(0x10, list.block);
    EXPECT_EQ(list.data.size() - 2, list.data[0]);
    EXPECT_EQ(1, list.data[1]);

    UpsModel::Reply battery = ask(m, 0x3B);
    EXPECT_EQ(0x0B, battery.block);
    size_t n = battery.data.at(18);
    EXPECT_EQ("Test passed", std::string(battery.data.begin() + 19, battery.data.begin() + 19 + static_cast<long>(n)));
    size_t m2 = battery.data.at(19 + n);
    EXPECT_EQ(battery.data.size(), 20 + n + m2);

    UpsModel::Reply topo = ask(m, 0x43);
    EXPECT_EQ(0x13, topo.block);
    EXPECT_EQ(0x0010u, word(topo.data, 0));

    UpsModel::Reply outlets = ask(m, 0x41);
    EXPECT_EQ(0x11, outlets.block);
    EXPECT_EQ(bytesOf({2, 6, 1, 1, 0, 0, 0, 0, 2, 1, 0, 0, 0, 0}), outlets.data);

    // A whole-kVA rating uses the single byte; command count can be faked.
    UpsModel big(optionsFrom({"--rating", "6000", "--commands", "31,33,A0", "--command-count", "10",
                              "--firmware", "0.00"}));
    ParsedId pb = parseId(ask(big, 0x31).data);
    EXPECT_EQ(6000u, pb.rating);
    EXPECT_EQ("--.--", pb.firmware);
    EXPECT_EQ(bytesOf({10, 1, 0x31, 0x33, 0xA0}), ask(big, 0x40).data);
}

TEST(UpsModel, ActionCommandsEchoAndChangeState) {
    UpsModel m(optionsFrom({"--speeds", "9600"}));
    EXPECT_FALSE(ask(m, 0xCF, bytesOf({0x69, 0xE8, 0xD5})).send);
    for (int code : {0x89, 0x93, 0x97, 0x8A}) {
        UpsModel::Reply r = ask(m, code, bytesOf({0x02, 0x01, 0x00, 0x00}));
        EXPECT_TRUE(r.send);
        EXPECT_EQ(9, r.block);
        ASSERT_EQ(2u, r.data.size());
        EXPECT_EQ(code, r.data[1]);
    }
    UpsModel::Reply unknown = ask(m, 0x77);
    EXPECT_EQ(9, unknown.block);
    EXPECT_EQ(UpsModel::kNotImplemented, unknown.data[0]);

    // Communication parameter: the new speed is answered at from then on.
    EXPECT_FALSE(m.acceptsSpeed(19200));
    EXPECT_EQ(0x98, ask(m, 0x98, bytesOf({0x00, 0x01, 0x00, 0x4B})).data.at(1));
    EXPECT_TRUE(m.acceptsSpeed(19200));
    EXPECT_TRUE(m.acceptsSpeed(9600));
    EXPECT_FALSE(m.acceptsSpeed(0));

    // Delayed power-off of the whole UPS: outlets report pending, then off,
    // then restart once utility is present.
    UpsModel u(optionsFrom({"--alarms", "57"}));
    std::vector<std::string> notes;
    u.handle(0x8A, bytesOf({0x2C, 0x01}), 1000, &notes);
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
    SimOptions o = optionsFrom({"--speeds=9600,2400", "--cap-speeds", "2400,19200", "--frame-size", "8",
                                "--commands", "0x31,A0", "--alarms", "56,59"});
    EXPECT_EQ((std::set<int>{2400, 9600}), o.speeds);
    EXPECT_EQ((std::vector<int>{2400, 19200}), o.capSpeeds);
    EXPECT_EQ(8, o.frameSize);
    EXPECT_EQ((std::vector<uint8_t>{0x31, 0xA0}), o.commands);
    EXPECT_EQ((std::set<int>{56, 59}), o.activeAlarms);

    const std::vector<std::vector<std::string>> bad = {
        {"--speeds", "9601"}, {"--frame-size", "0"}, {"--serial", "12345678901234567"},
        {"--firmware", "2"},  {"--bogus"},           {"--alarms", "58", "--supported-alarms", "1"},
        {"--log"}};
    for (auto args : bad) {
        std::vector<char*> argv;
        args.insert(args.begin(), "x");
        for (std::string& a : args) argv.push_back(&a[0]);
        SimOptions out;
        std::string error;
        EXPECT_FALSE(SimOptions::parse(static_cast<int>(argv.size()), argv.data(), &out, &error))
            << args[1];
        EXPECT_FALSE(error.empty());
    }
}

namespace {

using Clock = std::chrono::steady_clock;

// Test side of the line: opens the slave as the daemon does.
class HostPort {
public:
    explicit HostPort(const std::string& path) {
        fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK);
        EXPECT_GE(fd_, 0) << strerror(errno);
    }
    ~HostPort() {
        if (fd_ >= 0) close(fd_);
    }
    void setSpeed(speed_t speed) {
        struct termios t;
        ASSERT_EQ(0, tcgetattr(fd_, &t));
        t.c_iflag = IGNBRK | IGNPAR;
        t.c_oflag = 0;
        t.c_cflag = CS8 | CREAD | CLOCAL;
        t.c_lflag = 0;
        memset(t.c_cc, 0, sizeof t.c_cc);
        cfsetispeed(&t, speed);
        cfsetospeed(&t, speed);
        ASSERT_EQ(0, tcsetattr(fd_, TCSANOW, &t));
        tcflush(fd_, TCIOFLUSH);
    }
    void send(const Bytes& b) { ASSERT_EQ(static_cast<ssize_t>(b.size()), write(fd_, b.data(), b.size())); }
    // Reads until a complete reply for the block arrives or the wait ends.
    int exchange(uint8_t code, const Bytes& args, Bytes* data, int waitMs = 3000) {
        send(XcpFrameCodec::encodeCommand(code, args));
        return readReply(XcpFrameCodec::expectedBlock(code), data, waitMs);
    }
    int readReply(uint8_t block, Bytes* data, int waitMs) {
        Bytes wire;
        auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
        int rc = 6;
        while (Clock::now() < deadline) {
            uint8_t buf[512];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n > 0) {
                wire.insert(wire.end(), buf, buf + n);
                rc = XcpFrameCodec::decodeReply(wire, block, data);
                if (rc != 6) return rc;
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        return rc;
    }
    Bytes drain(int waitMs) {
        Bytes got;
        auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
        while (Clock::now() < deadline) {
            uint8_t buf[256];
            ssize_t n = read(fd_, buf, sizeof buf);
            if (n > 0) got.insert(got.end(), buf, buf + n);
            else std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return got;
    }

private:
    int fd_ = -1;
};

long statusField(UpsSimulator& sim, const std::string& key) {
    bool quit = false;
    std::string s = sim.execute("status", &quit);
    size_t at = s.find(" " + key + "=");
    if (at == std::string::npos) return -1;
    return std::atol(s.c_str() + at + key.size() + 2);
}

// Waits until the simulator has counted one more ignored frame.
bool waitIgnored(UpsSimulator& sim, long before) {
    auto deadline = Clock::now() + std::chrono::seconds(3);
    while (Clock::now() < deadline) {
        if (statusField(sim, "ignored") > before) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

std::string tempDir() {
    char tmpl[] = "/tmp/upssim_test_XXXXXX";
    char* d = mkdtemp(tmpl);
    EXPECT_NE(nullptr, d);
    return d ? d : "/tmp";
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

TEST(UpsSimulator, AnswersOverAPseudoTerminalOnlyAtAcceptedSpeeds) {
    std::string dir = tempDir();
    SimOptions o = optionsFrom({"--speeds", "9600,2400", "--model", "Pty UPS", "--log", dir + "/frames.log",
                                "--frame-size", "64"});
    UpsSimulator sim(o);
    std::string error;
    ASSERT_TRUE(sim.start(&error)) << error;
    std::thread loop([&sim] { sim.run(); });
    struct Stopper {
        UpsSimulator& s;
        std::thread& t;
        ~Stopper() {
            s.requestStop();
            t.join();
        }
    } stopper{sim, loop};

    Bytes data;
    {
        HostPort host(sim.slavePath());
        host.setSpeed(B9600);
        host.send(bytesOf({0x1B}));  // wake-up byte of the speed hunt: ignored
        ASSERT_EQ(0, host.exchange(0x31, Bytes(), &data));
        ParsedId id = parseId(data);
        EXPECT_EQ("Pty UPS", id.unitName);
        EXPECT_EQ("2.15", id.firmware);

        // Authorisation is never answered; the action after it is.
        host.send(XcpFrameCodec::encodeCommand(0xCF, bytesOf({0x69, 0xE8, 0xD5})));
        ASSERT_EQ(0, host.exchange(0x89, bytesOf({1}), &data));
        EXPECT_EQ(0x89, data.at(1));

        // Runtime commands change what the next poll sees.
        bool quit = false;
        EXPECT_EQ("ok alarm 59 active", sim.execute("alarm set 59", &quit));
        ASSERT_EQ(0, host.exchange(0x35, Bytes(), &data));
        std::vector<int> supported(o.supportedAlarms.begin(), o.supportedAlarms.end());
        ASSERT_EQ(supported.size(), data.size());
        for (size_t k = 0; k < supported.size(); ++k)
            EXPECT_EQ(supported[k] == 59 ? 1 : 0, data[k]) << "alarm " << supported[k];
        EXPECT_EQ(0, sim.execute("bogus", &quit).find("error:"));
        EXPECT_FALSE(quit);

        EXPECT_EQ("ok garbage before the next reply", sim.execute("garbage", &quit));
        EXPECT_EQ(4, host.exchange(0x33, Bytes(), &data));
        host.drain(200);

        // Not an accepted speed: the frame is read but never answered.
        host.setSpeed(B4800);
        long ignored = statusField(sim, "ignored");
        host.send(XcpFrameCodec::encodeCommand(0x31));
        EXPECT_TRUE(waitIgnored(sim, ignored));
        EXPECT_TRUE(host.drain(300).empty());

        // Hang-up speed: silent as well.
        host.setSpeed(B0);
        ignored = statusField(sim, "ignored");
        host.send(XcpFrameCodec::encodeCommand(0x31));
        EXPECT_TRUE(waitIgnored(sim, ignored));
        EXPECT_TRUE(host.drain(300).empty());

        // The speed step-up is answered at the old speed, then the new one works.
        host.setSpeed(B2400);
        ASSERT_EQ(0, host.exchange(0x98, bytesOf({0x00, 0x01, 0x00, 0x4B}), &data));
        EXPECT_EQ(0x98, data.at(1));
        host.setSpeed(B19200);
        ASSERT_EQ(0, host.exchange(0x34, Bytes(), &data));
    }
    // The daemon closes and re-opens the port: the line keeps working.
    {
        HostPort host(sim.slavePath());
        host.setSpeed(B9600);
        bool quit = false;
        EXPECT_EQ("ok silent on", sim.execute("silent on", &quit));
        long ignored = statusField(sim, "ignored");
        host.send(XcpFrameCodec::encodeCommand(0x33));
        EXPECT_TRUE(waitIgnored(sim, ignored));
        EXPECT_TRUE(host.drain(200).empty());
        sim.execute("silent off", &quit);
        ASSERT_EQ(0, host.exchange(0x36, Bytes(), &data));
        EXPECT_GE(data.size(), 80u);  // 96 bytes in two frames of at most 64
    }
    std::string log = readFile(dir + "/frames.log");
    EXPECT_NE(std::string::npos, log.find(" RX AB 01 31 23\n"));
    EXPECT_NE(std::string::npos, log.find(" RX AB 01 31 23 (ignored: line speed 4800 not accepted)\n"));
    EXPECT_NE(std::string::npos, log.find(" RX 1B (escape, ignored)\n"));
    EXPECT_NE(std::string::npos, log.find(" TX AB 01 40 01 "));
    EXPECT_NE(std::string::npos, log.find(" TX AB 06 20 82 "));
    EXPECT_NE(std::string::npos, log.find(" TX 5A 00 C3 11 7E FF (garbage)\n"));
    // Each line starts with a "YYYY-MM-DD HH:MM:SS.mmm" timestamp.
    std::string first = log.substr(0, log.find('\n'));
    ASSERT_GT(first.size(), 24u);
    EXPECT_EQ('-', first[4]);
    EXPECT_EQ('.', first[19]);
    EXPECT_EQ(' ', first[23]);
    std::remove((dir + "/frames.log").c_str());
    rmdir(dir.c_str());
}

TEST(UpsSimulator, ProgramPrintsItsPortServesTheControlSocketAndCleansUp) {
    const std::string program = std::string(KESTRAVA_BINARY_DIR) + "/kestrava-upssim";
    std::string dir = tempDir();
    std::string sock = dir + "/ctl.sock", pidfile = dir + "/sim.pid";

    int out[2];
    ASSERT_EQ(0, pipe(out));
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        int devnull = open("/dev/null", O_RDWR);
        dup2(devnull, 0);  // standard input at end of file at once
        dup2(devnull, 2);
        execl(program.c_str(), program.c_str(), "--control", sock.c_str(), "--pidfile", pidfile.c_str(),
              "--speeds", "9600", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(out[1]);
    struct Reaper {
        pid_t pid;
        ~Reaper() {
            if (pid > 0) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
        }
    } reaper{pid};

    std::string firstLine;
    auto deadline = Clock::now() + std::chrono::seconds(5);
    while (firstLine.find('\n') == std::string::npos && Clock::now() < deadline) {
        struct pollfd p = {out[0], POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            char c;
            if (read(out[0], &c, 1) != 1) break;
            firstLine += c;
        }
    }
    close(out[0]);
    ASSERT_EQ(0u, firstLine.find("/dev/pts/")) << firstLine;
    firstLine.pop_back();

    // The control socket appears once the simulator runs.
    int s = -1;
    for (int i = 0; i < 100 && s < 0; ++i) {
        int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        struct sockaddr_un addr;
        memset(&addr, 0, sizeof addr);
        addr.sun_family = AF_UNIX;
        strncpy(addr.sun_path, sock.c_str(), sizeof addr.sun_path - 1);
        if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) == 0) s = fd;
        else {
            close(fd);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    }
    ASSERT_GE(s, 0);
    std::string cmds = "speeds 9600,19200\nalarm set 57\nstatus\n";
    ASSERT_EQ(static_cast<ssize_t>(cmds.size()), write(s, cmds.data(), cmds.size()));
    std::string answers;
    deadline = Clock::now() + std::chrono::seconds(5);
    while (std::count(answers.begin(), answers.end(), '\n') < 3 && Clock::now() < deadline) {
        struct pollfd p = {s, POLLIN, 0};
        if (poll(&p, 1, 100) > 0) {
            char buf[512];
            ssize_t n = read(s, buf, sizeof buf);
            if (n <= 0) break;
            answers.append(buf, static_cast<size_t>(n));
        }
    }
    close(s);
    EXPECT_NE(std::string::npos, answers.find("ok speeds 9600,19200\n")) << answers;
    EXPECT_NE(std::string::npos, answers.find("ok alarm 57 active\n")) << answers;
    EXPECT_NE(std::string::npos, answers.find(" alarms=57 ")) << answers;

    // The port answers as the first line said.
    {
        HostPort host(firstLine);
        host.setSpeed(B19200);
        Bytes data;
        EXPECT_EQ(0, host.exchange(0x35, Bytes(), &data));
    }
    std::string pidText = readFile(pidfile);
    EXPECT_EQ(std::to_string(pid) + "\n", pidText);

    ASSERT_EQ(0, kill(pid, SIGTERM));
    int status = 0;
    pid_t done = 0;
    deadline = Clock::now() + std::chrono::seconds(5);
    while ((done = waitpid(pid, &status, WNOHANG)) == 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    ASSERT_EQ(pid, done);
    reaper.pid = 0;
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    struct stat st;
    EXPECT_NE(0, lstat(sock.c_str(), &st));
    EXPECT_NE(0, lstat(pidfile.c_str(), &st));
    rmdir(dir.c_str());
}
