#include "config/FileSystem.h"

#include <cerrno>

#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

FileSystem& FileSystem::system()
{
    static SystemFileSystem real;
    return real;
}

int SystemFileSystem::open(const char* path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t SystemFileSystem::read(int fd, void* buf, size_t n) { return ::read(fd, buf, n); }
ssize_t SystemFileSystem::write(int fd, const void* buf, size_t n) { return ::write(fd, buf, n); }
int SystemFileSystem::fstat(int fd, struct stat* st) { return ::fstat(fd, st); }
int SystemFileSystem::fchmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }
int SystemFileSystem::fchown(int fd, uid_t uid, gid_t gid) { return ::fchown(fd, uid, gid); }
int SystemFileSystem::fsync(int fd) { return ::fsync(fd); }
int SystemFileSystem::close(int fd) { return ::close(fd); }
int SystemFileSystem::rename(const char* from, const char* to) { return ::rename(from, to); }
int SystemFileSystem::unlink(const char* path) { return ::unlink(path); }

bool FileSystem::readAll(int fd, std::string* out)
{
    char buf[8192];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        out->append(buf, static_cast<size_t>(n));
    }
}
