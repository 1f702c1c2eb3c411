// DelayTimer, TimeCount and CondTimedWaitNoLock on the host clock.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "tw/time.h"
#include "twhost/clock.h"
#include "twhost/condwaits.h"

using tw::host::GetClock;

namespace {

std::mutex g_WaitsMutex;
std::condition_variable g_WaitsCond;
uint64_t g_WaitsBegun = 0;

// Called with the caller's mutex held, just before it is given up in the wait: whoever
// sees the count go up can take that mutex only once the worker is really waiting.
void NoteWaitBegun() {
    {
        std::lock_guard<std::mutex> lock(g_WaitsMutex);
        ++g_WaitsBegun;
    }
    g_WaitsCond.notify_all();
}

}  // namespace

namespace tw::host {

uint64_t CondWaitsBegun() {
    std::lock_guard<std::mutex> lock(g_WaitsMutex);
    return g_WaitsBegun;
}

bool WaitForCondWaitsBegun(uint64_t n, int timeoutMs) {
    std::unique_lock<std::mutex> lock(g_WaitsMutex);
    const auto reached = [n] { return g_WaitsBegun >= n; };
    if (timeoutMs < 0) {
        g_WaitsCond.wait(lock, reached);
        return true;
    }
    return g_WaitsCond.wait_for(lock, std::chrono::milliseconds(timeoutMs), reached);
}

}  // namespace tw::host

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
    std::shared_ptr<tw::host::Clock> clockPtr = tw::host::GetClockPtr();
    auto* manual = dynamic_cast<tw::host::ManualClock*>(clockPtr.get());
    NoteWaitBegun();
    if (manual == nullptr) return pthread_cond_timedwait(&cond, &mutex, &abstime);

    // Callers compute the deadline from CLOCK_MONOTONIC. Under a manual clock the same
    // distance is waited on the manual time line instead: the wait ends when the test (or
    // the offline reader) has moved the manual time that far, or on a signal.
    timespec realNow{};
    clock_gettime(CLOCK_MONOTONIC, &realNow);
    long long relativeUs = (static_cast<long long>(abstime.tv_sec) - realNow.tv_sec) * 1000000LL +
                           (static_cast<long long>(abstime.tv_nsec) - realNow.tv_nsec) / 1000;
    if (relativeUs < 0) relativeUs = 0;
    return manual->CondWait(cond, mutex, relativeUs);
}
