// The worker: its passes, manual take-over of outputs, termination and the destructor.
#include "plugin/actionrule/ioaction_testutil.h"

namespace tw::test {
namespace {

using Access = IOActExecutorAccess;
using Requests = std::vector<SentRequest>;

TEST_F(ExecutorTest, IdleWorkerWakesOnceASecondAndDoesNothingVisible) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    Start();
    m_Clock->TakeWaits();
    Seconds(5);
    EXPECT_EQ(m_Clock->WaitsBegun(), 6u);
    const std::vector<int64_t> waits = m_Clock->TakeWaits();
    ASSERT_EQ(waits.size(), 5u);
    for (int64_t w : waits) {
        EXPECT_GT(w, 900000);
        EXPECT_LE(w, 1000000);
    }
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 0}, {1, 0}, {2, 0}, {3, 0}}));
    EXPECT_EQ(ActStatus(), (std::map<int, int>{{9, 0}}));
    EXPECT_TRUE(logs->Records().empty());
}

TEST_F(ExecutorTest, ManualOutputCommandTakesOverAnActivePort) {
    Start();
    Act(0x400, {}, {{2, DOCond(false, -2, 0)}});
    m_Status.SetManualDOSts(2, 2);
    Tick();   // 1 s: the status pass hands the port over
    EXPECT_EQ(PortStatus(2), 2);
    EXPECT_EQ(m_Status.GetManualDOSts(2), 0);
    EXPECT_EQ(Access::DOCmd(*m_pExec)[2], 2);
    Tick();   // 2 s: driven to its normal state; the take-over stays visible
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(2, true)},
                                {2, kPortSetting, PortJson(2, false)}}));
    EXPECT_EQ(PortStatus(2), 2);
    Seconds(3);
    EXPECT_EQ(PortStatus(2), 2);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(ExecutorTest, ManualOutputCommandOnAnIdlePortStaysPending) {
    Start();
    m_Status.SetManualDOSts(1, 2);
    Seconds(3);
    EXPECT_EQ(m_Status.GetManualDOSts(1), 2);
    EXPECT_EQ(PortStatus(1), 0);
    // An action started later on that port is taken over at its first status pass.
    Act(0x400, {}, {{1, DOCond(false, 10, 0)}});
    EXPECT_EQ(PortStatus(1), 2);
    EXPECT_EQ(m_Status.GetManualDOSts(1), 0);
    EXPECT_EQ(Sent(), (Requests{{3, kPortSetting, PortJson(1, true)},
                                {3, kPortSetting, PortJson(1, false)}}));
}

TEST_F(ExecutorTest, ManualStatesOtherThanTwoAreIgnored) {
    Start();
    Act(0x400, {}, {{0, DOCond(false, -2, 0)}});
    m_Status.SetManualDOSts(0, 1);
    Seconds(2);
    EXPECT_EQ(PortStatus(0), 1);
    EXPECT_EQ(m_Status.GetManualDOSts(0), 1);
}

TEST_F(ExecutorTest, ManualCommandsAreLookedForOnlyOnThePortsThatInitCreated) {
    Start(2);
    // A port beyond the module's outputs is driven, but the status pass does not look at it.
    Act(0x400, {}, {{5, DOCond(false, -2, 0)}});
    m_Status.SetManualDOSts(5, 2);
    Seconds(2);
    EXPECT_EQ(m_Status.GetManualDOSts(5), 2);
    EXPECT_EQ(PortStatus(5), 1);
}

TEST_F(ExecutorTest, TerminateWithTwoActiveOutputsSendsTwoFalseRequestsAndLeavesThemIdle) {
    Start();
    Act(0x4000, {}, {{1, DOCond(false, -2, 0)}});
    Act(0x400, {}, {{3, DOCond(false, 30, 1)}});
    Act(0x200, {{9, AudioCond(false, kPatternId, 1, 2, 1)}}, {});
    Sent();
    EXPECT_EQ(m_pExec->Terminate(), 0);
    // Always the state false, whatever the action used; no command for the audio.
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(1, false)},
                                {0, kPortSetting, PortJson(3, false)}}));
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 0}, {1, 0}, {2, 0}, {3, 0}}));
    EXPECT_EQ(AudioStatus(), 0);
    // The worker is gone: time moves and nothing more happens.
    const uint64_t waits = m_Clock->WaitsBegun();
    m_Clock->Advance(700 * kSecondUs);
    EXPECT_EQ(m_Clock->WaitsBegun(), waits);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(ExecutorTest, TerminateKeepsTakenOverAndFailedStatuses) {
    tw::host::SetIOModuleBackend(kModuleId, std::make_shared<tw::host::IOModuleEmulator>(2));
    Start(4);
    Act(0x400, {}, {{3, DOCond(false, -2, 0)}});   // beyond the emulator's two outputs
    EXPECT_EQ(PortStatus(3), 3);
    Act(0x400, {}, {{0, DOCond(false, -2, 0)}});
    m_Status.SetManualDOSts(0, 2);
    Tick();
    EXPECT_EQ(PortStatus(0), 2);
    Tick();   // the port's stop goes out; nothing is pending at Terminate
    Sent();
    m_pExec->Terminate();
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 2}, {1, 0}, {2, 0}, {3, 3}}));
}

TEST_F(ExecutorTest, TerminateTwiceAndTerminateWithoutInitAreHarmless) {
    IOActExecutor idle;
    EXPECT_EQ(idle.Terminate(), 0);
    Start();
    EXPECT_EQ(m_pExec->Terminate(), 0);
    EXPECT_EQ(m_pExec->Terminate(), 0);
}

TEST_F(ExecutorTest, DestructorEndsARunningExecutorAndItsOutputs) {
    Start();
    Act(0x400, {}, {{2, DOCond(false, -2, 0)}});
    Sent();
    m_pExec.reset();
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(2, false)}}));
    EXPECT_FALSE(m_Emulator->PortState(2));
}

TEST_F(ExecutorTest, RequestsAfterTerminateAreRecordedButNotCarriedOut) {
    Start();
    m_pExec->Terminate();
    m_pExec->DoAction(0x400, {}, {{1, DOCond(false, 5, 0)}}, false);
    EXPECT_EQ(Access::DOCmd(*m_pExec)[1], 1);
    m_Clock->Advance(5 * kSecondUs);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(ExecutorTest, RepeatedInitRefreshesTheOutputsWithoutASecondWorker) {
    Start(2);
    EXPECT_EQ(m_pExec->Init(kModuleId, 3, nullptr, &m_Status), 0);
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 0}, {1, 0}, {2, 0}}));
    Tick();
    EXPECT_EQ(m_Clock->WaitsBegun(), 2u);   // one worker, one wait per second
}

TEST_F(ExecutorTest, WorkerWithoutAStatusRecordSkipsTheManualChecks) {
    m_pExec = std::make_unique<IOActExecutor>();
    m_pExec->Init(kModuleId, 2, nullptr, nullptr);
    m_Clock->WaitForWaitsBegun(1);
    Act(0x400, {}, {{0, DOCond(false, 2, 0)}});
    Seconds(4);
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(0, true)},
                                {4, kPortSetting, PortJson(0, false)}}));
}

}  // namespace
}  // namespace tw::test
