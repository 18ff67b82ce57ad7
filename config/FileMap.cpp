// FileMap: key=value configuration store backed by one text file.
#include "config/FileMap.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

// Reads the whole file as lines split at line feeds (the feed itself is
// not part of a line; a carriage return before it stays). Returns false
// when the file cannot be opened for reading.
bool readLines(const std::string& path, std::vector<std::string>* lines)
{
    std::ifstream in(path.c_str(), std::ios::in | std::ios::binary);
    if (!in.is_open()) {
        return false;
    }
    std::string line;
    while (std::getline(in, line)) {
        lines->push_back(line);
    }
    return true;
}

} // namespace

FileMap::FileMap()
    : mLoaded(0)
{
    pthread_mutex_init(&mLock, nullptr);
}

FileMap::FileMap(std::string path)
    : mFileName(std::move(path)), mLoaded(1)
{
    pthread_mutex_init(&mLock, nullptr);
    load();
}

FileMap::FileMap(std::string path, std::string lang)
    : mFileName(path + "." + lang), mLoaded(1)
{
    pthread_mutex_init(&mLock, nullptr);
    if (load() == 0) {
        // No file for this language: fall back to the plain one.
        mFileName = path;
        load();
    }
}

FileMap::FileMap(std::string path, bool localised)
    : mFileName(path), mLoaded(1)
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
    if (!readLines(mFileName, &lines)) {
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
    if (!readLines(mFileName, &lines)) {
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
        if (current == oldValue) {
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

    std::ofstream out(mFileName.c_str(),
                      std::ios::out | std::ios::binary | std::ios::trunc);
    if (!out.is_open()) {
        FMAPUnLock();
        return 0;
    }
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
    out.close();
    FMAPUnLock();
    return 1;
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

void FileMap::setConf(std::string key, std::string value)
{
    if (key == "\n" || value == "\n") {
        return;
    }
    FMAPLock();
    mEntries[key] = value;
    FMAPUnLock();
}

void FileMap::setConfNum(std::string key, int value)
{
    char buf[16];
    std::snprintf(buf, sizeof(buf), "%d", value);
    setConf(key, buf);
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
