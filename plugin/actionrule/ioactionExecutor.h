// Executor of action-rule actions on one network I/O module: it holds digital outputs in
// their trigger state for a time or until stopped, and plays audio patterns on the
// module's audio output a number of times or until stopped, reporting per action a status
// that the host polls. One worker thread does all timed work, once a second or at once
// when a request arrives.
#pragma once

#include <pthread.h>

#include <map>
#include <string>

#include "interface/twexport.h"
#include "tw/devstatus.h"
#include "tw/time.h"
#include "tw/workers.h"

class DeviceAPIHandler;

class TW_EXPORT IOActExecutor {
public:
    IOActExecutor();
    ~IOActExecutor();
    IOActExecutor(const IOActExecutor&) = delete;
    IOActExecutor& operator=(const IOActExecutor&) = delete;

    int Init(int moduleId, int doCount, DeviceAPIHandler* deviceApi, IOModuleStatus* ioStatus);
    int GetStatus(std::map<int, int>& actSts, std::map<int, int>& doSts);
    int DoAction(int actFlags, const std::map<int, IOActExecCond>& audioConds,
                 const std::map<int, IOActExecCond>& doConds, bool extraFlag);
    int Terminate();

    static void* ThreadFuncExcute(void* executor);
    int ExecuteMain();
    void ExecAudioOut();
    void ExecDO();
    bool IsDOFinished(int portIndex);
    int DoAudioOut();
    void UpdateActStatus();

private:
    friend struct IOActExecutorAccess;   // white-box checks of the request maps

    // Signals the worker's condition under the mutex, so that a waiting worker runs a pass.
    void WakeWorker();
    // The passes' work with m_Mutex held by the caller; they let go of it only around
    // calls into the host.
    void ExecDOLocked();
    bool IsDOFinishedLocked(int moduleId, int portIndex);
    void ExecAudioOutLocked();
    // The timed step of the audio action: the play count, the next play, the stop.
    void ExecTimsAct(int actType, int cmd, int& playCount, TimeCount& timer);
    // The port-setting request, sent with m_Mutex let go for its duration.
    int SetDOPortStateUnlocked(int moduleId, bool triggerState, int portIndex);
    // One play command to the I/O-module daemon; called without m_Mutex.
    int SendAudioOut(int moduleId, const std::string& path);

    bool m_blRunning;
    bool m_blSkipWait;
    int m_ModuleId;
    std::map<int, int> m_AudioTimes;
    std::map<int, long long> m_AudioPeriod;
    std::map<int, int> m_AudioHoldMode;
    std::string m_strAudioFilePath;
    std::map<int, int> m_ActStatus;
    std::map<int, int> m_AudioCmd;
    std::map<int, long long> m_DODuration;
    std::map<int, int> m_DOHoldMode;
    std::map<int, int> m_DOCmd;
    std::map<int, int> m_DOStatus;
    std::map<int, int> m_DOCheckCount;
    std::map<int, int> m_DOActFlags;
    std::map<int, TimeCount> m_DOTimer;
    DeviceAPIHandler* m_pDevApiHandler;
    pthread_t m_Thread;
    std::map<int, int> m_AudioPlayCount;
    std::map<int, TimeCount> m_AudioTimer;
    IOModuleStatus* m_pIOStatus;
    pthread_mutex_t m_Mutex;
    pthread_cond_t m_Cond;
    // Whether Init has set up m_Cond (and tried to start the worker) and whether the worker
    // exists, so that Terminate and the destructor never join or destroy what is not there.
    bool m_blInited;
    bool m_blThreadCreated;
};
