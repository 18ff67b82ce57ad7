// DG2Bodies: the body layouts of the coordination datagrams, one struct per
// message (in host order, as a body is after ByteOrderChg), with pack and
// unpack helpers that fill a body from the values the protocol threads hold
// and read it back with every field checked. Text fields are fixed fields:
// written with a bounded copy, read up to the first NUL or the field's end.
// Numbers in bodies whose layout has no converted fields travel as decimal
// text, so they read the same on hosts of either byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "control/Records.h"
#include "ipc/DG2Message.h"

class UpsDataBlock;

// ---- message 0: settings (controller -> member; the member's reply uses the
// same layout, with its own host name and its slot's settings) ----
struct DG2SettingsBody {
    char hostName[100];     // sender's host name
    char groupName[32];     // "GroupName"
    char port[6];           // controller port ("CtrlPort1"), decimal text
    char shutdownDelay[8];  // seconds, decimal text
    char countdownTime[8];  // minutes, decimal text
    char winkTime[8];       // seconds, decimal text
    char appEndTime[8];     // seconds, decimal text
    char runCommand[128];   // application-termination command, NUL-terminated
    uint8_t alertMode;      // message-file mode the member reloads (notification 6013)
    uint8_t reserved[198];
};

struct DG2Settings {
    std::string hostName;
    std::string groupName;
    int port = 0;
    int shutdownDelay = 0;
    int countdownTime = 0;
    int winkTime = 0;
    int appEndTime = 0;
    std::string runCommand;
    int alertMode = 0;
};

// ---- message 35 (registration) and 130 (uninstall): member identity and address ----
struct DG2AddressBody {
    char memberId[32];  // 35: member ID (empty on a first registration; the reply carries the one in use). 130: zero
    char address[32];   // member's IPv4 address text
    char port[6];       // member's UDP port, decimal text
};

struct DG2Address {
    std::string memberId;
    std::string address;
    int port = 0;
};

// ---- message 81: scheduled shutdown ----
struct DG2ScheduleBody {
    uint16_t minutes;  // minutes to the scheduled shutdown
};

// ---- message 127: application end ----
struct DG2AppEndBody {
    uint16_t value1;      // 1 when the sender's host shutdown has started, else 0
    uint16_t value2;      // sender's controller slot index (0 on a controller)
    uint16_t reserved4;
    char senderName[32];  // sender's own name
    uint16_t reserved38;
};

struct DG2AppEnd {
    int value1 = 0;
    int value2 = 0;
    std::string senderName;
};

// ---- message 140: access code ----
struct DG2AccessCodeBody {
    char accessCode[32];  // "AccessCode1" (request); the member's "AccessCode%d" (reply)
    uint8_t reserved[68];
};

// ---- message 141: power state and alarm report (also the plain values) ----
struct DG2PowerReportBody {
    uint8_t alarmMapLength;    // bytes used in alarmMap, 0..32
    uint8_t battery;           // 4 battery alarm not active, 5 active
    uint8_t utility;           // 2 on utility power, 3 utility lost
    uint8_t reserved3;
    uint8_t alarmMap[32];      // supported-alarm map: bit b of byte i = alarm 8i+b
    uint8_t alarmStates[256];  // one state byte per supported alarm, ascending; non-zero = active
    int32_t meters[256];       // meter values in hundredths, by meter number
    uint8_t restarted;         // 1316: 1 in the first report after the controller started
    uint8_t upsCommLost;       // 1317: 1 while the controller's UPS communication is lost
    uint8_t portAlert;         // 1318: 1 while the controller's serial port alert is raised
    uint8_t outputOn;          // 1319: 1 while the UPS output is on
    int32_t alertTime;         // epoch seconds the power alarms began, 0 when none
    int32_t reportTime;        // controller's clock when the report was made
};

// ---- message 181: shutdown timing ----
struct DG2ShutdownTimingBody {
    uint16_t winkTime;        // seconds
    uint8_t reserved2[2];
    uint16_t shutdownTime;    // minutes
    uint8_t reserved6[2];
    uint16_t appTermTimeOut;  // seconds
    uint16_t shutdownDelay;   // seconds
    uint16_t reservedWords[5];
    char appTermCommand[128]; // NUL-terminated
    uint8_t marker;
    uint8_t reserved151;
};

// ---- messages never produced by this system: positions only ----
struct DG2Request29Body {   // also message 30
    char text[50];
    uint16_t value1;
    uint16_t value2;
};
struct DG2Request31Body {
    char text[50];
    uint16_t value;
};
struct DG2Request131Body {
    uint16_t word0;
    uint8_t bytes[34];
    uint16_t words[6];
};
struct DG2MemberInfo229Body {
    uint16_t port;          // member's UDP port
    uint8_t reserved2[4];
    uint16_t status;        // member status (MEMB_STAT)
    char memberId[32];
};
struct DG2MemberInfo230Body {
    char memberId[32];
    char address[32];
};

// Offsets that the conversion table fixes, and the body sizes.
static_assert(sizeof(DG2SettingsBody) == DG2::kBodySettings, "body 0");
static_assert(offsetof(DG2SettingsBody, groupName) == 100 && offsetof(DG2SettingsBody, port) == 132 &&
                  offsetof(DG2SettingsBody, runCommand) == 170 && offsetof(DG2SettingsBody, alertMode) == 298,
              "body 0");
static_assert(sizeof(DG2AddressBody) == DG2::kBodyRegister && sizeof(DG2AddressBody) == DG2::kBodyUninstall &&
                  offsetof(DG2AddressBody, address) == 32 && offsetof(DG2AddressBody, port) == 64,
              "bodies 35 and 130");
static_assert(sizeof(DG2ScheduleBody) == DG2::kBodySchedule, "body 81");
static_assert(sizeof(DG2AppEndBody) == DG2::kBodyAppEnd && offsetof(DG2AppEndBody, value2) == 2 &&
                  offsetof(DG2AppEndBody, reserved4) == 4 && offsetof(DG2AppEndBody, senderName) == 6 &&
                  offsetof(DG2AppEndBody, reserved38) == 38,
              "body 127");
static_assert(sizeof(DG2AccessCodeBody) == DG2::kBodyAccessCode, "body 140");
static_assert(sizeof(DG2PowerReportBody) == DG2::kBodyPowerReport && offsetof(DG2PowerReportBody, alarmMap) == 4 &&
                  offsetof(DG2PowerReportBody, alarmStates) == 36 && offsetof(DG2PowerReportBody, meters) == 292 &&
                  offsetof(DG2PowerReportBody, restarted) == 1316 &&
                  offsetof(DG2PowerReportBody, upsCommLost) == 1317 &&
                  offsetof(DG2PowerReportBody, outputOn) == 1319 && offsetof(DG2PowerReportBody, alertTime) == 1320 &&
                  offsetof(DG2PowerReportBody, reportTime) == 1324,
              "body 141");
static_assert(sizeof(DG2ShutdownTimingBody) == DG2::kBodyShutdownTiming &&
                  offsetof(DG2ShutdownTimingBody, shutdownTime) == 4 &&
                  offsetof(DG2ShutdownTimingBody, appTermTimeOut) == 8 &&
                  offsetof(DG2ShutdownTimingBody, shutdownDelay) == 10 &&
                  offsetof(DG2ShutdownTimingBody, reservedWords) == 12 &&
                  offsetof(DG2ShutdownTimingBody, appTermCommand) == 22 &&
                  offsetof(DG2ShutdownTimingBody, marker) == 150,
              "body 181");
static_assert(sizeof(DG2Request29Body) == DG2::kBodyRequest29 && offsetof(DG2Request29Body, value1) == 50 &&
                  offsetof(DG2Request29Body, value2) == 52,
              "bodies 29 and 30");
static_assert(sizeof(DG2Request31Body) == DG2::kBodyRequest31 && offsetof(DG2Request31Body, value) == 50, "body 31");
static_assert(sizeof(DG2Request131Body) == DG2::kBodyRequest131 && offsetof(DG2Request131Body, words) == 36,
              "body 131");
static_assert(sizeof(DG2MemberInfo229Body) == DG2::kBodyMemberInfo229 && offsetof(DG2MemberInfo229Body, status) == 6,
              "body 229");
static_assert(sizeof(DG2MemberInfo230Body) == DG2::kBodyMemberInfo230, "body 230");

// ---- field helpers ----

// The text of a fixed field, up to its first NUL or its end.
std::string DG2FieldText(const char* field, size_t size);
// True when the field's text holds no control character (bytes below 0x20
// and 0x7F), so it can go into a file line or a log line as it is.
bool DG2FieldTextOk(const char* field, size_t size);
// Reads a decimal text field: one or more digits, then NUL padding. False
// for anything else (sign, space, letters, an empty field).
bool DG2FieldNumber(const char* field, size_t size, int* out);

// Copies a body struct into the datagram's body (the rest of the body area
// is left as it was) and returns its size.
template <class Body>
int DG2PutBody(DG2MessageType* msg, const Body& body)
{
    memcpy(msg->body, &body, sizeof body);
    return static_cast<int>(sizeof body);
}

// Copies the datagram's body into a body struct; false when the body length
// is shorter than the struct.
template <class Body>
bool DG2GetBody(const DG2MessageType& msg, Body* out)
{
    if (msg.bodyLen < sizeof(Body))
        return false;
    memcpy(out, msg.body, sizeof(Body));
    return true;
}

// ---- typed helpers ----
// Pack: fills the body and returns its size, or -1 (body untouched) when a
// value does not fit its field: a number outside 0..99999999 (text fields)
// or 0..65535 (16-bit fields), a command of 128 bytes or more, a text with a
// control character. Names and other texts longer than their field are cut.
// Unpack: false when the message number or body length is not the
// message's, a number field is not decimal, a text holds a control
// character, or a value is out of its range.

int DG2PackSettings(DG2MessageType* msg, const DG2Settings& in);
bool DG2UnpackSettings(const DG2MessageType& msg, DG2Settings* out);

// Message 35 (memberId as given) or 130 (memberId must be empty).
int DG2PackAddress(DG2MessageType* msg, uint8_t msgNo, const DG2Address& in);
bool DG2UnpackAddress(const DG2MessageType& msg, DG2Address* out);

int DG2PackAppEnd(DG2MessageType* msg, const DG2AppEnd& in);
bool DG2UnpackAppEnd(const DG2MessageType& msg, DG2AppEnd* out);

int DG2PackAccessCode(DG2MessageType* msg, const std::string& code);
bool DG2UnpackAccessCode(const DG2MessageType& msg, std::string* code);

// The alarm, meter, power and alert values of a UPS index, as a controller
// reports its own UPS (index 0). Alarm maps longer than the body's 32 bytes
// describe alarms above 255, which have no codes: they are cut. The
// restarted flag, the output flag and the report time are the caller's.
void DG2PowerReportFromUps(const UpsDataBlock& ups, int index, DG2PowerReportBody* out);
int DG2PackPowerReport(DG2MessageType* msg, const DG2PowerReportBody& in);
bool DG2UnpackPowerReport(const DG2MessageType& msg, DG2PowerReportBody* out);

int DG2PackShutdownTiming(DG2MessageType* msg, const DG2_ShutdownTimming& in);
bool DG2UnpackShutdownTiming(const DG2MessageType& msg, DG2_ShutdownTimming* out);

int DG2PackSchedule(DG2MessageType* msg, int minutes);
bool DG2UnpackSchedule(const DG2MessageType& msg, int* minutes);
