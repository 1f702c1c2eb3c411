// The live-cam detector's real time-outs: ten seconds without a connection, ten seconds of
// silence, and the three-second pause between cycles. These take real seconds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "camera/livecamdetector.h"
#include "plugin/camera/livecam_access.h"
#include "plugin/camera/livecam_testutil.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"
#include "twhost/stores.h"

namespace {

using A = LiveCamDetectorAccess;
using Clock = std::chrono::steady_clock;
using tw::host::LogRecord;
using tw::test::ScopedLogCapture;
using tw::test::ScopedVerboseLog;
using tw::test::livecam::Frame;
using tw::test::livecam::IsLiveCamRecord;
using tw::test::livecam::PathExists;
using tw::test::livecam::SocketPath;
using tw::test::livecam::StreamClient;

long ElapsedMs(Clock::time_point since) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

TEST(LiveCamTimeout, AcceptGivesUpSilentlyWhenNoDaemonConnectsWithinTenSeconds) {
    ScopedLogCapture log;
    ScopedVerboseLog verbose;
    Camera camera = tw::host::MakeCamera(9300, VIDEO_CODEC_H264);
    EventBuf events(9300);
    LiveCamDetector det(&camera, &events);
    const std::string path = SocketPath(9300);
    int listenFd = -1;
    ASSERT_EQ(det.BuildEventSocketServer(path, listenFd), 0);
    A::SetRunning(det, true);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(det.AcceptSocketFromClient(listenFd), -1);
    // It waited out its limit rather than giving up early.
    EXPECT_GE(ElapsedMs(start), 10000);
    A::SetRunning(det, false);
    close(listenFd);
    unlink(path.c_str());
    EXPECT_TRUE(log->Records().empty());
}

TEST(LiveCamTimeout, SilentDaemonEndsTheLoopWithRecvTimeoutAndResultZero) {
    ScopedLogCapture log;
    ScopedVerboseLog verbose;
    Camera camera = tw::host::MakeCamera(9301, VIDEO_CODEC_H264);
    EventBuf events(9301);
    LiveCamDetector det(&camera, &events);
    const std::string path = SocketPath(9301);
    int listenFd = -1;
    ASSERT_EQ(det.BuildEventSocketServer(path, listenFd), 0);
    StreamClient client;
    ASSERT_TRUE(client.Connect(path));
    A::SetRunning(det, true);
    const int readFd = det.AcceptSocketFromClient(listenFd);
    ASSERT_GE(readFd, 0);
    // One frame, then nothing: the ten seconds count from the last data.
    ASSERT_TRUE(client.Send(Frame("motion", "IsTrig:1 Level:57")));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(det.DoRecvSocketLoop(readFd), 0);
    EXPECT_GE(ElapsedMs(start), 10000);
    A::SetRunning(det, false);
    EXPECT_TRUE(client.WaitClosedByDetector(1000));   // the loop closed its descriptor
    close(listenFd);
    unlink(path.c_str());

    std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
    ASSERT_EQ(history.size(), 1u);
    EXPECT_TRUE(history[0].motion);
    EXPECT_EQ(history[0].value, 57);
    std::vector<LogRecord> r = log->Find("Recv data timeout[10]: ReadFd[" + std::to_string(readFd) + "]\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "DoRecvSocketLoop"));
}

TEST(LiveCamTimeout, WithoutADaemonCyclesRepeatEveryThreeSecondsLeavingNothingBehind) {
    ScopedLogCapture log;
    ScopedVerboseLog verbose;
    tw::host::SetMobiledHandler(nullptr);
    const std::string savedDaemon = tw::host::GetMobiledSocketPath();
    tw::host::SetMobiledSocketPath("/tmp/tw_livecam_slowtest_no_daemon_" + std::to_string(getpid()) + ".sock");
    Camera camera = tw::host::MakeCamera(9302, VIDEO_CODEC_H264);
    EventBuf events(9302);
    const std::string path = SocketPath(9302);
    unlink(path.c_str());

    // Each cycle ends by clearing the motion state, after its socket is gone.
    struct CycleEnd {
        Clock::time_point when;
        bool blSocketFileLeft;
    };
    std::mutex mutex;
    std::vector<CycleEnd> ends;
    tw::host::SetEventListener(events, [&](const tw::host::EventRecord&) {
        std::lock_guard<std::mutex> lock(mutex);
        ends.push_back({Clock::now(), PathExists(path)});
    });

    LiveCamDetector det(&camera, &events);
    ASSERT_EQ(det.Start(), 0);
    const bool sawThree = tw::host::WaitForEvents(events, 3, 20000);
    EXPECT_EQ(det.Stop(), 0);
    tw::host::SetEventListener(events, nullptr);
    tw::host::SetMobiledSocketPath(savedDaemon);
    ASSERT_TRUE(sawThree);

    std::vector<tw::host::EventRecord> history = tw::host::GetEventHistory(events);
    ASSERT_GE(history.size(), 3u);
    for (const tw::host::EventRecord& e : history) {
        EXPECT_FALSE(e.motion);
        EXPECT_EQ(e.value, 0);
    }
    std::lock_guard<std::mutex> lock(mutex);
    ASSERT_EQ(ends.size(), history.size());
    for (size_t i = 0; i < ends.size(); ++i) {
        EXPECT_FALSE(ends[i].blSocketFileLeft) << "cycle " << i;
        if (i == 0) continue;
        const long gapMs = static_cast<long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(ends[i].when - ends[i - 1].when).count());
        // The fixed pause, and no back-off on top of it.
        EXPECT_GE(gapMs, 3000) << "cycle " << i;
        EXPECT_LT(gapMs, 6000) << "cycle " << i;
    }
    EXPECT_FALSE(PathExists(path));
    // Every cycle asked, failed to reach the daemon, and said so.
    std::vector<LogRecord> undelivered = log->Find("Failed to send commad to mobiled.\n");
    ASSERT_EQ(undelivered.size(), history.size());
    EXPECT_TRUE(IsLiveCamRecord(undelivered[0], "WARN", "NotifyDaemonStartStm"));
    std::vector<LogRecord> failed = log->Find("Start event stream failed.\n");
    ASSERT_EQ(failed.size(), history.size());
    EXPECT_TRUE(IsLiveCamRecord(failed[0], "DEBUG", "DetEventByLocalSocketStream"));
}

}  // namespace
