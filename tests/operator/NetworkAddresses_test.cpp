// The interface address listing in a child's private network namespace.
#include "operator/NetworkAddresses.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <string>
#include <unistd.h>

#include "tests/fakes/ChildProcess.h"
#include "tests/fakes/TempDir.h"

namespace {

// The listing after `setup` in a child's fresh network namespace, as "address/broadcast;..." (with no
// address: "/" and the one broadcast address it reports instead); "skip" without namespaces.
std::string listingInNamespace(const char* setup)
{
    TempDir tmp("netaddr_test.");
    ChildRun r = runChild(tmp.path(), [&] {
        if (unshare(CLONE_NEWNET) != 0 || system(setup) != 0)
            _exit(3);
        char addrs[64][32] = {}, bcasts[64][32] = {};
        const unsigned short n = GetNowIPAddr_And_BroadCastAddr(addrs, bcasts);
        for (unsigned short i = 0; i < (n ? n : 1); ++i)
            printf("%s/%s;", n ? addrs[i] : "", bcasts[i]);
        fflush(stdout);
    });
    return r.status == 3 ? "skip" : r.status == 0 ? r.out : "child failed";
}

TEST(NetworkAddresses, PrivateNamespaceWithLoopbackOnlyAndWithExtraAddresses)
{
    std::string loopOnly = listingInNamespace("ip link set lo up");
    if (loopOnly == "skip")
        GTEST_SKIP() << "no network namespace or no ip tool here";
    EXPECT_EQ(loopOnly, "/255.255.255.255;");
    std::string extra = listingInNamespace("ip link set lo up && ip addr add 10.213.0.5/25 dev lo label lo:k1 && "
                                           "ip addr add 10.213.0.200/26 dev lo label lo:k2");
    if (extra == "skip")
        GTEST_SKIP() << "cannot add addresses in the namespace";
    EXPECT_EQ(extra, "10.213.0.5/10.213.0.127;10.213.0.200/10.213.0.255;");
}

} // namespace
