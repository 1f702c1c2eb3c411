// Live audio output: a feeder that keeps a device's shared-memory FIFO supplied with a
// numbered byte stream, and the check that what a sink received is that stream, in order.
#pragma once

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "plugin/camera/audioout_testutil.h"
#include "twhost/audiofifo.h"
#include "twhost/devstatus.h"

namespace tw::test {

// The byte at position i of the fed stream.
inline unsigned char StreamByte(size_t i) {
    return static_cast<unsigned char>((i * 31 + i / 4000) & 0xff);
}

// Writes blocks of the stream whenever the FIFO has run empty, so that every read of the
// output takes exactly one block.
class FifoFeeder {
public:
    FifoFeeder(tw::host::AudioOutFifoWriter& writer, size_t blockBytes)
        : m_Writer(writer), m_BlockBytes(blockBytes) {}
    ~FifoFeeder() { StopFeeding(); }

    void Start() {
        m_Thread = std::thread([this] {
            while (!m_blStop) {
                if (m_Writer.GetQueuedBytes() == 0) {
                    std::vector<unsigned char> block(m_BlockBytes);
                    for (size_t i = 0; i < m_BlockBytes; ++i) block[i] = StreamByte(m_Fed + i);
                    m_Writer.Write(block.data(), block.size());
                    m_Fed += m_BlockBytes;
                }
                std::this_thread::sleep_for(std::chrono::microseconds(200));
            }
        });
    }
    void StopFeeding() {
        m_blStop = true;
        if (m_Thread.joinable()) m_Thread.join();
    }

private:
    tw::host::AudioOutFifoWriter& m_Writer;
    size_t m_BlockBytes;
    std::atomic<bool> m_blStop{false};
    std::atomic<size_t> m_Fed{0};
    std::thread m_Thread;
};

// Whether received is a run of the stream starting at a block boundary (the FIFO is reset
// on connect, so the first blocks may be gone); with step 2, of its even bytes.
inline bool IsRunOfStream(const std::vector<unsigned char>& received, size_t blockBytes, size_t step) {
    if (received.empty()) return false;
    for (size_t start = 0; start < 4096 * blockBytes; start += blockBytes) {
        bool match = true;
        for (size_t i = 0; i < received.size() && match; ++i) match = received[i] == StreamByte(start + i * step);
        if (match) return true;
    }
    return false;
}

// Whether received is made of whole blocks of the stream, in increasing order (blocks
// may be missing: those whose send failed, and those dropped by a reset).
inline bool AreBlocksOfStreamInOrder(const std::vector<unsigned char>& received, size_t blockBytes) {
    if (received.empty() || received.size() % blockBytes != 0) return false;
    size_t next = 0;   // the first block index still allowed
    for (size_t off = 0; off < received.size(); off += blockBytes) {
        bool found = false;
        for (size_t b = next; b < next + 4096 && !found; ++b) {
            bool match = true;
            for (size_t i = 0; i < blockBytes && match; ++i) match = received[off + i] == StreamByte(b * blockBytes + i);
            if (match) {
                found = true;
                next = b + 1;
            }
        }
        if (!found) return false;
    }
    return true;
}

inline std::unique_ptr<tw::host::AudioOutFifoWriter> OpenFifo(int devId, bool speaker) {
    auto writer = std::make_unique<tw::host::AudioOutFifoWriter>(devId, speaker);
    std::string error;
    EXPECT_TRUE(writer->Open(error)) << error;
    return writer;
}

}  // namespace tw::test
