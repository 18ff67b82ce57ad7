#include "ipc/SystemUdpSocket.h"

#include <arpa/inet.h>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

SystemUdpSocket::~SystemUdpSocket()
{
    close();
}

UdpStatus SystemUdpSocket::fail(int err)
{
    mError = err;
    return UdpStatus::Error;
}

UdpStatus SystemUdpSocket::open()
{
    close();
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0)
        return fail(errno);
    int on = 1;
    if (::setsockopt(fd, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        int err = errno;
        ::close(fd);
        return fail(err);
    }
    mFd = fd;
    mError = 0;
    return UdpStatus::Ok;
}

UdpStatus SystemUdpSocket::bind(const std::string& address, uint16_t port)
{
    if (mFd < 0)
        return fail(EBADF);
    sockaddr_in sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    if (!parseBindAddress(address, sa.sin_addr))
        return fail(EINVAL);
    if (::bind(mFd, reinterpret_cast<sockaddr*>(&sa), sizeof sa) != 0)
        return fail(errno);
    sockaddr_in bound = {};
    socklen_t len = sizeof bound;
    if (::getsockname(mFd, reinterpret_cast<sockaddr*>(&bound), &len) != 0)
        return fail(errno);
    mPort = ntohs(bound.sin_port);
    return UdpStatus::Ok;
}

UdpStatus SystemUdpSocket::receive(void* buffer, size_t capacity, UdpDatagramInfo& info)
{
    if (mFd < 0)
        return fail(EBADF);
    sockaddr_in from = {};
    ssize_t n;
    do {
        socklen_t len = sizeof from;
        // MSG_TRUNC: the result is the datagram's full size, so one larger
        // than the buffer is told apart from one that just fits.
        n = ::recvfrom(mFd, buffer, capacity, MSG_TRUNC, reinterpret_cast<sockaddr*>(&from), &len);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return UdpStatus::WouldBlock;
        return fail(errno);
    }
    char text[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &from.sin_addr, text, sizeof text);
    info.size = static_cast<size_t>(n);
    info.address = text;
    info.port = ntohs(from.sin_port);
    return info.size > capacity ? UdpStatus::Truncated : UdpStatus::Ok;
}

UdpStatus SystemUdpSocket::send(const void* data, size_t size, const std::string& address, uint16_t port)
{
    if (mFd < 0)
        return fail(EBADF);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    if (!parseAddress(address, to.sin_addr))
        return fail(EINVAL);
    ssize_t n;
    do {
        n = ::sendto(mFd, data, size, 0, reinterpret_cast<sockaddr*>(&to), sizeof to);
    } while (n < 0 && errno == EINTR);
    if (n < 0) {
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return UdpStatus::WouldBlock;
        return fail(errno);
    }
    if (mPort == 0) {
        // The first send of an unbound socket binds it to a free port.
        sockaddr_in bound = {};
        socklen_t len = sizeof bound;
        if (::getsockname(mFd, reinterpret_cast<sockaddr*>(&bound), &len) == 0)
            mPort = ntohs(bound.sin_port);
    }
    return UdpStatus::Ok;
}

void SystemUdpSocket::close()
{
    if (mFd >= 0)
        ::close(mFd);
    mFd = -1;
    mPort = 0;
}
