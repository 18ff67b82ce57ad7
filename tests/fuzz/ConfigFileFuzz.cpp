// libFuzzer target of the configuration reader: any bytes as "Kestrava.ini",
// loaded, saved and reloaded. No line break stays in a key or value, a save
// of unchanged values changes no reloaded value (when no key repeats) and
// adds no key, and a changed plain value survives save and reload.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "tests/fakes/TempDir.h"

namespace {
using Entries = std::map<std::string, std::string>;

Entries entries(FileMap& map, const Entries& keys)
{
    Entries out;
    for (const auto& k : keys)
        out[k.first] = map.getConf(k.first);
    return out;
}

// The keys of the lines that hold a pair (not comments, with "="), trimmed
// as the load and the save trim them, in file order.
std::vector<std::string> pairKeys(const std::string& text)
{
    std::vector<std::string> keys;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        if (!line.empty() && line[0] != '#' && line.find('=') != std::string::npos) {
            keys.push_back(line.substr(0, line.find('=')));
            FileMap::trimming(&keys.back());
        }
    return keys;
}

bool isPlainKey(const std::string& key)
{
    for (char c : key)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '%' && c != '.')
            return false;
    return !key.empty();
}
} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    // One private directory for the run, removed when the process ends.
    static TempDir scratch("kestrava-fuzz-config.");
    const std::string text(reinterpret_cast<const char*>(data), size), path = scratch.file("Kestrava.ini");
    if (!writeFile(path, text))
        abort();

    FileMap map(path);
    if (!map.isLoaded())
        __builtin_trap();
    // What the load stored, read through a second map so that the reads
    // create no entries in the first.
    const std::vector<std::string> keys = pairKeys(text);
    Entries loaded;
    for (const std::string& k : keys)
        loaded[k];
    FileMap probe(path);
    loaded = entries(probe, loaded);
    for (const auto& kv : loaded)
        if (kv.first.find('\n') != std::string::npos || kv.second.find('\n') != std::string::npos)
            __builtin_trap();

    if (map.save() != 1)
        __builtin_trap();
    FileMap again(path);
    if (keys.size() == loaded.size() && entries(again, loaded) != loaded)
        __builtin_trap();

    // A plain new value for the first key with a plain name survives save and reload.
    if (!loaded.empty() && isPlainKey(loaded.begin()->first)) {
        const std::string key = loaded.begin()->first, value = "v" + std::to_string(size);
        map.setConf(key, value);
        map.save();
        if (FileMap(path).getConf(key) != value)
            __builtin_trap();
    }
    return 0;
}
