// Decoding of the UPS's data blocks into the UPS data: identification,
// configuration, limits, topology, outlets, meters, status and battery test,
// with short and malformed blocks.
#include <gtest/gtest.h>

#include <cstring>

#include "tests/fakes/ManualClock.h"
#include "tests/fakes/ScriptedSerialPort.h"
#include "tests/fakes/XcpUpsScript.h"
#include "xcp/UpsDataBlock.h"

namespace {
using P = ScriptedSerialPort;

std::string floatBytes(float f)
{
    uint32_t raw;
    memcpy(&raw, &f, sizeof raw);
    std::string s;
    for (int i = 0; i < 4; ++i)
        s.push_back(static_cast<char>((raw >> (8 * i)) & 0xFF));
    return s;
}

std::string int32Bytes(int32_t v)
{
    uint32_t raw = static_cast<uint32_t>(v);
    std::string s;
    for (int i = 0; i < 4; ++i)
        s.push_back(static_cast<char>((raw >> (8 * i)) & 0xFF));
    return s;
}

// An identification block with one firmware entry and the given meter map.
std::string idWithMeters(const std::string& meterMap)
{
    std::string b = P::bytes({1, 0x10, 0x01, 3, 1, 1});
    b.push_back(0);  // empty unit name
    b.push_back(static_cast<char>(meterMap.size()));
    b += meterMap;
    b.push_back(0);  // no alarm map
    return b;
}

TEST(UpsDataBlockTest, IdentificationFirmwareAndRating)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    // One firmware entry: no running version to show.
    d.setStandardIDBlock(P::bytes({1, 0x10, 0x01, 0x00, 0x40, 0x01, 1, 2}));
    EXPECT_EQ("--.--", d.config().firmware);
    // Rating byte 0: the next two bytes times 50.
    EXPECT_EQ(16000, d.rating());
    EXPECT_EQ(1, d.standardId().idByte1);
    EXPECT_EQ(2, d.standardId().idByte2);

    d.setStandardIDBlock(P::bytes({2, 0x10, 0x01, 0x0B, 0x1A, 3}));
    EXPECT_EQ("1A.0B", d.config().firmware);
    EXPECT_EQ(3000, d.rating());
    d.setStandardIDBlock(P::bytes({2, 0x10, 0x01, 0x00, 0x00, 3}));
    EXPECT_EQ("--.--", d.config().firmware);
}

TEST(UpsDataBlockTest, IdentificationFieldsInOrder)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    XcpUpsScript ups;
    d.setStandardIDBlock(ups.identification());
    StandardIDBlock id = d.standardId();
    EXPECT_EQ("2.15", d.config().firmware);
    EXPECT_EQ(1500, id.rating);
    EXPECT_EQ("Test UPS 1500", d.getUnitName());
    EXPECT_EQ(80u, id.meterMap.size());
    EXPECT_EQ(static_cast<char>(0xF1), id.meterMap[56]);
    EXPECT_EQ(8, d.alarmMapLength(0));
    EXPECT_EQ(96, id.configLength);
    EXPECT_EQ("SIM", id.secondText);
    EXPECT_EQ(1, id.idWords[0]);
    EXPECT_EQ(0x100, id.idWords[2]);
    // The alarm map went to the alarm tracking of UPS 0.
    EXPECT_NE(nullptr, d.getAlertTime(59));
    EXPECT_EQ(nullptr, d.getAlertTime(58));
}

TEST(UpsDataBlockTest, MalformedIdentificationStaysInBounds)
{
    ManualClock clock;
    XcpUpsScript ups;
    const std::string full = ups.identification();
    // Every prefix parses without reading past its end.
    for (size_t n = 0; n <= full.size(); ++n) {
        UpsDataBlock d(&clock);
        d.setStandardIDBlock(full.substr(0, n));
    }
    // A length byte pointing past the end: the field is cut, nothing after it is read.
    UpsDataBlock d(&clock);
    d.setStandardIDBlock(P::bytes({1, 0, 0, 5, 1, 1, 200, 'a', 'b'}));
    EXPECT_EQ("ab", d.getUnitName());
    EXPECT_TRUE(d.meterMap().empty());
    // A firmware count pointing past the end leaves everything as it was.
    d.setStandardIDBlock(P::bytes({200, 1, 2}));
    EXPECT_EQ("ab", d.getUnitName());
    EXPECT_EQ(5000, d.rating());
}

TEST(UpsDataBlockTest, ConfigurationBlockWithinTheAnnouncedLength)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    XcpUpsScript ups;
    std::string cfg = ups.configuration();
    // Unknown length (no identification yet): ignored whole.
    d.setConfigBlock(cfg);
    EXPECT_EQ("", d.getSerielNo());
    d.setStandardIDBlock(ups.identification());
    cfg[16] = 0x03;
    cfg[42] = 7;
    cfg[43] = 3;
    memcpy(&cfg[48], "CONFIG TEXT 0123456789", 16);
    d.setConfigBlock(cfg);
    ConfigBlock c = d.config();
    EXPECT_EQ(230, c.words[0]);
    EXPECT_EQ(1, c.flag);
    EXPECT_EQ("1.02", c.version1);
    EXPECT_EQ("3.07", c.version2);
    EXPECT_EQ("CONFIG TEXT 0123", c.configText);
    EXPECT_EQ("SN-0042", d.getSerielNo());

    // Longer than announced: ignored whole.
    std::string longer = cfg + "x";
    longer[0] = 1;
    d.setConfigBlock(longer);
    EXPECT_EQ(230, d.config().words[0]);
    // Short: only what it reaches.
    d.setConfigBlock(P::bytes({5, 0, 6}));
    EXPECT_EQ(5, d.config().words[0]);
    EXPECT_EQ("SN-0042", d.getSerielNo());
}

TEST(UpsDataBlockTest, ExtendedLimitsAndFirmwareText)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    XcpUpsScript ups;
    d.setStandardIDBlock(ups.identification());
    d.setConfigBlock(ups.configuration());
    std::string lim = ups.limits();
    lim[16] = 10;
    lim[24] = 9;
    lim[30] = 42;
    d.setExtendedLimitsBlock(lim);
    EXPECT_EQ(230, d.limitWord(0));
    EXPECT_EQ(1500, d.limitWord(2));  // 30 x 50
    EXPECT_EQ("KS", d.limitsCode());
    EXPECT_EQ(10, d.limitWord(7));
    EXPECT_EQ(9, d.limitWord(12));
    EXPECT_EQ(42, d.limitByte(5));
    EXPECT_EQ("2.15(230-KS)", d.getFirmware());
    d.setExtendedLimitsBlock(P::bytes({1}));
    EXPECT_EQ(230, d.limitWord(0));
}

TEST(UpsDataBlockTest, TopologyCodes)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    d.setUpsTopology(P::bytes({0x21, 0x00, 0x01}));
    EXPECT_EQ(0, d.topologyCode());
    d.setUpsTopology(P::bytes({0x10, 0x00, 0x01}));
    EXPECT_EQ(7, d.topologyCode());
    d.setUpsTopology(P::bytes({0x30, 0x00, 0x01}));
    EXPECT_EQ(3, d.topologyCode());
    d.setUpsTopology(P::bytes({0x21, 0x00}));
    EXPECT_EQ(3, d.topologyCode());
    // With the configuration flag set the fallback is 2.
    XcpUpsScript ups;
    d.setStandardIDBlock(ups.identification());
    std::string cfg = ups.configuration();
    cfg[16] = 1;
    d.setConfigBlock(cfg);
    d.setUpsTopology("");
    EXPECT_EQ(2, d.topologyCode());
}

TEST(UpsDataBlockTest, OutletsAndSegmentChange)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    UpsDataBlock::OutletRecord rec;
    EXPECT_FALSE(d.outlet(3, &rec));
    d.setOutlets(P::bytes({1, 6, 3, 1, 0x10, 0x00, 0x20, 0x00}));
    EXPECT_EQ(1, d.outletCount());
    ASSERT_TRUE(d.outlet(3, &rec));
    EXPECT_EQ(3, rec.number);
    EXPECT_EQ(1, rec.state);
    EXPECT_EQ(0x10u, rec.value1);
    EXPECT_EQ(0x20u, rec.value2);
    EXPECT_EQ(1, d.outletOnFlag());
    EXPECT_TRUE(d.CheckSegStatus());
    EXPECT_FALSE(d.CheckSegStatus());

    // Count 0 changes nothing.
    d.setOutlets(P::bytes({0, 6}));
    EXPECT_EQ(1, d.outletCount());
    // Outlet numbers beyond the table are not stored; an entry cut short is not read.
    d.setOutlets(P::bytes({3, 6, 200, 3, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 2, 1}));
    EXPECT_EQ(3, d.outletCount());
    EXPECT_EQ(1, d.outletOnFlag());  // outlet 200 is on
    EXPECT_FALSE(d.CheckSegStatus());
    ASSERT_TRUE(d.outlet(1, &rec));
    EXPECT_EQ(0, rec.state);
    d.setOutlets(P::bytes({1, 6, 1, 0, 0, 0, 0, 0}));
    EXPECT_EQ(0, d.outletOnFlag());
    EXPECT_TRUE(d.CheckSegStatus());
}

TEST(UpsDataBlockTest, MeterFormats)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    std::string map(8, '\0');
    map[1] = static_cast<char>(0xF2);
    map[2] = static_cast<char>(0xE2);
    map[3] = static_cast<char>(0xE0);
    map[4] = 0x01;  // float
    map[6] = static_cast<char>(0xF0);
    d.setStandardIDBlock(idWithMeters(map));
    d.setMeters(int32Bytes(12340) + int32Bytes(-7) + int32Bytes(999) + floatBytes(230.46f) + int32Bytes(5));
    EXPECT_EQ(12340, d.meterValue(1));
    EXPECT_EQ("123.4", UpsDataBlock::getMeterVal(d.meterValue(1)));
    EXPECT_EQ(-700, d.meterValue(2));
    EXPECT_EQ(0, d.meterValue(3));
    EXPECT_EQ(23050, d.meterValue(4));
    EXPECT_EQ(500, d.meterValue(6));
    EXPECT_EQ(0, d.meterValue(300));

    // Short data: the meters it reaches.
    d.setMeters(int32Bytes(100) + "\x01\x02");
    EXPECT_EQ(100, d.meterValue(1));
    EXPECT_EQ(-700, d.meterValue(2));
    // A new identification clears the values.
    d.setStandardIDBlock(idWithMeters(map));
    EXPECT_EQ(0, d.meterValue(1));
}

TEST(UpsDataBlockTest, FloatDecoding)
{
    EXPECT_DOUBLE_EQ(1.0, UpsDataBlock::getFloat(floatBytes(1.0f).data()));
    EXPECT_DOUBLE_EQ(-2.5, UpsDataBlock::getFloat(floatBytes(-2.5f).data()));
    EXPECT_NEAR(54.2, UpsDataBlock::getFloat(floatBytes(54.2f).data()), 1e-5);
    // The largest exponents are stored clamped rather than overflowing.
    ManualClock clock;
    UpsDataBlock d(&clock);
    d.setStandardIDBlock(idWithMeters(P::bytes({1, 1})));
    d.setMeters(P::bytes({0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(2147483647, d.meterValue(0));
    EXPECT_EQ(-2147483647 - 1, d.meterValue(1));
}

TEST(UpsDataBlockTest, StatusAndBatteryTest)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    d.setUpsStatus(P::bytes({0x50, 100, 30, 7}));
    EXPECT_EQ(0x50, d.statusByte());
    EXPECT_EQ(100, d.statusValue(0));
    EXPECT_EQ(7, d.statusValue(2));

    XcpUpsScript ups;
    d.setBatteryData(ups.batteryTest());
    EXPECT_EQ(1, d.batteryResult());
    EXPECT_EQ("Test passed", d.batteryText1());
    EXPECT_EQ("Charge 100%", d.batteryText2());

    // Texts longer than 16 keep 16; lengths past the end are cut.
    std::string b(18, '\0');
    b[0] = 2;
    b.push_back(40);
    b += std::string(40, 'L');
    b.push_back(100);
    b += "short";
    d.setBatteryData(b);
    EXPECT_EQ(std::string(16, 'L'), d.batteryText1());
    EXPECT_EQ("short", d.batteryText2());
    std::string cut(18, '\0');
    cut.push_back(50);
    cut += "abc";
    d.setBatteryData(cut);
    EXPECT_EQ("abc", d.batteryText1());
    EXPECT_EQ("short", d.batteryText2());
}

TEST(UpsDataBlockTest, AlertFlags)
{
    ManualClock clock(1800000123);
    UpsDataBlock d(&clock);
    EXPECT_EQ(0, d.commAlert());
    d.setCommAlert(false);
    EXPECT_EQ(1, d.commAlert());
    EXPECT_EQ(1800000123, d.commAlertTime());
    d.setCommAlert(true);
    EXPECT_EQ(0, d.commAlert());
    EXPECT_EQ(0, d.commAlertTime());
    d.setPortAlert(false);
    EXPECT_EQ(1, d.portAlert());
    d.setPortAlert(true);
    EXPECT_EQ(0, d.portAlert());
}
} // namespace
