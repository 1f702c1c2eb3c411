// The report of a live source: "twhost detect --shm --report" on the shared-memory FIFO that
// a "twhost stream" process fills in real time. The pictures come from the frames the
// detector read out of shared memory, and the key-frame interval is the one those frames
// show, since twhost reads no packets itself there. Real time: this takes the clip's seconds.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "support/livefifo.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

constexpr int kCamId = 4;

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1)) ++n;
    return n;
}

TEST(DetectReportShm, PageOfALiveFifoShowsTheFramesTheDetectorReadFromSharedMemory) {
    tw::test::ScopedProcessKeyBase keys(tw::test::kLiveFifoKeyRegion);
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const tw::host::ClipSpec clip = tw::test::SmallClip(VIDEO_CODEC_H264, 8.0, {{3.5, 6.0}});
    const std::string clipPath = dir.File("live.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clip, clipPath, error)) << error;

    const std::string camId = std::to_string(kCamId);
    tw::test::ChildProcess stream;
    ASSERT_TRUE(tw::test::StartPublisher(stream, {clipPath, "--camera-id", camId}, error)) << error;

    const std::string page = dir.File("live.html");
    const tw::test::ChildResult r = tw::test::RunChild(
        {TW_TWHOST_BIN, "detect", "--shm", "--camera-id", camId, "--duration", "7.5", "--report", page, "--json"}, 120);
    stream.Signal(SIGTERM);
    stream.Wait();
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << r.err;

    std::vector<Json::Value> lines;
    ASSERT_TRUE(tw::test::ParseJsonLines(r.out, lines, error)) << error;
    const std::vector<std::string> problems = tw::test::CheckJsonLines("twhost detect", lines);
    ASSERT_TRUE(problems.empty()) << problems.front();
    const size_t statuses = tw::test::LinesOfType(lines, "status").size();
    const Json::Value summary = tw::test::LinesOfType(lines, "summary").at(0);
    const size_t intervals = summary["intervals"].size();
    ASSERT_GE(intervals, 1u) << "the movement of 3.5-6 s:\n" << r.out;

    std::ifstream in(page, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    const std::string html = s.str();
    EXPECT_NE(html.find("data-turns=\"" + std::to_string(statuses) + "\""), std::string::npos);
    EXPECT_EQ(Count(html, "<tr class=\"interval\""), intervals);
    EXPECT_EQ(Count(html, "<figure class=\"snapshot\""), 2 * intervals);
    EXPECT_EQ(tw::test::LinesOfType(lines, "snapshot").size(), 2 * intervals);
    EXPECT_EQ(Count(html, "<figure id=\"camera\""), 1u);
    EXPECT_EQ(Count(html, "src=\"data:image/jpeg;base64,/9j/"), 1 + 2 * intervals) << "JPEG data URIs";
    EXPECT_NE(html.find("data-key=\"keyFrames\">every 6 frames (0.24 s), as seen in the key frames the detector read"),
              std::string::npos);
    EXPECT_NE(html.find("data-key=\"size\">320 &times; 180<"), std::string::npos);
}

}  // namespace
