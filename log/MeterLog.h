// MeterLog: the daily meter data log of the log thread. Appends one
// comma-separated line per meter event or measurement to the day's
// "%d%02d%02d.vlg" file in the log directory and deletes the files that
// are older than the configured retention ("DumpLogDays").
#pragma once

#include <ctime>
#include <string>

#include "control/Records.h"

class FileMap;
class StCTrl;
class UpsDataBlock;

// Event texts of the meter log, indexed by the first parameter of a meter
// event (event 501 with a parameter). Every translation unit that includes
// the log headers holds its own copy, built by static initialisation.
static const std::string ksStrctMeterAlarm[12] = {
    "\"Log started\"",
    "\"Log stopped\"",
    "\"Power failure\"",
    "\"Power restored\"",
    "\"Log turned off\"",
    "\"Shutting down\"",
    "\"Acquisition Fail\"",
    "\"Install\"",
    "\"Uninstall\"",
    "\"Comm Fail\"",
    "\"Comm Fail Resolved\"",
    "\"Log rate set to $MINUTES minutes, size $DAYS days\"",
};

class MeterLog {
public:
    // Body of a measurement line while the UPS cannot be reached.
    static const char* const kNoData;

    // ctrl: the controller whose UPS state decides between a measurement
    // and the no-data text. config and ups: the addresses of the
    // configuration map and UPS data pointers that start-up fills (null
    // reads as no configuration and no data).
    MeterLog(StCTrl* ctrl, FileMap** config, UpsDataBlock** ups);

    // Event 501: appends one line to the file of the local day of `now`
    // in `dir` (the log directory, ending in "/"). A record with a count
    // other than 0 writes the event text of its first parameter, a record
    // with count 0 writes a measurement. Returns 1 when a line was written.
    int writeLine(const EVENTMSGINFO* ev, const std::string& dir, time_t now);

    // Event 502: deletes the meter files in `dir` dated before now minus
    // "DumpLogDays" days. Returns the number of files deleted; refuses, with
    // a log line, while "Path" is empty or relative.
    int deleteExpired(const std::string& dir, time_t now);

    // The body of a line for the record (event text or measurement); false
    // for an event text index outside the table (nothing is written then).
    bool body(const EVENTMSGINFO* ev, std::string* out);

    // "%d%02d%02d.vlg" of the local date of t.
    static std::string fileName(time_t t);
    // "\"Y/MM/DD hh:mm:ss\",\"<seconds>\"," of t.
    static std::string timePart(time_t t);

private:
    std::string conf(const char* key);

    StCTrl* mCtrl;
    FileMap** mConfig;
    UpsDataBlock** mUps;
};
