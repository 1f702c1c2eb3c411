// twhost audioout: bad input is refused before anything plays, with one error naming it;
// a WAV file played to a device lands byte for byte in the device's WAV-file sink.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "support/childprocess.h"
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

TEST(AudioOutCli, FileIsPlayedIntoTheDevicesWavSinkByteForByte) {
    const std::string in = TempPath("in.wav");
    const std::string out = TempPath("out.wav");
    // 6400 bytes: one short chunk for a device of 16000 bytes a second.
    const std::vector<unsigned char> data = WriteMonoWav(in, 16000, 3200);
    const ChildResult r = AudioOutCmd({"--device-id", "77", "--type", "speaker", "--file", in, "--json", "--sink",
                                       "file:" + out, "--format", "PCM:8000:8:2"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "\"summary\":true")) << r.out;
    EXPECT_TRUE(Contains(r.out, "\"bytes\":6400")) << r.out;
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

}  // namespace
