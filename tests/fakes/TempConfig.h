// TempConfig: a configuration of a test's own: "Kestrava.ini" holding the
// given text in a fresh temporary directory (removed afterwards), and the
// FileMap loaded from it, for a local controller core.
#pragma once

#include <memory>
#include <string>

#include "config/FileMap.h"
#include "tests/fakes/TempDir.h"

class TempConfig {
public:
    // The directory is "/tmp/<stem>XXXXXX".
    explicit TempConfig(const std::string& text, const std::string& stem = "kestrava-config-")
        : mDir(stem), mPath(mDir.file("Kestrava.ini"))
    {
        writeFile(mPath, text);
        mMap.reset(new FileMap(mPath));
    }

    FileMap* map() const { return mMap.get(); }

private:
    TempDir mDir;
    std::string mPath;
    std::unique_ptr<FileMap> mMap; // goes before the directory
};
