// The datagram codec: the byte-order conversion of every message number
// (forced, so it runs on any host) and the receive check. Whole wire images
// are pinned by the uninstall exchange's tests.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "ipc/DG2Message.h"
#include "tests/fakes/DG2Builder.h"

namespace {

std::string image(const DG2MessageType& m) { return std::string(reinterpret_cast<const char*>(&m), sizeof m); }

TEST(DG2MessageTest, ForcedSwapTouchesExactlyTheListedFieldsAndRoundTrips)
{
    // Body offsets of 16-bit words and 32-bit values, written out independently of the codec's table.
    std::vector<int> report;
    for (int at = 292; at <= 1312; at += 4)
        report.push_back(at);
    report.insert(report.end(), {1320, 1324});
    std::map<int, std::pair<std::vector<int>, std::vector<int>>> known = {
        {0, {}}, {29, {{50, 52}, {}}}, {30, {{50, 52}, {}}}, {31, {{50}, {}}}, {35, {}}, {81, {{0}, {}}},
        {127, {{0, 2, 4, 38}, {}}}, {129, {}}, {130, {}}, {140, {}}, {131, {{0, 36, 38, 40, 42, 44, 46}, {}}},
        {141, {{}, report}}, {181, {{0, 4, 8, 10, 12, 14, 16, 18, 20}, {}}}, {229, {{0, 6}, {}}}, {230, {}}};
    for (int n = 0; n < 256; ++n) {
        SCOPED_TRACE("message " + std::to_string(n));
        DG2MessageType m;
        unsigned char* p = reinterpret_cast<unsigned char*>(&m);
        for (size_t i = 0; i < sizeof m; ++i)
            p[i] = static_cast<unsigned char>(i * 7 + i / 256 + 1);
        m.msgNo = static_cast<uint8_t>(n);
        const std::string before = image(m);
        if (known.count(n) == 0) { // unknown numbers are left alone
            EXPECT_FALSE(ByteOrderSwap(&m));
            EXPECT_EQ(before, image(m));
            continue;
        }
        std::string expected = before;
        for (int at : {38, 72, 74, 76, 78, 80, 82})
            std::swap(expected[at], expected[at + 1]);
        for (int at : known[n].first)
            std::swap(expected[84 + at], expected[84 + at + 1]);
        for (int at : known[n].second)
            std::swap(expected[84 + at], expected[84 + at + 3]), std::swap(expected[84 + at + 1], expected[84 + at + 2]);
        ASSERT_TRUE(ByteOrderSwap(&m));
        ASSERT_EQ(expected, image(m)); // for 141 the four status bytes at 1316 stay in sender order
        ASSERT_TRUE(ByteOrderSwap(&m));
        EXPECT_EQ(before, image(m));
        EXPECT_TRUE(ByteOrderChg(&m)); // the wire order is the host order when little-endian
        EXPECT_EQ(IsBigEnd() ? expected : before, image(m));
    }
}

// The transport's whole receive check on the bytes a peer would send, and
// the name forms the header stamp writes (0 name, 1 identity, 0xFF none).
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
    EXPECT_EQ(DG2Drop::DG2SizeMismatch, check(report.substr(0, 1411), DG2Role::Member));
    EXPECT_EQ(DG2Drop::DG2SizeMismatch, check(report + '\0', DG2Role::Member));
    const std::string presence = DG2Builder(DG2::MsgPresence).from("", 17).to(" id", 19).wire();
    ASSERT_EQ(84u, presence.size());
    EXPECT_EQ(std::string("\x01\xFF\x01", 3), presence.substr(3, 3));
    EXPECT_NE(DG2Drop::DG2Accepted, check(presence.substr(0, 83), DG2Role::Controller));
    std::string unknown = presence;
    unknown[2] = char(200);
    EXPECT_EQ(DG2Drop::DG2UnknownNumber, check(unknown, DG2Role::Controller));

    // Only a peer role's kinds are accepted, and only with the magic byte.
    const struct { DG2Role role; uint8_t magic; uint16_t src, dst; bool accepted; } cases[] = {
        {DG2Role::Controller, 0xD2, 17, 19, true}, {DG2Role::Controller, 0xD2, 17, 81, true},
        {DG2Role::Controller, 0xD2, 19, 19, false}, {DG2Role::Controller, 0xD2, 17, 113, false},
        {DG2Role::Controller, 0xD3, 17, 19, false}, {DG2Role::Member, 0xD2, 19, 17, true},
        {DG2Role::Member, 0xD2, 19, 113, true},     {DG2Role::Member, 0xD2, 17, 17, false},
        {DG2Role::Member, 0xD2, 19, 81, false},
    };
    for (const auto& c : cases) {
        const std::string wire = DG2Builder(DG2::MsgPowerReport).magic(c.magic).from("a", c.src).to("b", c.dst).wire();
        EXPECT_EQ(c.accepted ? DG2Drop::DG2Accepted : DG2Drop::DG2NotForUs, check(wire, c.role))
            << int(c.role) << " " << c.src << "->" << c.dst;
    }
}

} // namespace
