// One socket contract, checked on real loopback sockets and on the in-memory
// network, so the fake the transport's tests use behaves as the real one.
#include <cerrno>
#include <cstring>
#include <functional>
#include <memory>
#include <numeric>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "ipc/SystemUdpSocket.h"
#include "ipc/UdpSocket.h"
#include "tests/fakes/FakeUdpNetwork.h"

namespace {

using Factory = std::function<std::unique_ptr<UdpSocket>()>;

std::unique_ptr<UdpSocket> boundSocket(const Factory& make, const char* address)
{
    std::unique_ptr<UdpSocket> s = make();
    EXPECT_TRUE(s->open() == UdpStatus::Ok && s->bind(address, 0) == UdpStatus::Ok && s->localPort() != 0);
    return s;
}

bool readable(const UdpSocket& s, int timeoutMs)
{
    pollfd p = {s.descriptor(), POLLIN, 0};
    return ::poll(&p, 1, timeoutMs) == 1 && (p.revents & POLLIN) != 0;
}

void checkContract(const Factory& make)
{
    std::unique_ptr<UdpSocket> rx = boundSocket(make, "127.0.0.1"), tx = boundSocket(make, "127.0.0.1");
    const uint16_t port = rx->localPort();
    const int fl = ::fcntl(rx->descriptor(), F_GETFD);
    EXPECT_TRUE(fl >= 0 && (fl & FD_CLOEXEC)) << "descriptor not close-on-exec";
    std::vector<uint8_t> buf(4096);
    UdpDatagramInfo info;
    EXPECT_FALSE(readable(*rx, 0));
    EXPECT_EQ(rx->receive(buf.data(), buf.size(), info), UdpStatus::WouldBlock);

    // A 1412-byte datagram wakes poll and arrives whole with its sender.
    std::vector<uint8_t> big(1412);
    std::iota(big.begin(), big.end(), uint8_t(3));
    ASSERT_EQ(tx->send(big.data(), big.size(), "127.0.0.1", port), UdpStatus::Ok);
    ASSERT_TRUE(readable(*rx, 5000));
    ASSERT_EQ(rx->receive(buf.data(), buf.size(), info), UdpStatus::Ok);
    ASSERT_EQ(info.size, big.size());
    EXPECT_EQ(std::memcmp(buf.data(), big.data(), big.size()), 0);
    EXPECT_EQ(info.address + ":" + std::to_string(info.port), "127.0.0.1:" + std::to_string(tx->localPort()));
    EXPECT_FALSE(readable(*rx, 0)) << "still readable after the only datagram was taken";

    // Larger than the buffer: reported truncated with its full size and consumed; the datagrams after
    // it come whole and in order.
    std::vector<uint8_t> over(300, 9);
    ASSERT_EQ(tx->send(over.data(), over.size(), "127.0.0.1", port), UdpStatus::Ok);
    for (uint8_t i = 1; i <= 2; ++i)
        ASSERT_EQ(tx->send(&i, 1, "127.0.0.1", port), UdpStatus::Ok);
    ASSERT_TRUE(readable(*rx, 5000));
    ASSERT_EQ(rx->receive(buf.data(), 100, info), UdpStatus::Truncated);
    EXPECT_EQ(info.size, over.size());
    for (uint8_t i = 1; i <= 2; ++i) {
        ASSERT_TRUE(readable(*rx, 5000));
        ASSERT_EQ(rx->receive(buf.data(), buf.size(), info), UdpStatus::Ok);
        EXPECT_TRUE(info.size == 1 && buf[0] == i) << int(buf[0]);
    }
    EXPECT_EQ(rx->receive(buf.data(), buf.size(), info), UdpStatus::WouldBlock);

    // A taken address and port stay with their first owner.
    std::unique_ptr<UdpSocket> second = make();
    ASSERT_EQ(second->open(), UdpStatus::Ok);
    EXPECT_TRUE(second->bind("127.0.0.1", port) == UdpStatus::Error && second->error() == EADDRINUSE);

    // "*" binds to any address and receives what is sent to 127.0.0.1.
    std::unique_ptr<UdpSocket> any = boundSocket(make, "*");
    ASSERT_EQ(tx->send(big.data(), 84, "127.0.0.1", any->localPort()), UdpStatus::Ok);
    ASSERT_TRUE(readable(*any, 5000));
    EXPECT_TRUE(any->receive(buf.data(), buf.size(), info) == UdpStatus::Ok && info.size == 84);

    // Texts that are not "*", "" or a dotted IPv4 address bind nothing.
    for (const char* bad : {"127.0.0", "256.0.0.1", "localhost", "127.0.0.1\n"}) {
        std::unique_ptr<UdpSocket> s = make();
        ASSERT_EQ(s->open(), UdpStatus::Ok);
        EXPECT_TRUE(s->bind(bad, 0) == UdpStatus::Error && s->error() == EINVAL) << bad;
    }
    EXPECT_EQ(tx->send(big.data(), 1, "localhost", port), UdpStatus::Error);

    // Closed: no descriptor, and every call is an error.
    rx->close();
    EXPECT_EQ(rx->descriptor(), -1);
    EXPECT_TRUE(rx->receive(buf.data(), buf.size(), info) == UdpStatus::Error &&
                rx->send(big.data(), 1, "127.0.0.1", port) == UdpStatus::Error);
}

} // namespace

TEST(SystemUdpSocket, KeepsTheSocketContractOverLoopback)
{
    checkContract([] { return std::unique_ptr<UdpSocket>(new SystemUdpSocket); });

    SystemUdpSocket s;
    int on = 0;
    socklen_t len = sizeof on;
    ASSERT_EQ(s.open(), UdpStatus::Ok);
    EXPECT_TRUE(::getsockopt(s.descriptor(), SOL_SOCKET, SO_BROADCAST, &on, &len) == 0 && on != 0) << "no broadcast";
}

TEST(FakeUdpNetwork, KeepsTheSocketContract)
{
    FakeUdpNetwork net;
    checkContract([&net] { return std::unique_ptr<UdpSocket>(net.socket()); });
}
