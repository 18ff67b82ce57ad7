// MemberFiles: the two files of the member table. "MembInfo.dat" keeps the
// member list across restarts (four lines a member: ID, name, address,
// port); "membCommInfo.tmp" shows the operator every listed member with its
// status. Both are replaced whole through a temporary file that is written,
// flushed and renamed over the old one, so a crash or a full disk leaves the
// old file or the new one, never half of one. No text with a control
// character is ever written: such characters become '?'.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ipc/IpcDataRecords.h"

class FileSystem;

class MemberFiles {
public:
    // One member as "MembInfo.dat" holds it.
    struct Entry {
        std::string id;
        std::string name;
        std::string address;
        int port = 0;
    };

    // membInfoPath: the member list; statusPath: the operator's status
    // table; fs: where files are read and replaced (null: the real one).
    MemberFiles(std::string membInfoPath, std::string statusPath, FileSystem* fs = nullptr);

    // Reads the member list in file order, at most `max` members, up to the
    // first empty ID line. A member with a control character in a line, a
    // port that is not a number from 0 to 65535, or an ID seen before is
    // skipped with a log line. False when the file cannot be read (a missing
    // file is not logged).
    bool readMembers(std::vector<Entry>* out, size_t max);
    // Replaces the member list; false, with the old file kept and a log
    // line, when that fails.
    bool writeMembers(const std::vector<Entry>& members);
    // Replaces the status table with `text`; false as above.
    bool writeStatus(const std::string& text);

    // The two status-table lines of a member in `slot`, or nothing when the
    // member is not listed (address of 6 characters or less, port up to 3068).
    static std::string statusLines(int slot, const DUP_MEMB_INFO& m);
    static const char* statusText(MEMB_STAT s);

    // True when the text holds no control character (nor DEL).
    static bool isClean(const std::string& text);
    // The text of a fixed field: up to its first NUL or its end.
    static std::string field(const char* p, size_t size);
    // Bounded copy into a fixed field: NUL-padded, cut at the field size.
    static void setField(char* p, size_t size, const std::string& text);

    const std::string& membInfoPath() const { return mMembInfo; }
    const std::string& statusPath() const { return mStatus; }

private:
    std::string mMembInfo;
    std::string mStatus;
    FileSystem* mFs;

    bool replace(const std::string& path, const std::string& text);
};
