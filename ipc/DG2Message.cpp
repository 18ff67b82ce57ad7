#include "ipc/DG2Message.h"

#include <cstring>

namespace {

void swap16At(unsigned char* p)
{
    unsigned char t = p[0];
    p[0] = p[1];
    p[1] = t;
}

void swap32At(unsigned char* p)
{
    unsigned char t = p[0];
    p[0] = p[3];
    p[3] = t;
    t = p[1];
    p[1] = p[2];
    p[2] = t;
}

// Converts one body as its layout says; the offsets all lie inside the
// body area of the image, whatever the datagram's body length claims.
void swapBody(unsigned char* body, const DG2::BodyLayout& layout)
{
    for (int i = 0; i < layout.count16; ++i)
        swap16At(body + layout.words16[i]);
    for (int r = 0; r < layout.runs32; ++r)
        for (int i = 0; i < layout.values32[r].count; ++i)
            swap32At(body + layout.values32[r].first + 4 * i);
}

void swapBodyOf(unsigned char* body, int msg)
{
    swapBody(body, *DG2::findLayout(msg));
}

// The 16-bit header words: sender kind, receiver kind, the four reserved
// words and the body length.
const size_t kHeaderWords[] = {offsetof(DG2MessageType, srcKind),      offsetof(DG2MessageType, dstKind),
                               offsetof(DG2MessageType, reserved),     offsetof(DG2MessageType, reserved) + 2,
                               offsetof(DG2MessageType, reserved) + 4, offsetof(DG2MessageType, reserved) + 6,
                               offsetof(DG2MessageType, bodyLen)};

uint8_t nameForm(char first)
{
    if (first == '\0')
        return DG2::kNameFormEmpty;
    if (first == ' ')
        return DG2::kNameFormIdentity;
    return DG2::kNameFormPlain;
}

} // namespace

// Every listed offset must lie inside the body area of the image.
static_assert([] {
    for (const DG2::BodyLayout& l : DG2::kLayouts) {
        if (l.bodySize > DG2::kMaxBody)
            return false;
        for (int i = 0; i < l.count16; ++i)
            if (l.words16[i] + 2 > l.bodySize)
                return false;
        for (int r = 0; r < l.runs32; ++r)
            if (l.values32[r].first + 4 * l.values32[r].count > l.bodySize)
                return false;
    }
    return true;
}(), "a converted field lies outside its body");

bool IsBigEnd()
{
    uint16_t probe = 0xFF00;
    unsigned char first;
    memcpy(&first, &probe, 1);
    return first != 0;
}

uint16_t sh_chg(uint16_t v)
{
    return static_cast<uint16_t>((v >> 8) | (v << 8));
}

uint32_t lo_chg(uint32_t v)
{
    return (v >> 24) | ((v >> 8) & 0xFF00u) | ((v << 8) & 0xFF0000u) | (v << 24);
}

bool ByteOrderSwap(DG2MessageType* msg)
{
    if (DG2::findLayout(msg->msgNo) == nullptr)
        return false;
    unsigned char* image = reinterpret_cast<unsigned char*>(msg);
    for (size_t at : kHeaderWords)
        swap16At(image + at);
    swapBodyOf(msg->body, msg->msgNo);
    return true;
}

bool ByteOrderChg(DG2MessageType* msg)
{
    if (DG2::findLayout(msg->msgNo) == nullptr)
        return false;
    return IsBigEnd() ? ByteOrderSwap(msg) : true;
}

void Chg_0(unsigned char* body) { swapBodyOf(body, DG2::MsgSettings); }
void Chg_29(unsigned char* body) { swapBodyOf(body, DG2::MsgRequest29); }
void Chg_30(unsigned char* body) { Chg_29(body); }
void Chg_31(unsigned char* body) { swapBodyOf(body, DG2::MsgRequest31); }
void Chg_35(unsigned char* body) { swapBodyOf(body, DG2::MsgRegister); }
void Chg_81(unsigned char* body) { swapBodyOf(body, DG2::MsgSchedule); }
void Chg_127(unsigned char* body) { swapBodyOf(body, DG2::MsgAppEnd); }
void Chg_129(unsigned char* body) { swapBodyOf(body, DG2::MsgPresence); }
void Chg_130(unsigned char* body) { swapBodyOf(body, DG2::MsgUninstall); }
void Chg_131(unsigned char* body) { swapBodyOf(body, DG2::MsgRequest131); }
void Chg_140(unsigned char* body) { swapBodyOf(body, DG2::MsgAccessCode); }
void Chg_141(unsigned char* body) { swapBodyOf(body, DG2::MsgPowerReport); }
void Chg_181(unsigned char* body) { swapBodyOf(body, DG2::MsgShutdownTiming); }
void Chg_229(unsigned char* body) { swapBodyOf(body, DG2::MsgMemberInfo229); }
void Chg_230(unsigned char* body) { swapBodyOf(body, DG2::MsgMemberInfo230); }

void SetHedVer(DG2MessageType* msg)
{
    msg->hedVer = DG2::kHeaderVersion;
    msg->srcForm = nameForm(msg->srcName[0]);
    msg->dstForm = nameForm(msg->dstName[0]);
}

bool UsefulDataCheck(const DG2MessageType* msg, DG2Role role)
{
    if (msg->magic != DG2::kMagic)
        return false;
    if (role == DG2Role::Controller)
        return msg->srcKind == DG2::KindMember &&
               (msg->dstKind == DG2::KindController || msg->dstKind == DG2::KindControllerAlt);
    return msg->srcKind == DG2::KindController &&
           (msg->dstKind == DG2::KindMember || msg->dstKind == DG2::KindMemberAlt);
}

DG2Drop DG2CheckReceived(DG2MessageType* msg, size_t size, DG2Role role)
{
    if (!ByteOrderChg(msg))
        return DG2Drop::DG2UnknownNumber;
    if (size != size_t(msg->bodyLen) + DG2::kHeaderSize)
        return DG2Drop::DG2SizeMismatch;
    if (size < size_t(DG2::kHeaderSize))
        return DG2Drop::DG2Short;
    if (!UsefulDataCheck(msg, role))
        return DG2Drop::DG2NotForUs;
    return DG2Drop::DG2Accepted;
}

const char* DG2DropText(DG2Drop why)
{
    switch (why) {
    case DG2Drop::DG2Accepted:
        return "accepted";
    case DG2Drop::DG2Short:
        return "shorter than its header";
    case DG2Drop::DG2UnknownNumber:
        return "unknown message number";
    case DG2Drop::DG2SizeMismatch:
        return "size differs from its body length";
    case DG2Drop::DG2NotForUs:
        return "not addressed to this role";
    }
    return "dropped";
}

void DG2SetField(char* field, size_t size, const char* text)
{
    size_t n = text ? strnlen(text, size) : 0;
    if (n > 0)
        memcpy(field, text, n);
    memset(field + n, 0, size - n);
}
