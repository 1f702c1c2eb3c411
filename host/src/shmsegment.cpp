#include "twhost/shmsegment.h"

#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace tw::host {

namespace {

constexpr uint32_t kSegmentMagic = 0x54575347;  // "TWSG"

struct Trailer {
    uint32_t magic;
    int32_t ownerPid;
    uint64_t recordBytes;
};

size_t TrailerOffset(size_t recordBytes) {
    return (recordBytes + alignof(Trailer) - 1) / alignof(Trailer) * alignof(Trailer);
}

Trailer* TrailerOf(void* record, size_t recordBytes) {
    return reinterpret_cast<Trailer*>(static_cast<char*>(record) + TrailerOffset(recordBytes));
}

bool ProcessAlive(pid_t pid) { return pid > 0 && (kill(pid, 0) == 0 || errno == EPERM); }

std::string KeyText(key_t key) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(key));
    return text;
}

// The trailer of an attached segment of ours with recordBytes, or null.
Trailer* CheckedTrailer(int id, void* p, size_t recordBytes) {
    shmid_ds ds{};
    if (shmctl(id, IPC_STAT, &ds) != 0) return nullptr;
    if (ds.shm_segsz != TrailerOffset(recordBytes) + sizeof(Trailer)) return nullptr;
    Trailer* t = TrailerOf(p, recordBytes);
    if (__atomic_load_n(&t->magic, __ATOMIC_ACQUIRE) != kSegmentMagic) return nullptr;
    if (t->recordBytes != recordBytes) return nullptr;
    return t;
}

}  // namespace

ShmSegment::~ShmSegment() { Remove(); }

bool ShmSegment::Create(key_t key, size_t recordBytes, const std::string& what,
                        std::string& error) {
    Remove();
    const size_t total = TrailerOffset(recordBytes) + sizeof(Trailer);
    const int oldId = shmget(key, 0, 0);
    if (oldId >= 0) {
        void* old = shmat(oldId, nullptr, 0);
        if (old == reinterpret_cast<void*>(-1)) {
            error = "cannot take over the " + what + " (key " + KeyText(key) + "): " +
                    std::strerror(errno);
            return false;
        }
        Trailer* t = CheckedTrailer(oldId, old, recordBytes);
        const pid_t owner = t ? __atomic_load_n(&t->ownerPid, __ATOMIC_ACQUIRE) : 0;
        shmdt(old);
        if (t == nullptr) {
            error = "shared-memory key " + KeyText(key) + " of the " + what +
                    " is used by another program (set TW_SHM_KEY_BASE to move)";
            return false;
        }
        if (ProcessAlive(owner) && owner != getpid()) {
            error = "the " + what + " is owned already by process " + std::to_string(owner);
            return false;
        }
        if (shmctl(oldId, IPC_RMID, nullptr) != 0) {
            error = "cannot remove the stale " + what + ": " + std::strerror(errno);
            return false;
        }
    }
    const int id = shmget(key, total, IPC_CREAT | IPC_EXCL | 0600);
    if (id < 0) {
        error = "cannot create the " + what + " (key " + KeyText(key) + "): " +
                std::strerror(errno);
        return false;
    }
    void* p = shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) {
        error = "cannot attach the " + what + ": " + std::strerror(errno);
        shmctl(id, IPC_RMID, nullptr);
        return false;
    }
    // The kernel zero-fills a new segment; the magic goes in last so that an attacher never
    // sees a half-made trailer.
    Trailer* t = TrailerOf(p, recordBytes);
    t->recordBytes = recordBytes;
    __atomic_store_n(&t->ownerPid, static_cast<int32_t>(getpid()), __ATOMIC_RELEASE);
    __atomic_store_n(&t->magic, kSegmentMagic, __ATOMIC_RELEASE);
    m_Key = key;
    m_ShmId = id;
    m_pRecord = p;
    return true;
}

void ShmSegment::Remove() {
    if (m_pRecord == nullptr) return;
    shmctl(m_ShmId, IPC_RMID, nullptr);
    shmdt(m_pRecord);
    m_pRecord = nullptr;
    m_ShmId = -1;
}

void* ShmSegment::Attach(key_t key, size_t recordBytes) {
    const int id = shmget(key, 0, 0);
    if (id < 0) return nullptr;
    void* p = shmat(id, nullptr, 0);
    if (p == reinterpret_cast<void*>(-1)) return nullptr;
    if (CheckedTrailer(id, p, recordBytes) == nullptr) {
        shmdt(p);
        return nullptr;
    }
    return p;
}

}  // namespace tw::host
