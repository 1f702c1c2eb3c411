// Device records and the audio-out handlers as the plug-in meets them: IPSpeaker and
// IOModule records load from the device store; capability and device API handlers bind
// their records for cameras, speakers and I/O modules, answer the format and reach the
// device's audio sink through RunFunctor; missing devices and devices without audio out
// fail the load and leave the records unbound, whose calls log the functor errors.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "interface/handlerutils.h"
#include "support/childprocess.h"
#include "support/testenv.h"
#include "tw/audio.h"
#include "tw/camera.h"
#include "twhost/audiosink.h"
#include "twhost/devices.h"
#include "twhost/stores.h"
#include "twhost/wavfile.h"

namespace {

using tw::host::AudioDeviceRecord;
using tw::host::DeviceKind;
using tw::host::DeviceStore;
using tw::host::MemoryAudioSink;

const char* const kNullObject = "Error: Failed to run functor with DPObjectBase as NULL.\n";
const char* const kNotRegistered =
    "Error: Some Functor is not registered properly. Check the template argument list and Function ID.\n";

CAM_CAP_AUDIO_OUT_FORMAT Format(const char* codec, int rate, int bits, int channels) {
    return CAM_CAP_AUDIO_OUT_FORMAT{codec, rate, bits, channels};
}

AudioDeviceRecord AudioDevice(const std::string& name, const CAM_CAP_AUDIO_OUT_FORMAT& format,
                              std::shared_ptr<tw::host::AudioSink> sink) {
    AudioDeviceRecord record;
    record.strName = name;
    record.blAudioOut = true;
    record.format = format;
    record.pSink = std::move(sink);
    return record;
}

void ExpectFormat(const CAM_CAP_AUDIO_OUT_FORMAT& got, const CAM_CAP_AUDIO_OUT_FORMAT& want) {
    EXPECT_EQ(got.strCodec, want.strCodec);
    EXPECT_EQ(got.sampleRate, want.sampleRate);
    EXPECT_EQ(got.bitsPerSample, want.bitsPerSample);
    EXPECT_EQ(got.channels, want.channels);
}

// The plug-in's three calls, as its audio thread makes them.
struct SlotResults {
    int connect = -99;
    int send = -99;
    int sentLen = -99;
    int disconnect = -99;
};

SlotResults RunAudioSlots(DeviceAPIHandler& api, std::vector<char> bytes) {
    SlotResults r;
    r.connect = RunFunctor<int>(api.AudioOutConnect);
    int len = static_cast<int>(bytes.size());
    r.send = RunFunctor<int, char*, int&>(api.AudioOutSendData, bytes.data(), len);
    r.sentLen = len;
    r.disconnect = RunFunctor<int>(api.AudioOutDisconnect);
    return r;
}

class DevHandlersTest : public ::testing::Test {
protected:
    void SetUp() override {
        DeviceStore::Instance().Clear();
        tw::host::CameraStore::Instance().Clear();
        tw::host::CameraStore::Instance().Put(tw::host::MakeCamera(3, VIDEO_CODEC_H264));
    }
    void TearDown() override {
        DeviceStore::Instance().Clear();
        tw::host::CameraStore::Instance().Clear();
    }

    Camera LoadedCamera(int id) {
        Camera camera;
        EXPECT_EQ(camera.Load(id, 0, 0), 0);
        return camera;
    }
};

TEST_F(DevHandlersTest, DeviceTypesMapToKinds) {
    EXPECT_EQ(tw::host::DeviceKindOfType(16), DeviceKind::IOModule);
    EXPECT_EQ(tw::host::DeviceKindOfType(512), DeviceKind::Speaker);
    EXPECT_EQ(tw::host::DeviceKindOfType(1), DeviceKind::Camera);
    EXPECT_EQ(tw::host::DeviceKindOfType(2), DeviceKind::Camera);
    EXPECT_EQ(tw::host::DeviceKindOfType(0), DeviceKind::Camera);
}

TEST_F(DevHandlersTest, SpeakerRecordLoadsItsIdAndName) {
    AudioDeviceRecord record;
    record.strName = "Lobby speaker";
    DeviceStore::Instance().Put(DeviceKind::Speaker, 7, record);
    IPSpeaker speaker;
    EXPECT_EQ(speaker.id, 0);
    ASSERT_EQ(speaker.Load(7), 0);
    EXPECT_EQ(speaker.id, 7);
    EXPECT_STREQ(speaker.szName, "Lobby speaker");
}

TEST_F(DevHandlersTest, IOModuleRecordLoadsItsOutputCount) {
    AudioDeviceRecord record;
    record.strName = std::string(100, 'n');   // longer than the field: cut and terminated
    record.doCount = 4;
    DeviceStore::Instance().Put(DeviceKind::IOModule, 2, record);
    IOModule module;
    ASSERT_EQ(module.Load(2), 0);
    EXPECT_EQ(module.id, 2);
    EXPECT_EQ(module.doCount, 4);
    EXPECT_EQ(std::strlen(module.szName), static_cast<size_t>(TW_DEV_NAME_LEN - 1));
}

TEST_F(DevHandlersTest, LoadingAMissingDeviceFails) {
    IPSpeaker speaker;
    EXPECT_EQ(speaker.Load(8), -1);
    IOModule module;
    EXPECT_EQ(module.Load(8), -1);
    // A speaker's record is not an I/O module's.
    DeviceStore::Instance().Put(DeviceKind::Speaker, 9, AudioDeviceRecord());
    EXPECT_EQ(module.Load(9), -1);
    EXPECT_EQ(module.id, 0);
}

TEST_F(DevHandlersTest, CameraCapabilityAnswersTheFormatThroughItsRecord) {
    const auto format = Format("G711U", 8000, 8, 1);
    DeviceStore::Instance().Put(DeviceKind::Camera, 3, AudioDevice("", format, nullptr));
    Camera camera = LoadedCamera(3);
    DevCapHandler cap;
    ASSERT_EQ(cap.LoadByCam(camera), 0);
    EXPECT_STREQ(cap.GetAudioOutFormat.szHandlerName, "DevCapHandler");
    ExpectFormat(RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(cap.GetAudioOutFormat), format);
}

TEST_F(DevHandlersTest, SpeakerAndIOModuleCapabilitiesAnswerTheirFormats) {
    const auto speakerFormat = Format("PCM", 16000, 16, 1);
    const auto moduleFormat = Format("PCMA", 8000, 8, 2);
    DeviceStore::Instance().Put(DeviceKind::Speaker, 5, AudioDevice("s", speakerFormat, nullptr));
    DeviceStore::Instance().Put(DeviceKind::IOModule, 5, AudioDevice("m", moduleFormat, nullptr));
    IPSpeaker speaker;
    ASSERT_EQ(speaker.Load(5), 0);
    IOModule module;
    ASSERT_EQ(module.Load(5), 0);
    DevCapHandler speakerCap;
    DevCapHandler moduleCap;
    ASSERT_EQ(speakerCap.LoadBySpeaker(speaker), 0);
    ASSERT_EQ(moduleCap.LoadByIOModule(module), 0);
    ExpectFormat(RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(speakerCap.GetAudioOutFormat), speakerFormat);
    ExpectFormat(RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(moduleCap.GetAudioOutFormat), moduleFormat);
}

TEST_F(DevHandlersTest, DeviceWithoutRecordOrAudioOutFailsTheLoadAndStaysUnbound) {
    tw::test::ScopedLogCapture log;
    AudioDeviceRecord noAudio;
    noAudio.strName = "mute";
    DeviceStore::Instance().Put(DeviceKind::Speaker, 4, noAudio);
    IPSpeaker speaker;
    ASSERT_EQ(speaker.Load(4), 0);
    DevCapHandler cap;
    EXPECT_EQ(cap.LoadBySpeaker(speaker), -1);
    EXPECT_EQ(tw::host::GetLastAudioDeviceError(), "IP speaker 4 has no audio output");
    DeviceAPIHandler api;
    EXPECT_EQ(api.LoadBySpeaker(speaker), -1);

    Camera unknown;
    unknown.id = 44;
    EXPECT_EQ(cap.LoadByCam(unknown), -1);
    EXPECT_EQ(tw::host::GetLastAudioDeviceError(), "no camera 44");
    IOModule module;
    module.id = 45;
    EXPECT_EQ(api.LoadByIOModule(module), -1);
    EXPECT_EQ(tw::host::GetLastAudioDeviceError(), "no I/O module 45");

    log->Clear();
    const CAM_CAP_AUDIO_OUT_FORMAT format = RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(cap.GetAudioOutFormat);
    ExpectFormat(format, Format("", 0, 0, 0));
    EXPECT_EQ(log->Count(std::string("[DevCapHandler] ") + kNullObject), 1u);
    const SlotResults r = RunAudioSlots(api, {1, 2, 3});
    EXPECT_EQ(r.connect, 0);
    EXPECT_EQ(r.send, 0);
    EXPECT_EQ(r.sentLen, 3);   // untouched: the call never reached a sink
    EXPECT_EQ(r.disconnect, 0);
    EXPECT_EQ(log->Count(std::string("[DeviceAPIHandler] ") + kNullObject), 3u);
}

TEST_F(DevHandlersTest, UnboundHandlersLogTheFunctorErrorsInsteadOfCrashing) {
    tw::test::ScopedLogCapture log;
    DevCapHandler cap;
    DeviceAPIHandler api;
    ExpectFormat(RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(cap.GetAudioOutFormat), Format("", 0, 0, 0));
    const SlotResults r = RunAudioSlots(api, {9});
    EXPECT_EQ(r.connect, 0);
    EXPECT_EQ(r.disconnect, 0);
    const std::vector<tw::host::LogRecord> records = log->Records();
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[0].message, std::string("[DevCapHandler] ") + kNullObject);
    for (size_t i = 1; i < 4; ++i) {
        EXPECT_EQ(records[i].message, std::string("[DeviceAPIHandler] ") + kNullObject);
        EXPECT_TRUE(records[i].blNullCategory);
        EXPECT_EQ(records[i].function, "operator()");
    }
}

TEST_F(DevHandlersTest, AudioSlotsReachTheCamerasSink) {
    auto sink = std::make_shared<MemoryAudioSink>();
    DeviceStore::Instance().Put(DeviceKind::Camera, 3, AudioDevice("", Format("PCM", 8000, 16, 1), sink));
    Camera camera = LoadedCamera(3);
    DeviceAPIHandler api;
    ASSERT_EQ(api.LoadByCamera(camera), 0);
    EXPECT_STREQ(api.AudioOutSendData.szHandlerName, "DeviceAPIHandler");
    const SlotResults r = RunAudioSlots(api, {'a', 'b', 'c', 'd', 'e'});
    EXPECT_EQ(r.connect, 0);
    EXPECT_EQ(r.send, 0);
    EXPECT_EQ(r.sentLen, 5);
    EXPECT_EQ(r.disconnect, 0);
    EXPECT_EQ(sink->GetBytes(), (std::vector<unsigned char>{'a', 'b', 'c', 'd', 'e'}));
    const tw::host::AudioSinkCounters c = sink->GetCounters();
    EXPECT_EQ(c.connects, 1);
    EXPECT_EQ(c.sends, 1);
    EXPECT_EQ(c.bytes, 5);
    EXPECT_EQ(c.disconnects, 1);
    EXPECT_EQ(tw::host::GetHandlerAudioSink(api), sink);
    EXPECT_EQ(DeviceStore::Instance().GetActiveSink(DeviceKind::Camera, 3), sink);
}

TEST_F(DevHandlersTest, FailedSendReportsNothingSent) {
    auto sink = std::make_shared<MemoryAudioSink>();
    tw::host::AudioSinkFaults faults;
    faults.failSendAfter = 0;
    sink->SetFaults(faults);
    DeviceStore::Instance().Put(DeviceKind::Speaker, 6, AudioDevice("s", Format("PCM", 8000, 16, 1), sink));
    IPSpeaker speaker;
    ASSERT_EQ(speaker.Load(6), 0);
    DeviceAPIHandler api;
    ASSERT_EQ(api.LoadBySpeaker(speaker), 0);
    const SlotResults r = RunAudioSlots(api, {1, 2, 3, 4});
    EXPECT_EQ(r.connect, 0);
    EXPECT_EQ(r.send, -1);
    EXPECT_EQ(r.sentLen, 0);
    EXPECT_TRUE(sink->GetBytes().empty());
}

TEST_F(DevHandlersTest, IOModuleWithAFileSinkGetsAWavFile) {
    tw::test::ScopedTempDir dir;
    const std::string path = dir.File("module.wav");
    AudioDeviceRecord record = AudioDevice("m", Format("G711A", 8000, 8, 1), nullptr);
    record.strSinkAddress = "file:" + path;
    record.doCount = 2;
    DeviceStore::Instance().Put(DeviceKind::IOModule, 12, record);
    IOModule module;
    ASSERT_EQ(module.Load(12), 0);
    DeviceAPIHandler api;
    ASSERT_EQ(api.LoadByIOModule(module), 0);
    std::vector<char> bytes(800, 0x55);
    const SlotResults r = RunAudioSlots(api, bytes);
    EXPECT_EQ(r.connect, 0);
    EXPECT_EQ(r.sentLen, 800);
    EXPECT_EQ(r.disconnect, 0);
    tw::host::WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(path, info, error)) << error;
    EXPECT_EQ(info.formatTag, tw::host::WAV_FORMAT_ALAW);
    EXPECT_EQ(info.dataBytes, 800);
}

TEST_F(DevHandlersTest, BadSinkAddressFailsTheApiLoad) {
    AudioDeviceRecord record = AudioDevice("", Format("PCM", 8000, 16, 1), nullptr);
    record.strSinkAddress = "tape:/dev/st0";
    DeviceStore::Instance().Put(DeviceKind::Camera, 3, record);
    Camera camera = LoadedCamera(3);
    DeviceAPIHandler api;
    EXPECT_EQ(api.LoadByCamera(camera), -1);
    EXPECT_EQ(tw::host::GetLastAudioDeviceError(),
              "camera 3: audio sink 'tape:/dev/st0': unknown kind (file:PATH, "
              "http://HOST:PORT/PATH or memory:)");
    EXPECT_EQ(api.AudioOutConnect.pObject, nullptr);
    // The capability itself is fine: it does not need the sink.
    DevCapHandler cap;
    EXPECT_EQ(cap.LoadByCam(camera), 0);
}

TEST_F(DevHandlersTest, SlotCalledWithAnotherSignatureIsReportedAsNotRegistered) {
    DeviceStore::Instance().Put(DeviceKind::Camera, 3,
                                AudioDevice("", Format("PCM", 8000, 16, 1), std::make_shared<MemoryAudioSink>()));
    Camera camera = LoadedCamera(3);
    DeviceAPIHandler api;
    ASSERT_EQ(api.LoadByCamera(camera), 0);
    tw::test::ScopedLogCapture log;
    EXPECT_FALSE(RunFunctor<bool>(api.AudioOutConnect));
    EXPECT_EQ(log->Count(std::string("[DeviceAPIHandler] ") + kNotRegistered), 1u);
}

TEST_F(DevHandlersTest, ReloadingReplacesAndFreesTheEarlierBinding) {
    auto first = std::make_shared<MemoryAudioSink>();
    auto second = std::make_shared<MemoryAudioSink>();
    DeviceStore::Instance().Put(DeviceKind::Speaker, 1, AudioDevice("a", Format("PCM", 8000, 16, 1), first));
    DeviceStore::Instance().Put(DeviceKind::Speaker, 2, AudioDevice("b", Format("PCM", 8000, 8, 1), second));
    IPSpeaker a;
    IPSpeaker b;
    ASSERT_EQ(a.Load(1), 0);
    ASSERT_EQ(b.Load(2), 0);
    // Held here and by the store's record; a bound handler's object holds one more.
    EXPECT_EQ(first.use_count(), 2);
    {
        DeviceAPIHandler api;
        ASSERT_EQ(api.LoadBySpeaker(a), 0);
        EXPECT_EQ(first.use_count(), 3);
        ASSERT_EQ(api.LoadBySpeaker(b), 0);
        EXPECT_EQ(first.use_count(), 2);
        EXPECT_EQ(second.use_count(), 3);
        RunAudioSlots(api, {7, 7});
        EXPECT_TRUE(first->GetBytes().empty());
        EXPECT_EQ(second->GetBytes().size(), 2u);

        // A failed reload drops the earlier binding too: audio must not go to the wrong device.
        IPSpeaker missing;
        missing.id = 99;
        EXPECT_EQ(api.LoadBySpeaker(missing), -1);
        EXPECT_EQ(second.use_count(), 2);
        EXPECT_EQ(api.AudioOutSendData.pObject, nullptr);
        ASSERT_EQ(api.LoadBySpeaker(a), 0);
    }
    // The destructor freed what the handler owned.
    EXPECT_EQ(first.use_count(), 2);
    EXPECT_EQ(DeviceStore::Instance().GetActiveSink(DeviceKind::Speaker, 1), first);

    DevCapHandler cap;
    ASSERT_EQ(cap.LoadBySpeaker(a), 0);
    ASSERT_EQ(cap.LoadBySpeaker(b), 0);
    EXPECT_EQ(RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(cap.GetAudioOutFormat).bitsPerSample, 8);
}

TEST_F(DevHandlersTest, HandlerDestroyedWhileConnectedClosesItsOwnSink) {
    tw::test::ScopedTempDir dir;
    const std::string path = dir.File("cam.wav");
    AudioDeviceRecord record = AudioDevice("", Format("PCM", 8000, 16, 1), nullptr);
    record.strSinkAddress = "file:" + path;
    DeviceStore::Instance().Put(DeviceKind::Camera, 3, record);
    Camera camera = LoadedCamera(3);
    {
        DeviceAPIHandler api;
        ASSERT_EQ(api.LoadByCamera(camera), 0);
        ASSERT_EQ(RunFunctor<int>(api.AudioOutConnect), 0);
        std::vector<char> bytes(100, 0x11);
        int len = 100;
        RunFunctor<int, char*, int&>(api.AudioOutSendData, bytes.data(), len);
        EXPECT_EQ(len, 100);
    }
    EXPECT_EQ(DeviceStore::Instance().GetActiveSink(DeviceKind::Camera, 3), nullptr);
    tw::host::WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(path, info, error)) << error;
    EXPECT_EQ(info.dataBytes, 100);
}

}  // namespace
