#include "support/pngdecode.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace tw::test {

bool DecodePng(const std::string& bytes, RgbImage& image, std::string& error) {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) {
        error = "libavcodec has no PNG decoder";
        return false;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    AVPacket* packet = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    bool ok = false;
    if (ctx && packet && frame && avcodec_open2(ctx, codec, nullptr) == 0 &&
        av_new_packet(packet, static_cast<int>(bytes.size())) == 0) {
        std::copy(bytes.begin(), bytes.end(), packet->data);
        if (avcodec_send_packet(ctx, packet) == 0 && avcodec_receive_frame(ctx, frame) == 0) {
            SwsContext* sws = sws_getContext(frame->width, frame->height, static_cast<AVPixelFormat>(frame->format),
                                             frame->width, frame->height, AV_PIX_FMT_RGB24, SWS_POINT, nullptr,
                                             nullptr, nullptr);
            if (sws != nullptr) {
                image.width = frame->width;
                image.height = frame->height;
                image.rgb.assign(static_cast<size_t>(frame->width) * frame->height * 3 + 64, 0);
                uint8_t* dst[4] = {image.rgb.data(), nullptr, nullptr, nullptr};
                int stride[4] = {frame->width * 3, 0, 0, 0};
                ok = sws_scale(sws, frame->data, frame->linesize, 0, frame->height, dst, stride) == frame->height;
                image.rgb.resize(static_cast<size_t>(frame->width) * frame->height * 3);
                sws_freeContext(sws);
            }
        }
    }
    if (!ok) error = "not a PNG picture libavcodec can decode (" + std::to_string(bytes.size()) + " bytes)";
    av_frame_free(&frame);
    av_packet_free(&packet);
    avcodec_free_context(&ctx);
    return ok;
}

}  // namespace tw::test
