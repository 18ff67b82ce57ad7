// The datagram codec: wire bytes of a built datagram, the byte-order
// conversion of every message number (forced, so it runs on any host), the
// header stamp and the acceptance test by role.
#include <gtest/gtest.h>

#include <set>
#include <vector>

#include "ipc/DG2Message.h"
#include "tests/fakes/DG2Builder.h"

namespace {

std::string pad(const std::string& text, size_t size)
{
    return text + std::string(size - text.size(), '\0');
}

std::string image(const DG2MessageType& m)
{
    return std::string(reinterpret_cast<const char*>(&m), sizeof m);
}

TEST(DG2MessageTest, BuiltAppEndIsTheseBytesOnTheWire)
{
    DG2Builder b(DG2::MsgAppEnd);
    b.from("ctrl-a", DG2::KindController).to(" memb", DG2::KindMember).pack([](DG2MessageType* m) {
        return DG2PackAppEnd(m, DG2AppEnd{1, 2, "ctrl"});
    });
    std::string expected = std::string("\xD2\xFF\x7F\x01\x00\x01", 6) + pad("ctrl-a", 32) + std::string("\x13\x00", 2) +
                           pad(" memb", 32) + std::string("\x11\x00", 2) + std::string(8, '\0') +
                           std::string("\x28\x00", 2) +
                           // body: 1, 2, reserved word, sender name, reserved word
                           std::string("\x01\x00\x02\x00\x00\x00", 6) + pad("ctrl", 32) + std::string(2, '\0');
    ASSERT_EQ(124u, expected.size());
    EXPECT_EQ(expected, b.wire());
}

// Body offsets swapped per message, written out independently of the codec's table.
struct Expect {
    int msg;
    std::vector<int> words16;
    std::vector<int> values32;
};

std::vector<Expect> expectedSwaps()
{
    std::vector<int> report;
    for (int at = 292; at <= 1312; at += 4)
        report.push_back(at);
    report.push_back(1320);
    report.push_back(1324);
    return {{0, {}, {}},     {29, {50, 52}, {}}, {30, {50, 52}, {}},          {31, {50}, {}},
            {35, {}, {}},    {81, {0}, {}},      {127, {0, 2, 4, 38}, {}},    {129, {}, {}},
            {130, {}, {}},   {140, {}, {}},      {131, {0, 36, 38, 40, 42, 44, 46}, {}},
            {141, {}, report}, {181, {0, 4, 8, 10, 12, 14, 16, 18, 20}, {}}, {229, {0, 6}, {}}, {230, {}, {}}};
}

DG2MessageType patterned(int msg)
{
    DG2MessageType m;
    unsigned char* p = reinterpret_cast<unsigned char*>(&m);
    for (size_t i = 0; i < sizeof m; ++i)
        p[i] = static_cast<unsigned char>(i * 7 + i / 256 + 1);
    m.msgNo = static_cast<uint8_t>(msg);
    return m;
}

TEST(DG2MessageTest, ForcedSwapTouchesExactlyTheListedFieldsAndRoundTrips)
{
    for (const Expect& e : expectedSwaps()) {
        SCOPED_TRACE("message " + std::to_string(e.msg));
        DG2MessageType m = patterned(e.msg);
        std::string before = image(m), expected = before;
        for (int at : {38, 72, 74, 76, 78, 80, 82})
            std::swap(expected[at], expected[at + 1]);
        for (int at : e.words16)
            std::swap(expected[84 + at], expected[84 + at + 1]);
        for (int at : e.values32) {
            std::swap(expected[84 + at], expected[84 + at + 3]);
            std::swap(expected[84 + at + 1], expected[84 + at + 2]);
        }
        ASSERT_TRUE(ByteOrderSwap(&m));
        std::string after = image(m);
        for (size_t i = 0; i < after.size(); ++i)
            ASSERT_EQ(expected[i], after[i]) << "byte " << i;
        if (e.msg == 141) {  // the four status bytes stay in sender order
            EXPECT_EQ(before.substr(84 + 1316, 4), after.substr(84 + 1316, 4));
        }
        ASSERT_TRUE(ByteOrderSwap(&m));
        EXPECT_EQ(before, image(m));
        // On this host the wire order is the host order when little-endian.
        EXPECT_TRUE(ByteOrderChg(&m));
        EXPECT_EQ(IsBigEnd() ? expected : before, image(m));
    }
}

TEST(DG2MessageTest, UnknownMessageNumbersAreLeftAlone)
{
    std::set<int> known;
    for (const Expect& e : expectedSwaps())
        known.insert(e.msg);
    for (int n = 0; n < 256; ++n) {
        DG2MessageType m = patterned(n);
        std::string before = image(m);
        EXPECT_EQ(known.count(n) == 1, ByteOrderSwap(&m)) << n;
        if (known.count(n) == 0) {
            EXPECT_EQ(before, image(m)) << n;
        }
    }
}

TEST(DG2MessageTest, SetHedVerStampsVersionAndNameForms)
{
    // Version 1, then per name: 0 a host name or address, 1 an identity (leading blank), 0xFF none.
    // (A full header with forms 0 and 1 is in BuiltAppEndIsTheseBytesOnTheWire.)
    std::string w = DG2Builder(DG2::MsgPresence).from("", DG2::KindMember).to("host", DG2::KindController).wire();
    EXPECT_EQ(std::string("\x01\xFF\x00", 3), w.substr(3, 3));
    w = DG2Builder(DG2::MsgPresence).from(" id0001", DG2::KindMember).to("", DG2::KindController).wire();
    EXPECT_EQ(std::string("\x01\x01\xFF", 3), w.substr(3, 3));
}

TEST(DG2MessageTest, UsefulDataCheckAcceptsOnlyThePeerRoleKinds)
{
    struct Case {
        DG2Role role;
        uint8_t magic;
        uint16_t src, dst;
        bool accepted;
    } cases[] = {
        {DG2Role::Controller, 0xD2, 17, 19, true}, {DG2Role::Controller, 0xD2, 17, 81, true},
        {DG2Role::Controller, 0xD2, 19, 19, false}, {DG2Role::Controller, 0xD2, 17, 113, false},
        {DG2Role::Controller, 0xD3, 17, 19, false}, {DG2Role::Member, 0xD2, 19, 17, true},
        {DG2Role::Member, 0xD2, 19, 113, true},     {DG2Role::Member, 0xD2, 17, 17, false},
        {DG2Role::Member, 0xD2, 19, 81, false},
    };
    for (const Case& c : cases) {
        DG2Builder b(DG2::MsgPowerReport);
        b.magic(c.magic).from("a", c.src).to("b", c.dst);
        EXPECT_EQ(c.accepted, UsefulDataCheck(&b.msg(), c.role)) << DG2Describe(b.msg());
    }
}

// The transport's whole receive check, on the bytes a peer would send.
TEST(DG2MessageTest, CheckReceivedDropsShortMisSizedUnknownAndForeignDatagrams)
{
    auto check = [](const std::string& wire, DG2Role role) {
        DG2MessageType m;
        memset(&m, 0, sizeof m);
        memcpy(&m, wire.data(), std::min(wire.size(), sizeof m));
        return DG2CheckReceived(&m, wire.size(), role);
    };
    const std::string report = DG2Builder(DG2::MsgPowerReport).from("ctrl", 19).to("memb", 17).wire();
    ASSERT_EQ(1412u, report.size());
    EXPECT_EQ(DG2Drop::DG2Accepted, check(report, DG2Role::Member));
    EXPECT_EQ(DG2Drop::DG2NotForUs, check(report, DG2Role::Controller));
    EXPECT_EQ(DG2Drop::DG2SizeMismatch, check(report.substr(0, 1411), DG2Role::Member));
    EXPECT_EQ(DG2Drop::DG2SizeMismatch, check(report + '\0', DG2Role::Member));

    const std::string presence = DG2Builder(DG2::MsgPresence).from("m", 17).to("c", 19).wire();
    ASSERT_EQ(84u, presence.size());
    EXPECT_EQ(DG2Drop::DG2Accepted, check(presence, DG2Role::Controller));
    // 83 bytes: the body-length word is cut, so the size cannot match either.
    EXPECT_NE(DG2Drop::DG2Accepted, check(presence.substr(0, 83), DG2Role::Controller));
    std::string unknown = presence;
    unknown[2] = char(200);
    EXPECT_EQ(DG2Drop::DG2UnknownNumber, check(unknown, DG2Role::Controller));
    EXPECT_STREQ("unknown message number", DG2DropText(DG2Drop::DG2UnknownNumber));
}

} // namespace
