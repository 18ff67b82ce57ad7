// RecordingShell: a shell runner that records the commands it is given
// instead of running them.
#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "core/ShellRunner.h"

class RecordingShell : public ShellRunner {
public:
    int run(const std::string& command) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mRun.push_back(command);
        return mStatus;
    }
    pid_t launchDetached(const std::string& command) override
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mLaunched.push_back(command);
        return 12345;
    }
    std::vector<std::string> runCommands()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mRun;
    }
    std::vector<std::string> launchedCommands()
    {
        std::lock_guard<std::mutex> lock(mMutex);
        return mLaunched;
    }
    // Status that run() reports (0 success).
    void setStatus(int status) { mStatus = status; }

private:
    std::mutex mMutex;
    std::vector<std::string> mRun;
    std::vector<std::string> mLaunched;
    int mStatus = 0;
};

// Installs a runner as the daemon's shell for the lifetime of a test scope.
class ScopedShell {
public:
    explicit ScopedShell(ShellRunner* r) { ShellRunner::setSystem(r); }
    ~ScopedShell() { ShellRunner::setSystem(nullptr); }
};
