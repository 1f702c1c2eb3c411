// The block-difference judgement on hand-made grey images: mask, background, counting,
// learning and the grey/blur steps of decoding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <numeric>

#include "plugin/camera/motiondet_access.h"
#include "camera/ssmotiondet.h"
#include "support/testenv.h"

namespace {

using tw::host::DetSettingValues;
using tw::test::ScopedLogCapture;
using A = TWMotionDetAccess;

constexpr int kCam = 61;

class Judge : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::DbgLogConfig::Uninstall();
        m_Camera = tw::test::AddCamera(kCam, VIDEO_CODEC_H264, DetSettingValues());
        m_pDet = std::make_unique<TWMotionDet>(&m_Camera, &m_Events, nullptr, nullptr);
    }
    TWMotionDet& Det() { return *m_pDet; }
    void SetRegion(const std::string& region) {
        memset(A::Region(Det()), 0, TW_DET_REGION_CELLS + 1);
        memcpy(A::Region(Det()), region.data(), region.size());
    }
    void Configure(int sensitivity, int threshold, int width, int height, const std::string& region) {
        A::Sensitivity(Det()) = static_cast<unsigned char>(sensitivity);
        A::Threshold(Det()) = static_cast<unsigned char>(threshold);
        SetRegion(region);
        ASSERT_EQ(Det().SetDetBlocks(width, height), 0);
    }
    void FillBackground(unsigned char level) { memset(A::Background(Det()), level, A::DetBufSize(Det())); }
    // The process-wide learning counter has to pass three comparisons before any judgement.
    void PassLearning() {
        std::vector<unsigned char> frame(A::DetBufSize(Det()), 0);
        int result = -1;
        for (int i = 0; i < 3; ++i) Det().DetMotion(frame.data(), frame.data(), result);
    }
    ScopedLogCapture m_Log;
    Camera m_Camera;
    EventBuf m_Events{kCam};
    std::unique_ptr<TWMotionDet> m_pDet;
};

const std::string kAll(TW_DET_REGION_CELLS, '1');
const std::string kNone(TW_DET_REGION_CELLS, '0');

TEST_F(Judge, LearningMovesBackgroundHalfwayForThreeComparisonsIgnoringMask) {
    TW_NEEDS_FRESH_LEARNING_COUNTER();
    Configure(100, 1, 40, 10, kNone);
    FillBackground(100);
    std::vector<unsigned char> cur(400, 200);
    cur[5] = 0;
    int result = 77;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(result, 77);  // untouched while learning
    EXPECT_EQ(A::Background(Det())[0], 150);
    EXPECT_EQ(A::Background(Det())[5], 50);
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(A::Background(Det())[0], 175);
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(A::Background(Det())[0], 187);  // 187.5 truncated
    EXPECT_EQ(result, 77);
    // The fourth comparison of the process judges (empty region: value 0, threshold 1).
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(A::Background(Det())[0], 187);  // unwatched pixels no longer adapt
}

TEST_F(Judge, LearningTruncatesTowardZeroBothWays) {
    TW_NEEDS_FRESH_LEARNING_COUNTER();
    Configure(100, 1, 40, 1, kAll);
    FillBackground(3);
    std::vector<unsigned char> cur(40, 0);
    cur[1] = 6;
    int result = 0;
    Det().DetMotion(cur.data(), cur.data(), result);
    EXPECT_EQ(A::Background(Det())[0], 1);  // 1.5
    EXPECT_EQ(A::Background(Det())[1], 4);  // 4.5
}

TEST_F(Judge, NullFramesAreNoMotionAndDoNotCountForLearning) {
    TW_NEEDS_FRESH_LEARNING_COUNTER();
    Configure(100, 0, 40, 1, kAll);
    std::vector<unsigned char> cur(40, 0);
    int result = 5;
    EXPECT_EQ(Det().DetMotion(nullptr, cur.data(), result), 2);
    EXPECT_EQ(Det().DetMotion(cur.data(), nullptr, result), 2);
    // Still learning after the two refused calls: three more learn, the next judges.
    FillBackground(0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(result, 5);
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 1);  // threshold 0
    EXPECT_EQ(result, 0);
}

TEST_F(Judge, OneChangedPixelAmongFourHundredWatchedGivesValueOneAndMotion) {
    Configure(100, 1, 40, 10, kAll);
    PassLearning();
    FillBackground(100);
    std::vector<unsigned char> cur(400, 100);
    cur[123] = 101;
    int result = -1;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 1);
    EXPECT_EQ(result, 1);
}

TEST_F(Judge, TenOfFortyGivesHundredAndNineOfFortyGivesNinety) {
    Configure(100, 95, 40, 1, kAll);
    PassLearning();
    std::vector<unsigned char> cur(40, 10);
    for (int i = 0; i < 10; ++i) cur[i] = 200;
    FillBackground(10);
    int result = -1;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 1);
    EXPECT_EQ(result, 100);
    cur[9] = 10;
    FillBackground(10);
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(result, 90);
}

TEST_F(Judge, ValueIsCappedAtHundredButLoggedUncapped) {
    tw::test::ScopedVerboseLog verbose;
    Configure(100, 100, 40, 1, kAll);
    PassLearning();
    std::vector<unsigned char> cur(40, 10);
    for (int i = 0; i < 20; ++i) cur[i] = 200;
    FillBackground(10);
    int result = -1;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 1);
    EXPECT_EQ(result, 100);
    std::vector<tw::host::LogRecord> r = m_Log->Find("Detection result: 200, CheckedBlockCnt: 40, m_DetBufSize: 40\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].level, "DEBUG");
    EXPECT_EQ(r[0].function, "DetMotion");
}

TEST_F(Judge, DetectionTraceIsSuppressedWithoutConfiguration) {
    Configure(100, 100, 40, 1, kAll);
    PassLearning();
    std::vector<unsigned char> cur(40, 10);
    int result = -1;
    Det().DetMotion(cur.data(), cur.data(), result);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(Judge, EmptyRegionChecksNothingAndNeedsThresholdZeroForMotion) {
    Configure(100, 1, 40, 10, kNone);
    PassLearning();
    std::vector<unsigned char> cur(400, 255);
    FillBackground(0);
    int result = -1;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(result, 0);
    A::Threshold(Det()) = 0;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 1);
    EXPECT_EQ(result, 0);
}

TEST_F(Judge, DifferenceOfExactlyTheThresholdIsNotCounted) {
    Configure(90, 1, 40, 1, kAll);  // difference threshold (100 - 90) * 2 = 20
    PassLearning();
    std::vector<unsigned char> cur(40, 100);
    cur[0] = 120;
    cur[1] = 80;
    FillBackground(100);
    int result = -1;
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 2);
    EXPECT_EQ(result, 0);
    cur[2] = 121;
    FillBackground(100);
    EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), 1);
    EXPECT_EQ(result, 10);  // 1 * 400 / 40
}

TEST_F(Judge, SensitivityZeroNeedsMoreThanTwoHundred) {
    Configure(0, 1, 40, 1, kAll);
    PassLearning();
    std::vector<unsigned char> cur(40, 0);
    cur[0] = 200;
    cur[1] = 201;
    FillBackground(0);
    int result = -1;
    Det().DetMotion(cur.data(), cur.data(), result);
    EXPECT_EQ(result, 10);
}

TEST_F(Judge, BackgroundStepsRoundAwayFromZero) {
    Configure(100, 100, 40, 1, kAll);
    PassLearning();
    std::vector<unsigned char> cur(40, 100);
    FillBackground(100);
    unsigned char* bg = A::Background(Det());
    bg[0] = 99;   // d = 1
    bg[1] = 101;  // d = -1
    bg[2] = 75;   // d = 25
    bg[3] = 125;  // d = -25
    bg[4] = 0;    // d = 100
    bg[5] = 100;  // d = 0
    int result = -1;
    Det().DetMotion(cur.data(), cur.data(), result);
    EXPECT_EQ(bg[0], 100);
    EXPECT_EQ(bg[1], 100);
    EXPECT_EQ(bg[2], 78);
    EXPECT_EQ(bg[3], 122);
    EXPECT_EQ(bg[4], 10);
    EXPECT_EQ(bg[5], 100);
}

TEST_F(Judge, MaskOf120x67CoversThreeLinesForCellRow29) {
    std::string region = kNone;
    region[29 * 40 + 0] = '1';
    Configure(100, 1, 120, 67, region);
    EXPECT_EQ(A::DetBufSize(Det()), 120 * 67);
    EXPECT_EQ(A::DetWidth(Det()), 120);
    EXPECT_EQ(A::DetHeight(Det()), 67);
    const unsigned char* mask = A::Mask(Det());
    int watched = 0;
    for (int y = 0; y < 67; ++y) {
        for (int x = 0; x < 120; ++x) {
            const bool expected = y >= 64 && y <= 66 && x <= 2;
            EXPECT_EQ(mask[y * 120 + x] == '1', expected) << x << "," << y;
            if (mask[y * 120 + x] == '1') ++watched;
            if (!expected) {
                EXPECT_EQ(mask[y * 120 + x], 0);
            }
        }
    }
    EXPECT_EQ(watched, 9);
}

TEST_F(Judge, NeighbouringCellsMayOverlapByALine) {
    std::string region = kNone;
    region[0 * 40 + 0] = '1';   // row 0: lines 0..2
    region[1 * 40 + 0] = '1';   // row 1 starts at trunc(2.2333) = 2
    Configure(100, 1, 120, 67, region);
    const unsigned char* mask = A::Mask(Det());
    for (int y = 0; y < 67; ++y) EXPECT_EQ(mask[y * 120] == '1', y <= 4) << y;
}

TEST_F(Judge, FullRegionWatchesEveryPixel) {
    Configure(100, 1, 120, 90, kAll);
    const unsigned char* mask = A::Mask(Det());
    for (int i = 0; i < 120 * 90; ++i) ASSERT_EQ(mask[i], '1') << i;
}

TEST_F(Judge, MaskNeverWritesPastTheImage) {
    // 17 x 17: cells are fractions of a pixel, the last ones start at the last line.
    Configure(100, 1, 17, 17, kAll);
    const unsigned char* mask = A::Mask(Det());
    for (int i = 0; i < 17 * 17; ++i) ASSERT_EQ(mask[i], '1') << i;
}

TEST_F(Judge, BlurKeepsTwoPixelBorderAndAveragesTheInner13x13) {
    std::vector<unsigned char> image(17 * 17);
    for (int i = 0; i < 17 * 17; ++i) image[i] = static_cast<unsigned char>((i * 37 + (i / 17) * 11) % 256);
    const std::vector<unsigned char> source = image;
    Det().BlurImage(image.data(), 17, 17);
    for (int y = 0; y < 17; ++y) {
        for (int x = 0; x < 17; ++x) {
            if (y < 2 || y >= 15 || x < 2 || x >= 15) {
                EXPECT_EQ(image[y * 17 + x], source[y * 17 + x]) << x << "," << y;
                continue;
            }
            int sum = 0;
            for (int dy = -2; dy <= 2; ++dy)
                for (int dx = -2; dx <= 2; ++dx) sum += source[(y + dy) * 17 + x + dx];
            EXPECT_EQ(image[y * 17 + x], sum / 25) << x << "," << y;
        }
    }
}

// The same 5 x 5 mean worked out pixel by pixel, on the detector's sizes and on the edge
// cases of the sliding sums: pictures of 5 lines or columns (one blurred line), narrower or
// lower than 5 (left as they are), and extremes of the bytes.
TEST_F(Judge, BlurIsTheFiveByFiveMeanOnEverySize) {
    const int sizes[][2] = {{120, 67}, {120, 90}, {162, 121}, {5, 5}, {5, 9}, {9, 5}, {4, 9}, {9, 4}, {1, 1}, {6, 7}};
    uint32_t state = 12345u;
    for (const auto& size : sizes) {
        const int w = size[0];
        const int h = size[1];
        std::vector<unsigned char> image(static_cast<size_t>(w) * h);
        for (auto& byte : image) {
            state = state * 1103515245u + 12345u;
            const unsigned pick = (state >> 16) % 8u;
            byte = pick == 0 ? 0 : pick == 1 ? 255 : static_cast<unsigned char>(state >> 8);
        }
        const std::vector<unsigned char> source = image;
        Det().BlurImage(image.data(), w, h);
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                unsigned char expected = source[y * w + x];
                if (y >= 2 && y < h - 2 && x >= 2 && x < w - 2) {
                    int sum = 0;
                    for (int dy = -2; dy <= 2; ++dy)
                        for (int dx = -2; dx <= 2; ++dx) sum += source[(y + dy) * w + x + dx];
                    expected = static_cast<unsigned char>(sum / 25);
                }
                ASSERT_EQ(image[y * w + x], expected) << w << "x" << h << " at " << x << "," << y;
            }
        }
    }
}

// The background step for every difference a pixel can have: a tenth of it in single
// precision, rounded away from zero.
TEST_F(Judge, EveryDifferenceMovesTheBackgroundByItsRoundedTenth) {
    Configure(100, 100, 73, 7, kAll);   // 511 pixels: d = -255 .. 255
    PassLearning();
    unsigned char* bg = A::Background(Det());
    std::vector<unsigned char> cur(511);
    for (int d = -255; d <= 255; ++d) {
        const int p = d + 255;
        // Anywhere in range, not always from 0 or 255.
        const int low = d < 0 ? -d : 0;
        const int high = d < 0 ? 255 : 255 - d;
        bg[p] = static_cast<unsigned char>(low + (p * 37) % (high - low + 1));
        cur[p] = static_cast<unsigned char>(bg[p] + d);
    }
    const std::vector<unsigned char> before(bg, bg + 511);
    int result = -1;
    Det().DetMotion(cur.data(), cur.data(), result);
    for (int d = -255; d <= 255; ++d) {
        const int p = d + 255;
        const float tenth = static_cast<float>(d * 0.1);
        const int step = static_cast<int>(tenth > 0 ? std::ceil(tenth) : std::floor(tenth));
        ASSERT_EQ(bg[p], before[p] + step) << "d = " << d;
    }
}

// The judgement over a whole picture, a part of it watched, against the pixel-by-pixel rule
// worked out here, for thresholds from none to more than any difference.
TEST_F(Judge, WholePictureJudgementFollowsThePixelRule) {
    std::string region(TW_DET_REGION_CELLS, '0');
    for (int i = 0; i < TW_DET_REGION_CELLS; ++i) {
        if ((i * 7 + i / 40) % 3 != 0) region[i] = '1';
    }
    const int w = 120;
    const int h = 67;
    uint32_t state = 2024u;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return state >> 8;
    };
    for (const int sensitivity : {0, 37, 80, 99, 100, 150, 255}) {
        Configure(sensitivity, 10, w, h, region);
        PassLearning();
        unsigned char* bg = A::Background(Det());
        const unsigned char* mask = A::Mask(Det());
        std::vector<unsigned char> cur(static_cast<size_t>(w) * h);
        for (size_t p = 0; p < cur.size(); ++p) {
            bg[p] = static_cast<unsigned char>(next());
            // Mostly small differences, some large: every branch of the rule is taken.
            const int d = next() % 4 == 0 ? static_cast<int>(next() % 511) - 255 : static_cast<int>(next() % 21) - 10;
            cur[p] = static_cast<unsigned char>(std::min(255, std::max(0, bg[p] + d)));
        }
        std::vector<unsigned char> expectedBg(bg, bg + cur.size());
        const int diffThresh = (100 - sensitivity) * 2;
        int checked = 0;
        int changed = 0;
        for (size_t p = 0; p < cur.size(); ++p) {
            if (mask[p] != '1') continue;
            const int d = cur[p] - expectedBg[p];
            ++checked;
            if (std::abs(d) > diffThresh) ++changed;
            const float tenth = static_cast<float>(d * 0.1);
            expectedBg[p] = static_cast<unsigned char>(expectedBg[p] + (tenth > 0 ? std::ceil(tenth) : std::floor(tenth)));
        }
        ASSERT_GT(checked, 0);
        ASSERT_LT(checked, w * h);
        const int value = changed * 400 / checked;
        int result = -1;
        EXPECT_EQ(Det().DetMotion(cur.data(), cur.data(), result), value >= 10 ? 1 : 2) << "sensitivity " << sensitivity;
        EXPECT_EQ(result, std::min(value, 100)) << "sensitivity " << sensitivity;
        EXPECT_TRUE(std::equal(expectedBg.begin(), expectedBg.end(), bg)) << "sensitivity " << sensitivity;
    }
}

// Grey of packed RGB, in place: (R + 2 G + B) / 4 for every pixel, on lengths around the
// sizes the conversion works in; the bytes past the grey picture keep what they held.
TEST_F(Judge, GreyInPlaceIsTheWeightedMeanOfEveryPixel) {
    uint32_t state = 99u;
    for (const int pixels : {1, 2, 15, 16, 17, 31, 33, 255, 256, 257, 511, 513, 8040}) {
        std::vector<unsigned char> image(static_cast<size_t>(pixels) * 3);
        for (auto& byte : image) {
            state = state * 1103515245u + 12345u;
            const unsigned pick = (state >> 16) % 8u;
            byte = pick == 0 ? 0 : pick == 1 ? 255 : static_cast<unsigned char>(state >> 8);
        }
        const std::vector<unsigned char> rgb = image;
        TWMotionDet::GreyInPlace(image.data(), pixels);
        for (int i = 0; i < pixels; ++i) {
            const int expected = (rgb[3 * i] + 2 * rgb[3 * i + 1] + rgb[3 * i + 2]) >> 2;
            ASSERT_EQ(image[i], expected) << pixels << " pixels, pixel " << i;
        }
        EXPECT_TRUE(std::equal(image.begin() + pixels, image.end(), rgb.begin() + pixels)) << pixels << " pixels";
    }
}

TEST_F(Judge, SetDetBlocksRebuildsForANewSize) {
    Configure(100, 1, 40, 10, kAll);
    ASSERT_EQ(Det().SetDetBlocks(120, 90), 0);
    EXPECT_EQ(A::DetBufSize(Det()), 10800);
    EXPECT_EQ(A::DetWidth(Det()), 120);
    EXPECT_EQ(A::DetHeight(Det()), 90);
}

// What the learning cases above rely on to run or to skip: alone in its process (as ctest
// runs every case) this case is the first; listed last, it is not the first whenever other
// cases run with it; shuffled or repeated runs get no for an answer.
TEST_F(Judge, FirstCaseOfProcessTellsAFreshProcessFromAUsedOne) {
    const bool alone = ::testing::UnitTest::GetInstance()->test_to_run_count() == 1 &&
                       !GTEST_FLAG_GET(shuffle) && GTEST_FLAG_GET(repeat) == 1;
    EXPECT_EQ(tw::test::FirstCaseOfProcess(), alone);
}

}  // namespace
