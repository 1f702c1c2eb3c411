// The motion detector's loop, turn by turn: the short-live filter and its counter, frame
// selection from the FIFOs, start-up failures, extra-data changes, broken frames, stopping,
// and real motion in encoded scenes.
//
// The host clock is a manual one: the detector thread parks in its 300 ms delay at the end
// of every turn and runs the next turn only when the test moves the clock. A FIFO puller
// tells when a turn has begun, the parked sleeper when it has ended, so every check below
// sees the detector between two turns and nothing depends on real time.
//
// The learning counter of the judgement is shared by the whole process. Tests that need
// real verdicts from their first comparison end the learning phase first (PassLearning);
// the one test about learning needs a process of its own, as ctest gives it, and says so
// when it has none.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "plugin/camera/motiondet_access.h"
#include "camera/ssmotiondet.h"
#include "support/test_encode.h"
#include "support/testenv.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/shmfifo.h"
#include "twhost/streamfifo.h"

namespace {

using tw::host::DetSettingValues;
using tw::host::EventRecord;
using tw::host::LogRecord;
using tw::test::ScopedLogCapture;
using A = TWMotionDetAccess;
using Frame = std::vector<unsigned char>;

constexpr int kCam = 91;
constexpr int64_t kPeriodUs = 300000;
constexpr int kGuardMs = 60000;  // only against a hang; never reached when things work

DetSettingValues Settings(int sensitivity, int threshold, int shortLiveSec) {
    DetSettingValues values;
    values.sensitivity = sensitivity;
    values.threshold = threshold;
    values.shortLiveSec = shortLiveSec;
    return values;
}

// A scene whose object is always on the move: each 300 ms it has travelled far enough
// that every new picture differs from the background in a few percent of its pixels.
tw::host::ClipSpec MovingScene() {
    tw::host::ClipSpec scene;
    scene.width = 640;
    scene.height = 360;
    scene.motion = {{0.0, 1.0e6}};
    return scene;
}

Frame SceneJpeg(const tw::host::ClipSpec& scene, double t) {
    const std::vector<unsigned char> grey = tw::host::RenderSceneGrey(scene, t);
    return tw::host::EncodeJpeg(grey.data(), scene.width, scene.height, 1);
}

// Pictures with edges, so that the FFmpeg path's scaling and blurring have work to do.
void PaintTexture(int index, int width, int height, unsigned char* rgb) {
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int checker = ((x * 8 / width) + (y * 6 / height) + index) % 2;
            unsigned char* p = rgb + 3 * (static_cast<size_t>(y) * width + x);
            p[0] = p[1] = p[2] = static_cast<unsigned char>(40 + checker * 150 + (x * 30) / width);
        }
    }
}

tw::test::TestVideo EncodeVideo(int codec, int width, int height, int frames, int gop, bool texture) {
    tw::test::TestVideoSpec videoSpec;
    videoSpec.codec = codec;
    videoSpec.width = width;
    videoSpec.height = height;
    videoSpec.frames = frames;
    videoSpec.gop = gop;
    if (texture) videoSpec.painter = PaintTexture;
    tw::test::TestVideo video;
    std::string error;
    EXPECT_TRUE(tw::test::EncodeTestVideo(videoSpec, video, error)) << error;
    EXPECT_EQ(video.packets.size(), static_cast<size_t>(frames));
    return video;
}

Frame Junk(size_t size) {
    // No zero bytes, so nothing in it can pass for an H.264 start code.
    Frame junk(size);
    for (size_t i = 0; i < size; ++i) junk[i] = static_cast<unsigned char>((i * 37 + 11) | 1);
    return junk;
}

// Ends the process-wide learning phase on a detector of its own, so that the detector
// under test judges from its first comparison whatever ran before in this process.
void PassLearning() {
    Camera camera = tw::test::AddCamera(kCam + 1, VIDEO_CODEC_JPEG, DetSettingValues());
    EventBuf events(kCam + 1);
    TWMotionDet scratch(&camera, &events, nullptr, nullptr);
    ASSERT_EQ(scratch.SetDetBlocks(40, 30), 0);
    memset(A::Background(scratch), 0, A::DetBufSize(scratch));
    std::vector<unsigned char> frame(A::DetBufSize(scratch), 0);
    int result = 0;
    for (int i = 0; i < 3; ++i) scratch.DetMotion(frame.data(), frame.data(), result);
}

void ExpectMotiondetRecord(const LogRecord& r, const char* level, const char* function) {
    EXPECT_EQ(r.category, "motiondet");
    EXPECT_EQ(r.level, level);
    EXPECT_EQ(r.file, "camera/ssmotiondet.cpp");
    EXPECT_EQ(r.function, function);
}

class DetLoop : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::DbgLogConfig::Uninstall();
        tw::host::SetClock(m_Clock);
        tw::host::SetFifoPuller(m_Fifo, [this] {
            std::lock_guard<std::mutex> lock(m_PullMutex);
            ++m_Pulls;
            m_PullCond.notify_all();
        });
    }
    void TearDown() override {
        // Destroying the detector stops it; the clock must let its parked thread go.
        m_Clock->SetAutoAdvance(true);
        m_pDet.reset();
        tw::host::SetFifoPuller(m_Fifo, {});
        tw::host::SetClock(nullptr);
    }

    void Make(int codec, const DetSettingValues& values, bool withFifo = true, int camId = kCam) {
        m_Camera = tw::test::AddCamera(camId, codec, values);
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, withFifo ? &m_Fifo : nullptr, nullptr);
    }
    void SetParams(int sensitivity, int threshold, int shortLiveSec) {
        m_pDet->SetDetParam(0,
                            {{1, std::to_string(sensitivity)},
                             {3, std::to_string(threshold)},
                             {9, std::to_string(shortLiveSec)}},
                            0);
    }
    // Starts the detector and waits until its first turn is done.
    void StartDet() {
        ASSERT_EQ(m_pDet->Start(), 0);
        m_Clock->WaitForSleepers(1);
    }
    // Lets the parked detector run exactly one more turn.
    void Turn() {
        uint64_t pulls = 0;
        {
            std::lock_guard<std::mutex> lock(m_PullMutex);
            pulls = m_Pulls;
        }
        m_Clock->Advance(kPeriodUs);
        {
            std::unique_lock<std::mutex> lock(m_PullMutex);
            ASSERT_TRUE(m_PullCond.wait_for(lock, std::chrono::milliseconds(kGuardMs),
                                            [&] { return m_Pulls > pulls; }))
                << "the detector did not begin its next turn";
        }
        m_Clock->WaitForSleepers(1);
    }
    void StopDet() {
        m_Clock->SetAutoAdvance(true);
        EXPECT_EQ(m_pDet->Stop(), 0);
        m_Clock->SetAutoAdvance(false);
    }
    void Push(const Frame& frame, bool key) {
        tw::host::PushFifoBlock(m_Fifo, std::make_shared<const Frame>(frame), key, m_Clock->NowUs());
    }
    void PushScene(double t) { Push(SceneJpeg(m_Scene, t), true); }
    std::vector<EventRecord> Events() { return tw::host::GetEventHistory(m_Events); }
    uint64_t HandedOut() { return tw::host::GetFifoStats(m_Fifo).blocksHandedOut; }
    int MotionCnt() { return A::MotionCnt(*m_pDet); }
    // The uncapped detection values that the judgement logged, in order.
    std::vector<int> LoggedResults() {
        std::vector<int> values;
        const std::string prefix = "Detection result: ";
        for (const LogRecord& r : m_Log->Records()) {
            if (r.message.compare(0, prefix.size(), prefix) == 0)
                values.push_back(atoi(r.message.c_str() + prefix.size()));
        }
        return values;
    }
    // The event of the last turn carries the value that this turn's comparison produced.
    void ExpectLastEvent(bool motion) {
        const std::vector<EventRecord> events = Events();
        const std::vector<int> logged = LoggedResults();
        ASSERT_FALSE(events.empty());
        ASSERT_FALSE(logged.empty());
        EXPECT_EQ(events.back().motion, motion);
        EXPECT_EQ(events.back().value, std::min(logged.back(), 100));
        EXPECT_GT(events.back().value, 0);
    }

    ScopedLogCapture m_Log;
    std::shared_ptr<tw::host::ManualClock> m_Clock = std::make_shared<tw::host::ManualClock>(0);
    std::mutex m_PullMutex;
    std::condition_variable m_PullCond;
    uint64_t m_Pulls = 0;
    tw::host::ClipSpec m_Scene = MovingScene();
    Camera m_Camera;
    EventBuf m_Events{kCam};
    StreamFifo m_Fifo;
    std::unique_ptr<TWMotionDet> m_pDet;
};

// Common start of the short-live tests: a JPEG camera on the moving scene, judging from its
// first comparison. Its first picture builds and seeds the blocks, the second only becomes
// the previous frame; both are reported as no motion with value 0.
class ShortLive : public DetLoop {
protected:
    void StartOnScene(int shortLiveSec) {
        PassLearning();
        m_Verbose = std::make_unique<tw::test::ScopedVerboseLog>();
        Make(VIDEO_CODEC_JPEG, Settings(80, 1, shortLiveSec));
        tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 360, {});
        PushScene(0.0);
        StartDet();
        m_Time = 0.0;
        MovingTurn();
        const std::vector<EventRecord> events = Events();
        ASSERT_EQ(events.size(), 2u);
        for (const EventRecord& e : events) {
            EXPECT_FALSE(e.motion);
            EXPECT_EQ(e.value, 0);
        }
        EXPECT_EQ(MotionCnt(), 0);
        EXPECT_TRUE(LoggedResults().empty());
    }
    // One turn on a new picture of the scene.
    void MovingTurn() {
        m_Time += 0.3;
        PushScene(m_Time);
        Turn();
    }
    std::unique_ptr<tw::test::ScopedVerboseLog> m_Verbose;
    double m_Time = 0.0;
};

// ---------------------------------------------------------------------------------------
// Short-live filter and motion count

TEST_F(ShortLive, ZeroReportsTheFirstPositiveVerdictAtOnce) {
    StartOnScene(0);
    MovingTurn();
    ASSERT_EQ(Events().size(), 3u);
    ExpectLastEvent(true);
    EXPECT_EQ(MotionCnt(), 1);
    MovingTurn();
    ASSERT_EQ(Events().size(), 4u);
    ExpectLastEvent(true);
    EXPECT_EQ(MotionCnt(), 2);
}

TEST_F(ShortLive, OneSecondReportsTheFourthConsecutivePositiveVerdictFirst) {
    StartOnScene(1);  // (1 * 1000) / 300 = 3 turns must already have been positive
    for (int i = 1; i <= 3; ++i) {
        MovingTurn();
        ASSERT_EQ(Events().size(), static_cast<size_t>(2 + i));
        ExpectLastEvent(false);  // positive, but held back with its value
        EXPECT_EQ(MotionCnt(), i);
    }
    MovingTurn();
    ASSERT_EQ(Events().size(), 6u);
    ExpectLastEvent(true);
    EXPECT_EQ(MotionCnt(), 4);
    EXPECT_EQ(LoggedResults().size(), 4u);
}

TEST_F(ShortLive, TurnWithoutANewFrameStillCountsThePositiveVerdict) {
    StartOnScene(1);
    MovingTurn();
    ExpectLastEvent(false);
    EXPECT_EQ(MotionCnt(), 1);
    // No new picture: nothing is decoded or written, but the verdict is counted again.
    Turn();
    EXPECT_EQ(MotionCnt(), 2);
    Turn();
    EXPECT_EQ(MotionCnt(), 3);
    EXPECT_EQ(Events().size(), 3u);
    EXPECT_EQ(LoggedResults().size(), 1u);
    // So the second compared picture is already reported as motion.
    MovingTurn();
    ASSERT_EQ(Events().size(), 4u);
    ExpectLastEvent(true);
    EXPECT_EQ(MotionCnt(), 4);
}

TEST_F(ShortLive, NegativeVerdictResetsTheCountAndReportsNoMotion) {
    StartOnScene(1);
    for (int i = 0; i < 4; ++i) MovingTurn();
    ExpectLastEvent(true);
    ASSERT_EQ(MotionCnt(), 4);

    SetParams(80, 100, 1);  // the moving object changes far less than 25 % of the picture
    MovingTurn();
    ASSERT_EQ(Events().size(), 7u);
    ExpectLastEvent(false);
    EXPECT_LT(Events().back().value, 100);
    EXPECT_EQ(MotionCnt(), 0);
    // A turn without a frame keeps the negative verdict: the count stays at 0.
    Turn();
    EXPECT_EQ(MotionCnt(), 0);
    EXPECT_EQ(Events().size(), 7u);

    // Motion has to last the full short-live time again before it is reported.
    SetParams(80, 1, 1);
    for (int i = 1; i <= 3; ++i) {
        MovingTurn();
        ExpectLastEvent(false);
        EXPECT_EQ(MotionCnt(), i);
    }
    MovingTurn();
    ExpectLastEvent(true);
}

TEST_F(ShortLive, MotionCountWrapsAfter255AndHoldsMotionBackAgain) {
    StartOnScene(1);
    A::MotionCnt(*m_pDet) = 255;  // as after 255 positive turns in a row
    MovingTurn();
    ASSERT_EQ(Events().size(), 3u);
    ExpectLastEvent(true);
    EXPECT_EQ(MotionCnt(), 0);  // 256 kept in 8 bits
    for (int i = 1; i <= 3; ++i) {
        MovingTurn();
        ExpectLastEvent(false);
        EXPECT_EQ(MotionCnt(), i);
    }
    MovingTurn();
    ExpectLastEvent(true);
}

TEST_F(DetLoop, FirstThreeComparisonsOfTheProcessOnlyLearn) {
    TW_NEEDS_FRESH_LEARNING_COUNTER();
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_JPEG, Settings(80, 1, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 360, {});
    PushScene(0.0);
    StartDet();    // seeds the blocks
    PushScene(0.3);
    Turn();        // becomes the previous frame
    for (int i = 2; i <= 4; ++i) {
        PushScene(0.3 * i);
        Turn();
        ASSERT_EQ(Events().size(), static_cast<size_t>(1 + i));
        EXPECT_FALSE(Events().back().motion);
        EXPECT_EQ(Events().back().value, 0);
        EXPECT_EQ(MotionCnt(), 0);
    }
    EXPECT_TRUE(LoggedResults().empty());  // learning judges nothing
    PushScene(1.5);
    Turn();
    ASSERT_EQ(Events().size(), 6u);
    EXPECT_TRUE(Events().back().motion);
    EXPECT_GT(Events().back().value, 0);
    EXPECT_EQ(LoggedResults().size(), 1u);
}

// ---------------------------------------------------------------------------------------
// Stopping and start-up failures

TEST_F(ShortLive, StopLeavesNoMotionLastInFifoMode) {
    StartOnScene(0);
    MovingTurn();
    ASSERT_EQ(Events().size(), 3u);
    ASSERT_TRUE(Events().back().motion);
    StopDet();
    EXPECT_FALSE(m_pDet->IsActivated());
    const std::vector<EventRecord> events = Events();
    ASSERT_EQ(events.size(), 4u);  // the turns run while stopping had no new frame
    EXPECT_FALSE(events.back().motion);
    EXPECT_EQ(events.back().value, 0);
}

TEST_F(DetLoop, EveryTurnWaitsOutThe300MillisecondPeriod) {
    Make(VIDEO_CODEC_JPEG, Settings(80, 1, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 360, {});
    PushScene(0.0);
    StartDet();
    Turn();
    Turn();
    EXPECT_EQ(m_Clock->TakeWaits(), std::vector<int64_t>(3, kPeriodUs));
}

TEST_F(DetLoop, UnknownCodecFailsTheDecoderAndEndsTheThreadWithoutAnEvent) {
    Make(7, Settings(80, 1, 0));
    tw::host::SetFifoFormat(m_Fifo, 7, 640, 360, {});
    ASSERT_EQ(m_pDet->Start(), 0);
    EXPECT_EQ(m_pDet->Stop(), 0);  // joins a thread that has already ended on its own
    std::vector<LogRecord> r = m_Log->Find("Cam[91]: Failed to init FFmpeg dec.\n");
    ASSERT_EQ(r.size(), 1u);
    ExpectMotiondetRecord(r[0], "WARN", "DetMain");
    EXPECT_TRUE(Events().empty());
    EXPECT_TRUE(m_Clock->TakeWaits().empty());  // no turn was ever run
    EXPECT_EQ(HandedOut(), 0u);
}

// ---------------------------------------------------------------------------------------
// Shared-memory mode

class DetLoopShm : public DetLoop {
protected:
    void SetUp() override {
        DetLoop::SetUp();
        // Segments of this process only, so that parallel runs never meet.
        const unsigned base = 0x30000000u + (static_cast<unsigned>(getpid()) % 0x4000u) * 0x20000u;
        setenv("TW_SHM_KEY_BASE", std::to_string(base).c_str(), 1);
        m_Clock->SetNowUs(kStartUs);  // so that a reader's stamp cannot be mistaken for none
    }
    void TearDown() override {
        DetLoop::TearDown();
        m_pPublisher.reset();
        unsetenv("TW_SHM_KEY_BASE");
    }
    void Publish(int camId, int codec) {
        m_pPublisher = std::make_unique<tw::host::ShmStreamPublisher>(camId, 0);
        std::string error;
        ASSERT_TRUE(m_pPublisher->Open(error)) << error;
        ASSERT_TRUE(m_pPublisher->SetFormat(codec, 640, 360, {}));
    }
    void ShmPush(const Frame& frame, bool key) {
        ASSERT_GE(m_pPublisher->Push(frame.data(), frame.size(), key, m_Clock->NowUs()), 0);
    }
    // In this mode every turn reads the newest frame again and writes one event.
    void ShmTurn() {
        const size_t before = Events().size();
        m_Clock->Advance(kPeriodUs);
        ASSERT_TRUE(tw::host::WaitForEvents(m_Events, before + 1, kGuardMs));
        m_Clock->WaitForSleepers(1);
    }
    int Attachments() {
        shmid_ds ds{};
        EXPECT_EQ(shmctl(m_pPublisher->GetShmId(), IPC_STAT, &ds), 0);
        return static_cast<int>(ds.shm_nattch);
    }
    static constexpr int64_t kStartUs = 5000000;
    std::unique_ptr<tw::host::ShmStreamPublisher> m_pPublisher;
};

TEST_F(DetLoopShm, NoLiveFifoEndsTheThreadWithoutTouchingTheEventBuffer) {
    Make(VIDEO_CODEC_H264, Settings(80, 1, 0), false, 9001);
    ASSERT_EQ(m_pDet->Start(), 0);
    EXPECT_EQ(m_pDet->Stop(), 0);
    std::vector<LogRecord> r = m_Log->Find("Cam[9001]: Failed to get stream Fifo.\n");
    ASSERT_EQ(r.size(), 1u);
    ExpectMotiondetRecord(r[0], "WARN", "DetMain");
    EXPECT_EQ(m_Log->Records().size(), 1u);
    EXPECT_TRUE(Events().empty());
    EXPECT_TRUE(m_Clock->TakeWaits().empty());
}

TEST_F(DetLoopShm, JpegCameraReadsTheNewestFrameAndStopLeavesNoMotionLast) {
    PassLearning();
    Publish(9002, VIDEO_CODEC_JPEG);
    Make(VIDEO_CODEC_JPEG, Settings(80, 1, 0), false, 9002);
    ShmPush(SceneJpeg(m_Scene, 0.0), true);
    StartDet();
    ASSERT_EQ(Events().size(), 1u);
    EXPECT_FALSE(Events()[0].motion);
    EXPECT_EQ(m_pPublisher->GetReaderStampUs(), kStartUs);  // stamped in the first turn
    ShmTurn();  // the same picture again: it becomes the previous frame
    // The key flag does not matter for JPEG: the newest frame is read.
    ShmPush(SceneJpeg(m_Scene, 0.3), false);
    ShmTurn();
    ASSERT_EQ(Events().size(), 3u);
    EXPECT_TRUE(Events().back().motion);
    EXPECT_GT(Events().back().value, 0);
    EXPECT_EQ(m_pPublisher->GetReaderStampUs(), kStartUs + 2 * kPeriodUs);
    EXPECT_GT(Attachments(), 1);  // the detector holds the live FIFO

    StopDet();
    const std::vector<EventRecord> events = Events();
    EXPECT_FALSE(events.back().motion);
    EXPECT_EQ(events.back().value, 0);
    EXPECT_EQ(Attachments(), 1);  // only the publisher: the reader has detached
}

TEST_F(DetLoopShm, H264CameraReadsKeyFramesAndStopLeavesNoMotionLast) {
    PassLearning();
    Publish(9003, VIDEO_CODEC_H264);
    Make(VIDEO_CODEC_H264, Settings(80, 0, 0), false, 9003);
    const tw::test::TestVideo video = EncodeVideo(VIDEO_CODEC_H264, 320, 240, 8, 4, true);
    ASSERT_EQ(video.packets.size(), 8u);
    ASSERT_TRUE(video.packets[0].keyFrame);
    ShmPush(video.packets[0].data, true);
    StartDet();
    ASSERT_EQ(Events().size(), 1u);
    // Predicted pictures after the key frame are never read: the key frame is decoded again.
    for (int i = 1; i < 4; ++i) {
        ASSERT_FALSE(video.packets[i].keyFrame);
        ShmPush(video.packets[i].data, false);
    }
    ShmTurn();  // size known: blocks seeded
    ShmTurn();  // previous frame
    ShmTurn();  // compared (threshold 0: every comparison is motion)
    ASSERT_EQ(Events().size(), 4u);
    EXPECT_TRUE(Events().back().motion);
    EXPECT_EQ(m_Log->Count("Cam[9003]: Failed to do FFmpeg decode.\n"), 0u);
    StopDet();
    EXPECT_FALSE(Events().back().motion);
    EXPECT_EQ(Events().back().value, 0);
    EXPECT_EQ(Attachments(), 1);
}

// ---------------------------------------------------------------------------------------
// Frame selection

TEST_F(DetLoop, VideoCameraDecodesOnlyNewKeyFrames) {
    Make(VIDEO_CODEC_H264, Settings(80, 0, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_H264, 320, 240, {});
    const tw::test::TestVideo video = EncodeVideo(VIDEO_CODEC_H264, 320, 240, 8, 4, false);
    ASSERT_EQ(video.packets.size(), 8u);
    for (int i = 0; i < 8; ++i) ASSERT_EQ(video.packets[i].keyFrame, i % 4 == 0) << i;

    Push(video.packets[0].data, true);
    StartDet();
    EXPECT_EQ(Events().size(), 1u);
    EXPECT_EQ(HandedOut(), 1u);
    // Predicted frames only: the newest key frame is the one already read.
    for (int i = 1; i < 4; ++i) Push(video.packets[i].data, false);
    Turn();
    EXPECT_EQ(Events().size(), 1u);
    EXPECT_EQ(HandedOut(), 1u);
    Turn();
    EXPECT_EQ(Events().size(), 1u);
    // A new key frame is taken.
    Push(video.packets[4].data, true);
    Push(video.packets[5].data, false);
    Turn();
    EXPECT_EQ(Events().size(), 2u);
    EXPECT_EQ(HandedOut(), 2u);
    Push(video.packets[6].data, false);
    Turn();
    EXPECT_EQ(Events().size(), 2u);
    EXPECT_EQ(HandedOut(), 2u);
}

TEST_F(DetLoop, JpegCameraTakesTheNewestFrameWhateverItsKeyFlag) {
    Make(VIDEO_CODEC_JPEG, Settings(80, 1, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 480, {});
    tw::host::ClipSpec small = m_Scene;
    small.width = 640;
    small.height = 480;
    tw::host::ClipSpec large = m_Scene;
    large.width = 1920;
    large.height = 1080;
    Push(SceneJpeg(small, 0.0), false);
    Push(SceneJpeg(large, 0.0), false);
    StartDet();
    EXPECT_EQ(Events().size(), 1u);
    EXPECT_EQ(HandedOut(), 1u);
    EXPECT_EQ(A::DetWidth(*m_pDet), 120);  // the 1920 x 1080 picture, at 1/16
    EXPECT_EQ(A::DetHeight(*m_pDet), 67);
    Turn();  // the same block again is not read
    EXPECT_EQ(Events().size(), 1u);
    EXPECT_EQ(HandedOut(), 1u);
    Push(SceneJpeg(large, 0.3), false);
    Turn();
    EXPECT_EQ(Events().size(), 2u);
    EXPECT_EQ(HandedOut(), 2u);
}

TEST_F(DetLoop, FirstFrameAfterStartOnlySetsTheSize) {
    PassLearning();
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_H264, Settings(80, 0, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_H264, 320, 240, {});
    const tw::test::TestVideo video = EncodeVideo(VIDEO_CODEC_H264, 320, 240, 7, 1, true);
    ASSERT_EQ(video.packets.size(), 7u);

    // First picture: its size is noted, nothing else.
    Push(video.packets[0].data, true);
    StartDet();
    EXPECT_EQ(A::DetBufSize(*m_pDet), 0);
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);
    // Second: the blocks are built for 120 x 90 and seeded.
    Push(video.packets[1].data, true);
    Turn();
    EXPECT_EQ(A::DetBufSize(*m_pDet), 120 * 90);
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);
    // Third: it becomes the previous frame. Fourth: the first comparison.
    Push(video.packets[2].data, true);
    Turn();
    EXPECT_NE(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_TRUE(LoggedResults().empty());
    Push(video.packets[3].data, true);
    Turn();
    EXPECT_EQ(LoggedResults().size(), 1u);
    const std::vector<EventRecord> events = Events();
    ASSERT_EQ(events.size(), 4u);
    for (int i = 0; i < 3; ++i) EXPECT_FALSE(events[i].motion) << i;
    EXPECT_TRUE(events[3].motion);  // threshold 0: every comparison is motion

    // After a restart the first picture is dropped again; the blocks and the previous frame
    // are still there, so the second is compared at once.
    StopDet();
    Push(video.packets[4].data, true);
    StartDet();
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 2u);
    EXPECT_EQ(LoggedResults().size(), 1u);
    EXPECT_FALSE(Events().back().motion);
    Push(video.packets[5].data, true);
    Turn();
    EXPECT_EQ(LoggedResults().size(), 2u);
    EXPECT_TRUE(Events().back().motion);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 2u);
}

// The detection blocks and the previous frame belong to the object, not to a run: a JPEG
// camera restarted at the same size compares its very first picture with the last one of
// the previous run (only the FFmpeg path drops a first frame, because its size record is the
// loop's own).
TEST_F(DetLoop, RestartedJpegDetectorComparesItsFirstFrameWithThePreviousRun) {
    PassLearning();
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_JPEG, Settings(80, 0, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 360, {});
    for (int i = 0; i < 3; ++i) {
        PushScene(0.3 * i);
        if (i == 0) {
            StartDet();
        } else {
            Turn();
        }
    }
    ASSERT_EQ(LoggedResults().size(), 1u);
    StopDet();
    PushScene(0.9);
    StartDet();
    EXPECT_EQ(LoggedResults().size(), 2u);
    PushScene(1.2);
    Turn();
    EXPECT_EQ(LoggedResults().size(), 3u);
}

// ---------------------------------------------------------------------------------------
// Broken frames

// An H.264 camera with threshold 0 (every comparison is motion) that has reached its first
// comparison; then an undecodable key frame arrives.
class BrokenFrame : public DetLoop {
protected:
    void RunWithJunkInTheMiddle() {
        PassLearning();
        Make(VIDEO_CODEC_H264, Settings(80, 0, 0));
        tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_H264, 320, 240, {});
        m_Video = EncodeVideo(VIDEO_CODEC_H264, 320, 240, 5, 1, true);
        ASSERT_EQ(m_Video.packets.size(), 5u);
        Push(m_Video.packets[0].data, true);
        StartDet();
        for (int i = 1; i < 4; ++i) {
            Push(m_Video.packets[i].data, true);
            Turn();
        }
        ASSERT_EQ(Events().size(), 4u);
        ASSERT_TRUE(Events().back().motion);
        m_ValueBefore = Events().back().value;
        m_pPrevBefore = A::PrevFrame(*m_pDet);
        ASSERT_NE(m_pPrevBefore, nullptr);
        m_Log->Clear();
        Push(Junk(700), true);
        Turn();
    }
    tw::test::TestVideo m_Video;
    int m_ValueBefore = -1;
    const unsigned char* m_pPrevBefore = nullptr;
};

TEST_F(BrokenFrame, UndecodableKeyFrameGivesNoMotionForItsTurnAndDetectionGoesOn) {
    tw::test::ScopedVerboseLog verbose;
    RunWithJunkInTheMiddle();
    ASSERT_EQ(Events().size(), 5u);
    EXPECT_FALSE(Events().back().motion);
    EXPECT_EQ(Events().back().value, m_ValueBefore);  // the value of the last comparison
    EXPECT_EQ(A::PrevFrame(*m_pDet), m_pPrevBefore);
    const std::vector<LogRecord> r = m_Log->Records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].message, "Cam[91]: Failed to do FFmpeg decode.\n");
    ExpectMotiondetRecord(r[0], "NOTICE", "DecImageByFFMpeg");
    EXPECT_EQ(r[1].message, "DecImage failed.\n");
    ExpectMotiondetRecord(r[1], "NOTICE", "IsDetected");
    EXPECT_EQ(MotionCnt(), 0);

    // The next good key frame is decoded and compared with the frame before the junk.
    Push(m_Video.packets[4].data, true);
    Turn();
    ASSERT_EQ(Events().size(), 6u);
    EXPECT_TRUE(Events().back().motion);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);
    EXPECT_EQ(LoggedResults().size(), 1u);
}

TEST_F(BrokenFrame, DecodeFailureNotesNeedALogConfiguration) {
    RunWithJunkInTheMiddle();
    ASSERT_EQ(Events().size(), 5u);
    EXPECT_FALSE(Events().back().motion);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(ShortLive, BrokenJpegFrameGivesNoMotionForItsTurn) {
    StartOnScene(0);
    MovingTurn();
    ASSERT_EQ(Events().size(), 3u);
    ASSERT_TRUE(Events().back().motion);
    const int valueBefore = Events().back().value;
    Frame cut = SceneJpeg(m_Scene, 0.9);
    cut.resize(cut.size() / 2);
    Push(cut, true);
    Turn();
    ASSERT_EQ(Events().size(), 4u);
    EXPECT_FALSE(Events().back().motion);
    EXPECT_EQ(Events().back().value, valueBefore);
    std::vector<LogRecord> r = m_Log->Find("Cam[91]: Failed to do Jpeg decode.\n");
    ASSERT_EQ(r.size(), 1u);
    ExpectMotiondetRecord(r[0], "NOTICE", "DecImageByJpeg");
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);
    m_Time = 0.9;
    MovingTurn();
    ASSERT_EQ(Events().size(), 5u);
    ExpectLastEvent(true);
}

// ---------------------------------------------------------------------------------------
// Extra data

TEST_F(DetLoop, ExtraDataChangeResetsTheDecoderOnceAndDetectionGoesOn) {
    PassLearning();
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_H264, Settings(80, 0, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_H264, 320, 240, {});
    const tw::test::TestVideo video = EncodeVideo(VIDEO_CODEC_H264, 320, 240, 6, 1, true);
    ASSERT_EQ(video.packets.size(), 6u);
    // Parameter sets of the same kind of stream, as a camera announces them out of band.
    tw::test::TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.width = 320;
    videoSpec.height = 240;
    videoSpec.frames = 1;
    videoSpec.globalHeader = true;
    tw::test::TestVideo withHeader;
    std::string error;
    ASSERT_TRUE(tw::test::EncodeTestVideo(videoSpec, withHeader, error)) << error;
    ASSERT_FALSE(withHeader.extraData.empty());

    Push(video.packets[0].data, true);
    StartDet();
    for (int i = 1; i < 4; ++i) {
        Push(video.packets[i].data, true);
        Turn();
    }
    ASSERT_EQ(LoggedResults().size(), 1u);
    EXPECT_EQ(m_Log->Count("Detect extra data change DoFFMpegResetContext.\n"), 0u);

    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_H264, 320, 240, withHeader.extraData);
    Push(video.packets[4].data, true);
    Turn();
    std::vector<LogRecord> r = m_Log->Find("Detect extra data change DoFFMpegResetContext.\n");
    ASSERT_EQ(r.size(), 1u);
    ExpectMotiondetRecord(r[0], "WARN", "DetMain");
    EXPECT_EQ(m_Log->Count("Failed to reset ffmpeg context.\n"), 0u);
    ASSERT_EQ(Events().size(), 5u);
    EXPECT_TRUE(Events().back().motion);  // the fresh decoder decoded it and it was compared
    EXPECT_EQ(LoggedResults().size(), 2u);

    Push(video.packets[5].data, true);
    Turn();
    EXPECT_EQ(m_Log->Count("Detect extra data change DoFFMpegResetContext.\n"), 1u);
    EXPECT_EQ(Events().size(), 6u);
    EXPECT_EQ(LoggedResults().size(), 3u);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);  // only the very first picture
}

TEST_F(DetLoop, ExtraDataChangeOnAJpegCameraLogsTheFailedResetAndGoesOn) {
    PassLearning();
    Make(VIDEO_CODEC_JPEG, Settings(80, 0, 0));
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 360, {});
    PushScene(0.0);
    StartDet();
    PushScene(0.3);
    Turn();
    EXPECT_TRUE(m_Log->Records().empty());
    tw::host::SetFifoFormat(m_Fifo, VIDEO_CODEC_JPEG, 640, 360, {0xff, 0xd8, 0x01});
    PushScene(0.6);
    Turn();
    // A JPEG camera has no FFmpeg decoder to reset.
    const std::vector<LogRecord> r = m_Log->Records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].message, "Detect extra data change DoFFMpegResetContext.\n");
    ExpectMotiondetRecord(r[0], "WARN", "DetMain");
    EXPECT_EQ(r[1].message, "Failed to reset ffmpeg context.\n");
    ExpectMotiondetRecord(r[1], "CRIT", "DetMain");
    ASSERT_EQ(Events().size(), 3u);
    EXPECT_TRUE(Events().back().motion);  // compared all the same
    PushScene(0.9);
    Turn();
    EXPECT_EQ(Events().size(), 4u);
    EXPECT_TRUE(Events().back().motion);
    EXPECT_EQ(m_Log->Records().size(), 2u);
}

class ExtraData : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::DbgLogConfig::Uninstall();
        m_Camera = tw::test::AddCamera(kCam, VIDEO_CODEC_H264, DetSettingValues());
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, nullptr, nullptr);
        memset(&m_Attr, 0, sizeof(m_Attr));
        m_Attr.extraDataLen = TW_MD_EXTRA_DATA_MAX;  // as the loop starts
        memset(m_Attr.extraData, 0xaa, sizeof(m_Attr.extraData));
    }
    bool Changed(ShmStreamFifo* shm, StreamFifo* fifo) { return m_pDet->IsExtraDataChanged(shm, fifo, m_Attr); }
    Frame Stored(size_t n) { return Frame(m_Attr.extraData, m_Attr.extraData + n); }
    static Frame Tail(const Frame& head, size_t total) {
        Frame all = head;
        all.resize(total, 0);
        return all;
    }

    ScopedLogCapture m_Log;
    Camera m_Camera;
    EventBuf m_Events{kCam};
    std::unique_ptr<TWMotionDet> m_pDet;
    FRAME_DEC_ATTR m_Attr;
};

TEST_F(ExtraData, StreamFifoLengthOrContentChangesAreReportedAndStored) {
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 240, {1, 2, 3});
    // A new length: stored, the rest of the copy cleared.
    EXPECT_TRUE(Changed(nullptr, &fifo));
    EXPECT_EQ(m_Attr.extraDataLen, 3);
    EXPECT_EQ(Stored(TW_MD_EXTRA_DATA_MAX), Tail({1, 2, 3}, TW_MD_EXTRA_DATA_MAX));
    // Unchanged.
    EXPECT_FALSE(Changed(nullptr, &fifo));
    // Same length, other bytes.
    memset(m_Attr.extraData + 3, 0xbb, 10);
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 240, {1, 2, 4});
    EXPECT_TRUE(Changed(nullptr, &fifo));
    EXPECT_EQ(m_Attr.extraDataLen, 3);
    EXPECT_EQ(Stored(TW_MD_EXTRA_DATA_MAX), Tail({1, 2, 4}, TW_MD_EXTRA_DATA_MAX));
    EXPECT_FALSE(Changed(nullptr, &fifo));
    // Gone: a change of length, the old bytes are left where they were.
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 240, {});
    EXPECT_TRUE(Changed(nullptr, &fifo));
    EXPECT_EQ(m_Attr.extraDataLen, 0);
    EXPECT_EQ(Stored(3), Frame({1, 2, 4}));
    // Still none: no change.
    EXPECT_FALSE(Changed(nullptr, &fifo));
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(ExtraData, StreamFifoExtraDataIsCutAt1024Bytes) {
    StreamFifo fifo;
    Frame big(1500);
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<unsigned char>(i * 7 + 1);
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 240, big);
    // The stored length starts at 1024, so only the bytes can tell the change.
    EXPECT_TRUE(Changed(nullptr, &fifo));
    EXPECT_EQ(m_Attr.extraDataLen, TW_MD_EXTRA_DATA_MAX);
    EXPECT_EQ(Stored(TW_MD_EXTRA_DATA_MAX), Frame(big.begin(), big.begin() + TW_MD_EXTRA_DATA_MAX));
    EXPECT_FALSE(Changed(nullptr, &fifo));
    big[1200] ^= 0xff;  // beyond the cut: not seen
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 240, big);
    EXPECT_FALSE(Changed(nullptr, &fifo));
}

TEST_F(ExtraData, WithoutAnyFifoAStoredLengthIsDroppedOnce) {
    EXPECT_TRUE(Changed(nullptr, nullptr));
    EXPECT_EQ(m_Attr.extraDataLen, 0);
    EXPECT_FALSE(Changed(nullptr, nullptr));
    EXPECT_EQ(m_Attr.extraDataLen, 0);
    EXPECT_EQ(m_Attr.extraData[0], 0xaa);  // the bytes are not touched
}

class ExtraDataShm : public ExtraData {
protected:
    void SetUp() override {
        ExtraData::SetUp();
        const unsigned base = 0x38000000u + (static_cast<unsigned>(getpid()) % 0x4000u) * 0x20000u;
        setenv("TW_SHM_KEY_BASE", std::to_string(base).c_str(), 1);
    }
    void TearDown() override { unsetenv("TW_SHM_KEY_BASE"); }
};

TEST_F(ExtraDataShm, LiveFifoExtraDataIsComparedAndStored) {
    tw::host::ShmStreamPublisher publisher(9004, 0);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    ASSERT_TRUE(publisher.SetFormat(VIDEO_CODEC_H264, 320, 240, {9, 8, 7, 6}));
    ShmStreamFifo* shm = LiveStreamFifoAt(9004, 0);
    ASSERT_NE(shm, nullptr);
    StreamFifo fifo;  // the live FIFO wins over a stream FIFO
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 240, {1});
    EXPECT_TRUE(Changed(shm, &fifo));
    EXPECT_EQ(m_Attr.extraDataLen, 4);
    EXPECT_EQ(Stored(TW_MD_EXTRA_DATA_MAX), Tail({9, 8, 7, 6}, TW_MD_EXTRA_DATA_MAX));
    EXPECT_FALSE(Changed(shm, &fifo));
    ASSERT_TRUE(publisher.SetFormat(VIDEO_CODEC_H264, 320, 240, {9, 8, 7, 5}));
    EXPECT_TRUE(Changed(shm, nullptr));
    EXPECT_EQ(Stored(4), Frame({9, 8, 7, 5}));
    ASSERT_TRUE(publisher.SetFormat(VIDEO_CODEC_H264, 320, 240, {}));
    EXPECT_TRUE(Changed(shm, nullptr));
    EXPECT_EQ(m_Attr.extraDataLen, 0);
    EXPECT_FALSE(Changed(shm, nullptr));
    shmdt(shm);
}

// ---------------------------------------------------------------------------------------
// Real motion

class RealMotion : public DetLoop, public ::testing::WithParamInterface<int> {};

TEST_P(RealMotion, MovingObjectIsReportedAndStillSceneIsNot) {
    const int codec = GetParam();
    tw::host::ClipSpec clipSpec;
    clipSpec.width = 640;
    clipSpec.height = 360;
    clipSpec.fps = 10;
    clipSpec.gop = 3;  // a key frame every 300 ms
    clipSpec.codec = codec;
    clipSpec.durationSec = 14.0;
    clipSpec.motion = {{4.0, 7.0}};
    tw::host::EncodedClip clip;
    std::string error;
    ASSERT_TRUE(tw::host::EncodeClip(clipSpec, clip, error)) << error;

    Make(codec, DetSettingValues());  // the store's defaults: sensitivity 80, threshold 10
    tw::host::SetFifoFormat(m_Fifo, codec, clip.width, clip.height, clip.extraData);
    size_t next = 0;
    auto pushUpTo = [&](int64_t nowUs) {
        for (; next < clip.frames.size() && clip.frames[next].ptsUs <= nowUs; ++next)
            Push(clip.frames[next].data, clip.frames[next].keyFrame);
    };
    const int turns = static_cast<int>(clipSpec.durationSec / 0.3);
    std::vector<bool> motion;
    for (int k = 0; k < turns; ++k) {
        const size_t before = Events().size();
        pushUpTo(k * kPeriodUs);
        if (k == 0) {
            StartDet();
        } else {
            Turn();
        }
        ASSERT_EQ(Events().size(), before + 1) << "turn " << k << ": every turn has a new picture";
        motion.push_back(Events().back().motion);
    }

    std::string trace;
    for (int k = 0; k < turns; ++k) trace += motion[k] ? '1' : '0';
    SCOPED_TRACE("verdicts from 0 s in 300 ms turns: " + trace);
    for (int k = 0; k < turns; ++k) {
        const double t = k * 0.3;
        if (t < 4.0) {
            EXPECT_FALSE(motion[k]) << "still object, turn at " << t << " s";
        } else if (t > 4.1 && t < 7.0) {
            EXPECT_TRUE(motion[k]) << "moving object, turn at " << t << " s";
        } else if (t > 10.0) {
            EXPECT_FALSE(motion[k]) << "still again, background recovered, turn at " << t << " s";
        }
    }
}

INSTANTIATE_TEST_SUITE_P(JpegAndH264, RealMotion, ::testing::Values(VIDEO_CODEC_JPEG, VIDEO_CODEC_H264),
                         [](const ::testing::TestParamInfo<int>& info) {
                             return std::string(info.param == VIDEO_CODEC_JPEG ? "Jpeg" : "H264");
                         });

}  // namespace
