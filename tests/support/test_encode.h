// Small encoders for the decoding tests and benchmarks: a libavcodec video encoder that
// returns packets in decoding order with their key flags, and a libjpeg picture encoder.
// Everything is made in memory at run time.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace tw::test {

struct TestPacket {
    std::vector<unsigned char> data;   // Annex B for H.264 and HEVC
    bool keyFrame = false;
    int64_t pts = 0;                   // index of the source picture
};

struct TestVideo {
    int codec = 0;                     // VIDEO_CODEC_TYPE
    int width = 0;
    int height = 0;
    std::vector<unsigned char> extraData;
    std::vector<TestPacket> packets;   // in decoding order
};

// Paints source picture number index as packed RGB (width * height * 3 bytes).
using RgbPainter = std::function<void(int index, int width, int height, unsigned char* rgb)>;

struct TestVideoSpec {
    int codec = 3;           // VIDEO_CODEC_TYPE: 1 MJPEG, 2 MPEG-4 part 2, 3 H.264, 4 HEVC
    int width = 320;
    int height = 240;
    int frames = 24;
    int gop = 8;             // key-frame interval
    int bFrames = 0;         // B-frames between references (not MJPEG)
    // H.264 and HEVC: parameter sets go into the extra data instead of every key frame.
    bool globalHeader = false;
    RgbPainter painter;      // empty: PaintLevelPicture
    // H.264: more x264 parameters, ':'-separated, after ours (slices, for one).
    std::string x264Params;
};

// Grey level of the flat picture that PaintLevelPicture paints for picture index: it
// differs from one picture to the next, so a test can tell which picture came out.
int PictureLevel(int index);
// The default painter: a flat grey picture of PictureLevel(index).
void PaintLevelPicture(int index, int width, int height, unsigned char* rgb);

// Encodes videoSpec.frames pictures. Returns false and sets error on failure.
bool EncodeTestVideo(const TestVideoSpec& videoSpec, TestVideo& video, std::string& error);

// One baseline JPEG picture of grey (components 1) or RGB (components 3) pixels.
std::vector<unsigned char> EncodeTestJpeg(const unsigned char* pixels, int width, int height,
                                          int components, int quality = 90);

}  // namespace tw::test
