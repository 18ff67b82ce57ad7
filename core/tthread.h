// tthread: the base of every worker thread of the daemon. A worker is one
// long-lived global object with a fixed thread number, which is also the
// addressee number of the events it receives.
#pragma once

#include <pthread.h>

class tthread {
public:
    tthread();
    explicit tthread(int number);
    virtual ~tthread();

    // Starts the thread, named "ks-th<number>" for the system's tools;
    // true when it was created.
    bool st();
    // Joins the thread; true when the join FAILED (the opposite sense of st()).
    bool sp();
    int GetMyThrad() const { return mNumber; }

    static void* threadmethod(void* self);

protected:
    virtual void thread_main();

private:
    int mNumber;
    pthread_t mThread;
    bool mStarted;
};
