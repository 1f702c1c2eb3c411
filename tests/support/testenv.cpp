#include "support/testenv.h"

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

}  // namespace tw::test
