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
//
// Where the sums are all a picture is decoded for, its rows need not outlive them: a
// picture that is an IDR access unit, decoded where the sums are taken, goes into a ring of
// a few macroblock rows (picturering.h) instead of a whole picture. Such a picture is not
// whole afterwards, so whatever else wants it (another size, another filter, a damaged
// picture that error concealment rewrote) gets it decoded again into an ordinary picture,
// from the same decoder state: the decoder is flushed and given the key frame before it
// again (the ring is only used when that one was an undamaged IDR access unit, whose
// picture owes nothing to what came before) and then this one. A packet that would predict
// from the ring's picture (anything but an IDR access unit) gets the same replay first.
//
// A decoder learns what to gather from its own last reduction, so a new decoder would
// decode its first pictures whole. But the cameras of a recorder are judged alike: until a
// decoder has learned, its pictures are gathered for, and may go into the ring with, what
// another detection decoder of the process last reduced a picture of the same size and
// format by. A camera's first pictures then need no whole picture either, in the second in
// which all of a recorder's cameras start. A wrong guess costs what any replay costs, and
// the decoder does not guess again.
#pragma once

#include "boxreduce.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

extern "C" {
struct AVCodecContext;
struct AVFrame;
struct AVPacket;
}

namespace tw::host {

// The planes DoFFMpegScale reduces: 8-bit planar YUV (any subsampling) or 8-bit grey.
struct PlaneLayout {
    int planes = 0;         // 1 (grey) or 3 (Y, U, V)
    int chromaShiftX = 0;   // log2 of the chroma subsampling
    int chromaShiftY = 0;
};

inline bool SameLayout(const PlaneLayout& a, const PlaneLayout& b)
{
    return a.planes == b.planes && a.chromaShiftX == b.chromaShiftX &&
           a.chromaShiftY == b.chromaShiftY;
}

// What a reduction asked for: the picture it reduced, and by what.
struct ScaleRequest {
    int width = 0;
    int height = 0;
    int format = -1;
    PlaneLayout layout;
    int fx = 1;
    int fy = 1;

    // Whether this request is for pictures of that size and format, whatever it reduces
    // them by.
    bool ForPicture(int w, int h, int f) const { return width == w && height == h && format == f; }

    bool operator==(const ScaleRequest& o) const
    {
        return ForPicture(o.width, o.height, o.format) && SameLayout(layout, o.layout) &&
               fx == o.fx && fy == o.fy;
    }
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

class PictureRing;

// Whether an H.264 Annex B packet's first slice is an IDR slice (the slices of one picture
// all are or none is; a second picture in the packet is caught when its picture is taken).
bool IdrAccessUnit(const uint8_t* data, int size);

class BandSums {
public:
    // SetSumsWhileDecoding's switch.
    static std::atomic<bool> s_blEnabled;
    // SetRingWhileDecoding's switch.
    static std::atomic<bool> s_blRingEnabled;

    BandSums();
    ~BandSums();
    BandSums(const BandSums&) = delete;
    BandSums& operator=(const BandSums&) = delete;

    // Gives an H.264 decoder context, before it is opened, the state and the callback;
    // other codecs are left as they are. False when out of memory.
    static bool Attach(AVCodecContext* pCtx);
    // Frees a context and whatever Attach gave it.
    static void FreeContext(AVCodecContext*& pCtx);
    // The state of a context; null when it has none.
    static BandSums* Of(const AVCodecContext* pCtx);

    // Before a packet goes in: gather its picture if the last one was reduced (before any
    // was, if another decoder shared a request) and nothing rules it out, and decode it into
    // the ring if mayRing and it qualifies. Called on the thread that decodes.
    void Begin(const AVCodecContext* pCtx, const AVPacket* pPacket, bool mayRing);
    // After a packet of the stream was decoded (not a replay): keeps it, and the one before,
    // for a replay. got tells whether pOut holds its picture.
    void Decoded(AVPacket* pPacket, const AVFrame* pOut, bool got);
    // Whether Begin, given this packet and mayRing, would let it go into the ring.
    bool WouldRing(const AVCodecContext* pCtx, const AVPacket* pPacket) const;
    // Whether the sums are gathered for exactly this layout and these factors.
    bool GatheredFor(const PlaneLayout& layout, int fx, int fy) const
    {
        return m_blGathering && fx == m_Req.fx && fy == m_Req.fy &&
               SameLayout(layout, m_Req.layout);
    }
    // The decoder was flushed: it holds no picture of the ring any more.
    void Flushed() { m_blRingInDecoder = false; }
    // The last picture handed out lies in the ring: not whole.
    bool PictureInRing() const { return m_blPictureInRing; }
    // The decoder may hold a picture of the ring as a reference.
    bool RingInDecoder() const { return m_blRingInDecoder; }
    // The packets a replay decodes, in order (the first may be null), and the end of the
    // replay. sameRequest tells whether the picture in the ring was wanted reduced by the
    // factors it was gathered for: if so, and it was not damaged, the stream is one the ring
    // does not fit (fields, macroblock pairs, slices on two threads) and is not offered it
    // again.
    const AVPacket* ReplayFirst() const;
    const AVPacket* ReplaySecond() const;
    void Replayed(bool sameRequest, const AVFrame* pWhole);
    // Before the last picture is scaled, reduced by fx x fy (1 x 1: not reduced): a picture
    // gathered on another decoder's request that is not wanted so was a wrong guess.
    void Scaling(const PlaneLayout& layout, int fx, int fy);
    // After a reduction: what to gather from the next picture. A detection decoder's request
    // (loop filter skipped) is also what the decoders of the process that have not learned
    // yet guess for pictures of the same size and format.
    void Learn(const AVCodecContext* pCtx, const ScaleRequest& request);
    // Forgets the requests shared between decoders, so that a decoder learns from its own
    // pictures alone; for tests and benchmarks.
    static void ForgetShared();
    // The sums of pFrame if they were gathered whole, for exactly this layout and these
    // factors; null otherwise.
    const ReducedPicture* Take(const AVFrame* pFrame, const PlaneLayout& layout, int fx,
                               int fy);
    // Whether Take would give the sums.
    bool Whole(const AVFrame* pFrame, const PlaneLayout& layout, int fx, int fy) const;
    // Reductions served from gathered sums since the context was opened.
    uint64_t Served() const { return m_Served; }
    // Pictures handed out from the ring, and replays, since the context was opened.
    uint64_t RingPictures() const { return m_RingPictures; }
    uint64_t Replays() const { return m_Replays; }

private:
    static void OnBand(AVCodecContext* pCtx, const AVFrame* pSrc, int offset[], int y,
                       int type, int height);
    static int OnGetBuffer(AVCodecContext* pCtx, AVFrame* pFrame, int flags);
    bool LendRing(const AVCodecContext* pCtx, AVFrame* pFrame);
    // Takes another decoder's request for pictures of this decoder's size, or gives up
    // gathering this picture when there is none.
    void AdoptGuess(const AVCodecContext* pCtx);
    // Whether no packet was decoded yet, so that a replay needs this one alone.
    bool NothingDecoded() const;
    // Room for the packets a replay needs; false when out of memory.
    bool KeepRoom();
    // Whether the next picture's sums are to be gathered, and whether it may go into the
    // ring if it is an IDR access unit.
    bool Gathers(const AVCodecContext* pCtx) const;
    bool RingOpen(const AVCodecContext* pCtx) const;
    void Band(const AVCodecContext* pCtx, const AVFrame* pSrc, int y, int type, int height);
    bool Starts(const AVCodecContext* pCtx, const AVFrame* pSrc);

    // What the last reduction asked for; before there was one (m_blLearned false), what
    // this decoder's last guess took from another's.
    bool m_blLearned = false;
    ScaleRequest m_Req;

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

    // The ring and what was done with it; the decoding thread's alone.
    std::shared_ptr<PictureRing> m_pRing;
    // Whether this packet is an IDR access unit that may have a ring picture: 1 yes, 0 an
    // IDR check said no, -1 not looked at (the ring was not open to it).
    int m_PacketIdr = -1;
    bool m_blRingLent = false;       // it asked for one (asked once a packet)
    const uint8_t* m_pRingData = nullptr;
    bool m_blPictureInRing = false;
    bool m_blRingInDecoder = false;
    bool m_blRingRefused = false;
    // The last two packets decoded, the older first, and whether the last one was an
    // undamaged IDR access unit that gave its picture.
    AVPacket* m_pKept[2] = {nullptr, nullptr};
    bool m_blLastWhole = false;
    uint64_t m_RingPictures = 0;
    uint64_t m_Replays = 0;

    // Guesses, made while nothing is learned; the decoding thread's alone. Pending: this
    // packet is gathered if another decoder's request for its size turns up when its
    // picture gets a buffer; adopted: it did. Guessed: the last picture handed out was
    // gathered on a guess. Missed: a guess was wrong once, so no more are made.
    bool m_blGuessPending = false;
    bool m_blGuessAdopted = false;
    bool m_blPictureGuessed = false;
    bool m_blGuessMissed = false;
    // This decoder's request was offered to the others as it stands.
    bool m_blShared = false;
};

}  // namespace tw::host
