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
