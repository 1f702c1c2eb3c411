// The live FIFO in System V shared memory: a publisher and the recorder's reader API in one
// process, and the "twhost stream" process publishing a clip that this process reads.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "tw/camera.h"
#include "tw/stream.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/mediasource.h"
#include "twhost/shmfifo.h"

namespace {

using tw::host::LiveStreamShmKey;
using tw::host::ShmStreamPublisher;

using Bytes = std::vector<unsigned char>;

// Upper bound for waiting on another process: a guard against hanging, not a measurement.
constexpr auto kHangGuard = std::chrono::seconds(60);

Bytes Pattern(int n, size_t size) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<unsigned char>((n * 7 + static_cast<int>(i)) & 0xff);
    }
    return bytes;
}

// Frames of the wrap-around test: the first four bytes carry n, the rest derive from it.
Bytes NumberedFrame(uint32_t n) {
    const size_t size = 1000 + (n * 2654435761u) % 31000;
    Bytes bytes = Pattern(static_cast<int>(n), size);
    std::memcpy(bytes.data(), &n, sizeof(n));
    return bytes;
}

bool IsNumberedFrame(const unsigned char* frame, int size) {
    if (frame == nullptr || size < 4) {
        return false;
    }
    uint32_t n = 0;
    std::memcpy(&n, frame, sizeof(n));
    const Bytes expected = NumberedFrame(n);
    return static_cast<size_t>(size) == expected.size() &&
           std::memcmp(frame + 4, expected.data() + 4, expected.size() - 4) == 0;
}

Bytes Take(unsigned char* frame, int size) {
    Bytes bytes(frame, frame + size);
    delete[] frame;
    return bytes;
}

struct ShmDetacher {
    void operator()(ShmStreamFifo* fifo) const {
        if (fifo != nullptr) {
            shmdt(fifo);
        }
    }
};
using FifoPtr = std::unique_ptr<ShmStreamFifo, ShmDetacher>;

class ShmFifoTest : public ::testing::Test {
protected:
    void SetUp() override {
        av_log_set_level(AV_LOG_FATAL);
        // A key base of this process's own, so parallel test processes never share segments.
        char base[32];
        const unsigned slot = static_cast<unsigned>(getpid()) & 0xffffu;
        std::snprintf(base, sizeof(base), "0x%x", 0x10000000u + slot * 0x10000u);
        setenv("TW_SHM_KEY_BASE", base, 1);
        m_Base = std::strtoll(base, nullptr, 0);
    }
    void TearDown() override {
        tw::host::SetClock(nullptr);
        unsetenv("TW_SHM_KEY_BASE");
    }

    key_t KeyOf(int camId, int streamNo) const {
        return static_cast<key_t>(m_Base + camId * 8LL + streamNo);
    }

    long long m_Base = 0;
};

TEST_F(ShmFifoTest, KeyIsTheBasePlusEightPerCameraPlusTheStreamNumber) {
    key_t key = 0;
    std::string error;
    ASSERT_TRUE(LiveStreamShmKey(7200, 3, key, error)) << error;
    EXPECT_EQ(key, KeyOf(7200, 3));

    unsetenv("TW_SHM_KEY_BASE");
    ASSERT_TRUE(LiveStreamShmKey(7200, 3, key, error)) << error;
    EXPECT_EQ(key, static_cast<key_t>(0x54570000 + 7200 * 8 + 3));

    setenv("TW_SHM_KEY_BASE", "zz", 1);
    EXPECT_FALSE(LiveStreamShmKey(7200, 3, key, error));
    EXPECT_EQ(error, "invalid TW_SHM_KEY_BASE 'zz'");
}

TEST_F(ShmFifoTest, StreamNumberOutsideTheCameraOrNegativeCameraIsRefused) {
    key_t key = 0;
    std::string error;
    EXPECT_FALSE(LiveStreamShmKey(7201, 8, key, error));
    EXPECT_EQ(error, "invalid stream number 8 (0..7)");
    EXPECT_FALSE(LiveStreamShmKey(-1, 0, key, error));
    EXPECT_EQ(error, "invalid camera id -1 (0..32767)");
    EXPECT_EQ(LiveStreamFifoAt(7201, 8), nullptr);

    ShmStreamPublisher publisher(7201, -1);
    EXPECT_FALSE(publisher.Open(error));
    EXPECT_EQ(error, "invalid stream number -1 (0..7)");
}

TEST_F(ShmFifoTest, WithoutAPublisherThereIsNoFifo) {
    EXPECT_EQ(LiveStreamFifoAt(7202, 0), nullptr);
    LiveStreamUpdater updater(7202, 0);
    EXPECT_EQ(updater.StartLive(), -1);
    EXPECT_EQ(updater.UpdateStamp(), -1);
}

TEST_F(ShmFifoTest, EmptyFifoGivesNoFrame) {
    ShmStreamPublisher publisher(7203, 1);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    FifoPtr fifo(LiveStreamFifoAt(7203, 1));
    ASSERT_NE(fifo, nullptr);
    int id = -1;
    int size = -1;
    unsigned char* frame = reinterpret_cast<unsigned char*>(&id);
    EXPECT_EQ(fifo->ReadLatest(id, frame, size, false), 0);
    EXPECT_EQ(frame, nullptr);
    EXPECT_EQ(size, 0);
    frame = reinterpret_cast<unsigned char*>(&id);
    EXPECT_EQ(fifo->ReadLatestIFrame(id, frame, size, nullptr), 0);
    EXPECT_EQ(frame, nullptr);
}

TEST_F(ShmFifoTest, ReadLatestIFrameReturnsTheNewestKeyFrameByteExact) {
    ShmStreamPublisher publisher(7204, 0);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    const Bytes key1 = Pattern(1, 5000);
    const Bytes inter1 = Pattern(2, 700);
    const Bytes key2 = Pattern(3, 6100);
    const Bytes inter2 = Pattern(4, 650);
    EXPECT_EQ(publisher.Push(key1.data(), key1.size(), true, 1000000), 0);
    EXPECT_EQ(publisher.Push(inter1.data(), inter1.size(), false, 1040000), 1);
    EXPECT_EQ(publisher.Push(key2.data(), key2.size(), true, 1080000), 2);
    EXPECT_EQ(publisher.Push(inter2.data(), inter2.size(), false, 1120000), 3);
    EXPECT_EQ(publisher.GetPushedCount(), 4u);

    FifoPtr fifo(LiveStreamFifoAt(7204, 0));
    ASSERT_NE(fifo, nullptr);
    int id = -1;
    int size = 0;
    unsigned char* frame = nullptr;
    DATA_ENTRY_INFO info{};
    ASSERT_EQ(fifo->ReadLatestIFrame(id, frame, size, &info), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(id, 2);
    EXPECT_EQ(Take(frame, size), key2);
    EXPECT_EQ(info.id, 2);
    EXPECT_EQ(info.size, 6100);
    EXPECT_EQ(info.ptsUs, 1080000);
    EXPECT_EQ(info.blKeyFrame, 1);

    frame = nullptr;
    ASSERT_EQ(fifo->ReadLatest(id, frame, size, false), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(id, 3);
    EXPECT_EQ(Take(frame, size), inter2);
}

TEST_F(ShmFifoTest, BlockIdsWrapAtTheMaximum) {
    ShmStreamPublisher publisher(7205, 0, 1 << 20, 64);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    const unsigned char byte = 0x42;
    int id = -1;
    for (int i = 0; i <= TW_FIFO_BLOCK_ID_MAX; ++i) {
        id = publisher.Push(&byte, 1, false, i);
    }
    EXPECT_EQ(id, 0);
}

TEST_F(ShmFifoTest, ExtraDataIsCopiedWithItsLength) {
    ShmStreamPublisher publisher(7206, 2);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    const Bytes extra = Pattern(9, 37);
    EXPECT_TRUE(publisher.SetFormat(VIDEO_CODEC_H264, 1920, 1080, extra));
    FifoPtr fifo(LiveStreamFifoAt(7206, 2));
    ASSERT_NE(fifo, nullptr);

    unsigned char buf[1024];
    int len = sizeof(buf);
    ASSERT_EQ(fifo->GetVdoExtraData(buf, len), 0);
    ASSERT_EQ(len, 37);
    EXPECT_EQ(Bytes(buf, buf + len), extra);

    // A buffer too small for the extra data gets nothing rather than a part of it.
    len = 10;
    EXPECT_EQ(fifo->GetVdoExtraData(buf, len), -1);
    EXPECT_EQ(len, 0);

    // More than the header holds is refused, and readers see no extra data.
    EXPECT_FALSE(publisher.SetFormat(VIDEO_CODEC_H264, 1920, 1080, Pattern(1, 1025)));
    len = sizeof(buf);
    ASSERT_EQ(fifo->GetVdoExtraData(buf, len), 0);
    EXPECT_EQ(len, 0);
}

TEST_F(ShmFifoTest, ShmdtDetachesTheReturnedPointer) {
    ShmStreamPublisher publisher(7207, 0);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    ShmStreamFifo* fifo = LiveStreamFifoAt(7207, 0);
    ASSERT_NE(fifo, nullptr);
    shmid_ds ds{};
    ASSERT_EQ(shmctl(publisher.GetShmId(), IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 2u);
    EXPECT_EQ(shmdt(fifo), 0) << std::strerror(errno);
    ASSERT_EQ(shmctl(publisher.GetShmId(), IPC_STAT, &ds), 0);
    EXPECT_EQ(ds.shm_nattch, 1u);
}

TEST_F(ShmFifoTest, SegmentIsRemovedWhenThePublisherGoesWhileAttachedReadersKeepReading) {
    auto publisher = std::make_unique<ShmStreamPublisher>(7208, 0);
    std::string error;
    ASSERT_TRUE(publisher->Open(error)) << error;
    const Bytes key = Pattern(5, 3000);
    publisher->Push(key.data(), key.size(), true, 0);
    FifoPtr fifo(LiveStreamFifoAt(7208, 0));
    ASSERT_NE(fifo, nullptr);

    publisher.reset();
    EXPECT_EQ(LiveStreamFifoAt(7208, 0), nullptr);
    errno = 0;
    EXPECT_EQ(shmget(KeyOf(7208, 0), 0, 0), -1);
    EXPECT_EQ(errno, ENOENT);

    int id = -1;
    int size = 0;
    unsigned char* frame = nullptr;
    ASSERT_EQ(fifo->ReadLatestIFrame(id, frame, size, nullptr), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(Take(frame, size), key);
}

TEST_F(ShmFifoTest, SecondPublisherIsRefusedWhileTheFirstIsAlive) {
    ShmStreamPublisher first(7209, 0);
    std::string error;
    ASSERT_TRUE(first.Open(error)) << error;
    ShmStreamPublisher second(7209, 0);
    EXPECT_FALSE(second.Open(error));
    EXPECT_EQ(error, "the live FIFO of camera 7209 stream 0 is published already by process " +
                         std::to_string(getpid()));
    FifoPtr fifo(LiveStreamFifoAt(7209, 0));
    EXPECT_NE(fifo, nullptr);
}

TEST_F(ShmFifoTest, SegmentOfAPublisherThatDiedIsTakenOver) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        // Dies without closing: the segment stays behind with a stale publisher pid.
        auto* publisher = new ShmStreamPublisher(7210, 0);
        std::string error;
        const unsigned char byte = 1;
        const bool ok = publisher->Open(error) && publisher->Push(&byte, 1, true, 0) == 0;
        _exit(ok ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(WEXITSTATUS(status), 0);
    const int staleId = shmget(KeyOf(7210, 0), 0, 0);
    ASSERT_GE(staleId, 0);
    // A reader that attached while the dead publisher's segment was there, as a detector
    // running across the publisher's death has.
    FifoPtr before(LiveStreamFifoAt(7210, 0));
    ASSERT_NE(before, nullptr);

    ShmStreamPublisher publisher(7210, 0);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    // Taken over in place, so that the reader follows.
    EXPECT_EQ(publisher.GetShmId(), staleId);
    FifoPtr fifo(LiveStreamFifoAt(7210, 0));
    ASSERT_NE(fifo, nullptr);
    int id = -1;
    int size = 0;
    unsigned char* frame = nullptr;
    ASSERT_EQ(fifo->ReadLatest(id, frame, size, false), 0);
    EXPECT_EQ(frame, nullptr);   // a fresh ring
    ASSERT_EQ(before->ReadLatestIFrame(id, frame, size, nullptr), 0);
    EXPECT_EQ(frame, nullptr);   // not the dead publisher's last frame

    const Bytes key = Pattern(9, 2000);
    ASSERT_GE(publisher.Push(key.data(), key.size(), true, 0), 0);
    ASSERT_EQ(before->ReadLatestIFrame(id, frame, size, nullptr), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(Take(frame, size), key);
}

TEST_F(ShmFifoTest, ForeignSegmentUnderTheKeyIsLeftAlone) {
    const key_t key = KeyOf(7211, 0);
    const int foreign = shmget(key, 4096, IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_GE(foreign, 0) << std::strerror(errno);
    ShmStreamPublisher publisher(7211, 0);
    std::string error;
    EXPECT_FALSE(publisher.Open(error));
    char keyText[16];
    std::snprintf(keyText, sizeof(keyText), "0x%08x", static_cast<unsigned>(key));
    EXPECT_EQ(error, "shared-memory key " + std::string(keyText) +
                         " of the live FIFO of camera 7211 stream 0 is used by another program "
                         "(set TW_SHM_KEY_BASE to move)");
    EXPECT_EQ(LiveStreamFifoAt(7211, 0), nullptr);
    EXPECT_EQ(shmget(key, 0, 0), foreign);
    shmctl(foreign, IPC_RMID, nullptr);
}

TEST_F(ShmFifoTest, EmptyAndOversizedFramesAreRefused) {
    ShmStreamPublisher publisher(7212, 0, size_t{64} * 1024, 16);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    const Bytes big(32 * 1024 + 1, 1);
    EXPECT_EQ(publisher.Push(big.data(), 0, true, 0), -1);
    EXPECT_EQ(publisher.Push(big.data(), big.size(), true, 0), -1);
    EXPECT_EQ(publisher.Push(big.data(), big.size() - 1, true, 0), 0);
}

TEST_F(ShmFifoTest, LiveStreamUpdaterWritesTheHostClockIntoTheReaderStamp) {
    auto clock = std::make_shared<tw::host::ManualClock>(123456789);
    tw::host::SetClock(clock);
    ShmStreamPublisher publisher(7213, 0);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    EXPECT_EQ(publisher.GetReaderStampUs(), 0);

    LiveStreamUpdater updater(7213, 0);
    ASSERT_EQ(updater.StartLive(), 0);
    EXPECT_EQ(publisher.GetReaderStampUs(), 0);
    ASSERT_EQ(updater.UpdateStamp(), 0);
    EXPECT_EQ(publisher.GetReaderStampUs(), 123456789);
    clock->Advance(300000);
    ASSERT_EQ(updater.UpdateStamp(), 0);
    EXPECT_EQ(publisher.GetReaderStampUs(), 123756789);
}

TEST_F(ShmFifoTest, LiveStreamUpdaterFollowsANewPublisher) {
    auto clock = std::make_shared<tw::host::ManualClock>(1000);
    tw::host::SetClock(clock);
    LiveStreamUpdater updater(7214, 0);
    std::string error;
    {
        ShmStreamPublisher first(7214, 0);
        ASSERT_TRUE(first.Open(error)) << error;
        ASSERT_EQ(updater.StartLive(), 0);
        ASSERT_EQ(updater.UpdateStamp(), 0);
        EXPECT_EQ(first.GetReaderStampUs(), 1000);
    }
    EXPECT_EQ(updater.UpdateStamp(), -1);
    ShmStreamPublisher second(7214, 0);
    ASSERT_TRUE(second.Open(error)) << error;
    clock->Advance(500);
    ASSERT_EQ(updater.UpdateStamp(), 0);
    EXPECT_EQ(second.GetReaderStampUs(), 1500);
}

TEST_F(ShmFifoTest, FramesAreNeverTornWhileTheWriterLapsTheRing) {
    // A small ring that the writer laps many times while the reader copies.
    ShmStreamPublisher publisher(7215, 0, size_t{64} * 1024, 16);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    FifoPtr fifo(LiveStreamFifoAt(7215, 0));
    ASSERT_NE(fifo, nullptr);

    constexpr uint32_t kFrames = 20000;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (uint32_t n = 0; n < kFrames; ++n) {
            const Bytes frame = NumberedFrame(n);
            publisher.Push(frame.data(), frame.size(), n % 5 == 0, n);
        }
        done.store(true);
    });

    int good = 0;
    int torn = 0;
    int wrongKind = 0;
    while (!done.load()) {
        for (int kind = 0; kind < 2; ++kind) {
            int id = -1;
            int size = 0;
            unsigned char* frame = nullptr;
            DATA_ENTRY_INFO info{};
            if (kind == 0) {
                fifo->ReadLatest(id, frame, size, false);
            } else {
                fifo->ReadLatestIFrame(id, frame, size, &info);
            }
            if (frame == nullptr) {
                continue;
            }
            if (!IsNumberedFrame(frame, size)) {
                ++torn;
            } else {
                ++good;
                uint32_t n = 0;
                std::memcpy(&n, frame, sizeof(n));
                if (id != static_cast<int>(n % TW_FIFO_BLOCK_ID_MAX) ||
                    (kind == 1 && (n % 5 != 0 || info.blKeyFrame != 1))) {
                    ++wrongKind;
                }
            }
            delete[] frame;
        }
    }
    writer.join();
    EXPECT_EQ(torn, 0);
    EXPECT_EQ(wrongKind, 0);
    EXPECT_GT(good, 0);

    // After the writer is done the newest frames are there, whole.
    int id = -1;
    int size = 0;
    unsigned char* frame = nullptr;
    ASSERT_EQ(fifo->ReadLatest(id, frame, size, false), 0);
    ASSERT_NE(frame, nullptr);
    EXPECT_TRUE(IsNumberedFrame(frame, size));
    EXPECT_EQ(id, static_cast<int>((kFrames - 1) % TW_FIFO_BLOCK_ID_MAX));
    delete[] frame;
}

// ---------------------------------------------------------------------------------------
// The "twhost stream" process

struct Child {
    pid_t pid = -1;
    int out = -1;
    int err = -1;
};

Child Spawn(const std::vector<std::string>& args) {
    int out[2];
    int err[2];
    Child child;
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        return child;
    }
    std::vector<char*> argv;
    for (const auto& a : args) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    child.pid = fork();
    if (child.pid == 0) {
        dup2(out[1], STDOUT_FILENO);
        dup2(err[1], STDERR_FILENO);
        execv(argv[0], argv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    child.out = out[0];
    child.err = err[0];
    return child;
}

// Reads up to and without the next newline; empty at the end or at the hang guard.
std::string ReadLine(int fd) {
    std::string line;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (std::chrono::steady_clock::now() < guard) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 100) <= 0) {
            continue;
        }
        char c = 0;
        if (read(fd, &c, 1) != 1 || c == '\n') {
            break;
        }
        line += c;
    }
    return line;
}

std::string ReadToEnd(int fd) {
    std::string text;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (std::chrono::steady_clock::now() < guard) {
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 100) <= 0) {
            continue;
        }
        char buf[512];
        const ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0) {
            break;
        }
        text.append(buf, static_cast<size_t>(n));
    }
    return text;
}

// Waits for the child; -1 when it did not exit normally.
int Reap(Child& child) {
    int status = 0;
    if (waitpid(child.pid, &status, 0) != child.pid) {
        return -1;
    }
    close(child.out);
    close(child.err);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class TwhostStreamTest : public ShmFifoTest {
protected:
    void SetUp() override {
        ShmFifoTest::SetUp();
        char pattern[] = "/tmp/tw_shmfifo_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_strDir = pattern;
    }
    void TearDown() override {
        std::error_code ec;
        std::filesystem::remove_all(m_strDir, ec);
        ShmFifoTest::TearDown();
    }
    std::string m_strDir;
};

TEST_F(TwhostStreamTest, PublishedClipIsReadableFromAnotherProcessUntilItStops) {
    tw::host::ClipSpec clipSpec;
    clipSpec.width = 320;
    clipSpec.height = 180;
    clipSpec.durationSec = 1.0;
    clipSpec.codec = VIDEO_CODEC_H264;
    clipSpec.gop = 12;
    clipSpec.motion = {{0.2, 0.6}};
    const std::string path = m_strDir + "/clip.mp4";
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;

    // What the stream must carry: the clip's key frames and extra data, as this process's
    // own source reads them.
    std::vector<Bytes> keyFrames;
    Bytes extra;
    {
        tw::host::MediaSource source;
        ASSERT_TRUE(source.Open(path, error)) << error;
        extra = source.GetExtraData();
        tw::host::SourcePacket packet;
        while (source.ReadPacket(packet) == 1) {
            if (packet.keyFrame) {
                keyFrames.push_back(*packet.data);
            }
        }
    }
    ASSERT_EQ(keyFrames.size(), 3u);

    // Looping, so the stream is still there whenever this process gets to read it.
    Child child = Spawn({TW_TWHOST_BIN, "stream", path, "--camera-id", "7220", "--stream-no", "1",
                         "--loop"});
    ASSERT_GT(child.pid, 0);
    const std::string start = ReadLine(child.out);
    EXPECT_EQ(start.rfind("twhost stream: publishing '" + path +
                              "' (h264 320x180, 1.0 s) as camera 7220 stream 1, ",
                          0),
              0u)
        << start;

    // The publisher records the stream's format for readers that cannot be told it.
    tw::host::LiveStreamFormat format;
    std::string formatError;
    ASSERT_TRUE(tw::host::ReadLiveStreamFormat(7220, 1, format, formatError)) << formatError;
    EXPECT_EQ(format.codec, VIDEO_CODEC_H264);
    EXPECT_EQ(format.width, 320);
    EXPECT_EQ(format.height, 180);
    EXPECT_TRUE(format.publisherAlive);

    FifoPtr fifo(LiveStreamFifoAt(7220, 1));
    EXPECT_NE(fifo, nullptr);
    Bytes got;
    if (fifo) {
        const auto guard = std::chrono::steady_clock::now() + kHangGuard;
        while (got.empty() && std::chrono::steady_clock::now() < guard) {
            int id = -1;
            int size = 0;
            unsigned char* frame = nullptr;
            fifo->ReadLatestIFrame(id, frame, size, nullptr);
            if (frame != nullptr) {
                got = Take(frame, size);
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
            }
        }
        unsigned char buf[1024];
        int len = sizeof(buf);
        EXPECT_EQ(fifo->GetVdoExtraData(buf, len), 0);
        EXPECT_EQ(Bytes(buf, buf + len), extra);
        LiveStreamUpdater updater(7220, 1);
        EXPECT_EQ(updater.StartLive(), 0);
        EXPECT_EQ(updater.UpdateStamp(), 0);
    }
    bool isKeyFrame = false;
    for (const Bytes& k : keyFrames) {
        isKeyFrame = isKeyFrame || k == got;
    }
    EXPECT_TRUE(isKeyFrame) << "read " << got.size() << " bytes that are none of the key frames";

    kill(child.pid, SIGTERM);
    const std::string rest = ReadToEnd(child.out);
    const std::string errors = ReadToEnd(child.err);
    // SIGTERM's exit code, once the segment is removed.
    EXPECT_EQ(Reap(child), 143) << errors;
    EXPECT_EQ(rest.rfind("twhost stream: terminated after ", 0), 0u) << rest;
    EXPECT_NE(rest.find("; live FIFO removed\n"), std::string::npos) << rest;
    EXPECT_EQ(errors, "");
    EXPECT_EQ(LiveStreamFifoAt(7220, 1), nullptr);
    errno = 0;
    EXPECT_EQ(shmget(KeyOf(7220, 1), 0, 0), -1);
}

TEST_F(TwhostStreamTest, MissingSourceIsNamedAndFails) {
    const std::string path = m_strDir + "/missing.mp4";
    Child child = Spawn({TW_TWHOST_BIN, "stream", path, "--camera-id", "7221"});
    ASSERT_GT(child.pid, 0);
    const std::string out = ReadToEnd(child.out);
    const std::string errors = ReadToEnd(child.err);
    EXPECT_EQ(Reap(child), 1);
    EXPECT_EQ(errors, "twhost stream: cannot open '" + path + "': No such file or directory\n");
    EXPECT_EQ(out, "");
    EXPECT_EQ(LiveStreamFifoAt(7221, 0), nullptr);
}

}  // namespace
