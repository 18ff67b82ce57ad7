// FileMap: the daemon's key=value configuration store. Holds one text file
// ("Kestrava.ini", "alert.rc", "Membercnt.cfg") in memory as an ordered,
// thread-safe map and writes changed values back in place, so that the
// operator's comments, blank lines and line order survive every save.
#pragma once

#include <map>
#include <pthread.h>
#include <string>
#include <sys/stat.h>
#include <utility>
#include <vector>

class FileSystem;

class FileMap {
public:
    FileMap();
    explicit FileMap(std::string path);
    FileMap(std::string path, std::string lang);
    // A literal language suffix would otherwise pick the bool constructor.
    FileMap(std::string path, const char* lang)
        : FileMap(std::move(path), std::string(lang != nullptr ? lang : "")) {}
    FileMap(std::string path, bool localised);
    virtual ~FileMap();

    FileMap(const FileMap&) = delete;
    FileMap& operator=(const FileMap&) = delete;

    int load();
    // Replaces the file through a temporary file in the same directory
    // (written, fsync'ed, renamed over it): 1 when the file holds the
    // current values; 0, with the old file untouched, when it is missing
    // or cannot be replaced (the reason is logged).
    int save();

    std::string getConf(std::string key);
    std::string SavegetConf(std::string key);
    // 1 when stored. 0 when refused: a key or value of exactly "\n" is
    // ignored silently, one holding a carriage return, line feed or NUL
    // anywhere is refused with a log line (it would break the file's lines).
    int setConf(std::string key, std::string value);
    int setConfNum(std::string key, int value);
    void setConfEnc(std::string key, std::string value);
    std::string getConfDec(std::string key);

    void FMAPLock();
    void FMAPUnLock();

    static void D_cm_EncryptString(char* buf, short len);
    static void D_cm_DecryptString(char* buf, short len);
    static int trimming(std::string* s);

    bool isLoaded() const { return mLoaded != 0; }
    const std::string& fileName() const { return mFileName; }

    // Where the file is read and replaced (the real file system unless a
    // test substitutes one).
    void setFileSystem(FileSystem* fs);

private:
    std::map<std::string, std::string> mEntries;
    std::string mFileName;
    unsigned char mLoaded;
    pthread_mutex_t mLock;
    FileSystem* mFs;

    bool readLines(std::vector<std::string>* lines, struct stat* st);
    int replaceFile(const std::string& text, const struct stat& original);
};
