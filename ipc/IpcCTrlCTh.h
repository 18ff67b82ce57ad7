// IpcCTrlCTh: the controller-side coordination protocol thread (number 8): serves the shutdown members of this controller.
#pragma once

#include "core/tthread.h"

class IpcCTrlCTh : public tthread {
public:
    explicit IpcCTrlCTh(int number);
    ~IpcCTrlCTh() override;

protected:
    void thread_main() override;
};
