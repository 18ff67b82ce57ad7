// ConfigBlock: the UPS's configuration block as kept in UpsDataBlock: the
// seven configuration words, the configuration flag, the version texts,
// the firmware text (which the identification block supplies), the
// configuration text and the serial number.
#pragma once

#include <cstdint>
#include <string>

struct ConfigBlock {
    uint16_t words[7];        // bytes 0-1, 2-3, 4-5, 6-7, 8-9, 10-11, 14-15
    uint8_t flag;             // bit 0 of byte 16
    std::string version1;     // "%i.%02i" of bytes 37 and 36
    std::string firmware;     // "%X.%02X" or "--.--"
    std::string version2;     // "%i.%02i" of bytes 43 and 42
    std::string configText;   // bytes 48-63
    std::string serial;       // bytes 64-79

    ConfigBlock();
    void clear();
};
