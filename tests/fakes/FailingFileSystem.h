// FailingFileSystem: the real file system, except that one chosen call
// fails with a chosen error, as on a full or broken disk.
#pragma once

#include <cerrno>
#include <fcntl.h>
#include <string>

#include "config/FileSystem.h"

class FailingFileSystem : public SystemFileSystem {
public:
    // call: "write", "fsync", "rename", "open" (of a new file) or "" for none.
    std::string failing;
    int error = ENOSPC;

    int open(const char* path, int flags, mode_t mode) override
    {
        return (flags & O_CREAT) && failing == "open" ? fail() : SystemFileSystem::open(path, flags, mode);
    }
    ssize_t write(int fd, const void* buf, size_t n) override
    {
        // A full disk takes part of the text before it refuses the rest.
        if (failing == "write" && n > 1)
            return SystemFileSystem::write(fd, buf, n / 2);
        return failing == "write" ? fail() : SystemFileSystem::write(fd, buf, n);
    }
    int fsync(int fd) override { return failing == "fsync" ? fail() : SystemFileSystem::fsync(fd); }
    int rename(const char* from, const char* to) override
    {
        return failing == "rename" ? fail() : SystemFileSystem::rename(from, to);
    }

private:
    int fail()
    {
        errno = error;
        return -1;
    }
};
