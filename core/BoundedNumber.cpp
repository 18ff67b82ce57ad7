#include "core/BoundedNumber.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <syslog.h>

long BoundedNumber::read(const std::string& key, const std::string& text, long lo, long hi)
{
    errno = 0;
    long long value = strtoll(text.c_str(), nullptr, 10);
    const bool overflow = errno == ERANGE; // value is then LLONG_MIN or LLONG_MAX
    long long used = value < lo ? lo : value > hi ? hi : value;
    if (used != value || overflow) {
        fprintf(stderr, "kestrava: %s=%s is out of range (%ld..%ld); %lld is used\n", key.c_str(), text.c_str(), lo,
                hi, used);
        syslog(LOG_DAEMON | LOG_WARNING, "%s=%s is out of range (%ld..%ld); %lld is used", key.c_str(), text.c_str(),
               lo, hi, used);
    }
    return static_cast<long>(used);
}
