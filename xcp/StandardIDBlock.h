// StandardIDBlock: what the UPS's identification block says about it,
// held by value in UpsDataBlock: rating, identification bytes, unit name,
// meter map, alarm map, configuration block length, second identification
// text and the trailing identification words.
#pragma once

#include <cstdint>
#include <string>

struct StandardIDBlock {
    uint16_t rating;          // volt-amperes
    uint8_t idByte1;
    uint8_t idByte2;
    std::string unitName;
    std::string meterMap;     // one format byte per XCP meter number
    std::string alarmMap;     // supported-alarm bit map
    uint16_t configLength;    // length of the configuration block
    std::string secondText;
    uint16_t idWords[3];
    uint8_t idByte;

    StandardIDBlock();
    void clear();
};
