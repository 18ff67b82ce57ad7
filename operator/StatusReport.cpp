#include "operator/StatusReport.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/SystemPaths.h"
#include "ipc/IpcData.h"
#include "ipc/MemberFiles.h"
#include "operator/CreateMultiControllerFile.h"
#include "xcp/AlarmTable.h"
#include "xcp/UpsDataBlock.h"

namespace {

const char* const kAlarmNames[kAlarmTableRows] = {
    "Inverter AC over voltage", // 0
    "Inverter AC under voltage", // 1
    "Inverter over or under freq", // 2
    "Bypass AC over voltage", // 3
    "Bypass AC under voltage", // 4
    "Bypass over or under freq", // 5
    "Input AC over voltage", // 6
    "Input AC under voltage", // 7
    "Input under or over freq", // 8
    "Output over voltage", // 9
    "Output under voltage", // 10
    "Output under or over freq", // 11
    "Remote emergency pwr off", // 12
    "Remote go to bypass", // 13
    "Building alarm 6", // 14
    "Building alarm 5", // 15
    "Building alarm 4", // 16
    "Building alarm 3", // 17
    "Building alarm 2", // 18
    "Building alarm 1", // 19
    "Static switch over temp", // 20
    "Charger over temp", // 21
    "Charger logic pwr fail", // 22
    "Charger over voltage or current", // 23
    "Inverter over temp", // 24
    "Output overload", // 25
    "Rectifier input over current", // 26
    "Inverter output over current", // 27
    "DC link over voltage", // 28
    "DC link under voltage", // 29
    "Rectifier failed", // 30
    "Inverter fault", // 31
    "Battery connector fail", // 32
    "Bypass breaker fail", // 33
    "Charger fail", // 34
    "Ramp up failed", // 35
    "Static switch failed", // 36
    "Analog AD ref fail", // 37
    "Bypass uncalibrated", // 38
    "Rectifier uncalibrated", // 39
    "Output uncalibrated", // 40
    "Inverter uncalibrated", // 41
    "DC volt uncalibrated", // 42
    "Output current uncalibrated", // 43
    "Rectifier current uncalibrated", // 44
    "Battery current uncalibrated", // 45
    "Inverter on off stat fail", // 46
    "Battery current limit", // 47
    "Inverter startup fail", // 48
    "Analog board AD stat fail", // 49
    "Output current over 100", // 50
    "Battery ground fault", // 51
    "Waiting for charger sync", // 52
    "NV RAM fail", // 53
    "Analog board AD timeout", // 54
    "Shutdown imminent", // 55
    "Battery low", // 56
    "Utility fail", // 57
    "Output short circuit", // 58
    "Utility not present", // 59
    "Full time charging", // 60
    "Fast bypass command", // 61
    "AD error", // 62
    "Internal com fail", // 63
    "Rectifier selftest fail", // 64
    "Rectifier EEPROM fail", // 65
    "Rectifier EPROM fail", // 66
    "Input line voltage loss", // 67
    "Battery DC over voltage", // 68
    "Power supply over temp", // 69
    "Power supply fail", // 70
    "Power supply 5v fail", // 71
    "Power supply 12v fail", // 72
    "Heatsink over temp", // 73
    "Heatsink temp sensor fail", // 74
    "Rectifier current over 125", // 75
    "Rectifier fault interrupt fail", // 76
    "Rectifier power capacitor fail", // 77
    "Inverter program stack error", // 78
    "Inverter board selftest fail", // 79
    "Inverter AD selftest fail", // 80
    "Inverter RAM selftest fail", // 81
    "NV memory checksum fail", // 82
    "Program checksum fail", // 83
    "Inverter CPU selftest fail", // 84
    "Network not responding", // 85
    "Front panel selftest fail", // 86
    "Node EEPROM verification error", // 87
    "Output AC over volt test fail", // 88
    "Output DC over voltage", // 89
    "Input phase rotation error", // 90
    "Inverter ramp up test failed", // 91
    "Inverter off command", // 92
    "Inverter on command", // 93
    "To bypass command", // 94
    "From bypass command", // 95
    "Auto mode command", // 96
    "Emergency shutdown command", // 97
    "Setup switch open", // 98
    "Inverter over volt int", // 99
    "Inverter under volt int", // 100
    "Absolute DCOV ACOV", // 101
    "Phase a current limit", // 102
    "Phase b current limit", // 103
    "Phase c current limit", // 104
    "Bypass not available", // 105
    "Rectifier breaker open", // 106
    "Battery contactor open", // 107
    "Inverter contactor open", // 108
    "Bypass breaker open", // 109
    "INV board ACOV int test fail", // 110
    "Inverter over temp trip", // 111
    "INV board ACUV int test fail", // 112
    "Inverter voltage feedback error", // 113
    "DC under voltage timeout", // 114
    "AC under voltage timeout", // 115
    "DC under voltage while charge", // 116
    "Inverter voltage bias error", // 117
    "Rectifier phase rotation", // 118
    "Bypass phase rotation", // 119
    "System interface board fail", // 120
    "Parallel board fail", // 121
    "Lost load sharing phase a", // 122
    "Lost load sharing phase b", // 123
    "Lost load sharing phase c", // 124
    "DC over voltage timeout", // 125
    "Battery totally discharged", // 126
    "Inverter phase bias error", // 127
    "Inverter voltage bias error 2", // 128
    "DC link bleed complete", // 129
    "Large charger input current", // 130
    "INV volt too low for ramp level", // 131
    "Loss of redundancy", // 132
    "Loss of sync bus", // 133
    "Rectifier breaker shunt trip", // 134
    "Loss of charger sync", // 135
    "Inverter low level test timeout", // 136
    "Output breaker open", // 137
    "Control power on", // 138
    "Inverter on", // 139
    "Charger on", // 140
    "Bypass on", // 141
    "Bypass power loss", // 142
    "On manual bypass", // 143
    "Bypass manual turn off", // 144
    "Inverter bleeding DC link volt", // 145
    "CPU ISR error", // 146
    "System ISR restart", // 147
    "Parallel DC", // 148
    "Battery needs service", // 149
    "Battery charging", // 150
    "Battery not charged", // 151
    "Disabled battery time", // 152
    "Series 7000 enable", // 153
    "Other UPS on", // 154
    "Parallel inverter", // 155
    "UPS in parallel", // 156
    "Output breaker relay fail", // 157
    "Control power off", // 158
    "Level 2 overload phase a", // 159
    "Level 2 overload phase b", // 160
    "Level 2 overload phase c", // 161
    "Level 3 overload phase a", // 162
    "Level 3 overload phase b", // 163
    "Level 3 overload phase c", // 164
    "Level 4 overload phase a", // 165
    "Level 4 overload phase b", // 166
    "Level 4 overload phase c", // 167
    "UPS on battery", // 168
    "UPS on bypass", // 169
    "Load dumped", // 170
    "Load on inverter", // 171
    "UPS on command", // 172
    "UPS off command", // 173
    "Low battery shutdown", // 174
    "Auto on enabled", // 175
    "Software incompatibility detected", // 176
    "Inverter temp sensor failed", // 177
    "DC start occurred", // 178
    "In parallel operation", // 179
    "Syncing to bypass", // 180
    "Ramping UPS up", // 181
    "Inverter on delay", // 182
    "Charger on delay", // 183
    "Waiting for util input", // 184
    "Close bypass breaker", // 185
    "Temporary bypass operation", // 186
    "Syncing to output", // 187
    "Bypass failure", // 188
    "Auto off command executed", // 189
    "Auto on command executed", // 190
    "Battery test failed", // 191
    "Fuse fail", // 192
    "Fan fail", // 193
    "Site wiring fault", // 194
    "Backfeed contactor fail", // 195
    "On buck", // 196
    "On boost", // 197
    "On double boost", // 198
    "Batteries disconnected", // 199
    "UPS cabinet over temp", // 200
    "Transformer over temp", // 201
    "Ambient under temp", // 202
    "Ambient over temp", // 203
    "Cabinet door open", // 204
    "Cabinet door open volt present", // 205
    "Auto shutdown pending", // 206
    "Tap switching relay pending", // 207
    "Unable to charge batteries", // 208
    "Startup failure check EPO", // 209
    "Automatic startup pending", // 210
    "Modem failed", // 211
    "Incoming modem call started", // 212
    "Outgoing modem call started", // 213
    "Modem connection established", // 214
    "Modem call completed success", // 215
    "Modem call completed fail", // 216
    "Input breaker fail", // 217
    "System init in progress", // 218
    "Autocalibration fail", // 219
    "Selective trip of module", // 220
    "Inverter output failure", // 221
    "Abnormal output volt at startup", // 222
    "Rectifier over temp", // 223
    "Config error", // 224
    "Redundancy loss due to overload", // 225
    "On alternate AC source", // 226
    "In high efficiency mode", // 227
    "System notice active", // 228
    "System alarm active", // 229
};

// The meters the status shows when the UPS's meter map has them: XCP meter
// number and item key.
struct MeterItem {
    int meter;
    const char* key;
};
const MeterItem kMeters[] = {
    {35, "ups.battery_charge"},  // percent of battery capacity left
    {36, "ups.battery_runtime"}, // seconds of battery time left
    {33, "ups.battery_voltage"},
    {56, "ups.input_voltage"},
    {78, "ups.output_voltage"},
    {21, "ups.output_watts"},
};

const char* upsStateText(int state)
{
    switch (state) {
    case UpsNoContact: return "starting";
    case UpsNotDetected: return "not detected";
    case UpsCommunicating: return "communicating";
    case UpsCommError: return "communication error";
    }
    return "unknown";
}

void add(StatusReport::Items* out, const char* key, const std::string& value) { out->emplace_back(key, value); }

// A meter the UPS reports with a value: present in the meter map and not one
// of the formats whose value is not kept (0xE0, 0xE1).
bool meterReported(const std::string& map, int meter)
{
    if (meter < 0 || static_cast<size_t>(meter) >= map.size())
        return false;
    const unsigned char format = static_cast<unsigned char>(map[static_cast<size_t>(meter)]);
    return format != 0 && format != 0xE0 && format != 0xE1;
}

// "59 8 Utility not present": number, level and name of an alarm.
std::string alarmItem(int alarm)
{
    return std::to_string(alarm) + " " + std::to_string(ksStrctAlarm[alarm].level) + " " + StatusReport::alarmName(alarm);
}

void addAlarms(StatusReport::Items* out, const char* key, UpsDataBlock* ups, int index)
{
    if (!ups)
        return;
    for (int a = 0; a < kAlarmTableRows; ++a)
        if (ups->isAlarmActive(a, index))
            add(out, key, alarmItem(a));
}

// The countdown of slot k, when one runs: phase, time left and what runs at
// its end.
void addCountdown(StatusReport::Items* out, StCTrl* ctrl, int k, const ShutCNT& info, time_t now,
                  const std::string& shutdownCommand)
{
    StCTrl::PowerRecord p;
    StCTrl::Settings s;
    ctrl->slotSnapshot(k, &p, &s);
    if (p.phase == StCTrl::PhaseNormal)
        return;
    add(out, "countdown.controller", std::to_string(k + 1));
    if (p.phase == StCTrl::PhaseWink) {
        add(out, "countdown.phase", "wink");
        const long long left = static_cast<long long>(p.failureStart) + s.winkTime - static_cast<long long>(now);
        add(out, "countdown.seconds_left", std::to_string(left > 0 ? left : 0));
        add(out, "countdown.minutes", std::to_string(s.countdownTime));
    } else if (p.phase == StCTrl::PhaseCountdown) {
        add(out, "countdown.phase", "countdown");
        add(out, "countdown.minutes_left", std::to_string(p.remaining > 0 ? p.remaining : 0));
    } else {
        // The countdown is over: this slot either started the host shutdown
        // (its termination command runs, the host shutdown follows after the
        // application-end time) or waits for the other controllers.
        add(out, "countdown.phase", info.appStatus[k & 3] == 2 ? "shutdown" : "application end");
    }
    add(out, "countdown.app_end_seconds", std::to_string(s.appEndTime));
    if (!s.runCommand.empty())
        add(out, "countdown.app_command", s.runCommand);
    add(out, "countdown.shutdown_command", shutdownCommand);
}

std::string indexed(const char* key, int n) { return key + std::to_string(n); }

} // namespace

const char* StatusReport::alarmName(int alarm)
{
    return alarm >= 0 && alarm < kAlarmTableRows ? kAlarmNames[alarm] : "";
}

StatusReport::Items StatusReport::collect(const Sources& src)
{
    Items out;
    StCTrl* ctrl = src.ctrl;
    if (!ctrl)
        return out;
    UpsDataBlock* ups = src.ups ? *src.ups : nullptr;
    const time_t now = src.clock ? src.clock->now() : Clock::system().now();
    const std::string shutdownCommand =
        src.shutdownCommand.empty() ? SystemPaths::shutdownCommand() : src.shutdownCommand;
    ShutCNT info;
    ctrl->GetContInfo(&info);

    if (ctrl->isController()) {
        add(&out, "role", "controller");
        const int state = ctrl->GetStateUPS();
        add(&out, "ups.state", upsStateText(state));
        if (ups) {
            const std::string model = ups->getUnitName(), serial = ups->getSerielNo();
            if (!model.empty())
                add(&out, "ups.model", model);
            if (!serial.empty())
                add(&out, "ups.serial", serial);
            if (ups->rating())
                add(&out, "ups.rating_va", std::to_string(ups->rating()));
        }
        // Power is known only while the UPS answers.
        std::string power = "unknown";
        if (ups && state == UpsCommunicating)
            power = ups->isUtilityNotParent(0) ? "utility" : "battery";
        add(&out, "ups.power", power);
        if (ups && state == UpsCommunicating) {
            const std::string map = ups->meterMap();
            for (const MeterItem& m : kMeters)
                if (meterReported(map, m.meter))
                    add(&out, m.key, UpsDataBlock::getMeterVal(ups->meterValue(m.meter, 0)));
        }
        addAlarms(&out, "alarm", ups, 0);
        addCountdown(&out, ctrl, 0, info, now, shutdownCommand);
        IpcData* members = src.members ? *src.members : nullptr;
        for (int slot = 1; members && slot < IpcData::kSlots; ++slot) {
            DUP_MEMB_INFO m;
            members->GetMembInfo(slot, &m);
            // The members the operator's table lists, as it lists them.
            if (MemberFiles::statusLines(slot, m).empty())
                continue;
            add(&out, "member.slot", std::to_string(slot));
            add(&out, "member.name", MemberFiles::field(m.name, sizeof m.name));
            add(&out, "member.address", MemberFiles::field(m.address, sizeof m.address));
            add(&out, "member.port", std::to_string(m.port));
            add(&out, "member.state", MemberFiles::statusText(m.status));
        }
        return out;
    }

    add(&out, "role", "member");
    for (int k = 0; k < 4; ++k) {
        if (!info.active[k])
            continue;
        const int n = k + 1;
        // The states as the controller information table shows them.
        const int comm = info.commStatus[k] <= 3 ? info.commStatus[k] : 0;
        const bool heard = comm != 0;
        const int power = heard && info.pfStatus[k] <= 2 ? info.pfStatus[k] : 3;
        const int output = heard || info.outputKnown[k] ? (info.outputStatus[k] ? 0 : 1) : 2;
        const std::string address = ctrl->conf(indexed("CtrlIPAddress", n));
        const std::string host = ctrl->conf(indexed("HostName", n));
        add(&out, "controller.slot", std::to_string(n));
        add(&out, "controller.name", host.empty() ? address : host);
        add(&out, "controller.address", address);
        add(&out, "controller.comm", CreateMultiControllerFile::COMM_Status_Str[comm]);
        add(&out, "controller.power", CreateMultiControllerFile::Power_Staus_Str[power]);
        add(&out, "controller.output", CreateMultiControllerFile::Output_Staus_Str[output]);
        addAlarms(&out, "controller.alarm", ups, k);
    }
    for (int k = 0; k < 4; ++k)
        if (info.active[k])
            addCountdown(&out, ctrl, k, info, now, shutdownCommand);
    return out;
}

// ---------------------------------------------------------------- records

std::vector<CUIMSGINFO> StatusReport::toRecords(const Items& items)
{
    std::vector<CUIMSGINFO> out;
    for (const Item& item : items) {
        if (out.size() + 1 >= static_cast<size_t>(kMaxRecords))
            break;
        CUIMSGINFO rec;
        memset(&rec, 0, sizeof rec);
        rec.command = ConsoleRequest::CmdStatusItem;
        memcpy(rec.key, item.first.data(), std::min(item.first.size(), sizeof rec.key - 1));
        memcpy(rec.value, item.second.data(), std::min(item.second.size(), sizeof rec.value - 1));
        out.push_back(rec);
    }
    CUIMSGINFO end;
    memset(&end, 0, sizeof end);
    end.command = ConsoleRequest::CmdAnswer;
    out.push_back(end);
    return out;
}

bool StatusReport::fromRecord(const CUIMSGINFO& rec, Item* item, bool* done)
{
    *done = false;
    if (rec.command == ConsoleRequest::CmdAnswer) {
        *done = true;
        return true;
    }
    if (rec.command != ConsoleRequest::CmdStatusItem)
        return false;
    const void* keyEnd = memchr(rec.key, 0, sizeof rec.key);
    const void* valueEnd = memchr(rec.value, 0, sizeof rec.value);
    if (!keyEnd || !valueEnd || keyEnd == rec.key)
        return false;
    item->first.assign(rec.key, static_cast<const char*>(keyEnd));
    item->second.assign(rec.value, static_cast<const char*>(valueEnd));
    for (char c : item->first)
        if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_' || c == '.'))
            return false;
    return true;
}

// ---------------------------------------------------------------- rendering

namespace {

using Fields = std::map<std::string, std::string>;

struct Alarm {
    int number = -1;
    int level = 0;
    std::string name;
    // Level 1 alarms report what the UPS is doing ("Battery charging",
    // "Inverter on"), not a fault: shown, but not a reason for attention.
    bool notice() const { return level == 1; }
};

struct Group {
    Fields fields;
    std::vector<Alarm> alarms;
    std::string get(const char* key) const
    {
        auto it = fields.find(key);
        return it == fields.end() ? std::string() : it->second;
    }
    bool has(const char* key) const { return fields.count(key) != 0; }
};

struct Model {
    std::string role;
    Group ups;
    std::vector<Group> countdowns, members, controllers;
};

Alarm parseAlarm(const std::string& value)
{
    Alarm a;
    int number = -1, level = 0, used = 0;
    if (sscanf(value.c_str(), "%d %d %n", &number, &level, &used) >= 2 && used > 0 && number >= 0
        && number < kAlarmTableRows) {
        a.number = number;
        a.level = level;
        a.name = value.substr(static_cast<size_t>(used));
    } else {
        a.name = value; // not understood: shown as it came, and counted
    }
    return a;
}

// Groups the items: "countdown.controller", "member.slot" and
// "controller.slot" each open a group that the following keys of the same
// prefix fill. Keys not known here are passed over.
Model parse(const StatusReport::Items& items)
{
    Model m;
    for (const auto& kv : items) {
        const std::string& key = kv.first;
        const std::string& value = kv.second;
        if (key == "role") {
            m.role = value;
        } else if (key == "alarm") {
            m.ups.alarms.push_back(parseAlarm(value));
        } else if (key.compare(0, 4, "ups.") == 0) {
            m.ups.fields[key.substr(4)] = value;
        } else if (key == "countdown.controller" || key == "member.slot" || key == "controller.slot") {
            std::vector<Group>& list = key == "member.slot" ? m.members
                                       : key == "controller.slot" ? m.controllers
                                                                  : m.countdowns;
            list.emplace_back();
            list.back().fields["slot"] = value;
        } else if (key == "controller.alarm") {
            if (!m.controllers.empty())
                m.controllers.back().alarms.push_back(parseAlarm(value));
        } else {
            const size_t dot = key.find('.');
            const std::string prefix = key.substr(0, dot == std::string::npos ? 0 : dot);
            std::vector<Group>* list = prefix == "countdown" ? &m.countdowns
                                       : prefix == "member"  ? &m.members
                                       : prefix == "controller" ? &m.controllers
                                                                : nullptr;
            if (list && !list->empty())
                list->back().fields[key.substr(dot + 1)] = value;
        }
    }
    return m;
}

bool anyFault(const std::vector<Alarm>& alarms)
{
    for (const Alarm& a : alarms)
        if (!a.notice())
            return true;
    return false;
}

// Why the status needs attention ("" when it does not).
std::string attention(const Model& m)
{
    std::vector<std::string> why;
    if (m.role == "controller") {
        const std::string state = m.ups.get("state");
        if (state != "communicating")
            why.push_back("UPS " + (state.empty() ? std::string("state unknown") : state));
        else if (m.ups.get("power") != "utility")
            why.push_back(m.ups.get("power") == "battery" ? "on battery" : "power unknown");
        if (anyFault(m.ups.alarms))
            why.push_back("alarm");
    } else if (m.role == "member") {
        if (m.controllers.empty())
            why.push_back("no controller followed");
        for (const Group& c : m.controllers) {
            const std::string n = "controller " + c.get("slot");
            if (c.get("comm") != "Active")
                why.push_back(n + " " + c.get("comm"));
            else if (c.get("power") != "OK")
                why.push_back(n + " power " + c.get("power"));
            if (anyFault(c.alarms))
                why.push_back(n + " alarm");
        }
    } else {
        why.push_back("unknown role");
    }
    if (!m.countdowns.empty())
        why.push_back("countdown running");
    std::string text;
    for (const std::string& w : why)
        text += (text.empty() ? "" : ", ") + w;
    return text;
}

std::string alarmsText(const std::vector<Alarm>& alarms)
{
    if (alarms.empty())
        return "none";
    std::string text;
    for (const Alarm& a : alarms) {
        text += text.empty() ? "" : "; ";
        if (a.number >= 0)
            text += std::to_string(a.number) + " ";
        text += a.name;
        if (a.notice())
            text += " (notice)";
    }
    return text;
}

std::string quoted(const std::string& s) { return "\"" + s + "\""; }

std::string countdownText(const Group& c)
{
    const std::string phase = c.get("phase");
    std::string text = "controller " + c.get("slot") + ": " + phase;
    if (c.has("seconds_left"))
        text += ", " + c.get("seconds_left") + " s left";
    if (c.has("minutes_left"))
        text += ", " + c.get("minutes_left") + " min left";
    const std::string app = c.has("app_command") ? "AppTermCommand " + quoted(c.get("app_command")) : "";
    const std::string host = quoted(c.get("shutdown_command"));
    const std::string delay = c.get("app_end_seconds") + " s";
    if (phase == "shutdown")
        return text + "; " + (app.empty() ? "" : app + " started, ") + host + " runs " + delay + " after the countdown";
    if (phase == "application end")
        return text + "; waiting for the other controllers";
    text += "; then ";
    if (phase == "wink")
        text += "a " + c.get("minutes") + " min countdown, ";
    return text + (app.empty() ? "" : app + " and ") + host + " " + delay + " later";
}

std::string jsonString(const std::string& s) { return "\"" + StatusReport::jsonEscape(s) + "\""; }

// A field as a JSON string, or null when missing.
std::string jsonText(const Group& g, const char* key) { return g.has(key) ? jsonString(g.get(key)) : "null"; }

// A field as a JSON number when it is a plain decimal number, else null.
std::string jsonNumber(const Group& g, const char* key)
{
    const std::string v = g.get(key);
    if (v.empty() || v.size() > 24)
        return "null";
    size_t i = v[0] == '-' ? 1 : 0;
    size_t digits = 0, dots = 0;
    for (; i < v.size(); ++i) {
        if (v[i] >= '0' && v[i] <= '9')
            ++digits;
        else if (v[i] == '.' && digits > 0 && dots == 0)
            ++dots;
        else
            return "null";
    }
    if (digits == 0 || v.back() == '.')
        return "null";
    // No leading zeros JSON would reject ("007").
    const size_t first = v[0] == '-' ? 1 : 0;
    if (v.size() > first + 1 && v[first] == '0' && v[first + 1] != '.')
        return "null";
    return v;
}

std::string jsonAlarms(const std::vector<Alarm>& alarms)
{
    std::string out = "[";
    for (const Alarm& a : alarms) {
        out += out.size() > 1 ? ", " : "";
        out += "{\"number\": " + (a.number >= 0 ? std::to_string(a.number) : std::string("null"))
               + ", \"level\": " + std::to_string(a.level) + ", \"name\": " + jsonString(a.name)
               + ", \"notice\": " + (a.notice() ? "true" : "false") + "}";
    }
    return out + "]";
}

template <typename F>
std::string jsonList(const std::vector<Group>& list, F object)
{
    std::string out = "[";
    for (const Group& g : list)
        out += (out.size() > 1 ? ", " : "") + object(g);
    return out + "]";
}

} // namespace

std::string StatusReport::printable(const std::string& s)
{
    std::string out = s;
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || static_cast<unsigned char>(c) > 0x7E)
            c = '?';
    return out;
}

std::string StatusReport::jsonEscape(const std::string& s)
{
    std::string out;
    for (char ch : s) {
        const unsigned char c = static_cast<unsigned char>(ch);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += ch;
        } else if (c < 0x20 || c == 0x7F) {
            char buf[8];
            snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else if (c > 0x7F) {
            out += '?';
        } else {
            out += ch;
        }
    }
    return out;
}

int StatusReport::exitCode(const Items& items)
{
    const Model m = parse(items);
    if (m.role != "controller" && m.role != "member")
        return ExitUnreachable;
    return attention(m).empty() ? ExitOk : ExitAttention;
}

std::string StatusReport::text(const Items& items)
{
    const Model m = parse(items);
    std::string out = "Role: " + m.role + "\n";
    if (m.role == "controller") {
        const Group& u = m.ups;
        std::string ups = u.has("model") ? u.get("model") : "model unknown";
        std::string extra;
        if (u.has("serial"))
            extra += "serial " + u.get("serial");
        if (u.has("rating_va"))
            extra += (extra.empty() ? "" : ", ") + u.get("rating_va") + " VA";
        if (!extra.empty())
            ups += " (" + extra + ")";
        out += "UPS: " + ups + ", " + u.get("state") + "\n";
        const std::string power = u.get("power");
        out += "Power: " + (power == "utility" ? std::string("on utility")
                            : power == "battery" ? std::string("on battery")
                                                 : std::string("unknown")) + "\n";
        std::string battery;
        if (u.has("battery_charge"))
            battery += "charge " + u.get("battery_charge") + " %";
        if (u.has("battery_runtime")) {
            const long seconds = strtol(u.get("battery_runtime").c_str(), nullptr, 10);
            battery += (battery.empty() ? "" : ", ") + std::string("runtime ") + std::to_string(seconds / 60) + " min";
        }
        if (u.has("battery_voltage"))
            battery += (battery.empty() ? "" : ", ") + u.get("battery_voltage") + " V";
        if (!battery.empty())
            out += "Battery: " + battery + "\n";
        std::string meters;
        if (u.has("input_voltage"))
            meters += "input " + u.get("input_voltage") + " V";
        if (u.has("output_voltage"))
            meters += (meters.empty() ? "" : ", ") + std::string("output ") + u.get("output_voltage") + " V";
        if (u.has("output_watts"))
            meters += (meters.empty() ? "" : ", ") + std::string("load ") + u.get("output_watts") + " W";
        if (!meters.empty())
            out += "Meters: " + meters + "\n";
        out += "Alarms: " + alarmsText(u.alarms) + "\n";
    } else if (m.role == "member") {
        out += "Controllers: " + std::to_string(m.controllers.size()) + " followed\n";
        for (const Group& c : m.controllers) {
            std::string name = c.get("name");
            if (c.get("address") != name && !c.get("address").empty())
                name += " (" + c.get("address") + ")";
            out += "  " + c.get("slot") + " " + name + ": " + c.get("comm") + ", power " + c.get("power") + ", output "
                   + c.get("output") + ", alarms: " + alarmsText(c.alarms) + "\n";
        }
    }
    if (m.countdowns.empty())
        out += "Countdown: none\n";
    for (const Group& c : m.countdowns)
        out += "Countdown: " + countdownText(c) + "\n";
    if (m.role == "controller") {
        int active = 0;
        for (const Group& g : m.members)
            active += g.get("state") == "Active";
        out += "Members: " + std::to_string(m.members.size()) + " registered, " + std::to_string(active) + " Active\n";
        for (const Group& g : m.members)
            out += "  " + g.get("slot") + " " + g.get("name") + " " + g.get("address") + " port " + g.get("port") + ": "
                   + g.get("state") + "\n";
    }
    const std::string why = attention(m);
    out += "Status: " + (why.empty() ? std::string("OK") : "needs attention (" + why + ")") + "\n";
    // Whatever came from the daemon is shown in printable characters only.
    std::string clean;
    size_t start = 0;
    for (size_t nl; (nl = out.find('\n', start)) != std::string::npos; start = nl + 1)
        clean += printable(out.substr(start, nl - start)) + "\n";
    return clean;
}

std::string StatusReport::json(const Items& items)
{
    const Model m = parse(items);
    std::string out = "{\"role\": " + jsonString(m.role) + ", \"ok\": " + (attention(m).empty() ? "true" : "false");
    if (m.role == "controller") {
        const Group& u = m.ups;
        out += ", \"ups\": {\"state\": " + jsonText(u, "state") + ", \"model\": " + jsonText(u, "model")
               + ", \"serial\": " + jsonText(u, "serial") + ", \"rating_va\": " + jsonNumber(u, "rating_va")
               + ", \"power\": " + jsonText(u, "power") + ", \"battery_charge\": " + jsonNumber(u, "battery_charge")
               + ", \"battery_runtime\": " + jsonNumber(u, "battery_runtime")
               + ", \"battery_voltage\": " + jsonNumber(u, "battery_voltage")
               + ", \"input_voltage\": " + jsonNumber(u, "input_voltage")
               + ", \"output_voltage\": " + jsonNumber(u, "output_voltage")
               + ", \"output_watts\": " + jsonNumber(u, "output_watts") + "}";
    } else {
        out += ", \"ups\": null";
    }
    out += ", \"alarms\": " + jsonAlarms(m.ups.alarms);
    out += ", \"countdowns\": " + jsonList(m.countdowns, [](const Group& c) {
               return "{\"controller\": " + jsonNumber(c, "slot") + ", \"phase\": " + jsonText(c, "phase")
                      + ", \"seconds_left\": " + jsonNumber(c, "seconds_left")
                      + ", \"minutes_left\": " + jsonNumber(c, "minutes_left")
                      + ", \"app_end_seconds\": " + jsonNumber(c, "app_end_seconds")
                      + ", \"app_command\": " + jsonText(c, "app_command")
                      + ", \"shutdown_command\": " + jsonText(c, "shutdown_command") + "}";
           });
    out += ", \"members\": " + jsonList(m.members, [](const Group& g) {
               return "{\"slot\": " + jsonNumber(g, "slot") + ", \"name\": " + jsonText(g, "name")
                      + ", \"address\": " + jsonText(g, "address") + ", \"port\": " + jsonNumber(g, "port")
                      + ", \"state\": " + jsonText(g, "state") + "}";
           });
    out += ", \"controllers\": " + jsonList(m.controllers, [](const Group& c) {
               return "{\"slot\": " + jsonNumber(c, "slot") + ", \"name\": " + jsonText(c, "name")
                      + ", \"address\": " + jsonText(c, "address") + ", \"comm\": " + jsonText(c, "comm")
                      + ", \"power\": " + jsonText(c, "power") + ", \"output\": " + jsonText(c, "output")
                      + ", \"alarms\": " + jsonAlarms(c.alarms) + "}";
           });
    return out + "}\n";
}
