#include "ipc/DG2Bodies.h"

#include <algorithm>
#include <cstdio>

#include "xcp/UpsDataBlock.h"

namespace {

constexpr int kMaxTextNumber = 99999999;  // eight digits fill an 8-byte field
constexpr int kMaxWord = 0xFFFF;
constexpr int kAlarmBatteryLow = 56;
static_assert(UpsDataBlock::kMeterCount == 256, "one report value per meter number");

bool isControl(unsigned char c)
{
    return c < 0x20 || c == 0x7F;
}

bool textOk(const std::string& s)
{
    for (unsigned char c : s)
        if (isControl(c))
            return false;
    return true;
}

// Writes a number as decimal text; false when it does not fit the field.
bool putNumber(char* field, size_t size, int value, int max)
{
    if (value < 0 || value > max)
        return false;
    char text[16];
    int n = snprintf(text, sizeof text, "%d", value);
    if (n < 0 || static_cast<size_t>(n) > size)
        return false;
    DG2SetField(field, size, text);
    return true;
}

bool putWord(uint16_t* field, int value)
{
    if (value < 0 || value > kMaxWord)
        return false;
    *field = static_cast<uint16_t>(value);
    return true;
}

// A command must fit whole with its NUL: cutting a command changes what runs.
bool putCommand(char* field, size_t size, const char* text)
{
    if (strnlen(text, size) >= size || !DG2FieldTextOk(text, size))
        return false;
    DG2SetField(field, size, text);
    return true;
}

bool readCommand(const char* field, size_t size, std::string* out)
{
    if (strnlen(field, size) >= size || !DG2FieldTextOk(field, size))
        return false;
    *out = DG2FieldText(field, size);
    return true;
}

bool readText(const char* field, size_t size, std::string* out)
{
    if (!DG2FieldTextOk(field, size))
        return false;
    *out = DG2FieldText(field, size);
    return true;
}

bool bodyIs(const DG2MessageType& msg, int msgNo, int size)
{
    return msg.msgNo == msgNo && msg.bodyLen == size;
}

} // namespace

std::string DG2FieldText(const char* field, size_t size)
{
    return std::string(field, strnlen(field, size));
}

bool DG2FieldTextOk(const char* field, size_t size)
{
    size_t n = strnlen(field, size);
    for (size_t i = 0; i < n; ++i)
        if (isControl(static_cast<unsigned char>(field[i])))
            return false;
    return true;
}

bool DG2FieldNumber(const char* field, size_t size, int* out)
{
    size_t n = strnlen(field, size);
    if (n == 0 || n > 9)
        return false;
    long value = 0;
    for (size_t i = 0; i < n; ++i) {
        if (field[i] < '0' || field[i] > '9')
            return false;
        value = value * 10 + (field[i] - '0');
    }
    for (size_t i = n; i < size; ++i)
        if (field[i] != '\0')
            return false;
    *out = static_cast<int>(value);
    return true;
}

// ---------------------------------------------------------------- message 0

int DG2PackSettings(DG2MessageType* msg, const DG2Settings& in)
{
    DG2SettingsBody b;
    memset(&b, 0, sizeof b);
    if (!textOk(in.hostName) || !textOk(in.groupName) || in.alertMode < 0 || in.alertMode > 0xFF)
        return -1;
    DG2SetField(b.hostName, sizeof b.hostName, in.hostName.c_str());
    DG2SetField(b.groupName, sizeof b.groupName, in.groupName.c_str());
    if (!putNumber(b.port, sizeof b.port, in.port, kMaxWord) ||
        !putNumber(b.shutdownDelay, sizeof b.shutdownDelay, in.shutdownDelay, kMaxTextNumber) ||
        !putNumber(b.countdownTime, sizeof b.countdownTime, in.countdownTime, kMaxTextNumber) ||
        !putNumber(b.winkTime, sizeof b.winkTime, in.winkTime, kMaxTextNumber) ||
        !putNumber(b.appEndTime, sizeof b.appEndTime, in.appEndTime, kMaxTextNumber) ||
        !putCommand(b.runCommand, sizeof b.runCommand, in.runCommand.c_str()))
        return -1;
    b.alertMode = static_cast<uint8_t>(in.alertMode);
    return DG2PutBody(msg, b);
}

bool DG2UnpackSettings(const DG2MessageType& msg, DG2Settings* out)
{
    DG2SettingsBody b;
    if (!bodyIs(msg, DG2::MsgSettings, DG2::kBodySettings) || !DG2GetBody(msg, &b))
        return false;
    DG2Settings s;
    bool ok = readText(b.hostName, sizeof b.hostName, &s.hostName) &&
              readText(b.groupName, sizeof b.groupName, &s.groupName) &&
              DG2FieldNumber(b.port, sizeof b.port, &s.port) && s.port <= kMaxWord &&
              DG2FieldNumber(b.shutdownDelay, sizeof b.shutdownDelay, &s.shutdownDelay) &&
              DG2FieldNumber(b.countdownTime, sizeof b.countdownTime, &s.countdownTime) &&
              DG2FieldNumber(b.winkTime, sizeof b.winkTime, &s.winkTime) &&
              DG2FieldNumber(b.appEndTime, sizeof b.appEndTime, &s.appEndTime) &&
              readCommand(b.runCommand, sizeof b.runCommand, &s.runCommand);
    if (!ok)
        return false;
    s.alertMode = b.alertMode;
    *out = s;
    return true;
}

// ---------------------------------------------------------- messages 35, 130

int DG2PackAddress(DG2MessageType* msg, uint8_t msgNo, const DG2Address& in)
{
    if ((msgNo != DG2::MsgRegister && msgNo != DG2::MsgUninstall) ||
        (msgNo == DG2::MsgUninstall && !in.memberId.empty()) || !textOk(in.memberId) || !textOk(in.address))
        return -1;
    DG2AddressBody b;
    memset(&b, 0, sizeof b);
    DG2SetField(b.memberId, sizeof b.memberId, in.memberId.c_str());
    DG2SetField(b.address, sizeof b.address, in.address.c_str());
    if (!putNumber(b.port, sizeof b.port, in.port, kMaxWord))
        return -1;
    return DG2PutBody(msg, b);
}

bool DG2UnpackAddress(const DG2MessageType& msg, DG2Address* out)
{
    DG2AddressBody b;
    if (!(bodyIs(msg, DG2::MsgRegister, DG2::kBodyRegister) || bodyIs(msg, DG2::MsgUninstall, DG2::kBodyUninstall)) ||
        !DG2GetBody(msg, &b))
        return false;
    DG2Address a;
    if (!readText(b.memberId, sizeof b.memberId, &a.memberId) || !readText(b.address, sizeof b.address, &a.address) ||
        !DG2FieldNumber(b.port, sizeof b.port, &a.port) || a.port > kMaxWord)
        return false;
    *out = a;
    return true;
}

// ---------------------------------------------------------------- message 127

int DG2PackAppEnd(DG2MessageType* msg, const DG2AppEnd& in)
{
    DG2AppEndBody b;
    memset(&b, 0, sizeof b);
    if (!putWord(&b.value1, in.value1) || !putWord(&b.value2, in.value2) || !textOk(in.senderName))
        return -1;
    DG2SetField(b.senderName, sizeof b.senderName, in.senderName.c_str());
    return DG2PutBody(msg, b);
}

bool DG2UnpackAppEnd(const DG2MessageType& msg, DG2AppEnd* out)
{
    DG2AppEndBody b;
    DG2AppEnd a;
    if (!bodyIs(msg, DG2::MsgAppEnd, DG2::kBodyAppEnd) || !DG2GetBody(msg, &b) ||
        !readText(b.senderName, sizeof b.senderName, &a.senderName))
        return false;
    a.value1 = b.value1;
    a.value2 = b.value2;
    *out = a;
    return true;
}

// ---------------------------------------------------------------- message 140

int DG2PackAccessCode(DG2MessageType* msg, const std::string& code)
{
    DG2AccessCodeBody b;
    memset(&b, 0, sizeof b);
    if (!textOk(code))
        return -1;
    DG2SetField(b.accessCode, sizeof b.accessCode, code.c_str());
    return DG2PutBody(msg, b);
}

bool DG2UnpackAccessCode(const DG2MessageType& msg, std::string* code)
{
    DG2AccessCodeBody b;
    return bodyIs(msg, DG2::MsgAccessCode, DG2::kBodyAccessCode) && DG2GetBody(msg, &b) &&
           readText(b.accessCode, sizeof b.accessCode, code);
}

// ---------------------------------------------------------------- message 141

namespace {
bool powerReportOk(const DG2PowerReportBody& b)
{
    return b.alarmMapLength <= sizeof b.alarmMap && (b.battery == 4 || b.battery == 5) &&
           (b.utility == 2 || b.utility == 3);
}
} // namespace

void DG2PowerReportFromUps(const UpsDataBlock& ups, int index, DG2PowerReportBody* out)
{
    DG2PowerReportBody r;
    memset(&r, 0, sizeof r);
    std::string map = ups.alarmMap(index);
    std::string states = ups.alarmStates(index);
    r.alarmMapLength = static_cast<uint8_t>(std::min(map.size(), sizeof r.alarmMap));
    memcpy(r.alarmMap, map.data(), r.alarmMapLength);
    memcpy(r.alarmStates, states.data(), std::min(states.size(), sizeof r.alarmStates));
    r.battery = ups.isAlarmActive(kAlarmBatteryLow, index) ? 5 : 4;  // as the poll result reports it
    r.utility = ups.isUtilityNotParent(index) ? 2 : 3;
    for (int m = 0; m < UpsDataBlock::kMeterCount; ++m)
        r.meters[m] = ups.meterValue(m, index);
    r.upsCommLost = ups.commAlert() ? 1 : 0;
    r.portAlert = ups.portAlert() ? 1 : 0;
    r.alertTime = ups.getAlertDiffTime(index);
    *out = r;
}

int DG2PackPowerReport(DG2MessageType* msg, const DG2PowerReportBody& in)
{
    if (!powerReportOk(in))
        return -1;
    DG2PowerReportBody b = in;
    b.reserved3 = 0;
    return DG2PutBody(msg, b);
}

bool DG2UnpackPowerReport(const DG2MessageType& msg, DG2PowerReportBody* out)
{
    DG2PowerReportBody b;
    if (!bodyIs(msg, DG2::MsgPowerReport, DG2::kBodyPowerReport) || !DG2GetBody(msg, &b) || !powerReportOk(b))
        return false;
    *out = b;
    return true;
}

// ---------------------------------------------------------------- message 181

int DG2PackShutdownTiming(DG2MessageType* msg, const DG2_ShutdownTimming& in)
{
    DG2ShutdownTimingBody b;
    memset(&b, 0, sizeof b);
    if (!putWord(&b.winkTime, in.winkTime) || !putWord(&b.shutdownTime, in.shutdownTime) ||
        !putWord(&b.appTermTimeOut, in.appTermTimeOut) || !putWord(&b.shutdownDelay, in.shutdownDelay) ||
        !putCommand(b.appTermCommand, sizeof b.appTermCommand, in.appTermCommand))
        return -1;
    b.marker = in.marker;
    return DG2PutBody(msg, b);
}

bool DG2UnpackShutdownTiming(const DG2MessageType& msg, DG2_ShutdownTimming* out)
{
    DG2ShutdownTimingBody b;
    std::string command;
    if (!bodyIs(msg, DG2::MsgShutdownTiming, DG2::kBodyShutdownTiming) || !DG2GetBody(msg, &b) ||
        !readCommand(b.appTermCommand, sizeof b.appTermCommand, &command))
        return false;
    DG2_ShutdownTimming t;
    memset(&t, 0, sizeof t);
    t.winkTime = b.winkTime;
    t.shutdownTime = b.shutdownTime;
    t.appTermTimeOut = b.appTermTimeOut;
    t.shutdownDelay = b.shutdownDelay;
    memcpy(t.appTermCommand, command.data(), command.size());  // shorter than the field: checked above
    t.marker = b.marker;
    *out = t;
    return true;
}

// ---------------------------------------------------------------- message 81

int DG2PackSchedule(DG2MessageType* msg, int minutes)
{
    DG2ScheduleBody b;
    if (!putWord(&b.minutes, minutes))
        return -1;
    return DG2PutBody(msg, b);
}

bool DG2UnpackSchedule(const DG2MessageType& msg, int* minutes)
{
    DG2ScheduleBody b;
    if (!bodyIs(msg, DG2::MsgSchedule, DG2::kBodySchedule) || !DG2GetBody(msg, &b))
        return false;
    *minutes = b.minutes;
    return true;
}
