// XcpIFTh: the UPS interface thread (number 3). Speaks XCP to the UPS on the serial line: detection, polling and commands.
#pragma once

#include "core/tthread.h"

class XcpIFTh : public tthread {
public:
    explicit XcpIFTh(int number);
    ~XcpIFTh() override;

protected:
    void thread_main() override;
};
