// Deferred Annex B conversion: the local converter on crafted packets, the FIFO that
// converts a block only when a reader takes it, and sources whose deferred packets, once
// converted, are byte for byte what the bitstream filter gives. Every clip is written by
// the test itself.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <ostream>
#include <utility>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "tw/camera.h"
#include "tw/stream.h"
#include "twhost/annexb.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/mediasource.h"
#include "twhost/streamfifo.h"

#include "support/childprocess.h"

namespace {

using Bytes = std::vector<unsigned char>;
using tw::host::ClipSpec;
using tw::host::FifoPump;
using tw::host::GetFifoStats;
using tw::host::InspectLengthPrefixed;
using tw::host::LengthPrefixedToAnnexB;
using tw::host::ManualClock;
using tw::host::MediaSource;
using tw::host::NalLayout;
using tw::host::SourcePacket;

constexpr int kNoBlockYet = 10001;

// NAL units behind big-endian lengths of lengthSize bytes.
Bytes LengthPrefixed(const std::vector<Bytes>& nals, int lengthSize) {
    Bytes out;
    for (const Bytes& nal : nals) {
        for (int i = lengthSize - 1; i >= 0; --i) {
            out.push_back(static_cast<unsigned char>((nal.size() >> (8 * i)) & 0xff));
        }
        out.insert(out.end(), nal.begin(), nal.end());
    }
    return out;
}

Bytes Concat(const std::vector<Bytes>& parts) {
    Bytes out;
    for (const Bytes& part : parts) {
        out.insert(out.end(), part.begin(), part.end());
    }
    return out;
}

const Bytes kLong = {0, 0, 0, 1};
const Bytes kShort = {0, 0, 1};

// H.264 units: access unit delimiter, a non-IDR slice, SEI, SPS, PPS, IDR slice.
const Bytes kAud = {0x09, 0xf0};
const Bytes kSlice = {0x41, 0x9a, 0x00, 0x00, 0x03, 0x01, 0x22};
const Bytes kSei = {0x06, 0x05, 0x01, 0x80};
const Bytes kSps = {0x67, 0x42, 0xc0, 0x1e, 0xd9};
const Bytes kPps = {0x68, 0xce, 0x3c, 0x80};
const Bytes kIdr = {0x65, 0x88, 0x84, 0x21};
// HEVC units (type in bits 1..6 of the first byte): a trailing picture (1), SEI (39),
// a CRA picture (21).
const Bytes kHevcTrail = {0x02, 0x01, 0xd0, 0x2f, 0x00, 0x00, 0x03, 0x01};
const Bytes kHevcSei = {0x4e, 0x01, 0x05, 0x10};
const Bytes kHevcCra = {0x2a, 0x01, 0xaf, 0x0c};

Bytes Convert(int codec, const Bytes& in, int lengthSize, bool expectOk = true) {
    Bytes out = {0xee};   // must be replaced
    const bool ok = LengthPrefixedToAnnexB(codec, in.data(), in.size(), lengthSize, out);
    EXPECT_EQ(ok, expectOk);
    return out;
}

// ---------------------------------------------------------------------------------------
// The converter

TEST(AnnexBConverter, H264FirstUnitGetsFourByteStartCodeTheOthersThree) {
    for (int lengthSize : {1, 2, 4}) {
        SCOPED_TRACE("length size " + std::to_string(lengthSize));
        const Bytes in = LengthPrefixed({kAud, kSlice, kSei}, lengthSize);
        EXPECT_EQ(Convert(VIDEO_CODEC_H264, in, lengthSize),
                  Concat({kLong, kAud, kShort, kSlice, kShort, kSei}));
    }
}

TEST(AnnexBConverter, H264ParameterSetsGetFourByteStartCodes) {
    for (int lengthSize : {1, 2, 4}) {
        SCOPED_TRACE("length size " + std::to_string(lengthSize));
        const Bytes in = LengthPrefixed({kSlice, kSps, kPps, kSlice}, lengthSize);
        EXPECT_EQ(Convert(VIDEO_CODEC_H264, in, lengthSize),
                  Concat({kLong, kSlice, kLong, kSps, kLong, kPps, kShort, kSlice}));
    }
}

TEST(AnnexBConverter, H264EmptyUnitsAreLeftOut) {
    const Bytes in = LengthPrefixed({{}, kSlice, {}, kSei, {}}, 2);
    EXPECT_EQ(Convert(VIDEO_CODEC_H264, in, 2), Concat({kLong, kSlice, kShort, kSei}));
}

TEST(AnnexBConverter, HevcEveryUnitGetsFourByteStartCode) {
    for (int lengthSize : {1, 2, 4}) {
        SCOPED_TRACE("length size " + std::to_string(lengthSize));
        const Bytes in = LengthPrefixed({kHevcSei, kHevcTrail, kHevcTrail}, lengthSize);
        EXPECT_EQ(Convert(VIDEO_CODEC_HEVC, in, lengthSize),
                  Concat({kLong, kHevcSei, kLong, kHevcTrail, kLong, kHevcTrail}));
    }
}

TEST(AnnexBConverter, HevcUnitShorterThanItsHeaderIsRefused) {
    EXPECT_TRUE(Convert(VIDEO_CODEC_HEVC, LengthPrefixed({kHevcTrail, {0x02}}, 4), 4, false).empty());
    EXPECT_TRUE(Convert(VIDEO_CODEC_HEVC, LengthPrefixed({{}, kHevcTrail}, 4), 4, false).empty());
}

TEST(AnnexBConverter, LengthRunningPastTheEndIsRefused) {
    for (int codec : {VIDEO_CODEC_H264, VIDEO_CODEC_HEVC}) {
        for (int lengthSize : {1, 2, 4}) {
            SCOPED_TRACE("codec " + std::to_string(codec) + ", length size " +
                         std::to_string(lengthSize));
            Bytes in = LengthPrefixed({codec == VIDEO_CODEC_H264 ? kSlice : kHevcTrail}, lengthSize);
            in.pop_back();   // the unit is one byte shorter than its length says
            EXPECT_TRUE(Convert(codec, in, lengthSize, false).empty());
            EXPECT_EQ(InspectLengthPrefixed(codec, in.data(), in.size(), lengthSize),
                      NalLayout::Malformed);
        }
    }
}

TEST(AnnexBConverter, HugeLengthIsRefusedWithoutReadingPastTheBuffer) {
    // Under ASan a read past the end would fail the test run.
    const Bytes in = {0xff, 0xff, 0xff, 0xff, 0x41, 0x9a};
    EXPECT_TRUE(Convert(VIDEO_CODEC_H264, in, 4, false).empty());
    EXPECT_TRUE(Convert(VIDEO_CODEC_HEVC, in, 4, false).empty());
    const Bytes one = {0xff, 0x41};
    EXPECT_TRUE(Convert(VIDEO_CODEC_H264, one, 1, false).empty());
}

TEST(AnnexBConverter, LengthPrefixCutShortIsRefused) {
    for (int lengthSize : {2, 4}) {
        Bytes in = LengthPrefixed({kSlice}, lengthSize);
        in.push_back(0);   // the start of a next prefix, cut off
        EXPECT_TRUE(Convert(VIDEO_CODEC_H264, in, lengthSize, false).empty());
        EXPECT_EQ(InspectLengthPrefixed(VIDEO_CODEC_H264, in.data(), in.size(), lengthSize),
                  NalLayout::Malformed);
    }
}

TEST(AnnexBConverter, EveryCutOfAPacketConvertsOnlyAtUnitBoundaries) {
    const std::vector<Bytes> nals = {kAud, kSlice, kSei};
    const Bytes in = LengthPrefixed(nals, 4);
    std::vector<size_t> boundaries;
    size_t pos = 0;
    for (const Bytes& nal : nals) {
        pos += 4 + nal.size();
        boundaries.push_back(pos);
    }
    size_t unitsWhole = 0;
    for (size_t n = 1; n <= in.size(); ++n) {
        SCOPED_TRACE("first " + std::to_string(n) + " bytes");
        Bytes out;
        const bool atBoundary = unitsWhole < boundaries.size() && n == boundaries[unitsWhole];
        EXPECT_EQ(LengthPrefixedToAnnexB(VIDEO_CODEC_H264, in.data(), n, 4, out), atBoundary);
        if (atBoundary) {
            ++unitsWhole;
            Bytes expected = Concat({kLong, kAud});
            if (unitsWhole > 1) expected = Concat({expected, kShort, kSlice});
            if (unitsWhole > 2) expected = Concat({expected, kShort, kSei});
            EXPECT_EQ(out, expected);
        } else {
            EXPECT_TRUE(out.empty());
        }
    }
    EXPECT_EQ(unitsWhole, nals.size());
}

TEST(AnnexBConverter, EmptyBufferAndUnknownLengthSizesAreRefused) {
    Bytes out = {1};
    EXPECT_FALSE(LengthPrefixedToAnnexB(VIDEO_CODEC_H264, nullptr, 0, 4, out));
    EXPECT_TRUE(out.empty());
    const Bytes in = LengthPrefixed({kSlice}, 4);
    for (int lengthSize : {0, 3, 5, -1}) {
        EXPECT_FALSE(LengthPrefixedToAnnexB(VIDEO_CODEC_H264, in.data(), in.size(), lengthSize, out));
        EXPECT_EQ(InspectLengthPrefixed(VIDEO_CODEC_H264, in.data(), in.size(), lengthSize),
                  NalLayout::Malformed);
    }
}

TEST(AnnexBConverter, InspectTellsPlainFromParameterSetsAndRandomAccess) {
    auto inspect = [](int codec, const Bytes& in, bool* slice) {
        return InspectLengthPrefixed(codec, in.data(), in.size(), 4, slice);
    };
    bool slice = false;
    EXPECT_EQ(inspect(VIDEO_CODEC_H264, LengthPrefixed({kAud, kSlice}, 4), &slice), NalLayout::Plain);
    EXPECT_TRUE(slice);
    EXPECT_EQ(inspect(VIDEO_CODEC_H264, LengthPrefixed({kSei}, 4), &slice), NalLayout::Plain);
    EXPECT_FALSE(slice);
    EXPECT_EQ(inspect(VIDEO_CODEC_H264, LengthPrefixed({kSps, kSlice}, 4), &slice), NalLayout::Special);
    EXPECT_EQ(inspect(VIDEO_CODEC_H264, LengthPrefixed({kSlice, kPps}, 4), &slice), NalLayout::Special);
    EXPECT_EQ(inspect(VIDEO_CODEC_H264, LengthPrefixed({kIdr}, 4), &slice), NalLayout::Special);
    EXPECT_EQ(inspect(VIDEO_CODEC_HEVC, LengthPrefixed({kHevcSei, kHevcTrail}, 4), nullptr),
              NalLayout::Plain);
    EXPECT_EQ(inspect(VIDEO_CODEC_HEVC, LengthPrefixed({kHevcCra}, 4), nullptr), NalLayout::Special);
}

// ---------------------------------------------------------------------------------------
// The FIFO converts what a reader takes

std::shared_ptr<const Bytes> Shared(const Bytes& bytes) { return std::make_shared<const Bytes>(bytes); }

Bytes FrameOf(const MediaBlock& block) {
    return Bytes(block.GetFrame(), block.GetFrame() + block.GetFrameSize());
}

TEST(AnnexBFifo, LengthPrefixedBlockIsConvertedOnlyWhenTaken) {
    tw::host::SetClock(std::make_shared<ManualClock>(0));
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 180, {});
    const Bytes first = LengthPrefixed({kAud, kSlice}, 4);
    const Bytes second = LengthPrefixed({kSlice, kSei}, 2);
    tw::host::PushFifoBlock(fifo, Shared(first), false, 0, 4);
    const int id = tw::host::PushFifoBlock(fifo, Shared(second), false, 40000, 2);
    EXPECT_EQ(GetFifoStats(fifo).blocksConverted, 0u);

    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->GetID(), id);
    EXPECT_EQ(FrameOf(*block), Concat({kLong, kSlice, kShort, kSei}));
    // The first block fell behind unread: it was never converted.
    EXPECT_EQ(GetFifoStats(fifo).blocksConverted, 1u);

    // A second reader shares the converted payload; nothing is converted twice.
    std::unique_ptr<MediaBlock> again(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->GetFrame(), block->GetFrame());
    EXPECT_EQ(GetFifoStats(fifo).blocksConverted, 1u);
    tw::host::SetClock(nullptr);
}

TEST(AnnexBFifo, BlockWhoseLengthsDoNotFitIsDroppedForTheOneBefore) {
    tw::host::SetClock(std::make_shared<ManualClock>(0));
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_HEVC, 320, 180, {});
    const Bytes good = LengthPrefixed({kHevcTrail}, 4);
    Bytes bad = LengthPrefixed({kHevcTrail}, 4);
    bad[3] = 0x40;   // 64 bytes announced, 8 there
    const int goodId = tw::host::PushFifoBlock(fifo, Shared(good), false, 0, 4);
    tw::host::PushFifoBlock(fifo, Shared(bad), false, 40000, 4);

    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->GetID(), goodId);
    EXPECT_EQ(FrameOf(*block), Concat({kLong, kHevcTrail}));
    EXPECT_EQ(GetFifoStats(fifo).blocksRefused, 1u);
    EXPECT_EQ(GetFifoStats(fifo).blocksHeld, 1u);
    // The reader has the newest block there is now.
    EXPECT_EQ(fifo.GetLastBlock(goodId), nullptr);
    tw::host::SetClock(nullptr);
}

TEST(AnnexBFifo, NothingIsHandedOutWhenTheOnlyBlocksDoNotFit) {
    tw::host::SetClock(std::make_shared<ManualClock>(0));
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 180, {});
    const Bytes bad = {0x00, 0x00, 0x00, 0x09, 0x65, 0x88};
    tw::host::PushFifoBlock(fifo, Shared(bad), true, 0, 4);
    EXPECT_EQ(fifo.GetLastITypeBlock(kNoBlockYet), nullptr);
    EXPECT_EQ(fifo.GetLastBlock(kNoBlockYet), nullptr);
    EXPECT_EQ(GetFifoStats(fifo).blocksHandedOut, 0u);
    EXPECT_EQ(GetFifoStats(fifo).blocksRefused, 2u);   // the key copy and the ring's
    tw::host::SetClock(nullptr);
}

TEST(AnnexBFifo, AnnexBBlocksAreHandedOutAsPushed) {
    tw::host::SetClock(std::make_shared<ManualClock>(0));
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, VIDEO_CODEC_H264, 320, 180, {});
    const Bytes annexB = Concat({kLong, kSlice});
    auto payload = Shared(annexB);
    tw::host::PushFifoBlock(fifo, payload, false, 0);
    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->GetFrame(), payload->data());
    EXPECT_EQ(GetFifoStats(fifo).blocksConverted, 0u);
    tw::host::SetClock(nullptr);
}

// ---------------------------------------------------------------------------------------
// Sources: deferred packets converted equal what the filter gives

struct ClipCase {
    int codec;
    const char* file;
    int bFrames;
};

void PrintTo(const ClipCase& c, std::ostream* os) {
    *os << (c.codec == VIDEO_CODEC_H264 ? "h264 " : "hevc ") << c.file << ", " << c.bFrames
        << " B-frames";
}

// NAL unit types of an Annex B H.264 buffer, in order.
std::vector<int> H264NalTypes(const Bytes& data) {
    std::vector<int> types;
    for (size_t i = 0; i + 3 < data.size(); ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            types.push_back(data[i + 3] & 0x1f);
            i += 2;
        }
    }
    return types;
}

std::string CaseName(const ::testing::TestParamInfo<ClipCase>& info) {
    std::string name = info.param.codec == VIDEO_CODEC_H264 ? "H264" : "Hevc";
    const std::string file = info.param.file;
    name += file.substr(file.find('.') + 1);
    if (info.param.bFrames > 0) name += "BFrames";
    return name;
}

class ClipFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        av_log_set_level(AV_LOG_FATAL);
        ASSERT_TRUE(m_Dir.Ok());
    }
    void TearDown() override { tw::host::SetClock(nullptr); }

    std::string WriteClip(int codec, const std::string& name, int bFrames) {
        ClipSpec clipSpec;
        clipSpec.width = 320;
        clipSpec.height = 180;
        clipSpec.fps = 25;
        clipSpec.durationSec = 2.0;
        clipSpec.codec = codec;
        clipSpec.gop = 12;
        clipSpec.bFrames = bFrames;
        clipSpec.motion = {{0.2, 1.6}};
        const std::string path = m_Dir.File(name);
        std::string error;
        EXPECT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
        return path;
    }

    static std::vector<SourcePacket> ReadAll(const std::string& path, bool defer) {
        MediaSource source;
        std::string error;
        EXPECT_TRUE(source.Open(path, error)) << error;
        source.SetDeferAnnexB(defer);
        std::vector<SourcePacket> packets;
        SourcePacket packet;
        int ret = 0;
        while ((ret = source.ReadPacket(packet)) == 1) {
            packets.push_back(packet);
        }
        EXPECT_EQ(ret, 0) << source.GetLastError();
        return packets;
    }

    tw::test::ScopedTempDir m_Dir;
};

class DeferredSourceTest : public ClipFileTest, public ::testing::WithParamInterface<ClipCase> {};

TEST_P(DeferredSourceTest, EveryPacketConvertedEqualsWhatTheFilterGives) {
    const ClipCase& c = GetParam();
    const std::string path = WriteClip(c.codec, c.file, c.bFrames);
    {
        MediaSource probe;
        std::string error;
        ASSERT_TRUE(probe.Open(path, error)) << error;
        EXPECT_EQ(probe.GetNalLengthSize(), 4);
        EXPECT_FALSE(probe.GetDeferAnnexB());
    }
    const std::vector<SourcePacket> reference = ReadAll(path, false);
    const std::vector<SourcePacket> deferred = ReadAll(path, true);
    ASSERT_EQ(deferred.size(), reference.size());
    ASSERT_GT(reference.size(), 40u);
    size_t deferredCount = 0;
    size_t keyCount = 0;
    for (size_t i = 0; i < reference.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        EXPECT_EQ(reference[i].nalLengthSize, 0);
        EXPECT_EQ(deferred[i].keyFrame, reference[i].keyFrame);
        EXPECT_EQ(deferred[i].ptsUs, reference[i].ptsUs);
        EXPECT_EQ(deferred[i].durationUs, reference[i].durationUs);
        if (deferred[i].keyFrame) {
            ++keyCount;
            // Key frames go through the filter even when the ones before them did not.
            EXPECT_EQ(deferred[i].nalLengthSize, 0);
            EXPECT_EQ(*deferred[i].data, *reference[i].data);
            continue;
        }
        ASSERT_EQ(deferred[i].nalLengthSize, 4);
        ++deferredCount;
        Bytes converted;
        ASSERT_TRUE(LengthPrefixedToAnnexB(c.codec, deferred[i].data->data(),
                                           deferred[i].data->size(), 4, converted));
        EXPECT_EQ(converted, *reference[i].data);
    }
    EXPECT_GE(keyCount, 4u);
    EXPECT_EQ(deferredCount + keyCount, reference.size());
}

TEST_P(DeferredSourceTest, FifoHandsOutEveryBlockAsTheUndeferredSourceGivesIt) {
    const ClipCase& c = GetParam();
    const std::string path = WriteClip(c.codec, c.file, c.bFrames);
    const std::vector<SourcePacket> reference = ReadAll(path, false);
    ASSERT_FALSE(reference.empty());

    const int64_t epoch = 1000000;
    auto clock = std::make_shared<ManualClock>(epoch);
    tw::host::SetClock(clock);
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    {
        FifoPump pump(source, fifo);
        ASSERT_TRUE(pump.StartVirtual(error)) << error;
        EXPECT_TRUE(source.GetDeferAnnexB());
        // Block i joins the ring once the clock reaches its time, and no earlier than the
        // blocks before it (decoding order): at the latest time so far it is the newest
        // block unless the next one is due by then too (B-frames).
        int64_t latest = INT64_MIN;
        for (size_t i = 0; i < reference.size(); ++i) {
            SCOPED_TRACE("packet " + std::to_string(i));
            latest = std::max(latest, reference[i].ptsUs - reference[0].ptsUs);
            if (i + 1 < reference.size() &&
                reference[i + 1].ptsUs - reference[0].ptsUs <= latest) {
                continue;
            }
            clock->SetNowUs(epoch + latest);
            std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
            ASSERT_NE(block, nullptr);
            ASSERT_EQ(block->GetID(), static_cast<int>(i));
            EXPECT_EQ(block->IsKeyFrame(), reference[i].keyFrame);
            EXPECT_EQ(FrameOf(*block), *reference[i].data);
            std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
            ASSERT_NE(key, nullptr);
            EXPECT_EQ(FrameOf(*key), *reference[static_cast<size_t>(key->GetID())].data);
        }
        EXPECT_TRUE(pump.Ended());
        EXPECT_EQ(pump.GetPacketCount(), reference.size());
    }
    // The pump is gone: whoever reads the source next gets Annex B again.
    EXPECT_FALSE(source.GetDeferAnnexB());
    const tw::host::FifoStats stats = GetFifoStats(fifo);
    EXPECT_GT(stats.blocksConverted, 0u);
    EXPECT_EQ(stats.blocksRefused, 0u);
}

INSTANTIATE_TEST_SUITE_P(Clips, DeferredSourceTest,
                         ::testing::Values(ClipCase{VIDEO_CODEC_H264, "clip.mp4", 0},
                                           ClipCase{VIDEO_CODEC_H264, "clip.mkv", 0},
                                           ClipCase{VIDEO_CODEC_H264, "clip.mp4", 2},
                                           ClipCase{VIDEO_CODEC_HEVC, "clip.mp4", 0},
                                           ClipCase{VIDEO_CODEC_HEVC, "clip.mkv", 0}),
                         CaseName);

// The NAL units of a packet with 4-byte lengths, SPS and PPS left out.
Bytes WithoutParameterSets(const unsigned char* data, size_t size) {
    std::vector<Bytes> kept;
    size_t pos = 0;
    while (pos + 4 <= size) {
        const size_t length = (size_t{data[pos]} << 24) | (size_t{data[pos + 1]} << 16) |
                              (size_t{data[pos + 2]} << 8) | data[pos + 3];
        pos += 4;
        if (length > size - pos) break;
        const int type = length > 0 ? (data[pos] & 0x1f) : 0;
        if (type != 7 && type != 8) kept.emplace_back(data + pos, data + pos + length);
        pos += length;
    }
    return LengthPrefixed(kept, 4);
}

// Copies an H.264 MP4 into Matroska as it is stored (length-prefixed, avcC), its key frames
// without the in-band parameter sets the encoder gave them (as most MP4 writers store
// them), and some key frames replaced by made-up ones on which the filter's memory between
// packets decides where the parameter sets go. The filter does not decode, so the made-up
// slices need no meaning.
void RemuxWithOddKeyFrames(const std::string& from, const std::string& to,
                           const std::vector<std::pair<size_t, std::vector<Bytes>>>& oddKeys) {
    AVFormatContext* in = nullptr;
    ASSERT_GE(avformat_open_input(&in, from.c_str(), nullptr, nullptr), 0);
    ASSERT_GE(avformat_find_stream_info(in, nullptr), 0);
    ASSERT_EQ(in->nb_streams, 1u);
    AVFormatContext* out = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&out, nullptr, nullptr, to.c_str()), 0);
    AVStream* stream = avformat_new_stream(out, nullptr);
    ASSERT_NE(stream, nullptr);
    ASSERT_GE(avcodec_parameters_copy(stream->codecpar, in->streams[0]->codecpar), 0);
    stream->codecpar->codec_tag = 0;
    stream->time_base = in->streams[0]->time_base;
    ASSERT_GE(avio_open(&out->pb, to.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(out, nullptr), 0);
    AVPacket* packet = av_packet_alloc();
    size_t keys = 0;
    while (av_read_frame(in, packet) >= 0) {
        if ((packet->flags & AV_PKT_FLAG_KEY) != 0) {
            Bytes data = WithoutParameterSets(packet->data, static_cast<size_t>(packet->size));
            for (const auto& odd : oddKeys) {
                if (odd.first == keys) data = LengthPrefixed(odd.second, 4);
            }
            AVPacket* made = av_packet_alloc();
            ASSERT_GE(av_new_packet(made, static_cast<int>(data.size())), 0);
            std::copy(data.begin(), data.end(), made->data);
            av_packet_copy_props(made, packet);
            av_packet_unref(packet);
            av_packet_move_ref(packet, made);
            av_packet_free(&made);
            ++keys;
        }
        av_packet_rescale_ts(packet, in->streams[0]->time_base, stream->time_base);
        packet->stream_index = 0;
        ASSERT_GE(av_interleaved_write_frame(out, packet), 0);
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    av_write_trailer(out);
    avio_closep(&out->pb);
    avformat_free_context(out);
    avformat_close_input(&in);
}

TEST_F(ClipFileTest, KeyFramesAfterDeferredPacketsGetTheirParameterSetsWhereTheFilterPutsThem) {
    const std::string mp4 = WriteClip(VIDEO_CODEC_H264, "clip.mp4", 0);
    const std::string path = m_Dir.File("odd.mkv");
    const Bytes idrNotFirstSlice = {0x65, 0x40, 0x11};   // first_mb_in_slice != 0
    const Bytes idrFirstSlice = {0x65, 0x88, 0x11};
    const Bytes sps = {0x67, 0x42, 0xc0, 0x1e, 0xab, 0xcd};
    const Bytes pps = {0x68, 0xce, 0x3c};
    // Keys 0 and 1 get the parameter sets from the filter, which then waits for a non-IDR
    // slice before it inserts them again. Key 2 follows P frames that did that: it gets
    // them right before its slice (whose first_mb_in_slice is not 0), behind the SEI. Key
    // 3 brings its own; key 4 then gets none from the filter (it counts them as seen
    // still) and the source puts the stream's in front.
    RemuxWithOddKeyFrames(mp4, path, {{2, {kSei, idrNotFirstSlice}},
                                      {3, {sps, pps, idrFirstSlice}},
                                      {4, {idrFirstSlice}}});
    const std::vector<SourcePacket> reference = ReadAll(path, false);
    const std::vector<SourcePacket> deferred = ReadAll(path, true);
    ASSERT_EQ(deferred.size(), reference.size());
    std::vector<size_t> keyIndex;
    size_t deferredCount = 0;
    for (size_t i = 0; i < reference.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        ASSERT_EQ(deferred[i].keyFrame, reference[i].keyFrame);
        Bytes data = *deferred[i].data;
        if (deferred[i].nalLengthSize != 0) {
            ++deferredCount;
            ASSERT_TRUE(LengthPrefixedToAnnexB(VIDEO_CODEC_H264, deferred[i].data->data(),
                                               deferred[i].data->size(), 4, data));
        }
        EXPECT_EQ(data, *reference[i].data);
        if (reference[i].keyFrame) keyIndex.push_back(i);
    }
    EXPECT_GT(deferredCount, 40u);
    ASSERT_EQ(keyIndex.size(), 5u);
    const std::vector<int> behindSei = {6, 7, 8, 5};
    const std::vector<int> inFront = {7, 8, 5};
    EXPECT_EQ(H264NalTypes(*reference[keyIndex[2]].data), behindSei);
    EXPECT_EQ(H264NalTypes(*reference[keyIndex[3]].data), inFront);
    EXPECT_EQ(H264NalTypes(*reference[keyIndex[4]].data), inFront);
    // Key 3 keeps its own parameter sets; key 4 gets the stream's.
    const Bytes key3 = *reference[keyIndex[3]].data;
    const Bytes key4 = *reference[keyIndex[4]].data;
    EXPECT_NE(std::search(key3.begin(), key3.end(), sps.begin(), sps.end()), key3.end());
    EXPECT_EQ(std::search(key4.begin(), key4.end(), sps.begin(), sps.end()), key4.end());
}

// A key frame whose parameter sets come only behind its slice cannot be decoded from its
// start: the source puts the stream's parameter sets in front and keeps the late ones.
TEST_F(ClipFileTest, KeyFrameWithParameterSetsBehindItsSliceGetsTheStreamsInFront) {
    const std::string mp4 = WriteClip(VIDEO_CODEC_H264, "clip.mp4", 0);
    const std::string path = m_Dir.File("late.mkv");
    const Bytes idrFirstSlice = {0x65, 0x88, 0x11};
    const Bytes sps = {0x67, 0x42, 0xc0, 0x1e, 0xab, 0xcd};
    const Bytes pps = {0x68, 0xce, 0x3c};
    // Key 3 brings its own parameter sets, so the filter inserts none before key 4.
    RemuxWithOddKeyFrames(mp4, path, {{3, {sps, pps, idrFirstSlice}}, {4, {idrFirstSlice, sps, pps}}});
    for (const bool defer : {false, true}) {
        SCOPED_TRACE(defer ? "deferred" : "not deferred");
        const std::vector<SourcePacket> packets = ReadAll(path, defer);
        std::vector<const SourcePacket*> keys;
        for (const SourcePacket& packet : packets) {
            if (packet.keyFrame) keys.push_back(&packet);
        }
        ASSERT_EQ(keys.size(), 5u);
        const Bytes key4 = *keys[4]->data;
        EXPECT_EQ(H264NalTypes(key4), (std::vector<int>{7, 8, 5, 7, 8}));
        // In front: the stream's own, not the made-up ones that follow the slice.
        const auto late = std::search(key4.begin(), key4.end(), sps.begin(), sps.end());
        ASSERT_NE(late, key4.end());
        EXPECT_GT(late - key4.begin(), 8);
    }
}

TEST_F(ClipFileTest, TransportStreamIsNotAffected) {
    const std::string path = WriteClip(VIDEO_CODEC_H264, "clip.ts", 0);
    {
        MediaSource probe;
        std::string error;
        ASSERT_TRUE(probe.Open(path, error)) << error;
        EXPECT_EQ(probe.GetNalLengthSize(), 0);
    }
    const std::vector<SourcePacket> reference = ReadAll(path, false);
    const std::vector<SourcePacket> deferred = ReadAll(path, true);
    ASSERT_EQ(deferred.size(), reference.size());
    ASSERT_FALSE(reference.empty());
    for (size_t i = 0; i < reference.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        EXPECT_EQ(deferred[i].nalLengthSize, 0);
        EXPECT_EQ(*deferred[i].data, *reference[i].data);
    }
}

TEST_F(ClipFileTest, SwitchingDeferralMidStreamKeepsEveryPacketExact) {
    // Every third packet is read with deferral off: it comes in Annex B, and the filter
    // that missed the deferred packets before it still gives the very bytes it gives
    // when it has seen them all.
    const std::string path = WriteClip(VIDEO_CODEC_H264, "clip.mp4", 0);
    const std::vector<SourcePacket> reference = ReadAll(path, false);
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    source.SetDeferAnnexB(true);
    SourcePacket packet;
    for (size_t i = 0; i < reference.size(); ++i) {
        SCOPED_TRACE("packet " + std::to_string(i));
        source.SetDeferAnnexB(i % 3 != 0);
        ASSERT_EQ(source.ReadPacket(packet), 1) << source.GetLastError();
        if (i % 3 == 0) {
            EXPECT_EQ(packet.nalLengthSize, 0);
        }
        Bytes data = *packet.data;
        if (packet.nalLengthSize != 0) {
            ASSERT_TRUE(LengthPrefixedToAnnexB(VIDEO_CODEC_H264, packet.data->data(),
                                               packet.data->size(), packet.nalLengthSize, data));
        }
        EXPECT_EQ(data, *reference[i].data);
    }
    EXPECT_EQ(source.ReadPacket(packet), 0);
}

}  // namespace
