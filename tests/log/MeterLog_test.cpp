// Tests of the daily meter log: file per local day, line layout, event
// texts with their placeholders, the no-data line, and the deletion of
// expired files. Runs in a private temporary directory, in UTC.
#include "log/MeterLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "daemon/Globals.h"
#include "log/LogTh.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

namespace fs = std::filesystem;

namespace {

EVENTMSGINFO meterEvent(std::vector<int> params) { return eventRecord(ThLog, EvMeterLog, params); }

// The leading fields of a meter-log line at `t` (UTC).
std::string stamp(const char* text, time_t t) { return "\"" + std::string(text) + "\",\"" + std::to_string(t) + "\","; }

class MeterLogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        fs::create_directories(logDir);
        writeFile(dir + "/Kestrava.ini", "Path=" + dir + "\nDumpLogRate=10\nDumpLogDays=30\nUPSController=1\n");
        config.load();
        gpMapConfig = &config;
        ctrl.Set_State_UPS(2);
    }
    void TearDown() override
    {
        gpMapConfig = savedConfig;
        gUpsData = savedUps;
    }

    std::set<std::string> files()
    {
        std::set<std::string> names;
        for (const auto& e : fs::directory_iterator(logDir))
            names.insert(e.path().filename().string());
        return names;
    }

    FileMap* savedConfig = gpMapConfig;
    UpsDataBlock* savedUps = gUpsData;
    TempDir tmp{"meterlog_test."};
    std::string dir = tmp.path(), logDir = dir + "/log/";
    ManualClock clock;
    FileMap config{dir + "/Kestrava.ini"};
    StCTrl ctrl{&clock, &config};
    MeterLog meter{&ctrl, &gpMapConfig, &gUpsData};
};

TEST_F(MeterLogTest, EventTextsWithRateAndRetention)
{
    time_t t = ManualClock::utc(2026, 11, 14, 10, 20, 30);
    for (int index : {11, 0, 12}) { // 12 is outside the table: nothing
        EVENTMSGINFO ev = meterEvent({index});
        EXPECT_EQ(meter.writeLine(&ev, logDir, t), index < 12 ? 1 : 0);
    }
    EXPECT_EQ(readFile(logDir + "20261114.vlg"),
              stamp("2026/11/14 10:20:30", t) + "\"Log rate set to 10 minutes, size 30 days\"\n"
                  + stamp("2026/11/14 10:20:30", t) + "\"Log started\"\n");
}

TEST_F(MeterLogTest, MeasurementsAndTheNoDataLine)
{
    UpsDataBlock ups;
    gUpsData = &ups;
    // Identification: one firmware entry, rating byte, two single bytes, no
    // unit name, a meter map with the six summary meters as 32-bit integers,
    // no alarm map. Then their values in ascending meter number.
    std::string map(79, '\0');
    for (int m : {21, 27, 33, 56, 62, 78})
        map[m] = '\xE2';
    ups.setStandardIDBlock(std::string("\x01\x01\x02\x01\x00\x00\x00", 7) + static_cast<char>(map.size()) + map
                           + std::string(1, '\0'));
    std::string values;
    for (int v : {5, 230, 48, 231, 50, 12})
        values += std::string(1, static_cast<char>(v)) + std::string(3, '\0');
    ups.setMeters(values);
    time_t t = ManualClock::utc(2026, 11, 13, 23, 59, 59);
    EVENTMSGINFO ev = meterEvent({});

    // Communication lost: six "NoData" fields whatever the UPS data holds.
    // Communication up: the meter summary, and at midnight the new day's
    // file. Without a UPS data record there is no data either.
    ctrl.Set_State_UPS(3);
    meter.writeLine(&ev, logDir, t);
    ctrl.Set_State_UPS(2);
    meter.writeLine(&ev, logDir, t + 1);
    gUpsData = nullptr;
    meter.writeLine(&ev, logDir, t + 2);
    const std::string noData = "\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\"\n";
    EXPECT_EQ(readFile(logDir + "20261113.vlg"), stamp("2026/11/13 23:59:59", t) + noData);
    EXPECT_EQ(readFile(logDir + "20261114.vlg"),
              stamp("2026/11/14 00:00:00", t + 1) + "\"231.0\",\"12.0\",\"48.0\",\"230.0\",\"5.0\",\"50.0\"\n"
                  + stamp("2026/11/14 00:00:01", t + 2) + noData);
}

TEST_F(MeterLogTest, DeletionKeepsTheCutOffDayAndShortNames)
{
    for (const char* name : {"20261031.vlg", "20261106.vlg", "20261107.vlg", "20261114.vlg", "202611.log",
                             "202610.log", "notes.txt", "00000000.txt"})
        writeFile(logDir + name, "x\n");
    fs::create_directories(logDir + "20200101_dir");
    config.setConf("DumpLogDays", "7");
    EXPECT_EQ(meter.deleteExpired(logDir, ManualClock::utc(2026, 11, 14, 12, 0, 0)), 3);
    EXPECT_EQ(files(), (std::set<std::string>{"20261107.vlg", "20261114.vlg", "202611.log", "202610.log", "notes.txt",
                                              "20200101_dir"}));

    // Without a retention every file dated before today goes.
    writeFile(logDir + "20261113.vlg", "x\n");
    config.setConf("DumpLogDays", "");
    EXPECT_EQ(meter.deleteExpired(logDir, ManualClock::utc(2026, 11, 14, 0, 0, 0)), 2);
    EXPECT_EQ(files(), (std::set<std::string>{"20261114.vlg", "202611.log", "202610.log", "notes.txt",
                                              "20200101_dir"}));

    // An unreadable directory deletes nothing.
    EXPECT_EQ(meter.deleteExpired(dir + "/nothing/", ManualClock::utc(2026, 11, 14, 0, 0, 0)), 0);
}

TEST_F(MeterLogTest, LogThreadWritesAndDeletesInThePathDirectory)
{
    LogTh log(5, &ctrl, LogTh::Wiring{&gpMapConfig, nullptr, nullptr, &gUpsData}, &clock);
    clock.set(ManualClock::utc(2026, 11, 14, 6, 0, 0));
    writeFile(logDir + "20261001.vlg", "x\n");

    EVENTMSGINFO ev = meterEvent({1});
    log.writeLog(&ev);
    ev = meterEvent({});
    ev.code = EvLogDelete;
    log.writeLog(&ev);

    EXPECT_EQ(files(), (std::set<std::string>{"20261114.vlg"}));
    EXPECT_EQ(readFile(logDir + "20261114.vlg"), stamp("2026/11/14 06:00:00", clock.now()) + "\"Log stopped\"\n");
}

} // namespace
