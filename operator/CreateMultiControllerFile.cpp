#include "operator/CreateMultiControllerFile.h"

#include <arpa/inet.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#include "config/AtomicFile.h"
#include "config/FileMap.h"
#include "config/FileSystem.h"
#include "core/Clock.h"
#include "core/ErrorLog.h"
#include "operator/CtrlerUninst.h"

const char* const CreateMultiControllerFile::COMM_Status_Str[4] = {"NotActive", "Active", "COMM Fail", "NotActive"};
const char* const CreateMultiControllerFile::Power_Staus_Str[4] = {"OK", "PF", "LB", "-"};
const char* const CreateMultiControllerFile::Output_Staus_Str[3] = {"ON", "OFF", "-"};
const char* const CreateMultiControllerFile::Shutdown_mode_Str[2] = {"SHUTDOWN MODE : FEEDING\n\n",
                                                                     "SHUTDOWN MODE : SHUTDOWN\n\n"};

namespace {

const size_t kNameMax = 64; // a name in a line is cut here
const int kSlots = 4;

std::mutex gSeamLock;
CreateMultiControllerFile::Uninstaller gUninstaller;
Clock* gClock = nullptr;
std::atomic<int> gUninstallSuccesses{0};

std::mutex gReportedLock;
std::set<std::string> gReported; // files already reported as not writable

std::string indexed(const char* family, int n) { return family + std::to_string(n); }

int num(FileMap* map, const std::string& key)
{
    return map ? static_cast<int>(strtol(map->getConf(key).c_str(), nullptr, 10)) : 0;
}

std::string text(FileMap* map, const std::string& key) { return map ? map->getConf(key) : std::string(); }

time_t now()
{
    std::lock_guard<std::mutex> lock(gSeamLock);
    return gClock ? gClock->now() : Clock::system().now();
}

// A file that cannot be written is skipped; each file is reported once per run.
void reportSkipped(const std::string& path, const std::string& why)
{
    {
        std::lock_guard<std::mutex> lock(gReportedLock);
        if (!gReported.insert(path).second)
            return;
    }
    ErrorLog::report("cannot write " + path + " (" + why + "); it is skipped");
}

// Appends one whole line with one write, so that lines of two writers never mix.
void appendLine(const std::string& path, const std::string& line)
{
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        reportSkipped(path, strerror(errno));
        return;
    }
    ssize_t n = ::write(fd, line.data(), line.size());
    int err = errno;
    if (close(fd) != 0 && n >= 0)
        err = errno, n = -1;
    if (n != static_cast<ssize_t>(line.size()))
        reportSkipped(path, n < 0 ? strerror(err) : "short write");
}

std::string join(const char* dir, const char* name) { return std::string(dir ? dir : "") + name; }

bool isDottedAddress(const std::string& s)
{
    in_addr a;
    return inet_pton(AF_INET, s.c_str(), &a) == 1;
}

// 1..65535 written in decimal digits only; 0 otherwise.
int parsePort(const std::string& s)
{
    if (s.empty() || s.size() > 5 || s.find_first_not_of("0123456789") != std::string::npos)
        return 0;
    int v = atoi(s.c_str());
    return v >= 1 && v <= 65535 ? v : 0;
}

void copyText(char* to, size_t size, const std::string& from)
{
    memset(to, 0, size);
    strncpy(to, from.c_str(), size - 1);
}

} // namespace

void CreateMultiControllerFile::setUninstaller(Uninstaller uninstaller)
{
    std::lock_guard<std::mutex> lock(gSeamLock);
    gUninstaller = std::move(uninstaller);
}

void CreateMultiControllerFile::setClock(Clock* clock)
{
    std::lock_guard<std::mutex> lock(gSeamLock);
    gClock = clock;
}

std::string CreateMultiControllerFile::DataDir(FileMap* config, const std::string& home)
{
    std::string path = text(config, "Path");
    return path.empty() ? home : path + "/";
}

std::string CreateMultiControllerFile::GetLogDate(time_t t, std::string* monthKey)
{
    struct tm tmv;
    memset(&tmv, 0, sizeof tmv);
    tzset();
    localtime_r(&t, &tmv);
    char stamp[64];
    snprintf(stamp, sizeof stamp, "%2d/%02d/%02d %02d:%02d:%02d", tmv.tm_year + 1900, tmv.tm_mon + 1, tmv.tm_mday,
             tmv.tm_hour, tmv.tm_min, tmv.tm_sec);
    if (monthKey) {
        char key[32];
        snprintf(key, sizeof key, "%4d%02d", tmv.tm_year + 1900, tmv.tm_mon + 1);
        *monthKey = key;
    }
    return stamp;
}

// ---------------------------------------------------------------- Controller.inf

bool CreateMultiControllerFile::InfShutTimeCheck(int winkTime, int shutdownTime, int appTermTimeOut)
{
    return winkTime <= 9999 && shutdownTime <= 9999 && appTermTimeOut <= 9999;
}

std::string CreateMultiControllerFile::EditControllerInf(const ShutCNT& info, int slot, FileMap* config)
{
    const int n = slot + 1;
    // The communication status indexes its text directly: 0 not heard yet,
    // 1 active, 2 lost, 3 applications ended by the controller.
    const int comm = info.commStatus[slot] <= 3 ? info.commStatus[slot] : 0;
    // Power and output are what the controller last reported; before any
    // report they are unknown ("-").
    const bool heard = comm != 0;
    const int power = heard && info.pfStatus[slot] <= 2 ? info.pfStatus[slot] : 3;
    const int output = heard || info.outputKnown[slot] ? (info.outputStatus[slot] ? 0 : 1) : 2;

    const int wink = num(config, indexed("WinkTime", n));
    const int count = num(config, indexed("ShutdownTime", n));
    const int appEnd = num(config, indexed("AppTermTimeOut", n));
    const int delay = num(config, indexed("ShutdownDelay", n));
    // The application-end time carries a "*" when a termination command
    // runs in that time.
    std::string appEndText = std::to_string(appEnd);
    if (InfShutTimeCheck(wink, count, appEnd) && !text(config, indexed("AppTermCommand", n)).empty())
        appEndText += "*";

    char row[160];
    snprintf(row, sizeof row, "%2s %-9s %-2s %3s    %4d %5d%7s%8d\n", std::to_string(n).c_str(),
             COMM_Status_Str[comm], Power_Staus_Str[power], Output_Staus_Str[output], wink, count,
             appEndText.c_str(), delay);
    return row;
}

std::string CreateMultiControllerFile::DisplayName(int type, int n, FileMap* config, FileMap* members)
{
    std::string name;
    if (type == 1) {
        name = text(config, indexed("UGName", n));
        if (name.empty())
            name = text(members, indexed("UGName", n));
    } else if (type == 2) {
        name = text(config, indexed("HostName", n));
        if (name.empty())
            name = text(members, indexed("IPAddress", n));
    } else {
        name = text(config, indexed("CtrlIPAddress", n));
    }
    return ErrorLog::printable(name, kNameMax);
}

int CreateMultiControllerFile::WriteControllerInf(ShutCNT* info, const char* dir, FileMap* config,
                                                  FileMap* members, const DisplayTypeOf& displayType)
{
    const std::string folder = join(dir, "CONTROLLER");
    const std::string path = folder + "/Controller.inf";
    struct stat st;
    if (stat(folder.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        reportSkipped(path, "no directory " + folder);
        return 0;
    }
    std::string body = Shutdown_mode_Str[info->startShutdown ? 1 : 0];
    body += "No COMM_ST   PS OUTPUT WINK COUNT APL_END SYS_DOWN \n";
    body += "----------------------------------------------------- \n";
    for (int k = 0; k < kSlots; ++k)
        if (info->active[k])
            body += EditControllerInf(*info, k, config);
    body += "\nUPSController Name\n";
    for (int k = 0; k < kSlots; ++k) {
        const int type = displayType ? displayType(k) : -1;
        if (!info->active[k] || type < 0)
            continue;
        char line[160];
        snprintf(line, sizeof line, "  No.%d %s\n", k + 1, DisplayName(type, k + 1, config, members).c_str());
        body += line;
    }
    AtomicFile::Attributes attr;
    attr.mode = 0644;
    AtomicFile::replace(FileSystem::system(), path, body, attr, path);
    return 0;
}

// ---------------------------------------------------------------- logs

std::string CreateMultiControllerFile::GetShutdownLogInfo(time_t t, int mode, const char* controller, int reason,
                                                          const DG2_ShutdownTimming& timing)
{
    static const char* const kReasons[] = {"Power Failure", "Schedule Shutdown", "Shutdown(Shutdown/Reboot)",
                                           "Reboot(Shutdown/Reboot)", "Timer Shutdown(Shutdown/Reboot)"};
    const char* why = reason >= 1 && reason <= 5 ? kReasons[reason - 1] : "Unknown";
    char values[96];
    snprintf(values, sizeof values, timing.marker ? "%d, %d, %d*, %d" : "%d, %d, %d, %d", timing.winkTime,
             timing.shutdownTime, timing.appTermTimeOut, timing.shutdownDelay);
    const std::string name = ErrorLog::printable(controller ? controller : "", kNameMax);
    return GetLogDate(t) + " " + (mode == 1 ? "Shutdown" : "Feeding") + " " + name + " " + why + " " + values +
           "\n";
}

int CreateMultiControllerFile::WriteShutdownLog(int mode, const char* controller, int reason,
                                                DG2_ShutdownTimming* timing, const char* dir)
{
    DG2_ShutdownTimming none;
    memset(&none, 0, sizeof none);
    const time_t t = now();
    std::string month;
    GetLogDate(t, &month);
    appendLine(join(dir, "SHUTDOWN/") + month + "_sh.log",
               GetShutdownLogInfo(t, mode, controller, reason, timing ? *timing : none));
    return 0;
}

int CreateMultiControllerFile::WriteCtrlerLog(int kind, int result, const char* name, const char* dir)
{
    const std::string path = join(dir, "CONTROLLER/Controller.log");
    const std::string stamp = GetLogDate(now());
    const std::string shown = ErrorLog::printable(name ? name : "", kNameMax);
    auto line = [&](const char* what) { appendLine(path, stamp + " " + what + " (" + shown + ")\n"); };
    if (kind == 0) {
        line("Add Controller");
    } else if (kind == 1) {
        line("Delete Controller");
        if (result == 0) {
            line("Uninstall Success");
            ++gUninstallSuccesses;
        } else {
            line("Uninstall Failure");
        }
    }
    return 0;
}

int CreateMultiControllerFile::WriteCtrlerErrLog(int code, const char* dir)
{
    static const char* const kErrors[] = {"Configuration File Lost", "IP Address is too wordy",
                                          "There is none of IP Address or same it", "Port Error"};
    if (code < 0 || code > 3)
        return 0;
    appendLine(join(dir, "CONTROLLER/Controller.log"), GetLogDate(now()) + " " + kErrors[code] + "\n");
    return 0;
}

int CreateMultiControllerFile::UninstallSuccesses() { return gUninstallSuccesses.load(); }

// ---------------------------------------------------------------- start-up check

namespace {

// What the check decided for one slot.
struct SlotPlan {
    std::string listed;   // the operator's "IPAddress<n>" (empty: none, or in error)
    int port = 0;         // its port
    std::string followed; // "CtrlIPAddress<n>" of the last start
    int followedPort = 0;
    bool error = false;   // left unused, keys untouched
    bool remove = false;  // the followed controller goes
    bool add = false;     // the listed controller comes
    int uninstallIndex = -1;
};

int runUninstall(unsigned char count, char* addrs, unsigned short* ports, char* own, unsigned short ownPort,
                 unsigned char* results)
{
    CreateMultiControllerFile::Uninstaller u;
    {
        std::lock_guard<std::mutex> lock(gSeamLock);
        u = gUninstaller;
    }
    if (u)
        return u(count, addrs, ports, own, ownPort, results);
    CtrlerUninst exchange;
    return exchange.Uninst_func(count, addrs, ports, own, ownPort, results);
}

void clearSlotKeys(FileMap* config, int n)
{
    for (const char* family : {"CtrlIPAddress", "MyID", "HostName", "UGName"})
        config->setConf(indexed(family, n), "");
    config->setConf(indexed("MemberEntry", n), "0");
}

} // namespace

int CreateMultiControllerFile::CheckControllerFile(const std::string& address, int port, const std::string& dir,
                                                   FileMap* config, FileMap** members, DG2_ShutdownTimming* timing,
                                                   bool* changed)
{
    if (changed)
        *changed = false;
    const std::string data = DataDir(config, dir);
    FileMap* map = new FileMap(dir + "Membercnt.cfg");
    if (!map->isLoaded()) {
        delete map;
        *members = nullptr;
        WriteCtrlerErrLog(0, data.c_str());
        return 1;
    }
    *members = map;

    // 1. The operator's list, checked slot by slot; a slot in error is left
    //    unused so that the others still work.
    SlotPlan plan[kSlots];
    bool anyListed = false;
    for (int k = 0; k < kSlots; ++k) {
        const int n = k + 1;
        SlotPlan& p = plan[k];
        p.followed = text(config, indexed("CtrlIPAddress", n));
        p.followedPort = parsePort(text(config, indexed("CtrlPort", n)));
        const std::string listed = map->getConf(indexed("IPAddress", n));
        if (listed.empty())
            continue;
        anyListed = true;
        if (listed.size() > 31) {
            WriteCtrlerErrLog(1, data.c_str());
            p.error = true;
            continue;
        }
        const std::string portText = map->getConf(indexed("Port", n));
        p.port = portText.empty() ? p.followedPort : parsePort(portText);
        if (p.port == 0) {
            WriteCtrlerErrLog(3, data.c_str());
            p.error = true;
            continue;
        }
        bool same = false;
        for (int j = 0; j < k; ++j)
            same = same || (!plan[j].error && plan[j].listed == listed);
        if (same) {
            WriteCtrlerErrLog(2, data.c_str());
            p.error = true;
            continue;
        }
        p.listed = listed;
    }
    if (!anyListed)
        WriteCtrlerErrLog(2, data.c_str());

    // 2. What changed since the last start.
    char addrs[kSlots * 32];
    unsigned short ports[kSlots] = {0, 0, 0, 0};
    memset(addrs, 0, sizeof addrs);
    int uninstallCount = 0;
    for (int k = 0; k < kSlots; ++k) {
        SlotPlan& p = plan[k];
        if (p.error) {
            map->setConf(indexed("IPAddress", k + 1), "");
            continue;
        }
        p.remove = !p.followed.empty() && p.followed != p.listed;
        p.add = !p.listed.empty() && p.followed != p.listed;
        // Only a controller known by its address can be reached without the
        // network threads: the exchange runs with dotted addresses.
        if (p.remove && isDottedAddress(p.followed) && p.followedPort != 0) {
            p.uninstallIndex = uninstallCount;
            copyText(addrs + 32 * uninstallCount, 32, p.followed);
            ports[uninstallCount] = static_cast<unsigned short>(p.followedPort);
            ++uninstallCount;
        }
    }

    // 3. One exchange for every controller that goes.
    unsigned char results[kSlots] = {1, 1, 1, 1};
    if (uninstallCount > 0) {
        char own[32];
        copyText(own, sizeof own, address);
        runUninstall(static_cast<unsigned char>(uninstallCount), addrs, ports, own,
                     static_cast<unsigned short>(port > 0 && port <= 65535 ? port : 0), results);
    }

    // 4. The log lines and the keys of "Kestrava.ini".
    bool configChanged = false;
    for (int k = 0; k < kSlots; ++k) {
        const SlotPlan& p = plan[k];
        const int n = k + 1;
        if (p.remove) {
            const int result = p.uninstallIndex >= 0 && results[p.uninstallIndex] == 0 ? 0 : 1;
            WriteCtrlerLog(1, result, p.followed.c_str(), data.c_str());
            clearSlotKeys(config, n);
            configChanged = true;
        }
        if (p.add) {
            WriteCtrlerLog(0, 0, p.listed.c_str(), data.c_str());
            clearSlotKeys(config, n);
            config->setConf(indexed("CtrlIPAddress", n), p.listed);
            configChanged = true;
        }
        if (!p.listed.empty() && p.port != p.followedPort) {
            config->setConfNum(indexed("CtrlPort", n), p.port);
            configChanged = true;
        }
    }
    if (configChanged)
        config->save();

    // 5. The timing last received from the controller, unless the member
    //    keeps its own.
    if (!timing || map->getConf("WinkTime").empty())
        return 0;
    const bool acceptTiming = text(config, "AcceptControllerTiming") != "0";
    const bool acceptCommand = text(config, "AcceptControllerCommand") != "0";
    FileMap* source = acceptTiming ? map : nullptr;
    auto value = [&](const char* key) { return num(source ? source : config, source ? key : indexed(key, 1)); };
    timing->winkTime = value("WinkTime");
    timing->shutdownTime = value("ShutdownTime");
    timing->appTermTimeOut = value("AppTermTimeOut");
    timing->shutdownDelay = value("ShutdownDelay");
    const std::string cmd = acceptTiming && acceptCommand ? map->getConf("AppTermCommand")
                                                          : text(config, "AppTermCommand1");
    copyText(timing->appTermCommand, sizeof timing->appTermCommand, cmd);
    if (changed && acceptTiming) {
        *changed = num(config, "WinkTime1") != timing->winkTime ||
                   num(config, "ShutdownTime1") != timing->shutdownTime ||
                   num(config, "AppTermTimeOut1") != timing->appTermTimeOut ||
                   num(config, "ShutdownDelay1") != timing->shutdownDelay ||
                   text(config, "AppTermCommand1") != cmd;
    }
    return 0;
}
