#include "support/decodesums.h"

#include "tw/decode.h"
#include "twhost/decodeerror.h"
#include "twhost/decodetuning.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>

namespace tw::test {

void PaintBusyPicture(int index, int width, int height, unsigned char* rgb)
{
    uint32_t noise = 2463534242u + uint32_t(index) * 7919u;
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            noise ^= noise << 13;
            noise ^= noise >> 17;
            noise ^= noise << 5;
            const int block = ((x + 3 * index) / 24 * 37 + (y / 20) * 91 + index * 13) % 97;
            unsigned char* pPixel = rgb + (size_t(y) * width + x) * 3;
            pPixel[0] = static_cast<unsigned char>((x * 255 / width + block + (noise & 15)) & 255);
            pPixel[1] = static_cast<unsigned char>((y * 255 / height + 2 * block) & 255);
            pPixel[2] = static_cast<unsigned char>((block * 3 + ((noise >> 8) & 31)) & 255);
        }
    }
}

TestVideo BusyClip(int codec, int width, int height, int frames, int gop, int bFrames,
                   const std::string& x264Params)
{
    TestVideoSpec settings;
    settings.codec = codec;
    settings.width = width;
    settings.height = height;
    settings.frames = frames;
    settings.gop = gop;
    settings.bFrames = bFrames;
    settings.painter = PaintBusyPicture;
    settings.x264Params = x264Params;
    TestVideo video;
    std::string error;
    EXPECT_TRUE(EncodeTestVideo(settings, video, error)) << error;
    return video;
}

void ExpectSamePictures(const ScaleRun& gathered, const ScaleRun& readBack)
{
    ASSERT_TRUE(gathered.error.empty()) << gathered.error;
    ASSERT_TRUE(readBack.error.empty()) << readBack.error;
    ASSERT_EQ(gathered.pictures.size(), readBack.pictures.size());
    for (size_t i = 0; i < gathered.pictures.size(); ++i) {
        EXPECT_EQ(gathered.pictures[i], readBack.pictures[i]) << "picture " << i;
    }
    for (size_t i = 0; i < readBack.fromDecodeSums.size(); ++i) {
        EXPECT_FALSE(readBack.fromDecodeSums[i])
            << "picture " << i << " took sums gathered while decoding with gathering off";
    }
    for (size_t i = 0; i < readBack.inRing.size(); ++i) {
        EXPECT_FALSE(readBack.inRing[i])
            << "picture " << i << " went into the ring with gathering off";
    }
}

ScaleRun DecodeAndScale(const TestVideo& video, const ScaleRunOptions& options)
{
    ScaleRun run;
    if (!options.learnedElsewhere) {
        tw::host::ForgetSharedScaleRequests();
    }
    FFmpegAttr attr{};
    if (DoFFMpegInitVideo(attr, video.codec, video.extraData.data(),
                          int(video.extraData.size())) != 0) {
        run.error = tw::host::LastDecodeError();
        return run;
    }
    tw::host::SetExactDecode(attr, options.exactDecode);
    unsigned char* pImage = nullptr;
    size_t sizeIndex = 0;
    std::vector<size_t> order = options.order;
    if (order.empty()) {
        for (size_t i = 0; i < video.packets.size(); ++i) {
            if (!options.keyFramesOnly || video.packets[i].keyFrame) {
                order.push_back(i);
            }
        }
    }
    for (size_t index : order) {
        const TestPacket& packet = video.packets.at(index);
        const auto& size = options.sizes[std::min(sizeIndex, options.sizes.size() - 1)];
        ++sizeIndex;
        tw::host::SetSumsWhileDecoding(options.sumsWhileDecoding);
        tw::host::SetRingWhileDecoding(options.ring);
        const uint64_t servedBefore = tw::host::ScalesFromDecodeSums(attr);
        const uint64_t ringBefore = tw::host::PicturesInRing(attr);
        std::vector<unsigned char> picture;
        if (DoFFMpegDecode(attr, packet.data.data(), int(packet.data.size())) == 0) {
            run.inRing.push_back(tw::host::PicturesInRing(attr) > ringBefore);
            int imageSize = 0;
            int width = size.first;
            int height = size.second;
            if (DoFFMpegScale(attr, pImage, imageSize, width, height, 0) == 0) {
                picture.assign(pImage, pImage + imageSize);
            }
        } else {
            run.inRing.push_back(false);
        }
        run.pictures.push_back(std::move(picture));
        run.fromDecodeSums.push_back(tw::host::ScalesFromDecodeSums(attr) > servedBefore);
    }
    run.replays = tw::host::RingReplays(attr);
    tw::host::SetSumsWhileDecoding(true);
    tw::host::SetRingWhileDecoding(true);
    DoFFMpegFree(attr, pImage);
    return run;
}

}  // namespace tw::test
