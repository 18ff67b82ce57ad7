// FileSystem: the file-system calls with which FileMap replaces its file
// (create the temporary file, write, fsync, rename, directory fsync). The
// system implementation calls the C library; tests substitute one that
// fails a chosen call, to show that a failed save leaves the old file.
#pragma once

#include <string>
#include <sys/stat.h>
#include <sys/types.h>

class FileSystem {
public:
    virtual ~FileSystem() {}
    // Each has the C library's contract: -1 and errno on failure.
    virtual int open(const char* path, int flags, mode_t mode) = 0;
    virtual ssize_t read(int fd, void* buf, size_t n) = 0;
    virtual ssize_t write(int fd, const void* buf, size_t n) = 0;
    virtual int fstat(int fd, struct stat* st) = 0;
    virtual int fchmod(int fd, mode_t mode) = 0;
    virtual int fchown(int fd, uid_t uid, gid_t gid) = 0;
    virtual int fsync(int fd) = 0;
    virtual int close(int fd) = 0;
    virtual int rename(const char* from, const char* to) = 0;
    virtual int unlink(const char* path) = 0;

    // Reads from fd to its end into out (EINTR retried); false, with errno
    // set, when a read fails.
    bool readAll(int fd, std::string* out);

    // The file system of the running daemon.
    static FileSystem& system();
};

class SystemFileSystem : public FileSystem {
public:
    int open(const char* path, int flags, mode_t mode) override;
    ssize_t read(int fd, void* buf, size_t n) override;
    ssize_t write(int fd, const void* buf, size_t n) override;
    int fstat(int fd, struct stat* st) override;
    int fchmod(int fd, mode_t mode) override;
    int fchown(int fd, uid_t uid, gid_t gid) override;
    int fsync(int fd) override;
    int close(int fd) override;
    int rename(const char* from, const char* to) override;
    int unlink(const char* path) override;
};
