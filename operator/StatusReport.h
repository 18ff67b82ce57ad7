// StatusReport: the daemon's state as the operator's "status" command shows
// it. On the daemon side it gathers a snapshot (role, UPS identity, state,
// power, battery and meters, active alarms by name, running countdowns, the
// registered members or the followed controllers) as an ordered list of
// key/value items, each taking the locks of its source. On the console side
// it checks those items (they arrive as untrusted bytes) and renders them as
// a few lines of text or one JSON object, and gives the monitoring exit
// status. Neither side changes anything.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "operator/ConsoleRequest.h"

class Clock;
class IpcData;
class StCTrl;
class UpsDataBlock;

class StatusReport {
public:
    using Item = std::pair<std::string, std::string>;
    using Items = std::vector<Item>;

    // Where the daemon's values come from (null pointers: not available).
    struct Sources {
        StCTrl* ctrl = nullptr; // also the configuration it reads
        UpsDataBlock** ups = nullptr;
        IpcData** members = nullptr;
        Clock* clock = nullptr;      // null: the system clock
        std::string shutdownCommand; // empty: the daemon's host shutdown command
    };

    // Monitoring exit statuses of "status".
    enum { ExitOk = 0, ExitAttention = 1, ExitUnreachable = 2 };

    // Records an answer may hold at most (the end record included).
    static const int kMaxRecords = 1024;

    // The daemon's snapshot, in the order the console shows it.
    static Items collect(const Sources& sources);

    // One answer record per item (command CmdStatusItem, texts cut to their
    // fields and zero-terminated), then the end record (CmdAnswer).
    static std::vector<CUIMSGINFO> toRecords(const Items& items);
    // Takes one answer record: true and the item for CmdStatusItem (key and
    // value must be terminated within their fields, the key made of
    // [a-z0-9_.] only), *done for the end record; false for anything else.
    static bool fromRecord(const CUIMSGINFO& rec, Item* item, bool* done);

    // "Role: controller" ... : a few lines, printable characters only.
    static std::string text(const Items& items);
    // One JSON object (keys in docs/PROTOCOL.md), line feed at the end.
    static std::string json(const Items& items);
    // ExitOk when the UPS (or every followed controller) is on utility,
    // communicating, with no alarm and no countdown; ExitAttention otherwise;
    // ExitUnreachable when the items name no role.
    static int exitCode(const Items& items);

    // The name of UPS alarm 0..229 ("Utility not present"); "" out of range.
    static const char* alarmName(int alarm);

    // Text for a JSON string (quotes not included): quote and backslash
    // escaped, control characters as \u00XX, bytes outside ASCII as '?'.
    static std::string jsonEscape(const std::string& s);
    // Text for a terminal line: bytes outside the printable ASCII range as '?'.
    static std::string printable(const std::string& s);
};
