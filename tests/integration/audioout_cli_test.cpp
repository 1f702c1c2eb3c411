// twhost audioout: bad input is refused before anything plays, with one error naming it;
// a WAV file played to a device lands byte for byte in the device's WAV-file sink.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "twhost/wavfile.h"

namespace {

using tw::test::ChildResult;

ChildResult AudioOutCmd(std::vector<std::string> args) {
    args.insert(args.begin(), {TW_TWHOST_BIN, "audioout"});
    return tw::test::RunChild(args);
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::string TempPath(const std::string& stem) {
    return "/tmp/tw_audioout_cli_" + stem + "_" + std::to_string(getpid());
}

std::vector<unsigned char> ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// A 16-bit mono WAV of n samples.
std::vector<unsigned char> WriteMonoWav(const std::string& path, int rate, int samples) {
    std::vector<unsigned char> data(static_cast<size_t>(samples) * 2);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>((i * 13) & 0xff);
    std::vector<unsigned char> file = tw::host::MakeWavHeader(tw::host::WAV_FORMAT_PCM, 1, rate, 16,
                                                              static_cast<uint32_t>(data.size()));
    file.insert(file.end(), data.begin(), data.end());
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()),
                                                static_cast<std::streamsize>(file.size()));
    return data;
}

// A WAV of the given format and data.
void WriteWav(const std::string& path, uint16_t tag, int channels, int rate, int bits,
              const std::vector<unsigned char>& data) {
    std::vector<unsigned char> file =
        tw::host::MakeWavHeader(tag, channels, rate, bits, static_cast<uint32_t>(data.size()));
    file.insert(file.end(), data.begin(), data.end());
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(file.data()),
                                                static_cast<std::streamsize>(file.size()));
}

// The data chunk of a WAV file, and its format.
std::vector<unsigned char> WavData(const std::string& path, tw::host::WavInfo& info) {
    std::string error;
    EXPECT_TRUE(tw::host::ReadWavInfo(path, info, error)) << error;
    const std::vector<unsigned char> all = ReadAll(path);
    if (info.dataOffset < 0 || static_cast<size_t>(info.dataOffset) > all.size()) return {};
    return std::vector<unsigned char>(all.begin() + info.dataOffset, all.end());
}

// The one summary line, after every line was checked against the README's table.
Json::Value Summary(const std::string& out) {
    std::vector<Json::Value> lines;
    std::string error;
    EXPECT_TRUE(tw::test::ParseJsonLines(out, lines, error)) << error;
    EXPECT_EQ(tw::test::CheckJsonLines("twhost audioout", lines), std::vector<std::string>()) << out;
    const std::vector<Json::Value> summary = tw::test::LinesOfType(lines, "summary");
    EXPECT_EQ(summary.size(), 1u) << out;
    return summary.empty() ? Json::Value() : summary.back();
}

// A G.711 mu-law byte back to its 16-bit value.
int MuLawValue(unsigned char byte) {
    const int u = ~byte & 0xff;
    const int t = (((u & 0x0f) << 3) + 0x84) << ((u & 0x70) >> 4);
    return (u & 0x80) ? 0x84 - t : t - 0x84;
}

struct BadInput {
    std::string name;
    std::vector<std::string> args;
    std::string expected;
};

class AudioOutBadInput : public ::testing::TestWithParam<BadInput> {};

TEST_P(AudioOutBadInput, IsRefusedAsBadUsageNamingIt) {
    const ChildResult r = AudioOutCmd(GetParam().args);
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 2) << r.err;
    EXPECT_TRUE(Contains(r.err, GetParam().expected)) << r.err;
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Options, AudioOutBadInput,
    ::testing::Values(
        BadInput{"NoDevice", {"--live", "--sink", "file:/tmp/x.wav"}, "--device-id"},
        BadInput{"ZeroDevice", {"--device-id", "0", "--live", "--sink", "file:/tmp/x.wav"}, "--device-id"},
        BadInput{"NoSink", {"--device-id", "3", "--live"}, "--sink"},
        BadInput{"NeitherFileNorLive", {"--device-id", "3", "--sink", "file:/tmp/x.wav"},
                 "give exactly one of --file WAV and --live"},
        BadInput{"BadType", {"--device-id", "3", "--type", "radio", "--live", "--sink", "file:/tmp/x.wav"},
                 "bad --type 'radio'"},
        BadInput{"MissingFile", {"--device-id", "3", "--file", "/no/such.wav", "--sink", "file:/tmp/x.wav"},
                 "bad --file"},
        BadInput{"BadFormat", {"--device-id", "3", "--live", "--format", "PCM:8000", "--sink", "file:/tmp/x.wav"},
                 "bad --format 'PCM:8000'"},
        BadInput{"ZeroRate", {"--device-id", "3", "--live", "--format", "PCM:0:16:1", "--sink", "file:/tmp/x.wav"},
                 "rate, bits and channels must be positive integers"},
        BadInput{"BadSink", {"--device-id", "3", "--live", "--sink", "ftp://host/x"}, "bad --sink"}),
    [](const ::testing::TestParamInfo<BadInput>& info) { return info.param.name; });

TEST(AudioOutCli, FileIsPlayedAsIsIntoTheDevicesWavSinkByteForByte) {
    const std::string in = TempPath("in.wav");
    const std::string out = TempPath("out.wav");
    // 6400 bytes: one short chunk for a device of 16000 bytes a second.
    const std::vector<unsigned char> data = WriteMonoWav(in, 16000, 3200);
    // --as-is: the file's bytes, relabelled by the device's format, not converted.
    const ChildResult r = AudioOutCmd({"--device-id", "77", "--type", "speaker", "--file", in, "--json", "--sink",
                                       "file:" + out, "--format", "PCM:8000:8:2", "--as-is"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const Json::Value summary = Summary(r.out);
    EXPECT_EQ(summary["bytes"].asInt64(), 6400) << r.out;
    EXPECT_TRUE(summary["settings"]["asIs"].asBool());
    tw::host::WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(out, info, error)) << error;
    EXPECT_EQ(info.sampleRate, 8000u);
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.bitsPerSample, 8);
    const std::vector<unsigned char> all = ReadAll(out);
    ASSERT_GE(info.dataOffset, 0);
    EXPECT_EQ(std::vector<unsigned char>(all.begin() + info.dataOffset, all.end()), data);
    std::remove(in.c_str());
    std::remove(out.c_str());
}

// A one-channel device gets the whole file: before, the plug-in's down-mix halved it.
TEST(AudioOutCli, EightBitMonoFileReachesAOneChannelDeviceWhole) {
    const std::string in = TempPath("mono8.wav");
    const std::string out = TempPath("mono8_out.wav");
    std::vector<unsigned char> data(4000);   // half a second at 8 kHz
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(128 + ((i * 7) % 61) - 30);
    WriteWav(in, tw::host::WAV_FORMAT_PCM, 1, 8000, 8, data);
    const ChildResult r = AudioOutCmd({"--device-id", "78", "--file", in, "--json", "--sink", "file:" + out});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    tw::host::WavInfo info;
    EXPECT_EQ(WavData(out, info), data);
    EXPECT_EQ(info.channels, 1);
    const Json::Value summary = Summary(r.out);
    EXPECT_EQ(summary["bytes"].asInt64(), 4000);
    EXPECT_DOUBLE_EQ(summary["seconds"].asDouble(), 0.5);
    EXPECT_EQ(summary["endReason"].asString(), "completed");
    EXPECT_EQ(summary["input"].asString(), in);
    EXPECT_EQ(summary["settings"]["format"]["bits"].asInt(), 8);
    std::remove(in.c_str());
    std::remove(out.c_str());
}

// 16-bit samples pass the one-byte down-mix intact too: every byte goes in twice.
TEST(AudioOutCli, SixteenBitMonoFileReachesAOneChannelDeviceByteForByte) {
    const std::string in = TempPath("mono16.wav");
    const std::string out = TempPath("mono16_out.wav");
    const std::vector<unsigned char> data = WriteMonoWav(in, 8000, 2000);
    const ChildResult r = AudioOutCmd({"--device-id", "79", "--file", in, "--sink", "file:" + out});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    tw::host::WavInfo info;
    EXPECT_EQ(WavData(out, info), data);
    EXPECT_EQ(info.bitsPerSample, 16);
    EXPECT_TRUE(Contains(r.out, "0.25 s of audio, 4000 bytes")) << r.out;
    std::remove(in.c_str());
    std::remove(out.c_str());
}

// A PCM file for a G.711 device is encoded, not relabelled: the device's bytes decode to
// the file's samples within mu-law's step.
TEST(AudioOutCli, PcmFileIsEncodedForAG711Device) {
    const std::string in = TempPath("pcm.wav");
    const std::string out = TempPath("ulaw_out.wav");
    std::vector<unsigned char> data;
    std::vector<int> samples;
    for (int i = 0; i < 2000; ++i) {
        const int v = (i % 200) * 100 - 10000;
        samples.push_back(v);
        data.push_back(static_cast<unsigned char>(v & 0xff));
        data.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
    }
    WriteWav(in, tw::host::WAV_FORMAT_PCM, 1, 8000, 16, data);
    const ChildResult r = AudioOutCmd(
        {"--device-id", "80", "--file", in, "--format", "G711U:8000:8:1", "--json", "--sink", "file:" + out});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    tw::host::WavInfo info;
    const std::vector<unsigned char> sent = WavData(out, info);
    EXPECT_EQ(info.formatTag, tw::host::WAV_FORMAT_MULAW);
    ASSERT_EQ(sent.size(), samples.size());
    for (size_t i = 0; i < sent.size(); ++i) {
        // mu-law keeps about 4 significant bits over a segment: 1/16 of the value, and more.
        EXPECT_NEAR(MuLawValue(sent[i]), samples[i], std::abs(samples[i]) / 16 + 40) << "sample " << i;
    }
    EXPECT_DOUBLE_EQ(Summary(r.out)["seconds"].asDouble(), 0.25);
    std::remove(in.c_str());
    std::remove(out.c_str());
}

TEST(AudioOutCli, FormatTwhostCannotProduceIsRefusedBeforeStarting) {
    const std::string in = TempPath("refused.wav");
    WriteMonoWav(in, 8000, 100);
    const ChildResult r = AudioOutCmd({"--device-id", "81", "--file", in, "--format", "G711U:8000:16:1", "--sink",
                                       "file:" + TempPath("refused_out.wav")});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 2) << r.err;
    EXPECT_TRUE(Contains(r.err, "bad --format G711U:8000:16:1: G.711 has 8 bits per sample")) << r.err;
    EXPECT_EQ(r.out, "");
    std::remove(in.c_str());
}

TEST(AudioOutCli, SinkThatCannotBeCreatedSaysWhyAtOnce) {
    const std::string in = TempPath("nosink.wav");
    WriteMonoWav(in, 8000, 8000);
    const ChildResult r = AudioOutCmd({"--device-id", "82", "--file", in, "--json", "--sink", "file:/nonexistent/x.wav"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_TRUE(Contains(r.err, "No such file or directory")) << r.err;
    EXPECT_FALSE(Contains(r.err, "could not be connected")) << r.err;
    const Json::Value summary = Summary(r.out);
    EXPECT_EQ(summary["endReason"].asString(), "sink failed");
    EXPECT_TRUE(Contains(summary["sinkError"].asString(), "No such file or directory")) << r.out;
    std::remove(in.c_str());
}

TEST(AudioOutCli, SinkFileIsNeverTheInputAndIsReplacedOnlyWithOverwrite) {
    const std::string in = TempPath("keep.wav");
    const std::vector<unsigned char> data = WriteMonoWav(in, 8000, 800);
    const std::vector<unsigned char> before = ReadAll(in);
    ChildResult r = AudioOutCmd({"--device-id", "83", "--file", in, "--sink", "file:" + in, "-y"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_TRUE(Contains(r.err, "'" + in + "' is also an input of this command")) << r.err;
    EXPECT_EQ(ReadAll(in), before);

    const std::string out = TempPath("existing_out.wav");
    std::ofstream(out) << "old";
    r = AudioOutCmd({"--device-id", "83", "--file", in, "--sink", "file:" + out});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_TRUE(Contains(r.err, "'" + out + "' exists; add -y (--overwrite) to replace it")) << r.err;
    EXPECT_EQ(ReadAll(out), (std::vector<unsigned char>{'o', 'l', 'd'}));

    r = AudioOutCmd({"--device-id", "83", "--file", in, "--sink", "file:" + out, "--overwrite"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    tw::host::WavInfo info;
    EXPECT_EQ(WavData(out, info), data);
    std::remove(in.c_str());
    std::remove(out.c_str());
}

TEST(AudioOutCli, SigintStopsTheOutputPrintsTheSummaryAndExits130) {
    const std::string in = TempPath("long.wav");
    const std::string out = TempPath("long_out.wav");
    WriteMonoWav(in, 8000, 8000 * 30);
    tw::test::ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "audioout", "--device-id", "84", "--file", in, "--json", "--sink",
                             "file:" + out},
                            error))
        << error;
    // Audio has reached the sink once a progress line reports bytes.
    for (int i = 0; i < 5000 && !Contains(child.PeekOut(), "\"bytes\":8000"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(Contains(child.PeekOut(), "\"bytes\":8000")) << child.PeekOut();
    child.Signal(SIGINT);
    const ChildResult r = child.Wait();
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 130) << r.err;
    const Json::Value summary = Summary(r.out);
    EXPECT_EQ(summary["endReason"].asString(), "interrupted");
    // What the summary counts is what the sink file holds.
    tw::host::WavInfo info;
    EXPECT_EQ(static_cast<int64_t>(WavData(out, info).size()), summary["bytes"].asInt64());
    EXPECT_LT(summary["bytes"].asInt64(), 16000 * 30);
    std::remove(in.c_str());
    std::remove(out.c_str());
}

TEST(AudioOutCli, WriteErrorOnStandardOutputIsOneMessageAndExitOne) {
    const std::string in = TempPath("full.wav");
    const std::string out = TempPath("full_out.wav");
    WriteMonoWav(in, 8000, 800);
    const ChildResult r = tw::test::RunChild({"/bin/sh", "-c",
                                              std::string(TW_TWHOST_BIN) + " audioout --device-id 85 --file " + in +
                                                  " --sink file:" + out + " > /dev/full"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_EQ(r.err, "twhost audioout: cannot write to standard output: No space left on device\n");
    std::remove(in.c_str());
    std::remove(out.c_str());
}

}  // namespace
