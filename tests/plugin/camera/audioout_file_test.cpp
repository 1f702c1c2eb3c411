// File output: a WAV file made by the test played to a device, byte for byte, in
// half-second chunks whose paced delays the manual clock records.
#include <fstream>
#include <iterator>

#include "plugin/camera/audioout_testutil.h"
#include "twhost/devstatus.h"
#include "twhost/wavfile.h"

namespace tw::test {
namespace {

std::vector<unsigned char> ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// The samples of a WAV file written by the device's file sink, checked against the format.
std::vector<unsigned char> WavSamples(const std::string& path, int rate, int bits, int channels) {
    tw::host::WavInfo info;
    std::string error;
    EXPECT_TRUE(tw::host::ReadWavInfo(path, info, error)) << error;
    EXPECT_EQ(info.formatTag, tw::host::WAV_FORMAT_PCM);
    EXPECT_EQ(info.sampleRate, static_cast<uint32_t>(rate));
    EXPECT_EQ(info.bitsPerSample, bits);
    EXPECT_EQ(info.channels, channels);
    const std::vector<unsigned char> all = ReadAll(path);
    EXPECT_EQ(static_cast<int64_t>(all.size()), info.dataOffset + info.dataBytes);
    if (info.dataOffset < 0) return {};
    return std::vector<unsigned char>(all.begin() + info.dataOffset, all.end());
}

std::vector<unsigned char> EvenBytes(const std::vector<unsigned char>& v) {
    std::vector<unsigned char> out;
    for (size_t i = 0; i < v.size(); i += 2) out.push_back(v[i]);
    return out;
}

class FileOutputTest : public AudioOutTest {
protected:
    // A device whose audio goes to a WAV file; returns that file's path.
    std::string AddFileDevice(int devType, int id, const CAM_CAP_AUDIO_OUT_FORMAT& format) {
        tw::host::AudioDeviceRecord record;
        record.blAudioOut = true;
        record.format = format;
        const std::string out = NewFile("sink" + std::to_string(id) + ".wav");
        record.strSinkAddress = "file:" + out;
        PutDevice(devType, id, record);
        return out;
    }

    // Plays path on the device and waits until the output has ended by itself.
    void PlayToEnd(AudioOut& out, const std::string& path, bool manual = false) {
        ASSERT_EQ(out.Init(), 0);
        m_Clock->TakeWaits();
        ASSERT_EQ(out.Start(path, manual), 0);
        ASSERT_TRUE(WaitForEnd(out));
    }
};

TEST_F(FileOutputTest, TwoChannelDeviceGetsTheFileByteForBytePacedByItsChunks) {
    const std::string sinkPath = AddFileDevice(DEV_TYPE_SPEAKER, 21, Pcm(8000, 8, 2));
    const std::string wav = NewFile("two.wav");
    const std::vector<unsigned char> data = Ramp(20000);
    WriteWav(wav, 8000, 8, 2, data, /*listChunk=*/true);
    AudioOut out(21, DEV_TYPE_SPEAKER);
    PlayToEnd(out, wav);
    // Chunks of half a second (8000 bytes), each waited for 50 ms less than it lasts.
    EXPECT_EQ(m_Clock->TakeWaits(), (std::vector<int64_t>{450000, 450000, 200000}));
    out.Stop();
    EXPECT_EQ(WavSamples(sinkPath, 8000, 8, 2), data);
}

TEST_F(FileOutputTest, OneChannelDeviceGetsEveryEvenByteAndHalfTheDelay) {
    const std::string sinkPath = AddFileDevice(DEV_TYPE_IOMODULE, 22, Pcm(8000, 8, 1));
    const std::string wav = NewFile("one.wav");
    const std::vector<unsigned char> data = Ramp(10000, 3);
    WriteWav(wav, 8000, 8, 2, data);
    AudioOut out(22, DEV_TYPE_IOMODULE);
    PlayToEnd(out, wav);
    // Reads of 4000 bytes are sent as 2000: a quarter second each, less 50 ms.
    EXPECT_EQ(m_Clock->TakeWaits(), (std::vector<int64_t>{200000, 200000, 75000}));
    out.Stop();
    EXPECT_EQ(WavSamples(sinkPath, 8000, 8, 1), EvenBytes(data));
}

TEST_F(FileOutputTest, ExactMultipleEndsWithAnEmptySendCountedAsOneFailure) {
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 23, Pcm(8000, 16, 1));
    const std::string wav = NewFile("exact.wav");
    const std::vector<unsigned char> data = Ramp(16000);
    WriteWav(wav, 8000, 16, 1, data);
    // 16000 bytes a second on a one-channel device: reads of 8000 sent as 4000.
    AudioOut out(23, DEV_TYPE_SPEAKER);
    PlayToEnd(out, wav);
    EXPECT_EQ(m_Clock->TakeWaits(), (std::vector<int64_t>{200000, 200000}));
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.sendCalls, 3);   // the last with nothing read
    EXPECT_EQ(c.sends, 2);
    // The failure's disconnect and connect, then the end's disconnect.
    EXPECT_EQ(c.connectAttempts, 2);
    EXPECT_EQ(c.disconnectCalls, 2);
    EXPECT_EQ(sink->GetBytes(), EvenBytes(data));
}

TEST_F(FileOutputTest, ShortLastChunkGetsANegativeDelayPassedAsItIs) {
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 24, Pcm(8000, 8, 2));
    const std::string wav = NewFile("short.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(8400));
    AudioOut out(24, DEV_TYPE_SPEAKER);
    PlayToEnd(out, wav);
    // 400 bytes last 25 ms: 25000 - 50000.
    EXPECT_EQ(m_Clock->TakeWaits(), (std::vector<int64_t>{450000, -25000}));
    EXPECT_EQ(sink->GetBytes().size(), 8400u);
}

TEST_F(FileOutputTest, FileThatIsNoWavIsPlayedFromItsStartAfterTheSeekError) {
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 25, Pcm(8000, 8, 2));
    const std::string raw = NewFile("raw.bin");
    const std::vector<unsigned char> bytes = Ramp(3000, 9);
    {
        std::ofstream f(raw, std::ios::binary);
        f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    AudioOut out(25, DEV_TYPE_SPEAKER);
    PlayToEnd(out, raw);
    const auto found = logs->Find("File audio out has seek error with ret [-1].\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "WARN");
    EXPECT_EQ(found[0].function, "FileAudioOutThreadMain");
    EXPECT_EQ(sink->GetBytes(), bytes);
}

TEST_F(FileOutputTest, MissingFileEndsAtOnceStillDisconnecting) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 26, Pcm(8000, 16, 1));
    AudioOut out(26, DEV_TYPE_SPEAKER);
    const std::string missing = "/tmp/tw_audioout_no_such_file.wav";
    PlayToEnd(out, missing);
    const auto open = logs->Find("Open file [" + missing + "] failed!\n");
    ASSERT_EQ(open.size(), 1u);
    EXPECT_EQ(open[0].level, "WARN");
    const auto done = logs->Find("Device[26]: Stop audio out thread done.\n");
    ASSERT_EQ(done.size(), 1u);
    EXPECT_EQ(done[0].level, "NOTICE");
    EXPECT_EQ(done[0].function, "FileAudioOutThreadMain");
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connectAttempts, 0);
    EXPECT_EQ(c.disconnectCalls, 1);
}

TEST_F(FileOutputTest, ManualOutputEndingByItselfClearsTheDevicesTrigger) {
    tw::host::DevStatusRecord status(27);
    std::string error;
    ASSERT_TRUE(status.Open(error)) << error;
    status.Get()->SetManualAOTrig(true);
    AddDevice(DEV_TYPE_SPEAKER, 27, Pcm(8000, 8, 2));
    const std::string wav = NewFile("manual.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(1000));
    AudioOut out(27, DEV_TYPE_SPEAKER);
    PlayToEnd(out, wav, /*manual=*/true);
    EXPECT_FALSE(out.IsManualOutputing());
    EXPECT_FALSE(status.Get()->IsManualAOTrig());
}

TEST_F(FileOutputTest, AutomaticOutputEndingByItselfLeavesTheTrigger) {
    tw::host::DevStatusRecord status(28);
    std::string error;
    ASSERT_TRUE(status.Open(error)) << error;
    status.Get()->SetManualAOTrig(true);
    AddDevice(DEV_TYPE_SPEAKER, 28, Pcm(8000, 8, 2));
    const std::string wav = NewFile("auto.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(1000));
    AudioOut out(28, DEV_TYPE_SPEAKER);
    PlayToEnd(out, wav, /*manual=*/false);
    EXPECT_TRUE(status.Get()->IsManualAOTrig());
}

TEST_F(FileOutputTest, StopDuringPlaybackEndsBeforeTheNextChunkAndLeavesTheTrigger) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    tw::host::DevStatusRecord status(29);
    std::string error;
    ASSERT_TRUE(status.Open(error)) << error;
    status.Get()->SetManualAOTrig(true);
    auto sink = AddDevice(DEV_TYPE_SPEAKER, 29, Pcm(8000, 8, 2));
    const std::string wav = NewFile("long.wav");
    WriteWav(wav, 8000, 8, 2, Ramp(16000 * 60));   // a minute
    m_Clock->SetAutoAdvance(false);
    AudioOut out(29, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    ASSERT_EQ(out.Start(wav, true), 0);
    EXPECT_TRUE(out.IsManualOutputing());
    m_Clock->WaitForSleepers(1);   // the first chunk is sent and paced
    std::thread stopper([&] { out.Stop(); });
    ASSERT_TRUE(WaitUntil([&] { return !AudioOutAccess::Field(out).GetActivatedFlag(); }));
    m_Clock->Advance(450000);   // the paced delay ends; the flag is found clear
    stopper.join();
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.sends, 1);
    EXPECT_EQ(c.disconnectCalls, 1);
    EXPECT_EQ(logs->Count("Device[29]: Stop audio out thread.\n"), 1u);
    EXPECT_TRUE(status.Get()->IsManualAOTrig());
    EXPECT_FALSE(out.IsManualOutputing());
}

}  // namespace
}  // namespace tw::test
