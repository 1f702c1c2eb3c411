// The capability handler and the device API handler of audio-out devices: their records
// are bound to host objects made for one device, through the host's function tables.
#include <map>

#include "interface/handlerutils.h"
#include "tw/audio.h"
#include "tw/camera.h"
#include "twhost/audiosink.h"
#include "twhost/devices.h"

namespace tw::host {

namespace {

const char* const kCapHandlerName = "DevCapHandler";
const char* const kApiHandlerName = "DeviceAPIHandler";

thread_local std::string t_strLastLoadError;

TWFuncTable* CapFuncTable() {
    static MemFunc<CAM_CAP_AUDIO_OUT_FORMAT, AudioCapObject> s_GetAudioOutFormat(
        &AudioCapObject::GetAudioOutFormat);
    static TWFuncTable s_Table = {{TW_FUNC_GET_AUDIO_OUT_FORMAT, &s_GetAudioOutFormat}};
    return &s_Table;
}

TWFuncTable* ApiFuncTable() {
    static MemFunc<int, AudioApiObject> s_Connect(&AudioApiObject::AudioOutConnect);
    static MemFunc<int, AudioApiObject, char*, int&> s_SendData(&AudioApiObject::AudioOutSendData);
    static MemFunc<int, AudioApiObject> s_Disconnect(&AudioApiObject::AudioOutDisconnect);
    static TWFuncTable s_Table = {
        {TW_FUNC_AUDIO_OUT_CONNECT, &s_Connect},
        {TW_FUNC_AUDIO_OUT_SEND_DATA, &s_SendData},
        {TW_FUNC_AUDIO_OUT_DISCONNECT, &s_Disconnect},
    };
    return &s_Table;
}

// The capability table of a device: without the format query the record stays unbound.
TWFuncTable* CapFuncTableOf(DeviceKind kind, int id) {
    static TWFuncTable s_NoQueries;
    std::optional<AudioDeviceRecord> record = DeviceStore::Instance().Get(kind, id);
    return (record && !record->blFormatQuery) ? &s_NoQueries : CapFuncTable();
}

std::string DeviceText(DeviceKind kind, int id) {
    return std::string(DeviceKindName(kind)) + " " + std::to_string(id);
}

// The device's record when it has an audio output; null with the reason otherwise.
std::optional<AudioDeviceRecord> AudioRecordOf(DeviceKind kind, int id) {
    std::optional<AudioDeviceRecord> record = DeviceStore::Instance().Get(kind, id);
    if (!record) {
        t_strLastLoadError = "no " + DeviceText(kind, id);
        return std::nullopt;
    }
    if (!record->blAudioOut) {
        t_strLastLoadError = DeviceText(kind, id) + " has no audio output";
        return std::nullopt;
    }
    return record;
}

DPObjectBase* MakeCapObject(DeviceKind kind, int id) {
    std::optional<AudioDeviceRecord> record = AudioRecordOf(kind, id);
    if (!record) return nullptr;
    return new AudioCapObject(record->format);
}

DPObjectBase* MakeApiObject(DeviceKind kind, int id) {
    std::optional<AudioDeviceRecord> record = AudioRecordOf(kind, id);
    if (!record) return nullptr;
    std::shared_ptr<AudioSink> sink = record->pSink;
    if (!sink) {
        std::string error;
        sink = MakeAudioSink(record->strSinkAddress, record->format, error);
        if (!sink) {
            t_strLastLoadError = DeviceText(kind, id) + ": " + error;
            return nullptr;
        }
    }
    DeviceStore::Instance().NoteActiveSink(kind, id, sink);
    return new AudioApiObject(sink);
}

// Binds the handler's records to obj (or leaves them unbound, with the handler's name for
// the functor errors, when obj is null) and frees the object bound before.
int Rebind(TWHandlerBase& handler, DPObjectBase*& owned, DPObjectBase* obj, TWFuncTable* table,
           const char* name) {
    DPObjectBase* old = owned;
    if (obj != nullptr) {
        handler.SetHandlerBase(obj, table, name);
    } else {
        handler.SetHandlerBase(nullptr, nullptr, name);
    }
    owned = obj;
    delete old;
    return obj != nullptr ? 0 : -1;
}

}  // namespace

std::string GetLastAudioDeviceError() { return t_strLastLoadError; }

AudioApiObject::~AudioApiObject() = default;

int AudioApiObject::AudioOutConnect() { return m_pSink->Connect(); }

int AudioApiObject::AudioOutSendData(char* data, int& len) { return m_pSink->SendData(data, len); }

int AudioApiObject::AudioOutDisconnect() { return m_pSink->Disconnect(); }

std::shared_ptr<AudioSink> GetHandlerAudioSink(const DeviceAPIHandler& handler) {
    auto* api = dynamic_cast<AudioApiObject*>(handler.GetObject());
    return api != nullptr ? api->GetSink() : nullptr;
}

}  // namespace tw::host

using tw::host::DeviceKind;

// An unbound handler still names itself in the functor errors of its records.
DevCapHandler::DevCapHandler() : GetAudioOutFormat{nullptr, nullptr, nullptr}, m_pCapObject(nullptr) {
    SetHandlerBase(nullptr, nullptr, tw::host::kCapHandlerName);
}

DevCapHandler::~DevCapHandler() { delete m_pCapObject; }

void DevCapHandler::RegisterTable() { Register(GetAudioOutFormat, TW_FUNC_GET_AUDIO_OUT_FORMAT); }

int DevCapHandler::LoadByCam(Camera& camera) {
    return tw::host::Rebind(*this, m_pCapObject,
                            tw::host::MakeCapObject(DeviceKind::Camera, camera.id),
                            tw::host::CapFuncTableOf(DeviceKind::Camera, camera.id), tw::host::kCapHandlerName);
}

int DevCapHandler::LoadBySpeaker(IPSpeaker& speaker) {
    return tw::host::Rebind(*this, m_pCapObject,
                            tw::host::MakeCapObject(DeviceKind::Speaker, speaker.id),
                            tw::host::CapFuncTableOf(DeviceKind::Speaker, speaker.id), tw::host::kCapHandlerName);
}

int DevCapHandler::LoadByIOModule(IOModule& ioModule) {
    return tw::host::Rebind(*this, m_pCapObject,
                            tw::host::MakeCapObject(DeviceKind::IOModule, ioModule.id),
                            tw::host::CapFuncTableOf(DeviceKind::IOModule, ioModule.id), tw::host::kCapHandlerName);
}

DeviceAPIHandler::DeviceAPIHandler()
    : AudioOutConnect{nullptr, nullptr, nullptr},
      AudioOutSendData{nullptr, nullptr, nullptr},
      AudioOutDisconnect{nullptr, nullptr, nullptr},
      m_pApiObject(nullptr) {
    SetHandlerBase(nullptr, nullptr, tw::host::kApiHandlerName);
}

DeviceAPIHandler::~DeviceAPIHandler() { delete m_pApiObject; }

void DeviceAPIHandler::RegisterTable() {
    Register(AudioOutConnect, TW_FUNC_AUDIO_OUT_CONNECT);
    Register(AudioOutSendData, TW_FUNC_AUDIO_OUT_SEND_DATA);
    Register(AudioOutDisconnect, TW_FUNC_AUDIO_OUT_DISCONNECT);
}

int DeviceAPIHandler::LoadByCamera(Camera& camera) {
    return tw::host::Rebind(*this, m_pApiObject,
                            tw::host::MakeApiObject(DeviceKind::Camera, camera.id),
                            tw::host::ApiFuncTable(), tw::host::kApiHandlerName);
}

int DeviceAPIHandler::LoadBySpeaker(IPSpeaker& speaker) {
    return tw::host::Rebind(*this, m_pApiObject,
                            tw::host::MakeApiObject(DeviceKind::Speaker, speaker.id),
                            tw::host::ApiFuncTable(), tw::host::kApiHandlerName);
}

int DeviceAPIHandler::LoadByIOModule(IOModule& ioModule) {
    return tw::host::Rebind(*this, m_pApiObject,
                            tw::host::MakeApiObject(DeviceKind::IOModule, ioModule.id),
                            tw::host::ApiFuncTable(), tw::host::kApiHandlerName);
}
