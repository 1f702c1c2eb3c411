// Pictures of several slices, which the H.264 decoder decodes side by side on its slice
// threads, reporting rows from each: the block sums gathered while decoding must never
// differ from the picture read back after the decode, whichever thread reported a row and
// whatever a row's neighbour slice was still writing.

#include "support/decodesums.h"
#include "tw/camera.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

namespace {

using tw::test::DecodeAndScale;
using tw::test::ScaleRun;
using tw::test::ScaleRunOptions;
using tw::test::TestVideo;

// The encoder reports its statistics on stderr; nothing here needs them.
const bool g_blQuietAvLog = [] {
    av_log_set_level(AV_LOG_FATAL);
    return true;
}();

void ExpectSameBytesWithSlices(const std::string& x264Params)
{
    SCOPED_TRACE(x264Params);
    const TestVideo video = tw::test::BusyClip(VIDEO_CODEC_H264, 1280, 720, 8, 1, 0, x264Params);
    ASSERT_EQ(video.packets.size(), 8u);
    ScaleRunOptions options;
    options.sizes = {{128, 72}};
    options.sumsWhileDecoding = true;
    const ScaleRun gathered = DecodeAndScale(video, options);
    options.sumsWhileDecoding = false;
    const ScaleRun readBack = DecodeAndScale(video, options);
    tw::test::ExpectSamePictures(gathered, readBack);
    ASSERT_EQ(gathered.pictures.size(), 8u);
    for (size_t i = 0; i < gathered.pictures.size(); ++i) {
        EXPECT_EQ(gathered.pictures[i].size(), size_t(128 * 72 * 3)) << "picture " << i;
    }
    // Slices decoded on two threads write over each other's rows in the ring: such a
    // picture is decoded again whole, and the stream is not given the ring again.
    EXPECT_LE(gathered.replays, 1u);
    EXPECT_LE(std::count(gathered.inRing.begin(), gathered.inRing.end(), true),
              7 - 6 * static_cast<std::ptrdiff_t>(gathered.replays));

#if !defined(__SANITIZE_THREAD__)
    // A decoder that guesses from the one before may put its first picture into the ring
    // as well; the same holds for it. Not under ThreadSanitizer: that picture is decoded
    // again right after the first decode of the stream, and the flush before it frees what
    // libavcodec's slice threads allocated during that decode. libavcodec hands the slices'
    // end back through atomics the sanitizer cannot see (the library is not instrumented),
    // and when the calling thread finishes last, the free is reported as a race.
    options.sumsWhileDecoding = true;
    options.learnedElsewhere = true;
    const ScaleRun guessed = DecodeAndScale(video, options);
    ASSERT_TRUE(guessed.error.empty()) << guessed.error;
    EXPECT_EQ(guessed.pictures, readBack.pictures);
    EXPECT_LE(guessed.replays, 1u);
    EXPECT_LE(std::count(guessed.inRing.begin(), guessed.inRing.end(), true),
              8 - 7 * static_cast<std::ptrdiff_t>(guessed.replays));
#endif
}

TEST(DecodeSumsSlices, SlicesOfWholeRowsGiveTheSameBytes)
{
    ExpectSameBytesWithSlices("slices=4");
}

TEST(DecodeSumsSlices, SlicesEndingMidRowGiveTheSameBytes)
{
    // 720p is 80 macroblocks across: slices of at most 50 end in the middle of a row, which
    // the next slice finishes and reports.
    ExpectSameBytesWithSlices("slice-max-mbs=50");
}

}  // namespace
