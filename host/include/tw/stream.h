// Stream FIFOs of the recorder: the in-process FIFO of demuxed blocks, and the live FIFO
// in shared memory that another process fills.
#pragma once

#include <cstdint>

class DPObjectBase;

// One compressed frame taken from a StreamFifo. The taker deletes it.
class MediaBlock {
public:
    MediaBlock();
    virtual ~MediaBlock();
    int GetID() const { return m_Id; }
    int GetFrameSize() const { return m_FrameSize; }
    const unsigned char* GetFrame() const { return m_pFrame; }
    bool IsKeyFrame() const { return m_blKeyFrame; }
    int64_t GetPtsUs() const { return m_PtsUs; }

protected:
    int m_Id;
    int m_FrameSize;
    const unsigned char* m_pFrame;
    bool m_blKeyFrame;
    int64_t m_PtsUs;
};

// Elementary-stream format of a FIFO. pExtraData is a malloc'ed copy that the caller frees.
struct ES_FORMAT {
    int codec;              // VIDEO_CODEC_TYPE
    int width;
    int height;
    unsigned char* pExtraData;
    int extraDataLen;
};

// Block ids run from 0 to TW_FIFO_BLOCK_ID_MAX - 1 and wrap; a reader that has read
// nothing yet passes an id outside that range.
constexpr int TW_FIFO_BLOCK_ID_MAX = 10000;

class StreamFifo {
public:
    StreamFifo();
    ~StreamFifo();
    StreamFifo(const StreamFifo&) = delete;
    StreamFifo& operator=(const StreamFifo&) = delete;

    // Non-zero once the FIFO has storage (a stream has been opened into it).
    int GetTotalBufSize();
    // The newest block, or null when there is none or it is the one with lastId.
    MediaBlock* GetLastBlock(int lastId);
    // The newest key-frame block, or null when there is none or it is the one with lastId.
    MediaBlock* GetLastITypeBlock(int lastId);
    ES_FORMAT GetESFormat();

    struct Impl;
    Impl* GetImpl() const { return m_pImpl; }

private:
    Impl* m_pImpl;
};

// Per-entry information of the shared-memory FIFO.
struct DATA_ENTRY_INFO {
    int id;
    int size;
    int64_t ptsUs;
    int blKeyFrame;
};

// The live FIFO of one camera stream, laid out in System V shared memory. Obtained from
// LiveStreamFifoAt and released with shmdt. Frames are returned as new[] buffers.
class ShmStreamFifo {
public:
    // The newest frame; frame is null when there is none. Returns 0 on success.
    int ReadLatest(int& id, unsigned char*& frame, int& size, bool blWait);
    // The newest key frame; frame is null when there is none. Returns 0 on success.
    int ReadLatestIFrame(int& id, unsigned char*& frame, int& size, DATA_ENTRY_INFO* pInfo);
    // len is the buffer size on entry and the extra-data length on return.
    int GetVdoExtraData(unsigned char* buf, int& len);

    ShmStreamFifo() = delete;
    ShmStreamFifo(const ShmStreamFifo&) = delete;
};

// Attaches the live FIFO of (camera, stream); null when no live stream is published.
ShmStreamFifo* LiveStreamFifoAt(int camId, int streamNo);

// Keeps a camera's live stream running while someone reads it from shared memory.
class LiveStreamUpdater {
public:
    LiveStreamUpdater(int camId, int streamNo);
    ~LiveStreamUpdater();
    LiveStreamUpdater(const LiveStreamUpdater&) = delete;
    LiveStreamUpdater& operator=(const LiveStreamUpdater&) = delete;
    // Asks for the live stream; 0 on success.
    int StartLive();
    // Tells the publisher that a reader is still there.
    int UpdateStamp();

private:
    int m_CamId;
    int m_StreamNo;
    void* m_pShm;
};

// A block handed out by the FIFO: the recorder's media unit, reference-counted payload.
class TWReferenceCount {
public:
    TWReferenceCount();
    virtual ~TWReferenceCount();
    int AddRef();
    int DecRef();
    int GetRefCount() const;

private:
    int m_RefCount;
};

#include <memory>
#include <vector>
#include "handler.h"

// The concrete block of the reference host: shares the demuxed payload with the FIFO.
class MediaUnit : public MediaBlock, public DPObjectBase, public TWReferenceCount {
public:
    MediaUnit(int id, std::shared_ptr<const std::vector<unsigned char>> payload, bool keyFrame,
              int64_t ptsUs);
    ~MediaUnit() override;

private:
    std::shared_ptr<const std::vector<unsigned char>> m_Payload;
};
