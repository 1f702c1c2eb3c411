// Writes the seed inputs of one detection fuzz target (see detect_fuzz.cpp for the layout):
// small real frames of the host's synthetic scene, encoded at run time so that no encoded
// media is kept in the repository.
//
//   make_detect_seeds h264|hevc|mpeg4|mjpeg DIR
//
// Seeds: three key frames of a moving scene (with the stream's extra data in front when the
// encoder gives any), a group of pictures with predicted frames, one with B-frames, a
// decoder reset between two key frames, and a change of picture size to one wider than
// the detector's 120 pixels. For JPEG also grey and colour pictures that DecodeJpeg
// decodes directly at each scale.

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tw/camera.h"
#include "twhost/clipmaker.h"

extern "C" {
#include <libavutil/log.h>
}

namespace {

using Bytes = std::vector<unsigned char>;

struct Record {
    Bytes payload;
    unsigned char ops = 0;
};

// sensitivity 80, threshold 10 (the host's defaults), flags, records.
Bytes Seed(unsigned char flags, const std::vector<Record>& records) {
    Bytes out = {80, 10, flags};
    for (const Record& r : records) {
        const size_t len = r.payload.size() > 0xffff ? 0xffff : r.payload.size();
        out.push_back(static_cast<unsigned char>(len & 0xff));
        out.push_back(static_cast<unsigned char>(len >> 8));
        out.push_back(r.ops);
        out.insert(out.end(), r.payload.begin(), r.payload.begin() + static_cast<long>(len));
    }
    return out;
}

bool Encode(int codec, int width, int height, int frames, int gop, int bFrames, tw::host::EncodedClip& clip) {
    tw::host::ClipSpec clipSpec;
    clipSpec.codec = codec;
    clipSpec.width = width;
    clipSpec.height = height;
    clipSpec.fps = 10;
    clipSpec.gop = gop;
    clipSpec.bFrames = bFrames;
    clipSpec.durationSec = double(frames) / clipSpec.fps;
    clipSpec.motion = {{0.0, clipSpec.durationSec + 1.0}};
    std::string error;
    if (!tw::host::EncodeClip(clipSpec, clip, error)) {
        fprintf(stderr, "make_detect_seeds: cannot encode a %dx%d clip: %s\n", width, height, error.c_str());
        return false;
    }
    return true;
}

bool Write(const std::string& dir, const std::string& name, const Bytes& bytes) {
    const std::string path = dir + "/" + name;
    FILE* f = fopen(path.c_str(), "wb");
    if (f == nullptr || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        fprintf(stderr, "make_detect_seeds: cannot write %s\n", path.c_str());
        if (f != nullptr) fclose(f);
        return false;
    }
    return fclose(f) == 0;
}

std::vector<Record> Frames(const tw::host::EncodedClip& clip, size_t first, size_t count) {
    std::vector<Record> records;
    for (size_t i = first; i < clip.frames.size() && records.size() < count; ++i) records.push_back({clip.frames[i].data});
    return records;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: make_detect_seeds h264|hevc|mpeg4|mjpeg DIR\n");
        return 2;
    }
    const std::string name = argv[1];
    const std::string dir = argv[2];
    int codec = 0;
    if (name == "h264") codec = VIDEO_CODEC_H264;
    else if (name == "hevc") codec = VIDEO_CODEC_HEVC;
    else if (name == "mpeg4") codec = VIDEO_CODEC_MPEG4;
    else if (name == "mjpeg") codec = VIDEO_CODEC_JPEG;
    else {
        fprintf(stderr, "make_detect_seeds: unknown codec '%s' (h264, hevc, mpeg4 or mjpeg)\n", name.c_str());
        return 2;
    }
    av_log_set_level(AV_LOG_ERROR);
    const bool jpeg = codec == VIDEO_CODEC_JPEG;

    // Three key frames of a moving object: size, background, then a real comparison.
    tw::host::EncodedClip keys;
    if (!Encode(codec, 64, 48, 3, 1, 0, keys)) return 1;
    std::vector<Record> keyRecords = Frames(keys, 0, 3);
    bool ok = true;
    if (!jpeg && !keys.extraData.empty()) {
        std::vector<Record> withExtra = {{keys.extraData}};
        withExtra.insert(withExtra.end(), keyRecords.begin(), keyRecords.end());
        ok &= Write(dir, "key_frames_extra_data", Seed(1, withExtra));
    }
    ok &= Write(dir, "key_frames", Seed(0, keyRecords));
    ok &= Write(dir, "key_frames_left_half", Seed(2, keyRecords));

    // Predicted frames after a key frame, and (video codecs) B-frames that the decoder
    // holds back until it is drained.
    tw::host::EncodedClip gop;
    if (!Encode(codec, 64, 48, 5, 4, 0, gop)) return 1;
    ok &= Write(dir, "group_of_pictures", Seed(0, Frames(gop, 0, 5)));
    if (!jpeg) {
        tw::host::EncodedClip bframes;
        if (!Encode(codec, 64, 48, 6, 6, 2, bframes)) return 1;
        ok &= Write(dir, "b_frames", Seed(0, Frames(bframes, 0, 6)));
        std::vector<Record> reset = keyRecords;
        reset[1].ops = 1;
        ok &= Write(dir, "decoder_reset", Seed(0, reset));
    }

    // A new picture size wider than 120: the record is primed again and the picture capped.
    tw::host::EncodedClip wide;
    if (!Encode(codec, 160, 96, 2, 1, 0, wide)) return 1;
    std::vector<Record> resize = Frames(keys, 0, 2);
    for (const Record& r : Frames(wide, 0, 2)) resize.push_back(r);
    ok &= Write(dir, "size_change", Seed(0, resize));

    if (jpeg) {
        // Each scale of DecodeJpeg, grey and colour, on a picture of the scene.
        tw::host::ClipSpec clipSpec;
        clipSpec.width = 64;
        clipSpec.height = 48;
        const Bytes grey = tw::host::RenderSceneGrey(clipSpec, 0.5);
        Bytes rgb(grey.size() * 3);
        for (size_t i = 0; i < grey.size(); ++i) {
            rgb[3 * i] = grey[i];
            rgb[3 * i + 1] = static_cast<unsigned char>(255 - grey[i]);
            rgb[3 * i + 2] = static_cast<unsigned char>(grey[i] / 2);
        }
        const Bytes greyJpeg = tw::host::EncodeJpeg(grey.data(), clipSpec.width, clipSpec.height, 1);
        const Bytes rgbJpeg = tw::host::EncodeJpeg(rgb.data(), clipSpec.width, clipSpec.height, 3);
        if (greyJpeg.empty() || rgbJpeg.empty()) {
            fprintf(stderr, "make_detect_seeds: the JPEG encoder gave nothing\n");
            return 1;
        }
        std::vector<Record> scales;
        for (unsigned char scale = 0; scale < 5; ++scale) {
            scales.push_back({greyJpeg, static_cast<unsigned char>(scale << 1)});
            scales.push_back({rgbJpeg, static_cast<unsigned char>((scale << 1) | 0x10)});
        }
        ok &= Write(dir, "direct_scales", Seed(0, scales));
    }
    return ok ? 0 : 1;
}
