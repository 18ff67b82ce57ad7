// ManualClock: a clock tests set and step by hand; utc() gives the time of a
// UTC calendar date to set it with. set() is the clock being set (the
// monotonic reading stays); advance() is time passing (both move).
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>

#include "core/Clock.h"

class ManualClock : public Clock {
public:
    explicit ManualClock(time_t start = 1794000000) : mNow(start), mMono(0) {}
    time_t now() override { return mNow.load(); }
    int64_t monotonicNs() override { return mMono.load(); }
    void set(time_t t) { mNow.store(t); }
    void advance(time_t seconds)
    {
        mNow.fetch_add(seconds);
        mMono.fetch_add(static_cast<int64_t>(seconds) * 1000000000);
    }

    static time_t utc(int year, int month, int day, int hour, int minute, int second)
    {
        struct tm t = {};
        t.tm_year = year - 1900;
        t.tm_mon = month - 1;
        t.tm_mday = day;
        t.tm_hour = hour;
        t.tm_min = minute;
        t.tm_sec = second;
        return timegm(&t);
    }

private:
    std::atomic<time_t> mNow;
    std::atomic<int64_t> mMono;
};
