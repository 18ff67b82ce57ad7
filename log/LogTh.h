// LogTh: the log thread (number 5). Writes the event log and meter log and broadcasts operator messages.
#pragma once

#include "core/tthread.h"

class LogTh : public tthread {
public:
    explicit LogTh(int number);
    ~LogTh() override;

protected:
    void thread_main() override;
};
