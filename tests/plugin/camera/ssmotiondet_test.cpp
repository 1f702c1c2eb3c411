// The motion detector object: settings, parameters, thread start and stop.
#include <gtest/gtest.h>

#include "plugin/camera/motiondet_access.h"
#include "camera/ssmotiondet.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"

namespace {

using tw::host::DetSettingValues;
using tw::test::ScopedLogCapture;
using A = TWMotionDetAccess;

constexpr int kCam = 51;

class MotionDetSettings : public ::testing::Test {
protected:
    void SetUp() override { tw::host::DbgLogConfig::Uninstall(); }
    Camera Add(const DetSettingValues& values) { return tw::test::AddCamera(kCam, VIDEO_CODEC_H264, values); }
    ScopedLogCapture m_Log;
    EventBuf m_Events{kCam};
};

TEST_F(MotionDetSettings, ConstructorLoadsTheStoredSettings) {
    DetSettingValues values;
    values.sensitivity = 70;
    values.threshold = 15;
    values.shortLiveSec = 2;
    values.region = std::string(600, '0') + std::string(600, '1');
    Camera camera = Add(values);
    TWMotionDet det(&camera, &m_Events, nullptr, nullptr);
    EXPECT_EQ(A::Sensitivity(det), 70);
    EXPECT_EQ(A::Threshold(det), 15);
    EXPECT_EQ(A::ShortLiveSec(det), 2);
    EXPECT_EQ(std::string(A::Region(det)), values.region);
    EXPECT_EQ(A::Region(det)[1200], '\0');
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(MotionDetSettings, StoredSensitivityOf101BecomesHundredWithMessage) {
    DetSettingValues values;
    values.sensitivity = 101;
    Camera camera = Add(values);
    TWMotionDet det(&camera, &m_Events, nullptr, nullptr);
    EXPECT_EQ(A::Sensitivity(det), 100);
    std::vector<tw::host::LogRecord> r = m_Log->Find("CamDet[51]: Invalid sensitive: 101.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].category, "motiondet");
    EXPECT_EQ(r[0].level, "WARN");
    EXPECT_EQ(r[0].file, "camera/ssmotiondet.cpp");
    EXPECT_EQ(r[0].function, "TWMotionDet");
}

TEST_F(MotionDetSettings, ValuesAreNarrowedToAByteBeforeTheRangeCheck) {
    DetSettingValues values;
    values.sensitivity = 300;   // 300 & 0xff = 44
    values.threshold = 356;     // 100
    values.shortLiveSec = 265;  // 9
    Camera camera = Add(values);
    TWMotionDet det(&camera, &m_Events, nullptr, nullptr);
    EXPECT_EQ(A::Sensitivity(det), 44);
    EXPECT_EQ(A::Threshold(det), 100);
    EXPECT_EQ(A::ShortLiveSec(det), 9);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(MotionDetSettings, OutOfRangeThresholdAndShortLiveAreReplaced) {
    DetSettingValues values;
    values.threshold = 150;
    values.shortLiveSec = 11;
    Camera camera = Add(values);
    TWMotionDet det(&camera, &m_Events, nullptr, nullptr);
    EXPECT_EQ(A::Threshold(det), 100);
    EXPECT_EQ(A::ShortLiveSec(det), 10);
    EXPECT_EQ(m_Log->Count("CamDet[51]: Invalid threshold: 150.\n"), 1u);
    EXPECT_EQ(m_Log->Count("CamDet[51]: Invalid short live second: 11.\n"), 1u);
}

TEST_F(MotionDetSettings, MissingSettingsLogLoadFailureAndUseDefaults) {
    Camera camera = tw::host::MakeCamera(kCam + 1, VIDEO_CODEC_H264);
    tw::host::DetSettingStore::Instance().Remove(kCam + 1);
    TWMotionDet det(&camera, &m_Events, nullptr, nullptr);
    EXPECT_EQ(m_Log->Count("CamDet[52]: Failed to load from id.\n"), 1u);
    const DetSettingValues defaults;
    EXPECT_EQ(A::Sensitivity(det), defaults.sensitivity);
    EXPECT_EQ(A::Threshold(det), defaults.threshold);
    EXPECT_EQ(std::string(A::Region(det)), defaults.region);
}

TEST_F(MotionDetSettings, LongRegionIsCutAt1200Cells) {
    DetSettingValues values;
    values.region = std::string(1300, '1');
    Camera camera = Add(values);
    TWMotionDet det(&camera, &m_Events, nullptr, nullptr);
    EXPECT_EQ(std::string(A::Region(det)).size(), 1200u);
}

class MotionDetParams : public MotionDetSettings {
protected:
    void SetUp() override {
        MotionDetSettings::SetUp();
        DetSettingValues values;
        values.sensitivity = 60;
        values.threshold = 20;
        values.shortLiveSec = 3;
        m_Camera = Add(values);
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, nullptr, nullptr);
    }
    Camera m_Camera;
    std::unique_ptr<TWMotionDet> m_pDet;
};

TEST_F(MotionDetParams, EmptyMapSetsAllThreeToZero) {
    m_pDet->SetDetParam(0, {}, 0);
    EXPECT_EQ(A::Sensitivity(*m_pDet), 0);
    EXPECT_EQ(A::Threshold(*m_pDet), 0);
    EXPECT_EQ(A::ShortLiveSec(*m_pDet), 0);
}

TEST_F(MotionDetParams, MissingThresholdKeySetsThresholdToZero) {
    m_pDet->SetDetParam(0, {{1, "55"}, {9, "4"}}, 0);
    EXPECT_EQ(A::Sensitivity(*m_pDet), 55);
    EXPECT_EQ(A::Threshold(*m_pDet), 0);
    EXPECT_EQ(A::ShortLiveSec(*m_pDet), 4);
}

TEST_F(MotionDetParams, SensitivityAboveHundredKeepsOldValueWithMessage) {
    m_pDet->SetDetParam(0, {{1, "101"}, {3, "20"}, {9, "3"}}, 0);
    EXPECT_EQ(A::Sensitivity(*m_pDet), 60);
    std::vector<tw::host::LogRecord> r = m_Log->Find("Cam[51]: Invalid sensitive value: 101.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].function, "SetDetParam");
    EXPECT_EQ(r[0].level, "WARN");
}

TEST_F(MotionDetParams, ShortLiveTenIsAcceptedAndElevenIsNot) {
    m_pDet->SetDetParam(0, {{1, "60"}, {3, "20"}, {9, "10"}}, 0);
    EXPECT_EQ(A::ShortLiveSec(*m_pDet), 10);
    EXPECT_TRUE(m_Log->Records().empty());
    m_pDet->SetDetParam(0, {{1, "60"}, {3, "20"}, {9, "11"}}, 0);
    EXPECT_EQ(A::ShortLiveSec(*m_pDet), 10);
    EXPECT_EQ(m_Log->Count("Cam[51]: Invalid short live second: 11.\n"), 1u);
}

TEST_F(MotionDetParams, ThresholdAboveHundredKeepsOldValueWithMessage) {
    m_pDet->SetDetParam(0, {{1, "60"}, {3, "101"}, {9, "3"}}, 0);
    EXPECT_EQ(A::Threshold(*m_pDet), 20);
    EXPECT_EQ(m_Log->Count("Cam[51]: Invalid threshold: 101.\n"), 1u);
}

TEST_F(MotionDetParams, NegativeValuesWrapAndTrailingTextIsIgnored) {
    m_pDet->SetDetParam(0, {{1, "-1"}, {3, "30 percent"}, {9, "junk"}}, 0);
    EXPECT_EQ(A::Sensitivity(*m_pDet), 255);
    EXPECT_EQ(A::Threshold(*m_pDet), 30);
    EXPECT_EQ(A::ShortLiveSec(*m_pDet), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(MotionDetParams, ShareIsNeverEnabled) {
    EXPECT_FALSE(m_pDet->IsShareEnabled());
}

TEST_F(MotionDetParams, StartTwiceReturnsZeroThenMinusOneAndStopTwiceZeroThenMinusOne) {
    StreamFifo fifo;  // no storage yet: the thread waits for it
    TWMotionDet det(&m_Camera, &m_Events, &fifo, nullptr);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_EQ(det.Stop(), -1);
    EXPECT_EQ(det.Start(), 0);
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Start(), -1);
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_EQ(det.Stop(), -1);
    // It ended by the loop's end: no motion written.
    std::vector<tw::host::EventRecord> events = tw::host::GetEventHistory(m_Events);
    ASSERT_FALSE(events.empty());
    EXPECT_FALSE(events.back().motion);
    EXPECT_EQ(events.back().value, 0);
}

TEST_F(MotionDetParams, ThreadWithoutEventBufferReportsWrongParametersAndStaysActivated) {
    tw::test::ScopedVerboseLog verbose;
    TWMotionDet det(&m_Camera, nullptr, nullptr, nullptr);
    EXPECT_EQ(det.Start(), 0);
    for (int i = 0; i < 500 && m_Log->Count("Cam Wrong parameters.\n") == 0; ++i) usleep(10000);
    std::vector<tw::host::LogRecord> r = m_Log->Find("Cam Wrong parameters.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].level, "NOTICE");
    EXPECT_EQ(r[0].function, "ThreadFunc");
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Stop(), 0);
}

TEST_F(MotionDetParams, NullCameraIsLoggedAndItsThreadRefusesToRun) {
    tw::test::ScopedVerboseLog verbose;
    TWMotionDet det(nullptr, &m_Events, nullptr, nullptr);
    EXPECT_EQ(m_Log->Count("CamDet[-1]: Failed to load from id.\n"), 1u);
    EXPECT_EQ(det.Start(), 0);
    for (int i = 0; i < 500 && m_Log->Count("Cam Wrong parameters.\n") == 0; ++i) usleep(10000);
    EXPECT_EQ(m_Log->Count("Cam Wrong parameters.\n"), 1u);
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_TRUE(tw::host::GetEventHistory(m_Events).empty());
}

TEST_F(MotionDetParams, DestroyingARunningDetectorStopsIt) {
    StreamFifo fifo;
    auto det = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, &fifo, nullptr);
    EXPECT_EQ(det->Start(), 0);
    det.reset();
    std::vector<tw::host::EventRecord> events = tw::host::GetEventHistory(m_Events);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(events[0].motion);
}

}  // namespace
