// XcpCommandReader: reassembles host command frames from the bytes read
// off the pseudo-terminal, whatever the read boundaries. It hands back
// each complete frame, each lone escape byte (sent raw while the host
// hunts the line speed), stray bytes outside frames, frames with a wrong
// checksum, and partial frames that stayed incomplete too long.
#ifndef KESTRAVA_TOOLS_UPSSIM_XCPCOMMANDREADER_H
#define KESTRAVA_TOOLS_UPSSIM_XCPCOMMANDREADER_H

#include <cstdint>
#include <vector>

#include "tools/upssim/XcpFrameCodec.h"

namespace upssim {

class XcpCommandReader {
public:
    enum class Kind {
        Command,      // a valid frame: code and args are set
        Escape,       // the single byte 0x1B
        Junk,         // bytes outside any frame
        BadChecksum,  // a complete frame whose bytes do not sum to 0
        Incomplete    // a partial frame dropped after the stale time
    };
    struct Item {
        Kind kind = Kind::Junk;
        Bytes raw;       // the bytes as received
        uint8_t code = 0;
        Bytes args;
    };

    // A partial frame older than this is dropped.
    static constexpr long kStaleMs = 1000;

    // Adds received bytes (nowMs: a monotonic time in milliseconds) and
    // appends every item they complete to *out.
    void feed(const uint8_t* bytes, size_t count, long nowMs, std::vector<Item>* out);
    // Drops a partial frame that has waited longer than kStaleMs and
    // re-reads what followed its start byte.
    void expire(long nowMs, std::vector<Item>* out);
    // Forgets everything buffered.
    void clear();
    bool pending() const { return !buffer_.empty(); }

private:
    void scan(std::vector<Item>* out);
    void flushJunk(std::vector<Item>* out);

    Bytes buffer_;
    Bytes junk_;
    long partialSince_ = 0;
};

}  // namespace upssim

#endif
