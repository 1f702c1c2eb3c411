// The host clock behind every timer of the reference host. Real time by default; a
// manual clock makes tests and offline analysis deterministic.
#pragma once

#include <pthread.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace tw::host {

class Clock {
public:
    virtual ~Clock() = default;
    // Microseconds on this clock's monotonic time line.
    virtual int64_t NowUs() = 0;
    // Blocks until NowUs() >= deadlineUs (returns at once when it already is).
    virtual void SleepUntilUs(int64_t deadlineUs) = 0;
    // True for a clock whose time only moves when someone moves it.
    virtual bool IsManual() const { return false; }
};

// CLOCK_MONOTONIC.
class MonotonicClock : public Clock {
public:
    int64_t NowUs() override;
    void SleepUntilUs(int64_t deadlineUs) override;
};

// Time moves only by Advance/SetNow, or by a sleeper when auto-advance is on (offline
// analysis: whoever waits simply jumps to its deadline). Every wait is recorded so tests
// can check what was waited for.
class ManualClock : public Clock {
public:
    explicit ManualClock(int64_t startUs = 0, bool autoAdvance = false);
    int64_t NowUs() override;
    void SleepUntilUs(int64_t deadlineUs) override;
    bool IsManual() const override { return true; }

    void Advance(int64_t us);
    void SetNowUs(int64_t us);
    void SetAutoAdvance(bool on);
    // Auto-advance stops at this time: a sleeper whose deadline lies beyond it returns at the
    // limit instead, so an offline reader cannot run ahead of what is known. -1: no limit.
    void SetAdvanceLimitUs(int64_t limitUs);
    // Calls onReached once, on the thread that moves the time there, as soon as the time is
    // at or past atUs; at once, on the calling thread, when it already is. A thread that
    // acts on the time (the end of a run, the advance limit) can so sleep until the time
    // gets there instead of looking again and again. A new watch replaces the one before:
    // once this returns, the callback of the old one is neither running nor going to run.
    // An empty onReached only clears the watch. onReached must not call WatchUs.
    void WatchUs(int64_t atUs, std::function<void()> onReached);
    // Deadlines passed to SleepUntilUs, relative to the time of the call, in order.
    std::vector<int64_t> TakeWaits();
    // Blocks the calling (test) thread until at least n sleepers are waiting.
    void WaitForSleepers(int n);
    // How many waits (sleeps and condition waits) have begun on this clock so far; a test
    // that saw n can wait for a worker's next wait with WaitForWaitsBegun(n + 1).
    uint64_t WaitsBegun();
    void WaitForWaitsBegun(uint64_t n);

    // A condition wait of relativeUs on this clock (CondTimedWaitNoLock), with the caller's
    // mutex held: it ends on a signal of cond (0) or once this clock has been moved that
    // far (ETIMEDOUT). It counts as a sleeper and its wait is recorded like a sleep's.
    // The clock wakes the waiter itself, under its mutex, when time passes its deadline:
    // a timed-out slice of a real wait could swallow a signal, and that wake-up would be
    // lost for good.
    int CondWait(pthread_cond_t& cond, pthread_mutex_t& mutex, int64_t relativeUs);

private:
    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    int64_t m_NowUs;
    bool m_blAutoAdvance;
    // Only a sleeper of an auto-advancing clock moves time; the others leave it to the
    // check after every Advance and SetNowUs.
    std::atomic<bool> m_blAutoAdvanceEverSet;
    int64_t m_AdvanceLimitUs = -1;
    int m_Sleepers = 0;
    uint64_t m_WaitsBegun = 0;
    std::vector<int64_t> m_Waits;

    struct CondWaiter {
        pthread_cond_t* cond;
        pthread_mutex_t* mutex;
        int64_t deadlineUs;
        bool timedOut;   // guarded by *mutex
        bool notified;   // guarded by m_Mutex
        int busy;        // notifiers at work on it, guarded by m_Mutex
    };
    std::list<CondWaiter*> m_CondWaiters;
    // Wakes the condition waiters whose deadline the time has reached; called without
    // m_Mutex after every move of the time.
    void WakeExpiredCondWaiters();
    // Calls the watch's callback when the time has reached it; likewise after every move.
    void FireWatch();

    // The watch of WatchUs, guarded by m_Mutex; m_blWatchArmed lets a move of the time
    // that has no watch to fire skip the mutex.
    int64_t m_WatchUs = 0;
    std::function<void()> m_OnReached;
    int m_WatchesFiring = 0;
    std::atomic<bool> m_blWatchArmed{false};
};

// The process-wide clock. SetClock(nullptr) restores the monotonic clock.
Clock& GetClock();
std::shared_ptr<Clock> GetClockPtr();
void SetClock(std::shared_ptr<Clock> clock);

}  // namespace tw::host
