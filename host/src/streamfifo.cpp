// The in-process stream FIFO of the reference host and the blocks it hands out.

#include "twhost/streamfifo.h"

#include "twhost/annexb.h"
#include "twhost/clock.h"
#include "twhost/frameobserver.h"

#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

// ---------------------------------------------------------------------------------------
// MediaBlock, TWReferenceCount, MediaUnit

MediaBlock::MediaBlock()
    : m_Id(-1), m_FrameSize(0), m_pFrame(nullptr), m_blKeyFrame(false), m_PtsUs(0) {}

MediaBlock::~MediaBlock() = default;

// A new object starts with the one reference of whoever made it. The count never deletes
// the object: the recorder's readers delete the blocks they take, so the count only tells
// how many holders there are.
TWReferenceCount::TWReferenceCount() : m_RefCount(1) {}

TWReferenceCount::~TWReferenceCount() = default;

int TWReferenceCount::AddRef() { return __atomic_add_fetch(&m_RefCount, 1, __ATOMIC_ACQ_REL); }

int TWReferenceCount::DecRef() { return __atomic_sub_fetch(&m_RefCount, 1, __ATOMIC_ACQ_REL); }

int TWReferenceCount::GetRefCount() const { return __atomic_load_n(&m_RefCount, __ATOMIC_ACQUIRE); }

MediaUnit::MediaUnit(int id, std::shared_ptr<const std::vector<unsigned char>> payload,
                     bool keyFrame, int64_t ptsUs)
    : m_Payload(std::move(payload)) {
    m_Id = id;
    m_blKeyFrame = keyFrame;
    m_PtsUs = ptsUs;
    if (m_Payload && !m_Payload->empty()) {
        m_pFrame = m_Payload->data();
        m_FrameSize = static_cast<int>(m_Payload->size());
    }
}

MediaUnit::~MediaUnit() = default;

// ---------------------------------------------------------------------------------------
// StreamFifo

namespace {

constexpr size_t kDefaultMaxBlocks = 256;
constexpr int64_t kDefaultMaxSpanUs = 2000000;

struct FifoEntry {
    int id = 0;
    bool key = false;
    int64_t ptsUs = 0;
    std::shared_ptr<const std::vector<unsigned char>> data;
    int nalLengthSize = 0;   // non-zero: length-prefixed, converted when first taken
};

}  // namespace

struct StreamFifo::Impl {
    // m_Mutex guards the ring and the format; m_PullMutex serialises the puller and lets
    // SetFifoPuller wait for a running pull. Lock order: m_PullMutex before m_Mutex (the
    // puller pushes, which takes m_Mutex).
    std::mutex m_Mutex;
    std::mutex m_PullMutex;

    bool m_blHasFormat = false;
    int m_Codec = 0;
    int m_Width = 0;
    int m_Height = 0;
    std::vector<unsigned char> m_ExtraData;

    std::deque<FifoEntry> m_Ring;
    // Blocks queued ahead of their time (QueueFifoBlock), in time order, without ids yet:
    // they join the ring only once the host clock reaches their time stamp.
    std::deque<FifoEntry> m_Pending;
    // The newest key block lives outside the ring so that a long GOP never loses it.
    std::optional<FifoEntry> m_LastKey;
    int m_NextId = 0;
    size_t m_MaxBlocks = kDefaultMaxBlocks;
    int64_t m_MaxSpanUs = kDefaultMaxSpanUs;

    std::function<void()> m_Puller;
    tw::host::FifoStats m_Stats;
    // Shared so that a read can call it outside m_Mutex while it is being replaced.
    std::shared_ptr<const tw::host::FrameObserver> m_pObserver;

    void Pull() {
        std::lock_guard<std::mutex> pullLock(m_PullMutex);
        if (!m_Puller) {
            return;
        }
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            ++m_Stats.pullerCalls;
        }
        m_Puller();
    }

    // Caller holds m_Mutex. What a camera would have sent by now: each queued block whose
    // time has come joins the ring exactly as if it had been pushed at that time.
    void Release() {
        if (m_Pending.empty()) {
            return;
        }
        const int64_t now = tw::host::GetClock().NowUs();
        while (!m_Pending.empty() && m_Pending.front().ptsUs <= now) {
            Append(std::move(m_Pending.front()));
            m_Pending.pop_front();
        }
    }

    // Caller holds m_Mutex.
    int Append(FifoEntry entry) {
        entry.id = m_NextId;
        m_NextId = (m_NextId + 1) % TW_FIFO_BLOCK_ID_MAX;
        if (entry.key) {
            m_LastKey = entry;
            ++m_Stats.keyBlocksPushed;
        }
        m_Ring.push_back(std::move(entry));
        Trim();
        ++m_Stats.blocksPushed;
        m_Stats.lastId = m_Ring.back().id;
        return m_Ring.back().id;
    }

    // Caller holds m_Mutex.
    void Trim() {
        while (!m_Ring.empty()) {
            const bool tooMany = m_Ring.size() > m_MaxBlocks;
            const bool tooOld = m_MaxSpanUs >= 0 &&
                                m_Ring.back().ptsUs - m_Ring.front().ptsUs > m_MaxSpanUs;
            // Never drop the newest block itself, whatever the limits say.
            if ((!tooMany && !tooOld) || m_Ring.size() <= 1) {
                break;
            }
            m_Ring.pop_front();
        }
    }

    // Caller holds m_Mutex. Turns a length-prefixed block into Annex B in place, so that
    // the next reader of the same block shares the converted payload. False when its
    // lengths do not fit.
    bool ToAnnexB(FifoEntry& entry) {
        if (entry.nalLengthSize == 0) {
            return true;
        }
        auto converted = std::make_shared<std::vector<unsigned char>>();
        if (!tw::host::LengthPrefixedToAnnexB(m_Codec, entry.data->data(), entry.data->size(),
                                              entry.nalLengthSize, *converted)) {
            ++m_Stats.blocksRefused;
            return false;
        }
        entry.data = std::move(converted);
        entry.nalLengthSize = 0;
        ++m_Stats.blocksConverted;
        return true;
    }

    // Caller holds m_Mutex; observer receives what to tell once the lock is released.
    MediaBlock* HandOut(const FifoEntry& entry, std::shared_ptr<const tw::host::FrameObserver>& observer,
                        tw::host::HandedFrame& handed) {
        ++m_Stats.blocksHandedOut;
        observer = m_pObserver;
        if (observer) {
            handed.data = entry.data;
            handed.id = entry.id;
            handed.keyFrame = entry.key;
            handed.ptsUs = entry.ptsUs;
        }
        return new MediaUnit(entry.id, entry.data, entry.key, entry.ptsUs);
    }
};

namespace {

void Tell(const std::shared_ptr<const tw::host::FrameObserver>& observer, const tw::host::HandedFrame& handed) {
    if (observer && *observer) (*observer)(handed);
}

}  // namespace

StreamFifo::StreamFifo() : m_pImpl(new Impl) {}

StreamFifo::~StreamFifo() { delete m_pImpl; }

// The ring's capacity in blocks once a stream has been opened into the FIFO; 0 before.
int StreamFifo::GetTotalBufSize() {
    m_pImpl->Pull();
    std::lock_guard<std::mutex> lock(m_pImpl->m_Mutex);
    m_pImpl->Release();
    return m_pImpl->m_blHasFormat ? static_cast<int>(m_pImpl->m_MaxBlocks) : 0;
}

MediaBlock* StreamFifo::GetLastBlock(int lastId) {
    m_pImpl->Pull();
    std::shared_ptr<const tw::host::FrameObserver> observer;
    tw::host::HandedFrame handed;
    MediaBlock* block = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->m_Mutex);
        m_pImpl->Release();
        auto& ring = m_pImpl->m_Ring;
        while (!ring.empty() && ring.back().id != lastId && !m_pImpl->ToAnnexB(ring.back())) {
            ring.pop_back();
        }
        if (ring.empty() || ring.back().id == lastId) {
            return nullptr;
        }
        block = m_pImpl->HandOut(ring.back(), observer, handed);
    }
    Tell(observer, handed);
    return block;
}

MediaBlock* StreamFifo::GetLastITypeBlock(int lastId) {
    m_pImpl->Pull();
    std::shared_ptr<const tw::host::FrameObserver> observer;
    tw::host::HandedFrame handed;
    MediaBlock* block = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_pImpl->m_Mutex);
        m_pImpl->Release();
        if (!m_pImpl->m_LastKey || m_pImpl->m_LastKey->id == lastId) {
            return nullptr;
        }
        if (!m_pImpl->ToAnnexB(*m_pImpl->m_LastKey)) {
            m_pImpl->m_LastKey.reset();
            return nullptr;
        }
        block = m_pImpl->HandOut(*m_pImpl->m_LastKey, observer, handed);
    }
    Tell(observer, handed);
    return block;
}

ES_FORMAT StreamFifo::GetESFormat() {
    std::lock_guard<std::mutex> lock(m_pImpl->m_Mutex);
    ES_FORMAT format{};
    format.codec = m_pImpl->m_Codec;
    format.width = m_pImpl->m_Width;
    format.height = m_pImpl->m_Height;
    // Always a real allocation, also for a format without extra data: readers copy from
    // the pointer and free it without looking at the length first.
    const size_t len = m_pImpl->m_ExtraData.size();
    format.pExtraData = static_cast<unsigned char*>(std::malloc(len > 0 ? len : 1));
    if (format.pExtraData == nullptr) {
        format.extraDataLen = 0;
        return format;
    }
    if (len > 0) {
        std::memcpy(format.pExtraData, m_pImpl->m_ExtraData.data(), len);
    }
    format.extraDataLen = static_cast<int>(len);
    return format;
}

namespace tw::host {

void SetFifoFormat(StreamFifo& fifo, int codec, int width, int height,
                   std::vector<unsigned char> extra) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    impl.m_blHasFormat = true;
    impl.m_Codec = codec;
    impl.m_Width = width;
    impl.m_Height = height;
    impl.m_ExtraData = std::move(extra);
}

int PushFifoBlock(StreamFifo& fifo, std::shared_ptr<const std::vector<unsigned char>> data,
                  bool key, int64_t ptsUs, int nalLengthSize) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    // Blocks queued before this one and due by now come first, as they would have.
    impl.Release();
    FifoEntry entry;
    entry.key = key;
    entry.ptsUs = ptsUs;
    entry.data = data ? std::move(data) : std::make_shared<const std::vector<unsigned char>>();
    entry.nalLengthSize = nalLengthSize;
    return impl.Append(std::move(entry));
}

void QueueFifoBlock(StreamFifo& fifo, std::shared_ptr<const std::vector<unsigned char>> data, bool key,
                    int64_t ptsUs, int nalLengthSize) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    FifoEntry entry;
    entry.key = key;
    entry.ptsUs = ptsUs;
    entry.data = data ? std::move(data) : std::make_shared<const std::vector<unsigned char>>();
    entry.nalLengthSize = nalLengthSize;
    // Time stamps that go back (B-frames in presentation time) must not hold back the ones
    // behind them: a block is due no earlier than the one queued before it.
    if (!impl.m_Pending.empty() && entry.ptsUs < impl.m_Pending.back().ptsUs) {
        entry.ptsUs = impl.m_Pending.back().ptsUs;
    }
    impl.m_Pending.push_back(std::move(entry));
    impl.Release();
}

size_t QueuedFifoBlocks(StreamFifo& fifo) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    impl.Release();
    return impl.m_Pending.size();
}

void SetFifoLimits(StreamFifo& fifo, size_t maxBlocks, int64_t maxSpanUs) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    impl.m_MaxBlocks = maxBlocks > 0 ? maxBlocks : 1;
    impl.m_MaxSpanUs = maxSpanUs;
    impl.Trim();
}

void SetFifoPuller(StreamFifo& fifo, std::function<void()> puller) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> pullLock(impl.m_PullMutex);
    impl.m_Puller = std::move(puller);
}

void SetFifoFrameObserver(StreamFifo& fifo, FrameObserver observer) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    impl.m_pObserver = observer ? std::make_shared<const FrameObserver>(std::move(observer)) : nullptr;
}

void ClearFifo(StreamFifo& fifo) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    impl.m_Ring.clear();
    impl.m_Pending.clear();
    impl.m_LastKey.reset();
}

FifoStats GetFifoStats(StreamFifo& fifo) {
    StreamFifo::Impl& impl = *fifo.GetImpl();
    std::lock_guard<std::mutex> lock(impl.m_Mutex);
    impl.Release();
    FifoStats stats = impl.m_Stats;
    stats.blocksHeld = impl.m_Ring.size();
    return stats;
}

}  // namespace tw::host
