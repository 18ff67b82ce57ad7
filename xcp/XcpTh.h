// XcpTh: the XCP event thread (number 2). Moves the events addressed to the UPS link from the controller queue into the queue of XcpIFTh.
#pragma once

#include "core/tthread.h"

class XcpTh : public tthread {
public:
    explicit XcpTh(int number);
    ~XcpTh() override;

protected:
    void thread_main() override;
};
