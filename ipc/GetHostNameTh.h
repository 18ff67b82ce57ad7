// GetHostNameTh: resolves controller host names for the member side (thread number 12).
#pragma once

#include "core/tthread.h"

class GetHostNameTh : public tthread {
public:
    explicit GetHostNameTh(int number);
    ~GetHostNameTh() override;

protected:
    void thread_main() override;
};
