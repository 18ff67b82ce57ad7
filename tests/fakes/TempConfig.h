// TempConfig: a "Kestrava.ini" with the given text in a temporary directory,
// and the FileMap loaded from it.
#pragma once

#include <memory>
#include <string>

#include "config/FileMap.h"
#include "tests/fakes/TempDir.h"

class TempConfig {
public:
    explicit TempConfig(const std::string& text) : mDir("kestrava-config-")
    {
        writeFile(mDir.file("Kestrava.ini"), text);
        mMap.reset(new FileMap(mDir.file("Kestrava.ini")));
    }

    FileMap* map() const { return mMap.get(); }

private:
    TempDir mDir;
    std::unique_ptr<FileMap> mMap; // goes before the directory
};
