// XcpFrameCodec: byte-level XCP framing for the simulated UPS.
// Builds host command frames (used by tests and by the self-check) and
// UPS reply frames (block, length, sequence, data, checksum), splits long
// blocks into numbered frames, and walks a reply exactly as the daemon's
// receive side does so that tests can check what the daemon would accept.
#ifndef KESTRAVA_TOOLS_UPSSIM_XCPFRAMECODEC_H
#define KESTRAVA_TOOLS_UPSSIM_XCPFRAMECODEC_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace upssim {

using Bytes = std::vector<uint8_t>;

class XcpFrameCodec {
public:
    static constexpr uint8_t kStartByte = 0xAB;
    static constexpr uint8_t kEscapeByte = 0x1B;
    static constexpr uint8_t kLastFrameFlag = 0x80;
    static constexpr size_t kMaxFrameData = 255;

    // Two's complement of the 8-bit sum of the bytes, so that the bytes
    // plus the checksum sum to 0 modulo 256.
    static uint8_t checksum(const uint8_t* bytes, size_t count);
    static uint8_t checksum(const Bytes& bytes);

    // Host to UPS: AB, length (command + arguments), command, arguments,
    // checksum.
    static Bytes encodeCommand(uint8_t code, const Bytes& args = Bytes());

    // UPS to host: one frame per at most frameSize data bytes (1..255),
    // sequence numbers 1, 2, ... with 0x80 added on the last frame. An
    // empty block is one frame with no data. Each element is one frame.
    static std::vector<Bytes> encodeReplyFrames(uint8_t block, const Bytes& data,
                                                size_t frameSize = kMaxFrameData);
    static Bytes encodeReply(uint8_t block, const Bytes& data,
                             size_t frameSize = kMaxFrameData);

    // Walks a complete reply the way the daemon does and returns its
    // result code: 0 success (data concatenated into *data), 4 no start
    // byte, 5 wrong block, 6 incomplete, 7 bad checksum, 8 bad sequence.
    static int decodeReply(const Bytes& wire, uint8_t expectedBlock, Bytes* data);

    // Block the daemon expects in reply to a command code.
    static uint8_t expectedBlock(uint8_t commandCode);

    // "AB 01 31 23": upper-case hex, one space between bytes.
    static std::string toHex(const uint8_t* bytes, size_t count);
    static std::string toHex(const Bytes& bytes);
};

}  // namespace upssim

#endif
