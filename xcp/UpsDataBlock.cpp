#include "xcp/UpsDataBlock.h"

UpsDataBlock::UpsDataBlock() {}

UpsDataBlock::~UpsDataBlock() {}

bool UpsDataBlock::isAlarmActive(int, int) const { return false; }
