// DG2Builder: builds coordination datagrams for tests from the daemon's own
// definitions and gives the bytes a peer would put on the wire; DG2Describe
// prints one as a line: "141 power-report r255 19:ctrl -> 17:memb body 1328".
#pragma once

#include <cstring>
#include <string>

#include "ipc/DG2Bodies.h"
#include "ipc/DG2Message.h"

class DG2Builder {
public:
    explicit DG2Builder(uint8_t msgNo)
    {
        memset(&mMsg, 0, sizeof mMsg);
        mMsg.magic = DG2::kMagic, mMsg.result = DG2::kResultRequest, mMsg.msgNo = msgNo;
        const DG2::BodyLayout* layout = DG2::findLayout(msgNo);
        mMsg.bodyLen = layout ? layout->bodySize : 0;
    }
    explicit DG2Builder(const DG2MessageType& m) : mMsg(m) {}

    DG2Builder& result(uint8_t r) { mMsg.result = r; return *this; }
    DG2Builder& magic(uint8_t m) { mMsg.magic = m; return *this; }
    DG2Builder& from(const char* name, uint16_t kind)
    {
        DG2SetField(mMsg.srcName, sizeof mMsg.srcName, name);
        return mMsg.srcKind = kind, *this;
    }
    DG2Builder& to(const char* name, uint16_t kind)
    {
        DG2SetField(mMsg.dstName, sizeof mMsg.dstName, name);
        return mMsg.dstKind = kind, *this;
    }
    // Raw body bytes at a body offset (the body length is left as it is).
    DG2Builder& bodyBytes(size_t at, const std::string& b) { return memcpy(mMsg.body + at, b.data(), b.size()), *this; }
    // A pack helper's result: fn(DG2MessageType*) returns the body size.
    template <class Pack>
    DG2Builder& pack(Pack fn)
    {
        const int n = fn(&mMsg);
        mMsg.bodyLen = n >= 0 ? static_cast<uint16_t>(n) : mMsg.bodyLen;
        return *this;
    }

    const DG2MessageType& msg() const { return mMsg; }

    // The bytes on the wire: stamped, in wire order, header plus body length.
    std::string wire() const
    {
        DG2MessageType copy = mMsg;
        const size_t size = DG2::kHeaderSize + copy.bodyLen;
        SetHedVer(&copy), ByteOrderChg(&copy);
        return std::string(reinterpret_cast<const char*>(&copy), size);
    }

private:
    DG2MessageType mMsg;
};

inline std::string DG2Describe(const DG2MessageType& m)
{
    const DG2::BodyLayout* layout = DG2::findLayout(m.msgNo);
    std::string s = std::to_string(m.msgNo) + " " + (layout ? layout->name : "unknown");
    if (m.magic != DG2::kMagic)
        s += " magic" + std::to_string(m.magic);
    s += " r" + std::to_string(m.result) + " " + std::to_string(m.srcKind) + ":" +
         DG2FieldText(m.srcName, sizeof m.srcName) + " -> " + std::to_string(m.dstKind) + ":" +
         DG2FieldText(m.dstName, sizeof m.dstName) + " body " + std::to_string(m.bodyLen);
    return s;
}
