// "twhost detect" decodes H.264 and HEVC without the loop filter unless --exact-decode asks
// for it. On the clips the detection tests make, both give the same motion intervals, the
// same motion flag at every turn and values that differ by a step at most; the runs are in
// virtual time, so this is deterministic. (The share of turns whose value is the same too
// is printed; bench/decode_agreement.sh reports it on longer clips.)
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

using tw::test::ChildResult;
using tw::test::DetectJson;

using ClipCase = tw::test::DetectClipCase;

DetectJson Detect(const std::string& path, bool exact) {
    std::vector<std::string> args = {TW_TWHOST_BIN, "detect", path, "--json"};
    if (exact) args.push_back("--exact-decode");
    const ChildResult r = tw::test::RunChild(args);
    DetectJson json;
    std::string error;
    EXPECT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    EXPECT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    return json;
}

class ExactDecode : public ::testing::TestWithParam<ClipCase> {};

TEST_P(ExactDecode, SameIntervalsAndTurnsAsExactDecoding) {
    av_log_set_level(AV_LOG_ERROR);
    const ClipCase& c = GetParam();
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    // The clips of the detection tests: two movements with a still stretch between them.
    const tw::host::ClipSpec clip = tw::test::DetectClipSpec(c);
    const std::string path = dir.File(std::string("clip.") + c.ext);
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clip, path, error)) << error;

    const DetectJson fast = Detect(path, false);
    const DetectJson exact = Detect(path, true);
    ASSERT_FALSE(exact.statuses.empty());
    ASSERT_EQ(fast.statuses.size(), exact.statuses.size());
    size_t agree = 0;
    for (size_t i = 0; i < fast.statuses.size(); ++i) {
        const tw::test::DetectStatus& a = fast.statuses[i];
        const tw::test::DetectStatus& b = exact.statuses[i];
        EXPECT_DOUBLE_EQ(a.t, b.t) << "turn " << i;
        EXPECT_EQ(a.motion, b.motion) << "turn " << i << " at " << a.t << " s";
        // Measured: one step (e.g. 33 against 34) on 2 of 64 turns of the B-frame clip.
        EXPECT_LE(std::abs(a.value - b.value), 2) << "turn " << i << " at " << a.t << " s";
        if (a.motion == b.motion && a.value == b.value) ++agree;
    }
    EXPECT_EQ(fast.summary["intervals"], exact.summary["intervals"])
        << "default: " << fast.summary["intervals"].toStyledString()
        << "exact: " << exact.summary["intervals"].toStyledString();
    // The clip moves twice; both runs must see it.
    EXPECT_EQ(exact.summary["intervals"].size(), 2u) << exact.summary["intervals"].toStyledString();
    printf("%s: %zu of %zu turns agree\n", c.name, agree, fast.statuses.size());
}

INSTANTIATE_TEST_SUITE_P(Codecs, ExactDecode,
                         ::testing::Values(ClipCase{"mjpeg_avi", VIDEO_CODEC_JPEG, "avi", 320, 180, 0},
                                           ClipCase{"mpeg4_mp4", VIDEO_CODEC_MPEG4, "mp4", 320, 180, 0},
                                           ClipCase{"h264_mp4", VIDEO_CODEC_H264, "mp4", 320, 180, 0},
                                           ClipCase{"h264_bframes_640x360_mp4", VIDEO_CODEC_H264, "mp4",
                                                    640, 360, 2},
                                           ClipCase{"hevc_640x360_mkv", VIDEO_CODEC_HEVC, "mkv", 640, 360, 0}),
                         [](const ::testing::TestParamInfo<ClipCase>& info) { return std::string(info.param.name); });

}  // namespace
