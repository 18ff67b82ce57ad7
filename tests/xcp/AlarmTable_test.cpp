// The constant alarm table: the regular rows follow the rule, and the rows
// the power rules and the event log depend on carry their own codes.
#include <gtest/gtest.h>

#include "xcp/AlarmTable.h"

namespace {
TEST(AlarmTableTest, RegularRuleAndTheRowsTheRulesUse)
{
    int differing = 0;
    for (int a = 0; a < kAlarmTableRows; ++a)
        differing += ksStrctAlarm[a].setCode == 300 + a && ksStrctAlarm[a].clearCode == 600 + a ? 0 : 1;
    EXPECT_EQ(46, differing);
    struct Row {
        int alarm, level, set, clear;
    };
    const Row rows[] = {{0, 12, 48, 49},   {56, 8, 16, 17},     {57, 8, 357, 657},   {59, 8, 14, 15},
                        {178, 1, 122, 123}, {228, 12, 528, 829}, {229, 1, 529, 829}, {68, 99, 368, 668}};
    for (const Row& r : rows) {
        EXPECT_EQ(r.level, ksStrctAlarm[r.alarm].level) << r.alarm;
        EXPECT_EQ(r.set, ksStrctAlarm[r.alarm].setCode) << r.alarm;
        EXPECT_EQ(r.clear, ksStrctAlarm[r.alarm].clearCode) << r.alarm;
    }
}
} // namespace
