// The constant alarm table: the regular codes, the irregular rows and the
// levels.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "xcp/AlarmTable.h"

namespace {
TEST(AlarmTableTest, RegularRowsFollowTheRule)
{
    const std::set<int> irregular = {0,   1,   6,   9,   10,  12,  20,  21,  24,  25,  26,  27,  28,  29,  30,  31,
                                     33,  34,  36,  50,  55,  56,  58,  59,  63,  92,  106, 107, 108, 121, 126, 149,
                                     169, 178, 191, 192, 193, 194, 195, 199, 200, 201, 205, 206, 207, 228};
    int differing = 0;
    for (int a = 0; a < kAlarmTableRows; ++a) {
        bool regular = ksStrctAlarm[a].setCode == 300 + a && ksStrctAlarm[a].clearCode == 600 + a;
        EXPECT_EQ(irregular.count(a) == 0, regular) << "alarm " << a;
        if (!regular)
            ++differing;
    }
    EXPECT_EQ(46, differing);
}

TEST(AlarmTableTest, IrregularRows)
{
    struct Row {
        int alarm, level, set, clear;
    };
    const Row rows[] = {{0, 12, 48, 49},     {6, 8, 70, 71},       {33, 8, 32, 33},     {56, 8, 16, 17},
                        {57, 8, 357, 657},   {59, 8, 14, 15},      {92, 8, 54, 55},     {149, 8, 36, 37},
                        {178, 1, 122, 123},  {207, 12, 136, 137},  {228, 12, 528, 829}, {229, 1, 529, 829}};
    for (const Row& r : rows) {
        EXPECT_EQ(r.level, ksStrctAlarm[r.alarm].level) << r.alarm;
        EXPECT_EQ(r.set, ksStrctAlarm[r.alarm].setCode) << r.alarm;
        EXPECT_EQ(r.clear, ksStrctAlarm[r.alarm].clearCode) << r.alarm;
    }
}

TEST(AlarmTableTest, Levels)
{
    std::map<int, int> count;
    for (int a = 0; a < kAlarmTableRows; ++a)
        ++count[ksStrctAlarm[a].level];
    EXPECT_EQ(4u, count.size());
    // 29 regular level-1 rows plus 178 and 191.
    EXPECT_EQ(31, count[1]);
    EXPECT_EQ(99, ksStrctAlarm[68].level);
    EXPECT_EQ(99, ksStrctAlarm[13].level);
    EXPECT_EQ(12, ksStrctAlarm[2].level);
    EXPECT_EQ(8, ksStrctAlarm[227].level);
    EXPECT_EQ(1, ksStrctAlarm[93].level);
}
} // namespace
