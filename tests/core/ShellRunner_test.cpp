// The real shell runner: commands start as from a login shell, whatever
// the daemon's thread had blocked or ignored and whatever it had open.
#include "core/ShellRunner.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

namespace {

// The probe's blocked and ignored signals and open descriptors; signals 32 up to SIGRTMIN
// belong to the C library (ignored in every child it starts) and are left out.
std::string summary(const std::string& text)
{
    unsigned long long blocked = ~0ULL, ignored = ~0ULL;
    char fds[256] = "";
    sscanf(text.c_str(), "SigBlk:\t%llx\nSigIgn:\t%llx\n%255[0-9 ]", &blocked, &ignored, fds);
    for (int sig = 32; sig < SIGRTMIN; ++sig)
        ignored &= ~(1ULL << (sig - 1));
    return "blocked " + std::to_string(blocked) + ", ignored " + std::to_string(ignored) + ", fds " + fds;
}

TEST(ShellRunner, CommandsStartWithNoMaskNoIgnoredSignalAndNoInheritedDescriptor)
{
    TempDir tmp("kestrava-shell-");
    ASSERT_TRUE(tmp.made());
    writeFile(tmp.file("Kestrava.ini"), "UPSController=1\n");
    // A descriptor some part of the daemon opened without close-on-exec.
    int forgotten = open(tmp.file("Kestrava.ini").c_str(), O_RDONLY);
    ASSERT_GE(forgotten, 3);
    struct sigaction ignore = {}, old = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGINT, &ignore, &old);

    auto probe = [&](const std::string& f) {
        return "grep -E '^Sig(Blk|Ign)' /proc/self/status > " + f + "; ls /proc/self/fd | tr '\\n' ' ' >> " + f;
    };
    const std::string clean = "blocked 0, ignored 0, fds 0 1 2 3 ";
    SystemShellRunner runner;
    int status = -1;
    pid_t detached = -1;
    // A worker thread of the daemon: SIGTERM blocked.
    std::thread worker([&] {
        sigset_t term;
        sigemptyset(&term), sigaddset(&term, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &term, nullptr);
        status = runner.run(probe(tmp.file("run")) + "; exit 3");
        detached = runner.launchDetached(probe(tmp.file("detached.tmp")) + "; mv " + tmp.file("detached.tmp") + " " +
                                         tmp.file("detached"));
    });
    worker.join();
    sigaction(SIGINT, &old, nullptr), close(forgotten);

    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_EQ(summary(readFile(tmp.file("run"))), clean);
    ASSERT_GT(detached, 0);
    EXPECT_TRUE(waitFor([&] { return !readFile(tmp.file("detached")).empty(); }, 10, 20));
    EXPECT_EQ(summary(readFile(tmp.file("detached"))), clean);
    // Reaped by the runner, not left to this process.
    EXPECT_TRUE(waitFor([&] { return waitpid(detached, nullptr, WNOHANG) < 0 && errno == ECHILD; }, 10, 20));
}

} // namespace
