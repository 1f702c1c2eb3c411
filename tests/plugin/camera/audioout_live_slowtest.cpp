// Live output's retry paths, which wait 300 ms of real time between attempts: an empty
// FIFO, a device that refuses every connect, and sends that fail a few times or eleven
// times in a row.
#include "plugin/camera/audioout_live_testutil.h"

namespace tw::test {
namespace {

TEST_F(AudioOutTest, EmptyFifoEndsTheOutputAfterElevenEmptyReads) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    tw::host::DevStatusRecord status(41);
    std::string error;
    ASSERT_TRUE(status.Open(error)) << error;
    status.Get()->SetManualAOTrig(true);
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 41, Pcm(8000, 16, 1));
    auto fifo = OpenFifo(41, /*speaker=*/true);
    AudioOut out(41, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(true), 0);
    ASSERT_TRUE(WaitForEnd(out));
    const auto found = logs->Find("Device[41]: No audio data in share memory.\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "NOTICE");
    EXPECT_EQ(logs->Count("Device[41]: Stop audio out thread done.\n"), 1u);
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connectAttempts, 1);
    EXPECT_EQ(c.sendCalls, 0);
    EXPECT_EQ(c.disconnectCalls, 1);
    // A manual output that ended by itself hands the trigger back.
    EXPECT_FALSE(out.IsManualOutputing());
    EXPECT_FALSE(status.Get()->IsManualAOTrig());
    // Stop after the end logs nothing and joins the finished thread.
    logs->Clear();
    EXPECT_EQ(out.Stop(), 0);
    EXPECT_TRUE(logs->Records().empty());
}

TEST_F(AudioOutTest, DeviceRefusingEveryConnectGetsElevenAttemptsAndOneDisconnect) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 42, Pcm(8000, 16, 1));
    tw::host::AudioSinkFaults faults;
    faults.refuseConnects = -1;
    sink->SetFaults(faults);
    auto fifo = OpenFifo(42, /*speaker=*/true);
    AudioOut out(42, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    ASSERT_TRUE(WaitForEnd(out));
    const auto found = logs->Find("Device[42]: Connect failed.\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "NOTICE");
    EXPECT_EQ(found[0].function, "LiveAudioOutThreadMain");
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connectAttempts, 11);
    EXPECT_EQ(c.connects, 0);
    EXPECT_EQ(c.disconnectCalls, 1);
    EXPECT_EQ(c.sendCalls, 0);
}

TEST_F(AudioOutTest, FileOutputToARefusingDeviceGivesUpAfterElevenAttempts) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 43, Pcm(8000, 8, 2));
    tw::host::AudioSinkFaults faults;
    faults.refuseConnects = -1;
    sink->SetFaults(faults);
    const std::string wav = NewFile("refused.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(4000));
    AudioOut out(43, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(wav, false), 0);
    ASSERT_TRUE(WaitForEnd(out));
    EXPECT_EQ(logs->Find("Device[43]: Connect failed.\n").at(0).function, "FileAudioOutThreadMain");
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connectAttempts, 11);
    EXPECT_EQ(c.disconnectCalls, 1);
    EXPECT_EQ(c.sendCalls, 0);
}

TEST_F(AudioOutTest, FewSendFailuresReconnectAndTheStreamGoesOnInOrder) {
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 44, Pcm(8000, 8, 2));
    tw::host::AudioSinkFaults faults;
    faults.failSendAfter = 1;
    faults.failSends = 3;
    sink->SetFaults(faults);
    auto fifo = OpenFifo(44, /*speaker=*/true);
    FifoFeeder feeder(*fifo, 8000);
    AudioOut out(44, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    feeder.Start();
    ASSERT_TRUE(WaitUntil([&] { return sink->GetCounters().sends >= 3; }));
    out.Stop();
    feeder.StopFeeding();
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    // One connect, then a disconnect and a connect after each of the three failures, and the
    // disconnect of the end.
    EXPECT_EQ(c.connectAttempts, 4);
    EXPECT_EQ(c.disconnectCalls, 4);
    EXPECT_EQ(c.sendCalls - c.sends, 3);
    // The failed chunks are lost; what arrives is in order around the gap.
    EXPECT_TRUE(AreBlocksOfStreamInOrder(sink->GetBytes(), 8000));
}

TEST_F(AudioOutTest, ElevenSendFailuresInARowStartAFreshConnectPhase) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 45, Pcm(8000, 8, 2));
    tw::host::AudioSinkFaults faults;
    faults.failSendAfter = 0;
    faults.failSends = 11;
    sink->SetFaults(faults);
    auto fifo = OpenFifo(45, /*speaker=*/true);
    FifoFeeder feeder(*fifo, 8000);
    AudioOut out(45, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    feeder.Start();
    ASSERT_TRUE(WaitUntil([&] { return sink->GetCounters().sends >= 1; }));
    out.Stop();
    feeder.StopFeeding();
    const auto found = logs->Find("Failed to send audio data.\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "NOTICE");
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    // The first connect, ten reconnects (disconnect and connect), then the fresh connect
    // phase without a disconnect; at the end one more disconnect.
    EXPECT_EQ(c.connectAttempts, 1 + 10 + 1);
    EXPECT_EQ(c.disconnectCalls, 10 + 1);
    EXPECT_EQ(c.sendCalls - c.sends, 11);
}

}  // namespace
}  // namespace tw::test
