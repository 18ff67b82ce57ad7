// XcpUpsScript: the blocks of a small, well-behaved UPS ("Test UPS 1500",
// firmware 2.15, serial "SN-0042", alarms 56, 57 and 59, two outlets) and
// its accepted action replies; install() makes a scripted port answer with them.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "tests/fakes/ScriptedSerialPort.h"

struct XcpUpsScript {
    using P = ScriptedSerialPort;
    std::vector<int> commands = {0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C, 0x40, 0x41,
                                 0x42, 0x43, 0x89, 0x8A, 0x93, 0x97, 0x98, 0xA0, 0xCF};
    std::vector<int> capSpeeds = {1200, 2400, 9600, 19200};
    int maxCommandLength = 16;
    std::set<int> activeAlarms;  // of 56, 57, 59
    int outletState = 1;         // state of both outlets

    static std::string word(unsigned v) { return P::bytes({int(v & 0xFF), int(v >> 8 & 0xFF)}); }
    static std::string text(const std::string& t) { return char(t.size()) + t; }

    std::string identification() const
    {
        std::string meters(80, '\0');
        for (int m : {56, 78, 33, 27, 21, 62})
            meters[static_cast<size_t>(m)] = static_cast<char>(0xF1);
        // Firmware entries, rating 30 x 50 VA, id bytes, name, meter map, alarm
        // map (56, 57, 59: bits 0, 1, 3 of byte 7), config length, text, words.
        return P::bytes({2, 0x10, 0x01, 0x15, 0x02, 0, 30, 0, 1, 1}) + text("Test UPS 1500") + text(meters) +
               text(std::string(7, '\0') + '\x0B') + word(96) + text("SIM") + word(1) + word(0) + word(0x100) + '\0';
    }
    std::string configuration() const
    {
        std::string b(96, '\0');
        b[0] = static_cast<char>(230), b[36] = 2, b[37] = 1;
        return b.replace(64, 7, "SN-0042");
    }
    std::string limits() const { return word(230) + word(50) + word(30) + "KS" + std::string(23, '\0'); }
    std::string commandList() const
    {
        std::string b = P::bytes({static_cast<int>(commands.size()), 1});
        for (int c : commands)
            b.push_back(static_cast<char>(c));
        return b;
    }
    std::string capabilities() const
    {
        std::string b = P::bytes({0, static_cast<int>(capSpeeds.size())});
        for (int s : capSpeeds)
            b += word(static_cast<unsigned>(s));
        return b + char(maxCommandLength);
    }

    // Standing replies for every request and action command.
    void install(ScriptedSerialPort& port) const
    {
        std::string meters;  // meters 21, 27, 33, 56, 62, 78 in tenths
        for (unsigned value : {4500, 500, 542, 2300, 250, 2301})
            meters += word(value) + word(0);
        std::string outlets = P::bytes({2, 6});
        for (int seg = 1; seg <= 2; ++seg)
            outlets += P::bytes({seg, outletState, 0, 0, 0, 0});
        for (unsigned char code : {0xA0, 0x31})
            port.standingReply(code, P::reply(1, identification()));
        port.standingReply(0x33, P::reply(3, P::bytes({0x50, 100, 30, 0})));
        port.standingReply(0x34, P::reply(4, meters));
        port.standingReply(0x36, P::reply(6, configuration()));
        port.standingReply(0x3B, P::reply(0x0B, '\1' + std::string(17, '\0') + text("Test passed") + text("OK")));
        port.standingReply(0x3C, P::reply(0x0C, limits()));
        port.standingReply(0x40, P::reply(0x10, commandList()));
        port.standingReply(0x41, P::reply(0x11, outlets));
        port.standingReply(0x42, P::reply(0x12, capabilities()));
        port.standingReply(0x43, P::reply(0x13, P::bytes({0x10, 0x00, 0x01})));
        for (unsigned char code : {0x89, 0x8A, 0x93, 0x97, 0x98})
            port.standingReply(code, P::actionReply(code));
        updateAlarms(port);
    }
    // Re-installs the alarm block after activeAlarms changed.
    void updateAlarms(ScriptedSerialPort& port) const
    {
        const std::set<int>& a = activeAlarms;
        port.standingReply(0x35, P::reply(5, P::bytes({int(a.count(56)), int(a.count(57)), int(a.count(59))})));
    }
};
