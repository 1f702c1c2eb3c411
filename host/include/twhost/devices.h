// The host's records of audio-out devices: cameras (their audio part; the camera itself is
// in the camera store of twhost/stores.h), IP speakers and I/O modules. IPSpeaker::Load,
// IOModule::Load and the capability and device API handlers of tw/audio.h read them.
//
// A record's sink address says where the device's audio goes (see twhost/audiosink.h); a test
// may instead put a sink object of its own into the record, which every device API handler
// loaded for the device then shares, so the test can read what arrived after the handler
// is gone.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "tw/audio.h"

namespace tw::host {

class AudioSink;

enum class DeviceKind { Camera, Speaker, IOModule };

// The kind a recorder's device type stands for: 16 I/O module, 512 IP speaker, anything
// else a camera.
DeviceKind DeviceKindOfType(int devType);
// "camera", "IP speaker", "I/O module".
const char* DeviceKindName(DeviceKind kind);

struct AudioDeviceRecord {
    std::string strName;                 // speakers and I/O modules; cameras keep theirs
    int doCount = 0;                     // digital outputs of an I/O module
    bool blAudioOut = false;             // the device has an audio output at all
    // The device's driver answers the audio-out format query. Some older drivers do not:
    // their capability handler then loads, but its format record runs nothing.
    bool blFormatQuery = true;
    CAM_CAP_AUDIO_OUT_FORMAT format{"", 0, 0, 0};
    std::string strSinkAddress;             // used when pSink is null
    std::shared_ptr<AudioSink> pSink;    // shared by every handler of the device when set
};

class DeviceStore {
public:
    static DeviceStore& Instance();
    void Put(DeviceKind kind, int id, const AudioDeviceRecord& record);
    void Remove(DeviceKind kind, int id);
    std::optional<AudioDeviceRecord> Get(DeviceKind kind, int id);
    // Forgets every record and every sink noted.
    void Clear();

    // The sink that a device API handler uses for the device now, or the last one it made
    // while it is still alive; null when none. For tests and the tools.
    std::shared_ptr<AudioSink> GetActiveSink(DeviceKind kind, int id);
    void NoteActiveSink(DeviceKind kind, int id, const std::shared_ptr<AudioSink>& sink);

private:
    using Key = std::pair<int, int>;
    static Key KeyOf(DeviceKind kind, int id) { return {static_cast<int>(kind), id}; }

    std::mutex m_Mutex;
    std::map<Key, AudioDeviceRecord> m_Records;
    std::map<Key, std::weak_ptr<AudioSink>> m_ActiveSinks;
};

// The sink behind a loaded device API handler (null when it is not bound).
std::shared_ptr<AudioSink> GetHandlerAudioSink(const DeviceAPIHandler& handler);

// Why the last Load... of a capability or device API handler on this thread failed
// ("no IP speaker 7", "camera 3 has no audio output", a bad sink address); the recorder's
// interface only has -1 for it.
std::string GetLastAudioDeviceError();

// The host objects behind the handlers' records. The function tables of the two classes
// (IDs of tw/audio.h) are static objects of the host, complete before first use.
class AudioCapObject : public DPObjectBase {
public:
    explicit AudioCapObject(const CAM_CAP_AUDIO_OUT_FORMAT& format) : m_Format(format) {}
    CAM_CAP_AUDIO_OUT_FORMAT GetAudioOutFormat() { return m_Format; }

private:
    CAM_CAP_AUDIO_OUT_FORMAT m_Format;
};

class AudioApiObject : public DPObjectBase {
public:
    explicit AudioApiObject(std::shared_ptr<AudioSink> sink) : m_pSink(std::move(sink)) {}
    ~AudioApiObject() override;
    int AudioOutConnect();
    int AudioOutSendData(char* data, int& len);
    int AudioOutDisconnect();
    const std::shared_ptr<AudioSink>& GetSink() const { return m_pSink; }

private:
    std::shared_ptr<AudioSink> m_pSink;
};

}  // namespace tw::host
