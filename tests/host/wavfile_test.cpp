// RIFF/WAVE parsing: where the samples of a WAV file start, for well-formed files of every
// usual layout and for damaged ones, which give -1 without reading outside the file; the
// fmt chunk for the tools; the header the WAV sink writes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "support/childprocess.h"
#include "tw/audio.h"
#include "twhost/wavfile.h"

namespace {

using Bytes = std::vector<unsigned char>;
using tw::host::WavInfo;

void Le16(Bytes& out, uint32_t v) {
    out.push_back(static_cast<unsigned char>(v & 0xff));
    out.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
}

void Le32(Bytes& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xff));
}

void Id(Bytes& out, const char* id) { out.insert(out.end(), id, id + 4); }

// One chunk with its pad byte after an odd payload.
void Chunk(Bytes& out, const char* id, const Bytes& payload) {
    Id(out, id);
    Le32(out, static_cast<uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    if (payload.size() & 1) out.push_back(0);
}

Bytes FmtPayload(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
    Bytes fmt;
    const uint16_t align = static_cast<uint16_t>(channels * bits / 8);
    Le16(fmt, tag);
    Le16(fmt, channels);
    Le32(fmt, rate);
    Le32(fmt, rate * align);
    Le16(fmt, align);
    Le16(fmt, bits);
    return fmt;
}

Bytes Samples(size_t n) {
    Bytes s(n);
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<unsigned char>((i * 37 + 11) & 0xff);
    return s;
}

// "RIFF" <size of the rest> "WAVE" + body.
Bytes Riff(const Bytes& body, const char* form = "WAVE") {
    Bytes out;
    Id(out, "RIFF");
    Le32(out, static_cast<uint32_t>(body.size() + 4));
    Id(out, form);
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Bytes CanonicalWav(size_t sampleBytes) {
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 1, 8000, 16));
    Chunk(body, "data", Samples(sampleBytes));
    return Riff(body);
}

class WavFileTest : public ::testing::Test {
protected:
    std::string Write(const std::string& name, const Bytes& bytes) {
        const std::string path = m_Dir.File(name);
        FILE* f = std::fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr) << path;
        if (f == nullptr) return path;
        if (!bytes.empty()) {
            EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
        }
        std::fclose(f);
        return path;
    }

    tw::test::ScopedTempDir m_Dir;
};

TEST_F(WavFileTest, CanonicalHeaderPutsTheSamplesAtByte44) {
    const Bytes wav = CanonicalWav(800);
    ASSERT_EQ(wav.size(), 44u + 800u);
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("canonical.wav", wav)), 44);
}

TEST_F(WavFileTest, ListChunkBeforeTheDataIsSkipped) {
    Bytes list;
    Id(list, "INFO");
    Chunk(list, "INAM", Bytes{'t', 'e', 's', 't', 0, 0});
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 2, 44100, 16));
    Chunk(body, "LIST", list);
    Chunk(body, "data", Samples(100));
    // 12 + (8 + 16) + (8 + 18) + 8
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("list.wav", Riff(body))), 70);
}

TEST_F(WavFileTest, OddSizedChunkIsFollowedByItsPadByte) {
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 1, 8000, 8));
    Chunk(body, "junk", Bytes{1, 2, 3});   // three bytes and a pad
    Chunk(body, "data", Samples(10));
    // 12 + 24 + (8 + 3 + 1) + 8
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("odd.wav", Riff(body))), 56);
}

TEST_F(WavFileTest, FileWithoutDataChunkHasNoStart) {
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 1, 8000, 16));
    Chunk(body, "LIST", Bytes(20, 'x'));
    const std::string path = Write("nodata.wav", Riff(body));
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    EXPECT_EQ(tw::host::FindWavDataStart(path, error), -1);
    EXPECT_EQ(error, "'" + path + "' has no data chunk");
}

TEST_F(WavFileTest, FileThatIsNotRiffHasNoStart) {
    Bytes notRiff = CanonicalWav(100);
    notRiff[0] = 'R';
    notRiff[1] = 'I';
    notRiff[2] = 'F';
    notRiff[3] = 'X';
    const std::string path = Write("notriff.wav", notRiff);
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    tw::host::FindWavDataStart(path, error);
    EXPECT_EQ(error, "'" + path + "' is not a RIFF file");
}

TEST_F(WavFileTest, RiffFileOfAnotherFormHasNoStart) {
    Bytes body;
    Chunk(body, "data", Samples(100));
    const std::string path = Write("avi.wav", Riff(body, "AVI "));
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    tw::host::FindWavDataStart(path, error);
    EXPECT_EQ(error, "'" + path + "' is a RIFF file but not WAVE");
}

TEST_F(WavFileTest, TruncatedHeaderHasNoStart) {
    const Bytes wav = CanonicalWav(100);
    // Shorter than "RIFF" <size> "WAVE".
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("t8.wav", Bytes(wav.begin(), wav.begin() + 8))), -1);
    // Cut inside the fmt chunk: its size runs past the end.
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("t30.wav", Bytes(wav.begin(), wav.begin() + 30))), -1);
    // Cut inside the data chunk's own header.
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("t40.wav", Bytes(wav.begin(), wav.begin() + 40))), -1);
}

TEST_F(WavFileTest, ChunkSizeRunningPastTheEndHasNoStart) {
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 1, 8000, 16));
    Id(body, "LIST");
    Le32(body, 0xfffffff0u);   // far beyond the file; the data chunk behind it is unreachable
    Chunk(body, "data", Samples(100));
    const std::string path = Write("pastend.wav", Riff(body));
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    tw::host::FindWavDataStart(path, error);
    EXPECT_NE(error.find("chunk 'LIST' at offset 36 declares 4294967280 bytes, past the end"),
              std::string::npos)
        << error;
}

TEST_F(WavFileTest, DataChunkLongerThanTheFileStillGivesItsStart) {
    // A recording cut short, or a streaming writer that never filled in the size.
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 1, 8000, 16));
    Id(body, "data");
    Le32(body, 0xffffffffu);
    const Bytes samples = Samples(300);
    body.insert(body.end(), samples.begin(), samples.end());
    const std::string path = Write("streamed.wav", Riff(body));
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), 44);
    WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(path, info, error)) << error;
    EXPECT_EQ(info.dataBytes, 300);
}

TEST_F(WavFileTest, MissingFileHasNoStart) {
    const std::string path = m_Dir.File("missing.wav");
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    tw::host::FindWavDataStart(path, error);
    EXPECT_EQ(error, "cannot open '" + path + "': No such file or directory");
}

TEST_F(WavFileTest, EmptyFileHasNoStart) {
    const std::string path = Write("empty.wav", Bytes());
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    tw::host::FindWavDataStart(path, error);
    EXPECT_EQ(error, "'" + path + "' is empty");
}

TEST_F(WavFileTest, DirectoryHasNoStart) {
    const std::string path = m_Dir.File("adir");
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), -1);
    std::string error;
    tw::host::FindWavDataStart(path, error);
    EXPECT_EQ(error, "'" + path + "' is not a regular file");
}

TEST_F(WavFileTest, DataChunkWithoutSamplesStartsAtTheEndOfTheFile) {
    const Bytes wav = CanonicalWav(0);
    EXPECT_EQ(GetWavAudioFileDataStartPos(Write("nosamples.wav", wav)), 44);
}

TEST_F(WavFileTest, DamagedFilesNeverGiveAStartOutsideTheFile) {
    // Random damage to headers of several layouts: whatever the parser answers must be -1 or
    // a position inside the file, just after a "data" chunk header.
    std::mt19937 rng(20240611);
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 2, 8000, 16));
    Chunk(body, "junk", Bytes{1, 2, 3});
    Chunk(body, "data", Samples(64));
    const Bytes base = Riff(body);
    const std::string path = m_Dir.File("damaged.wav");
    for (int round = 0; round < 400; ++round) {
        Bytes damaged = base;
        const int edits = 1 + static_cast<int>(rng() % 6);
        for (int e = 0; e < edits; ++e) {
            const size_t at = rng() % 60;   // inside the headers
            damaged[at] = static_cast<unsigned char>(rng());
        }
        damaged.resize(rng() % (damaged.size() + 1));
        Write("damaged.wav", damaged);
        const int start = GetWavAudioFileDataStartPos(path);
        if (start == -1) continue;
        ASSERT_GE(start, 20) << "round " << round;
        ASSERT_LE(static_cast<size_t>(start), damaged.size()) << "round " << round;
        ASSERT_EQ(std::string(damaged.begin() + start - 8, damaged.begin() + start - 4), "data")
            << "round " << round;
    }
}

TEST_F(WavFileTest, FormatOfAPcmFileIsRead) {
    Bytes body;
    Chunk(body, "fmt ", FmtPayload(1, 2, 22050, 16));
    Chunk(body, "LIST", Bytes(6, 'i'));
    Chunk(body, "data", Samples(400));
    WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(Write("fmt.wav", Riff(body)), info, error)) << error;
    EXPECT_EQ(info.formatTag, tw::host::WAV_FORMAT_PCM);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.sampleRate, 22050u);
    EXPECT_EQ(info.byteRate, 88200u);
    EXPECT_EQ(info.blockAlign, 4);
    EXPECT_EQ(info.bitsPerSample, 16);
    EXPECT_EQ(info.dataOffset, 58);
    EXPECT_EQ(info.dataBytes, 400);
}

TEST_F(WavFileTest, ExtensibleFormatReportsItsSubFormat) {
    Bytes fmt = FmtPayload(tw::host::WAV_FORMAT_EXTENSIBLE, 1, 8000, 8);
    Le16(fmt, 22);   // extension size
    Le16(fmt, 8);    // valid bits
    Le32(fmt, 4);    // channel mask
    Le16(fmt, tw::host::WAV_FORMAT_MULAW);   // sub-format GUID, first two bytes the tag
    const unsigned char rest[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                    0x00, 0xaa, 0x00, 0x38, 0x9b, 0x71};
    fmt.insert(fmt.end(), rest, rest + 14);
    ASSERT_EQ(fmt.size(), 40u);
    Bytes body;
    Chunk(body, "fmt ", fmt);
    Chunk(body, "data", Samples(8));
    WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(Write("ext.wav", Riff(body)), info, error)) << error;
    EXPECT_EQ(info.formatTag, tw::host::WAV_FORMAT_MULAW);
}

TEST_F(WavFileTest, FileWithoutFmtChunkHasNoFormat) {
    Bytes body;
    Chunk(body, "data", Samples(8));
    const std::string path = Write("nofmt.wav", Riff(body));
    EXPECT_EQ(GetWavAudioFileDataStartPos(path), 20);
    WavInfo info;
    std::string error;
    EXPECT_FALSE(tw::host::ReadWavInfo(path, info, error));
    EXPECT_EQ(error, "'" + path + "' has no fmt chunk before its end");
}

TEST_F(WavFileTest, ShortFmtChunkIsRefused) {
    Bytes body;
    Chunk(body, "fmt ", Bytes(10, 1));
    Chunk(body, "data", Samples(8));
    const std::string path = Write("shortfmt.wav", Riff(body));
    WavInfo info;
    std::string error;
    EXPECT_FALSE(tw::host::ReadWavInfo(path, info, error));
    EXPECT_EQ(error, "'" + path + "' has a fmt chunk of 10 bytes (at least 16 needed)");
}

TEST_F(WavFileTest, PcmHeaderIsTheCanonical44Bytes) {
    const Bytes header = tw::host::MakeWavHeader(tw::host::WAV_FORMAT_PCM, 2, 8000, 16, 1000);
    Bytes expected;
    Id(expected, "RIFF");
    Le32(expected, 36 + 1000);
    Id(expected, "WAVE");
    Id(expected, "fmt ");
    Le32(expected, 16);
    const Bytes fmt = FmtPayload(1, 2, 8000, 16);
    expected.insert(expected.end(), fmt.begin(), fmt.end());
    Id(expected, "data");
    Le32(expected, 1000);
    EXPECT_EQ(header, expected);
}

TEST_F(WavFileTest, G711HeaderCarriesAFactChunkAndParsesBack) {
    const Bytes header = tw::host::MakeWavHeader(tw::host::WAV_FORMAT_ALAW, 1, 8000, 8, 5);
    ASSERT_EQ(header.size(), 58u);
    Bytes file = header;
    const Bytes samples = Samples(5);
    file.insert(file.end(), samples.begin(), samples.end());
    file.push_back(0);   // pad
    WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(Write("alaw.wav", file), info, error)) << error;
    EXPECT_EQ(info.formatTag, tw::host::WAV_FORMAT_ALAW);
    EXPECT_EQ(info.dataOffset, 58);
    EXPECT_EQ(info.dataBytes, 5);
    // RIFF size: everything after its field, the pad byte included.
    EXPECT_EQ(header[4] | (header[5] << 8), 58 - 8 + 5 + 1);
    EXPECT_EQ(std::string(header.begin() + 38, header.begin() + 42), "fact");
    EXPECT_EQ(header[46], 5);   // sample frames
}

}  // namespace
