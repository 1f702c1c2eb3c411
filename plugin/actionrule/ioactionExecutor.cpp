#include "actionrule/ioactionExecutor.h"

#include <time.h>

#include <json/json.h>

#include "interface/jsonanswer.h"
#include "interface/twlog.h"
#include "tw/iomodule.h"

// Messages of this file carry the line numbers the recorder's log readers know them by.
#define IOACT_LOG(level, line, func, ...) \
    TW_LOG_AT(LOG_CATEG_IOACTION, (level), (line), (func), __VA_ARGS__)

namespace {

constexpr size_t kThreadStackBytes = 524288;
// A held output is looked at again after this many counts (re-asserted in mode 1).
constexpr unsigned long long kHoldRecheckCount = 600;
constexpr long long kDurationUntilStopped = -2;

enum : int { kCmdNone = 0, kCmdStart = 1, kCmdStop = 2 };
enum : int { kStsIdle = 0, kStsActive = 1, kStsManual = 2, kStsStartFailed = 3 };
// The manual digital-output state that hands a port over to the user.
constexpr int kManualDOPending = 2;

const char kIOModuleApi[] = "ORVA.Korvane.IOModule";
const char kPortSettingMethod[] = "PortSetting";
const char kApiUser[] = "admin";

// The sum of a pattern length and a gap, as the 32-bit sum the action stores.
int PeriodSum(int length, int gap) {
    return static_cast<int>(static_cast<unsigned int>(length) + static_cast<unsigned int>(gap));
}

}  // namespace

// Switches one digital output through the recorder's web API, marked as an action rule's
// request. 0 when the web API answered with success.
int SetDOPortState(int moduleId, bool triggerState, int portIndex) {
    Json::Value request(Json::objectValue);
    Json::Value port(Json::objectValue);
    Json::Value response;
    request["id"] = moduleId;
    port["idx"] = portIndex;
    port["trigger_state"] = triggerState;
    request["DIOdata"] = Json::Value(Json::arrayValue);
    request["DIOdata"].append(port);
    request["blActRule"] = true;
    ORVA::APIRunner::Exec(response, kIOModuleApi, 1, kPortSettingMethod, request, kApiUser);
    return AnswerSucceeded(response) ? 0 : -1;
}

// ---------------------------------------------------------------------------------------
// Object and status

IOActExecutor::IOActExecutor()
    : m_blRunning(false),
      m_blSkipWait(false),
      m_ModuleId(0),
      m_pDevApiHandler(nullptr),
      m_Thread(),
      m_pIOStatus(nullptr),
      m_Cond(),
      m_blInited(false),
      m_blThreadCreated(false) {
    pthread_mutex_init(&m_Mutex, nullptr);
    // A new executor reports the audio action as idle before anything else happens.
    m_ActStatus[IOACT_TYPE_AUDIO_OUT] = kStsIdle;
}

IOActExecutor::~IOActExecutor() {
    // A running executor is ended first: its worker uses this object to the last pass.
    if (m_blInited) Terminate();
    pthread_mutex_destroy(&m_Mutex);
}

int IOActExecutor::Init(int moduleId, int doCount, DeviceAPIHandler* deviceApi,
                        IOModuleStatus* ioStatus) {
    pthread_mutex_lock(&m_Mutex);
    m_ModuleId = moduleId;
    m_pDevApiHandler = deviceApi;
    m_pIOStatus = ioStatus;
    for (int i = 0; i < doCount; ++i) m_DOStatus[i] = kStsIdle;
    m_blRunning = true;
    // One worker per executor: a repeated Init only refreshes the module's data.
    if (m_blInited) {
        pthread_mutex_unlock(&m_Mutex);
        return 0;
    }
    pthread_attr_t attr;
    pthread_condattr_t condAttr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, kThreadStackBytes);
    pthread_condattr_init(&condAttr);
    pthread_condattr_setclock(&condAttr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_Cond, &condAttr);
    m_blInited = true;
    // The worker starts with a wait for the mutex held here.
    if (pthread_create(&m_Thread, &attr, ThreadFuncExcute, this) != 0) {
        // Only logged: the requests are still recorded, nothing carries them out.
        IOACT_LOG(1, 94, "Init", "Failed to create thread.\n");
    } else {
        m_blThreadCreated = true;
    }
    pthread_condattr_destroy(&condAttr);
    pthread_attr_destroy(&attr);
    pthread_mutex_unlock(&m_Mutex);
    return 0;
}

int IOActExecutor::GetStatus(std::map<int, int>& actSts, std::map<int, int>& doSts) {
    pthread_mutex_lock(&m_Mutex);
    if (&actSts != &m_ActStatus) actSts = m_ActStatus;
    if (&doSts != &m_DOStatus) doSts = m_DOStatus;
    return pthread_mutex_unlock(&m_Mutex);
}

// ---------------------------------------------------------------------------------------
// Action dispatch

int IOActExecutor::DoAction(int actFlags, const std::map<int, IOActExecCond>& audioConds,
                            const std::map<int, IOActExecCond>& doConds, bool /*extraFlag*/) {
    const bool blAudio = (actFlags & IOACT_FLAG_AUDIO_OUT) != 0;
    const bool blDO = (actFlags & (IOACT_FLAG_DO_TRIGGER | IOACT_FLAG_DO_UNTRIGGER)) != 0;
    if (!blAudio && !blDO) return 0;
    bool blWake = false;

    if (blAudio) {
        // A request with the audio bit names the audio action; without it there is nothing
        // to start.
        const auto it = audioConds.find(IOACT_TYPE_AUDIO_OUT);
        if (it != audioConds.end()) {
            const IOActExecCond& cond = it->second;
            AudioPattern pattern;
            pthread_mutex_lock(&m_Mutex);
            if (cond.blStop) {
                // Carried out in the worker's next ordinary pass: a stop does not wake it.
                m_AudioCmd[IOACT_TYPE_AUDIO_OUT] = kCmdStop;
            } else if (pattern.Load(cond.audioPatternId) != 0) {
                IOACT_LOG(3, 421, "DoAction", "Failed to load audio pattern [%d].\n",
                          cond.audioPatternId);
            } else {
                // A single play needs no gap after it.
                const int gap = (cond.holdMode == 0 && cond.times == 1)
                                    ? 1
                                    : static_cast<int>(cond.period);
                m_AudioCmd[IOACT_TYPE_AUDIO_OUT] = kCmdStart;
                m_AudioTimes[IOACT_TYPE_AUDIO_OUT] = cond.times;
                m_AudioPeriod[IOACT_TYPE_AUDIO_OUT] = PeriodSum(pattern.GetLength(), gap);
                m_AudioHoldMode[IOACT_TYPE_AUDIO_OUT] = cond.holdMode;
                m_strAudioFilePath = pattern.GetFilePath();
                blWake = true;
            }
            pthread_mutex_unlock(&m_Mutex);
        }
        if (!blDO) {
            if (blWake) WakeWorker();
            return 0;
        }
    }

    pthread_mutex_lock(&m_Mutex);
    for (const auto& entry : doConds) {
        const int port = entry.first;
        const IOActExecCond& cond = entry.second;
        m_DOCmd[port] = cond.blStop ? kCmdStop : kCmdStart;
        m_DODuration[port] = cond.period;
        m_DOHoldMode[port] = cond.holdMode;
        m_DOActFlags[port] = actFlags;
        if (m_DOCmd[port] == kCmdStart) blWake = true;
    }
    pthread_mutex_unlock(&m_Mutex);
    if (blWake) WakeWorker();
    return 0;
}

void IOActExecutor::WakeWorker() {
    pthread_mutex_lock(&m_Mutex);
    // Before Init there is no condition and no worker to wake.
    // A worker that is in a pass rather than in its wait misses the signal, as it always
    // has: the request then waits for the next pass, at most a second.
    if (m_blInited) pthread_cond_signal(&m_Cond);
    pthread_mutex_unlock(&m_Mutex);
}

// The passes keep the executor's mutex while they read and write the maps, so no map is
// ever changed by two threads at once, and let go of it while they call into the host (the
// web API, the I/O-module daemon, the module's status record, the log): those calls may
// take seconds, and host code run by them may call GetStatus on this very thread.
namespace {

class MutexReleaser {
public:
    explicit MutexReleaser(pthread_mutex_t& mutex) : m_Mutex(mutex) { pthread_mutex_unlock(&m_Mutex); }
    ~MutexReleaser() { pthread_mutex_lock(&m_Mutex); }
    MutexReleaser(const MutexReleaser&) = delete;
    MutexReleaser& operator=(const MutexReleaser&) = delete;

private:
    pthread_mutex_t& m_Mutex;
};

}  // namespace

int IOActExecutor::SetDOPortStateUnlocked(int moduleId, bool triggerState, int portIndex) {
    MutexReleaser released(m_Mutex);
    return SetDOPortState(moduleId, triggerState, portIndex);
}

// ---------------------------------------------------------------------------------------
// Digital outputs

void IOActExecutor::ExecDO() {
    pthread_mutex_lock(&m_Mutex);
    ExecDOLocked();
    pthread_mutex_unlock(&m_Mutex);
}

void IOActExecutor::ExecDOLocked() {
    const int moduleId = m_ModuleId;
    // Map iterators and references stay valid while other threads insert (nothing is ever
    // erased), and every access below happens with the mutex held.
    for (auto it = m_DOCmd.begin(); it != m_DOCmd.end(); ++it) {
        const int port = it->first;
        int& checkCount = m_DOCheckCount[port];
        const bool trig = (m_DOActFlags[port] & IOACT_FLAG_DO_TRIGGER) != 0;
        TimeCount& timer = m_DOTimer[port];
        const int cmd = it->second;

        if (cmd == kCmdStart) {
            checkCount = 1;
            m_blSkipWait = true;
            const bool blFailed = SetDOPortStateUnlocked(moduleId, trig, port) != 0;
            timer.SetCountingTime(1);
            timer.BeginCountFromNow();
            // A failed start is driven back to the normal state in the next pass. A request
            // that came in while the port was being switched stands for the next pass.
            if (it->second == cmd) it->second = blFailed ? kCmdStop : kCmdNone;
            m_DOStatus[port] = blFailed ? kStsStartFailed : kStsActive;
        } else if (cmd == kCmdStop) {
            if (SetDOPortStateUnlocked(moduleId, !trig, port) != 0) {
                MutexReleaser released(m_Mutex);
                IOACT_LOG(4, 317, "ExecDO", "IOModule[%d] failed to stop digital out [%d].\n",
                          moduleId, port);
            }
            // A manual take-over or a failed start stays visible to the host.
            if (m_DOStatus[port] == kStsActive) m_DOStatus[port] = kStsIdle;
            timer.SetCountingTime(1);
            timer.BeginCountFromNow();
            if (it->second == cmd) it->second = kCmdNone;
        } else if (cmd == kCmdNone) {
            if (!timer.IsExceed()) continue;
            if (m_DOStatus[port] != kStsActive) continue;
            // A finished port ends the pass: the ports after it wait for the next one.
            if (IsDOFinishedLocked(moduleId, port)) return;
            ++checkCount;
            timer.BeginCountFromNow();
        } else {
            MutexReleaser released(m_Mutex);
            IOACT_LOG(3, 342, "ExecDO", "IOModule[%d]: Error command in digital output.\n",
                      moduleId);
        }
    }
}

bool IOActExecutor::IsDOFinished(int portIndex) {
    pthread_mutex_lock(&m_Mutex);
    const bool blFinished = IsDOFinishedLocked(m_ModuleId, portIndex);
    pthread_mutex_unlock(&m_Mutex);
    return blFinished;
}

bool IOActExecutor::IsDOFinishedLocked(int moduleId, int portIndex) {
    const int count = m_DOCheckCount[portIndex];
    TimeCount& timer = m_DOTimer[portIndex];
    const int mode = m_DOHoldMode[portIndex];

    if (mode == 0) {
        if (m_DODuration[portIndex] == kDurationUntilStopped) {
            timer.SetCountingTime(kHoldRecheckCount);
            return false;
        }
        // The first check comes one count after the start; the hold is counted from there.
        if (count < 2) {
            timer.SetCountingTime(static_cast<unsigned long long>(m_DODuration[portIndex]));
            return false;
        }
        m_DOCmd[portIndex] = kCmdStop;
        return true;
    }
    if (mode == 1) {
        if (count < 2) {
            timer.SetCountingTime(kHoldRecheckCount);
            return false;
        }
        // Re-asserted in the trigger state true, whatever the request's flags chose.
        if (SetDOPortStateUnlocked(moduleId, true, portIndex) != 0) {
            MutexReleaser released(m_Mutex);
            IOACT_LOG(4, 191, "IsDOFinished", "IOModule[%d] failed to do digital output.\n",
                      moduleId);
        }
        timer.SetCountingTime(kHoldRecheckCount);
        return false;
    }
    // Any other mode holds the output until a stop arrives.
    return false;
}

// ---------------------------------------------------------------------------------------
// Audio out

int IOActExecutor::DoAudioOut() {
    pthread_mutex_lock(&m_Mutex);
    const int moduleId = m_ModuleId;
    const std::string path = m_strAudioFilePath;
    pthread_mutex_unlock(&m_Mutex);
    return SendAudioOut(moduleId, path);
}

int IOActExecutor::SendAudioOut(int moduleId, const std::string& path) {
    Json::Value request(Json::objectValue);
    request["isManual"] = false;
    request["filePath"] = path;
    if (IOModuledApi::SendCmd(moduleId, IOMODULED_CMD_FILE_AUDIO_OUT_START, request, nullptr) != 0) {
        IOACT_LOG(3, 223, "DoAudioOut", "IOModule[%d]: Failed to send start file[%s] audio out cmd.\n",
                  moduleId, path.c_str());
    }
    // A play that could not be sent counts as played: the action's timing goes on.
    return 0;
}

void IOActExecutor::ExecAudioOut() {
    pthread_mutex_lock(&m_Mutex);
    ExecAudioOutLocked();
    pthread_mutex_unlock(&m_Mutex);
}

void IOActExecutor::ExecAudioOutLocked() {
    const int actType = IOACT_TYPE_AUDIO_OUT;
    int& playCount = m_AudioPlayCount[actType];
    TimeCount& timer = m_AudioTimer[actType];
    int& cmd = m_AudioCmd[actType];

    if (cmd == kCmdStart) {
        m_blSkipWait = true;
        playCount = 1;
        m_ActStatus[actType] = kStsActive;
        cmd = kCmdNone;
        // The first play goes out in the very next pass.
        timer.SetCountingTime(0);
        timer.BeginCountFromNow();
        return;
    }
    if (cmd == kCmdStop) {
        // No command goes to the daemon: a play in progress ends by itself.
        if (m_ActStatus[actType] == kStsActive) m_ActStatus[actType] = kStsIdle;
        cmd = kCmdNone;
        timer.SetCountingTime(0);
        timer.BeginCountFromNow();
        return;
    }
    ExecTimsAct(actType, cmd, playCount, timer);
}

void IOActExecutor::ExecTimsAct(int actType, int cmd, int& playCount, TimeCount& timer) {
    const int moduleId = m_ModuleId;
    if (cmd != kCmdNone) {
        MutexReleaser released(m_Mutex);
        IOACT_LOG(3, 278, "ExecTimsAct", "IOModule[%d]: Error snapshot command: %d.\n", moduleId, cmd);
        return;
    }
    if (!timer.IsExceed()) return;
    if (m_ActStatus[actType] != kStsActive) return;
    if (m_AudioHoldMode[actType] == 0) {
        // The count starts at 1 and is compared before each play: exactly m_AudioTimes
        // plays, and none for 0.
        if (playCount > m_AudioTimes[actType]) {
            m_AudioCmd[actType] = kCmdStop;
            return;
        }
        ++playCount;
    }
    const std::string path = m_strAudioFilePath;
    int result;
    {
        MutexReleaser released(m_Mutex);
        result = SendAudioOut(moduleId, path);
    }
    if (result == 0) {
        timer.SetCountingTime(static_cast<unsigned long long>(m_AudioPeriod[actType]));
        timer.BeginCountFromNow();
        return;
    }
    {
        MutexReleaser released(m_Mutex);
        IOACT_LOG(3, 268, "ExecTimsAct", "Faild to do action [%d] from iomodule[%d].\n", actType,
                  moduleId);
    }
    m_AudioCmd[actType] = kCmdStop;
}

// ---------------------------------------------------------------------------------------
// Worker and termination

void IOActExecutor::UpdateActStatus() {
    // The status record is the host's: it is read and written without the executor's
    // mutex, and the maps are looked at with it.
    pthread_mutex_lock(&m_Mutex);
    IOModuleStatus* const status = m_pIOStatus;
    pthread_mutex_unlock(&m_Mutex);
    if (status == nullptr) return;
    const int actType = IOACT_TYPE_AUDIO_OUT;
    // The manual flag is only read: clearing it is the business of whoever plays.
    if (status->IsManualAOTrig()) {
        pthread_mutex_lock(&m_Mutex);
        if (m_ActStatus[actType] == kStsActive) {
            m_ActStatus[actType] = kStsManual;
            m_AudioCmd[actType] = kCmdStop;
        }
        pthread_mutex_unlock(&m_Mutex);
    }
    pthread_mutex_lock(&m_Mutex);
    const int portCount = static_cast<int>(m_DOStatus.size());
    pthread_mutex_unlock(&m_Mutex);
    for (int i = 0; i < portCount; ++i) {
        if (status->GetManualDOSts(i) != kManualDOPending) continue;
        // A manual command on a port without an active action stays pending for its owner.
        pthread_mutex_lock(&m_Mutex);
        const bool blTakeOver = m_DOStatus[i] == kStsActive;
        if (blTakeOver) {
            m_DOStatus[i] = kStsManual;
            m_DOCmd[i] = kCmdStop;
        }
        pthread_mutex_unlock(&m_Mutex);
        if (blTakeOver) status->SetManualDOSts(i, 0);
    }
}

void* IOActExecutor::ThreadFuncExcute(void* executor) {
    static_cast<IOActExecutor*>(executor)->ExecuteMain();
    return nullptr;
}

int IOActExecutor::ExecuteMain() {
    for (;;) {
        pthread_mutex_lock(&m_Mutex);
        // Looked at under the same lock as the wait: a Terminate that comes after this
        // check finds the worker in its wait (or about to run a pass), so its signal is
        // never lost.
        if (!m_blRunning) {
            pthread_mutex_unlock(&m_Mutex);
            return 0;
        }
        if (!m_blSkipWait) {
            timespec deadline{};
            clock_gettime(CLOCK_MONOTONIC, &deadline);
            deadline.tv_sec += 1;
            CondTimedWaitNoLock(m_Cond, m_Mutex, deadline, false);
        }
        m_blSkipWait = false;
        pthread_mutex_unlock(&m_Mutex);
        // The pass after a wait always runs, also when Terminate ended the wait.
        ExecAudioOut();
        ExecDO();
        UpdateActStatus();
    }
}

int IOActExecutor::Terminate() {
    pthread_mutex_lock(&m_Mutex);
    if (m_ActStatus[IOACT_TYPE_AUDIO_OUT] == kStsActive) {
        m_ActStatus[IOACT_TYPE_AUDIO_OUT] = kStsIdle;
    }
    const int portCount = static_cast<int>(m_DOStatus.size());
    for (int i = 0; i < portCount; ++i) {
        if (m_DOStatus[i] == kStsActive) {
            // Back to normal as the trigger state false, whatever the action used.
            SetDOPortState(m_ModuleId, false, i);
            m_DOStatus[i] = kStsIdle;
        }
    }
    m_blRunning = false;
    const bool blInited = m_blInited;
    const bool blJoin = m_blThreadCreated;
    if (blInited) pthread_cond_signal(&m_Cond);
    m_blInited = false;
    m_blThreadCreated = false;
    pthread_mutex_unlock(&m_Mutex);
    if (blJoin) pthread_join(m_Thread, nullptr);
    if (blInited) pthread_cond_destroy(&m_Cond);
    return 0;
}
