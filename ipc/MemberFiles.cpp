// MemberFiles: reading and atomically replacing the member table's files.
#include "ipc/MemberFiles.h"

#include "config/AtomicFile.h"
#include "config/FileSystem.h"
#include "core/ErrorLog.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The text with every control character shown as '?' (for files and logs).
std::string fileSafe(const std::string& text) { return ErrorLog::printable(text, std::string::npos); }

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
            ErrorLog::report("cannot read " + mMembInfo + ": " + std::strerror(errno));
        return false;
    }
    std::string text;
    bool ok = mFs->readAll(fd, &text);
    int err = errno;
    mFs->close(fd);
    if (!ok) {
        ErrorLog::report("cannot read " + mMembInfo + ": " + std::strerror(err));
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
            ErrorLog::report(mMembInfo + ": the last member is incomplete and was not loaded");
            break;
        }
        if (out->size() >= max) {
            ErrorLog::report(mMembInfo + ": more members than the table holds; the rest were not loaded");
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
            ErrorLog::report(mMembInfo + ": member \"" + fileSafe(e.id) + "\" skipped: " +
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

// Replaces the file whole (see AtomicFile); a link in its place is
// replaced, not followed. The new file keeps the old one's permissions, or
// gets 0644.
bool MemberFiles::replace(const std::string& path, const std::string& text)
{
    AtomicFile::Attributes attr;
    int old = mFs->open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW, 0);
    if (old >= 0) {
        struct stat st;
        if (mFs->fstat(old, &st) == 0)
            attr.mode = st.st_mode & 0777;
        mFs->close(old);
    }
    return AtomicFile::replace(*mFs, path, text, attr, path);
}
