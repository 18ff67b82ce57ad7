// Checks of the configuration and message files shipped in packaging/: they
// are loaded with the daemon's own FileMap, every key the daemon reads or
// writes must stand in the files (a key missing from the file is never saved),
// and every message number the daemon can log or broadcast has a usable text.
#include "config/FileMap.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "tests/fakes/TempDir.h"

namespace fs = std::filesystem;

namespace {

const std::string kPackaging = KESTRAVA_SOURCE_DIR "/packaging/";

// ---- Keys -------------------------------------------------------------

// Keys of "Kestrava.ini" without a slot index.
const char* const kPlainKeys[] = {
    "UPSController", "DeviceName", "IPAddress", "MemberPort", "GroupName", "SetUpID",
    "MemberIDData", "NotSend", "UPSVersion", "ModelName", "UPSSerial", "UPSFirmWare",
    "DumpLogRate", "DumpLogDays", "Path", "CuiPort",
};

// Keys of "Kestrava.ini" that exist for controller slots 1 to 4.
const char* const kSlotKeys[] = {
    "WinkTime", "ShutdownTime", "AppTermTimeOut", "ShutdownDelay", "AppTermCommand",
    "CtrlIPAddress", "CtrlPort", "HostName", "UGName", "MemberEntry", "MyID", "AccessCode",
};

// Keys of "Membercnt.cfg".
const char* const kMemcntPlainKeys[] = {
    "SetLater", "WinkTime", "ShutdownTime", "AppTermTimeOut", "ShutdownDelay",
    "AppTermCommand", "ShutdownControl",
};
const char* const kMemcntSlotKeys[] = {"IPAddress", "Port", "UGName"};

std::set<std::string> withSlots(const std::vector<std::string>& plain, const std::vector<std::string>& slotted)
{
    std::set<std::string> keys(plain.begin(), plain.end());
    for (const std::string& k : slotted)
        for (int n = 1; n <= 4; ++n)
            keys.insert(k + std::to_string(n));
    return keys;
}

std::set<std::string> iniKeys()
{
    return withSlots(std::vector<std::string>(std::begin(kPlainKeys), std::end(kPlainKeys)),
                     std::vector<std::string>(std::begin(kSlotKeys), std::end(kSlotKeys)));
}

std::set<std::string> memcntKeys()
{
    return withSlots(std::vector<std::string>(std::begin(kMemcntPlainKeys), std::end(kMemcntPlainKeys)),
                     std::vector<std::string>(std::begin(kMemcntSlotKeys), std::end(kMemcntSlotKeys)));
}

// ---- Message numbers --------------------------------------------------

// Broadcasts to users; each is also the event-log text of its number.
const int kBroadcasts[] = {0, 1, 2, 204, 206};

// Event-log codes the daemon posts (controller and member side).
const int kLogCodes[] = {0,   1,   2,   3,   4,   5,   6,   7,   9,    10,   11,   14,   200, 204, 206,
                         208, 217, 218, 234, 235, 236, 237, 265, 292, 357, 1000, 1001, 1002, 1003};

// UPS alarm table rows whose codes break the rule set = 300 + alarm,
// clear = 600 + alarm: {alarm, set, clear}.
const int kIrregularAlarms[][3] = {
    {0, 48, 49},     {1, 52, 53},     {6, 70, 71},     {9, 138, 139},   {10, 140, 141},  {12, 78, 79},
    {20, 66, 67},    {21, 82, 83},    {24, 50, 51},    {25, 58, 59},    {26, 110, 111},  {27, 112, 113},
    {28, 30, 31},    {29, 76, 77},    {30, 100, 101},  {31, 86, 87},    {33, 32, 33},    {34, 114, 115},
    {36, 102, 103},  {50, 116, 117},  {55, 118, 119},  {56, 16, 17},    {58, 142, 143},  {59, 14, 15},
    {63, 72, 73},    {92, 54, 55},    {106, 62, 63},   {107, 26, 27},   {108, 46, 47},   {121, 96, 97},
    {126, 28, 29},   {149, 36, 37},   {169, 18, 19},   {178, 122, 123}, {191, 124, 125}, {192, 126, 127},
    {193, 128, 129}, {194, 98, 99},   {195, 22, 23},   {199, 20, 21},   {200, 38, 39},   {201, 130, 131},
    {205, 132, 133}, {206, 134, 135}, {207, 136, 137}, {228, 528, 829},
};

// (set, clear) message numbers of all 230 alarms, indexed by alarm number.
std::vector<std::pair<int, int>> alarmCodes()
{
    std::vector<std::pair<int, int>> codes;
    for (int alarm = 0; alarm < 230; ++alarm)
        codes.emplace_back(300 + alarm, 600 + alarm);
    for (const auto& row : kIrregularAlarms)
        codes[row[0]] = {row[1], row[2]};
    return codes;
}

std::set<int> allMessageNumbers()
{
    std::set<int> numbers(std::begin(kLogCodes), std::end(kLogCodes));
    numbers.insert(std::begin(kBroadcasts), std::end(kBroadcasts));
    for (const auto& c : alarmCodes()) {
        numbers.insert(c.first);
        numbers.insert(c.second);
    }
    return numbers;
}

// ---- Helpers ----------------------------------------------------------

struct RawFile {
    std::vector<std::string> keys;       // in file order, trimmed as load() trims them
    std::vector<std::string> strayLines; // non-empty lines that load() silently drops
};

// Reads a shipped file line by line the way FileMap::load sees it.
RawFile readRaw(const std::string& path)
{
    RawFile raw;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line[0] == '#')
            continue;
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            if (line.find_first_not_of(" \t\r") != std::string::npos)
                raw.strayLines.push_back(line);
            continue;
        }
        std::string key = line.substr(0, eq);
        FileMap::trimming(&key);
        raw.keys.push_back(key);
    }
    return raw;
}

// Checks that a file names exactly the expected keys, each once, with no line
// the loader would drop, and that FileMap can persist every one of them: each
// key is changed in a copy, saved, and read back from a fresh load.
void expectKeysPersist(const std::string& name, const std::set<std::string>& expected)
{
    SCOPED_TRACE(name);
    RawFile raw = readRaw(kPackaging + name);
    EXPECT_TRUE(raw.strayLines.empty()) << "first line the loader would drop: " << raw.strayLines.front();

    std::map<std::string, int> seen;
    for (const std::string& k : raw.keys)
        ++seen[k];
    for (const auto& kv : seen) {
        EXPECT_EQ(1, kv.second) << "key given more than once: " << kv.first;
        EXPECT_TRUE(expected.count(kv.first)) << "key the daemon does not know: " << kv.first;
    }
    for (const std::string& k : expected)
        EXPECT_TRUE(seen.count(k)) << "key missing, so it can never be saved: " << k;

    // A private copy, so that saving never touches the shipped file.
    TempDir dir("kestrava-pkg-");
    ASSERT_TRUE(dir.made());
    fs::copy_file(kPackaging + name, dir.file(name));
    {
        FileMap map(dir.file(name));
        ASSERT_TRUE(map.isLoaded());
        for (const std::string& k : expected)
            map.setConf(k, "saved " + k);
        ASSERT_EQ(1, map.save());
    }
    FileMap again(dir.file(name));
    ASSERT_TRUE(again.isLoaded());
    for (const std::string& k : expected)
        EXPECT_EQ("saved " + k, again.getConf(k)) << "not persisted: " << k;
}

// True when the whole text is a base-10 number (what the daemon's strtol reads).
bool isNumber(const std::string& s, long* value)
{
    if (s.empty())
        return false;
    char* end = nullptr;
    errno = 0;
    long v = strtol(s.c_str(), &end, 10);
    if (errno != 0 || *end != '\0')
        return false;
    *value = v;
    return true;
}

long numberOf(FileMap& map, const std::string& key)
{
    long v = -1;
    EXPECT_TRUE(isNumber(map.getConf(key), &v)) << key << " = \"" << map.getConf(key) << "\" is not a number";
    return v;
}

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// Broadcasts run as "wall <text>" through the shell: anything the shell
// would interpret (quotes, parentheses, ;, &, $, ...) would break or change them.
bool shellSafe(std::string text)
{
    for (const char* placeholder : {"$MACHINE", "$MINUTES"}) {
        size_t at;
        while ((at = text.find(placeholder)) != std::string::npos)
            text.erase(at, std::string(placeholder).size());
    }
    if (text.empty() || text[0] == '-')
        return false;
    for (unsigned char c : text)
        if (!std::isalnum(c) && c != ' ' && c != '.' && c != ',' && c != ':' && c != '-')
            return false;
    return true;
}

// ---- Tests ------------------------------------------------------------

TEST(ShippedFiles, ConfigurationFilesHoldEveryKeyAndItCanBeSaved)
{
    expectKeysPersist("Kestrava.ini", iniKeys());
    expectKeysPersist("Kestrava-member.ini", iniKeys());
    expectKeysPersist("Membercnt.cfg", memcntKeys());
}

TEST(ShippedFiles, ControllerAndMemberValuesFitTogether)
{
    FileMap ctrl(kPackaging + "Kestrava.ini");
    FileMap memb(kPackaging + "Kestrava-member.ini");
    FileMap memcnt(kPackaging + "Membercnt.cfg");
    ASSERT_TRUE(ctrl.isLoaded());
    ASSERT_TRUE(memb.isLoaded());
    ASSERT_TRUE(memcnt.isLoaded());

    EXPECT_EQ("1", ctrl.getConf("UPSController"));
    EXPECT_EQ("2", memb.getConf("UPSController"));
    EXPECT_EQ("/dev/ttyS0", ctrl.getConf("DeviceName"));

    // A small office: one minute of wink, five minutes of countdown, two
    // minutes for the applications, three for the host to halt.
    for (FileMap* map : {&ctrl, &memb}) {
        EXPECT_EQ(60, numberOf(*map, "WinkTime1"));
        EXPECT_EQ(5, numberOf(*map, "ShutdownTime1"));
        EXPECT_EQ(120, numberOf(*map, "AppTermTimeOut1"));
        EXPECT_EQ(180, numberOf(*map, "ShutdownDelay1"));
        EXPECT_EQ(10, numberOf(*map, "DumpLogRate"));
        EXPECT_EQ(30, numberOf(*map, "DumpLogDays"));
        EXPECT_EQ("/opt/kestrava", map->getConf("Path"));
        EXPECT_EQ("", map->getConf("AppTermCommand1"));
        for (const char* key : {"ModelName", "UPSSerial", "UPSFirmWare"})
            EXPECT_EQ("", map->getConf(key)) << key << " is filled in by the daemon";
        for (const char* key : {"CuiPort", "CtrlPort1", "MemberPort"}) {
            long port = numberOf(*map, key);
            EXPECT_TRUE(port > 0 && port < 65536) << key;
        }
        EXPECT_NE(map->getConf("CtrlPort1"), map->getConf("MemberPort"));
        numberOf(*map, "MemberIDData");
    }

    // The member must reach the controller as shipped.
    EXPECT_EQ(ctrl.getConf("CtrlPort1"), memb.getConf("CtrlPort1"));
    EXPECT_EQ(ctrl.getConf("MemberPort"), memb.getConf("MemberPort"));
    EXPECT_EQ(ctrl.getConf("AccessCode1"), memb.getConf("AccessCode1"));
    EXPECT_EQ(ctrl.getConf("CtrlPort1"), memcnt.getConf("Port1"));

    // Nothing received yet: a shipped timing here would overwrite the
    // member's own timing of all four slots at its first start.
    EXPECT_EQ("0", memcnt.getConf("SetLater"));
    for (const char* key : {"WinkTime", "ShutdownTime", "AppTermTimeOut", "ShutdownDelay", "AppTermCommand"})
        EXPECT_EQ("", memcnt.getConf(key)) << key;
}

TEST(ShippedFiles, MessageFilesHaveATextForEveryNumber)
{
    const std::vector<std::pair<int, int>> alarms = alarmCodes();
    ASSERT_EQ(46u, std::size(kIrregularAlarms)); // plus row 229, which follows the rule
    ASSERT_EQ(829, alarms[229].second);
    ASSERT_EQ(829, alarms[228].second);
    const std::set<int> known = allMessageNumbers();

    std::set<std::string> numbersOfFirst;
    for (const char* name : {"alert.rc", "alert3so.rc"}) {
        SCOPED_TRACE(name);
        RawFile raw = readRaw(kPackaging + name);
        EXPECT_TRUE(raw.strayLines.empty()) << "first line the loader would drop: " << raw.strayLines.front();
        std::set<std::string> numbers;
        for (const std::string& k : raw.keys) {
            long n = -1;
            EXPECT_TRUE(isNumber(k, &n) && known.count(static_cast<int>(n)))
                << "message number the daemon never uses: " << k;
            EXPECT_TRUE(numbers.insert(k).second) << "message number given twice: " << k;
        }
        if (numbersOfFirst.empty())
            numbersOfFirst = numbers;
        else
            EXPECT_EQ(numbersOfFirst, numbers) << "both files must hold the same numbers";

        FileMap msg(kPackaging + name);
        ASSERT_TRUE(msg.isLoaded());
        for (int n : known)
            EXPECT_FALSE(msg.getConf(std::to_string(n)).empty()) << "no text for message " << n;

        // Broadcast placeholders: only what each broadcast replaces.
        const std::string t0 = msg.getConf("0"), t1 = msg.getConf("1"), t2 = msg.getConf("2");
        const std::string t204 = msg.getConf("204"), t206 = msg.getConf("206");
        EXPECT_TRUE(contains(t0, "$MINUTES") && contains(t0, "$MACHINE")) << t0;
        EXPECT_TRUE(contains(t1, "$MACHINE") && !contains(t1, "$MINUTES")) << t1;
        EXPECT_TRUE(contains(t2, "$MACHINE") && !contains(t2, "$MINUTES")) << t2;
        EXPECT_TRUE(contains(t204, "$MINUTES") && !contains(t204, "$MACHINE")) << t204;
        EXPECT_TRUE(!contains(t206, "$MINUTES") && !contains(t206, "$MACHINE")) << t206;
        for (int n : kBroadcasts)
            EXPECT_TRUE(shellSafe(msg.getConf(std::to_string(n)))) << "not safe for the shell: " << n;

        // The event log fills $MINUTES from the value that only codes 0 and
        // 204 carry, and never replaces $DAYS.
        for (int n : known) {
            const std::string text = msg.getConf(std::to_string(n));
            if (n != 0 && n != 204) {
                EXPECT_FALSE(contains(text, "$MINUTES")) << n << ": " << text;
            }
            EXPECT_FALSE(contains(text, "$DAYS")) << n << ": " << text;
        }

        // An alarm that comes and goes must read differently in the log.
        for (size_t alarm = 0; alarm < alarms.size(); ++alarm)
            EXPECT_NE(msg.getConf(std::to_string(alarms[alarm].first)),
                      msg.getConf(std::to_string(alarms[alarm].second)))
                << "alarm " << alarm;
    }
}

} // namespace
