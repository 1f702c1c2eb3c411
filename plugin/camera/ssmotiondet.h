// Image-difference motion detector of one camera: the newest key frame every 300 ms, a
// small grey copy of it, an adapting background on a 40 x 30 grid of watched cells, and
// the verdict written into the camera's event buffer.
#pragma once

#include <pthread.h>

#include <map>
#include <string>

#include "interface/twexport.h"
#include "tw/camera.h"
#include "tw/decode.h"
#include "tw/handler.h"
#include "tw/stream.h"

constexpr int TW_MD_EXTRA_DATA_MAX = 1024;

// Per-thread decoding record of the detection loop.
struct FRAME_DEC_ATTR {
    int camId;
    int extraDataLen;
    int decodedSize;
    int frameSize;
    int width;
    int height;
    unsigned char* pDecodedImage;
    const unsigned char* pFrame;
    unsigned char extraData[TW_MD_EXTRA_DATA_MAX];
    int codecType;
    FFmpegAttr ffmpeg;
};

class TW_EXPORT TWMotionDet : public DPObjectBase {
public:
    TWMotionDet(Camera* camera, EventBuf* eventBuf, StreamFifo* fifo, FetcherBase* fetcher);
    ~TWMotionDet() override;

    int Start();
    int Stop();
    bool IsActivated();
    bool IsShareEnabled();
    void SetDetParam(int reserved, const std::map<int, std::string>& params, int reserved2);

    static void* ThreadFunc(void* self);

    // The detection loop; returns when the activated flag is cleared or start-up fails.
    int DetMain();
    // Stores the stream's codec extra data in attr; true when it differs from what was stored.
    bool IsExtraDataChanged(ShmStreamFifo* shmFifo, StreamFifo* fifo, FRAME_DEC_ATTR& attr);
    // Decodes attr's frame to a grey image and compares it; true for motion.
    bool IsDetected(FRAME_DEC_ATTR& attr, int& result);
    int DecImageByJpeg(FRAME_DEC_ATTR& attr);
    int DecImageByFFMpeg(FRAME_DEC_ATTR& attr);
    // Packed 3-byte pixels to one grey byte each, written over the first third of image.
    static void GreyInPlace(unsigned char* image, int pixels);
    void BlurImage(unsigned char* image, int width, int height);
    int SetDetBlocks(int width, int height);
    // 1 for motion, 2 for none (also for bad arguments).
    int DetMotion(unsigned char* prev, unsigned char* cur, int& result);

private:
    friend struct TWMotionDetAccess;   // white-box checks of the detector's state

    bool m_blActivated;
    unsigned char m_Sensitivity;
    unsigned char m_Threshold;
    unsigned char m_ShortLiveSec;
    unsigned char m_MotionCnt;
    unsigned char* m_pPrevFrame;
    unsigned char* m_pBgImage;
    char m_Region[TW_DET_REGION_CELLS + 1];
    unsigned char* m_pDetMask;
    int m_DetBufSize;
    int m_DetWidth;
    int m_DetHeight;
    pthread_t m_Thread;
    pthread_mutex_t m_Mutex;
    Camera* m_pCamera;
    EventBuf* m_pEventBuf;
    StreamFifo* m_pStreamFifo;
    FetcherBase* m_pFetcher;
};

