// ConfigKeys: the one table of every key the daemon reads or keeps in its
// configuration files "Kestrava.ini" and "Membercnt.cfg": the role that uses
// it, what it means, its unit and what the daemon does when it is absent.
// Plain data for the operator's documentation (the kestrava.ini(5) page is
// generated from it) and for the check that the shipped files and the
// sources name no key the table lacks; the daemon itself does not read it.
#pragma once

#include <cstddef>
#include <string>

// Which role reads the key.
enum class KeyRole { Controller, Member, Both };

struct ConfigKey {
    const char* name;    // "DeviceName"; a slot family as "WinkTime%d"
    int firstIndex;      // slot range of a family (1..4), 0 for a plain key
    int lastIndex;
    const char* file;    // "Kestrava.ini" or "Membercnt.cfg"
    KeyRole role;
    const char* meaning; // one sentence
    const char* unit;    // "seconds", "port", "path", "text", "0/1", ...
    const char* absent;  // what the daemon does when the key is absent or empty
};

class ConfigKeys {
public:
    static constexpr const char* kConfigFile = "Kestrava.ini";
    static constexpr const char* kMemberFile = "Membercnt.cfg";

    // The table, in the order of the manual page.
    static const ConfigKey* begin();
    static const ConfigKey* end();
    static size_t count();

    // The entry that names `key` in `file` ("WinkTime3" finds
    // "WinkTime%d" when 3 is in its range); nullptr when there is none.
    // An empty file searches both files.
    static const ConfigKey* find(const std::string& key, const std::string& file = std::string());

    // "controller", "member" or "both".
    static const char* roleName(KeyRole role);

    // The name as the operator writes it: "WinkTime<n>" for a family.
    static std::string displayName(const ConfigKey& key);
};
