// Drives an I/O action executor on the manual clock against the host's I/O-module
// emulator: every pass of the worker happens when the test moves time or sends a request
// that wakes it, and the test waits until the worker has finished its passes and waits
// again, so every check sees a settled executor.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "actionrule/ioactionExecutor.h"
#include "support/testenv.h"
#include "twhost/clock.h"
#include "twhost/iomodule.h"

// White-box access to the request maps, for the checks that the host cannot see.
struct IOActExecutorAccess {
    static std::map<int, int>& AudioCmd(IOActExecutor& e) { return e.m_AudioCmd; }
    static std::map<int, long long>& AudioPeriod(IOActExecutor& e) { return e.m_AudioPeriod; }
    static std::map<int, int>& AudioTimes(IOActExecutor& e) { return e.m_AudioTimes; }
    static std::map<int, int>& AudioHoldMode(IOActExecutor& e) { return e.m_AudioHoldMode; }
    static std::string& AudioFilePath(IOActExecutor& e) { return e.m_strAudioFilePath; }
    static std::map<int, int>& DOCmd(IOActExecutor& e) { return e.m_DOCmd; }
    static std::map<int, long long>& DODuration(IOActExecutor& e) { return e.m_DODuration; }
    static std::map<int, int>& DOHoldMode(IOActExecutor& e) { return e.m_DOHoldMode; }
    static std::map<int, int>& DOActFlags(IOActExecutor& e) { return e.m_DOActFlags; }
    static std::map<int, int>& DOCheckCount(IOActExecutor& e) { return e.m_DOCheckCount; }
    static pthread_mutex_t& Mutex(IOActExecutor& e) { return e.m_Mutex; }
};

namespace tw::test {

constexpr int kModuleId = 7;
constexpr int kPatternId = 12;
constexpr int kPatternLength = 3;   // seconds
constexpr int kSecondUs = 1000000;

inline IOActExecCond DOCond(bool blStop, long long period, int holdMode) {
    return IOActExecCond{blStop, 0, 0, period, holdMode};
}

inline IOActExecCond AudioCond(bool blStop, int patternId, int times, long long period,
                               int holdMode) {
    return IOActExecCond{blStop, patternId, times, period, holdMode};
}

// The port-setting request the executor sends for one port.
inline std::string PortJson(int port, bool state, int moduleId = kModuleId) {
    return std::string("{\"DIOdata\":[{\"idx\":") + std::to_string(port) +
           ",\"trigger_state\":" + (state ? "true" : "false") +
           "}],\"blActRule\":true,\"id\":" + std::to_string(moduleId) + "}";
}

inline std::string PlayJson(const std::string& path) {
    return "{\"filePath\":\"" + path + "\",\"isManual\":false}";
}

// One request as the test compares it: seconds since the test's start, target, JSON.
struct SentRequest {
    int64_t sec;
    std::string target;
    std::string json;
    bool operator==(const SentRequest& o) const {
        return sec == o.sec && target == o.target && json == o.json;
    }
};

inline std::ostream& operator<<(std::ostream& os, const SentRequest& r) {
    return os << "{" << r.sec << "s " << r.target << " " << r.json << "}";
}

const char kPortSetting[] = "ORVA.Korvane.IOModule/1/PortSetting";
const char kPlayCmd[] = "iomoduled/6";

class ExecutorTest : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::SetClock(m_Clock);
        m_Emulator = std::make_shared<tw::host::IOModuleEmulator>(8);
        tw::host::SetIOModuleBackend(kModuleId, m_Emulator);
        tw::host::TakeIORequests();
        char path[] = "/tmp/tw_ioaction_patternXXXXXX";
        const int fd = mkstemp(path);
        ASSERT_GE(fd, 0);
        const char bytes[] = "RIFF-pattern";
        ASSERT_EQ(write(fd, bytes, sizeof(bytes)), static_cast<ssize_t>(sizeof(bytes)));
        close(fd);
        m_strPattern = path;
        tw::host::SetAudioPattern(kPatternId, m_strPattern, kPatternLength);
    }

    void TearDown() override {
        m_pExec.reset();
        tw::host::ClearIOModuleBackends();
        tw::host::ClearAudioPatterns();
        tw::host::SetClock(nullptr);
        std::remove(m_strPattern.c_str());
    }

    // Creates and initialises the executor and waits for its worker's first wait.
    IOActExecutor& Start(int doCount = 4) {
        m_pExec = std::make_unique<IOActExecutor>();
        EXPECT_EQ(m_pExec->Init(kModuleId, doCount, nullptr, &m_Status), 0);
        m_Clock->WaitForWaitsBegun(1);
        return *m_pExec;
    }

    // Moves the time on by us and waits until the worker has run and waits again.
    void Tick(int64_t us = kSecondUs) {
        const uint64_t n = m_Clock->WaitsBegun();
        m_Clock->Advance(us);
        m_Clock->WaitForWaitsBegun(n + 1);
    }
    void Seconds(int n) {
        for (int i = 0; i < n; ++i) Tick();
    }

    // A request that wakes the worker: returns once it has been carried out.
    void Act(int flags, const std::map<int, IOActExecCond>& audio,
             const std::map<int, IOActExecCond>& outputs) {
        const uint64_t n = m_Clock->WaitsBegun();
        m_pExec->DoAction(flags, audio, outputs, false);
        m_Clock->WaitForWaitsBegun(n + 1);
    }
    // A request that does not wake the worker (stops, unloadable patterns).
    void Post(int flags, const std::map<int, IOActExecCond>& audio,
              const std::map<int, IOActExecCond>& outputs) {
        m_pExec->DoAction(flags, audio, outputs, false);
    }

    int64_t NowSec() { return m_Clock->NowUs() / kSecondUs; }

    // The requests sent since the last call, with their times in whole seconds.
    std::vector<SentRequest> Sent() {
        std::vector<SentRequest> out;
        for (const tw::host::IORequest& r : tw::host::TakeIORequests()) {
            EXPECT_EQ(r.moduleId, kModuleId);
            EXPECT_EQ(r.timeUs % kSecondUs, 0) << "a pass between two seconds";
            out.push_back(SentRequest{r.timeUs / kSecondUs, r.target, r.json});
        }
        return out;
    }

    std::map<int, int> ActStatus() {
        std::map<int, int> act, outputs;
        m_pExec->GetStatus(act, outputs);
        return act;
    }
    std::map<int, int> DOStatus() {
        std::map<int, int> act, outputs;
        m_pExec->GetStatus(act, outputs);
        return outputs;
    }
    int AudioStatus() { return ActStatus()[IOACT_TYPE_AUDIO_OUT]; }
    int PortStatus(int port) { return DOStatus()[port]; }

    std::shared_ptr<tw::host::ManualClock> m_Clock =
        std::make_shared<tw::host::ManualClock>(0, false);
    std::shared_ptr<tw::host::IOModuleEmulator> m_Emulator;
    IOModuleStatus m_Status;
    std::string m_strPattern;
    std::unique_ptr<IOActExecutor> m_pExec;
};

}  // namespace tw::test
