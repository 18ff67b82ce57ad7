// SystemUdpSocket: the coordination transport's UDP socket on the POSIX
// socket calls: SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK with SO_BROADCAST,
// recvfrom with MSG_TRUNC so an oversized datagram is seen and dropped
// whole, and every call retried when a signal interrupts it.
#pragma once

#include "ipc/UdpSocket.h"

class SystemUdpSocket : public UdpSocket {
public:
    SystemUdpSocket() = default;
    ~SystemUdpSocket() override;
    SystemUdpSocket(const SystemUdpSocket&) = delete;
    SystemUdpSocket& operator=(const SystemUdpSocket&) = delete;

    UdpStatus open() override;
    UdpStatus bind(const std::string& address, uint16_t port) override;
    UdpStatus receive(void* buffer, size_t capacity, UdpDatagramInfo& info) override;
    UdpStatus send(const void* data, size_t size, const std::string& address, uint16_t port) override;
    int descriptor() const override { return mFd; }
    uint16_t localPort() const override { return mPort; }
    int error() const override { return mError; }
    void close() override;

private:
    UdpStatus fail(int err);

    int mFd = -1;
    uint16_t mPort = 0;
    int mError = 0;
};
