#include "core/SystemPaths.h"

#include <cstdlib>

namespace {
std::string fromEnv(const char* name, const char* fallback)
{
    const char* v = getenv(name);
    return (v && *v) ? std::string(v) : std::string(fallback);
}
} // namespace

SystemPaths::Values& SystemPaths::values()
{
    static Values v = [] {
        Values r;
        r.pidFile = fromEnv("KESTRAVA_PID_FILE", "/var/run/Kestrava.pid");
        r.lockDir = fromEnv("KESTRAVA_LOCK_DIR", "/var/lock");
        r.shutdownCommand = fromEnv("KESTRAVA_SHUTDOWN_CMD", "/sbin/shutdown -h now");
        return r;
    }();
    return v;
}

void SystemPaths::load() { values(); }

const std::string& SystemPaths::pidFile() { return values().pidFile; }

const std::string& SystemPaths::lockDir() { return values().lockDir; }

std::string SystemPaths::lockFile(const std::string& deviceBase)
{
    return values().lockDir + "/LCK.." + deviceBase;
}

const std::string& SystemPaths::shutdownCommand() { return values().shutdownCommand; }
