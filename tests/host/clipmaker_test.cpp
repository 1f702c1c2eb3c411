// The synthetic clips everything else is tested with: the scene must be exactly what it
// claims (still when still, moving when moving), and every codec and container must give
// streams that real decoders and demuxers accept.
#include "twhost/clipmaker.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <csetjmp>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <unistd.h>

#include <jpeglib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "tw/camera.h"


namespace {

using tw::host::ClipSpec;
using tw::host::EncodedClip;
using tw::host::EncodedFrame;
using tw::host::SceneObject;

// libx264 reports its statistics at the info level; keep the test log readable.
const bool g_blQuietCodecs = [] {
    av_log_set_level(AV_LOG_ERROR);
    return true;
}();

// Small and short so the suite stays fast; the motion intervals leave still time before,
// between and after them.
ClipSpec SmallSpec(int codec) {
    ClipSpec clipSpec;
    clipSpec.width = 320;
    clipSpec.height = 180;
    clipSpec.fps = 25;
    clipSpec.durationSec = 3.0;
    clipSpec.codec = codec;
    clipSpec.gop = 12;
    clipSpec.bFrames = 0;
    clipSpec.motion = {{0.5, 1.5}, {2.0, 2.5}};
    return clipSpec;
}

EncodedClip MustEncode(const ClipSpec& clipSpec) {
    EncodedClip clip;
    std::string error;
    bool ok = tw::host::EncodeClip(clipSpec, clip, error);
    EXPECT_TRUE(ok) << error;
    return clip;
}

struct Nal {
    size_t offset;   // first byte after the start code
    size_t size;
};

std::vector<Nal> SplitAnnexB(const std::vector<unsigned char>& data) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= data.size(); ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            starts.push_back(i + 3);
            i += 2;
        }
    }
    std::vector<Nal> nals;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : data.size();
        while (end > starts[k] && data[end - 1] == 0) --end;
        nals.push_back(Nal{starts[k], end - starts[k]});
    }
    return nals;
}

std::set<int> NalTypes(const std::vector<unsigned char>& data, int codec) {
    std::set<int> types;
    for (const Nal& nal : SplitAnnexB(data)) {
        if (nal.size == 0) continue;
        unsigned char head = data[nal.offset];
        types.insert(codec == VIDEO_CODEC_H264 ? (head & 0x1F) : ((head >> 1) & 0x3F));
    }
    return types;
}

bool StartsWithStartCode(const std::vector<unsigned char>& data) {
    if (data.size() >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) {
        return true;
    }
    return data.size() >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1;
}

// Decodes a whole encoded clip with libavcodec and returns the luma planes in
// presentation order.
std::vector<std::vector<unsigned char>> DecodeLuma(const EncodedClip& clip) {
    AVCodecID id = AV_CODEC_ID_NONE;
    switch (clip.codec) {
    case VIDEO_CODEC_JPEG: id = AV_CODEC_ID_MJPEG; break;
    case VIDEO_CODEC_MPEG4: id = AV_CODEC_ID_MPEG4; break;
    case VIDEO_CODEC_H264: id = AV_CODEC_ID_H264; break;
    case VIDEO_CODEC_HEVC: id = AV_CODEC_ID_HEVC; break;
    default: break;
    }
    std::vector<std::vector<unsigned char>> pictures;
    const AVCodec* decoder = avcodec_find_decoder(id);
    if (decoder == nullptr) {
        ADD_FAILURE() << "no decoder for codec " << clip.codec;
        return pictures;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(decoder);
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    EXPECT_EQ(avcodec_open2(ctx, decoder, nullptr), 0);
    auto drain = [&]() {
        while (avcodec_receive_frame(ctx, frame) == 0) {
            std::vector<unsigned char> luma(static_cast<size_t>(frame->width) * frame->height);
            for (int row = 0; row < frame->height; ++row) {
                const unsigned char* src =
                    frame->data[0] + static_cast<ptrdiff_t>(row) * frame->linesize[0];
                std::copy(src, src + frame->width,
                          luma.data() + static_cast<size_t>(row) * frame->width);
            }
            pictures.push_back(std::move(luma));
            av_frame_unref(frame);
        }
    };
    for (const EncodedFrame& encoded : clip.frames) {
        EXPECT_EQ(av_new_packet(packet, static_cast<int>(encoded.data.size())), 0);
        std::copy(encoded.data.begin(), encoded.data.end(), packet->data);
        EXPECT_EQ(avcodec_send_packet(ctx, packet), 0);
        av_packet_unref(packet);
        drain();
    }
    avcodec_send_packet(ctx, nullptr);
    drain();
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&ctx);
    return pictures;
}

double MeanAbsDiff(const std::vector<unsigned char>& a, const std::vector<unsigned char>& b) {
    if (a.size() != b.size() || a.empty()) return 1e9;
    double sum = 0;
    for (size_t i = 0; i < a.size(); ++i) sum += std::abs(int(a[i]) - int(b[i]));
    return sum / static_cast<double>(a.size());
}

// Box-averaged grey copy outW pixels wide (height in proportion): the kind of small
// picture a detector works on.
std::vector<unsigned char> Shrink(const std::vector<unsigned char>& grey, int width, int height,
                                  int outW, int& outH) {
    outH = height * outW / width;
    std::vector<unsigned char> out(static_cast<size_t>(outW) * outH);
    for (int r = 0; r < outH; ++r) {
        int r0 = r * height / outH, r1 = (r + 1) * height / outH;
        for (int c = 0; c < outW; ++c) {
            int c0 = c * width / outW, c1 = (c + 1) * width / outW;
            int sum = 0;
            for (int y = r0; y < r1; ++y) {
                for (int x = c0; x < c1; ++x) sum += grey[static_cast<size_t>(y) * width + x];
            }
            out[static_cast<size_t>(r) * outW + c] =
                static_cast<unsigned char>(sum / ((r1 - r0) * (c1 - c0)));
        }
    }
    return out;
}

std::string TempPath(const std::string& name) {
    return testing::TempDir() + "clipmaker_" + std::to_string(getpid()) + "_" + name;
}

struct ProbedFile {
    bool opened = false;
    AVCodecID codec = AV_CODEC_ID_NONE;
    int width = 0;
    int height = 0;
    double durationSec = 0;
    int packets = 0;
    int keyPackets = 0;
};

ProbedFile Probe(const std::string& path) {
    ProbedFile probed;
    AVFormatContext* fmt = nullptr;
    if (avformat_open_input(&fmt, path.c_str(), nullptr, nullptr) < 0) return probed;
    if (avformat_find_stream_info(fmt, nullptr) < 0 || fmt->nb_streams != 1) {
        avformat_close_input(&fmt);
        return probed;
    }
    probed.opened = true;
    AVStream* st = fmt->streams[0];
    probed.codec = st->codecpar->codec_id;
    probed.width = st->codecpar->width;
    probed.height = st->codecpar->height;
    if (fmt->duration != AV_NOPTS_VALUE) probed.durationSec = static_cast<double>(fmt->duration) / 1e6;
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(fmt, packet) >= 0) {
        ++probed.packets;
        if (packet->flags & AV_PKT_FLAG_KEY) ++probed.keyPackets;
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&fmt);
    return probed;
}

bool FileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// ---- the scene ----

TEST(ClipScene, RenderingIsDeterministic) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    std::vector<unsigned char> y1, u1, v1, y2, u2, v2;
    tw::host::RenderSceneYuv420(clipSpec, 1.23, y1, u1, v1);
    tw::host::RenderSceneYuv420(clipSpec, 1.23, y2, u2, v2);
    EXPECT_EQ(y1, y2);
    EXPECT_EQ(u1, u2);
    EXPECT_EQ(v1, v2);
    ASSERT_EQ(y1.size(), 320u * 180u);
    EXPECT_EQ(u1.size(), 160u * 90u);
    EXPECT_EQ(v1.size(), 160u * 90u);
    EXPECT_EQ(tw::host::RenderSceneGrey(clipSpec, 1.23), y1);
}

TEST(ClipScene, BackgroundIsTextured) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    std::vector<unsigned char> grey = tw::host::RenderSceneGrey(clipSpec, 0.0);
    SceneObject obj = tw::host::SceneObjectAt(clipSpec, 0.0);
    // Neighbouring background pixels must differ often, or encoders flatten the picture
    // and a decoder test would learn nothing.
    int differing = 0, compared = 0;
    for (int row = 0; row < clipSpec.height; ++row) {
        for (int col = 0; col + 1 < clipSpec.width; ++col) {
            bool inObject = col + 1 >= obj.x && col < obj.x + obj.size && row >= obj.y &&
                            row < obj.y + obj.size;
            if (inObject) continue;
            ++compared;
            if (grey[row * clipSpec.width + col] != grey[row * clipSpec.width + col + 1]) ++differing;
        }
    }
    EXPECT_GT(differing, compared / 2);
}

TEST(ClipScene, ObjectIsBrightSquareOnDarkerBackground) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    std::vector<unsigned char> grey = tw::host::RenderSceneGrey(clipSpec, 1.0);
    SceneObject obj = tw::host::SceneObjectAt(clipSpec, 1.0);
    EXPECT_EQ(obj.size, clipSpec.height / 4);
    ASSERT_GE(obj.x, 0);
    ASSERT_GE(obj.y, 0);
    ASSERT_LE(obj.x + obj.size, clipSpec.width);
    ASSERT_LE(obj.y + obj.size, clipSpec.height);
    int brightestBackground = 0;
    int darkestObject = 255;
    for (int row = 0; row < clipSpec.height; ++row) {
        for (int col = 0; col < clipSpec.width; ++col) {
            int value = grey[row * clipSpec.width + col];
            bool inObject = col >= obj.x && col < obj.x + obj.size && row >= obj.y &&
                            row < obj.y + obj.size;
            if (inObject) darkestObject = std::min(darkestObject, value);
            else brightestBackground = std::max(brightestBackground, value);
        }
    }
    EXPECT_GE(darkestObject - brightestBackground, 30);
}

TEST(ClipScene, ExplicitObjectSizeIsUsed) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    clipSpec.objectSize = 20;
    EXPECT_EQ(tw::host::SceneObjectAt(clipSpec, 0.7).size, 20);
}

TEST(ClipScene, GreyDiffersBetweenTwoTimesInsideMotion) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    ASSERT_TRUE(tw::host::IsObjectMovingAt(clipSpec, 0.6));
    ASSERT_TRUE(tw::host::IsObjectMovingAt(clipSpec, 1.0));
    EXPECT_NE(tw::host::RenderSceneGrey(clipSpec, 0.6), tw::host::RenderSceneGrey(clipSpec, 1.0));
    SceneObject a = tw::host::SceneObjectAt(clipSpec, 0.6);
    SceneObject b = tw::host::SceneObjectAt(clipSpec, 1.0);
    EXPECT_TRUE(a.x != b.x || a.y != b.y);
}

TEST(ClipScene, GreyIsIdenticalInsideStillInterval) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    ASSERT_FALSE(tw::host::IsObjectMovingAt(clipSpec, 1.6));
    ASSERT_FALSE(tw::host::IsObjectMovingAt(clipSpec, 1.95));
    EXPECT_EQ(tw::host::RenderSceneGrey(clipSpec, 1.6), tw::host::RenderSceneGrey(clipSpec, 1.95));
    EXPECT_EQ(tw::host::RenderSceneGrey(clipSpec, 0.0), tw::host::RenderSceneGrey(clipSpec, 0.45));
    EXPECT_EQ(tw::host::RenderSceneGrey(clipSpec, 2.6), tw::host::RenderSceneGrey(clipSpec, 2.96));
}

TEST(ClipScene, ObjectEndsStillIntervalWhereNextMotionStarts) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    // Still from 1.5 to 2.0, moving from 2.0: the first moving instant starts from the
    // place where the still interval left the object.
    SceneObject stillEnd = tw::host::SceneObjectAt(clipSpec, 1.99);
    SceneObject motionStart = tw::host::SceneObjectAt(clipSpec, 2.0);
    EXPECT_EQ(stillEnd.x, motionStart.x);
    EXPECT_EQ(stillEnd.y, motionStart.y);
    EXPECT_EQ(tw::host::RenderSceneGrey(clipSpec, 1.99), tw::host::RenderSceneGrey(clipSpec, 2.0));
    // And the motion interval itself ends where the next still interval stands.
    SceneObject motionEnd = tw::host::SceneObjectAt(clipSpec, 1.4999);
    SceneObject stillStart = tw::host::SceneObjectAt(clipSpec, 1.5);
    EXPECT_LE(std::abs(motionEnd.x - stillStart.x), 1);
    EXPECT_LE(std::abs(motionEnd.y - stillStart.y), 1);
}

TEST(ClipScene, OverlappingIntervalsDoNotSpeedUpTheObject) {
    ClipSpec single = SmallSpec(VIDEO_CODEC_H264);
    single.motion = {{0.5, 1.5}};
    ClipSpec overlapping = single;
    overlapping.motion = {{0.5, 1.5}, {0.8, 1.2}};
    for (double t : {0.7, 1.0, 1.3, 2.0}) {
        SceneObject a = tw::host::SceneObjectAt(single, t);
        SceneObject b = tw::host::SceneObjectAt(overlapping, t);
        EXPECT_EQ(a.x, b.x) << "t=" << t;
        EXPECT_EQ(a.y, b.y) << "t=" << t;
    }
}

TEST(ClipScene, SampleMotionChangesSeveralPercentOfSmallGreyCopy) {
    ClipSpec clipSpec = tw::host::SampleClipSpec();
    ASSERT_EQ(clipSpec.width, 640);
    ASSERT_EQ(clipSpec.height, 360);
    ASSERT_FALSE(clipSpec.motion.empty());
    double t = clipSpec.motion[0].first + 0.5;
    ASSERT_TRUE(tw::host::IsObjectMovingAt(clipSpec, t + 0.3));
    // Two pictures 300 ms apart, shrunk to 120 pixels wide like a detector's copy.
    int h = 0;
    auto a = Shrink(tw::host::RenderSceneGrey(clipSpec, t), clipSpec.width, clipSpec.height, 120, h);
    auto b = Shrink(tw::host::RenderSceneGrey(clipSpec, t + 0.3), clipSpec.width, clipSpec.height, 120, h);
    ASSERT_EQ(h, 67);
    int changed = 0;
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::abs(int(a[i]) - int(b[i])) > 25) ++changed;
    }
    double percent = changed * 100.0 / static_cast<double>(a.size());
    EXPECT_GT(percent, 3.0);
}

TEST(ClipScene, SampleClipIsShortGopH264WithStillAndMovingParts) {
    ClipSpec clipSpec = tw::host::SampleClipSpec();
    EXPECT_EQ(clipSpec.codec, VIDEO_CODEC_H264);
    EXPECT_LE(clipSpec.gop, 2 * clipSpec.fps);
    EXPECT_GE(clipSpec.durationSec, 10.0);
    EXPECT_FALSE(tw::host::IsObjectMovingAt(clipSpec, 0.0));
    EXPECT_FALSE(tw::host::IsObjectMovingAt(clipSpec, clipSpec.durationSec - 0.1));
    std::string error;
    EXPECT_TRUE(tw::host::CheckClipSpec(clipSpec, error)) << error;
}

// ---- encoding ----

TEST(ClipEncode, MjpegEveryFrameIsCompleteKeyPicture) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_JPEG);
    EncodedClip clip = MustEncode(clipSpec);
    EXPECT_EQ(clip.codec, VIDEO_CODEC_JPEG);
    EXPECT_EQ(clip.width, 320);
    EXPECT_EQ(clip.height, 180);
    ASSERT_EQ(clip.frames.size(), 75u);
    for (size_t i = 0; i < clip.frames.size(); ++i) {
        const auto& data = clip.frames[i].data;
        EXPECT_TRUE(clip.frames[i].keyFrame) << i;
        ASSERT_GE(data.size(), 4u);
        EXPECT_EQ(data[0], 0xFF);
        EXPECT_EQ(data[1], 0xD8);
        EXPECT_EQ(data[data.size() - 2], 0xFF);
        EXPECT_EQ(data[data.size() - 1], 0xD9);
        EXPECT_EQ(clip.frames[i].ptsUs, static_cast<int64_t>(i) * 40000);
    }
}

TEST(ClipEncode, MjpegPicturesShowTheRenderedScene) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_JPEG);
    EncodedClip clip = MustEncode(clipSpec);
    auto pictures = DecodeLuma(clip);
    ASSERT_EQ(pictures.size(), 75u);
    for (int i : {0, 20, 55}) {
        EXPECT_LT(MeanAbsDiff(pictures[i], tw::host::RenderSceneGrey(clipSpec, i / 25.0)), 4.0) << i;
    }
}

TEST(ClipEncode, Mpeg4KeyFramesFollowGop) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_MPEG4);
    EncodedClip clip = MustEncode(clipSpec);
    ASSERT_EQ(clip.frames.size(), 75u);
    for (size_t i = 0; i < clip.frames.size(); ++i) {
        EXPECT_EQ(clip.frames[i].keyFrame, i % 12 == 0) << i;
    }
    // The object layer header that a decoder needs before the first picture.
    ASSERT_GE(clip.extraData.size(), 4u);
    EXPECT_EQ(clip.extraData[0], 0);
    EXPECT_EQ(clip.extraData[1], 0);
    EXPECT_EQ(clip.extraData[2], 1);
    auto pictures = DecodeLuma(clip);
    ASSERT_EQ(pictures.size(), 75u);
    EXPECT_LT(MeanAbsDiff(pictures[30], tw::host::RenderSceneGrey(clipSpec, 30 / 25.0)), 8.0);
}

TEST(ClipEncode, H264KeyFramesEveryGopCarryParameterSets) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    EncodedClip clip = MustEncode(clipSpec);
    EXPECT_EQ(clip.codec, VIDEO_CODEC_H264);
    ASSERT_EQ(clip.frames.size(), 75u);
    for (size_t i = 0; i < clip.frames.size(); ++i) {
        const EncodedFrame& frame = clip.frames[i];
        EXPECT_EQ(frame.keyFrame, i % 12 == 0) << i;
        EXPECT_TRUE(StartsWithStartCode(frame.data)) << i;
        EXPECT_EQ(frame.ptsUs, static_cast<int64_t>(i) * 40000) << i;
        std::set<int> types = NalTypes(frame.data, VIDEO_CODEC_H264);
        if (frame.keyFrame) {
            EXPECT_TRUE(types.count(7)) << "no SPS in key frame " << i;
            EXPECT_TRUE(types.count(8)) << "no PPS in key frame " << i;
            EXPECT_TRUE(types.count(5)) << "no IDR slice in key frame " << i;
        } else {
            EXPECT_FALSE(types.count(5)) << i;
        }
    }
    std::set<int> extraTypes = NalTypes(clip.extraData, VIDEO_CODEC_H264);
    EXPECT_EQ(extraTypes, (std::set<int>{7, 8}));
    EXPECT_TRUE(StartsWithStartCode(clip.extraData));
}

TEST(ClipEncode, H264PicturesShowTheRenderedScene) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    EncodedClip clip = MustEncode(clipSpec);
    auto pictures = DecodeLuma(clip);
    ASSERT_EQ(pictures.size(), 75u);
    for (int i : {0, 20, 55}) {
        EXPECT_LT(MeanAbsDiff(pictures[i], tw::host::RenderSceneGrey(clipSpec, i / 25.0)), 6.0) << i;
    }
}

TEST(ClipEncode, H264WithBFramesReordersPresentation) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    clipSpec.bFrames = 2;
    EncodedClip clip = MustEncode(clipSpec);
    ASSERT_EQ(clip.frames.size(), 75u);
    int outOfOrder = 0;
    std::set<int64_t> pts;
    for (size_t i = 0; i < clip.frames.size(); ++i) {
        if (clip.frames[i].ptsUs != static_cast<int64_t>(i) * 40000) ++outOfOrder;
        pts.insert(clip.frames[i].ptsUs);
    }
    EXPECT_GT(outOfOrder, 0);
    // Every picture is there exactly once.
    ASSERT_EQ(pts.size(), 75u);
    EXPECT_EQ(*pts.begin(), 0);
    EXPECT_EQ(*pts.rbegin(), 74 * 40000);
    EXPECT_TRUE(clip.frames[0].keyFrame);
    EXPECT_EQ(DecodeLuma(clip).size(), 75u);
}

TEST(ClipEncode, HevcKeyFramesCarryVpsSpsPps) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_HEVC);
    EncodedClip clip = MustEncode(clipSpec);
    EXPECT_EQ(clip.codec, VIDEO_CODEC_HEVC);
    ASSERT_EQ(clip.frames.size(), 75u);
    int keys = 0;
    for (size_t i = 0; i < clip.frames.size(); ++i) {
        const EncodedFrame& frame = clip.frames[i];
        EXPECT_EQ(frame.keyFrame, i % 12 == 0) << i;
        EXPECT_TRUE(StartsWithStartCode(frame.data)) << i;
        if (!frame.keyFrame) continue;
        ++keys;
        std::set<int> types = NalTypes(frame.data, VIDEO_CODEC_HEVC);
        EXPECT_TRUE(types.count(32)) << "no VPS in key frame " << i;
        EXPECT_TRUE(types.count(33)) << "no SPS in key frame " << i;
        EXPECT_TRUE(types.count(34)) << "no PPS in key frame " << i;
        EXPECT_TRUE(types.count(19) || types.count(20)) << "no IDR slice in key frame " << i;
    }
    EXPECT_EQ(keys, 7);
    EXPECT_EQ(NalTypes(clip.extraData, VIDEO_CODEC_HEVC), (std::set<int>{32, 33, 34}));
    auto pictures = DecodeLuma(clip);
    ASSERT_EQ(pictures.size(), 75u);
    EXPECT_LT(MeanAbsDiff(pictures[40], tw::host::RenderSceneGrey(clipSpec, 40 / 25.0)), 8.0);
}

TEST(ClipEncode, InvalidSpecIsRejectedWithReason) {
    EncodedClip clip;
    std::string error;
    ClipSpec odd = SmallSpec(VIDEO_CODEC_H264);
    odd.width = 321;
    EXPECT_FALSE(tw::host::EncodeClip(odd, clip, error));
    EXPECT_NE(error.find("321x180"), std::string::npos) << error;

    ClipSpec unknown = SmallSpec(9);
    error.clear();
    EXPECT_FALSE(tw::host::EncodeClip(unknown, clip, error));
    EXPECT_NE(error.find("codec 9"), std::string::npos) << error;

    ClipSpec backwards = SmallSpec(VIDEO_CODEC_H264);
    backwards.motion = {{2.0, 1.0}};
    error.clear();
    EXPECT_FALSE(tw::host::EncodeClip(backwards, clip, error));
    EXPECT_NE(error.find("motion interval"), std::string::npos) << error;

    ClipSpec noTime = SmallSpec(VIDEO_CODEC_H264);
    noTime.durationSec = 0;
    error.clear();
    EXPECT_FALSE(tw::host::EncodeClip(noTime, clip, error));
    EXPECT_NE(error.find("duration"), std::string::npos) << error;
}

// ---- files ----

TEST(ClipFile, Mp4H264OpensWithRightCodecSizeAndLength) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    std::string path = TempPath("h264.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
    ProbedFile probed = Probe(path);
    std::remove(path.c_str());
    ASSERT_TRUE(probed.opened);
    EXPECT_EQ(probed.codec, AV_CODEC_ID_H264);
    EXPECT_EQ(probed.width, 320);
    EXPECT_EQ(probed.height, 180);
    EXPECT_NEAR(probed.durationSec, 3.0, 0.2);
    EXPECT_EQ(probed.packets, 75);
    EXPECT_EQ(probed.keyPackets, 7);
}

TEST(ClipFile, Mp4H264WithBFramesKeepsEveryFrame) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    clipSpec.bFrames = 2;
    std::string path = TempPath("h264b.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
    ProbedFile probed = Probe(path);
    std::remove(path.c_str());
    ASSERT_TRUE(probed.opened);
    EXPECT_EQ(probed.packets, 75);
    EXPECT_NEAR(probed.durationSec, 3.0, 0.2);
}

TEST(ClipFile, AviMpeg4OpensWithRightCodecSizeAndLength) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_MPEG4);
    std::string path = TempPath("mpeg4.avi");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
    ProbedFile probed = Probe(path);
    std::remove(path.c_str());
    ASSERT_TRUE(probed.opened);
    EXPECT_EQ(probed.codec, AV_CODEC_ID_MPEG4);
    EXPECT_EQ(probed.width, 320);
    EXPECT_EQ(probed.height, 180);
    EXPECT_NEAR(probed.durationSec, 3.0, 0.2);
    EXPECT_EQ(probed.packets, 75);
}

TEST(ClipFile, AviMjpegOpensWithEveryFrameKey) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_JPEG);
    std::string path = TempPath("mjpeg.avi");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
    ProbedFile probed = Probe(path);
    std::remove(path.c_str());
    ASSERT_TRUE(probed.opened);
    EXPECT_EQ(probed.codec, AV_CODEC_ID_MJPEG);
    EXPECT_EQ(probed.width, 320);
    EXPECT_EQ(probed.height, 180);
    EXPECT_NEAR(probed.durationSec, 3.0, 0.2);
    EXPECT_EQ(probed.packets, 75);
    EXPECT_EQ(probed.keyPackets, 75);
}

TEST(ClipFile, MkvHevcAndTsH264Open) {
    struct Case {
        int codec;
        const char* name;
        AVCodecID id;
    };
    for (const Case& c : {Case{VIDEO_CODEC_HEVC, "hevc.mkv", AV_CODEC_ID_HEVC},
                          Case{VIDEO_CODEC_H264, "h264.ts", AV_CODEC_ID_H264}}) {
        ClipSpec clipSpec = SmallSpec(c.codec);
        std::string path = TempPath(c.name);
        std::string error;
        ASSERT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
        ProbedFile probed = Probe(path);
        std::remove(path.c_str());
        ASSERT_TRUE(probed.opened) << c.name;
        EXPECT_EQ(probed.codec, c.id) << c.name;
        EXPECT_EQ(probed.width, 320) << c.name;
        EXPECT_EQ(probed.packets, 75) << c.name;
    }
}

TEST(ClipFile, UnsupportedExtensionFailsNamingPath) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    std::string path = TempPath("clip.webm");
    std::string error;
    EXPECT_FALSE(tw::host::WriteClip(clipSpec, path, error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_FALSE(FileExists(path));

    std::string bare = TempPath("noextension");
    error.clear();
    EXPECT_FALSE(tw::host::WriteClip(clipSpec, bare, error));
    EXPECT_NE(error.find(bare), std::string::npos) << error;
}

TEST(ClipFile, MjpegInMp4FailsNamingPath) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_JPEG);
    std::string path = TempPath("mjpeg.mp4");
    std::string error;
    EXPECT_FALSE(tw::host::WriteClip(clipSpec, path, error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_NE(error.find("mjpeg"), std::string::npos) << error;
    EXPECT_FALSE(FileExists(path));
}

TEST(ClipFile, UnwritableDirectoryFailsNamingPath) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_MPEG4);
    clipSpec.durationSec = 0.5;
    std::string path = "/nonexistent-dir-for-clipmaker/clip.mp4";
    std::string error;
    EXPECT_FALSE(tw::host::WriteClip(clipSpec, path, error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
}

TEST(ClipFile, InvalidSpecFailsNamingPath) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_H264);
    clipSpec.height = 7;
    std::string path = TempPath("tiny.mp4");
    std::string error;
    EXPECT_FALSE(tw::host::WriteClip(clipSpec, path, error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
    EXPECT_FALSE(FileExists(path));
}

// ---- JPEG pictures ----

struct DecodedJpeg {
    bool ok = false;
    int width = 0;
    int height = 0;
    int components = 0;
    std::vector<unsigned char> pixels;
};

struct TestJpegError {
    jpeg_error_mgr pub;
    jmp_buf jump;
};

void TestJpegErrorExit(j_common_ptr cinfo) {
    longjmp(reinterpret_cast<TestJpegError*>(cinfo->err)->jump, 1);
}

// Plain-old-data only between setjmp and longjmp.
bool DecodeJpegRaw(const unsigned char* data, size_t size, int* width, int* height,
                   int* components, unsigned char* out, size_t outCapacity) {
    jpeg_decompress_struct cinfo;
    TestJpegError err;
    cinfo.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = TestJpegErrorExit;
    if (setjmp(err.jump)) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    jpeg_create_decompress(&cinfo);
    jpeg_mem_src(&cinfo, data, static_cast<unsigned long>(size));
    jpeg_read_header(&cinfo, TRUE);
    jpeg_start_decompress(&cinfo);
    *width = static_cast<int>(cinfo.output_width);
    *height = static_cast<int>(cinfo.output_height);
    *components = cinfo.output_components;
    size_t stride = static_cast<size_t>(*width) * *components;
    if (stride * *height > outCapacity) {
        jpeg_destroy_decompress(&cinfo);
        return false;
    }
    while (cinfo.output_scanline < cinfo.output_height) {
        JSAMPROW row = out + cinfo.output_scanline * stride;
        jpeg_read_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_decompress(&cinfo);
    jpeg_destroy_decompress(&cinfo);
    return true;
}

DecodedJpeg DecodeWithLibjpeg(const std::vector<unsigned char>& jpeg, size_t capacity) {
    DecodedJpeg decoded;
    decoded.pixels.resize(capacity);
    decoded.ok = DecodeJpegRaw(jpeg.data(), jpeg.size(), &decoded.width, &decoded.height,
                               &decoded.components, decoded.pixels.data(), capacity);
    decoded.pixels.resize(static_cast<size_t>(decoded.width) * decoded.height *
                          decoded.components);
    return decoded;
}

TEST(ClipJpeg, GreyPictureStartsWithSoiAndDecodes) {
    ClipSpec clipSpec = SmallSpec(VIDEO_CODEC_JPEG);
    std::vector<unsigned char> grey = tw::host::RenderSceneGrey(clipSpec, 1.0);
    std::vector<unsigned char> jpeg = tw::host::EncodeJpeg(grey.data(), 320, 180, 1, 90);
    ASSERT_GE(jpeg.size(), 2u);
    EXPECT_EQ(jpeg[0], 0xFF);
    EXPECT_EQ(jpeg[1], 0xD8);
    DecodedJpeg decoded = DecodeWithLibjpeg(jpeg, size_t{320} * 180 * 3);
    ASSERT_TRUE(decoded.ok);
    EXPECT_EQ(decoded.width, 320);
    EXPECT_EQ(decoded.height, 180);
    EXPECT_EQ(decoded.components, 1);
    EXPECT_LT(MeanAbsDiff(decoded.pixels, grey), 4.0);
}

TEST(ClipJpeg, RgbPictureDecodesToSameColours) {
    const size_t w = 64, h = 48;
    std::vector<unsigned char> rgb(w * h * 3);
    for (size_t row = 0; row < h; ++row) {
        for (size_t col = 0; col < w; ++col) {
            unsigned char* p = &rgb[(row * w + col) * 3];
            p[0] = col < w / 2 ? 200 : 40;
            p[1] = row < h / 2 ? 180 : 60;
            p[2] = 100;
        }
    }
    std::vector<unsigned char> jpeg =
        tw::host::EncodeJpeg(rgb.data(), static_cast<int>(w), static_cast<int>(h), 3);
    ASSERT_GE(jpeg.size(), 2u);
    EXPECT_EQ(jpeg[0], 0xFF);
    EXPECT_EQ(jpeg[1], 0xD8);
    DecodedJpeg decoded = DecodeWithLibjpeg(jpeg, w * h * 3);
    ASSERT_TRUE(decoded.ok);
    EXPECT_EQ(decoded.width, static_cast<int>(w));
    EXPECT_EQ(decoded.height, static_cast<int>(h));
    EXPECT_EQ(decoded.components, 3);
    EXPECT_LT(MeanAbsDiff(decoded.pixels, rgb), 8.0);
}

TEST(ClipJpeg, UnusableArgumentsGiveEmptyPicture) {
    std::vector<unsigned char> pixels(size_t{16} * 16 * 3, 128);
    EXPECT_TRUE(tw::host::EncodeJpeg(nullptr, 16, 16, 1).empty());
    EXPECT_TRUE(tw::host::EncodeJpeg(pixels.data(), 0, 16, 1).empty());
    EXPECT_TRUE(tw::host::EncodeJpeg(pixels.data(), 16, -1, 1).empty());
    EXPECT_TRUE(tw::host::EncodeJpeg(pixels.data(), 16, 16, 2).empty());
    EXPECT_FALSE(tw::host::EncodeJpeg(pixels.data(), 16, 16, 3).empty());
}

}  // namespace
