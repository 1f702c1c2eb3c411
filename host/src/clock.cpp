#include "twhost/clock.h"

#include <time.h>

#include <cerrno>

namespace tw::host {

int64_t MonotonicClock::NowUs() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void MonotonicClock::SleepUntilUs(int64_t deadlineUs) {
    timespec ts{};
    ts.tv_sec = deadlineUs / 1000000;
    ts.tv_nsec = (deadlineUs % 1000000) * 1000;
    // Absolute sleep on the same clock: no drift, and a signal only restarts the wait.
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

ManualClock::ManualClock(int64_t startUs, bool autoAdvance)
    : m_NowUs(startUs), m_blAutoAdvance(autoAdvance) {}

int64_t ManualClock::NowUs() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_NowUs;
}

void ManualClock::SleepUntilUs(int64_t deadlineUs) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Waits.push_back(deadlineUs - m_NowUs);
    ++m_WaitsBegun;
    if (m_blAutoAdvance) {
        int64_t target = deadlineUs;
        if (m_AdvanceLimitUs >= 0 && target > m_AdvanceLimitUs) target = m_AdvanceLimitUs;
        if (target > m_NowUs) m_NowUs = target;
        m_Cond.notify_all();
        return;
    }
    ++m_Sleepers;
    m_Cond.notify_all();
    m_Cond.wait(lock, [&] { return m_NowUs >= deadlineUs || m_blAutoAdvance; });
    if (m_blAutoAdvance && deadlineUs > m_NowUs) m_NowUs = deadlineUs;
    --m_Sleepers;
}

void ManualClock::Advance(int64_t us) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_NowUs += us;
    m_Cond.notify_all();
}

void ManualClock::SetNowUs(int64_t us) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_NowUs = us;
    m_Cond.notify_all();
}

void ManualClock::SetAutoAdvance(bool on) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_blAutoAdvance = on;
    m_Cond.notify_all();
}

void ManualClock::SetAdvanceLimitUs(int64_t limitUs) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_AdvanceLimitUs = limitUs;
    m_Cond.notify_all();
}

std::vector<int64_t> ManualClock::TakeWaits() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    std::vector<int64_t> waits;
    waits.swap(m_Waits);
    return waits;
}

void ManualClock::WaitForSleepers(int n) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Cond.wait(lock, [&] { return m_Sleepers >= n; });
}

uint64_t ManualClock::WaitsBegun() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_WaitsBegun;
}

void ManualClock::WaitForWaitsBegun(uint64_t n) {
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_Cond.wait(lock, [&] { return m_WaitsBegun >= n; });
}

void ManualClock::NoteCondWaitBegin(int64_t relativeUs) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Waits.push_back(relativeUs);
    ++m_WaitsBegun;
    ++m_Sleepers;
    m_Cond.notify_all();
}

void ManualClock::NoteCondWaitEnd() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    --m_Sleepers;
    m_Cond.notify_all();
}

namespace {
std::mutex g_ClockMutex;
std::shared_ptr<Clock>& ClockSlot() {
    static std::shared_ptr<Clock> clock = std::make_shared<MonotonicClock>();
    return clock;
}
}  // namespace

std::shared_ptr<Clock> GetClockPtr() {
    std::lock_guard<std::mutex> lock(g_ClockMutex);
    return ClockSlot();
}

Clock& GetClock() {
    // The slot only changes between runs (tests, command set-up); the reference stays
    // valid because the previous clock is kept alive below.
    return *GetClockPtr();
}

void SetClock(std::shared_ptr<Clock> clock) {
    static std::vector<std::shared_ptr<Clock>> retired;
    std::lock_guard<std::mutex> lock(g_ClockMutex);
    retired.push_back(ClockSlot());
    ClockSlot() = clock ? std::move(clock) : std::make_shared<MonotonicClock>();
}

}  // namespace tw::host
