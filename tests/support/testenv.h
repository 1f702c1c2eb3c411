// Common set-up of the tests: a log sink that captures, a debug-log configuration, and
// cameras with settings in the host's stores.
#pragma once

#include <memory>
#include <string>

#include "twhost/logsink.h"
#include "twhost/stores.h"

namespace tw::test {

// Installs a capturing log sink for the life of the object and restores stderr after.
class ScopedLogCapture {
public:
    ScopedLogCapture();
    ~ScopedLogCapture();
    tw::host::CaptureLogSink& operator*() { return *m_Sink; }
    tw::host::CaptureLogSink* operator->() { return m_Sink.get(); }

private:
    std::shared_ptr<tw::host::CaptureLogSink> m_Sink;
};

// Puts a camera and its detection settings into the host's stores.
Camera AddCamera(int camId, int videoCodec, const tw::host::DetSettingValues& settings);

// A configuration that lets every level of every category through, installed while alive.
class ScopedVerboseLog {
public:
    ScopedVerboseLog();
    tw::host::DbgLogConfig& Config() { return m_Config; }

private:
    tw::host::DbgLogConfig m_Config;
};

// Moves this process's shared-memory keys (TW_SHM_KEY_BASE) to a base of its own inside
// a region of 512 slots of 0x80000 keys from regionStart, chosen by the process id, while
// alive: parallel test processes then never meet in each other's segments.
class ScopedProcessKeyBase {
public:
    explicit ScopedProcessKeyBase(unsigned regionStart);
    ~ScopedProcessKeyBase();
    ScopedProcessKeyBase(const ScopedProcessKeyBase&) = delete;
    ScopedProcessKeyBase& operator=(const ScopedProcessKeyBase&) = delete;
};

}  // namespace tw::test
