// The UPS data: decoding of the data blocks (with short and malformed
// blocks), alarm tracking (states, activation times, change codes, the
// reference time of the power alarms) and the meter summary line.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

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
    EXPECT_EQ("--.-- 16000 2", d.config().firmware + " " + std::to_string(d.rating()) + " " +
                                   std::to_string(d.standardId().idByte2));
    d.setStandardIDBlock(P::bytes({2, 0x10, 0x01, 0x0B, 0x1A, 3}));
    EXPECT_EQ("1A.0B 3000", d.config().firmware + " " + std::to_string(d.rating()));

    // The fields after the variable-length texts and maps land in place.
    d.setStandardIDBlock(ups.identification());
    const StandardIDBlock id = d.standardId();
    EXPECT_EQ(std::vector<int>({1500, 8, 96, 0x100}), std::vector<int>({id.rating, d.alarmMapLength(0), id.configLength, id.idWords[2]}));
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
    EXPECT_EQ("ab 5000", m.getUnitName() + " " + std::to_string(m.rating()));
}

TEST_F(UpsDataBlockTest, ConfigurationAndLimitsWithinTheAnnouncedLength)
{
    std::string cfg = ups.configuration();
    d.setConfigBlock(cfg);  // length unknown before the identification: ignored
    EXPECT_EQ("", d.getSerielNo());
    d.setStandardIDBlock(ups.identification());
    cfg[16] = 0x03;
    d.setConfigBlock(cfg);
    EXPECT_EQ(std::make_pair(230, 1), std::make_pair(int(d.config().words[0]), int(d.config().flag)));
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
    EXPECT_EQ("5 SN-0042", std::to_string(d.config().words[0]) + " " + d.getSerielNo());
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
    EXPECT_EQ(std::vector<int>({-700, 0, 23050, 500, 0}),
              std::vector<int>({d.meterValue(2), d.meterValue(3), d.meterValue(4), d.meterValue(6), d.meterValue(300)}));
    d.setMeters(le32(100) + "\x01\x02");  // short data: the meters it reaches
    EXPECT_EQ(std::make_pair(100, -700), std::make_pair(int(d.meterValue(1)), int(d.meterValue(2))));
    d.setStandardIDBlock(idWithMeters(map));  // a new identification clears the values
    EXPECT_EQ(0, d.meterValue(1));

    EXPECT_DOUBLE_EQ(-2.5, UpsDataBlock::getFloat(le32(-2.5f).data()));
    EXPECT_NEAR(54.2, UpsDataBlock::getFloat(le32(54.2f).data()), 1e-5);
    // The largest exponents are stored clamped rather than overflowing.
    d.setStandardIDBlock(idWithMeters(P::bytes({1, 1})));
    d.setMeters(P::bytes({0xFF, 0xFF, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(std::make_pair(2147483647, -2147483647 - 1), std::make_pair(int(d.meterValue(0)), int(d.meterValue(1))));
}

const unsigned char kPowerAlarmMap[8] = {0, 0, 0, 0, 0, 0, 0, 0x0B};  // 56, 57, 59

std::vector<int> codes(const UpsDataBlock& d, int ups = 0)
{
    int32_t out[256];
    return std::vector<int>(out, out + d.changedAlarmCodes(ups, out, 256));
}

// Sets the states of alarms 56, 57 and 59 and runs the check.
void poll(UpsDataBlock& d, int s56, int s57, int s59, int ups = 0)
{
    const unsigned char states[3] = {static_cast<unsigned char>(s56), static_cast<unsigned char>(s57),
                                     static_cast<unsigned char>(s59)};
    d.setActionLevel(states, 3, ups);
    d.checkAlarm(ups);
}

TEST_F(UpsDataBlockTest, AlarmChangesAreReportedOnceWithTheirCodes)
{
    clock.set(1000);
    d.setAlarmNo(kPowerAlarmMap, 8, 0);
    poll(d, 0, 0, 0);
    EXPECT_TRUE(codes(d).empty() && !d.alarmsChanged() && d.isUtilityNotParent(0));

    clock.set(1100);
    poll(d, 0, 0, 1);
    EXPECT_EQ(std::vector<int>({14}), codes(d));
    EXPECT_FALSE(d.isUtilityNotParent(0));
    clock.set(1200);
    poll(d, 0, 0, 2);  // still active, even with another level: no change
    EXPECT_TRUE(codes(d).empty());
    EXPECT_EQ(1100, *d.getAlertTime(59));

    poll(d, 1, 1, 0);
    EXPECT_EQ(std::vector<int>({16, 357, 15}), codes(d));
    EXPECT_EQ(0, *d.getAlertTime(59));
    poll(d, 0, 0, 0);
    EXPECT_EQ(std::vector<int>({17, 657}), codes(d));
    EXPECT_TRUE(d.isUtilityNotParent(0));

    // Map bits select the state bytes: alarms 0 and 7, and 228 and 229
    // whose clear codes are both 829.
    UpsDataBlock m(&clock);
    unsigned char map[29] = {0x81};
    map[28] = 0x30;
    m.setAlarmNo(map, 29, 0);
    const unsigned char on[4] = {0, 1, 1, 1};
    m.setActionLevel(on, 4, 0);
    m.checkAlarm(0);
    EXPECT_FALSE(m.isAlarmActive(0, 0));
    EXPECT_EQ(std::vector<int>({307, 528, 529}), codes(m));
    EXPECT_EQ(nullptr, m.getAlertTime(3));
    m.setActionLevel(nullptr, 0, 0);
    m.checkAlarm(0);
    EXPECT_EQ(std::vector<int>({607, 829, 829}), codes(m));
}

TEST_F(UpsDataBlockTest, AlarmsOfUpsIndexesAreKeptApartAndMapsBounded)
{
    d.setAlarmNo(kPowerAlarmMap, 8, 2);
    poll(d, 0, 1, 0, 2);
    EXPECT_TRUE(!d.isUtilityNotParent(2) && d.isUtilityNotParent(0) && !d.isAlarmActive(57, 0));
    EXPECT_EQ(std::vector<int>({357}), codes(d, 2));
    EXPECT_TRUE(codes(d, 0).empty());
    d.checkAlarm(4);  // out-of-range indexes are ignored
    d.setAlarmNo(kPowerAlarmMap, 8, -1);
    EXPECT_FALSE(d.isAlarmActive(57, 4));

    // A 300-byte map and 400 states: 256 tracked, alarms 0..229 have codes.
    std::vector<unsigned char> bytes(400, 0xFF);
    d.setAlarmNo(bytes.data(), 300, 0);
    d.setActionLevel(bytes.data(), 400, 0);
    d.checkAlarm(0);
    EXPECT_EQ(230u, codes(d).size());
    EXPECT_TRUE(d.isAlarmActive(255, 0) && !d.isAlarmActive(256, 0));
}

// The reference time when alarms 56, 57 and 59 became active at these
// seconds (0: never).
int32_t referenceTime(int t56, int t57, int t59)
{
    ManualClock clock(1);
    UpsDataBlock d(&clock);
    d.setAlarmNo(kPowerAlarmMap, 8, 1);
    for (int t = 1; t <= 300; ++t) {
        clock.set(t);
        if (t == t56 || t == t57 || t == t59)
            poll(d, t56 && t56 <= t, t57 && t57 <= t, t59 && t59 <= t, 1);
    }
    return d.getAlertDiffTime(1);
}

TEST(UpsDataBlockAlarms, ReferenceTimeOfThePowerAlarms)
{
    EXPECT_EQ(0, referenceTime(0, 0, 0));
    EXPECT_EQ(300, referenceTime(300, 200, 100));  // battery alarm latest
    EXPECT_EQ(100, referenceTime(50, 0, 100));     // utility-not-present latest
    // Alarm 57 latest: the battery alarm's time, even when it is 0.
    EXPECT_EQ(0, referenceTime(0, 200, 100));
}

TEST_F(UpsDataBlockTest, MeterTexts)
{
    EXPECT_EQ("0.0 -5.5", UpsDataBlock::getMeterVal(0) + " " + UpsDataBlock::getMeterVal(-550));
    // Nothing known yet: every meter absent, the line ends in a comma.
    EXPECT_EQ("\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",", d.getMeterMessage());

    // The last meter absent keeps its comma; an absent middle meter reads NoData.
    std::string id("\x01\x10\x01\x01\x01\x01\x00\x50", 8), map(80, '\0');
    for (int m : {56, 78, 27, 21})
        map[static_cast<size_t>(m)] = static_cast<char>(0xF0);
    d.setStandardIDBlock(id + map);
    EXPECT_EQ("\"0.0\",\"0.0\",\"NoData\",\"0.0\",\"0.0\",\"NoData\",", d.getMeterMessage());
}
} // namespace
