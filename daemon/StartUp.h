// StartUp: turns the executable into the running daemon, one named step
// after another: home directory, message map, configuration, stale files,
// daemonise, role set-up, device lock, start of the workers, start of the
// network side, and finally the wait for a fatal stop request and the
// orderly end. The termination signal ends the daemon on its own path
// (daemon/Signals.h).
#pragma once

#include <string>

class StartUp {
public:
    // The daemon's main: returns (or exits with) the process exit status.
    static int run(int argc, char** argv);

    // The directory part of an invocation path, up to and including its last
    // "/"; empty when there is none.
    static std::string homeDirOf(const char* argv0);

    // The part of a device path after its last "/" (the whole text when
    // there is none): the name its lock file is made of.
    static std::string deviceBaseName(const std::string& device);

    // The orderly end after a fatal stop request: removes the device lock
    // (empty path: none held) and the pid file when it records this process,
    // reports the reason on standard error and to syslog, and returns the
    // status to exit with. The caller then ends the process without
    // destroying the global objects under the running workers.
    static int stopInOrder(int status, const char* reason, const std::string& deviceLock, const std::string& pidFile);

private:
    static void findHomeDir(int argc, char** argv);
    static void loadMessages();
    static void loadConfiguration();
    static void clearStaleFiles();
    static void daemonise();
    static void setUpMember();
    static void lockDevice();
    static void startWorkers();
    static void startNetwork();
    [[noreturn]] static void waitAndStop();
};
