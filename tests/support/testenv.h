// Common set-up of the tests: a log sink that captures, a debug-log configuration, and
// cameras with settings in the host's stores.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "twhost/clipmaker.h"
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

// The small clip of the scene that the twhost tests run on: 320 x 180, so that live runs
// keep pace on a busy machine, with a key frame every 6 frames, so that each 300 ms turn of
// the detector finds a new one; the object moves in the given [start, end) seconds.
tw::host::ClipSpec SmallClip(int codec, double durationSec, std::vector<std::pair<double, double>> motion);

// Whether the running test case is the first this process runs. The motion detectors'
// learning counter belongs to the process and is never reset, so a case that watches it
// from its start needs a process of its own: ctest gives every case one, a direct run of a
// test program runs them all in one (and --gtest_repeat or --gtest_shuffle runs them in an
// order that cannot be told from here, so there the answer is no).
bool FirstCaseOfProcess();

// Opens a case that needs the learning counter from its start: skipped, with the reason,
// unless it is the first of its process.
#define TW_NEEDS_FRESH_LEARNING_COUNTER()                                                    \
    do {                                                                                     \
        if (!::tw::test::FirstCaseOfProcess()) {                                             \
            GTEST_SKIP() << "the detectors' learning counter belongs to the process and "    \
                            "other cases used it first; run this case alone (ctest does)"; \
        }                                                                                    \
    } while (false)

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
