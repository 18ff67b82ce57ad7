// Checks of the files shipped in packaging/, read with the daemon's FileMap:
// every key the daemon uses stands in its file once (a missing key is never
// saved), controller and member files fit together, and every message number
// the daemon can log or broadcast has a usable text.
#include "config/FileMap.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <initializer_list>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "tests/fakes/TempDir.h"
#include "xcp/AlarmTable.h"

namespace {

const std::string kPackaging = KESTRAVA_SOURCE_DIR "/packaging/";

// Key names; a trailing "%" stands for the controller slots 1 to 4.
std::set<std::string> keySet(std::initializer_list<std::string> names)
{
    std::set<std::string> keys;
    for (const std::string& k : names)
        for (int n = 1; n <= (k.back() == '%' ? 4 : 1); ++n)
            keys.insert(k.back() == '%' ? k.substr(0, k.size() - 1) + std::to_string(n) : k);
    return keys;
}

const std::set<std::string> kIniKeys = keySet({
    "UPSController", "DeviceName", "IPAddress", "MemberPort", "GroupName", "SetUpID", "MemberIDData",
    "NotSend", "UPSVersion", "ModelName", "UPSSerial", "UPSFirmWare", "DumpLogRate", "DumpLogDays", "Path",
    "CuiPort", "CuiAddress", "WinkTime%", "ShutdownTime%", "AppTermTimeOut%", "ShutdownDelay%", "AppTermCommand%",
    "CtrlIPAddress%", "CtrlPort%", "HostName%", "UGName%", "MemberEntry%", "MyID%", "AccessCode%",
    "AcceptControllerTiming", "AcceptControllerCommand"});
const std::set<std::string> kMemcntKeys = keySet({
    "SetLater", "WinkTime", "ShutdownTime", "AppTermTimeOut", "ShutdownDelay", "AppTermCommand",
    "ShutdownControl", "IPAddress%", "Port%", "UGName%"});

// Event-log codes the daemon posts (controller and member side); 0, 1, 2,
// 204 and 206 are also the broadcasts to users.
const int kLogCodes[] = {0,   1,   2,   3,   4,   5,   6,   7,   9,    10,   11,   14,   200, 204, 206,
                         208, 217, 218, 234, 235, 236, 237, 265, 292, 357, 1000, 1001, 1002, 1003};

// The keys of a shipped file in file order, trimmed as load() trims them;
// a line the loader would silently drop fails the test.
std::vector<std::string> keysOf(const std::string& name)
{
    std::vector<std::string> keys;
    for (const std::string& line : readLines(kPackaging + name)) {
        size_t eq = line.find('=');
        if (eq != std::string::npos && line[0] != '#') {
            keys.push_back(line.substr(0, eq));
            FileMap::trimming(&keys.back());
        }
        EXPECT_TRUE(eq != std::string::npos || line[0] == '#' || line.find_first_not_of(" \t\r") == std::string::npos)
            << name << ": the loader drops \"" << line << "\"";
    }
    return keys;
}

bool contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }

// Broadcasts run as "wall <text>" through the shell: anything the shell would
// interpret (quotes, parentheses, ;, &, $ outside the placeholders) would
// break or change them, and a leading "-" would be taken as an option.
const std::regex kShellSafe("(?!-)([A-Za-z0-9 .,:-]|\\$MACHINE|\\$MINUTES)+");

TEST(ShippedFiles, ConfigurationFilesHoldEveryKeyOnce)
{
    for (const auto& file : {std::make_pair("Kestrava.ini", kIniKeys), std::make_pair("Kestrava-member.ini", kIniKeys),
                             std::make_pair("Membercnt.cfg", kMemcntKeys)}) {
        SCOPED_TRACE(file.first);
        std::vector<std::string> found = keysOf(file.first);
        EXPECT_EQ(file.second, std::set<std::string>(found.begin(), found.end()));
        EXPECT_EQ(file.second.size(), found.size()) << "a key given more than once";
    }
}

TEST(ShippedFiles, ControllerAndMemberValuesFitTogether)
{
    FileMap ctrl(kPackaging + "Kestrava.ini"), memb(kPackaging + "Kestrava-member.ini");
    FileMap memcnt(kPackaging + "Membercnt.cfg");
    // The member reaches the controller as shipped, on two distinct ports.
    for (const char* key : {"CtrlPort1", "MemberPort", "AccessCode1"})
        EXPECT_EQ(ctrl.getConf(key), memb.getConf(key)) << key;
    EXPECT_EQ(ctrl.getConf("CtrlPort1"), memcnt.getConf("Port1"));
    EXPECT_NE(ctrl.getConf("CtrlPort1"), ctrl.getConf("MemberPort"));

    // Nothing received yet: a shipped timing here would overwrite the
    // member's own timing of all four slots at its first start.
    EXPECT_EQ("0", memcnt.getConf("SetLater"));
    for (const char* key : {"WinkTime", "ShutdownTime", "AppTermTimeOut", "ShutdownDelay", "AppTermCommand"})
        EXPECT_EQ("", memcnt.getConf(key)) << key;
}

TEST(ShippedFiles, MessageFilesHaveATextForEveryNumber)
{
    std::set<int> known(std::begin(kLogCodes), std::end(kLogCodes));
    for (const KS_STRCT_ALARM& row : ksStrctAlarm)
        known.insert({row.setCode, row.clearCode});

    std::set<std::string> numbersOfFirst;
    for (const char* name : {"alert.rc", "alert3so.rc"}) {
        SCOPED_TRACE(name);
        std::vector<std::string> found = keysOf(name);
        std::set<std::string> numbers(found.begin(), found.end());
        EXPECT_EQ(numbers.size(), found.size()) << "a message number given twice";
        if (numbersOfFirst.empty())
            numbersOfFirst = numbers;
        EXPECT_EQ(numbersOfFirst, numbers) << "both files must hold the same numbers";

        // A text for every number; $MINUTES only where codes 0 and 204 carry
        // the minutes, $DAYS never.
        FileMap msg(kPackaging + name);
        for (int n : known) {
            const std::string text = msg.getConf(std::to_string(n));
            EXPECT_FALSE(text.empty()) << "no text for message " << n;
            EXPECT_TRUE((n == 0 || n == 204 || !contains(text, "$MINUTES")) && !contains(text, "$DAYS"))
                << n << ": " << text;
        }
        // Broadcasts: safe for the shell, with only the placeholders each replaces.
        const struct { const char* number; bool minutes, machine; } broadcasts[] = {
            {"0", true, true}, {"1", false, true}, {"2", false, true}, {"204", true, false}, {"206", false, false}};
        for (const auto& b : broadcasts) {
            const std::string t = msg.getConf(b.number);
            EXPECT_TRUE(std::regex_match(t, kShellSafe)) << "not safe for the shell: " << t;
            EXPECT_TRUE(contains(t, "$MINUTES") == b.minutes && contains(t, "$MACHINE") == b.machine) << t;
        }
    }
}

} // namespace
