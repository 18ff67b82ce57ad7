// UpsDataBlock: everything known about the UPS (global gUpsData): identity,
// configuration, limits, topology, outlets, meters, status, battery test,
// alarms and the link's alert flags. The UPS interface thread fills it from
// the XCP blocks; the controller, the logs, the console and the network side
// read it. Alarm states are kept per UPS index 0..3 (0 is this controller's
// own UPS, the member side keeps one index per followed controller).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "xcp/ConfigBlock.h"
#include "xcp/StandardIDBlock.h"

class Clock;

class UpsDataBlock {
public:
    static constexpr int kUpsCount = 4;
    static constexpr int kAlarmBytes = 256;  // map bytes, state bytes and times per UPS index
    static constexpr int kMeterCount = 256;  // meter numbers 0..255
    static constexpr int kOutletCount = 64;

    // One outlet (segment) as the outlet monitoring block reports it.
    struct OutletRecord {
        uint16_t number;
        uint16_t state;
        uint32_t value1;
        uint32_t value2;
    };

    // clock: where alert and activation times come from (null: the system clock).
    explicit UpsDataBlock(Clock* clock = nullptr);
    virtual ~UpsDataBlock();

    UpsDataBlock(const UpsDataBlock&) = delete;
    UpsDataBlock& operator=(const UpsDataBlock&) = delete;

    // ---- block parsers: each takes the reply data of its block request ----
    void setStandardIDBlock(const std::string& data);
    void setConfigBlock(const std::string& data);
    void setExtendedLimitsBlock(const std::string& data);
    void setUpsTopology(const std::string& data);
    void setOutlets(const std::string& data);
    void setMeters(const std::string& data);
    void setUpsStatus(const std::string& data);
    void setBatteryData(const std::string& data);

    // Decodes a single-precision meter value (4 bytes, low byte first).
    static double getFloat(const char* bytes);

    std::string getUnitName() const;
    std::string getSerielNo() const;
    // Firmware text, configuration word 0 and limits code: "2.15(230-KS)".
    std::string getFirmware() const;

    // ok true clears the alert (and the communication alert time); false
    // raises it (recording the time for the communication alert).
    void setCommAlert(bool ok);
    void setPortAlert(bool ok);

    // True when neither alarm 59 nor alarm 57 of the UPS index is active.
    bool isUtilityNotParent(int ups) const;
    // True once each time the outlet-on flag changed since the last call.
    bool CheckSegStatus();

    // ---- alarms ----
    void setAlarmNo(const unsigned char* map, int length, int ups);
    void setActionLevel(const unsigned char* states, int length, int ups);
    void checkAlarm(int ups);
    // The activation time of an alarm of UPS index 0; null when the alarm
    // is not supported.
    int32_t* getAlertTime(int alarm);
    // The reference time of the power alarms 56, 57 and 59.
    int32_t getAlertDiffTime(int ups) const;
    // True when the alarm is supported and currently active for the UPS index.
    bool isAlarmActive(int alarm, int ups) const;
    // Changes found by the last checkAlarm: alarm number -> mark (-1
    // unchanged, 0 cleared, else became active).
    std::map<int, int> alarmChanges(int ups) const;
    // The notification items of the changes of the last checkAlarm, in
    // ascending alarm number (set code or clear code of ksStrctAlarm).
    int changedAlarmCodes(int ups, int32_t* out, int max) const;
    bool alarmsChanged() const;
    int alarmMapLength(int ups) const;
    std::string alarmMap(int ups) const;
    // The current state bytes (one per supported alarm, ascending).
    std::string alarmStates(int ups) const;
    int32_t lastCheckTime(int ups) const;
    int utilityFlagA(int ups) const;
    int utilityFlagB(int ups) const;
    int batteryFlag(int ups) const;

    // ---- meters ----
    static std::string getMeterVal(long value);
    std::string getMeterMessage() const;
    // Meter value in hundredths (0 for an unknown meter number).
    int32_t meterValue(int meter, int ups = 0) const;
    // Stores meter values of a UPS index (the member side copies its
    // controller's values here).
    void setMeterValues(const int32_t* values, int count, int ups);

    // ---- read-only views ----
    StandardIDBlock standardId() const;
    ConfigBlock config() const;
    std::string meterMap() const;
    uint16_t rating() const;
    int outletCount() const;
    // Copy of the outlet record; false when there is no outlet table yet or
    // the number is out of range.
    bool outlet(int number, OutletRecord* out) const;
    int outletOnFlag() const;
    int topologyCode() const;
    int statusByte() const;
    int32_t statusValue(int i) const;
    int batteryResult() const;
    std::string batteryText1() const;
    std::string batteryText2() const;
    std::string limitsCode() const;
    // Extended limits: 16-bit values in block order (13 of them) and the
    // trailing single bytes 25..30 (6 of them).
    uint16_t limitWord(int i) const;
    uint8_t limitByte(int i) const;
    int portAlert() const;
    int commAlert() const;
    int32_t commAlertTime() const;

private:
    struct AlarmState {
        uint8_t mapLength;
        unsigned char map[kAlarmBytes];
        unsigned char current[kAlarmBytes];
        unsigned char previous[kAlarmBytes];
        int32_t times[kAlarmBytes];
        int32_t lastCheck;
        std::map<int, int> changes;
        uint8_t utilityA;  // alarm 59 not active
        uint8_t utilityB;  // alarm 57 not active
        uint8_t battery;   // alarm 56 not active
    };

    int32_t nowSeconds() const;
    // Index of an alarm among the supported alarms of a UPS index, or -1.
    int supportedIndex(const AlarmState& a, int alarm) const;
    void setAlarmNoLocked(const unsigned char* map, int length, int ups);

    mutable std::mutex mLock;
    Clock* mClock;

    StandardIDBlock mId;
    ConfigBlock mConfig;
    uint16_t mLimitWords[13];
    uint8_t mLimitBytes[6];
    char mLimitsCode[3];
    int32_t mOutletCount;
    std::unique_ptr<OutletRecord[]> mOutlets;
    uint8_t mTopology;
    uint8_t mStatusByte;
    int32_t mStatusValues[3];
    uint16_t mBatteryResult;
    char mBatteryText1[17];
    char mBatteryText2[17];
    int32_t mMeters[kUpsCount][kMeterCount];
    uint8_t mPortAlert;
    uint8_t mCommAlert;
    int32_t mCommAlertTime;
    uint8_t mOutletOn;
    uint8_t mOutletOnPrev;
    AlarmState mAlarms[kUpsCount];
    uint8_t mChanged;
};
