// IpcCTrlMTh: a member-side coordination protocol thread (numbers 8 to 11): follows one controller.
#pragma once

#include "core/tthread.h"

class IpcCTrlMTh : public tthread {
public:
    explicit IpcCTrlMTh(int number);
    ~IpcCTrlMTh() override;

protected:
    void thread_main() override;
};
