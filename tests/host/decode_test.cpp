// The host's picture decoders: DecodeJpeg (libjpeg-turbo) and the DoFFMpeg wrappers
// (libavcodec, libswscale), driven the way the motion detector drives them.

#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/decodeerror.h"

#include "support/test_encode.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <malloc.h>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

namespace {

using tw::test::EncodeTestJpeg;
using tw::test::EncodeTestVideo;
using tw::test::PictureLevel;
using tw::test::TestPacket;
using tw::test::TestVideo;
using tw::test::TestVideoSpec;

// Corrupt input makes libavcodec complain on stderr; that is expected here.
const bool g_blQuietAvLog = [] {
    av_log_set_level(AV_LOG_FATAL);
    return true;
}();

// ------------------------------------------------------------------------------------
// JPEG

std::vector<unsigned char> FlatGrey(int width, int height, unsigned char level)
{
    return std::vector<unsigned char>(size_t(width) * size_t(height), level);
}

// Grey level rises from 0 at the left edge to 255 at the right edge.
std::vector<unsigned char> HorizontalRamp(int width, int height)
{
    std::vector<unsigned char> pixels(size_t(width) * size_t(height));
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            pixels[size_t(y) * width + x] = static_cast<unsigned char>(x * 255 / (width - 1));
        }
    }
    return pixels;
}

double Mean(const unsigned char* p, size_t n)
{
    double sum = 0;
    for (size_t i = 0; i < n; ++i) {
        sum += p[i];
    }
    return n ? sum / double(n) : 0.0;
}

// One decoding call with its own buffer, freed at the end of the test.
struct JpegResult {
    unsigned char* pOut = nullptr;
    int outSize = -1;
    int width = -1;
    int height = -1;
    ~JpegResult() { free(pOut); }
    int Decode(const std::vector<unsigned char>& jpeg, unsigned int scale,
               J_COLOR_SPACE space = JCS_GRAYSCALE)
    {
        return DecodeJpeg(jpeg.data(), static_cast<int>(jpeg.size()), &pOut, outSize, space,
                          scale, width, height);
    }
};

TEST(DecodeJpeg, Scale16Of1920x1080GivesFlatGrey120x67)
{
    const auto pixels = FlatGrey(1920, 1080, 100);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 1920, 1080, 1);
    JpegResult r;
    ASSERT_EQ(0, r.Decode(jpeg, 16)) << tw::host::LastDecodeError();
    EXPECT_EQ(120, r.width);
    EXPECT_EQ(67, r.height);
    EXPECT_EQ(120 * 67, r.outSize);
    for (int i = 0; i < r.outSize; ++i) {
        ASSERT_NEAR(100, r.pOut[i], 1) << "pixel " << i;
    }
}

TEST(DecodeJpeg, Scale16AveragesEach16PixelColumnOfARamp)
{
    const auto pixels = HorizontalRamp(1920, 1080);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 1920, 1080, 1, 95);
    JpegResult r;
    ASSERT_EQ(0, r.Decode(jpeg, 16)) << tw::host::LastDecodeError();
    ASSERT_EQ(120, r.width);
    ASSERT_EQ(67, r.height);
    // Output column c covers source columns 16c .. 16c + 15.
    for (int y = 0; y < r.height; y += 11) {
        for (int c = 0; c < r.width; ++c) {
            double expected = 0;
            for (int x = 16 * c; x < 16 * c + 16; ++x) {
                expected += x * 255 / 1919;
            }
            expected /= 16;
            ASSERT_NEAR(expected, r.pOut[y * r.width + c], 2.0) << "row " << y << " col " << c;
        }
    }
    // Left dark, right bright: the picture is not mirrored or transposed.
    EXPECT_LT(r.pOut[0], 10);
    EXPECT_GT(r.pOut[119], 245);
}

TEST(DecodeJpeg, Scale8Gives240x135)
{
    const auto pixels = FlatGrey(1920, 1080, 60);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 1920, 1080, 1);
    JpegResult r;
    ASSERT_EQ(0, r.Decode(jpeg, 8)) << tw::host::LastDecodeError();
    EXPECT_EQ(240, r.width);
    EXPECT_EQ(135, r.height);
    EXPECT_EQ(240 * 135, r.outSize);
    EXPECT_NEAR(60.0, Mean(r.pOut, size_t(r.outSize)), 1.0);
}

TEST(DecodeJpeg, DctScalesGiveRoundedUpFractions)
{
    // 100 x 60: 1/2 = 50 x 30, 1/4 = 25 x 15, 1/8 = 13 x 8, 1/16 = 6 x 4.
    const auto pixels = FlatGrey(100, 60, 200);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 100, 60, 1);
    const struct {
        unsigned scale;
        int width;
        int height;
    } cases[] = {{1, 100, 60}, {2, 50, 30}, {4, 25, 15}, {8, 13, 8}, {16, 6, 4}};
    for (const auto& c : cases) {
        JpegResult r;
        ASSERT_EQ(0, r.Decode(jpeg, c.scale)) << "scale " << c.scale;
        EXPECT_EQ(c.width, r.width) << "scale " << c.scale;
        EXPECT_EQ(c.height, r.height) << "scale " << c.scale;
        EXPECT_EQ(c.width * c.height, r.outSize) << "scale " << c.scale;
        EXPECT_NEAR(200.0, Mean(r.pOut, size_t(r.outSize)), 1.5) << "scale " << c.scale;
    }
}

TEST(DecodeJpeg, ColourPictureDecodesToItsLuma)
{
    // Left half pure red, right half pure blue: luma 0.299 * 255 and 0.114 * 255.
    const int w = 320;
    const int h = 240;
    std::vector<unsigned char> rgb(size_t(w) * h * 3, 0);
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            unsigned char* p = &rgb[(size_t(y) * w + x) * 3];
            (x < w / 2 ? p[0] : p[2]) = 255;
        }
    }
    const auto jpeg = EncodeTestJpeg(rgb.data(), w, h, 3, 95);
    JpegResult r;
    ASSERT_EQ(0, r.Decode(jpeg, 1)) << tw::host::LastDecodeError();
    ASSERT_EQ(w, r.width);
    ASSERT_EQ(h, r.height);
    ASSERT_EQ(w * h, r.outSize);   // one byte per pixel
    EXPECT_NEAR(76, r.pOut[120 * w + 40], 3);    // red
    EXPECT_NEAR(29, r.pOut[120 * w + 280], 3);   // blue

    JpegResult small;
    ASSERT_EQ(0, small.Decode(jpeg, 16));
    ASSERT_EQ(20, small.width);
    ASSERT_EQ(15, small.height);
    ASSERT_EQ(20 * 15, small.outSize);
    EXPECT_NEAR(76, small.pOut[7 * 20 + 5], 3);
    EXPECT_NEAR(29, small.pOut[7 * 20 + 15], 3);
}

TEST(DecodeJpeg, RgbOutputGivesThreeBytesPerPixel)
{
    const int w = 64;
    const int h = 48;
    std::vector<unsigned char> rgb(size_t(w) * h * 3);
    for (size_t i = 0; i < rgb.size(); i += 3) {
        rgb[i] = 200;
        rgb[i + 1] = 40;
        rgb[i + 2] = 90;
    }
    const auto jpeg = EncodeTestJpeg(rgb.data(), w, h, 3, 95);
    JpegResult r;
    ASSERT_EQ(0, r.Decode(jpeg, 16, JCS_RGB)) << tw::host::LastDecodeError();
    ASSERT_EQ(4, r.width);
    ASSERT_EQ(3, r.height);
    ASSERT_EQ(4 * 3 * 3, r.outSize);
    EXPECT_NEAR(200, r.pOut[0], 6);
    EXPECT_NEAR(40, r.pOut[1], 6);
    EXPECT_NEAR(90, r.pOut[2], 6);
}

TEST(DecodeJpeg, UnsupportedScaleFailsAndKeepsBuffer)
{
    const auto pixels = FlatGrey(64, 64, 10);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 64, 64, 1);
    for (unsigned scale : {0u, 3u, 5u, 32u}) {
        JpegResult r;
        r.pOut = static_cast<unsigned char*>(malloc(16));
        unsigned char* pBefore = r.pOut;
        EXPECT_NE(0, r.Decode(jpeg, scale)) << "scale " << scale;
        EXPECT_EQ(pBefore, r.pOut);
        EXPECT_NE(std::string::npos, std::string(tw::host::LastDecodeError()).find("scale"))
            << tw::host::LastDecodeError();
    }
}

TEST(DecodeJpeg, UnsupportedColourSpaceFails)
{
    const auto pixels = FlatGrey(64, 64, 10);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 64, 64, 1);
    JpegResult r;
    EXPECT_NE(0, r.Decode(jpeg, 1, JCS_CMYK));
}

TEST(DecodeJpeg, PictureTooSmallForScale16Fails)
{
    const auto pixels = FlatGrey(8, 8, 10);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 8, 8, 1);
    JpegResult r;
    EXPECT_NE(0, r.Decode(jpeg, 16));
    EXPECT_EQ(0, r.Decode(jpeg, 8));
    EXPECT_EQ(1, r.width);
    EXPECT_EQ(1, r.height);
}

TEST(DecodeJpeg, NonJpegDataFailsNamingTheProblem)
{
    const std::string text = "\x89PNG\r\n\x1a\n this is not a JPEG picture at all";
    const std::vector<unsigned char> data(text.begin(), text.end());
    JpegResult r;
    EXPECT_NE(0, r.Decode(data, 16));
    EXPECT_NE(std::string::npos, std::string(tw::host::LastDecodeError()).find("Not a JPEG"))
        << tw::host::LastDecodeError();
}

TEST(DecodeJpeg, NullOrTinyInputFails)
{
    unsigned char* pOut = nullptr;
    int outSize = 0;
    int w = 0;
    int h = 0;
    const unsigned char soi[] = {0xFF, 0xD8};
    EXPECT_NE(0, DecodeJpeg(nullptr, 100, &pOut, outSize, JCS_GRAYSCALE, 16, w, h));
    EXPECT_NE(0, DecodeJpeg(soi, 2, &pOut, outSize, JCS_GRAYSCALE, 16, w, h));
    EXPECT_NE(0, DecodeJpeg(soi, 0, &pOut, outSize, JCS_GRAYSCALE, 16, w, h));
    EXPECT_NE(0, DecodeJpeg(soi, -5, &pOut, outSize, JCS_GRAYSCALE, 16, w, h));
    EXPECT_NE(0, DecodeJpeg(soi, 2, nullptr, outSize, JCS_GRAYSCALE, 16, w, h));
    free(pOut);
}

TEST(DecodeJpeg, TruncatedPictureFailsAtEveryCut)
{
    const auto pixels = HorizontalRamp(160, 120);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 160, 120, 1);
    unsigned char* pOut = nullptr;
    int outSize = 0;
    int w = 0;
    int h = 0;
    int cuts = 0;
    // Every cut, down to the last byte of the end marker.
    for (size_t len = jpeg.size() - 1; len >= 4; len -= (len > 40 ? 7 : 1)) {
        ASSERT_NE(0, DecodeJpeg(jpeg.data(), static_cast<int>(len), &pOut, outSize,
                                JCS_GRAYSCALE, 16, w, h))
            << "cut at " << len << " of " << jpeg.size();
        ++cuts;
    }
    EXPECT_GT(cuts, 20);
    // The buffer is still ours to use and free after all those failures.
    ASSERT_EQ(0, DecodeJpeg(jpeg.data(), static_cast<int>(jpeg.size()), &pOut, outSize,
                            JCS_GRAYSCALE, 16, w, h));
    EXPECT_EQ(10 * 7, outSize);
    free(pOut);
}

TEST(DecodeJpeg, CutInsideScanDataReportsPrematureEnd)
{
    const auto pixels = HorizontalRamp(640, 480);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 640, 480, 1);
    const std::vector<unsigned char> half(jpeg.begin(), jpeg.begin() + jpeg.size() / 2);
    JpegResult r;
    EXPECT_NE(0, r.Decode(half, 16));
    EXPECT_NE(std::string::npos, std::string(tw::host::LastDecodeError()).find("Premature end"))
        << tw::host::LastDecodeError();
}

TEST(DecodeJpeg, DamagedPicturesFailWithoutCrashing)
{
    const auto pixels = HorizontalRamp(160, 120);
    const auto good = EncodeTestJpeg(pixels.data(), 160, 120, 1);
    JpegResult r;

    // Garbage after a valid start-of-image marker.
    std::vector<unsigned char> garbage = {0xFF, 0xD8};
    unsigned seed = 12345;
    for (int i = 0; i < 4000; ++i) {
        seed = seed * 1103515245u + 12345u;
        garbage.push_back(static_cast<unsigned char>(seed >> 16));
    }
    EXPECT_NE(0, r.Decode(garbage, 16));

    // A frame header that claims zero lines.
    std::vector<unsigned char> noLines = good;
    bool blFound = false;
    for (size_t i = 2; i + 8 < noLines.size(); ++i) {
        if (noLines[i] == 0xFF && noLines[i + 1] == 0xC0) {   // SOF0
            noLines[i + 5] = 0;
            noLines[i + 6] = 0;
            blFound = true;
            break;
        }
    }
    ASSERT_TRUE(blFound);
    EXPECT_NE(0, r.Decode(noLines, 16));

    // A stray marker inside the entropy-coded data.
    std::vector<unsigned char> marker = good;
    marker[marker.size() - 40] = 0xFF;
    marker[marker.size() - 39] = 0xD9;
    EXPECT_NE(0, r.Decode(marker, 16));

    // Every single byte of the headers overwritten in turn: fail or succeed, never crash.
    for (size_t i = 2; i < 200 && i < good.size(); ++i) {
        std::vector<unsigned char> damaged = good;
        damaged[i] ^= 0xA5;
        const int rc = r.Decode(damaged, 16);
        if (rc == 0) {
            EXPECT_EQ(r.width * r.height, r.outSize) << "byte " << i;
        }
    }
}

TEST(DecodeJpeg, OutputBufferIsReusedWhenLargeEnoughAndGrownOtherwise)
{
    const auto pixels = FlatGrey(1920, 1080, 77);
    const auto jpeg = EncodeTestJpeg(pixels.data(), 1920, 1080, 1);
    JpegResult r;
    ASSERT_EQ(0, r.Decode(jpeg, 8));
    ASSERT_EQ(240 * 135, r.outSize);
    unsigned char* pFirst = r.pOut;
    ASSERT_EQ(0, r.Decode(jpeg, 16));
    EXPECT_EQ(pFirst, r.pOut) << "a smaller picture reuses the buffer";
    EXPECT_EQ(120 * 67, r.outSize);
    ASSERT_EQ(0, r.Decode(jpeg, 2));
    EXPECT_EQ(960 * 540, r.outSize);
    EXPECT_NEAR(77.0, Mean(r.pOut, size_t(r.outSize)), 1.0);

    // A caller's too small buffer is replaced, and stays freeable by the caller.
    JpegResult tiny;
    tiny.pOut = static_cast<unsigned char*>(malloc(1));
    ASSERT_EQ(0, tiny.Decode(jpeg, 16));
    EXPECT_EQ(120 * 67, tiny.outSize);
    EXPECT_NEAR(77.0, Mean(tiny.pOut, size_t(tiny.outSize)), 1.0);
}

// ------------------------------------------------------------------------------------
// FFmpeg

TestVideo Encode(const TestVideoSpec& videoSpec)
{
    TestVideo video;
    std::string error;
    EXPECT_TRUE(EncodeTestVideo(videoSpec, video, error)) << error;
    return video;
}

// A decoder as the detector sets it up: initialised, then the show-all bit.
struct Decoder {
    FFmpegAttr attr{};
    unsigned char* pImage = nullptr;
    int imageSize = 0;

    ~Decoder() { DoFFMpegFree(attr, pImage); }
    int Init(int codec, const std::vector<unsigned char>& extra = {})
    {
        const int rc = DoFFMpegInitVideo(attr, codec, extra.empty() ? nullptr : extra.data(),
                                         static_cast<int>(extra.size()));
        if (rc == 0) {
            attr.pCodecCtx->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
        }
        return rc;
    }
    int Decode(const std::vector<unsigned char>& data)
    {
        return DoFFMpegDecode(attr, data.data(), static_cast<int>(data.size()));
    }
    int Scale(int width, int height)
    {
        return DoFFMpegScale(attr, pImage, imageSize, width, height, 0);
    }
    // Mean of all bytes of a small scaled copy of the last picture.
    double MeanLevel()
    {
        if (Scale(32, 18) != 0) {
            return -1.0;
        }
        return Mean(pImage, size_t(imageSize));
    }
};

// Decoding of a stream's key frames only, one call each, as the detector does it: every
// call must give that very key frame's picture at the stream's size.
void ExpectEveryKeyFrameGivesItsPicture(const TestVideo& video, int minKeyFrames)
{
    Decoder dec;
    ASSERT_EQ(0, dec.Init(video.codec)) << tw::host::LastDecodeError();
    int keyFrames = 0;
    for (const auto& packet : video.packets) {
        if (!packet.keyFrame) {
            continue;
        }
        ++keyFrames;
        ASSERT_EQ(0, dec.Decode(packet.data))
            << "key frame " << packet.pts << ": " << tw::host::LastDecodeError();
        EXPECT_EQ(video.width, dec.attr.pCodecCtx->width);
        EXPECT_EQ(video.height, dec.attr.pCodecCtx->height);
        EXPECT_NEAR(PictureLevel(int(packet.pts)), dec.MeanLevel(), 4.0)
            << "picture of key frame " << packet.pts;
    }
    EXPECT_GE(keyFrames, minKeyFrames);
}

// Proves that a stream holds its key frames back in a bare decoder, so that the tests
// built on it really exercise the draining.
bool BareDecoderHoldsFirstKeyFrameBack(const TestVideo& video)
{
    const AVCodecID id = video.codec == 3   ? AV_CODEC_ID_H264
                         : video.codec == 4 ? AV_CODEC_ID_HEVC
                                            : AV_CODEC_ID_MPEG4;
    const AVCodec* pCodec = avcodec_find_decoder(id);
    AVCodecContext* pCtx = avcodec_alloc_context3(pCodec);
    AVPacket* pPacket = av_packet_alloc();
    AVFrame* pFrame = av_frame_alloc();
    bool blHeld = false;
    if (avcodec_open2(pCtx, pCodec, nullptr) == 0 &&
        av_new_packet(pPacket, int(video.packets[0].data.size())) == 0) {
        memcpy(pPacket->data, video.packets[0].data.data(), video.packets[0].data.size());
        if (avcodec_send_packet(pCtx, pPacket) == 0) {
            blHeld = avcodec_receive_frame(pCtx, pFrame) == AVERROR(EAGAIN);
        }
    }
    av_frame_free(&pFrame);
    av_packet_free(&pPacket);
    avcodec_free_context(&pCtx);
    return blHeld;
}

TEST(FFMpegDecode, H264KeyFrameWithBFramesYieldsPictureInSameCall)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.width = 640;
    videoSpec.height = 360;
    videoSpec.frames = 60;
    videoSpec.gop = 12;
    videoSpec.bFrames = 3;
    const TestVideo video = Encode(videoSpec);
    ASSERT_FALSE(video.packets.empty());
    ASSERT_TRUE(video.packets[0].keyFrame);
    ASSERT_TRUE(BareDecoderHoldsFirstKeyFrameBack(video));
    ExpectEveryKeyFrameGivesItsPicture(video, 5);
}

TEST(FFMpegDecode, HevcKeyFrameWithBFramesYieldsPictureInSameCall)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_HEVC;
    videoSpec.width = 352;
    videoSpec.height = 288;
    videoSpec.frames = 40;
    videoSpec.gop = 8;
    videoSpec.bFrames = 3;
    const TestVideo video = Encode(videoSpec);
    ASSERT_FALSE(video.packets.empty());
    ASSERT_TRUE(video.packets[0].keyFrame);
    ASSERT_TRUE(BareDecoderHoldsFirstKeyFrameBack(video));
    ExpectEveryKeyFrameGivesItsPicture(video, 5);
}

TEST(FFMpegDecode, Mpeg4KeyFrameWithBFramesYieldsPictureInSameCall)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_MPEG4;
    videoSpec.width = 320;
    videoSpec.height = 240;
    videoSpec.frames = 40;
    videoSpec.gop = 8;
    videoSpec.bFrames = 2;
    const TestVideo video = Encode(videoSpec);
    ASSERT_FALSE(video.packets.empty());
    ASSERT_TRUE(BareDecoderHoldsFirstKeyFrameBack(video));
    ExpectEveryKeyFrameGivesItsPicture(video, 5);
}

TEST(FFMpegDecode, MjpegFramesDecodeThroughFFmpeg)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_JPEG;
    videoSpec.width = 320;
    videoSpec.height = 240;
    videoSpec.frames = 6;
    const TestVideo video = Encode(videoSpec);
    ASSERT_EQ(6u, video.packets.size());
    ExpectEveryKeyFrameGivesItsPicture(video, 6);
}

TEST(FFMpegDecode, LowDelayStreamDecodesEveryFrameInOrder)
{
    // Without reordering the wrapper must not drain: P-frames need their references.
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.frames = 20;
    videoSpec.gop = 10;
    const TestVideo video = Encode(videoSpec);
    ASSERT_EQ(20u, video.packets.size());
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    for (const auto& packet : video.packets) {
        ASSERT_EQ(0, dec.Decode(packet.data)) << "frame " << packet.pts;
        EXPECT_NEAR(PictureLevel(int(packet.pts)), dec.MeanLevel(), 4.0)
            << "frame " << packet.pts;
    }
}

TEST(FFMpegDecode, ExtraDataConfiguresTheDecoder)
{
    // Parameter sets only in the extra data, not in the key frames.
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.frames = 10;
    videoSpec.gop = 5;
    videoSpec.globalHeader = true;
    const TestVideo video = Encode(videoSpec);
    ASSERT_FALSE(video.extraData.empty());
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264, video.extraData)) << tw::host::LastDecodeError();
    ASSERT_EQ(0, dec.Decode(video.packets[0].data)) << tw::host::LastDecodeError();
    EXPECT_EQ(320, dec.attr.pCodecCtx->width);
    EXPECT_EQ(240, dec.attr.pCodecCtx->height);

    // Without it the same key frame cannot be decoded.
    Decoder bare;
    ASSERT_EQ(0, bare.Init(VIDEO_CODEC_H264));
    EXPECT_NE(0, bare.Decode(video.packets[0].data));
}

TEST(FFMpegDecode, CorruptH264FailsAndNextKeyFrameStillDecodes)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.frames = 24;
    videoSpec.gop = 8;
    videoSpec.bFrames = 3;
    const TestVideo video = Encode(videoSpec);
    std::vector<const TestPacket*> keys;
    for (const auto& packet : video.packets) {
        if (packet.keyFrame) {
            keys.push_back(&packet);
        }
    }
    ASSERT_GE(keys.size(), 3u);

    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    ASSERT_EQ(0, dec.Decode(keys[0]->data));

    std::vector<unsigned char> garbage;
    unsigned seed = 777;
    for (int i = 0; i < 3000; ++i) {
        seed = seed * 1103515245u + 12345u;
        garbage.push_back(static_cast<unsigned char>(seed >> 16));
    }
    EXPECT_NE(0, dec.Decode(garbage));
    EXPECT_EQ(0, dec.attr.blHasPicture);
    EXPECT_NE(0, dec.Scale(120, 67)) << "no picture after a failed decode";

    // Garbage behind a start code and an IDR slice header byte.
    std::vector<unsigned char> fakeIdr = {0, 0, 0, 1, 0x65};
    fakeIdr.insert(fakeIdr.end(), garbage.begin(), garbage.begin() + 500);
    EXPECT_NE(0, dec.Decode(fakeIdr));

    // Parameter sets only, no picture.
    std::vector<unsigned char> headersOnly;
    const auto& key = keys[1]->data;
    for (size_t i = 0; i + 4 < key.size(); ++i) {
        if (key[i] == 0 && key[i + 1] == 0 && key[i + 2] == 1 && (key[i + 3] & 0x1F) == 5) {
            headersOnly.assign(key.begin(), key.begin() + long(i));
            break;
        }
    }
    ASSERT_FALSE(headersOnly.empty());
    EXPECT_NE(0, dec.Decode(headersOnly));

    ASSERT_EQ(0, dec.Decode(keys[2]->data)) << tw::host::LastDecodeError();
    EXPECT_NEAR(PictureLevel(int(keys[2]->pts)), dec.MeanLevel(), 4.0);
}

TEST(FFMpegDecode, ResolutionChangeIsFollowedByContextAndScaler)
{
    TestVideoSpec large;
    large.codec = VIDEO_CODEC_H264;
    large.width = 640;
    large.height = 360;
    large.frames = 1;
    TestVideoSpec small = large;
    small.width = 320;
    small.height = 240;
    const TestVideo a = Encode(large);
    const TestVideo b = Encode(small);
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    ASSERT_EQ(0, dec.Decode(a.packets[0].data));
    EXPECT_EQ(640, dec.attr.pCodecCtx->width);
    ASSERT_EQ(0, dec.Scale(120, 67));
    ASSERT_EQ(0, dec.Decode(b.packets[0].data));
    EXPECT_EQ(320, dec.attr.pCodecCtx->width);
    EXPECT_EQ(240, dec.attr.pCodecCtx->height);
    ASSERT_EQ(0, dec.Scale(120, 90));
    EXPECT_EQ(120 * 90 * 3, dec.imageSize);
    EXPECT_EQ(320, dec.attr.swsSrcWidth);
    EXPECT_EQ(120, dec.attr.swsDstWidth);
    EXPECT_EQ(90, dec.attr.swsDstHeight);
}

TEST(FFMpegDecode, DecodeWithoutDecoderOrDataFails)
{
    FFmpegAttr attr{};
    const unsigned char data[] = {0, 0, 0, 1, 0x65, 0x88};
    EXPECT_NE(0, DoFFMpegDecode(attr, data, sizeof(data)));

    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    EXPECT_NE(0, DoFFMpegDecode(dec.attr, nullptr, 10));
    EXPECT_NE(0, DoFFMpegDecode(dec.attr, data, 0));
    EXPECT_NE(0, DoFFMpegDecode(dec.attr, data, -1));
}

TEST(FFMpegInit, UnknownCodecFailsAndLeavesAttrReleasable)
{
    for (int codec : {int(VIDEO_CODEC_UNKNOWN), 5, -1, 1000}) {
        FFmpegAttr attr;
        memset(&attr, 0xA5, sizeof(attr));   // the caller's record may hold anything
        EXPECT_NE(0, DoFFMpegInitVideo(attr, codec, nullptr, 0)) << "codec " << codec;
        EXPECT_NE(std::string::npos,
                  std::string(tw::host::LastDecodeError()).find(std::to_string(codec)))
            << tw::host::LastDecodeError();
        unsigned char* pImage = static_cast<unsigned char*>(malloc(8));
        EXPECT_EQ(0, DoFFMpegFree(attr, pImage));
        EXPECT_EQ(nullptr, pImage);
    }
}

TEST(FFMpegInit, BadExtraDataFails)
{
    FFmpegAttr attr{};
    unsigned char* pImage = nullptr;
    EXPECT_NE(0, DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 10));
    DoFFMpegFree(attr, pImage);
    const unsigned char extra[4] = {0, 0, 0, 1};
    EXPECT_NE(0, DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, extra, -4));
    DoFFMpegFree(attr, pImage);
}

// This libavcodec's slice-threaded HEVC path reads through a null pointer on a damaged
// stream (found by detect_hevc_fuzz): HEVC decodes on one thread, also after a reset.
TEST(FFMpegInit, HevcDecodesOnOneThread)
{
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_HEVC)) << tw::host::LastDecodeError();
    EXPECT_EQ(1, dec.attr.pCodecCtx->thread_count);
    ASSERT_EQ(0, DoFFMpegResetContext(dec.attr)) << tw::host::LastDecodeError();
    EXPECT_EQ(1, dec.attr.pCodecCtx->thread_count);
}

TEST(FFMpegInit, EveryKnownCodecOpensWithSliceThreadingOnly)
{
    for (int codec : {VIDEO_CODEC_JPEG, VIDEO_CODEC_MPEG4, VIDEO_CODEC_H264, VIDEO_CODEC_HEVC}) {
        Decoder dec;
        ASSERT_EQ(0, dec.Init(codec)) << tw::host::LastDecodeError();
        ASSERT_NE(nullptr, dec.attr.pCodecCtx);
        EXPECT_EQ(FF_THREAD_SLICE, dec.attr.pCodecCtx->thread_type) << "codec " << codec;
        EXPECT_EQ(0, dec.attr.pCodecCtx->active_thread_type & FF_THREAD_FRAME);
        EXPECT_EQ(codec, dec.attr.codec);
        EXPECT_EQ(0, dec.attr.blHasPicture);
    }
}

// A picture whose left half is one colour and right half another.
void PaintTwoColours(int, int width, int height, unsigned char* rgb)
{
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            unsigned char* p = rgb + (size_t(y) * width + x) * 3;
            if (x < width / 2) {
                p[0] = 200;
                p[1] = 40;
                p[2] = 40;
            } else {
                p[0] = 30;
                p[1] = 60;
                p[2] = 210;
            }
        }
    }
}

TEST(FFMpegScale, KnownColourAreasMapToTheirRgb)
{
    for (int codec : {VIDEO_CODEC_H264, VIDEO_CODEC_JPEG}) {
        TestVideoSpec videoSpec;
        videoSpec.codec = codec;
        videoSpec.width = 640;
        videoSpec.height = 360;
        videoSpec.frames = 1;
        videoSpec.painter = PaintTwoColours;
        const TestVideo video = Encode(videoSpec);
        Decoder dec;
        ASSERT_EQ(0, dec.Init(codec));
        ASSERT_EQ(0, dec.Decode(video.packets[0].data)) << tw::host::LastDecodeError();
        ASSERT_EQ(0, dec.Scale(120, 67));
        ASSERT_EQ(120 * 67 * 3, dec.imageSize);
        const unsigned char* pLeft = dec.pImage + (33 * 120 + 30) * 3;
        const unsigned char* pRight = dec.pImage + (33 * 120 + 90) * 3;
        EXPECT_NEAR(200, pLeft[0], 8) << "codec " << codec;
        EXPECT_NEAR(40, pLeft[1], 8) << "codec " << codec;
        EXPECT_NEAR(40, pLeft[2], 8) << "codec " << codec;
        EXPECT_NEAR(30, pRight[0], 8) << "codec " << codec;
        EXPECT_NEAR(60, pRight[1], 8) << "codec " << codec;
        EXPECT_NEAR(210, pRight[2], 8) << "codec " << codec;
    }
}

TEST(FFMpegScale, OutputIsExactlyWidthTimesHeightTimesThree)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.width = 640;
    videoSpec.height = 480;
    videoSpec.frames = 1;
    const TestVideo video = Encode(videoSpec);
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    ASSERT_EQ(0, dec.Decode(video.packets[0].data));
    const struct {
        int w;
        int h;
    } sizes[] = {{120, 90}, {17, 17}, {121, 99}, {1, 1}, {641, 481}, {119, 90}};
    for (const auto& s : sizes) {
        int w = s.w;
        int h = s.h;
        ASSERT_EQ(0, DoFFMpegScale(dec.attr, dec.pImage, dec.imageSize, w, h, 0))
            << s.w << "x" << s.h << ": " << tw::host::LastDecodeError();
        EXPECT_EQ(s.w * s.h * 3, dec.imageSize);
        EXPECT_EQ(s.w, w);
        EXPECT_EQ(s.h, h);
        // The whole buffer is picture: every pixel of the flat picture has its level.
        for (int i = 0; i < dec.imageSize; ++i) {
            ASSERT_NEAR(PictureLevel(0), dec.pImage[i], 4) << s.w << "x" << s.h << " byte " << i;
        }
        EXPECT_GE(malloc_usable_size(dec.pImage), size_t(dec.imageSize));
    }
}

// Decoders copy the stream's colour matrix code as it stands; a damaged MPEG-4 stream gave
// 228, which no AVColorSpace names. The scaler must take the default matrix for it.
TEST(FFMpegScale, ColourMatrixCodeThatNoEnumeratorNamesGetsTheDefault)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.width = 64;
    videoSpec.height = 48;
    videoSpec.frames = 1;
    const TestVideo video = Encode(videoSpec);
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    ASSERT_EQ(0, dec.Decode(video.packets[0].data));
    ASSERT_EQ(0, dec.Scale(32, 24)) << tw::host::LastDecodeError();
    const std::vector<unsigned char> expected(dec.pImage, dec.pImage + dec.imageSize);
    const int unnamed = 228;
    memcpy(&dec.attr.pFrame->colorspace, &unnamed, sizeof(unnamed));
    // Another size, so the scaler is built again from the frame's fields.
    ASSERT_EQ(0, dec.Scale(32, 22)) << tw::host::LastDecodeError();
    ASSERT_EQ(0, dec.Scale(32, 24)) << tw::host::LastDecodeError();
    EXPECT_EQ(expected, std::vector<unsigned char>(dec.pImage, dec.pImage + dec.imageSize));
}

TEST(FFMpegScale, BufferIsReusedWhenLargeEnough)
{
    TestVideoSpec videoSpec;
    videoSpec.frames = 1;
    const TestVideo video = Encode(videoSpec);
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    ASSERT_EQ(0, dec.Decode(video.packets[0].data));
    ASSERT_EQ(0, dec.Scale(120, 90));
    unsigned char* pFirst = dec.pImage;
    ASSERT_EQ(0, dec.Scale(60, 45));
    EXPECT_EQ(pFirst, dec.pImage);
    EXPECT_EQ(60 * 45 * 3, dec.imageSize);
}

TEST(FFMpegScale, BadTargetOrNoPictureFails)
{
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    EXPECT_NE(0, dec.Scale(120, 67)) << "nothing decoded yet";

    TestVideoSpec videoSpec;
    videoSpec.frames = 1;
    const TestVideo video = Encode(videoSpec);
    ASSERT_EQ(0, dec.Decode(video.packets[0].data));
    EXPECT_NE(0, dec.Scale(0, 67));
    EXPECT_NE(0, dec.Scale(120, 0));
    EXPECT_NE(0, dec.Scale(-120, 67));
    EXPECT_NE(0, dec.Scale(100000, 67));
    EXPECT_EQ(0, dec.Scale(120, 67));

    FFmpegAttr empty{};
    unsigned char* pOut = nullptr;
    int outSize = 0;
    int w = 120;
    int h = 67;
    EXPECT_NE(0, DoFFMpegScale(empty, pOut, outSize, w, h, 0));
    EXPECT_EQ(nullptr, pOut);
}

TEST(FFMpegReset, ResetKeepsFlagsAndStillDecodes)
{
    TestVideoSpec videoSpec;
    videoSpec.codec = VIDEO_CODEC_H264;
    videoSpec.frames = 16;
    videoSpec.gop = 8;
    videoSpec.bFrames = 2;
    const TestVideo video = Encode(videoSpec);
    Decoder dec;
    ASSERT_EQ(0, dec.Init(VIDEO_CODEC_H264));
    dec.attr.pCodecCtx->flags |= AV_CODEC_FLAG_LOW_DELAY;
    ASSERT_EQ(0, dec.Decode(video.packets[0].data));

    ASSERT_EQ(0, DoFFMpegResetContext(dec.attr)) << tw::host::LastDecodeError();
    ASSERT_NE(nullptr, dec.attr.pCodecCtx);
    EXPECT_NE(0, dec.attr.pCodecCtx->flags2 & AV_CODEC_FLAG2_SHOW_ALL);
    EXPECT_NE(0, dec.attr.pCodecCtx->flags & AV_CODEC_FLAG_LOW_DELAY);
    EXPECT_EQ(FF_THREAD_SLICE, dec.attr.pCodecCtx->thread_type);
    EXPECT_EQ(0, dec.attr.blHasPicture);

    const TestPacket* pSecondKey = nullptr;
    for (const auto& packet : video.packets) {
        if (packet.keyFrame && packet.pts > 0) {
            pSecondKey = &packet;
            break;
        }
    }
    ASSERT_NE(nullptr, pSecondKey);
    ASSERT_EQ(0, dec.Decode(pSecondKey->data)) << tw::host::LastDecodeError();
    EXPECT_NEAR(PictureLevel(int(pSecondKey->pts)), dec.MeanLevel(), 4.0);
}

TEST(FFMpegReset, ResetOfNeverInitialisedDecoderFails)
{
    FFmpegAttr attr{};
    EXPECT_NE(0, DoFFMpegResetContext(attr));
    unsigned char* pImage = nullptr;
    DoFFMpegFree(attr, pImage);
}

TEST(FFMpegFree, FreeIsSafeTwiceAndOnZeroedAttr)
{
    FFmpegAttr zeroed{};
    unsigned char* pNone = nullptr;
    EXPECT_EQ(0, DoFFMpegFree(zeroed, pNone));
    EXPECT_EQ(0, DoFFMpegFree(zeroed, pNone));

    TestVideoSpec videoSpec;
    videoSpec.frames = 1;
    const TestVideo video = Encode(videoSpec);
    FFmpegAttr attr{};
    unsigned char* pImage = nullptr;
    int imageSize = 0;
    int w = 120;
    int h = 90;
    ASSERT_EQ(0, DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0));
    ASSERT_EQ(0, DoFFMpegDecode(attr, video.packets[0].data.data(),
                                int(video.packets[0].data.size())));
    ASSERT_EQ(0, DoFFMpegScale(attr, pImage, imageSize, w, h, 0));
    ASSERT_NE(nullptr, pImage);
    EXPECT_EQ(0, DoFFMpegFree(attr, pImage));
    EXPECT_EQ(nullptr, pImage);
    EXPECT_EQ(nullptr, attr.pCodecCtx);
    EXPECT_EQ(nullptr, attr.pFrame);
    EXPECT_EQ(nullptr, attr.pPacket);
    EXPECT_EQ(nullptr, attr.pSwsCtx);
    EXPECT_EQ(0, DoFFMpegFree(attr, pImage));
    // After a free the decoder is gone, not half there.
    EXPECT_NE(0, DoFFMpegDecode(attr, video.packets[0].data.data(),
                                int(video.packets[0].data.size())));
}

}  // namespace
