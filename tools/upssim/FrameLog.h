// FrameLog: the simulator's traffic log. One line per frame received or
// sent ("2026-11-22 20:41:07.123 RX AB 01 31 23") and per event worth
// noting ("... NOTE delayed power-off: ..."), flushed line by line so a
// test can read it while the simulator runs. Optionally mirrored to a
// second stream (standard error with --verbose).
#ifndef KESTRAVA_TOOLS_UPSSIM_FRAMELOG_H
#define KESTRAVA_TOOLS_UPSSIM_FRAMELOG_H

#include <cstdio>
#include <mutex>
#include <string>

namespace upssim {

class FrameLog {
public:
    FrameLog() = default;
    ~FrameLog();
    FrameLog(const FrameLog&) = delete;
    FrameLog& operator=(const FrameLog&) = delete;

    // Appends to path; an empty path logs nowhere but the mirror.
    bool open(const std::string& path, std::string* error);
    void setMirror(FILE* mirror) { mirror_ = mirror; }

    // kind is "RX", "TX" or "NOTE".
    void write(const char* kind, const std::string& text);

    // Local time with milliseconds: "2026-11-22 20:41:07.123".
    static std::string timestamp();

private:
    std::mutex mu_;
    FILE* file_ = nullptr;
    FILE* mirror_ = nullptr;
};

}  // namespace upssim

#endif
