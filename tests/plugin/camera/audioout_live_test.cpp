// Live output from the device's shared-memory FIFO: which FIFO each kind of device
// attaches, the bytes in order, the down-mix, and Stop.
#include "plugin/camera/audioout_live_testutil.h"

namespace tw::test {
namespace {

TEST_F(AudioOutTest, SpeakerStreamsItsOwnFifoInOrder) {
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 31, Pcm(8000, 8, 2));
    auto fifo = OpenFifo(31, /*speaker=*/true);
    FifoFeeder feeder(*fifo, 8000);
    AudioOut out(31, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    feeder.Start();
    ASSERT_TRUE(WaitUntil([&] { return sink->GetBytes().size() >= 2 * 8000; }));
    out.Stop();
    feeder.StopFeeding();
    EXPECT_TRUE(IsRunOfStream(sink->GetBytes(), 8000, 1));
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connectAttempts, 1);
    EXPECT_EQ(c.disconnectCalls, 1);
    EXPECT_EQ(c.bytes % 8000, 0);
}

TEST_F(AudioOutTest, CameraAndIOModuleStreamTheCameraFifo) {
    for (int type : {1, static_cast<int>(DEV_TYPE_IOMODULE)}) {
        const int id = type == 1 ? 32 : 33;
        auto sink = AddDevice(type, id, Pcm(8000, 8, 2));
        auto fifo = OpenFifo(id, /*speaker=*/false);
        FifoFeeder feeder(*fifo, 8000);
        AudioOut out(id, type);
        ASSERT_EQ(out.Init(), 0);
        ASSERT_EQ(out.Start(true), 0);
        feeder.Start();
        ASSERT_TRUE(WaitUntil([&] { return !sink->GetBytes().empty(); })) << "type " << type;
        out.Stop();
        EXPECT_TRUE(IsRunOfStream(sink->GetBytes(), 8000, 1)) << "type " << type;
    }
}

TEST_F(AudioOutTest, UnattachableFifoReturnsAtOnceLeavingTheManualOutputRunning) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(1, 34, Pcm(8000, 8, 2));
    // Only a speaker of that id has a FIFO: a camera cannot attach one.
    auto fifo = OpenFifo(34, /*speaker=*/true);
    AudioOut out(34, 1);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(true), 0);
    ASSERT_TRUE(WaitUntil([&] { return logs->Count("Device[34]: Can not attach audio out shared memory.\n") == 1; }));
    const auto found = logs->Find("Device[34]: Can not attach audio out shared memory.\n");
    EXPECT_EQ(found[0].level, "WARN");
    EXPECT_EQ(found[0].function, "LiveAudioOutThreadMain");
    // The thread is gone, but nothing cleaned up: the output still counts as running.
    EXPECT_TRUE(out.IsManualOutputing());
    EXPECT_EQ(out.Start(false), -1);
    EXPECT_EQ(logs->Count("Device[34]: Stop audio out thread done.\n"), 0u);
    EXPECT_EQ(sink->GetCounters().disconnectCalls, 0);
    out.Stop();
    EXPECT_FALSE(out.IsManualOutputing());
    EXPECT_EQ(logs->Count("Device[34]: Stop audio out thread.\n"), 1u);
}

TEST_F(AudioOutTest, OneChannelDeviceGetsEachReadHalved) {
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 35, Pcm(8000, 8, 1));
    auto fifo = OpenFifo(35, /*speaker=*/true);
    // 8000 bytes a second: reads of 4000 bytes, sent as 2000.
    FifoFeeder feeder(*fifo, 4000);
    AudioOut out(35, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    feeder.Start();
    ASSERT_TRUE(WaitUntil([&] { return sink->GetCounters().sends >= 4; }));
    out.Stop();
    feeder.StopFeeding();
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.bytes, static_cast<int64_t>(c.sends) * 2000);
    EXPECT_TRUE(IsRunOfStream(sink->GetBytes(), 4000, 2));
}

TEST_F(AudioOutTest, StopDuringStreamingEndsBeforeTheNextChunkWithOneDisconnect) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 36, Pcm(8000, 16, 2));
    auto fifo = OpenFifo(36, /*speaker=*/true);
    FifoFeeder feeder(*fifo, 16000);
    AudioOut out(36, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    feeder.Start();
    ASSERT_TRUE(WaitUntil([&] { return sink->GetCounters().sends >= 2; }));
    out.Stop();
    const int sendsAtStop = sink->GetCounters().sends;
    feeder.StopFeeding();
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.sends, sendsAtStop);   // nothing after the join
    EXPECT_EQ(c.connectAttempts, 1);
    EXPECT_EQ(c.disconnectCalls, 1);
    EXPECT_EQ(logs->Count("Device[36]: Stop audio out thread.\n"), 1u);
    EXPECT_EQ(logs->Count("Device[36]: Stop audio out thread done.\n"), 1u);
    EXPECT_EQ(logs->Find("Device[36]: Stop audio out thread done.\n")[0].function, "LiveAudioOutThreadMain");
}

}  // namespace
}  // namespace tw::test
