// Decodes a test video twice, once with the block sums gathered while decoding and once
// reading every finished picture back, and keeps what DoFFMpegScale made of each picture,
// so that tests can hold the two ways to the same bytes.
#pragma once

#include "support/test_encode.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace tw::test {

// A detailed, moving picture: gradients, a grid of blocks whose levels change with index
// and noise, so that every block sum differs from its neighbours.
void PaintBusyPicture(int index, int width, int height, unsigned char* rgb);

// A clip of busy pictures in codec (a VIDEO_CODEC_TYPE); x264Params are passed on to the
// H.264 encoder. A failure to encode fails the calling test and gives an empty clip.
TestVideo BusyClip(int codec, int width, int height, int frames, int gop, int bFrames = 0,
                   const std::string& x264Params = "");

struct ScaleRun {
    // One entry a packet: the scaled picture, or empty when the packet gave none.
    std::vector<std::vector<unsigned char>> pictures;
    // Per packet: whether DoFFMpegScale took sums gathered during that packet's decode.
    std::vector<bool> fromDecodeSums;
    // Per packet: whether its picture was decoded into the ring.
    std::vector<bool> inRing;
    // Pictures decoded again whole, or decoder states restored, over the whole run.
    uint64_t replays = 0;
    std::string error;   // set when the decoder could not be set up
};

struct ScaleRunOptions {
    bool sumsWhileDecoding = true;
    // Whether pictures may be decoded into the ring (only where sums are gathered).
    bool ring = true;
    bool exactDecode = false;
    bool keyFramesOnly = true;
    // When not empty, the packets decoded, by index, in this order (keyFramesOnly aside).
    std::vector<size_t> order;
    // Target size per packet; packets past the end take the last one.
    std::vector<std::pair<int, int>> sizes{{120, 67}};
    // Whether the decoder may start from what the decoders of earlier runs in this process
    // reduced their pictures by; otherwise that is forgotten first, and the run is a lone
    // decoder's.
    bool learnedElsewhere = false;
};

// Decodes video's packets in order, scaling each picture that comes out.
ScaleRun DecodeAndScale(const TestVideo& video, const ScaleRunOptions& options);

// Fails the calling test unless both runs worked and gave the same bytes for every picture,
// and unless the run with gathering off took none of its sums while decoding.
void ExpectSamePictures(const ScaleRun& gathered, const ScaleRun& readBack);

}  // namespace tw::test
