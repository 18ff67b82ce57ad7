// FakeUdpNetwork: an in-memory UDP network standing for many hosts. A send to a
// broadcast address (addBroadcast; "255.255.255.255" always) reaches every socket
// on that port, any other the socket bound to that address and port, else one
// bound to any address. A socket's descriptor is an eventfd readable while
// datagrams wait, so poll loops run as on real sockets; sent() records all.
#pragma once

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

#include "ipc/UdpSocket.h"

class FakeUdpNetwork {
public:
    struct Datagram {
        std::string fromAddress; uint16_t fromPort; std::string toAddress; uint16_t toPort; std::vector<uint8_t> bytes;
    };

    class Socket : public UdpSocket {
    public:
        explicit Socket(FakeUdpNetwork& net) : mNet(net) {}
        ~Socket() override { close(); mNet.forget(this); }

        UdpStatus open() override
        {
            close();
            return (mFd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK | EFD_SEMAPHORE)) < 0 ? fail(errno) : UdpStatus::Ok;
        }
        UdpStatus bind(const std::string& address, uint16_t port) override
        {
            in_addr a;
            if (mFd < 0 || !parseBindAddress(address, a))
                return fail(mFd < 0 ? EBADF : EINVAL);
            std::string bound = a.s_addr == htonl(INADDR_ANY) ? std::string() : address;
            std::lock_guard<std::mutex> lock(mNet.mMutex);
            for (const Socket* s : mNet.mSockets)
                if (s != this && port != 0 && s->mPort == port && s->mAddress == bound)
                    return fail(EADDRINUSE);
            mAddress = bound;
            mPort = port != 0 ? port : mNet.mNextPort++;
            return UdpStatus::Ok;
        }
        UdpStatus receive(void* buffer, size_t capacity, UdpDatagramInfo& info) override
        {
            std::lock_guard<std::mutex> lock(mNet.mMutex);
            if (mFd < 0 || mQueue.empty())
                return mFd < 0 ? fail(EBADF) : UdpStatus::WouldBlock;
            uint64_t one;
            (void)!::read(mFd, &one, sizeof one);
            Datagram d = std::move(mQueue.front());
            mQueue.pop_front();
            std::memcpy(buffer, d.bytes.data(), std::min(capacity, d.bytes.size()));
            info.size = d.bytes.size(), info.address = d.fromAddress, info.port = d.fromPort;
            return info.size > capacity ? UdpStatus::Truncated : UdpStatus::Ok;
        }
        UdpStatus send(const void* data, size_t size, const std::string& address, uint16_t port) override
        {
            in_addr a;
            if (mFd < 0 || !parseAddress(address, a))
                return fail(mFd < 0 ? EBADF : EINVAL);
            std::lock_guard<std::mutex> lock(mNet.mMutex);
            if (mPort == 0)
                mPort = mNet.mNextPort++;
            const uint8_t* p = static_cast<const uint8_t*>(data);
            Datagram d{mAddress.empty() ? mNet.mHostAddress : mAddress, mPort, address, port,
                       std::vector<uint8_t>(p, p + size)};
            mNet.mSent.push_back(d);
            mNet.deliverLocked(d);
            return UdpStatus::Ok;
        }
        int descriptor() const override { return mFd; }
        uint16_t localPort() const override { return mPort; }
        int error() const override { return mError; }
        void close() override
        {
            std::lock_guard<std::mutex> lock(mNet.mMutex);
            if (mFd >= 0)
                ::close(mFd);
            mFd = -1, mPort = 0, mAddress.clear(), mQueue.clear();
        }

    private:
        friend class FakeUdpNetwork;
        UdpStatus fail(int err) { mError = err; return UdpStatus::Error; }
        void enqueueLocked(const Datagram& d)
        {
            const uint64_t one = 1;
            mQueue.push_back(d), (void)!::write(mFd, &one, sizeof one);
        }

        FakeUdpNetwork& mNet;
        int mFd = -1;
        std::string mAddress; // empty: bound to any address
        uint16_t mPort = 0;
        int mError = 0;
        std::deque<Datagram> mQueue;
    };

    // Sockets must be destroyed before the network.
    std::unique_ptr<Socket> socket()
    {
        auto s = std::make_unique<Socket>(*this);
        std::lock_guard<std::mutex> l(mMutex);
        mSockets.push_back(s.get());
        return s;
    }
    void addBroadcast(const std::string& address) { std::lock_guard<std::mutex> l(mMutex); mBroadcast.insert(address); }
    std::vector<Datagram> sent() const { std::lock_guard<std::mutex> l(mMutex); return mSent; }

private:
    void forget(const Socket* s)
    {
        std::lock_guard<std::mutex> l(mMutex);
        mSockets.erase(std::remove(mSockets.begin(), mSockets.end(), s), mSockets.end());
    }
    void deliverLocked(const Datagram& d)
    {
        const bool broadcast = mBroadcast.count(d.toAddress) != 0;
        Socket* any = nullptr;
        for (Socket* s : mSockets) {
            if (s->mFd < 0 || s->mPort != d.toPort)
                continue;
            if (broadcast || s->mAddress == d.toAddress)
                s->enqueueLocked(d);
            else if (s->mAddress.empty() && any == nullptr)
                any = s;
            if (!broadcast && s->mAddress == d.toAddress)
                return;
        }
        if (any != nullptr && !broadcast)
            any->enqueueLocked(d);
    }

    mutable std::mutex mMutex;
    std::string mHostAddress = "127.0.0.1"; // the sender address of sockets bound to any address
    std::vector<Socket*> mSockets;
    std::set<std::string> mBroadcast{"255.255.255.255"};
    uint16_t mNextPort = 40000;
    std::vector<Datagram> mSent;
};
