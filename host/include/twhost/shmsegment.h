// A System V shared-memory segment that holds one record of the recorder at its start (so
// that whoever attached it can detach it with shmdt on the record's address), followed by
// a small trailer that marks it as ours and names the process that owns it.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>

namespace tw::host {

class ShmSegment {
public:
    ShmSegment() = default;
    // Removes the segment (IPC_RMID) and detaches it. Processes still attached keep their
    // mapping until they detach.
    ~ShmSegment();
    ShmSegment(const ShmSegment&) = delete;
    ShmSegment& operator=(const ShmSegment&) = delete;

    // Creates a zero-filled segment of recordBytes (plus the trailer) under key, or takes
    // over one left by an owner that is gone. Fails with error, naming what, when a live
    // process owns the key or the key belongs to someone else.
    bool Create(key_t key, size_t recordBytes, const std::string& what, std::string& error);
    void Remove();

    void* Record() const { return m_pRecord; }
    key_t GetKey() const { return m_Key; }

    // Attaches the record under key when a segment of ours with exactly recordBytes is
    // there; null otherwise. Detach with shmdt.
    static void* Attach(key_t key, size_t recordBytes);

private:
    key_t m_Key = 0;
    int m_ShmId = -1;
    void* m_pRecord = nullptr;
};

}  // namespace tw::host
