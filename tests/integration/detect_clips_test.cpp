// Motion detection end to end on real encoded clips (MJPEG, MPEG-4 part 2, H.264) that the
// test writes at run time: through the twhost command, and in-process the way twhost does
// it (plug-in loaded as a module, detector driven through a handler, the clip pumped into a
// stream FIFO on a virtual clock). The clips move at known times; every movement must be
// reported promptly and the still stretches must stay quiet once the background settled.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/testenv.h"
#include "tw/camera.h"
#include "tw/stream.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/logsink.h"
#include "twhost/mediasource.h"
#include "twhost/plugin.h"
#include "twhost/streamfifo.h"

namespace {

using tw::test::ChildResult;
using tw::test::DetectJson;
using tw::test::DetectStatus;

using ClipCase = tw::test::DetectClipCase;

constexpr int64_t kPeriodUs = 300000;
// Real seconds after which a run that never ends is abandoned; a guard, not a measurement.
constexpr auto kHangGuard = std::chrono::seconds(120);

struct InProcessRun {
    bool completed = false;
    std::string error;
    int64_t epochUs = 0;
    uint64_t packets = 0;
    std::vector<tw::host::EventRecord> events;
};

// The clip analysed as "twhost detect FILE" does: the detector's 300 ms period and the
// stream's timestamps on one virtual clock that jumps whenever the detector waits, never
// past what the file holds.
InProcessRun DetectInProcess(const std::string& path, int camId) {
    InProcessRun run;
    tw::host::MediaSource source;
    if (!source.Open(path, run.error)) return run;
    std::unique_ptr<tw::host::PluginModule> module = tw::host::PluginModule::Load(TW_PLUGIN_PATH, run.error);
    if (!module) return run;

    auto clock = std::make_shared<tw::host::ManualClock>(0, true);
    tw::host::SetClock(clock);
    struct ClockRestorer {
        ~ClockRestorer() { tw::host::SetClock(nullptr); }
    } restorer;

    Camera camera = tw::test::AddCamera(camId, source.GetCodec(), tw::host::DetSettingValues());
    EventBuf events(camId);
    StreamFifo fifo;
    tw::host::FifoPump pump(source, fifo);
    if (!pump.StartVirtual(run.error)) return run;
    run.epochUs = pump.GetEpochUs();
    int64_t limitUs = pump.GetExpectedEndTimeUs();
    limitUs = (limitUs > 0 ? limitUs : run.epochUs) + kPeriodUs;
    clock->SetAdvanceLimitUs(limitUs);

    DPObjectBase* det = module->TWMotionDetFactory(&camera, &events, &fifo, nullptr);
    if (det == nullptr) {
        run.error = "the factory made no detector";
        return run;
    }
    std::unique_ptr<tw::host::DetectorHandlerProxy> handler = module->NewDetectorHandler();
    handler->SetDetector(det, 2);
    handler->SetDetParam({{1, "80"}, {3, "10"}, {9, "0"}});
    if (handler->Start() != 0) {
        run.error = "the detector did not start";
        handler->Release();
        return run;
    }
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    for (;;) {
        const int64_t now = clock->NowUs();
        if (pump.Ended()) {
            // One more look after the last frame, then stop.
            const int64_t stopAt = pump.GetEndTimeUs() + kPeriodUs;
            if (limitUs != stopAt) {
                limitUs = stopAt;
                clock->SetAdvanceLimitUs(limitUs);
            }
            if (now >= stopAt) {
                run.completed = true;
                break;
            }
        } else if (now >= limitUs) {
            // The file holds more than its header said: let time go on a little.
            limitUs += 1000000;
            clock->SetAdvanceLimitUs(limitUs);
        }
        if (std::chrono::steady_clock::now() > guard) {
            run.error = "the run did not reach the end of the clip";
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    handler->Stop();
    handler->Release();
    pump.Stop();
    run.packets = pump.GetPacketCount();
    run.events = tw::host::GetEventHistory(events);
    return run;
}

class DetectClips : public ::testing::TestWithParam<ClipCase> {
protected:
    void SetUp() override {
        // The encoders' statistics are not the test's output.
        av_log_set_level(AV_LOG_ERROR);
        ASSERT_TRUE(m_Dir.Ok());
        m_Clip = tw::test::DetectClipSpec(GetParam());
        m_strClip = m_Dir.File(std::string("clip.") + GetParam().ext);
        std::string error;
        ASSERT_TRUE(tw::host::WriteClip(m_Clip, m_strClip, error)) << error;
    }

    tw::test::ScopedTempDir m_Dir;
    tw::host::ClipSpec m_Clip;
    std::string m_strClip;
};

TEST_P(DetectClips, TwhostReportsEveryMovementAndNoMotionOnceTheSceneSettled) {
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "detect", m_strClip, "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;

    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    EXPECT_EQ(json.summary["frames"].asInt(), tw::host::ClipFrameCount(m_Clip));
    EXPECT_EQ(json.summary["statuses"].asUInt(), json.statuses.size());

    const std::vector<std::string> problems = tw::test::CheckTimeline(json.statuses, m_Clip.motion, m_Clip.durationSec);
    EXPECT_TRUE(problems.empty()) << tw::test::JoinProblems(problems) << "\nstatuses: "
                                  << tw::test::DescribeStatuses(json.statuses);
}

TEST_P(DetectClips, InProcessDetectorOnAVirtualClockReportsEveryMovementAndNoMotionOnceTheSceneSettled) {
    tw::test::ScopedLogCapture capture;
    tw::host::DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(4);
    logConfig.Install();

    const InProcessRun run = DetectInProcess(m_strClip, 21);
    ASSERT_TRUE(run.completed) << run.error;
    EXPECT_EQ(run.packets, static_cast<uint64_t>(tw::host::ClipFrameCount(m_Clip)));

    const std::vector<DetectStatus> statuses = tw::test::StatusesFromEvents(run.events, run.epochUs);
    // Stopping writes a last "no motion" of its own.
    ASSERT_FALSE(statuses.empty());
    EXPECT_FALSE(statuses.back().motion);
    const std::vector<std::string> problems = tw::test::CheckTimeline(statuses, m_Clip.motion, m_Clip.durationSec);
    EXPECT_TRUE(problems.empty()) << tw::test::JoinProblems(problems)
                                  << "\nstatuses: " << tw::test::DescribeStatuses(statuses);

    // A good clip decodes at every turn; only the very first picture of a video decoder
    // sets the picture size up and is not judged.
    EXPECT_LE(capture->Count("DecImage failed.\n"), 1u);
    EXPECT_EQ(capture->Count("Cam[21]: Failed to init FFmpeg dec.\n"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Codecs, DetectClips,
                         ::testing::Values(ClipCase{"mjpeg_avi", VIDEO_CODEC_JPEG, "avi", 320, 180, 0},
                                           ClipCase{"mpeg4_mp4", VIDEO_CODEC_MPEG4, "mp4", 320, 180, 0},
                                           ClipCase{"h264_mp4", VIDEO_CODEC_H264, "mp4", 320, 180, 0},
                                           ClipCase{"h264_bframes_640x360_mp4", VIDEO_CODEC_H264, "mp4",
                                                    640, 360, 2}),
                         [](const ::testing::TestParamInfo<ClipCase>& info) { return std::string(info.param.name); });

}  // namespace
