#include "operator/NetworkAddresses.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {
const char kAllBroadcast[] = "255.255.255.255";

void copyText(char* dst, const char* src)
{
    snprintf(dst, 32, "%s", src);
}
} // namespace

unsigned short GetNowIPAddr_And_BroadCastAddr(char (*addrs)[32], char (*bcasts)[32])
{
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        copyText(bcasts[0], kAllBroadcast);
        return 0;
    }

    // Room for 64 interface entries.
    char buffer[2048];
    memset(buffer, 0, sizeof buffer);
    struct ifconf ifc;
    memset(&ifc, 0, sizeof ifc);
    ifc.ifc_len = sizeof buffer;
    ifc.ifc_buf = buffer;
    if (ioctl(fd, SIOCGIFCONF, &ifc) < 0) {
        close(fd);
        copyText(bcasts[0], kAllBroadcast);
        return 0;
    }

    unsigned short count = 0;
    int entries = ifc.ifc_len / static_cast<int>(sizeof(struct ifreq));
    for (int i = 0; i < entries; ++i) {
        struct ifreq req;
        memcpy(&req, buffer + i * sizeof(struct ifreq), sizeof req);
        req.ifr_addr.sa_family = AF_INET;
        if (ioctl(fd, SIOCGIFADDR, &req) < 0)
            break;
        struct sockaddr_in addr;
        memcpy(&addr, &req.ifr_addr, sizeof addr);
        char text[INET_ADDRSTRLEN];
        if (!inet_ntop(AF_INET, &addr.sin_addr, text, sizeof text))
            break;
        if (strcmp(text, "127.0.0.1") == 0)
            continue;

        if (ioctl(fd, SIOCGIFNETMASK, &req) < 0)
            break;
        struct sockaddr_in mask;
        memcpy(&mask, &req.ifr_netmask, sizeof mask);
        struct in_addr bcast;
        bcast.s_addr = (addr.sin_addr.s_addr & mask.sin_addr.s_addr) | ~mask.sin_addr.s_addr;
        char btext[INET_ADDRSTRLEN];
        if (!inet_ntop(AF_INET, &bcast, btext, sizeof btext))
            break;

        copyText(addrs[count], text);
        copyText(bcasts[count], btext);
        ++count;
    }
    close(fd);

    if (count == 0)
        copyText(bcasts[0], kAllBroadcast);
    return count;
}
