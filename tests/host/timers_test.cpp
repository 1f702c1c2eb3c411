// Timers of the host on the manual clock, and the clock itself.
#include <gtest/gtest.h>

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "tw/time.h"
#include "twhost/clock.h"
#include "twhost/condwaits.h"

namespace {

using tw::host::ManualClock;

class ManualTime : public ::testing::Test {
protected:
    void SetUp() override { tw::host::SetClock(m_Clock); }
    void TearDown() override { tw::host::SetClock(nullptr); }
    std::shared_ptr<ManualClock> m_Clock = std::make_shared<ManualClock>(1000000, true);
};

TEST_F(ManualTime, DelayWaitsOutTheRestOfThePeriodAndBeginsTheNext) {
    DelayTimer timer(300000);
    timer.BeginTiming();
    m_Clock->Advance(100000);  // work done within the period
    timer.Delay();
    EXPECT_EQ(m_Clock->NowUs(), 1300000);
    timer.Delay();
    EXPECT_EQ(m_Clock->NowUs(), 1600000);
    EXPECT_EQ(m_Clock->TakeWaits(), (std::vector<int64_t>{200000, 300000}));
}

TEST_F(ManualTime, DelayReturnsAtOnceWhenThePeriodHasPassedOrIsNegative) {
    DelayTimer timer(0);
    timer.BeginTiming();
    timer.SetDelayTime(-20000);
    timer.Delay();
    EXPECT_EQ(m_Clock->NowUs(), 1000000);
    timer.BeginTiming();
    timer.SetDelayTime(450000);
    m_Clock->Advance(500000);
    timer.Delay();
    EXPECT_EQ(m_Clock->NowUs(), 1500000);
    EXPECT_EQ(m_Clock->TakeWaits(), (std::vector<int64_t>{-20000, -50000}));
}

TEST_F(ManualTime, TimeCountIsExceededOnceItsSecondsHavePassed) {
    TimeCount count;
    count.SetCountingTime(5);
    count.BeginCountFromNow();
    EXPECT_FALSE(count.IsExceed());
    m_Clock->Advance(4999999);
    EXPECT_FALSE(count.IsExceed());
    m_Clock->Advance(1);
    EXPECT_TRUE(count.IsExceed());
    count.SetCountingTime(0);
    count.BeginCountFromNow();
    EXPECT_TRUE(count.IsExceed());
}

TEST_F(ManualTime, AdvanceLimitStopsAutoAdvance) {
    m_Clock->SetAdvanceLimitUs(1200000);
    m_Clock->SleepUntilUs(1500000);
    EXPECT_EQ(m_Clock->NowUs(), 1200000);
    m_Clock->SetAdvanceLimitUs(-1);
    m_Clock->SleepUntilUs(1500000);
    EXPECT_EQ(m_Clock->NowUs(), 1500000);
}

TEST_F(ManualTime, WatchFiresOnceWhenTheTimeGetsThere) {
    int fired = 0;
    m_Clock->WatchUs(1300000, [&fired] { ++fired; });
    m_Clock->Advance(299999);
    EXPECT_EQ(fired, 0);
    m_Clock->Advance(1);
    EXPECT_EQ(fired, 1);
    m_Clock->Advance(1000000);
    m_Clock->SetNowUs(5000000);
    EXPECT_EQ(fired, 1);
}

TEST_F(ManualTime, WatchOfATimeAlreadyReachedFiresAtOnceOnTheCaller) {
    std::thread::id firedOn;
    m_Clock->WatchUs(1000000, [&firedOn] { firedOn = std::this_thread::get_id(); });
    EXPECT_EQ(firedOn, std::this_thread::get_id());
}

TEST_F(ManualTime, NewWatchReplacesTheOldAndAnEmptyOneClearsIt) {
    int first = 0, second = 0;
    m_Clock->WatchUs(1500000, [&first] { ++first; });
    m_Clock->WatchUs(1200000, [&second] { ++second; });
    m_Clock->SetNowUs(2000000);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    m_Clock->WatchUs(2500000, [&first] { ++first; });
    m_Clock->WatchUs(0, nullptr);
    m_Clock->SetNowUs(3000000);
    EXPECT_EQ(first, 0);
}

// The scheduler's state of one of this process's threads ('R' running, 'S' asleep, ...),
// or 0 once the thread is gone.
char ThreadState(long tid) {
    std::ifstream stat("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string line;
    if (!std::getline(stat, line)) return 0;
    // "tid (name) S ...": the name may hold spaces and parentheses, the state follows the
    // last ')'.
    const size_t close = line.rfind(')');
    return close != std::string::npos && close + 2 < line.size() ? line[close + 2] : 0;
}

// Whoever replaces a watch may free what its callback uses as soon as WatchUs returns, so
// WatchUs waits for a callback that is running on another thread.
TEST_F(ManualTime, ReplacingAWatchWaitsForItsRunningCallback) {
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> finished{false};
    m_Clock->WatchUs(1200000, [&] {
        entered.set_value();
        released.wait();
        finished = true;
    });
    std::thread mover([&] { m_Clock->SetNowUs(1300000); });
    entered.get_future().wait();

    std::atomic<long> replacerTid{0};
    bool finishedWhenReplaced = false;
    std::thread replacer([&] {
        replacerTid = syscall(SYS_gettid);
        m_Clock->WatchUs(2000000, [] {});
        finishedWhenReplaced = finished;
    });
    // The replacer is let run until it blocks (in WatchUs, the only place it can) or ends.
    while (replacerTid == 0) std::this_thread::yield();
    for (char state = ThreadState(replacerTid); state != 'S' && state != 0;
         state = ThreadState(replacerTid)) {
        std::this_thread::yield();
    }
    release.set_value();
    replacer.join();
    mover.join();
    EXPECT_TRUE(finished);
    EXPECT_TRUE(finishedWhenReplaced) << "WatchUs returned while the old callback still ran";
}

// An offline run's main thread watches the advance limit: a sleeper held there by it fires
// the watch from its own thread, which is how the main thread learns to extend the limit.
TEST_F(ManualTime, SleeperHeldAtTheAdvanceLimitFiresAWatchOnTheLimit) {
    m_Clock->SetAdvanceLimitUs(1200000);
    std::thread::id firedOn;
    int fired = 0;
    m_Clock->WatchUs(1200000, [&] {
        ++fired;
        firedOn = std::this_thread::get_id();
    });
    std::thread::id sleeperId;
    std::thread sleeper([&] {
        sleeperId = std::this_thread::get_id();
        m_Clock->SleepUntilUs(1500000);
    });
    sleeper.join();
    EXPECT_EQ(m_Clock->NowUs(), 1200000);
    EXPECT_EQ(fired, 1);
    EXPECT_EQ(firedOn, sleeperId);
}

TEST(ManualClockDriven, SleeperWaitsUntilTheTestAdvances) {
    auto clock = std::make_shared<ManualClock>(0, false);
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        clock->SleepUntilUs(300000);
        woke = true;
    });
    clock->WaitForSleepers(1);
    EXPECT_FALSE(woke);
    clock->Advance(299999);
    EXPECT_FALSE(woke);
    clock->Advance(1);
    sleeper.join();
    EXPECT_TRUE(woke);
}

// A deadline taken from CLOCK_MONOTONIC, as the plug-in computes it.
timespec RealDeadlineIn(long long us) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    long long ns = ts.tv_nsec + us * 1000;
    ts.tv_sec += ns / 1000000000;
    ts.tv_nsec = ns % 1000000000;
    return ts;
}

struct MonotonicCond {
    MonotonicCond() {
        pthread_condattr_t attr;
        pthread_condattr_init(&attr);
        pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
        pthread_cond_init(&cond, &attr);
        pthread_condattr_destroy(&attr);
    }
    ~MonotonicCond() {
        pthread_cond_destroy(&cond);
        pthread_mutex_destroy(&mutex);
    }
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond;
};

TEST(ManualClockDriven, CondTimedWaitLastsItsDistanceOnTheManualClock) {
    auto clock = std::make_shared<ManualClock>(0, false);
    tw::host::SetClock(clock);
    MonotonicCond mc;
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        pthread_mutex_lock(&mc.mutex);
        timespec deadline = RealDeadlineIn(1000000);   // 1 s from now
        result = CondTimedWaitNoLock(mc.cond, mc.mutex, deadline, false);
        pthread_mutex_unlock(&mc.mutex);
    });
    clock->WaitForWaitsBegun(1);
    clock->WaitForSleepers(1);
    clock->Advance(500000);
    EXPECT_EQ(result.load(), -1);   // half the distance: still waiting
    clock->Advance(500000);
    waiter.join();
    EXPECT_EQ(result.load(), ETIMEDOUT);
    const std::vector<int64_t> waits = clock->TakeWaits();
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_GT(waits[0], 900000);
    EXPECT_LE(waits[0], 1000000);
    tw::host::SetClock(nullptr);
}

TEST(ManualClockDriven, CondTimedWaitEndsOnASignalWithoutTimeMoving) {
    auto clock = std::make_shared<ManualClock>(0, false);
    tw::host::SetClock(clock);
    MonotonicCond mc;
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        pthread_mutex_lock(&mc.mutex);
        timespec deadline = RealDeadlineIn(1000000);
        result = CondTimedWaitNoLock(mc.cond, mc.mutex, deadline, false);
        pthread_mutex_unlock(&mc.mutex);
    });
    clock->WaitForWaitsBegun(1);
    // The waiter holds the mutex until it is inside the wait, so this signal reaches it.
    pthread_mutex_lock(&mc.mutex);
    pthread_cond_signal(&mc.cond);
    pthread_mutex_unlock(&mc.mutex);
    waiter.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_EQ(clock->NowUs(), 0);
    tw::host::SetClock(nullptr);
}

TEST(ManualClockDriven, CondTimedWaitWithAPassedDeadlineTimesOutAtOnce) {
    auto clock = std::make_shared<ManualClock>(0, false);
    tw::host::SetClock(clock);
    MonotonicCond mc;
    pthread_mutex_lock(&mc.mutex);
    timespec deadline{0, 0};
    EXPECT_EQ(CondTimedWaitNoLock(mc.cond, mc.mutex, deadline, false), ETIMEDOUT);
    pthread_mutex_unlock(&mc.mutex);
    EXPECT_EQ(clock->WaitsBegun(), 1u);
    tw::host::SetClock(nullptr);
}

TEST(MonotonicClock, SleepsUntilTheDeadline) {
    tw::host::MonotonicClock clock;
    const int64_t start = clock.NowUs();
    clock.SleepUntilUs(start + 2000);
    EXPECT_GE(clock.NowUs(), start + 2000);
}

// The count of condition waits begun rises while the waiter still holds its mutex: a host
// that saw it rise and then takes the mutex to signal reaches the waiter, on the real clock.
TEST(CondWaitCount, SignalSentAfterTheCountRoseReachesTheWaiter) {
    MonotonicCond mc;
    std::atomic<int> result{-1};
    const uint64_t before = tw::host::CondWaitsBegun();
    std::thread waiter([&] {
        pthread_mutex_lock(&mc.mutex);
        // Far beyond any test's time limit: only the signal ends this wait.
        timespec deadline = RealDeadlineIn(3600LL * 1000000);
        result = CondTimedWaitNoLock(mc.cond, mc.mutex, deadline, false);
        pthread_mutex_unlock(&mc.mutex);
    });
    ASSERT_TRUE(tw::host::WaitForCondWaitsBegun(before + 1, -1));
    pthread_mutex_lock(&mc.mutex);
    pthread_cond_signal(&mc.cond);
    pthread_mutex_unlock(&mc.mutex);
    waiter.join();
    EXPECT_EQ(result.load(), 0);
    EXPECT_GE(tw::host::CondWaitsBegun(), before + 1);
}

TEST(CondWaitCount, WaitingForACountNotReachedTimesOut) {
    EXPECT_FALSE(tw::host::WaitForCondWaitsBegun(tw::host::CondWaitsBegun() + 1000, 1));
    EXPECT_TRUE(tw::host::WaitForCondWaitsBegun(tw::host::CondWaitsBegun(), 0));
}

}  // namespace
