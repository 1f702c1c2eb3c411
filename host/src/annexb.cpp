// Length-prefixed H.264 and HEVC to Annex B, for the packets the FIFO hands out late.

#include "twhost/annexb.h"

#include "tw/camera.h"

namespace tw::host {

namespace {

bool KnownLengthSize(int nalLengthSize) {
    return nalLengthSize == 1 || nalLengthSize == 2 || nalLengthSize == 4;
}

// Calls f(nal, length) for each NAL unit; false when the packet is Malformed (f may have
// been called for the units before the fault).
template <typename F>
bool ForEachLengthPrefixed(int codec, const unsigned char* data, size_t size, int nalLengthSize,
                           F f) {
    if (data == nullptr || size == 0 || !KnownLengthSize(nalLengthSize)) {
        return false;
    }
    const size_t lengthSize = static_cast<size_t>(nalLengthSize);
    size_t pos = 0;
    while (pos < size) {
        if (size - pos < lengthSize) {
            return false;
        }
        size_t length = 0;
        for (size_t i = 0; i < lengthSize; ++i) {
            length = (length << 8) | data[pos + i];
        }
        pos += lengthSize;
        if (length > size - pos) {
            return false;
        }
        // The HEVC filter refuses a unit without its two-byte header; the H.264 filter
        // skips empty units.
        if (codec == VIDEO_CODEC_HEVC && length < 2) {
            return false;
        }
        if (length > 0) {
            f(data + pos, length);
        }
        pos += length;
    }
    return true;
}

}  // namespace

NalLayout InspectLengthPrefixed(int codec, const unsigned char* data, size_t size,
                                int nalLengthSize, bool* hasSlice) {
    bool special = false;
    bool slice = false;
    const bool wellFormed = ForEachLengthPrefixed(
        codec, data, size, nalLengthSize, [&](const unsigned char* nal, size_t) {
            if (codec == VIDEO_CODEC_H264) {
                const int type = nal[0] & 0x1f;
                special = special || type == 5 || type == 7 || type == 8;
                slice = slice || type == 1;
            } else {
                const int type = (nal[0] >> 1) & 0x3f;
                special = special || (type >= 16 && type <= 23);
            }
        });
    if (hasSlice != nullptr) {
        *hasSlice = slice;
    }
    if (!wellFormed) {
        return NalLayout::Malformed;
    }
    return special ? NalLayout::Special : NalLayout::Plain;
}

bool LengthPrefixedToAnnexB(int codec, const unsigned char* data, size_t size,
                            int nalLengthSize, std::vector<unsigned char>& out) {
    out.clear();
    // A start code is at most three bytes longer than the prefix it replaces; a few units
    // per packet is the rule.
    out.reserve(size + 64);
    const bool wellFormed = ForEachLengthPrefixed(
        codec, data, size, nalLengthSize, [&](const unsigned char* nal, size_t length) {
            bool longCode = true;
            if (codec == VIDEO_CODEC_H264 && !out.empty()) {
                const int type = nal[0] & 0x1f;
                longCode = type == 7 || type == 8;
            }
            if (longCode) {
                out.push_back(0);
            }
            out.push_back(0);
            out.push_back(0);
            out.push_back(1);
            out.insert(out.end(), nal, nal + length);
        });
    if (!wellFormed) {
        out.clear();
    }
    return wellFormed;
}

}  // namespace tw::host
