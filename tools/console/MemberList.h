// MemberList: the operator's view of the shutdown members registered with
// the controller on this machine. It reads the daemon's status table
// "membCommInfo.tmp" (rewritten by the daemon on every member status
// change) from the daemon's home directory and prints it with a summary of
// how many members are "Active", that is, will be told of a power failure.
#pragma once

#include <cstdio>
#include <string>

class MemberList {
public:
    struct Summary {
        int members = 0;
        int active = 0;
    };

    // Reads the table in homeDir ("" or ending in "/": used as it is, else a
    // "/" is added) and writes it, then the summary, to out. 0 when the
    // table was read or does not exist yet (no member registered), 1 with
    // *error set when it cannot be read.
    static int print(const std::string& homeDir, FILE* out, std::string* error);

    // Counts the members and the active ones of a table's text.
    static Summary summarise(const std::string& table);
};
