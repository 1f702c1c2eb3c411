#include "camera/ssmotiondet.h"

#include <stdint.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "interface/detectorhandler.h"
#include "interface/handlerutils.h"
#include "interface/twlog.h"
#include "tw/time.h"

#define TW_LOG_CATEG LOG_CATEG_MOTIONDET

namespace {

constexpr int kDetPeriodUs = 300000;
constexpr int kNoBlockId = 10001;          // outside the FIFO's id range: nothing read yet
constexpr int kGridCols = 40;
constexpr int kGridRows = 30;
constexpr int kMaxDetWidth = 120;
constexpr int kMinDecodedEdge = 16;
constexpr int kJpegScale = 16;
constexpr int kFFmpegShowAll = 0x400000;   // AV_CODEC_FLAG2_SHOW_ALL
constexpr int kLearnFrames = 2;            // learning while the counter is at most this

}  // namespace

// Shared by every detector of the process and never reset: once any camera has learnt for
// three comparisons, all cameras, also ones started later, go straight to detection.
int g_LearnFrameCnt = 0;

// ---------------------------------------------------------------------------------------
// Function table, complete once the module is loaded.

namespace {

TWFuncTable* const g_pMdFuncTable = RegisterDetectorFuncTable<TWMotionDet>();

}  // namespace

std::map<int, MemFuncBase*>* GetTWMdFuncTable() {
    return g_pMdFuncTable;
}

// ---------------------------------------------------------------------------------------
// Object and lifecycle

TWMotionDet::TWMotionDet(Camera* camera, EventBuf* eventBuf, StreamFifo* fifo, FetcherBase* fetcher)
    : m_blActivated(false),
      m_Sensitivity(0),
      m_Threshold(0),
      m_ShortLiveSec(0),
      m_MotionCnt(0),
      m_pPrevFrame(nullptr),
      m_pBgImage(nullptr),
      m_pDetMask(nullptr),
      m_DetBufSize(0),
      m_DetWidth(0),
      m_DetHeight(0),
      m_Thread(0),
      m_pCamera(camera),
      m_pEventBuf(eventBuf),
      m_pStreamFifo(fifo),
      m_pFetcher(fetcher) {
    memset(m_Region, 0, sizeof(m_Region));
    pthread_mutex_init(&m_Mutex, nullptr);

    // A detector made without a camera cannot load settings; it gets the store's defaults
    // and its thread refuses to run.
    const int camId = m_pCamera ? m_pCamera->id : -1;
    CamDetSetting setting;
    if (m_pCamera == nullptr || setting.Load(*m_pCamera) != 0) {
        TWLOG(3, "CamDet[%d]: Failed to load from id.\n", camId);
    }

    // Each value is narrowed to a byte before it is range-checked: 300 becomes 44 and is
    // taken without a message. Hosts rely on this as it stands.
    int value = 0;
    setting.GetSensitivity(1, value);
    m_Sensitivity = static_cast<unsigned char>(value);
    if (m_Sensitivity > 100) {
        TWLOG(3, "CamDet[%d]: Invalid sensitive: %d.\n", camId, m_Sensitivity);
        m_Sensitivity = 100;
    }
    value = 0;
    setting.GetThreshold(1, value);
    m_Threshold = static_cast<unsigned char>(value);
    if (m_Threshold > 100) {
        TWLOG(3, "CamDet[%d]: Invalid threshold: %d.\n", camId, m_Threshold);
        m_Threshold = 100;
    }
    value = 0;
    setting.GetShortLiveSecond(1, value);
    m_ShortLiveSec = static_cast<unsigned char>(value);
    if (m_ShortLiveSec > 10) {
        TWLOG(3, "CamDet[%d]: Invalid short live second: %d.\n", camId, m_ShortLiveSec);
        m_ShortLiveSec = 10;
    }

    memset(m_Region, 0, sizeof(m_Region));
    setting.GetRegion(1, m_Region, sizeof(m_Region));
}

TWMotionDet::~TWMotionDet() {
    Stop();
    free(m_pPrevFrame);
    m_pPrevFrame = nullptr;
    free(m_pDetMask);
    m_pDetMask = nullptr;
    free(m_pBgImage);
    m_pBgImage = nullptr;
    // Make sure nobody still holds the mutex before it goes.
    if (pthread_mutex_trylock(&m_Mutex) != 0) pthread_mutex_lock(&m_Mutex);
    pthread_mutex_unlock(&m_Mutex);
    pthread_mutex_destroy(&m_Mutex);
}

int TWMotionDet::Start() {
    if (IsActivated()) return -1;
    pthread_mutex_lock(&m_Mutex);
    m_blActivated = true;
    if (pthread_create(&m_Thread, nullptr, ThreadFunc, this) != 0) {
        // The flag stays set: a later Start answers -1 and Stop has nothing to join.
        m_Thread = 0;
        TWLOG(1, "Failed to create thread.\n");
    }
    pthread_mutex_unlock(&m_Mutex);
    return 0;
}

int TWMotionDet::Stop() {
    if (!IsActivated()) return -1;
    pthread_mutex_lock(&m_Mutex);
    m_blActivated = false;
    pthread_mutex_unlock(&m_Mutex);
    if (m_Thread != 0) {
        pthread_join(m_Thread, nullptr);
        m_Thread = 0;
    }
    return 0;
}

bool TWMotionDet::IsActivated() {
    pthread_mutex_lock(&m_Mutex);
    const bool activated = m_blActivated;
    pthread_mutex_unlock(&m_Mutex);
    return activated;
}

bool TWMotionDet::IsShareEnabled() { return false; }

void TWMotionDet::SetDetParam(int, const std::map<int, std::string>& params, int) {
    // A key that is missing counts as 0 and is applied as such.
    auto lookup = [&params](int key) -> int {
        std::map<int, std::string>::const_iterator it = params.find(key);
        if (it == params.end()) return 0;
        return static_cast<int>(strtol(it->second.c_str(), nullptr, 10));
    };
    const int sensitivity = lookup(1);
    const int threshold = lookup(3);
    const int shortLive = lookup(9);
    const int camId = m_pCamera ? m_pCamera->id : -1;

    pthread_mutex_lock(&m_Mutex);
    if (sensitivity > 100) {
        TWLOG(3, "Cam[%d]: Invalid sensitive value: %d.\n", camId, sensitivity);
    } else {
        m_Sensitivity = static_cast<unsigned char>(sensitivity);
    }
    if (threshold > 100) {
        TWLOG(3, "Cam[%d]: Invalid threshold: %d.\n", camId, threshold);
    } else {
        m_Threshold = static_cast<unsigned char>(threshold);
    }
    if (shortLive < 11) {
        m_ShortLiveSec = static_cast<unsigned char>(shortLive);
    } else {
        TWLOG(3, "Cam[%d]: Invalid short live second: %d.\n", camId, shortLive);
    }
    pthread_mutex_unlock(&m_Mutex);
}

void* TWMotionDet::ThreadFunc(void* self) {
    TWMotionDet* det = static_cast<TWMotionDet*>(self);
    if (det->m_pCamera == nullptr || det->m_pEventBuf == nullptr) {
        TWLOG(4, "Cam Wrong parameters.\n");
        return nullptr;
    }
    return reinterpret_cast<void*>(static_cast<intptr_t>(det->DetMain()));
}

// ---------------------------------------------------------------------------------------
// Detection loop

bool TWMotionDet::IsExtraDataChanged(ShmStreamFifo* shmFifo, StreamFifo* fifo, FRAME_DEC_ATTR& attr) {
    unsigned char buf[TW_MD_EXTRA_DATA_MAX];
    int len = 0;
    if (shmFifo) {
        len = TW_MD_EXTRA_DATA_MAX;
        if (shmFifo->GetVdoExtraData(buf, len) != 0) len = 0;
        if (len > TW_MD_EXTRA_DATA_MAX) len = TW_MD_EXTRA_DATA_MAX;
    } else if (fifo) {
        ES_FORMAT format = fifo->GetESFormat();
        len = format.extraDataLen;
        if (len > TW_MD_EXTRA_DATA_MAX) len = TW_MD_EXTRA_DATA_MAX;
        if (format.pExtraData == nullptr) len = 0;
        if (len > 0) memcpy(buf, format.pExtraData, len);
        free(format.pExtraData);
    } else {
        if (attr.extraDataLen == 0) return false;
        attr.extraDataLen = 0;
        return true;
    }

    if (len != attr.extraDataLen) {
        attr.extraDataLen = len;
        if (len >= 1) {
            memset(attr.extraData, 0, sizeof(attr.extraData));
            memcpy(attr.extraData, buf, len);
        }
        return true;
    }
    if (len < 1) return false;
    if (memcmp(attr.extraData, buf, len) == 0) return false;
    memset(attr.extraData, 0, sizeof(attr.extraData));
    memcpy(attr.extraData, buf, len);
    return true;
}

int TWMotionDet::DetMain() {
    const int camId = m_pCamera->id;
    FRAME_DEC_ATTR attr;
    memset(&attr, 0, sizeof(attr));
    attr.camId = camId;
    attr.codecType = m_pCamera->videoCodec;
    attr.extraDataLen = TW_MD_EXTRA_DATA_MAX;

    const int streamNo = m_pCamera->GetUiStreamNo(m_pCamera->GetLiveProfile());
    DelayTimer timer(kDetPeriodUs);
    LiveStreamUpdater updater(camId, streamNo);
    ShmStreamFifo* shmFifo = nullptr;
    jpeg_decompress_struct jpegInfo;
    jpeg_error_mgr jpegError;
    int lastBlockId = kNoBlockId;
    int value = 0;
    bool verdict = false;

    if (m_pStreamFifo == nullptr) {
        updater.StartLive();
        shmFifo = LiveStreamFifoAt(camId, streamNo);
        if (shmFifo == nullptr) {
            TWLOG(3, "Cam[%d]: Failed to get stream Fifo.\n", camId);
            return -1;
        }
    } else {
        while (IsActivated() && m_pStreamFifo->GetTotalBufSize() == 0) sleep(1);
    }

    IsExtraDataChanged(shmFifo, m_pStreamFifo, attr);

    const bool blJpeg = attr.codecType == VIDEO_CODEC_JPEG;
    if (blJpeg) {
        // Created with this build's libjpeg version and structure size, as libjpeg requires;
        // the pictures themselves are decoded by the host.
        jpegInfo.err = jpeg_std_error(&jpegError);
        jpeg_create_decompress(&jpegInfo);
    } else {
        if (DoFFMpegInitVideo(attr.ffmpeg, attr.codecType, attr.extraData, attr.extraDataLen) != 0 ||
            attr.ffmpeg.pCodecCtx == nullptr) {
            TWLOG(3, "Cam[%d]: Failed to init FFmpeg dec.\n", camId);
            DoFFMpegFree(attr.ffmpeg, attr.pDecodedImage);
            if (shmFifo) shmdt(shmFifo);
            return -1;
        }
        // Deliver pictures also before a key frame has been seen.
        attr.ffmpeg.pCodecCtx->flags2 |= kFFmpegShowAll;
    }

    timer.BeginTiming();
    while (IsActivated()) {
        unsigned char* shmFrame = nullptr;
        MediaBlock* block = nullptr;
        attr.pFrame = nullptr;
        attr.frameSize = 0;
        if (shmFifo) {
            updater.UpdateStamp();
            int id = 0;
            int size = 0;
            if (blJpeg) {
                shmFifo->ReadLatest(id, shmFrame, size, false);
            } else {
                shmFifo->ReadLatestIFrame(id, shmFrame, size, nullptr);
            }
            attr.pFrame = shmFrame;
            attr.frameSize = shmFrame ? size : 0;
        } else {
            // Only key frames are decoded for compressed video: each stands alone, so the
            // 300 ms pace never needs the frames in between.
            block = blJpeg ? m_pStreamFifo->GetLastBlock(lastBlockId)
                           : m_pStreamFifo->GetLastITypeBlock(lastBlockId);
            if (block) {
                lastBlockId = block->GetID();
                attr.frameSize = block->GetFrameSize();
                attr.pFrame = block->GetFrame();
            }
        }

        if (attr.pFrame) {
            if (IsExtraDataChanged(shmFifo, m_pStreamFifo, attr)) {
                TWLOG(3, "Detect extra data change DoFFMpegResetContext.\n");
                if (DoFFMpegResetContext(attr.ffmpeg) != 0) TWLOG(1, "Failed to reset ffmpeg context.\n");
            }
            verdict = IsDetected(attr, value);
            // A motion is reported only once it has lasted more than the short-live count.
            const int shortLiveTurns = (m_ShortLiveSec * 1000) / 300;
            if (shortLiveTurns <= m_MotionCnt) {
                m_pEventBuf->SetStatus(verdict, value);
            } else {
                m_pEventBuf->SetStatus(false, value);
            }
        }
        // A turn without a frame keeps the last verdict, and counts it.
        m_MotionCnt = verdict ? static_cast<unsigned char>(m_MotionCnt + 1) : 0;

        delete[] shmFrame;
        delete block;
        attr.pFrame = nullptr;
        attr.frameSize = 0;
        timer.Delay();
    }

    if (shmFifo) shmdt(shmFifo);
    m_pEventBuf->SetStatus(false, 0);
    if (blJpeg) {
        jpeg_destroy_decompress(&jpegInfo);
        free(attr.pDecodedImage);
        attr.pDecodedImage = nullptr;
        attr.decodedSize = 0;
    } else {
        DoFFMpegFree(attr.ffmpeg, attr.pDecodedImage);
    }
    return 0;
}

// ---------------------------------------------------------------------------------------
// Per-pixel loops of a turn
//
// Each runs over every pixel of the small picture each turn. They are written without
// branches or look-ups so that the compiler turns them into vector code (this file is built
// with -O3), and on x86-64 they are built twice, for AVX2 and for any CPU, the loader
// picking the one the CPU runs. The arithmetic is the scalar formula's, to the bit.

namespace {

// Not under ThreadSanitizer: the loader runs the clones' resolver while it relocates a
// program that links this file, before the sanitizer's runtime is up, and the resolver's
// instrumentation then crashes the program before main.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__SANITIZE_THREAD__)
#define TW_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define TW_VECTOR_CLONES
#endif

// Grey of packed RGB: (R + 2 G + B) / 4, truncated.
TW_VECTOR_CLONES void GreyOfRgb(const unsigned char* __restrict rgb, unsigned char* __restrict grey,
                                int pixels) {
    for (int i = 0; i < pixels; ++i) {
        grey[i] = static_cast<unsigned char>((rgb[3 * i] + 2 * rgb[3 * i + 1] + rgb[3 * i + 2]) >> 2);
    }
}

// The sum of the five rows from top (width bytes apart), column by column.
TW_VECTOR_CLONES void FiveRowSums(const unsigned char* __restrict top, int width, uint16_t* __restrict sums) {
    const unsigned char* r0 = top;
    const unsigned char* r1 = r0 + width;
    const unsigned char* r2 = r1 + width;
    const unsigned char* r3 = r2 + width;
    const unsigned char* r4 = r3 + width;
    for (int x = 0; x < width; ++x) {
        sums[x] = static_cast<uint16_t>(r0[x] + r1[x] + r2[x] + r3[x] + r4[x]);
    }
}

// Pixels 2 to width - 3 of a row: the sum of their five column sums over 25, truncated.
TW_VECTOR_CLONES void FiveColumnMeans(const uint16_t* __restrict sums, int width, unsigned char* __restrict row) {
    for (int x = 2; x < width - 2; ++x) {
        const unsigned sum = sums[x - 2] + sums[x - 1] + sums[x] + sums[x + 1] + sums[x + 2];
        row[x] = static_cast<unsigned char>(sum / 25);
    }
}

// The judgement of one frame against the background, for the watched pixels (mask '1'):
// counts them and those whose difference d = cur - bg is larger than diffThresh either way,
// and moves the background towards the frame by a tenth of d rounded away from zero (at
// least one level for any d other than 0; ceil(|d| / 10) is exactly that tenth, taken in
// single precision, for every d from -255 to 255).
TW_VECTOR_CLONES void CompareWithBackground(const unsigned char* __restrict mask,
                                            const unsigned char* __restrict cur,
                                            unsigned char* __restrict bg, int pixels, int diffThresh,
                                            int& checked, int& changed) {
    int watched = 0;
    int over = 0;
    for (int p = 0; p < pixels; ++p) {
        const int m = mask[p] == '1';
        const int d = cur[p] - bg[p];
        const int magnitude = d < 0 ? -d : d;
        watched += m;
        over += m & (magnitude > diffThresh);
        const int step = (magnitude + 9) / 10;
        const int moved = bg[p] + (d < 0 ? -step : step);
        bg[p] = static_cast<unsigned char>(m ? moved : bg[p]);
    }
    checked = watched;
    changed = over;
}

}  // namespace

// Pixel i's three bytes become byte i. A chunk at a time through a small buffer, so that the
// bytes of each chunk are all read before any of them is overwritten.
void TWMotionDet::GreyInPlace(unsigned char* image, int pixels) {
    constexpr int kChunk = 256;
    unsigned char grey[kChunk];
    for (int i = 0; i < pixels; i += kChunk) {
        const int n = pixels - i < kChunk ? pixels - i : kChunk;
        GreyOfRgb(image + 3 * i, grey, n);
        memcpy(image + i, grey, n);
    }
}

// ---------------------------------------------------------------------------------------
// Frame decoding

bool TWMotionDet::IsDetected(FRAME_DEC_ATTR& attr, int& result) {
    if (attr.pFrame == nullptr || attr.frameSize < 1) {
        TWLOG(4, "param error\n");
        return false;
    }
    const int decoded = attr.codecType == VIDEO_CODEC_JPEG ? DecImageByJpeg(attr) : DecImageByFFMpeg(attr);
    if (decoded != 0) {
        TWLOG(4, "DecImage failed.\n");
        return false;
    }

    result = 0;
    unsigned char* image = attr.pDecodedImage;
    const int width = attr.width;
    const int height = attr.height;
    bool motion = false;
    unsigned char* newPrev = nullptr;

    if (image == nullptr || width < 1 || height < 1) {
        TWLOG(3, "Failed to incorrect parameters.\n");
    } else if (m_DetBufSize != width * height || m_DetWidth != width || m_DetHeight != height) {
        if (m_DetBufSize != 0) {
            TWLOG(3, "Cam[%d]: Resolution changed [%d] => [%d] (%dx%d). Reset detion blocks.\n", attr.camId,
                  m_DetBufSize, width * height, width, height);
        }
        SetDetBlocks(width, height);
        // Seed the background from this frame; without a background there is nothing to seed.
        if (m_pBgImage && m_DetBufSize == width * height) memcpy(m_pBgImage, image, m_DetBufSize);
    } else {
        newPrev = static_cast<unsigned char*>(malloc(m_DetBufSize));
        if (newPrev == nullptr) {
            TWLOG(3, "Error: Out of memory.\n");
        } else {
            memcpy(newPrev, image, m_DetBufSize);
            motion = DetMotion(m_pPrevFrame, newPrev, result) == 1;
        }
    }
    free(m_pPrevFrame);
    m_pPrevFrame = newPrev;
    return motion;
}

int TWMotionDet::DecImageByJpeg(FRAME_DEC_ATTR& attr) {
    if (DecodeJpeg(attr.pFrame, attr.frameSize, &attr.pDecodedImage, attr.decodedSize, JCS_GRAYSCALE, kJpegScale,
                   attr.width, attr.height) != 0) {
        TWLOG(4, "Cam[%d]: Failed to do Jpeg decode.\n", attr.camId);
        return -1;
    }
    return 0;
}

int TWMotionDet::DecImageByFFMpeg(FRAME_DEC_ATTR& attr) {
    if (DoFFMpegDecode(attr.ffmpeg, attr.pFrame, attr.frameSize) != 0) {
        TWLOG(4, "Cam[%d]: Failed to do FFmpeg decode.\n", attr.camId);
        return -1;
    }
    int width = attr.ffmpeg.pCodecCtx ? attr.ffmpeg.pCodecCtx->width : 0;
    int height = attr.ffmpeg.pCodecCtx ? attr.ffmpeg.pCodecCtx->height : 0;
    if (width <= kMinDecodedEdge || height <= kMinDecodedEdge) {
        TWLOG(3, "Cam[%d]: Abnormal resolution, ignore.\n", attr.camId);
        return -1;
    }
    // Cap the width at 120; the truncation of both edges is kept as it is (2592 x 1944
    // gives 119 x 90).
    if (width > kMaxDetWidth) {
        const double scale = width / static_cast<double>(kMaxDetWidth);
        width = static_cast<int>(width / scale);
        height = static_cast<int>(height / scale);
    }
    // A new size only primes the record: the frame is dropped, the next one is scaled.
    if (width != attr.width || height != attr.height) {
        if (attr.width != 0 || attr.height != 0) {
            TWLOG(3, "Cam[%d]: Resolution changed: [%dx%d] => [%dx%d]\n", attr.camId, attr.width, attr.height,
                  width, height);
        }
        attr.width = width;
        attr.height = height;
        return -1;
    }
    if (DoFFMpegScale(attr.ffmpeg, attr.pDecodedImage, attr.decodedSize, attr.width, attr.height, 0) != 0) {
        TWLOG(4, "Cam[%d]: Failed to do FFmpeg scale.\n", attr.camId);
        return -1;
    }
    unsigned char* image = attr.pDecodedImage;
    GreyInPlace(image, attr.width * attr.height);
    BlurImage(image, attr.width, attr.height);
    return 0;
}

void TWMotionDet::BlurImage(unsigned char* image, int width, int height) {
    const size_t size = static_cast<size_t>(width) * height;
    // The picture as it was, and one row of column sums behind it (2-byte aligned).
    const size_t sumsAt = (size + 1) & ~size_t(1);
    unsigned char* src = static_cast<unsigned char*>(malloc(sumsAt + 2 * static_cast<size_t>(width)));
    if (src == nullptr) {
        TWLOG(3, "Error: Out of memory. Don't do blur.\n");
        return;
    }
    memcpy(src, image, size);
    // 5 x 5 box mean: the five rows around a row summed column by column, then five
    // neighbouring column sums per pixel. The two outermost rows and columns keep their values.
    uint16_t* sums = reinterpret_cast<uint16_t*>(src + sumsAt);
    for (int y = 2; y < height - 2; ++y) {
        if (width < 5) break;
        FiveRowSums(src + (y - 2) * width, width, sums);
        FiveColumnMeans(sums, width, image + y * width);
    }
    free(src);
}

// ---------------------------------------------------------------------------------------
// Block-difference judgement

int TWMotionDet::SetDetBlocks(int width, int height) {
    free(m_pDetMask);
    m_pDetMask = nullptr;
    free(m_pBgImage);
    m_pBgImage = nullptr;
    m_DetBufSize = 0;
    m_DetWidth = 0;
    m_DetHeight = 0;

    const int size = width * height;
    m_pBgImage = static_cast<unsigned char*>(malloc(size));
    if (m_pBgImage == nullptr) {
        TWLOG(3, "Error: Out of memory.\n");
        return -1;
    }
    m_pDetMask = static_cast<unsigned char*>(malloc(size));
    if (m_pDetMask == nullptr) {
        TWLOG(3, "Error: Out of memory.\n");
        return -1;
    }
    m_DetBufSize = size;
    m_DetWidth = width;
    m_DetHeight = height;
    memset(m_pDetMask, 0, size);

    // Each watched cell covers ceil(cellH) rows and ceil(cellW) columns from its truncated
    // origin; neighbouring cells may overlap by a line, which does no harm.
    const double cellW = width / static_cast<double>(kGridCols);
    const double cellH = height / static_cast<double>(kGridRows);
    for (int i = 0; i < kGridCols * kGridRows; ++i) {
        if (m_Region[i] != '1') continue;
        const int row = i / kGridCols;
        const int col = i % kGridCols;
        const int y0 = static_cast<int>(row * cellH);
        const int x0 = static_cast<int>(col * cellW);
        for (int j = 0; j < cellH; ++j) {
            for (int k = 0; k < cellW; ++k) {
                const int index = (y0 + j) * width + x0 + k;
                if (index < m_DetBufSize) m_pDetMask[index] = '1';
            }
        }
    }
    return 0;
}

int TWMotionDet::DetMotion(unsigned char* prev, unsigned char* cur, int& result) {
    // prev only has to exist: the frame is compared with the background, not with prev.
    if (prev == nullptr || cur == nullptr) return 2;
    if (m_pBgImage == nullptr || m_pDetMask == nullptr) return 2;

    unsigned char* bg = m_pBgImage;
    if (g_LearnFrameCnt <= kLearnFrames) {
        // Learning: the background moves half-way to the frame, mask ignored.
        for (int p = 0; p < m_DetBufSize; ++p) {
            bg[p] = static_cast<unsigned char>((cur[p] - bg[p]) * 0.5 + bg[p]);
        }
        ++g_LearnFrameCnt;
        return 2;
    }

    const int diffThresh = (100 - m_Sensitivity) * 2;
    int checked = 0;
    int changed = 0;
    CompareWithBackground(m_pDetMask, cur, bg, m_DetBufSize, diffThresh, checked, changed);

    // 25 % of the watched pixels changed already gives the full 100.
    const int value = checked ? (changed * 400) / checked : 0;
    result = value > 100 ? 100 : value;
    TWLOG(6, "Detection result: %d, CheckedBlockCnt: %d, m_DetBufSize: %d\n", value, checked, m_DetBufSize);
    return value >= m_Threshold ? 1 : 2;
}
