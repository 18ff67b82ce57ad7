// BoundedNumber: reads a decimal configuration value that must stay within
// bounds (seconds, minutes, days that later become expiry times). A value
// beyond a bound would overflow the arithmetic that turns it into a timer
// expiry and make a countdown fire at once; it is clamped to the bound and
// the change is reported once per read on standard error and to syslog.
#pragma once

#include <string>

class BoundedNumber {
public:
    // The base-10 value of `text` (leading digits, as strtol reads them; an
    // empty or non-numeric text is 0) limited to [lo, hi]. `key` names the
    // value in the report.
    static long read(const std::string& key, const std::string& text, long lo, long hi);
};
