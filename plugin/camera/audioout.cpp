#include "camera/audioout.h"

#include <sys/shm.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "interface/handlerutils.h"
#include "interface/twlog.h"
#include "tw/camera.h"
#include "tw/devstatus.h"
#include "tw/time.h"

#define TW_LOG_CATEG LOG_CATEG_AUDIOOUT

namespace {

constexpr size_t kThreadStackBytes = 0x100000;
constexpr useconds_t kRetrySleepUs = 300000;
// Consecutive failures (connects, empty reads, sends) that end a phase: the eleventh.
constexpr int kMaxRetries = 10;
constexpr int kFileConnectAttempts = 11;
// Taken off every paced chunk of a file, so that the device's buffer never runs dry.
constexpr int kChunkLeadUs = 50000;

// The connect and disconnect slots: MemFuncInterface<int>, no arguments.
int RunSlot(const FunctorBase& record) { return RunFunctor<int>(record); }
void RunSendData(const FunctorBase& record, char* buf, int& len) {
    RunFunctor<int, char*, int&>(record, buf, len);
}

}  // namespace

// ---------------------------------------------------------------------------------------
// Thread bookkeeping

AudioOutThreadField::AudioOutThreadField() : m_blActivated(false) {
    pthread_mutex_init(&m_Mutex, nullptr);
}

AudioOutThreadField::~AudioOutThreadField() {
    // Waits out a holder before the mutex goes.
    pthread_mutex_lock(&m_Mutex);
    pthread_mutex_unlock(&m_Mutex);
    pthread_mutex_destroy(&m_Mutex);
}

void AudioOutThreadField::Init() {
    pthread_mutex_lock(&m_Mutex);
    m_blActivated = false;
    pthread_mutex_unlock(&m_Mutex);
}

void AudioOutThreadField::SetActivatedFlag(bool blActivated) {
    pthread_mutex_lock(&m_Mutex);
    m_blActivated = blActivated;
    pthread_mutex_unlock(&m_Mutex);
}

bool AudioOutThreadField::GetActivatedFlag() {
    pthread_mutex_lock(&m_Mutex);
    const bool blActivated = m_blActivated;
    pthread_mutex_unlock(&m_Mutex);
    return blActivated;
}

void AudioOutThreadField::SetThreadId(unsigned long threadId) {
    pthread_mutex_lock(&m_Mutex);
    m_ThreadId = threadId;
    pthread_mutex_unlock(&m_Mutex);
}

std::optional<unsigned long> AudioOutThreadField::GetThreadId() {
    pthread_mutex_lock(&m_Mutex);
    const std::optional<unsigned long> threadId = m_ThreadId;
    pthread_mutex_unlock(&m_Mutex);
    return threadId;
}

void AudioOutThreadField::ClearThreadId() { m_ThreadId.reset(); }

void AudioOutThreadField::SetFilePath(const std::string& path) {
    pthread_mutex_lock(&m_Mutex);
    m_strFilePath = path;
    pthread_mutex_unlock(&m_Mutex);
}

std::string AudioOutThreadField::GetFilePath() {
    pthread_mutex_lock(&m_Mutex);
    std::string path = m_strFilePath;
    pthread_mutex_unlock(&m_Mutex);
    return path;
}

// ---------------------------------------------------------------------------------------
// Object, device and format

AudioOut::AudioOut(int devId, int devType)
    : m_DevId(devId),
      m_DevType(devType),
      m_FormatA(0),
      m_FormatB(0),
      m_Channels(0),
      m_ByteRate(0),
      m_blManual(false) {
    pthread_mutex_init(&m_Mutex, nullptr);
}

AudioOut::~AudioOut() {
    Stop();
    pthread_mutex_lock(&m_Mutex);
    pthread_mutex_unlock(&m_Mutex);
    pthread_mutex_destroy(&m_Mutex);
}

int AudioOut::Init() {
    DevCapHandler capHandler;
    if (m_DevId < 1) {
        TWLOG(3, "Device[%d]: Invalid cam id\n", m_DevId);
        return -1;
    }
    if (m_DevType == DEV_TYPE_IOMODULE) {
        IOModule ioModule;
        if (ioModule.Load(m_DevId) != 0 || capHandler.LoadByIOModule(ioModule) != 0) {
            TWLOG(3, "IOModule[%d]: Failed to get capability.\n", m_DevId);
            return -1;
        }
        m_DevApiHandler.LoadByIOModule(ioModule);
    } else if (m_DevType == DEV_TYPE_SPEAKER) {
        IPSpeaker speaker;
        if (speaker.Load(m_DevId) != 0 || capHandler.LoadBySpeaker(speaker) != 0) {
            TWLOG(3, "Speaker[%d]: Failed to get capability.\n", m_DevId);
            return -1;
        }
        m_DevApiHandler.LoadBySpeaker(speaker);
    } else {
        Camera camera;
        if (camera.Load(m_DevId, 0, 0) != 0 || capHandler.LoadByCam(camera) != 0) {
            TWLOG(3, "Cam[%d]: Failed to get capability.\n", m_DevId);
            return -1;
        }
        m_DevApiHandler.LoadByCamera(camera);
    }

    // An unusable slot logs its error and yields an empty format, which fails below.
    CAM_CAP_AUDIO_OUT_FORMAT format = RunFunctor<CAM_CAP_AUDIO_OUT_FORMAT>(capHandler.GetAudioOutFormat);
    m_strCodec = std::move(format.strCodec);
    m_FormatA = format.sampleRate;
    m_FormatB = format.bitsPerSample;
    m_Channels = format.channels;
    if (m_strCodec.empty() || m_FormatA == 0 || m_FormatB == 0 || m_Channels == 0) {
        TWLOG(3, "Device[%d]: Failed to get audio output format.\n", m_DevId);
        return -1;
    }
    // 32-bit arithmetic as the device's numbers come, wrapping rather than trapping.
    const unsigned int product = static_cast<unsigned int>(m_FormatA) * static_cast<unsigned int>(m_FormatB) *
                                 static_cast<unsigned int>(m_Channels);
    m_ByteRate = static_cast<int>(product) / 8;
    return 0;
}

int AudioOut::ResampleToOneChannel(char* buf, int len) {
    // Keeps every even-indexed byte: exact for interleaved two-channel audio of one byte
    // per sample. An odd length copies one byte more than it returns.
    if (len >= 1) {
        const int copies = len / 2 + len % 2;
        for (int i = 0; i < copies; ++i) buf[i] = buf[2 * i];
    }
    return len / 2;
}

// ---------------------------------------------------------------------------------------
// Start, stop and the thread

bool AudioOut::IsManualOutputing() {
    pthread_mutex_lock(&m_Mutex);
    const bool blManual = __atomic_load_n(&m_blManual, __ATOMIC_RELAXED) && m_ThreadField.GetActivatedFlag();
    pthread_mutex_unlock(&m_Mutex);
    return blManual;
}

int AudioOut::Start(bool manual) { return Start(std::string(), manual); }

int AudioOut::Start(const std::string& filePath, bool manual) {
    if (m_DevId < 1 || m_ByteRate < 1) {
        TWLOG(3, "Device[%d]: Invalid cam id or byterate %d.\n", m_DevId, m_ByteRate);
        return -1;
    }
    // Read without the lock on purpose: an automatic output is replaced, a manual one is
    // protected from being replaced.
    if (!__atomic_load_n(&m_blManual, __ATOMIC_RELAXED)) Stop();

    pthread_mutex_lock(&m_Mutex);
    if (m_ThreadField.GetActivatedFlag()) {
        pthread_mutex_unlock(&m_Mutex);
        return -1;
    }
    __atomic_store_n(&m_blManual, manual, __ATOMIC_RELAXED);
    TWLOG(4, "Device[%d]: Start audio file[%s] out thread.\n", m_DevId, filePath.c_str());
    m_ThreadField.SetFilePath(filePath);
    m_ThreadField.SetActivatedFlag(true);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kThreadStackBytes);
    pthread_t thread;
    int result = 0;
    if (pthread_create(&thread, &attr, AudioOutThreadFunc, this) != 0) {
        m_ThreadField.SetFilePath(std::string());
        m_ThreadField.SetActivatedFlag(false);
        result = -1;
    } else {
        // A manual output that ended by itself skipped the Stop above, so its thread was
        // never joined; its id is about to be replaced and no one could join it later.
        // Detached, it gives its stack back as soon as it has run out.
        const std::optional<unsigned long> finished = m_ThreadField.GetThreadId();
        if (finished) pthread_detach(static_cast<pthread_t>(*finished));
        m_ThreadField.SetThreadId(static_cast<unsigned long>(thread));
    }
    pthread_attr_destroy(&attr);
    pthread_mutex_unlock(&m_Mutex);
    return result;
}

int AudioOut::Stop() {
    pthread_mutex_lock(&m_Mutex);
    // Cleared before the join: an output ended by Stop leaves the manual trigger alone.
    __atomic_store_n(&m_blManual, false, __ATOMIC_RELAXED);
    if (m_ThreadField.GetActivatedFlag()) {
        TWLOG(4, "Device[%d]: Stop audio out thread.\n", m_DevId);
        m_ThreadField.SetActivatedFlag(false);
    }
    const std::optional<unsigned long> threadId = m_ThreadField.GetThreadId();
    if (threadId) {
        pthread_join(static_cast<pthread_t>(*threadId), nullptr);
        m_ThreadField.ClearThreadId();
    }
    pthread_mutex_unlock(&m_Mutex);
    return 0;
}

void* AudioOut::AudioOutThreadFunc(void* self) {
    AudioOut* out = static_cast<AudioOut*>(self);
    if (!out->m_ThreadField.GetFilePath().empty()) {
        out->FileAudioOutThreadMain();
    } else {
        out->LiveAudioOutThreadMain();
    }
    return nullptr;
}

void AudioOut::ClearManualAOTrigIfManual() {
    if (!__atomic_load_n(&m_blManual, __ATOMIC_RELAXED)) return;
    TWDevStatus* status = TWCamStatusAt(m_DevId);
    if (status == nullptr) return;
    status->SetManualAOTrig(false);
    shmdt(status);
}

// ---------------------------------------------------------------------------------------
// Live output

int AudioOut::LiveAudioOutThreadMain() {
    ShmAudioOutFifo* fifo =
        m_DevType == DEV_TYPE_SPEAKER ? IPSpeakerAudioOutFifoAt(m_DevId) : AudioOutFifoAt(m_DevId);
    if (fifo == nullptr) {
        // Returns without the clean-up on purpose: the output stays "running" until Stop.
        TWLOG(3, "Device[%d]: Can not attach audio out shared memory.\n", m_DevId);
        return 0;
    }
    const int chunkBytes = m_ByteRate / 2;
    char* buffer = static_cast<char*>(malloc(chunkBytes > 0 ? chunkBytes : 1));
    int connectFailures = 0;
    int emptyReads = 0;
    int sendFailures = 0;

    bool blConnecting = true;
    for (;;) {
        if (blConnecting) {
            connectFailures = 0;
            bool blConnected = false;
            while (m_ThreadField.GetActivatedFlag()) {
                if (RunSlot(m_DevApiHandler.AudioOutConnect) == 0) {
                    blConnected = true;
                    break;
                }
                if (++connectFailures > kMaxRetries) {
                    TWLOG(4, "Device[%d]: Connect failed.\n", m_DevId);
                    break;
                }
                usleep(kRetrySleepUs);
            }
            if (!blConnected) break;
            fifo->Reset();
            emptyReads = 0;
            sendFailures = 0;
            blConnecting = false;
        }
        // A cleared flag ends the output through the connect phase, which sees it first.
        if (!m_ThreadField.GetActivatedFlag()) break;
        // The pace is the FIFO's and the device's: no delay is awaited in live output.
        DelayTimer timer(0);
        timer.BeginTiming();
        int len = fifo->GetData(reinterpret_cast<unsigned char*>(buffer), chunkBytes);
        if (m_Channels == 1) len = ResampleToOneChannel(buffer, len);
        if (len <= 0) {
            if (++emptyReads > kMaxRetries) {
                TWLOG(4, "Device[%d]: No audio data in share memory.\n", m_DevId);
                break;
            }
            usleep(kRetrySleepUs);
            continue;
        }
        RunSendData(m_DevApiHandler.AudioOutSendData, buffer, len);
        if (len > 0) {
            emptyReads = 0;
            sendFailures = 0;
            continue;
        }
        if (++sendFailures > kMaxRetries) {
            TWLOG(4, "Failed to send audio data.\n");
            blConnecting = true;   // a fresh connect phase, without a disconnect
            continue;
        }
        usleep(kRetrySleepUs);
        RunSlot(m_DevApiHandler.AudioOutDisconnect);
        RunSlot(m_DevApiHandler.AudioOutConnect);
        emptyReads = 0;
    }

    free(buffer);
    RunSlot(m_DevApiHandler.AudioOutDisconnect);
    m_ThreadField.SetActivatedFlag(false);
    ClearManualAOTrigIfManual();
    shmdt(fifo);
    TWLOG(4, "Device[%d]: Stop audio out thread done.\n", m_DevId);
    return 0;
}

// ---------------------------------------------------------------------------------------
// File output

int AudioOut::FileAudioOutThreadMain() {
    const int chunkBytes = m_ByteRate / 2;
    char* buffer = static_cast<char*>(malloc(chunkBytes > 0 ? chunkBytes : 1));
    const std::string path = m_ThreadField.GetFilePath();
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr) {
        TWLOG(3, "Open file [%s] failed!\n", path.c_str());
    } else {
        // A failed seek is not fatal: the file is then played from where it stands.
        const int ret = fseek(file, GetWavAudioFileDataStartPos(path), SEEK_SET);
        if (ret != 0) TWLOG(3, "File audio out has seek error with ret [%d].\n", ret);

        bool blPlay = true;
        int countdown = kFileConnectAttempts;
        while (m_ThreadField.GetActivatedFlag()) {
            if (RunSlot(m_DevApiHandler.AudioOutConnect) == 0) break;
            if (--countdown == 0) {
                TWLOG(4, "Device[%d]: Connect failed.\n", m_DevId);
                blPlay = false;
                break;
            }
            usleep(kRetrySleepUs);
        }

        int sendFailures = 0;
        while (blPlay && !feof(file) && m_ThreadField.GetActivatedFlag()) {
            // Pacing counts the time spent reading and sending within each chunk's period.
            DelayTimer timer(0);
            timer.BeginTiming();
            int len = static_cast<int>(fread(buffer, 1, static_cast<size_t>(chunkBytes), file));
            if (m_Channels == 1) len = ResampleToOneChannel(buffer, len);
            // Sent also when nothing was read: the device is told of the empty chunk.
            RunSendData(m_DevApiHandler.AudioOutSendData, buffer, len);
            if (len > 0) {
                const int delayUs = static_cast<int>(static_cast<float>(len) / static_cast<float>(m_ByteRate) *
                                                     1000000.0f) -
                                    kChunkLeadUs;
                timer.SetDelayTime(delayUs);
                timer.Delay();
                sendFailures = 0;
                continue;
            }
            if (++sendFailures > kMaxRetries) {
                TWLOG(4, "Failed to send audio data.\n");
                break;
            }
            usleep(kRetrySleepUs);
            RunSlot(m_DevApiHandler.AudioOutDisconnect);
            RunSlot(m_DevApiHandler.AudioOutConnect);
        }
    }

    free(buffer);
    RunSlot(m_DevApiHandler.AudioOutDisconnect);
    m_ThreadField.SetActivatedFlag(false);
    ClearManualAOTrigIfManual();
    if (file != nullptr) fclose(file);
    TWLOG(4, "Device[%d]: Stop audio out thread done.\n", m_DevId);
    return 0;
}
