#include "support/testenv.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>

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
