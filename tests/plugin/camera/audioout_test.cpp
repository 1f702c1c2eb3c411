// The audio output object: device binding, the audio-out format and byte rate, the mono
// down-mix and the thread record.
#include "plugin/camera/audioout_testutil.h"

namespace tw::test {
namespace {

using Access = AudioOutAccess;

TEST_F(AudioOutTest, DeviceIdOfZeroOrBelowFailsBeforeAnyLookup) {
    ScopedLogCapture logs;
    for (int id : {0, -4}) {
        AudioOut out(id, DEV_TYPE_SPEAKER);
        EXPECT_EQ(out.Init(), -1);
        const auto found = logs->Find("Device[" + std::to_string(id) + "]: Invalid cam id\n");
        ASSERT_EQ(found.size(), 1u);
        EXPECT_EQ(found[0].level, "WARN");
        EXPECT_EQ(found[0].category, "audioout");
        EXPECT_EQ(found[0].file, "camera/audioout.cpp");
        EXPECT_EQ(found[0].function, "Init");
    }
    EXPECT_EQ(logs->Records().size(), 2u);
}

TEST_F(AudioOutTest, MissingDeviceOfEachKindFailsWithItsOwnMessage) {
    ScopedLogCapture logs;
    AudioOut camera(5, 1), speaker(5, DEV_TYPE_SPEAKER), ioModule(5, DEV_TYPE_IOMODULE);
    EXPECT_EQ(camera.Init(), -1);
    EXPECT_EQ(speaker.Init(), -1);
    EXPECT_EQ(ioModule.Init(), -1);
    EXPECT_EQ(logs->Count("Cam[5]: Failed to get capability.\n"), 1u);
    EXPECT_EQ(logs->Count("Speaker[5]: Failed to get capability.\n"), 1u);
    EXPECT_EQ(logs->Count("IOModule[5]: Failed to get capability.\n"), 1u);
}

TEST_F(AudioOutTest, DeviceWithoutAudioOutputFailsItsCapability) {
    ScopedLogCapture logs;
    tw::host::AudioDeviceRecord record;
    record.blAudioOut = false;
    record.format = Pcm(8000, 16, 1);
    record.strSinkAddress = "memory:";
    PutDevice(DEV_TYPE_SPEAKER, 6, record);
    AudioOut out(6, DEV_TYPE_SPEAKER);
    EXPECT_EQ(out.Init(), -1);
    EXPECT_EQ(logs->Count("Speaker[6]: Failed to get capability.\n"), 1u);
}

TEST_F(AudioOutTest, EveryTypeButIOModuleAndSpeakerIsACamera) {
    AddDevice(1, 8, Pcm(8000, 16, 1));
    for (int type : {1, 2, 7, 0, 1024}) {
        AudioOut out(8, type);
        EXPECT_EQ(out.Init(), 0) << "type " << type;
        EXPECT_EQ(Access::ByteRate(out), 16000);
    }
    // A speaker or I/O module of that id does not exist.
    AudioOut speaker(8, DEV_TYPE_SPEAKER);
    EXPECT_EQ(speaker.Init(), -1);
    AudioOut ioModule(8, DEV_TYPE_IOMODULE);
    EXPECT_EQ(ioModule.Init(), -1);
}

struct RateCase {
    int rate, bits, channels, byteRate;
};

class AudioOutByteRate : public AudioOutTest, public ::testing::WithParamInterface<RateCase> {};

TEST_P(AudioOutByteRate, IsTheProductOfTheFormatOverEight) {
    const RateCase& c = GetParam();
    AddDevice(DEV_TYPE_IOMODULE, 3, Pcm(c.rate, c.bits, c.channels));
    AudioOut out(3, DEV_TYPE_IOMODULE);
    ASSERT_EQ(out.Init(), 0);
    EXPECT_EQ(Access::ByteRate(out), c.byteRate);
    EXPECT_EQ(Access::Codec(out), "PCM");
    EXPECT_EQ(Access::FormatA(out), c.rate);
    EXPECT_EQ(Access::FormatB(out), c.bits);
    EXPECT_EQ(Access::Channels(out), c.channels);
}

INSTANTIATE_TEST_SUITE_P(Formats, AudioOutByteRate,
                         ::testing::Values(RateCase{8000, 16, 1, 16000}, RateCase{8000, 8, 1, 8000},
                                           RateCase{8000, 8, 2, 16000}, RateCase{44100, 16, 2, 176400},
                                           // truncated toward zero
                                           RateCase{11025, 1, 1, 1378}));

TEST_F(AudioOutTest, EmptyCodecFailsTheFormatAndKeepsTheEarlierByteRate) {
    ScopedLogCapture logs;
    AddDevice(DEV_TYPE_SPEAKER, 4, Pcm(8000, 16, 1));
    AudioOut out(4, DEV_TYPE_SPEAKER);
    ASSERT_EQ(out.Init(), 0);
    AddDevice(DEV_TYPE_SPEAKER, 4, CAM_CAP_AUDIO_OUT_FORMAT{"", 22050, 8, 2});
    EXPECT_EQ(out.Init(), -1);
    EXPECT_EQ(logs->Count("Device[4]: Failed to get audio output format.\n"), 1u);
    // The bad format is stored, the byte rate is the earlier one.
    EXPECT_EQ(Access::Codec(out), "");
    EXPECT_EQ(Access::FormatA(out), 22050);
    EXPECT_EQ(Access::Channels(out), 2);
    EXPECT_EQ(Access::ByteRate(out), 16000);
}

TEST_F(AudioOutTest, AnyZeroFactorFailsTheFormat) {
    ScopedLogCapture logs;
    const CAM_CAP_AUDIO_OUT_FORMAT formats[] = {{"PCM", 0, 16, 1}, {"PCM", 8000, 0, 1}, {"PCM", 8000, 16, 0}};
    for (const auto& format : formats) {
        AddDevice(DEV_TYPE_SPEAKER, 9, format);
        AudioOut out(9, DEV_TYPE_SPEAKER);
        EXPECT_EQ(out.Init(), -1);
        EXPECT_EQ(Access::ByteRate(out), 0);
    }
    EXPECT_EQ(logs->Count("Device[9]: Failed to get audio output format.\n"), 3u);
}

TEST_F(AudioOutTest, UnusableFormatSlotLogsTheFunctorErrorAndFailsTheFormat) {
    ScopedLogCapture logs;
    tw::host::AudioDeviceRecord record;
    record.blAudioOut = true;
    record.blFormatQuery = false;
    record.format = Pcm(8000, 16, 1);
    record.strSinkAddress = "memory:";
    PutDevice(DEV_TYPE_IOMODULE, 12, record);
    AudioOut out(12, DEV_TYPE_IOMODULE);
    EXPECT_EQ(out.Init(), -1);
    const auto functor = logs->Find(
        "[DevCapHandler] Error: Some Functor is not registered properly. Check the template argument list and "
        "Function ID.\n");
    ASSERT_EQ(functor.size(), 1u);
    EXPECT_TRUE(functor[0].blNullCategory);
    EXPECT_TRUE(functor[0].blNullLevel);
    EXPECT_EQ(logs->Count("Device[12]: Failed to get audio output format.\n"), 1u);
    // The empty result was stored before the check.
    EXPECT_EQ(Access::Codec(out), "");
    EXPECT_EQ(Access::FormatA(out), 0);
    EXPECT_EQ(Access::ByteRate(out), 0);
}

TEST_F(AudioOutTest, ResampleKeepsEveryEvenByte) {
    AudioOut out(1, 1);
    char buf[] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    EXPECT_EQ(out.ResampleToOneChannel(buf, 8), 4);
    EXPECT_EQ(std::string(buf, 8), "acegefgh");
}

TEST_F(AudioOutTest, ResampleOfAnOddLengthWritesOneByteMoreThanItReturns) {
    AudioOut out(1, 1);
    char buf[] = {'a', 'b', 'c', 'd', 'e', 'X'};
    EXPECT_EQ(out.ResampleToOneChannel(buf, 5), 2);
    EXPECT_EQ(std::string(buf, 6), "acedeX");
}

TEST_F(AudioOutTest, ResampleOfNothingOrANegativeLengthChangesNothing) {
    AudioOut out(1, 1);
    char buf[] = {'a', 'b', 'c', 'd'};
    EXPECT_EQ(out.ResampleToOneChannel(buf, 0), 0);
    EXPECT_EQ(out.ResampleToOneChannel(buf, -1), 0);
    EXPECT_EQ(out.ResampleToOneChannel(buf, -5), -2);
    EXPECT_EQ(std::string(buf, 4), "abcd");
}

TEST(AudioOutThreadFieldRecord, StartsInactiveWithoutIdAndPath) {
    AudioOutThreadField field;
    EXPECT_FALSE(field.GetActivatedFlag());
    EXPECT_FALSE(field.GetThreadId().has_value());
    EXPECT_EQ(field.GetFilePath(), "");
}

TEST(AudioOutThreadFieldRecord, KeepsWhatIsSetAndClearThreadIdMakesTheIdAbsent) {
    AudioOutThreadField field;
    field.SetActivatedFlag(true);
    field.SetThreadId(1234);
    field.SetFilePath("/tmp/a.wav");
    EXPECT_TRUE(field.GetActivatedFlag());
    ASSERT_TRUE(field.GetThreadId().has_value());
    EXPECT_EQ(*field.GetThreadId(), 1234u);
    EXPECT_EQ(field.GetFilePath(), "/tmp/a.wav");
    field.ClearThreadId();
    EXPECT_FALSE(field.GetThreadId().has_value());
    field.Init();
    EXPECT_FALSE(field.GetActivatedFlag());
    EXPECT_EQ(field.GetFilePath(), "/tmp/a.wav");
}

TEST_F(AudioOutTest, StartBeforeASuccessfulInitIsRefused) {
    ScopedLogCapture logs;
    AudioOut out(3, DEV_TYPE_SPEAKER);
    EXPECT_EQ(out.Start(false), -1);
    AudioOut bad(0, DEV_TYPE_SPEAKER);
    EXPECT_EQ(bad.Start("/tmp/x.wav", true), -1);
    EXPECT_EQ(logs->Count("Device[3]: Invalid cam id or byterate 0.\n"), 1u);
    EXPECT_EQ(logs->Count("Device[0]: Invalid cam id or byterate 0.\n"), 1u);
    EXPECT_EQ(logs->Find("Device[3]: Invalid cam id or byterate 0.\n")[0].function, "Start");
    EXPECT_FALSE(out.IsManualOutputing());
}

TEST_F(AudioOutTest, StopWhenNothingRunsLogsNothing) {
    ScopedVerboseLog verbose;
    ScopedLogCapture logs;
    AudioOut out(3, DEV_TYPE_SPEAKER);
    EXPECT_EQ(out.Stop(), 0);
    EXPECT_TRUE(logs->Records().empty());
}

}  // namespace
}  // namespace tw::test
