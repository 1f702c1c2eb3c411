// Motion detection across processes, as on a recorder: one "twhost stream" process publishes
// a clip in real time into the shared-memory live FIFO of a camera, and a "twhost detect
// --shm" process reads that FIFO. Both run on real time, so this takes the clip's seconds.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/livefifo.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

using tw::test::ChildResult;
using tw::test::DetectJson;
using tw::test::DetectStatus;

constexpr int kCamId = 3;
// The two processes' time lines are matched by watching their output, which is a few
// milliseconds late at worst; times are compared with generous slack all the same, as the
// publisher paces itself on a busy machine.
constexpr double kSkewSec = 0.5;

TEST(DetectShm, DetectorReadingTheLiveFifoOfAnotherProcessReportsTheMovementAndNothingBefore) {
    av_log_set_level(AV_LOG_ERROR);
    // Segments of this test get keys of their own, which publisher and reader inherit.
    tw::test::ScopedProcessKeyBase keys(tw::test::kLiveFifoKeyRegion);
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());

    // Eight seconds: the detector settles and learns in the first seconds, the object moves
    // in the middle.
    const tw::host::ClipSpec clip = tw::test::SmallClip(VIDEO_CODEC_H264, 8.0, {{3.5, 6.0}});
    const std::string clipPath = dir.File("live.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clip, clipPath, error)) << error;

    const std::string camId = std::to_string(kCamId);
    tw::test::ChildProcess stream;
    ASSERT_TRUE(tw::test::StartPublisher(stream, {clipPath, "--camera-id", camId}, error)) << error;
    const auto published = std::chrono::steady_clock::now();
    const auto guard = published + std::chrono::seconds(60);

    tw::test::ChildProcess detect;
    ASSERT_TRUE(detect.Start({TW_TWHOST_BIN, "detect", "--shm", "--camera-id", camId, "--codec", "h264", "--duration",
                              "7.5", "--json"},
                             error))
        << error;
    // The detector's times count from its own start, which lies somewhere after the spawn.
    // Its first status line is printed the moment it is made: when that line shows up, the
    // detector's clock reads the line's "t", which places its start on the clip's time line.
    std::string firstLine;
    for (;;) {
        const std::string out = detect.PeekOut();
        const size_t newline = out.find('\n');
        if (newline != std::string::npos) {
            firstLine = out.substr(0, newline);
            break;
        }
        ASSERT_TRUE(detect.IsRunning()) << "twhost detect ended without a status:\n" << detect.Wait().err;
        ASSERT_LT(std::chrono::steady_clock::now(), guard) << "twhost detect never reported a status";
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    const double firstSeen = std::chrono::duration<double>(std::chrono::steady_clock::now() - published).count();
    Json::Value first;
    std::istringstream firstText(firstLine);
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), firstText, &first, &error)) << error;
    ASSERT_TRUE(first["t"].isDouble()) << firstLine;
    const double clipOffset = firstSeen - first["t"].asDouble();

    const ChildResult detected = detect.Wait();
    const ChildResult streamed = stream.Wait();

    ASSERT_TRUE(detected.exited && detected.exitCode == 0) << detected.Describe() << "\n" << detected.err;
    EXPECT_TRUE(streamed.exited && streamed.exitCode == 0) << streamed.Describe() << "\n" << streamed.err;
    EXPECT_NE(streamed.out.find("live FIFO removed"), std::string::npos) << streamed.out;

    DetectJson json;
    ASSERT_TRUE(tw::test::ParseDetectJson(detected.out, json, error)) << error;
    // A 300 ms detector gives about 25 statuses in 7.5 s.
    ASSERT_GE(json.statuses.size(), 15u) << tw::test::DescribeStatuses(json.statuses);

    // Reported within a second of the start (give or take the skew), and never before it.
    const double start = clip.motion[0].first;
    bool hit = false;
    for (const DetectStatus& s : json.statuses) {
        const double clipTime = s.t + clipOffset;
        if (s.motion && clipTime >= start - kSkewSec && clipTime <= start + 1.0 + kSkewSec) hit = true;
        EXPECT_FALSE(s.motion && clipTime < start - kSkewSec)
            << "motion at " << clipTime << " s of the clip, before the object moved at " << start << " s";
    }
    EXPECT_TRUE(hit) << "no motion reported soon after the object started moving at " << start
                     << " s; the detector started " << clipOffset
                     << " s into the clip; statuses: " << tw::test::DescribeStatuses(json.statuses);
}

}  // namespace
