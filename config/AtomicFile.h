// AtomicFile: replaces a whole file so that a crash, a full disk or any
// failed call leaves either the old file or the new one, never half of one:
// the text goes into a new file beside the old one, which gets its mode (and
// owner), is flushed to disk and renamed over the old one; the directory is
// flushed last. On failure the new file is removed, the old one stays, and
// one line says which step failed.
#pragma once

#include <string>
#include <sys/types.h>

class FileSystem;

class AtomicFile {
public:
    struct Attributes {
        mode_t mode = 0644;  // permission bits of the new file
        bool setOwner = false;
        uid_t uid = 0;
        gid_t gid = 0;
    };

    // path: the file to replace (its directory must exist); shown: the name
    // used in the failure line. True when the new file is in place.
    static bool replace(FileSystem& fs, const std::string& path, const std::string& text, const Attributes& attr,
                        const std::string& shown);
};
