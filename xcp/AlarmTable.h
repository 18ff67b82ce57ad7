// AlarmTable: the constant table ksStrctAlarm of the 230 UPS alarms, indexed
// by alarm number: each alarm's level and the notification items posted
// when it becomes active (set code) and when it clears (clear code).
#pragma once

#include <cstdint>

struct KS_STRCT_ALARM {
    int32_t level;     // 1, 8, 12 or 99; carried with the alarm
    int32_t setCode;   // item posted when the alarm becomes active
    int32_t clearCode; // item posted when it clears
};

const int kAlarmTableRows = 230;

extern const KS_STRCT_ALARM ksStrctAlarm[kAlarmTableRows];
