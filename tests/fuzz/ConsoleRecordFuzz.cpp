// libFuzzer target of the console record: whatever bytes one read of the
// console port brings are decoded, with and without the operator's opt-in,
// and the result must never store a key that the console refuses.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "operator/ConsoleRequest.h"

namespace {
bool clean(const std::string& s, size_t room)
{
    return s.size() < room && s.find_first_of(std::string("\r\n\0", 3)) == std::string::npos;
}

void check(const ConsoleRequest& req, bool allow, size_t size)
{
    if (size != sizeof(CUIMSGINFO) && req.kind != ConsoleRequest::Close)
        __builtin_trap();
    if (req.kind == ConsoleRequest::SetConf) {
        if (req.key.empty() || !clean(req.key, 128) || !clean(req.value, 128)
            || req.key.find('=') != std::string::npos || req.key == ConsoleRequest::kAllowKey
            || (!allow && ConsoleRequest::isCommandKey(req.key)))
            __builtin_trap();
    }
    if (req.kind == ConsoleRequest::Refused && req.reason.empty())
        __builtin_trap();
    const CUIMSGINFO answer = req.answer();
    if (!memchr(answer.key, 0, sizeof answer.key) || !memchr(answer.value, 0, sizeof answer.value))
        __builtin_trap();
    const int32_t expected = req.kind == ConsoleRequest::Refused ? ConsoleRequest::CmdRefused : ConsoleRequest::CmdAnswer;
    if (answer.command != expected)
        __builtin_trap();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // The record as it arrives, and the same bytes as a request to set a key
    // (so the key and value checks see every input).
    for (bool allow : {false, true}) {
        check(ConsoleRequest::decode(data, size, allow), allow, size);
        CUIMSGINFO rec;
        memset(&rec, 0, sizeof rec);
        memcpy(reinterpret_cast<char*>(&rec) + 4, data, size < sizeof rec - 4 ? size : sizeof rec - 4);
        rec.command = ConsoleRequest::CmdSetConf;
        const ConsoleRequest req = ConsoleRequest::decode(&rec, sizeof rec, allow);
        if (req.kind != ConsoleRequest::SetConf && req.kind != ConsoleRequest::Refused)
            __builtin_trap();
        check(req, allow, sizeof rec);
    }
    return 0;
}
