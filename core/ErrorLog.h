// ErrorLog: the daemon's one way to report a failure that no event-log code
// covers (a file that cannot be saved, input refused): one line on standard
// error, prefixed "kestrava: ", and the same text in the system log.
#pragma once

#include <cstddef>
#include <string>

class ErrorLog {
public:
    static void report(const std::string& text);
    // The text fit for a log line: every control character shown as '?',
    // cut to `max` bytes (an outside text never breaks a log line).
    static std::string printable(const std::string& text, size_t max = 64);
};
