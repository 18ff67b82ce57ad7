// ScriptedSerialPort: a serial line that plays a UPS from a script. It keeps
// its own virtual time, moved only by its sleeper (sleeper()), so the UPS
// link's fixed pauses cost nothing; reply bytes arrive "as time passes".
// Replies are scripted per command code (once or standing), the modem
// lines can follow DTR with a plug-and-play text sent on every DTR rise,
// and everything written is recorded with the speed it was written at.
#pragma once

#include <cstdio>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "xcp/SerialPort.h"
#include "xcp/Sleeper.h"

class ScriptedSerialPort : public SerialPort {
public:
    // A scripted answer: bytes that begin to arrive delayMs after the write,
    // chunk bytes (0: all) every gapMs.
    struct Reply {
        std::string bytes;
        int delayMs = 0;
        int chunk = 0;
        int gapMs = 50;
    };

    // ---- script ----
    int openResult = 7;        // descriptor-like value open() gives (-1: fails)
    bool rawFails = false;
    bool readFails = false;    // read() returns -1 (nothing ever arrives)
    int shortWriteBy = 0;      // write() takes this many bytes fewer
    int modemStatus = 0;       // input lines reported
    bool modemStatusFails = false;
    bool dsrFollowsDtr = false;
    std::string pnpText;       // sent 100 ms after every DTR rise, when not empty
    std::set<int> answerSpeeds; // speeds the UPS answers at (empty: any)
    // Called for every write after the scripted replies were looked up.
    std::function<void(ScriptedSerialPort&, const std::string&)> onWrite;

    // Answer the next frame with this command code once.
    void queueReply(unsigned char code, const std::string& bytes, int delayMs = 0)
    {
        Reply r;
        r.bytes = bytes;
        r.delayMs = delayMs;
        mOnce[code].push_back(r);
    }
    void queueReply(unsigned char code, const Reply& r) { mOnce[code].push_back(r); }
    // Answer every frame with this command code (after the queued ones).
    void standingReply(unsigned char code, const std::string& bytes) { mStanding[code] = bytes; }
    void clearReplies()
    {
        mOnce.clear();
        mStanding.clear();
    }
    // Bytes that arrive delayMs from now, whatever was written.
    void deliver(const std::string& bytes, int delayMs = 0) { arrive(mNow + delayMs, bytes); }

    // ---- what happened ----
    std::vector<std::string> writes;   // every write, as given
    std::vector<int> writeSpeeds;      // the speed set at each write
    std::vector<int> speedLog;         // every speed set
    std::vector<std::string> openedPaths;
    int flushes = 0;
    int closes = 0;
    bool rts = false;
    bool dtr = false;
    long nowMs() const { return mNow; }
    // The writes that are frames with this command code.
    std::vector<std::string> framesWithCode(unsigned char code) const
    {
        std::vector<std::string> out;
        for (const std::string& w : writes)
            if (w.size() >= 3 && static_cast<unsigned char>(w[0]) == 0xAB && static_cast<unsigned char>(w[2]) == code)
                out.push_back(w);
        return out;
    }
    // Command codes of all framed writes, in order ("34 35 ...").
    std::vector<int> codesWritten() const
    {
        std::vector<int> out;
        for (const std::string& w : writes)
            if (w.size() >= 3 && static_cast<unsigned char>(w[0]) == 0xAB)
                out.push_back(static_cast<unsigned char>(w[2]));
        return out;
    }

    // ---- time ----
    void advance(int ms) { mNow += ms; }
    Sleeper& sleeper() { return mSleeper; }

    // ---- frame helpers ----
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
        std::string f;
        f.push_back(static_cast<char>(0xAB));
        f.push_back(static_cast<char>(block));
        f.push_back(static_cast<char>(data.size()));
        f.push_back(static_cast<char>(sequence));
        f += data;
        unsigned sum = 0;
        for (unsigned char c : f)
            sum += c;
        f.push_back(static_cast<char>((0x100 - (sum & 0xFF)) & 0xFF));
        return f;
    }
    // A complete single-frame reply.
    static std::string reply(int block, const std::string& data) { return frame(block, 0x81, data); }
    // The accepted answer to an action command (block 9 echoing the code).
    static std::string actionReply(unsigned char code) { return reply(9, bytes({0x31, code})); }
    static std::string hex(const std::string& s)
    {
        std::string out;
        char buf[4];
        for (size_t i = 0; i < s.size(); ++i) {
            snprintf(buf, sizeof buf, i ? " %02X" : "%02X", static_cast<unsigned char>(s[i]));
            out += buf;
        }
        return out;
    }

    // ---- SerialPort ----
    int open(const std::string& path) override
    {
        openedPaths.push_back(path);
        mOpen = openResult >= 0;
        return openResult;
    }
    void close() override
    {
        ++closes;
        mOpen = false;
    }
    bool isOpen() const override { return mOpen; }
    bool makeRaw() override { return !rawFails; }
    bool setSpeed(int rate) override
    {
        static const int kKnown[] = {50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800, 2400, 4800, 9600, 19200, 38400};
        mSpeed = 0;
        for (int k : kKnown)
            if (k == rate)
                mSpeed = rate;
        speedLog.push_back(mSpeed);
        return true;
    }
    int getSpeed() const override { return mSpeed; }
    int read(unsigned char* buf, int max) override
    {
        if (readFails)
            return -1;
        int n = 0;
        while (n < max && !mIncoming.empty() && mIncoming.front().at <= mNow) {
            Arrival& a = mIncoming.front();
            while (n < max && !a.bytes.empty()) {
                buf[n++] = static_cast<unsigned char>(a.bytes[0]);
                a.bytes.erase(0, 1);
            }
            if (a.bytes.empty())
                mIncoming.pop_front();
        }
        return n;
    }
    int write(const unsigned char* buf, int count) override
    {
        std::string w(reinterpret_cast<const char*>(buf), static_cast<size_t>(count));
        writes.push_back(w);
        writeSpeeds.push_back(mSpeed);
        if (w.size() >= 3 && static_cast<unsigned char>(w[0]) == 0xAB &&
            (answerSpeeds.empty() || answerSpeeds.count(mSpeed))) {
            unsigned char code = static_cast<unsigned char>(w[2]);
            auto once = mOnce.find(code);
            if (once != mOnce.end() && !once->second.empty()) {
                schedule(once->second.front());
                once->second.pop_front();
            } else {
                auto standing = mStanding.find(code);
                if (standing != mStanding.end()) {
                    Reply r;
                    r.bytes = standing->second;
                    schedule(r);
                }
            }
        }
        if (onWrite)
            onWrite(*this, w);
        return count - shortWriteBy;
    }
    void flush() override
    {
        ++flushes;
        while (!mIncoming.empty() && mIncoming.front().at <= mNow)
            mIncoming.pop_front();
    }
    bool setRTS(bool on) override
    {
        rts = on;
        return true;
    }
    bool setDTR(bool on) override
    {
        bool rise = on && !dtr;
        dtr = on;
        if (rise && !pnpText.empty())
            deliver(pnpText, 100);
        return true;
    }
    bool getModemStatus(int* status) override
    {
        if (modemStatusFails)
            return false;
        int s = modemStatus;
        if (dsrFollowsDtr)
            s = dtr ? (s | kDataSetReady) : (s & ~kDataSetReady);
        *status = s;
        return true;
    }
    bool clearBreak() override { return true; }

private:
    struct Arrival {
        long at;
        std::string bytes;
    };
    class VirtualSleeper : public Sleeper {
    public:
        explicit VirtualSleeper(ScriptedSerialPort* port) : mPort(port) {}
        void sleepMs(int ms) override { mPort->advance(ms); }

    private:
        ScriptedSerialPort* mPort;
    };

    // Keeps arrivals in time order (equal times in the order given).
    void arrive(long at, const std::string& bytes)
    {
        auto it = mIncoming.begin();
        while (it != mIncoming.end() && it->at <= at)
            ++it;
        mIncoming.insert(it, Arrival{at, bytes});
    }

    void schedule(const Reply& r)
    {
        if (r.chunk <= 0) {
            arrive(mNow + r.delayMs, r.bytes);
            return;
        }
        long at = mNow + r.delayMs;
        for (size_t i = 0; i < r.bytes.size(); i += static_cast<size_t>(r.chunk), at += r.gapMs)
            arrive(at, r.bytes.substr(i, static_cast<size_t>(r.chunk)));
    }

    std::map<unsigned char, std::deque<Reply>> mOnce;
    std::map<unsigned char, std::string> mStanding;
    std::deque<Arrival> mIncoming;
    long mNow = 0;
    int mSpeed = 0;
    bool mOpen = false;
    VirtualSleeper mSleeper{this};
};
