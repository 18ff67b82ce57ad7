// UpsModel: the simulated UPS itself, without any I/O. It holds the
// identity, the line speeds it answers at, the alarms, meters and outlet
// segments, builds every XCP data block the daemon reads, and carries out
// the action commands (delayed power-off with restart, load on, outlet
// and scheduling parameters, communication speed).
#ifndef KESTRAVA_TOOLS_UPSSIM_UPSMODEL_H
#define KESTRAVA_TOOLS_UPSSIM_UPSMODEL_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/upssim/SimOptions.h"
#include "tools/upssim/XcpFrameCodec.h"

namespace upssim {

class UpsModel {
public:
    struct Reply {
        bool send = false;  // false: the command gets no answer
        uint8_t block = 0;
        Bytes data;
    };
    struct Meter {
        int number;
        uint8_t format;  // 0xF0-0xFF integer with decimals, 0xE0 unused, other: float
        double value;
    };

    // Meter map covers meter numbers 0..kMeterMapLength-1.
    static constexpr int kMeterMapLength = 80;
    static constexpr int kConfigBlockLength = 96;
    static constexpr uint8_t kFloatFormat = 0x01;
    static constexpr uint8_t kAccessCode[3] = {0x69, 0xE8, 0xD5};
    // Response codes in byte 0 of block 9.
    static constexpr uint8_t kAccepted = 0x31;
    static constexpr uint8_t kNotImplemented = 0x32;
    // A power-off restarts the output once utility is present and the
    // output has been off at least this long.
    static constexpr long kRestartAfterMs = 5000;

    explicit UpsModel(const SimOptions& options);

    // Carries out one host command; notes gets texts worth logging.
    Reply handle(uint8_t code, const Bytes& args, long nowMs, std::vector<std::string>* notes);
    // Runs due delayed power-offs and restarts.
    void tick(long nowMs, std::vector<std::string>* notes);

    bool acceptsSpeed(int baud) const;
    const std::set<int>& speeds() const { return speeds_; }
    void setSpeeds(const std::set<int>& speeds) { speeds_ = speeds; }

    bool setAlarm(int alarm, bool active, std::string* error);
    const std::set<int>& activeAlarms() const { return active_; }
    const std::set<int>& supportedAlarms() const { return options_.supportedAlarms; }
    bool utilityPresent() const;

    bool setMeter(int number, double value, std::string* error);
    // The value the meters block reports now (follows utility and battery).
    double meterValue(int number) const;
    const std::vector<Meter>& meters() const { return meters_; }

    bool outputOn() const { return outputOn_; }
    bool outletOn(int segment) const;
    std::string stateText() const;  // "output=on outlets=on,off"

    Bytes identificationBlock() const;   // block 1
    Bytes statusBlock() const;           // block 3
    Bytes metersBlock() const;           // block 4
    Bytes alarmBlock() const;            // block 5
    Bytes configBlock() const;           // block 6
    Bytes batteryTestBlock() const;      // block 0x0B
    Bytes extendedLimitsBlock() const;   // block 0x0C
    Bytes commandListBlock() const;      // block 0x10
    Bytes outletBlock(long nowMs) const; // block 0x11
    Bytes capabilitiesBlock() const;     // block 0x12
    Bytes topologyBlock() const;         // block 0x13

private:
    Reply actionReply(uint8_t code, uint8_t response) const;
    void powerOff(int segment, std::vector<std::string>* notes);
    void powerOn(int segment);
    static void putWord(Bytes* b, unsigned value);
    static void putText(Bytes* b, const std::string& text);

    SimOptions options_;
    std::set<int> speeds_;
    std::set<int> active_;
    std::vector<Meter> meters_;
    bool outputOn_ = true;
    std::vector<bool> outletOn_;           // index = segment - 1
    std::map<int, long> pendingOff_;       // segment (0 = whole UPS) -> due time
    std::set<int> offByCommand_;           // segments switched off by a delayed power-off
    long offSinceMs_ = 0;
};

}  // namespace upssim

#endif
