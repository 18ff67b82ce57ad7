// UpsDataBlock: construction, the block parsers and the plain accessors.
// Alarm tracking and the meter texts are in UpsDataBlockAlarms.cpp.
//
// Every parser is bounded by the data it is given: a field is stored only
// when the data reaches all of its bytes, and a length byte that points past
// the end of the data is cut at the end (parsing stops there).
#include "xcp/UpsDataBlock.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/Clock.h"

namespace {
// Bounded little-endian view of a reply's data bytes.
class Bytes {
public:
    explicit Bytes(const std::string& s)
        : mData(reinterpret_cast<const unsigned char*>(s.data())), mSize(s.size())
    {
    }
    size_t size() const { return mSize; }
    // True when len bytes from pos are all inside the data.
    bool has(size_t pos, size_t len) const { return pos <= mSize && len <= mSize - pos; }
    uint8_t u8(size_t pos) const { return mData[pos]; }
    uint16_t u16(size_t pos) const { return static_cast<uint16_t>(mData[pos] | (mData[pos + 1] << 8)); }
    uint32_t u32(size_t pos) const
    {
        return static_cast<uint32_t>(mData[pos]) | (static_cast<uint32_t>(mData[pos + 1]) << 8) |
               (static_cast<uint32_t>(mData[pos + 2]) << 16) | (static_cast<uint32_t>(mData[pos + 3]) << 24);
    }
    const char* at(size_t pos) const { return reinterpret_cast<const char*>(mData + pos); }
    // A length-prefixed field at *pos: stores its bytes (cut at the end of
    // the data) and moves *pos past it; false when the field was cut or its
    // length byte is missing.
    bool field(size_t* pos, std::string* out) const
    {
        if (!has(*pos, 1))
            return false;
        size_t len = mData[(*pos)++];
        size_t take = std::min(len, mSize - *pos);
        out->assign(at(*pos), take);
        *pos += take;
        return take == len;
    }

private:
    const unsigned char* mData;
    size_t mSize;
};

std::string versionText(unsigned major, unsigned minor)
{
    char buf[16];
    snprintf(buf, sizeof buf, "%i.%02i", static_cast<int>(major), static_cast<int>(minor));
    return buf;
}

// A fixed text field of up to len bytes, ending at its first zero byte.
std::string fixedText(const char* p, size_t len)
{
    size_t n = 0;
    while (n < len && p[n] != '\0')
        ++n;
    return std::string(p, n);
}

int32_t clampToInt32(double v)
{
    if (!(v == v))
        return 0;
    if (v >= 2147483647.0)
        return 2147483647;
    if (v <= -2147483648.0)
        return -2147483647 - 1;
    return static_cast<int32_t>(v);
}
} // namespace

UpsDataBlock::UpsDataBlock(Clock* clock)
    : mClock(clock), mOutletCount(0), mTopology(0), mStatusByte(0), mBatteryResult(0), mPortAlert(0),
      mCommAlert(0), mCommAlertTime(0), mOutletOn(0), mOutletOnPrev(0), mChanged(0)
{
    memset(mLimitWords, 0, sizeof mLimitWords);
    memset(mLimitBytes, 0, sizeof mLimitBytes);
    memset(mLimitsCode, 0, sizeof mLimitsCode);
    memset(mStatusValues, 0, sizeof mStatusValues);
    memset(mBatteryText1, 0, sizeof mBatteryText1);
    memset(mBatteryText2, 0, sizeof mBatteryText2);
    memset(mMeters, 0, sizeof mMeters);
    for (AlarmState& a : mAlarms) {
        a.mapLength = 0;
        memset(a.map, 0, sizeof a.map);
        memset(a.current, 0, sizeof a.current);
        memset(a.previous, 0, sizeof a.previous);
        memset(a.times, 0, sizeof a.times);
        a.lastCheck = 0;
        // A UPS that does not report the utility alarms counts as on utility.
        a.utilityA = 1;
        a.utilityB = 1;
        a.battery = 0;
    }
}

UpsDataBlock::~UpsDataBlock() {}

int32_t UpsDataBlock::nowSeconds() const
{
    Clock& c = mClock ? *mClock : Clock::system();
    return static_cast<int32_t>(c.now());
}

// ---------------------------------------------------------------- parsers

void UpsDataBlock::setStandardIDBlock(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    Bytes d(data);
    if (!d.has(0, 1))
        return;
    const size_t entries = d.u8(0);

    // The second firmware entry is the running version (major at byte 4,
    // minor at byte 3).
    std::string fw = "--.--";
    if (d.size() > 4 && entries > 1 && (d.u8(4) != 0 || d.u8(3) != 0)) {
        char buf[16];
        snprintf(buf, sizeof buf, "%X.%02X", d.u8(4), d.u8(3));
        fw = buf;
    }
    mConfig.firmware = fw;

    size_t pos = 2 * entries + 1;
    if (!d.has(pos, 1))
        return;
    uint32_t rating = d.u8(pos) * 1000u;
    ++pos;
    if (rating == 0) {
        // Whole kVA did not fit: the rating follows in units of 50 VA.
        if (!d.has(pos, 2))
            return;
        rating = d.u16(pos) * 50u;
        pos += 2;
    }
    mId.rating = static_cast<uint16_t>(rating);

    if (!d.has(pos, 1))
        return;
    mId.idByte1 = d.u8(pos++);
    if (!d.has(pos, 1))
        return;
    mId.idByte2 = d.u8(pos++);

    if (!d.field(&pos, &mId.unitName))
        return;
    if (!d.field(&pos, &mId.meterMap))
        return;

    // A new meter map makes the old values meaningless.
    memset(mMeters[0], 0, sizeof mMeters[0]);
    if (!d.has(pos, 1))
        return;
    bool whole = d.field(&pos, &mId.alarmMap);
    setAlarmNoLocked(reinterpret_cast<const unsigned char*>(mId.alarmMap.data()),
                     static_cast<int>(mId.alarmMap.size()), 0);
    if (!whole)
        return;

    if (!d.has(pos, 2))
        return;
    mId.configLength = d.u16(pos);
    pos += 2;
    if (!d.field(&pos, &mId.secondText))
        return;
    for (uint16_t& w : mId.idWords) {
        if (!d.has(pos, 2))
            return;
        w = d.u16(pos);
        pos += 2;
    }
    if (d.has(pos, 1))
        mId.idByte = d.u8(pos);
}

void UpsDataBlock::setConfigBlock(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    if (data.size() > mId.configLength)
        return;
    Bytes d(data);
    static const size_t kWordAt[7] = {0, 2, 4, 6, 8, 10, 14};
    for (int i = 0; i < 7; ++i)
        if (d.has(kWordAt[i], 2))
            mConfig.words[i] = d.u16(kWordAt[i]);
    if (d.has(16, 1))
        mConfig.flag = d.u8(16) & 1;
    if (d.has(36, 2))
        mConfig.version1 = versionText(d.u8(37), d.u8(36));
    if (d.has(42, 2))
        mConfig.version2 = versionText(d.u8(43), d.u8(42));
    if (d.has(48, 16))
        mConfig.configText = fixedText(d.at(48), 16);
    if (d.has(64, 16))
        mConfig.serial = fixedText(d.at(64), 16);
}

void UpsDataBlock::setExtendedLimitsBlock(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    Bytes d(data);
    if (d.has(0, 2))
        mLimitWords[0] = d.u16(0);
    if (d.has(2, 2))
        mLimitWords[1] = d.u16(2);
    if (d.has(4, 2))
        mLimitWords[2] = static_cast<uint16_t>(d.u16(4) * 50u);
    if (d.has(6, 2)) {
        mLimitsCode[0] = static_cast<char>(d.u8(6));
        mLimitsCode[1] = static_cast<char>(d.u8(7));
        mLimitsCode[2] = '\0';
    }
    static const size_t kWordAt[4] = {8, 10, 12, 14};
    for (int i = 0; i < 4; ++i)
        if (d.has(kWordAt[i], 2))
            mLimitWords[3 + i] = d.u16(kWordAt[i]);
    if (d.has(16, 1))
        mLimitWords[7] = d.u8(16);
    if (d.has(17, 1))
        mLimitWords[8] = d.u8(17);
    static const size_t kLaterAt[3] = {18, 20, 22};
    for (int i = 0; i < 3; ++i)
        if (d.has(kLaterAt[i], 2))
            mLimitWords[9 + i] = d.u16(kLaterAt[i]);
    if (d.has(24, 1))
        mLimitWords[12] = d.u8(24);
    for (int i = 0; i < 6; ++i)
        if (d.has(25 + static_cast<size_t>(i), 1))
            mLimitBytes[i] = d.u8(25 + static_cast<size_t>(i));
}

void UpsDataBlock::setUpsTopology(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    const uint8_t byFlag = mConfig.flag ? 2 : 3;
    Bytes d(data);
    if (d.size() < 3) {
        mTopology = byFlag;
        return;
    }
    uint16_t word = d.u16(0);
    if (word >= 0x10 && word <= 0x12)
        mTopology = 7;
    else if (word >= 0x20 && word <= 0x22)
        mTopology = 0;
    else
        mTopology = byFlag;
}

void UpsDataBlock::setOutlets(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    Bytes d(data);
    if (!d.has(0, 1) || d.u8(0) == 0)
        return;
    const int count = d.u8(0);
    mOutletCount = count;
    if (!mOutlets) {
        mOutlets.reset(new OutletRecord[kOutletCount]);
        memset(mOutlets.get(), 0, sizeof(OutletRecord) * kOutletCount);
    }
    memset(mOutlets.get(), 0, sizeof(OutletRecord) * static_cast<size_t>(std::min(count, kOutletCount)));
    bool anyOn = false;
    for (int i = 0; i < count; ++i) {
        size_t at = 2 + 6 * static_cast<size_t>(i);
        if (!d.has(at, 6))
            break;
        // Entry: outlet number and state (one byte each, kept as 16-bit),
        // then two 16-bit values.
        OutletRecord rec;
        rec.number = d.u8(at);
        rec.state = d.u8(at + 1);
        rec.value1 = d.u16(at + 2);
        rec.value2 = d.u16(at + 4);
        if (rec.state == 1 || rec.state == 3)
            anyOn = true;
        // An outlet number beyond the table has no record to go to.
        if (rec.number < kOutletCount)
            mOutlets[rec.number] = rec;
    }
    mOutletOn = anyOn ? 1 : 0;
}

void UpsDataBlock::setMeters(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    Bytes d(data);
    size_t pos = 0;
    const size_t meters = std::min(mId.meterMap.size(), static_cast<size_t>(kMeterCount));
    for (size_t m = 0; m < meters; ++m) {
        const uint8_t format = static_cast<uint8_t>(mId.meterMap[m]);
        if (format == 0)
            continue;
        if (!d.has(pos, 4))
            break;
        const uint32_t raw = d.u32(pos);
        const char* bytes = d.at(pos);
        pos += 4;
        if (format == 0xE0 || format == 0xE1)
            continue;
        int64_t value;
        if (format == 0xE2) {
            value = static_cast<int64_t>(static_cast<int32_t>(raw)) * 100;
        } else if (format >= 0xF0) {
            value = static_cast<int64_t>(static_cast<int32_t>(raw)) * 100;
            for (int i = 0; i < (format & 0x0F); ++i)
                value /= 10;
        } else {
            // Hundredths rounded to one decimal.
            double v = getFloat(bytes);
            mMeters[0][m] = clampToInt32(std::floor(v * 10.0 + 0.5) * 10.0);
            continue;
        }
        mMeters[0][m] = static_cast<int32_t>(static_cast<uint32_t>(value));
    }
}

void UpsDataBlock::setUpsStatus(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    Bytes d(data);
    if (d.has(0, 1))
        mStatusByte = d.u8(0);
    for (int i = 0; i < 3; ++i)
        if (d.has(1 + static_cast<size_t>(i), 1))
            mStatusValues[i] = d.u8(1 + static_cast<size_t>(i));
}

void UpsDataBlock::setBatteryData(const std::string& data)
{
    std::lock_guard<std::mutex> guard(mLock);
    Bytes d(data);
    if (d.has(0, 1))
        mBatteryResult = d.u8(0);
    if (!d.has(18, 1))
        return;
    // Each text keeps at most 16 characters, zero-terminated.
    size_t len1 = d.u8(18);
    size_t take1 = std::min(len1, d.size() - 19);
    size_t keep1 = std::min(take1, static_cast<size_t>(16));
    memset(mBatteryText1, 0, sizeof mBatteryText1);
    memcpy(mBatteryText1, d.at(19), keep1);
    size_t at2 = 19 + len1;
    if (!d.has(at2, 1))
        return;
    size_t len2 = d.u8(at2);
    size_t take2 = std::min(len2, d.size() - at2 - 1);
    size_t keep2 = std::min(take2, static_cast<size_t>(16));
    memset(mBatteryText2, 0, sizeof mBatteryText2);
    memcpy(mBatteryText2, d.at(at2 + 1), keep2);
}

double UpsDataBlock::getFloat(const char* bytes)
{
    const unsigned char* b = reinterpret_cast<const unsigned char*>(bytes);
    uint32_t raw = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                   (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24);
    const bool negative = (raw >> 31) != 0;
    const int exponent = static_cast<int>((raw >> 23) & 0xFF);
    const uint32_t fraction = raw & 0x7FFFFF;
    double value = std::ldexp(1.0 + fraction / 8388608.0, exponent - 127);
    return negative ? -value : value;
}

// ---------------------------------------------------------------- texts and alerts

std::string UpsDataBlock::getUnitName() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mId.unitName;
}

std::string UpsDataBlock::getSerielNo() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mConfig.serial;
}

std::string UpsDataBlock::getFirmware() const
{
    std::lock_guard<std::mutex> guard(mLock);
    char word[16];
    snprintf(word, sizeof word, "%u", static_cast<unsigned>(mConfig.words[0]));
    return mConfig.firmware + "(" + word + "-" + std::string(mLimitsCode) + ")";
}

void UpsDataBlock::setCommAlert(bool ok)
{
    std::lock_guard<std::mutex> guard(mLock);
    if (ok) {
        mCommAlert = 0;
        mCommAlertTime = 0;
    } else {
        mCommAlert = 1;
        mCommAlertTime = nowSeconds();
    }
}

void UpsDataBlock::setPortAlert(bool ok)
{
    std::lock_guard<std::mutex> guard(mLock);
    mPortAlert = ok ? 0 : 1;
}

bool UpsDataBlock::CheckSegStatus()
{
    std::lock_guard<std::mutex> guard(mLock);
    if (mOutletOn == mOutletOnPrev)
        return false;
    mOutletOnPrev = mOutletOn;
    return true;
}

// ---------------------------------------------------------------- read-only views

StandardIDBlock UpsDataBlock::standardId() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mId;
}

ConfigBlock UpsDataBlock::config() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mConfig;
}

std::string UpsDataBlock::meterMap() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mId.meterMap;
}

uint16_t UpsDataBlock::rating() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mId.rating;
}

int UpsDataBlock::outletCount() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mOutletCount;
}

bool UpsDataBlock::outlet(int number, OutletRecord* out) const
{
    std::lock_guard<std::mutex> guard(mLock);
    if (!mOutlets || number < 0 || number >= kOutletCount)
        return false;
    *out = mOutlets[number];
    return true;
}

int UpsDataBlock::outletOnFlag() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mOutletOn;
}

int UpsDataBlock::topologyCode() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mTopology;
}

int UpsDataBlock::statusByte() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mStatusByte;
}

int32_t UpsDataBlock::statusValue(int i) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return (i >= 0 && i < 3) ? mStatusValues[i] : 0;
}

int UpsDataBlock::batteryResult() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mBatteryResult;
}

std::string UpsDataBlock::batteryText1() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mBatteryText1;
}

std::string UpsDataBlock::batteryText2() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mBatteryText2;
}

std::string UpsDataBlock::limitsCode() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mLimitsCode;
}

uint16_t UpsDataBlock::limitWord(int i) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return (i >= 0 && i < 13) ? mLimitWords[i] : 0;
}

uint8_t UpsDataBlock::limitByte(int i) const
{
    std::lock_guard<std::mutex> guard(mLock);
    return (i >= 0 && i < 6) ? mLimitBytes[i] : 0;
}

int UpsDataBlock::portAlert() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mPortAlert;
}

int UpsDataBlock::commAlert() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mCommAlert;
}

int32_t UpsDataBlock::commAlertTime() const
{
    std::lock_guard<std::mutex> guard(mLock);
    return mCommAlertTime;
}
