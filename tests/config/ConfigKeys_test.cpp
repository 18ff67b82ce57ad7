// Drift checks of the table of configuration keys: every key the shipped
// files hold and every key the daemon's sources name is in the table, and
// every table entry stands in a shipped file.
//
// The source scan reads the daemon's folders and takes, from the arguments
// of the calls that read or write a key (getConf, setConf, setConfNum, the
// small per-class helpers conf, memberConf, confNum, confBounded, num, text,
// keep, value), every string literal shaped like a key; "X" inside key("X"),
// indexed("X", n) and "X" + std::to_string(...) stands for the slot family
// "X%d"; any literal "X%d" is a family; and so is the literal a constant
// named k...Key is set to. It cannot see keys that reach a call through a
// variable or a table of their own (the UPS identity written after
// detection, the slot families cleared in a loop, the console's list of
// locked keys), nor calls spread over lines in a way that splits a literal
// from its call; the check against the shipped files covers those.
#include "config/ConfigKeys.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace fs = std::filesystem;

namespace {

const std::string kSource = KESTRAVA_SOURCE_DIR;

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// Keys of a shipped file, trimmed as the loader trims them; a key shown
// commented out ("#Key=value") counts too.
std::set<std::string> keysOfSample(const std::string& name)
{
    static const std::regex disabled("^#([A-Za-z][A-Za-z0-9]*)=.*");
    std::set<std::string> keys;
    std::istringstream lines(slurp(kSource + "/packaging/" + name));
    std::string line;
    std::smatch m;
    while (std::getline(lines, line)) {
        if (std::regex_match(line, m, disabled)) {
            keys.insert(m[1]);
        } else if (!line.empty() && line[0] != '#' && line.find('=') != std::string::npos) {
            std::string key = line.substr(0, line.find('='));
            key.erase(0, key.find_first_not_of(" \t\""));
            key.erase(key.find_last_not_of(" \t\"") + 1);
            keys.insert(key);
        }
    }
    return keys;
}

// The text of the call arguments that start at `open` (just after "("),
// up to the balancing ")".
std::string argumentsAt(const std::string& text, size_t open)
{
    int depth = 1;
    size_t i = open;
    for (; i < text.size() && depth > 0; ++i) {
        if (text[i] == '"') {
            for (++i; i < text.size() && text[i] != '"'; ++i)
                if (text[i] == '\\')
                    ++i;
        } else if (text[i] == '(') {
            ++depth;
        } else if (text[i] == ')') {
            --depth;
        }
    }
    return text.substr(open, i - open);
}

// Key-shaped literals of one source file, each with where it was found.
void scanSource(const fs::path& path, std::map<std::string, std::string>* found)
{
    static const std::regex familyCall(R"re(\b(indexed|key)\(\s*"([A-Za-z]+)")re");
    static const std::regex familyPlus(R"re("([A-Za-z]+)"(\s*\+\s*std::to_string))re");
    static const std::regex named(R"re(\bk[A-Za-z]*Key\s*=\s*"([A-Za-z][A-Za-z0-9]*)")re");
    static const std::regex call(
        R"re(\b(?:getConf|getConfNum|getConfDec|setConf|setConfNum|setConfEnc|setConfIfChanged|conf|memberConf|confNum|confBounded|num|text|keep|value)\()re");
    static const std::regex literal(R"re("([A-Za-z][A-Za-z0-9]*(?:%d)?)")re");
    static const std::regex anyFamily(R"re("([A-Za-z]+%d)")re");

    std::string text = slurp(path);
    const std::string where = path.lexically_relative(kSource).string();
    auto add = [&](const std::string& key) { found->emplace(key, where); };
    const std::sregex_iterator end;

    // Families first; their literals are then blanked, so that the call
    // scan below does not take the bare stem for a key of its own.
    for (std::sregex_iterator it(text.begin(), text.end(), familyCall); it != end; ++it)
        add((*it)[2].str() + "%d");
    for (std::sregex_iterator it(text.begin(), text.end(), familyPlus); it != end; ++it)
        add((*it)[1].str() + "%d");
    text = std::regex_replace(std::regex_replace(text, familyCall, "$1(\"\""), familyPlus, "\"\"$2");
    for (std::sregex_iterator it(text.begin(), text.end(), anyFamily); it != end; ++it)
        add((*it)[1]);
    for (std::sregex_iterator it(text.begin(), text.end(), named); it != end; ++it)
        add((*it)[1]);
    for (std::sregex_iterator it(text.begin(), text.end(), call); it != end; ++it) {
        const std::string args = argumentsAt(text, static_cast<size_t>(it->position(0) + it->length(0)));
        for (std::sregex_iterator lit(args.begin(), args.end(), literal); lit != end; ++lit)
            add((*lit)[1]);
    }
}

// The table knows a scanned name: a plain key, or a family "X%d" whose
// entry is "X%d" itself.
bool inTable(const std::string& key)
{
    if (key.size() > 2 && key.compare(key.size() - 2, 2, "%d") == 0) {
        for (const ConfigKey* e = ConfigKeys::begin(); e != ConfigKeys::end(); ++e)
            if (key == e->name)
                return true;
        return false;
    }
    return ConfigKeys::find(key) != nullptr;
}

} // namespace

TEST(ConfigKeys, EveryShippedKeyIsInTheTableAndEveryEntryIsShipped)
{
    std::set<std::string> ini = keysOfSample("Kestrava.ini");
    const std::set<std::string> member = keysOfSample("Kestrava-member.ini");
    ini.insert(member.begin(), member.end());
    const std::set<std::string> memcnt = keysOfSample("Membercnt.cfg");
    ASSERT_GT(ini.size(), 20u);
    ASSERT_GT(memcnt.size(), 5u);

    for (const std::string& key : ini)
        EXPECT_NE(nullptr, ConfigKeys::find(key, ConfigKeys::kConfigFile)) << "Kestrava.ini key " << key;
    for (const std::string& key : memcnt)
        EXPECT_NE(nullptr, ConfigKeys::find(key, ConfigKeys::kMemberFile)) << "Membercnt.cfg key " << key;

    // Each entry, every slot of a family, stands in a shipped file: an entry
    // the files lack is one the daemon can never save.
    std::set<std::string> names;
    for (const ConfigKey* e = ConfigKeys::begin(); e != ConfigKeys::end(); ++e) {
        const std::string display = ConfigKeys::displayName(*e);
        EXPECT_TRUE(names.insert(std::string(e->file) + ":" + e->name).second) << "twice in the table: " << display;
        EXPECT_TRUE(*e->meaning && *e->unit && *e->absent) << display;
        EXPECT_EQ(std::string::npos, std::string(e->meaning).find_first_of("\n\\")) << display;
        const std::set<std::string>& shipped = std::string(e->file) == ConfigKeys::kMemberFile ? memcnt : ini;
        for (int n = e->firstIndex; n <= e->lastIndex; ++n) {
            const std::string key =
                n == 0 ? e->name : display.substr(0, display.size() - 3) + std::to_string(n);
            EXPECT_EQ(1u, shipped.count(key)) << e->file << " lacks " << key;
        }
    }
}

TEST(ConfigKeys, EveryKeyTheSourcesNameIsInTheTable)
{
    std::map<std::string, std::string> found;
    for (const char* dir : {"core", "control", "xcp", "config", "log", "ipc", "operator", "daemon"})
        for (const fs::directory_entry& f : fs::recursive_directory_iterator(kSource + "/" + dir))
            if (f.path().extension() == ".cpp" || f.path().extension() == ".h")
                if (f.path().filename() != "ConfigKeys.cpp")
                    scanSource(f.path(), &found);

    // The scan sees what it claims to see: keys read through each shape.
    for (const char* key : {"DeviceName", "CtrlPort1", "MemberPort", "SetLater", "WinkTime", "WinkTime%d",
                            "IPAddress%d", "CtrlPort%d", "AccessCode%d", "CuiAllowCommandKeys", "DumpLogDays"})
        EXPECT_EQ(1u, found.count(key)) << "the scan no longer finds " << key;

    for (const auto& k : found)
        EXPECT_TRUE(inTable(k.first)) << "\"" << k.first << "\" (" << k.second << ") is not in config/ConfigKeys.cpp";

    // Lookups the manual relies on.
    ASSERT_NE(nullptr, ConfigKeys::find("WinkTime4"));
    EXPECT_STREQ("WinkTime%d", ConfigKeys::find("WinkTime4")->name);
    EXPECT_EQ(nullptr, ConfigKeys::find("WinkTime5"));
    EXPECT_EQ(nullptr, ConfigKeys::find("WinkTime01"));
    EXPECT_STREQ("Membercnt.cfg", ConfigKeys::find("WinkTime")->file);
    EXPECT_STREQ("Kestrava.ini", ConfigKeys::find("UGName2", ConfigKeys::kConfigFile)->file);
    EXPECT_STREQ("Membercnt.cfg", ConfigKeys::find("UGName2", ConfigKeys::kMemberFile)->file);
}
