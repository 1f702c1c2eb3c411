// Picture decoding of the reference host: libjpeg-turbo for JPEG cameras, libavcodec and
// libswscale for every other codec. The motion detector hands us one compressed frame
// every 300 ms and wants a small picture back at once, so everything here is built for
// "one frame in, its picture out, now".

#include "tw/decode.h"

#include "tw/camera.h"
#include "twhost/decodeerror.h"
#include "twhost/decodegate.h"
#include "twhost/decodetuning.h"
#include "bandsums.h"
#include "boxreduce.h"

#include <csetjmp>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

#include <atomic>
#include <new>
#include <vector>

#include <jerror.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/common.h>
#include <libavutil/frame.h>
#include <libavutil/pixdesc.h>
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>
}

namespace tw::host {
namespace {

// Enough for libjpeg's longest message (JMSG_LENGTH_MAX) behind our own prefix.
constexpr size_t kErrorTextSize = 512;
thread_local char t_szLastError[kErrorTextSize];

void SetDecodeError(const char* format, ...) __attribute__((format(printf, 1, 2)));
void SetDecodeError(const char* format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(t_szLastError, sizeof(t_szLastError), format, args);
    va_end(args);
}

// A camera picture never comes near this; a corrupt header claiming 65000 x 65000 pixels
// must not make us allocate gigabytes before the data runs out.
constexpr size_t kMaxPictureBytes = size_t(1) << 28;
constexpr int kMaxScaleEdge = 16384;

// Callers hand the same buffer back on every frame and only know it came from malloc, so
// its real capacity is asked of the allocator rather than trusted from their size field.
// A buffer that is too small is replaced without copying: its old contents are dead.
bool EnsureBuffer(unsigned char*& buffer, size_t need)
{
    if (need == 0) {
        need = 1;
    }
    if (buffer != nullptr && malloc_usable_size(buffer) >= need) {
        return true;
    }
    auto* fresh = static_cast<unsigned char*>(malloc(need));
    if (fresh == nullptr) {
        return false;   // the old buffer stays valid for the caller to free
    }
    free(buffer);
    buffer = fresh;
    return true;
}

// ---------------------------------------------------------------------------------------
// JPEG

// libjpeg reports fatal errors through error_exit, whose default ends the process. We jump
// back to the decoding call instead. Warnings that mean the entropy-coded data is damaged
// or cut short are treated as errors too: libjpeg would pad the picture with grey and call
// it a success, and a half-grey picture compared with the background is a false motion.
struct JpegErrorMgr {
    jpeg_error_mgr pub;
    jmp_buf jump;
};

void JpegRecordMessage(j_common_ptr pInfo)
{
    char szMessage[JMSG_LENGTH_MAX];
    (*pInfo->err->format_message)(pInfo, szMessage);
    SetDecodeError("DecodeJpeg: %s", szMessage);
}

[[noreturn]] void JpegErrorExit(j_common_ptr pInfo)
{
    JpegRecordMessage(pInfo);
    longjmp(reinterpret_cast<JpegErrorMgr*>(pInfo->err)->jump, 1);
}

bool IsDamageWarning(int code)
{
    switch (code) {
    case JWRN_ARITH_BAD_CODE:
    case JWRN_BOGUS_PROGRESSION:
    case JWRN_EXTRANEOUS_DATA:
    case JWRN_HIT_MARKER:
    case JWRN_HUFF_BAD_CODE:
    case JWRN_JPEG_EOF:
    case JWRN_MUST_RESYNC:
    case JWRN_NOT_SEQUENTIAL:
        return true;
    default:
        return false;
    }
}

void JpegEmitMessage(j_common_ptr pInfo, int msgLevel)
{
    if (msgLevel >= 0) {
        return;   // trace messages
    }
    pInfo->err->num_warnings++;
    if (IsDamageWarning(pInfo->err->msg_code)) {
        JpegErrorExit(pInfo);
    }
}

void JpegOutputMessage(j_common_ptr) {}

struct JpegJob {
    const unsigned char* pData;
    unsigned long size;
    unsigned char** ppOut;
    J_COLOR_SPACE space;
    unsigned int scale;
    int components;
    // results
    int outSize;
    int width;
    int height;
};

// Writes the 2 x 2 means of a pair of 1/8-scaled scanlines into one output row.
void AverageRowPair(const JSAMPLE* pTop, const JSAMPLE* pBottom, unsigned char* pOut,
                    int outWidth, int components)
{
    for (int x = 0; x < outWidth; ++x) {
        const int left = 2 * x * components;
        const int right = left + components;
        for (int c = 0; c < components; ++c) {
            const unsigned sum = pTop[left + c] + pTop[right + c] + pBottom[left + c] +
                                 pBottom[right + c];
            pOut[x * components + c] = static_cast<unsigned char>((sum + 2) >> 2);
        }
    }
}

void ReadScanlinesTo(j_decompress_ptr pInfo, JSAMPROW pRow)
{
    while (jpeg_read_scanlines(pInfo, &pRow, 1) != 1) {
        // A suspending source would return 0; the memory source never suspends, but a
        // loop that could spin forever is not acceptable either.
        ERREXIT(pInfo, JERR_INPUT_EMPTY);
    }
}

// Everything that can longjmp lives here. The job is reached through a pointer, so its
// fields are in memory (not registers) whenever libjpeg jumps back.
int RunJpegDecode(JpegJob* pJob)
{
    jpeg_decompress_struct info;
    // jpeg_create_decompress checks the version before it clears the structure; a cleared
    // structure keeps jpeg_destroy_decompress safe even if that first check fails.
    memset(&info, 0, sizeof(info));
    JpegErrorMgr err;
    info.err = jpeg_std_error(&err.pub);
    err.pub.error_exit = JpegErrorExit;
    err.pub.emit_message = JpegEmitMessage;
    err.pub.output_message = JpegOutputMessage;

    if (setjmp(err.jump) != 0) {
        jpeg_destroy_decompress(&info);
        return -1;
    }

    jpeg_create_decompress(&info);
    jpeg_mem_src(&info, pJob->pData, pJob->size);
    jpeg_read_header(&info, TRUE);

    info.out_color_space = pJob->space;
    info.scale_num = 1;
    info.scale_denom = pJob->scale > 8 ? 8 : pJob->scale;
    jpeg_calc_output_dimensions(&info);

    const int components = pJob->components;
    const int decodedWidth = static_cast<int>(info.output_width);
    const int decodedHeight = static_cast<int>(info.output_height);
    const bool blHalve = pJob->scale == 16;
    const int outWidth = blHalve ? decodedWidth / 2 : decodedWidth;
    const int outHeight = blHalve ? decodedHeight / 2 : decodedHeight;
    if (outWidth < 1 || outHeight < 1) {
        SetDecodeError("DecodeJpeg: %ux%u picture is too small for scale 1/%u",
                       info.image_width, info.image_height, pJob->scale);
        jpeg_destroy_decompress(&info);
        return -1;
    }
    const size_t outBytes = size_t(outWidth) * size_t(outHeight) * size_t(components);
    if (outBytes > kMaxPictureBytes) {
        SetDecodeError("DecodeJpeg: %ux%u picture is too large", info.image_width,
                       info.image_height);
        jpeg_destroy_decompress(&info);
        return -1;
    }
    if (!EnsureBuffer(*pJob->ppOut, outBytes)) {
        SetDecodeError("DecodeJpeg: out of memory for %zu bytes", outBytes);
        jpeg_destroy_decompress(&info);
        return -1;
    }
    unsigned char* pOut = *pJob->ppOut;

    jpeg_start_decompress(&info);
    const size_t rowBytes = size_t(decodedWidth) * size_t(components);
    if (blHalve) {
        // Row pair buffer from libjpeg's image pool: a jump out of here cannot leak it.
        JSAMPARRAY pRows = (*info.mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(&info),
                                                     JPOOL_IMAGE,
                                                     static_cast<JDIMENSION>(rowBytes), 2);
        const size_t outRowBytes = size_t(outWidth) * size_t(components);
        for (int y = 0; y < outHeight; ++y) {
            ReadScanlinesTo(&info, pRows[0]);
            ReadScanlinesTo(&info, pRows[1]);
            AverageRowPair(pRows[0], pRows[1], pOut + size_t(y) * outRowBytes, outWidth,
                           components);
        }
        // An odd last row has no partner; libjpeg still wants it read before finishing.
        while (info.output_scanline < info.output_height) {
            ReadScanlinesTo(&info, pRows[0]);
        }
    } else {
        while (info.output_scanline < info.output_height) {
            JSAMPROW pRow = pOut + size_t(info.output_scanline) * rowBytes;
            ReadScanlinesTo(&info, pRow);
        }
    }
    // Finishing reads up to the end marker, which is where a cut-short picture shows.
    jpeg_finish_decompress(&info);
    jpeg_destroy_decompress(&info);

    pJob->outSize = static_cast<int>(outBytes);
    pJob->width = outWidth;
    pJob->height = outHeight;
    return 0;
}

// ---------------------------------------------------------------------------------------
// FFmpeg

AVCodecID CodecIdOf(int codec)
{
    switch (codec) {
    case VIDEO_CODEC_JPEG:
        return AV_CODEC_ID_MJPEG;
    case VIDEO_CODEC_MPEG4:
        return AV_CODEC_ID_MPEG4;
    case VIDEO_CODEC_H264:
        return AV_CODEC_ID_H264;
    case VIDEO_CODEC_HEVC:
        return AV_CODEC_ID_HEVC;
    default:
        return AV_CODEC_ID_NONE;
    }
}

const char* AvErrorText(int error, char* szBuf, size_t size)
{
    av_strerror(error, szBuf, size);
    return szBuf;
}

// Opens a decoder context. flags and flags2 are set before opening because some decoders
// read them only then.
AVCodecContext* OpenDecoder(int codec, const unsigned char* extra, int extraLen, int flags,
                            int flags2, AVDiscard skipLoopFilter)
{
    const AVCodecID id = CodecIdOf(codec);
    if (id == AV_CODEC_ID_NONE) {
        SetDecodeError("DoFFMpegInitVideo: unknown video codec type %d", codec);
        return nullptr;
    }
    const AVCodec* pCodec = avcodec_find_decoder(id);
    if (pCodec == nullptr) {
        SetDecodeError("DoFFMpegInitVideo: no %s decoder in this libavcodec",
                       avcodec_get_name(id));
        return nullptr;
    }
    AVCodecContext* pCtx = avcodec_alloc_context3(pCodec);
    if (pCtx == nullptr) {
        SetDecodeError("DoFFMpegInitVideo: out of memory for the %s decoder", pCodec->name);
        return nullptr;
    }
    if (extra != nullptr && extraLen > 0) {
        // Bitstream readers may look up to the padding size past the end.
        pCtx->extradata = static_cast<uint8_t*>(
            av_mallocz(size_t(extraLen) + AV_INPUT_BUFFER_PADDING_SIZE));
        if (pCtx->extradata == nullptr) {
            SetDecodeError("DoFFMpegInitVideo: out of memory for %d bytes of extra data",
                           extraLen);
            avcodec_free_context(&pCtx);
            return nullptr;
        }
        memcpy(pCtx->extradata, extra, size_t(extraLen));
        pCtx->extradata_size = extraLen;
    }
    pCtx->flags = flags;
    pCtx->flags2 = flags2;
    pCtx->skip_loop_filter = skipLoopFilter;
    // Frame threading delays every picture by one frame per thread, which would break
    // "a key frame gives its picture in the same call". Slices of one picture can still be
    // decoded in parallel; the thread count is left to libavcodec (one per core). Not for
    // HEVC: the slice-threaded path of this libavcodec (5.1) reads through a null pointer on
    // a damaged stream (found by detect_hevc_fuzz; the same input decodes, or fails cleanly,
    // on one thread), and a camera's bad packet must not take the recorder's daemon down.
    pCtx->thread_type = FF_THREAD_SLICE;
    pCtx->thread_count = id == AV_CODEC_ID_HEVC ? 1 : 0;
    if (!BandSums::Attach(pCtx)) {
        SetDecodeError("DoFFMpegInitVideo: out of memory for the %s decoder", pCodec->name);
        avcodec_free_context(&pCtx);
        return nullptr;
    }
    const int ret = avcodec_open2(pCtx, pCodec, nullptr);
    if (ret < 0) {
        char szErr[AV_ERROR_MAX_STRING_SIZE];
        SetDecodeError("DoFFMpegInitVideo: cannot open the %s decoder: %s", pCodec->name,
                       AvErrorText(ret, szErr, sizeof(szErr)));
        BandSums::FreeContext(pCtx);
        return nullptr;
    }
    return pCtx;
}

// Takes every picture the decoder has ready and keeps the newest in pKeep.
// Returns 1 when a picture was taken, 0 when none was ready (EAGAIN or end of the drain),
// or a negative libavcodec error.
int ReceiveNewest(AVCodecContext* pCtx, AVFrame* pScratch, AVFrame* pKeep)
{
    int got = 0;
    for (;;) {
        const int ret = avcodec_receive_frame(pCtx, pScratch);
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
            return got;
        }
        if (ret < 0) {
            return ret;
        }
        av_frame_unref(pKeep);
        av_frame_move_ref(pKeep, pScratch);
        got = 1;
    }
}

// Sends pPacket (left as it is) and takes the newest picture it gives into attr.pFrame.
// 1 when a picture came; otherwise 0 or a libavcodec error, with the error text set.
// mayRing lets the picture go into the ring (bandsums.h). szWho names the caller's entry.
int SendAndReceive(FFmpegAttr& attr, const AVPacket* pPacket, bool mayRing, const char* szWho)
{
    AVCodecContext* pCtx = attr.pCodecCtx;
    BandSums* pBands = BandSums::Of(pCtx);
    av_frame_unref(attr.pFrame);
    AVFrame* pScratch = av_frame_alloc();
    if (pScratch == nullptr) {
        SetDecodeError("%s: out of memory", szWho);
        return AVERROR(ENOMEM);
    }
    auto flush = [&] {
        avcodec_flush_buffers(pCtx);
        if (pBands != nullptr) {
            pBands->Flushed();
        }
    };
    char szErr[AV_ERROR_MAX_STRING_SIZE];
    const int size = pPacket->size;
    if (pBands != nullptr) {
        pBands->Begin(pCtx, pPacket, mayRing);
    }
    int ret = avcodec_send_packet(pCtx, pPacket);
    if (ret == AVERROR(EAGAIN)) {
        // Pictures of an earlier frame are still waiting; they are older than this one.
        ReceiveNewest(pCtx, pScratch, attr.pFrame);
        av_frame_unref(attr.pFrame);
        ret = avcodec_send_packet(pCtx, pPacket);
    }

    int got = 0;
    if (ret < 0) {
        SetDecodeError("%s: %s rejected %d bytes: %s", szWho, pCtx->codec->name, size,
                       AvErrorText(ret, szErr, sizeof(szErr)));
        flush();
        got = ret;
    } else {
        got = ReceiveNewest(pCtx, pScratch, attr.pFrame);
        if (got == 0) {
            // A decoder with reordering delay (B-frames) holds the picture back until later
            // frames arrive, and we only hand it key frames 300 ms apart. Draining makes it
            // give the picture up now; flushing then lets it take the next frame.
            if (avcodec_send_packet(pCtx, nullptr) >= 0) {
                got = ReceiveNewest(pCtx, pScratch, attr.pFrame);
            }
            flush();
            if (got == 0) {
                SetDecodeError("%s: %s gave no picture for %d bytes", szWho, pCtx->codec->name,
                               size);
            }
        }
        if (got < 0) {
            SetDecodeError("%s: %s failed on %d bytes: %s", szWho, pCtx->codec->name, size,
                           AvErrorText(got, szErr, sizeof(szErr)));
            flush();
        }
    }
    av_frame_free(&pScratch);
    if (got > 0 && (attr.pFrame->width < 1 || attr.pFrame->height < 1)) {
        SetDecodeError("%s: %s gave a picture of %dx%d pixels for %d bytes", szWho,
                       pCtx->codec->name, attr.pFrame->width, attr.pFrame->height, size);
        got = 0;
    }
    if (got <= 0) {
        av_frame_unref(attr.pFrame);
    }
    return got;
}

// Decodes the last packet again into an ordinary picture in attr.pFrame, from the state its
// first decode started from: a flushed decoder that is given the key frame before it first
// (bandsums.h). The caller holds a DecodeSlot. 1 when the picture came.
int ReplayWhole(FFmpegAttr& attr, const char* szWho)
{
    BandSums* pBands = BandSums::Of(attr.pCodecCtx);
    avcodec_flush_buffers(attr.pCodecCtx);
    pBands->Flushed();
    if (const AVPacket* pFirst = pBands->ReplayFirst()) {
        // Only its place in the decoder's state is wanted, not its picture.
        SendAndReceive(attr, pFirst, false, szWho);
    }
    const AVPacket* pSecond = pBands->ReplaySecond();
    if (pSecond == nullptr) {
        av_frame_unref(attr.pFrame);
        SetDecodeError("%s: the last packet was not kept for decoding again", szWho);
        return 0;
    }
    return SendAndReceive(attr, pSecond, false, szWho);
}

// The integer stored in an enum field that libavcodec filled from the stream. Reading the
// field as its enum type is undefined when the stream put a value there that no enumerator
// names, so the bytes are read as the int they are.
template <typename Enum>
int RawEnumValue(const Enum& field)
{
    static_assert(sizeof(Enum) == sizeof(int), "libavutil's colour enums are int-sized");
    int value = 0;
    memcpy(&value, &field, sizeof(value));
    return value;
}

// The J formats are YUV with full range; libswscale wants the plain format and the range
// given separately (and warns about the J formats).
AVPixelFormat PlainPixelFormat(AVPixelFormat format, bool& blFullRange)
{
    blFullRange = true;
    switch (format) {
    case AV_PIX_FMT_YUVJ420P:
        return AV_PIX_FMT_YUV420P;
    case AV_PIX_FMT_YUVJ422P:
        return AV_PIX_FMT_YUV422P;
    case AV_PIX_FMT_YUVJ444P:
        return AV_PIX_FMT_YUV444P;
    case AV_PIX_FMT_YUVJ440P:
        return AV_PIX_FMT_YUV440P;
    case AV_PIX_FMT_YUVJ411P:
        return AV_PIX_FMT_YUV411P;
    default:
        blFullRange = false;
        return format;
    }
}

std::atomic<bool> g_blExactDetectionDecode{false};

// Only H.264 and HEVC have an in-loop deblocking filter that libavcodec lets us skip.
bool HasLoopFilter(int codec)
{
    return codec == VIDEO_CODEC_H264 || codec == VIDEO_CODEC_HEVC;
}

AVDiscard DetectionLoopFilter(int codec)
{
    return HasLoopFilter(codec) && !g_blExactDetectionDecode.load(std::memory_order_relaxed)
               ? AVDISCARD_ALL
               : AVDISCARD_DEFAULT;
}

// ---------------------------------------------------------------------------------------
// Scaling
//
// The detector wants a picture of about 120 pixels across from one of up to 4K. Converting
// every source pixel to RGB and then averaging it away costs more than the rest of a turn.
// The planes are first summed in whole blocks, each by the same integer factors, to the
// target's size or about twice it (boxreduce.cpp); the area average of those sums at the
// target size is then converted to RGB with libswscale's coefficients. An area average of whole blocks is
// exactly what area averaging does on those blocks, so the result differs from libswscale's
// full-picture path by rounding. Pictures too small to reduce, the formats the sums do not
// cover, and callers that ask for another libswscale filter keep the full path. An H.264
// decoder takes the sums while it decodes the picture, as the rows come out of it
// (bandsums.h); the others, and every picture it cannot vouch for, are read back after.

// The layouts we reduce: 8-bit planar YUV (any subsampling) and 8-bit grey, one component
// per plane. Everything else (packed, high depth, alpha, RGB, palettes) keeps the full path.
bool ReducibleLayout(int format, PlaneLayout& layout)
{
    const AVPixFmtDescriptor* pDesc = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
    if (pDesc == nullptr) {
        return false;
    }
    const uint64_t excluded = AV_PIX_FMT_FLAG_BE | AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_HWACCEL |
                              AV_PIX_FMT_FLAG_RGB | AV_PIX_FMT_FLAG_ALPHA |
                              AV_PIX_FMT_FLAG_BITSTREAM | AV_PIX_FMT_FLAG_BAYER |
                              AV_PIX_FMT_FLAG_FLOAT;
    if ((pDesc->flags & excluded) != 0) {
        return false;
    }
    const int components = pDesc->nb_components;
    if (components != 1 && components != 3) {
        return false;
    }
    if (components == 3 && (pDesc->flags & AV_PIX_FMT_FLAG_PLANAR) == 0) {
        return false;
    }
    for (int c = 0; c < components; ++c) {
        const AVComponentDescriptor& comp = pDesc->comp[c];
        if (comp.plane != c || comp.step != 1 || comp.offset != 0 || comp.shift != 0 ||
            comp.depth != 8) {
            return false;
        }
    }
    layout.planes = components;
    layout.chromaShiftX = components == 3 ? pDesc->log2_chroma_w : 0;
    layout.chromaShiftY = components == 3 ? pDesc->log2_chroma_h : 0;
    return true;
}

// The largest factor f (2 to limit) for which the edge splits into whole f-pixel blocks on
// every plane; 1 when there is none.
int WholeBlockFactor(int edge, int limit, int chromaShift)
{
    if (limit > kMaxBoxFactor) {
        limit = kMaxBoxFactor;
    }
    for (int f = limit; f >= 2; --f) {
        if (edge % (f << chromaShift) == 0) {
            return f;
        }
    }
    return 1;
}

// The block factor of one edge. Where whole blocks make exactly the target (1920 to 120:
// blocks of 16), no target pixel cuts a block and the area step has nothing left to weigh
// on that edge. Otherwise the blocks make about twice the target, so where a target pixel's
// boundary cuts a block, the block's mean stands in for a part of at most half a target
// pixel and the error stays a fraction of one.
int EdgeFactor(int edge, int target, int chromaShift)
{
    if (edge % target == 0) {
        const int exact = edge / target;
        if (exact >= 2 && exact <= kMaxBoxFactor && edge % (exact << chromaShift) == 0) {
            return exact;
        }
    }
    return WholeBlockFactor(edge, edge / (2 * target), chromaShift);
}

void ReduceFactors(int srcWidth, int srcHeight, int format, int dstWidth, int dstHeight,
                   int& fx, int& fy, PlaneLayout& layout)
{
    fx = 1;
    fy = 1;
    if (dstWidth < 1 || dstHeight < 1 || !ReducibleLayout(format, layout)) {
        return;
    }
    fx = EdgeFactor(srcWidth, dstWidth, layout.chromaShiftX);
    fy = EdgeFactor(srcHeight, dstHeight, layout.chromaShiftY);
}

// The reduced planes of the calling thread's last picture, when they were not gathered
// during its decode. A detector's thread scales one picture at a time, so one set per
// thread is reused from turn to turn.
thread_local ReducedPicture t_Reduced;

// Fills t_Reduced from pFrame. False when out of memory.
bool ReducePicture(const AVFrame* pFrame, const PlaneLayout& layout, int fx, int fy)
{
    ReducedPicture& r = t_Reduced;
    if (!r.Size(pFrame->width, pFrame->height, layout, fx, fy)) {
        return false;
    }
    for (int p = 0; p < layout.planes; ++p) {
        const PlaneSums& plane = r.planes[p];
        if (!BoxSumPlaneOf(pFrame->data[p], pFrame->linesize[p], fx, fy, plane.width,
                           plane.height, r.Out(p), plane.stride, BoxKernel::Best)) {
            return false;
        }
    }
    return true;
}

// The stream's colour matrix (as libswscale numbers it) and range.
void ColourOf(const AVFrame* pFrame, AVPixelFormat& plainFormat, int& colorspace,
              bool& blFullRange)
{
    plainFormat = PlainPixelFormat(static_cast<AVPixelFormat>(pFrame->format), blFullRange);
    if (RawEnumValue(pFrame->color_range) == AVCOL_RANGE_JPEG) {
        blFullRange = true;
    }
    // The decoders copy the stream's 8-bit matrix code as it stands, so a damaged or
    // hostile stream can carry a value that no enumerator names (MPEG-4 with 228 was
    // seen); anything unknown gets the default matrix.
    const int matrix = RawEnumValue(pFrame->colorspace);
    colorspace =
        (matrix <= AVCOL_SPC_RGB || matrix == AVCOL_SPC_UNSPECIFIED || matrix >= AVCOL_SPC_NB)
            ? SWS_CS_DEFAULT
            : matrix;
}

// The full path: libswscale converts and scales the whole picture.
int ScaleWithSwscale(FFmpegAttr& attr, unsigned char* out, int width, int height, int flags)
{
    const AVFrame* pFrame = attr.pFrame;
    // Area averaging: the detector shrinks pictures by factors of 5 to 20, and averaging
    // every source pixel into its target pixel is what keeps sensor noise and fine texture
    // from aliasing into false differences. It is also the cheapest filter that looks at
    // every source pixel (bilinear widens to twice as many taps at these factors).
    // The packed-RGB fast path converts pixel pairs and leaves the last column of an odd
    // width unwritten; full chroma interpolation with accurate rounding takes the generic
    // path, which writes every pixel. Even widths keep the fast path.
    int swsFlags = flags != 0 ? flags : SWS_AREA;
    if (width % 2 != 0) swsFlags |= SWS_FULL_CHR_H_INT | SWS_ACCURATE_RND;

    if (attr.pSwsCtx == nullptr || attr.swsSrcWidth != pFrame->width ||
        attr.swsSrcHeight != pFrame->height || attr.swsSrcFormat != pFrame->format ||
        attr.swsDstWidth != width || attr.swsDstHeight != height || attr.swsFlags != swsFlags) {
        sws_freeContext(attr.pSwsCtx);
        attr.pSwsCtx = nullptr;
        AVPixelFormat srcFormat = AV_PIX_FMT_NONE;
        int colorspace = SWS_CS_DEFAULT;
        bool blFullRange = false;
        ColourOf(pFrame, srcFormat, colorspace, blFullRange);
        attr.pSwsCtx = sws_getContext(pFrame->width, pFrame->height, srcFormat, width, height,
                                      AV_PIX_FMT_RGB24, swsFlags, nullptr, nullptr, nullptr);
        if (attr.pSwsCtx == nullptr) {
            const char* szFormat = av_get_pix_fmt_name(srcFormat);
            SetDecodeError("DoFFMpegScale: cannot scale %dx%d %s to %dx%d (flags 0x%x)",
                           pFrame->width, pFrame->height, szFormat ? szFormat : "?", width,
                           height, swsFlags);
            return -1;
        }
        // Colour matrix and range of the stream, taken when the scaler is built: they do
        // not change within a stream without its size or format changing as well.
        sws_setColorspaceDetails(attr.pSwsCtx, sws_getCoefficients(colorspace),
                                 blFullRange ? 1 : 0, sws_getCoefficients(SWS_CS_DEFAULT), 1, 0,
                                 1 << 16, 1 << 16);
        attr.swsSrcWidth = pFrame->width;
        attr.swsSrcHeight = pFrame->height;
        attr.swsSrcFormat = pFrame->format;
        attr.swsDstWidth = width;
        attr.swsDstHeight = height;
        attr.swsFlags = swsFlags;
    }
    uint8_t* dst[4] = {out, nullptr, nullptr, nullptr};
    int dstStride[4] = {width * 3, 0, 0, 0};
    const int rows =
        sws_scale(attr.pSwsCtx, pFrame->data, pFrame->linesize, 0, pFrame->height, dst, dstStride);
    if (rows != height) {
        SetDecodeError("DoFFMpegScale: scaler wrote %d of %d rows", rows, height);
        return -1;
    }
    return 0;
}

// The reduced path: block sums, then their area average converted to RGB.
int ScaleReduced(FFmpegAttr& attr, const PlaneLayout& layout, int fx, int fy,
                 unsigned char* out, int width, int height)
{
    const AVFrame* pFrame = attr.pFrame;
    BandSums* pBands = BandSums::Of(attr.pCodecCtx);
    const ReducedPicture* pSums = pBands ? pBands->Take(pFrame, layout, fx, fy) : nullptr;
    if (pSums == nullptr) {
        if (!ReducePicture(pFrame, layout, fx, fy)) {
            SetDecodeError("DoFFMpegScale: out of memory for the reduced %dx%d picture",
                           pFrame->width / fx, pFrame->height / fy);
            return -1;
        }
        pSums = &t_Reduced;
    }
    if (pBands != nullptr) {
        pBands->Learn(attr.pCodecCtx, ScaleRequest{pFrame->width, pFrame->height,
                                                   pFrame->format, layout, fx, fy});
    }
    AVPixelFormat plainFormat = AV_PIX_FMT_NONE;
    int colorspace = SWS_CS_DEFAULT;
    bool blFullRange = false;
    ColourOf(pFrame, plainFormat, colorspace, blFullRange);
    // libswscale converts pixel pairs with one chroma value unless the width is odd or the
    // chroma planes are not subsampled at all; the same here.
    const bool fullChroma =
        width % 2 != 0 || (layout.chromaShiftX == 0 && layout.chromaShiftY == 0);
    if (!AreaToRgb(pSums->planes, layout.planes, fx * fy, fullChroma,
                   RgbMatrixOf(colorspace, blFullRange), out, width, height)) {
        SetDecodeError("DoFFMpegScale: out of memory scaling to %dx%d", width, height);
        return -1;
    }
    return 0;
}

int ScalePicture(FFmpegAttr& attr, unsigned char*& out, int& outSize, int width, int height,
                 int flags, bool blMayReduce)
{
    if (!attr.blHasPicture || attr.pFrame == nullptr || attr.pFrame->width < 1 ||
        attr.pFrame->height < 1) {
        SetDecodeError("DoFFMpegScale: no decoded picture to scale");
        return -1;
    }
    if (width < 1 || height < 1 || width > kMaxScaleEdge || height > kMaxScaleEdge) {
        SetDecodeError("DoFFMpegScale: bad target size %dx%d", width, height);
        return -1;
    }
    const AVFrame* pFrame = attr.pFrame;
    int fx = 1;
    int fy = 1;
    PlaneLayout layout;
    auto factors = [&] {
        // Another libswscale filter asked for by name gets exactly that filter.
        if (blMayReduce && flags == 0) {
            ReduceFactors(pFrame->width, pFrame->height, pFrame->format, width, height, fx,
                          fy, layout);
        }
    };
    factors();
    BandSums* pBands = BandSums::Of(attr.pCodecCtx);
    if (pBands != nullptr) {
        pBands->Scaling(layout, fx, fy);
    }
    if (pBands != nullptr && pBands->PictureInRing() &&
        (!(fx > 1 || fy > 1) || !pBands->Whole(pFrame, layout, fx, fy))) {
        // The picture's rows are gone but for its sums, and these are not what is wanted.
        const bool sameRequest = (fx > 1 || fy > 1) && pBands->GatheredFor(layout, fx, fy);
        int got = 0;
        {
            DecodeSlot slot;
            // Named so: the packet was decoded once already, and what fails here is more
            // likely the memory for a whole picture than the packet itself.
            got = ReplayWhole(attr, "DoFFMpegScale, decoding the picture again whole");
        }
        pBands->Replayed(sameRequest, got > 0 ? attr.pFrame : nullptr);
        if (got <= 0) {
            attr.blHasPicture = 0;
            return -1;
        }
        factors();   // the same packet, so the same picture; but its size is what counts
    }
    const size_t bytes = size_t(width) * size_t(height) * 3;
    // libswscale's vector code stores whole registers and may write up to 16 bytes past the
    // last row; the slack keeps that inside the buffer. outSize stays the picture's size.
    constexpr size_t kScalerSlack = 64;
    if (!EnsureBuffer(out, bytes + kScalerSlack)) {
        SetDecodeError("DoFFMpegScale: out of memory for %zu bytes", bytes);
        return -1;
    }
    const int ret = fx > 1 || fy > 1 ? ScaleReduced(attr, layout, fx, fy, out, width, height)
                                     : ScaleWithSwscale(attr, out, width, height, flags);
    if (ret != 0) {
        return ret;
    }
    outSize = static_cast<int>(bytes);
    return 0;
}

}  // namespace

void SetExactDetectionDecode(bool exact)
{
    g_blExactDetectionDecode.store(exact, std::memory_order_relaxed);
}

bool IsExactDetectionDecode()
{
    return g_blExactDetectionDecode.load(std::memory_order_relaxed);
}

int SetExactDecode(FFmpegAttr& attr, bool exact)
{
    if (attr.pCodecCtx == nullptr) {
        SetDecodeError("SetExactDecode: decoder is not initialised");
        return -1;
    }
    // libavcodec reads the setting on every slice, so an open decoder takes it at once.
    attr.pCodecCtx->skip_loop_filter =
        exact || !HasLoopFilter(attr.codec) ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    return 0;
}

void SetSumsWhileDecoding(bool on)
{
    BandSums::s_blEnabled.store(on, std::memory_order_relaxed);
}

void SetRingWhileDecoding(bool on)
{
    BandSums::s_blRingEnabled.store(on, std::memory_order_relaxed);
}

void ForgetSharedScaleRequests()
{
    BandSums::ForgetShared();
}

uint64_t PicturesInRing(const FFmpegAttr& attr)
{
    const BandSums* pBands = BandSums::Of(attr.pCodecCtx);
    return pBands != nullptr ? pBands->RingPictures() : 0;
}

uint64_t RingReplays(const FFmpegAttr& attr)
{
    const BandSums* pBands = BandSums::Of(attr.pCodecCtx);
    return pBands != nullptr ? pBands->Replays() : 0;
}

uint64_t ScalesFromDecodeSums(const FFmpegAttr& attr)
{
    const BandSums* pBands = BandSums::Of(attr.pCodecCtx);
    return pBands != nullptr ? pBands->Served() : 0;
}

int DoFFMpegScaleFull(FFmpegAttr& attr, unsigned char*& out, int& outSize, int& width,
                      int& height, int flags)
{
    return ScalePicture(attr, out, outSize, width, height, flags, false);
}

void ScaleReduceFactors(int srcWidth, int srcHeight, int pixFormat, int dstWidth,
                        int dstHeight, int& fx, int& fy)
{
    PlaneLayout layout;
    ReduceFactors(srcWidth, srcHeight, pixFormat, dstWidth, dstHeight, fx, fy, layout);
}

const char* LastDecodeError()
{
    return t_szLastError;
}

}  // namespace tw::host

using tw::host::SetDecodeError;

int DecodeJpeg(const unsigned char* data, int size, unsigned char** out, int& outSize,
               J_COLOR_SPACE space, unsigned int scale, int& width, int& height)
{
    if (out == nullptr) {
        SetDecodeError("DecodeJpeg: no output buffer pointer");
        return -1;
    }
    if (data == nullptr || size < 4) {
        SetDecodeError("DecodeJpeg: %d bytes are no JPEG picture", data == nullptr ? 0 : size);
        return -1;
    }
    int components = 0;
    if (space == JCS_GRAYSCALE) {
        components = 1;
    } else if (space == JCS_RGB) {
        components = 3;
    } else {
        SetDecodeError("DecodeJpeg: unsupported output colour space %d", int(space));
        return -1;
    }
    if (scale != 1 && scale != 2 && scale != 4 && scale != 8 && scale != 16) {
        SetDecodeError("DecodeJpeg: unsupported scale 1/%u (1, 2, 4, 8 or 16)", scale);
        return -1;
    }

    tw::host::JpegJob job{};
    job.pData = data;
    job.size = static_cast<unsigned long>(size);
    job.ppOut = out;
    job.space = space;
    job.scale = scale;
    job.components = components;
    {
        tw::host::DecodeSlot slot;
        if (tw::host::RunJpegDecode(&job) != 0) {
            return -1;
        }
    }
    outSize = job.outSize;
    width = job.width;
    height = job.height;
    return 0;
}

int DoFFMpegInitVideo(FFmpegAttr& attr, int codec, const unsigned char* extra, int extraLen)
{
    // The caller's record may hold anything; everything we own starts from nothing.
    attr = FFmpegAttr{};
    attr.codec = codec;
    if (extraLen < 0 || (extraLen > 0 && extra == nullptr)) {
        SetDecodeError("DoFFMpegInitVideo: bad extra data (%d bytes)", extraLen);
        return -1;
    }
    attr.pCodecCtx =
        tw::host::OpenDecoder(codec, extra, extraLen, 0, 0, tw::host::DetectionLoopFilter(codec));
    if (attr.pCodecCtx == nullptr) {
        return -1;
    }
    attr.pFrame = av_frame_alloc();
    attr.pPacket = av_packet_alloc();
    if (attr.pFrame == nullptr || attr.pPacket == nullptr) {
        SetDecodeError("DoFFMpegInitVideo: out of memory");
        return -1;   // DoFFMpegFree releases what was made
    }
    return 0;
}

int DoFFMpegResetContext(FFmpegAttr& attr)
{
    int flags = 0;
    int flags2 = 0;
    AVDiscard skipLoopFilter = tw::host::DetectionLoopFilter(attr.codec);
    if (attr.pCodecCtx != nullptr) {
        flags = attr.pCodecCtx->flags;
        flags2 = attr.pCodecCtx->flags2;
        skipLoopFilter = attr.pCodecCtx->skip_loop_filter;
    } else if (tw::host::CodecIdOf(attr.codec) == AV_CODEC_ID_NONE) {
        SetDecodeError("DoFFMpegResetContext: decoder was never initialised");
        return -1;
    }
    // Our streams repeat their parameter sets in every key frame, so the new context needs
    // no extra data. The old context stays in place until the new one is open, so a failed
    // reset leaves a working decoder behind.
    AVCodecContext* pFresh =
        tw::host::OpenDecoder(attr.codec, nullptr, 0, flags, flags2, skipLoopFilter);
    if (pFresh == nullptr) {
        return -1;
    }
    tw::host::BandSums::FreeContext(attr.pCodecCtx);
    attr.pCodecCtx = pFresh;
    if (attr.pFrame == nullptr) {
        attr.pFrame = av_frame_alloc();
    } else {
        av_frame_unref(attr.pFrame);
    }
    if (attr.pPacket == nullptr) {
        attr.pPacket = av_packet_alloc();
    }
    attr.blHasPicture = 0;
    if (attr.pFrame == nullptr || attr.pPacket == nullptr) {
        SetDecodeError("DoFFMpegResetContext: out of memory");
        return -1;
    }
    return 0;
}

int DoFFMpegDecode(FFmpegAttr& attr, const unsigned char* data, int size)
{
    AVCodecContext* pCtx = attr.pCodecCtx;
    if (pCtx == nullptr || attr.pFrame == nullptr || attr.pPacket == nullptr) {
        SetDecodeError("DoFFMpegDecode: decoder is not initialised");
        return -1;
    }
    if (data == nullptr || size < 1) {
        SetDecodeError("DoFFMpegDecode: empty frame (%d bytes)", data == nullptr ? 0 : size);
        return -1;
    }
    // A failed call must not leave an older picture behind for the scaler.
    attr.blHasPicture = 0;
    av_frame_unref(attr.pFrame);

    // The FIFO's frame is not padded as the bitstream readers need, so it is copied.
    AVPacket* pPacket = attr.pPacket;
    av_packet_unref(pPacket);
    if (av_new_packet(pPacket, size) < 0) {
        SetDecodeError("DoFFMpegDecode: out of memory for %d bytes", size);
        return -1;
    }
    memcpy(pPacket->data, data, size_t(size));

    // Held until the picture is out: the decode is what the cameras of a process queue for.
    tw::host::DecodeSlot slot;
    tw::host::BandSums* pBands = tw::host::BandSums::Of(pCtx);
    if (pBands != nullptr && pBands->RingInDecoder() && !pBands->WouldRing(pCtx, pPacket)) {
        // The decoder may predict from the ring's last picture, or conceal damage with it,
        // unless this packet goes into the ring too (an IDR access unit, whose damage is
        // replayed when the picture is scaled): the decoder gets that picture whole first.
        tw::host::ReplayWhole(attr, "DoFFMpegDecode");
        av_frame_unref(attr.pFrame);
        pBands->Replayed(false, nullptr);
    }
    const int got = tw::host::SendAndReceive(attr, pPacket, true, "DoFFMpegDecode");
    if (pBands != nullptr) {
        pBands->Decoded(pPacket, attr.pFrame, got > 0);
    }
    av_packet_unref(pPacket);
    if (got <= 0) {
        return -1;
    }
    attr.blHasPicture = 1;
    return 0;
}

int DoFFMpegScale(FFmpegAttr& attr, unsigned char*& out, int& outSize, int& width, int& height,
                  int flags)
{
    return tw::host::ScalePicture(attr, out, outSize, width, height, flags, true);
}

int DoFFMpegFree(FFmpegAttr& attr, unsigned char*& image)
{
    tw::host::BandSums::FreeContext(attr.pCodecCtx);
    av_frame_free(&attr.pFrame);
    av_packet_free(&attr.pPacket);
    sws_freeContext(attr.pSwsCtx);
    attr = FFmpegAttr{};
    free(image);
    image = nullptr;
    return 0;
}
