// ShellRunner: how the daemon runs shell commands ("wall …", the host
// shutdown command, the applications' termination commands). The system
// implementation uses the real shell; tests substitute a recorder.
#pragma once

#include <string>
#include <sys/types.h>

class ShellRunner {
public:
    virtual ~ShellRunner() {}
    // Runs the command through the shell and waits; returns the system() status.
    virtual int run(const std::string& command) = 0;
    // Starts the command through the shell without waiting for it; the
    // finished command is reaped by the system, never left a zombie.
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
