// twhost detect with several sources, in real time: one detector per source in one process,
// each judging its own input and saying so under its own camera id.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

using tw::test::ChildResult;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

class DetectCamerasLive : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_Dir.Ok()); }

    std::string WriteClip(const std::string& name, std::vector<std::pair<double, double>> motion) {
        tw::host::ClipSpec clip;
        clip.width = 320;
        clip.height = 180;
        clip.codec = VIDEO_CODEC_H264;
        clip.gop = 5;
        clip.durationSec = 3;
        clip.motion = std::move(motion);
        const std::string path = m_Dir.File(name);
        std::string error;
        EXPECT_TRUE(tw::host::WriteClip(clip, path, error)) << error;
        return path;
    }

    tw::test::ScopedTempDir m_Dir;
};

TEST_F(DetectCamerasLive, EachSourceIsJudgedByItsOwnCamera) {
    const std::string moving = WriteClip("moving.mp4", {{0.9, 2.4}});
    const std::string still = WriteClip("still.mp4", {});
    // The second camera starts a second after the first; its times still count from its own
    // start, i.e. they are the times of its video.
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "detect", still, moving, "--realtime", "--json",
                                              "--camera-id", "7", "--camera-id", "3", "--sensitivity", "90",
                                              "--stagger", "2"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    std::vector<Json::Value> lines;
    std::string error;
    ASSERT_TRUE(tw::test::ParseJsonLines(r.out, lines, error)) << error;
    const std::vector<std::string> problems = tw::test::CheckJsonLines("twhost detect", lines);
    ASSERT_TRUE(problems.empty()) << problems.front();

    size_t still7 = 0, moving3 = 0;
    for (const Json::Value& s : tw::test::LinesOfType(lines, "status")) {
        const int cam = s["camera"].asInt();
        ASSERT_TRUE(cam == 7 || cam == 3) << s;
        if (cam == 7) {
            ++still7;
            EXPECT_FALSE(s["motion"].asBool()) << "the still clip's camera: " << s;
        } else {
            ++moving3;
        }
    }
    EXPECT_GE(still7, 2u) << r.out;
    EXPECT_GE(moving3, 2u) << r.out;

    const std::vector<Json::Value> summaries = tw::test::LinesOfType(lines, "summary");
    ASSERT_EQ(summaries.size(), 2u) << r.out;
    for (const Json::Value& s : summaries) {
        const int cam = s["camera"].asInt();
        EXPECT_EQ(s["settings"]["cameraId"].asInt(), cam);
        EXPECT_EQ(s["input"]["source"].asString(), cam == 7 ? still : moving);
        EXPECT_EQ(s["input"]["time"].asString(), "real");
        EXPECT_EQ(s["endReason"].asString(), "end of input");
        EXPECT_EQ(s["statuses"].asUInt64(), cam == 7 ? still7 : moving3);
        EXPECT_DOUBLE_EQ(s["settings"]["stagger"].asDouble(), 2.0);
        // The last of 75 frames at 25 fps, on the camera's own time line.
        EXPECT_NEAR(s["dataEnd"].asDouble(), 2.96, 0.001) << s;
        // Each camera counted its own paced turns (about one per 300 ms of the 3 s on an
        // idle machine; fewer when it is starved, but at least the one after its first).
        const Json::Value& late = s["lateness"];
        EXPECT_GE(late["turns"].asUInt64(), 1u) << s;
        EXPECT_LE(late["over100Ms"].asUInt64(), late["turns"].asUInt64()) << s;
        EXPECT_GE(late["maxMs"].asDouble(), late["p99Ms"].asDouble()) << s;
        EXPECT_GE(late["p99Ms"].asDouble(), 0.0) << s;
        if (cam == 7) {
            EXPECT_EQ(s["intervals"].size(), 0u) << s;
        } else {
            ASSERT_GE(s["intervals"].size(), 1u) << "the square moves 0.9-2.4 s: " << s;
            EXPECT_GE(s["intervals"][0]["start"].asDouble(), 0.9) << s;
            EXPECT_LE(s["intervals"][0]["start"].asDouble(), 2.4) << s;
        }
    }
}

TEST_F(DetectCamerasLive, LoopingFileIsJudgedAgainInEveryRound) {
    // 3 s, the square moving 0.9-2.4 s; played twice over, it moves again 3.9-5.4 s.
    const std::string moving = WriteClip("moving.mp4", {{0.9, 2.4}});
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "detect", moving, "--realtime", "--loop", "--json",
                                              "--sensitivity", "90", "--duration", "6"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    const std::vector<Json::Value> lines = tw::test::ParseCheckedJsonLines("twhost detect", r.out);
    const std::vector<Json::Value> summaries = tw::test::LinesOfType(lines, "summary");
    ASSERT_EQ(summaries.size(), 1u) << r.out;
    const Json::Value& s = summaries[0];
    EXPECT_EQ(s["endReason"].asString(), "duration reached") << s;
    EXPECT_EQ(s["loops"].asInt(), 1) << s;
    // Two rounds of 75 frames, and the first frame of a third right at the cut.
    EXPECT_GE(s["frames"].asInt(), 150) << s;
    EXPECT_LE(s["frames"].asInt(), 151) << s;
    // A looping file never ends its data.
    EXPECT_FALSE(s.isMember("dataEnd")) << s;
    // The jump back to the square's first place at 3 s keeps the motion on, so the rounds
    // make one interval; the second round shows in the value, which sinks while the
    // background takes in the square's resting place and climbs again as it moves.
    ASSERT_GE(s["intervals"].size(), 1u) << s;
    EXPECT_GE(s["intervals"][0]["start"].asDouble(), 0.9) << s;
    EXPECT_LE(s["intervals"][0]["start"].asDouble(), 2.4) << s;
    int settled = 100, again = -1;
    for (const Json::Value& st : tw::test::LinesOfType(lines, "status")) {
        const double t = st["t"].asDouble();
        if (t >= 3.3 && t <= 4.5) settled = std::min(settled, st["value"].asInt());
        if (t >= 4.8) again = std::max(again, st["value"].asInt());
    }
    ASSERT_LT(settled, 100) << "no turn between 3.3 and 4.5 s: " << r.out;
    ASSERT_GE(again, 0) << "no turn after 4.8 s: " << r.out;
    EXPECT_GE(again, settled + 10) << r.out;
}

TEST_F(DetectCamerasLive, TextLinesSayWhichCameraTheyAreAbout) {
    const std::string still = WriteClip("still.mp4", {});
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "detect", still, still, "--realtime", "--duration", "1"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    const std::vector<std::string> lines = tw::test::SplitLines(r.out);
    ASSERT_FALSE(lines.empty());
    size_t first = 0, second = 0;
    for (const std::string& line : lines) {
        if (line.rfind("[camera 1] ", 0) == 0) {
            ++first;
        } else if (line.rfind("[camera 2] ", 0) == 0) {
            ++second;
        } else {
            ADD_FAILURE() << "a line that names no camera: " << line;
        }
    }
    // Its start, its intervals, its statuses and its lateness, for each.
    EXPECT_EQ(first, 4u) << r.out;
    EXPECT_EQ(second, 4u) << r.out;
    EXPECT_TRUE(Contains(r.out, "[camera 2] Motion in 0 intervals")) << r.out;
    EXPECT_TRUE(Contains(r.out, "duration reached")) << r.out;
}

}  // namespace
