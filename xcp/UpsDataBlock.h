// UpsDataBlock: everything known about the UPS (global gUpsData), filled by
// the UPS interface thread from the XCP blocks and read by the other threads.
#pragma once

class UpsDataBlock {
public:
    UpsDataBlock();
    virtual ~UpsDataBlock();

    // True when the alarm is supported and currently active for the UPS index.
    bool isAlarmActive(int alarm, int ups) const;
};
