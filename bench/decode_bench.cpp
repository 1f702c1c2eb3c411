// Cost of one detection turn's decoding on a 1920 x 1080 camera: the H.264 key frame path
// (libavcodec decode, then the scale to the detector's 120 x 67) and the JPEG path.
//
// The inputs are made once at start-up (BenchInputs) and every stage has a ready-made
// input of its own (the decoded picture, the scaled RGB picture), so the later stages of a
// turn (grey conversion, blur, judgement) can be added as further benchmarks that start
// from ScaledRgb() without repeating any set-up.

#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/decodeerror.h"

#include "support/test_encode.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
#include <libswscale/swscale.h>
}

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr int kDetWidth = 120;   // the detector's picture of a 16:9 camera
constexpr int kDetHeight = 67;

// A camera-like picture: smooth gradients, fine texture and a few hard edges, so that the
// encoders spend realistic bits on it (a flat picture would make decoding look free).
void PaintScene(int index, int width, int height, unsigned char* rgb)
{
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int texture = ((x / 7) ^ (y / 5)) & 15;
            const int ramp = (x * 160) / width + (y * 60) / height;
            const bool blObject = x > width / 3 + index * 8 && x < width / 2 + index * 8 &&
                                  y > height / 3 && y < height / 2;
            unsigned char* p = rgb + (size_t(y) * width + x) * 3;
            const int level = blObject ? 235 : ramp + texture * 2;
            p[0] = static_cast<unsigned char>(level);
            p[1] = static_cast<unsigned char>(level * 9 / 10 + 10);
            p[2] = static_cast<unsigned char>(level * 8 / 10 + 20);
        }
    }
}

std::vector<unsigned char> FirstKeyFrame(int bFrames)
{
    tw::test::TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.width = kWidth;
    videoSpec.height = kHeight;
    videoSpec.frames = 8;
    videoSpec.gop = 8;
    videoSpec.bFrames = bFrames;
    videoSpec.painter = PaintScene;
    tw::test::TestVideo video;
    std::string error;
    if (!tw::test::EncodeTestVideo(videoSpec, video, error) || video.packets.empty() ||
        !video.packets[0].keyFrame) {
        fprintf(stderr, "decode_bench: cannot make the H.264 key frame: %s\n", error.c_str());
        exit(1);
    }
    return video.packets[0].data;
}

// Everything encoded once, on first use.
struct BenchInputs {
    std::vector<unsigned char> h264Key;          // key frame of a stream without B-frames
    std::vector<unsigned char> h264KeyBFrames;   // key frame of a stream with 3 B-frames
    std::vector<unsigned char> jpeg;             // colour JPEG, as cameras send them

    static const BenchInputs& Get()
    {
        static const BenchInputs inputs = Make();
        return inputs;
    }

    const std::vector<unsigned char>& KeyFrame(int bFrames) const
    {
        return bFrames > 0 ? h264KeyBFrames : h264Key;
    }

private:
    static BenchInputs Make()
    {
        av_log_set_level(AV_LOG_ERROR);   // no encoder statistics between the figures
        BenchInputs in;
        in.h264Key = FirstKeyFrame(0);
        in.h264KeyBFrames = FirstKeyFrame(3);
        std::vector<unsigned char> rgb(size_t(kWidth) * kHeight * 3);
        PaintScene(0, kWidth, kHeight, rgb.data());
        in.jpeg = tw::test::EncodeTestJpeg(rgb.data(), kWidth, kHeight, 3, 85);
        return in;
    }
};

// A host decoder with the key frame decoded, for the stages after decoding.
struct DecodedKeyFrame {
    FFmpegAttr attr{};
    unsigned char* pImage = nullptr;
    int imageSize = 0;

    DecodedKeyFrame()
    {
        const auto& key = BenchInputs::Get().h264Key;
        if (DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0) != 0 ||
            DoFFMpegDecode(attr, key.data(), int(key.size())) != 0) {
            fprintf(stderr, "decode_bench: %s\n", tw::host::LastDecodeError());
            exit(1);
        }
    }
    ~DecodedKeyFrame() { DoFFMpegFree(attr, pImage); }
    DecodedKeyFrame(const DecodedKeyFrame&) = delete;
    DecodedKeyFrame& operator=(const DecodedKeyFrame&) = delete;
};

// The key frame scaled to the detector's size, 3 bytes per pixel: the input of the grey
// conversion and everything after it.
[[maybe_unused]] const std::vector<unsigned char>& ScaledRgb()
{
    static const std::vector<unsigned char> rgb = [] {
        DecodedKeyFrame decoded;
        int w = kDetWidth;
        int h = kDetHeight;
        if (DoFFMpegScale(decoded.attr, decoded.pImage, decoded.imageSize, w, h, 0) != 0) {
            fprintf(stderr, "decode_bench: %s\n", tw::host::LastDecodeError());
            exit(1);
        }
        return std::vector<unsigned char>(decoded.pImage, decoded.pImage + decoded.imageSize);
    }();
    return rgb;
}

// ---------------------------------------------------------------------------------------

// libavcodec on its own, as a baseline for the wrapper: send, receive, and for a stream
// with reordering the drain and flush that any caller needs to get the picture now.
void BM_BareAvcodecDecodeKeyFrame(benchmark::State& state)
{
    const auto& key = BenchInputs::Get().KeyFrame(int(state.range(0)));
    const AVCodec* pCodec = avcodec_find_decoder(AV_CODEC_ID_H264);
    AVCodecContext* pCtx = avcodec_alloc_context3(pCodec);
    pCtx->thread_type = FF_THREAD_SLICE;   // as the wrapper sets it up
    pCtx->thread_count = 0;
    avcodec_open2(pCtx, pCodec, nullptr);
    AVPacket* pPacket = av_packet_alloc();
    AVFrame* pFrame = av_frame_alloc();
    for (auto _ : state) {
        av_new_packet(pPacket, int(key.size()));
        memcpy(pPacket->data, key.data(), key.size());
        avcodec_send_packet(pCtx, pPacket);
        av_packet_unref(pPacket);
        if (avcodec_receive_frame(pCtx, pFrame) != 0) {
            avcodec_send_packet(pCtx, nullptr);
            if (avcodec_receive_frame(pCtx, pFrame) != 0) {
                state.SkipWithError("no picture");
                break;
            }
            avcodec_flush_buffers(pCtx);
        }
        benchmark::DoNotOptimize(pFrame->data[0]);
        av_frame_unref(pFrame);
    }
    av_frame_free(&pFrame);
    av_packet_free(&pPacket);
    avcodec_free_context(&pCtx);
    state.SetLabel(state.range(0) > 0 ? "B-frames" : "no B-frames");
}
BENCHMARK(BM_BareAvcodecDecodeKeyFrame)->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond);

void BM_DoFFMpegDecode(benchmark::State& state)
{
    const auto& key = BenchInputs::Get().KeyFrame(int(state.range(0)));
    FFmpegAttr attr{};
    unsigned char* pImage = nullptr;
    DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0);
    attr.pCodecCtx->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    for (auto _ : state) {
        if (DoFFMpegDecode(attr, key.data(), int(key.size())) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
    }
    DoFFMpegFree(attr, pImage);
    state.SetLabel(state.range(0) > 0 ? "B-frames" : "no B-frames");
}
BENCHMARK(BM_DoFFMpegDecode)->Arg(0)->Arg(3)->Unit(benchmark::kMillisecond);

// Argument: the scaler flags (0 is the host's default, area averaging).
void BM_DoFFMpegScaleTo120x67(benchmark::State& state)
{
    DecodedKeyFrame decoded;
    const int flags = int(state.range(0));
    for (auto _ : state) {
        int w = kDetWidth;
        int h = kDetHeight;
        if (DoFFMpegScale(decoded.attr, decoded.pImage, decoded.imageSize, w, h, flags) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
        benchmark::DoNotOptimize(decoded.pImage[0]);
    }
    state.SetLabel(flags == 0                   ? "default (area)"
                   : flags == SWS_BILINEAR      ? "bilinear"
                   : flags == SWS_FAST_BILINEAR ? "fast bilinear"
                                                : "other");
}
BENCHMARK(BM_DoFFMpegScaleTo120x67)
    ->Arg(0)
    ->Arg(SWS_BILINEAR)
    ->Arg(SWS_FAST_BILINEAR)
    ->Unit(benchmark::kMicrosecond);

// Argument: DecodeJpeg's scale (16 is what the detector asks for, 1 is a full decode).
void BM_DecodeJpegGrey(benchmark::State& state)
{
    const auto& jpeg = BenchInputs::Get().jpeg;
    const unsigned scale = unsigned(state.range(0));
    unsigned char* pOut = nullptr;
    int outSize = 0;
    int w = 0;
    int h = 0;
    for (auto _ : state) {
        if (DecodeJpeg(jpeg.data(), int(jpeg.size()), &pOut, outSize, JCS_GRAYSCALE, scale, w,
                       h) != 0) {
            state.SkipWithError(tw::host::LastDecodeError());
            break;
        }
        benchmark::DoNotOptimize(pOut[0]);
    }
    free(pOut);
    state.SetLabel(std::to_string(w) + "x" + std::to_string(h));
}
BENCHMARK(BM_DecodeJpegGrey)->Arg(16)->Arg(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
