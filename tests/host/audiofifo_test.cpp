// The shared-memory audio-out FIFOs: what a writer queues comes out of the recorder's
// ShmAudioOutFifo in order, Reset drops it, an empty FIFO reads 0 without waiting, a full
// ring drops its oldest audio, cameras and speakers have separate FIFOs, and a writer in
// one process feeds a reader in another.
#include <gtest/gtest.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/testenv.h"
#include "tw/audio.h"
#include "twhost/audiofifo.h"

namespace {

using Bytes = std::vector<unsigned char>;
using tw::host::AudioOutFifoWriter;
using tw::host::kAudioFifoCapacity;

// Upper bound for waiting on another process: a guard against hanging, not a measurement.
constexpr auto kHangGuard = std::chrono::seconds(60);

struct FifoDetacher {
    void operator()(ShmAudioOutFifo* fifo) const {
        if (fifo != nullptr) shmdt(fifo);
    }
};
using FifoPtr = std::unique_ptr<ShmAudioOutFifo, FifoDetacher>;

// Byte i of a stream numbered n: every offset and stream gives a different pattern.
Bytes Pattern(size_t from, size_t size, int n = 0) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        const size_t at = from + i;
        bytes[i] = static_cast<unsigned char>((at * 131 + at / 251 + static_cast<size_t>(n) * 17) & 0xff);
    }
    return bytes;
}

Bytes ReadAll(ShmAudioOutFifo* fifo, int chunk = 4096) {
    Bytes out;
    Bytes buf(static_cast<size_t>(chunk));
    for (;;) {
        const int n = fifo->GetData(buf.data(), chunk);
        if (n <= 0) break;
        out.insert(out.end(), buf.begin(), buf.begin() + n);
    }
    return out;
}

class AudioFifoTest : public ::testing::Test {
protected:
    // A key base of this process's own, so parallel test processes never share segments.
    tw::test::ScopedProcessKeyBase m_KeyBase{0x20000000u};
};

TEST_F(AudioFifoTest, BytesComeOutInTheOrderTheyWereWritten) {
    AudioOutFifoWriter writer(5, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(5));
    ASSERT_NE(fifo, nullptr);

    const Bytes a = Pattern(0, 1000);
    const Bytes b = Pattern(1000, 500);
    EXPECT_EQ(writer.Write(a.data(), a.size()), 0u);
    EXPECT_EQ(writer.Write(b.data(), b.size()), 0u);
    EXPECT_EQ(writer.GetQueuedBytes(), 1500u);

    Bytes got(700);
    ASSERT_EQ(fifo->GetData(got.data(), 700), 700);
    EXPECT_EQ(got, Pattern(0, 700));
    got.assign(2000, 0);
    ASSERT_EQ(fifo->GetData(got.data(), 2000), 800);
    got.resize(800);
    EXPECT_EQ(got, Pattern(700, 800));
    EXPECT_EQ(writer.GetQueuedBytes(), 0u);
    EXPECT_EQ(writer.GetWrittenBytes(), 1500u);
}

TEST_F(AudioFifoTest, EmptyFifoReadsZeroAtOnce) {
    AudioOutFifoWriter writer(6, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(6));
    ASSERT_NE(fifo, nullptr);
    unsigned char buf[64];
    EXPECT_EQ(fifo->GetData(buf, sizeof(buf)), 0);
    // Nothing asked for, or nowhere to put it, is nothing read.
    const Bytes a = Pattern(0, 10);
    writer.Write(a.data(), a.size());
    EXPECT_EQ(fifo->GetData(buf, 0), 0);
    EXPECT_EQ(fifo->GetData(buf, -5), 0);
    EXPECT_EQ(fifo->GetData(nullptr, 10), 0);
    EXPECT_EQ(writer.GetQueuedBytes(), 10u);
}

TEST_F(AudioFifoTest, ResetDropsTheQueuedBytes) {
    AudioOutFifoWriter writer(7, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(7));
    ASSERT_NE(fifo, nullptr);
    const Bytes old = Pattern(0, 3000, 1);
    writer.Write(old.data(), old.size());
    fifo->Reset();
    unsigned char buf[16];
    EXPECT_EQ(fifo->GetData(buf, sizeof(buf)), 0);
    const Bytes fresh = Pattern(0, 100, 2);
    writer.Write(fresh.data(), fresh.size());
    EXPECT_EQ(ReadAll(fifo.get()), fresh);
}

TEST_F(AudioFifoTest, FullRingDropsTheOldestAudio) {
    AudioOutFifoWriter writer(8, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(8));
    ASSERT_NE(fifo, nullptr);

    const Bytes full = Pattern(0, kAudioFifoCapacity);
    EXPECT_EQ(writer.Write(full.data(), full.size()), 0u);
    const Bytes more = Pattern(kAudioFifoCapacity, 1000);
    EXPECT_EQ(writer.Write(more.data(), more.size()), 1000u);
    EXPECT_EQ(writer.GetDroppedBytes(), 1000u);
    EXPECT_EQ(writer.GetQueuedBytes(), kAudioFifoCapacity);
    // The newest capacity bytes of the stream, in order.
    EXPECT_EQ(ReadAll(fifo.get(), 65536), Pattern(1000, kAudioFifoCapacity));
}

TEST_F(AudioFifoTest, WriteLargerThanTheRingKeepsItsNewestBytes) {
    AudioOutFifoWriter writer(9, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(9));
    ASSERT_NE(fifo, nullptr);
    const Bytes queued = Pattern(0, 100, 3);
    writer.Write(queued.data(), queued.size());
    const Bytes huge = Pattern(0, kAudioFifoCapacity + 5000, 4);
    EXPECT_EQ(writer.Write(huge.data(), huge.size()), 5100u);
    EXPECT_EQ(ReadAll(fifo.get(), 65536), Bytes(huge.begin() + 5000, huge.end()));
}

TEST_F(AudioFifoTest, OrderSurvivesManyTurnsOfTheRing) {
    AudioOutFifoWriter writer(10, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(10));
    ASSERT_NE(fifo, nullptr);
    // Odd sizes so that reads and writes cross the end of the ring at every offset.
    size_t written = 0;
    size_t read = 0;
    Bytes buf(70001);
    while (written < 5 * kAudioFifoCapacity) {
        const Bytes part = Pattern(written, 50021);
        writer.Write(part.data(), part.size());
        written += part.size();
        const int n = fifo->GetData(buf.data(), 50021);
        ASSERT_EQ(n, 50021);
        ASSERT_EQ(Bytes(buf.begin(), buf.begin() + n), Pattern(read, static_cast<size_t>(n)));
        read += static_cast<size_t>(n);
    }
    EXPECT_EQ(writer.GetDroppedBytes(), 0u);
}

TEST_F(AudioFifoTest, CamerasAndSpeakersHaveSeparateFifos) {
    AudioOutFifoWriter camera(11, false);
    AudioOutFifoWriter speaker(11, true);
    std::string error;
    ASSERT_TRUE(camera.Open(error)) << error;
    EXPECT_EQ(FifoPtr(IPSpeakerAudioOutFifoAt(11)), nullptr);
    ASSERT_TRUE(speaker.Open(error)) << error;
    EXPECT_NE(camera.GetKey(), speaker.GetKey());

    const Bytes forCamera = Pattern(0, 300, 5);
    const Bytes forSpeaker = Pattern(0, 200, 6);
    camera.Write(forCamera.data(), forCamera.size());
    speaker.Write(forSpeaker.data(), forSpeaker.size());
    FifoPtr cameraFifo(AudioOutFifoAt(11));
    FifoPtr speakerFifo(IPSpeakerAudioOutFifoAt(11));
    ASSERT_NE(cameraFifo, nullptr);
    ASSERT_NE(speakerFifo, nullptr);
    EXPECT_EQ(ReadAll(speakerFifo.get()), forSpeaker);
    EXPECT_EQ(ReadAll(cameraFifo.get()), forCamera);
}

TEST_F(AudioFifoTest, DeviceWithoutFifoGivesNull) {
    EXPECT_EQ(FifoPtr(AudioOutFifoAt(12)), nullptr);
    EXPECT_EQ(FifoPtr(IPSpeakerAudioOutFifoAt(12)), nullptr);
    EXPECT_EQ(FifoPtr(AudioOutFifoAt(-1)), nullptr);
    EXPECT_EQ(FifoPtr(IPSpeakerAudioOutFifoAt(70000)), nullptr);
}

TEST_F(AudioFifoTest, BadDeviceIdIsRefusedByTheWriter) {
    AudioOutFifoWriter writer(70000, true);
    std::string error;
    EXPECT_FALSE(writer.Open(error));
    EXPECT_EQ(error, "audio-out FIFO of IP speaker 70000: invalid device id 70000 (0..65535)");
    EXPECT_FALSE(writer.IsOpen());
    EXPECT_EQ(writer.Write("abc", 3), 0u);
}

TEST_F(AudioFifoTest, ClosedFifoIsGoneForNewReadersButNotForAttachedOnes) {
    AudioOutFifoWriter writer(13, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(13));
    ASSERT_NE(fifo, nullptr);
    const Bytes last = Pattern(0, 640, 7);
    writer.Write(last.data(), last.size());
    writer.Close();
    EXPECT_EQ(FifoPtr(AudioOutFifoAt(13)), nullptr);
    EXPECT_EQ(ReadAll(fifo.get()), last);
}

// Runs body in a child process; its exit status is 0 when body returned true.
pid_t Fork(const std::function<bool()>& body) {
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) _exit(body() ? 0 : 1);
    return pid;
}

bool WaitChild(pid_t pid) {
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return false;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(AudioFifoTest, WriterInAnotherProcessFeedsThisReader) {
    int ready[2];
    int done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    constexpr size_t kTotal = 300000;   // less than the ring: nothing may be dropped
    const pid_t child = Fork([&]() {
        AudioOutFifoWriter writer(14, true);
        std::string error;
        const char ok = writer.Open(error) ? '1' : '0';
        if (write(ready[1], &ok, 1) != 1 || ok != '1') return false;
        // Small writes while the reader reads.
        for (size_t at = 0; at < kTotal; at += 997) {
            const Bytes part = Pattern(at, std::min<size_t>(997, kTotal - at), 8);
            writer.Write(part.data(), part.size());
        }
        char c = 0;
        return read(done[0], &c, 1) == 1;   // keep the FIFO until the reader is through
    });
    ASSERT_GT(child, 0);
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, '1');
    FifoPtr fifo(IPSpeakerAudioOutFifoAt(14));
    ASSERT_NE(fifo, nullptr);
    Bytes got;
    Bytes buf(8000);
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (got.size() < kTotal && std::chrono::steady_clock::now() < guard) {
        const int n = fifo->GetData(buf.data(), static_cast<int>(buf.size()));
        if (n > 0) {
            got.insert(got.end(), buf.begin(), buf.begin() + n);
        } else {
            std::this_thread::yield();
        }
    }
    const char bye = 'x';
    EXPECT_EQ(write(done[1], &bye, 1), 1);
    EXPECT_TRUE(WaitChild(child));
    EXPECT_EQ(got, Pattern(0, kTotal, 8));
    for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
}

TEST_F(AudioFifoTest, SecondWriterOfALiveWriterIsRefused) {
    int ready[2];
    int done[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(done), 0);
    const pid_t child = Fork([&]() {
        AudioOutFifoWriter writer(15, false);
        std::string error;
        const char ok = writer.Open(error) ? '1' : '0';
        if (write(ready[1], &ok, 1) != 1) return false;
        char c = 0;
        return read(done[0], &c, 1) == 1;
    });
    ASSERT_GT(child, 0);
    char ok = 0;
    ASSERT_EQ(read(ready[0], &ok, 1), 1);
    ASSERT_EQ(ok, '1');
    AudioOutFifoWriter second(15, false);
    std::string error;
    EXPECT_FALSE(second.Open(error));
    EXPECT_EQ(error, "the audio-out FIFO of camera or I/O module 15 is owned already by process " +
                         std::to_string(child));
    const char bye = 'x';
    EXPECT_EQ(write(done[1], &bye, 1), 1);
    EXPECT_TRUE(WaitChild(child));
    for (int fd : {ready[0], ready[1], done[0], done[1]}) close(fd);
}

TEST_F(AudioFifoTest, FifoOfAWriterThatDiedStaysReadableAndCanBeTakenOver) {
    const Bytes before = Pattern(0, 4000, 9);
    const pid_t child = Fork([&]() {
        AudioOutFifoWriter writer(16, false);
        std::string error;
        if (!writer.Open(error)) return false;
        writer.Write(before.data(), before.size());
        _exit(0);   // gone without removing its FIFO
    });
    ASSERT_GT(child, 0);
    ASSERT_TRUE(WaitChild(child));
    {
        FifoPtr fifo(AudioOutFifoAt(16));
        ASSERT_NE(fifo, nullptr);
        EXPECT_EQ(ReadAll(fifo.get()), before);
    }
    AudioOutFifoWriter writer(16, false);
    std::string error;
    ASSERT_TRUE(writer.Open(error)) << error;
    FifoPtr fifo(AudioOutFifoAt(16));
    ASSERT_NE(fifo, nullptr);
    unsigned char buf[8];
    EXPECT_EQ(fifo->GetData(buf, sizeof(buf)), 0);   // a fresh, empty ring
}

}  // namespace
