#include "picture.h"

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

#include "tw/camera.h"
#include "twhost/decodetuning.h"
#include "twhost/clipmaker.h"
#include "twhost/decodeerror.h"

namespace twpic {

namespace {

constexpr int kCols = 40;
constexpr int kRows = 30;

}  // namespace

void FitWidth(int width, int height, int maxWidth, int& outWidth, int& outHeight) {
    if (width <= maxWidth || width < 1 || height < 1) {
        outWidth = width;
        outHeight = height;
        return;
    }
    outWidth = maxWidth & ~1;
    outHeight = static_cast<int>(std::lround(static_cast<double>(height) * outWidth / width)) & ~1;
    if (outHeight < 2) outHeight = 2;
}

RgbPicture Shrink(const RgbPicture& in, int width, int height) {
    if (width >= in.width || height >= in.height || width < 1 || height < 1) return in;
    RgbPicture out;
    out.width = width;
    out.height = height;
    out.rgb.resize(static_cast<size_t>(width) * height * 3);
    for (int y = 0; y < height; ++y) {
        const int y0 = static_cast<int>(static_cast<long long>(y) * in.height / height);
        int y1 = static_cast<int>(static_cast<long long>(y + 1) * in.height / height);
        if (y1 <= y0) y1 = y0 + 1;
        for (int x = 0; x < width; ++x) {
            const int x0 = static_cast<int>(static_cast<long long>(x) * in.width / width);
            int x1 = static_cast<int>(static_cast<long long>(x + 1) * in.width / width);
            if (x1 <= x0) x1 = x0 + 1;
            unsigned sum[3] = {0, 0, 0};
            for (int sy = y0; sy < y1; ++sy) {
                const unsigned char* p = &in.rgb[(static_cast<size_t>(sy) * in.width + x0) * 3];
                for (int sx = x0; sx < x1; ++sx, p += 3) {
                    sum[0] += p[0];
                    sum[1] += p[1];
                    sum[2] += p[2];
                }
            }
            const unsigned n = static_cast<unsigned>((y1 - y0) * (x1 - x0));
            unsigned char* q = &out.rgb[(static_cast<size_t>(y) * width + x) * 3];
            for (int c = 0; c < 3; ++c) q[c] = static_cast<unsigned char>((sum[c] + n / 2) / n);
        }
    }
    return out;
}

FrameDecoder::FrameDecoder(int codec, std::vector<unsigned char> extra, int maxWidth)
    : m_Codec(codec), m_Extra(std::move(extra)), m_MaxWidth(maxWidth) {}

FrameDecoder::~FrameDecoder() {
    if (m_Codec == VIDEO_CODEC_JPEG) {
        std::free(m_pImage);
    } else {
        DoFFMpegFree(m_Attr, m_pImage);
    }
}

bool FrameDecoder::Decode(const unsigned char* data, int size, RgbPicture& out, std::string& error) {
    if (data == nullptr || size < 1) {
        error = "empty frame";
        return false;
    }
    if (m_Codec == VIDEO_CODEC_JPEG) {
        int imageSize = 0, w = 0, h = 0;
        if (DecodeJpeg(data, size, &m_pImage, imageSize, JCS_RGB, 1, w, h) != 0) {
            error = tw::host::LastDecodeError();
            return false;
        }
        RgbPicture full;
        full.width = w;
        full.height = h;
        full.rgb.assign(m_pImage, m_pImage + static_cast<size_t>(w) * h * 3);
        int tw = 0, th = 0;
        FitWidth(w, h, m_MaxWidth, tw, th);
        out = Shrink(full, tw, th);
        return true;
    }
    if (!m_blOpen) {
        if (DoFFMpegInitVideo(m_Attr, m_Codec, m_Extra.empty() ? nullptr : m_Extra.data(),
                              static_cast<int>(m_Extra.size())) != 0) {
            error = tw::host::LastDecodeError();
            DoFFMpegFree(m_Attr, m_pImage);
            return false;
        }
        // People look at these pictures, so they keep the deblocking filter that the
        // detection decoders skip.
        tw::host::SetExactDecode(m_Attr, true);
        m_blOpen = true;
    }
    if (DoFFMpegDecode(m_Attr, data, size) != 0) {
        error = tw::host::LastDecodeError();
        return false;
    }
    int w = m_Attr.pCodecCtx->width, h = m_Attr.pCodecCtx->height;
    int tw = 0, th = 0;
    FitWidth(w, h, m_MaxWidth, tw, th);
    int imageSize = 0;
    if (DoFFMpegScale(m_Attr, m_pImage, imageSize, tw, th, 0) != 0) {
        error = tw::host::LastDecodeError();
        return false;
    }
    out.width = tw;
    out.height = th;
    out.rgb.assign(m_pImage, m_pImage + static_cast<size_t>(tw) * th * 3);
    return true;
}

void DrawRegion(RgbPicture& picture, const std::string& region) {
    const int w = picture.width, h = picture.height;
    if (picture.Empty() || region.size() != static_cast<size_t>(TW_DET_REGION_CELLS)) return;
    int xs[kCols + 1], ys[kRows + 1];
    for (int c = 0; c <= kCols; ++c) xs[c] = c == kCols ? w : static_cast<int>(c * (w / static_cast<double>(kCols)));
    for (int r = 0; r <= kRows; ++r) ys[r] = r == kRows ? h : static_cast<int>(r * (h / static_cast<double>(kRows)));
    auto watched = [&](int c, int r) {
        return c >= 0 && c < kCols && r >= 0 && r < kRows && region[static_cast<size_t>(r * kCols + c)] == '1';
    };
    auto blend = [&](int x, int y, int red, int green, int blue, int alpha256) {
        if (x < 0 || y < 0 || x >= w || y >= h) return;
        unsigned char* p = &picture.rgb[(static_cast<size_t>(y) * w + x) * 3];
        p[0] = static_cast<unsigned char>((p[0] * (256 - alpha256) + red * alpha256) >> 8);
        p[1] = static_cast<unsigned char>((p[1] * (256 - alpha256) + green * alpha256) >> 8);
        p[2] = static_cast<unsigned char>((p[2] * (256 - alpha256) + blue * alpha256) >> 8);
    };
    // Watched cells tinted green, the others darkened a little: the eye finds the watched
    // area at once, and the picture under both stays readable.
    for (int r = 0; r < kRows; ++r) {
        for (int c = 0; c < kCols; ++c) {
            const bool on = watched(c, r);
            for (int y = ys[r]; y < ys[r + 1]; ++y)
                for (int x = xs[c]; x < xs[c + 1]; ++x) {
                    if (on) {
                        blend(x, y, 40, 220, 90, 70);
                    } else {
                        blend(x, y, 0, 0, 0, 50);
                    }
                }
        }
    }
    // Grid lines, thin and light.
    for (int c = 1; c < kCols; ++c)
        for (int y = 0; y < h; ++y) blend(xs[c], y, 255, 255, 255, c % 10 == 0 ? 150 : 80);
    for (int r = 1; r < kRows; ++r)
        for (int x = 0; x < w; ++x) blend(x, ys[r], 255, 255, 255, r % 10 == 0 ? 150 : 80);
    // The outline of the watched region: every cell edge between a watched cell and an
    // unwatched one (or the picture's border), two pixels wide, in solid green.
    const int thick = w >= 320 ? 2 : 1;
    for (int r = 0; r < kRows; ++r) {
        for (int c = 0; c < kCols; ++c) {
            if (!watched(c, r)) continue;
            if (!watched(c - 1, r))
                for (int y = ys[r]; y < ys[r + 1]; ++y)
                    for (int k = 0; k < thick; ++k) blend(xs[c] + k, y, 30, 255, 80, 256);
            if (!watched(c + 1, r))
                for (int y = ys[r]; y < ys[r + 1]; ++y)
                    for (int k = 0; k < thick; ++k) blend(xs[c + 1] - 1 - k, y, 30, 255, 80, 256);
            if (!watched(c, r - 1))
                for (int x = xs[c]; x < xs[c + 1]; ++x)
                    for (int k = 0; k < thick; ++k) blend(x, ys[r] + k, 30, 255, 80, 256);
            if (!watched(c, r + 1))
                for (int x = xs[c]; x < xs[c + 1]; ++x)
                    for (int k = 0; k < thick; ++k) blend(x, ys[r + 1] - 1 - k, 30, 255, 80, 256);
        }
    }
}

std::vector<unsigned char> EncodeJpeg(const RgbPicture& picture, int quality) {
    if (picture.Empty()) return {};
    return tw::host::EncodeJpeg(picture.rgb.data(), picture.width, picture.height, 3, quality);
}

std::vector<unsigned char> EncodePng(const RgbPicture& picture, std::string& error) {
    std::vector<unsigned char> out;
    if (picture.Empty()) {
        error = "no picture";
        return out;
    }
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) {
        error = "libavcodec has no PNG encoder";
        return out;
    }
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    AVFrame* frame = av_frame_alloc();
    AVPacket* packet = av_packet_alloc();
    int rc = (ctx && frame && packet) ? 0 : AVERROR(ENOMEM);
    if (rc == 0) {
        ctx->width = picture.width;
        ctx->height = picture.height;
        ctx->pix_fmt = AV_PIX_FMT_RGB24;
        ctx->time_base = AVRational{1, 25};
        rc = avcodec_open2(ctx, codec, nullptr);
    }
    if (rc == 0) {
        frame->width = picture.width;
        frame->height = picture.height;
        frame->format = AV_PIX_FMT_RGB24;
        rc = av_frame_get_buffer(frame, 0);
    }
    if (rc == 0) {
        for (int y = 0; y < picture.height; ++y) {
            std::memcpy(frame->data[0] + static_cast<size_t>(y) * frame->linesize[0],
                        &picture.rgb[static_cast<size_t>(y) * picture.width * 3], static_cast<size_t>(picture.width) * 3);
        }
        rc = avcodec_send_frame(ctx, frame);
    }
    if (rc == 0) rc = avcodec_send_frame(ctx, nullptr);
    while (rc == 0) {
        rc = avcodec_receive_packet(ctx, packet);
        if (rc == 0) {
            out.insert(out.end(), packet->data, packet->data + packet->size);
            av_packet_unref(packet);
        }
    }
    if (rc != AVERROR_EOF) {
        char text[AV_ERROR_MAX_STRING_SIZE] = {0};
        av_strerror(rc, text, sizeof(text));
        error = std::string("PNG encoding failed: ") + text;
        out.clear();
    }
    av_packet_free(&packet);
    av_frame_free(&frame);
    avcodec_free_context(&ctx);
    return out;
}

std::string Base64(const std::vector<unsigned char>& bytes) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
        const unsigned v = (bytes[i] << 16) | (bytes[i + 1] << 8) | bytes[i + 2];
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
    }
    if (i < bytes.size()) {
        const unsigned v = (bytes[i] << 16) | (i + 1 < bytes.size() ? bytes[i + 1] << 8 : 0);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += i + 1 < bytes.size() ? kAlphabet[(v >> 6) & 63] : '=';
        out += '=';
    }
    return out;
}

bool WriteFile(const std::string& path, const std::vector<unsigned char>& bytes, std::string& error) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr) {
        error = "cannot write '" + path + "': " + std::strerror(errno);
        return false;
    }
    const size_t n = bytes.empty() ? 0 : std::fwrite(bytes.data(), 1, bytes.size(), f);
    const bool ok = n == bytes.size();
    const int writeErr = errno;
    if (std::fclose(f) != 0 || !ok) {
        error = "cannot write '" + path + "': " + std::strerror(ok ? errno : writeErr);
        return false;
    }
    return true;
}

}  // namespace twpic
