#include "tools/upssim/FrameLog.h"

#include <errno.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

namespace upssim {

FrameLog::~FrameLog() {
    if (file_) std::fclose(file_);
}

bool FrameLog::open(const std::string& path, std::string* error) {
    std::lock_guard<std::mutex> lock(mu_);
    if (file_) std::fclose(file_);
    file_ = nullptr;
    if (path.empty()) return true;
    file_ = std::fopen(path.c_str(), "a");
    if (!file_) {
        *error = "cannot open log file " + path + ": " + strerror(errno);
        return false;
    }
    return true;
}

std::string FrameLog::timestamp() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    struct tm tm;
    localtime_r(&tv.tv_sec, &tm);
    char buf[64];
    size_t n = strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S", &tm);
    std::snprintf(buf + n, sizeof buf - n, ".%03ld", static_cast<long>(tv.tv_usec / 1000));
    return buf;
}

void FrameLog::write(const char* kind, const std::string& text) {
    std::lock_guard<std::mutex> lock(mu_);
    if (!file_ && !mirror_) return;
    std::string line = timestamp() + " " + kind + " " + text + "\n";
    if (file_) {
        std::fputs(line.c_str(), file_);
        std::fflush(file_);
    }
    if (mirror_) {
        std::fputs(line.c_str(), mirror_);
        std::fflush(mirror_);
    }
}

}  // namespace upssim
