// Shared-memory audio-out FIFOs: the recorder's reader side (ShmAudioOutFifo,
// AudioOutFifoAt, IPSpeakerAudioOutFifoAt) and the host's writer.
#include "twhost/audiofifo.h"

#include <pthread.h>
#include <sys/shm.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>

#include "twhost/shmfifo.h"

namespace tw::host {

namespace {

constexpr uint32_t kAudioFifoMagic = 0x46415754;   // "TWAF"
constexpr uint32_t kAudioFifoVersion = 1;

// The record at offset 0 of the segment. ShmAudioOutFifo (tw/audio.h) is the recorder's
// opaque name for it: its methods see their this pointer as this record.
struct AudioFifoRecord {
    uint32_t magic;          // written last by the writer: a reader sees a ready ring or none
    uint32_t version;
    uint64_t capacity;
    pthread_mutex_t mutex;
    // Guarded by the mutex. Totals never wrap in practice (2^64 bytes).
    uint64_t writeTotal;     // bytes ever queued
    uint64_t readTotal;      // bytes ever taken out: read, reset away or dropped
    uint64_t droppedTotal;   // bytes dropped by a writer that found the ring full
    unsigned char ring[kAudioFifoCapacity];
};

bool IsReady(const AudioFifoRecord* r) {
    return __atomic_load_n(&r->magic, __ATOMIC_ACQUIRE) == kAudioFifoMagic &&
           r->version == kAudioFifoVersion && r->capacity == kAudioFifoCapacity;
}

// Takes the lock, also over from a process that died holding it (the indices are only
// changed in one step after the bytes, so they are consistent).
bool Lock(AudioFifoRecord* r) {
    const int ret = pthread_mutex_lock(&r->mutex);
    if (ret == EOWNERDEAD) {
        pthread_mutex_consistent(&r->mutex);
        return true;
    }
    return ret == 0;
}

void Unlock(AudioFifoRecord* r) { pthread_mutex_unlock(&r->mutex); }

AudioFifoRecord* RecordOf(const void* p) {
    return static_cast<AudioFifoRecord*>(const_cast<void*>(p));
}

ShmAudioOutFifo* AttachFifo(int devId, bool speaker) {
    key_t key = 0;
    std::string error;
    if (!AudioOutFifoKey(devId, speaker, key, error)) return nullptr;
    void* p = ShmSegment::Attach(key, sizeof(AudioFifoRecord));
    if (p == nullptr) return nullptr;
    if (!IsReady(RecordOf(p))) {
        // The writer is still setting the ring up: as good as no FIFO yet.
        shmdt(p);
        return nullptr;
    }
    return static_cast<ShmAudioOutFifo*>(p);
}

}  // namespace

bool AudioOutFifoKey(int devId, bool speaker, key_t& key, std::string& error) {
    return DeviceShmKey(speaker ? ShmKeySpace::SpeakerAudioFifo : ShmKeySpace::AudioOutFifo,
                        devId, key, error);
}

std::string AudioOutFifoWriter::Describe() const {
    return std::string("audio-out FIFO of ") +
           (m_blSpeaker ? "IP speaker " : "camera or I/O module ") + std::to_string(m_DevId);
}

bool AudioOutFifoWriter::Open(std::string& error) {
    key_t key = 0;
    if (!AudioOutFifoKey(m_DevId, m_blSpeaker, key, error)) {
        error = Describe() + ": " + error;
        return false;
    }
    if (!m_Segment.Create(key, sizeof(AudioFifoRecord), Describe(), error)) return false;
    // The kernel zero-filled the segment: the totals start at 0.
    AudioFifoRecord* r = RecordOf(m_Segment.Record());
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_setpshared(&attr, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attr, PTHREAD_MUTEX_ROBUST);
    const int ret = pthread_mutex_init(&r->mutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (ret != 0) {
        error = Describe() + ": cannot set up its lock: " + std::strerror(ret);
        m_Segment.Remove();
        return false;
    }
    r->version = kAudioFifoVersion;
    r->capacity = kAudioFifoCapacity;
    __atomic_store_n(&r->magic, kAudioFifoMagic, __ATOMIC_RELEASE);
    return true;
}

size_t AudioOutFifoWriter::Write(const void* data, size_t size) {
    AudioFifoRecord* r = RecordOf(m_Segment.Record());
    if (r == nullptr || data == nullptr || size == 0) return 0;
    const auto* bytes = static_cast<const unsigned char*>(data);
    size_t dropped = 0;
    // Only the newest capacity bytes of data can be kept.
    if (size > kAudioFifoCapacity) {
        dropped = size - kAudioFifoCapacity;
        bytes += dropped;
        size = kAudioFifoCapacity;
    }
    if (!Lock(r)) return 0;
    const uint64_t queued = r->writeTotal - r->readTotal;
    const uint64_t room = kAudioFifoCapacity - queued;
    if (size > room) {
        const uint64_t drop = size - room;
        r->readTotal += drop;
        dropped += static_cast<size_t>(drop);
    }
    const size_t at = static_cast<size_t>(r->writeTotal % kAudioFifoCapacity);
    const size_t first = std::min(size, kAudioFifoCapacity - at);
    std::memcpy(r->ring + at, bytes, first);
    std::memcpy(r->ring, bytes + first, size - first);
    r->writeTotal += size;
    r->droppedTotal += dropped;
    Unlock(r);
    return dropped;
}

size_t AudioOutFifoWriter::GetQueuedBytes() const {
    AudioFifoRecord* r = RecordOf(m_Segment.Record());
    if (r == nullptr || !Lock(r)) return 0;
    const uint64_t queued = r->writeTotal - r->readTotal;
    Unlock(r);
    return static_cast<size_t>(queued);
}

uint64_t AudioOutFifoWriter::GetWrittenBytes() const {
    AudioFifoRecord* r = RecordOf(m_Segment.Record());
    if (r == nullptr || !Lock(r)) return 0;
    const uint64_t total = r->writeTotal;
    Unlock(r);
    return total;
}

uint64_t AudioOutFifoWriter::GetDroppedBytes() const {
    AudioFifoRecord* r = RecordOf(m_Segment.Record());
    if (r == nullptr || !Lock(r)) return 0;
    const uint64_t total = r->droppedTotal;
    Unlock(r);
    return total;
}

}  // namespace tw::host

void ShmAudioOutFifo::Reset() {
    tw::host::AudioFifoRecord* r = tw::host::RecordOf(this);
    if (!tw::host::IsReady(r) || !tw::host::Lock(r)) return;
    r->readTotal = r->writeTotal;
    tw::host::Unlock(r);
}

int ShmAudioOutFifo::GetData(unsigned char* buf, int size) {
    tw::host::AudioFifoRecord* r = tw::host::RecordOf(this);
    if (buf == nullptr || size <= 0 || !tw::host::IsReady(r) || !tw::host::Lock(r)) return 0;
    const uint64_t queued = r->writeTotal - r->readTotal;
    const size_t n = static_cast<size_t>(std::min<uint64_t>(queued, static_cast<uint64_t>(size)));
    const size_t at = static_cast<size_t>(r->readTotal % tw::host::kAudioFifoCapacity);
    const size_t first = std::min(n, tw::host::kAudioFifoCapacity - at);
    std::memcpy(buf, r->ring + at, first);
    std::memcpy(buf + first, r->ring, n - first);
    r->readTotal += n;
    tw::host::Unlock(r);
    return static_cast<int>(n);
}

ShmAudioOutFifo* AudioOutFifoAt(int devId) { return tw::host::AttachFifo(devId, false); }

ShmAudioOutFifo* IPSpeakerAudioOutFifoAt(int speakerId) {
    return tw::host::AttachFifo(speakerId, true);
}
