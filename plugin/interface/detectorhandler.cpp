#include "interface/detectorhandler.h"

#include <cstring>

#include "camera/livecamdetector.h"
#include "camera/ssmotiondet.h"

const char* szDetectorHandler = "DetectorHandler";
const char* szLiveCamDetHandler = "LiveCamDetHandler";
const char* szImgDiffDetHandler = "ImgDiffDetHandler";

DetectorHandler::DetectorHandler() : TWHandlerBase(), m_DetType(static_cast<DetectorType>(0)) {
    memset(&m_Start, 0, sizeof(m_Start));
    memset(&m_Stop, 0, sizeof(m_Stop));
    memset(&m_IsActivated, 0, sizeof(m_IsActivated));
    memset(&m_SetDetParam, 0, sizeof(m_SetDetParam));
    memset(&m_IsShareEnabled, 0, sizeof(m_IsShareEnabled));
    memset(&m_Func5, 0, sizeof(m_Func5));
    memset(&m_Func6, 0, sizeof(m_Func6));
}

// The handler never owns its object: the host releases it with Release().
DetectorHandler::~DetectorHandler() {}

void DetectorHandler::RegisterTable() {
    // The fourth record carries ID 4 and the fifth ID 3.
    Register(m_Start, 0);
    Register(m_Stop, 1);
    Register(m_IsActivated, 2);
    Register(m_SetDetParam, 4);
    Register(m_IsShareEnabled, 3);
    Register(m_Func5, 5);
    Register(m_Func6, 6);
}

void DetectorHandler::SetDetector(DPObjectBase* obj, DetectorType type) {
    m_DetType = type;
    if (static_cast<int>(type) > 9) return;
    switch (static_cast<int>(type)) {
    case DET_TYPE_IMG_DIFF:
        SetHandlerBase(obj, GetTWMdFuncTable(), szImgDiffDetHandler);
        break;
    case DET_TYPE_LIVE_CAM:
        SetHandlerBase(obj, GetLiveCamDetectorFuncTable(), szLiveCamDetHandler);
        break;
    default:
        SetHandlerBase(obj, GetDetectorFuncTable(), szDetectorHandler);
        break;
    }
}

DetectorType DetectorHandler::GetDetType() { return m_DetType; }

void DetectorHandler::Release() {
    // The stored type decides, not the object.
    switch (static_cast<int>(m_DetType)) {
    case DET_TYPE_IMG_DIFF:
        ReleaseTWMotionDet(m_pObject);
        break;
    case DET_TYPE_LIVE_CAM:
        ReleaseLiveCamDetector(m_pObject);
        break;
    default:
        ReleaseDetDPObj(m_pObject);
        break;
    }
    m_pObject = nullptr;
}

DPObjectBase* TWMotionDetFactory(Camera* camera, EventBuf* eventBuf, StreamFifo* fifo, FetcherBase* fetcher) {
    return new TWMotionDet(camera, eventBuf, fifo, fetcher);
}

void ReleaseTWMotionDet(DPObjectBase*& obj) {
    if (obj == nullptr) return;
    delete obj;
    obj = nullptr;
}

DPObjectBase* LiveCamDetectorFactory(Camera* camera, EventBuf* eventBuf) { return new LiveCamDetector(camera, eventBuf); }

void ReleaseLiveCamDetector(DPObjectBase*& obj) {
    if (obj == nullptr) return;
    delete obj;
    obj = nullptr;
}
