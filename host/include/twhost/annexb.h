// H.264 and HEVC packets as MP4 and Matroska store them (each NAL unit behind a 1-, 2- or
// 4-byte big-endian length) turned into the Annex B byte stream that cameras send and the
// decoders of the recorder expect (each NAL unit behind a start code).
#pragma once

#include <cstddef>
#include <vector>

namespace tw::host {

// What a length-prefixed packet means for its conversion.
enum class NalLayout {
    // Only NAL units that FFmpeg's mp4toannexb filters copy behind a start code without
    // inserting anything: the local converter gives the same bytes.
    Plain,
    // Parameter sets or random-access pictures (H.264 SPS, PPS, IDR; HEVC IRAP): the filter
    // inserts parameter sets or remembers having seen them, so such a packet must go
    // through it.
    Special,
    // Empty, a length that runs past the end, a length prefix cut short, or (HEVC) a NAL
    // unit shorter than its two-byte header.
    Malformed,
};

// Walks the length prefixes of a packet without copying it. codec is VIDEO_CODEC_H264 or
// VIDEO_CODEC_HEVC; nalLengthSize 1, 2 or 4 (anything else is Malformed). hasSlice, when
// given, tells whether an H.264 packet holds a non-IDR slice (type 1).
NalLayout InspectLengthPrefixed(int codec, const unsigned char* data, size_t size,
                                int nalLengthSize, bool* hasSlice = nullptr);

// Replaces each length prefix with a start code, byte for byte as the mp4toannexb filters
// write a packet they add nothing to: HEVC 00 00 00 01 before every NAL unit; H.264
// 00 00 00 01 before the first NAL unit and before SPS and PPS, 00 00 01 before the others,
// and zero-length units left out. Parameter sets are never inserted. False, with out
// empty, for a Malformed packet.
bool LengthPrefixedToAnnexB(int codec, const unsigned char* data, size_t size,
                            int nalLengthSize, std::vector<unsigned char>& out);

}  // namespace tw::host
