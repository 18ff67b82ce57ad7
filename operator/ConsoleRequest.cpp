#include "operator/ConsoleRequest.h"

#include <algorithm>
#include <cstring>

const char* const ConsoleRequest::kAllowKey = "CuiAllowCommandKeys";

namespace {
// A zero-terminated text of a fixed-size field; false when the field holds
// no terminator.
bool fieldText(const char* field, size_t size, std::string* out)
{
    const void* end = memchr(field, 0, size);
    if (!end)
        return false;
    out->assign(field, static_cast<size_t>(static_cast<const char*>(end) - field));
    return true;
}

bool hasLineBreak(const std::string& s) { return s.find_first_of("\r\n") != std::string::npos; }

bool startsWith(const std::string& s, const char* prefix) { return s.compare(0, strlen(prefix), prefix) == 0; }
} // namespace

bool ConsoleRequest::isCommandKey(const std::string& key)
{
    static const char* const exact[] = {"Path", "DeviceName", "UPSController", "CuiAddress",
                                        "CuiPort", "IPAddress", "MemberPort", kAllowKey};
    for (const char* k : exact)
        if (key == k)
            return true;
    // Every slot, and any other spelling the daemon could read as one.
    return startsWith(key, "AppTermCommand") || startsWith(key, "CtrlPort");
}

ConsoleRequest ConsoleRequest::decode(const void* data, size_t size, bool allowCommandKeys)
{
    ConsoleRequest req;
    if (!data || size != sizeof(CUIMSGINFO))
        return req;
    CUIMSGINFO rec;
    memcpy(&rec, data, sizeof rec);
    req.command = rec.command;
    if (rec.command == CmdPresence) {
        req.kind = Presence;
        return req;
    }
    // The status request reads only: its key and value are not looked at.
    if (rec.command == CmdStatus) {
        req.kind = Status;
        return req;
    }
    if (rec.command != CmdSetConf) {
        req.kind = Ignore;
        return req;
    }

    req.kind = Refused;
    if (!fieldText(rec.key, sizeof rec.key, &req.key)) {
        req.key.clear();
        req.reason = "key not terminated";
    } else if (!fieldText(rec.value, sizeof rec.value, &req.value)) {
        req.value.clear();
        req.reason = "value not terminated";
    } else if (req.key.empty()) {
        req.reason = "empty key";
    } else if (hasLineBreak(req.key) || hasLineBreak(req.value)) {
        req.reason = "line break in key or value";
    } else if (req.key.find('=') != std::string::npos) {
        req.reason = "\"=\" in the key";
    } else if (req.key == kAllowKey) {
        req.reason = "key can only be set in Kestrava.ini";
    } else if (!allowCommandKeys && isCommandKey(req.key)) {
        req.reason = "key runs a program or names a file or address; needs CuiAllowCommandKeys=1";
    } else {
        req.kind = SetConf;
    }
    return req;
}

CUIMSGINFO ConsoleRequest::answer() const
{
    CUIMSGINFO rec;
    memset(&rec, 0, sizeof rec);
    rec.command = kind == Refused ? CmdRefused : CmdAnswer;
    // Bounded copies that keep the terminators.
    const std::string text = kind == Refused ? "refused: " + reason : value;
    memcpy(rec.key, key.data(), std::min(key.size(), sizeof rec.key - 1));
    memcpy(rec.value, text.data(), std::min(text.size(), sizeof rec.value - 1));
    return rec;
}
