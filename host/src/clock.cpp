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
    : m_NowUs(startUs), m_blAutoAdvance(autoAdvance), m_blAutoAdvanceEverSet(autoAdvance) {}

int64_t ManualClock::NowUs() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_NowUs;
}

void ManualClock::SleepUntilUs(int64_t deadlineUs) {
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        m_Waits.push_back(deadlineUs - m_NowUs);
        ++m_WaitsBegun;
        if (m_blAutoAdvance) {
            int64_t target = deadlineUs;
            if (m_AdvanceLimitUs >= 0 && target > m_AdvanceLimitUs) target = m_AdvanceLimitUs;
            if (target > m_NowUs) m_NowUs = target;
            m_Cond.notify_all();
        } else {
            ++m_Sleepers;
            m_Cond.notify_all();
            m_Cond.wait(lock, [&] { return m_NowUs >= deadlineUs || m_blAutoAdvance; });
            if (m_blAutoAdvance && deadlineUs > m_NowUs) m_NowUs = deadlineUs;
            --m_Sleepers;
        }
    }
    // Time this sleeper moved may be the end of a condition wait, or a watched time.
    if (m_blAutoAdvanceEverSet) WakeExpiredCondWaiters();
    FireWatch();
}

void ManualClock::Advance(int64_t us) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_NowUs += us;
        m_Cond.notify_all();
    }
    WakeExpiredCondWaiters();
    FireWatch();
}

void ManualClock::SetNowUs(int64_t us) {
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_NowUs = us;
        m_Cond.notify_all();
    }
    WakeExpiredCondWaiters();
    FireWatch();
}

void ManualClock::SetAutoAdvance(bool on) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_blAutoAdvance = on;
    if (on) m_blAutoAdvanceEverSet = true;
    m_Cond.notify_all();
}

void ManualClock::SetAdvanceLimitUs(int64_t limitUs) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_AdvanceLimitUs = limitUs;
    m_Cond.notify_all();
}

void ManualClock::WatchUs(int64_t atUs, std::function<void()> onReached) {
    {
        std::unique_lock<std::mutex> lock(m_Mutex);
        // The old callback may be on its way on another thread; whoever replaces it may
        // free what it uses as soon as this returns.
        m_Cond.wait(lock, [this] { return m_WatchesFiring == 0; });
        m_OnReached = nullptr;
        m_blWatchArmed = false;
        if (!onReached || m_NowUs >= atUs) {
            lock.unlock();
            if (onReached) onReached();
            return;
        }
        m_WatchUs = atUs;
        m_OnReached = std::move(onReached);
        // Armed under the mutex that every move of the time takes: a move either came
        // before the look above or finds the watch armed.
        m_blWatchArmed = true;
    }
}

void ManualClock::FireWatch() {
    if (!m_blWatchArmed.load()) return;
    std::function<void()> fire;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_OnReached || m_NowUs < m_WatchUs) return;
        fire.swap(m_OnReached);
        m_blWatchArmed = false;
        ++m_WatchesFiring;
    }
    fire();
    std::lock_guard<std::mutex> lock(m_Mutex);
    --m_WatchesFiring;
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

int ManualClock::CondWait(pthread_cond_t& cond, pthread_mutex_t& mutex, int64_t relativeUs) {
    CondWaiter waiter{&cond, &mutex, 0, false, false, 0};
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Waits.push_back(relativeUs);
        ++m_WaitsBegun;
        waiter.deadlineUs = m_NowUs + relativeUs;
        if (m_NowUs >= waiter.deadlineUs) {
            m_Cond.notify_all();
            return ETIMEDOUT;
        }
        ++m_Sleepers;
        m_CondWaiters.push_back(&waiter);
        m_Cond.notify_all();
    }
    // A notifier that finds this wait due takes the caller's mutex first, which it gets only
    // once the wait below has given it up: the wake-up cannot fall before the wait.
    const int rc = pthread_cond_wait(&cond, &mutex);
    const int result = waiter.timedOut ? ETIMEDOUT : rc;
    std::unique_lock<std::mutex> lock(m_Mutex);
    m_CondWaiters.remove(&waiter);
    if (waiter.busy > 0) {
        // A notifier is on its way to this waiter's mutex: let it through before the record
        // (and maybe the caller's condition) goes away.
        pthread_mutex_unlock(&mutex);
        m_Cond.wait(lock, [&] { return waiter.busy == 0; });
        lock.unlock();
        pthread_mutex_lock(&mutex);
        lock.lock();
    }
    --m_Sleepers;
    m_Cond.notify_all();
    return result;
}

void ManualClock::WakeExpiredCondWaiters() {
    std::vector<CondWaiter*> due;
    {
        std::lock_guard<std::mutex> lock(m_Mutex);
        for (CondWaiter* waiter : m_CondWaiters) {
            if (!waiter->notified && m_NowUs >= waiter->deadlineUs) {
                waiter->notified = true;
                ++waiter->busy;
                due.push_back(waiter);
            }
        }
    }
    for (CondWaiter* waiter : due) {
        pthread_mutex_lock(waiter->mutex);
        waiter->timedOut = true;
        pthread_cond_broadcast(waiter->cond);
        pthread_mutex_unlock(waiter->mutex);
        std::lock_guard<std::mutex> lock(m_Mutex);
        --waiter->busy;
        m_Cond.notify_all();
    }
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
