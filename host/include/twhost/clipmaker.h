// Synthetic video of a known scene, encoded with libavcodec: a still, textured background
// and one bright moving object that moves only inside the given intervals. Used by
// "twhost sample", by the tests and by the benchmarks, so nothing encoded is ever stored.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tw::host {

struct ClipSpec {
    int width = 640;
    int height = 360;
    int fps = 25;
    double durationSec = 14.0;
    int codec = 3;            // VIDEO_CODEC_TYPE: 1 JPEG (MJPEG), 2 MPEG-4 part 2, 3 H.264, 4 HEVC
    int gop = 12;             // key-frame interval in frames
    int bFrames = 0;          // B-frames between references (H.264, HEVC, MPEG-4)
    // [start, end) seconds in which the object moves; outside them it stands still.
    std::vector<std::pair<double, double>> motion = {{4.0, 7.0}, {10.0, 11.5}};
    int objectSize = 0;       // edge of the square object in pixels; 0 = height / 4
    // H.264 and HEVC: 0 encodes at constant quality (the texture's grain kept, large key
    // frames); N > 0 caps the stream at N kbit/s with a one-second buffer, as a camera
    // configured for a bit rate sends it.
    int bitrateKbps = 0;
};

// The built-in sample of "twhost sample" and "twhost detect" without a source.
ClipSpec SampleClipSpec();

// True when the clip can be encoded (even size of at least 16 x 16, positive rate and
// duration, known codec, sane GOP and B-frames, non-empty motion intervals); otherwise
// false with the reason in error.
bool CheckClipSpec(const ClipSpec& clipSpec, std::string& error);
// Number of frames in the clip: durationSec * fps, rounded, at least 1.
int ClipFrameCount(const ClipSpec& clipSpec);

// Where the object is at time t: top-left corner and edge in pixels of the full picture.
struct SceneObject {
    int x = 0;
    int y = 0;
    int size = 0;
};
SceneObject SceneObjectAt(const ClipSpec& clipSpec, double t);
// True when t lies inside one of the motion intervals.
bool IsObjectMovingAt(const ClipSpec& clipSpec, double t);

struct EncodedFrame {
    std::vector<unsigned char> data;   // Annex B for H.264 and HEVC, one JPEG picture for MJPEG
    bool keyFrame = false;
    int64_t ptsUs = 0;
};

struct EncodedClip {
    int codec = 0;                     // VIDEO_CODEC_TYPE
    int width = 0;
    int height = 0;
    std::vector<unsigned char> extraData;
    std::vector<EncodedFrame> frames;  // in decoding order
};

// Renders the scene at time t as planar YUV 4:2:0 (y: width*height, u, v: quarter size).
void RenderSceneYuv420(const ClipSpec& clipSpec, double t, std::vector<unsigned char>& y,
                       std::vector<unsigned char>& u, std::vector<unsigned char>& v);
// Renders the scene at time t as 8-bit grey (the luma plane).
std::vector<unsigned char> RenderSceneGrey(const ClipSpec& clipSpec, double t);

// Encodes the whole clip in memory. Returns false and sets error on failure.
bool EncodeClip(const ClipSpec& clipSpec, EncodedClip& clip, std::string& error);
// Writes the clip to a file; the container follows the extension (.mp4, .mkv, .avi, .ts).
bool WriteClip(const ClipSpec& clipSpec, const std::string& path, std::string& error);

// One JPEG picture made with libjpeg (grey when components is 1, RGB when 3). Empty when
// the arguments are unusable (no pixels, a non-positive size, other component counts).
std::vector<unsigned char> EncodeJpeg(const unsigned char* pixels, int width, int height,
                                      int components, int quality = 85);

}  // namespace tw::host
