// The body helpers: values land at their wire positions, come back whole,
// and everything that does not fit or is malformed is refused.
#include <gtest/gtest.h>

#include <vector>

#include "ipc/DG2Bodies.h"
#include "xcp/UpsDataBlock.h"
#include "tests/fakes/DG2Builder.h"

namespace {

std::string pad32(const std::string& text) { return text + std::string(32 - text.size(), '\0'); }
std::string wireBody(const DG2Builder& b) { return b.wire().substr(DG2::kHeaderSize); }

// Back from the wire as the receiver's transport hands it on.
DG2MessageType received(const DG2Builder& b)
{
    DG2MessageType m{};
    const std::string w = b.wire();
    return memcpy(&m, w.data(), w.size()), ByteOrderChg(&m), m;
}

DG2Settings settings()
{
    DG2Settings s;
    s.hostName = std::string(100, 'h'); // fills the field: no NUL on the wire
    s.groupName = "group-1", s.runCommand = std::string(127, 'c');
    s.port = 3052, s.shutdownDelay = 120, s.winkTime = 99999999, s.alertMode = 2;
    return s;
}

TEST(DG2BodiesTest, SettingsTravelAsFixedTextFieldsAndRefuseWhatDoesNotFit)
{
    const DG2Builder b =
        DG2Builder(DG2::MsgSettings).pack([](DG2MessageType* m) { return DG2PackSettings(m, settings()); });
    const std::string body = wireBody(b);
    ASSERT_EQ(497u, body.size());
    EXPECT_EQ(std::string(100, 'h') + "group-1", body.substr(0, 107));
    EXPECT_EQ(std::string("3052\0\0", 6) + std::string("120\0\0\0\0\0", 8), body.substr(132, 14));
    EXPECT_EQ(std::string("99999999") + '\0' + '\2', body.substr(154, 8) + body.substr(297, 2)); // the command keeps its NUL
    DG2Settings back;
    ASSERT_TRUE(DG2UnpackSettings(received(b), &back));
    EXPECT_EQ(settings().hostName + settings().runCommand + "99999999",
              back.hostName + back.runCommand + std::to_string(back.winkTime));

    DG2MessageType scratch{};
    DG2Settings bad[3] = {settings(), settings(), settings()};
    bad[0].runCommand = std::string(128, 'c'), bad[1].winkTime = 100000000, bad[2].groupName = "a\nb";
    for (const DG2Settings& s : bad)
        EXPECT_EQ(-1, DG2PackSettings(&scratch, s));

    // Malformed bodies from a peer.
    const std::pair<size_t, std::string> spoilt[] = {
        {138, std::string("12a\0", 4)}, {138, std::string(8, '\0')}, {100, "g\rroup"}, {170, std::string(128, 'c')}};
    for (const auto& s : spoilt) {
        DG2MessageType m = received(b);
        memcpy(m.body + s.first, s.second.data(), s.second.size());
        EXPECT_FALSE(DG2UnpackSettings(m, &back)) << s.first << " " << s.second;
    }
    DG2MessageType m = received(b);
    EXPECT_FALSE((m.bodyLen = 496, DG2UnpackSettings(m, &back)));
}

TEST(DG2BodiesTest, ShutdownTimingWordsSitAtTheirOffsetsInWireOrder)
{
    DG2_ShutdownTimming t{};
    t.winkTime = 0x0102, t.shutdownTime = 7, t.appTermTimeOut = 0x0A0B, t.shutdownDelay = 65535, t.marker = 9;
    strcpy(t.appTermCommand, "/usr/local/bin/stop-db");
    const DG2Builder b =
        DG2Builder(DG2::MsgShutdownTiming).pack([&](DG2MessageType* m) { return DG2PackShutdownTiming(m, t); });
    const std::string body = wireBody(b);
    ASSERT_EQ(152u, body.size());
    EXPECT_EQ(std::string("\x02\x01\0\0\x07\0\0\0\x0B\x0A\xFF\xFF", 12), body.substr(0, 12));
    EXPECT_EQ("/usr/local/bin/stop-db|\x09", body.substr(22, 22) + "|" + body[150]);
    DG2_ShutdownTimming back;
    ASSERT_TRUE(DG2UnpackShutdownTiming(received(b), &back));
    EXPECT_EQ(0, memcmp(&t, &back, sizeof t));

    t.winkTime = 65536;
    DG2MessageType scratch{};
    EXPECT_EQ(-1, DG2PackShutdownTiming(&scratch, t));
    DG2MessageType m = received(b);
    memset(m.body + 22, 'x', 128);  // a command without its NUL
    EXPECT_FALSE(DG2UnpackShutdownTiming(m, &back));
}

TEST(DG2BodiesTest, PowerReportValuesAndStatusBytesSitAtTheirOffsets)
{
    DG2PowerReportBody r{};
    r.alarmMapLength = 2, r.battery = 5, r.utility = 3, r.alarmMap[0] = 0x81, r.alarmStates[1] = 1;
    r.meters[0] = 0x01020304, r.meters[255] = -2;
    r.restarted = 1, r.upsCommLost = 1, r.outputOn = 1, r.alertTime = 0x11223344, r.reportTime = 0x55667788;
    const DG2Builder b =
        DG2Builder(DG2::MsgPowerReport).pack([&](DG2MessageType* m) { return DG2PackPowerReport(m, r); });
    const std::string body = wireBody(b);
    ASSERT_EQ(1328u, body.size());
    EXPECT_EQ(std::string("\x02\x05\x03\0\x81|\x01|\x04\x03\x02\x01", 12),
              body.substr(0, 5) + "|" + body[37] + "|" + body.substr(292, 4));
    EXPECT_EQ(std::string("\xFE\xFF\xFF\xFF\x01\x01\0\x01\x44\x33\x22\x11\x88\x77\x66\x55", 16), body.substr(1312));
    DG2PowerReportBody back;
    ASSERT_TRUE(DG2UnpackPowerReport(received(b), &back));
    EXPECT_EQ(0, memcmp(&r, &back, sizeof r));

    DG2PowerReportBody bad[2] = {r, r};
    bad[0].alarmMapLength = 33, bad[1].utility = 4;
    for (const DG2PowerReportBody& x : bad) {
        DG2MessageType m = received(b);
        EXPECT_EQ(-1, DG2PackPowerReport(&m, x));
        DG2PutBody(&m, x);
        EXPECT_FALSE(DG2UnpackPowerReport(m, &back));
    }
}

TEST(DG2BodiesTest, PowerReportFromTheUpsDataOfOneIndex)
{
    UpsDataBlock ups;
    unsigned char map[40] = {0x01, 0, 0, 0, 0, 0, 0, 0x01}, states[] = {0, 1}; // alarms 0 and 56 (battery)
    ups.setAlarmNo(map, 40, 2); // longer than the body's map: cut to 32 bytes
    int32_t meters[256] = {};
    meters[255] = 12345;
    ups.setActionLevel(states, 2, 2), ups.checkAlarm(2), ups.setMeterValues(meters, 256, 2);
    DG2PowerReportBody r;
    DG2PowerReportFromUps(ups, 2, &r);
    // Utility 2: alarms 57 and 59 not supported; the alert time is the battery alarm's.
    EXPECT_EQ(std::vector<int>({32, 1, 5, 2, 12345}),
              std::vector<int>({r.alarmMapLength, r.alarmStates[1], r.battery, r.utility, r.meters[255]}));
    EXPECT_NE(0, r.alertTime);
}

TEST(DG2BodiesTest, SmallBodiesRoundTripAndRefuseBadValues)
{
    const DG2Builder reg = DG2Builder(DG2::MsgRegister)
        .pack([](DG2MessageType* m) { return DG2PackAddress(m, DG2::MsgRegister, {"id0001", "192.0.2.7", 3069}); });
    EXPECT_EQ(pad32("id0001") + pad32("192.0.2.7") + std::string("3069\0\0", 6), wireBody(reg));
    DG2Address a;
    ASSERT_TRUE(DG2UnpackAddress(received(reg), &a));
    EXPECT_EQ(a.memberId + " " + a.address + " " + std::to_string(a.port), "id0001 192.0.2.7 3069");
    DG2MessageType scratch{};
    EXPECT_EQ(-1, DG2PackAddress(&scratch, DG2::MsgUninstall, {"id", "192.0.2.7", 3069}));
    EXPECT_EQ(-1, DG2PackAddress(&scratch, DG2::MsgRegister, {"", "192.0.2.7", 70000}));

    DG2Builder end(DG2::MsgAppEnd);
    end.pack([](DG2MessageType* m) { return DG2PackAppEnd(m, {1, 3, std::string(40, 'n')}); });
    EXPECT_EQ(std::string("\x01\0\x03\0\0\0", 6) + std::string(32, 'n') + std::string(2, '\0'), wireBody(end));
    DG2AppEnd e;
    ASSERT_TRUE(DG2UnpackAppEnd(received(end), &e));
    EXPECT_EQ(std::string(32, 'n') + " 1 3", e.senderName + " " + std::to_string(e.value1) + " " + std::to_string(e.value2))
        << "cut to the field, terminated by the reader";

    const DG2Builder code =
        DG2Builder(DG2::MsgAccessCode).pack([](DG2MessageType* m) { return DG2PackAccessCode(m, "8000"); });
    std::string c;
    ASSERT_TRUE(DG2UnpackAccessCode(received(code), &c));
    EXPECT_EQ("8000", c);
    EXPECT_EQ(-1, DG2PackAccessCode(&scratch, "80\t00"));

    EXPECT_EQ(std::string("\x34\x12", 2),
              wireBody(DG2Builder(DG2::MsgSchedule).pack([](DG2MessageType* m) { return DG2PackSchedule(m, 0x1234); })));
    EXPECT_EQ(-1, DG2PackSchedule(&scratch, -1));
}

} // namespace
