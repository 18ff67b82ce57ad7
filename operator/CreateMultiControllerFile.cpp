#include "operator/CreateMultiControllerFile.h"

#include <cstdlib>
#include <cstring>

#include "config/FileMap.h"

namespace {
int num(FileMap* map, const char* key) { return static_cast<int>(strtol(map->getConf(key).c_str(), nullptr, 10)); }
} // namespace

int CreateMultiControllerFile::CheckControllerFile(const std::string&, int, const std::string& dir, FileMap* config,
                                                   FileMap** members, DG2_ShutdownTimming* timing, bool* changed)
{
    FileMap* map = new FileMap(dir + "Membercnt.cfg");
    if (!map->isLoaded()) {
        delete map;
        *members = nullptr;
        return 1;
    }
    *members = map;
    if (changed)
        *changed = false;
    if (!timing)
        return 0;
    // The timing last received from the controller, when the member file
    // holds one; a value that differs from "Kestrava.ini" marks a change.
    if (map->getConf("WinkTime").empty())
        return 0;
    timing->winkTime = num(map, "WinkTime");
    timing->shutdownTime = num(map, "ShutdownTime");
    timing->appTermTimeOut = num(map, "AppTermTimeOut");
    timing->shutdownDelay = num(map, "ShutdownDelay");
    std::string cmd = map->getConf("AppTermCommand");
    strncpy(timing->appTermCommand, cmd.c_str(), sizeof timing->appTermCommand - 1);
    timing->appTermCommand[sizeof timing->appTermCommand - 1] = 0;
    if (changed && config) {
        *changed = num(config, "WinkTime1") != timing->winkTime ||
                   num(config, "ShutdownTime1") != timing->shutdownTime ||
                   num(config, "AppTermTimeOut1") != timing->appTermTimeOut ||
                   num(config, "ShutdownDelay1") != timing->shutdownDelay ||
                   config->getConf("AppTermCommand1") != cmd;
    }
    return 0;
}

int CreateMultiControllerFile::WriteControllerInf(ShutCNT*, const char*) { return 0; }

int CreateMultiControllerFile::WriteShutdownLog(int, const char*, int, DG2_ShutdownTimming*, const char*) { return 0; }
