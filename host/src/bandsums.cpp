// Block sums of an H.264 picture taken while the decoder writes it; see bandsums.h.

#include "bandsums.h"

#include "picturering.h"

#include <cstring>
#include <mutex>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/common.h>
#include <libavutil/frame.h>
}

namespace tw::host {

bool ReducedPicture::Size(int width, int height, const PlaneLayout& layout, int fx, int fy)
{
    int widths[3] = {width / fx, 0, 0};
    int heights[3] = {height / fy, 0, 0};
    for (int p = 1; p < layout.planes; ++p) {
        // Rounded up as the decoders round the chroma planes of odd sizes; a factor above 1
        // always divides the edge into whole chroma blocks, so there it is exact.
        widths[p] = AV_CEIL_RSHIFT(widths[0], layout.chromaShiftX);
        heights[p] = AV_CEIL_RSHIFT(heights[0], layout.chromaShiftY);
    }
    size_t total = 0;
    for (int p = 0; p < layout.planes; ++p) {
        offsets[p] = total;
        total += size_t(widths[p]) * size_t(heights[p]);
    }
    try {
        sums.resize(total);
    } catch (const std::bad_alloc&) {
        return false;
    }
    for (int p = 0; p < 3; ++p) {
        PlaneSums& plane = planes[p];
        plane = PlaneSums{};
        if (p < layout.planes) {
            plane.data = Out(p);
            plane.stride = widths[p];
            plane.width = widths[p];
            plane.height = heights[p];
        }
    }
    return true;
}

namespace {

// The requests detection decoders last reduced their pictures with, one per picture size
// and format, the newest first. A process judges a handful of sizes at most; the oldest of
// more is forgotten.
constexpr int kSharedRequests = 8;

std::mutex g_SharedMutex;
ScaleRequest g_Shared[kSharedRequests];
int g_SharedCount = 0;
// Read without the lock before every packet of a decoder that has not learned.
std::atomic<bool> g_blAnyShared{false};

void ShareRequest(const ScaleRequest& request)
{
    std::lock_guard<std::mutex> lock(g_SharedMutex);
    int at = 0;
    while (at < g_SharedCount &&
           !g_Shared[at].ForPicture(request.width, request.height, request.format)) {
        ++at;
    }
    if (at == g_SharedCount) {
        at = g_SharedCount < kSharedRequests ? g_SharedCount++ : kSharedRequests - 1;
    }
    for (; at > 0; --at) {
        g_Shared[at] = g_Shared[at - 1];
    }
    g_Shared[0] = request;
    g_blAnyShared.store(true, std::memory_order_relaxed);
}

bool FindSharedRequest(int width, int height, int format, ScaleRequest& request)
{
    std::lock_guard<std::mutex> lock(g_SharedMutex);
    for (int i = 0; i < g_SharedCount; ++i) {
        if (g_Shared[i].ForPicture(width, height, format)) {
            request = g_Shared[i];
            return true;
        }
    }
    return false;
}

}  // namespace

void BandSums::ForgetShared()
{
    std::lock_guard<std::mutex> lock(g_SharedMutex);
    g_SharedCount = 0;
    g_blAnyShared.store(false, std::memory_order_relaxed);
}

std::atomic<bool> BandSums::s_blEnabled{true};
std::atomic<bool> BandSums::s_blRingEnabled{true};

bool IdrAccessUnit(const uint8_t* data, int size)
{
    if (data == nullptr || size < 4) {
        return false;
    }
    // A packet that does not begin with a start code is not Annex B.
    if (!(data[0] == 0 && data[1] == 0 && (data[2] == 1 || (data[2] == 0 && data[3] == 1)))) {
        return false;
    }
    // The slices of a picture are all IDR slices or none is, so the first slice tells. A
    // second picture in the packet is no IDR picture; see Decoded. Start codes cannot occur
    // inside a NAL unit (emulation prevention), so every 00 00 01 begins one.
    const uint8_t* const pEnd = data + size;
    const uint8_t* p = data + 2;
    while (p + 1 < pEnd) {
        p = static_cast<const uint8_t*>(memchr(p, 1, size_t(pEnd - 1 - p)));
        if (p == nullptr) {
            return false;
        }
        if (p[-1] == 0 && p[-2] == 0) {
            const int type = p[1] & 0x1f;
            if (type >= 1 && type <= 5) {
                return type == 5;
            }
        }
        ++p;
    }
    return false;
}

BandSums::BandSums() = default;

BandSums::~BandSums()
{
    for (AVPacket*& pKept : m_pKept) {
        av_packet_free(&pKept);
    }
}

bool BandSums::Attach(AVCodecContext* pCtx)
{
    if (pCtx->codec_id != AV_CODEC_ID_H264) {
        return true;
    }
    auto* pSums = new (std::nothrow) BandSums;
    if (pSums == nullptr) {
        return false;
    }
    // libavcodec leaves opaque to its user; nothing else of ours sets it.
    pCtx->opaque = pSums;
    pCtx->draw_horiz_band = &BandSums::OnBand;
    // Rows in the order they are decoded, which for H.264 is also the picture they belong
    // to (not the one shown next).
    pCtx->slice_flags = SLICE_FLAG_CODED_ORDER;
    pCtx->get_buffer2 = &BandSums::OnGetBuffer;
    return true;
}

void BandSums::FreeContext(AVCodecContext*& pCtx)
{
    // The context goes first: freeing it ends its slice threads, the last that may report a
    // row into the state.
    BandSums* pSums = Of(pCtx);
    avcodec_free_context(&pCtx);
    delete pSums;
}

BandSums* BandSums::Of(const AVCodecContext* pCtx)
{
    if (pCtx == nullptr || pCtx->draw_horiz_band != &BandSums::OnBand) {
        return nullptr;
    }
    return static_cast<BandSums*>(pCtx->opaque);
}

bool BandSums::Gathers(const AVCodecContext* pCtx) const
{
    const bool blMayGuess = !m_blLearned && !m_blGuessMissed &&
                            g_blAnyShared.load(std::memory_order_relaxed);
    return s_blEnabled.load(std::memory_order_relaxed) && (m_blLearned || blMayGuess) &&
           !m_blSlicedApart.load(std::memory_order_relaxed) &&
           pCtx->skip_loop_filter >= AVDISCARD_ALL;
}

bool BandSums::NothingDecoded() const
{
    return m_pKept[1] == nullptr || m_pKept[1]->size == 0;
}

bool BandSums::RingOpen(const AVCodecContext* pCtx) const
{
    // A replay starts from the key frame before this one, which must be one whose picture
    // owes nothing to the decoder's state; or, before the first packet, from the state the
    // decoder was opened in.
    return Gathers(pCtx) && !m_blRingRefused && (m_blLastWhole || NothingDecoded()) &&
           s_blRingEnabled.load(std::memory_order_relaxed);
}

bool BandSums::WouldRing(const AVCodecContext* pCtx, const AVPacket* pPacket) const
{
    return pPacket != nullptr && RingOpen(pCtx) && IdrAccessUnit(pPacket->data, pPacket->size);
}

void BandSums::Begin(const AVCodecContext* pCtx, const AVPacket* pPacket, bool mayRing)
{
    m_blGathering = Gathers(pCtx);
    m_blGuessPending = m_blGathering && !m_blLearned;
    m_blGuessAdopted = false;
    m_PacketIdr = -1;
    if (mayRing && pPacket != nullptr && RingOpen(pCtx)) {
        m_PacketIdr = IdrAccessUnit(pPacket->data, pPacket->size) ? 1 : 0;
        if (m_PacketIdr == 1 && NothingDecoded() && !KeepRoom()) {
            // The replay of a first picture in the ring would have nothing to decode.
            m_PacketIdr = -1;
        }
    }
    m_blRingLent = false;
    m_pRingData = nullptr;
    m_Owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    m_blSpoiled.store(false, std::memory_order_relaxed);
    m_RowsReady = 0;
    for (int p = 0; p < 3; ++p) {
        m_pData[p] = nullptr;
        m_Linesize[p] = 0;
        m_BlockRowsDone[p] = 0;
    }
}

int BandSums::OnGetBuffer(AVCodecContext* pCtx, AVFrame* pFrame, int flags)
{
    BandSums* pSums = Of(pCtx);
    if (pSums != nullptr && pSums->m_blGuessPending &&
        std::this_thread::get_id() == pSums->m_Owner.load(std::memory_order_relaxed)) {
        // The first buffer of the packet: its picture's size is known now.
        pSums->AdoptGuess(pCtx);
    }
    if (pSums != nullptr && pSums->m_PacketIdr == 1 && pSums->m_blGathering &&
        !pSums->m_blRingLent &&
        std::this_thread::get_id() == pSums->m_Owner.load(std::memory_order_relaxed)) {
        // One picture a packet: a second one (a second field, a second picture in the
        // packet) would wipe the first.
        pSums->m_blRingLent = true;
        if (pSums->LendRing(pCtx, pFrame)) {
            return 0;
        }
    }
    return avcodec_default_get_buffer2(pCtx, pFrame, flags);
}

void BandSums::AdoptGuess(const AVCodecContext* pCtx)
{
    m_blGuessPending = false;
    ScaleRequest request;
    if (!FindSharedRequest(pCtx->width, pCtx->height, pCtx->pix_fmt, request)) {
        m_blGathering = false;   // nor the ring: nothing would take its sums
        return;
    }
    m_Req = request;
    m_blGuessAdopted = true;
}

bool BandSums::KeepRoom()
{
    for (AVPacket*& pKept : m_pKept) {
        if (pKept == nullptr) {
            pKept = av_packet_alloc();
        }
    }
    return m_pKept[0] != nullptr && m_pKept[1] != nullptr;
}

bool BandSums::LendRing(const AVCodecContext* pCtx, AVFrame* pFrame)
{
    if (pCtx->width != m_Req.width || pCtx->height != m_Req.height ||
        pCtx->pix_fmt != m_Req.format || pFrame->format != m_Req.format) {
        return false;
    }
    int width = pFrame->width;
    int height = pFrame->height;
    int linesizeAlign[AV_NUM_DATA_POINTERS] = {};
    avcodec_align_dimensions2(const_cast<AVCodecContext*>(pCtx), &width, &height,
                              linesizeAlign);
    int align = 1;
    for (int p = 0; p < m_Req.layout.planes; ++p) {
        align = FFMAX(align, linesizeAlign[p]);
    }
    // Rows of a block of sums that the decoder has not finished when it reports a band
    // reach back at most fy - 1 rows; the band it writes next and the row above it, which
    // intra prediction reads, must not land on them.
    const int shortestBand =
        PictureRing::kBandRows >> (m_Req.layout.planes > 1 ? m_Req.layout.chromaShiftY : 0);
    const int bands = FFMAX(4, 2 + (m_Req.fy - 1 + shortestBand - 1) / shortestBand);
    if (!m_pRing || !m_pRing->Fits(width, height, m_Req.format, bands, align)) {
        m_pRing.reset();
        m_pRing = PictureRing::Make(width, height, m_Req.format, m_Req.layout, bands, align);
        if (!m_pRing) {
            m_blRingRefused = true;   // the system will not give us the mappings
            return false;
        }
    }
    if (!m_pRing->Lend(pFrame)) {
        return false;
    }
    m_pRingData = pFrame->data[0];
    // Until a flush, the decoder may keep it as a reference or for error concealment.
    m_blRingInDecoder = true;
    return true;
}

void BandSums::Decoded(AVPacket* pPacket, const AVFrame* pOut, bool got)
{
    // Whatever picture came out of a packet that had the ring is taken for one in the ring:
    // a second picture in the packet may have predicted from the first.
    m_blPictureInRing = got && m_pRingData != nullptr;
    m_RingPictures += m_blPictureInRing ? 1 : 0;
    m_blPictureGuessed = got && m_blGuessAdopted;
    // Whether the next packet may go into the ring; not worth a look at the packet where
    // it cannot (the bare decodes of the benchmarks among them).
    bool blIdr = false;
    if (got && s_blEnabled.load(std::memory_order_relaxed) &&
        s_blRingEnabled.load(std::memory_order_relaxed) && !m_blRingRefused) {
        blIdr = m_PacketIdr >= 0 ? m_PacketIdr == 1
                                 : IdrAccessUnit(pPacket->data, pPacket->size);
    }
    m_blLastWhole = blIdr && pOut->decode_error_flags == 0 &&
                    (pOut->flags & AV_FRAME_FLAG_CORRUPT) == 0;
    if (!KeepRoom()) {
        // Without room to keep it there is no replay, so no ring for the next packet.
        m_blLastWhole = false;
        return;
    }
    av_packet_unref(m_pKept[0]);
    av_packet_move_ref(m_pKept[0], m_pKept[1]);
    av_packet_move_ref(m_pKept[1], pPacket);
}

const AVPacket* BandSums::ReplayFirst() const
{
    return m_pKept[0] != nullptr && m_pKept[0]->size > 0 ? m_pKept[0] : nullptr;
}

const AVPacket* BandSums::ReplaySecond() const
{
    return m_pKept[1] != nullptr && m_pKept[1]->size > 0 ? m_pKept[1] : nullptr;
}

void BandSums::Replayed(bool sameRequest, const AVFrame* pWhole)
{
    if (sameRequest && pWhole != nullptr && pWhole->decode_error_flags == 0 &&
        (pWhole->flags & AV_FRAME_FLAG_CORRUPT) == 0) {
        m_blRingRefused = true;
    }
    ++m_Replays;
    m_blPictureInRing = false;
    m_blRingInDecoder = false;
}

void BandSums::Scaling(const PlaneLayout& layout, int fx, int fy)
{
    if (m_blPictureGuessed && !((fx > 1 || fy > 1) && GatheredFor(layout, fx, fy))) {
        m_blGuessMissed = true;
    }
    m_blPictureGuessed = false;
}

void BandSums::Learn(const AVCodecContext* pCtx, const ScaleRequest& request)
{
    const bool blSame = m_blLearned && request == m_Req;
    if (!(blSame && m_blShared) && pCtx->skip_loop_filter >= AVDISCARD_ALL) {
        // Only a detection decoder's: a picture people look at is asked for at other sizes.
        ShareRequest(request);
        m_blShared = true;
    } else if (!blSame) {
        m_blShared = false;
    }
    m_blLearned = true;
    m_Req = request;
}

void BandSums::OnBand(AVCodecContext* pCtx, const AVFrame* pSrc, int*, int y, int type,
                      int height)
{
    BandSums* pSums = Of(pCtx);
    if (pSums == nullptr) {
        return;
    }
    if (std::this_thread::get_id() != pSums->m_Owner.load(std::memory_order_relaxed)) {
        pSums->m_blSlicedApart.store(true, std::memory_order_relaxed);
        pSums->m_blSpoiled.store(true, std::memory_order_relaxed);
        return;
    }
    pSums->Band(pCtx, pSrc, y, type, height);
}

// The first row of a picture: is it the picture we learned, and where does it live?
bool BandSums::Starts(const AVCodecContext* pCtx, const AVFrame* pSrc)
{
    if (pCtx->width != m_Req.width || pCtx->height != m_Req.height ||
        pCtx->pix_fmt != m_Req.format ||
        !m_Sums.Size(m_Req.width, m_Req.height, m_Req.layout, m_Req.fx, m_Req.fy)) {
        return false;
    }
    for (int p = 0; p < m_Req.layout.planes; ++p) {
        if (pSrc->data[p] == nullptr || pSrc->linesize[p] <= 0) {
            return false;
        }
        m_pData[p] = pSrc->data[p];
        m_Linesize[p] = pSrc->linesize[p];
    }
    return true;
}

void BandSums::Band(const AVCodecContext* pCtx, const AVFrame* pSrc, int y, int type,
                    int height)
{
    if (!m_blGathering || m_blSpoiled.load(std::memory_order_relaxed)) {
        return;
    }
    // 3: a frame picture. Field pictures and rows out of order, repeated or missing (a
    // second picture in the packet, a lost slice) end the gathering of this picture.
    // A ring picture holds bands of one row of macroblocks (the last one cut to the
    // picture's height); taller ones (macroblock pairs) wrote over rows the decoder still
    // read.
    if (type != 3 || height <= 0 || y != m_RowsReady || (y == 0 && !Starts(pCtx, pSrc)) ||
        pSrc->data[0] != m_pData[0] ||
        (m_pRingData != nullptr && pSrc->data[0] == m_pRingData &&
         height != PictureRing::kBandRows &&
         !(height < PictureRing::kBandRows && y + height == m_Req.height))) {
        m_blSpoiled.store(true, std::memory_order_relaxed);
        return;
    }
    m_RowsReady = y + height;
    const bool blAll = m_RowsReady >= m_Req.height;
    for (int p = 0; p < m_Req.layout.planes; ++p) {
        const PlaneSums& plane = m_Sums.planes[p];
        const int shift = p == 0 ? 0 : m_Req.layout.chromaShiftY;
        const int rows = blAll ? AV_CEIL_RSHIFT(m_Req.height, shift) : m_RowsReady >> shift;
        const int blockRows = FFMIN(plane.height, rows / m_Req.fy);
        const int done = m_BlockRowsDone[p];
        if (blockRows <= done) {
            continue;
        }
        uint16_t* pOut = m_Sums.Out(p) + ptrdiff_t(done) * plane.stride;
        if (!BoxSumPlaneOf(m_pData[p] + ptrdiff_t(done) * m_Req.fy * m_Linesize[p], m_Linesize[p],
                           m_Req.fx, m_Req.fy, plane.width, blockRows - done, pOut, plane.stride,
                           BoxKernel::Best)) {
            m_blSpoiled.store(true, std::memory_order_relaxed);
            return;
        }
        m_BlockRowsDone[p] = blockRows;
    }
}

const ReducedPicture* BandSums::Take(const AVFrame* pFrame, const PlaneLayout& layout, int fx,
                                     int fy)
{
    if (!Whole(pFrame, layout, fx, fy)) {
        return nullptr;
    }
    ++m_Served;
    return &m_Sums;
}

bool BandSums::Whole(const AVFrame* pFrame, const PlaneLayout& layout, int fx, int fy) const
{
    const bool blWhole =
        GatheredFor(layout, fx, fy) && !m_blSpoiled.load(std::memory_order_relaxed) &&
        m_RowsReady >= m_Req.height && pFrame->width == m_Req.width &&
        pFrame->height == m_Req.height && pFrame->format == m_Req.format &&
        pFrame->decode_error_flags == 0 &&
        (pFrame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
    if (!blWhole) {
        return false;
    }
    for (int p = 0; p < layout.planes; ++p) {
        if (pFrame->data[p] != m_pData[p] || pFrame->linesize[p] != m_Linesize[p] ||
            m_BlockRowsDone[p] != m_Sums.planes[p].height) {
            return false;
        }
    }
    return true;
}

}  // namespace tw::host
