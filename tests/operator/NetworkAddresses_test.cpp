// Tests of the interface address listing: against the host's own list, and
// in a private network namespace (made in a child process, gone with it)
// with only the loopback or with known extra addresses.
#include "operator/NetworkAddresses.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstdlib>
#include <ifaddrs.h>
#include <map>
#include <sched.h>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

#include "tests/fakes/ChildProcess.h"

namespace {

// The listing as (address, broadcast) pairs; with no address, the one
// broadcast address it reports instead, paired with "".
std::vector<std::pair<std::string, std::string>> addresses()
{
    char addrs[64][32] = {}, bcasts[64][32] = {};
    unsigned short n = GetNowIPAddr_And_BroadCastAddr(addrs, bcasts);
    std::vector<std::pair<std::string, std::string>> out;
    for (unsigned short i = 0; i < n; ++i)
        out.emplace_back(addrs[i], bcasts[i]);
    if (n == 0)
        out.emplace_back("", bcasts[0]);
    return out;
}

// Runs `setup` (shell commands) in a fresh network namespace of a child and
// returns the listing seen there as "address/broadcast;..."; "skip" when
// namespaces are not available.
std::string listingInNamespace(const char* setup)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "pipe failed";
    pid_t pid = fork();
    if (pid == 0) {
        std::string result = "skip";
        if (unshare(CLONE_NEWNET) == 0 && system(setup) == 0) {
            result.clear();
            for (const auto& a : addresses())
                result += a.first + "/" + a.second + ";";
        }
        _exit(write(fds[1], result.data(), result.size()) < 0);
    }
    close(fds[1]);
    std::string result;
    char buf[4096];
    for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;)
        result.append(buf, static_cast<size_t>(n));
    close(fds[0]);
    return waitBounded(pid, 20) == -1 ? "child hung" : result;
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
        in_addr bcast{(addr.s_addr & mask.s_addr) | ~mask.s_addr};
        std::string text = inet_ntoa(addr);
        if (text != "127.0.0.1")
            expected[text] = inet_ntoa(bcast);
    }
    freeifaddrs(list);
    for (const auto& a : addresses())
        EXPECT_EQ(a.first.empty() ? "255.255.255.255" : expected[a.first], a.second) << a.first;
}

TEST(NetworkAddresses, PrivateNamespaceWithLoopbackOnlyAndWithExtraAddresses)
{
    std::string loopOnly = listingInNamespace("ip link set lo up");
    if (loopOnly == "skip")
        GTEST_SKIP() << "no network namespace or no ip tool here";
    EXPECT_EQ(loopOnly, "/255.255.255.255;");
    std::string extra = listingInNamespace("ip link set lo up && ip addr add 10.77.1.5/24 dev lo label lo:k1 && "
                                           "ip addr add 172.30.9.9/16 dev lo label lo:k2");
    if (extra == "skip")
        GTEST_SKIP() << "cannot add addresses in the namespace";
    EXPECT_EQ(extra, "10.77.1.5/10.77.1.255;172.30.9.9/172.30.255.255;");
}

} // namespace
