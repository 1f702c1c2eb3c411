#include "support/test_encode.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <jpeglib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

namespace tw::test {
namespace {

struct CodecCtxDeleter {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct FrameDeleter {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct SwsDeleter {
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};

std::string AvError(int error)
{
    char szBuf[AV_ERROR_MAX_STRING_SIZE];
    av_strerror(error, szBuf, sizeof(szBuf));
    return szBuf;
}

const char* EncoderName(int codec)
{
    switch (codec) {
    case 1:
        return "mjpeg";
    case 2:
        return "mpeg4";
    case 3:
        return "libx264";
    case 4:
        return "libx265";
    default:
        return nullptr;
    }
}

// Moves every packet the encoder has ready into the video.
bool CollectPackets(AVCodecContext* pCtx, AVPacket* pPacket, TestVideo& video,
                    std::string& error)
{
    for (;;) {
        const int ret = avcodec_receive_packet(pCtx, pPacket);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
            return true;
        }
        if (ret < 0) {
            error = "receiving a packet failed: " + AvError(ret);
            return false;
        }
        TestPacket packet;
        packet.data.assign(pPacket->data, pPacket->data + pPacket->size);
        packet.keyFrame = (pPacket->flags & AV_PKT_FLAG_KEY) != 0;
        packet.pts = pPacket->pts;
        video.packets.push_back(std::move(packet));
        av_packet_unref(pPacket);
    }
}

}  // namespace

int PictureLevel(int index)
{
    return 30 + (index * 23) % 190;
}

void PaintLevelPicture(int index, int width, int height, unsigned char* rgb)
{
    memset(rgb, PictureLevel(index), size_t(width) * size_t(height) * 3);
}

bool EncodeTestVideo(const TestVideoSpec& videoSpec, TestVideo& video, std::string& error)
{
    video = TestVideo{};
    const char* szEncoder = EncoderName(videoSpec.codec);
    if (szEncoder == nullptr) {
        error = "unknown codec type " + std::to_string(videoSpec.codec);
        return false;
    }
    const AVCodec* pCodec = avcodec_find_encoder_by_name(szEncoder);
    if (pCodec == nullptr) {
        error = std::string("encoder ") + szEncoder + " is not available";
        return false;
    }
    if (videoSpec.width < 16 || videoSpec.height < 16 || videoSpec.frames < 1 || videoSpec.gop < 1 ||
        videoSpec.bFrames < 0) {
        error = "bad video videoSpec";
        return false;
    }
    std::unique_ptr<AVCodecContext, CodecCtxDeleter> ctx(avcodec_alloc_context3(pCodec));
    if (!ctx) {
        error = "out of memory";
        return false;
    }
    const bool blJpeg = videoSpec.codec == 1;
    ctx->width = videoSpec.width;
    ctx->height = videoSpec.height;
    ctx->time_base = AVRational{1, 25};
    ctx->framerate = AVRational{25, 1};
    ctx->gop_size = videoSpec.gop;
    ctx->max_b_frames = blJpeg ? 0 : videoSpec.bFrames;
    ctx->pix_fmt = blJpeg ? AV_PIX_FMT_YUVJ420P : AV_PIX_FMT_YUV420P;
    ctx->color_range = blJpeg ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    ctx->thread_count = 1;   // keeps packet order and timing deterministic
    const bool blQscale = videoSpec.codec == 1 || videoSpec.codec == 2;
    if (blQscale) {
        // Fixed quantiser: a bit rate target would starve large pictures.
        ctx->flags |= AV_CODEC_FLAG_QSCALE;
        ctx->global_quality = FF_QP2LAMBDA * 3;
    }
    if (videoSpec.globalHeader) {
        ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    const std::string gop = std::to_string(videoSpec.gop);
    if (videoSpec.codec == 3) {
        av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);
        if (videoSpec.bFrames == 0) {
            av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
        }
        std::string params = "keyint=" + gop + ":min-keyint=" + gop + ":scenecut=0";
        if (!videoSpec.globalHeader) {
            params += ":repeat-headers=1";
        }
        if (!videoSpec.x264Params.empty()) {
            params += ":" + videoSpec.x264Params;
        }
        av_opt_set(ctx->priv_data, "x264-params", params.c_str(), 0);
    } else if (videoSpec.codec == 4) {
        av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);
        std::string params = "keyint=" + gop + ":min-keyint=" + gop +
                             ":scenecut=0:open-gop=0:bframes=" + std::to_string(videoSpec.bFrames) +
                             ":log-level=error:frame-threads=1:pools=1";
        if (!videoSpec.globalHeader) {
            params += ":repeat-headers=1:annexb=1";
        }
        av_opt_set(ctx->priv_data, "x265-params", params.c_str(), 0);
    }
    int ret = avcodec_open2(ctx.get(), pCodec, nullptr);
    if (ret < 0) {
        error = std::string("opening ") + szEncoder + " failed: " + AvError(ret);
        return false;
    }
    video.codec = videoSpec.codec;
    video.width = videoSpec.width;
    video.height = videoSpec.height;
    if (ctx->extradata != nullptr && ctx->extradata_size > 0) {
        video.extraData.assign(ctx->extradata, ctx->extradata + ctx->extradata_size);
    }

    std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
    std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());
    std::unique_ptr<SwsContext, SwsDeleter> sws(
        sws_getContext(videoSpec.width, videoSpec.height, AV_PIX_FMT_RGB24, videoSpec.width, videoSpec.height,
                       AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!frame || !packet || !sws) {
        error = "out of memory";
        return false;
    }
    // RGB to BT.601 YUV, limited range for the video codecs and full range for JPEG.
    const int* pCoefficients = sws_getCoefficients(SWS_CS_DEFAULT);
    sws_setColorspaceDetails(sws.get(), pCoefficients, 1, pCoefficients, blJpeg ? 1 : 0, 0,
                             1 << 16, 1 << 16);
    frame->width = videoSpec.width;
    frame->height = videoSpec.height;
    frame->format = ctx->pix_fmt;
    frame->color_range = ctx->color_range;
    ret = av_frame_get_buffer(frame.get(), 0);
    if (ret < 0) {
        error = "frame buffer: " + AvError(ret);
        return false;
    }
    // libswscale's vector loads read whole registers past the last row: give it slack.
    std::vector<unsigned char> rgb(size_t(videoSpec.width) * size_t(videoSpec.height) * 3 + 64);
    for (int i = 0; i < videoSpec.frames; ++i) {
        if (videoSpec.painter) {
            videoSpec.painter(i, videoSpec.width, videoSpec.height, rgb.data());
        } else {
            PaintLevelPicture(i, videoSpec.width, videoSpec.height, rgb.data());
        }
        ret = av_frame_make_writable(frame.get());
        if (ret < 0) {
            error = "frame not writable: " + AvError(ret);
            return false;
        }
        const uint8_t* src[4] = {rgb.data(), nullptr, nullptr, nullptr};
        const int srcStride[4] = {videoSpec.width * 3, 0, 0, 0};
        sws_scale(sws.get(), src, srcStride, 0, videoSpec.height, frame->data, frame->linesize);
        frame->pts = i;
        if (blQscale) {
            frame->quality = ctx->global_quality;
        }
        ret = avcodec_send_frame(ctx.get(), frame.get());
        if (ret < 0) {
            error = "encoding picture " + std::to_string(i) + " failed: " + AvError(ret);
            return false;
        }
        if (!CollectPackets(ctx.get(), packet.get(), video, error)) {
            return false;
        }
    }
    ret = avcodec_send_frame(ctx.get(), nullptr);
    if (ret < 0) {
        error = "flushing the encoder failed: " + AvError(ret);
        return false;
    }
    return CollectPackets(ctx.get(), packet.get(), video, error);
}

std::vector<unsigned char> EncodeTestJpeg(const unsigned char* pixels, int width, int height,
                                          int components, int quality)
{
    jpeg_compress_struct info;
    jpeg_error_mgr err;
    info.err = jpeg_std_error(&err);   // our own input: an error here is a broken test
    jpeg_create_compress(&info);
    unsigned char* pBuffer = nullptr;
    unsigned long size = 0;
    jpeg_mem_dest(&info, &pBuffer, &size);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = components;
    info.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    jpeg_start_compress(&info, TRUE);
    const size_t rowBytes = size_t(width) * size_t(components);
    while (info.next_scanline < info.image_height) {
        JSAMPROW pRow = const_cast<unsigned char*>(pixels) + info.next_scanline * rowBytes;
        jpeg_write_scanlines(&info, &pRow, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    std::vector<unsigned char> jpeg(pBuffer, pBuffer + size);
    free(pBuffer);
    return jpeg;
}

}  // namespace tw::test

