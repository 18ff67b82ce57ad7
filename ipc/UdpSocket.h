// UdpSocket: the narrow seam between the coordination transport and the
// operating system's UDP sockets. One object is one IPv4 datagram socket
// (close-on-exec, non-blocking, broadcast enabled); the transport thread
// waits in poll() on descriptor() and then calls receive() until it reports
// WouldBlock. Results are status codes, never exceptions. The daemon uses
// SystemUdpSocket; tests use the in-memory network in tests/fakes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <netinet/in.h>

enum class UdpStatus {
    Ok,         // done; for receive, a whole datagram is in the buffer
    WouldBlock, // receive: no datagram waits; send: the socket buffer is full
    Truncated,  // receive: the datagram was larger than the buffer; drop it
    Error,      // the call failed (error() holds the errno value)
};

// What receive() tells about one datagram.
struct UdpDatagramInfo {
    size_t size = 0;     // the datagram's full size, even when truncated
    std::string address; // the sender's address, dotted text
    uint16_t port = 0;   // the sender's port
};

class UdpSocket {
public:
    virtual ~UdpSocket() = default;

    // Opens the socket (close-on-exec, non-blocking) and enables broadcast.
    virtual UdpStatus open() = 0;
    // Binds to address and port. "*" or "" is any address; otherwise a
    // dotted IPv4 text; any other text is an Error and nothing is bound.
    // Port 0 takes a free port; localPort() tells which.
    virtual UdpStatus bind(const std::string& address, uint16_t port) = 0;
    // Takes one datagram into buffer (capacity bytes). Never blocks.
    virtual UdpStatus receive(void* buffer, size_t capacity, UdpDatagramInfo& info) = 0;
    // Sends one datagram to a dotted IPv4 address and port. Never blocks.
    virtual UdpStatus send(const void* data, size_t size, const std::string& address, uint16_t port) = 0;
    // The descriptor to poll for POLLIN; -1 while closed.
    virtual int descriptor() const = 0;
    // The bound port, 0 while unbound.
    virtual uint16_t localPort() const = 0;
    // The errno value of the last Error, 0 if none.
    virtual int error() const = 0;
    // Closes the socket; harmless when closed already.
    virtual void close() = 0;

    // Reads a bind address text as above: true with the address (network
    // byte order, INADDR_ANY for "*" and "") for a valid text, else false.
    static bool parseBindAddress(const std::string& text, in_addr& out);
    // Reads a dotted IPv4 text (as a send target): true with the address.
    static bool parseAddress(const std::string& text, in_addr& out);
};
