// SystemPaths: the fixed places the daemon touches outside its home directory
// (pid file, device-lock directory, host shutdown command). Each can be moved
// by an environment variable, read once at start-up, so that tests and
// packagers never touch the real /var/run, /var/lock or /sbin/shutdown.
#pragma once

#include <string>

class SystemPaths {
public:
    // Reads KESTRAVA_PID_FILE, KESTRAVA_LOCK_DIR and KESTRAVA_SHUTDOWN_CMD.
    // Called once by start-up; the accessors load on first use otherwise.
    static void load();

    static const std::string& pidFile();          // "/var/run/Kestrava.pid"
    static const std::string& lockDir();          // "/var/lock"
    static std::string lockFile(const std::string& deviceBase); // lockDir + "/LCK.." + name
    static const std::string& shutdownCommand();  // "/sbin/shutdown -h now"

private:
    struct Values {
        std::string pidFile;
        std::string lockDir;
        std::string shutdownCommand;
    };
    static Values& values();
};
