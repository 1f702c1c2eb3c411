// Synthetic clips of a known scene: the background never changes and the only thing that
// moves is one bright square, and only inside the motion intervals. Detectors can then be
// judged against a ground truth that is known to the frame.
#include "twhost/clipmaker.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>

#include <jpeglib.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
}

#include "tw/camera.h"

namespace tw::host {

namespace {

// One lap of the object's path takes this much moving time. With the default object
// (height / 4) the object travels most of its own edge in 300 ms, so a frame-difference
// detector sampling at that rate sees a large changed area.
constexpr double kLapSeconds = 5.0;
constexpr double kPi = 3.14159265358979323846;
constexpr unsigned char kObjectLuma = 235;
constexpr unsigned char kNeutralChroma = 128;
// Bounds that keep an in-memory clip within reason.
constexpr int kMaxEdge = 4096;
constexpr int kMaxFps = 120;
constexpr int kMaxFrames = 100000;
constexpr int kMaxBFrames = 16;

int ObjectEdge(const ClipSpec& clipSpec) {
    int edge = clipSpec.objectSize > 0 ? clipSpec.objectSize : clipSpec.height / 4;
    edge = std::min(edge, std::min(clipSpec.width, clipSpec.height));
    return std::max(edge, 1);
}

// Moving time accumulated up to t. Intervals are merged first, so overlapping ones do not
// count twice; the result is continuous in t, which keeps the object from jumping.
double MovingSeconds(const ClipSpec& clipSpec, double t) {
    std::vector<std::pair<double, double>> spans;
    for (const auto& span : clipSpec.motion) {
        if (span.second > span.first) spans.push_back(span);
    }
    std::sort(spans.begin(), spans.end());
    double moved = 0.0;
    double coveredTo = -std::numeric_limits<double>::infinity();
    for (const auto& span : spans) {
        double start = std::max(span.first, coveredTo);
        double end = span.second;
        if (end <= start) continue;
        coveredTo = end;
        if (t <= start) continue;
        moved += std::min(t, end) - start;
    }
    return moved;
}

// Deterministic per-pixel grain, so the background has texture down to single pixels
// without any random state.
int Grain(int x, int y) {
    uint32_t h = static_cast<uint32_t>(x) * 374761393u + static_cast<uint32_t>(y) * 668265263u;
    h = (h ^ (h >> 13)) * 1274126177u;
    h ^= h >> 16;
    return static_cast<int>(h % 13u) - 6;
}

unsigned char ClampByte(int value, int lo, int hi) {
    return static_cast<unsigned char>(std::min(std::max(value, lo), hi));
}

// Mid-grey gradients with a checkerboard, thin diagonal stripes and grain. It stays well
// below the object's luma everywhere so the object always stands out.
void RenderBackground(int width, int height, std::vector<unsigned char>& y,
                      std::vector<unsigned char>& u, std::vector<unsigned char>& v) {
    y.assign(static_cast<size_t>(width) * height, 0);
    for (int row = 0; row < height; ++row) {
        for (int col = 0; col < width; ++col) {
            int value = 60 + 70 * col / width + 30 * row / height;
            value += (((col >> 4) + (row >> 4)) & 1) ? 9 : -9;
            if ((col + 2 * row) % 29 < 3) value -= 16;
            value += Grain(col, row);
            y[static_cast<size_t>(row) * width + col] = ClampByte(value, 16, 200);
        }
    }
    int cw = (width + 1) / 2;
    int ch = (height + 1) / 2;
    u.assign(static_cast<size_t>(cw) * ch, 0);
    v.assign(static_cast<size_t>(cw) * ch, 0);
    for (int row = 0; row < ch; ++row) {
        for (int col = 0; col < cw; ++col) {
            size_t at = static_cast<size_t>(row) * cw + col;
            u[at] = ClampByte(120 + 16 * col / cw, 0, 255);
            v[at] = ClampByte(122 + 12 * row / ch, 0, 255);
        }
    }
}

void PaintObject(const ClipSpec& clipSpec, double t, std::vector<unsigned char>& y,
                 std::vector<unsigned char>& u, std::vector<unsigned char>& v) {
    SceneObject obj = SceneObjectAt(clipSpec, t);
    int width = clipSpec.width;
    for (int row = obj.y; row < obj.y + obj.size; ++row) {
        std::memset(&y[static_cast<size_t>(row) * width + obj.x], kObjectLuma, obj.size);
    }
    // A chroma sample belongs to the object when its top-left luma sample does.
    int cw = (width + 1) / 2;
    int c0 = (obj.x + 1) / 2, c1 = (obj.x + obj.size + 1) / 2;
    int r0 = (obj.y + 1) / 2, r1 = (obj.y + obj.size + 1) / 2;
    for (int row = r0; row < r1; ++row) {
        for (int col = c0; col < c1; ++col) {
            size_t at = static_cast<size_t>(row) * cw + col;
            u[at] = kNeutralChroma;
            v[at] = kNeutralChroma;
        }
    }
}

// ---- encoding ----

struct CodecContextFree {
    void operator()(AVCodecContext* ctx) const { avcodec_free_context(&ctx); }
};
struct FrameFree {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketFree {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;

// A packet as the encoder gave it; timestamps count frames (time base 1/fps).
struct RawPacket {
    std::vector<unsigned char> data;
    bool keyFrame = false;
    int64_t pts = 0;
    int64_t dts = 0;
};

struct RawStream {
    AVCodecID codecId = AV_CODEC_ID_NONE;
    AVPixelFormat pixFmt = AV_PIX_FMT_NONE;
    std::vector<unsigned char> extraData;
    std::vector<RawPacket> packets;   // decoding order
};

std::string AvError(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, text, sizeof(text));
    return text;
}

const char* CodecName(int codec) {
    switch (codec) {
    case VIDEO_CODEC_JPEG: return "mjpeg";
    case VIDEO_CODEC_MPEG4: return "mpeg4";
    case VIDEO_CODEC_H264: return "h264";
    case VIDEO_CODEC_HEVC: return "hevc";
    default: return "unknown";
    }
}

// Calls fn(nalStart, nalEnd) for each NAL unit of an Annex B buffer.
template <typename Fn>
void ForEachNal(const std::vector<unsigned char>& data, Fn fn) {
    size_t size = data.size();
    auto findStart = [&](size_t from) {
        for (size_t i = from; i + 3 <= size; ++i) {
            if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) return i;
        }
        return size;
    };
    size_t sc = findStart(0);
    while (sc < size) {
        size_t nal = sc + 3;
        size_t next = findStart(nal);
        size_t end = next;
        // A four-byte start code's leading zero belongs to the next start code.
        if (next < size && end > nal && data[end - 1] == 0) --end;
        fn(nal, end);
        sc = next;
    }
}

// The parameter sets of a key frame, each behind a four-byte start code: what a decoder
// needs before the first picture.
std::vector<unsigned char> ParameterSets(const std::vector<unsigned char>& data, int codec) {
    std::vector<unsigned char> out;
    ForEachNal(data, [&](size_t nal, size_t end) {
        if (nal >= end) return;
        bool keep = false;
        if (codec == VIDEO_CODEC_H264) {
            int type = data[nal] & 0x1F;
            keep = type == 7 || type == 8;
        } else {
            int type = (data[nal] >> 1) & 0x3F;
            keep = type == 32 || type == 33 || type == 34;
        }
        if (!keep) return;
        static const unsigned char kStartCode[4] = {0, 0, 0, 1};
        out.insert(out.end(), kStartCode, kStartCode + 4);
        out.insert(out.end(), data.data() + nal, data.data() + end);
    });
    return out;
}

// MPEG-4 part 2: the headers (visual object sequence, object, object layer) that come
// before the first picture's start code (00 00 01 B6).
std::vector<unsigned char> Mpeg4Headers(const std::vector<unsigned char>& data) {
    for (size_t i = 0; i + 4 <= data.size(); ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1 && data[i + 3] == 0xB6) {
            return std::vector<unsigned char>(data.data(), data.data() + i);
        }
    }
    return {};
}

bool SetOption(AVCodecContext* ctx, const char* name, const std::string& value,
               std::string& error) {
    int err = av_opt_set(ctx->priv_data, name, value.c_str(), 0);
    if (err < 0) {
        error = std::string("cannot set encoder option ") + name + "=" + value + ": " +
                AvError(err);
        return false;
    }
    return true;
}

// A camera's rate control: the average and the ceiling at the set rate, over a buffer of
// one second, so that key frames get what the rate leaves them.
void SetBitrate(const ClipSpec& clipSpec, AVCodecContext* ctx) {
    if (clipSpec.bitrateKbps <= 0) return;
    const int64_t bitsPerSecond = int64_t(clipSpec.bitrateKbps) * 1000;
    ctx->bit_rate = bitsPerSecond;
    ctx->rc_max_rate = bitsPerSecond;
    ctx->rc_buffer_size = static_cast<int>(bitsPerSecond);
}

bool ConfigureEncoder(const ClipSpec& clipSpec, AVCodecContext* ctx, std::string& error) {
    ctx->width = clipSpec.width;
    ctx->height = clipSpec.height;
    ctx->time_base = AVRational{1, clipSpec.fps};
    ctx->framerate = AVRational{clipSpec.fps, 1};
    ctx->gop_size = clipSpec.gop;
    ctx->keyint_min = clipSpec.gop;
    switch (clipSpec.codec) {
    case VIDEO_CODEC_JPEG:
        // Full-range 4:2:0 is what JPEG pictures carry; every picture stands alone.
        ctx->pix_fmt = AV_PIX_FMT_YUVJ420P;
        ctx->color_range = AVCOL_RANGE_JPEG;
        ctx->flags |= AV_CODEC_FLAG_QSCALE;
        ctx->global_quality = FF_QP2LAMBDA * 3;
        return true;
    case VIDEO_CODEC_MPEG4:
        ctx->pix_fmt = AV_PIX_FMT_YUV420P;
        ctx->max_b_frames = clipSpec.bFrames;
        // Constant quantiser: the default bit rate would smear the texture.
        ctx->flags |= AV_CODEC_FLAG_QSCALE;
        ctx->global_quality = FF_QP2LAMBDA * 4;
        return true;
    case VIDEO_CODEC_H264: {
        SetBitrate(clipSpec, ctx);
        ctx->pix_fmt = AV_PIX_FMT_YUV420P;
        ctx->max_b_frames = clipSpec.bFrames;
        if (!SetOption(ctx, "preset", "veryfast", error)) return false;
        if (clipSpec.bFrames == 0 && !SetOption(ctx, "tune", "zerolatency", error)) return false;
        // Key frames exactly every GOP and each one decodable on its own: a reader that
        // joins at any key frame finds the SPS/PPS in it.
        std::string params = "keyint=" + std::to_string(clipSpec.gop) +
                             ":min-keyint=" + std::to_string(clipSpec.gop) +
                             ":scenecut=0:bframes=" + std::to_string(clipSpec.bFrames) +
                             ":repeat-headers=1";
        // x264's rate control over several threads depends on how they happen to run, and a
        // sample made twice with the same arguments must be the same file: one thread.
        if (clipSpec.bitrateKbps > 0) params += ":threads=1";
        return SetOption(ctx, "x264-params", params, error);
    }
    case VIDEO_CODEC_HEVC: {
        SetBitrate(clipSpec, ctx);
        ctx->pix_fmt = AV_PIX_FMT_YUV420P;
        ctx->max_b_frames = clipSpec.bFrames;
        if (!SetOption(ctx, "preset", "ultrafast", error)) return false;
        if (clipSpec.bFrames == 0 && !SetOption(ctx, "tune", "zerolatency", error)) return false;
        // Closed GOPs give IDR key frames; VPS/SPS/PPS go in-band with each of them.
        std::string params = "keyint=" + std::to_string(clipSpec.gop) +
                             ":min-keyint=" + std::to_string(clipSpec.gop) +
                             ":scenecut=0:open-gop=0:bframes=" + std::to_string(clipSpec.bFrames) +
                             ":repeat-headers=1:annexb=1:log-level=error";
        // As for x264: a rate-controlled clip is encoded on one thread so that it comes out
        // the same every time.
        if (clipSpec.bitrateKbps > 0) params += ":frame-threads=1:pools=none";
        return SetOption(ctx, "x265-params", params, error);
    }
    default:
        error = "unknown codec " + std::to_string(clipSpec.codec);
        return false;
    }
}

const char* EncoderName(int codec) {
    switch (codec) {
    case VIDEO_CODEC_JPEG: return "mjpeg";
    case VIDEO_CODEC_MPEG4: return "mpeg4";
    case VIDEO_CODEC_H264: return "libx264";
    case VIDEO_CODEC_HEVC: return "libx265";
    default: return nullptr;
    }
}

// Moves every packet the encoder has ready into out. Returns false on an encoder error.
bool DrainPackets(AVCodecContext* ctx, AVPacket* packet, RawStream& out, std::string& error) {
    for (;;) {
        int err = avcodec_receive_packet(ctx, packet);
        if (err == AVERROR(EAGAIN) || err == AVERROR_EOF) return true;
        if (err < 0) {
            error = "encoder failed: " + AvError(err);
            return false;
        }
        RawPacket raw;
        raw.data.assign(packet->data, packet->data + packet->size);
        raw.keyFrame = (packet->flags & AV_PKT_FLAG_KEY) != 0;
        raw.pts = packet->pts;
        raw.dts = packet->dts != AV_NOPTS_VALUE ? packet->dts : packet->pts;
        out.packets.push_back(std::move(raw));
        av_packet_unref(packet);
    }
}

bool EncodeStream(const ClipSpec& clipSpec, RawStream& out, std::string& error) {
    if (!CheckClipSpec(clipSpec, error)) return false;
    const char* encoderName = EncoderName(clipSpec.codec);
    const AVCodec* encoder = avcodec_find_encoder_by_name(encoderName);
    if (encoder == nullptr) {
        error = std::string("encoder ") + encoderName + " is not available";
        return false;
    }
    CodecContextPtr ctx(avcodec_alloc_context3(encoder));
    FramePtr frame(av_frame_alloc());
    PacketPtr packet(av_packet_alloc());
    if (!ctx || !frame || !packet) {
        error = "out of memory";
        return false;
    }
    if (!ConfigureEncoder(clipSpec, ctx.get(), error)) return false;
    int err = avcodec_open2(ctx.get(), encoder, nullptr);
    if (err < 0) {
        error = std::string("cannot open encoder ") + encoderName + ": " + AvError(err);
        return false;
    }
    frame->format = ctx->pix_fmt;
    frame->width = clipSpec.width;
    frame->height = clipSpec.height;
    err = av_frame_get_buffer(frame.get(), 0);
    if (err < 0) {
        error = "cannot allocate a frame: " + AvError(err);
        return false;
    }

    out = RawStream();
    out.codecId = encoder->id;
    out.pixFmt = ctx->pix_fmt;

    // The background is the same in every frame; only the object is painted per frame.
    std::vector<unsigned char> bgY, bgU, bgV;
    RenderBackground(clipSpec.width, clipSpec.height, bgY, bgU, bgV);
    std::vector<unsigned char> y, u, v;
    int frames = ClipFrameCount(clipSpec);
    int cw = (clipSpec.width + 1) / 2;
    int ch = (clipSpec.height + 1) / 2;
    for (int i = 0; i < frames; ++i) {
        y = bgY;
        u = bgU;
        v = bgV;
        PaintObject(clipSpec, static_cast<double>(i) / clipSpec.fps, y, u, v);
        err = av_frame_make_writable(frame.get());
        if (err < 0) {
            error = "cannot write a frame: " + AvError(err);
            return false;
        }
        for (int row = 0; row < clipSpec.height; ++row) {
            std::memcpy(frame->data[0] + static_cast<size_t>(row) * frame->linesize[0],
                        &y[static_cast<size_t>(row) * clipSpec.width], clipSpec.width);
        }
        for (int row = 0; row < ch; ++row) {
            std::memcpy(frame->data[1] + static_cast<size_t>(row) * frame->linesize[1],
                        &u[static_cast<size_t>(row) * cw], cw);
            std::memcpy(frame->data[2] + static_cast<size_t>(row) * frame->linesize[2],
                        &v[static_cast<size_t>(row) * cw], cw);
        }
        frame->pts = i;
        frame->pict_type = AV_PICTURE_TYPE_NONE;
        frame->quality = ctx->global_quality;
        err = avcodec_send_frame(ctx.get(), frame.get());
        if (err < 0) {
            error = "encoder refused frame " + std::to_string(i) + ": " + AvError(err);
            return false;
        }
        if (!DrainPackets(ctx.get(), packet.get(), out, error)) return false;
    }
    err = avcodec_send_frame(ctx.get(), nullptr);
    if (err < 0) {
        error = "cannot flush the encoder: " + AvError(err);
        return false;
    }
    if (!DrainPackets(ctx.get(), packet.get(), out, error)) return false;
    if (out.packets.empty()) {
        error = std::string("encoder ") + encoderName + " produced no packets";
        return false;
    }

    if (ctx->extradata_size > 0) {
        out.extraData.assign(ctx->extradata, ctx->extradata + ctx->extradata_size);
    } else {
        const RawPacket* firstKey = nullptr;
        for (const RawPacket& raw : out.packets) {
            if (raw.keyFrame) {
                firstKey = &raw;
                break;
            }
        }
        if (firstKey != nullptr) {
            if (clipSpec.codec == VIDEO_CODEC_H264 || clipSpec.codec == VIDEO_CODEC_HEVC) {
                out.extraData = ParameterSets(firstKey->data, clipSpec.codec);
            } else if (clipSpec.codec == VIDEO_CODEC_MPEG4) {
                out.extraData = Mpeg4Headers(firstKey->data);
            }
        }
    }
    return true;
}

// ---- muxing ----

struct FormatContextFree {
    void operator()(AVFormatContext* fmt) const {
        if (fmt == nullptr) return;
        if (fmt->pb != nullptr && !(fmt->oformat->flags & AVFMT_NOFILE)) avio_closep(&fmt->pb);
        avformat_free_context(fmt);
    }
};
using FormatContextPtr = std::unique_ptr<AVFormatContext, FormatContextFree>;

std::string LowerExtension(const std::string& path) {
    size_t slash = path.find_last_of('/');
    size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
    std::string ext = path.substr(dot);
    for (char& c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}

// The container for an extension, or null when the extension or the codec in it is not
// supported (error says which).
const char* ContainerFor(const std::string& path, int codec, std::string& error) {
    std::string ext = LowerExtension(path);
    const char* format = nullptr;
    if (ext == ".mp4") format = "mp4";
    else if (ext == ".mkv") format = "matroska";
    else if (ext == ".avi") format = "avi";
    else if (ext == ".ts") format = "mpegts";
    if (format == nullptr) {
        error = "unsupported container for '" + path + "': use .mp4, .mkv, .avi or .ts";
        return nullptr;
    }
    bool fits = true;
    if (codec == VIDEO_CODEC_JPEG) fits = ext == ".avi" || ext == ".mkv";
    else if (codec == VIDEO_CODEC_HEVC) fits = ext != ".avi";
    if (!fits) {
        error = std::string("cannot write ") + CodecName(codec) + " into '" + path +
                "': use " + (codec == VIDEO_CODEC_JPEG ? ".avi or .mkv" : ".mp4, .mkv or .ts");
        return nullptr;
    }
    return format;
}

bool Mux(const ClipSpec& clipSpec, const RawStream& stream, const std::string& path,
         const char* formatName, std::string& error) {
    AVFormatContext* raw = nullptr;
    int err = avformat_alloc_output_context2(&raw, nullptr, formatName, path.c_str());
    FormatContextPtr fmt(raw);
    if (err < 0 || !fmt) {
        error = "cannot set up the " + std::string(formatName) + " muxer for '" + path +
                "': " + AvError(err);
        return false;
    }
    AVStream* st = avformat_new_stream(fmt.get(), nullptr);
    if (st == nullptr) {
        error = "cannot add a stream to '" + path + "'";
        return false;
    }
    const AVRational frameBase{1, clipSpec.fps};
    st->time_base = frameBase;
    st->avg_frame_rate = AVRational{clipSpec.fps, 1};
    st->r_frame_rate = AVRational{clipSpec.fps, 1};
    AVCodecParameters* par = st->codecpar;
    par->codec_type = AVMEDIA_TYPE_VIDEO;
    par->codec_id = stream.codecId;
    par->width = clipSpec.width;
    par->height = clipSpec.height;
    par->format = stream.pixFmt;
    par->color_range = clipSpec.codec == VIDEO_CODEC_JPEG ? AVCOL_RANGE_JPEG : AVCOL_RANGE_MPEG;
    if (!stream.extraData.empty()) {
        par->extradata = static_cast<uint8_t*>(
            av_mallocz(stream.extraData.size() + AV_INPUT_BUFFER_PADDING_SIZE));
        if (par->extradata == nullptr) {
            error = "out of memory";
            return false;
        }
        std::memcpy(par->extradata, stream.extraData.data(), stream.extraData.size());
        par->extradata_size = static_cast<int>(stream.extraData.size());
    }

    err = avio_open(&fmt->pb, path.c_str(), AVIO_FLAG_WRITE);
    if (err < 0) {
        error = "cannot create '" + path + "': " + AvError(err);
        return false;
    }
    err = avformat_write_header(fmt.get(), nullptr);
    if (err < 0) {
        error = "cannot write the header of '" + path + "': " + AvError(err);
        return false;
    }
    PacketPtr packet(av_packet_alloc());
    if (!packet) {
        error = "out of memory";
        return false;
    }
    for (const RawPacket& rp : stream.packets) {
        err = av_new_packet(packet.get(), static_cast<int>(rp.data.size()));
        if (err < 0) {
            error = "out of memory";
            return false;
        }
        std::memcpy(packet->data, rp.data.data(), rp.data.size());
        packet->pts = rp.pts;
        packet->dts = rp.dts;
        packet->duration = 1;
        packet->stream_index = st->index;
        if (rp.keyFrame) packet->flags |= AV_PKT_FLAG_KEY;
        av_packet_rescale_ts(packet.get(), frameBase, st->time_base);
        err = av_interleaved_write_frame(fmt.get(), packet.get());
        av_packet_unref(packet.get());
        if (err < 0) {
            error = "cannot write a packet to '" + path + "': " + AvError(err);
            return false;
        }
    }
    err = av_write_trailer(fmt.get());
    if (err < 0) {
        error = "cannot finish '" + path + "': " + AvError(err);
        return false;
    }
    err = avio_closep(&fmt->pb);
    if (err < 0) {
        error = "cannot close '" + path + "': " + AvError(err);
        return false;
    }
    return true;
}

// ---- JPEG pictures ----

struct JpegErrorManager {
    jpeg_error_mgr pub;
    jmp_buf jump;
};

[[noreturn]] void JpegErrorExit(j_common_ptr cinfo) {
    auto* manager = reinterpret_cast<JpegErrorManager*>(cinfo->err);
    longjmp(manager->jump, 1);
}

// libjpeg's warnings would go to stderr; a picture we make ourselves has nothing to warn of.
void JpegQuiet(j_common_ptr) {}

// Kept free of C++ objects: libjpeg reports errors by longjmp, which must not skip
// destructors. The output buffer is malloc'ed by libjpeg and freed by the caller, also
// on failure.
bool CompressJpeg(const unsigned char* pixels, int width, int height, int components,
                  int quality, unsigned char** out, unsigned long* outSize) {
    jpeg_compress_struct cinfo;
    JpegErrorManager manager;
    cinfo.err = jpeg_std_error(&manager.pub);
    manager.pub.error_exit = JpegErrorExit;
    manager.pub.output_message = JpegQuiet;
    if (setjmp(manager.jump)) {
        jpeg_destroy_compress(&cinfo);
        return false;
    }
    jpeg_create_compress(&cinfo);
    jpeg_mem_dest(&cinfo, out, outSize);
    cinfo.image_width = static_cast<JDIMENSION>(width);
    cinfo.image_height = static_cast<JDIMENSION>(height);
    cinfo.input_components = components;
    cinfo.in_color_space = components == 1 ? JCS_GRAYSCALE : JCS_RGB;
    jpeg_set_defaults(&cinfo);
    jpeg_set_quality(&cinfo, quality, TRUE);
    jpeg_start_compress(&cinfo, TRUE);
    size_t stride = static_cast<size_t>(width) * components;
    while (cinfo.next_scanline < cinfo.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pixels + cinfo.next_scanline * stride);
        jpeg_write_scanlines(&cinfo, &row, 1);
    }
    jpeg_finish_compress(&cinfo);
    jpeg_destroy_compress(&cinfo);
    return true;
}

}  // namespace

ClipSpec SampleClipSpec() {
    // 640x360 H.264 at 25 fps with a key frame every 6 frames (0.24 s), so the detector finds
    // a fresh key frame at almost every 300 ms turn. 20 s: the object stands for 4 s, moves
    // for 3 s, stands for 6 s (long enough for the background to forget where the object
    // was), moves for 2 s and stands to the end.
    ClipSpec clipSpec;
    clipSpec.gop = 6;
    clipSpec.durationSec = 20.0;
    clipSpec.motion = {{4.0, 7.0}, {13.0, 15.0}};
    return clipSpec;
}

bool CheckClipSpec(const ClipSpec& clipSpec, std::string& error) {
    if (clipSpec.width < 16 || clipSpec.height < 16 || clipSpec.width > kMaxEdge ||
        clipSpec.height > kMaxEdge) {
        error = "clip size " + std::to_string(clipSpec.width) + "x" + std::to_string(clipSpec.height) +
                " is out of range (16 to " + std::to_string(kMaxEdge) + " pixels)";
        return false;
    }
    if (clipSpec.width % 2 != 0 || clipSpec.height % 2 != 0) {
        error = "clip size " + std::to_string(clipSpec.width) + "x" + std::to_string(clipSpec.height) +
                " must be even (4:2:0 pictures)";
        return false;
    }
    if (clipSpec.fps < 1 || clipSpec.fps > kMaxFps) {
        error = "frame rate " + std::to_string(clipSpec.fps) + " is out of range (1 to " +
                std::to_string(kMaxFps) + ")";
        return false;
    }
    if (!(clipSpec.durationSec > 0.0) || !std::isfinite(clipSpec.durationSec) ||
        clipSpec.durationSec * clipSpec.fps > kMaxFrames) {
        error = "duration " + std::to_string(clipSpec.durationSec) + " s is out of range";
        return false;
    }
    if (clipSpec.codec < VIDEO_CODEC_JPEG || clipSpec.codec > VIDEO_CODEC_HEVC) {
        error = "unknown codec " + std::to_string(clipSpec.codec);
        return false;
    }
    if (clipSpec.gop < 1 || clipSpec.gop > 1000) {
        error = "key-frame interval " + std::to_string(clipSpec.gop) + " is out of range (1 to 1000)";
        return false;
    }
    if (clipSpec.bitrateKbps < 0 || clipSpec.bitrateKbps > 1000000) {
        error = "bit rate " + std::to_string(clipSpec.bitrateKbps) + " kbit/s is out of range (1 to 1000000)";
        return false;
    }
    if (clipSpec.bitrateKbps > 0 && clipSpec.codec != VIDEO_CODEC_H264 && clipSpec.codec != VIDEO_CODEC_HEVC) {
        error = "a bit rate applies to H.264 and HEVC clips only; MJPEG and MPEG-4 clips have a fixed quantiser";
        return false;
    }
    if (clipSpec.bFrames < 0 || clipSpec.bFrames > kMaxBFrames) {
        error = "B-frame count " + std::to_string(clipSpec.bFrames) + " is out of range (0 to " +
                std::to_string(kMaxBFrames) + ")";
        return false;
    }
    for (const auto& span : clipSpec.motion) {
        if (!std::isfinite(span.first) || !std::isfinite(span.second) ||
            !(span.second > span.first)) {
            error = "motion interval " + std::to_string(span.first) + "-" +
                    std::to_string(span.second) + " s is empty";
            return false;
        }
    }
    if (clipSpec.objectSize < 0 || clipSpec.objectSize > std::min(clipSpec.width, clipSpec.height)) {
        error = "object size " + std::to_string(clipSpec.objectSize) + " does not fit the picture";
        return false;
    }
    return true;
}

int ClipFrameCount(const ClipSpec& clipSpec) {
    if (clipSpec.fps <= 0 || !(clipSpec.durationSec > 0.0) || !std::isfinite(clipSpec.durationSec)) return 1;
    double frames = std::round(clipSpec.durationSec * clipSpec.fps);
    if (frames > kMaxFrames) return kMaxFrames;
    return std::max(1, static_cast<int>(frames));
}

SceneObject SceneObjectAt(const ClipSpec& clipSpec, double t) {
    SceneObject obj;
    if (clipSpec.width <= 0 || clipSpec.height <= 0) return obj;
    obj.size = ObjectEdge(clipSpec);
    // An ellipse around the picture's centre, kept a little inside the border. It starts
    // on the left, so the object begins over the darker side of the gradient.
    double margin = obj.size / 8.0;
    double rx = std::max(0.0, (clipSpec.width - obj.size) / 2.0 - margin);
    double ry = std::max(0.0, (clipSpec.height - obj.size) / 2.0 - margin);
    double angle = kPi + 2.0 * kPi * MovingSeconds(clipSpec, t) / kLapSeconds;
    double cx = clipSpec.width / 2.0 + rx * std::cos(angle);
    double cy = clipSpec.height / 2.0 + ry * std::sin(angle);
    obj.x = static_cast<int>(std::lround(cx - obj.size / 2.0));
    obj.y = static_cast<int>(std::lround(cy - obj.size / 2.0));
    obj.x = std::min(std::max(obj.x, 0), clipSpec.width - obj.size);
    obj.y = std::min(std::max(obj.y, 0), clipSpec.height - obj.size);
    return obj;
}

bool IsObjectMovingAt(const ClipSpec& clipSpec, double t) {
    for (const auto& span : clipSpec.motion) {
        if (t >= span.first && t < span.second) return true;
    }
    return false;
}

void RenderSceneYuv420(const ClipSpec& clipSpec, double t, std::vector<unsigned char>& y,
                       std::vector<unsigned char>& u, std::vector<unsigned char>& v) {
    if (clipSpec.width <= 0 || clipSpec.height <= 0) {
        y.clear();
        u.clear();
        v.clear();
        return;
    }
    RenderBackground(clipSpec.width, clipSpec.height, y, u, v);
    PaintObject(clipSpec, t, y, u, v);
}

std::vector<unsigned char> RenderSceneGrey(const ClipSpec& clipSpec, double t) {
    std::vector<unsigned char> y, u, v;
    RenderSceneYuv420(clipSpec, t, y, u, v);
    return y;
}

bool EncodeClip(const ClipSpec& clipSpec, EncodedClip& clip, std::string& error) {
    RawStream stream;
    if (!EncodeStream(clipSpec, stream, error)) return false;
    clip = EncodedClip();
    clip.codec = clipSpec.codec;
    clip.width = clipSpec.width;
    clip.height = clipSpec.height;
    clip.extraData = std::move(stream.extraData);
    clip.frames.reserve(stream.packets.size());
    for (RawPacket& raw : stream.packets) {
        EncodedFrame frame;
        frame.data = std::move(raw.data);
        frame.keyFrame = raw.keyFrame;
        frame.ptsUs = av_rescale(raw.pts, 1000000, clipSpec.fps);
        clip.frames.push_back(std::move(frame));
    }
    return true;
}

bool WriteClip(const ClipSpec& clipSpec, const std::string& path, std::string& error) {
    if (path.empty()) {
        error = "no output path given";
        return false;
    }
    std::string why;
    if (!CheckClipSpec(clipSpec, why)) {
        error = "cannot write '" + path + "': " + why;
        return false;
    }
    const char* format = ContainerFor(path, clipSpec.codec, error);
    if (format == nullptr) return false;
    RawStream stream;
    if (!EncodeStream(clipSpec, stream, why)) {
        error = "cannot write '" + path + "': " + why;
        return false;
    }
    if (!Mux(clipSpec, stream, path, format, error)) {
        // A half-written file would only mislead whoever opens it next.
        std::remove(path.c_str());
        return false;
    }
    return true;
}

std::vector<unsigned char> EncodeJpeg(const unsigned char* pixels, int width, int height,
                                      int components, int quality) {
    if (pixels == nullptr || width <= 0 || height <= 0 || width > 65500 || height > 65500 ||
        (components != 1 && components != 3)) {
        return {};
    }
    quality = std::min(std::max(quality, 1), 100);
    unsigned char* buffer = nullptr;
    unsigned long size = 0;
    bool ok = CompressJpeg(pixels, width, height, components, quality, &buffer, &size);
    std::vector<unsigned char> out;
    if (ok && buffer != nullptr) out.assign(buffer, buffer + size);
    std::free(buffer);
    return out;
}

}  // namespace tw::host
