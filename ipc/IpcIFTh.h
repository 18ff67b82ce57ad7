// IpcIFTh: the UDP transport thread (number 13) of the coordination network between controllers and members.
#pragma once

#include "core/tthread.h"

class IpcIFTh : public tthread {
public:
    explicit IpcIFTh(int number);
    ~IpcIFTh() override;

protected:
    void thread_main() override;
};
