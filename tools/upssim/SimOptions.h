// SimOptions: the simulated UPS's command-line settings, their defaults,
// the parser for them and the --help text. The list parsers are shared
// with the runtime commands ("speeds 9600,2400").
#ifndef KESTRAVA_TOOLS_UPSSIM_SIMOPTIONS_H
#define KESTRAVA_TOOLS_UPSSIM_SIMOPTIONS_H

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace upssim {

struct SimOptions {
    std::string model = "Kestrava SimUPS 1500";
    std::string serial = "KS15SIM000000001";
    std::string secondText = "KS-SIM-1500";
    std::string limitsCode = "KS";
    uint8_t firmwareMajor = 0x02;  // shown as "%X.%02X": 2.15
    uint8_t firmwareMinor = 0x15;
    int ratingVa = 1500;
    int outlets = 2;
    int topology = 0x0010;
    std::set<int> speeds;          // line speeds answered at
    std::vector<int> capSpeeds;    // speeds announced in block 0x12
    int maxCommandLength = 16;
    std::vector<uint8_t> commands; // command list block 0x10
    int commandCount = -1;         // announced count; -1: size of the list
    int frameSize = 255;
    std::set<int> supportedAlarms;
    std::set<int> activeAlarms;
    std::string logPath;
    std::string controlPath;
    std::string pidFile;
    std::string linkPath;          // stable symbolic link to the terminal
    bool verbose = false;
    bool quiet = false;
    bool help = false;

    SimOptions();

    // Parses argv; false with *error set on bad input. --help sets help.
    static bool parse(int argc, char** argv, SimOptions* out, std::string* error);
    static std::string usage(const char* program);

    // "9600,2400" -> speeds; each must be a serial speed of 50..38400.
    static bool parseSpeedList(const std::string& text, std::vector<int>* out,
                               std::string* error);
    // "A0,31,0x33" -> codes (hex, optional 0x).
    static bool parseHexList(const std::string& text, std::vector<uint8_t>* out,
                             std::string* error);
    // "56,57,59" -> numbers within [lo, hi].
    static bool parseIntList(const std::string& text, int lo, int hi,
                             std::vector<int>* out, std::string* error);
    static bool parseInt(const std::string& text, int lo, int hi, int* out);
    // Identity texts: "\r", "\n", "\t", "\\" and "\xHH" stand for the
    // byte, so that a shell can pass control characters.
    static bool unescape(const std::string& text, std::string* out, std::string* error);
    static bool isSerialSpeed(int baud);
    static std::string joinInts(const std::vector<int>& values);
    static std::string joinInts(const std::set<int>& values);
};

}  // namespace upssim

#endif
