#include "tools/upssim/UpsModel.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <sstream>

namespace upssim {


namespace {

const int kMeterInputVolts = 56;
const int kMeterOutputVolts = 78;
const int kMeterBatteryVolts = 33;
const int kMeterOutputWatts = 21;
const int kMeterOutputCurrent = 3;
const int kAlarmBatteryLow = 56;
const int kAlarmUtilityFail = 57;
const int kAlarmUtilityNotPresent = 59;
const double kLowBatteryVolts = 46.0;

std::string hexByte(unsigned v) {
    char buf[8];
    std::snprintf(buf, sizeof buf, "0x%02X", v & 0xFF);
    return buf;
}

}  // namespace

UpsModel::UpsModel(const SimOptions& options)
    : options_(options),
      speeds_(options.speeds),
      active_(options.activeAlarms),
      meters_{{kMeterOutputCurrent, 0xF2, 2.15},
              {10, 0xE0, 0.0},
              {kMeterOutputWatts, 0xF0, 450.0},
              {27, 0xF1, 50.0},
              {kMeterBatteryVolts, kFloatFormat, 54.2},
              {kMeterInputVolts, 0xF1, 230.0},
              {62, kFloatFormat, 25.0},
              {kMeterOutputVolts, 0xF1, 230.0}},
      outletOn_(static_cast<size_t>(options.outlets), true) {}

void UpsModel::putWord(Bytes* b, unsigned value) {
    b->push_back(static_cast<uint8_t>(value & 0xFF));
    b->push_back(static_cast<uint8_t>((value >> 8) & 0xFF));
}

void UpsModel::putText(Bytes* b, const std::string& text) {
    size_t n = text.size() > 255 ? 255 : text.size();
    b->push_back(static_cast<uint8_t>(n));
    b->insert(b->end(), text.begin(), text.begin() + static_cast<long>(n));
}

bool UpsModel::acceptsSpeed(int baud) const { return baud > 0 && speeds_.count(baud) > 0; }

bool UpsModel::utilityPresent() const {
    return !active_.count(kAlarmUtilityFail) && !active_.count(kAlarmUtilityNotPresent);
}

bool UpsModel::setAlarm(int alarm, bool active, std::string* error) {
    if (!options_.supportedAlarms.count(alarm)) {
        *error = "alarm " + std::to_string(alarm) +
                 " is not supported (supported: " + SimOptions::joinInts(options_.supportedAlarms) + ")";
        return false;
    }
    if (active) active_.insert(alarm);
    else active_.erase(alarm);
    return true;
}

bool UpsModel::setMeter(int number, double value, std::string* error) {
    for (Meter& m : meters_) {
        if (m.number == number) {
            m.value = value;
            return true;
        }
    }
    std::string present;
    for (const Meter& m : meters_) present += (present.empty() ? "" : ",") + std::to_string(m.number);
    *error = "meter " + std::to_string(number) + " is not present (present: " + present + ")";
    return false;
}

double UpsModel::meterValue(int number) const {
    double v = 0.0;
    for (const Meter& m : meters_)
        if (m.number == number) v = m.value;
    if (number == kMeterInputVolts && !utilityPresent()) return 0.0;
    if (number == kMeterBatteryVolts && active_.count(kAlarmBatteryLow) && v > kLowBatteryVolts)
        return kLowBatteryVolts;
    if (!outputOn_ && (number == kMeterOutputVolts || number == kMeterOutputWatts ||
                       number == kMeterOutputCurrent))
        return 0.0;
    return v;
}

bool UpsModel::outletOn(int segment) const {
    if (segment < 1 || segment > static_cast<int>(outletOn_.size())) return false;
    return outputOn_ && outletOn_[static_cast<size_t>(segment - 1)];
}

std::string UpsModel::stateText() const {
    std::ostringstream o;
    o << "output=" << (outputOn_ ? "on" : "off") << " outlets=";
    if (outletOn_.empty()) o << "none";
    for (size_t i = 0; i < outletOn_.size(); ++i)
        o << (i ? "," : "") << (outletOn(static_cast<int>(i + 1)) ? "on" : "off");
    if (!pendingOff_.empty()) {
        o << " pending-off=";
        bool first = true;
        for (const auto& p : pendingOff_) {
            o << (first ? "" : ",") << p.first;
            first = false;
        }
    }
    return o.str();
}

// ---- blocks ---------------------------------------------------------------

Bytes UpsModel::identificationBlock() const {
    Bytes b;
    // Two firmware entries (minor, major): a boot version and the main
    // version; the daemon shows the second.
    b.push_back(2);
    b.push_back(0x10);
    b.push_back(0x01);
    b.push_back(options_.firmwareMinor);
    b.push_back(options_.firmwareMajor);
    // Rating: whole kVA in one byte, else 0 and the rating in units of 50 VA.
    if (options_.ratingVa % 1000 == 0 && options_.ratingVa / 1000 <= 255) {
        b.push_back(static_cast<uint8_t>(options_.ratingVa / 1000));
    } else {
        b.push_back(0);
        putWord(&b, static_cast<unsigned>(options_.ratingVa / 50));
    }
    b.push_back(0x01);  // identification bytes: input and output phases
    b.push_back(0x01);
    putText(&b, options_.model);
    // Meter map: one format byte per meter number, 0 for an absent meter.
    Bytes map(kMeterMapLength, 0);
    for (const Meter& m : meters_) map[static_cast<size_t>(m.number)] = m.format;
    b.push_back(static_cast<uint8_t>(map.size()));
    b.insert(b.end(), map.begin(), map.end());
    // Alarm map: bit b of byte i for alarm i*8+b.
    int highest = options_.supportedAlarms.empty() ? 0 : *options_.supportedAlarms.rbegin();
    Bytes alarms(static_cast<size_t>(highest / 8 + 1), 0);
    for (int a : options_.supportedAlarms)
        alarms[static_cast<size_t>(a / 8)] = static_cast<uint8_t>(alarms[static_cast<size_t>(a / 8)] | (1u << (a % 8)));
    b.push_back(static_cast<uint8_t>(alarms.size()));
    b.insert(b.end(), alarms.begin(), alarms.end());
    putWord(&b, kConfigBlockLength);
    putText(&b, options_.secondText);
    putWord(&b, 0x0001);  // further identification words
    putWord(&b, 0x0000);
    putWord(&b, 0x0100);
    b.push_back(0x00);
    return b;
}

Bytes UpsModel::statusBlock() const {
    Bytes b;
    uint8_t status = 0x50;                      // on line, output on
    if (!utilityPresent()) status = 0xF0;       // on battery
    if (!outputOn_) status = 0x00;              // output off
    b.push_back(status);
    b.push_back(active_.count(kAlarmBatteryLow) ? 20 : 100);  // battery charge %
    b.push_back(outputOn_ ? 30 : 0);                          // load %
    b.push_back(0);
    return b;
}

Bytes UpsModel::metersBlock() const {
    Bytes b;
    for (const Meter& m : meters_) {  // kept in meter-number order
        double v = meterValue(m.number);
        uint32_t raw = 0;
        if (m.format >= 0xF0) {
            double scaled = v * std::pow(10.0, m.format & 0x0F);
            raw = static_cast<uint32_t>(static_cast<int32_t>(std::lround(scaled)));
        } else if (m.format == 0xE2) {
            raw = static_cast<uint32_t>(static_cast<int32_t>(std::lround(v)));
        } else if (m.format == 0xE0 || m.format == 0xE1) {
            raw = 0;
        } else {
            float f = static_cast<float>(v);
            std::memcpy(&raw, &f, sizeof raw);
        }
        for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>((raw >> (8 * i)) & 0xFF));
    }
    return b;
}

Bytes UpsModel::alarmBlock() const {
    Bytes b;
    for (int a : options_.supportedAlarms) b.push_back(active_.count(a) ? 1 : 0);
    return b;
}

Bytes UpsModel::configBlock() const {
    Bytes b(kConfigBlockLength, 0);
    auto word = [&b](size_t at, unsigned v) {
        b[at] = static_cast<uint8_t>(v & 0xFF);
        b[at + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
    };
    word(0, 230);                                  // nominal output volts
    word(2, 50);                                   // nominal frequency
    word(4, static_cast<unsigned>(options_.ratingVa / 50));
    word(6, 1);                                    // phases
    word(8, 230);                                  // nominal input volts
    word(10, 0);
    word(14, 30);                                  // low battery warning, s
    b[16] = 0x00;                                  // configuration flag
    b[36] = 2;   // version 1.02 (minor, major)
    b[37] = 1;
    b[42] = 10;  // version 3.10
    b[43] = 3;
    const char text[] = "SIMULATED UPS";
    std::memcpy(&b[48], text, sizeof text - 1);
    for (size_t i = 0; i < options_.serial.size() && i < 16; ++i)
        b[64 + i] = static_cast<uint8_t>(options_.serial[i]);
    return b;
}

Bytes UpsModel::batteryTestBlock() const {
    Bytes b(18, 0);
    b[0] = 1;  // result: passed
    putText(&b, "Test passed");
    putText(&b, active_.count(kAlarmBatteryLow) ? "Charge low" : "Charge 100%");
    return b;
}

Bytes UpsModel::extendedLimitsBlock() const {
    Bytes b;
    putWord(&b, 230);                                              // 0-1
    putWord(&b, 50);                                               // 2-3
    putWord(&b, static_cast<unsigned>(options_.ratingVa / 50));    // 4-5, times 50
    b.push_back(static_cast<uint8_t>(options_.limitsCode[0]));     // 6-7
    b.push_back(static_cast<uint8_t>(options_.limitsCode[1]));
    putWord(&b, 184);                                              // 8-9 low volts
    putWord(&b, 264);                                              // 10-11 high volts
    putWord(&b, 47);                                               // 12-13 low Hz
    putWord(&b, 53);                                               // 14-15 high Hz
    b.push_back(10);                                               // 16
    b.push_back(20);                                               // 17
    putWord(&b, 5);                                                // 18-19
    putWord(&b, 120);                                              // 20-21
    putWord(&b, 300);                                              // 22-23
    b.push_back(1);                                                // 24
    const uint8_t tail[] = {1, 0, 0, 0, 0, 0, 0};                  // 25-31
    b.insert(b.end(), tail, tail + sizeof tail);
    return b;
}

Bytes UpsModel::commandListBlock() const {
    Bytes b;
    int count = options_.commandCount >= 0 ? options_.commandCount
                                           : static_cast<int>(options_.commands.size());
    b.push_back(static_cast<uint8_t>(count));
    b.push_back(1);  // entry length
    b.insert(b.end(), options_.commands.begin(), options_.commands.end());
    return b;
}

Bytes UpsModel::outletBlock(long nowMs) const {
    Bytes b;
    b.push_back(static_cast<uint8_t>(outletOn_.size()));
    b.push_back(6);  // entry length
    for (size_t i = 0; i < outletOn_.size(); ++i) {
        int seg = static_cast<int>(i + 1);
        bool on = outletOn(seg);
        long dueMs = -1;
        auto p = pendingOff_.find(seg);
        if (p == pendingOff_.end()) p = pendingOff_.find(0);
        if (p != pendingOff_.end()) dueMs = p->second;
        uint8_t state = on ? (dueMs >= 0 ? 3 : 1) : 0;  // 3: on, power-off pending
        b.push_back(static_cast<uint8_t>(seg));
        b.push_back(state);
        long remain = dueMs >= 0 ? (dueMs - nowMs + 999) / 1000 : 0;
        if (remain < 0) remain = 0;
        if (remain > 0xFFFF) remain = 0xFFFF;
        putWord(&b, static_cast<unsigned>(remain));  // seconds to power-off
        putWord(&b, 0);
    }
    return b;
}

Bytes UpsModel::capabilitiesBlock() const {
    Bytes b;
    b.push_back(0);
    b.push_back(static_cast<uint8_t>(options_.capSpeeds.size()));
    for (int s : options_.capSpeeds) putWord(&b, static_cast<unsigned>(s));
    b.push_back(static_cast<uint8_t>(options_.maxCommandLength));
    return b;
}

Bytes UpsModel::topologyBlock() const {
    Bytes b;
    putWord(&b, static_cast<unsigned>(options_.topology));
    b.push_back(0x01);
    b.push_back(0x00);
    return b;
}

// ---- commands -------------------------------------------------------------

UpsModel::Reply UpsModel::actionReply(uint8_t code, uint8_t response) const {
    Reply r;
    r.send = true;
    r.block = 9;
    r.data = {response, code};
    return r;
}

void UpsModel::powerOff(int segment, std::vector<std::string>* notes) {
    if (segment == 0) {
        outputOn_ = false;
        notes->push_back("output switched off (whole UPS); restarts when utility is present");
    } else if (segment <= static_cast<int>(outletOn_.size())) {
        outletOn_[static_cast<size_t>(segment - 1)] = false;
        notes->push_back("outlet segment " + std::to_string(segment) +
                         " switched off; restarts when utility is present");
    }
    offByCommand_.insert(segment);
}

void UpsModel::powerOn(int segment) {
    if (segment == 0) {
        outputOn_ = true;
        for (size_t i = 0; i < outletOn_.size(); ++i) outletOn_[i] = true;
        pendingOff_.clear();
        offByCommand_.clear();
    } else if (segment <= static_cast<int>(outletOn_.size())) {
        outletOn_[static_cast<size_t>(segment - 1)] = true;
        pendingOff_.erase(segment);
        offByCommand_.erase(segment);
    }
}

void UpsModel::tick(long nowMs, std::vector<std::string>* notes) {
    for (auto it = pendingOff_.begin(); it != pendingOff_.end();) {
        if (it->second <= nowMs) {
            int seg = it->first;
            it = pendingOff_.erase(it);
            powerOff(seg, notes);
            offSinceMs_ = nowMs;
        } else {
            ++it;
        }
    }
    if (!offByCommand_.empty() && utilityPresent() && nowMs - offSinceMs_ >= kRestartAfterMs) {
        for (int seg : offByCommand_) {
            if (seg == 0) outputOn_ = true;
            else if (seg <= static_cast<int>(outletOn_.size())) outletOn_[static_cast<size_t>(seg - 1)] = true;
        }
        offByCommand_.clear();
        notes->push_back("utility present: output restarted");
    }
}

UpsModel::Reply UpsModel::handle(uint8_t code, const Bytes& args, long nowMs,
                                 std::vector<std::string>* notes) {
    Reply r;
    auto block = [&r](uint8_t number, const Bytes& data) {
        r.send = true;
        r.block = number;
        r.data = data;
    };
    switch (code) {
    case 0xA0:
    case 0x31: block(1, identificationBlock()); break;
    case 0x33: block(3, statusBlock()); break;
    case 0x34: block(4, metersBlock()); break;
    case 0x35: block(5, alarmBlock()); break;
    case 0x36: block(6, configBlock()); break;
    case 0x3B: block(0x0B, batteryTestBlock()); break;
    case 0x3C: block(0x0C, extendedLimitsBlock()); break;
    case 0x40: block(0x10, commandListBlock()); break;
    case 0x41: block(0x11, outletBlock(nowMs)); break;
    case 0x42: block(0x12, capabilitiesBlock()); break;
    case 0x43: block(0x13, topologyBlock()); break;
    case 0xCF:
        // Authorisation: never answered.
        if (args.size() != 3 || args[0] != kAccessCode[0] || args[1] != kAccessCode[1] ||
            args[2] != kAccessCode[2])
            notes->push_back("authorisation with a wrong access code: " + XcpFrameCodec::toHex(args));
        return r;
    case 0x8A: {
        unsigned delay = args.size() >= 2 ? args[0] | (args[1] << 8) : 0;
        int segment = args.size() >= 3 ? args[2] : 0;
        std::ostringstream n;
        n << "delayed power-off: delay " << delay << " s, segment " << segment
          << (segment == 0 ? " (whole UPS)" : "");
        if (args.size() < 2) n << " (delay missing, taken as 0)";
        if (segment > static_cast<int>(outletOn_.size())) n << " (no such segment)";
        notes->push_back(n.str());
        pendingOff_[segment] = nowMs + static_cast<long>(delay) * 1000;
        return actionReply(code, kAccepted);
    }
    case 0x89: {
        int segment = args.empty() ? 0 : args[0];
        notes->push_back("UPS on: segment " + std::to_string(segment) +
                         (segment == 0 ? " (whole UPS)" : ""));
        powerOn(segment);
        return actionReply(code, kAccepted);
    }
    case 0x93: {
        std::ostringstream n;
        n << "scheduled on/off: arguments " << (args.empty() ? "none" : XcpFrameCodec::toHex(args));
        if (args.size() >= 3) n << ", segment " << static_cast<int>(args[2]);
        notes->push_back(n.str());
        return actionReply(code, kAccepted);
    }
    case 0x97: {
        std::ostringstream n;
        n << "outlet parameter: ";
        if (args.size() >= 4)
            n << "parameter " << static_cast<int>(args[0]) << ", segment " << static_cast<int>(args[1])
              << ", value " << (args[2] | (args[3] << 8));
        else
            n << "arguments " << (args.empty() ? "none" : XcpFrameCodec::toHex(args));
        notes->push_back(n.str());
        return actionReply(code, kAccepted);
    }
    case 0x98: {
        if (args.size() < 4) {
            notes->push_back("communication parameter with short arguments: " + XcpFrameCodec::toHex(args));
            return actionReply(code, kNotImplemented);
        }
        int rate = args[2] | (args[3] << 8);
        if (SimOptions::isSerialSpeed(rate)) {
            speeds_.insert(rate);
            notes->push_back("communication parameter: line speed " + std::to_string(rate) +
                             " accepted from now on (answered at the old speed)");
        } else {
            notes->push_back("communication parameter: " + std::to_string(rate) +
                             " is not a line speed; ignored");
        }
        return actionReply(code, kAccepted);
    }
    default:
        notes->push_back("unknown command " + hexByte(code) + ": answered as not implemented");
        return actionReply(code, kNotImplemented);
    }
    return r;
}

}  // namespace upssim
