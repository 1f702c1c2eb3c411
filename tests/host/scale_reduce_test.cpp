// DoFFMpegScale sums the planes in whole blocks, averages the sums at the target size and
// converts that small picture to RGB. These tests hold it to libswscale's full-picture path
// (DoFFMpegScaleFull): the same packed pixels of the requested size, grey values that
// differ by rounding only, on decoded clips of every codec and on pictures of the pixel
// formats and odd sizes the decoders can hand over; and to the exact area average.

#include "camera/ssmotiondet.h"
#include "support/testenv.h"
#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/clipmaker.h"
#include "twhost/decodeerror.h"
#include "twhost/decodetuning.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

namespace {

// The largest difference the reduction may make to what the detector judges: the grey
// picture after its 5 x 5 blur. Both paths round on the way to RGB and again to grey; where
// a target pixel's boundary cuts a block, the reduced path weighs the block's mean instead
// of the part inside, which moves a hard edge by up to half a block (a quarter of a target
// pixel); and libswscale's filters themselves only approximate the area average (see
// ReducedPathIsNearerTheExactAreaAverage: it is the farther of the two from it). The blur
// spreads a one-pixel error over 25 pixels; next to the edge it also takes in the edge
// differences below. Measured on the pictures and clips below: at most 5 (the HEVC clip).
constexpr int kMaxBlurredDifference = 5;
// The blur keeps the two outermost rows and columns as they are, and there the paths differ
// more: the measured differences sit on the second row or column (row 1, column 1, and
// their counterparts at the far edges), where libswscale's long filters over the full
// picture, which would reach past its edge, are cut off there; the area average has no
// such edge. Measured: at most 15 on the decoded clips.
constexpr int kMaxEdgeDifference = 20;

constexpr int kBlurCam = 71;

// The plug-in's own blur, from a detector that is never started.
class PluginBlur {
public:
    PluginBlur() : m_Events(kBlurCam)
    {
        m_Camera = tw::test::AddCamera(kBlurCam, VIDEO_CODEC_H264, tw::host::DetSettingValues());
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, nullptr, nullptr);
    }
    void Blur(std::vector<unsigned char>& grey, int width, int height) { m_pDet->BlurImage(grey.data(), width, height); }

private:
    Camera m_Camera;
    EventBuf m_Events;
    std::unique_ptr<TWMotionDet> m_pDet;
};

PluginBlur& Blurrer()
{
    static PluginBlur blur;
    return blur;
}

// The size the detector asks for: 120 pixels across at most, both edges truncated.
void DetectorSize(int width, int height, int& dstWidth, int& dstHeight)
{
    dstWidth = width;
    dstHeight = height;
    if (width > 120) {
        const double scale = width / 120.0;
        dstWidth = static_cast<int>(width / scale);
        dstHeight = static_cast<int>(height / scale);
    }
}

// The detector's grey conversion of packed RGB.
std::vector<unsigned char> Grey(const unsigned char* rgb, int pixels)
{
    std::vector<unsigned char> grey(static_cast<size_t>(pixels));
    for (int i = 0; i < pixels; ++i) {
        const unsigned char* p = rgb + 3 * i;
        grey[static_cast<size_t>(i)] = static_cast<unsigned char>((p[0] + 2 * p[1] + p[2]) >> 2);
    }
    return grey;
}

int MaxDifference(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b)
{
    int most = 0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) most = std::max(most, std::abs(int(a[i]) - int(b[i])));
    return most;
}

struct Comparison {
    bool ok = false;
    std::string error;
    int maxGreyDiff = 0;      // grey pictures
    int maxBlurredDiff = 0;   // grey pictures after the plug-in's blur, inside the picture
    int maxEdgeDiff = 0;      // the two outermost rows and columns, which the blur keeps
    int maxByteDiff = 0;      // packed RGB bytes
};

// Scales attr's picture both ways to dstWidth x dstHeight and compares.
Comparison CompareScales(FFmpegAttr& attr, int dstWidth, int dstHeight)
{
    Comparison c;
    unsigned char* full = nullptr;
    unsigned char* reduced = nullptr;
    int fullSize = 0, reducedSize = 0;
    int fw = dstWidth, fh = dstHeight, rw = dstWidth, rh = dstHeight;
    if (tw::host::DoFFMpegScaleFull(attr, full, fullSize, fw, fh, 0) != 0) {
        c.error = std::string("full path: ") + tw::host::LastDecodeError();
    } else if (DoFFMpegScale(attr, reduced, reducedSize, rw, rh, 0) != 0) {
        c.error = std::string("reduced path: ") + tw::host::LastDecodeError();
    } else if (fullSize != dstWidth * dstHeight * 3 || reducedSize != fullSize || rw != dstWidth ||
               rh != dstHeight) {
        c.error = "sizes differ: full " + std::to_string(fullSize) + ", reduced " +
                  std::to_string(reducedSize) + " bytes for " + std::to_string(dstWidth) + "x" +
                  std::to_string(dstHeight);
    } else {
        std::vector<unsigned char> a = Grey(full, dstWidth * dstHeight);
        std::vector<unsigned char> b = Grey(reduced, dstWidth * dstHeight);
        c.maxGreyDiff = MaxDifference(a, b);
        Blurrer().Blur(a, dstWidth, dstHeight);
        Blurrer().Blur(b, dstWidth, dstHeight);
        for (int y = 0; y < dstHeight; ++y) {
            for (int x = 0; x < dstWidth; ++x) {
                const size_t i = size_t(y) * size_t(dstWidth) + size_t(x);
                const int d = std::abs(int(a[i]) - int(b[i]));
                const bool edge = x < 2 || y < 2 || x >= dstWidth - 2 || y >= dstHeight - 2;
                int& most = edge ? c.maxEdgeDiff : c.maxBlurredDiff;
                most = std::max(most, d);
            }
        }
        for (int i = 0; i < fullSize; ++i) {
            c.maxByteDiff = std::max(c.maxByteDiff, std::abs(int(full[i]) - int(reduced[i])));
        }
        c.ok = true;
    }
    free(full);
    free(reduced);
    return c;
}

// A picture of the given format with a ramp, fine texture, a hard-edged block and per-pixel
// noise in every plane, as a camera would give.
AVFrame* MakePicture(AVPixelFormat format, int width, int height, unsigned seed)
{
    AVFrame* pFrame = av_frame_alloc();
    if (pFrame == nullptr) return nullptr;
    pFrame->format = format;
    pFrame->width = width;
    pFrame->height = height;
    if (av_frame_get_buffer(pFrame, 0) < 0) {
        av_frame_free(&pFrame);
        return nullptr;
    }
    const AVPixFmtDescriptor* pDesc = av_pix_fmt_desc_get(format);
    const int planes = av_pix_fmt_count_planes(format);
    unsigned state = seed;
    for (int p = 0; p < planes; ++p) {
        const bool chroma = p == 1 || p == 2;
        const int w = chroma ? AV_CEIL_RSHIFT(width, pDesc->log2_chroma_w) : width;
        const int h = chroma ? AV_CEIL_RSHIFT(height, pDesc->log2_chroma_h) : height;
        for (int y = 0; y < h; ++y) {
            uint8_t* row = pFrame->data[p] + static_cast<ptrdiff_t>(y) * pFrame->linesize[p];
            for (int x = 0; x < w; ++x) {
                state = state * 1103515245u + 12345u;
                const int noise = static_cast<int>((state >> 16) % 21) - 10;
                int v = chroma ? 128 + (x * 40) / w - (y * 30) / h : 30 + (x * 150) / w + (y * 40) / h;
                v += (((x / 3) ^ (y / 2)) & 7) * 3;
                if (!chroma && x > w / 3 && x < w / 2 && y > h / 4 && y < h / 2) v = 230;
                v += noise;
                row[x] = static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v);
            }
        }
    }
    return pFrame;
}

struct FormatCase {
    AVPixelFormat format;
    int width;
    int height;
    bool reduced;   // whether the planes are box-reduced at the detector's size
};

class ScaleFormats : public ::testing::TestWithParam<FormatCase> {};

TEST_P(ScaleFormats, ReducedMatchesFullPathUpToRounding)
{
    const FormatCase& fc = GetParam();
    FFmpegAttr attr{};
    attr.pFrame = MakePicture(fc.format, fc.width, fc.height, 7u);
    ASSERT_NE(attr.pFrame, nullptr);
    attr.blHasPicture = 1;
    int dstWidth = 0, dstHeight = 0;
    DetectorSize(fc.width, fc.height, dstWidth, dstHeight);
    int fx = 0, fy = 0;
    tw::host::ScaleReduceFactors(fc.width, fc.height, fc.format, dstWidth, dstHeight, fx, fy);
    EXPECT_EQ(fc.reduced, fx > 1 || fy > 1) << "factors " << fx << "x" << fy;
    // Whole blocks that make exactly the target, or twice the target at least, so the area
    // step weighs no block for more than half a target pixel.
    if (fx > 1) {
        EXPECT_EQ(fc.width % fx, 0);
        EXPECT_TRUE(fc.width / fx == dstWidth || fc.width / fx >= 2 * dstWidth) << "fx " << fx;
    }
    if (fy > 1) {
        EXPECT_EQ(fc.height % fy, 0);
        EXPECT_TRUE(fc.height / fy == dstHeight || fc.height / fy >= 2 * dstHeight) << "fy " << fy;
    }

    const Comparison c = CompareScales(attr, dstWidth, dstHeight);
    ASSERT_TRUE(c.ok) << c.error;
    EXPECT_LE(c.maxBlurredDiff, kMaxBlurredDifference);
    EXPECT_LE(c.maxEdgeDiff, kMaxEdgeDifference);
    if (!fc.reduced) {
        EXPECT_EQ(c.maxByteDiff, 0) << "the full path must be taken as it was";
    }
    RecordProperty("max_blurred_difference", c.maxBlurredDiff);
    printf("%s %dx%d -> %dx%d factors %dx%d: max difference blurred %d, edge %d, grey %d, RGB bytes %d\n",
           av_get_pix_fmt_name(fc.format), fc.width, fc.height, dstWidth, dstHeight, fx, fy,
           c.maxBlurredDiff, c.maxEdgeDiff, c.maxGreyDiff, c.maxByteDiff);
    unsigned char* none = nullptr;
    DoFFMpegFree(attr, none);
}

INSTANTIATE_TEST_SUITE_P(
    Pictures, ScaleFormats,
    ::testing::Values(FormatCase{AV_PIX_FMT_YUV420P, 1920, 1080, true},
                      FormatCase{AV_PIX_FMT_YUVJ420P, 1280, 720, true},
                      FormatCase{AV_PIX_FMT_YUVJ422P, 1920, 1080, true},
                      FormatCase{AV_PIX_FMT_YUV422P, 2592, 1944, true},
                      FormatCase{AV_PIX_FMT_YUV444P, 1280, 960, true},
                      FormatCase{AV_PIX_FMT_YUVJ444P, 704, 576, true},
                      FormatCase{AV_PIX_FMT_YUV440P, 1280, 720, true},
                      FormatCase{AV_PIX_FMT_YUV411P, 1440, 1080, true},
                      FormatCase{AV_PIX_FMT_GRAY8, 1920, 1080, true},
                      // 1279 is prime: no whole blocks across, rows only.
                      FormatCase{AV_PIX_FMT_YUV420P, 1279, 720, true},
                      // Odd on both edges: no whole chroma blocks, the full path.
                      FormatCase{AV_PIX_FMT_YUV420P, 1001, 563, false},
                      // A width that the largest factor does not divide: a smaller one does.
                      FormatCase{AV_PIX_FMT_YUV420P, 1000, 562, true},
                      // Too small to reduce: the full path as it stands.
                      FormatCase{AV_PIX_FMT_YUV420P, 17, 17, false},
                      FormatCase{AV_PIX_FMT_YUV420P, 320, 180, false},
                      FormatCase{AV_PIX_FMT_YUV420P, 239, 135, false},
                      // Formats not reduced: the full path as it stands.
                      FormatCase{AV_PIX_FMT_YUV420P10LE, 1920, 1080, false},
                      FormatCase{AV_PIX_FMT_YUVA420P, 1280, 720, false},
                      FormatCase{AV_PIX_FMT_NV12, 1280, 720, false},
                      FormatCase{AV_PIX_FMT_RGB24, 1280, 720, false}),
    [](const ::testing::TestParamInfo<FormatCase>& info) {
        std::string name = av_get_pix_fmt_name(info.param.format);
        return name + "_" + std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
    });

// Sizes other than the detector's: a target that is not a multiple of anything, and one
// that is exactly half the picture (factor 1 across, nothing to reduce).
TEST(ScaleReduce, OtherTargetSizes)
{
    FFmpegAttr attr{};
    attr.pFrame = MakePicture(AV_PIX_FMT_YUV420P, 1920, 1080, 11u);
    ASSERT_NE(attr.pFrame, nullptr);
    attr.blHasPicture = 1;
    const int targets[][2] = {{97, 53}, {1, 1}, {960, 540}, {480, 270}, {121, 68}};
    for (const auto& t : targets) {
        const Comparison c = CompareScales(attr, t[0], t[1]);
        ASSERT_TRUE(c.ok) << t[0] << "x" << t[1] << ": " << c.error;
        EXPECT_LE(c.maxBlurredDiff, kMaxBlurredDifference) << t[0] << "x" << t[1];
        EXPECT_LE(c.maxEdgeDiff, kMaxEdgeDifference) << t[0] << "x" << t[1];
    }
    unsigned char* none = nullptr;
    DoFFMpegFree(attr, none);
}

// Blocks 8 and 16 wide have vector kernels of their own; each must give exactly the sums of
// the general one, whatever the bytes (extremes included), the number of rows per block, and
// a row that ends in a part of a register. A kernel this CPU lacks is skipped, and said so.
TEST(ScaleReduce, EveryBoxKernelGivesTheGeneralSumsToTheBit)
{
    using tw::host::BoxKernel;
    const int widths[] = {1, 2, 3, 4, 5, 8, 9, 15, 16, 17, 60, 120, 121, 123};
    int compared = 0;
    for (const int fx : {8, 16}) {
        for (const int fy : {1, 2, 4, 6, 8, 16}) {
            for (const int outWidth : widths) {
                const int outHeight = 3;
                const int stride = outWidth * fx + 24;   // rows wider than what is read
                std::vector<unsigned char> src(size_t(stride) * size_t(outHeight * fy));
                uint32_t state = 2463534242u ^ uint32_t(fx * 977 + fy * 131 + outWidth);
                for (size_t i = 0; i < src.size(); ++i) {
                    state ^= state << 13;
                    state ^= state >> 17;
                    state ^= state << 5;
                    // Runs of 0 and 255 among random bytes: the sums' extremes.
                    const unsigned pick = state % 8u;
                    src[i] = pick == 0 ? 0 : pick == 1 ? 255 : static_cast<unsigned char>(state >> 8);
                }
                // A destination wider than the row: values past outWidth stay untouched.
                const int dstStride = outWidth + 2;
                std::vector<uint16_t> general(size_t(dstStride) * outHeight, 9);
                ASSERT_TRUE(tw::host::BoxSumPlaneOf(src.data(), stride, fx, fy, outWidth, outHeight,
                                                    general.data(), dstStride, BoxKernel::General));
                // The first block's sum, worked out here.
                unsigned sum = 0;
                for (int r = 0; r < fy; ++r) {
                    for (int k = 0; k < fx; ++k) sum += src[size_t(r) * stride + k];
                }
                EXPECT_EQ(general[0], sum) << fx << "x" << fy;
                EXPECT_EQ(general[size_t(outWidth)], 9) << "wrote past the row";
                for (const BoxKernel kernel : {BoxKernel::Sse2, BoxKernel::Avx2, BoxKernel::Avx512, BoxKernel::Best}) {
                    std::vector<uint16_t> fast(size_t(dstStride) * outHeight, 9);
                    if (!tw::host::BoxSumPlaneOf(src.data(), stride, fx, fy, outWidth, outHeight, fast.data(),
                                                 dstStride, kernel)) {
                        EXPECT_NE(kernel, BoxKernel::Best) << "the best kernel always runs";
                        continue;
                    }
                    ASSERT_EQ(fast, general) << "kernel " << int(kernel) << ", " << fx << "x" << fy
                                             << " blocks, " << outWidth << " wide";
                    ++compared;
                }
            }
        }
    }
    EXPECT_GT(compared, 0);
    printf("%d vector kernel runs compared with the general sums\n", compared);
}

// Where the CPU has AVX2 or AVX-512, the area average and the conversion to RGB take eight
// or sixteen values at a time; every path must give the bytes of the four-at-a-time one on
// every kind of picture and target: chroma at half and full width, grey, targets that cut
// blocks (taps across), steep reductions (more taps than the wide paths hold in registers)
// and rows that end in part of a register.
TEST(ScaleReduce, WideAreaKernelsGiveTheSameBytes)
{
    std::vector<int> paths;
    for (int lanes : {4, 8, 16}) {
        if (tw::host::SetAreaKernelLanes(lanes) == lanes) paths.push_back(lanes);
    }
    tw::host::SetAreaKernelLanes(16);
    if (paths.size() < 2) {
        GTEST_SKIP() << "this CPU has neither AVX2 nor AVX-512: only the four-at-a-time path runs";
    }
    struct Picture {
        AVPixelFormat format;
        int width;
        int height;
    };
    const Picture pictures[] = {{AV_PIX_FMT_YUV420P, 1920, 1080}, {AV_PIX_FMT_YUV444P, 1280, 960},
                                {AV_PIX_FMT_GRAY8, 1920, 1080},   {AV_PIX_FMT_YUV420P, 1279, 720},
                                {AV_PIX_FMT_YUV422P, 2592, 1944}, {AV_PIX_FMT_YUV411P, 1440, 1080}};
    const int targets[][2] = {{0, 0}, {97, 53}, {121, 68}, {7, 5}, {480, 270}, {13, 9}, {22, 17}};
    int compared = 0;
    for (const Picture& picture : pictures) {
        FFmpegAttr attr{};
        attr.pFrame = MakePicture(picture.format, picture.width, picture.height, 5u);
        ASSERT_NE(attr.pFrame, nullptr);
        attr.blHasPicture = 1;
        for (const auto& t : targets) {
            int dstWidth = t[0];
            int dstHeight = t[1];
            if (dstWidth == 0) DetectorSize(picture.width, picture.height, dstWidth, dstHeight);
            const std::string what = std::string(av_get_pix_fmt_name(picture.format)) + " " +
                                     std::to_string(picture.width) + "x" + std::to_string(picture.height) +
                                     " -> " + std::to_string(dstWidth) + "x" + std::to_string(dstHeight);
            std::vector<unsigned char> scaled[3];
            for (size_t k = 0; k < paths.size(); ++k) {
                tw::host::SetAreaKernelLanes(paths[k]);
                unsigned char* out = nullptr;
                int size = 0, w = dstWidth, h = dstHeight;
                const int ret = DoFFMpegScale(attr, out, size, w, h, 0);
                tw::host::SetAreaKernelLanes(16);
                ASSERT_EQ(ret, 0) << tw::host::LastDecodeError();
                ASSERT_EQ(size, dstWidth * dstHeight * 3);
                scaled[k].assign(out, out + size);
                free(out);
                if (k > 0) {
                    EXPECT_EQ(scaled[0], scaled[k])
                        << what << ": the path of " << paths[k] << " values at a time changed the picture";
                    ++compared;
                }
            }
            // Not a trivial picture: a flat one would hide a lane in the wrong place.
            EXPECT_NE(*std::min_element(scaled[0].begin(), scaled[0].end()),
                      *std::max_element(scaled[0].begin(), scaled[0].end()))
                << what;
        }
        unsigned char* none = nullptr;
        DoFFMpegFree(attr, none);
    }
    EXPECT_EQ(compared, 42 * int(paths.size() - 1));
}

// Factors the vector kernels do not take go the general way; out-of-range factors and a
// destination narrower than the row are refused without writing anything.
TEST(ScaleReduce, BoxSumsRefuseWhatTheyCannotTake)
{
    using tw::host::BoxKernel;
    std::vector<unsigned char> src(64 * 40, 200);
    std::vector<uint16_t> dst(64, 7);
    EXPECT_TRUE(tw::host::BoxSumPlaneOf(src.data(), 64, 5, 3, 12, 2, dst.data(), 12, BoxKernel::Best));
    EXPECT_EQ(dst[0], 5 * 3 * 200);
    EXPECT_FALSE(tw::host::BoxSumPlaneOf(src.data(), 64, 5, 3, 12, 2, dst.data(), 12, BoxKernel::Sse2));
    EXPECT_FALSE(tw::host::BoxSumPlaneOf(src.data(), 64, 5, 3, 12, 2, dst.data(), 12, BoxKernel::Avx2));
    EXPECT_FALSE(tw::host::BoxSumPlaneOf(src.data(), 64, 5, 3, 12, 2, dst.data(), 12, BoxKernel::Avx512));
    std::vector<uint16_t> untouched(64, 7);
    EXPECT_FALSE(tw::host::BoxSumPlaneOf(src.data(), 64, 17, 2, 2, 2, untouched.data(), 2, BoxKernel::General));
    EXPECT_FALSE(tw::host::BoxSumPlaneOf(src.data(), 64, 2, 0, 2, 2, untouched.data(), 2, BoxKernel::General));
    EXPECT_FALSE(tw::host::BoxSumPlaneOf(src.data(), 64, 2, 2, 8, 2, untouched.data(), 4, BoxKernel::General));
    EXPECT_EQ(untouched, std::vector<uint16_t>(64, 7));
}

// Switching between the two paths on one record rebuilds the scaler each time; a scaler
// built for the reduced planes must never be fed the full picture or the other way round.
TEST(ScaleReduce, AlternatingPathsKeepTheirOwnScaler)
{
    FFmpegAttr attr{};
    attr.pFrame = MakePicture(AV_PIX_FMT_YUV420P, 1920, 1080, 3u);
    ASSERT_NE(attr.pFrame, nullptr);
    attr.blHasPicture = 1;
    Comparison first = CompareScales(attr, 120, 67);
    ASSERT_TRUE(first.ok) << first.error;
    for (int i = 0; i < 3; ++i) {
        const Comparison again = CompareScales(attr, 120, 67);
        ASSERT_TRUE(again.ok) << again.error;
        EXPECT_EQ(again.maxGreyDiff, first.maxGreyDiff);
        EXPECT_EQ(again.maxByteDiff, first.maxByteDiff);
    }
    unsigned char* none = nullptr;
    DoFFMpegFree(attr, none);
}

struct ClipCase {
    const char* name;
    int codec;
    int width;
    int height;
};

class ScaleClips : public ::testing::TestWithParam<ClipCase> {
protected:
    void SetUp() override { av_log_set_level(AV_LOG_ERROR); }
};

// Every key frame of a clip made as the tests and "twhost sample" make theirs, decoded as
// the detector decodes it, scaled both ways.
TEST_P(ScaleClips, KeyFramesDifferByRoundingOnly)
{
    const ClipCase& cc = GetParam();
    tw::host::ClipSpec clipSpec = tw::host::SampleClipSpec();
    clipSpec.codec = cc.codec;
    clipSpec.width = cc.width;
    clipSpec.height = cc.height;
    clipSpec.durationSec = 2.5;
    clipSpec.motion = {{0.5, 2.0}};
    tw::host::EncodedClip clip;
    std::string error;
    ASSERT_TRUE(tw::host::EncodeClip(clipSpec, clip, error)) << error;

    FFmpegAttr attr{};
    ASSERT_EQ(DoFFMpegInitVideo(attr, cc.codec, clip.extraData.empty() ? nullptr : clip.extraData.data(),
                                static_cast<int>(clip.extraData.size())),
              0)
        << tw::host::LastDecodeError();
    int dstWidth = 0, dstHeight = 0;
    DetectorSize(cc.width, cc.height, dstWidth, dstHeight);
    int keyFrames = 0, maxGrey = 0, maxBlurred = 0, maxEdge = 0;
    for (const tw::host::EncodedFrame& frame : clip.frames) {
        if (!frame.keyFrame) continue;
        ASSERT_EQ(DoFFMpegDecode(attr, frame.data.data(), static_cast<int>(frame.data.size())), 0)
            << tw::host::LastDecodeError();
        const Comparison c = CompareScales(attr, dstWidth, dstHeight);
        ASSERT_TRUE(c.ok) << c.error;
        maxGrey = std::max(maxGrey, c.maxGreyDiff);
        maxBlurred = std::max(maxBlurred, c.maxBlurredDiff);
        maxEdge = std::max(maxEdge, c.maxEdgeDiff);
        ++keyFrames;
    }
    EXPECT_GT(keyFrames, 5);
    EXPECT_LE(maxBlurred, kMaxBlurredDifference);
    EXPECT_LE(maxEdge, kMaxEdgeDifference);
    RecordProperty("max_blurred_difference", maxBlurred);
    printf("%s: %d key frames, max difference blurred %d, edge %d, grey %d\n", cc.name, keyFrames, maxBlurred,
           maxEdge, maxGrey);
    unsigned char* image = nullptr;
    DoFFMpegFree(attr, image);
}

INSTANTIATE_TEST_SUITE_P(Codecs, ScaleClips,
                         ::testing::Values(ClipCase{"mjpeg_320x180", VIDEO_CODEC_JPEG, 320, 180},
                                           ClipCase{"mpeg4_320x180", VIDEO_CODEC_MPEG4, 320, 180},
                                           ClipCase{"h264_320x180", VIDEO_CODEC_H264, 320, 180},
                                           ClipCase{"h264_640x360", VIDEO_CODEC_H264, 640, 360},
                                           ClipCase{"mjpeg_640x360", VIDEO_CODEC_JPEG, 640, 360},
                                           ClipCase{"mpeg4_640x360", VIDEO_CODEC_MPEG4, 640, 360},
                                           ClipCase{"hevc_640x360", VIDEO_CODEC_HEVC, 640, 360},
                                           ClipCase{"h264_1920x1080", VIDEO_CODEC_H264, 1920, 1080}),
                         [](const ::testing::TestParamInfo<ClipCase>& info) { return std::string(info.param.name); });

}  // namespace
namespace {

// The exact area average of a 4:2:0 picture at width x height, converted to RGB with the
// limited-range BT.601 matrix and to the detector's grey, each pixel with chroma averaged
// over its pair of pixels (as both paths convert pixel pairs): what both paths approximate.
std::vector<double> ExactAreaGrey(const AVFrame* f, int width, int height)
{
    auto area = [f](int p, double x0, double x1, double y0, double y1) {
        double sum = 0;
        double weight = 0;
        for (int y = int(y0); y < int(std::ceil(y1)); ++y) {
            const double wy = std::min(y1, double(y + 1)) - std::max(y0, double(y));
            for (int x = int(x0); x < int(std::ceil(x1)); ++x) {
                const double w = wy * (std::min(x1, double(x + 1)) - std::max(x0, double(x)));
                sum += w * f->data[p][y * f->linesize[p] + x];
                weight += w;
            }
        }
        return sum / weight;
    };
    auto byte = [](double v) { return std::min(255.0, std::max(0.0, std::round(v))); };
    std::vector<double> grey(size_t(width) * size_t(height));
    const double sx = double(f->width) / width;
    const double sy = double(f->height) / height;
    for (int oy = 0; oy < height; ++oy) {
        for (int ox = 0; ox < width; ++ox) {
            const double y = area(0, ox * sx, (ox + 1) * sx, oy * sy, (oy + 1) * sy);
            const int pair = ox & ~1;
            const double u = area(1, pair * sx / 2, (pair + 2) * sx / 2, oy * sy / 2, (oy + 1) * sy / 2);
            const double v = area(2, pair * sx / 2, (pair + 2) * sx / 2, oy * sy / 2, (oy + 1) * sy / 2);
            const double luma = (y - 16) * 255 / 219;
            const double r = byte(luma + 104597 / 65536.0 * (v - 128));
            const double g = byte(luma - 25675 / 65536.0 * (u - 128) - 53279 / 65536.0 * (v - 128));
            const double b = byte(luma + 132201 / 65536.0 * (u - 128));
            grey[size_t(oy) * size_t(width) + size_t(ox)] = (r + 2 * g + b) / 4;
        }
    }
    return grey;
}

}  // namespace

// Where the two paths differ, the reduced one is the nearer to the exact area average: its
// sums are exact and it divides once, where libswscale's filters for a 16-fold reduction
// approximate the average. Measured on 1080p: libswscale's path up to 3.75 grey levels from
// the exact average (1.5 on average), the reduced path up to 3.25 (0.44 on average).
TEST(ScaleReduce, ReducedPathIsNearerTheExactAreaAverage)
{
    for (const unsigned seed : {3u, 7u}) {
        FFmpegAttr attr{};
        attr.pFrame = MakePicture(AV_PIX_FMT_YUV420P, 1920, 1080, seed);
        ASSERT_NE(attr.pFrame, nullptr);
        attr.blHasPicture = 1;
        unsigned char* full = nullptr;
        unsigned char* reduced = nullptr;
        int fullSize = 0, reducedSize = 0, w = 120, h = 67;
        ASSERT_EQ(tw::host::DoFFMpegScaleFull(attr, full, fullSize, w, h, 0), 0);
        ASSERT_EQ(DoFFMpegScale(attr, reduced, reducedSize, w, h, 0), 0);
        const std::vector<double> exact = ExactAreaGrey(attr.pFrame, w, h);
        const std::vector<unsigned char> a = Grey(full, w * h);
        const std::vector<unsigned char> b = Grey(reduced, w * h);
        double fullMax = 0, reducedMax = 0, fullSum = 0, reducedSum = 0;
        for (size_t i = 0; i < exact.size(); ++i) {
            fullMax = std::max(fullMax, std::abs(a[i] - exact[i]));
            reducedMax = std::max(reducedMax, std::abs(b[i] - exact[i]));
            fullSum += std::abs(a[i] - exact[i]);
            reducedSum += std::abs(b[i] - exact[i]);
        }
        printf("seed %u: from the exact average, libswscale max %.2f mean %.3f, reduced max %.2f mean %.3f\n",
               seed, fullMax, fullSum / exact.size(), reducedMax, reducedSum / exact.size());
        EXPECT_LE(reducedMax, fullMax);
        EXPECT_LT(reducedSum, fullSum);
        // Exact sums divided once: within a level and a quarter of the average on the whole,
        // and never more than a few levels where a target pixel cuts the hard-edged block.
        EXPECT_LT(reducedSum / exact.size(), 1.0);
        free(full);
        free(reduced);
        unsigned char* none = nullptr;
        DoFFMpegFree(attr, none);
    }
}

