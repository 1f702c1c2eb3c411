// Timers of the host. They run on the host clock: the monotonic clock normally, a manual
// clock in tests and in offline analysis.
#pragma once

#include <pthread.h>
#include <ctime>

// Fixed-period pacing: BeginTiming marks the start, Delay waits until the delay time in
// microseconds has passed since then (at once when it has, or when it is negative).
class DelayTimer {
public:
    explicit DelayTimer(int delayUs);
    void BeginTiming();
    void SetDelayTime(int delayUs);
    // Waits out the rest of the period and begins the next one.
    void Delay();

private:
    int m_DelayUs;
    long long m_BeginUs;
};

// Countdown in seconds of the host clock.
class TimeCount {
public:
    TimeCount();
    void SetCountingTime(unsigned long long seconds);
    void BeginCountFromNow();
    // True once the set count has passed since the last begin.
    bool IsExceed();

private:
    unsigned long long m_Count;
    long long m_BeginUs;
};

// Waits on cond, whose mutex the caller holds, until the absolute time abstime of the
// monotonic host clock or a signal. Returns 0 when signalled, ETIMEDOUT on time-out.
int CondTimedWaitNoLock(pthread_cond_t& cond, pthread_mutex_t& mutex, timespec& abstime,
                        bool blRealTime);
