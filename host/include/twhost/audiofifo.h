// The writing side of the shared-memory audio-out FIFOs of tw/audio.h (ShmAudioOutFifo,
// AudioOutFifoAt, IPSpeakerAudioOutFifoAt): the process that takes the user's audio (the
// "twhost audiofeed" command, or a test) creates a device's FIFO and writes into it; the
// plug-in's audio-out thread attaches it and reads.
//
// Keys: ShmKeySpace::AudioOutFifo + id for cameras and I/O modules (one id space, as the
// recorder's AudioOutFifoAt has it), ShmKeySpace::SpeakerAudioFifo + id for IP speakers
// (twhost/shmfifo.h; TW_SHM_KEY_BASE moves both).
//
// The record at the start of the segment is a byte ring of kAudioFifoCapacity bytes with a
// process-shared robust mutex: a reader or writer that dies holding it leaves the indices
// consistent (they change in one step after the copy), and the next user takes the lock
// over. A reader never waits for audio: GetData returns what is queued, 0 when nothing is.
// A writer never waits for a reader either: when the ring is full the oldest audio goes,
// since a live source cannot be held up and late audio is worth less than current audio.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tw/audio.h"
#include "twhost/shmsegment.h"

namespace tw::host {

// About five seconds of 48 kHz 16-bit stereo; a minute of 8 kHz G.711.
constexpr size_t kAudioFifoCapacity = 1u << 20;

// The key of a device's audio-out FIFO; false with error for a bad id or key base.
bool AudioOutFifoKey(int devId, bool speaker, key_t& key, std::string& error);

class AudioOutFifoWriter {
public:
    // speaker: the FIFO of IP speaker devId; otherwise that of camera or I/O module devId.
    AudioOutFifoWriter(int devId, bool speaker) : m_DevId(devId), m_blSpeaker(speaker) {}
    // Removes the FIFO; readers still attached keep what they hold until they detach.
    ~AudioOutFifoWriter() = default;
    AudioOutFifoWriter(const AudioOutFifoWriter&) = delete;
    AudioOutFifoWriter& operator=(const AudioOutFifoWriter&) = delete;

    // Creates the FIFO (empty), or takes over one left by a writer that is gone. Fails with
    // error, naming the device, when the id is bad or a live process writes it already.
    bool Open(std::string& error);
    void Close() { m_Segment.Remove(); }
    bool IsOpen() const { return m_Segment.Record() != nullptr; }

    // Queues size bytes. Returns how many bytes were dropped to make room: older queued
    // audio first, and when data alone is larger than the ring, its own start too. Nothing
    // happens on a closed writer (returns 0).
    size_t Write(const void* data, size_t size);
    // Bytes queued and not yet read.
    size_t GetQueuedBytes() const;
    uint64_t GetWrittenBytes() const;
    uint64_t GetDroppedBytes() const;

    // "audio-out FIFO of IP speaker 3" / "... of camera or I/O module 3".
    std::string Describe() const;
    int GetDevId() const { return m_DevId; }
    bool IsSpeaker() const { return m_blSpeaker; }
    key_t GetKey() const { return m_Segment.GetKey(); }

private:
    int m_DevId;
    bool m_blSpeaker;
    ShmSegment m_Segment;
};

}  // namespace tw::host
