// ShellRunner: how the daemon runs shell commands ("wall …", the host
// shutdown command, the applications' termination commands). The system
// implementation uses the real shell; tests substitute a recorder.
#pragma once

#include <string>
#include <sys/types.h>

class ShellRunner {
public:
    virtual ~ShellRunner() {}
    // Runs the command through "/bin/sh -c" and waits; returns the wait
    // status as system() would, or -1 when the shell cannot be started.
    // Commands start with no signal blocked or ignored and with no
    // descriptor of the daemon but 0, 1 and 2.
    virtual int run(const std::string& command) = 0;
    // Starts the command through the shell without waiting for it; the
    // finished command is reaped by a thread of its own, never left a
    // zombie, and the caller never waits for it.
    // Returns the pid of the started shell, or -1.
    virtual pid_t launchDetached(const std::string& command) = 0;

    // The runner of the running daemon (the real shell unless replaced).
    static ShellRunner& system();
    static void setSystem(ShellRunner* runner);
};

class SystemShellRunner : public ShellRunner {
public:
    int run(const std::string& command) override;
    pid_t launchDetached(const std::string& command) override;
};
