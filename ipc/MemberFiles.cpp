// MemberFiles: reading and atomically replacing the member table's files.
#include "ipc/MemberFiles.h"

#include "config/FileSystem.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// One line on standard error and in the system log.
void report(const std::string& text)
{
    std::fprintf(stderr, "kestrava: %s\n", text.c_str());
    syslog(LOG_DAEMON | LOG_ERR, "%s", text.c_str());
}

// The text with every control character shown as '?' (for files and logs).
std::string fileSafe(std::string text)
{
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    return text;
}

// The decimal port of a member-file line, or -1 when it is not a number
// from 0 to 65535.
int parsePort(const std::string& line)
{
    if (line.empty() || line.size() > 5)
        return -1;
    int v = 0;
    for (char c : line) {
        if (c < '0' || c > '9')
            return -1;
        v = v * 10 + (c - '0');
    }
    return v <= 65535 ? v : -1;
}

// Numbers the temporary files of one process.
std::atomic<unsigned> gTempCount{0};

} // namespace

MemberFiles::MemberFiles(std::string membInfoPath, std::string statusPath, FileSystem* fs)
    : mMembInfo(std::move(membInfoPath)), mStatus(std::move(statusPath)), mFs(fs ? fs : &FileSystem::system())
{
}

bool MemberFiles::isClean(const std::string& text)
{
    for (char c : text)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            return false;
    return true;
}

std::string MemberFiles::field(const char* p, size_t size) { return std::string(p, strnlen(p, size)); }

void MemberFiles::setField(char* p, size_t size, const std::string& text)
{
    std::memset(p, 0, size);
    std::memcpy(p, text.data(), text.size() < size ? text.size() : size);
}

const char* MemberFiles::statusText(MEMB_STAT s)
{
    switch (s) {
    case MembNoEntry: return "No Entry";
    case MembNotActive: return "Not Active";
    case MembActive: return "Active";
    case MembCommFail: return "Comm Fail";
    }
    return "No Entry";
}

std::string MemberFiles::statusLines(int slot, const DUP_MEMB_INFO& m)
{
    std::string address = fileSafe(field(m.address, sizeof m.address));
    // Members on ports up to 3068 are deliberately not listed.
    if (address.size() <= 6 || m.port <= 3068)
        return std::string();
    std::string name = fileSafe(field(m.name, sizeof m.name));
    char a[16], b[160], c[64], line1[256];
    std::snprintf(a, sizeof a, "%2d ", slot);
    std::snprintf(b, sizeof b, "Name = %-50s", name.c_str());
    std::snprintf(c, sizeof c, "Status = %s", statusText(m.status));
    std::snprintf(line1, sizeof line1, "%s%s%s", a, b, c);
    char d[64], e[32], line2[128];
    if (m.memberId[0] == ' ')
        std::snprintf(d, sizeof d, "   IP = *%-16s ", address.c_str());
    else
        std::snprintf(d, sizeof d, "   IP =  %-16s ", address.c_str());
    std::snprintf(e, sizeof e, "Port = %4d", m.port);
    std::snprintf(line2, sizeof line2, "%s%s", d, e);
    return std::string(line1) + "\n" + line2 + "\n";
}

bool MemberFiles::readMembers(std::vector<Entry>* out, size_t max)
{
    int fd = mFs->open(mMembInfo.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0) {
        if (errno != ENOENT)
            report("cannot read " + mMembInfo + ": " + std::strerror(errno));
        return false;
    }
    std::string text;
    char buf[8192];
    bool ok = true;
    for (;;) {
        ssize_t n = mFs->read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            ok = n == 0;
            break;
        }
        text.append(buf, static_cast<size_t>(n));
    }
    int err = errno;
    mFs->close(fd);
    if (!ok) {
        report("cannot read " + mMembInfo + ": " + std::strerror(err));
        return false;
    }

    std::vector<std::string> lines;
    std::string::size_type from = 0;
    while (from < text.size()) {
        std::string::size_type end = text.find('\n', from);
        if (end == std::string::npos)
            end = text.size();
        std::string line = text.substr(from, end - from);
        if (!line.empty() && line.back() == '\r') // a file edited with CR LF line ends
            line.pop_back();
        lines.push_back(line);
        from = end + 1;
    }
    for (size_t i = 0; i < lines.size(); i += 4) {
        if (lines[i].empty())
            break;
        if (i + 3 >= lines.size()) {
            report(mMembInfo + ": the last member is incomplete and was not loaded");
            break;
        }
        if (out->size() >= max) {
            report(mMembInfo + ": more members than the table holds; the rest were not loaded");
            break;
        }
        Entry e;
        e.id = lines[i].substr(0, kMembIdSize);
        e.name = lines[i + 1].substr(0, 50);
        e.address = lines[i + 2].substr(0, kMembAddrSize);
        e.port = parsePort(lines[i + 3]);
        bool seen = false;
        for (const Entry& o : *out)
            seen = seen || o.id == e.id;
        if (!isClean(lines[i]) || !isClean(lines[i + 1]) || !isClean(lines[i + 2]) || e.port < 0 || seen) {
            report(mMembInfo + ": member \"" + fileSafe(e.id) + "\" skipped: " +
                   (seen ? "its ID appears twice" : "a control character or a bad port"));
            continue;
        }
        out->push_back(e);
    }
    return true;
}

bool MemberFiles::writeMembers(const std::vector<Entry>& members)
{
    std::string text;
    for (const Entry& e : members) {
        if (e.id.empty())
            continue;
        text += fileSafe(e.id) + "\n" + fileSafe(e.name) + "\n" + fileSafe(e.address) + "\n" +
                std::to_string(e.port) + "\n";
    }
    return replace(mMembInfo, text);
}

bool MemberFiles::writeStatus(const std::string& text) { return replace(mStatus, text); }

// Writes the text into a new file beside the old one, flushes it and renames
// it over the old one (a link in its place is replaced, not followed). The
// new file keeps the old one's permissions, or gets 0644. On failure the
// temporary file is removed and the old file stays.
bool MemberFiles::replace(const std::string& path, const std::string& text)
{
    mode_t mode = 0644;
    int old = mFs->open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0);
    if (old >= 0) {
        struct stat st;
        if (mFs->fstat(old, &st) == 0)
            mode = st.st_mode & 0777;
        mFs->close(old);
    }
    std::string::size_type slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? std::string(".") : path.substr(0, slash == 0 ? 1 : slash);

    std::string temp;
    int fd = -1;
    for (int attempt = 0; attempt < 100 && fd < 0; ++attempt) {
        temp = path + ".tmp." + std::to_string(getpid()) + "." + std::to_string(gTempCount++);
        fd = mFs->open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (fd < 0 && errno != EEXIST)
            break;
    }
    const char* step = "creating a temporary file";
    bool ok = fd >= 0;
    size_t done = 0;
    if (ok)
        step = "write";
    while (ok && done < text.size()) {
        ssize_t n = mFs->write(fd, text.data() + done, text.size() - done);
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
    if (ok) {
        step = "fchmod";
        ok = mFs->fchmod(fd, mode) == 0;
    }
    if (ok) {
        step = "fsync";
        ok = mFs->fsync(fd) == 0;
    }
    if (fd >= 0) {
        int err = errno;
        if (mFs->close(fd) != 0 && ok) {
            step = "close";
            ok = false;
            err = errno;
        }
        errno = err;
    }
    if (ok) {
        step = "rename";
        ok = mFs->rename(temp.c_str(), path.c_str()) == 0;
    }
    if (!ok) {
        int err = errno;
        if (fd >= 0)
            mFs->unlink(temp.c_str());
        report("cannot save " + path + ": " + step + " failed: " + std::strerror(err) + "; the file is left as it was");
        return false;
    }
    int dfd = mFs->open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
    if (dfd < 0 || mFs->fsync(dfd) != 0)
        report("saved " + path + " but could not flush its directory: " + std::strerror(errno));
    if (dfd >= 0)
        mFs->close(dfd);
    return true;
}
