// A detector whose thread cannot be created: Start still answers 0 and the flag stays set.
// pthread_create is interposed for this executable only; it fails while g_FailThreads is set.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>

#include "camera/ssmotiondet.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"

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

TEST(MotionDetThreadFailure, StartReturnsZeroLogsAndLeavesTheFlagSet) {
    tw::test::ScopedLogCapture capture;
    tw::host::DbgLogConfig::Uninstall();
    Camera camera = tw::test::AddCamera(71, VIDEO_CODEC_H264, tw::host::DetSettingValues());
    EventBuf events(71);
    StreamFifo fifo;
    TWMotionDet det(&camera, &events, &fifo, nullptr);
    g_FailThreads = true;
    EXPECT_EQ(det.Start(), 0);
    g_FailThreads = false;
    EXPECT_EQ(g_Refused, 1);
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
