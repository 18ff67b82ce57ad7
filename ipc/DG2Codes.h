// DG2Codes: the names and numbers of the coordination datagrams: header
// constants, sender and receiver kinds, message numbers, destination modes
// and the one table of message numbers with their body sizes and the body
// positions of their 16-bit and 32-bit fields. The codec (byte order), the
// body helpers and the tests all read this table.
#pragma once

#include <cstdint>

namespace DG2 {

constexpr int kHeaderSize = 84;
constexpr int kImageSize = 4096;                  // one queued datagram image
constexpr int kMaxBody = kImageSize - kHeaderSize;
constexpr int kNameSize = 32;                     // source and destination names

constexpr uint8_t kMagic = 0xD2;
constexpr uint8_t kResultRequest = 0xFF;          // request or repeated request
constexpr uint8_t kResultOk = 0;                  // every reply of this system
constexpr uint8_t kHeaderVersion = 1;

// Name forms stamped at offsets 4 and 5 from the first byte of a name.
constexpr uint8_t kNameFormEmpty = 0xFF;
constexpr uint8_t kNameFormIdentity = 1;          // name starts with a space
constexpr uint8_t kNameFormPlain = 0;

// Sender and receiver kinds (16-bit header words at offsets 38 and 72).
enum Kind : uint16_t {
    KindMember = 17,
    KindController = 19,
    KindControllerAlt = 81,  // a controller addressed outside the member exchange; its reply echoes it
    KindMemberAlt = 113,     // accepted by a member as receiver kind, never produced here
};

// Message numbers (header offset 2).
enum MsgNo : uint8_t {
    MsgSettings = 0,
    MsgRequest29 = 29,
    MsgRequest30 = 30,
    MsgRequest31 = 31,
    MsgRegister = 35,
    MsgSchedule = 81,
    MsgAppEnd = 127,
    MsgPresence = 129,
    MsgUninstall = 130,
    MsgRequest131 = 131,
    MsgAccessCode = 140,
    MsgPowerReport = 141,
    MsgShutdownTiming = 181,
    MsgMemberInfo229 = 229,
    MsgMemberInfo230 = 230,
};

// Body sizes in bytes.
constexpr int kBodySettings = 497;
constexpr int kBodyRequest29 = 54;
constexpr int kBodyRequest30 = 54;
constexpr int kBodyRequest31 = 52;
constexpr int kBodyRegister = 70;
constexpr int kBodySchedule = 2;
constexpr int kBodyAppEnd = 40;
constexpr int kBodyPresence = 0;
constexpr int kBodyUninstall = 70;
constexpr int kBodyRequest131 = 48;  // never built here: just covers its converted words
constexpr int kBodyAccessCode = 100;
constexpr int kBodyPowerReport = 1328;
constexpr int kBodyShutdownTiming = 152;
constexpr int kBodyMemberInfo229 = 40;
constexpr int kBodyMemberInfo230 = 64;

// A run of consecutive 32-bit values in a body.
struct Run32 {
    uint16_t first;  // body offset of the first value
    uint16_t count;
};

// One message number: its name, body size and the body offsets of the
// fields that change with the byte order. Everything else in a body is text
// or single bytes.
struct BodyLayout {
    uint8_t msg;
    const char* name;
    uint16_t bodySize;
    uint8_t count16;
    uint16_t words16[9];
    uint8_t runs32;
    Run32 values32[2];
};

inline constexpr BodyLayout kLayouts[] = {
    {MsgSettings, "settings", kBodySettings, 0, {}, 0, {}},
    {MsgRequest29, "request-29", kBodyRequest29, 2, {50, 52}, 0, {}},
    {MsgRequest30, "request-30", kBodyRequest30, 2, {50, 52}, 0, {}},
    {MsgRequest31, "request-31", kBodyRequest31, 1, {50}, 0, {}},
    {MsgRegister, "register", kBodyRegister, 0, {}, 0, {}},
    {MsgSchedule, "schedule", kBodySchedule, 1, {0}, 0, {}},
    {MsgAppEnd, "app-end", kBodyAppEnd, 4, {0, 2, 4, 38}, 0, {}},
    {MsgPresence, "presence", kBodyPresence, 0, {}, 0, {}},
    {MsgUninstall, "uninstall", kBodyUninstall, 0, {}, 0, {}},
    {MsgRequest131, "request-131", kBodyRequest131, 7, {0, 36, 38, 40, 42, 44, 46}, 0, {}},
    {MsgAccessCode, "access-code", kBodyAccessCode, 0, {}, 0, {}},
    // Bytes 1316 to 1319 stay as the sender wrote them.
    {MsgPowerReport, "power-report", kBodyPowerReport, 0, {}, 2, {{292, 256}, {1320, 2}}},
    {MsgShutdownTiming, "shutdown-timing", kBodyShutdownTiming, 9, {0, 4, 8, 10, 12, 14, 16, 18, 20}, 0, {}},
    {MsgMemberInfo229, "member-info-229", kBodyMemberInfo229, 2, {0, 6}, 0, {}},
    {MsgMemberInfo230, "member-info-230", kBodyMemberInfo230, 0, {}, 0, {}},
};

// The layout of a message number, or null for a number this system does not know.
inline const BodyLayout* findLayout(int msg)
{
    for (const BodyLayout& l : kLayouts)
        if (l.msg == msg)
            return &l;
    return nullptr;
}

} // namespace DG2

// Destination mode of a queued datagram.
enum IPC_DST_MODE : int32_t {
    IPC_DST_ALL = 0,    // every detected member, one pass
    IPC_DST_CLOSE = 1,  // every detected member, three staggered passes; nothing but 127 leaves afterwards
    IPC_DST_REPLY = 2,  // one peer: a reply or a repetition
    IPC_DST_ONE = 3,    // one member named by the record
};
