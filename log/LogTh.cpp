#include "log/LogTh.h"

#include "control/StCTrl.h"
#include "core/Globals.h"

LogTh::LogTh(int number) : tthread(number) {}

LogTh::~LogTh() {}

void LogTh::thread_main()
{
    // Takes the events addressed to this thread; their handling is not built yet.
    EVENTMSGINFO ev;
    for (;;)
        gCStCtrl.GetEvent(&ev, GetMyThrad());
}
