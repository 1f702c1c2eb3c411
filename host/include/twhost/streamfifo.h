// Host-side control of the in-process stream FIFO (tw/stream.h): the producer pushes
// demuxed blocks in, the detector takes the newest one out through the recorder's API.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tw/stream.h"

namespace tw::host {

// Sets the elementary-stream format that GetESFormat hands out. The FIFO reports storage
// (GetTotalBufSize non-zero) from the first call on.
void SetFifoFormat(StreamFifo& fifo, int codec, int width, int height,
                   std::vector<unsigned char> extra);

// Appends one compressed frame; returns its block id (0 .. TW_FIFO_BLOCK_ID_MAX - 1,
// wrapping). Old blocks fall out of the ring by count and by time span, but the newest key
// block is kept however old it is, so a reader of key frames always finds one.
//
// nalLengthSize 1, 2 or 4: an H.264/HEVC frame (the format's codec) whose NAL units sit
// behind big-endian lengths of that size, as MP4 and Matroska store them. The FIFO turns it
// into Annex B only when a reader takes it (LengthPrefixedToAnnexB), once; a block nobody
// takes is never converted. A block whose lengths do not fit its size is dropped when a
// reader comes to it, as the source's own converter refuses such a packet: GetLastBlock
// hands out the block before it instead, GetLastITypeBlock nothing (the key block before
// it is gone by then). 0: the frame as it is.
int PushFifoBlock(StreamFifo& fifo, std::shared_ptr<const std::vector<unsigned char>> data,
                  bool key, int64_t ptsUs, int nalLengthSize = 0);

// Queues a block ahead of its time: readers see it (and it gets its id) only once the host
// clock reaches ptsUs, so a feeder can hand over a second of stream at once and sleep,
// while every read still finds exactly what a camera would have sent by then. Blocks are
// queued in time order; one whose time stamp goes back is held as long as the one before.
// A FIFO is fed either by PushFifoBlock or by QueueFifoBlock: a block pushed while others
// are still queued joins the ring at once, ahead of them.
void QueueFifoBlock(StreamFifo& fifo, std::shared_ptr<const std::vector<unsigned char>> data,
                    bool key, int64_t ptsUs, int nalLengthSize = 0);
// Queued blocks whose time has not come yet.
size_t QueuedFifoBlocks(StreamFifo& fifo);

// Bounds of the ring: at most maxBlocks blocks, and no block older than maxSpanUs behind the
// newest (by pts). Defaults: 256 blocks, 2 s.
void SetFifoLimits(StreamFifo& fifo, size_t maxBlocks, int64_t maxSpanUs);

// Called at the start of every GetLastBlock, GetLastITypeBlock and GetTotalBufSize, on the
// reader's thread, so a virtual-time source can fill the FIFO up to "now" lazily. Calls are
// serialised. SetFifoPuller waits for a running call to finish, so after it returns the old
// puller is never called again; a puller must therefore not call SetFifoPuller itself.
// An empty function removes the puller.
void SetFifoPuller(StreamFifo& fifo, std::function<void()> puller);

// Drops every block, queued ones too (the format stays). Block ids go on where they were.
void ClearFifo(StreamFifo& fifo);

struct FifoStats {
    uint64_t blocksPushed = 0;      // blocks that joined the ring (pushed, or queued and due)
    uint64_t keyBlocksPushed = 0;
    uint64_t blocksHandedOut = 0;   // MediaUnits returned by GetLastBlock/GetLastITypeBlock
    uint64_t blocksConverted = 0;   // length-prefixed blocks turned into Annex B for a reader
    uint64_t blocksRefused = 0;     // length-prefixed blocks dropped because they did not fit
    uint64_t pullerCalls = 0;
    size_t blocksHeld = 0;          // blocks in the ring now
    int lastId = -1;                // id of the newest block, -1 before the first
};
FifoStats GetFifoStats(StreamFifo& fifo);

}  // namespace tw::host
