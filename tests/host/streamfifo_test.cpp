// The in-process stream FIFO: block ids, newest / newest-key lookups, the format copy, the
// puller, and a producer and a reader running at once.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "tw/handler.h"
#include "tw/stream.h"
#include "twhost/clock.h"
#include "twhost/streamfifo.h"

namespace {

using tw::host::GetFifoStats;
using tw::host::PushFifoBlock;
using tw::host::QueueFifoBlock;
using tw::host::QueuedFifoBlocks;
using tw::host::SetFifoFormat;
using tw::host::SetFifoLimits;
using tw::host::SetFifoPuller;

// What a reader passes before it has read anything.
constexpr int kNoBlockYet = 10001;

using Payload = std::shared_ptr<const std::vector<unsigned char>>;

Payload MakePayload(std::vector<unsigned char> bytes) {
    return std::make_shared<const std::vector<unsigned char>>(std::move(bytes));
}

// A payload whose size and content are derived from a number, so a reader can check that
// what it got belongs together.
Payload PatternPayload(int n) {
    std::vector<unsigned char> bytes(16 + n % 61, static_cast<unsigned char>(n % 251));
    return MakePayload(std::move(bytes));
}

std::vector<unsigned char> BytesOf(const MediaBlock& block) {
    return std::vector<unsigned char>(block.GetFrame(), block.GetFrame() + block.GetFrameSize());
}

TEST(StreamFifoTest, BlockIdsCountUpFromZeroAndWrapAtTheMaximum) {
    StreamFifo fifo;
    const Payload payload = MakePayload({1, 2, 3});
    for (int i = 0; i < TW_FIFO_BLOCK_ID_MAX + 5; ++i) {
        const int id = PushFifoBlock(fifo, payload, false, i);
        ASSERT_EQ(id, i % TW_FIFO_BLOCK_ID_MAX) << "push " << i;
    }
    std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetID(), 4);
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, static_cast<uint64_t>(TW_FIFO_BLOCK_ID_MAX + 5));
}

TEST(StreamFifoTest, EmptyFifoHasNoLastBlock) {
    StreamFifo fifo;
    EXPECT_EQ(fifo.GetLastBlock(kNoBlockYet), nullptr);
    EXPECT_EQ(fifo.GetLastITypeBlock(kNoBlockYet), nullptr);
}

TEST(StreamFifoTest, LastBlockIsNullForTheSameIdAndTheNewestOtherwise) {
    StreamFifo fifo;
    PushFifoBlock(fifo, MakePayload({10}), true, 1000);
    PushFifoBlock(fifo, MakePayload({11, 11}), false, 2000);
    PushFifoBlock(fifo, MakePayload({12, 12, 12}), false, 3000);

    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(block->GetID(), 2);
    EXPECT_EQ(BytesOf(*block), (std::vector<unsigned char>{12, 12, 12}));
    EXPECT_FALSE(block->IsKeyFrame());
    EXPECT_EQ(block->GetPtsUs(), 3000);

    EXPECT_EQ(fifo.GetLastBlock(2), nullptr);
    // Any other id, older ones included, gets the newest block.
    std::unique_ptr<MediaBlock> again(fifo.GetLastBlock(1));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again->GetID(), 2);

    PushFifoBlock(fifo, MakePayload({13}), false, 4000);
    std::unique_ptr<MediaBlock> next(fifo.GetLastBlock(2));
    ASSERT_NE(next, nullptr);
    EXPECT_EQ(next->GetID(), 3);
    EXPECT_EQ(BytesOf(*next), std::vector<unsigned char>{13});
}

TEST(StreamFifoTest, KeyLookupSkipsBlocksThatAreNotKeyFrames) {
    StreamFifo fifo;
    EXPECT_EQ(PushFifoBlock(fifo, MakePayload({0xaa}), false, 0), 0);
    EXPECT_EQ(fifo.GetLastITypeBlock(kNoBlockYet), nullptr);

    PushFifoBlock(fifo, MakePayload({0xbb, 0xbb}), true, 40000);   // id 1
    PushFifoBlock(fifo, MakePayload({0xcc}), false, 80000);         // id 2
    PushFifoBlock(fifo, MakePayload({0xdd}), false, 120000);        // id 3

    std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetID(), 1);
    EXPECT_TRUE(key->IsKeyFrame());
    EXPECT_EQ(BytesOf(*key), (std::vector<unsigned char>{0xbb, 0xbb}));
    EXPECT_EQ(fifo.GetLastITypeBlock(1), nullptr);

    PushFifoBlock(fifo, MakePayload({0xee}), true, 160000);   // id 4
    PushFifoBlock(fifo, MakePayload({0xff}), false, 200000);  // id 5
    std::unique_ptr<MediaBlock> newer(fifo.GetLastITypeBlock(1));
    ASSERT_NE(newer, nullptr);
    EXPECT_EQ(newer->GetID(), 4);
    EXPECT_EQ(newer->GetPtsUs(), 160000);
}

TEST(StreamFifoTest, NewestKeyBlockSurvivesWhenTheRingDropsOlderBlocks) {
    StreamFifo fifo;
    SetFifoLimits(fifo, 4, 1000000);
    PushFifoBlock(fifo, MakePayload({7, 7}), true, 0);
    for (int i = 1; i <= 10; ++i) {
        PushFifoBlock(fifo, MakePayload({1}), false, int64_t{i} * 40000);
    }
    EXPECT_EQ(GetFifoStats(fifo).blocksHeld, 4u);
    std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetID(), 0);
    EXPECT_EQ(BytesOf(*key), (std::vector<unsigned char>{7, 7}));
}

TEST(StreamFifoTest, RingDropsBlocksOlderThanItsTimeSpan) {
    StreamFifo fifo;
    SetFifoLimits(fifo, 1000, 100000);
    for (int i = 0; i < 10; ++i) {
        PushFifoBlock(fifo, MakePayload({1}), false, int64_t{i} * 40000);
    }
    // Newest at 360 ms: only blocks at 280, 320 and 360 ms are within 100 ms of it.
    EXPECT_EQ(GetFifoStats(fifo).blocksHeld, 3u);
}

// The host clock is a manual one for the life of a test.
class QueuedFifoTest : public ::testing::Test {
protected:
    void SetUp() override { tw::host::SetClock(m_Clock); }
    void TearDown() override { tw::host::SetClock(nullptr); }
    std::shared_ptr<tw::host::ManualClock> m_Clock = std::make_shared<tw::host::ManualClock>(1000000);
};

TEST_F(QueuedFifoTest, QueuedBlocksStayHiddenUntilTheirTimeComes) {
    StreamFifo fifo;
    QueueFifoBlock(fifo, MakePayload({1}), true, 1000000);    // due now
    QueueFifoBlock(fifo, MakePayload({2}), false, 1040000);
    QueueFifoBlock(fifo, MakePayload({3}), true, 1080000);
    QueueFifoBlock(fifo, MakePayload({4}), false, 1120000);
    EXPECT_EQ(QueuedFifoBlocks(fifo), 3u);

    std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(BytesOf(*last), (std::vector<unsigned char>{1}));
    EXPECT_EQ(last->GetID(), 0);

    m_Clock->Advance(79999);   // one microsecond before the second key block
    std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(BytesOf(*key), (std::vector<unsigned char>{1}));
    last.reset(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(BytesOf(*last), (std::vector<unsigned char>{2}));
    EXPECT_EQ(last->GetID(), 1);

    m_Clock->Advance(1);
    key.reset(fifo.GetLastITypeBlock(kNoBlockYet));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(BytesOf(*key), (std::vector<unsigned char>{3}));
    EXPECT_EQ(key->GetID(), 2);
    EXPECT_EQ(QueuedFifoBlocks(fifo), 1u);
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, 3u);
    EXPECT_EQ(GetFifoStats(fifo).keyBlocksPushed, 2u);
}

TEST_F(QueuedFifoTest, QueuedBlocksFillTheRingAsIfPushedAtTheirTimes) {
    // Ten blocks 40 ms apart, released together after the last is due: the ring keeps what
    // it would have kept had each come at its time (the span rule: 280, 320 and 360 ms).
    StreamFifo pushed;
    StreamFifo queued;
    SetFifoLimits(pushed, 1000, 100000);
    SetFifoLimits(queued, 1000, 100000);
    for (int i = 0; i < 10; ++i) {
        PushFifoBlock(pushed, PatternPayload(i), i % 4 == 0, 1000000 + int64_t{i} * 40000);
        QueueFifoBlock(queued, PatternPayload(i), i % 4 == 0, 1000000 + int64_t{i} * 40000);
    }
    m_Clock->Advance(360000);
    EXPECT_EQ(GetFifoStats(queued).blocksHeld, GetFifoStats(pushed).blocksHeld);
    EXPECT_EQ(GetFifoStats(queued).blocksHeld, 3u);
    std::unique_ptr<MediaBlock> a(pushed.GetLastITypeBlock(kNoBlockYet));
    std::unique_ptr<MediaBlock> b(queued.GetLastITypeBlock(kNoBlockYet));
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->GetID(), a->GetID());
    EXPECT_EQ(BytesOf(*b), BytesOf(*a));
    EXPECT_EQ(b->GetID(), 8);
}

TEST_F(QueuedFifoTest, TimeThatGoesBackIsHeldAsLongAsTheBlockBefore) {
    StreamFifo fifo;
    QueueFifoBlock(fifo, MakePayload({1}), false, 1100000);
    QueueFifoBlock(fifo, MakePayload({2}), false, 1050000);
    m_Clock->Advance(60000);
    EXPECT_EQ(fifo.GetLastBlock(kNoBlockYet), nullptr);
    m_Clock->Advance(40000);
    std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(BytesOf(*last), (std::vector<unsigned char>{2}));
}

TEST_F(QueuedFifoTest, ClearDropsQueuedBlocksToo) {
    StreamFifo fifo;
    QueueFifoBlock(fifo, MakePayload({1}), true, 2000000);
    tw::host::ClearFifo(fifo);
    EXPECT_EQ(QueuedFifoBlocks(fifo), 0u);
    m_Clock->Advance(2000000);
    EXPECT_EQ(fifo.GetLastITypeBlock(kNoBlockYet), nullptr);
}

TEST(StreamFifoTest, TotalBufSizeIsZeroUntilAStreamIsOpenedIntoIt) {
    StreamFifo fifo;
    EXPECT_EQ(fifo.GetTotalBufSize(), 0);
    SetFifoFormat(fifo, 3, 640, 360, {});
    EXPECT_NE(fifo.GetTotalBufSize(), 0);
}

TEST(StreamFifoTest, EsFormatExtraDataIsAMallocCopyThatTheCallerFrees) {
    StreamFifo fifo;
    const std::vector<unsigned char> extra = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x68, 0xce};
    SetFifoFormat(fifo, 3, 320, 180, extra);

    ES_FORMAT first = fifo.GetESFormat();
    EXPECT_EQ(first.codec, 3);
    EXPECT_EQ(first.width, 320);
    EXPECT_EQ(first.height, 180);
    ASSERT_EQ(first.extraDataLen, static_cast<int>(extra.size()));
    ASSERT_NE(first.pExtraData, nullptr);
    EXPECT_EQ(0, std::memcmp(first.pExtraData, extra.data(), extra.size()));

    // Each call hands out its own copy: scribbling on one does not touch the next.
    std::memset(first.pExtraData, 0x55, static_cast<size_t>(first.extraDataLen));
    ES_FORMAT second = fifo.GetESFormat();
    ASSERT_NE(second.pExtraData, nullptr);
    EXPECT_NE(second.pExtraData, first.pExtraData);
    EXPECT_EQ(0, std::memcmp(second.pExtraData, extra.data(), extra.size()));
    std::free(first.pExtraData);
    std::free(second.pExtraData);
}

TEST(StreamFifoTest, EsFormatWithoutExtraDataStillHandsOutAFreeableBuffer) {
    StreamFifo fifo;
    SetFifoFormat(fifo, 1, 640, 480, {});
    ES_FORMAT format = fifo.GetESFormat();
    EXPECT_EQ(format.codec, 1);
    EXPECT_EQ(format.extraDataLen, 0);
    EXPECT_NE(format.pExtraData, nullptr);
    std::free(format.pExtraData);
}

TEST(StreamFifoTest, PullerRunsBeforeEveryRead) {
    StreamFifo fifo;
    int calls = 0;
    SetFifoPuller(fifo, [&] {
        ++calls;
        PushFifoBlock(fifo, MakePayload({static_cast<unsigned char>(calls)}), calls == 1, calls);
    });

    EXPECT_EQ(fifo.GetTotalBufSize(), 0);   // no format yet; the call still pulls
    EXPECT_EQ(calls, 1);
    // The block pushed by this very call's pull is the one returned.
    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    EXPECT_EQ(calls, 2);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(BytesOf(*block), std::vector<unsigned char>{2});
    std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
    EXPECT_EQ(calls, 3);
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetID(), 0);
    EXPECT_EQ(GetFifoStats(fifo).pullerCalls, 3u);

    SetFifoPuller(fifo, nullptr);
    std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
    EXPECT_EQ(calls, 3);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetID(), 2);
}

TEST(StreamFifoTest, HandedOutBlockKeepsItsPayloadAfterTheFifoIsGone) {
    std::unique_ptr<MediaBlock> block;
    {
        StreamFifo fifo;
        PushFifoBlock(fifo, MakePayload({4, 5, 6}), true, 0);
        block.reset(fifo.GetLastBlock(kNoBlockYet));
        EXPECT_EQ(GetFifoStats(fifo).blocksHandedOut, 1u);
    }
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(BytesOf(*block), (std::vector<unsigned char>{4, 5, 6}));
}

TEST(StreamFifoTest, HandedOutBlockIsAMediaUnitOfTheRecorderClassTree) {
    StreamFifo fifo;
    PushFifoBlock(fifo, MakePayload({1}), true, 0);
    MediaBlock* block = fifo.GetLastBlock(kNoBlockYet);
    ASSERT_NE(block, nullptr);
    auto* unit = dynamic_cast<MediaUnit*>(block);
    ASSERT_NE(unit, nullptr);
    EXPECT_NE(dynamic_cast<DPObjectBase*>(block), nullptr);
    EXPECT_EQ(unit->GetRefCount(), 1);
    EXPECT_EQ(unit->AddRef(), 2);
    EXPECT_EQ(unit->DecRef(), 1);
    // The reader deletes what it took through the MediaBlock pointer.
    delete block;
}

TEST(StreamFifoTest, ProducerAndReaderCanRunAtTheSameTime) {
    StreamFifo fifo;
    SetFifoFormat(fifo, 3, 320, 180, {0, 0, 0, 1, 0x67});
    constexpr int kBlocks = 20000;
    std::atomic<bool> done{false};
    std::thread producer([&] {
        for (int n = 0; n < kBlocks; ++n) {
            PushFifoBlock(fifo, PatternPayload(n), n % 12 == 0, n);
        }
        done.store(true);
    });

    int reads = 0;
    int badBlocks = 0;
    int64_t lastPts = -1;
    int backwards = 0;
    // Read until the producer is done, then once more so the last block is seen too.
    for (bool last = false; !last;) {
        last = done.load();
        for (int kind = 0; kind < 2; ++kind) {
            std::unique_ptr<MediaBlock> block(kind == 0 ? fifo.GetLastBlock(kNoBlockYet)
                                                        : fifo.GetLastITypeBlock(kNoBlockYet));
            if (!block) {
                continue;
            }
            ++reads;
            const int n = static_cast<int>(block->GetPtsUs());
            const Payload expected = PatternPayload(n);
            if (BytesOf(*block) != *expected || block->GetID() != n % TW_FIFO_BLOCK_ID_MAX ||
                (kind == 1 && (!block->IsKeyFrame() || n % 12 != 0))) {
                ++badBlocks;
            }
            if (kind == 0) {
                backwards += block->GetPtsUs() < lastPts ? 1 : 0;
                lastPts = block->GetPtsUs();
            }
        }
        ES_FORMAT format = fifo.GetESFormat();
        std::free(format.pExtraData);
    }
    producer.join();

    EXPECT_EQ(badBlocks, 0);
    EXPECT_EQ(backwards, 0);
    EXPECT_EQ(lastPts, kBlocks - 1);
    const tw::host::FifoStats stats = GetFifoStats(fifo);
    EXPECT_EQ(stats.blocksPushed, static_cast<uint64_t>(kBlocks));
    EXPECT_EQ(stats.blocksHandedOut, static_cast<uint64_t>(reads));
}

}  // namespace
