// ScriptedSerialPort: a serial line that plays a UPS from a script, on a
// virtual time moved only by its sleeper() and waitReadable(), so the link's waits cost nothing.
// Replies are scripted per command code; every write is recorded with its speed.
#pragma once

#include <algorithm>
#include <cstdio>
#include <deque>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "xcp/SerialPort.h"
#include "xcp/Sleeper.h"

class ScriptedSerialPort : public SerialPort, private Sleeper {
public:
    // Bytes that begin to arrive delayMs after the write, chunk bytes (0: all) every gapMs.
    struct Reply {
        std::string bytes;
        int delayMs = 0, chunk = 0, gapMs = 50;
    };

    int openResult = 7;          // what open() gives (-1: fails)
    bool rawFails = false, readFails = false, dsrFollowsDtr = false;
    bool hungUp = false;         // read() and write() fail until the next open()
    int shortWriteBy = 0;        // write() takes this many bytes fewer
    std::string pnpText;         // sent 100 ms after every DTR rise, when not empty
    std::set<int> answerSpeeds;  // speeds the UPS answers at (empty: any)

    // Answer the next frame with this command code once; standing: every one after the queued ones.
    void queueReply(unsigned char code, const std::string& b, int delay = 0) { queueReply(code, Reply{b, delay}); }
    void queueReply(unsigned char code, const Reply& r) { mOnce[code].push_back(r); }
    void standingReply(unsigned char code, const std::string& bytes) { mStanding[code] = Reply{bytes}; }
    void clearReplies() { mOnce.clear(), mStanding.clear(); }

    std::vector<std::string> writes, openedPaths;  // every write, as given; every open
    std::vector<int> writeSpeeds;                   // the speed set at each write
    bool rts = false;
    int reads = 0, waits = 0;  // read() and waitReadable() calls
    long nowMs() const override { return mNow; }
    // The framed writes with this command code; the codes of all framed writes, in order.
    std::vector<std::string> framesWithCode(unsigned char code) const
    {
        std::vector<std::string> out;
        std::copy_if(writes.begin(), writes.end(), std::back_inserter(out), [&](auto& w) { return codeOf(w) == code; });
        return out;
    }
    std::vector<int> codesWritten() const
    {
        std::vector<int> out;
        for (const std::string& w : writes)
            if (codeOf(w) >= 0)
                out.push_back(codeOf(w));
        return out;
    }
    Sleeper& sleeper() { return *this; }

    static std::string bytes(std::initializer_list<int> list)
    {
        std::string s;
        for (int b : list)
            s.push_back(static_cast<char>(b & 0xFF));
        return s;
    }
    // One reply frame: start, block, length, sequence, data, checksum.
    static std::string frame(int block, int sequence, const std::string& data)
    {
        std::string f = bytes({0xAB, block, static_cast<int>(data.size()), sequence}) + data;
        unsigned sum = 0;
        for (unsigned char c : f)
            sum += c;
        return f + static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF);
    }
    // A complete single-frame reply; the accepted answer to an action command (block 9 echoing the code).
    static std::string reply(int block, const std::string& data) { return frame(block, 0x81, data); }
    static std::string actionReply(unsigned char code) { return reply(9, bytes({0x31, code})); }
    static std::string hex(const std::string& s)
    {
        std::string out;
        char buf[4];
        for (unsigned char c : s)
            snprintf(buf, sizeof buf, "%02X", c), out += (out.empty() ? "" : " ") + std::string(buf);
        return out;
    }

    int open(const std::string& path) override
    {
        openedPaths.push_back(path);
        mOpen = openResult >= 0;
        hungUp = hungUp && !mOpen;
        return openResult;
    }
    void close() override { mOpen = false; }
    bool isOpen() const override { return mOpen; }
    bool makeRaw() override { return !rawFails; }
    bool setSpeed(int rate) override { return (mSpeed = rate) >= 0; }
    int getSpeed() const override { return mSpeed; }
    int read(unsigned char* buf, int max) override
    {
        ++reads;
        if (readFails || hungUp)
            return -1;
        int n = 0;
        for (auto it = mIncoming.begin(); n < max && it != mIncoming.end() && it->first <= mNow;) {
            buf[n++] = static_cast<unsigned char>(it->second[0]);
            it->second.erase(0, 1);
            if (it->second.empty())
                it = mIncoming.erase(it);
        }
        return n;
    }
    // Virtual time moves to the first arrival due within the time-out, or by the whole time-out.
    bool waitReadable(int timeoutMs) override
    {
        ++waits;
        if (readFails || hungUp)
            return true;
        if (!mIncoming.empty() && mIncoming.begin()->first <= mNow + timeoutMs)
            return mNow = std::max(mNow, mIncoming.begin()->first), true;
        return mNow += std::max(timeoutMs, 0), false;
    }
    int write(const unsigned char* buf, int count) override
    {
        if (hungUp)
            return -1;
        writes.emplace_back(reinterpret_cast<const char*>(buf), static_cast<size_t>(count));
        writeSpeeds.push_back(mSpeed);
        const int code = codeOf(writes.back());
        if (code < 0 || (!answerSpeeds.empty() && !answerSpeeds.count(mSpeed)))
            return count - shortWriteBy;
        std::deque<Reply>& once = mOnce[code];
        if (!once.empty())
            schedule(once.front()), once.pop_front();
        else if (mStanding.count(code))
            schedule(mStanding[code]);
        return count - shortWriteBy;
    }
    void flush() override
    {
        while (!mIncoming.empty() && mIncoming.begin()->first <= mNow)
            mIncoming.erase(mIncoming.begin());
    }
    bool setRTS(bool on) override { return (rts = on) || true; }
    bool setDTR(bool on) override
    {
        if (on && !mDtr && !pnpText.empty())
            mIncoming.emplace(mNow + 100, pnpText);
        return mDtr = on, true;
    }
    bool getModemStatus(int* status) override { return *status = dsrFollowsDtr && mDtr ? kDataSetReady : 0, true; }
    bool clearBreak() override { return true; }

private:
    void sleepMs(int ms) override { mNow += ms; }
    static int codeOf(const std::string& w)
    {
        return w.size() >= 3 && static_cast<unsigned char>(w[0]) == 0xAB ? static_cast<unsigned char>(w[2]) : -1;
    }
    // Arrivals keep time order; equal times keep the order given.
    void schedule(const Reply& r)
    {
        const size_t step = r.chunk > 0 ? static_cast<size_t>(r.chunk) : r.bytes.size() + 1;
        long at = mNow + r.delayMs;
        for (size_t i = 0; i < r.bytes.size(); i += step, at += r.gapMs)
            mIncoming.emplace(at, r.bytes.substr(i, step));
    }

    std::map<int, std::deque<Reply>> mOnce;
    std::map<int, Reply> mStanding;
    std::multimap<long, std::string> mIncoming;
    long mNow = 0;
    int mSpeed = 0;
    bool mOpen = false, mDtr = false;
};
