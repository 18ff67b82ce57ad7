#include "control/TimerIFTh.h"

#include <cstdint>
#include <cstring>
#include <iterator>

#include "control/Codes.h"
#include "control/StCTrl.h"
#include "core/Clock.h"
#include "core/TimerFdWait.h"

namespace {
// With no timer running the wait is armed this far ahead: a setting of the
// clock wakes it in any case, the re-arm when it is reached is one wake-up a day.
const time_t kIdleArm = 86400;
const int64_t kNsPerSecond = 1000000000;
} // namespace

TimerIFTh::TimerIFTh(int number, StCTrl* ctrl, Clock* clock, TimerWait* wait)
    : tthread(number), mLast(0), mLastMono(0), mArmed(0), mCtrl(ctrl), mClock(clock ? clock : &Clock::system()),
      mStop(false), mContPending(false), mWait(wait)
{
    for (Slot& s : mSlots) {
        s.active = false;
        s.entry = mTimers.end();
    }
    mMutex.MutexInit(kListLock);
    mLast = mClock->now();
    mLastMono = mClock->monotonicNs();
}

TimerIFTh::~TimerIFTh() {}

int TimerIFTh::Timer_Start(TimerMng* tm)
{
    const int id = tm->id;
    if (!validId(id))
        return id;
    mMutex.Lock(kListLock);
    if (!mSlots[id].active) {
        mSlots[id].entry = mTimers.insert(mTimers.end(), *tm);
        mSlots[id].active = true;
        armIfEarlier(tm->expiry);
    }
    mMutex.unLock(kListLock);
    return id;
}

int TimerIFTh::Timer_Stop(int id)
{
    if (!validId(id) || !mSlots[id].active)
        return 1;
    mSlots[id].active = false;
    mTimers.erase(mSlots[id].entry);
    mSlots[id].entry = mTimers.end();
    return 0;
}

int TimerIFTh::Timer_Cancel(int id)
{
    mMutex.Lock(kListLock);
    Timer_Stop(id);
    mMutex.unLock(kListLock);
    return 0;
}

int TimerIFTh::Timer_Reset(int id, int seconds)
{
    if (!validId(id))
        return 0;
    int result = 0;
    mMutex.Lock(kListLock);
    if (mSlots[id].active) {
        mSlots[id].entry->expiry += seconds;
        armIfEarlier(mSlots[id].entry->expiry);
        result = id;
    }
    mMutex.unLock(kListLock);
    return result;
}

void TimerIFTh::Timer_Cancel_All()
{
    // Id 331 is outside this walk and survives a stop-all.
    Timer_Cancel_All(0, TmNet2Last);
}

void TimerIFTh::Timer_Cancel_All(int first, int last)
{
    mMutex.Lock(kListLock);
    for (int id = first < 0 ? 0 : first; id <= last && id <= TmNet2Last; ++id)
        Timer_Stop(id);
    mMutex.unLock(kListLock);
}

void TimerIFTh::TimeOut_Set(_NOTIFYMSGINFO* nt, int id, int late, int owner)
{
    memset(nt, 0, sizeof *nt);
    nt->code = NtTimerExpired;
    nt->count = 3;
    nt->params[0] = id;
    nt->params[1] = late;
    nt->params[2] = owner;
}

void TimerIFTh::TimeOut_func()
{
    mMutex.Lock(kListLock);
    const time_t now = mClock->now();
    const int64_t mono = mClock->monotonicNs();
    // The wall clock is expected where the last tick left it plus the whole
    // seconds that really passed since, so a long sleep is no jump. Seconds
    // boundaries make it 0 or +1 more; anything else is a setting of the
    // clock (or a suspend, during which the monotonic clock stands still).
    const time_t expected = mLast + static_cast<time_t>((mono - mLastMono) / kNsPerSecond);
    const time_t step = now - expected;
    mLastMono = mono;
    if (step != 0 && step != 1) {
        // Every timer keeps the time it still had to run.
        if (mTimers.empty()) {
            mLast = now;
            armEarliest(now);
            mMutex.unLock(kListLock);
            return;
        }
        for (TimerMng& t : mTimers)
            t.expiry = static_cast<int32_t>(t.expiry + step);
    }
    // The controller's rules only post events while the notification runs,
    // so the list cannot change under this walk except through Timer_Stop
    // here, which is why the next entry is taken before the current one may
    // be removed.
    for (auto it = mTimers.begin(); it != mTimers.end();) {
        auto next = std::next(it);
        if (it->expiry <= now) {
            _NOTIFYMSGINFO nt;
            TimeOut_Set(&nt, it->id, static_cast<int>(now - it->expiry), it->owner);
            if (it->interval == 0)
                Timer_Stop(it->id);
            else
                it->expiry += it->interval; // once per tick, no catching up
            mCtrl->SetNotify(&nt);
        }
        it = next;
    }
    mLast = now;
    armEarliest(now);
    mMutex.unLock(kListLock);
}

void TimerIFTh::armEarliest(time_t now)
{
    TimerWait* wait = mWait.load();
    if (!wait)
        return;
    time_t earliest = now + kIdleArm;
    for (const TimerMng& t : mTimers)
        if (t.expiry < earliest)
            earliest = t.expiry;
    wait->arm(earliest);
    mArmed = earliest;
}

void TimerIFTh::armIfEarlier(time_t expiry)
{
    TimerWait* wait = mWait.load();
    if (!wait || mArmed == 0 || expiry >= mArmed)
        return;
    wait->arm(expiry);
    mArmed = expiry;
}

bool TimerIFTh::isActive(int id)
{
    if (!validId(id))
        return false;
    mMutex.Lock(kListLock);
    bool active = mSlots[id].active;
    mMutex.unLock(kListLock);
    return active;
}

int TimerIFTh::runningTimers()
{
    mMutex.Lock(kListLock);
    int n = static_cast<int>(mTimers.size());
    mMutex.unLock(kListLock);
    return n;
}

void TimerIFTh::requestStop()
{
    mStop.store(true);
    if (TimerWait* wait = mWait.load())
        wait->wake();
}

void TimerIFTh::wakeContInfo()
{
    mContPending.store(true);
    if (TimerWait* wait = mWait.load())
        wait->wake();
}

void TimerIFTh::pause()
{
    if (mStop.load() || mContPending.load())
        return;
    mWait.load()->wait();
}

void TimerIFTh::thread_main()
{
    if (!mWait.load()) {
        mOwnWait.reset(new TimerFdWait());
        mWait.store(mOwnWait.get());
    }
    mMutex.Lock(kListLock);
    mLast = mClock->now();
    mLastMono = mClock->monotonicNs();
    armEarliest(mLast);
    mMutex.unLock(kListLock);

    for (int i = 0; i < 2; ++i) {
        pause();
        TimeOut_func();
    }
    // The status check runs before two of every three ticks and is skipped
    // before the third. A change of the member-information record makes the
    // ticks up to the next check run without sleeping.
    uint8_t c = 1;
    while (!mStop.load()) {
        mContPending.store(false);
        mCtrl->CheckContInfo();
        do {
            c = static_cast<uint8_t>(c + 1);
            pause();
            TimeOut_func();
            c = static_cast<uint8_t>(c % 3);
        } while (c == 0);
    }
}
