// Decoder pictures whose rows live in a ring of a few macroblock rows (bandsums.h).
//
// Once the decoder's rows are summed as they come out, nothing reads a detection picture
// again, yet the decoder still writes its 3 MB through the caches into memory. A ring
// picture looks whole to the decoder (one address range per plane, rows a linesize apart)
// but its address range maps the same few pages again and again: the band of 16 rows at
// row 16 * b lies on the pages of band b % K. The decoder's writes stay in the cache, and
// a 1080p key frame decodes 1 to 2 % faster.
//
// Rows more than K bands above the one being written are gone, so a ring picture is only
// for a decoder that reads no older row than the one above (intra prediction without the
// loop filter) and for a reader that takes each band before the decoder moves K bands on.
// The pages are shared by every picture of the ring, so only the picture being decoded
// holds anything: the others are to be neither read nor predicted from.
#pragma once

#include "bandsums.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

extern "C" {
struct AVFrame;
}

namespace tw::host {

class PictureRing : public std::enable_shared_from_this<PictureRing> {
public:
    // Rows of luma a band holds: one row of H.264 macroblocks.
    static constexpr int kBandRows = 16;
    // Pictures lent at once: the one being decoded, the decoder's last reference and the
    // caller's last picture.
    static constexpr int kSlots = 3;

    // A ring for pictures of width x height (as the decoder allocates them: aligned, with
    // its extra rows) in the planes of layout, bands pages to a plane, each plane's
    // linesize a multiple of linesizeAlign. Null when the system refuses the memory or the
    // mappings.
    static std::shared_ptr<PictureRing> Make(int width, int height, int format,
                                             const PlaneLayout& layout, int bands,
                                             int linesizeAlign);
    ~PictureRing();

    PictureRing(const PictureRing&) = delete;
    PictureRing& operator=(const PictureRing&) = delete;

    bool Fits(int width, int height, int format, int bands, int linesizeAlign) const
    {
        return width == m_Width && height == m_Height && format == m_Format &&
               bands == m_Bands && linesizeAlign == m_LinesizeAlign;
    }
    // Gives frame the planes of a free slot, held by frame->buf[0] until the last reference
    // to it goes. False when every slot is lent (or out of memory).
    bool Lend(AVFrame* pFrame);

private:
    PictureRing() = default;
    bool Map(const PlaneLayout& layout);
    static void Return(void* opaque, uint8_t* data);

    struct Slot {
        uint8_t* base = nullptr;
        uint8_t* planes[3] = {nullptr, nullptr, nullptr};
        std::atomic<bool> lent{false};
    };

    int m_Width = 0;
    int m_Height = 0;
    int m_Format = -1;
    int m_Bands = 0;
    int m_LinesizeAlign = 0;
    int m_Planes = 0;
    int m_Linesize[3] = {0, 0, 0};
    int m_fd = -1;
    size_t m_SlotBytes = 0;   // address range of one picture, every plane
    Slot m_Slots[kSlots];
};

}  // namespace tw::host
