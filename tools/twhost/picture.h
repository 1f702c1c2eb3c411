// Pictures of what a detector judged, for people: a compressed frame decoded by the host's
// own decoders into RGB at a size fit for a page, the 40 x 30 grid of the detector with its
// watched cells drawn over it, and the picture encoded as JPEG (libjpeg-turbo) or PNG
// (libavcodec), or as a data URI for a self-contained page.
#ifndef TWHOST_PICTURE_H
#define TWHOST_PICTURE_H

#include <string>
#include <vector>

extern "C" {
struct AVCodecContext;
}
#include "tw/decode.h"

namespace twpic {

struct RgbPicture {
    int width = 0;
    int height = 0;
    std::vector<unsigned char> rgb;   // packed, 3 bytes a pixel, rows without padding
    bool Empty() const { return width < 1 || height < 1; }
};

// Decodes single frames that can be decoded alone (key frames, JPEG pictures) of one
// stream, as the detector is handed them, into pictures at most maxWidth wide.
class FrameDecoder {
public:
    FrameDecoder(int codec, std::vector<unsigned char> extra, int maxWidth);
    ~FrameDecoder();
    FrameDecoder(const FrameDecoder&) = delete;
    FrameDecoder& operator=(const FrameDecoder&) = delete;

    bool Decode(const unsigned char* data, int size, RgbPicture& out, std::string& error);

private:
    int m_Codec;
    std::vector<unsigned char> m_Extra;
    int m_MaxWidth;
    bool m_blOpen = false;
    FFmpegAttr m_Attr{};
    unsigned char* m_pImage = nullptr;
};

// The picture size for a source of width x height shown at most maxWidth wide (even sizes,
// aspect kept).
void FitWidth(int width, int height, int maxWidth, int& outWidth, int& outHeight);

// Area-averaging shrink of an RGB picture to width x height (no enlarging).
RgbPicture Shrink(const RgbPicture& in, int width, int height);

// Draws the detector's 40 x 30 grid over the picture, tints the watched cells of region
// (1200 characters '0'/'1', row by row) and outlines the watched region. Cells map onto the
// picture as they map onto the detector's small image: column c starts at trunc(c * w / 40).
void DrawRegion(RgbPicture& picture, const std::string& region);

// JPEG (libjpeg-turbo) and PNG (libavcodec) files of a picture; empty on failure.
std::vector<unsigned char> EncodeJpeg(const RgbPicture& picture, int quality = 75);
std::vector<unsigned char> EncodePng(const RgbPicture& picture, std::string& error);

std::string Base64(const std::vector<unsigned char>& bytes);

// Writes bytes to path (replacing it); false with error naming the file.
bool WriteFile(const std::string& path, const std::vector<unsigned char>& bytes, std::string& error);

}  // namespace twpic

#endif
