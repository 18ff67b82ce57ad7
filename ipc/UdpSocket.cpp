#include "ipc/UdpSocket.h"

#include <arpa/inet.h>

bool UdpSocket::parseAddress(const std::string& text, in_addr& out)
{
    // inet_pton takes exactly four decimal octets: no short forms, no
    // octal or hex, nothing after the last octet.
    return inet_pton(AF_INET, text.c_str(), &out) == 1;
}

bool UdpSocket::parseBindAddress(const std::string& text, in_addr& out)
{
    if (text.empty() || text == "*") {
        out.s_addr = htonl(INADDR_ANY);
        return true;
    }
    return parseAddress(text, out);
}
