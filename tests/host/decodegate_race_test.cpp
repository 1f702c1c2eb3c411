// The process-wide line of picture decodes: no more decodes at once than slots, first come
// first served, and the host's decoders (DoFFMpegDecode, DecodeJpeg) queue in it.

#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/decodeerror.h"
#include "twhost/decodegate.h"

#include "support/test_encode.h"
#include "support/waituntil.h"

#include <gtest/gtest.h>

#include <sched.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace {

using tw::host::DecodeSlot;
using tw::host::GetDecodeGateState;
using tw::host::GetDecodeSlots;
using tw::host::SetDecodeSlots;
using tw::test::WaitUntil;

// A failed expectation below never returns early while a thread of the test runs: such a
// thread may be waiting for a slot or for the test, and has to be joined.

// Every test sets the slots it needs and leaves the default behind.
class DecodeGateTest : public ::testing::Test {
protected:
    void TearDown() override { SetDecodeSlots(0); }
};

int Waiting() { return GetDecodeGateState().waiting; }
int Running() { return GetDecodeGateState().running; }

TEST_F(DecodeGateTest, DefaultIsTheCoresThisThreadMayRunOn) {
    cpu_set_t all;
    CPU_ZERO(&all);
    ASSERT_EQ(0, sched_getaffinity(0, sizeof(all), &all));
    SetDecodeSlots(0);
    EXPECT_EQ(CPU_COUNT(&all), GetDecodeSlots());

    // A process pinned to one core decodes one picture at a time.
    int first = -1;
    for (int i = 0; i < CPU_SETSIZE && first < 0; ++i) {
        if (CPU_ISSET(i, &all)) first = i;
    }
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(first, &one);
    ASSERT_EQ(0, sched_setaffinity(0, sizeof(one), &one));
    SetDecodeSlots(-3);
    const int pinned = GetDecodeSlots();
    ASSERT_EQ(0, sched_setaffinity(0, sizeof(all), &all));
    EXPECT_EQ(1, pinned);

    SetDecodeSlots(5);
    EXPECT_EQ(5, GetDecodeSlots());
}

TEST_F(DecodeGateTest, WithOneSlotASecondDecodeWaitsUntilTheFirstEnds) {
    SetDecodeSlots(1);
    const uint64_t waitedBefore = GetDecodeGateState().waited;
    std::atomic<bool> entered{false};
    std::thread second;
    {
        DecodeSlot first;
        EXPECT_EQ(1, Running());
        second = std::thread([&entered] {
            DecodeSlot slot;
            entered = true;
        });
        EXPECT_TRUE(WaitUntil([] { return Waiting() == 1; }));
        EXPECT_FALSE(entered.load());
        EXPECT_EQ(1, Running());
    }
    second.join();
    EXPECT_TRUE(entered.load());
    EXPECT_EQ(0, Running());
    EXPECT_EQ(0, Waiting());
    EXPECT_EQ(waitedBefore + 1, GetDecodeGateState().waited);
}

TEST_F(DecodeGateTest, WaitingDecodesAreLetInInTheOrderTheyCame) {
    SetDecodeSlots(1);
    constexpr int kThreads = 6;
    std::mutex orderMutex;
    std::vector<int> order;
    std::vector<std::thread> threads;
    {
        DecodeSlot holder;
        for (int i = 0; i < kThreads; ++i) {
            threads.emplace_back([i, &orderMutex, &order] {
                DecodeSlot slot;
                std::lock_guard<std::mutex> lock(orderMutex);
                order.push_back(i);
            });
            // The next one comes only once this one stands in line.
            EXPECT_TRUE(WaitUntil([i] { return Waiting() == i + 1; })) << "thread " << i;
        }
    }
    for (std::thread& t : threads) t.join();
    std::vector<int> expected;
    for (int i = 0; i < kThreads; ++i) expected.push_back(i);
    EXPECT_EQ(expected, order);
}

TEST_F(DecodeGateTest, NoMoreDecodesRunAtOnceThanSlots) {
    SetDecodeSlots(2);
    constexpr int kThreads = 8;
    std::mutex mutex;
    std::condition_variable cv;
    int inside = 0;
    int mostInside = 0;
    int mayLeave = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            DecodeSlot slot;
            std::unique_lock<std::mutex> lock(mutex);
            ++inside;
            if (inside > mostInside) mostInside = inside;
            // Each stays in its slot until the test lets one go.
            cv.wait(lock, [&] { return mayLeave > 0; });
            --mayLeave;
            --inside;
        });
    }
    EXPECT_TRUE(WaitUntil([] { return Running() == 2 && Waiting() == kThreads - 2; }));
    {
        std::lock_guard<std::mutex> lock(mutex);
        EXPECT_EQ(2, inside);
    }
    // Let them go one at a time: each that leaves lets the next in, never a third.
    for (int left = 1; left <= kThreads; ++left) {
        {
            std::lock_guard<std::mutex> lock(mutex);
            ++mayLeave;
        }
        cv.notify_all();
        const int stillIn = kThreads - left;
        EXPECT_TRUE(WaitUntil([stillIn] {
            return Running() == (stillIn < 2 ? stillIn : 2) && Waiting() == (stillIn > 2 ? stillIn - 2 : 0);
        })) << left << " left";
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(2, mostInside);
    EXPECT_EQ(0, Running());
}

TEST_F(DecodeGateTest, MoreSlotsLetWaitingDecodesInAtOnce) {
    SetDecodeSlots(1);
    std::atomic<int> runningSeen{-1};
    DecodeSlot holder;
    std::thread waiter([&runningSeen] {
        DecodeSlot slot;
        runningSeen = Running();
    });
    EXPECT_TRUE(WaitUntil([] { return Waiting() == 1; }));
    SetDecodeSlots(2);
    waiter.join();   // it got in while the holder still holds its slot
    EXPECT_EQ(2, runningSeen.load());
    EXPECT_EQ(1, Running());
}

TEST_F(DecodeGateTest, FewerSlotsLetNobodyInUntilTheRunningAreBelowThem) {
    SetDecodeSlots(2);
    auto a = std::make_unique<DecodeSlot>();
    auto b = std::make_unique<DecodeSlot>();
    SetDecodeSlots(1);
    std::atomic<bool> entered{false};
    std::thread waiter([&entered] {
        DecodeSlot slot;
        entered = true;
    });
    EXPECT_TRUE(WaitUntil([] { return Waiting() == 1; }));
    a.reset();   // one still runs: that is the one slot there is
    EXPECT_EQ(1, Waiting());
    EXPECT_FALSE(entered.load());
    b.reset();
    waiter.join();
    EXPECT_TRUE(entered.load());
}

// The host's decoders, held up by a slot the test keeps: they stand in line and finish once
// it is free, with the picture they would have given anyway.
TEST_F(DecodeGateTest, DoFFMpegDecodeQueuesForASlot) {
    // One H.264 picture of 320 x 240, flat grey at PictureLevel(0).
    tw::test::TestVideo video;
    std::string error;
    // codec, width, height, frames, key-frame interval, B-frames, global header, painter
    ASSERT_TRUE(tw::test::EncodeTestVideo({VIDEO_CODEC_H264, 320, 240, 1, 8, 0, false, {}, {}}, video, error)) << error;
    ASSERT_FALSE(video.packets.empty());
    FFmpegAttr attr{};
    unsigned char* image = nullptr;
    ASSERT_EQ(0, DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0)) << tw::host::LastDecodeError();

    SetDecodeSlots(1);
    std::atomic<int> rc{1};
    std::atomic<bool> done{false};
    std::thread decoder;
    {
        DecodeSlot holder;
        decoder = std::thread([&] {
            const std::vector<unsigned char>& data = video.packets.front().data;
            rc = DoFFMpegDecode(attr, data.data(), static_cast<int>(data.size()));
            done = true;
        });
        EXPECT_TRUE(WaitUntil([] { return Waiting() == 1; }));
        EXPECT_FALSE(done.load());
    }
    decoder.join();
    EXPECT_EQ(0, rc.load()) << tw::host::LastDecodeError();
    EXPECT_EQ(0, Running());
    // The picture is the one painted: flat grey at its level.
    int outSize = 0, width = 32, height = 24;
    ASSERT_EQ(0, DoFFMpegScale(attr, image, outSize, width, height, 0)) << tw::host::LastDecodeError();
    ASSERT_EQ(32 * 24 * 3, outSize);
    long sum = 0;
    for (int i = 0; i < outSize; ++i) sum += image[i];
    EXPECT_NEAR(tw::test::PictureLevel(0), static_cast<double>(sum) / outSize, 3.0);
    DoFFMpegFree(attr, image);
}

TEST_F(DecodeGateTest, DecodeJpegQueuesForASlot) {
    const std::vector<unsigned char> grey(64 * 48, 77);
    const std::vector<unsigned char> jpeg = tw::test::EncodeTestJpeg(grey.data(), 64, 48, 1);
    ASSERT_FALSE(jpeg.empty());

    SetDecodeSlots(1);
    std::atomic<int> rc{1};
    std::atomic<bool> done{false};
    unsigned char* out = nullptr;
    int outSize = 0, width = 0, height = 0;
    std::thread decoder;
    {
        DecodeSlot holder;
        decoder = std::thread([&] {
            rc = DecodeJpeg(jpeg.data(), static_cast<int>(jpeg.size()), &out, outSize, JCS_GRAYSCALE, 1, width,
                            height);
            done = true;
        });
        EXPECT_TRUE(WaitUntil([] { return Waiting() == 1; }));
        EXPECT_FALSE(done.load());
    }
    decoder.join();
    EXPECT_EQ(0, rc.load()) << tw::host::LastDecodeError();
    EXPECT_EQ(64, width);
    EXPECT_EQ(48, height);
    EXPECT_EQ(0, Running());
    free(out);
}

// A JPEG that libjpeg gives up on leaves by its error path; the slot must still be given back.
TEST_F(DecodeGateTest, AFailedDecodeGivesItsSlotBack) {
    SetDecodeSlots(1);
    std::vector<unsigned char> junk(200, 0x5a);
    junk[0] = 0xff;
    junk[1] = 0xd8;
    unsigned char* out = nullptr;
    int outSize = 0, width = 0, height = 0;
    EXPECT_NE(0, DecodeJpeg(junk.data(), static_cast<int>(junk.size()), &out, outSize, JCS_GRAYSCALE, 1, width,
                            height));
    EXPECT_EQ(0, Running());
    free(out);

    FFmpegAttr attr{};
    unsigned char* image = nullptr;
    ASSERT_EQ(0, DoFFMpegInitVideo(attr, VIDEO_CODEC_H264, nullptr, 0));
    EXPECT_NE(0, DoFFMpegDecode(attr, junk.data(), static_cast<int>(junk.size())));
    EXPECT_EQ(0, Running());
    DoFFMpegFree(attr, image);
}

}  // namespace
