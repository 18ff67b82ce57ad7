#include "core/ErrorLog.h"

#include <cstdio>
#include <syslog.h>

void ErrorLog::report(const std::string& text)
{
    std::fprintf(stderr, "kestrava: %s\n", text.c_str());
    syslog(LOG_DAEMON | LOG_ERR, "%s", text.c_str());
}

std::string ErrorLog::printable(const std::string& text, size_t max)
{
    std::string out = text.substr(0, max);
    for (char& c : out)
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f)
            c = '?';
    return out;
}
