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
        tw::host::ClipSpec clip;
        clip.width = 160;
        clip.height = 96;
        clip.codec = VIDEO_CODEC_H264;
        clip.gop = 5;
        clip.durationSec = 2;
        m_Clip = m_Dir.File("clip.mp4");
        std::string error;
        ASSERT_TRUE(tw::host::WriteClip(clip, m_Clip, error)) << error;
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
