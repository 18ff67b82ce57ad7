// The daily meter log: lines, the no-data line and expired files, in UTC.
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

// The leading fields of a meter-log line at `t` (UTC).
std::string stamp(const char* text, time_t t) { return "\"" + std::string(text) + "\",\"" + std::to_string(t) + "\","; }

class MeterLogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1), tzset();
        fs::create_directories(logDir);
        writeFile(dir + "/Kestrava.ini", "Path=" + dir + "\nDumpLogRate=10\nDumpLogDays=30\nUPSController=1\n");
        config.load();
        gpMapConfig = &config;
        ctrl.Set_State_UPS(2);
    }
    void TearDown() override { gpMapConfig = savedConfig, gUpsData = savedUps; }

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

TEST_F(MeterLogTest, EventTextsMeasurementsAndTheNoDataLine)
{
    time_t t = ManualClock::utc(2026, 11, 13, 23, 59, 59);
    for (int index : {11, 12}) { // 12 is outside the table: nothing
        EVENTMSGINFO ev = eventRecord(ThLog, EvMeterLog, {index});
        EXPECT_EQ(meter.writeLine(&ev, logDir, t), index < 12 ? 1 : 0);
    }
    // Communication lost, or no UPS data record: six "NoData" fields. Communication up: the meter
    // summary, at midnight in the new day's file.
    UpsDataBlock ups;
    EVENTMSGINFO ev = eventRecord(ThLog, EvMeterLog, {});
    const std::pair<int, UpsDataBlock*> runs[] = {{3, &ups}, {2, &ups}, {2, nullptr}};
    for (int i = 0; i < 3; ++i)
        ctrl.Set_State_UPS(runs[i].first), gUpsData = runs[i].second, meter.writeLine(&ev, logDir, t + i);
    const std::string noData = "\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\"\n";
    ASSERT_NE(ups.getMeterMessage() + "\n", noData);
    EXPECT_EQ(readFile(logDir + "20261113.vlg"),
              stamp("2026/11/13 23:59:59", t) + "\"Log rate set to 10 minutes, size 30 days\"\n" +
                  stamp("2026/11/13 23:59:59", t) + noData);
    EXPECT_EQ(readFile(logDir + "20261114.vlg"), stamp("2026/11/14 00:00:00", t + 1) + ups.getMeterMessage() + "\n" +
                                                     stamp("2026/11/14 00:00:01", t + 2) + noData);
}

TEST_F(MeterLogTest, DeletionKeepsTheCutOffDayAndShortNames)
{
    // Through the log thread: meter and deletion events in the "Path" directory.
    LogTh log(5, &ctrl, LogTh::Wiring{&gpMapConfig, nullptr, nullptr, &gUpsData}, &clock);
    clock.set(ManualClock::utc(2026, 11, 14, 6, 0, 0));
    writeFile(logDir + "20261001.vlg", "x\n");
    for (EVENTMSGINFO ev : {eventRecord(5, EvMeterLog, {1}), eventRecord(5, EvLogDelete, {1})})
        log.writeLog(&ev);
    EXPECT_EQ(files(), (std::set<std::string>{"20261114.vlg"}));
    EXPECT_EQ(readFile(logDir + "20261114.vlg"), stamp("2026/11/14 06:00:00", clock.now()) + "\"Log stopped\"\n");

    for (const char* name : {"20261031.vlg", "20261106.vlg", "20261107.vlg", "20261114.vlg", "202611.log",
                             "202610.log", "notes.txt", "00000000.txt"})
        writeFile(logDir + name, "x\n");
    fs::create_directories(logDir + "20200101_dir");
    config.setConf("DumpLogDays", "7");
    EXPECT_EQ(meter.deleteExpired(logDir, ManualClock::utc(2026, 11, 14, 12, 0, 0)), 3);
    EXPECT_EQ(files(), (std::set<std::string>{"20261107.vlg", "20261114.vlg", "202611.log", "202610.log", "notes.txt",
                                              "20200101_dir"}));
    // Without an absolute "Path" nothing is deleted, wherever the sweep runs.
    writeFile(logDir + "20261001.vlg", "x\n");
    for (const char* path : {"", "relative/dir"}) {
        config.setConf("Path", path);
        testing::internal::CaptureStderr();
        EXPECT_EQ(meter.deleteExpired(logDir, ManualClock::utc(2026, 11, 14, 0, 0, 0)), 0);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("old meter logs are not deleted"), std::string::npos);
    }
    EXPECT_TRUE(fs::exists(logDir + "20261001.vlg"));
}

} // namespace
