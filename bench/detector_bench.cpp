// Cost of one motion detector turn on a 1920 x 1080 camera, and how it splits.
//
// H.264 turn: decode the key frame, scale it to 120 x 67 packed RGB, grey in place, 5 x 5
// blur, judge against the background. JPEG turn: DecodeJpeg at scale 16 straight to grey,
// then the judgement. The parts are timed one by one (decode, scale, grey, blur, judge),
// then the detector's own DecImageByFFMpeg / DecImageByJpeg, then a whole IsDetected turn
// on a detector that already has its background and previous frame, so the parts can be
// checked against the whole. The decoding steps run on two scenes (argument scene): a
// painted one with ordinary camera detail, and the grainy scene of "twhost sample", so the
// figures also explain what "twhost detect" achieves on that clip.
//
// Every benchmark runs on wall-clock time (the decoder may use a second thread for slices,
// and the 300 ms period is wall time); the CPU column is that of the whole process.

#include "camera/ssmotiondet.h"
#include "plugin/camera/motiondet_access.h"
#include "support/test_encode.h"
#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/clipmaker.h"
#include "twhost/decodeerror.h"
#include "twhost/decodetuning.h"
#include "twhost/stores.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>

#include <cstdio>
#include <cstdlib>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kDetWidth = 120;   // what the detector makes of a 1920 x 1080 picture
constexpr int kDetHeight = 67;
constexpr int kCamH264 = 7101;
constexpr int kCamJpeg = 7102;
// The object moves this far between the two pictures: 15 pixels at the detector's width,
// so a turn really has changed pixels to count and background to move.
constexpr int kObjectStep = 240;
// A fresh detector needs up to 3 turns before it compares (H.264: the picture size, then
// the background, then the previous frame), and the process 3 more for its learning phase.
constexpr int kWarmUpTurns = 6;

[[noreturn]] void Fail(const char* what, const std::string& why)
{
    fprintf(stderr, "detector_bench: %s: %s\n", what, why.c_str());
    exit(1);
}

// A camera-like scene: gradients, fine texture, hard edges and one bright object whose
// position depends on the picture index.
void PaintScene(int index, int width, int height, unsigned char* rgb)
{
    const int objLeft = width / 5 + index * kObjectStep;
    const int objRight = objLeft + width / 6;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int texture = ((x / 7) ^ (y / 5)) & 15;
            const int ramp = (x * 160) / width + (y * 60) / height;
            const bool blObject = x >= objLeft && x < objRight && y > height / 3 && y < height / 2;
            unsigned char* p = rgb + (size_t(y) * width + x) * 3;
            const int level = blObject ? 235 : ramp + texture * 2;
            p[0] = static_cast<unsigned char>(level);
            p[1] = static_cast<unsigned char>(level * 9 / 10 + 10);
            p[2] = static_cast<unsigned char>(level * 8 / 10 + 20);
        }
    }
}

// Two scenes, so the figures can be read against "twhost detect" on its own sample clip:
// the painted scene has the detail of an ordinary camera picture; the sample scene is the
// one "twhost sample" writes, whose per-pixel grain makes key frames several times larger.
enum Scene { kPainted = 0, kSample = 1 };

const char* SceneName(int scene) { return scene == kSample ? "sample scene" : "painted scene"; }

// Two pictures of one scene, the object moved between them.
struct FramePair {
    std::vector<unsigned char> frames[2];
};

// Both scenes in both formats, encoded once on first use.
struct Inputs {
    FramePair h264[2];   // key frames (IDR with parameter sets), by Scene
    FramePair jpeg[2];   // colour JPEG pictures, as cameras send them, by Scene

    static const Inputs& Get()
    {
        static const Inputs inputs = Make();
        return inputs;
    }

private:
    static FramePair PaintedH264()
    {
        tw::test::TestVideoSpec videoSpec;
        videoSpec.codec = VIDEO_CODEC_H264;
        videoSpec.width = kWidth;
        videoSpec.height = kHeight;
        videoSpec.frames = 2;
        videoSpec.gop = 1;   // every picture a key frame, as the detector only takes those
        videoSpec.painter = PaintScene;
        tw::test::TestVideo video;
        std::string error;
        if (!tw::test::EncodeTestVideo(videoSpec, video, error)) Fail("painted H.264 key frames", error);
        if (video.packets.size() != 2 || !video.packets[0].keyFrame || !video.packets[1].keyFrame) {
            Fail("painted H.264 key frames", "the encoder did not give two key frames");
        }
        return FramePair{{video.packets[0].data, video.packets[1].data}};
    }

    static FramePair PaintedJpeg()
    {
        FramePair pair;
        std::vector<unsigned char> rgb(size_t(kWidth) * kHeight * 3);
        for (int i = 0; i < 2; ++i) {
            PaintScene(i, kWidth, kHeight, rgb.data());
            pair.frames[i] = tw::test::EncodeTestJpeg(rgb.data(), kWidth, kHeight, 3, 85);
            if (pair.frames[i].empty()) Fail("painted JPEG picture", "the encoder gave nothing");
        }
        return pair;
    }

    // Pictures 0 and gop of the "twhost sample" clip at 1920 x 1080: the first two key
    // frames of an H.264 clip (every MJPEG picture is one), with the object moving between
    // them, as two turns of the detector 0.24 s apart would find them.
    static FramePair SampleKeyFrames(int codec)
    {
        tw::host::ClipSpec clipSpec = tw::host::SampleClipSpec();
        clipSpec.width = kWidth;
        clipSpec.height = kHeight;
        clipSpec.codec = codec;
        clipSpec.durationSec = double(clipSpec.gop + 1) / clipSpec.fps;
        clipSpec.motion = {{0.0, clipSpec.durationSec + 1.0}};
        tw::host::EncodedClip clip;
        std::string error;
        if (!tw::host::EncodeClip(clipSpec, clip, error)) Fail("sample clip", error);
        const size_t second = size_t(clipSpec.gop);
        if (clip.frames.size() <= second || !clip.frames[0].keyFrame || !clip.frames[second].keyFrame) {
            Fail("sample clip", "pictures 0 and " + std::to_string(second) + " are not both key frames");
        }
        return FramePair{{clip.frames[0].data, clip.frames[second].data}};
    }

    static Inputs Make()
    {
        av_log_set_level(AV_LOG_ERROR);   // no encoder statistics between the figures
        Inputs in;
        in.h264[kPainted] = PaintedH264();
        in.jpeg[kPainted] = PaintedJpeg();
        in.h264[kSample] = SampleKeyFrames(VIDEO_CODEC_H264);
        in.jpeg[kSample] = SampleKeyFrames(VIDEO_CODEC_JPEG);
        return in;
    }
};

std::string KiB(const std::vector<unsigned char>& data)
{
    return std::to_string((data.size() + 512) / 1024) + " KiB";
}

// A host decoder with SHOW_ALL set, as the detection loop opens it.
struct H264Decoder {
    FFmpegAttr attr{};
    unsigned char* pImage = nullptr;
    int imageSize = 0;

    H264Decoder()
    {
        if (DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0) != 0) {
            Fail("DoFFMpegInitVideo", tw::host::LastDecodeError());
        }
        attr.pCodecCtx->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    }
    ~H264Decoder() { DoFFMpegFree(attr, pImage); }
    H264Decoder(const H264Decoder&) = delete;
    H264Decoder& operator=(const H264Decoder&) = delete;

    void Decode(const std::vector<unsigned char>& frame)
    {
        if (DoFFMpegDecode(attr, frame.data(), int(frame.size())) != 0) {
            Fail("DoFFMpegDecode", tw::host::LastDecodeError());
        }
    }
    // The decoded picture at the detector's size, packed RGB.
    std::vector<unsigned char> ScaledRgb()
    {
        int w = kDetWidth;
        int h = kDetHeight;
        if (DoFFMpegScale(attr, pImage, imageSize, w, h, 0) != 0) {
            Fail("DoFFMpegScale", tw::host::LastDecodeError());
        }
        return std::vector<unsigned char>(pImage, pImage + imageSize);
    }
};

// Grey 120 x 67 pictures of the two painted pictures, through the real decoder and scaler.
const std::vector<unsigned char>& GreyPicture(int index)
{
    static const std::vector<std::vector<unsigned char>> pictures = [] {
        std::vector<std::vector<unsigned char>> out;
        H264Decoder decoder;
        for (int i = 0; i < 2; ++i) {
            decoder.Decode(Inputs::Get().h264[kPainted].frames[i]);
            std::vector<unsigned char> rgb = decoder.ScaledRgb();
            TWMotionDet::GreyInPlace(rgb.data(), kDetWidth * kDetHeight);
            rgb.resize(size_t(kDetWidth) * kDetHeight);
            out.push_back(rgb);
        }
        return out;
    }();
    return pictures[size_t(index)];
}

// A motion detector of a camera with the host's default settings (sensitivity 80,
// threshold 10, every cell watched) and a decoding record like the loop's, not started:
// the benchmarks call its turn functions on this thread.
class PreparedDetector {
public:
    explicit PreparedDetector(int camId, int codec) : m_Events(camId)
    {
        m_Camera = tw::host::MakeCamera(camId, codec);
        tw::host::CameraStore::Instance().Put(m_Camera);
        tw::host::DetSettingStore::Instance().Put(camId, tw::host::DetSettingValues());
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, nullptr, nullptr);

        memset(&m_Attr, 0, sizeof(m_Attr));
        m_Attr.camId = camId;
        m_Attr.codecType = codec;
        if (codec != VIDEO_CODEC_JPEG) {
            if (DoFFMpegInitVideo(m_Attr.ffmpeg, codec, nullptr, 0) != 0) {
                Fail("DoFFMpegInitVideo", tw::host::LastDecodeError());
            }
            m_Attr.ffmpeg.pCodecCtx->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
        }
    }
    ~PreparedDetector()
    {
        if (m_Attr.codecType == VIDEO_CODEC_JPEG) {
            free(m_Attr.pDecodedImage);
            m_Attr.pDecodedImage = nullptr;
        } else {
            DoFFMpegFree(m_Attr.ffmpeg, m_Attr.pDecodedImage);
        }
        m_pDet.reset();
        tw::host::DetSettingStore::Instance().Remove(m_Camera.id);
        tw::host::CameraStore::Instance().Remove(m_Camera.id);
    }
    PreparedDetector(const PreparedDetector&) = delete;
    PreparedDetector& operator=(const PreparedDetector&) = delete;

    TWMotionDet& Det() { return *m_pDet; }
    FRAME_DEC_ATTR& Attr() { return m_Attr; }

    void SetFrame(const std::vector<unsigned char>& frame)
    {
        m_Attr.pFrame = frame.data();
        m_Attr.frameSize = int(frame.size());
    }
    bool Turn(const std::vector<unsigned char>& frame, int& result)
    {
        SetFrame(frame);
        return m_pDet->IsDetected(m_Attr, result);
    }
    // Turns until the detector has its size, background, previous frame and the process
    // is past learning; afterwards every turn is a full one.
    void WarmUp(const FramePair& pair)
    {
        int result = 0;
        for (int i = 0; i < kWarmUpTurns; ++i) Turn(pair.frames[i % 2], result);
        if (TWMotionDetAccess::PrevFrame(Det()) == nullptr ||
            TWMotionDetAccess::DetBufSize(Det()) != m_Attr.width * m_Attr.height) {
            Fail("detector warm-up", "the detector did not reach a full turn");
        }
    }

private:
    Camera m_Camera;
    EventBuf m_Events;
    std::unique_ptr<TWMotionDet> m_pDet;
    FRAME_DEC_ATTR m_Attr;
};

std::string SizeLabel(int width, int height)
{
    return std::to_string(width) + "x" + std::to_string(height);
}

// Argument of the per-scene benchmarks.
void BothScenes(benchmark::internal::Benchmark* b)
{
    b->ArgName("scene")->Arg(kPainted)->Arg(kSample);
}

// ---------------------------------------------------------------------------------------
// H.264 parts

// Decodes the scene's two key frames in turn, one per iteration.
void DecodeKeyFrames(benchmark::State& state, H264Decoder& decoder, const FramePair& pair)
{
    int i = 0;
    for (auto _ : state) {
        const auto& frame = pair.frames[i];
        i ^= 1;
        if (DoFFMpegDecode(decoder.attr, frame.data(), int(frame.size())) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
    }
}

void BM_Turn_H264_Decode(benchmark::State& state)
{
    const int scene = int(state.range(0));
    const FramePair& pair = Inputs::Get().h264[scene];
    H264Decoder decoder;
    DecodeKeyFrames(state, decoder, pair);
    state.SetLabel(std::string(SceneName(scene)) + ", " +
                   SizeLabel(decoder.attr.pCodecCtx->width, decoder.attr.pCodecCtx->height) +
                   " key frames of " + KiB(pair.frames[0]) + " and " + KiB(pair.frames[1]));
}
BENCHMARK(BM_Turn_H264_Decode)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The same decodes with the block sums gathered while each picture is decoded (the decoder
// learned the detector's size from one scale first), nothing else: against H264_Decode,
// what the gathering adds to a turn.
void BM_Turn_H264_DecodeGathering(benchmark::State& state)
{
    const FramePair& pair = Inputs::Get().h264[kPainted];
    H264Decoder decoder;
    decoder.Decode(pair.frames[0]);
    decoder.ScaledRgb();
    DecodeKeyFrames(state, decoder, pair);
    state.SetLabel("painted scene, sums gathered, not scaled");
}
BENCHMARK(BM_Turn_H264_DecodeGathering)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The same key frames decoded exactly, with the H.264 loop filter that detection decodes skip
// ("twhost detect --exact-decode").
void BM_Turn_H264_DecodeExact(benchmark::State& state)
{
    const int scene = int(state.range(0));
    const FramePair& pair = Inputs::Get().h264[scene];
    H264Decoder decoder;
    tw::host::SetExactDecode(decoder.attr, true);
    DecodeKeyFrames(state, decoder, pair);
    state.SetLabel(std::string(SceneName(scene)) + ", loop filter on");
}
BENCHMARK(BM_Turn_H264_DecodeExact)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// DoFFMpegScale of the decoder's picture at the detector's size, once per iteration.
void ScaleEachIteration(benchmark::State& state, H264Decoder& decoder)
{
    for (auto _ : state) {
        int w = kDetWidth;
        int h = kDetHeight;
        if (DoFFMpegScale(decoder.attr, decoder.pImage, decoder.imageSize, w, h, 0) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
        benchmark::DoNotOptimize(decoder.pImage[0]);
    }
}

void BM_Turn_H264_Scale(benchmark::State& state)
{
    H264Decoder decoder;
    decoder.Decode(Inputs::Get().h264[kPainted].frames[0]);
    ScaleEachIteration(state, decoder);
    state.SetLabel("1920x1080 yuv420p -> " + SizeLabel(kDetWidth, kDetHeight) +
                   " RGB, block sums read from the picture");
}
BENCHMARK(BM_Turn_H264_Scale)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

// The scale of a picture whose block sums the decoder gathered while decoding it: only the
// area average of the sums and its conversion to RGB are left.
void BM_Turn_H264_ScaleFromDecodeSums(benchmark::State& state)
{
    H264Decoder decoder;
    const auto& frames = Inputs::Get().h264[kPainted].frames;
    decoder.Decode(frames[0]);
    decoder.ScaledRgb();   // the decoder learns the size
    decoder.Decode(frames[1]);
    ScaleEachIteration(state, decoder);
    if (tw::host::ScalesFromDecodeSums(decoder.attr) != uint64_t(state.iterations())) {
        state.SkipWithError("the sums were not gathered while decoding");
    }
    state.SetLabel("1920x1080 yuv420p -> " + SizeLabel(kDetWidth, kDetHeight) +
                   " RGB, block sums gathered while decoding");
}
BENCHMARK(BM_Turn_H264_ScaleFromDecodeSums)
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// The scale as it was: libswscale converts and area-scales the full picture.
void BM_Turn_H264_ScaleFull(benchmark::State& state)
{
    H264Decoder decoder;
    decoder.Decode(Inputs::Get().h264[kPainted].frames[0]);
    for (auto _ : state) {
        int w = kDetWidth;
        int h = kDetHeight;
        if (tw::host::DoFFMpegScaleFull(decoder.attr, decoder.pImage, decoder.imageSize, w, h, 0) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
        benchmark::DoNotOptimize(decoder.pImage[0]);
    }
    state.SetLabel("1920x1080 yuv420p -> " + SizeLabel(kDetWidth, kDetHeight) + " RGB, full picture");
}
BENCHMARK(BM_Turn_H264_ScaleFull)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

// Grey in place overwrites its input, so every iteration starts from a fresh copy of the
// scaled picture; the copy alone is timed by the next benchmark.
void BM_Turn_Grey120x67(benchmark::State& state)
{
    H264Decoder decoder;
    decoder.Decode(Inputs::Get().h264[kPainted].frames[0]);
    const std::vector<unsigned char> rgb = decoder.ScaledRgb();
    std::vector<unsigned char> work(rgb.size());
    for (auto _ : state) {
        memcpy(work.data(), rgb.data(), rgb.size());
        TWMotionDet::GreyInPlace(work.data(), kDetWidth * kDetHeight);
        benchmark::DoNotOptimize(work.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel("includes a 24 KB copy");
}
BENCHMARK(BM_Turn_Grey120x67)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

void BM_Turn_Grey120x67_CopyOnly(benchmark::State& state)
{
    std::vector<unsigned char> rgb(size_t(kDetWidth) * kDetHeight * 3, 1);
    std::vector<unsigned char> work(rgb.size());
    for (auto _ : state) {
        memcpy(work.data(), rgb.data(), rgb.size());
        benchmark::DoNotOptimize(work.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Turn_Grey120x67_CopyOnly)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

// The detector's own decode + size check + scale + grey + blur.
void BM_Turn_H264_DecImage(benchmark::State& state)
{
    const int scene = int(state.range(0));
    const FramePair& pair = Inputs::Get().h264[scene];
    PreparedDetector prepared(kCamH264, VIDEO_CODEC_H264);
    // The first picture only sets the record's size (and is dropped).
    prepared.SetFrame(pair.frames[0]);
    prepared.Det().DecImageByFFMpeg(prepared.Attr());
    int i = 0;
    for (auto _ : state) {
        prepared.SetFrame(pair.frames[i]);
        i ^= 1;
        if (prepared.Det().DecImageByFFMpeg(prepared.Attr()) != 0) {
            state.SkipWithError("DecImageByFFMpeg failed");
            break;
        }
        benchmark::DoNotOptimize(prepared.Attr().pDecodedImage[0]);
    }
    state.SetLabel(std::string(SceneName(scene)) + " -> " +
                   SizeLabel(prepared.Attr().width, prepared.Attr().height));
}
BENCHMARK(BM_Turn_H264_DecImage)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// ---------------------------------------------------------------------------------------
// Parts common to both paths (the JPEG path skips the blur)

// The blur reads a private copy and writes every inner pixel whatever the data, so
// blurring the same picture over and over costs what the first time costs.
void BM_Turn_Blur120x67(benchmark::State& state)
{
    PreparedDetector prepared(kCamH264, VIDEO_CODEC_H264);
    std::vector<unsigned char> image = GreyPicture(0);
    for (auto _ : state) {
        prepared.Det().BlurImage(image.data(), kDetWidth, kDetHeight);
        benchmark::DoNotOptimize(image.data());
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Turn_Blur120x67)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

// DetMotion with every cell watched, after the process-wide learning phase. The two
// pictures alternate, so the background is always chasing a changed frame (as during a
// motion) instead of settling where nothing differs.
void BM_Turn_Judge120x67(benchmark::State& state)
{
    PreparedDetector prepared(kCamH264, VIDEO_CODEC_H264);
    TWMotionDet& det = prepared.Det();
    if (det.SetDetBlocks(kDetWidth, kDetHeight) != 0) Fail("SetDetBlocks", "refused 120 x 67");
    std::vector<unsigned char> frames[2] = {GreyPicture(0), GreyPicture(1)};
    memcpy(TWMotionDetAccess::Background(det), frames[0].data(), frames[0].size());
    int result = 0;
    // g_LearnFrameCnt is shared by the process; three calls end learning whoever ran before.
    for (int k = 0; k < 3; ++k) det.DetMotion(frames[0].data(), frames[0].data(), result);
    int i = 1;
    int64_t motions = 0;
    for (auto _ : state) {
        motions += det.DetMotion(frames[0].data(), frames[i].data(), result) == 1;
        i ^= 1;
    }
    state.SetLabel("every cell watched, last value " + std::to_string(result));
    state.counters["motion_share"] =
        benchmark::Counter(double(motions) / double(state.iterations() ? state.iterations() : 1));
}
BENCHMARK(BM_Turn_Judge120x67)->Unit(benchmark::kMicrosecond)->UseRealTime()->MeasureProcessCPUTime();

// ---------------------------------------------------------------------------------------
// JPEG parts

void BM_Turn_Jpeg_Decode(benchmark::State& state)
{
    const int scene = int(state.range(0));
    const FramePair& pair = Inputs::Get().jpeg[scene];
    unsigned char* pOut = nullptr;
    int outSize = 0;
    int w = 0;
    int h = 0;
    int i = 0;
    for (auto _ : state) {
        const auto& jpeg = pair.frames[i];
        i ^= 1;
        if (DecodeJpeg(jpeg.data(), int(jpeg.size()), &pOut, outSize, JCS_GRAYSCALE, 16, w, h) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
        benchmark::DoNotOptimize(pOut[0]);
    }
    free(pOut);
    state.SetLabel(std::string(SceneName(scene)) + ", pictures of " + KiB(pair.frames[0]) + " and " +
                   KiB(pair.frames[1]) + ", scale 16 grey -> " + SizeLabel(w, h));
}
BENCHMARK(BM_Turn_Jpeg_Decode)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

void BM_Turn_Jpeg_DecImage(benchmark::State& state)
{
    const int scene = int(state.range(0));
    const FramePair& pair = Inputs::Get().jpeg[scene];
    PreparedDetector prepared(kCamJpeg, VIDEO_CODEC_JPEG);
    int i = 0;
    for (auto _ : state) {
        prepared.SetFrame(pair.frames[i]);
        i ^= 1;
        if (prepared.Det().DecImageByJpeg(prepared.Attr()) != 0) {
            state.SkipWithError("DecImageByJpeg failed");
            break;
        }
        benchmark::DoNotOptimize(prepared.Attr().pDecodedImage[0]);
    }
    state.SetLabel(std::string(SceneName(scene)) + " -> " +
                   SizeLabel(prepared.Attr().width, prepared.Attr().height));
}
BENCHMARK(BM_Turn_Jpeg_DecImage)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// ---------------------------------------------------------------------------------------
// Whole turns: IsDetected on a detector that has its background and previous frame, the
// two pictures alternating.

void WholeTurn(benchmark::State& state, int camId, int codec, const FramePair& pair)
{
    PreparedDetector prepared(camId, codec);
    prepared.WarmUp(pair);
    int result = 0;
    int64_t motions = 0;
    int i = 0;
    for (auto _ : state) {
        motions += prepared.Turn(pair.frames[i], result);
        i ^= 1;
        // A failed decode leaves no previous frame behind: the turn was not a full one.
        if (TWMotionDetAccess::PrevFrame(prepared.Det()) == nullptr) {
            state.SkipWithError("a turn failed to decode or judge");
            break;
        }
    }
    std::string label = std::string(SceneName(int(state.range(0)))) + " -> " +
                        SizeLabel(prepared.Attr().width, prepared.Attr().height) +
                        ", last value " + std::to_string(result);
    if (codec != VIDEO_CODEC_JPEG) {
        // Which way the block sums went: gathered while decoding, or read back after.
        label += ", sums while decoding " +
                 std::to_string(tw::host::ScalesFromDecodeSums(prepared.Attr().ffmpeg)) +
                 " of " + std::to_string(state.iterations() + kWarmUpTurns) + " turns";
    }
    state.SetLabel(label);
    state.counters["motion_share"] =
        benchmark::Counter(double(motions) / double(state.iterations() ? state.iterations() : 1));
}

void BM_Turn_H264_Whole(benchmark::State& state)
{
    WholeTurn(state, kCamH264, VIDEO_CODEC_H264, Inputs::Get().h264[state.range(0)]);
}
BENCHMARK(BM_Turn_H264_Whole)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

// A turn against its bare decode on the very same decoder: each picture decoded once with
// nothing else (the sums not gathered, no scale, no detector) and once by a whole turn, the
// two in turn, each timed on its own. Two benchmarks with decoders of their own differ by a
// few per cent from one process to the next with nothing changed (where the allocator put
// each decoder's pictures and tables); here both share one decoder, its pictures and its
// tables, so the ratio holds what the turn adds and nothing else. Counters: decode_us,
// turn_us and ratio (turn over decode); whole_turn_us and whole_ratio for turns whose
// pictures are decoded whole instead of into the ring; cycles, and in_ring (pictures the
// decoder put into the ring).
void BM_Turn_H264_TurnOverDecode(benchmark::State& state)
{
    const FramePair& pair = Inputs::Get().h264[kPainted];
    PreparedDetector prepared(kCamH264, VIDEO_CODEC_H264);
    prepared.WarmUp(pair);
    // Three kinds of step: the bare decode, the turn, and the turn with its picture decoded
    // whole instead of into the ring (tw::host::SetRingWhileDecoding(false)).
    enum Kind { kBare, kTurn, kTurnWhole, kKinds };
    int result = 0;
    // Cycles of three runs of kRun steps, one run of each kind, the pictures alternating as
    // a camera's key frames do. Each decode follows a decode of the other picture and each
    // turn a turn, as in benchmarks of their own; the first two steps of a run, which follow
    // the other kind, are not counted. (A decode right after a turn on the same picture is
    // about 50 us quicker than one after the other picture: its packet and tables are still
    // in the cache.)
    constexpr int kRun = 10;
    constexpr int kSettle = 2;
    // The machine's pace drifts by several per cent within seconds, in spells longer than a
    // cycle (about 100 ms), so each cycle's kinds are compared with each other: its mean
    // step of each kind, the two turns over the decode; the figures are the medians over
    // the cycles.
    double sum[kKinds] = {0, 0, 0};
    std::vector<double> cycleUs[kKinds];
    std::vector<double> cycleRatio[kKinds];
    int step = 0;
    for (auto _ : state) {
        const int picture = step % 2;
        const Kind kind = static_cast<Kind>(step / kRun);
        const bool blCounted = step % kRun >= kSettle;
        const auto& frame = pair.frames[picture];
        using Clock = std::chrono::steady_clock;
        const Clock::time_point start = Clock::now();
        if (kind == kBare) {
            tw::host::SetSumsWhileDecoding(false);
            const int ret = DoFFMpegDecode(prepared.Attr().ffmpeg, frame.data(), int(frame.size()));
            tw::host::SetSumsWhileDecoding(true);
            if (ret != 0) {
                state.SkipWithError(tw::host::LastDecodeError());
                break;
            }
        } else {
            tw::host::SetRingWhileDecoding(kind == kTurn);
            prepared.Turn(frame, result);
            tw::host::SetRingWhileDecoding(true);
        }
        const double us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
        if (blCounted) sum[kind] += us;
        if (TWMotionDetAccess::PrevFrame(prepared.Det()) == nullptr) {
            state.SkipWithError("a turn failed to decode or judge");
            break;
        }
        step = (step + 1) % (kKinds * kRun);
        if (step == 0) {
            // Each kind's counted steps are the same number, half on each picture.
            for (int k = 0; k < kKinds; ++k) {
                cycleUs[k].push_back(sum[k] / (kRun - kSettle));
                cycleRatio[k].push_back(sum[k] / sum[kBare]);
            }
            std::fill(std::begin(sum), std::end(sum), 0.0);
        }
    }
    auto median = [](std::vector<double>& v) {
        if (v.empty()) return 0.0;
        std::nth_element(v.begin(), v.begin() + ptrdiff_t(v.size() / 2), v.end());
        return v[v.size() / 2];
    };
    state.counters["cycles"] = double(cycleUs[kBare].size());
    state.counters["decode_us"] = median(cycleUs[kBare]);
    state.counters["turn_us"] = median(cycleUs[kTurn]);
    state.counters["ratio"] = median(cycleRatio[kTurn]);
    state.counters["whole_turn_us"] = median(cycleUs[kTurnWhole]);
    state.counters["whole_ratio"] = median(cycleRatio[kTurnWhole]);
    state.counters["in_ring"] = double(tw::host::PicturesInRing(prepared.Attr().ffmpeg));
    if (tw::host::PicturesInRing(prepared.Attr().ffmpeg) == 0) {
        state.SkipWithError("no turn decoded its picture into the ring");
    }
    state.SetLabel("painted scene, one decoder, last value " + std::to_string(result));
}
BENCHMARK(BM_Turn_H264_TurnOverDecode)->Unit(benchmark::kMillisecond)->UseRealTime();

// The same turns with every picture's block sums read back after its decode, as before the
// decoder gathered them.
void BM_Turn_H264_WholeReadBack(benchmark::State& state)
{
    tw::host::SetSumsWhileDecoding(false);
    WholeTurn(state, kCamH264, VIDEO_CODEC_H264, Inputs::Get().h264[state.range(0)]);
    tw::host::SetSumsWhileDecoding(true);
}
BENCHMARK(BM_Turn_H264_WholeReadBack)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

void BM_Turn_Jpeg_Whole(benchmark::State& state)
{
    WholeTurn(state, kCamJpeg, VIDEO_CODEC_JPEG, Inputs::Get().jpeg[state.range(0)]);
}
BENCHMARK(BM_Turn_Jpeg_Whole)
    ->Apply(BothScenes)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->MeasureProcessCPUTime();

}  // namespace

BENCHMARK_MAIN();
