// The twhost command as its users meet it: bad input of every kind ends with one error line
// naming the input and a non-zero exit; the built-in sample, the JSON lines, the sample
// writer, damaged frames inside a good stream and a restricted region behave as documented.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <random>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/jsonlines.h"
#include "support/testenv.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"
#include "twhost/mediasource.h"

namespace {

using tw::test::ChildResult;
using tw::test::DetectJson;
using tw::test::DetectStatus;
using tw::test::SplitLines;

ChildResult Twhost(std::vector<std::string> args) {
    args.insert(args.begin(), TW_TWHOST_BIN);
    return tw::test::RunChild(args);
}

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Where one video packet of a file lies, as the demuxer reports it.
struct PacketPlace {
    int64_t pos = -1;
    int size = 0;
    bool key = false;
    int64_t ptsUs = 0;
};

struct FileLayout {
    std::vector<PacketPlace> packets;   // video packets in file order
    int nalLengthSize = 0;              // H.264 in MP4: bytes of each NAL unit's length prefix
};

bool ReadLayout(const std::string& path, FileLayout& layout, std::string& error) {
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) < 0) {
        error = "cannot open '" + path + "'";
        return false;
    }
    bool ok = avformat_find_stream_info(ctx, nullptr) >= 0;
    const int index = ok ? av_find_best_stream(ctx, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0) : -1;
    if (index < 0) {
        avformat_close_input(&ctx);
        error = "no video stream in '" + path + "'";
        return false;
    }
    const AVStream* stream = ctx->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    // An avcC record keeps the length-prefix size in the low bits of its fifth byte.
    if (par->codec_id == AV_CODEC_ID_H264 && par->extradata_size > 4 && par->extradata[0] == 1)
        layout.nalLengthSize = (par->extradata[4] & 3) + 1;
    AVPacket* pkt = av_packet_alloc();
    while (av_read_frame(ctx, pkt) >= 0) {
        if (pkt->stream_index == index) {
            PacketPlace place;
            place.pos = pkt->pos;
            place.size = pkt->size;
            place.key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
            place.ptsUs = av_rescale_q(pkt->pts, stream->time_base, AV_TIME_BASE_Q);
            layout.packets.push_back(place);
        }
        av_packet_unref(pkt);
    }
    av_packet_free(&pkt);
    avformat_close_input(&ctx);
    ok = !layout.packets.empty() &&
         std::all_of(layout.packets.begin(), layout.packets.end(), [](const PacketPlace& p) { return p.pos >= 0; });
    if (!ok) error = "the packets of '" + path + "' have no file positions";
    return ok;
}

// Rewrites the payload of the chosen packets in place; the container stays intact.
bool RewritePackets(const std::string& path, const std::vector<PacketPlace>& packets,
                    const std::function<void(std::vector<unsigned char>&)>& change, std::string& error) {
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    if (!file) {
        error = "cannot open '" + path + "' for rewriting";
        return false;
    }
    for (const PacketPlace& p : packets) {
        std::vector<unsigned char> payload(static_cast<size_t>(p.size));
        file.seekg(p.pos);
        file.read(reinterpret_cast<char*>(payload.data()), p.size);
        change(payload);
        file.seekp(p.pos);
        file.write(reinterpret_cast<const char*>(payload.data()), p.size);
    }
    file.flush();
    if (!file) {
        error = "cannot rewrite the packets of '" + path + "'";
        return false;
    }
    return true;
}

// H.264 in MP4: inverts every byte of the coded slices after their NAL header, keeping the
// length prefixes, so the demuxer still delivers the frames but nothing in them decodes.
std::function<void(std::vector<unsigned char>&)> InvertSlices(int lengthSize) {
    return [lengthSize](std::vector<unsigned char>& data) {
        size_t at = 0;
        while (at + static_cast<size_t>(lengthSize) < data.size()) {
            size_t len = 0;
            for (int i = 0; i < lengthSize; ++i) len = (len << 8) | data[at + static_cast<size_t>(i)];
            const size_t nal = at + static_cast<size_t>(lengthSize);
            const size_t end = std::min(data.size(), nal + len);
            const int type = data[nal] & 0x1f;
            if (type == 1 || type == 5) {
                for (size_t i = nal + 1; i < end; ++i) data[i] ^= 0xff;
            }
            at = end;
        }
    };
}

// JPEG: inverts the entropy-coded data after the start-of-scan header, keeping the markers
// in front of it and the end-of-image marker.
void InvertJpegScan(std::vector<unsigned char>& data) {
    for (size_t i = 0; i + 3 < data.size(); ++i) {
        if (data[i] == 0xff && data[i + 1] == 0xda) {
            const size_t headerLen = (static_cast<size_t>(data[i + 2]) << 8) | data[i + 3];
            for (size_t j = i + 2 + headerLen; j + 2 < data.size(); ++j) data[j] ^= 0xff;
            return;
        }
    }
}

class TwhostCli : public ::testing::Test {
protected:
    void SetUp() override {
        av_log_set_level(AV_LOG_ERROR);
        ASSERT_TRUE(m_Dir.Ok());
    }

    // A small clip of the scene in the test's directory.
    std::string WriteSmallClip(const std::string& name, int codec, double seconds,
                               std::vector<std::pair<double, double>> motion, tw::host::ClipSpec* clipOut = nullptr) {
        const tw::host::ClipSpec clip = tw::test::SmallClip(codec, seconds, std::move(motion));
        const std::string path = m_Dir.File(name);
        std::string error;
        EXPECT_TRUE(tw::host::WriteClip(clip, path, error)) << error;
        if (clipOut) *clipOut = clip;
        return path;
    }

    // Exactly one line on stderr, naming what it is about; nothing on stdout.
    static void ExpectOneErrorNaming(const ChildResult& r, const std::string& name) {
        const std::vector<std::string> lines = SplitLines(r.err);
        ASSERT_EQ(lines.size(), 1u) << r.err;
        EXPECT_TRUE(Contains(lines[0], name)) << lines[0];
        EXPECT_EQ(r.out, "");
    }

    tw::test::ScopedTempDir m_Dir;
};

TEST_F(TwhostCli, MissingFileFailsWithOneErrorNamingIt) {
    const std::string path = m_Dir.File("absent.mp4");
    const ChildResult r = Twhost({"detect", path});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_NE(r.exitCode, 0);
    ExpectOneErrorNaming(r, "'" + path + "'");
    EXPECT_TRUE(Contains(r.err, "No such file")) << r.err;
}

TEST_F(TwhostCli, WavFileFailsWithOneErrorNamingItAsHavingNoVideo) {
    // Half a second of 8 kHz mono 16-bit silence.
    const uint32_t dataBytes = 8000;
    std::vector<unsigned char> wav;
    auto put = [&wav](const void* p, size_t n) {
        const auto* b = static_cast<const unsigned char*>(p);
        wav.insert(wav.end(), b, b + n);
    };
    auto put32 = [&put](uint32_t v) { put(&v, 4); };
    auto put16 = [&put](uint16_t v) { put(&v, 2); };
    put("RIFF", 4);
    put32(36 + dataBytes);
    put("WAVEfmt ", 8);
    put32(16);
    put16(1);
    put16(1);
    put32(8000);
    put32(16000);
    put16(2);
    put16(16);
    put("data", 4);
    put32(dataBytes);
    wav.resize(wav.size() + dataBytes, 0);
    const std::string path = m_Dir.File("voice.wav");
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(wav.data()),
                                                static_cast<std::streamsize>(wav.size()));

    const ChildResult r = Twhost({"detect", path});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_NE(r.exitCode, 0);
    ExpectOneErrorNaming(r, "'" + path + "'");
    EXPECT_TRUE(Contains(r.err, "no video")) << r.err;
}

TEST_F(TwhostCli, TextFileFailsWithOneErrorNamingIt) {
    const std::string path = m_Dir.File("notes.txt");
    std::ofstream(path) << "camera 5: lens cleaned on Monday\n";
    const ChildResult r = Twhost({"detect", path});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_NE(r.exitCode, 0);
    ExpectOneErrorNaming(r, "'" + path + "'");
}

TEST_F(TwhostCli, Mpeg4StreamOfGarbagePacketsFailsUpFrontNamingIt) {
    const std::string path = WriteSmallClip("garbage.mp4", VIDEO_CODEC_MPEG4, 2.0, {{0.5, 1.5}});
    FileLayout layout;
    std::string error;
    ASSERT_TRUE(ReadLayout(path, layout, error)) << error;
    // Random bytes without a zero: no start code anywhere, nothing for a decoder to hold on to.
    std::mt19937 random(20240611);
    ASSERT_TRUE(RewritePackets(path, layout.packets,
                               [&random](std::vector<unsigned char>& data) {
                                   for (unsigned char& b : data) b = static_cast<unsigned char>(1 + random() % 255);
                               },
                               error))
        << error;

    const ChildResult r = Twhost({"detect", path, "--json"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "cannot decode the mpeg4 video of '" + path + "'");
}

TEST_F(TwhostCli, H264StreamWhoseSlicesAreGarbageFailsUpFrontNamingIt) {
    const std::string path = WriteSmallClip("garbage.mp4", VIDEO_CODEC_H264, 2.0, {{0.5, 1.5}});
    FileLayout layout;
    std::string error;
    ASSERT_TRUE(ReadLayout(path, layout, error)) << error;
    ASSERT_GT(layout.nalLengthSize, 0) << "no avcC record in " << path;
    ASSERT_TRUE(RewritePackets(path, layout.packets, InvertSlices(layout.nalLengthSize), error)) << error;

    const ChildResult r = Twhost({"detect", path});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "cannot decode the h264 video of '" + path + "'");
}

TEST_F(TwhostCli, LiveFifoWithoutPublisherFailsWithOneErrorNamingTheCamera) {
    // Keys of this process only, so no publisher of another run can be found by accident.
    char base[32];
    std::snprintf(base, sizeof(base), "0x%08x", 0x5d000000u + (static_cast<unsigned>(getpid()) % 65536u) * 256u);
    setenv("TW_SHM_KEY_BASE", base, 1);
    const ChildResult r = Twhost({"detect", "--shm", "--camera-id", "42", "--duration", "30"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "no live stream of camera 42 stream 0");
}

struct BadValue {
    const char* name;
    const char* option;
    const char* value;
};

std::ostream& operator<<(std::ostream& os, const BadValue& b) { return os << b.option << ' ' << b.value; }

class TwhostBadRegion : public ::testing::TestWithParam<BadValue> {};

TEST_P(TwhostBadRegion, IsRefusedWithOneErrorNamingTheRegionBeforeAnythingRuns) {
    const ChildResult r = Twhost({"detect", "--region", GetParam().value});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 2);
    const std::vector<std::string> lines = SplitLines(r.err);
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_TRUE(Contains(lines[0], std::string("--region '") + GetParam().value + "'")) << lines[0];
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(Regions, TwhostBadRegion,
                         ::testing::Values(BadValue{"too_short", "--region", "0101"},
                                           BadValue{"rectangle_without_corner", "--region", "3,4-5"},
                                           BadValue{"rectangle_of_words", "--region", "left,top-right,bottom"},
                                           BadValue{"column_outside_grid", "--region", "0,0-40,29"},
                                           BadValue{"row_outside_grid", "--region", "1,1-2,2;39,30"}),
                         [](const ::testing::TestParamInfo<BadValue>& info) { return std::string(info.param.name); });

class TwhostOutOfRange : public ::testing::TestWithParam<BadValue> {};

TEST_P(TwhostOutOfRange, IsRefusedAsBadUsageNamingTheOptionAndValue) {
    const ChildResult r = Twhost({"detect", GetParam().option, GetParam().value});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_EQ(r.out, "");
    // One line says what is wrong; a pointer to --help may follow it.
    const std::vector<std::string> lines = SplitLines(r.err);
    const std::string option = GetParam().option;
    const std::string value = GetParam().value;
    const auto naming = std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return Contains(line, option) && Contains(line, value);
    });
    EXPECT_EQ(naming, 1) << r.err;
}

INSTANTIATE_TEST_SUITE_P(Flags, TwhostOutOfRange,
                         ::testing::Values(BadValue{"sensitivity_101", "--sensitivity", "101"},
                                           BadValue{"short_live_11", "--short-live", "11"},
                                           BadValue{"threshold_minus_1", "--threshold", "-1"},
                                           BadValue{"log_level_8", "--log-level", "8"}),
                         [](const ::testing::TestParamInfo<BadValue>& info) { return std::string(info.param.name); });

TEST_F(TwhostCli, DetectWithoutSourceFindsBothMovementsOfTheBuiltInSample) {
    const ChildResult r = Twhost({"detect"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    const std::vector<std::pair<double, double>> moving = tw::host::SampleClipSpec().motion;
    ASSERT_EQ(moving.size(), 2u);

    const std::vector<std::string> lines = SplitLines(r.out);
    const auto summary = std::find_if(lines.begin(), lines.end(),
                                      [](const std::string& l) { return l.rfind("Motion in ", 0) == 0; });
    ASSERT_NE(summary, lines.end()) << r.out;
    int count = 0;
    double s0 = 0, e0 = 0, s1 = 0, e1 = 0;
    ASSERT_EQ(std::sscanf(summary->c_str(), "Motion in %d intervals: %lf-%lf s, %lf-%lf s", &count, &s0, &e0, &s1, &e1),
              5)
        << *summary;
    EXPECT_EQ(count, 2);
    // Each reported interval starts within a second of a movement; the first one is over
    // before the second movement begins.
    EXPECT_GE(s0, moving[0].first);
    EXPECT_LE(s0, moving[0].first + 1.0);
    EXPECT_LT(e0, moving[1].first);
    EXPECT_GE(s1, moving[1].first);
    EXPECT_LE(s1, moving[1].first + 1.0);
    EXPECT_GT(e1, s1);
}

TEST_F(TwhostCli, JsonLinesAreOneStatusEachAndEndWithTheSummary) {
    const ChildResult r = Twhost({"detect", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;

    ASSERT_FALSE(json.statuses.empty());
    for (size_t i = 1; i < json.statuses.size(); ++i) {
        EXPECT_GE(json.statuses[i].t, json.statuses[i - 1].t) << "status " << i;
    }
    EXPECT_EQ(json.summary["statuses"].asUInt(), json.statuses.size());
    const Json::Value& intervals = json.summary["intervals"];
    ASSERT_TRUE(intervals.isArray());
    ASSERT_EQ(intervals.size(), 2u) << json.summary.toStyledString();
    for (const Json::Value& interval : intervals) {
        ASSERT_TRUE(interval["start"].isDouble() && interval["end"].isDouble()) << interval.toStyledString();
        EXPECT_LT(interval["start"].asDouble(), interval["end"].asDouble());
    }
    int maxValue = 0;
    for (const DetectStatus& s : json.statuses) maxValue = std::max(maxValue, s.value);
    EXPECT_EQ(json.summary["maxValue"].asInt(), maxValue);

    const tw::host::ClipSpec sample = tw::host::SampleClipSpec();
    const std::vector<std::string> problems = tw::test::CheckTimeline(json.statuses, sample.motion, sample.durationSec);
    EXPECT_TRUE(problems.empty()) << tw::test::JoinProblems(problems);
}

struct SampleCodec {
    const char* name;
    const char* file;
    int codec;
};

std::ostream& operator<<(std::ostream& os, const SampleCodec& c) { return os << c.name; }

class TwhostSample : public ::testing::TestWithParam<SampleCodec> {};

TEST_P(TwhostSample, WritesAClipThatOpensWithTheChosenCodec) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string path = dir.File(GetParam().file);
    const ChildResult r = Twhost({"sample", path, "--codec", GetParam().name, "--duration", "2"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    EXPECT_TRUE(Contains(r.out, path)) << r.out;

    tw::host::MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    EXPECT_EQ(source.GetCodec(), GetParam().codec);
    EXPECT_STREQ(source.GetCodecName(), GetParam().name);
    EXPECT_EQ(source.GetWidth(), 640);
    EXPECT_EQ(source.GetHeight(), 360);
    tw::host::SourcePacket packet;
    int frames = 0;
    int rc = 0;
    while ((rc = source.ReadPacket(packet)) == 1) {
        if (frames == 0) {
            EXPECT_TRUE(packet.keyFrame);
        }
        ++frames;
    }
    EXPECT_EQ(rc, 0) << source.GetLastError();
    EXPECT_EQ(frames, 2 * tw::host::SampleClipSpec().fps);
}

INSTANTIATE_TEST_SUITE_P(Codecs, TwhostSample,
                         ::testing::Values(SampleCodec{"mjpeg", "sample.avi", VIDEO_CODEC_JPEG},
                                           SampleCodec{"mpeg4", "sample.mp4", VIDEO_CODEC_MPEG4},
                                           SampleCodec{"h264", "sample.mp4", VIDEO_CODEC_H264}),
                         [](const ::testing::TestParamInfo<SampleCodec>& info) {
                             return std::string(info.param.name);
                         });

// The one summary line of "twhost sample --json", checked against the README's table.
Json::Value SampleSummary(const std::string& out) {
    std::vector<Json::Value> lines;
    std::string error;
    EXPECT_TRUE(tw::test::ParseJsonLines(out, lines, error)) << error;
    EXPECT_EQ(lines.size(), 1u) << out;
    EXPECT_EQ(tw::test::CheckJsonLines("twhost sample", lines), std::vector<std::string>{});
    return lines.empty() ? Json::Value() : lines.back();
}

long FileSize(const std::string& path) {
    std::ifstream in(path, std::ios::binary | std::ios::ate);
    return in ? static_cast<long>(in.tellg()) : -1;
}

// A bit rate makes the clip a camera's stream: its bytes follow the rate (within what a
// rate control over 4 s with a one-second buffer keeps), where the grainy scene at constant
// quality takes several times as much; the JSON summary says which rate it was.
TEST(TwhostSampleBitrate, CapsTheStreamNearTheRateAndSaysSo) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string capped = dir.File("capped.mp4");
    const std::string free = dir.File("free.mp4");
    const ChildResult r = Twhost({"sample", capped, "--duration", "4", "--bitrate", "300", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    const Json::Value summary = SampleSummary(r.out);
    EXPECT_EQ(summary["settings"]["bitrate"].asInt(), 300) << r.out;
    const ChildResult q = Twhost({"sample", free, "--duration", "4", "--json"});
    ASSERT_TRUE(q.exited && q.exitCode == 0) << q.Describe() << "\n" << q.err;
    EXPECT_FALSE(SampleSummary(q.out)["settings"].isMember("bitrate")) << q.out;
    const long cappedBytes = FileSize(capped);
    const long freeBytes = FileSize(free);
    const long nominal = 300L * 1000 / 8 * 4;   // 150,000 bytes
    EXPECT_GT(cappedBytes, nominal / 2);
    EXPECT_LT(cappedBytes, nominal * 3 / 2);
    EXPECT_GT(freeBytes, 2 * cappedBytes);
}

std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

// A rate-controlled clip is the same file every time it is made with the same arguments,
// so that figures taken on it can be taken again.
TEST(TwhostSampleBitrate, TheSameArgumentsMakeTheSameFileTwice) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    for (const char* codec : {"h264", "hevc"}) {
        std::string bytes[2];
        for (int i = 0; i < 2; ++i) {
            const std::string path = dir.File(std::string(codec) + std::to_string(i) + ".mp4");
            const ChildResult r = Twhost({"sample", path, "--codec", codec, "--size", "640x360", "--duration", "3",
                                          "--bitrate", "400"});
            ASSERT_TRUE(r.exited && r.exitCode == 0) << codec << ": " << r.Describe() << "\n" << r.err;
            bytes[i] = FileBytes(path);
        }
        EXPECT_GT(bytes[0].size(), 10000u) << codec;
        EXPECT_TRUE(bytes[0] == bytes[1]) << codec << ": " << bytes[0].size() << " and " << bytes[1].size()
                                          << " bytes, not the same";
    }
}

TEST(TwhostSampleBitrate, IsRefusedForCodecsWithAFixedQuantiserNamingTheReason) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string path = dir.File("sample.avi");
    const ChildResult r = Twhost({"sample", path, "--codec", "mjpeg", "--bitrate", "300"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "a bit rate applies to H.264 and HEVC clips only")) << r.err;
    EXPECT_NE(access(path.c_str(), F_OK), 0) << "nothing is left behind";
}

struct CorruptCase {
    const char* name;
    int codec;
    const char* file;
    const char* decodeFailure;   // the detector's log line for a frame it cannot decode
};

std::ostream& operator<<(std::ostream& os, const CorruptCase& c) { return os << c.name; }

class TwhostCorruptFrames : public TwhostCli, public ::testing::WithParamInterface<CorruptCase> {};

TEST_P(TwhostCorruptFrames, AreJudgedNoMotionAndLoggedWhileTheRunCompletes) {
    // Key frames are damaged in the middle of a movement, where every intact turn reports
    // motion: a "no motion" there can only come from the damage.
    constexpr int64_t kFromUs = 4000000;
    constexpr int64_t kToUs = 5000000;
    tw::host::ClipSpec clip;
    const std::string path = WriteSmallClip(std::string("clip.") + GetParam().file, GetParam().codec, 10.0,
                                            {{3.0, 6.5}}, &clip);
    FileLayout layout;
    std::string error;
    ASSERT_TRUE(ReadLayout(path, layout, error)) << error;

    const ChildResult clean = Twhost({"detect", path, "--json"});
    ASSERT_TRUE(clean.exited && clean.exitCode == 0) << clean.Describe() << "\n" << clean.err;
    DetectJson cleanJson;
    ASSERT_TRUE(tw::test::ParseDetectJson(clean.out, cleanJson, error)) << error;

    std::vector<PacketPlace> damaged;
    std::vector<int64_t> keyTimes;
    for (const PacketPlace& p : layout.packets) {
        if (!p.key) continue;
        keyTimes.push_back(p.ptsUs);
        if (p.ptsUs >= kFromUs && p.ptsUs < kToUs) damaged.push_back(p);
    }
    ASSERT_GE(damaged.size(), 3u);
    std::function<void(std::vector<unsigned char>&)> change = InvertJpegScan;
    if (GetParam().codec == VIDEO_CODEC_H264) change = InvertSlices(layout.nalLengthSize);
    ASSERT_TRUE(RewritePackets(path, damaged, change, error)) << error;

    // The detector's account of a frame it cannot decode is a notice: shown when asked for.
    const ChildResult r = Twhost({"detect", path, "--json", "--log-level", "4"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    DetectJson json;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    EXPECT_EQ(json.summary["frames"].asInt(), tw::host::ClipFrameCount(clip));

    // A turn takes the newest key frame due at its time; the turns whose newest key frame
    // is a damaged one are judged no motion, and were motion in the intact clip.
    auto newestKeyUs = [&keyTimes](double t) {
        const int64_t us = static_cast<int64_t>(t * 1e6 + 0.5);
        int64_t newest = -1;
        for (int64_t k : keyTimes)
            if (k <= us) newest = k;
        return newest;
    };
    auto isDamaged = [&](double t) {
        const int64_t key = newestKeyUs(t);
        return key >= kFromUs && key < kToUs;
    };
    size_t damagedTurns = 0;
    for (const DetectStatus& s : json.statuses) {
        if (!isDamaged(s.t)) continue;
        ++damagedTurns;
        EXPECT_FALSE(s.motion) << "turn at " << s.t << " s on a damaged key frame";
    }
    size_t cleanMotionTurns = 0;
    for (const DetectStatus& s : cleanJson.statuses)
        if (isDamaged(s.t) && s.motion) ++cleanMotionTurns;
    EXPECT_EQ(cleanMotionTurns, damagedTurns) << "the intact clip does not move at every turn of the damaged stretch: "
                                              << tw::test::DescribeStatuses(cleanJson.statuses);
    EXPECT_GE(damagedTurns, 3u);

    // Each damaged turn is logged; the movement goes on being reported after the damage.
    size_t logged = 0;
    for (const std::string& line : SplitLines(r.err))
        if (Contains(line, GetParam().decodeFailure)) ++logged;
    EXPECT_EQ(logged, damagedTurns) << r.err;
    const bool motionAfter = std::any_of(json.statuses.begin(), json.statuses.end(), [](const DetectStatus& s) {
        return s.motion && s.t >= kToUs / 1e6 + 0.3 && s.t < 6.5;
    });
    EXPECT_TRUE(motionAfter) << tw::test::DescribeStatuses(json.statuses);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, TwhostCorruptFrames,
    ::testing::Values(CorruptCase{"h264", VIDEO_CODEC_H264, "mp4", "Cam[1]: Failed to do FFmpeg decode."},
                      CorruptCase{"mjpeg", VIDEO_CODEC_JPEG, "avi", "Cam[1]: Failed to do Jpeg decode."}),
    [](const ::testing::TestParamInfo<CorruptCase>& info) { return std::string(info.param.name); });

TEST_F(TwhostCli, RegionOfACornerWhereNothingMovesSeesNoMotionInTheSample) {
    // Columns 0-4 and rows 0-2: the top-left corner, which the sample's object never
    // reaches on its path around the picture's centre.
    const ChildResult r = Twhost({"detect", "--region", "0,0-4,2", "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    ASSERT_GT(json.statuses.size(), 50u);
    for (const DetectStatus& s : json.statuses) {
        EXPECT_FALSE(s.motion) << "at " << s.t << " s";
    }
    EXPECT_EQ(json.summary["intervals"].size(), 0u);
    EXPECT_EQ(json.summary["maxValue"].asInt(), 0);
}

}  // namespace
