#include "core/tthread.h"

#include <cstdio>
#include <unistd.h>

tthread::tthread() : mNumber(0), mThread(), mStarted(false) {}

tthread::tthread(int number) : mNumber(number), mThread(), mStarted(false) {}

tthread::~tthread() {}

bool tthread::st()
{
    if (pthread_create(&mThread, nullptr, &tthread::threadmethod, this) != 0)
        return false;
    mStarted = true;
    // "ks-th13": the thread number shows in top -H, ps -L and
    // /proc/<pid>/task/*/comm, so a thread's cost can be told apart.
    char name[16];
    snprintf(name, sizeof name, "ks-th%d", mNumber);
    pthread_setname_np(mThread, name);
    return true;
}

bool tthread::sp()
{
    // A thread that was never started has nothing to join: the join fails.
    if (!mStarted)
        return true;
    return pthread_join(mThread, nullptr) != 0;
}

void* tthread::threadmethod(void* self)
{
    static_cast<tthread*>(self)->thread_main();
    return nullptr;
}

void tthread::thread_main()
{
    for (;;)
        sleep(60);
}
