// Alarm tracking in the UPS data (supported alarms, states, activation
// times, change marks and codes, utility and battery flags, the reference
// time of the power alarms) and the meter summary line.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/fakes/ManualClock.h"
#include "xcp/UpsDataBlock.h"

namespace {
const unsigned char kPowerAlarmMap[8] = {0, 0, 0, 0, 0, 0, 0, 0x0B};  // 56, 57, 59

std::vector<int> codes(const UpsDataBlock& d, int ups = 0)
{
    int32_t out[256];
    int n = d.changedAlarmCodes(ups, out, 256);
    return std::vector<int>(out, out + n);
}

// Sets the states of alarms 56, 57 and 59 and runs the check.
void poll(UpsDataBlock& d, int s56, int s57, int s59, int ups = 0)
{
    unsigned char states[3] = {static_cast<unsigned char>(s56), static_cast<unsigned char>(s57),
                               static_cast<unsigned char>(s59)};
    d.setActionLevel(states, 3, ups);
    d.checkAlarm(ups);
}

TEST(UpsDataBlockAlarmsTest, MapBitsSelectTheStateBytes)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    const unsigned char map[1] = {0x81};
    d.setAlarmNo(map, 1, 0);
    const unsigned char states[2] = {0x00, 0x01};
    d.setActionLevel(states, 2, 0);
    EXPECT_FALSE(d.isAlarmActive(0, 0));
    EXPECT_TRUE(d.isAlarmActive(7, 0));
    EXPECT_FALSE(d.isAlarmActive(1, 0));
    d.checkAlarm(0);
    auto changes = d.alarmChanges(0);
    ASSERT_EQ(2u, changes.size());
    EXPECT_EQ(-1, changes[0]);
    EXPECT_EQ(1, changes[7]);
    EXPECT_TRUE(d.alarmsChanged());
    ASSERT_NE(nullptr, d.getAlertTime(7));
    EXPECT_EQ(clock.now(), *d.getAlertTime(7));
    EXPECT_EQ(0, *d.getAlertTime(0));
    EXPECT_EQ(nullptr, d.getAlertTime(3));
    EXPECT_EQ(std::vector<int>({307}), codes(d));
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
    EXPECT_EQ(0, d.utilityFlagA(0));
    EXPECT_EQ(1100, *d.getAlertTime(59));

    // Still active, even with another level: no change.
    clock.set(1200);
    poll(d, 0, 0, 2);
    EXPECT_TRUE(codes(d).empty());
    EXPECT_EQ(1100, *d.getAlertTime(59));

    poll(d, 1, 1, 0);
    EXPECT_EQ(std::vector<int>({16, 357, 15}), codes(d));
    EXPECT_EQ(0, *d.getAlertTime(59));
    EXPECT_EQ(0, d.batteryFlag(0));
    EXPECT_EQ(0, d.utilityFlagB(0));
    EXPECT_EQ(1, d.utilityFlagA(0));
    EXPECT_FALSE(d.isUtilityNotParent(0));
    poll(d, 0, 0, 0);
    EXPECT_EQ(std::vector<int>({17, 657}), codes(d));
    EXPECT_TRUE(d.isUtilityNotParent(0));
    EXPECT_EQ(1, d.batteryFlag(0));
}

TEST(UpsDataBlockAlarmsTest, AlarmsTwoTwentyEightAndNineClearAlike)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    unsigned char map[29] = {};
    map[28] = 0x30;  // 228, 229
    d.setAlarmNo(map, 29, 0);
    const unsigned char on[2] = {1, 1};
    d.setActionLevel(on, 2, 0);
    d.checkAlarm(0);
    EXPECT_EQ(std::vector<int>({528, 529}), codes(d));
    d.setActionLevel(nullptr, 0, 0);
    d.checkAlarm(0);
    EXPECT_EQ(std::vector<int>({829, 829}), codes(d));
}

TEST(UpsDataBlockAlarmsTest, UpsIndexesAreKeptApart)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    d.setAlarmNo(kPowerAlarmMap, 8, 2);
    poll(d, 0, 1, 0, 2);
    EXPECT_FALSE(d.isUtilityNotParent(2));
    EXPECT_TRUE(d.isUtilityNotParent(0));
    EXPECT_TRUE(d.isAlarmActive(57, 2));
    EXPECT_FALSE(d.isAlarmActive(57, 0));
    EXPECT_EQ(std::vector<int>({357}), codes(d, 2));
    EXPECT_TRUE(codes(d, 0).empty());
    // Out-of-range indexes are ignored.
    d.checkAlarm(4);
    d.setAlarmNo(kPowerAlarmMap, 8, -1);
    EXPECT_FALSE(d.isAlarmActive(57, 4));
    EXPECT_TRUE(d.isUtilityNotParent(7));
}

TEST(UpsDataBlockAlarmsTest, LongMapsAndStateBlocksAreBounded)
{
    ManualClock clock;
    UpsDataBlock d(&clock);
    std::vector<unsigned char> map(300, 0xFF);
    d.setAlarmNo(map.data(), 300, 0);
    EXPECT_EQ(255, d.alarmMapLength(0));
    std::vector<unsigned char> states(400, 1);
    d.setActionLevel(states.data(), 400, 0);
    d.checkAlarm(0);
    // 256 states: alarms 0..229 have codes; 230..255 are tracked but not reported.
    EXPECT_EQ(230u, codes(d).size());
    EXPECT_TRUE(d.isAlarmActive(255, 0));
    EXPECT_FALSE(d.isAlarmActive(256, 0));
    EXPECT_EQ(nullptr, d.getAlertTime(300));
}

// Activation times t56, t57, t59 (0: never active) and the reference time.
int32_t referenceTime(int t56, int t57, int t59)
{
    ManualClock clock(1);
    UpsDataBlock d(&clock);
    d.setAlarmNo(kPowerAlarmMap, 8, 1);
    struct Step {
        int at;
        int alarm;
    };
    std::vector<Step> steps;
    if (t56)
        steps.push_back({t56, 56});
    if (t57)
        steps.push_back({t57, 57});
    if (t59)
        steps.push_back({t59, 59});
    std::sort(steps.begin(), steps.end(), [](const Step& a, const Step& b) { return a.at < b.at; });
    int s56 = 0, s57 = 0, s59 = 0;
    for (const Step& s : steps) {
        clock.set(s.at);
        (s.alarm == 56 ? s56 : s.alarm == 57 ? s57 : s59) = 1;
        poll(d, s56, s57, s59, 1);
    }
    return d.getAlertDiffTime(1);
}

TEST(UpsDataBlockAlarmsTest, ReferenceTimeOfThePowerAlarms)
{
    EXPECT_EQ(0, referenceTime(0, 0, 0));
    EXPECT_EQ(300, referenceTime(300, 200, 100));  // battery alarm latest
    EXPECT_EQ(100, referenceTime(50, 0, 100));     // utility-not-present latest
    EXPECT_EQ(100, referenceTime(0, 100, 100));
    // Alarm 57 latest: the battery alarm's time, even when it is 0.
    EXPECT_EQ(0, referenceTime(0, 200, 100));
    EXPECT_EQ(50, referenceTime(50, 200, 100));
    EXPECT_EQ(50, referenceTime(50, 200, 0));
}

TEST(UpsDataBlockAlarmsTest, MeterTexts)
{
    EXPECT_EQ("0.0", UpsDataBlock::getMeterVal(0));
    EXPECT_EQ("123.4", UpsDataBlock::getMeterVal(12340));
    EXPECT_EQ("-5.5", UpsDataBlock::getMeterVal(-550));

    ManualClock clock;
    UpsDataBlock d(&clock);
    // Nothing known yet: every meter absent, the line ends in a comma.
    EXPECT_EQ("\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",", d.getMeterMessage());

    std::string map(80, '\0');
    for (int m : {56, 78, 33, 27, 21, 62})
        map[static_cast<size_t>(m)] = static_cast<char>(0xF0);
    std::string id = std::string("\x01\x10\x01\x01\x01\x01\x00", 7);
    id.push_back(static_cast<char>(map.size()));
    id += map;
    d.setStandardIDBlock(id);
    std::string values;
    for (int v : {450, 50, 54, 230, 25, 231}) {  // meters 21, 27, 33, 56, 62, 78
        for (int i = 0; i < 4; ++i)
            values.push_back(static_cast<char>((v >> (8 * i)) & 0xFF));
    }
    d.setMeters(values);
    EXPECT_EQ("\"230.0\",\"231.0\",\"54.0\",\"50.0\",\"450.0\",\"25.0\"", d.getMeterMessage());

    // The last meter absent keeps its comma; an absent middle meter reads NoData.
    map[62] = 0;
    map[33] = 0;
    id.replace(8, map.size(), map);
    d.setStandardIDBlock(id);
    EXPECT_EQ("\"0.0\",\"0.0\",\"NoData\",\"0.0\",\"0.0\",\"NoData\",", d.getMeterMessage());

    // The member side copies a controller's values to its index.
    int32_t copied[256] = {};
    copied[56] = 23456;
    d.setMeterValues(copied, 256, 3);
    EXPECT_EQ(23456, d.meterValue(56, 3));
    EXPECT_EQ(0, d.meterValue(56, 0));
}
} // namespace
