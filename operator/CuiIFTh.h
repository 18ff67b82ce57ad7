// CuiIFTh: the console interface thread (number 6). Serves the local console tool over TCP.
#pragma once

#include "core/tthread.h"

class CuiIFTh : public tthread {
public:
    explicit CuiIFTh(int number);
    ~CuiIFTh() override;

protected:
    void thread_main() override;
};
