// DelayTimer, TimeCount and CondTimedWaitNoLock on the host clock.
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>

#include "tw/time.h"
#include "twhost/clock.h"
#include "twhost/condwaits.h"
#include "twhost/turnlateness.h"

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

// Camera of the calling thread's turns; 0 for a thread that paces none.
thread_local int t_TurnCamId = 0;

std::mutex g_LatenessMutex;
std::map<int, tw::host::TurnLateness>& Lateness() {
    static std::map<int, tw::host::TurnLateness> lateness;
    return lateness;
}

void NoteTurnStart(int camId, int64_t lateUs) {
    if (lateUs < 0) lateUs = 0;
    std::lock_guard<std::mutex> lock(g_LatenessMutex);
    tw::host::TurnLateness& l = Lateness()[camId];
    ++l.turns;
    l.sumUs += lateUs;
    if (lateUs > l.maxUs) l.maxUs = lateUs;
    if (lateUs > 100000) ++l.over100Ms;
    const int64_t bucket = lateUs / 1000;
    ++l.buckets[bucket < tw::host::TurnLateness::kBuckets ? bucket : tw::host::TurnLateness::kBuckets - 1];
}

}  // namespace

namespace tw::host {

void BindTurnCamera(int camId) { t_TurnCamId = camId; }

int64_t TurnLateness::QuantileUs(double share) const {
    if (turns == 0) return 0;
    // The smallest bucket below which at least that share of the turns lies; its upper
    // edge, but never more than the largest lateness seen.
    const double wanted = share * static_cast<double>(turns);
    uint64_t seen = 0;
    for (int i = 0; i < kBuckets; ++i) {
        seen += buckets[i];
        if (static_cast<double>(seen) >= wanted && seen > 0) {
            const int64_t edge = (static_cast<int64_t>(i) + 1) * 1000;
            return edge < maxUs ? edge : maxUs;
        }
    }
    return maxUs;
}

TurnLateness GetTurnLateness(int camId) {
    std::lock_guard<std::mutex> lock(g_LatenessMutex);
    const auto it = Lateness().find(camId);
    return it == Lateness().end() ? TurnLateness() : it->second;
}

void ResetTurnLateness(int camId) {
    std::lock_guard<std::mutex> lock(g_LatenessMutex);
    Lateness().erase(camId);
}

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
    // The next turn starts now; how far that is behind its slot is what a loaded process
    // shows first.
    if (t_TurnCamId != 0) NoteTurnStart(t_TurnCamId, m_BeginUs - deadline);
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
