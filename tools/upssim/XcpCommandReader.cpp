#include "tools/upssim/XcpCommandReader.h"

namespace upssim {

void XcpCommandReader::feed(const uint8_t* bytes, size_t count, long nowMs,
                            std::vector<Item>* out) {
    if (count == 0) return;
    size_t before = buffer_.size();
    buffer_.insert(buffer_.end(), bytes, bytes + count);
    scan(out);
    // A partial frame left over that began in this read starts its clock now.
    size_t consumed = before + count - buffer_.size();
    if (!buffer_.empty() && consumed >= before) partialSince_ = nowMs;
}

void XcpCommandReader::expire(long nowMs, std::vector<Item>* out) {
    if (buffer_.empty() || nowMs - partialSince_ < kStaleMs) return;
    Item item;
    item.kind = Kind::Incomplete;
    item.raw = buffer_;
    out->push_back(item);
    // The start byte was not a frame after all: look again at what followed.
    Bytes rest(buffer_.begin() + 1, buffer_.end());
    buffer_.clear();
    partialSince_ = nowMs;
    if (!rest.empty()) {
        buffer_ = rest;
        scan(out);
    }
}

void XcpCommandReader::clear() {
    buffer_.clear();
    junk_.clear();
}

void XcpCommandReader::flushJunk(std::vector<Item>* out) {
    if (junk_.empty()) return;
    Item item;
    item.kind = Kind::Junk;
    item.raw = junk_;
    out->push_back(item);
    junk_.clear();
}

void XcpCommandReader::scan(std::vector<Item>* out) {
    size_t pos = 0;
    for (;;) {
        // Outside a frame: everything up to the next start byte.
        while (pos < buffer_.size() && buffer_[pos] != XcpFrameCodec::kStartByte) {
            if (buffer_[pos] == XcpFrameCodec::kEscapeByte) {
                flushJunk(out);
                Item item;
                item.kind = Kind::Escape;
                item.raw.push_back(buffer_[pos]);
                out->push_back(item);
            } else {
                junk_.push_back(buffer_[pos]);
            }
            ++pos;
        }
        flushJunk(out);
        if (pos >= buffer_.size() || pos + 1 >= buffer_.size()) break;
        size_t length = buffer_[pos + 1];
        size_t total = length + 3;  // start, length, command+args, checksum
        if (length == 0) {
            // No command byte: not a frame; skip the start byte.
            junk_.push_back(buffer_[pos]);
            ++pos;
            continue;
        }
        if (pos + total > buffer_.size()) break;  // wait for the rest
        Item item;
        item.raw.assign(buffer_.begin() + static_cast<long>(pos),
                        buffer_.begin() + static_cast<long>(pos + total));
        if (XcpFrameCodec::checksum(item.raw) != 0) {
            item.kind = Kind::BadChecksum;
            out->push_back(item);
            pos += total;
            continue;
        }
        item.kind = Kind::Command;
        item.code = item.raw[2];
        item.args.assign(item.raw.begin() + 3, item.raw.end() - 1);
        out->push_back(item);
        pos += total;
    }
    buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<long>(pos));
}

}  // namespace upssim
