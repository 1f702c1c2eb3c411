// The recorder's audio-out services: device records of IP speakers and I/O modules, the
// capability and device API handlers (whose functor slots the plug-in calls), the
// shared-memory audio-out FIFOs that the recorder fills from a user's microphone, and WAV
// file parsing.
#pragma once

#include <string>

#include "tw/handler.h"

class Camera;

// Device types as the recorder numbers them. Every value other than the I/O module and
// the IP speaker is some kind of camera.
enum DEV_TYPE : int {
    DEV_TYPE_CAMERA = 1,
    DEV_TYPE_IOMODULE = 16,
    DEV_TYPE_SPEAKER = 512,
};

constexpr int TW_DEV_NAME_LEN = 64;

// An IP speaker as the recorder stores it. The id is the first field.
class IPSpeaker {
public:
    int id;
    char szName[TW_DEV_NAME_LEN];

    IPSpeaker();
    // Fills the record from the host's device store; 0 on success.
    int Load(int speakerId);
};

// A network I/O module as the recorder stores it. The id is the first field.
class IOModule {
public:
    int id;
    char szName[TW_DEV_NAME_LEN];
    int doCount;   // number of digital outputs

    IOModule();
    // Fills the record from the host's device store; 0 on success.
    int Load(int moduleId);
};

// The audio-out format of a device: codec name, sample rate, bits per sample, channels.
struct CAM_CAP_AUDIO_OUT_FORMAT {
    std::string strCodec;
    int sampleRate;
    int bitsPerSample;
    int channels;
};

// Function IDs of the capability handler's and the device API handler's records.
enum : int {
    TW_FUNC_GET_AUDIO_OUT_FORMAT = 201,
    TW_FUNC_AUDIO_OUT_CONNECT = 301,
    TW_FUNC_AUDIO_OUT_SEND_DATA = 302,
    TW_FUNC_AUDIO_OUT_DISCONNECT = 303,
};

// Capabilities of one device. Once loaded, the GetAudioOutFormat record runs a
// MemFuncInterface<CAM_CAP_AUDIO_OUT_FORMAT> on the device's capability object.
class DevCapHandler : public TWHandlerBase {
public:
    DevCapHandler();
    ~DevCapHandler() override;
    DevCapHandler(const DevCapHandler&) = delete;
    DevCapHandler& operator=(const DevCapHandler&) = delete;

    void RegisterTable() override;
    // Bind the records to the device's capability object; 0 on success.
    int LoadByCam(Camera& camera);
    int LoadBySpeaker(IPSpeaker& speaker);
    int LoadByIOModule(IOModule& ioModule);

    FunctorBase GetAudioOutFormat;

private:
    DPObjectBase* m_pCapObject;
};

// The API of one device. Once loaded, the audio-out records run on the device's audio
// sink: AudioOutConnect (MemFuncInterface<int>, 0 when connected), AudioOutSendData
// (MemFuncInterface<int, char*, int&>: sends the bytes and sets the length to the count
// sent, 0 or less on failure) and AudioOutDisconnect (MemFuncInterface<int>).
class DeviceAPIHandler : public TWHandlerBase {
public:
    DeviceAPIHandler();
    ~DeviceAPIHandler() override;
    DeviceAPIHandler(const DeviceAPIHandler&) = delete;
    DeviceAPIHandler& operator=(const DeviceAPIHandler&) = delete;

    void RegisterTable() override;
    // Bind the records to the device's API object (replacing an earlier binding); 0 on
    // success.
    int LoadByCamera(Camera& camera);
    int LoadBySpeaker(IPSpeaker& speaker);
    int LoadByIOModule(IOModule& ioModule);

    FunctorBase AudioOutConnect;
    FunctorBase AudioOutSendData;
    FunctorBase AudioOutDisconnect;

private:
    DPObjectBase* m_pApiObject;
};

// The audio-out FIFO of one device in System V shared memory: the recorder writes the
// user's audio into it, the audio-out thread reads it. Obtained from AudioOutFifoAt or
// IPSpeakerAudioOutFifoAt and released with shmdt.
class ShmAudioOutFifo {
public:
    // Discards the audio queued so far.
    void Reset();
    // Copies up to size queued bytes into buf; returns the count, 0 when nothing is queued.
    int GetData(unsigned char* buf, int size);

    ShmAudioOutFifo() = delete;
    ShmAudioOutFifo(const ShmAudioOutFifo&) = delete;
};

// Attach the audio-out FIFO of a camera or I/O module, or of an IP speaker; null when the
// device has none.
ShmAudioOutFifo* AudioOutFifoAt(int devId);
ShmAudioOutFifo* IPSpeakerAudioOutFifoAt(int speakerId);

// The byte offset of the sample data of a WAV file (the start of the "data" chunk's
// contents), or -1 when the file cannot be read, is not a RIFF/WAVE file or has no data
// chunk.
int GetWavAudioFileDataStartPos(const std::string& path);
