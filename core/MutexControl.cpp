#include "core/MutexControl.h"

#include <sys/time.h>
#include <time.h>

MutexControl::MutexControl()
{
    pthread_mutex_init(&mSchedule, nullptr);
    pthread_mutex_init(&mMemberInfo, nullptr);
}

MutexControl::~MutexControl()
{
    // The slot mutexes and conditions are never destroyed: threads may still
    // hold them while the process exits.
    pthread_mutex_destroy(&mSchedule);
    pthread_mutex_destroy(&mMemberInfo);
}

void MutexControl::MutexInit()
{
    for (int n = 0; n < kSlots; ++n)
        MutexInit(n);
}

void MutexControl::MutexInit(int n)
{
    pthread_mutex_init(&mSlots[n].mutex, nullptr);
    pthread_cond_init(&mSlots[n].cond, nullptr);
}

void MutexControl::Lock(int n) { pthread_mutex_lock(&mSlots[n].mutex); }

void MutexControl::unLock(int n) { pthread_mutex_unlock(&mSlots[n].mutex); }

void MutexControl::Signal(int n) { pthread_cond_signal(&mSlots[n].cond); }

int MutexControl::Wait(int n) { return pthread_cond_wait(&mSlots[n].cond, &mSlots[n].mutex); }

int MutexControl::Wait_time(int n)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    struct timespec deadline;
    deadline.tv_sec = now.tv_sec + 5;
    deadline.tv_nsec = now.tv_usec * 1000L;
    return pthread_cond_timedwait(&mSlots[n].cond, &mSlots[n].mutex, &deadline);
}

void MutexControl::SCHLock() { pthread_mutex_lock(&mSchedule); }
void MutexControl::SCHunLock() { pthread_mutex_unlock(&mSchedule); }
void MutexControl::MEMInfoLock() { pthread_mutex_lock(&mMemberInfo); }
void MutexControl::MEMInfoUnLock() { pthread_mutex_unlock(&mMemberInfo); }
