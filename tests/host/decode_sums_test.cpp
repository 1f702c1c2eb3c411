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

#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <climits>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/mem.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
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
    // From the second picture on, the key frame before is an undamaged IDR picture and the
    // sums are taken: the pictures go into the ring, and nothing needs them whole.
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(gathered.replays, 0u);

    ScaleRunOptions wholePictures = options;
    wholePictures.ring = false;
    const ScaleRun whole = DecodeAndScale(video, wholePictures);
    ASSERT_TRUE(whole.error.empty()) << whole.error;
    EXPECT_EQ(whole.pictures, gathered.pictures);
    EXPECT_EQ(whole.fromDecodeSums, (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(whole.inRing, (std::vector<bool>{false, false, false, false}));
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
    // The third picture was summed for 128 x 72 and is asked for at 120 x 67: it lay in the
    // ring and is decoded again whole, once; the ring goes on with the new size.
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, false, true, true}));
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, true, true, true}));
    EXPECT_EQ(gathered.replays, 1u);
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
    EXPECT_EQ(CountTrue(gathered.inRing), 0u);
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
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(gathered.replays, 0u);
}

TEST(DecodeSums, KeyFramesThatAreNotIdrPicturesStayWhole)
{
    // An open GOP: x264 codes the key frames after the first as I pictures that B-frames
    // before them predict from, not IDR pictures. Such a picture may depend on the decoder's
    // state, so it cannot be decoded again from the key frame before it.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 640, 368, 16, 4, 2, "open-gop=1");
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    ASSERT_EQ(gathered.pictures.size(), 4u);
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, true, true}));
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, false, false, false}));
}

TEST(DecodeSums, AFrameThatPredictsFromARingPictureGetsItWhole)
{
    // I P I P I P: key frames 0, 2 and 4, then the P frame that follows the last one. The
    // decoder is given the ring's picture whole again before it predicts from it.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 6, 2);
    ASSERT_EQ(video.packets.size(), 6u);
    ASSERT_TRUE(video.packets[4].keyFrame);
    ASSERT_FALSE(video.packets[5].keyFrame);
    ScaleRunOptions options;
    options.order = {0, 2, 4, 5, 1};
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, true, false, false}));
    EXPECT_EQ(gathered.replays, 1u);
    for (size_t i = 0; i < gathered.pictures.size(); ++i) {
        EXPECT_EQ(gathered.pictures[i].size(), size_t(120 * 67 * 3)) << "picture " << i;
    }
}

TEST(DecodeSums, APacketOfTwoPicturesGivesTheSameBytes)
{
    // An IDR picture and the P picture after it in one packet: the IDR picture goes into the
    // ring, and the P picture that predicts from it must not come out of it, now or later.
    // I P I P I+P I P: key frames 0, 2, 4 (with 5) and 6, then 7.
    const TestVideo original = BusyClip(VIDEO_CODEC_H264, 1280, 720, 8, 2);
    ASSERT_EQ(original.packets.size(), 8u);
    ASSERT_TRUE(original.packets[4].keyFrame);
    ASSERT_TRUE(original.packets[6].keyFrame);
    TestVideo video = original;
    auto& both = video.packets[4].data;
    both.insert(both.end(), video.packets[5].data.begin(), video.packets[5].data.end());
    ScaleRunOptions options;
    options.order = {0, 2, 4, 6, 7};
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, true, true, false}));
    // Before 7, which predicts from 6.
    EXPECT_EQ(gathered.replays, 1u);

    // libavcodec gives the first picture of such a packet; the pictures after it are those
    // of the packets on their own.
    ScaleRunOptions apart = options;
    apart.ring = false;
    apart.order = {0, 2, 4, 6, 7};
    const ScaleRun separate = DecodeAndScale(original, apart);
    ASSERT_EQ(separate.pictures.size(), 5u);
    EXPECT_EQ(gathered.pictures, separate.pictures);
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
    // The second picture went into the ring, where its macroblock pairs wrote over the rows
    // the decoder still read: it is decoded again whole (and summed on the way), and the
    // stream is not given the ring again.
    EXPECT_EQ(gathered.fromDecodeSums, (std::vector<bool>{false, true, true}));
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, false}));
    EXPECT_EQ(gathered.replays, 1u);
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
    // The damaged picture lay in the ring; error concealment fills its lost rows from the
    // picture before, so it is decoded again with that one whole. The next key frame
    // follows a damaged one and is decoded whole.
    EXPECT_EQ(gathered.inRing, (std::vector<bool>{false, true, false}));
    EXPECT_EQ(gathered.replays, 1u);
}

TEST(DecodeSums, OnlyH264DecodersGatherSums)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_MPEG4, 640, 368, 3, 1);
    ASSERT_EQ(video.packets.size(), 3u);
    const ScaleRunOptions options;
    const ScaleRun gathered = ScaleWith(video, options, true);
    ExpectSamePictures(gathered, ScaleWith(video, options, false));
    EXPECT_EQ(CountTrue(gathered.fromDecodeSums), 0u);
    EXPECT_EQ(CountTrue(gathered.inRing), 0u);
}

TEST(DecodeSums, RowsReportedByAnotherThreadEndTheGatheringForTheStream)
{
    // Slices decoded side by side report their rows from the decoder's other threads; a row
    // one thread reports may still be written by the other. The decoder's callback is called
    // here from a second thread, as a slice thread would.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 4, 1);
    tw::host::ForgetSharedScaleRequests();
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
    // A reset opens a new decoder, which counts from nothing and gathers again. The request
    // the old one learned was shared in the process, so it gathers from its first picture.
    ASSERT_EQ(DoFFMpegResetContext(attr), 0);
    EXPECT_EQ(tw::host::ScalesFromDecodeSums(attr), 0u);
    decodeAndScale(2);
    decodeAndScale(3);
    EXPECT_EQ(tw::host::ScalesFromDecodeSums(attr), 2u);
    DoFFMpegFree(attr, pImage);
}

// Decodes key frames 0 to 2 of video on a detection decoder, scaling each to 128 x 72, with
// the ring on or off; then scales the last picture the other ways a caller can ask for it.
struct OtherWays {
    std::vector<unsigned char> reduced, filtered, full, reducedAgain;
    uint64_t inRing = 0;
    uint64_t replays = 0;
};

OtherWays ScaleTheLastPictureOtherWays(const TestVideo& video, bool ring)
{
    OtherWays result;
    tw::host::ForgetSharedScaleRequests();
    tw::host::SetRingWhileDecoding(ring);
    FFmpegAttr attr{};
    EXPECT_EQ(DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0), 0)
        << tw::host::LastDecodeError();
    unsigned char* pImage = nullptr;
    int imageSize = 0;
    auto scale = [&](int flags, bool full, std::vector<unsigned char>& out) {
        int width = 128;
        int height = 72;
        const int ret = full ? tw::host::DoFFMpegScaleFull(attr, pImage, imageSize, width,
                                                           height, flags)
                             : DoFFMpegScale(attr, pImage, imageSize, width, height, flags);
        EXPECT_EQ(ret, 0) << tw::host::LastDecodeError();
        if (ret == 0) out.assign(pImage, pImage + imageSize);
    };
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(DoFFMpegDecode(attr, video.packets[i].data.data(),
                                 int(video.packets[i].data.size())), 0)
            << tw::host::LastDecodeError();
        scale(0, false, result.reduced);
    }
    scale(SWS_BILINEAR, false, result.filtered);
    scale(0, true, result.full);
    scale(0, false, result.reducedAgain);
    result.inRing = tw::host::PicturesInRing(attr);
    result.replays = tw::host::RingReplays(attr);
    DoFFMpegFree(attr, pImage);
    tw::host::SetRingWhileDecoding(true);
    return result;
}

TEST(DecodeSums, APictureInTheRingAskedForAnotherWayIsDecodedAgainWhole)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    ASSERT_EQ(video.packets.size(), 3u);
    const OtherWays ring = ScaleTheLastPictureOtherWays(video, true);
    const OtherWays whole = ScaleTheLastPictureOtherWays(video, false);
    EXPECT_EQ(ring.inRing, 2u);
    EXPECT_EQ(whole.inRing, 0u);
    // Once for the other filter; after that the picture is whole.
    EXPECT_EQ(ring.replays, 1u);
    EXPECT_EQ(whole.replays, 0u);
    ASSERT_FALSE(ring.reduced.empty());
    EXPECT_EQ(ring.reduced, whole.reduced);
    EXPECT_EQ(ring.filtered, whole.filtered);
    EXPECT_EQ(ring.full, whole.full);
    EXPECT_EQ(ring.reducedAgain, whole.reducedAgain);
    EXPECT_EQ(ring.reducedAgain, ring.reduced);
}

TEST(DecodeSums, AReplayThatFailsIsReportedAndTheNextPictureIsRight)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    ASSERT_EQ(video.packets.size(), 3u);
    // What key frame 1 must give at both sizes, read back from a decoder without the ring.
    ScaleRunOptions readBack;
    readBack.sumsWhileDecoding = false;
    readBack.order = {0, 1};
    readBack.sizes = {{128, 72}};
    const ScaleRun large = DecodeAndScale(video, readBack);
    readBack.sizes = {{64, 36}};
    const ScaleRun small = DecodeAndScale(video, readBack);
    ASSERT_TRUE(large.error.empty() && small.error.empty()) << large.error << small.error;
    ASSERT_EQ(large.pictures.size(), 2u);
    ASSERT_EQ(small.pictures.size(), 2u);
    ASSERT_FALSE(large.pictures[1].empty());
    ASSERT_FALSE(small.pictures[1].empty());

    // Another camera has learned 128 x 72, so this decoder's first picture goes into the
    // ring and it has never had a whole picture: a replay must allocate one.
    ScaleRunOptions teacher;
    teacher.sizes = {{128, 72}};
    ASSERT_TRUE(DecodeAndScale(video, teacher).error.empty());
    FFmpegAttr attr{};
    ASSERT_EQ(DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0), 0)
        << tw::host::LastDecodeError();
    unsigned char* pImage = nullptr;
    int imageSize = 0;
    auto scale = [&](int width, int height) {
        const int ret = DoFFMpegScale(attr, pImage, imageSize, width, height, 0);
        return ret == 0 ? std::vector<unsigned char>(pImage, pImage + imageSize)
                        : std::vector<unsigned char>{};
    };
    ASSERT_EQ(DoFFMpegDecode(attr, video.packets[0].data.data(),
                             int(video.packets[0].data.size())), 0)
        << tw::host::LastDecodeError();
    EXPECT_EQ(tw::host::PicturesInRing(attr), 1u);

    // No allocation of more than a few KiB succeeds while the picture is asked for with
    // another filter, so the decode again whole fails.
    av_max_alloc(16 * 1024);
    int width = 128;
    int height = 72;
    const int failed = DoFFMpegScale(attr, pImage, imageSize, width, height, SWS_BILINEAR);
    av_max_alloc(INT_MAX);
    EXPECT_EQ(failed, -1);
    EXPECT_NE(std::string(tw::host::LastDecodeError())
                  .find("DoFFMpegScale, decoding the picture again whole: h264 "),
              std::string::npos)
        << tw::host::LastDecodeError();
    EXPECT_EQ(tw::host::RingReplays(attr), 1u);

    // The decoder goes on with the next key frame, and both of its sizes are right.
    ASSERT_EQ(DoFFMpegDecode(attr, video.packets[1].data.data(),
                             int(video.packets[1].data.size())), 0)
        << tw::host::LastDecodeError();
    EXPECT_EQ(scale(128, 72), large.pictures[1]) << tw::host::LastDecodeError();
    EXPECT_EQ(scale(64, 36), small.pictures[1]) << tw::host::LastDecodeError();
    DoFFMpegFree(attr, pImage);
}

TEST(DecodeSums, ARingPictureOutlivesItsDecoder)
{
    // The ring's memory goes with the last picture that holds it, not with the decoder: a
    // reference taken to a picture stays readable memory after the decoder is freed.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 640, 368, 2, 1);
    ASSERT_EQ(video.packets.size(), 2u);
    tw::host::ForgetSharedScaleRequests();
    FFmpegAttr attr{};
    ASSERT_EQ(DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0), 0);
    unsigned char* pImage = nullptr;
    int imageSize = 0;
    for (const auto& packet : video.packets) {
        ASSERT_EQ(DoFFMpegDecode(attr, packet.data.data(), int(packet.data.size())), 0);
        int width = 120;
        int height = 67;
        ASSERT_EQ(DoFFMpegScale(attr, pImage, imageSize, width, height, 0), 0);
    }
    ASSERT_EQ(tw::host::PicturesInRing(attr), 1u);
    AVFrame* pHeld = av_frame_clone(attr.pFrame);
    ASSERT_NE(pHeld, nullptr);
    ASSERT_EQ(DoFFMpegResetContext(attr), 0);
    DoFFMpegFree(attr, pImage);
    // Every row of every plane is still mapped: reading them all must not fault.
    unsigned sum = 0;
    for (int p = 0; p < 3; ++p) {
        const int rows = p == 0 ? pHeld->height : (pHeld->height + 1) / 2;
        const int columns = p == 0 ? pHeld->width : (pHeld->width + 1) / 2;
        for (int y = 0; y < rows; ++y) {
            const uint8_t* row = pHeld->data[p] + ptrdiff_t(y) * pHeld->linesize[p];
            for (int x = 0; x < columns; ++x) sum += row[x];
        }
    }
    EXPECT_GT(sum, 0u);
    av_frame_free(&pHeld);
}

// Scales video on one decoder, then on a second that has not learned but may guess from
// the first: every picture of the second, its first included, must be summed in the ring
// for the first's request and come out with the first's bytes and those read back.
void ExpectTheSecondDecoderGuessesEveryPicture(const TestVideo& video,
                                               const ScaleRunOptions& options)
{
    const ScaleRun first = DecodeAndScale(video, options);
    ASSERT_TRUE(first.error.empty()) << first.error;
    ASSERT_EQ(first.pictures.size(), 4u);
    EXPECT_EQ(first.inRing, (std::vector<bool>{false, true, true, true}));

    ScaleRunOptions next = options;
    next.learnedElsewhere = true;
    const ScaleRun second = DecodeAndScale(video, next);
    ASSERT_TRUE(second.error.empty()) << second.error;
    EXPECT_EQ(second.pictures, first.pictures);
    EXPECT_EQ(second.fromDecodeSums, (std::vector<bool>{true, true, true, true}));
    EXPECT_EQ(second.inRing, (std::vector<bool>{true, true, true, true}));
    EXPECT_EQ(second.replays, 0u);
    ExpectSamePictures(second, ScaleWith(video, options, false));
}

TEST(DecodeSums, ADecoderThatHasNotLearnedTakesTheRequestOfAnotherDetectionDecoder)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 4, 1);
    ASSERT_EQ(video.packets.size(), 4u);
    ScaleRunOptions options;
    options.sizes = {{128, 72}};
    ExpectTheSecondDecoderGuessesEveryPicture(video, options);
}

TEST(DecodeSums, AGuessedFirstPictureHeldBackForReorderingGivesTheSameBytes)
{
    // With B-frames the decoder gives a picture up only when drained, after its rows were
    // reported: a guessed first picture must come out of the ring as a learned one does.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 640, 368, 16, 4, 2);
    ExpectTheSecondDecoderGuessesEveryPicture(video, ScaleRunOptions{});
}

// Decodes every key frame of video as the motion detector does: the first only tells the
// picture's size and is not scaled; each later one is scaled to width x height.
struct PrimedRun {
    std::vector<std::vector<unsigned char>> pictures;   // from the second key frame on
    uint64_t inRing = 0;
    uint64_t replays = 0;
    uint64_t fromDecodeSums = 0;
};

PrimedRun DecodeAsTheDetector(const TestVideo& video, int width, int height)
{
    PrimedRun run;
    FFmpegAttr attr{};
    EXPECT_EQ(DoFFMpegInitVideo(attr, video.codec, video.extraData.data(),
                                int(video.extraData.size())), 0)
        << tw::host::LastDecodeError();
    unsigned char* pImage = nullptr;
    int imageSize = 0;
    for (size_t i = 0; i < video.packets.size(); ++i) {
        EXPECT_EQ(DoFFMpegDecode(attr, video.packets[i].data.data(),
                                 int(video.packets[i].data.size())), 0)
            << tw::host::LastDecodeError();
        if (i == 0) continue;
        int w = width;
        int h = height;
        EXPECT_EQ(DoFFMpegScale(attr, pImage, imageSize, w, h, 0), 0)
            << tw::host::LastDecodeError();
        run.pictures.emplace_back(pImage, pImage + imageSize);
    }
    run.inRing = tw::host::PicturesInRing(attr);
    run.replays = tw::host::RingReplays(attr);
    run.fromDecodeSums = tw::host::ScalesFromDecodeSums(attr);
    DoFFMpegFree(attr, pImage);
    return run;
}

TEST(DecodeSums, ACameraStartedAfterAnotherDecodesNoPictureWhole)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1920, 1080, 4, 1);
    ASSERT_EQ(video.packets.size(), 4u);
    tw::host::ForgetSharedScaleRequests();
    // The first camera of the process: its first picture is not scaled, so nothing is
    // learned before its second, which is decoded whole and read back.
    const PrimedRun first = DecodeAsTheDetector(video, 120, 67);
    ASSERT_EQ(first.pictures.size(), 3u);
    EXPECT_EQ(first.inRing, 2u);
    EXPECT_EQ(first.fromDecodeSums, 2u);
    EXPECT_EQ(first.replays, 0u);
    // The next camera guesses from the first: every picture in the ring, every scale from
    // the sums, the same bytes.
    const PrimedRun second = DecodeAsTheDetector(video, 120, 67);
    EXPECT_EQ(second.pictures, first.pictures);
    EXPECT_EQ(second.inRing, 4u);
    EXPECT_EQ(second.fromDecodeSums, 3u);
    EXPECT_EQ(second.replays, 0u);
}

TEST(DecodeSums, AWrongGuessIsDecodedAgainWhole)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    // Sizes whose reductions differ; two that are reduced by the same factors take the same
    // sums, and a guess of either is right for both.
    int fxSmall = 0, fySmall = 0, fxOther = 0, fyOther = 0;
    tw::host::ScaleReduceFactors(1280, 720, AV_PIX_FMT_YUV420P, 320, 180, fxSmall, fySmall);
    tw::host::ScaleReduceFactors(1280, 720, AV_PIX_FMT_YUV420P, 128, 72, fxOther, fyOther);
    ASSERT_GT(fxSmall * fySmall, 1);
    ASSERT_NE(fxSmall * 100 + fySmall, fxOther * 100 + fyOther);
    ScaleRunOptions small;
    small.sizes = {{320, 180}};
    const ScaleRun alone = DecodeAndScale(video, small);
    ASSERT_TRUE(alone.error.empty()) << alone.error;
    ScaleRunOptions other;
    other.sizes = {{128, 72}};
    ASSERT_TRUE(DecodeAndScale(video, other).error.empty());

    // Guessed for 128 x 72, asked for at 320 x 180: decoded again once; then learned.
    small.learnedElsewhere = true;
    const ScaleRun guessed = DecodeAndScale(video, small);
    ASSERT_TRUE(guessed.error.empty()) << guessed.error;
    EXPECT_EQ(guessed.pictures, alone.pictures);
    EXPECT_EQ(guessed.inRing, (std::vector<bool>{true, true, true}));
    EXPECT_EQ(guessed.fromDecodeSums, (std::vector<bool>{false, true, true}));
    EXPECT_EQ(guessed.replays, 1u);
}

TEST(DecodeSums, ADecoderWhoseGuessWasWrongGuessesNoMore)
{
    // Scaled with a filter of its own, never reduced: it never learns, and after its first
    // picture it decodes whole instead of decoding every picture twice.
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    ScaleRunOptions options;
    options.sizes = {{128, 72}};
    ASSERT_TRUE(DecodeAndScale(video, options).error.empty());
    auto filtered = [&](bool ring, uint64_t& inRing, uint64_t& replays) {
        tw::host::SetRingWhileDecoding(ring);
        std::vector<std::vector<unsigned char>> pictures;
        FFmpegAttr attr{};
        EXPECT_EQ(DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0), 0);
        unsigned char* pImage = nullptr;
        int imageSize = 0;
        for (const auto& packet : video.packets) {
            EXPECT_EQ(DoFFMpegDecode(attr, packet.data.data(), int(packet.data.size())), 0);
            int width = 128;
            int height = 72;
            EXPECT_EQ(DoFFMpegScale(attr, pImage, imageSize, width, height, SWS_BILINEAR), 0)
                << tw::host::LastDecodeError();
            pictures.emplace_back(pImage, pImage + imageSize);
        }
        inRing = tw::host::PicturesInRing(attr);
        replays = tw::host::RingReplays(attr);
        DoFFMpegFree(attr, pImage);
        tw::host::SetRingWhileDecoding(true);
        return pictures;
    };
    uint64_t inRing = 0;
    uint64_t replays = 0;
    const auto guessed = filtered(true, inRing, replays);
    EXPECT_EQ(inRing, 1u);
    EXPECT_EQ(replays, 1u);
    uint64_t wholeInRing = 0;
    uint64_t wholeReplays = 0;
    EXPECT_EQ(guessed, filtered(false, wholeInRing, wholeReplays));
    EXPECT_EQ(wholeInRing, 0u);
}

TEST(DecodeSums, OnlyADetectionDecoderOfTheSameSizeIsGuessedFrom)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 2, 1);
    const TestVideo smaller = BusyClip(VIDEO_CODEC_H264, 640, 368, 2, 1);
    ScaleRunOptions options;
    options.sizes = {{128, 72}};
    ScaleRunOptions next = options;
    next.learnedElsewhere = true;

    // A decoder with the loop filter on (pictures people look at) shares nothing.
    ScaleRunOptions exact = options;
    exact.exactDecode = true;
    ASSERT_TRUE(DecodeAndScale(video, exact).error.empty());
    EXPECT_EQ(DecodeAndScale(video, next).inRing, (std::vector<bool>{false, true}))
        << "a decoder with the loop filter on shared its request";

    // Another size takes nothing from it.
    ASSERT_TRUE(DecodeAndScale(video, options).error.empty());
    const ScaleRun other = DecodeAndScale(smaller, next);
    EXPECT_EQ(other.inRing, (std::vector<bool>{false, true}));
    EXPECT_EQ(other.fromDecodeSums, (std::vector<bool>{false, true}));
}

// Lets the process make no file larger than a page while it lives: the ring's file cannot
// be sized then. (Taking the process's last free descriptors instead would also take those
// the sanitizers' own checks open.) A write past the limit fails with EFBIG instead of
// raising SIGXFSZ, which would end the process.
class SmallFilesOnly {
public:
    static constexpr rlim_t kLimit = 4096;

    SmallFilesOnly()
    {
        if (getrlimit(RLIMIT_FSIZE, &m_Saved) != 0) {
            return;
        }
        m_OldHandler = signal(SIGXFSZ, SIG_IGN);
        rlimit limited = m_Saved;
        limited.rlim_cur = kLimit;
        m_blSet = setrlimit(RLIMIT_FSIZE, &limited) == 0;
    }
    ~SmallFilesOnly()
    {
        if (m_blSet) {
            setrlimit(RLIMIT_FSIZE, &m_Saved);
        }
        if (m_OldHandler != SIG_ERR) {
            signal(SIGXFSZ, m_OldHandler);
        }
    }
    bool Set() const { return m_blSet; }

private:
    rlimit m_Saved{};
    sighandler_t m_OldHandler = SIG_ERR;
    bool m_blSet = false;
};

TEST(DecodeSums, PicturesAreDecodedWholeWhenTheRingCannotBeMapped)
{
    const TestVideo video = BusyClip(VIDEO_CODEC_H264, 1280, 720, 3, 1);
    ASSERT_EQ(video.packets.size(), 3u);
    ScaleRunOptions options;
    options.sizes = {{128, 72}};
    ScaleRun refused;
    {
        SmallFilesOnly guard;
        ASSERT_TRUE(guard.Set());
        const int fd = memfd_create("tw-test-limit", MFD_CLOEXEC);
        ASSERT_GE(fd, 0);
        const int sized = ftruncate(fd, off_t(2 * SmallFilesOnly::kLimit));
        close(fd);
        ASSERT_NE(sized, 0) << "a file could still be made larger than the limit";
        refused = DecodeAndScale(video, options);
    }
    ASSERT_TRUE(refused.error.empty()) << refused.error;
    // The ring's file could not be made: the pictures are whole, their sums still taken
    // while they are decoded.
    EXPECT_EQ(refused.inRing, (std::vector<bool>{false, false, false}));
    EXPECT_EQ(refused.fromDecodeSums, (std::vector<bool>{false, true, true}));
    EXPECT_EQ(refused.replays, 0u);
    const ScaleRun ring = DecodeAndScale(video, options);
    EXPECT_EQ(ring.inRing, (std::vector<bool>{false, true, true}));
    EXPECT_EQ(refused.pictures, ring.pictures);
    ExpectSamePictures(refused, ScaleWith(video, options, false));
}

}  // namespace
