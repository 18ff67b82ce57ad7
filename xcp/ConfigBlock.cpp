#include "xcp/ConfigBlock.h"

ConfigBlock::ConfigBlock() { clear(); }

void ConfigBlock::clear()
{
    for (uint16_t& w : words)
        w = 0;
    flag = 0;
    version1.clear();
    firmware.clear();
    version2.clear();
    configText.clear();
    serial.clear();
}
