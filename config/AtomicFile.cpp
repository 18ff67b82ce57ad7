#include "config/AtomicFile.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

#include "config/FileSystem.h"
#include "core/ErrorLog.h"

namespace {
// Numbers the temporary files of one process, so that two saves never pick
// the same name.
std::atomic<unsigned> gTempCount{0};
} // namespace

bool AtomicFile::replace(FileSystem& fs, const std::string& path, const std::string& text, const Attributes& attr,
                         const std::string& shown)
{
    std::string::size_type slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);

    std::string temp;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temp = path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(gTempCount++);
        fd = fs.open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST)
            break;
    }
    const char* step = "creating a temporary file";
    bool ok = fd >= 0;
    size_t done = 0;
    if (ok)
        step = "write";
    while (ok && done < text.size()) {
        ssize_t n = fs.write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            if (n == 0)
                errno = EIO;
            ok = false;
            break;
        }
        done += static_cast<size_t>(n);
    }
    if (ok && attr.setOwner) {
        step = "fchown";
        ok = fs.fchown(fd, attr.uid, attr.gid) == 0;
    }
    if (ok) {
        step = "fchmod";
        ok = fs.fchmod(fd, attr.mode & 07777) == 0;
    }
    if (ok) {
        step = "fsync";
        ok = fs.fsync(fd) == 0;
    }
    if (fd >= 0) {
        int err = errno;
        if (fs.close(fd) != 0 && ok) {
            step = "close";
            ok = false;
            err = errno;
        }
        errno = err;
    }
    if (ok) {
        step = "rename";
        ok = fs.rename(temp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        int err = errno;
        if (fd >= 0)
            fs.unlink(temp.c_str());
        ErrorLog::report("cannot save " + shown + ": " + step + " failed: " + std::strerror(err) +
                         "; the file is left as it was");
        return false;
    }
    int dfd = fs.open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (dfd < 0 || fs.fsync(dfd) != 0)
        ErrorLog::report("saved " + shown + " but could not flush its directory: " + std::strerror(errno));
    if (dfd >= 0)
        fs.close(dfd);
    return true;
}
