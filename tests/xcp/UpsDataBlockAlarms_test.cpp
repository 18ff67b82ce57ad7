// Alarm tracking in the UPS data (states, activation times, change codes,
// the reference time of the power alarms) and the meter summary line.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/fakes/ManualClock.h"
#include "xcp/UpsDataBlock.h"

namespace {
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

TEST(UpsDataBlockAlarmsTest, ChangesAreReportedOnceWithTheirCodes)
{
    ManualClock clock(1000);
    UpsDataBlock d(&clock);
    d.setAlarmNo(kPowerAlarmMap, 8, 0);
    poll(d, 0, 0, 0);
    EXPECT_TRUE(codes(d).empty());
    EXPECT_FALSE(d.alarmsChanged());
    EXPECT_TRUE(d.isUtilityNotParent(0));

    clock.set(1100);
    poll(d, 0, 0, 1);
    EXPECT_EQ(std::vector<int>({14}), codes(d));
    EXPECT_FALSE(d.isUtilityNotParent(0));
    EXPECT_EQ(1100, *d.getAlertTime(59));
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

TEST(UpsDataBlockAlarmsTest, UpsIndexesAreKeptApartAndMapsBounded)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    d.setAlarmNo(kPowerAlarmMap, 8, 2);
    poll(d, 0, 1, 0, 2);
    EXPECT_FALSE(d.isUtilityNotParent(2));
    EXPECT_TRUE(d.isUtilityNotParent(0));
    EXPECT_FALSE(d.isAlarmActive(57, 0));
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

TEST(UpsDataBlockAlarmsTest, ReferenceTimeOfThePowerAlarms)
{
    EXPECT_EQ(0, referenceTime(0, 0, 0));
    EXPECT_EQ(300, referenceTime(300, 200, 100));  // battery alarm latest
    EXPECT_EQ(100, referenceTime(50, 0, 100));     // utility-not-present latest
    // Alarm 57 latest: the battery alarm's time, even when it is 0.
    EXPECT_EQ(0, referenceTime(0, 200, 100));
}

TEST(UpsDataBlockAlarmsTest, MeterTexts)
{
    EXPECT_EQ("0.0", UpsDataBlock::getMeterVal(0));
    EXPECT_EQ("-5.5", UpsDataBlock::getMeterVal(-550));
    ManualClock clock;
    UpsDataBlock d(&clock);
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
