// "twhost audiofeed" as its users meet it: bad sources and bad device ids end with one
// error line naming them; a WAV file's data chunk arrives, byte for byte, in the device's
// shared-memory FIFO where the recorder's reader finds it; SIGINT ends a feed cleanly and
// the FIFO goes with it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "support/testenv.h"
#include "tw/audio.h"
#include "twhost/audiofifo.h"

namespace {

using Bytes = std::vector<unsigned char>;
using tw::test::ChildProcess;
using tw::test::ChildResult;
using tw::test::SplitLines;

// Upper bound for waiting on the child: a guard against hanging, not a measurement.
constexpr auto kHangGuard = std::chrono::seconds(60);

struct FifoDetacher {
    void operator()(ShmAudioOutFifo* fifo) const {
        if (fifo != nullptr) shmdt(fifo);
    }
};
using FifoPtr = std::unique_ptr<ShmAudioOutFifo, FifoDetacher>;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

void Le16(Bytes& out, uint32_t v) {
    out.push_back(static_cast<unsigned char>(v & 0xff));
    out.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
}

void Le32(Bytes& out, uint32_t v) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>((v >> (8 * i)) & 0xff));
}

void Chunk(Bytes& out, const char* id, const Bytes& payload) {
    out.insert(out.end(), id, id + 4);
    Le32(out, static_cast<uint32_t>(payload.size()));
    out.insert(out.end(), payload.begin(), payload.end());
    if (payload.size() & 1) out.push_back(0);
}

Bytes Samples(size_t n) {
    Bytes s(n);
    for (size_t i = 0; i < n; ++i) s[i] = static_cast<unsigned char>((i * 53 + i / 256) & 0xff);
    return s;
}

// 8 kHz 8-bit mono PCM (8000 bytes a second) with the samples given, and a LIST chunk after
// the data that must not be fed.
Bytes Wav(const Bytes& samples) {
    Bytes fmt;
    Le16(fmt, 1);
    Le16(fmt, 1);
    Le32(fmt, 8000);
    Le32(fmt, 8000);
    Le16(fmt, 1);
    Le16(fmt, 8);
    Bytes body;
    Chunk(body, "fmt ", fmt);
    Chunk(body, "data", samples);
    Chunk(body, "LIST", Bytes(40, 'L'));
    Bytes out = {'R', 'I', 'F', 'F'};
    Le32(out, static_cast<uint32_t>(body.size() + 4));
    out.insert(out.end(), {'W', 'A', 'V', 'E'});
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

class TwhostAudioFeed : public ::testing::Test {
protected:
    // Keys of this process only, so no FIFO of another run can be met.
    tw::test::ScopedProcessKeyBase m_KeyBase{0x38000000u};

    static ChildResult Twhost(std::vector<std::string> args) {
        args.insert(args.begin(), TW_TWHOST_BIN);
        return tw::test::RunChild(args);
    }

    std::string Write(const std::string& name, const Bytes& bytes) {
        const std::string path = m_Dir.File(name);
        FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr) {
            ADD_FAILURE() << "cannot write " << path;
            return path;
        }
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
        return path;
    }

    static void ExpectOneErrorNaming(const ChildResult& r, const std::string& text) {
        const std::vector<std::string> lines = SplitLines(r.err);
        ASSERT_EQ(lines.size(), 1u) << r.err;
        EXPECT_TRUE(Contains(lines[0], text)) << lines[0];
        EXPECT_EQ(r.out, "");
    }

    tw::test::ScopedTempDir m_Dir;
};

TEST_F(TwhostAudioFeed, MissingFileFailsNamingIt) {
    const std::string path = m_Dir.File("absent.wav");
    const ChildResult r = Twhost({"audiofeed", path, "--device-id", "3"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "twhost audiofeed: cannot open '" + path + "': No such file or directory");
}

TEST_F(TwhostAudioFeed, FileThatIsNotWavFailsNamingIt) {
    const std::string path = Write("notes.wav", Bytes{'j', 'u', 's', 't', ' ', 's', 'o', 'm', 'e',
                                                      ' ', 't', 'e', 'x', 't', '\n'});
    const ChildResult r = Twhost({"audiofeed", path, "--device-id", "3"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "twhost audiofeed: '" + path + "' is not a RIFF file");
}

TEST_F(TwhostAudioFeed, WavWithoutDataFailsNamingIt) {
    Bytes wav = Wav(Bytes());
    wav[36] = 'D';   // the data chunk's id: no data chunk any more
    const std::string path = Write("nodata.wav", wav);
    const ChildResult r = Twhost({"audiofeed", path, "--device-id", "3"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "twhost audiofeed: '" + path + "' has no data chunk");
}

TEST_F(TwhostAudioFeed, BadDeviceIdIsAUsageErrorNamingTheOption) {
    const std::string path = Write("ok.wav", Wav(Samples(10)));
    for (const char* id : {"0", "-4", "65536", "speaker"}) {
        const ChildResult r = Twhost({"audiofeed", path, "--device-id", id});
        ASSERT_TRUE(r.exited) << r.Describe();
        EXPECT_EQ(r.exitCode, 2) << id;
        EXPECT_TRUE(Contains(r.err, "--device-id")) << r.err;
        EXPECT_EQ(r.out, "");
    }
    const ChildResult r = Twhost({"audiofeed", path});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 2);
    EXPECT_TRUE(Contains(r.err, "--device-id is required")) << r.err;
}

TEST_F(TwhostAudioFeed, RawInputWithoutByteRateIsAUsageError) {
    const ChildResult r = Twhost({"audiofeed", "-", "--device-id", "3"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 2);
    ExpectOneErrorNaming(r, "twhost audiofeed: raw input from standard input needs --byte-rate");
}

TEST_F(TwhostAudioFeed, FifoOwnedByAnotherProcessFailsNamingTheDevice) {
    tw::host::AudioOutFifoWriter mine(21, false);
    std::string error;
    ASSERT_TRUE(mine.Open(error)) << error;
    const std::string path = Write("ok.wav", Wav(Samples(10)));
    const ChildResult r = Twhost({"audiofeed", path, "--device-id", "21"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    ExpectOneErrorNaming(r, "twhost audiofeed: the audio-out FIFO of camera or I/O module 21 is owned "
                            "already by process " + std::to_string(getpid()));
}

TEST_F(TwhostAudioFeed, EmptyRawInputEndsAtOnce) {
    // The child's standard input is /dev/null.
    const ChildResult r = Twhost({"audiofeed", "-", "--device-id", "3", "--speaker", "--byte-rate", "8000"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::vector<std::string> lines = SplitLines(r.out);
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_TRUE(Contains(lines[0], "feeding standard input (raw) at 8000 bytes/s into the audio-out FIFO "
                                   "of IP speaker 3"))
        << lines[0];
    EXPECT_TRUE(Contains(lines[1], "twhost audiofeed: source ended after ")) << lines[1];
    EXPECT_TRUE(Contains(lines[1], ": 0 bytes fed (0 dropped, 0 unread); audio-out FIFO removed")) << lines[1];
}

TEST_F(TwhostAudioFeed, WavDataArrivesInTheSpeakersFifo) {
    const Bytes samples = Samples(8000);   // one second
    const std::string path = Write("second.wav", Wav(samples));
    ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "audiofeed", path, "--device-id", "22", "--speaker"}, error))
        << error;
    FifoPtr fifo;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!fifo && std::chrono::steady_clock::now() < guard && child.IsRunning()) {
        fifo.reset(IPSpeakerAudioOutFifoAt(22));
        if (!fifo) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_NE(fifo, nullptr) << "the feeder's FIFO never appeared";
    // The camera of the same id has no FIFO: the speaker's is its own.
    EXPECT_EQ(FifoPtr(AudioOutFifoAt(22)), nullptr);
    Bytes got;
    Bytes buf(4000);
    while (got.size() < samples.size() && std::chrono::steady_clock::now() < guard) {
        const int n = fifo->GetData(buf.data(), static_cast<int>(buf.size()));
        if (n > 0) {
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    const ChildResult r = child.Wait();
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(got, samples);
    EXPECT_EQ(r.err, "");
    const std::vector<std::string> lines = SplitLines(r.out);
    ASSERT_GE(lines.size(), 2u) << r.out;
    EXPECT_TRUE(Contains(lines.front(), "feeding '" + path + "' (PCM, 8000 Hz, 8-bit, 1 ch, 1.0 s) at 8000 "
                                        "bytes/s into the audio-out FIFO of IP speaker 22"))
        << lines.front();
    EXPECT_TRUE(Contains(lines.back(), "source ended after")) << lines.back();
    EXPECT_TRUE(Contains(lines.back(), ": 8000 bytes fed (0 dropped, ")) << lines.back();
    // Gone for new readers once the feeder ended.
    EXPECT_EQ(FifoPtr(IPSpeakerAudioOutFifoAt(22)), nullptr);
}

TEST_F(TwhostAudioFeed, InterruptEndsTheFeedAndRemovesTheFifo) {
    const std::string path = Write("long.wav", Wav(Samples(8000 * 60)));
    ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "audiofeed", path, "--device-id", "23"}, error)) << error;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!Contains(child.PeekOut(), "feeding") && child.IsRunning() &&
           std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(Contains(child.PeekOut(), "feeding")) << child.PeekOut();
    EXPECT_NE(FifoPtr(AudioOutFifoAt(23)), nullptr);
    child.Signal(SIGINT);
    const ChildResult r = child.Wait();
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 130) << r.err;
    EXPECT_TRUE(Contains(SplitLines(r.out).back(), "twhost audiofeed: interrupted after ")) << r.out;
    EXPECT_EQ(FifoPtr(AudioOutFifoAt(23)), nullptr);
}

TEST_F(TwhostAudioFeed, JsonLinesFollowTheReadmeTable) {
    const ChildResult r =
        Twhost({"audiofeed", "-", "--device-id", "4", "--speaker", "--byte-rate", "8000", "--json"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    std::vector<Json::Value> lines;
    std::string error;
    ASSERT_TRUE(tw::test::ParseJsonLines(r.out, lines, error)) << error;
    EXPECT_EQ(tw::test::CheckJsonLines("twhost audiofeed", lines), std::vector<std::string>()) << r.out;
    ASSERT_EQ(lines.size(), 2u) << r.out;
    EXPECT_EQ(lines[0]["type"].asString(), "start");
    EXPECT_EQ(lines[0]["byteRate"].asInt(), 8000);
    EXPECT_EQ(lines[1]["type"].asString(), "summary");
    EXPECT_EQ(lines[1]["endReason"].asString(), "completed");
    EXPECT_EQ(lines[1]["input"].asString(), "-");
    EXPECT_EQ(lines[1]["settings"]["deviceId"].asInt(), 4);
    EXPECT_EQ(lines[1]["bytes"].asUInt64(), 0u);
}

}  // namespace
