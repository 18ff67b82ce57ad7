// XcpUpsScript: the blocks of a small, well-behaved XCP UPS for scripted
// serial ports: identification (firmware 2.15, 1500 VA, six summary meters,
// alarms 56, 57 and 59), configuration, limits, topology, two outlets,
// command list and capabilities, and the accepted action replies.
// install() makes a ScriptedSerialPort answer every request with them.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "tests/fakes/ScriptedSerialPort.h"

struct XcpUpsScript {
    std::string unitName = "Test UPS 1500";
    std::string serial = "SN-0042";
    std::string limitsCode = "KS";
    std::vector<int> commands = {0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C, 0x40, 0x41, 0x42,
                                 0x43, 0x89, 0x8A, 0x93, 0x97, 0x98, 0xA0, 0xCF};
    std::vector<int> capSpeeds = {1200, 2400, 9600, 19200};
    int maxCommandLength = 16;
    std::set<int> activeAlarms;   // of 56, 57, 59
    int outletState = 1;          // state of both outlets

    static void word(std::string* s, unsigned v)
    {
        s->push_back(static_cast<char>(v & 0xFF));
        s->push_back(static_cast<char>((v >> 8) & 0xFF));
    }
    static void text(std::string* s, const std::string& t)
    {
        s->push_back(static_cast<char>(t.size()));
        *s += t;
    }

    std::string identification() const
    {
        std::string b = ScriptedSerialPort::bytes({2, 0x10, 0x01, 0x15, 0x02});
        b += ScriptedSerialPort::bytes({0, 30, 0});  // 30 x 50 VA
        b += ScriptedSerialPort::bytes({1, 1});
        text(&b, unitName);
        std::string meters(80, '\0');
        for (int m : {56, 78, 33, 27, 21, 62})
            meters[static_cast<size_t>(m)] = static_cast<char>(0xF1);
        text(&b, meters);
        // Alarms 56, 57 and 59: bits 0, 1 and 3 of byte 7.
        std::string alarms(8, '\0');
        alarms[7] = 0x0B;
        text(&b, alarms);
        word(&b, 96);
        text(&b, "SIM");
        word(&b, 1);
        word(&b, 0);
        word(&b, 0x100);
        b.push_back(0);
        return b;
    }
    std::string configuration() const
    {
        std::string b(96, '\0');
        b[0] = static_cast<char>(230);
        b[36] = 2;
        b[37] = 1;
        for (size_t i = 0; i < serial.size() && i < 16; ++i)
            b[64 + i] = serial[i];
        return b;
    }
    std::string limits() const
    {
        std::string b;
        word(&b, 230);
        word(&b, 50);
        word(&b, 30);
        b += limitsCode.substr(0, 2);
        b += std::string(23, '\0');
        return b;
    }
    std::string topology() const { return ScriptedSerialPort::bytes({0x10, 0x00, 0x01}); }
    std::string outlets() const
    {
        std::string b = ScriptedSerialPort::bytes({2, 6});
        for (int seg = 1; seg <= 2; ++seg) {
            b.push_back(static_cast<char>(seg));
            b.push_back(static_cast<char>(outletState));
            word(&b, 0);
            word(&b, 0);
        }
        return b;
    }
    std::string commandList() const
    {
        std::string b;
        b.push_back(static_cast<char>(commands.size()));
        b.push_back(1);
        for (int c : commands)
            b.push_back(static_cast<char>(c));
        return b;
    }
    std::string capabilities() const
    {
        std::string b(1, '\0');
        b.push_back(static_cast<char>(capSpeeds.size()));
        for (int s : capSpeeds)
            word(&b, static_cast<unsigned>(s));
        b.push_back(static_cast<char>(maxCommandLength));
        return b;
    }
    std::string alarmStates() const
    {
        std::string b;
        for (int a : {56, 57, 59})
            b.push_back(activeAlarms.count(a) ? 1 : 0);
        return b;
    }
    std::string meters() const
    {
        std::string b;
        // Meters 21, 27, 33, 56, 62, 78 in meter-number order, in tenths.
        for (int value : {4500, 500, 542, 2300, 250, 2301}) {
            word(&b, static_cast<unsigned>(value));
            word(&b, 0);
        }
        return b;
    }
    std::string status() const { return ScriptedSerialPort::bytes({0x50, 100, 30, 0}); }
    std::string batteryTest() const
    {
        std::string b(18, '\0');
        b[0] = 1;
        text(&b, "Test passed");
        text(&b, "Charge 100%");
        return b;
    }

    // Standing replies for every request and action command.
    void install(ScriptedSerialPort& port) const
    {
        using P = ScriptedSerialPort;
        port.standingReply(0xA0, P::reply(1, identification()));
        port.standingReply(0x31, P::reply(1, identification()));
        port.standingReply(0x33, P::reply(3, status()));
        port.standingReply(0x34, P::reply(4, meters()));
        port.standingReply(0x35, P::reply(5, alarmStates()));
        port.standingReply(0x36, P::reply(6, configuration()));
        port.standingReply(0x3B, P::reply(0x0B, batteryTest()));
        port.standingReply(0x3C, P::reply(0x0C, limits()));
        port.standingReply(0x40, P::reply(0x10, commandList()));
        port.standingReply(0x41, P::reply(0x11, outlets()));
        port.standingReply(0x42, P::reply(0x12, capabilities()));
        port.standingReply(0x43, P::reply(0x13, topology()));
        for (unsigned char code : {0x89, 0x8A, 0x93, 0x97, 0x98})
            port.standingReply(code, P::actionReply(code));
    }
    // Re-installs the alarm block after activeAlarms changed.
    void updateAlarms(ScriptedSerialPort& port) const
    {
        port.standingReply(0x35, ScriptedSerialPort::reply(5, alarmStates()));
    }
};
