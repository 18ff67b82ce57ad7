// libFuzzer target of the console record: whatever bytes one read of the
// console port brings are decoded, with and without the operator's opt-in,
// and the result must never store a key that the console refuses. The same
// bytes, read by the console client as records of a status answer, must
// render as printable text and as JSON without a raw control character.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "operator/ConsoleRequest.h"
#include "operator/StatusReport.h"

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
    // The status request reads only: it carries nothing to store.
    if (req.kind == ConsoleRequest::Status && (req.command != ConsoleRequest::CmdStatus || !req.key.empty() || !req.value.empty()))
        __builtin_trap();
    const CUIMSGINFO answer = req.answer();
    if (!memchr(answer.key, 0, sizeof answer.key) || !memchr(answer.value, 0, sizeof answer.value))
        __builtin_trap();
    const int32_t expected = req.kind == ConsoleRequest::Refused ? ConsoleRequest::CmdRefused : ConsoleRequest::CmdAnswer;
    if (answer.command != expected)
        __builtin_trap();
}
// The bytes as a status answer: records taken until one is refused or ends it.
void checkStatusAnswer(const uint8_t* data, size_t size)
{
    StatusReport::Items items;
    for (size_t at = 0; at + sizeof(CUIMSGINFO) <= size; at += sizeof(CUIMSGINFO)) {
        CUIMSGINFO rec;
        memcpy(&rec, data + at, sizeof rec);
        StatusReport::Item item;
        bool done = false;
        if (!StatusReport::fromRecord(rec, &item, &done) || done)
            break;
        items.push_back(item);
    }
    for (unsigned char c : StatusReport::text(items))
        if (c != '\n' && (c < 0x20 || c > 0x7E))
            __builtin_trap();
    const std::string json = StatusReport::json(items);
    for (size_t i = 0; i + 1 < json.size(); ++i)
        if (static_cast<unsigned char>(json[i]) < 0x20 || static_cast<unsigned char>(json[i]) > 0x7E)
            __builtin_trap();
    const int code = StatusReport::exitCode(items);
    if (code < StatusReport::ExitOk || code > StatusReport::ExitUnreachable)
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
    checkStatusAnswer(data, size);
    return 0;
}
