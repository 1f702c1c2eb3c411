// Which frame a reader of a stream FIFO was handed: a tool that pairs each status of a
// detector with the picture it judged (the report of "twhost detect") learns it here, on
// the reader's own thread, right after the read and before the reader works on the frame.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "tw/stream.h"

namespace tw::host {

struct HandedFrame {
    // The compressed frame as handed out. For the in-process FIFO it is the FIFO's own
    // payload (shared, not copied); for the shared-memory FIFO a copy, since the reader
    // frees its buffer when it is done with it.
    std::shared_ptr<const std::vector<unsigned char>> data;
    int id = -1;
    bool keyFrame = false;
    int64_t ptsUs = 0;   // the block's time stamp (host clock for the in-process FIFO)
};

using FrameObserver = std::function<void(const HandedFrame&)>;

// Called for every block GetLastBlock or GetLastITypeBlock of this FIFO hands out, on the
// reader's thread, outside the FIFO's lock. An empty function removes the observer.
void SetFifoFrameObserver(StreamFifo& fifo, FrameObserver observer);

// Called for every frame ReadLatest or ReadLatestIFrame of any shared-memory live FIFO of
// this process hands out, on the reader's thread. Frames are copied for the observer only
// while one is set. An empty function removes the observer; once SetShmFrameObserver has
// returned, the old one is not called again.
void SetShmFrameObserver(FrameObserver observer);

}  // namespace tw::host
