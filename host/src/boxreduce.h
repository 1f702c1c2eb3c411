// The detector's cheap way from a decoded picture to its small RGB picture: whole-block sums
// of every plane, then an exact area average of those sums at the target size and the
// conversion of that small picture to RGB. Used by DoFFMpegScale (decode.cpp).
#pragma once

#include "twhost/decodetuning.h"

#include <cstdint>

namespace tw::host {

// The largest block edge: sums of up to 16 x 16 bytes still fit 16 bits.
constexpr int kMaxBoxFactor = 16;

// One plane of block sums: each value the sum of fx x fy source bytes.
struct PlaneSums {
    const uint16_t* data = nullptr;
    int stride = 0;   // in values
    int width = 0;
    int height = 0;
};

// YUV to RGB with libswscale's coefficients for the stream's matrix and range:
// R = cy (Y - oy) + crv (V - 128), G = cy (Y - oy) - cgu (U - 128) - cgv (V - 128),
// B = cy (Y - oy) + cbu (U - 128).
struct RgbMatrix {
    float cy = 1.0f;
    float oy = 0.0f;
    float crv = 0.0f;
    float cbu = 0.0f;
    float cgu = 0.0f;
    float cgv = 0.0f;
};

// The matrix of colorspace (an AVColorSpace that libswscale knows; anything else its
// default, BT.601) for limited or full range input.
RgbMatrix RgbMatrixOf(int colorspace, bool fullRange);

// Writes width x height packed RGB24 pixels (width * 3 bytes a row) to out: the area
// average of the luma sums and, when there are three planes, of the chroma sums, divided
// by the blocks' area. Chroma is averaged at half the width and each value serves two
// neighbouring pixels, as libswscale does for RGB, unless fullChroma (odd widths, and
// chroma planes as wide as the luma plane, where libswscale interpolates it per pixel).
// One plane: grey, chroma taken as 128. False when out of memory.
bool AreaToRgb(const PlaneSums* planes, int planeCount, int blockArea, bool fullChroma,
               const RgbMatrix& matrix, uint8_t* out, int width, int height);

}  // namespace tw::host
