// PowerTh: the power action thread (number 4). Runs the applications' termination commands and the host shutdown command.
#pragma once

#include "core/tthread.h"

class PowerTh : public tthread {
public:
    explicit PowerTh(int number);
    ~PowerTh() override;

protected:
    void thread_main() override;
};
