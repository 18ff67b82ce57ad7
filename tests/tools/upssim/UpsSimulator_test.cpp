// The simulated UPS's parts; the program itself is driven by the
// integration tests through DaemonSandbox.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/fakes/ManualClock.h"
#include "tools/upssim/SimOptions.h"
#include "tools/upssim/UpsModel.h"
#include "tools/upssim/XcpCommandReader.h"
#include "tools/upssim/XcpFrameCodec.h"
#include "xcp/UpsDataBlock.h"

using namespace upssim;

namespace {

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

std::string text(const Bytes& b) { return std::string(b.begin(), b.end()); }

}  // namespace

TEST(XcpCommandReader, ReassemblesFramesAcrossReadsAndSkipsNoise) {
    using Kind = XcpCommandReader::Kind;
    XcpCommandReader r;
    std::vector<XcpCommandReader::Item> items;
    Bytes f = XcpFrameCodec::encodeCommand(0x42, Bytes{0x00});
    for (size_t i = 0; i < f.size(); ++i) r.feed(&f[i], 1, static_cast<long>(i), &items);  // a byte per read
    ASSERT_EQ(1u, items.size());
    EXPECT_TRUE(items[0].kind == Kind::Command && items[0].code == 0x42 && items[0].args == Bytes{0x00});

    // Escape, junk, a frame with a bad checksum, then a good frame, in one read.
    items.clear();
    Bytes wire = {0x1B, 0x00, 0x17, 0xAB, 0x01, 0x31, 0x24, 0xAB, 0x01, 0x35, 0x1F};
    r.feed(wire.data(), wire.size(), 30, &items);
    ASSERT_EQ(4u, items.size());
    EXPECT_TRUE(items[0].kind == Kind::Escape && items[1].kind == Kind::Junk && items[2].kind == Kind::BadChecksum &&
                items[3].kind == Kind::Command && items[3].code == 0x35);
}

// The blocks go through the daemon's own parsers.
TEST(UpsModel, BlocksParseAsTheDaemonReadsThem) {
    UpsModel m(optionsFrom({"--model", "Test\\x20UPS", "--serial", "SN1234", "--firmware", "3.0A", "--alarms", "57",
                            "--supported-alarms", "1,25,228"}));
    ManualClock clock;
    UpsDataBlock d(&clock);
    d.setStandardIDBlock(text(ask(m, 0x31).data));
    d.setConfigBlock(text(ask(m, 0x36).data));
    d.setExtendedLimitsBlock(text(ask(m, 0x3C).data));
    EXPECT_EQ("Test UPS|SN1234|3.0A(230-KS)|1500",
              d.getUnitName() + "|" + d.getSerielNo() + "|" + d.getFirmware() + "|" + std::to_string(d.rating()));
    EXPECT_EQ("A\r\nB=\\x", optionsFrom({"--model", "A\\r\\nB=\\\\x"}).model);  // the line break UpsLink_test plays

    // Meters in hundredths; utility fail (alarm 57): no input voltage.
    d.setMeters(text(ask(m, 0x34).data));
    EXPECT_EQ(std::make_pair(0, 5420), std::make_pair(int(d.meterValue(56)), int(d.meterValue(33))));
    Bytes alarms = ask(m, 0x35).data;
    d.setActionLevel(alarms.data(), static_cast<int>(alarms.size()), 0);
    EXPECT_TRUE(d.isAlarmActive(57, 0) && !d.isAlarmActive(59, 0));
    std::string error;
    EXPECT_FALSE(m.setAlarm(58, true, &error));  // not in the map

    UpsModel faked(optionsFrom({"--commands", "31,33,A0", "--command-count", "10"}));
    EXPECT_EQ((Bytes{10, 1, 0x31, 0x33, 0xA0}), ask(faked, 0x40).data);
}

TEST(UpsModel, UnknownCommandsAndTheDelayedPowerOff) {
    UpsModel m(optionsFrom({}));
    EXPECT_EQ(UpsModel::kNotImplemented, ask(m, 0x77).data.at(0));
    // On battery: the delay is read low byte first; the output goes off when it has passed.
    UpsModel u(optionsFrom({"--alarms", "57"}));
    std::vector<std::string> notes;
    u.handle(0x8A, Bytes{0x2C, 0x01}, 1000, &notes);
    ASSERT_FALSE(notes.empty());
    EXPECT_NE(std::string::npos, notes[0].find("delay 300 s, segment 0"));
    u.tick(300999, &notes);
    const bool before = u.outputOn();
    u.tick(301000, &notes);
    EXPECT_TRUE(before && !u.outputOn());
}
