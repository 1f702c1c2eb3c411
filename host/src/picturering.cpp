// Decoder pictures whose rows live in a ring of a few macroblock rows; see picturering.h.

#include "picturering.h"

#include <new>

#include <sys/mman.h>
#include <unistd.h>

extern "C" {
#include <libavutil/buffer.h>
#include <libavutil/common.h>
#include <libavutil/frame.h>
}

namespace tw::host {
namespace {

constexpr size_t kPage = 4096;

bool PowerOfTwo(size_t n)
{
    return n != 0 && (n & (n - 1)) == 0;
}

}  // namespace

std::shared_ptr<PictureRing> PictureRing::Make(int width, int height, int format,
                                               const PlaneLayout& layout, int bands,
                                               int linesizeAlign)
{
    if (width < 1 || height < 1 || bands < 2 || layout.planes < 1 || layout.planes > 3 ||
        linesizeAlign < 1 || !PowerOfTwo(size_t(linesizeAlign)) ||
        size_t(linesizeAlign) > kPage || sysconf(_SC_PAGESIZE) != long(kPage)) {
        return nullptr;
    }

    std::shared_ptr<PictureRing> ring(new (std::nothrow) PictureRing);
    if (!ring) {
        return nullptr;
    }
    ring->m_Width = width;
    ring->m_Height = height;
    ring->m_Format = format;
    ring->m_Bands = bands;
    ring->m_LinesizeAlign = linesizeAlign;
    ring->m_Planes = layout.planes;
    if (!ring->Map(layout)) {
        return nullptr;
    }
    return ring;
}

bool PictureRing::Map(const PlaneLayout& layout)
{
    size_t bandBytes[3] = {0, 0, 0};
    int planeBands[3] = {0, 0, 0};
    size_t fileBytes = 0;
    m_SlotBytes = 0;
    for (int p = 0; p < m_Planes; ++p) {
        const int shiftX = p == 0 ? 0 : layout.chromaShiftX;
        const int shiftY = p == 0 ? 0 : layout.chromaShiftY;
        const int bandRows = kBandRows >> shiftY;
        if (bandRows < 1 || kPage % size_t(bandRows) != 0) {
            return false;
        }
        // Every band starts on a page of its own, so that it can be mapped onto the ring:
        // the linesize is a multiple of a page over the band's rows. An odd multiple of it,
        // so that the band's rows fall on as many different sets of the L1 cache as there
        // are rows: at 2048 bytes (1080p luma) the 16 rows of a macroblock share two sets,
        // which is as many lines as an 8-way cache holds there, and a turn costs 6 % more.
        const size_t align = FFMAX(size_t(m_LinesizeAlign), kPage / size_t(bandRows));
        size_t linesize = FFALIGN(size_t(AV_CEIL_RSHIFT(m_Width, shiftX)), align);
        if ((linesize / align) % 2 == 0) {
            linesize += align;
        }
        if (linesize > size_t(1) << 20) {
            return false;
        }
        m_Linesize[p] = int(linesize);
        bandBytes[p] = linesize * size_t(bandRows);
        // One band more than the rows need: readers that run a row past the last one find
        // mapped memory.
        planeBands[p] = (AV_CEIL_RSHIFT(m_Height, shiftY) + bandRows - 1) / bandRows + 1;
        fileBytes += bandBytes[p] * size_t(m_Bands);
        m_SlotBytes += bandBytes[p] * size_t(planeBands[p]);
    }
    m_fd = memfd_create("tw-picture-ring", MFD_CLOEXEC);
    if (m_fd < 0 || ftruncate(m_fd, off_t(fileBytes)) != 0) {
        return false;
    }
    for (Slot& slot : m_Slots) {
        void* reserved = mmap(nullptr, m_SlotBytes, PROT_NONE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (reserved == MAP_FAILED) {
            return false;
        }
        slot.base = static_cast<uint8_t*>(reserved);
        uint8_t* plane = slot.base;
        size_t fileOffset = 0;
        for (int p = 0; p < m_Planes; ++p) {
            slot.planes[p] = plane;
            // Bands b .. b + run - 1 lie on consecutive pages of the file as well, so each
            // lap of the ring is one mapping.
            for (int b = 0; b < planeBands[p];) {
                const int first = b % m_Bands;
                const int run = FFMIN(m_Bands - first, planeBands[p] - b);
                void* at = mmap(plane + size_t(b) * bandBytes[p], size_t(run) * bandBytes[p],
                                PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, m_fd,
                                off_t(fileOffset + size_t(first) * bandBytes[p]));
                if (at == MAP_FAILED) {
                    return false;
                }
                b += run;
            }
            plane += bandBytes[p] * size_t(planeBands[p]);
            fileOffset += bandBytes[p] * size_t(m_Bands);
        }
    }
    return true;
}

PictureRing::~PictureRing()
{
    for (Slot& slot : m_Slots) {
        if (slot.base != nullptr) {
            munmap(slot.base, m_SlotBytes);
        }
    }
    if (m_fd >= 0) {
        close(m_fd);
    }
}

bool PictureRing::Lend(AVFrame* pFrame)
{
    for (Slot& slot : m_Slots) {
        bool expected = false;
        if (!slot.lent.compare_exchange_strong(expected, true, std::memory_order_acquire)) {
            continue;
        }
        // The buffer keeps the ring alive: a picture may outlive the decoder it came from.
        auto* pKeep = new (std::nothrow) std::shared_ptr<PictureRing>(shared_from_this());
        AVBufferRef* pBuf =
            pKeep != nullptr ? av_buffer_create(slot.base, m_SlotBytes, &PictureRing::Return,
                                                pKeep, 0)
                             : nullptr;
        if (pBuf == nullptr) {
            delete pKeep;
            slot.lent.store(false, std::memory_order_release);
            return false;
        }
        pFrame->buf[0] = pBuf;
        for (int p = 0; p < m_Planes; ++p) {
            pFrame->data[p] = slot.planes[p];
            pFrame->linesize[p] = m_Linesize[p];
        }
        pFrame->extended_data = pFrame->data;
        return true;
    }
    return false;
}

void PictureRing::Return(void* opaque, uint8_t* data)
{
    auto* pKeep = static_cast<std::shared_ptr<PictureRing>*>(opaque);
    for (Slot& slot : (*pKeep)->m_Slots) {
        if (slot.base == data) {
            slot.lent.store(false, std::memory_order_release);
        }
    }
    delete pKeep;
}

}  // namespace tw::host
