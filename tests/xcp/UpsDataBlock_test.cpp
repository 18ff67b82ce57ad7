// Decoding of the UPS's data blocks, with short and malformed blocks.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/fakes/ManualClock.h"
#include "tests/fakes/XcpUpsScript.h"
#include "xcp/UpsDataBlock.h"

namespace {
using P = ScriptedSerialPort;

// Little-endian bytes of a 32-bit value (an int, or a float's bits).
template <typename T> std::string le32(T v)
{
    uint32_t raw;
    memcpy(&raw, &v, sizeof raw);
    return P::bytes({int(raw & 0xFF), int(raw >> 8 & 0xFF), int(raw >> 16 & 0xFF), int(raw >> 24)});
}

// An identification block with one firmware entry and the given meter map.
std::string idWithMeters(const std::string& meterMap)
{
    std::string b = P::bytes({1, 0x10, 0x01, 3, 1, 1, 0, static_cast<int>(meterMap.size())});
    return b + meterMap + '\0';
}

class UpsDataBlockTest : public ::testing::Test {
protected:
    ManualClock clock;
    UpsDataBlock d{&clock};
    XcpUpsScript ups;
};

TEST_F(UpsDataBlockTest, IdentificationFieldsAndMalformedBlocks)
{
    // One firmware entry: no running version; rating byte 0: the next two bytes times 50.
    d.setStandardIDBlock(P::bytes({1, 0x10, 0x01, 0x00, 0x40, 0x01, 1, 2}));
    EXPECT_EQ("--.--", d.config().firmware);
    EXPECT_EQ(16000, d.rating());
    EXPECT_EQ(2, d.standardId().idByte2);
    d.setStandardIDBlock(P::bytes({2, 0x10, 0x01, 0x0B, 0x1A, 3}));
    EXPECT_EQ("1A.0B", d.config().firmware);
    EXPECT_EQ(3000, d.rating());

    // The fields after the variable-length texts and maps land in place.
    d.setStandardIDBlock(ups.identification());
    const StandardIDBlock id = d.standardId();
    EXPECT_EQ(1500, id.rating);
    EXPECT_EQ(8, d.alarmMapLength(0));
    EXPECT_EQ(96, id.configLength);
    EXPECT_EQ(0x100, id.idWords[2]);
    EXPECT_NE(nullptr, d.getAlertTime(59));  // the alarm map went to UPS 0's tracking
    EXPECT_EQ(nullptr, d.getAlertTime(58));

    // Reads past the end of cut blocks: the XcpIdentifyFuzz corpus replay.
    // A length byte pointing past the end: the field is cut, nothing after it is read.
    UpsDataBlock m(&clock);
    m.setStandardIDBlock(P::bytes({1, 0, 0, 5, 1, 1, 200, 'a', 'b'}));
    EXPECT_EQ("ab", m.getUnitName());
    EXPECT_TRUE(m.meterMap().empty());
    // A firmware count pointing past the end leaves everything as it was.
    m.setStandardIDBlock(P::bytes({200, 1, 2}));
    EXPECT_EQ("ab", m.getUnitName());
    EXPECT_EQ(5000, m.rating());
}

TEST_F(UpsDataBlockTest, ConfigurationAndLimitsWithinTheAnnouncedLength)
{
    std::string cfg = ups.configuration();
    d.setConfigBlock(cfg);  // length unknown before the identification: ignored
    EXPECT_EQ("", d.getSerielNo());
    d.setStandardIDBlock(ups.identification());
    cfg[16] = 0x03;
    d.setConfigBlock(cfg);
    EXPECT_EQ(230, d.config().words[0]);
    EXPECT_EQ(1, d.config().flag);
    EXPECT_EQ("SN-0042", d.getSerielNo());
    std::string longer = cfg + "x";  // longer than announced: ignored whole
    longer[0] = 1;
    d.setConfigBlock(longer);
    EXPECT_EQ(230, d.config().words[0]);

    d.setExtendedLimitsBlock(ups.limits());
    EXPECT_EQ(1500, d.limitWord(2));  // 30 x 50
    EXPECT_EQ("2.15(230-KS)", d.getFirmware());
    d.setExtendedLimitsBlock(P::bytes({1}));
    EXPECT_EQ(230, d.limitWord(0));
    d.setConfigBlock(P::bytes({5, 0, 6}));  // short: only what it reaches
    EXPECT_EQ(5, d.config().words[0]);
    EXPECT_EQ("SN-0042", d.getSerielNo());
}

TEST_F(UpsDataBlockTest, OutletsAndSegmentChange)
{
    UpsDataBlock::OutletRecord rec;
    EXPECT_FALSE(d.outlet(3, &rec));
    d.setOutlets(P::bytes({1, 6, 3, 1, 0x10, 0x00, 0x20, 0x00}));
    ASSERT_TRUE(d.outlet(3, &rec));
    EXPECT_EQ(1, rec.state);
    EXPECT_TRUE(d.CheckSegStatus());
    EXPECT_FALSE(d.CheckSegStatus());

    d.setOutlets(P::bytes({0, 6}));  // count 0 changes nothing
    EXPECT_EQ(1, d.outletCount());
    // Outlet numbers beyond the table are not stored; an entry cut short is not read.
    d.setOutlets(P::bytes({3, 6, 200, 3, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 1}));
    EXPECT_EQ(3, d.outletCount());
    EXPECT_FALSE(d.CheckSegStatus());
    d.setOutlets(P::bytes({1, 6, 1, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(d.CheckSegStatus());
}

TEST_F(UpsDataBlockTest, MeterFormatsAndFloats)
{
    // Formats: 0xF2 tenths of 0.01, 0xE2, 0xE0 (unknown: 0), float, 0xF0.
    const std::string map = P::bytes({0, 0xF2, 0xE2, 0xE0, 0x01, 0, 0xF0, 0});
    d.setStandardIDBlock(idWithMeters(map));
    d.setMeters(le32(12340) + le32(-7) + le32(999) + le32(230.46f) + le32(5));
    EXPECT_EQ("123.4", UpsDataBlock::getMeterVal(d.meterValue(1)));
    EXPECT_EQ(-700, d.meterValue(2));
    EXPECT_EQ(0, d.meterValue(3));
    EXPECT_EQ(23050, d.meterValue(4));
    EXPECT_EQ(500, d.meterValue(6));
    EXPECT_EQ(0, d.meterValue(300));
    d.setMeters(le32(100) + "\x01\x02");  // short data: the meters it reaches
    EXPECT_EQ(100, d.meterValue(1));
    EXPECT_EQ(-700, d.meterValue(2));
    d.setStandardIDBlock(idWithMeters(map));  // a new identification clears the values
    EXPECT_EQ(0, d.meterValue(1));

    EXPECT_DOUBLE_EQ(-2.5, UpsDataBlock::getFloat(le32(-2.5f).data()));
    EXPECT_NEAR(54.2, UpsDataBlock::getFloat(le32(54.2f).data()), 1e-5);
    // The largest exponents are stored clamped rather than overflowing.
    d.setStandardIDBlock(idWithMeters(P::bytes({1, 1})));
    d.setMeters(P::bytes({0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(2147483647, d.meterValue(0));
    EXPECT_EQ(-2147483647 - 1, d.meterValue(1));
}
} // namespace
