#include "xcp/StandardIDBlock.h"

StandardIDBlock::StandardIDBlock() { clear(); }

void StandardIDBlock::clear()
{
    rating = 0;
    idByte1 = idByte2 = 0;
    unitName.clear();
    meterMap.clear();
    alarmMap.clear();
    configLength = 0;
    secondText.clear();
    idWords[0] = idWords[1] = idWords[2] = 0;
    idByte = 0;
}
