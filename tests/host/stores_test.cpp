// Camera and settings stores, region strings, and event buffers of the reference host.
#include <gtest/gtest.h>

#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/stores.h"

namespace {

using tw::host::ParseRegion;

TEST(Region, AllNoneAndRawCells) {
    std::string region, error;
    ASSERT_TRUE(ParseRegion("all", region, error));
    EXPECT_EQ(region, std::string(1200, '1'));
    ASSERT_TRUE(ParseRegion("none", region, error));
    EXPECT_EQ(region, std::string(1200, '0'));
    const std::string raw = std::string(600, '1') + std::string(600, '0');
    ASSERT_TRUE(ParseRegion(raw, region, error));
    EXPECT_EQ(region, raw);
}

TEST(Region, RectanglesMarkTheirCellsInclusive) {
    std::string region, error;
    ASSERT_TRUE(ParseRegion("0,0-1,1;39,29", region, error)) << error;
    EXPECT_EQ(region[0], '1');
    EXPECT_EQ(region[1], '1');
    EXPECT_EQ(region[40], '1');
    EXPECT_EQ(region[41], '1');
    EXPECT_EQ(region[2], '0');
    EXPECT_EQ(region[80], '0');
    EXPECT_EQ(region[1199], '1');
    EXPECT_EQ(std::count(region.begin(), region.end(), '1'), 5);
}

TEST(Region, BadTextsAreRefusedWithAReason) {
    std::string region, error;
    EXPECT_FALSE(ParseRegion("0101", region, error));
    EXPECT_NE(error.find("1200"), std::string::npos);
    EXPECT_FALSE(ParseRegion("0,0-40,1", region, error));
    EXPECT_NE(error.find("outside"), std::string::npos);
    EXPECT_FALSE(ParseRegion("a,b", region, error));
    EXPECT_NE(error.find("a,b"), std::string::npos);
}

TEST(CameraStore, LoadFillsTheRecordAndFailsForUnknownIds) {
    tw::host::CameraStore::Instance().Put(tw::host::MakeCamera(17, VIDEO_CODEC_HEVC));
    Camera camera;
    EXPECT_EQ(camera.Load(17, 0, 0), 0);
    EXPECT_EQ(camera.id, 17);
    EXPECT_EQ(camera.videoCodec, VIDEO_CODEC_HEVC);
    EXPECT_EQ(camera.GetUiStreamNo(camera.GetLiveProfile()), 0);
    Camera other;
    EXPECT_EQ(other.Load(18, 0, 0), -1);
}

TEST(CamDetSetting, StoredValuesComeBackAsStoredAndRegionIsCut) {
    tw::host::DetSettingValues values;
    values.sensitivity = 300;
    values.threshold = -5;
    values.shortLiveSec = 4;
    values.region = std::string(1200, '0');
    tw::host::DetSettingStore::Instance().Put(19, values);
    Camera camera = tw::host::MakeCamera(19, VIDEO_CODEC_H264);
    CamDetSetting setting;
    ASSERT_EQ(setting.Load(camera), 0);
    int v = 0;
    setting.GetSensitivity(1, v);
    EXPECT_EQ(v, 300);
    setting.GetThreshold(1, v);
    EXPECT_EQ(v, -5);
    setting.GetShortLiveSecond(1, v);
    EXPECT_EQ(v, 4);
    char region[11];
    ASSERT_EQ(setting.GetRegion(1, region, sizeof(region)), 0);
    EXPECT_STREQ(region, "0000000000");
    EXPECT_EQ(setting.GetSensitivity(2, v), -1);
}

TEST(EventBuf, KeepsEveryStatusWithTheHostClockTime) {
    auto clock = std::make_shared<tw::host::ManualClock>(5000000, false);
    tw::host::SetClock(clock);
    EventBuf events(3);
    std::vector<tw::host::EventRecord> heard;
    tw::host::SetEventListener(events, [&heard](const tw::host::EventRecord& r) { heard.push_back(r); });
    events.SetStatus(true, 42);
    clock->Advance(300000);
    events.SetStatus(false, 0);
    std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
    ASSERT_EQ(history.size(), 2u);
    EXPECT_EQ(history[0].timeUs, 5000000);
    EXPECT_TRUE(history[0].motion);
    EXPECT_EQ(history[0].value, 42);
    EXPECT_EQ(history[1].timeUs, 5300000);
    EXPECT_EQ(heard.size(), 2u);
    EXPECT_TRUE(tw::host::WaitForEvents(events, 2, 10));
    tw::host::SetClock(nullptr);
}

}  // namespace
