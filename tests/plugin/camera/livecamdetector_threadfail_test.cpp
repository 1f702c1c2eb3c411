// A live-cam detector whose thread cannot be created: Start still answers 0 and the flag
// stays set.
#include <gtest/gtest.h>

#include "camera/livecamdetector.h"
#include "plugin/camera/livecam_testutil.h"
#include "support/failing_pthread_create.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"
#include "twhost/stores.h"

namespace {

TEST(LiveCamThreadFailure, StartReturnsZeroLogsCriticalAndLeavesTheFlagSet) {
    tw::test::ScopedLogCapture capture;
    tw::host::DbgLogConfig::Uninstall();
    tw::test::livecam::FakeMobiled daemon;
    Camera camera = tw::host::MakeCamera(9190, VIDEO_CODEC_H264);
    EventBuf events(9190);
    LiveCamDetector det(&camera, &events);
    tw::test::g_FailThreads = true;
    EXPECT_EQ(det.Start(), 0);
    tw::test::g_FailThreads = false;
    EXPECT_EQ(tw::test::g_RefusedThreads, 1);
    std::vector<tw::host::LogRecord> r = capture->Find("Failed to create thread.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(tw::test::livecam::IsLiveCamRecord(r[0], "CRIT", "Start"));
    // The flag stays set: a second Start is refused and IsActivated answers true.
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Start(), -1);
    EXPECT_EQ(tw::test::g_RefusedThreads, 1);
    // Stop clears the flag; no thread ran, so nothing was asked and nothing written.
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_EQ(det.Stop(), -1);
    EXPECT_TRUE(daemon.Requests().empty());
    EXPECT_TRUE(tw::host::GetEventHistory(events).empty());
    EXPECT_EQ(capture->Records().size(), 1u);
}

}  // namespace
