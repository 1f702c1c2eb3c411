// An H.264 detection decoder takes the block sums of a picture while it decodes it, once
// its last picture was reduced. These tests hold that to the picture read back after the
// decode, byte for byte, and check that the sums are gathered where they can be and left
// alone wherever a row may still change after the decoder reported it.

#include "support/decodesums.h"
#include "support/test_encode.h"
#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/decodeerror.h"
#include "twhost/decodetuning.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

namespace {

using tw::test::BusyClip;
using tw::test::DecodeAndScale;
using tw::test::ExpectSamePictures;
using tw::test::ScaleRun;
using tw::test::ScaleRunOptions;
using tw::test::TestVideo;

// Damaged input makes libavcodec complain on stderr; that is expected here.
const bool g_blQuietAvLog = [] {
    av_log_set_level(AV_LOG_FATAL);
    return true;
}();

size_t CountTrue(const std::vector<bool>& flags)
{
    size_t n = 0;
    for (bool flag : flags) n += flag ? 1 : 0;
    return n;
}

ScaleRun ScaleWith(const TestVideo& video, ScaleRunOptions options, bool sumsWhileDecoding)
{
    options.sumsWhileDecoding = sumsWhileDecoding;
    return DecodeAndScale(video, options);
}

TEST(DecodeSums, EveryPictureAfterTheFirstIsSummedWhileDecodingToTheSameBytes)
{
    // 1080p: 67.5 rows of macroblocks, the last one cut to 8 rows; to 120 x 67 the blocks
    // are 16 x 6, so block rows straddle the macroblock rows.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1920, 1080, 4, 1);
    ASSERT_EQ(video.packets.size(), 4u);
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    const ScaleRun readBack = ScaleWith(video, options, false);
    ExpectSamePictures(gathered, readBack);
    for (const auto& picture : gathered.pictures) {
        EXPECT_EQ(picture.size(), size_t(120 * 67 * 3));
    }
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, true, true}));
}

TEST(DecodeSums, OtherSizesAndFactorsGiveTheSameBytes)
{
    struct Case {
        int width, height, dstWidth, dstHeight;
    };
    // Factors 2 x 2 (640 x 368 to 120 x 67: blocks make twice the target), 12 x 12 (exact),
    // 8 x 8 with an odd target width (full chroma), and 10 x 10 on 720p.
    const Case cases[] = {{640, 368, 120, 67}, {1920, 1080, 160, 90}, {1280, 720, 159, 89},
                          {1280, 720, 128, 72}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height) + " to " +
                     std::to_string(c.dstWidth) + "x" + std::to_string(c.dstHeight));
        const TestVideo video = BusyClip(VIDEO_CODEC_H264, c.width, c.height, 3, 1);
        ScaleRunOptions options;
        options.sizes = {{c.dstWidth, c.dstHeight}};
        const ScaleRun gathered = ScaleWith(video, options, true);
        ExpectSamePictures(gathered, ScaleWith(video, options, false));
        EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, true}));
    }
}

TEST(DecodeSums, ANewTargetSizeIsLearnedFromThePictureScaledToIt)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 5, 1);
    ScaleRunOptions options;
    options.sizes = {{128, 72}, {128, 72}, {120, 67}, {120, 67}, {120, 67}};
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    // The third picture was summed for 128 x 72 and is asked for at 120 x 67.
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, false, true, true}));
}

TEST(DecodeSums, ExactDecodeReadsEveryPictureBack)
{
    // With the loop filter on, rows change again after the decoder reported them.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    ScaleRunOptions options;
    options.exactDecode = true;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_EQ(CountTrue(gathered.fromDecodeSums), 0u);
}

TEST(DecodeSums, PicturesHeldBackForReorderingGiveTheSameBytes)
{
    // A stream with B-frames: the decoder holds every picture back and gives it up only when
    // drained, after its rows were reported.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 640, 368, 16, 4, 2);
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    ASSERT_EQ(gathered.pictures.size(), 4u);
    for (const auto& picture : gathered.pictures) {
        EXPECT_EQ(picture.size(), size_t(120 * 67 * 3));
    }
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, true, true}));
}

TEST(DecodeSums, InterlacedPicturesCodedInFieldPairsGiveTheSameBytes)
{
    // x264's interlaced mode codes frame pictures of macroblock pairs (MBAFF): the decoder
    // reports 32 rows at a time.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1, 0, "interlaced=1");
    ASSERT_EQ(video.packets.size(), 3u);
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, true}));
}

TEST(DecodeSums, ADamagedPictureIsReadBack)
{
    TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    ASSERT_EQ(video.packets.size(), 3u);
    // The second key frame loses the last third of its slice: its lower rows are never
    // reported.
    auto& damaged = video.packets[1].data;
    damaged.resize(damaged.size() * 2 / 3);
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_FALSE(gathered.fromDecodeSums[1]);
    EXPECT_TRUE(gathered.fromDecodeSums[2]);
}

TEST(DecodeSums, OnlyH264DecodersGatherSums)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_MPEG4, 640, 368, 3, 1);
    ASSERT_EQ(video.packets.size(), 3u);
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_EQ(CountTrue(gathered.fromDecodeSums), 0u);
}

TEST(DecodeSums, RowsReportedByAnotherThreadEndTheGatheringForTheStream)
{
    // Slices decoded side by side report their rows from the decoder's other threads; a row
    // one thread reports may still be written by the other. The decoder's callback is called
    // here from a second thread, as a slice thread would.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 4, 1);
    FFmpegAttr attr{};
    ASSERT_EQ(DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0), 0)
        << tw::host::LastDecodeError();
    ASSERT_NE(attr.pCodecCtx->draw_horiz_band, nullptr);
    unsigned char* pImage = nullptr;
    int imageSize = 0;
    auto decodeAndScale = [&](size_t i) {
        ASSERT_EQ(DoFFMpegDecode(attr, video.packets[i].data.data(),
                                 int(video.packets[i].data.size())), 0)
            << tw::host::LastDecodeError();
        int width = 128;
        int height = 72;
        ASSERT_EQ(DoFFMpegScale(attr, pImage, imageSize, width, height, 0), 0)
            << tw::host::LastDecodeError();
    };
    decodeAndScale(0);
    decodeAndScale(1);
    ASSERT_EQ(tw::host::ScalesFromDecodeSums(attr), 1u);
    std::thread other([&] {
        int offsets[AV_NUM_DATA_POINTERS] = {};
        attr.pCodecCtx->draw_horiz_band(attr.pCodecCtx, attr.pFrame, offsets, 0, 3, 16);
    });
    other.join();
    int width = 128;
    int height = 72;
    ASSERT_EQ(DoFFMpegScale(attr, pImage, imageSize, width, height, 0), 0);
    EXPECT_EQ(tw::host::ScalesFromDecodeSums(attr), 1u) << "the spoiled sums were used";
    decodeAndScale(2);
    decodeAndScale(3);
    EXPECT_EQ(tw::host::ScalesFromDecodeSums(attr), 1u) << "the stream was gathered again";
    // A reset opens a new decoder, which learns afresh and counts from nothing: its first
    // picture is read back, its second summed while decoding.
    ASSERT_EQ(DoFFMpegResetContext(attr), 0);
    EXPECT_EQ(tw::host::ScalesFromDecodeSums(attr), 0u);
    decodeAndScale(2);
    decodeAndScale(3);
    EXPECT_EQ(tw::host::ScalesFromDecodeSums(attr), 1u);
    DoFFMpegFree(attr, pImage);
}

}  // namespace
