// Digital outputs: switching, holding, re-asserting and returning to normal, with the
// exact port-setting requests and the passes they go out in.
#include <mutex>
#include <set>

#include "plugin/actionrule/ioaction_testutil.h"

namespace tw::test {
namespace {

using Access = IOActExecutorAccess;
using Requests = std::vector<SentRequest>;

// A module that refuses the port requests whose running number (from 1) it is told.
class RefusingModule : public tw::host::IOModuleBackend {
public:
    explicit RefusingModule(std::set<int> refused) : m_Refused(std::move(refused)) {}
    bool SetDigitalOutput(int idx, bool /*state*/, std::string& error) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_Refused.count(++m_Count) != 0) {
            error = "port " + std::to_string(idx) + " refused by the test";
            return false;
        }
        return true;
    }
    bool StartFileAudioOut(const std::string&, bool, std::string&) override { return true; }
    std::string Describe() const override { return "refusing test module"; }

private:
    std::mutex m_Mutex;
    std::set<int> m_Refused;
    int m_Count = 0;
};

class DigitalOutputTest : public ExecutorTest {
protected:
    void UseRefusingModule(std::set<int> refused) {
        tw::host::SetIOModuleBackend(kModuleId, std::make_shared<RefusingModule>(std::move(refused)));
    }
};

TEST_F(DigitalOutputTest, PortRequestsGoToVersion1OfTheIOModuleApiAsAdmin) {
    struct Call {
        std::string user;
        std::string json;
    };
    std::vector<Call> calls;
    std::mutex mutex;
    // The module's own method, replaced by one that sees who called and answers success.
    tw::host::RegisterWebApi("ORVA.Korvane.IOModule", 1, "PortSetting",
                             [&](const Json::Value& request, const std::string& user, Json::Value&, std::string&) {
                                 std::lock_guard<std::mutex> lock(mutex);
                                 calls.push_back(Call{user, tw::host::CompactJson(request)});
                                 return true;
                             });
    Start();
    Act(0x400, {}, {{6, DOCond(false, -2, 0)}});
    tw::host::ResetWebApis();
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].user, "admin");
    EXPECT_EQ(calls[0].json, PortJson(6, true));
    EXPECT_EQ(PortStatus(6), 1);
}

TEST_F(DigitalOutputTest, TimedOutputIsCheckedAfterOneCountHeldForItsPeriodAndStoppedThePassAfter) {
    Start();
    Act(0x400, {}, {{1, DOCond(false, 5, 0)}});
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(1, true)}}));
    EXPECT_EQ(Access::DOCheckCount(*m_pExec)[1], 1);
    Tick();   // 1 s: first check, the hold of 5 counts begins
    EXPECT_EQ(Access::DOCheckCount(*m_pExec)[1], 2);
    Seconds(4);   // 5 s
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(PortStatus(1), 1);
    Tick();   // 6 s: the hold is over, the stop is requested
    EXPECT_EQ(Access::DOCmd(*m_pExec)[1], 2);
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(PortStatus(1), 1);
    Tick();   // 7 s: back to normal
    EXPECT_EQ(Sent(), (Requests{{7, kPortSetting, PortJson(1, false)}}));
    EXPECT_EQ(PortStatus(1), 0);
    EXPECT_FALSE(m_Emulator->PortState(1));
    Seconds(3);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(DigitalOutputTest, FailedStartShowsStatus3AndSendsTheNormalStateInTheNextPass) {
    UseRefusingModule({1});
    Start();
    Act(0x400, {}, {{2, DOCond(false, 5, 0)}});
    // The start pass sets the skip, so the next pass follows at once.
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(2, true)},
                                {0, kPortSetting, PortJson(2, false)}}));
    EXPECT_EQ(PortStatus(2), 3);
    Seconds(8);
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(PortStatus(2), 3);
}

TEST_F(DigitalOutputTest, FailedStopIsLoggedAndTheStatusChangesAsIfItSucceeded) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    UseRefusingModule({2});
    Start();
    Act(0x400, {}, {{3, DOCond(false, -2, 0)}});
    Post(0x400, {}, {{3, DOCond(true, 0, 0)}});
    Tick();
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(3, true)},
                                {1, kPortSetting, PortJson(3, false)}}));
    EXPECT_EQ(PortStatus(3), 0);
    const auto found = logs->Find("IOModule[7] failed to stop digital out [3].\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "NOTICE");
    EXPECT_EQ(found[0].category, "ioaction");
    EXPECT_EQ(found[0].line, 317);
    EXPECT_EQ(found[0].function, "ExecDO");
}

TEST_F(DigitalOutputTest, OutputHeldUntilStoppedIsRecheckedEvery600CountsWithoutRequests) {
    Start();
    Act(0x400, {}, {{0, DOCond(false, -2, 0)}});
    Sent();
    Tick();                  // 1 s: first check
    Tick(599 * kSecondUs);   // 600 s: not yet
    EXPECT_EQ(Access::DOCheckCount(*m_pExec)[0], 2);
    Tick();                  // 601 s: checked again, still held
    EXPECT_EQ(Access::DOCheckCount(*m_pExec)[0], 3);
    Tick(600 * kSecondUs);   // 1201 s
    EXPECT_EQ(Access::DOCheckCount(*m_pExec)[0], 4);
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(PortStatus(0), 1);
    Post(0x400, {}, {{0, DOCond(true, 0, 0)}});
    Tick();
    EXPECT_EQ(Sent(), (Requests{{1202, kPortSetting, PortJson(0, false)}}));
    EXPECT_EQ(PortStatus(0), 0);
}

TEST_F(DigitalOutputTest, HoldModeOneReassertsTheTriggerStateEvery600Counts) {
    Start();
    Act(0x400, {}, {{1, DOCond(false, 5, 1)}});
    Seconds(601);   // second by second: nothing in between
    Tick(600 * kSecondUs);
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(1, true)},
                                {601, kPortSetting, PortJson(1, true)},
                                {1201, kPortSetting, PortJson(1, true)}}));
    EXPECT_EQ(PortStatus(1), 1);
    Post(0x400, {}, {{1, DOCond(true, 0, 0)}});
    Tick();
    EXPECT_EQ(Sent(), (Requests{{1202, kPortSetting, PortJson(1, false)}}));
    EXPECT_EQ(PortStatus(1), 0);
}

TEST_F(DigitalOutputTest, HoldModeOneReassertsTrueEvenForAnOutputStartedFalse) {
    Start();
    Act(0x4000, {}, {{4, DOCond(false, 5, 1)}});
    Tick();
    Tick(600 * kSecondUs);
    Post(0x4000, {}, {{4, DOCond(true, 0, 0)}});
    Tick();
    // Started in the state false, re-asserted true, and its normal state is true.
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(4, false)},
                                {601, kPortSetting, PortJson(4, true)},
                                {602, kPortSetting, PortJson(4, true)}}));
}

TEST_F(DigitalOutputTest, FailedReassertIsLoggedAndTheOutputStaysHeld) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    UseRefusingModule({2});
    Start();
    Act(0x400, {}, {{1, DOCond(false, 5, 1)}});
    Tick();
    Tick(600 * kSecondUs);
    const auto found = logs->Find("IOModule[7] failed to do digital output.\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "NOTICE");
    EXPECT_EQ(found[0].line, 191);
    EXPECT_EQ(found[0].function, "IsDOFinished");
    EXPECT_EQ(PortStatus(1), 1);
    Tick(600 * kSecondUs);
    EXPECT_EQ(Sent().size(), 3u);
}

TEST_F(DigitalOutputTest, OtherHoldModesHoldUntilStoppedCheckingEveryPass) {
    Start();
    Act(0x400, {}, {{2, DOCond(false, 5, 3)}});
    Seconds(10);
    // The timer keeps its count of 1, so every pass is a check that does not end the hold.
    EXPECT_EQ(Access::DOCheckCount(*m_pExec)[2], 11);
    EXPECT_EQ(PortStatus(2), 1);
    Post(0x400, {}, {{2, DOCond(true, 0, 0)}});
    Tick();
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(2, true)},
                                {11, kPortSetting, PortJson(2, false)}}));
}

TEST_F(DigitalOutputTest, UntriggerFlagAloneSwitchesTheOutputsToFalse) {
    Start();
    Act(0x4000, {}, {{0, DOCond(false, 2, 0)}, {1, DOCond(false, 2, 0)}});
    Seconds(4);
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(0, false)},
                                {0, kPortSetting, PortJson(1, false)},
                                // port 0 finishes at 3 s and ends that pass; port 1 waits
                                {4, kPortSetting, PortJson(0, true)}}));
}

TEST_F(DigitalOutputTest, BothOutputBitsSwitchAllPortsToTheTriggerStateTrue) {
    Start();
    Act(0x4400, {}, {{0, DOCond(false, -2, 0)}, {2, DOCond(false, -2, 0)}, {3, DOCond(false, -2, 0)}});
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(0, true)},
                                {0, kPortSetting, PortJson(2, true)},
                                {0, kPortSetting, PortJson(3, true)}}));
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 1}, {1, 0}, {2, 1}, {3, 1}}));
}

TEST_F(DigitalOutputTest, WhenTwoPortsFinishInOnePassOnlyTheLowerIsHandled) {
    Start();
    Act(0x400, {}, {{1, DOCond(false, 3, 0)}, {2, DOCond(false, 3, 0)}});
    Seconds(4);   // 4 s: both holds are over; port 1 ends the pass
    EXPECT_EQ(Access::DOCmd(*m_pExec)[1], 2);
    EXPECT_EQ(Access::DOCmd(*m_pExec)[2], 0);
    Tick();   // 5 s: port 1 stopped, port 2's end found
    EXPECT_EQ(Access::DOCmd(*m_pExec)[2], 2);
    Tick();   // 6 s
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(1, true)},
                                {0, kPortSetting, PortJson(2, true)},
                                {5, kPortSetting, PortJson(1, false)},
                                {6, kPortSetting, PortJson(2, false)}}));
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 0}, {1, 0}, {2, 0}, {3, 0}}));
}

TEST_F(DigitalOutputTest, UnknownCommandIsLoggedEveryPassUntilANewRequestOverwritesIt) {
    ScopedLogCapture logs;
    Start();
    Act(0x400, {}, {{3, DOCond(false, 2, 0)}});
    pthread_mutex_lock(&Access::Mutex(*m_pExec));
    Access::DOCmd(*m_pExec)[1] = 5;
    pthread_mutex_unlock(&Access::Mutex(*m_pExec));
    const std::string text = "IOModule[7]: Error command in digital output.\n";
    Tick();
    EXPECT_EQ(logs->Count(text), 1u);
    Seconds(3);   // the ports after the bad one go on: port 3 ends at 4 s
    EXPECT_EQ(logs->Count(text), 4u);
    const auto found = logs->Find(text);
    EXPECT_EQ(found[0].level, "WARN");
    EXPECT_EQ(found[0].line, 342);
    EXPECT_EQ(found[0].function, "ExecDO");
    EXPECT_EQ(Access::DOCmd(*m_pExec)[1], 5);
    Act(0x400, {}, {{1, DOCond(false, -2, 0)}});
    Seconds(2);
    EXPECT_EQ(logs->Count(text), 4u);
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(3, true)},
                                {4, kPortSetting, PortJson(3, false)},
                                {4, kPortSetting, PortJson(1, true)}}));
    EXPECT_EQ(PortStatus(1), 1);
}

TEST_F(DigitalOutputTest, RestartOfARunningOutputSwitchesItAgainAndRestartsItsHold) {
    Start();
    Act(0x400, {}, {{0, DOCond(false, 3, 0)}});
    Seconds(3);
    Act(0x400, {}, {{0, DOCond(false, 3, 0)}});
    Seconds(5);
    EXPECT_EQ(Sent(), (Requests{{0, kPortSetting, PortJson(0, true)},
                                {3, kPortSetting, PortJson(0, true)},
                                {8, kPortSetting, PortJson(0, false)}}));
}

}  // namespace
}  // namespace tw::test
