// Start, Stop and IsManualOutputing: the choice of live or file output, replacing an
// automatic output, protecting a manual one, and outputs that ended by themselves.
#include <fstream>

#include "plugin/camera/audioout_testutil.h"

namespace tw::test {
namespace {

class StartStopTest : public AudioOutTest {
protected:
    void SetUp() override {
        AudioOutTest::SetUp();
        m_pSink = AddDevice(1, 51, Pcm(8000, 8, 2));
        m_strWav = NewFile("startstop.wav");
        WriteWav(m_strWav, 8000, 8, 2, Ramp(4000));
        ASSERT_EQ(m_Out.Init(), 0);
    }
    std::shared_ptr<tw::host::MemoryAudioSink> m_pSink;
    std::string m_strWav;
    // Camera 51 has no live FIFO: a live output's thread returns at once and the output
    // counts as running until it is stopped.
    AudioOut m_Out{51, 1};
};

TEST_F(StartStopTest, EmptyPathAndTheManualOnlyFormBothStartLiveOutput) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    ASSERT_EQ(m_Out.Start(false), 0);
    ASSERT_TRUE(WaitUntil([&] { return logs->Count("Device[51]: Can not attach audio out shared memory.\n") == 1; }));
    m_Out.Stop();
    ASSERT_EQ(m_Out.Start(std::string(), false), 0);
    ASSERT_TRUE(WaitUntil([&] { return logs->Count("Device[51]: Can not attach audio out shared memory.\n") == 2; }));
    m_Out.Stop();
    const auto started = logs->Find("Device[51]: Start audio file[] out thread.\n");
    ASSERT_EQ(started.size(), 2u);
    EXPECT_EQ(started[0].level, "NOTICE");
    EXPECT_EQ(started[0].function, "Start");
    const auto stopped = logs->Find("Device[51]: Stop audio out thread.\n");
    ASSERT_EQ(stopped.size(), 2u);
    EXPECT_EQ(stopped[0].function, "Stop");
}

TEST_F(StartStopTest, PathStartsFilePlayback) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    ASSERT_EQ(m_Out.Start(m_strWav, false), 0);
    ASSERT_TRUE(WaitForEnd(m_Out));
    EXPECT_EQ(logs->Count("Device[51]: Start audio file[" + m_strWav + "] out thread.\n"), 1u);
    EXPECT_EQ(m_pSink->GetBytes(), Ramp(4000));
    EXPECT_EQ(logs->Count("Device[51]: Can not attach audio out shared memory.\n"), 0u);
}

TEST_F(StartStopTest, SecondStartReplacesARunningAutomaticOutput) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    ASSERT_EQ(m_Out.Start(false), 0);
    EXPECT_FALSE(m_Out.IsManualOutputing());
    ASSERT_EQ(m_Out.Start(m_strWav, true), 0);
    EXPECT_EQ(logs->Count("Device[51]: Stop audio out thread.\n"), 1u);
    ASSERT_TRUE(WaitForEnd(m_Out));
    EXPECT_EQ(m_pSink->GetBytes(), Ramp(4000));
}

TEST_F(StartStopTest, SecondStartWhileAManualOutputRunsIsRefused) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    ASSERT_EQ(m_Out.Start(true), 0);
    EXPECT_TRUE(m_Out.IsManualOutputing());
    EXPECT_EQ(m_Out.Start(m_strWav, false), -1);
    EXPECT_EQ(m_Out.Start(true), -1);
    EXPECT_TRUE(m_Out.IsManualOutputing());
    EXPECT_EQ(logs->Count("Device[51]: Stop audio out thread.\n"), 0u);
    EXPECT_EQ(logs->Count("Device[51]: Start audio file[" + m_strWav + "] out thread.\n"), 0u);
    m_Out.Stop();
    EXPECT_FALSE(m_Out.IsManualOutputing());
    // Once stopped, an automatic output may start.
    EXPECT_EQ(m_Out.Start(m_strWav, false), 0);
}

TEST_F(StartStopTest, StopAfterTheOutputEndedByItselfLogsNothing) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    ASSERT_EQ(m_Out.Start(m_strWav, false), 0);
    ASSERT_TRUE(WaitForEnd(m_Out));
    ASSERT_TRUE(AudioOutAccess::Field(m_Out).GetThreadId().has_value());
    logs->Clear();
    EXPECT_EQ(m_Out.Stop(), 0);
    EXPECT_TRUE(logs->Records().empty());
    EXPECT_FALSE(AudioOutAccess::Field(m_Out).GetThreadId().has_value());
}

TEST_F(StartStopTest, ManualOutputThatEndedByItselfIsNoLongerManualOutputing) {
    ASSERT_EQ(m_Out.Start(m_strWav, true), 0);
    ASSERT_TRUE(WaitForEnd(m_Out));
    EXPECT_FALSE(m_Out.IsManualOutputing());
}

TEST_F(StartStopTest, StartAfterAManualOutputEndedByItselfSkipsTheStop) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    ASSERT_EQ(m_Out.Start(m_strWav, true), 0);
    ASSERT_TRUE(WaitForEnd(m_Out));
    const unsigned long finished = *AudioOutAccess::Field(m_Out).GetThreadId();
    // The manual mark outlives the thread, so no Stop runs: the finished thread's id is
    // simply replaced.
    ASSERT_EQ(m_Out.Start(m_strWav, false), 0);
    EXPECT_NE(*AudioOutAccess::Field(m_Out).GetThreadId(), finished);
    ASSERT_TRUE(WaitForEnd(m_Out));
    EXPECT_EQ(logs->Count("Device[51]: Stop audio out thread.\n"), 0u);
    EXPECT_EQ(m_pSink->GetBytes().size(), 8000u);
    // The finished thread was detached when its id was replaced: joining it now would be
    // an error, and there is nothing left to join.
}

// The size of this process's address space in KiB.
long VmSizeKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmSize:", 0) == 0) return std::strtol(line.c_str() + 7, nullptr, 10);
    }
    return -1;
}

TEST_F(StartStopTest, RestartsAfterManualOutputsEndedByThemselvesLeaveNoStacksBehind) {
    // Each of these outputs ends by itself and the next Start replaces its thread's id. A
    // thread that is neither joined nor detached keeps its 1 MiB stack mapped for the
    // life of the process; released, the stacks are reused and the address space stays.
    constexpr int kCycles = 48;
    ASSERT_EQ(m_Out.Start(m_strWav, true), 0);
    ASSERT_TRUE(WaitForEnd(m_Out));
    const long before = VmSizeKb();
    ASSERT_GT(before, 0);
    for (int i = 0; i < kCycles; ++i) {
        ASSERT_EQ(m_Out.Start(m_strWav, true), 0) << "cycle " << i;
        ASSERT_TRUE(WaitForEnd(m_Out)) << "cycle " << i;
    }
    const long after = VmSizeKb();
    EXPECT_EQ(m_pSink->GetBytes().size(), 4000u * (kCycles + 1));
    // Leaked stacks would add at least kCycles MiB; a few MiB of slack for allocators.
    EXPECT_LT(after - before, 16 * 1024) << "before " << before << " KiB, after " << after << " KiB";
    EXPECT_EQ(m_Out.Stop(), 0);
    EXPECT_FALSE(AudioOutAccess::Field(m_Out).GetThreadId().has_value());
}

TEST_F(StartStopTest, DestructorStopsARunningOutput) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    {
        AudioOut out(51, 1);
        ASSERT_EQ(out.Init(), 0);
        ASSERT_EQ(out.Start(true), 0);
    }
    EXPECT_EQ(logs->Count("Device[51]: Stop audio out thread.\n"), 1u);
}

}  // namespace
}  // namespace tw::test
