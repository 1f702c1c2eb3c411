// The live FIFO of a camera stream in System V shared memory: the publishing side (the
// "twhost stream" process, or a test) and the key scheme that both sides share. The
// reading side is the recorder's API in tw/stream.h (LiveStreamFifoAt, ShmStreamFifo,
// LiveStreamUpdater).
//
// Segment keys are deterministic: base + camId * 8 + streamNo, with streamNo 0..7 and the
// base 0x54570000; other shared records of devices use their own ranges above the live
// FIFOs (ShmKeySpace). The environment variable TW_SHM_KEY_BASE (decimal, or hex with 0x)
// replaces the base, so that parallel test runs or several hosts on one machine do not
// meet in each other's segments; publisher and readers must agree on it.
//
// Layout of a segment: a header (magic, version, a process-shared robust mutex, the
// stream's format and extra data, the reader stamp, the publisher's pid, ring indices),
// then a ring of entries (id, key flag, pts, position, size), then the data area where
// frames are stored back to back. A reader copies a frame outside the lock and then checks
// that the writer has not reached that data meanwhile, so it never returns a torn frame.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tw::host {

constexpr int kShmStreamsPerCamera = 8;
constexpr int kShmDefaultKeyBase = 0x54570000;
constexpr size_t kShmMaxExtraData = 1024;
// Several seconds of 1080p H.264 at camera bit rates.
constexpr size_t kShmDefaultDataBytes = 8u << 20;
constexpr int kShmDefaultEntries = 1024;

// Key ranges, as offsets from the base, of the shared records of devices. Each range holds
// ids 0 .. 0xffff; the live FIFOs take the offsets below the first of them.
enum class ShmKeySpace : uint32_t {
    DevStatus = 0x40000,       // TWDevStatus of a camera, speaker or I/O module
    AudioOutFifo = 0x50000,    // audio-out FIFO of a camera or I/O module
    SpeakerAudioFifo = 0x60000 // audio-out FIFO of an IP speaker
};

// The key of a device's record in one of those ranges. False with error for an id outside
// 0 .. 0xffff or an unreadable TW_SHM_KEY_BASE.
bool DeviceShmKey(ShmKeySpace space, int devId, key_t& key, std::string& error);

// The key of the live FIFO of (camId, streamNo). False with error for a negative camera
// id, a stream number outside 0..7 or an unreadable TW_SHM_KEY_BASE.
bool LiveStreamShmKey(int camId, int streamNo, key_t& key, std::string& error);

// The stream's format as its publisher recorded it in the segment.
struct LiveStreamFormat {
    int codec = 0;   // VIDEO_CODEC_TYPE; VIDEO_CODEC_UNKNOWN until the publisher sets it
    int width = 0;
    int height = 0;
    std::vector<unsigned char> extra;
    bool publisherAlive = false;
};

// Reads the format of the live FIFO of (camId, streamNo). False with error when no stream
// is published there.
bool ReadLiveStreamFormat(int camId, int streamNo, LiveStreamFormat& format, std::string& error);

class ShmStreamPublisher {
public:
    ShmStreamPublisher(int camId, int streamNo, size_t dataBytes = kShmDefaultDataBytes,
                       int entries = kShmDefaultEntries);
    // Removes the segment (IPC_RMID) and detaches. Readers still attached keep their
    // mapping until they detach; new readers no longer find it.
    ~ShmStreamPublisher();
    ShmStreamPublisher(const ShmStreamPublisher&) = delete;
    ShmStreamPublisher& operator=(const ShmStreamPublisher&) = delete;

    // Creates the segment (0600), or takes over the segment left by a publisher that is
    // gone. Fails with error when another live process publishes this stream already.
    bool Open(std::string& error);
    void Close();
    bool IsOpen() const { return m_pShm != nullptr; }

    // Extra data longer than kShmMaxExtraData is refused (false, none stored).
    bool SetFormat(int codec, int width, int height, const std::vector<unsigned char>& extra);
    // Appends a frame; returns its id (0 .. TW_FIFO_BLOCK_ID_MAX - 1, wrapping) or -1 for an
    // empty frame, one larger than half the data area, or a closed publisher.
    int Push(const unsigned char* frame, size_t size, bool key, int64_t ptsUs);

    // Host-clock time of the last UpdateStamp of a reader; 0 when no reader has been seen.
    int64_t GetReaderStampUs() const;
    key_t GetKey() const { return m_Key; }
    int GetShmId() const { return m_ShmId; }
    int GetCameraId() const { return m_CamId; }
    int GetStreamNo() const { return m_StreamNo; }
    uint64_t GetPushedCount() const { return m_Pushed; }

private:
    // Makes the segment of a dead publisher this one's, attached at shm.
    bool TakeOver(void* shm, std::string& error);
    int m_CamId;
    int m_StreamNo;
    size_t m_DataBytes;
    int m_Entries;
    key_t m_Key = 0;
    int m_ShmId = -1;
    void* m_pShm = nullptr;
    uint64_t m_Pushed = 0;
};

}  // namespace tw::host
