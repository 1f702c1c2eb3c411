// twhost detect with several sources: what it refuses, before anything runs, and how a
// single camera's lines name it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

using tw::test::ChildResult;

ChildResult Twhost(std::vector<std::string> args) {
    args.insert(args.begin(), TW_TWHOST_BIN);
    return tw::test::RunChild(args);
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class DetectCameras : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_Dir.Ok());
        m_Clip = m_Dir.File("clip.mp4");
        ASSERT_NO_FATAL_FAILURE(WriteStillClip(m_Clip, 2));
    }

    // A small H.264 clip at 25 fps, a key frame every five frames.
    static void WriteStillClip(const std::string& path, double seconds) {
        tw::host::ClipSpec clip;
        clip.width = 160;
        clip.height = 96;
        clip.codec = VIDEO_CODEC_H264;
        clip.gop = 5;
        clip.durationSec = seconds;
        std::string error;
        ASSERT_TRUE(tw::host::WriteClip(clip, path, error)) << error;
    }

    // Exit 2 with one line on stderr that holds every given part; nothing on stdout.
    static void ExpectUsageError(const ChildResult& r, const std::vector<std::string>& parts) {
        ASSERT_TRUE(r.exited) << r.Describe();
        EXPECT_EQ(r.exitCode, 2) << r.err;
        EXPECT_EQ(tw::test::SplitLines(r.err).size(), 1u) << r.err;
        for (const std::string& part : parts) EXPECT_TRUE(Contains(r.err, part)) << r.err;
        EXPECT_EQ(r.out, "");
    }

    tw::test::ScopedTempDir m_Dir;
    std::string m_Clip;
};

TEST_F(DetectCameras, SeveralFilesWithoutRealtimeAreRefusedNamingTheOption) {
    ExpectUsageError(Twhost({"detect", m_Clip, m_Clip}), {"--realtime", m_Clip});
}

TEST_F(DetectCameras, ReportWithSeveralSourcesIsRefusedNamingTheOption) {
    ExpectUsageError(Twhost({"detect", m_Clip, m_Clip, "--realtime", "--report", m_Dir.File("r.html")}),
                     {"--report", "one SOURCE", "2 given"});
}

TEST_F(DetectCameras, SnapshotsWithSeveralSourcesAreRefusedNamingTheOption) {
    ExpectUsageError(Twhost({"detect", m_Clip, m_Clip, "--realtime", "--snapshots", m_Dir.File("shots")}),
                     {"--snapshots"});
}

TEST_F(DetectCameras, ShmWithSourcesIsRefused) {
    ExpectUsageError(Twhost({"detect", m_Clip, m_Clip, "--realtime", "--shm"}), {"--shm"});
}

TEST_F(DetectCameras, CameraIdsMustBeOnePerSource) {
    ExpectUsageError(Twhost({"detect", m_Clip, m_Clip, m_Clip, "--realtime", "--camera-id", "4", "--camera-id", "5"}),
                     {"--camera-id", "2 times", "3 sources"});
}

TEST_F(DetectCameras, CameraIdGivenTwiceIsRefused) {
    ExpectUsageError(Twhost({"detect", m_Clip, m_Clip, "--realtime", "--camera-id", "4", "--camera-id", "4"}),
                     {"camera id 4", "twice"});
}

TEST_F(DetectCameras, TwoCameraIdsForOneSourceAreRefused) {
    ExpectUsageError(Twhost({"detect", m_Clip, "--camera-id", "4", "--camera-id", "5"}), {"--camera-id", "2 times"});
}

TEST_F(DetectCameras, StaggerWithOneSourceIsRefused) {
    ExpectUsageError(Twhost({"detect", m_Clip, "--stagger", "1"}), {"--stagger", "more than one SOURCE"});
}

TEST_F(DetectCameras, LoopWithoutRealtimeIsRefusedNamingTheOption) {
    ExpectUsageError(Twhost({"detect", m_Clip, "--loop"}), {"--loop", "--realtime"});
}

TEST_F(DetectCameras, LoopOnTheLiveFifoIsRefused) {
    ExpectUsageError(Twhost({"detect", "--shm", "--loop", "--realtime"}), {"--loop", "--shm"});
}

TEST_F(DetectCameras, LoopWithAStreamAmongTheSourcesIsRefusedNamingIt) {
    ExpectUsageError(Twhost({"detect", m_Clip, "rtsp://127.0.0.1:9/none", "--realtime", "--loop"}),
                     {"--loop", "'rtsp://127.0.0.1:9/none' is a stream"});
}

// The summary of a real-time run cut at --duration counts the frames the camera had sent by
// the cut, not the second of video the pump reads ahead of the clock.
TEST_F(DetectCameras, RealTimeRunCutByDurationCountsTheFramesSentByTheCut) {
    const ChildResult r = Twhost({"detect", m_Clip, "--realtime", "--duration", "1", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    const std::vector<Json::Value> summaries =
        tw::test::LinesOfType(tw::test::ParseCheckedJsonLines("twhost detect", r.out), "summary");
    ASSERT_EQ(summaries.size(), 1u) << r.out;
    EXPECT_EQ(summaries[0]["endReason"].asString(), "duration reached");
    // 25 fps: the frames at 0 to 0.96 s, and the one at 1.0 s unless the pump started a
    // microsecond or more after the run's epoch (it always starts after it).
    const int frames = summaries[0]["frames"].asInt();
    EXPECT_GE(frames, 25) << summaries[0];
    EXPECT_LE(frames, 26) << summaries[0];
}

TEST_F(DetectCameras, LoopingCamerasPlayTheirFileAgainAndTellHowOften) {
    // 0.2 s: five frames 40 ms apart, each round 200 ms after the one before.
    const std::string shortClip = m_Dir.File("short.mp4");
    ASSERT_NO_FATAL_FAILURE(WriteStillClip(shortClip, 0.2));

    const ChildResult r =
        Twhost({"detect", shortClip, shortClip, "--realtime", "--loop", "--duration", "1", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    const std::vector<Json::Value> summaries =
        tw::test::LinesOfType(tw::test::ParseCheckedJsonLines("twhost detect", r.out), "summary");
    ASSERT_EQ(summaries.size(), 2u) << r.out;
    for (const Json::Value& s : summaries) {
        EXPECT_EQ(s["endReason"].asString(), "duration reached") << s;
        EXPECT_TRUE(s["settings"]["loop"].asBool()) << s;
        // One second of a 0.2 s file: five rounds, the fifth starting right at the cut.
        const int frames = s["frames"].asInt();
        EXPECT_GE(frames, 25) << s;
        EXPECT_LE(frames, 26) << s;
        EXPECT_EQ(s["loops"].asInt(), (frames - 1) / 5) << s;
        EXPECT_NEAR(s["t"].asDouble(), 1.0, 1e-9) << s;
    }

    // In text, the run says it loops and how often each file started again.
    const ChildResult text = Twhost({"detect", shortClip, "--realtime", "--loop", "--duration", "0.5"});
    ASSERT_TRUE(text.exited && text.exitCode == 0) << text.Describe() << "\n" << text.err;
    EXPECT_TRUE(Contains(text.out, "real time, looping")) << text.out;
    EXPECT_TRUE(Contains(text.out, "the file started again 2 times; duration reached")) << text.out;
}

TEST_F(DetectCameras, SourceThatCannotBeOpenedFailsNamingItsCameraAndTheInput) {
    const std::string missing = m_Dir.File("missing.mp4");
    const ChildResult r = Twhost({"detect", m_Clip, missing, "--realtime"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    const std::vector<std::string> lines = tw::test::SplitLines(r.err);
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_TRUE(Contains(lines[0], "camera 2")) << lines[0];
    EXPECT_TRUE(Contains(lines[0], missing)) << lines[0];
    EXPECT_EQ(r.out, "");
}

TEST_F(DetectCameras, OneSourceNamesItsCameraOnEveryStatusAndTheSummary) {
    const ChildResult r = Twhost({"detect", m_Clip, "--json", "--camera-id", "12"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    std::vector<Json::Value> lines;
    std::string error;
    ASSERT_TRUE(tw::test::ParseJsonLines(r.out, lines, error)) << error;
    const std::vector<std::string> problems = tw::test::CheckJsonLines("twhost detect", lines);
    EXPECT_TRUE(problems.empty()) << problems.front();
    const std::vector<Json::Value> statuses = tw::test::LinesOfType(lines, "status");
    ASSERT_FALSE(statuses.empty()) << r.out;
    for (const Json::Value& s : statuses) EXPECT_EQ(s["camera"].asInt(), 12) << s;
    const std::vector<Json::Value> summaries = tw::test::LinesOfType(lines, "summary");
    ASSERT_EQ(summaries.size(), 1u) << r.out;
    EXPECT_EQ(summaries[0]["camera"].asInt(), 12);
    // Virtual time: every turn is in its slot, there is no lateness to tell.
    EXPECT_FALSE(summaries[0].isMember("lateness")) << summaries[0];
}

}  // namespace
