// MutexControl: the bank of sixteen numbered mutex/condition slots plus the
// schedule lock and the member-information lock. Each owner initialises the
// slots it uses; timed waits give up after 5 seconds so waiters re-test.
#pragma once

#include <pthread.h>

class MutexControl {
public:
    static const int kSlots = 16;

    MutexControl();
    virtual ~MutexControl();

    MutexControl(const MutexControl&) = delete;
    MutexControl& operator=(const MutexControl&) = delete;

    void MutexInit();
    void MutexInit(int n);

    void Lock(int n);
    void unLock(int n);
    void Signal(int n);
    int Wait(int n);
    int Wait_time(int n);

    void SCHLock();
    void SCHunLock();
    void MEMInfoLock();
    void MEMInfoUnLock();

private:
    struct Slot {
        pthread_mutex_t mutex;
        pthread_cond_t cond;
    };
    Slot mSlots[kSlots];
    pthread_mutex_t mSchedule;
    pthread_mutex_t mMemberInfo;
};
