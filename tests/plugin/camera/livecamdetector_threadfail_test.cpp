// A live-cam detector whose thread cannot be created: Start still answers 0 and the flag
// stays set. pthread_create is interposed for this executable only; it fails while
// g_FailThreads is set.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "camera/livecamdetector.h"
#include "plugin/camera/livecam_testutil.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"
#include "twhost/stores.h"

namespace {
std::atomic<bool> g_FailThreads{false};
std::atomic<int> g_Refused{0};
}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg) {
    using CreateFn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static CreateFn real = reinterpret_cast<CreateFn>(dlsym(RTLD_NEXT, "pthread_create"));
    if (g_FailThreads) {
        ++g_Refused;
        return EAGAIN;
    }
    return real(thread, attr, start, arg);
}

namespace {

TEST(LiveCamThreadFailure, StartReturnsZeroLogsCriticalAndLeavesTheFlagSet) {
    tw::test::ScopedLogCapture capture;
    tw::host::DbgLogConfig::Uninstall();
    tw::test::livecam::FakeMobiled daemon;
    Camera camera = tw::host::MakeCamera(9190, VIDEO_CODEC_H264);
    EventBuf events(9190);
    LiveCamDetector det(&camera, &events);
    g_FailThreads = true;
    EXPECT_EQ(det.Start(), 0);
    g_FailThreads = false;
    EXPECT_EQ(g_Refused, 1);
    std::vector<tw::host::LogRecord> r = capture->Find("Failed to create thread.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(tw::test::livecam::IsLiveCamRecord(r[0], "CRIT", "Start"));
    // The flag stays set: a second Start is refused and IsActivated answers true.
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Start(), -1);
    EXPECT_EQ(g_Refused, 1);
    // Stop clears the flag; no thread ran, so nothing was asked and nothing written.
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_EQ(det.Stop(), -1);
    EXPECT_TRUE(daemon.Requests().empty());
    EXPECT_TRUE(tw::host::GetEventHistory(events).empty());
    EXPECT_EQ(capture->Records().size(), 1u);
}

}  // namespace
