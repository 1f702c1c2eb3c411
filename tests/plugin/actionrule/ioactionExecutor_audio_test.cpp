// Audio-pattern actions: counted plays, plays until stopped, stops, a refusing daemon and
// the exact play commands with the passes they go out in.
#include "plugin/actionrule/ioaction_testutil.h"

namespace tw::test {
namespace {

using Access = IOActExecutorAccess;
using Requests = std::vector<SentRequest>;

class AudioActionTest : public ExecutorTest {
protected:
    Requests Plays(std::initializer_list<int64_t> secs) {
        Requests out;
        for (int64_t s : secs) out.push_back(SentRequest{s, kPlayCmd, PlayJson(m_strPattern)});
        return out;
    }
};

TEST_F(AudioActionTest, ThreePlaysGoOutAPeriodApartThenTheActionStops) {
    Start();
    // Pattern of 3 s plus a gap of 2 s: a play every 5 s.
    Act(0x200, {{9, AudioCond(false, kPatternId, 3, 2, 0)}}, {});
    EXPECT_EQ(AudioStatus(), 1);
    Seconds(14);
    EXPECT_EQ(Sent(), Plays({0, 5, 10}));
    Tick();   // 15 s: the third play's period has run out, the stop is requested
    EXPECT_EQ(Access::AudioCmd(*m_pExec)[9], 2);
    EXPECT_EQ(AudioStatus(), 1);
    Tick();   // 16 s
    EXPECT_EQ(AudioStatus(), 0);
    Seconds(10);
    EXPECT_TRUE(Sent().empty());
    const auto plays = m_Emulator->AudioPlays();
    ASSERT_EQ(plays.size(), 3u);
    EXPECT_EQ(plays[2].timeUs, 10 * kSecondUs);
    EXPECT_EQ(plays[2].filePath, m_strPattern);
    EXPECT_FALSE(plays[2].isManual);
}

TEST_F(AudioActionTest, ZeroTimesMakesNoPlayAndStopsAtTheFirstCheck) {
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 0, 2, 0)}}, {});
    EXPECT_EQ(Access::AudioCmd(*m_pExec)[9], 2);
    EXPECT_EQ(AudioStatus(), 1);
    Tick();
    EXPECT_EQ(AudioStatus(), 0);
    Seconds(5);
    EXPECT_TRUE(Sent().empty());
}

TEST_F(AudioActionTest, SinglePlayIsFollowedByTheStopOneCountAfterThePattern) {
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 1, 50, 0)}}, {});
    Seconds(5);
    EXPECT_EQ(Sent(), Plays({0}));
    EXPECT_EQ(AudioStatus(), 0);   // stop requested at 4 s, carried out at 5 s
}

TEST_F(AudioActionTest, HoldModePlaysUntilStopped) {
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 1, 2, 1)}}, {});
    Seconds(12);
    Post(0x200, {{9, AudioCond(true, 0, 0, 0, 0)}}, {});
    EXPECT_EQ(AudioStatus(), 1);
    Tick();   // 13 s: the stop, in an ordinary pass
    EXPECT_EQ(AudioStatus(), 0);
    Seconds(10);
    EXPECT_EQ(Sent(), Plays({0, 5, 10}));
}

TEST_F(AudioActionTest, StopSendsNothingToTheDaemon) {
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 5, 2, 0)}}, {});
    Sent();
    Post(0x200, {{9, AudioCond(true, 0, 0, 0, 0)}}, {});
    Tick();
    EXPECT_TRUE(Sent().empty());
    EXPECT_EQ(AudioStatus(), 0);
}

TEST_F(AudioActionTest, RestartPlaysAtOnceAndCountsAfresh) {
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 2, 2, 0)}}, {});
    Seconds(6);   // plays at 0 and 5
    Act(0x200, {{9, AudioCond(false, kPatternId, 2, 2, 0)}}, {});
    Seconds(11);
    EXPECT_EQ(Sent(), Plays({0, 5, 6, 11}));
    EXPECT_EQ(AudioStatus(), 0);
}

TEST_F(AudioActionTest, DaemonThatRejectsEveryCommandStillSeesEveryPlayEachLogged) {
    ScopedLogCapture logs;
    m_Emulator->SetRefuseAudioOut(true);
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 3, 2, 0)}}, {});
    Seconds(16);
    EXPECT_EQ(Sent(), Plays({0, 5, 10}));
    EXPECT_EQ(AudioStatus(), 0);
    const std::string text =
        "IOModule[7]: Failed to send start file[" + m_strPattern + "] audio out cmd.\n";
    const auto found = logs->Find(text);
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].level, "WARN");
    EXPECT_EQ(found[0].category, "ioaction");
    EXPECT_EQ(found[0].line, 223);
    EXPECT_EQ(found[0].function, "DoAudioOut");
    for (const tw::host::IORequest& r : tw::host::TakeIORequests()) EXPECT_NE(r.result, 0);
}

TEST_F(AudioActionTest, UnknownAudioCommandIsLoggedEveryPassAndLeftAsItIs) {
    ScopedLogCapture logs;
    Start();
    pthread_mutex_lock(&Access::Mutex(*m_pExec));
    Access::AudioCmd(*m_pExec)[9] = 7;
    pthread_mutex_unlock(&Access::Mutex(*m_pExec));
    Seconds(3);
    const auto found = logs->Find("IOModule[7]: Error snapshot command: 7.\n");
    ASSERT_EQ(found.size(), 3u);
    EXPECT_EQ(found[0].level, "WARN");
    EXPECT_EQ(found[0].line, 278);
    EXPECT_EQ(found[0].function, "ExecTimsAct");
    EXPECT_EQ(Access::AudioCmd(*m_pExec)[9], 7);
}

TEST_F(AudioActionTest, ManualAudioTakesOverAndAStopThenLeavesTheTakeOver) {
    Start();
    Act(0x200, {{9, AudioCond(false, kPatternId, 1, 2, 1)}}, {});
    Seconds(2);
    m_Status.SetManualAOTrig(true);
    Tick();   // 3 s: the status pass sees the manual output
    EXPECT_EQ(AudioStatus(), 2);
    EXPECT_EQ(Access::AudioCmd(*m_pExec)[9], 2);
    Tick();   // 4 s: the stop keeps the take-over visible
    EXPECT_EQ(AudioStatus(), 2);
    Post(0x200, {{9, AudioCond(true, 0, 0, 0, 0)}}, {});
    Seconds(8);
    EXPECT_EQ(AudioStatus(), 2);
    EXPECT_EQ(Sent(), Plays({0}));
    // The manual flag belongs to the manual output: it is only read here.
    EXPECT_TRUE(m_Status.IsManualAOTrig());
}

TEST_F(AudioActionTest, ManualAudioWithoutARunningActionChangesNothing) {
    Start();
    m_Status.SetManualAOTrig(true);
    Seconds(2);
    EXPECT_EQ(AudioStatus(), 0);
    Act(0x200, {{9, AudioCond(false, kPatternId, 2, 2, 0)}}, {});
    // The action starts, and the same pass hands it over to the manual output before
    // its first play.
    EXPECT_EQ(AudioStatus(), 2);
    Seconds(6);
    EXPECT_TRUE(Sent().empty());
}

}  // namespace
}  // namespace tw::test
