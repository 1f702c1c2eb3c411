// Live audio from a producer process: "twhost audiofeed" fills an IP speaker's shared-memory
// FIFO from a WAV file in real time while the plug-in's audio output relays it to the
// speaker's sink; when the feed is over, the output runs dry and ends by itself.
#include <sys/shm.h>

#include "plugin/camera/audioout_testutil.h"
#include "support/childprocess.h"

namespace tw::test {
namespace {

TEST_F(AudioOutTest, BytesFedByAnotherProcessReachTheSinkInOrder) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 81, Pcm(8000, 8, 2));
    const std::string wav = NewFile("feed.wav");
    const std::vector<unsigned char> data = Ramp(24000, 5);   // 1.5 s at 16000 bytes a second
    WriteWav(wav, 8000, 8, 2, data);

    ChildProcess feeder;
    std::string error;
    ASSERT_TRUE(feeder.Start({TW_TWHOST_BIN, "audiofeed", wav, "--device-id", "81", "--speaker"}, error)) << error;
    ASSERT_TRUE(WaitUntil([] {
        ShmAudioOutFifo* fifo = IPSpeakerAudioOutFifoAt(81);
        if (fifo != nullptr) shmdt(fifo);
        return fifo != nullptr;
    }));
    // The output runs on the real clock here: it follows a real-time producer.
    tw::host::SetClock(nullptr);
    AudioOut out(81, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(false), 0);
    const ChildResult fed = feeder.Wait();
    EXPECT_TRUE(fed.exited && fed.exitCode == 0) << fed.Describe() << fed.err;
    ASSERT_TRUE(WaitForEnd(out));
    out.Stop();

    EXPECT_EQ(logs->Count("Device[81]: No audio data in share memory.\n"), 1u);
    // The FIFO is reset when the device connects: what came before is gone, everything
    // after arrives in order, up to the end of the file.
    const std::vector<unsigned char> got = sink->GetBytes();
    ASSERT_FALSE(got.empty());
    ASSERT_LE(got.size(), data.size());
    EXPECT_TRUE(std::equal(got.begin(), got.end(), data.end() - static_cast<std::ptrdiff_t>(got.size())));
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connectAttempts, 1);
    EXPECT_EQ(c.disconnectCalls, 1);
}

}  // namespace
}  // namespace tw::test
