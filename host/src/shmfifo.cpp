// The live FIFO in System V shared memory: ShmStreamFifo (reader side of the recorder's
// API), LiveStreamFifoAt, LiveStreamUpdater and the publisher.

#include "twhost/shmfifo.h"
#include "twhost/turnlateness.h"

#include "twhost/frameobserver.h"

#include <pthread.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <cstdio>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

#include "tw/stream.h"
#include "twhost/clock.h"

namespace tw::host {

namespace {

constexpr uint32_t kShmMagic = 0x46535754;   // "TWSF"
constexpr uint32_t kShmVersion = 1;

struct ShmEntry {
    uint64_t seq;     // 1-based number of the write that filled this slot
    uint64_t pos;     // position of the frame in the data area, counted from the start
    uint32_t size;
    int32_t id;
    int32_t key;
    int32_t reserved;
    int64_t ptsUs;
};

struct ShmHeader {
    uint32_t magic;   // written last by the creator: a reader sees a ready header or none
    uint32_t version;
    uint64_t totalBytes;
    uint64_t entriesOffset;
    uint64_t dataOffset;
    uint64_t dataBytes;
    uint32_t entryCount;
    int32_t publisherPid;   // 0 once the publisher has closed the stream
    pthread_mutex_t mutex;
    // Everything below is guarded by the mutex, except readerStampUs (atomic).
    int32_t codec;
    int32_t width;
    int32_t height;
    int32_t extraLen;
    uint8_t extra[kShmMaxExtraData];
    int64_t readerStampUs;
    uint64_t writeCount;    // frames written so far
    uint64_t dataHead;      // data bytes reserved so far (never wraps)
    uint64_t lastKeySeq;    // seq of the newest key frame, 0 when none
    int32_t nextId;
    int32_t reserved;
};

size_t AlignUp(size_t n, size_t a) { return (n + a - 1) / a * a; }

size_t EntriesOffset() { return AlignUp(sizeof(ShmHeader), 64); }

size_t DataOffset(int entries) {
    return AlignUp(EntriesOffset() + sizeof(ShmEntry) * static_cast<size_t>(entries), 4096);
}

size_t SegmentBytes(size_t dataBytes, int entries) { return DataOffset(entries) + dataBytes; }

ShmHeader* HeaderOf(void* p) { return static_cast<ShmHeader*>(p); }

ShmEntry* EntriesOf(ShmHeader* h) {
    return reinterpret_cast<ShmEntry*>(reinterpret_cast<unsigned char*>(h) + h->entriesOffset);
}

unsigned char* DataOf(ShmHeader* h) { return reinterpret_cast<unsigned char*>(h) + h->dataOffset; }

bool IsReady(const ShmHeader* h) {
    return __atomic_load_n(&h->magic, __ATOMIC_ACQUIRE) == kShmMagic && h->version == kShmVersion;
}

// Locks the segment's mutex. A publisher or reader that died holding it leaves it
// "owner dead": the ring indices are only ever changed in one step, so they are still
// consistent and the lock is simply taken over.
bool LockShm(ShmHeader* h) {
    const int ret = pthread_mutex_lock(&h->mutex);
    if (ret == EOWNERDEAD) {
        pthread_mutex_consistent(&h->mutex);
        return true;
    }
    return ret == 0;
}

void UnlockShm(ShmHeader* h) { pthread_mutex_unlock(&h->mutex); }

bool ProcessAlive(pid_t pid) {
    if (pid <= 0) {
        return false;
    }
    return kill(pid, 0) == 0 || errno == EPERM;
}

// Attaches an existing, initialised segment; null when there is none.
void* AttachExisting(key_t key) {
    const int id = shmget(key, 0, 0);
    if (id < 0) {
        return nullptr;
    }
    void* p = shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        return nullptr;
    }
    shmid_ds ds{};
    if (shmctl(id, IPC_STAT, &ds) != 0 || ds.shm_segsz < sizeof(ShmHeader) ||
        !IsReady(HeaderOf(p)) || HeaderOf(p)->totalBytes > ds.shm_segsz) {
        shmdt(p);
        return nullptr;
    }
    return p;
}

// The newest frame (key frame when keyOnly), copied into a new[] buffer. Returns 0 with
// frame null when there is none.
// The observer of frames handed out (frameobserver.h). g_blShmObserver spares the readers
// the mutex while nobody observes; the mutex is held across the call, so that a removed
// observer is never called after SetShmFrameObserver returned.
std::mutex g_ShmObserverMutex;
FrameObserver g_ShmObserver;
std::atomic<bool> g_blShmObserver{false};

void TellShmObserver(const unsigned char* frame, int size, const ShmEntry& entry) {
    if (!g_blShmObserver.load(std::memory_order_acquire)) {
        return;
    }
    std::lock_guard<std::mutex> lock(g_ShmObserverMutex);
    if (!g_ShmObserver) {
        return;
    }
    HandedFrame handed;
    handed.data = std::make_shared<const std::vector<unsigned char>>(frame, frame + size);
    handed.id = entry.id;
    handed.keyFrame = entry.key != 0;
    handed.ptsUs = entry.ptsUs;
    g_ShmObserver(handed);
}

int ReadNewest(ShmHeader* h, bool keyOnly, int& id, unsigned char*& frame, int& size,
               DATA_ENTRY_INFO* pInfo) {
    frame = nullptr;
    size = 0;
    if (!IsReady(h)) {
        return -1;
    }
    // A writer that laps the copy three times in a row means frames are far bigger than
    // the ring: give up rather than spin.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!LockShm(h)) {
            return -1;
        }
        const uint64_t seq = keyOnly ? h->lastKeySeq : h->writeCount;
        if (seq == 0 || h->writeCount - seq >= h->entryCount) {
            UnlockShm(h);
            return 0;
        }
        const ShmEntry entry = EntriesOf(h)[(seq - 1) % h->entryCount];
        const uint64_t dataBytes = h->dataBytes;
        // The newest key frame may be older than the data area holds (a very long GOP).
        if (entry.seq != seq || h->dataHead > entry.pos + dataBytes) {
            UnlockShm(h);
            return 0;
        }
        UnlockShm(h);

        auto* buf = new unsigned char[entry.size > 0 ? entry.size : 1];
        std::memcpy(buf, DataOf(h) + entry.pos % dataBytes, entry.size);

        if (!LockShm(h)) {
            delete[] buf;
            return -1;
        }
        const bool intact = h->dataHead <= entry.pos + dataBytes;
        UnlockShm(h);
        if (!intact) {
            delete[] buf;
            continue;
        }
        frame = buf;
        size = static_cast<int>(entry.size);
        id = entry.id;
        if (pInfo != nullptr) {
            pInfo->id = entry.id;
            pInfo->size = static_cast<int>(entry.size);
            pInfo->ptsUs = entry.ptsUs;
            pInfo->blKeyFrame = entry.key;
        }
        TellShmObserver(frame, size, entry);
        return 0;
    }
    return 0;
}

}  // namespace

namespace {

// base + offset as a key; false with error for an unreadable TW_SHM_KEY_BASE or the
// private key.
bool KeyFromBase(uint64_t offset, const std::string& what, key_t& key, std::string& error) {
    int64_t base = kShmDefaultKeyBase;
    const char* env = std::getenv("TW_SHM_KEY_BASE");
    if (env != nullptr && *env != '\0') {
        char* end = nullptr;
        errno = 0;
        const long long value = std::strtoll(env, &end, 0);
        if (errno != 0 || end == env || *end != '\0' || value < 0 || value > 0xffffffffLL) {
            error = std::string("invalid TW_SHM_KEY_BASE '") + env + "'";
            return false;
        }
        base = value;
    }
    const uint64_t raw = static_cast<uint64_t>(base) + offset;
    key = static_cast<key_t>(static_cast<uint32_t>(raw));
    if (key == IPC_PRIVATE) {
        error = what + " maps to the private shared-memory key";
        return false;
    }
    return true;
}

}  // namespace

void SetShmFrameObserver(FrameObserver observer) {
    std::lock_guard<std::mutex> lock(g_ShmObserverMutex);
    g_ShmObserver = std::move(observer);
    g_blShmObserver.store(static_cast<bool>(g_ShmObserver), std::memory_order_release);
}

bool LiveStreamShmKey(int camId, int streamNo, key_t& key, std::string& error) {
    // Ids above 0x7fff would reach the key ranges of the devices' other records.
    if (camId < 0 || camId > 0x7fff) {
        error = "invalid camera id " + std::to_string(camId) + " (0..32767)";
        return false;
    }
    if (streamNo < 0 || streamNo >= kShmStreamsPerCamera) {
        error = "invalid stream number " + std::to_string(streamNo) + " (0.." +
                std::to_string(kShmStreamsPerCamera - 1) + ")";
        return false;
    }
    const uint64_t offset = static_cast<uint64_t>(camId) * kShmStreamsPerCamera +
                            static_cast<uint64_t>(streamNo);
    return KeyFromBase(offset,
                       "camera " + std::to_string(camId) + " stream " + std::to_string(streamNo),
                       key, error);
}

bool DeviceShmKey(ShmKeySpace space, int devId, key_t& key, std::string& error) {
    if (devId < 0 || devId > 0xffff) {
        error = "invalid device id " + std::to_string(devId) + " (0..65535)";
        return false;
    }
    const uint64_t offset = static_cast<uint64_t>(space) + static_cast<uint64_t>(devId);
    return KeyFromBase(offset, "device " + std::to_string(devId), key, error);
}

// ---------------------------------------------------------------------------------------
// Publisher

bool ReadLiveStreamFormat(int camId, int streamNo, LiveStreamFormat& format, std::string& error) {
    key_t key = 0;
    if (!LiveStreamShmKey(camId, streamNo, key, error)) return false;
    void* p = AttachExisting(key);
    if (p == nullptr) {
        error = "no live stream of camera " + std::to_string(camId) + " stream " + std::to_string(streamNo) +
                " in shared memory";
        return false;
    }
    ShmHeader* h = HeaderOf(p);
    if (!LockShm(h)) {
        shmdt(p);
        error = "the live FIFO of camera " + std::to_string(camId) + " stream " + std::to_string(streamNo) +
                " cannot be locked";
        return false;
    }
    format.codec = h->codec;
    format.width = h->width;
    format.height = h->height;
    format.extra.assign(h->extra, h->extra + (h->extraLen > 0 ? h->extraLen : 0));
    UnlockShm(h);
    const pid_t pid = __atomic_load_n(&h->publisherPid, __ATOMIC_ACQUIRE);
    format.publisherAlive = pid != 0 && ProcessAlive(pid);
    shmdt(p);
    return true;
}

ShmStreamPublisher::ShmStreamPublisher(int camId, int streamNo, size_t dataBytes, int entries)
    : m_CamId(camId), m_StreamNo(streamNo), m_DataBytes(dataBytes), m_Entries(entries) {}

ShmStreamPublisher::~ShmStreamPublisher() { Close(); }

bool ShmStreamPublisher::Open(std::string& error) {
    if (m_pShm != nullptr) {
        return true;
    }
    const std::string name =
        "live FIFO of camera " + std::to_string(m_CamId) + " stream " + std::to_string(m_StreamNo);
    if (m_DataBytes < 4096 || m_Entries < 2) {
        error = "cannot create the " + name + ": data area or ring too small";
        return false;
    }
    if (!LiveStreamShmKey(m_CamId, m_StreamNo, m_Key, error)) {
        return false;
    }
    const size_t total = SegmentBytes(m_DataBytes, m_Entries);

    const int oldId = shmget(m_Key, 0, 0);
    if (oldId >= 0) {
        char keyText[16];
        std::snprintf(keyText, sizeof(keyText), "0x%08x", static_cast<unsigned>(m_Key));
        void* old = shmat(oldId, nullptr, 0);
        if (old == reinterpret_cast<void*>(-1)) {
            error = "cannot take over the " + name + " (key " + keyText + "): " +
                    std::strerror(errno);
            return false;
        }
        shmid_ds ds{};
        const bool statOk = shmctl(oldId, IPC_STAT, &ds) == 0;
        ShmHeader* h = HeaderOf(old);
        const bool ours = statOk && ds.shm_segsz >= sizeof(ShmHeader) && IsReady(h);
        const int pid = ours ? __atomic_load_n(&h->publisherPid, __ATOMIC_ACQUIRE) : 0;
        if (ours && pid != 0 && !ProcessAlive(pid) && ds.shm_segsz >= total && h->totalBytes == total &&
            h->dataBytes == m_DataBytes && h->entryCount == static_cast<uint32_t>(m_Entries)) {
            // Left behind by a publisher that died (killed, crashed) and laid out as ours:
            // taken over in place. Readers keep the segment they attached, and a detector
            // reading it then gets this publisher's frames; a new segment would leave it
            // watching the dead one's last picture for good.
            if (!TakeOver(old, error)) {
                shmdt(old);
                return false;
            }
            m_ShmId = oldId;
            m_pShm = old;
            m_Pushed = 0;
            return true;
        }
        shmdt(old);
        if (!ours) {
            // Someone else's segment under our key: not ours to remove.
            error = "shared-memory key " + std::string(keyText) + " of the " + name +
                    " is used by another program (set TW_SHM_KEY_BASE to move)";
            return false;
        }
        if (ProcessAlive(pid)) {
            error = "the " + name + " is published already by process " + std::to_string(pid);
            return false;
        }
        // Left behind by a publisher that is gone: start afresh. Readers still attached
        // to it keep their mapping until they detach.
        if (shmctl(oldId, IPC_RMID, nullptr) != 0) {
            error = "cannot remove the stale " + name + ": " + std::strerror(errno);
            return false;
        }
    }

    const int id = shmget(m_Key, total, IPC_CREAT | IPC_EXCL | 0600);
    if (id < 0) {
        error = "cannot create the " + name + " (" + std::to_string(total) + " bytes): " +
                std::strerror(errno);
        return false;
    }
    void* p = shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        error = "cannot attach the " + name + ": " + std::strerror(errno);
        shmctl(id, IPC_RMID, nullptr);
        return false;
    }
    // A new segment is zero-filled by the kernel.
    ShmHeader* h = HeaderOf(p);
    h->version = kShmVersion;
    h->totalBytes = total;
    h->entriesOffset = EntriesOffset();
    h->dataOffset = DataOffset(m_Entries);
    h->dataBytes = m_DataBytes;
    h->entryCount = static_cast<uint32_t>(m_Entries);
    __atomic_store_n(&h->publisherPid, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    const int ret = pthread_mutex_init(&h->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (ret != 0) {
        error = "cannot set up the lock of the " + name + ": " + std::strerror(ret);
        shmdt(p);
        shmctl(id, IPC_RMID, nullptr);
        return false;
    }
    __atomic_store_n(&h->magic, kShmMagic, __ATOMIC_RELEASE);
    m_ShmId = id;
    m_pShm = p;
    m_Pushed = 0;
    return true;
}

bool ShmStreamPublisher::TakeOver(void* shm, std::string& error) {
    ShmHeader* h = HeaderOf(shm);
    if (!LockShm(h)) {
        error = "cannot lock the live FIFO of camera " + std::to_string(m_CamId) + " stream " +
                std::to_string(m_StreamNo) + " left by a publisher that is gone";
        return false;
    }
    // The ring starts empty, so that readers wait for this publisher's first frame instead
    // of the dead one's last. The data head keeps counting: a reader copying an old frame
    // right now still sees whether it was overwritten.
    std::memset(EntriesOf(h), 0, sizeof(ShmEntry) * h->entryCount);
    h->writeCount = 0;
    h->lastKeySeq = 0;
    h->codec = 0;
    h->width = 0;
    h->height = 0;
    h->extraLen = 0;
    std::memset(h->extra, 0, sizeof(h->extra));
    __atomic_store_n(&h->publisherPid, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
    UnlockShm(h);
    return true;
}

void ShmStreamPublisher::Close() {
    if (m_pShm == nullptr) {
        return;
    }
    ShmHeader* h = HeaderOf(m_pShm);
    __atomic_store_n(&h->publisherPid, 0, __ATOMIC_RELEASE);
    shmctl(m_ShmId, IPC_RMID, nullptr);
    shmdt(m_pShm);
    m_pShm = nullptr;
    m_ShmId = -1;
}

bool ShmStreamPublisher::SetFormat(int codec, int width, int height,
                                   const std::vector<unsigned char>& extra) {
    if (m_pShm == nullptr) {
        return false;
    }
    ShmHeader* h = HeaderOf(m_pShm);
    if (!LockShm(h)) {
        return false;
    }
    const bool fits = extra.size() <= kShmMaxExtraData;
    h->codec = codec;
    h->width = width;
    h->height = height;
    h->extraLen = fits ? static_cast<int32_t>(extra.size()) : 0;
    std::memset(h->extra, 0, sizeof(h->extra));
    if (fits && !extra.empty()) {
        std::memcpy(h->extra, extra.data(), extra.size());
    }
    UnlockShm(h);
    return fits;
}

int ShmStreamPublisher::Push(const unsigned char* frame, size_t size, bool key, int64_t ptsUs) {
    if (m_pShm == nullptr || frame == nullptr || size == 0) {
        return -1;
    }
    ShmHeader* h = HeaderOf(m_pShm);
    const uint64_t dataBytes = h->dataBytes;
    // Half the data area at most, so the newest frame never overwrites the one before it.
    if (size > dataBytes / 2) {
        return -1;
    }
    if (!LockShm(h)) {
        return -1;
    }
    uint64_t pos = h->dataHead;
    // Frames are stored in one piece: skip the tail of the area when the frame does not fit.
    if (pos % dataBytes + size > dataBytes) {
        pos += dataBytes - pos % dataBytes;
    }
    h->dataHead = pos + size;
    std::memcpy(DataOf(h) + pos % dataBytes, frame, size);
    const uint64_t seq = h->writeCount + 1;
    ShmEntry& entry = EntriesOf(h)[(seq - 1) % h->entryCount];
    entry.seq = seq;
    entry.pos = pos;
    entry.size = static_cast<uint32_t>(size);
    entry.id = h->nextId;
    entry.key = key ? 1 : 0;
    entry.reserved = 0;
    entry.ptsUs = ptsUs;
    h->nextId = (h->nextId + 1) % TW_FIFO_BLOCK_ID_MAX;
    h->writeCount = seq;
    if (key) {
        h->lastKeySeq = seq;
    }
    const int id = entry.id;
    UnlockShm(h);
    ++m_Pushed;
    return id;
}

int64_t ShmStreamPublisher::GetReaderStampUs() const {
    if (m_pShm == nullptr) {
        return 0;
    }
    return __atomic_load_n(&HeaderOf(m_pShm)->readerStampUs, __ATOMIC_ACQUIRE);
}

}  // namespace tw::host

// ---------------------------------------------------------------------------------------
// Reader side of the recorder's API

using tw::host::HeaderOf;

ShmStreamFifo* LiveStreamFifoAt(int camId, int streamNo) {
    key_t key = 0;
    std::string error;
    if (!tw::host::LiveStreamShmKey(camId, streamNo, key, error)) {
        return nullptr;
    }
    // The caller releases the FIFO with shmdt, so the object is the attach address itself.
    return static_cast<ShmStreamFifo*>(tw::host::AttachExisting(key));
}

int ShmStreamFifo::ReadLatest(int& id, unsigned char*& frame, int& size, bool blWait) {
    auto* h = HeaderOf(this);
    int ret = tw::host::ReadNewest(h, false, id, frame, size, nullptr);
    if (!blWait) {
        return ret;
    }
    // Waiting is for a stream that has not delivered its first frame yet; a second is what
    // a camera needs to send one.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (ret == 0 && frame == nullptr && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ret = tw::host::ReadNewest(h, false, id, frame, size, nullptr);
    }
    return ret;
}

int ShmStreamFifo::ReadLatestIFrame(int& id, unsigned char*& frame, int& size,
                                    DATA_ENTRY_INFO* pInfo) {
    return tw::host::ReadNewest(HeaderOf(this), true, id, frame, size, pInfo);
}

int ShmStreamFifo::GetVdoExtraData(unsigned char* buf, int& len) {
    auto* h = HeaderOf(this);
    if (!tw::host::IsReady(h) || !tw::host::LockShm(h)) {
        len = 0;
        return -1;
    }
    const int n = h->extraLen;
    if (buf == nullptr || len < n) {
        tw::host::UnlockShm(h);
        len = 0;
        return -1;
    }
    if (n > 0) {
        std::memcpy(buf, h->extra, static_cast<size_t>(n));
    }
    tw::host::UnlockShm(h);
    len = n;
    return 0;
}

LiveStreamUpdater::LiveStreamUpdater(int camId, int streamNo)
    : m_CamId(camId), m_StreamNo(streamNo), m_pShm(nullptr) {
    // A detector's thread makes its updater before its first turn: from here on its
    // DelayTimer waits are that camera's turns.
    tw::host::BindTurnCamera(camId);
}

LiveStreamUpdater::~LiveStreamUpdater() {
    if (m_pShm != nullptr) {
        shmdt(m_pShm);
        m_pShm = nullptr;
    }
}

int LiveStreamUpdater::StartLive() {
    if (m_pShm != nullptr) {
        return 0;
    }
    key_t key = 0;
    std::string error;
    if (!tw::host::LiveStreamShmKey(m_CamId, m_StreamNo, key, error)) {
        return -1;
    }
    m_pShm = tw::host::AttachExisting(key);
    return m_pShm != nullptr ? 0 : -1;
}

int LiveStreamUpdater::UpdateStamp() {
    // A publisher that has gone may have been replaced by a new one: follow it.
    if (m_pShm != nullptr &&
        __atomic_load_n(&HeaderOf(m_pShm)->publisherPid, __ATOMIC_ACQUIRE) == 0) {
        shmdt(m_pShm);
        m_pShm = nullptr;
    }
    if (m_pShm == nullptr && StartLive() != 0) {
        return -1;
    }
    __atomic_store_n(&HeaderOf(m_pShm)->readerStampUs, tw::host::GetClock().NowUs(),
                     __ATOMIC_RELEASE);
    return 0;
}
