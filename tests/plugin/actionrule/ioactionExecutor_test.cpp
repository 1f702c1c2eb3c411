// The executor object, its status and the recording of action requests.
#include "plugin/actionrule/ioaction_testutil.h"

namespace tw::test {
namespace {

using Access = IOActExecutorAccess;

TEST(IOActExecutorObject, FreshExecutorReportsAnIdleAudioActionAndNoOutputs) {
    IOActExecutor exec;
    std::map<int, int> act, outputs;
    EXPECT_EQ(exec.GetStatus(act, outputs), 0);
    EXPECT_EQ(act, (std::map<int, int>{{9, 0}}));
    EXPECT_TRUE(outputs.empty());
}

TEST(IOActExecutorObject, GetStatusReplacesWhatTheMapsHeld) {
    IOActExecutor exec;
    std::map<int, int> act{{1, 5}, {9, 3}, {20, 1}};
    std::map<int, int> outputs{{0, 1}, {7, 2}};
    exec.GetStatus(act, outputs);
    EXPECT_EQ(act, (std::map<int, int>{{9, 0}}));
    EXPECT_TRUE(outputs.empty());
}

TEST_F(ExecutorTest, InitCreatesOneIdleEntryPerDigitalOutput) {
    Start(4);
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 0}, {1, 0}, {2, 0}, {3, 0}}));
    EXPECT_EQ(ActStatus(), (std::map<int, int>{{9, 0}}));
}

TEST_F(ExecutorTest, InitWithoutOutputsReportsNoneAndStillRunsTheWorker) {
    Start(0);   // returns once the worker waits
    EXPECT_TRUE(DOStatus().empty());
    Tick();
    EXPECT_EQ(m_Clock->WaitsBegun(), 2u);
}

TEST_F(ExecutorTest, InitWithANegativeOutputCountAddsNothing) {
    Start(-3);
    EXPECT_TRUE(DOStatus().empty());
}

TEST_F(ExecutorTest, WorkerWaitsOneSecondBetweenPasses) {
    Start();
    const std::vector<int64_t> waits = m_Clock->TakeWaits();
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_GT(waits[0], 900000);
    EXPECT_LE(waits[0], 1000000);
}

// ---------------------------------------------------------------------------------------
// Recording of requests (no worker: nothing is carried out)

TEST_F(ExecutorTest, AudioStopRequestSetsTheStopCommandWithoutLoadingThePattern) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    IOActExecutor exec;
    // The pattern id is unknown: loading it would log a failure.
    exec.DoAction(0x200, {{9, AudioCond(true, 999, 3, 4, 0)}}, {}, false);
    EXPECT_EQ(Access::AudioCmd(exec)[9], 2);
    EXPECT_EQ(logs->Count("Failed to load audio pattern [999].\n"), 0u);
    EXPECT_EQ(Access::AudioFilePath(exec), "");
}

TEST_F(ExecutorTest, AudioStartRecordsTimesHoldModeAndPeriodOfLengthPlusGap) {
    IOActExecutor exec;
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 4, 10, 0)}}, {}, false);
    EXPECT_EQ(Access::AudioCmd(exec)[9], 1);
    EXPECT_EQ(Access::AudioTimes(exec)[9], 4);
    EXPECT_EQ(Access::AudioHoldMode(exec)[9], 0);
    EXPECT_EQ(Access::AudioPeriod(exec)[9], kPatternLength + 10);
    EXPECT_EQ(Access::AudioFilePath(exec), m_strPattern);
}

TEST_F(ExecutorTest, SinglePlayGetsAGapOfOneWhateverItsPeriodSays) {
    IOActExecutor exec;
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 1, 30, 0)}}, {}, false);
    EXPECT_EQ(Access::AudioPeriod(exec)[9], kPatternLength + 1);
    // In hold mode one play is no single play: the gap is the request's.
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 1, 30, 1)}}, {}, false);
    EXPECT_EQ(Access::AudioPeriod(exec)[9], kPatternLength + 30);
}

TEST_F(ExecutorTest, AudioGapIsTakenAsA32BitIntAndTheSumSignExtended) {
    IOActExecutor exec;
    // 0x1fffffffd as a 32-bit int is -3: with a length of 3 the period is 0.
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 2, 0x1fffffffdLL, 0)}}, {}, false);
    EXPECT_EQ(Access::AudioPeriod(exec)[9], 0);
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 2, -10, 0)}}, {}, false);
    EXPECT_EQ(Access::AudioPeriod(exec)[9], -7);
}

TEST_F(ExecutorTest, UnloadablePatternIsLoggedAndChangesNothing) {
    ScopedLogCapture logs;
    IOActExecutor exec;
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 2, 5, 0)}}, {}, false);
    exec.DoAction(0x200, {{9, AudioCond(false, 404, 7, 9, 1)}}, {}, false);
    const auto found = logs->Find("Failed to load audio pattern [404].\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].category, "ioaction");
    EXPECT_EQ(found[0].level, "WARN");
    EXPECT_EQ(found[0].file, "actionrule/ioactionExecutor.cpp");
    EXPECT_EQ(found[0].line, 421);
    EXPECT_EQ(found[0].function, "DoAction");
    EXPECT_EQ(Access::AudioTimes(exec)[9], 2);
    EXPECT_EQ(Access::AudioHoldMode(exec)[9], 0);
    EXPECT_EQ(Access::AudioPeriod(exec)[9], kPatternLength + 5);
    EXPECT_EQ(Access::AudioFilePath(exec), m_strPattern);
}

TEST_F(ExecutorTest, OutputRequestWithBothOutputBitsRecordsEveryPortWithTheWholeFlagWord) {
    IOActExecutor exec;
    exec.DoAction(0x4400,
                  {}, {{0, DOCond(false, 5, 0)}, {2, DOCond(false, -2, 1)}, {5, DOCond(false, 9, 3)}},
                  false);
    EXPECT_EQ(Access::DOCmd(exec), (std::map<int, int>{{0, 1}, {2, 1}, {5, 1}}));
    EXPECT_EQ(Access::DOActFlags(exec), (std::map<int, int>{{0, 0x4400}, {2, 0x4400}, {5, 0x4400}}));
    EXPECT_EQ(Access::DODuration(exec), (std::map<int, long long>{{0, 5}, {2, -2}, {5, 9}}));
    EXPECT_EQ(Access::DOHoldMode(exec), (std::map<int, int>{{0, 0}, {2, 1}, {5, 3}}));
}

TEST_F(ExecutorTest, OutputStopRequestRecordsTheStopCommand) {
    IOActExecutor exec;
    exec.DoAction(0x400, {}, {{1, DOCond(true, 0, 0)}}, false);
    EXPECT_EQ(Access::DOCmd(exec)[1], 2);
}

TEST_F(ExecutorTest, OutputHoldTimeKeepsAll64Bits) {
    IOActExecutor exec;
    exec.DoAction(0x400, {}, {{1, DOCond(false, 0x123456789LL, 0)}}, false);
    EXPECT_EQ(Access::DODuration(exec)[1], 0x123456789LL);
}

TEST_F(ExecutorTest, FlagsWithoutAudioOrOutputBitsDoNothing) {
    ScopedLogCapture logs;
    IOActExecutor exec;
    exec.DoAction(0x1, {{9, AudioCond(false, 404, 2, 5, 0)}}, {{0, DOCond(false, 5, 0)}}, false);
    EXPECT_TRUE(Access::AudioCmd(exec).empty());
    EXPECT_TRUE(Access::DOCmd(exec).empty());
    EXPECT_EQ(logs->Records().size(), 0u);
}

TEST_F(ExecutorTest, AudioBitWithoutTheAudioEntryIsIgnoredSafely) {
    IOActExecutor exec;
    exec.DoAction(0x200, {{3, AudioCond(false, kPatternId, 2, 5, 0)}}, {}, false);
    EXPECT_TRUE(Access::AudioCmd(exec).empty());
}

TEST_F(ExecutorTest, NewRequestOverwritesThePortWhateverItsState) {
    IOActExecutor exec;
    exec.DoAction(0x400, {}, {{1, DOCond(false, 5, 0)}}, false);
    exec.DoAction(0x4000, {}, {{1, DOCond(true, 8, 1)}}, false);
    EXPECT_EQ(Access::DOCmd(exec)[1], 2);
    EXPECT_EQ(Access::DODuration(exec)[1], 8);
    EXPECT_EQ(Access::DOHoldMode(exec)[1], 1);
    EXPECT_EQ(Access::DOActFlags(exec)[1], 0x4000);
}

// ---------------------------------------------------------------------------------------
// Wake-ups

TEST_F(ExecutorTest, StartRequestWakesTheWorkerAtOnce) {
    Start();
    Act(0x400, {}, {{1, DOCond(false, 5, 0)}});
    EXPECT_EQ(NowSec(), 0);
    EXPECT_EQ(Sent(), (std::vector<SentRequest>{{0, kPortSetting, PortJson(1, true)}}));
    EXPECT_EQ(PortStatus(1), 1);
}

TEST_F(ExecutorTest, StopRequestWaitsForTheNextOrdinaryPass) {
    Start();
    Act(0x400, {}, {{1, DOCond(false, -2, 0)}});
    Sent();
    const uint64_t before = m_Clock->WaitsBegun();
    Post(0x400, {}, {{1, DOCond(true, 0, 0)}});
    // Nothing was woken: the worker is still in the same wait and nothing was sent.
    EXPECT_EQ(m_Clock->WaitsBegun(), before);
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(PortStatus(1), 1);
    Tick();
    EXPECT_EQ(Sent(), (std::vector<SentRequest>{{1, kPortSetting, PortJson(1, false)}}));
    EXPECT_EQ(PortStatus(1), 0);
}

TEST_F(ExecutorTest, AudioAndOutputsInOneRequestAreBothCarriedOut) {
    Start();
    Act(0x600, {{9, AudioCond(false, kPatternId, 1, 0, 0)}}, {{3, DOCond(false, 4, 0)}});
    // The start pass switches the output; the first play goes out in the pass after it.
    EXPECT_EQ(Sent(), (std::vector<SentRequest>{{0, kPortSetting, PortJson(3, true)},
                                                {0, kPlayCmd, PlayJson(m_strPattern)}}));
    EXPECT_EQ(AudioStatus(), 1);
    EXPECT_EQ(PortStatus(3), 1);
}

}  // namespace
}  // namespace tw::test
