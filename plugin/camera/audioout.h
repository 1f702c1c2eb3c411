// Audio output to one device of the recorder (a camera's speaker output, an IP speaker or
// an I/O module's audio output): live from the device's shared-memory audio FIFO, or a WAV
// file played once, in half-second chunks through the device API handler's audio slots.
#pragma once

#include <pthread.h>

#include <optional>
#include <string>

#include "interface/twexport.h"
#include "tw/audio.h"

// What the controlling thread and the audio thread share: the file to play (empty: live),
// whether output is wanted, and the thread's id. Every accessor but ClearThreadId takes the
// record's own mutex.
class TW_EXPORT AudioOutThreadField {
public:
    AudioOutThreadField();
    ~AudioOutThreadField();
    AudioOutThreadField(const AudioOutThreadField&) = delete;
    AudioOutThreadField& operator=(const AudioOutThreadField&) = delete;

    void Init();
    void SetActivatedFlag(bool blActivated);
    bool GetActivatedFlag();
    void SetThreadId(unsigned long threadId);
    std::optional<unsigned long> GetThreadId();
    // Unlocked: called only by AudioOut::Stop under its own mutex, after the join.
    void ClearThreadId();
    void SetFilePath(const std::string& path);
    std::string GetFilePath();

private:
    std::string m_strFilePath;
    bool m_blActivated;
    pthread_mutex_t m_Mutex;
    std::optional<unsigned long> m_ThreadId;
};

class TW_EXPORT AudioOut {
public:
    AudioOut(int devId, int devType);
    ~AudioOut();
    AudioOut(const AudioOut&) = delete;
    AudioOut& operator=(const AudioOut&) = delete;

    int Init();
    int ResampleToOneChannel(char* buf, int len);
    bool IsManualOutputing();
    int Start(const std::string& filePath, bool manual);
    int Start(bool manual);
    int Stop();

    static void* AudioOutThreadFunc(void* self);
    int LiveAudioOutThreadMain();
    int FileAudioOutThreadMain();

private:
    friend struct AudioOutAccess;   // white-box checks of the format fields

    // The end of a worker that stopped by itself: a manual output hands the device's
    // manual audio-out trigger back.
    void ClearManualAOTrigIfManual();

    int m_DevId;
    int m_DevType;
    std::string m_strCodec;
    int m_FormatA;
    int m_FormatB;
    int m_Channels;
    int m_ByteRate;
    bool m_blManual;
    pthread_mutex_t m_Mutex;
    DeviceAPIHandler m_DevApiHandler;
    AudioOutThreadField m_ThreadField;
};
