// FileMap: key=value configuration store backed by one text file.
#include "config/FileMap.h"

#include "config/AtomicFile.h"
#include "config/FileSystem.h"
#include "core/ErrorLog.h"

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

// The two one-byte keys of the value cipher.
const unsigned char kCipherE = 0x5C;
const unsigned char kCipherX = 0x3B;

// Enciphered values are 50 bytes; the plain text holds at most 49 of them
// so that at least one enciphered zero follows it.
const int kCipherLen = 50;
const size_t kCipherTextMax = 49;

bool breaksLine(const std::string& text) { return text.find_first_of(std::string("\r\n\0", 3)) != std::string::npos; }

} // namespace

FileMap::FileMap()
    : mLoaded(0), mFs(&FileSystem::system())
{
    pthread_mutex_init(&mLock, nullptr);
}

FileMap::FileMap(std::string path)
    : mFileName(std::move(path)), mLoaded(1), mFs(&FileSystem::system())
{
    pthread_mutex_init(&mLock, nullptr);
    load();
}

FileMap::FileMap(std::string path, std::string lang)
    : mFileName(path + "." + lang), mLoaded(1), mFs(&FileSystem::system())
{
    pthread_mutex_init(&mLock, nullptr);
    if (load() == 0) {
        // No file for this language: fall back to the plain one.
        mFileName = path;
        load();
    }
}

FileMap::FileMap(std::string path, bool localised)
    : mFileName(path), mLoaded(1), mFs(&FileSystem::system())
{
    pthread_mutex_init(&mLock, nullptr);
    if (localised) {
        // Without a LANG (unset or empty) there is no language to pick:
        // the plain file is used and the process locale is left alone.
        const char* lang = std::getenv("LANG");
        if (lang != nullptr && lang[0] != '\0') {
            std::setlocale(LC_ALL, lang);
            mFileName = path + "." + lang;
        }
    }
    load();
}

FileMap::~FileMap()
{
    pthread_mutex_destroy(&mLock);
}

int FileMap::load()
{
    FMAPLock();
    mEntries.clear();
    FMAPUnLock();

    std::vector<std::string> lines;
    struct stat st;
    if (!readLines(&lines, &st)) {
        mLoaded = 0;
        return 0;
    }
    mLoaded = 1;

    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (!line.empty() && line[0] == '#') {
            continue;
        }
        std::string::size_type eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        std::string key = line.substr(0, eq);
        std::string value = line.substr(eq + 1);
        trimming(&key);
        trimming(&value);
        setConf(key, value);
    }
    return 1;
}

int FileMap::save()
{
    FMAPLock();

    std::vector<std::string> lines;
    struct stat original;
    if (!readLines(&lines, &original)) {
        FMAPUnLock();
        return 0;
    }

    std::string text;
    bool prevEmpty = false;
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& line = lines[i];
        if (!line.empty() && line[0] == '#') {
            // Comments pass through and leave the empty-line flag alone.
            text += line;
            text += '\n';
            continue;
        }
        if (prevEmpty && line.empty()) {
            continue;
        }
        prevEmpty = line.empty();

        std::string::size_type eq = line.find('=');
        if (eq == std::string::npos) {
            text += line;
            text += '\n';
            continue;
        }
        std::string key = line.substr(0, eq);
        std::string oldValue = line.substr(eq + 1);
        trimming(&key);
        int quoted = trimming(&oldValue);

        // The lock is already held here and is not recursive.
        std::string current = SavegetConf(key);
        // Only an enciphered value can hold a line break; it stays in memory.
        if (current == oldValue || breaksLine(current)) {
            text += line;
        } else {
            text.append(line, 0, eq + 1);
            text += ' ';
            if (quoted) {
                text += '"';
                text += current;
                text += '"';
            } else {
                text += current;
            }
        }
        text += '\n';
    }

    int result = replaceFile(text, original);
    FMAPUnLock();
    return result;
}

void FileMap::setFileSystem(FileSystem* fs) { mFs = fs ? fs : &FileSystem::system(); }

// Reads the whole file as lines split at line feeds (the feed itself is
// not part of a line; a carriage return before it stays), and the file's
// status. False when the file cannot be opened or read.
bool FileMap::readLines(std::vector<std::string>* lines, struct stat* st)
{
    int fd = mFs->open(mFileName.c_str(), O_RDONLY | O_CLOEXEC, 0);
    if (fd < 0)
        return false;
    std::string text;
    bool ok = mFs->fstat(fd, st) == 0 && mFs->readAll(fd, &text);
    mFs->close(fd);
    if (!ok)
        return false;
    std::string::size_type from = 0;
    while (from < text.size()) {
        std::string::size_type end = text.find('\n', from);
        if (end == std::string::npos)
            end = text.size();
        lines->push_back(text.substr(from, end - from));
        from = end + 1;
    }
    return true;
}

// Replaces the file whole (see AtomicFile) with the old one's mode and
// owner. A link is followed: the file it names is replaced, the link kept.
int FileMap::replaceFile(const std::string& text, const struct stat& original)
{
    std::string target = mFileName;
    char resolved[PATH_MAX];
    if (realpath(mFileName.c_str(), resolved) != nullptr)
        target = resolved;
    AtomicFile::Attributes attr;
    attr.mode = original.st_mode & 07777;
    attr.setOwner = true;
    attr.uid = original.st_uid;
    attr.gid = original.st_gid;
    return AtomicFile::replace(*mFs, target, text, attr, mFileName) ? 1 : 0;
}

std::string FileMap::getConf(std::string key)
{
    FMAPLock();
    std::string value = mEntries[key];
    FMAPUnLock();
    return value;
}

std::string FileMap::SavegetConf(std::string key)
{
    return mEntries[key];
}

int FileMap::setConf(std::string key, std::string value)
{
    if (key == "\n" || value == "\n") {
        return 0;
    }
    // A line break stored here would become lines of their own (new keys)
    // at the next save.
    if (breaksLine(key) || breaksLine(value)) {
        ErrorLog::report("refused to set \"" + ErrorLog::printable(key) + "\" in " + mFileName +
               ": the key or value holds a line break or NUL");
        return 0;
    }
    FMAPLock();
    mEntries[key] = value;
    FMAPUnLock();
    return 1;
}

int FileMap::setConfNum(std::string key, int value)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%d", value);
    return setConf(key, buf);
}

void FileMap::setConfEnc(std::string key, std::string value)
{
    char buf[kCipherLen + 1];
    std::memset(buf, 0, sizeof(buf));
    std::strncpy(buf, value.c_str(), kCipherTextMax);
    D_cm_EncryptString(buf, kCipherLen);
    // Stored as a zero-terminated string: an enciphered zero ends it early.
    // Stored directly so that no enciphered value is ever refused.
    FMAPLock();
    mEntries[key] = std::string(buf);
    FMAPUnLock();
}

std::string FileMap::getConfDec(std::string key)
{
    std::string stored = getConf(key);
    char buf[kCipherLen + 1];
    std::memset(buf, 0, sizeof(buf));
    // A value shorter than 50 bytes counts as padded with zeros.
    std::memcpy(buf, stored.data(),
                stored.size() < static_cast<size_t>(kCipherLen)
                    ? stored.size() : static_cast<size_t>(kCipherLen));
    D_cm_DecryptString(buf, kCipherLen);
    buf[kCipherLen] = '\0';
    return std::string(buf);
}

void FileMap::FMAPLock()
{
    pthread_mutex_lock(&mLock);
}

void FileMap::FMAPUnLock()
{
    pthread_mutex_unlock(&mLock);
}

void FileMap::D_cm_EncryptString(char* buf, short len)
{
    if (buf == nullptr) {
        return;
    }
    for (int i = 0; i < len; ++i) {
        unsigned char in = static_cast<unsigned char>(buf[i]);
        unsigned char shift = static_cast<unsigned char>(i ^ kCipherE);
        unsigned char out = static_cast<unsigned char>(in - shift) ^ kCipherX;
        buf[i] = static_cast<char>(out);
    }
}

void FileMap::D_cm_DecryptString(char* buf, short len)
{
    if (buf == nullptr) {
        return;
    }
    for (int i = 0; i < len; ++i) {
        unsigned char in = static_cast<unsigned char>(buf[i]);
        unsigned char shift = static_cast<unsigned char>(i ^ kCipherE);
        unsigned char out = static_cast<unsigned char>((in ^ kCipherX) + shift);
        buf[i] = static_cast<char>(out);
    }
}

int FileMap::trimming(std::string* s)
{
    if (s == nullptr || s->empty()) {
        return 0;
    }
    std::string::size_type first = s->find_first_not_of(" \t");
    if (first == std::string::npos) {
        s->clear();
        return 0;
    }
    s->erase(0, first);
    std::string::size_type last = s->find_last_not_of(" \t\r");
    if (last == std::string::npos) {
        s->clear();
        return 0;
    }
    s->erase(last + 1);

    if ((*s)[0] != '"') {
        return 0;
    }
    s->erase(0, 1);
    if (!s->empty() && (*s)[s->size() - 1] == '"') {
        s->erase(s->size() - 1);
    }
    return 1;
}
