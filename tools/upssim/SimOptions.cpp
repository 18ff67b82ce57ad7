#include "tools/upssim/SimOptions.h"

#include <cerrno>
#include <cstdlib>
#include <sstream>

namespace upssim {

namespace {

const int kSerialSpeeds[] = {50, 75, 110, 134, 150, 200, 300, 600, 1200, 1800,
                             2400, 4800, 9600, 19200, 38400};

bool splitList(const std::string& text, std::vector<std::string>* items) {
    items->clear();
    std::string cur;
    for (char c : text) {
        if (c == ',' || c == ' ') {
            if (!cur.empty()) items->push_back(cur);
            cur.clear();
        } else {
            cur += c;
        }
    }
    if (!cur.empty()) items->push_back(cur);
    return !items->empty();
}

bool parseHexByte(const std::string& text, int maxDigits, uint8_t* out) {
    std::string t = text;
    if (t.size() > 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) t = t.substr(2);
    if (t.empty() || static_cast<int>(t.size()) > maxDigits) return false;
    unsigned v = 0;
    for (char c : t) {
        int d;
        if (c >= '0' && c <= '9') d = c - '0';
        else if (c >= 'a' && c <= 'f') d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F') d = c - 'A' + 10;
        else return false;
        v = v * 16 + static_cast<unsigned>(d);
    }
    if (v > 0xFF) return false;
    *out = static_cast<uint8_t>(v);
    return true;
}

}  // namespace

SimOptions::SimOptions()
    : speeds{300, 600, 1200, 2400, 4800, 9600, 19200},
      capSpeeds{1200, 2400, 9600, 19200},
      commands{0x31, 0x33, 0x34, 0x35, 0x36, 0x3B, 0x3C, 0x40, 0x41, 0x42, 0x43,
               0x89, 0x8A, 0x93, 0x97, 0x98, 0xA0, 0xCF},
      supportedAlarms{1, 6, 7, 25, 27, 55, 56, 57, 59, 63, 105, 149, 150, 168, 169,
                      174, 191, 193, 199, 203, 228, 229} {}

bool SimOptions::isSerialSpeed(int baud) {
    for (int s : kSerialSpeeds)
        if (s == baud) return true;
    return false;
}

bool SimOptions::parseInt(const std::string& text, int lo, int hi, int* out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    long v = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == text.c_str() || *end != '\0') return false;
    if (v < lo || v > hi) return false;
    *out = static_cast<int>(v);
    return true;
}

bool SimOptions::unescape(const std::string& text, std::string* out, std::string* error) {
    out->clear();
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            *out += text[i];
            continue;
        }
        char c = i + 1 < text.size() ? text[++i] : '\0';
        uint8_t v = 0;
        if (c == 'r') *out += '\r';
        else if (c == 'n') *out += '\n';
        else if (c == 't') *out += '\t';
        else if (c == '\\') *out += '\\';
        else if (c == 'x' && i + 2 < text.size() && parseHexByte(text.substr(i + 1, 2), 2, &v)) {
            *out += static_cast<char>(v);
            i += 2;
        } else {
            *error = "bad escape in \"" + text + "\" (\\r \\n \\t \\\\ \\xHH)";
            return false;
        }
    }
    return true;
}

bool SimOptions::parseSpeedList(const std::string& text, std::vector<int>* out,
                                std::string* error) {
    std::vector<std::string> items;
    if (!splitList(text, &items)) {
        *error = "empty speed list";
        return false;
    }
    out->clear();
    for (const std::string& item : items) {
        int v = 0;
        if (!parseInt(item, 1, 38400, &v) || !isSerialSpeed(v)) {
            *error = "not a serial line speed: \"" + item +
                     "\" (one of 50 75 110 134 150 200 300 600 1200 1800 2400 4800 9600 19200 38400)";
            return false;
        }
        out->push_back(v);
    }
    return true;
}

bool SimOptions::parseHexList(const std::string& text, std::vector<uint8_t>* out,
                              std::string* error) {
    std::vector<std::string> items;
    out->clear();
    if (!splitList(text, &items)) return true;  // an empty command list is allowed
    for (const std::string& item : items) {
        uint8_t v = 0;
        if (!parseHexByte(item, 2, &v)) {
            *error = "not a hex byte: \"" + item + "\"";
            return false;
        }
        out->push_back(v);
    }
    return true;
}

bool SimOptions::parseIntList(const std::string& text, int lo, int hi,
                              std::vector<int>* out, std::string* error) {
    std::vector<std::string> items;
    out->clear();
    if (!splitList(text, &items)) return true;
    for (const std::string& item : items) {
        int v = 0;
        if (!parseInt(item, lo, hi, &v)) {
            std::ostringstream msg;
            msg << "not a number in " << lo << ".." << hi << ": \"" << item << "\"";
            *error = msg.str();
            return false;
        }
        out->push_back(v);
    }
    return true;
}

std::string SimOptions::joinInts(const std::vector<int>& values) {
    std::string out;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i) out += ',';
        out += std::to_string(values[i]);
    }
    return out;
}

std::string SimOptions::joinInts(const std::set<int>& values) {
    return joinInts(std::vector<int>(values.begin(), values.end()));
}

std::string SimOptions::usage(const char* program) {
    std::ostringstream o;
    o << "Usage: " << program << " [options]\n"
      << "\n"
      << "Simulates a UPS that speaks XCP on a pseudo-terminal. The first line\n"
      << "printed on standard output is the path of the terminal (or the --link\n"
      << "path) to give the daemon as DeviceName. The simulator answers only while the line speed\n"
      << "set on that terminal is one it accepts, and stays silent otherwise\n"
      << "(always at speed 0).\n"
      << "\n"
      << "Identity:\n"
      << "  --model TEXT           unit name in the identification block\n"
      << "                         (default \"Kestrava SimUPS 1500\", at most 63 chars)\n"
      << "  --serial TEXT          serial number, at most 16 chars (default KS15SIM000000001)\n"
      << "  --second-text TEXT     second identification text (default KS-SIM-1500)\n"
      << "                         In these three texts \\r, \\n, \\t, \\\\ and \\xHH stand\n"
      << "                         for the byte, e.g. --model 'UPS\\r\\nAppTermCommand1=x'\n"
      << "  --firmware X.YY        firmware version, two hex numbers (default 2.15)\n"
      << "  --rating VA            rating in volt-amperes (default 1500)\n"
      << "  --outlets N            number of outlet segments, 0..16 (default 2)\n"
      << "  --topology HEX         topology word of block 0x13 (default 0010)\n"
      << "  --limits-code XY       two characters of the extended limits block (default KS)\n"
      << "Line:\n"
      << "  --speeds LIST          speeds answered at (default 300,600,1200,2400,4800,9600,19200)\n"
      << "  --cap-speeds LIST      speeds announced in the capabilities block\n"
      << "                         (default 1200,2400,9600,19200)\n"
      << "  --max-command-length N largest command frame announced, 1..255 (default 16)\n"
      << "  --frame-size N         data bytes per reply frame, 1..255 (default 255)\n"
      << "Commands and alarms:\n"
      << "  --commands HEXLIST     command list announced in block 0x10\n"
      << "                         (default 31,33,34,35,36,3B,3C,40,41,42,43,89,8A,93,97,98,A0,CF)\n"
      << "  --command-count N      count announced in block 0x10 (default: list size)\n"
      << "  --supported-alarms LIST alarm numbers in the alarm map (default\n"
      << "                         1,6,7,25,27,55,56,57,59,63,105,149,150,168,169,174,191,\n"
      << "                         193,199,203,228,229); 56, 57 and 59 are always added\n"
      << "  --alarms LIST          alarms active at start (e.g. 57,59)\n"
      << "Output and control:\n"
      << "  --log FILE             append every frame received and sent, in hex with a\n"
      << "                         timestamp, one per line (RX/TX), and NOTE lines\n"
      << "  --control PATH         unix-domain stream socket accepting the runtime\n"
      << "                         commands below, one per line, one reply line each\n"
      << "  --pidfile FILE         write the process id there (removed at exit)\n"
      << "  --link PATH            keep a symbolic link PATH to the terminal (re-pointed\n"
      << "                         after a hang-up) and print PATH instead of the terminal\n"
      << "  --verbose              also print the frame log on standard error\n"
      << "  --quiet                do not print notes on standard error\n"
      << "  --help                 this text\n"
      << "\n"
      << "Runtime commands (standard input or the control socket, one per line;\n"
      << "each is answered with one line starting with \"ok\" or \"error:\"):\n"
      << "  alarm set N | alarm clear N   raise or clear alarm N (56 battery low,\n"
      << "                                57 utility fail, 59 utility not present)\n"
      << "  silent on | silent off        stop or resume answering\n"
      << "  garbage [now]                 send garbage bytes before the next reply,\n"
      << "                                or at once with \"now\"\n"
      << "  delay MS                      answer MS milliseconds late (0: at once)\n"
      << "  speeds LIST                   replace the accepted line speeds\n"
      << "  fault checksum [N]            the next N replies (default 1) carry a wrong\n"
      << "                                checksum in their first frame\n"
      << "  fault sequence [N]            ... a wrong sequence number in their first frame\n"
      << "  fault truncate [N]            ... only the header and half the data of their\n"
      << "                                first frame; the rest is never sent\n"
      << "  fault split MS [N]            ... sent in two parts (after the header and half\n"
      << "                                the data of the first frame), MS ms apart\n"
      << "  fault silent N                the next N command frames (the authentication\n"
      << "                                included) are not heard\n"
      << "  fault off                     drop a fault not yet played\n"
      << "                                (one fault at a time; a new one replaces it)\n"
      << "  hangup [MS]                   close the terminal (the host's line hangs up),\n"
      << "                                remove the --link, and MS ms later (default\n"
      << "                                1000) open a new terminal and point the link at it\n"
      << "  meter N VALUE                 set the value of present meter N\n"
      << "  status                        one line: speed, state, alarms, counters\n"
      << "  help                          list the commands\n"
      << "  quit                          stop the simulator\n"
      << "\n"
      << "Lists are comma separated. End of standard input does not stop the\n"
      << "simulator; SIGTERM, SIGINT or \"quit\" do.\n";
    return o.str();
}

bool SimOptions::parse(int argc, char** argv, SimOptions* out, std::string* error) {
    SimOptions o;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string name = arg, value;
        bool hasValue = false;
        size_t eq = arg.find('=');
        if (arg.compare(0, 2, "--") == 0 && eq != std::string::npos) {
            name = arg.substr(0, eq);
            value = arg.substr(eq + 1);
            hasValue = true;
        }
        auto flag = [&](const char* n) { return name == n; };
        if (flag("--help") || flag("-h")) {
            o.help = true;
            continue;
        }
        if (flag("--verbose")) { o.verbose = true; continue; }
        if (flag("--quiet")) { o.quiet = true; continue; }
        static const char* const kWithValue[] = {
            "--model", "--serial", "--firmware", "--rating", "--outlets", "--topology",
            "--limits-code", "--speeds", "--cap-speeds", "--max-command-length",
            "--frame-size", "--commands", "--command-count", "--supported-alarms",
            "--alarms", "--log", "--control", "--pidfile", "--link", "--second-text"};
        bool known = false;
        for (const char* k : kWithValue) known = known || name == k;
        if (!known) {
            *error = "unknown option: " + arg + " (see --help)";
            return false;
        }
        if (!hasValue) {
            if (i + 1 >= argc) {
                *error = "option " + name + " needs a value";
                return false;
            }
            value = argv[++i];
        }
        int n = 0;
        std::vector<int> ints;
        std::string text;
        if ((flag("--model") || flag("--serial") || flag("--second-text")) && !unescape(value, &text, error)) {
            *error = name + ": " + *error;
            return false;
        }
        if (flag("--model")) {
            if (text.size() > 63) { *error = "--model: at most 63 characters"; return false; }
            o.model = text;
        } else if (flag("--serial")) {
            if (text.size() > 16) { *error = "--serial: at most 16 characters"; return false; }
            o.serial = text;
        } else if (flag("--second-text")) {
            if (text.size() > 63) { *error = "--second-text: at most 63 characters"; return false; }
            o.secondText = text;
        } else if (flag("--firmware")) {
            size_t dot = value.find('.');
            uint8_t major = 0, minor = 0;
            if (dot == std::string::npos || !parseHexByte(value.substr(0, dot), 2, &major) ||
                !parseHexByte(value.substr(dot + 1), 2, &minor)) {
                *error = "--firmware: expected X.YY with hex numbers, e.g. 2.15";
                return false;
            }
            o.firmwareMajor = major;
            o.firmwareMinor = minor;
        } else if (flag("--rating")) {
            if (!parseInt(value, 50, 65535 * 50, &n)) {
                *error = "--rating: volt-amperes between 50 and 3276750";
                return false;
            }
            o.ratingVa = n;
        } else if (flag("--outlets")) {
            if (!parseInt(value, 0, 16, &n)) { *error = "--outlets: 0..16"; return false; }
            o.outlets = n;
        } else if (flag("--topology")) {
            uint8_t hi = 0, lo = 0;
            std::string v = value;
            if (v.size() > 2 && v[0] == '0' && (v[1] == 'x' || v[1] == 'X')) v = v.substr(2);
            if (v.empty() || v.size() > 4) { *error = "--topology: hex word"; return false; }
            while (v.size() < 4) v = "0" + v;
            if (!parseHexByte(v.substr(0, 2), 2, &hi) || !parseHexByte(v.substr(2), 2, &lo)) {
                *error = "--topology: hex word";
                return false;
            }
            o.topology = hi * 256 + lo;
        } else if (flag("--limits-code")) {
            if (value.size() != 2) { *error = "--limits-code: exactly two characters"; return false; }
            o.limitsCode = value;
        } else if (flag("--speeds")) {
            if (!parseSpeedList(value, &ints, error)) { *error = "--speeds: " + *error; return false; }
            o.speeds = std::set<int>(ints.begin(), ints.end());
        } else if (flag("--cap-speeds")) {
            if (!parseIntList(value, 1, 65535, &ints, error)) { *error = "--cap-speeds: " + *error; return false; }
            if (ints.size() > 100) { *error = "--cap-speeds: at most 100 speeds"; return false; }
            o.capSpeeds = ints;
        } else if (flag("--max-command-length")) {
            if (!parseInt(value, 1, 255, &n)) { *error = "--max-command-length: 1..255"; return false; }
            o.maxCommandLength = n;
        } else if (flag("--frame-size")) {
            if (!parseInt(value, 1, 255, &n)) { *error = "--frame-size: 1..255"; return false; }
            o.frameSize = n;
        } else if (flag("--commands")) {
            if (!parseHexList(value, &o.commands, error)) { *error = "--commands: " + *error; return false; }
            if (o.commands.size() > 250) { *error = "--commands: at most 250 codes"; return false; }
        } else if (flag("--command-count")) {
            if (!parseInt(value, 0, 255, &n)) { *error = "--command-count: 0..255"; return false; }
            o.commandCount = n;
        } else if (flag("--supported-alarms")) {
            if (!parseIntList(value, 0, 229, &ints, error)) { *error = "--supported-alarms: " + *error; return false; }
            o.supportedAlarms = std::set<int>(ints.begin(), ints.end());
        } else if (flag("--alarms")) {
            if (!parseIntList(value, 0, 229, &ints, error)) { *error = "--alarms: " + *error; return false; }
            o.activeAlarms = std::set<int>(ints.begin(), ints.end());
        } else if (flag("--log")) {
            o.logPath = value;
        } else if (flag("--control")) {
            o.controlPath = value;
        } else if (flag("--pidfile")) {
            o.pidFile = value;
        } else if (flag("--link")) {
            o.linkPath = value;
        }
    }
    // The power-condition alarms are always part of the map.
    o.supportedAlarms.insert(56);
    o.supportedAlarms.insert(57);
    o.supportedAlarms.insert(59);
    for (int a : o.activeAlarms) {
        if (!o.supportedAlarms.count(a)) {
            *error = "--alarms: alarm " + std::to_string(a) + " is not in the supported alarms";
            return false;
        }
    }
    *out = o;
    return true;
}

}  // namespace upssim
