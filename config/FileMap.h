// FileMap: the daemon's key=value configuration store. Holds one text file
// ("Kestrava.ini", "alert.rc", "Membercnt.cfg") in memory as an ordered,
// thread-safe map and writes changed values back in place, so that the
// operator's comments, blank lines and line order survive every save.
#pragma once

#include <map>
#include <pthread.h>
#include <string>
#include <utility>

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
    int save();

    std::string getConf(std::string key);
    std::string SavegetConf(std::string key);
    void setConf(std::string key, std::string value);
    void setConfNum(std::string key, int value);
    void setConfEnc(std::string key, std::string value);
    std::string getConfDec(std::string key);

    void FMAPLock();
    void FMAPUnLock();

    static void D_cm_EncryptString(char* buf, short len);
    static void D_cm_DecryptString(char* buf, short len);
    static int trimming(std::string* s);

    bool isLoaded() const { return mLoaded != 0; }
    const std::string& fileName() const { return mFileName; }

private:
    std::map<std::string, std::string> mEntries;
    std::string mFileName;
    unsigned char mLoaded;
    pthread_mutex_t mLock;
};
