// Tests of the daily meter log: file per local day, line layout, event
// texts with their placeholders, the no-data line, and the deletion of
// expired files. Runs in a private temporary directory, in UTC.
#include "log/MeterLog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "core/Globals.h"
#include "log/LogTh.h"
#include "tests/fakes/EventRecords.h"
#include "tests/fakes/ManualClock.h"
#include "tests/fakes/TempDir.h"
#include "xcp/UpsDataBlock.h"

namespace fs = std::filesystem;

namespace {

EVENTMSGINFO meterEvent(std::vector<int> params) { return eventRecord(5, 501, params); }

class MeterLogTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        setenv("TZ", "UTC", 1);
        tzset();
        ASSERT_TRUE(tmp.made());
        dir = tmp.path();
        logDir = dir + "/log/";
        fs::create_directories(logDir);
        writeFile(dir + "/Kestrava.ini", "Path=" + dir + "\nDumpLogRate=10\nDumpLogDays=30\nUPSController=1\n");

        savedConfig = gpMapConfig;
        savedUps = gUpsData;
        config = new FileMap(dir + "/Kestrava.ini");
        gpMapConfig = config;
        ctrl = new StCTrl(&clock, config);
        ctrl->Set_State_UPS(2);
    }

    void TearDown() override
    {
        delete ctrl;
        delete config;
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

    TempDir tmp{"meterlog_test."};
    std::string dir;
    std::string logDir;
    ManualClock clock;
    FileMap* config = nullptr;
    StCTrl* ctrl = nullptr;
    FileMap* savedConfig = nullptr;
    UpsDataBlock* savedUps = nullptr;
};

TEST_F(MeterLogTest, EventTextsWithRateAndRetention)
{
    MeterLog meter(ctrl);
    time_t t = ManualClock::utc(2026, 11, 14, 10, 20, 30);
    EVENTMSGINFO ev = meterEvent({11});
    EXPECT_EQ(meter.writeLine(&ev, logDir, t), 1);
    ev = meterEvent({0});
    meter.writeLine(&ev, logDir, t);
    // An index outside the table writes nothing.
    ev = meterEvent({12});
    EXPECT_EQ(meter.writeLine(&ev, logDir, t), 0);
    ev = meterEvent({-1});
    EXPECT_EQ(meter.writeLine(&ev, logDir, t), 0);

    const std::string stamp = "\"2026/11/14 10:20:30\",\"" + std::to_string(t) + "\",";
    EXPECT_EQ(readFile(logDir + "20261114.vlg"), stamp + "\"Log rate set to 10 minutes, size 30 days\"\n" + stamp +
                                                     "\"Log started\"\n");
    EXPECT_EQ(ksStrctMeterAlarm[10], "\"Comm Fail Resolved\"");
}

TEST_F(MeterLogTest, MeasurementsAndTheNoDataLine)
{
    MeterLog meter(ctrl);
    UpsDataBlock ups;
    gUpsData = &ups;
    // Identification: one firmware entry, rating byte, two single bytes, no
    // unit name, a meter map with the six summary meters as 32-bit integers,
    // no alarm map. Then their values in ascending meter number.
    std::string id = std::string("\x01\x01\x02\x01\x00\x00\x00", 7);
    std::string map(79, '\0');
    for (int m : {21, 27, 33, 56, 62, 78})
        map[m] = '\xE2';
    id += static_cast<char>(map.size()) + map + std::string(1, '\0');
    ups.setStandardIDBlock(id);
    std::string values;
    for (int v : {5, 230, 48, 231, 50, 12})
        values += std::string(1, static_cast<char>(v)) + std::string(3, '\0');
    ups.setMeters(values);
    ASSERT_EQ(ups.getMeterMessage(), "\"231.0\",\"12.0\",\"48.0\",\"230.0\",\"5.0\",\"50.0\"");
    time_t t = ManualClock::utc(2026, 11, 13, 23, 59, 59);
    EVENTMSGINFO ev = meterEvent({});

    // Communication lost: six "NoData" fields whatever the UPS data holds.
    ctrl->Set_State_UPS(3);
    meter.writeLine(&ev, logDir, t);
    // Communication up: the UPS data's meter summary; a measurement at
    // midnight starts the new day's file.
    ctrl->Set_State_UPS(2);
    meter.writeLine(&ev, logDir, t + 1);

    const std::string noData = "\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\"";
    EXPECT_EQ(readFile(logDir + "20261113.vlg"),
              "\"2026/11/13 23:59:59\",\"" + std::to_string(t) + "\"," + noData + "\n");
    // Without a UPS data record a measurement has no data either.
    gUpsData = nullptr;
    meter.writeLine(&ev, logDir, t + 2);
    EXPECT_EQ(readFile(logDir + "20261114.vlg"),
              "\"2026/11/14 00:00:00\",\"" + std::to_string(t + 1) + "\"," + ups.getMeterMessage() + "\n" +
                  "\"2026/11/14 00:00:01\",\"" + std::to_string(t + 2) + "\"," + noData + "\n");
}

TEST_F(MeterLogTest, DeletionKeepsTheCutOffDayAndShortNames)
{
    for (const char* name : {"20261031.vlg", "20261106.vlg", "20261107.vlg", "20261114.vlg", "202611.log",
                             "202610.log", "notes.txt", "00000000.txt"})
        writeFile(logDir + name, "x\n");
    fs::create_directories(logDir + "20200101_dir");
    config->setConf("DumpLogDays", "7");

    MeterLog meter(ctrl);
    EXPECT_EQ(meter.deleteExpired(logDir, ManualClock::utc(2026, 11, 14, 12, 0, 0)), 3);
    EXPECT_EQ(files(), (std::set<std::string>{"20261107.vlg", "20261114.vlg", "202611.log", "202610.log", "notes.txt",
                                              "20200101_dir"}));

    // Without a retention every file dated before today goes.
    writeFile(logDir + "20261113.vlg", "x\n");
    config->setConf("DumpLogDays", "");
    EXPECT_EQ(meter.deleteExpired(logDir, ManualClock::utc(2026, 11, 14, 0, 0, 0)), 2);
    EXPECT_EQ(files(), (std::set<std::string>{"20261114.vlg", "202611.log", "202610.log", "notes.txt",
                                              "20200101_dir"}));

    // An unreadable directory deletes nothing.
    EXPECT_EQ(meter.deleteExpired(dir + "/nothing/", ManualClock::utc(2026, 11, 14, 0, 0, 0)), 0);
}

TEST_F(MeterLogTest, LogThreadWritesAndDeletesInThePathDirectory)
{
    LogTh log(5, ctrl, &clock);
    clock.set(ManualClock::utc(2026, 11, 14, 6, 0, 0));
    writeFile(logDir + "20261001.vlg", "x\n");

    EVENTMSGINFO ev = meterEvent({1});
    log.writeLog(&ev);
    ev = meterEvent({});
    ev.code = 502;
    log.writeLog(&ev);

    EXPECT_EQ(files(), (std::set<std::string>{"20261114.vlg"}));
    EXPECT_EQ(readFile(logDir + "20261114.vlg"),
              "\"2026/11/14 06:00:00\",\"" + std::to_string(clock.now()) + "\",\"Log stopped\"\n");
}

} // namespace
