// Block sums of an H.264 picture taken while the decoder writes it (decode.cpp).
//
// Summing a 1080p picture's planes after its decode reads 3 MB back from memory the
// decoder left long ago: about a third of all a detector turn adds to its decode. The
// H.264 decoder reports each row of macroblocks as it finishes it (draw_horiz_band), while
// the row is still in the cache. A decoder whose last picture was reduced sums the rows of
// its next picture then, with the factors of that last reduction, which are the ones the
// detector asks for on every turn.
//
// The sums are the very numbers the reduced path takes from the finished picture (the same
// kernel on the same rows), so the scaled picture does not change by a bit. They are used
// only where no row can change after the decoder reported it:
//   - the loop filter is skipped (with it, rows are filtered again after their report, and
//     sliced decoding filters slice edges after all slices are done);
//   - one thread reported every row, in order (slices decoded side by side on two threads
//     may report a row whose left part the other thread is still writing);
//   - a whole frame picture, every row reported once, in order;
//   - the decoder flagged no damage (error concealment rewrites reported rows afterwards);
//   - the picture handed out is the one whose rows were reported (same buffer, size, format).
// Anything else takes the ordinary path through the finished picture.
#pragma once

#include "boxreduce.h"

#include <atomic>
#include <cstdint>
#include <thread>
#include <vector>

extern "C" {
struct AVCodecContext;
struct AVFrame;
}

namespace tw::host {

// The planes DoFFMpegScale reduces: 8-bit planar YUV (any subsampling) or 8-bit grey.
struct PlaneLayout {
    int planes = 0;         // 1 (grey) or 3 (Y, U, V)
    int chromaShiftX = 0;   // log2 of the chroma subsampling
    int chromaShiftY = 0;
};

// Block sums of every plane of one picture.
struct ReducedPicture {
    std::vector<uint16_t> sums;
    PlaneSums planes[3];

    // Sizes the planes for a width x height picture reduced by fx x fy. False when out of
    // memory.
    bool Size(int width, int height, const PlaneLayout& layout, int fx, int fy);
    // Where the sums of plane p are written.
    uint16_t* Out(int p) { return sums.data() + offsets[p]; }

private:
    size_t offsets[3] = {0, 0, 0};
};

class BandSums {
public:
    // SetSumsWhileDecoding's switch.
    static std::atomic<bool> s_blEnabled;

    // Gives an H.264 decoder context, before it is opened, the state and the callback;
    // other codecs are left as they are. False when out of memory.
    static bool Attach(AVCodecContext* pCtx);
    // Frees a context and whatever Attach gave it.
    static void FreeContext(AVCodecContext*& pCtx);
    // The state of a context; null when it has none.
    static BandSums* Of(const AVCodecContext* pCtx);

    // Before a packet goes in: gather its picture if the last one was reduced and nothing
    // rules it out. Called on the thread that decodes.
    void Begin(const AVCodecContext* pCtx);
    // After a reduction: what to gather from the next picture.
    void Learn(int width, int height, int format, const PlaneLayout& layout, int fx, int fy);
    // The sums of pFrame if they were gathered whole, for exactly this layout and these
    // factors; null otherwise.
    const ReducedPicture* Take(const AVFrame* pFrame, const PlaneLayout& layout, int fx,
                               int fy);
    // Reductions served from gathered sums since the context was opened.
    uint64_t Served() const { return m_Served; }

private:
    static void OnBand(AVCodecContext* pCtx, const AVFrame* pSrc, int offset[], int y,
                       int type, int height);
    void Band(const AVCodecContext* pCtx, const AVFrame* pSrc, int y, int type, int height);
    bool Starts(const AVCodecContext* pCtx, const AVFrame* pSrc);

    // What the last reduction asked for.
    bool m_blLearned = false;
    int m_Width = 0;
    int m_Height = 0;
    int m_Format = -1;
    PlaneLayout m_Layout;
    int m_Fx = 1;
    int m_Fy = 1;

    // The picture being gathered. Only the decoding thread touches these; a slice thread
    // that reports a row only sets the flags below.
    bool m_blGathering = false;
    // Written by the decoding thread before each packet, read by every thread that reports
    // a row; libavcodec's hand-over of the slices orders the two, but out of sight of race
    // checkers, so it is atomic.
    std::atomic<std::thread::id> m_Owner{};
    const uint8_t* m_pData[3] = {nullptr, nullptr, nullptr};
    int m_Linesize[3] = {0, 0, 0};
    int m_RowsReady = 0;
    int m_BlockRowsDone[3] = {0, 0, 0};
    ReducedPicture m_Sums;
    uint64_t m_Served = 0;

    std::atomic<bool> m_blSpoiled{false};
    // Once slices of this stream came from two threads, its pictures are not gathered again:
    // the rows summed before that would be thrown away on every picture.
    std::atomic<bool> m_blSlicedApart{false};
};

}  // namespace tw::host
