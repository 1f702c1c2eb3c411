// DelayTimer, TimeCount and CondTimedWaitNoLock on the host clock.
#include <cerrno>

#include "tw/time.h"
#include "twhost/clock.h"

using tw::host::GetClock;

DelayTimer::DelayTimer(int delayUs) : m_DelayUs(delayUs), m_BeginUs(GetClock().NowUs()) {}

void DelayTimer::BeginTiming() { m_BeginUs = GetClock().NowUs(); }

void DelayTimer::SetDelayTime(int delayUs) { m_DelayUs = delayUs; }

void DelayTimer::Delay() {
    tw::host::Clock& clock = GetClock();
    const long long deadline = m_BeginUs + m_DelayUs;
    // A negative or elapsed delay returns at once; the wait is still recorded by a manual
    // clock so that callers can be checked for what they asked.
    clock.SleepUntilUs(deadline);
    m_BeginUs = clock.NowUs();
}

TimeCount::TimeCount() : m_Count(0), m_BeginUs(GetClock().NowUs()) {}

void TimeCount::SetCountingTime(unsigned long long seconds) { m_Count = seconds; }

void TimeCount::BeginCountFromNow() { m_BeginUs = GetClock().NowUs(); }

bool TimeCount::IsExceed() {
    const long long elapsedUs = GetClock().NowUs() - m_BeginUs;
    if (elapsedUs < 0) return false;
    return static_cast<unsigned long long>(elapsedUs) >= m_Count * 1000000ULL;
}

int CondTimedWaitNoLock(pthread_cond_t& cond, pthread_mutex_t& mutex, timespec& abstime,
                        bool /*blRealTime*/) {
    tw::host::Clock& clock = GetClock();
    if (!clock.IsManual()) return pthread_cond_timedwait(&cond, &mutex, &abstime);
    // Under a manual clock the deadline is a point on that clock: wait for a signal in short
    // real slices and give up once the manual time has reached the deadline.
    const long long deadlineUs = static_cast<long long>(abstime.tv_sec) * 1000000 + abstime.tv_nsec / 1000;
    for (;;) {
        if (clock.NowUs() >= deadlineUs) return ETIMEDOUT;
        timespec slice{};
        clock_gettime(CLOCK_MONOTONIC, &slice);
        slice.tv_nsec += 2 * 1000 * 1000;
        if (slice.tv_nsec >= 1000000000) {
            slice.tv_sec += 1;
            slice.tv_nsec -= 1000000000;
        }
        const int rc = pthread_cond_timedwait(&cond, &mutex, &slice);
        if (rc == 0) return 0;
        if (rc != ETIMEDOUT) return rc;
    }
}
