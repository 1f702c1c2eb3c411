// A detector whose thread cannot be created: Start still answers 0 and the flag stays set.
#include <gtest/gtest.h>

#include "camera/ssmotiondet.h"
#include "support/failing_pthread_create.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"

namespace {

TEST(MotionDetThreadFailure, StartReturnsZeroLogsAndLeavesTheFlagSet) {
    tw::test::ScopedLogCapture capture;
    tw::host::DbgLogConfig::Uninstall();
    Camera camera = tw::test::AddCamera(71, VIDEO_CODEC_H264, tw::host::DetSettingValues());
    EventBuf events(71);
    StreamFifo fifo;
    TWMotionDet det(&camera, &events, &fifo, nullptr);
    tw::test::g_FailThreads = true;
    EXPECT_EQ(det.Start(), 0);
    tw::test::g_FailThreads = false;
    EXPECT_EQ(tw::test::g_RefusedThreads, 1);
    std::vector<tw::host::LogRecord> r = capture->Find("Failed to create thread.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].level, "CRIT");
    EXPECT_EQ(r[0].function, "Start");
    EXPECT_EQ(r[0].category, "motiondet");
    // The flag stays set: a second Start is refused and IsActivated answers true.
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Start(), -1);
    // Stop clears the flag; there is no thread to join and nothing is written.
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_TRUE(tw::host::GetEventHistory(events).empty());
    // And the detector starts normally afterwards.
    EXPECT_EQ(det.Start(), 0);
    EXPECT_EQ(det.Stop(), 0);
}

}  // namespace
