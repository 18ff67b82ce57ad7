// ConsoleRequest: one request of the console port, decoded from its
// 260-byte record and checked before anything is stored. The decoding is a
// pure function of the bytes received and of the operator's opt-in for the
// keys that run programs or name files, so it can be tested and fuzzed on
// its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

// Request and answer record of the console port (native byte order: the
// console tool runs on the same machine).
struct CUIMSGINFO {
    int32_t command;
    char key[128];
    char value[128];
};
static_assert(sizeof(CUIMSGINFO) == 260, "the console record is 260 bytes");

class ConsoleRequest {
public:
    // Command values of the record.
    enum {
        CmdPresence = 1,  // answered with CmdAnswer
        CmdSetConf = 10,  // store key = value, save, answer with CmdAnswer
        CmdStatus = 20,   // read-only: answered with CmdStatusItem records, then CmdAnswer
        CmdAnswer = 128,
        CmdRefused = 129, // answer to a refused request; its value says why
        CmdStatusItem = 130, // one item of the status: key = name, value = text
    };

    enum Kind {
        Close,    // not a whole record: the connection ends
        Ignore,   // unknown command: no answer
        Presence, // answer CmdAnswer
        SetConf,  // store key and value, save, answer CmdAnswer
        Refused,  // answer CmdRefused with `reason`; nothing is stored
        Status,   // answer with the status items; nothing is stored
    };

    // The key that lets the console change the keys of isCommandKey; it is
    // read from "Kestrava.ini" and can never be changed through the console.
    static const char* const kAllowKey; // "CuiAllowCommandKeys"

    // Decodes `size` bytes received as one record. allowCommandKeys: the
    // operator's opt-in ("CuiAllowCommandKeys=1").
    static ConsoleRequest decode(const void* data, size_t size, bool allowCommandKeys);

    // True for the keys that run programs as root, name files or devices,
    // or decide who can reach the daemon ("AppTermCommand%d", "Path",
    // "DeviceName", "UPSController", "CuiAddress", "CuiPort", "IPAddress",
    // "MemberPort", "CtrlPort%d") and for the allow key itself.
    static bool isCommandKey(const std::string& key);

    // The answer record to this request (CmdAnswer, or CmdRefused with the
    // key and the reason in the value field, zero-terminated).
    CUIMSGINFO answer() const;

    Kind kind = Close;
    int32_t command = 0;
    std::string key;
    std::string value;
    std::string reason; // why a request was refused
};
