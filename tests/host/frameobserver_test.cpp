// The observer of frames handed out by the stream FIFOs: told of exactly the blocks a reader
// gets, with the reader's id, key flag, time stamp and bytes, on the reader's thread, and
// no longer once removed.
#include <gtest/gtest.h>
#include <sys/shm.h>

#include <memory>
#include <thread>
#include <vector>

#include "support/testenv.h"
#include "tw/stream.h"
#include "twhost/frameobserver.h"
#include "twhost/shmfifo.h"
#include "twhost/streamfifo.h"

namespace {

using tw::host::HandedFrame;

constexpr int kNoBlockYet = 10001;

std::shared_ptr<const std::vector<unsigned char>> Payload(int n) {
    return std::make_shared<const std::vector<unsigned char>>(static_cast<size_t>(10 + n), static_cast<unsigned char>(n));
}

TEST(FifoFrameObserver, IsToldOfEachBlockHandedOutAndOfNothingElse) {
    StreamFifo fifo;
    tw::host::SetFifoFormat(fifo, 3, 320, 240, {});
    std::vector<HandedFrame> seen;
    std::vector<std::thread::id> threads;
    tw::host::SetFifoFrameObserver(fifo, [&](const HandedFrame& f) {
        seen.push_back(f);
        threads.push_back(std::this_thread::get_id());
    });
    const int key = tw::host::PushFifoBlock(fifo, Payload(1), true, 1000);
    const int delta = tw::host::PushFifoBlock(fifo, Payload(2), false, 2000);

    std::unique_ptr<MediaBlock> newest(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_TRUE(newest);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].id, delta);
    EXPECT_FALSE(seen[0].keyFrame);
    EXPECT_EQ(seen[0].ptsUs, 2000);
    // The FIFO's own payload, shared: the observer sees the very bytes the reader got.
    EXPECT_EQ(seen[0].data->data(), newest->GetFrame());
    EXPECT_EQ(static_cast<int>(seen[0].data->size()), newest->GetFrameSize());

    std::unique_ptr<MediaBlock> keyBlock(fifo.GetLastITypeBlock(kNoBlockYet));
    ASSERT_TRUE(keyBlock);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].id, key);
    EXPECT_TRUE(seen[1].keyFrame);
    EXPECT_EQ(seen[1].ptsUs, 1000);

    // Nothing handed out (the reader has the newest already): nothing told.
    EXPECT_EQ(fifo.GetLastBlock(delta), nullptr);
    EXPECT_EQ(fifo.GetLastITypeBlock(key), nullptr);
    EXPECT_EQ(seen.size(), 2u);
    for (const std::thread::id& id : threads) EXPECT_EQ(id, std::this_thread::get_id());

    tw::host::SetFifoFrameObserver(fifo, nullptr);
    tw::host::PushFifoBlock(fifo, Payload(3), true, 3000);
    std::unique_ptr<MediaBlock> after(fifo.GetLastBlock(delta));
    ASSERT_TRUE(after);
    EXPECT_EQ(seen.size(), 2u);
}

TEST(ShmFrameObserver, IsToldOfEachFrameReadWithACopyOfItsBytes) {
    tw::test::ScopedProcessKeyBase keyBase(0x60000000u);
    tw::host::ShmStreamPublisher publisher(7301, 0);
    std::string error;
    ASSERT_TRUE(publisher.Open(error)) << error;
    publisher.SetFormat(3, 320, 240, {});
    const std::vector<unsigned char> keyBytes(300, 7), deltaBytes(120, 9);
    const int key = publisher.Push(keyBytes.data(), keyBytes.size(), true, 5000);
    const int delta = publisher.Push(deltaBytes.data(), deltaBytes.size(), false, 5040);

    std::vector<HandedFrame> seen;
    tw::host::SetShmFrameObserver([&](const HandedFrame& f) { seen.push_back(f); });
    ShmStreamFifo* live = LiveStreamFifoAt(7301, 0);
    ASSERT_NE(live, nullptr);
    int id = 0, size = 0;
    unsigned char* frame = nullptr;
    ASSERT_EQ(live->ReadLatest(id, frame, size, false), 0);
    ASSERT_NE(frame, nullptr);
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0].id, delta);
    EXPECT_FALSE(seen[0].keyFrame);
    EXPECT_EQ(seen[0].ptsUs, 5040);
    EXPECT_EQ(*seen[0].data, deltaBytes);
    // A copy: the reader frees its buffer, the observer's bytes stay.
    EXPECT_NE(seen[0].data->data(), frame);
    delete[] frame;

    ASSERT_EQ(live->ReadLatestIFrame(id, frame, size, nullptr), 0);
    ASSERT_NE(frame, nullptr);
    delete[] frame;
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].id, key);
    EXPECT_TRUE(seen[1].keyFrame);
    EXPECT_EQ(*seen[1].data, keyBytes);

    tw::host::SetShmFrameObserver(nullptr);
    ASSERT_EQ(live->ReadLatest(id, frame, size, false), 0);
    delete[] frame;
    EXPECT_EQ(seen.size(), 2u);
    shmdt(live);
}

}  // namespace
