// twhost detect --shm against a publisher of another codec than the usual H.264: the codec
// and the picture size come from the live FIFO, where "twhost stream" records them; a
// --codec that does not fit is one error naming the camera, the stream and the codec. Real
// seconds: the publisher runs in real time.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

extern "C" {
#include <libavutil/log.h>
}

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/jsonlines.h"
#include "support/livefifo.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

using tw::test::ChildResult;
using tw::test::DetectJson;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// An ISO 8601 UTC time with milliseconds: "2026-11-23T11:40:05.123Z".
bool IsIsoUtc(const std::string& text) {
    int y, mo, d, h, mi, s, ms;
    char z = 0;
    return text.size() == 24 &&
           std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d%c", &y, &mo, &d, &h, &mi, &s, &ms, &z) == 8 &&
           z == 'Z' && y >= 2020 && mo >= 1 && mo <= 12;
}

TEST(DetectShmCodec, MjpegPublisherIsDecodedAsMjpegWithoutBeingTold) {
    av_log_set_level(AV_LOG_ERROR);
    tw::test::ScopedProcessKeyBase keys(tw::test::kLiveFifoKeyRegion);
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const tw::host::ClipSpec clip = tw::test::SmallClip(VIDEO_CODEC_JPEG, 4.0, {{1.0, 3.0}});
    const std::string clipPath = dir.File("live.mkv");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clip, clipPath, error)) << error;

    const std::string camId = "7";
    tw::test::ChildProcess stream;
    ASSERT_TRUE(tw::test::StartPublisher(stream, {clipPath, "--camera-id", camId, "--loop", "--json"}, error))
        << error;

    const ChildResult detected = tw::test::RunChild(
        {TW_TWHOST_BIN, "detect", "--shm", "--camera-id", camId, "--duration", "2", "--json"});
    // A --codec that does not fit the stream: one line that names what was tried.
    const ChildResult wrong = tw::test::RunChild(
        {TW_TWHOST_BIN, "detect", "--shm", "--camera-id", camId, "--duration", "2", "--codec", "h264"});
    stream.Signal(SIGTERM);
    const ChildResult streamed = stream.Wait();

    ASSERT_TRUE(detected.exited && detected.exitCode == 0) << detected.Describe() << "\n" << detected.err;
    EXPECT_EQ(detected.err, "") << "a clean run prints its results only";
    DetectJson json;
    ASSERT_TRUE(tw::test::ParseDetectJson(detected.out, json, error)) << error;
    EXPECT_GE(json.statuses.size(), 4u) << tw::test::DescribeStatuses(json.statuses);
    const Json::Value& input = json.summary["input"];
    EXPECT_EQ(input["source"].asString(), "shm");
    EXPECT_EQ(input["codec"].asString(), "mjpeg");
    EXPECT_EQ(input["width"].asInt(), 320);
    EXPECT_EQ(input["height"].asInt(), 180);
    EXPECT_EQ(input["time"].asString(), "real");
    // Judged against the clock of the world: every status carries it, the summary says when
    // watching began and what it cost to get there.
    std::vector<Json::Value> lines;
    ASSERT_TRUE(tw::test::ParseJsonLines(detected.out, lines, error)) << error;
    for (const Json::Value& status : tw::test::LinesOfType(lines, "status")) {
        EXPECT_TRUE(IsIsoUtc(status["wallTime"].asString())) << status;
    }
    EXPECT_TRUE(IsIsoUtc(json.summary["watchStart"].asString())) << json.summary;
    EXPECT_TRUE(json.summary["probeSeconds"].isDouble()) << json.summary;
    EXPECT_FALSE(json.summary.isMember("frames")) << "the plug-in reads the FIFO itself; twhost counts nothing";

    ASSERT_TRUE(wrong.exited) << wrong.Describe();
    EXPECT_EQ(wrong.exitCode, 1);
    EXPECT_EQ(wrong.err, "twhost detect: cannot decode the live stream of camera 7 stream 0 as h264 (--codec)\n");
    EXPECT_EQ(wrong.out, "");

    ASSERT_TRUE(streamed.exited) << streamed.Describe();
    EXPECT_EQ(streamed.exitCode, 143) << streamed.err;
    std::vector<Json::Value> streamLines;
    ASSERT_TRUE(tw::test::ParseJsonLines(streamed.out, streamLines, error)) << error;
    EXPECT_TRUE(tw::test::CheckJsonLines("twhost stream", streamLines).empty())
        << tw::test::JoinProblems(tw::test::CheckJsonLines("twhost stream", streamLines));
    ASSERT_EQ(streamLines.size(), 2u) << streamed.out;
    EXPECT_EQ(streamLines[0]["input"]["codec"].asString(), "mjpeg");
    EXPECT_EQ(streamLines[1]["endReason"].asString(), "terminated");
}

TEST(DetectShmCodec, NoPublisherIsOneErrorNamingTheCameraAndHowToStartOne) {
    tw::test::ScopedProcessKeyBase keys(tw::test::kLiveFifoKeyRegion);
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "detect", "--shm", "--camera-id", "8", "--duration", "1"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "twhost detect: no live stream of camera 8 stream 0 in shared memory")) << r.err;
    EXPECT_TRUE(Contains(r.err, "start 'twhost stream SOURCE --camera-id 8' first")) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
}

}  // namespace
