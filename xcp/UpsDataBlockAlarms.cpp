// UpsDataBlock: alarm tracking per UPS index (supported alarms, states,
// activation times, change marks, the utility and battery flags) and the
// meter texts of the meter log.
#include <algorithm>
#include <cstdio>
#include <cstring>

#include "xcp/AlarmTable.h"
#include "xcp/UpsDataBlock.h"

namespace {
const int kAlarmBatteryLow = 56;
const int kAlarmUtilityFail = 57;
const int kAlarmUtilityNotPresent = 59;

// The six meters of the meter summary line, in line order.
const int kSummaryMeters[6] = {56, 78, 33, 27, 21, 62};

bool validUps(int ups) { return ups >= 0 && ups < UpsDataBlock::kUpsCount; }
} // namespace

void UpsDataBlock::setAlarmNo(const unsigned char* map, int length, int ups)
{
    std::lock_guard<std::mutex> guard(mLock);
    setAlarmNoLocked(map, length, ups);
}

void UpsDataBlock::setAlarmNoLocked(const unsigned char* map, int length, int ups)
{
    if (!validUps(ups))
        return;
    // The length is kept in one byte.
    length = std::max(0, std::min(length, 255));
    if (length > 0 && map == nullptr)
        length = 0;
    AlarmState& a = mAlarms[ups];
    for (int i = 0; i < length; ++i)
        for (int b = 0; b < 8; ++b)
            if (map[i] & (1u << b))
                a.changes[i * 8 + b] = 0;
    memset(a.map, 0, sizeof a.map);
    if (length > 0)
        memcpy(a.map, map, static_cast<size_t>(length));
    a.mapLength = static_cast<uint8_t>(length);
}

void UpsDataBlock::setActionLevel(const unsigned char* states, int length, int ups)
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return;
    AlarmState& a = mAlarms[ups];
    memset(a.current, 0, sizeof a.current);
    length = std::max(0, std::min(length, kAlarmBytes));
    if (length > 0 && states != nullptr)
        memcpy(a.current, states, static_cast<size_t>(length));
}

void UpsDataBlock::checkAlarm(int ups)
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return;
    mChanged = 0;
    const int32_t now = nowSeconds();
    AlarmState& a = mAlarms[ups];
    int k = 0;
    for (int i = 0; i < a.mapLength && k < kAlarmBytes; ++i) {
        for (int b = 0; b < 8 && k < kAlarmBytes; ++b) {
            if (!(a.map[i] & (1u << b)))
                continue;
            const int n = i * 8 + b;
            const unsigned char s = a.current[k];
            const unsigned char p = a.previous[k];
            const uint8_t notActive = s == 0 ? 1 : 0;
            if (n == kAlarmUtilityNotPresent)
                a.utilityA = notActive;
            else if (n == kAlarmUtilityFail)
                a.utilityB = notActive;
            else if (n == kAlarmBatteryLow)
                a.battery = notActive;
            if ((s == 0) != (p == 0)) {
                a.times[k] = now;
                a.changes[n] = s;
                mChanged = 1;
                if (s == 0)
                    a.times[k] = 0;
            } else {
                a.changes[n] = -1;
            }
            ++k;
        }
    }
    memset(a.previous, 0, sizeof a.previous);
    memcpy(a.previous, a.current, static_cast<size_t>(k));
    a.lastCheck = now;
}

int UpsDataBlock::supportedIndex(const AlarmState& a, int alarm) const
{
    if (alarm < 0 || alarm / 8 >= a.mapLength || !(a.map[alarm / 8] & (1u << (alarm % 8))))
        return -1;
    int k = 0;
    for (int n = 0; n < alarm; ++n)
        if (a.map[n / 8] & (1u << (n % 8)))
            ++k;
    return k < kAlarmBytes ? k : -1;
}

int32_t* UpsDataBlock::getAlertTime(int alarm)
{
    std::lock_guard<std::mutex> guard(mLock);
    int k = supportedIndex(mAlarms[0], alarm);
    return k < 0 ? nullptr : &mAlarms[0].times[k];
}

int32_t UpsDataBlock::getAlertDiffTime(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return 0;
    const AlarmState& a = mAlarms[ups];
    auto timeOf = [this, &a](int alarm) -> int32_t {
        int k = supportedIndex(a, alarm);
        return k < 0 ? 0 : a.times[k];
    };
    const int32_t t56 = timeOf(kAlarmBatteryLow);
    const int32_t t57 = timeOf(kAlarmUtilityFail);
    const int32_t t59 = timeOf(kAlarmUtilityNotPresent);
    if (t56 == 0 && t57 == 0 && t59 == 0)
        return 0;
    if (t56 >= t59 && t56 >= t57)
        return t56;
    if (t56 <= t59 && t57 <= t59)
        return t59;
    // Alarm 57 is the latest: the battery alarm's time (possibly 0) is
    // what counts here, not alarm 57's own.
    if (t57 < t59)
        return 0;
    if (t56 <= t57)
        return t56;
    return 0;
}

bool UpsDataBlock::isAlarmActive(int alarm, int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return false;
    const AlarmState& a = mAlarms[ups];
    int k = supportedIndex(a, alarm);
    return k >= 0 && a.current[k] != 0;
}

bool UpsDataBlock::isUtilityNotParent(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return true;
    return mAlarms[ups].utilityA == 1 && mAlarms[ups].utilityB == 1;
}

std::map<int, int> UpsDataBlock::alarmChanges(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return validUps(ups) ? mAlarms[ups].changes : std::map<int, int>();
}

int UpsDataBlock::changedAlarmCodes(int ups, int32_t* out, int max) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return 0;
    int count = 0;
    for (const auto& change : mAlarms[ups].changes) {
        if (change.second == -1)
            continue;
        // Alarm numbers beyond the table have no codes to report.
        if (change.first < 0 || change.first >= kAlarmTableRows)
            continue;
        if (count >= max)
            break;
        const KS_STRCT_ALARM& row = ksStrctAlarm[change.first];
        out[count++] = change.second != 0 ? row.setCode : row.clearCode;
    }
    return count;
}

bool UpsDataBlock::alarmsChanged() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mChanged != 0;
}

int UpsDataBlock::alarmMapLength(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return validUps(ups) ? mAlarms[ups].mapLength : 0;
}

std::string UpsDataBlock::alarmMap(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return std::string();
    return std::string(reinterpret_cast<const char*>(mAlarms[ups].map), mAlarms[ups].mapLength);
}

std::string UpsDataBlock::alarmStates(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups))
        return std::string();
    return std::string(reinterpret_cast<const char*>(mAlarms[ups].current), kAlarmBytes);
}

int32_t UpsDataBlock::lastCheckTime(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return validUps(ups) ? mAlarms[ups].lastCheck : 0;
}

int UpsDataBlock::utilityFlagA(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return validUps(ups) ? mAlarms[ups].utilityA : 1;
}

int UpsDataBlock::utilityFlagB(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return validUps(ups) ? mAlarms[ups].utilityB : 1;
}

int UpsDataBlock::batteryFlag(int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return validUps(ups) ? mAlarms[ups].battery : 0;
}

// ---------------------------------------------------------------- meters

std::string UpsDataBlock::getMeterVal(long value)
{
    if (value == 0)
        return "0.0";
    char buf[64];
    snprintf(buf, sizeof buf, "%.1f", static_cast<double>(value) / 100.0);
    return buf;
}

std::string UpsDataBlock::getMeterMessage() const
{
    std::lock_guard<std::mutex> guard(mLock);
    std::string line;
    for (int i = 0; i < 6; ++i) {
        const size_t m = static_cast<size_t>(kSummaryMeters[i]);
        const bool present = m < mId.meterMap.size() && mId.meterMap[m] != 0;
        line += '"';
        line += present ? getMeterVal(mMeters[0][m]) : std::string("NoData");
        line += '"';
        // The last field takes no comma, unless its meter is absent.
        if (i < 5 || !present)
            line += ',';
    }
    return line;
}

int32_t UpsDataBlock::meterValue(int meter, int ups) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups) || meter < 0 || meter >= kMeterCount)
        return 0;
    return mMeters[ups][meter];
}

void UpsDataBlock::setMeterValues(const int32_t* values, int count, int ups)
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!validUps(ups) || values == nullptr)
        return;
    count = std::max(0, std::min(count, kMeterCount));
    memcpy(mMeters[ups], values, sizeof(int32_t) * static_cast<size_t>(count));
}
