#include "config/ConfigKeys.h"

#include <cstdlib>
#include <cstring>

namespace {

const char* const kIni = ConfigKeys::kConfigFile;
const char* const kMem = ConfigKeys::kMemberFile;
const KeyRole kCtrl = KeyRole::Controller;
const KeyRole kMemb = KeyRole::Member;
const KeyRole kBoth = KeyRole::Both;

// Keep each meaning to one sentence: the manual page prints it as given.
const ConfigKey kTable[] = {
    // ---- Kestrava.ini: role and UPS line
    {"UPSController", 0, 0, kIni, kBoth,
     "Role of this host: 1 makes it a controller (the UPS is attached here), 2 a shutdown member.", "1 or 2",
     "a controller starts (as for any value but 2), but some controller duties test for 1: write 1 or 2"},
    {"DeviceName", 0, 0, kIni, kCtrl,
     "Serial device of the UPS; it is locked as LCK..<base name> in the lock directory while the daemon runs.",
     "path", "no device is opened; the UPS is never reached"},

    // ---- Kestrava.ini: shutdown timing per controller slot
    {"WinkTime%d", 1, 4, kIni, kBoth,
     "Seconds of power failure ignored before the shutdown countdown of slot n starts.", "seconds, 0 to 86400",
     "0, the countdown starts as soon as the power fails"},
    {"ShutdownTime%d", 1, 4, kIni, kBoth,
     "Length of the shutdown countdown of slot n, announced to logged-in users each minute.",
     "minutes, 0 to 1440", "0, no countdown: the application command runs as soon as the wink time is over"},
    {"AppTermTimeOut%d", 1, 4, kIni, kBoth,
     "Seconds given to AppTermCommand<n> after the countdown before the host shuts down.", "seconds, 0 to 86400",
     "0, the host shuts down right after the countdown"},
    {"ShutdownDelay%d", 1, 4, kIni, kBoth,
     "Seconds the host has to halt before the UPS switches its output off (the UPS is told AppTermTimeOut<n> "
     "plus this).",
     "seconds, 0 to 86400", "0, the UPS switches off as soon as the application time-out is over"},
    {"AppTermCommand%d", 1, 4, kIni, kBoth,
     "Shell command run as root at the end of the countdown of slot n to close applications.", "text",
     "no command is run"},

    // ---- Kestrava.ini: files
    {"Path", 0, 0, kIni, kBoth,
     "Absolute directory of the daemon's data: message files are reloaded from it, logs go to its log "
     "subdirectory, the member table MembInfo.dat and a member's CONTROLLER and SHUTDOWN directories lie here.",
     "path", "no event or meter log is written and old meter logs are not deleted"},
    {"DumpLogRate", 0, 0, kIni, kCtrl,
     "Interval of the daily meter log Path/log/YYYYMMDD.vlg; a console change takes effect at once.",
     "minutes, 0 to 1440", "0, no meter log is written"},
    {"DumpLogDays", 0, 0, kIni, kCtrl, "Days a daily meter log is kept before it is deleted.", "days, 0 to 3650",
     "0, meter logs older than today are deleted"},

    // ---- Kestrava.ini: console
    {"CuiPort", 0, 0, kIni, kBoth,
     "TCP port of the console interface, through which kestrava-console changes keys of the running daemon.",
     "port", "the kernel picks a free port, which no console can know"},
    {"CuiAddress", 0, 0, kIni, kBoth,
     "Address the console port listens on: a dotted IPv4 address, or * for every address.", "IPv4 address or *",
     "127.0.0.1, this host only (also when the value is invalid)"},
    {"CuiAllowCommandKeys", 0, 0, kIni, kBoth,
     "1 lets the console change the keys that run programs or name files, devices or addresses "
     "(AppTermCommand<n>, Path, DeviceName, UPSController, CuiAddress, CuiPort, IPAddress, MemberPort, "
     "CtrlPort<n>); the console can never change this key itself.",
     "0/1", "0, the console is refused those keys"},

    // ---- Kestrava.ini: network coordination
    {"IPAddress", 0, 0, kIni, kBoth,
     "This host's IPv4 address on the coordination network, which names it in every datagram; * listens on every "
     "address.",
     "IPv4 address or *", "as *, the coordination socket listens on every address"},
    {"MemberPort", 0, 0, kIni, kMemb,
     "UDP port this member listens on and gives its controllers when it registers (a controller keeps it only "
     "for reference).",
     "port", "0: the member listens on a port the kernel picks and registers with port 0"},
    {"CtrlPort%d", 1, 4, kIni, kBoth,
     "On a controller CtrlPort1 is the UDP port it listens on; on a member, the port of the controller followed "
     "in slot n (copied from Port<n> of Membercnt.cfg at each start).",
     "port",
     "0; a controller then listens on a port the kernel picks, and a member follows slot n only if Port<n> of "
     "Membercnt.cfg names one"},
    {"GroupName", 0, 0, kIni, kCtrl, "Name of this UPS group, announced to the members.", "text",
     "an empty group name is announced"},
    {"SetUpID", 0, 0, kIni, kCtrl,
     "Identity text of this controller, by which members that name it as *<identity> find it; a leading * "
     "stands for a blank.",
     "text, * and at most 27 characters", "no member can find this controller by identity"},
    {"AccessCode%d", 1, 4, kIni, kBoth,
     "On a controller AccessCode1 is the code its members must present; on a member, the code presented to the "
     "controller of slot n.",
     "text, at most 31 bytes", "no access code"},
    {"MemberIDData", 0, 0, kIni, kCtrl,
     "Last member number this controller handed out; the daemon counts it up and saves it.", "number",
     "numbering starts at 1"},
    {"NotSend", 0, 0, kIni, kCtrl, "Kept for older configuration files; this version does not read it.", "0/1",
     "no effect"},
    {"UPSVersion", 0, 0, kIni, kCtrl, "Kept for older configuration files; this version does not read it.", "text",
     "no effect"},

    // ---- Kestrava.ini: UPS identity, written by a controller
    {"ModelName", 0, 0, kIni, kCtrl, "UPS model name, written by the daemon when it identifies the UPS.", "text",
     "written when the UPS is found (only if the key stands in the file)"},
    {"UPSSerial", 0, 0, kIni, kCtrl, "UPS serial number, written by the daemon when it identifies the UPS.", "text",
     "written when the UPS is found (only if the key stands in the file)"},
    {"UPSFirmWare", 0, 0, kIni, kCtrl,
     "UPS firmware version, configuration word and limits code, written by the daemon when it identifies the UPS.",
     "text", "written when the UPS is found (only if the key stands in the file)"},

    // ---- Kestrava.ini: what a member takes from its controllers
    {"AcceptControllerTiming", 0, 0, kIni, kMemb,
     "1 stores the shutdown timing a controller sends into that slot's WinkTime<n>, ShutdownTime<n>, "
     "AppTermTimeOut<n> and ShutdownDelay<n>; 0 keeps this host's own timing.",
     "0/1", "as 1, the timing is stored"},
    {"AcceptControllerCommand", 0, 0, kIni, kMemb,
     "1 stores an application command a controller sends as AppTermCommand<n>, to be run here as root; 0 never "
     "does.",
     "0/1", "as 1, the command is stored: write 0 unless the controllers are trusted with root here"},

    // ---- Kestrava.ini: controller slots of a member, kept by the daemon
    {"CtrlIPAddress%d", 1, 4, kIni, kMemb,
     "The controller followed in slot n, copied from IPAddress<n> of Membercnt.cfg at each start and used when "
     "that is empty.",
     "IPv4 address, host name or *identity", "slot n follows no controller"},
    {"HostName%d", 1, 4, kIni, kMemb, "Host name reported by the controller of slot n (written by the daemon).",
     "text", "filled in when the controller answers"},
    {"UGName%d", 1, 4, kIni, kMemb, "Group name reported by the controller of slot n (written by the daemon).",
     "text", "filled in when the controller answers"},
    {"MemberEntry%d", 1, 4, kIni, kMemb,
     "1 once this member is registered with the controller of slot n, 0 before (kept by the daemon).", "0/1",
     "taken as registered, as with 1"},
    {"MyID%d", 1, 4, kIni, kMemb, "Member ID the controller of slot n assigned (written by the daemon).", "text",
     "the controller assigns one at the registration"},

    // ---- Membercnt.cfg (member only)
    {"SetLater", 0, 0, kMem, kMemb, "1 records in the event log that the daemon started with its set-up deferred.",
     "0/1", "a normal start"},
    {"IPAddress%d", 1, 4, kMem, kMemb,
     "The controller followed in slot n: its IPv4 address, its host name (resolved at each registration), or * "
     "and its identity (its SetUpID without the *); taking it off the list makes the next start tell that "
     "controller to forget this member.",
     "IPv4 address, host name or *identity, at most 31 bytes", "slot n is not used"},
    {"Port%d", 1, 4, kMem, kMemb, "UDP port of the controller in slot n (its CtrlPort1).", "port",
     "CtrlPort<n> of Kestrava.ini is used"},
    {"UGName%d", 1, 4, kMem, kMemb,
     "Name by which the event log shows the controller of slot n when it is followed by identity (*<identity>), "
     "and Controller.inf while UGName<n> of Kestrava.ini is empty; the daemon never writes it.",
     "text", "the event log shows no name for that controller"},
    {"WinkTime", 0, 0, kMem, kMemb,
     "Wink time last received from a controller (written by the daemon), applied to the slots at the next start.",
     "seconds", "nothing received yet; the slots keep their own timing"},
    {"ShutdownTime", 0, 0, kMem, kMemb, "Countdown last received from a controller (written by the daemon).",
     "minutes", "nothing received yet"},
    {"AppTermTimeOut", 0, 0, kMem, kMemb,
     "Application time-out last received from a controller (written by the daemon).", "seconds",
     "nothing received yet"},
    {"ShutdownDelay", 0, 0, kMem, kMemb, "Shutdown delay last received from a controller (written by the daemon).",
     "seconds", "nothing received yet"},
    {"AppTermCommand", 0, 0, kMem, kMemb,
     "Application command last received from a controller (written by the daemon unless "
     "AcceptControllerCommand=0).",
     "text", "nothing received yet"},
    {"ShutdownControl", 0, 0, kMem, kMemb, "Kept for older files; this version does not read it.", "text",
     "no effect"},
};

// "WinkTime%d" against "WinkTime3": the family's stem, then a slot number
// in its range written without sign or leading zero.
bool matches(const ConfigKey& entry, const std::string& key)
{
    if (entry.firstIndex == 0)
        return key == entry.name;
    const char* mark = strstr(entry.name, "%d");
    const size_t stem = static_cast<size_t>(mark - entry.name);
    if (key.size() <= stem || key.compare(0, stem, entry.name, stem) != 0)
        return false;
    const std::string digits = key.substr(stem);
    if (digits.size() > 2 || digits[0] < '1' || digits[0] > '9' ||
        digits.find_first_not_of("0123456789") != std::string::npos)
        return false;
    const int n = atoi(digits.c_str());
    return n >= entry.firstIndex && n <= entry.lastIndex;
}

} // namespace

const ConfigKey* ConfigKeys::begin() { return kTable; }
const ConfigKey* ConfigKeys::end() { return kTable + count(); }
size_t ConfigKeys::count() { return sizeof kTable / sizeof kTable[0]; }

const ConfigKey* ConfigKeys::find(const std::string& key, const std::string& file)
{
    for (const ConfigKey& entry : kTable)
        if ((file.empty() || file == entry.file) && matches(entry, key))
            return &entry;
    return nullptr;
}

const char* ConfigKeys::roleName(KeyRole role)
{
    switch (role) {
    case KeyRole::Controller:
        return "controller";
    case KeyRole::Member:
        return "member";
    case KeyRole::Both:
        break;
    }
    return "both";
}

std::string ConfigKeys::displayName(const ConfigKey& key)
{
    std::string name = key.name;
    const std::string::size_type mark = name.find("%d");
    if (mark != std::string::npos)
        name.replace(mark, 2, "<n>");
    return name;
}
