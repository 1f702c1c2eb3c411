// Timers of the host on the manual clock, and the clock itself.
#include <gtest/gtest.h>

#include <thread>

#include "tw/time.h"
#include "twhost/clock.h"

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

TEST(ManualClockDriven, CondTimedWaitTimesOutOnTheManualDeadline) {
    auto clock = std::make_shared<ManualClock>(0, false);
    tw::host::SetClock(clock);
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
    std::thread advancer([&] {
        clock->SleepUntilUs(0);  // lets the test see the thread running
        clock->Advance(2000000);
    });
    pthread_mutex_lock(&mutex);
    timespec deadline{1, 0};  // 1 s on the manual clock
    EXPECT_EQ(CondTimedWaitNoLock(cond, mutex, deadline, false), ETIMEDOUT);
    pthread_mutex_unlock(&mutex);
    advancer.join();
    tw::host::SetClock(nullptr);
}

TEST(MonotonicClock, SleepsUntilTheDeadline) {
    tw::host::MonotonicClock clock;
    const int64_t start = clock.NowUs();
    clock.SleepUntilUs(start + 2000);
    EXPECT_GE(clock.NowUs(), start + 2000);
}

}  // namespace
