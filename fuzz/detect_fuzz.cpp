// libFuzzer target: compressed camera frames through the motion detector's turn, as its
// detection loop runs it: the host's decoder (DoFFMpegDecode, or DecodeJpeg for a JPEG
// camera), the scale to at most 120 pixels wide, grey and blur, then the block-difference
// judgement against the background. One source, built once per codec (TW_FUZZ_CODEC), so
// each codec's run has its own corpus and figures.
//
// Input layout:
//   byte 0       sensitivity (mod 101), byte 1 threshold (mod 101)
//   byte 2       bit 0: the first record is the stream's extra data, handed to
//                DoFFMpegInitVideo as the loop does (ignored for JPEG)
//                bit 1: watch only the left half of the grid
//   then records, each: 2 bytes little-endian length, 1 byte of operations, the payload
//   (a length past the end takes what is left). Operations:
//     bit 0      before the frame, re-create the decoder context (the loop does so when
//                the stream's extra data changes)
//     bits 1-3   JPEG only: also decode the frame straight through DecodeJpeg at scale
//                1, 2, 4, 8 or 16 (values 0-4; 5-7 skip), bit 4 in colour rather than grey
// Every frame goes through TWMotionDet::IsDetected with one decoding record that lives
// for the whole input, as one run of the loop keeps it.
//
// What must hold besides "no sanitizer report": a detection value lies in 0..100; the
// decoded image is as large as the size it claims and no wider than 120 pixels (FFmpeg
// path); the detector's buffers match that size once it compares; a DecodeJpeg that
// fails says why, under its own name.

#include <malloc.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "camera/ssmotiondet.h"
#include "tw/camera.h"
#include "tw/decode.h"
#include "twhost/decodeerror.h"
#include "twhost/logsink.h"
#include "twhost/stores.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

#ifndef TW_FUZZ_CODEC
#error "TW_FUZZ_CODEC must name the codec (VIDEO_CODEC_...)"
#endif

// The detector's buffers are private; the class names this struct as its friend.
struct TWMotionDetAccess {
    static unsigned char& Sensitivity(TWMotionDet& d) { return d.m_Sensitivity; }
    static unsigned char& Threshold(TWMotionDet& d) { return d.m_Threshold; }
    static char* Region(TWMotionDet& d) { return d.m_Region; }
    static unsigned char* PrevFrame(TWMotionDet& d) { return d.m_pPrevFrame; }
    static unsigned char* Background(TWMotionDet& d) { return d.m_pBgImage; }
    static unsigned char* Mask(TWMotionDet& d) { return d.m_pDetMask; }
    static int DetBufSize(TWMotionDet& d) { return d.m_DetBufSize; }
    static int DetWidth(TWMotionDet& d) { return d.m_DetWidth; }
    static int DetHeight(TWMotionDet& d) { return d.m_DetHeight; }
};

namespace {

using A = TWMotionDetAccess;

constexpr int kCodec = TW_FUZZ_CODEC;
constexpr bool kJpeg = kCodec == VIDEO_CODEC_JPEG;
constexpr int kCameraId = 4242;
constexpr int kMaxDetWidth = 120;

[[noreturn]] void Fail(const char* what, long a, long b) {
    fprintf(stderr, "detect_fuzz: %s (%ld, %ld)\n", what, a, b);
    fflush(stderr);
    abort();
}

// Drops every record: the plug-in logs every failed decode, and formatting them to stderr
// would cost more than the decoding.
class DropSink : public tw::host::LogSink {
public:
    void Write(const tw::host::LogRecord&) override {}
};

bool BufferHolds(const unsigned char* buffer, int size) {
    return buffer != nullptr && size >= 0 && malloc_usable_size(const_cast<unsigned char*>(buffer)) >= size_t(size);
}

// DecodeJpeg on its own, at another scale or in colour than the detector asks for.
void DirectJpeg(const uint8_t* data, int size, int scaleCode, bool rgb) {
    static const unsigned kScales[] = {1, 2, 4, 8, 16};
    if (scaleCode > 4) return;
    unsigned char* out = nullptr;
    int outSize = -1, width = -1, height = -1;
    const int components = rgb ? 3 : 1;
    if (DecodeJpeg(data, size, &out, outSize, rgb ? JCS_RGB : JCS_GRAYSCALE, kScales[scaleCode], width, height) == 0) {
        if (width < 1 || height < 1) Fail("DecodeJpeg succeeded with an empty picture", width, height);
        if (outSize != width * height * components) Fail("DecodeJpeg's size is not width x height x components", outSize, width);
        if (!BufferHolds(out, outSize)) Fail("DecodeJpeg's buffer is smaller than its size", outSize, 0);
    } else {
        const char* why = tw::host::LastDecodeError();
        if (strncmp(why, "DecodeJpeg: ", 12) != 0 || why[12] == '\0') Fail("DecodeJpeg failed without saying why", 0, 0);
    }
    free(out);
}

void CheckTurn(TWMotionDet& det, FRAME_DEC_ATTR& attr, bool motion, int result) {
    if (result < -1 || result > 100) Fail("detection value outside 0..100", result, motion);
    if (motion && result < 0) Fail("motion without a detection value", result, 0);
    if (result >= 0 && attr.pDecodedImage != nullptr && attr.width > 0 && attr.height > 0) {
        const int pixels = attr.width * attr.height;
        if (!BufferHolds(attr.pDecodedImage, pixels)) Fail("decoded image smaller than its size", pixels, 0);
    }
    if (!kJpeg && attr.width > kMaxDetWidth) Fail("decoded image wider than 120", attr.width, attr.height);
    // A turn whose decode failed (result untouched) leaves the detector as it was, and a
    // decode that only primed a new size has changed the record but not the detector yet.
    if (result >= 0 && A::PrevFrame(det) != nullptr) {
        const int size = A::DetBufSize(det);
        if (size != A::DetWidth(det) * A::DetHeight(det)) Fail("detection buffer size is not width x height", size, 0);
        if (A::DetWidth(det) != attr.width || A::DetHeight(det) != attr.height)
            Fail("detector compares at another size than the decoded one", A::DetWidth(det), attr.width);
        if (!BufferHolds(A::PrevFrame(det), size) || !BufferHolds(A::Background(det), size) ||
            !BufferHolds(A::Mask(det), size))
            Fail("a detection buffer is smaller than the detection size", size, 0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    av_log_set_level(AV_LOG_QUIET);
    tw::host::SetLogSink(std::make_shared<DropSink>());
    tw::host::DbgLogConfig::Uninstall();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const int sensitivity = data[0] % 101;
    const int threshold = data[1] % 101;
    const uint8_t flags = data[2];
    size_t pos = 3;

    // Reads the next record; false at the end of the input.
    auto next = [&](const uint8_t*& payload, int& length, uint8_t& ops) {
        if (pos + 3 > size) return false;
        size_t len = size_t(data[pos]) | (size_t(data[pos + 1]) << 8);
        ops = data[pos + 2];
        pos += 3;
        if (len > size - pos) len = size - pos;
        payload = data + pos;
        length = int(len);
        pos += len;
        return true;
    };

    Camera camera = tw::host::MakeCamera(kCameraId, kCodec);
    EventBuf events(kCameraId);
    TWMotionDet det(&camera, &events, nullptr, nullptr);
    A::Sensitivity(det) = static_cast<unsigned char>(sensitivity);
    A::Threshold(det) = static_cast<unsigned char>(threshold);
    for (int i = 0; i < TW_DET_REGION_CELLS; ++i) {
        A::Region(det)[i] = (flags & 2) != 0 && i % 40 >= 20 ? '0' : '1';
    }
    A::Region(det)[TW_DET_REGION_CELLS] = '\0';

    // The decoding record of one run of the loop.
    FRAME_DEC_ATTR attr;
    memset(&attr, 0, sizeof(attr));
    attr.camId = kCameraId;
    attr.codecType = kCodec;
    if (!kJpeg) {
        const uint8_t* extra = nullptr;
        int extraLen = 0;
        uint8_t ops = 0;
        if ((flags & 1) != 0 && next(extra, extraLen, ops)) {
            if (extraLen > TW_MD_EXTRA_DATA_MAX) extraLen = TW_MD_EXTRA_DATA_MAX;
            memcpy(attr.extraData, extra, size_t(extraLen));
            attr.extraDataLen = extraLen;
        }
        if (DoFFMpegInitVideo(attr.ffmpeg, kCodec, attr.extraDataLen > 0 ? attr.extraData : nullptr,
                              attr.extraDataLen) != 0 ||
            attr.ffmpeg.pCodecCtx == nullptr) {
            // Extra data the decoder refuses: the loop gives up the same way.
            DoFFMpegFree(attr.ffmpeg, attr.pDecodedImage);
            return 0;
        }
        attr.ffmpeg.pCodecCtx->flags2 |= AV_CODEC_FLAG2_SHOW_ALL;
    }

    const uint8_t* frame = nullptr;
    int frameSize = 0;
    uint8_t ops = 0;
    while (next(frame, frameSize, ops)) {
        if (!kJpeg && (ops & 1) != 0) DoFFMpegResetContext(attr.ffmpeg);
        if (kJpeg && frameSize > 0) DirectJpeg(frame, frameSize, (ops >> 1) & 7, (ops & 0x10) != 0);
        attr.pFrame = frame;
        attr.frameSize = frameSize;
        int result = -1;
        const bool motion = det.IsDetected(attr, result);
        CheckTurn(det, attr, motion, result);
        attr.pFrame = nullptr;
        attr.frameSize = 0;
    }

    if (kJpeg) {
        free(attr.pDecodedImage);
        attr.pDecodedImage = nullptr;
    } else {
        DoFFMpegFree(attr.ffmpeg, attr.pDecodedImage);
    }
    return 0;
}
