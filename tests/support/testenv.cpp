#include "support/testenv.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include <gtest/gtest.h>

namespace tw::test {

ScopedLogCapture::ScopedLogCapture() : m_Sink(std::make_shared<tw::host::CaptureLogSink>()) {
    tw::host::SetLogSink(m_Sink);
}

ScopedLogCapture::~ScopedLogCapture() { tw::host::SetLogSink(nullptr); }

Camera AddCamera(int camId, int videoCodec, const tw::host::DetSettingValues& settings) {
    Camera camera = tw::host::MakeCamera(camId, videoCodec);
    tw::host::CameraStore::Instance().Put(camera);
    tw::host::DetSettingStore::Instance().Put(camId, settings);
    return camera;
}

bool FirstCaseOfProcess() {
    const ::testing::UnitTest* unit = ::testing::UnitTest::GetInstance();
    const ::testing::TestInfo* current = unit->current_test_info();
    if (current == nullptr || GTEST_FLAG_GET(shuffle) || GTEST_FLAG_GET(repeat) != 1) {
        return false;
    }
    // Unshuffled, the cases run in the order they are listed: every one listed before this
    // one that is to run has run.
    for (int i = 0; i < unit->total_test_suite_count(); ++i) {
        const ::testing::TestSuite* suite = unit->GetTestSuite(i);
        for (int j = 0; j < suite->total_test_count(); ++j) {
            const ::testing::TestInfo* info = suite->GetTestInfo(j);
            if (info == current) return true;
            if (info->should_run()) return false;
        }
    }
    return false;
}

ScopedVerboseLog::ScopedVerboseLog() {
    m_Config.SetAllCategoryLevels(7);
    m_Config.Install();
}

tw::host::ClipSpec SmallClip(int codec, double durationSec, std::vector<std::pair<double, double>> motion) {
    tw::host::ClipSpec clip;
    clip.width = 320;
    clip.height = 180;
    clip.codec = codec;
    clip.gop = 6;
    clip.durationSec = durationSec;
    clip.motion = std::move(motion);
    return clip;
}

ScopedProcessKeyBase::ScopedProcessKeyBase(unsigned regionStart) {
    char base[32];
    const unsigned slot = static_cast<unsigned>(getpid()) % 512u;
    std::snprintf(base, sizeof(base), "0x%x", regionStart + slot * 0x80000u);
    setenv("TW_SHM_KEY_BASE", base, 1);
}

ScopedProcessKeyBase::~ScopedProcessKeyBase() { unsetenv("TW_SHM_KEY_BASE"); }

}  // namespace tw::test
