// StartUp: turns the executable into the running daemon: finds the home
// directory, loads the configuration maps, daemonises, decides the role of
// this machine (controller with the UPS on a serial line, or shutdown member
// following controllers over the network), takes the device lock, starts the
// worker threads in their fixed order and finally joins them.
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
};
