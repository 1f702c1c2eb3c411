// Frame decoding of the motion detector, driven by IsDetected on real encoded pictures:
// the width cap and its truncation, the abnormal-size guard, resolution changes, the JPEG
// path (no blur, the decoder's own size) and the guards against unusable input.
//
// This executable replaces the host's DecodeJpeg with a pass-through (below) so that one
// test can have the decoder report success without a picture, a case the real host never
// produces but that the detector must survive.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include "plugin/camera/motiondet_access.h"
#include "camera/ssmotiondet.h"
#include "support/test_encode.h"
#include "support/testenv.h"
#include "twhost/decodeerror.h"

namespace {

// What the interposed DecodeJpeg does instead of decoding.
enum class JpegStandIn { kPassThrough, kNoImage, kZeroWidth };
std::atomic<JpegStandIn> g_JpegStandIn{JpegStandIn::kPassThrough};

using DecodeJpegFn = int (*)(const unsigned char*, int, unsigned char**, int&, J_COLOR_SPACE, unsigned int,
                             int&, int&);

DecodeJpegFn HostDecodeJpeg() {
    // The host's definition, found behind this executable's own in the lookup order.
    static DecodeJpegFn s_Host =
        reinterpret_cast<DecodeJpegFn>(dlsym(RTLD_NEXT, "_Z10DecodeJpegPKhiPPhRi13J_COLOR_SPACEjS3_S3_"));
    return s_Host;
}

}  // namespace

// Resolves the plug-in's DecodeJpeg calls in this executable. Passes through to the host
// unless a test asks for a "success" that hands back no usable picture.
int DecodeJpeg(const unsigned char* data, int size, unsigned char** out, int& outSize, J_COLOR_SPACE space,
               unsigned int scale, int& width, int& height) {
    switch (g_JpegStandIn.load()) {
    case JpegStandIn::kNoImage:
        // The output pointer is left as the caller had it (null on its first frame).
        outSize = 0;
        width = 40;
        height = 30;
        return 0;
    case JpegStandIn::kZeroWidth:
        if (out && *out == nullptr) *out = static_cast<unsigned char*>(malloc(1200));
        outSize = 1200;
        width = 0;
        height = 30;
        return 0;
    case JpegStandIn::kPassThrough:
        break;
    }
    DecodeJpegFn host = HostDecodeJpeg();
    if (host == nullptr) return -1;
    return host(data, size, out, outSize, space, scale, width, height);
}

namespace {

using tw::host::DetSettingValues;
using tw::host::LogRecord;
using tw::test::ScopedLogCapture;
using A = TWMotionDetAccess;

constexpr int kCam = 81;

// A picture with edges and a gradient, so that scaling and blurring visibly change it.
void PaintTexture(int index, int width, int height, unsigned char* rgb) {
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const int checker = ((x * 8 / (width > 8 ? width : 8)) + (y * 6 / (height > 6 ? height : 6))) % 2;
            unsigned char* p = rgb + 3 * (static_cast<size_t>(y) * width + x);
            const int base = 40 + checker * 140 + (x * 30) / width + index * 3;
            p[0] = static_cast<unsigned char>(base);
            p[1] = static_cast<unsigned char>(base + (y * 20) / height);
            p[2] = static_cast<unsigned char>(255 - base);
        }
    }
}

// Key frames only (one picture per packet) of a real encoding at the given size.
std::vector<std::vector<unsigned char>> EncodeKeyFrames(int codec, int width, int height, int count) {
    tw::test::TestVideoSpec videoSpec;
    videoSpec.codec = codec;
    videoSpec.width = width;
    videoSpec.height = height;
    videoSpec.frames = count;
    videoSpec.gop = 1;
    videoSpec.painter = PaintTexture;
    tw::test::TestVideo video;
    std::string error;
    EXPECT_TRUE(tw::test::EncodeTestVideo(videoSpec, video, error)) << error;
    std::vector<std::vector<unsigned char>> frames;
    for (const tw::test::TestPacket& packet : video.packets) {
        EXPECT_TRUE(packet.keyFrame);
        frames.push_back(packet.data);
    }
    EXPECT_EQ(frames.size(), static_cast<size_t>(count));
    return frames;
}

std::vector<unsigned char> TextureJpeg(int width, int height) {
    std::vector<unsigned char> rgb(static_cast<size_t>(width) * height * 3);
    PaintTexture(0, width, height, rgb.data());
    return tw::test::EncodeTestJpeg(rgb.data(), width, height, 3);
}

// The detector's grey image worked out independently: the host scales the decoded picture
// to the target size, then grey = (a + 2b + c) / 4 and a 5 x 5 mean inside a 2-pixel border.
std::vector<unsigned char> ExpectedFFmpegGrey(int codec, const std::vector<unsigned char>& frame, int width,
                                              int height) {
    FFmpegAttr attr{};
    unsigned char* rgb = nullptr;
    int rgbSize = 0;
    std::vector<unsigned char> grey;
    EXPECT_EQ(DoFFMpegInitVideo(attr, codec, nullptr, 0), 0) << tw::host::LastDecodeError();
    EXPECT_EQ(DoFFMpegDecode(attr, frame.data(), static_cast<int>(frame.size())), 0) << tw::host::LastDecodeError();
    int w = width;
    int h = height;
    if (DoFFMpegScale(attr, rgb, rgbSize, w, h, 0) == 0) {
        std::vector<unsigned char> flat(static_cast<size_t>(w) * h);
        for (size_t i = 0; i < flat.size(); ++i) flat[i] = (rgb[3 * i] + 2 * rgb[3 * i + 1] + rgb[3 * i + 2]) >> 2;
        grey = flat;
        for (int y = 2; y < h - 2; ++y) {
            for (int x = 2; x < w - 2; ++x) {
                int sum = 0;
                for (int dy = -2; dy <= 2; ++dy)
                    for (int dx = -2; dx <= 2; ++dx) sum += flat[(y + dy) * w + x + dx];
                grey[y * w + x] = static_cast<unsigned char>(sum / 25);
            }
        }
    } else {
        ADD_FAILURE() << tw::host::LastDecodeError();
    }
    DoFFMpegFree(attr, rgb);
    return grey;
}

class DecodePath : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::DbgLogConfig::Uninstall();
        g_JpegStandIn = JpegStandIn::kPassThrough;
        memset(&m_Attr, 0, sizeof(m_Attr));
        m_Attr.camId = kCam;
    }
    void TearDown() override {
        g_JpegStandIn = JpegStandIn::kPassThrough;
        if (m_Attr.codecType == VIDEO_CODEC_JPEG) {
            free(m_Attr.pDecodedImage);
            m_Attr.pDecodedImage = nullptr;
        } else {
            DoFFMpegFree(m_Attr.ffmpeg, m_Attr.pDecodedImage);
        }
        m_pDet.reset();
    }
    // A detector that is never started: IsDetected is called on this thread, the way the
    // detection loop calls it.
    void Make(int codec) {
        m_Camera = tw::test::AddCamera(kCam, codec, DetSettingValues());
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, nullptr, nullptr);
        m_Attr.codecType = codec;
        if (codec != VIDEO_CODEC_JPEG) {
            ASSERT_EQ(DoFFMpegInitVideo(m_Attr.ffmpeg, codec, nullptr, 0), 0) << tw::host::LastDecodeError();
        }
    }
    bool Judge(const std::vector<unsigned char>& frame, int& result) {
        m_Attr.pFrame = frame.data();
        m_Attr.frameSize = static_cast<int>(frame.size());
        const bool verdict = m_pDet->IsDetected(m_Attr, result);
        m_Attr.pFrame = nullptr;
        m_Attr.frameSize = 0;
        return verdict;
    }
    bool Judge(const std::vector<unsigned char>& frame) {
        int result = 0;
        return Judge(frame, result);
    }
    std::vector<unsigned char> Background() {
        const unsigned char* bg = A::Background(*m_pDet);
        if (bg == nullptr) return {};
        return std::vector<unsigned char>(bg, bg + A::DetBufSize(*m_pDet));
    }
    static void ExpectMotiondetRecord(const LogRecord& r, const char* level, const char* function) {
        EXPECT_EQ(r.category, "motiondet");
        EXPECT_EQ(r.level, level);
        EXPECT_EQ(r.file, "camera/ssmotiondet.cpp");
        EXPECT_EQ(r.function, function);
    }
    size_t CountStartingWith(const std::string& prefix) {
        size_t n = 0;
        for (const LogRecord& r : m_Log->Records())
            if (r.message.compare(0, prefix.size(), prefix) == 0) ++n;
        return n;
    }

    ScopedLogCapture m_Log;
    Camera m_Camera;
    EventBuf m_Events{kCam};
    std::unique_ptr<TWMotionDet> m_pDet;
    FRAME_DEC_ATTR m_Attr;
};

// ---------------------------------------------------------------------------------------
// Sizes of the FFmpeg path

struct SizeCase {
    int codec;
    int width;
    int height;
    int detWidth;
    int detHeight;
};


void PrintTo(const SizeCase& c, std::ostream* os) {
    *os << "codec " << c.codec << ", " << c.width << "x" << c.height << " -> " << c.detWidth << "x" << c.detHeight;
}

std::string SizeCaseName(const ::testing::TestParamInfo<SizeCase>& info) {
    const char* codec = info.param.codec == VIDEO_CODEC_MPEG4 ? "Mpeg4" : "H264";
    return std::string(codec) + "_" + std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
}

class DecodeSize : public DecodePath, public ::testing::WithParamInterface<SizeCase> {};

TEST_P(DecodeSize, PictureIsScaledToTheCappedSizeAfterOneDroppedFrame) {
    const SizeCase c = GetParam();
    tw::test::ScopedVerboseLog verbose;
    Make(c.codec);
    const std::vector<std::vector<unsigned char>> frames = EncodeKeyFrames(c.codec, c.width, c.height, 3);
    ASSERT_EQ(frames.size(), 3u);

    // The first picture only tells the size: it is dropped before any scaling.
    int result = 55;
    EXPECT_FALSE(Judge(frames[0], result));
    EXPECT_EQ(result, 55);
    EXPECT_EQ(m_Attr.width, c.detWidth);
    EXPECT_EQ(m_Attr.height, c.detHeight);
    EXPECT_EQ(A::DetBufSize(*m_pDet), 0);
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(CountStartingWith("Cam[81]: Resolution changed"), 0u);
    std::vector<LogRecord> failed = m_Log->Find("DecImage failed.\n");
    ASSERT_EQ(failed.size(), 1u);
    ExpectMotiondetRecord(failed[0], "NOTICE", "IsDetected");

    // The second is scaled to that size and seeds the detection blocks.
    EXPECT_FALSE(Judge(frames[1], result));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(A::DetWidth(*m_pDet), c.detWidth);
    EXPECT_EQ(A::DetHeight(*m_pDet), c.detHeight);
    EXPECT_EQ(A::DetBufSize(*m_pDet), c.detWidth * c.detHeight);
    EXPECT_EQ(Background(), ExpectedFFmpegGrey(c.codec, frames[1], c.detWidth, c.detHeight));
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);

    // The third becomes the previous frame for the comparisons to come.
    Judge(frames[2], result);
    EXPECT_NE(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);
    EXPECT_EQ(CountStartingWith("Cam[81]: Resolution changed"), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Mpeg4AndH264, DecodeSize,
    ::testing::Values(SizeCase{VIDEO_CODEC_MPEG4, 17, 17, 17, 17},      // smallest accepted, not scaled
                      SizeCase{VIDEO_CODEC_MPEG4, 120, 90, 120, 90 },  // width 120: not scaled
                      SizeCase{VIDEO_CODEC_MPEG4, 121, 100, 120, 99},   // 100 / (121 / 120) = 99.17
                      SizeCase{VIDEO_CODEC_MPEG4, 2592, 1944, 119, 90}, // 2592 / 21.6 = 119.99..
                      SizeCase{VIDEO_CODEC_MPEG4, 1920, 1080, 120, 67},
                      SizeCase{VIDEO_CODEC_MPEG4, 704, 576, 120, 98},
                      SizeCase{VIDEO_CODEC_MPEG4, 17, 200, 17, 200 },  // narrow, tall
                      SizeCase{VIDEO_CODEC_H264, 120, 90, 120, 90 },
                      SizeCase{VIDEO_CODEC_H264, 2592, 1944, 119, 90},
                      SizeCase{VIDEO_CODEC_H264, 1920, 1080, 120, 67},
                      SizeCase{VIDEO_CODEC_H264, 704, 576, 120, 98}),
    SizeCaseName);

struct AbnormalCase {
    int codec;
    int width;
    int height;
};

void PrintTo(const AbnormalCase& c, std::ostream* os) {
    *os << "codec " << c.codec << ", " << c.width << "x" << c.height;
}

std::string AbnormalCaseName(const ::testing::TestParamInfo<AbnormalCase>& info) {
    const char* codec = info.param.codec == VIDEO_CODEC_MPEG4 ? "Mpeg4" : "H264";
    return std::string(codec) + "_" + std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
}

class DecodeAbnormal : public DecodePath, public ::testing::WithParamInterface<AbnormalCase> {};

TEST_P(DecodeAbnormal, PictureWithAnEdgeOfSixteenOrLessIsIgnored) {
    const AbnormalCase c = GetParam();
    tw::test::ScopedVerboseLog verbose;
    Make(c.codec);
    const std::vector<std::vector<unsigned char>> frames = EncodeKeyFrames(c.codec, c.width, c.height, 2);
    ASSERT_EQ(frames.size(), 2u);
    int result = 55;
    EXPECT_FALSE(Judge(frames[0], result));
    EXPECT_FALSE(Judge(frames[1], result));
    EXPECT_EQ(result, 55);
    // Never taken as a size, never seeded.
    EXPECT_EQ(m_Attr.width, 0);
    EXPECT_EQ(m_Attr.height, 0);
    EXPECT_EQ(A::DetBufSize(*m_pDet), 0);
    std::vector<LogRecord> abnormal = m_Log->Find("Cam[81]: Abnormal resolution, ignore.\n");
    ASSERT_EQ(abnormal.size(), 2u);
    ExpectMotiondetRecord(abnormal[0], "WARN", "DecImageByFFMpeg");
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 2u);
}

INSTANTIATE_TEST_SUITE_P(Mpeg4AndH264, DecodeAbnormal,
                         ::testing::Values(AbnormalCase{VIDEO_CODEC_MPEG4, 16, 16},
                                           AbnormalCase{VIDEO_CODEC_H264, 16, 16},
                                           AbnormalCase{VIDEO_CODEC_MPEG4, 200, 16},
                                           AbnormalCase{VIDEO_CODEC_MPEG4, 16, 17}),
                         AbnormalCaseName);

TEST_F(DecodePath, AbnormalPictureIsReportedWithoutLogConfigurationButItsFailureNoteIsNot) {
    Make(VIDEO_CODEC_MPEG4);
    const std::vector<std::vector<unsigned char>> frames = EncodeKeyFrames(VIDEO_CODEC_MPEG4, 16, 16, 1);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_FALSE(Judge(frames[0]));
    EXPECT_EQ(m_Log->Count("Cam[81]: Abnormal resolution, ignore.\n"), 1u);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 0u);
}

// ---------------------------------------------------------------------------------------
// Resolution changes

TEST_F(DecodePath, ResolutionChangeDropsOneFrameThenResetsTheDetectionBlocks) {
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_H264);
    const std::vector<std::vector<unsigned char>> wide = EncodeKeyFrames(VIDEO_CODEC_H264, 1280, 720, 3);
    const std::vector<std::vector<unsigned char>> narrow = EncodeKeyFrames(VIDEO_CODEC_H264, 640, 480, 3);
    ASSERT_EQ(wide.size(), 3u);
    ASSERT_EQ(narrow.size(), 3u);

    for (const std::vector<unsigned char>& frame : wide) Judge(frame);
    ASSERT_EQ(A::DetWidth(*m_pDet), 120);
    ASSERT_EQ(A::DetHeight(*m_pDet), 67);
    ASSERT_NE(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(CountStartingWith("Cam[81]: Resolution changed"), 0u);
    m_Log->Clear();

    // First 640 x 480 picture: the new size is noted and the frame dropped.
    int result = 55;
    EXPECT_FALSE(Judge(narrow[0], result));
    EXPECT_EQ(result, 55);
    std::vector<LogRecord> changed = m_Log->Find("Cam[81]: Resolution changed: [120x67] => [120x90]\n");
    ASSERT_EQ(changed.size(), 1u);
    ExpectMotiondetRecord(changed[0], "WARN", "DecImageByFFMpeg");
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);
    EXPECT_EQ(A::DetWidth(*m_pDet), 120);
    EXPECT_EQ(A::DetHeight(*m_pDet), 67);
    EXPECT_NE(A::PrevFrame(*m_pDet), nullptr);  // a failed frame leaves the previous one

    // Second: scaled to 120 x 90, the blocks are rebuilt and seeded, nothing is compared.
    EXPECT_FALSE(Judge(narrow[1], result));
    EXPECT_EQ(result, 0);
    std::vector<LogRecord> reset =
        m_Log->Find("Cam[81]: Resolution changed [8040] => [10800] (120x90). Reset detion blocks.\n");
    ASSERT_EQ(reset.size(), 1u);
    ExpectMotiondetRecord(reset[0], "WARN", "IsDetected");
    EXPECT_EQ(A::DetBufSize(*m_pDet), 10800);
    EXPECT_EQ(A::DetWidth(*m_pDet), 120);
    EXPECT_EQ(A::DetHeight(*m_pDet), 90);
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(Background(), ExpectedFFmpegGrey(VIDEO_CODEC_H264, narrow[1], 120, 90));

    // Third: taken at the new size as the previous frame, no more notes.
    Judge(narrow[2], result);
    EXPECT_NE(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(CountStartingWith("Cam[81]: Resolution changed"), 2u);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 1u);
}

// ---------------------------------------------------------------------------------------
// JPEG

struct JpegCase {
    int width;
    int height;
    int detWidth;
    int detHeight;
};

void PrintTo(const JpegCase& c, std::ostream* os) {
    *os << c.width << "x" << c.height << " -> " << c.detWidth << "x" << c.detHeight;
}

class DecodeJpegSize : public DecodePath, public ::testing::WithParamInterface<JpegCase> {};

TEST_P(DecodeJpegSize, JpegIsComparedUnblurredAtTheDecodersSize) {
    const JpegCase c = GetParam();
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_JPEG);
    const std::vector<unsigned char> jpeg = TextureJpeg(c.width, c.height);
    ASSERT_FALSE(jpeg.empty());

    // What the host's decoder delivers at the detector's scale.
    unsigned char* expected = nullptr;
    int expectedSize = 0;
    int w = 0;
    int h = 0;
    ASSERT_EQ(DecodeJpeg(jpeg.data(), static_cast<int>(jpeg.size()), &expected, expectedSize, JCS_GRAYSCALE, 16, w,
                         h),
              0)
        << tw::host::LastDecodeError();
    ASSERT_EQ(w, c.detWidth);
    ASSERT_EQ(h, c.detHeight);
    const std::vector<unsigned char> decoded(expected, expected + w * h);
    free(expected);

    // No frame is dropped for JPEG: the first picture already builds and seeds the blocks.
    int result = 55;
    EXPECT_FALSE(Judge(jpeg, result));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(m_Attr.width, c.detWidth);
    EXPECT_EQ(m_Attr.height, c.detHeight);
    EXPECT_EQ(A::DetWidth(*m_pDet), c.detWidth);
    EXPECT_EQ(A::DetHeight(*m_pDet), c.detHeight);
    EXPECT_EQ(Background(), decoded);
    // The picture has edges, so a blurred copy would have shown.
    std::vector<unsigned char> blurred = decoded;
    m_pDet->BlurImage(blurred.data(), w, h);
    EXPECT_NE(blurred, decoded);

    // The next one is kept as the previous frame just as it comes out of the decoder.
    Judge(jpeg, result);
    ASSERT_NE(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(std::vector<unsigned char>(A::PrevFrame(*m_pDet), A::PrevFrame(*m_pDet) + w * h), decoded);
    EXPECT_EQ(m_Log->Count("DecImage failed.\n"), 0u);
}

INSTANTIATE_TEST_SUITE_P(Scale16, DecodeJpegSize,
                         ::testing::Values(JpegCase{1920, 1080, 120, 67}, JpegCase{640, 480, 40, 30},
                                           JpegCase{2592, 1944, 162, 121}),
                         [](const ::testing::TestParamInfo<JpegCase>& info) {
                             return std::to_string(info.param.width) + "x" + std::to_string(info.param.height);
                         });

TEST_F(DecodePath, JpegSizeChangeResetsTheBlocksAtOnce) {
    Make(VIDEO_CODEC_JPEG);
    Judge(TextureJpeg(1920, 1080));
    ASSERT_EQ(A::DetBufSize(*m_pDet), 8040);
    int result = 55;
    EXPECT_FALSE(Judge(TextureJpeg(640, 480), result));
    EXPECT_EQ(result, 0);
    std::vector<LogRecord> reset =
        m_Log->Find("Cam[81]: Resolution changed [8040] => [1200] (40x30). Reset detion blocks.\n");
    ASSERT_EQ(reset.size(), 1u);
    ExpectMotiondetRecord(reset[0], "WARN", "IsDetected");
    EXPECT_EQ(A::DetWidth(*m_pDet), 40);
    EXPECT_EQ(A::DetHeight(*m_pDet), 30);
}

TEST_F(DecodePath, BrokenJpegIsADecodeFailure) {
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_JPEG);
    std::vector<unsigned char> jpeg = TextureJpeg(640, 480);
    Judge(jpeg);
    ASSERT_EQ(A::DetBufSize(*m_pDet), 1200);
    m_Log->Clear();
    jpeg.resize(jpeg.size() / 2);  // cut in the middle of the entropy-coded data
    int result = 55;
    EXPECT_FALSE(Judge(jpeg, result));
    EXPECT_EQ(result, 55);
    std::vector<LogRecord> r = m_Log->Records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].message, "Cam[81]: Failed to do Jpeg decode.\n");
    ExpectMotiondetRecord(r[0], "NOTICE", "DecImageByJpeg");
    EXPECT_EQ(r[1].message, "DecImage failed.\n");
    ExpectMotiondetRecord(r[1], "NOTICE", "IsDetected");
    EXPECT_EQ(A::DetBufSize(*m_pDet), 1200);
}

TEST_F(DecodePath, UndecodableFrameIsAnFFmpegDecodeFailure) {
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_H264);
    std::vector<unsigned char> junk(600);
    for (size_t i = 0; i < junk.size(); ++i) junk[i] = static_cast<unsigned char>((i * 37 + 11) | 1);
    int result = 55;
    EXPECT_FALSE(Judge(junk, result));
    EXPECT_EQ(result, 55);
    std::vector<LogRecord> r = m_Log->Records();
    ASSERT_EQ(r.size(), 2u);
    EXPECT_EQ(r[0].message, "Cam[81]: Failed to do FFmpeg decode.\n");
    ExpectMotiondetRecord(r[0], "NOTICE", "DecImageByFFMpeg");
    EXPECT_EQ(r[1].message, "DecImage failed.\n");
    ExpectMotiondetRecord(r[1], "NOTICE", "IsDetected");
    EXPECT_EQ(m_Attr.width, 0);
}

// ---------------------------------------------------------------------------------------
// Unusable input

TEST_F(DecodePath, NullOrEmptyFrameIsAParamErrorAndLeavesTheResult) {
    tw::test::ScopedVerboseLog verbose;
    Make(VIDEO_CODEC_H264);
    int result = 55;
    m_Attr.pFrame = nullptr;
    m_Attr.frameSize = 100;
    EXPECT_FALSE(m_pDet->IsDetected(m_Attr, result));
    const unsigned char byte = 0;
    m_Attr.pFrame = &byte;
    m_Attr.frameSize = 0;
    EXPECT_FALSE(m_pDet->IsDetected(m_Attr, result));
    m_Attr.frameSize = -5;
    EXPECT_FALSE(m_pDet->IsDetected(m_Attr, result));
    EXPECT_EQ(result, 55);
    std::vector<LogRecord> r = m_Log->Records();
    ASSERT_EQ(r.size(), 3u);
    for (const LogRecord& record : r) {
        EXPECT_EQ(record.message, "param error\n");
        ExpectMotiondetRecord(record, "NOTICE", "IsDetected");
    }
    EXPECT_EQ(m_Attr.width, 0);
}

TEST_F(DecodePath, ParamErrorIsSilentWithoutLogConfiguration) {
    Make(VIDEO_CODEC_JPEG);
    int result = 55;
    EXPECT_FALSE(m_pDet->IsDetected(m_Attr, result));
    EXPECT_EQ(result, 55);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(DecodePath, DecoderSuccessWithoutAPictureIsRefusedAndForgetsThePreviousFrame) {
    ASSERT_NE(HostDecodeJpeg(), nullptr) << "the host's DecodeJpeg was not found behind the stand-in";
    Make(VIDEO_CODEC_JPEG);
    const std::vector<unsigned char> jpeg = TextureJpeg(640, 480);
    Judge(jpeg);
    Judge(jpeg);
    ASSERT_NE(A::PrevFrame(*m_pDet), nullptr);
    free(m_Attr.pDecodedImage);  // a fresh record for the stand-in: no picture buffer at all
    m_Attr.pDecodedImage = nullptr;

    g_JpegStandIn = JpegStandIn::kNoImage;
    int result = 55;
    EXPECT_FALSE(Judge(jpeg, result));
    EXPECT_EQ(result, 0);
    std::vector<LogRecord> r = m_Log->Find("Failed to incorrect parameters.\n");
    ASSERT_EQ(r.size(), 1u);
    ExpectMotiondetRecord(r[0], "WARN", "IsDetected");
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(A::DetBufSize(*m_pDet), 1200);  // the blocks stay as they were

    // A picture buffer with a zero width is refused the same way.
    Judge(TextureJpeg(640, 480));  // stand-in still active: refused again
    g_JpegStandIn = JpegStandIn::kZeroWidth;
    result = 55;
    EXPECT_FALSE(Judge(jpeg, result));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(m_Log->Count("Failed to incorrect parameters.\n"), 3u);
    EXPECT_EQ(A::PrevFrame(*m_pDet), nullptr);

    // And the real decoder takes over again without a fuss.
    g_JpegStandIn = JpegStandIn::kPassThrough;
    Judge(jpeg);
    EXPECT_NE(A::PrevFrame(*m_pDet), nullptr);
    EXPECT_EQ(m_Log->Count("Failed to incorrect parameters.\n"), 3u);
}

}  // namespace
