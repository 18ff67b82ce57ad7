// Tests of the interface address listing: against the host's own list, and
// in a private network namespace (made in a child process, gone with it)
// with only the loopback or with known extra addresses.
#include "operator/NetworkAddresses.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <map>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/fakes/ChildProcess.h"

namespace {

std::string listing()
{
    char addrs[64][32];
    char bcasts[64][32];
    memset(addrs, 0, sizeof addrs);
    memset(bcasts, 0, sizeof bcasts);
    unsigned short n = GetNowIPAddr_And_BroadCastAddr(addrs, bcasts);
    std::string out = std::to_string(n) + ":";
    for (unsigned short i = 0; i < n; ++i)
        out += std::string(addrs[i]) + "/" + bcasts[i] + ";";
    if (n == 0)
        out += bcasts[0];
    return out;
}

// Runs `setup` (shell commands) in a fresh network namespace of a child and
// returns the listing seen there; "skip" when namespaces are not available.
std::string listingInNamespace(const char* setup)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        std::string result;
        if (unshare(CLONE_NEWNET) != 0)
            result = "skip";
        else if (setup && system(setup) != 0)
            result = "skip";
        else
            result = listing();
        ssize_t ignored = write(fds[1], result.data(), result.size());
        (void)ignored;
        _exit(0);
    }
    close(fds[1]);
    std::string result;
    char buf[4096];
    ssize_t n;
    while ((n = read(fds[0], buf, sizeof buf)) > 0)
        result.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    if (waitBounded(pid, 20) == -1)
        return "child hung";
    return result;
}

TEST(NetworkAddresses, MatchesTheHostsOwnAddresses)
{
    // The host's IPv4 addresses other than 127.0.0.1 with their broadcast.
    std::map<std::string, std::string> expected;
    struct ifaddrs* list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    for (struct ifaddrs* a = list; a; a = a->ifa_next) {
        if (!a->ifa_addr || a->ifa_addr->sa_family != AF_INET || !a->ifa_netmask)
            continue;
        in_addr addr = reinterpret_cast<sockaddr_in*>(a->ifa_addr)->sin_addr;
        in_addr mask = reinterpret_cast<sockaddr_in*>(a->ifa_netmask)->sin_addr;
        in_addr bcast;
        bcast.s_addr = (addr.s_addr & mask.s_addr) | ~mask.s_addr;
        char text[INET_ADDRSTRLEN], btext[INET_ADDRSTRLEN];
        inet_ntop(AF_INET, &addr, text, sizeof text);
        inet_ntop(AF_INET, &bcast, btext, sizeof btext);
        if (std::string(text) != "127.0.0.1")
            expected[text] = btext;
    }
    freeifaddrs(list);

    char addrs[64][32];
    char bcasts[64][32];
    memset(addrs, 0, sizeof addrs);
    memset(bcasts, 0, sizeof bcasts);
    unsigned short n = GetNowIPAddr_And_BroadCastAddr(addrs, bcasts);
    for (unsigned short i = 0; i < n; ++i) {
        ASSERT_EQ(expected.count(addrs[i]), 1u) << addrs[i];
        EXPECT_EQ(expected[addrs[i]], bcasts[i]) << addrs[i];
    }
    if (n == 0) {
        EXPECT_STREQ(bcasts[0], "255.255.255.255");
    }
}

TEST(NetworkAddresses, PrivateNamespaceWithLoopbackOnlyAndWithExtraAddresses)
{
    std::string loopOnly = listingInNamespace("ip link set lo up");
    if (loopOnly == "skip")
        GTEST_SKIP() << "no network namespace or no ip tool here";
    EXPECT_EQ(loopOnly, "0:255.255.255.255");

    std::string extra = listingInNamespace("ip link set lo up && "
                                           "ip addr add 10.77.1.5/24 dev lo label lo:k1 && "
                                           "ip addr add 172.30.9.9/16 dev lo label lo:k2");
    if (extra == "skip")
        GTEST_SKIP() << "cannot add addresses in the namespace";
    EXPECT_EQ(extra, "2:10.77.1.5/10.77.1.255;172.30.9.9/172.30.255.255;");
}

} // namespace
