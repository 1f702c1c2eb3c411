// Block sums of an H.264 picture taken while the decoder writes it; see bandsums.h.

#include "bandsums.h"

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

std::atomic<bool> BandSums::s_blEnabled{true};

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

void BandSums::Begin(const AVCodecContext* pCtx)
{
    m_blGathering = s_blEnabled.load(std::memory_order_relaxed) && m_blLearned &&
                    !m_blSlicedApart.load(std::memory_order_relaxed) &&
                    pCtx->skip_loop_filter >= AVDISCARD_ALL;
    m_Owner.store(std::this_thread::get_id(), std::memory_order_relaxed);
    m_blSpoiled.store(false, std::memory_order_relaxed);
    m_RowsReady = 0;
    for (int p = 0; p < 3; ++p) {
        m_pData[p] = nullptr;
        m_Linesize[p] = 0;
        m_BlockRowsDone[p] = 0;
    }
}

void BandSums::Learn(int width, int height, int format, const PlaneLayout& layout, int fx,
                     int fy)
{
    m_blLearned = true;
    m_Width = width;
    m_Height = height;
    m_Format = format;
    m_Layout = layout;
    m_Fx = fx;
    m_Fy = fy;
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
    if (pCtx->width != m_Width || pCtx->height != m_Height || pCtx->pix_fmt != m_Format ||
        !m_Sums.Size(m_Width, m_Height, m_Layout, m_Fx, m_Fy)) {
        return false;
    }
    for (int p = 0; p < m_Layout.planes; ++p) {
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
    if (type != 3 || height <= 0 || y != m_RowsReady || (y == 0 && !Starts(pCtx, pSrc)) ||
        pSrc->data[0] != m_pData[0]) {
        m_blSpoiled.store(true, std::memory_order_relaxed);
        return;
    }
    m_RowsReady = y + height;
    const bool blAll = m_RowsReady >= m_Height;
    for (int p = 0; p < m_Layout.planes; ++p) {
        const PlaneSums& plane = m_Sums.planes[p];
        const int shift = p == 0 ? 0 : m_Layout.chromaShiftY;
        const int rows = blAll ? AV_CEIL_RSHIFT(m_Height, shift) : m_RowsReady >> shift;
        const int blockRows = FFMIN(plane.height, rows / m_Fy);
        const int done = m_BlockRowsDone[p];
        if (blockRows <= done) {
            continue;
        }
        uint16_t* pOut = m_Sums.Out(p) + ptrdiff_t(done) * plane.stride;
        if (!BoxSumPlaneOf(m_pData[p] + ptrdiff_t(done) * m_Fy * m_Linesize[p], m_Linesize[p],
                           m_Fx, m_Fy, plane.width, blockRows - done, pOut, plane.stride,
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
    const bool blWhole =
        m_blGathering && !m_blSpoiled.load(std::memory_order_relaxed) &&
        m_RowsReady >= m_Height && pFrame->width == m_Width && pFrame->height == m_Height &&
        pFrame->format == m_Format && fx == m_Fx && fy == m_Fy &&
        layout.planes == m_Layout.planes && layout.chromaShiftX == m_Layout.chromaShiftX &&
        layout.chromaShiftY == m_Layout.chromaShiftY && pFrame->decode_error_flags == 0 &&
        (pFrame->flags & AV_FRAME_FLAG_CORRUPT) == 0;
    if (!blWhole) {
        return nullptr;
    }
    for (int p = 0; p < layout.planes; ++p) {
        if (pFrame->data[p] != m_pData[p] || pFrame->linesize[p] != m_Linesize[p] ||
            m_BlockRowsDone[p] != m_Sums.planes[p].height) {
            return nullptr;
        }
    }
    ++m_Served;
    return &m_Sums;
}

}  // namespace tw::host
