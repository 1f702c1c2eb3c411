// PNG pictures read back by the tests (a region drawn by twhost, a browser's screenshot),
// decoded with libavcodec and converted to packed RGB.
#pragma once

#include <string>
#include <vector>

namespace tw::test {

struct RgbImage {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb;  // 3 bytes a pixel, rows packed
};

// False with error when bytes are no PNG picture libavcodec decodes.
bool DecodePng(const std::string& bytes, RgbImage& image, std::string& error);

}  // namespace tw::test
