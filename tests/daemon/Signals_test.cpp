// Installation of the termination handler. The stop sequence itself ends the
// process; it is exercised on the running daemon in StartUp_test.
#include "daemon/Signals.h"

#include <gtest/gtest.h>

#include <csignal>
#include <pthread.h>

namespace {

TEST(Signals, TermIsUnblockedAndHandledWithPlainFlags)
{
    struct sigaction saved;
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &saved), 0);
    sigset_t savedMask;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &savedMask), 0);

    // A thread that had the signal blocked gets it unblocked.
    sigset_t term;
    sigemptyset(&term);
    sigaddset(&term, SIGTERM);
    ASSERT_EQ(pthread_sigmask(SIG_BLOCK, &term, nullptr), 0);

    EXPECT_EQ(NS_SigHandle(), 0);

    sigset_t now;
    ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &now), 0);
    EXPECT_EQ(sigismember(&now, SIGTERM), 0);

    struct sigaction act;
    ASSERT_EQ(sigaction(SIGTERM, nullptr, &act), 0);
    EXPECT_EQ(act.sa_handler, &NS_TermHandler);
    EXPECT_EQ(act.sa_flags & (SA_RESTART | SA_RESETHAND | SA_NODEFER | SA_SIGINFO | SA_ONSTACK), 0)
        << "flags word 0: the signal stays blocked in its handler, which stays installed";

    // Nothing else is taken over.
    struct sigaction other;
    ASSERT_EQ(sigaction(SIGINT, nullptr, &other), 0);
    EXPECT_NE(other.sa_handler, &NS_TermHandler);

    sigaction(SIGTERM, &saved, nullptr);
    pthread_sigmask(SIG_SETMASK, &savedMask, nullptr);
}

} // namespace
