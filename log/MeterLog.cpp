#include "log/MeterLog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <string>
#include <syslog.h>
#include <unistd.h>

#include "config/FileMap.h"
#include "control/StCTrl.h"
#include "core/BoundedNumber.h"
#include "log/LogTh.h"
#include "xcp/UpsDataBlock.h"

const char* const MeterLog::kNoData =
    "\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\",\"NoData\"";

namespace {

void replaceFirst(std::string* text, const std::string& what, const std::string& with)
{
    std::string::size_type at = text->find(what);
    if (at != std::string::npos)
        text->replace(at, what.size(), with);
}

struct tm localDate(time_t t)
{
    struct tm tmv;
    memset(&tmv, 0, sizeof tmv);
    tzset();
    localtime_r(&t, &tmv);
    return tmv;
}

} // namespace

MeterLog::MeterLog(StCTrl* ctrl, FileMap** config, UpsDataBlock** ups) : mCtrl(ctrl), mConfig(config), mUps(ups) {}

std::string MeterLog::conf(const char* key)
{
    FileMap* map = mConfig ? *mConfig : nullptr;
    return map ? map->getConf(key) : std::string();
}

std::string MeterLog::fileName(time_t t)
{
    struct tm tmv = localDate(t);
    char name[64];
    snprintf(name, sizeof name, "%d%02d%02d.vlg", tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday);
    return name;
}

std::string MeterLog::timePart(time_t t)
{
    struct tm tmv = localDate(t);
    char part[128];
    snprintf(part, sizeof part, "\"%d/%02d/%02d %02d:%02d:%02d\",\"%i\",", tmv.tm_year + 1900, tmv.tm_mon + 1,
             tmv.tm_mday, tmv.tm_hour, tmv.tm_min, tmv.tm_sec, static_cast<int>(t));
    return part;
}

bool MeterLog::body(const EVENTMSGINFO* ev, std::string* out)
{
    if (ev->count != 0) {
        int index = ev->params[0];
        // An event text index outside the table has no text.
        if (index < 0 || index >= 12)
            return false;
        *out = ksStrctMeterAlarm[index];
        replaceFirst(out, "$DAYS", conf("DumpLogDays"));
        replaceFirst(out, "$MINUTES", conf("DumpLogRate"));
        return true;
    }
    if (mCtrl->GetStateUPS() == 3)
        *out = kNoData;
    else
        *out = mUps && *mUps ? (*mUps)->getMeterMessage() : std::string(kNoData);
    return true;
}

int MeterLog::writeLine(const EVENTMSGINFO* ev, const std::string& dir, time_t now)
{
    std::string text;
    if (!body(ev, &text))
        return 0;
    std::string path = dir + fileName(now);
    std::string line = timePart(now) + text;
    return LogTh::write(&path, &line);
}

int MeterLog::deleteExpired(const std::string& dir, time_t now)
{
    // Files are deleted by their names alone: with no "Path", or a relative
    // one, the sweep could empty a directory nobody meant.
    std::string path = conf("Path");
    if (path.empty() || path[0] != '/' || dir.empty() || dir[0] != '/') {
        std::string why = "old meter logs are not deleted: the configuration key \"Path\" (\"" + path +
                          "\") is not an absolute directory";
        fprintf(stderr, "kestrava: %s\n", why.c_str());
        syslog(LOG_DAEMON | LOG_ERR, "%s", why.c_str());
        return 0;
    }
    struct dirent** list = nullptr;
    int n = scandir(dir.c_str(), &list, nullptr, alphasort);
    if (n < 0)
        return 0;

    // Ten years at most: days * 86400 must stay a valid time.
    long days = BoundedNumber::read("DumpLogDays", conf("DumpLogDays"), 0, 3650);
    struct tm cut = localDate(now - static_cast<time_t>(days) * 86400);
    char cutText[32];
    snprintf(cutText, sizeof cutText, "%04d%02d%02d", cut.tm_year + 1900, cut.tm_mon + 1, cut.tm_mday);
    long cutoff = strtol(cutText, nullptr, 10);

    int deleted = 0;
    for (int i = 0; i < n; ++i) {
        const char* name = list[i]->d_name;
        // Shorter names (the monthly event logs, "." and "..") are never touched.
        if (strlen(name) >= 11 && strtol(name, nullptr, 10) < cutoff) {
            std::string path = dir + name;
            if (unlink(path.c_str()) == 0)
                ++deleted;
        }
        free(list[i]);
    }
    free(list);
    return deleted;
}
