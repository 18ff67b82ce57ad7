// The status report without sockets: what the daemon gathers on a controller
// and on a member, the records it travels in, and what the console makes of
// them (text, JSON, exit status), hostile texts included.
#include "operator/StatusReport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "ipc/IpcData.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

namespace {

using Items = StatusReport::Items;

// An identification block: no firmware entries, the rating in thousands of
// VA, the unit name, a meter map marking `meters` present and an alarm map
// marking `alarms` supported.
std::string idBlock(int ratingKVA, const std::string& name, const std::vector<int>& meters, const std::vector<int>& alarms)
{
    std::string b;
    b += '\0';
    b += static_cast<char>(ratingKVA);
    b += std::string(2, '\0');
    b += static_cast<char>(name.size()) + name;
    std::string meterMap(100, '\0');
    for (int m : meters)
        meterMap[static_cast<size_t>(m)] = static_cast<char>(0xF0);
    b += static_cast<char>(meterMap.size()) + meterMap;
    std::string alarmMap(30, '\0');
    for (int a : alarms)
        alarmMap[static_cast<size_t>(a / 8)] = static_cast<char>(alarmMap[static_cast<size_t>(a / 8)] | (1 << (a % 8)));
    b += static_cast<char>(alarmMap.size()) + alarmMap;
    return b;
}

// Sets the active alarms among the supported ones (ascending) of a UPS index.
void setActive(UpsDataBlock& ups, const std::vector<int>& supported, const std::vector<int>& active, int index)
{
    std::vector<unsigned char> states;
    for (int a : supported)
        states.push_back(std::find(active.begin(), active.end(), a) != active.end() ? 1 : 0);
    ups.setActionLevel(states.data(), static_cast<int>(states.size()), index);
    ups.checkAlarm(index);
}

std::string valueOf(const Items& items, const std::string& key)
{
    for (const auto& kv : items)
        if (kv.first == key)
            return kv.second;
    return "(missing)";
}

// The items after the trip through the answer records.
Items throughRecords(const Items& items)
{
    Items out;
    for (const CUIMSGINFO& rec : StatusReport::toRecords(items)) {
        StatusReport::Item item;
        bool done = false;
        EXPECT_TRUE(StatusReport::fromRecord(rec, &item, &done));
        if (done)
            break;
        out.push_back(item);
    }
    return out;
}

struct Daemon {
    explicit Daemon(const std::string& ini)
    {
        writeFile(dir.file("Kestrava.ini"), ini);
        config.load();
    }
    TempDir dir{"statusreport_test."};
    ManualClock clock;
    FileMap config{dir.file("Kestrava.ini")};
    StCTrl ctrl{&clock, &config};
    UpsDataBlock ups{&clock};
    UpsDataBlock* upsPtr = &ups;
    StatusReport::Sources sources()
    {
        StatusReport::Sources s;
        s.ctrl = &ctrl;
        s.ups = &upsPtr;
        s.clock = &clock;
        s.shutdownCommand = "/sbin/shutdown -h now";
        return s;
    }
};

TEST(StatusReport, ControllerOnBatteryInCountdownWithMembersRendersEscapedTextAndJson)
{
    const std::string ini = "UPSController=1\nWinkTime1=10\nShutdownTime1=5\nAppTermTimeOut1=30\n"
                            "AppTermCommand1=/opt/stop \"db\"\n";
    Daemon d(ini);
    const std::vector<int> supported = {57, 59, 150};
    // A model name with a quote, a backslash, a control character and a byte outside ASCII.
    d.ups.setStandardIDBlock(idBlock(1, "UPS\"\\\x01\xff", {33, 35, 36}, supported));
    std::vector<int32_t> meters(256, 0);
    meters[33] = 5420;
    meters[35] = 8700;
    meters[36] = 72000; // 720 s
    d.ups.setMeterValues(meters.data(), 256, 0);
    setActive(d.ups, supported, {59, 150}, 0);
    d.ctrl.Set_State_UPS(UpsCommunicating);
    d.ctrl.setShutdownTiming(0);
    d.ctrl.power(0).phase = StCTrl::PhaseCountdown;
    d.ctrl.power(0).remaining = 3;

    // Two members; the one on a port up to 3068 is not listed, as in membCommInfo.tmp.
    IpcData table(d.ctrl, d.dir.path(), d.dir.path());
    IpcData* tablePtr = &table;
    ASSERT_EQ(table.InitMember("10.0.0.5", 3070, "id-web1", false, ThCtrlSlot0, SqNew, nullptr), 1);
    ASSERT_EQ(table.InitMember("10.0.0.6", 3000, "id-old", false, ThCtrlSlot0, SqNew, nullptr), 2);
    DUP_MEMB_INFO m;
    table.GetMembInfo(1, &m);
    table.SetMembNameString(&m, "web1");
    table.SetMembStatus(&m, MembActive, false);

    StatusReport::Sources src = d.sources();
    src.members = &tablePtr;
    const Items items = throughRecords(StatusReport::collect(src));

    EXPECT_EQ(StatusReport::text(items),
              "Role: controller\n"
              "UPS: UPS\"\\?? (1000 VA), communicating\n"
              "Power: on battery\n"
              "Battery: charge 87.0 %, runtime 12 min, 54.2 V\n"
              "Alarms: 59 Utility not present; 150 Battery charging (notice)\n"
              "Countdown: controller 1: countdown, 3 min left; then AppTermCommand \"/opt/stop \"db\"\" and "
              "\"/sbin/shutdown -h now\" 30 s later\n"
              "Members: 1 registered, 1 Active\n"
              "  1 web1 10.0.0.5 port 3070: Active\n"
              "Status: needs attention (on battery, alarm, countdown running)\n");
    EXPECT_EQ(StatusReport::json(items),
              "{\"role\": \"controller\", \"ok\": false, \"ups\": {\"state\": \"communicating\", "
              "\"model\": \"UPS\\\"\\\\\\u0001?\", \"serial\": null, \"rating_va\": 1000, \"power\": \"battery\", "
              "\"battery_charge\": 87.0, \"battery_runtime\": 720.0, \"battery_voltage\": 54.2, "
              "\"input_voltage\": null, \"output_voltage\": null, \"output_watts\": null}, "
              "\"alarms\": [{\"number\": 59, \"level\": 8, \"name\": \"Utility not present\", \"notice\": false}, "
              "{\"number\": 150, \"level\": 1, \"name\": \"Battery charging\", \"notice\": true}], "
              "\"countdowns\": [{\"controller\": 1, \"phase\": \"countdown\", \"seconds_left\": null, "
              "\"minutes_left\": 3, \"app_end_seconds\": 30, \"app_command\": \"/opt/stop \\\"db\\\"\", "
              "\"shutdown_command\": \"/sbin/shutdown -h now\"}], "
              "\"members\": [{\"slot\": 1, \"name\": \"web1\", \"address\": \"10.0.0.5\", \"port\": 3070, "
              "\"state\": \"Active\"}], \"controllers\": []}\n");
    EXPECT_EQ(StatusReport::exitCode(items), StatusReport::ExitAttention);

    // Wink: the seconds left come from the failure's start and the clock.
    d.ctrl.power(0).phase = StCTrl::PhaseWink;
    d.ctrl.power(0).failureStart = static_cast<int32_t>(d.clock.now() - 4);
    EXPECT_NE(StatusReport::text(StatusReport::collect(src))
                  .find("Countdown: controller 1: wink, 6 s left; then a 5 min countdown, AppTermCommand"),
              std::string::npos);

    // Power back, the notice alone: OK. Nothing the report read was changed.
    d.ctrl.power(0).phase = StCTrl::PhaseNormal;
    setActive(d.ups, supported, {150}, 0);
    const Items calm = StatusReport::collect(src);
    EXPECT_EQ(valueOf(calm, "ups.power"), "utility");
    EXPECT_EQ(StatusReport::exitCode(calm), StatusReport::ExitOk);
    EXPECT_NE(StatusReport::text(calm).find("Countdown: none\n"), std::string::npos);
    EXPECT_NE(StatusReport::json(calm).find("\"ok\": true"), std::string::npos);
    EXPECT_EQ(d.ctrl.queuedEvents(), 0u);
    EXPECT_EQ(readFile(d.dir.file("Kestrava.ini")), ini);

    // A UPS that stops answering is not OK, whatever its last data said.
    d.ctrl.Set_State_UPS(UpsCommError);
    const Items lost = StatusReport::collect(src);
    EXPECT_EQ(valueOf(lost, "ups.power"), "unknown");
    EXPECT_EQ(StatusReport::exitCode(lost), StatusReport::ExitAttention);
    EXPECT_NE(StatusReport::text(lost).find("Status: needs attention (UPS communication error)"), std::string::npos);
}

TEST(StatusReport, MemberShowsItsControllersAsTheInformationTableDoes)
{
    Daemon d("UPSController=2\nCtrlIPAddress1=10.213.0.1\nCtrlIPAddress2=10.213.0.2\nHostName2=ctl-b\n"
             "WinkTime2=0\nShutdownTime2=1\nAppTermTimeOut2=20\n");
    const std::vector<int> supported = {57, 59};
    d.ups.setAlarmNo(reinterpret_cast<const unsigned char*>("\0\0\0\0\0\0\0\x0a"), 8, 1);
    setActive(d.ups, supported, {57}, 1);
    d.ctrl.SetMemberContCount(2);
    d.ctrl.SetMemberContActive(0, true);
    d.ctrl.SetMemberContActive(1, true);
    d.ctrl.ShutDownSetCommStatus(0, 1);
    d.ctrl.SetOutPutStatus(true, true, 0);
    d.ctrl.ShutDownSetCommStatus(1, 2);
    d.ctrl.ShutDownSetPFStatus(1, 1);
    d.ctrl.setShutdownTiming(1);
    d.ctrl.power(1).phase = StCTrl::PhaseEnded; // waits for controller 1, which still feeds the host

    const Items items = throughRecords(StatusReport::collect(d.sources()));
    EXPECT_EQ(StatusReport::text(items),
              "Role: member\n"
              "Controllers: 2 followed\n"
              "  1 10.213.0.1: Active, power OK, output ON, alarms: none\n"
              "  2 ctl-b (10.213.0.2): COMM Fail, power PF, output OFF, alarms: 57 Utility fail\n"
              "Countdown: controller 2: application end; waiting for the other controllers\n"
              "Status: needs attention (controller 2 COMM Fail, controller 2 alarm, countdown running)\n");
    const std::string json = StatusReport::json(items);
    EXPECT_NE(json.find("\"ups\": null, \"alarms\": [], \"countdowns\": [{\"controller\": 2, \"phase\": \"application end\""),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"controllers\": [{\"slot\": 1, \"name\": \"10.213.0.1\", \"address\": \"10.213.0.1\", "
                        "\"comm\": \"Active\", \"power\": \"OK\", \"output\": \"ON\", \"alarms\": []}, "),
              std::string::npos)
        << json;
    EXPECT_EQ(StatusReport::exitCode(items), StatusReport::ExitAttention);

    // This slot started the host shutdown: its phase says so.
    d.ctrl.StartShutdown(1, 1);
    EXPECT_NE(StatusReport::text(StatusReport::collect(d.sources()))
                  .find("controller 2: shutdown; \"/sbin/shutdown -h now\" runs 20 s after the countdown"),
              std::string::npos);
}

TEST(StatusReport, ExitStatusAndRecordChecksTrustNothingFromTheWire)
{
    auto code = [](const Items& items) { return StatusReport::exitCode(items); };
    const Items good = {{"role", "controller"}, {"ups.state", "communicating"}, {"ups.power", "utility"}};
    EXPECT_EQ(code(good), StatusReport::ExitOk);
    Items notice = good, alarm = good, odd = good, counting = good;
    notice.push_back({"alarm", "150 1 Battery charging"});
    alarm.push_back({"alarm", "25 8 Output overload"});
    odd.push_back({"alarm", "garbage"}); // not understood: counts as an alarm
    counting.push_back({"countdown.controller", "1"});
    EXPECT_EQ(code(notice), StatusReport::ExitOk);
    EXPECT_EQ(code(alarm), StatusReport::ExitAttention);
    EXPECT_EQ(code(odd), StatusReport::ExitAttention);
    EXPECT_EQ(code(counting), StatusReport::ExitAttention);
    EXPECT_EQ(code({{"role", "member"}}), StatusReport::ExitAttention); // follows nobody
    EXPECT_EQ(code({{"role", "member"}, {"controller.slot", "1"}, {"controller.comm", "Active"}, {"controller.power", "OK"}}),
              StatusReport::ExitOk);
    EXPECT_EQ(code({}), StatusReport::ExitUnreachable);
    EXPECT_EQ(code({{"role", "toaster"}}), StatusReport::ExitUnreachable);

    // Records: terminated fields and a plain key, or the answer is refused.
    CUIMSGINFO rec{};
    rec.command = ConsoleRequest::CmdStatusItem;
    StatusReport::Item item;
    bool done = true;
    strcpy(rec.key, "ups.model");
    strcpy(rec.value, "a\x1b[2Jb");
    ASSERT_TRUE(StatusReport::fromRecord(rec, &item, &done));
    EXPECT_FALSE(done);
    EXPECT_EQ(StatusReport::printable(item.second), "a?[2Jb");
    EXPECT_EQ(StatusReport::jsonEscape("\"\\\n\x7f\xc3\xa9"), "\\\"\\\\\\u000a\\u007f??");
    CUIMSGINFO bad = rec;
    memset(bad.value, 'v', sizeof bad.value);
    EXPECT_FALSE(StatusReport::fromRecord(bad, &item, &done));
    bad = rec;
    memset(bad.key, 'k', sizeof bad.key);
    EXPECT_FALSE(StatusReport::fromRecord(bad, &item, &done));
    for (const char* key : {"", "Role", "ups model", "a\"b"}) {
        bad = rec;
        strcpy(bad.key, key);
        EXPECT_FALSE(StatusReport::fromRecord(bad, &item, &done)) << key;
    }
    bad = rec;
    bad.command = ConsoleRequest::CmdRefused;
    EXPECT_FALSE(StatusReport::fromRecord(bad, &item, &done));
    rec.command = ConsoleRequest::CmdAnswer;
    EXPECT_TRUE(StatusReport::fromRecord(rec, &item, &done) && done);

    // Texts longer than a field are cut, terminated; the end record is always sent.
    const std::vector<CUIMSGINFO> records = StatusReport::toRecords({{"ups.model", std::string(300, 'x')}});
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(strlen(records[0].value), sizeof records[0].value - 1);
    EXPECT_EQ(records[1].command, ConsoleRequest::CmdAnswer);
    EXPECT_EQ(StatusReport::toRecords(Items(5000, {"alarm", "1 1 x"})).size(), size_t(StatusReport::kMaxRecords));

    // Numbers that JSON would not take become null.
    EXPECT_NE(StatusReport::json({{"role", "controller"}, {"ups.rating_va", "1e9"}, {"ups.battery_charge", "007"},
                                  {"ups.battery_voltage", "-1.5"}})
                  .find("\"rating_va\": null, \"power\": null, \"battery_charge\": null, \"battery_runtime\": null, "
                        "\"battery_voltage\": -1.5"),
              std::string::npos);
}

} // namespace
