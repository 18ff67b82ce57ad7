#include "tools/upssim/XcpFrameCodec.h"

#include <cstdio>

namespace upssim {

uint8_t XcpFrameCodec::checksum(const uint8_t* bytes, size_t count) {
    unsigned sum = 0;
    for (size_t i = 0; i < count; ++i) sum += bytes[i];
    return static_cast<uint8_t>((0x100 - (sum & 0xFF)) & 0xFF);
}

uint8_t XcpFrameCodec::checksum(const Bytes& bytes) {
    return checksum(bytes.data(), bytes.size());
}

Bytes XcpFrameCodec::encodeCommand(uint8_t code, const Bytes& args) {
    Bytes frame;
    frame.reserve(args.size() + 4);
    frame.push_back(kStartByte);
    frame.push_back(static_cast<uint8_t>((args.size() + 1) & 0xFF));
    frame.push_back(code);
    frame.insert(frame.end(), args.begin(), args.end());
    frame.push_back(checksum(frame));
    return frame;
}

std::vector<Bytes> XcpFrameCodec::encodeReplyFrames(uint8_t block, const Bytes& data,
                                                    size_t frameSize) {
    if (frameSize < 1) frameSize = 1;
    if (frameSize > kMaxFrameData) frameSize = kMaxFrameData;
    std::vector<Bytes> frames;
    size_t pos = 0;
    unsigned seq = 1;
    do {
        size_t n = data.size() - pos;
        if (n > frameSize) n = frameSize;
        bool last = pos + n >= data.size();
        Bytes frame;
        frame.reserve(n + 5);
        frame.push_back(kStartByte);
        frame.push_back(block);
        frame.push_back(static_cast<uint8_t>(n));
        frame.push_back(static_cast<uint8_t>((seq & 0x7F) | (last ? kLastFrameFlag : 0)));
        frame.insert(frame.end(), data.begin() + static_cast<long>(pos),
                     data.begin() + static_cast<long>(pos + n));
        frame.push_back(checksum(frame));
        frames.push_back(frame);
        pos += n;
        ++seq;
    } while (pos < data.size());
    return frames;
}

Bytes XcpFrameCodec::encodeReply(uint8_t block, const Bytes& data, size_t frameSize) {
    Bytes wire;
    for (const Bytes& f : encodeReplyFrames(block, data, frameSize))
        wire.insert(wire.end(), f.begin(), f.end());
    return wire;
}

int XcpFrameCodec::decodeReply(const Bytes& wire, uint8_t expectedBlock, Bytes* data) {
    size_t pos = 0;
    unsigned seq = 1;
    if (data) data->clear();
    for (;;) {
        if (pos >= wire.size()) return 6;
        if (wire[pos] != kStartByte) return 4;
        if (pos + 1 >= wire.size()) return 6;
        if (wire[pos + 1] != expectedBlock) return 5;
        if (pos + 3 >= wire.size()) return 6;
        size_t n = wire[pos + 2];
        size_t end = pos + 4 + n;  // position of the checksum byte
        if (end >= wire.size()) return 6;
        if (checksum(&wire[pos], end - pos) != wire[end]) return 7;
        if (data) data->insert(data->end(), wire.begin() + static_cast<long>(pos + 4),
                               wire.begin() + static_cast<long>(end));
        uint8_t s = wire[pos + 3];
        if (s == ((seq + kLastFrameFlag) & 0xFF)) return 0;
        if (s != (seq & 0xFF)) return 8;
        pos = end + 1;
        ++seq;
    }
}

uint8_t XcpFrameCodec::expectedBlock(uint8_t commandCode) {
    if (commandCode >= 0x31 && commandCode <= 0x56) return static_cast<uint8_t>(commandCode - 0x30);
    if (commandCode == 0xA0) return 1;
    return 9;
}

std::string XcpFrameCodec::toHex(const uint8_t* bytes, size_t count) {
    std::string out;
    out.reserve(count * 3);
    char buf[4];
    for (size_t i = 0; i < count; ++i) {
        std::snprintf(buf, sizeof buf, "%02X", bytes[i]);
        if (i) out += ' ';
        out += buf;
    }
    return out;
}

std::string XcpFrameCodec::toHex(const Bytes& bytes) { return toHex(bytes.data(), bytes.size()); }

}  // namespace upssim
