// The detector handler that binds one detector object to the function table of its kind,
// and the module's exported detector entry points.
#pragma once

#include <map>

#include "interface/handlerutils.h"
#include "interface/twexport.h"
#include "tw/handler.h"
#include "tw/workers.h"

class Camera;
class EventBuf;
class StreamFifo;
class FetcherBase;

TW_EXPORT extern const char* szDetectorHandler;
TW_EXPORT extern const char* szLiveCamDetHandler;
TW_EXPORT extern const char* szImgDiffDetHandler;

class TW_EXPORT DetectorHandler : public TWHandlerBase {
public:
    DetectorHandler();
    ~DetectorHandler() override;
    void RegisterTable() override;

    void SetDetector(DPObjectBase* obj, DetectorType type);
    DetectorType GetDetType();
    // Destroys the bound object with the release function of the stored type.
    void Release();

private:
    // Member order is the registration order; IDs 0, 1, 2, 4, 3, 5, 6.
    FunctorBase m_Start;
    FunctorBase m_Stop;
    FunctorBase m_IsActivated;
    FunctorBase m_SetDetParam;
    FunctorBase m_IsShareEnabled;
    FunctorBase m_Func5;
    FunctorBase m_Func6;
    DetectorType m_DetType;
};

TW_EXPORT DPObjectBase* TWMotionDetFactory(Camera* camera, EventBuf* eventBuf, StreamFifo* fifo,
                                           FetcherBase* fetcher);
TW_EXPORT DPObjectBase* LiveCamDetectorFactory(Camera* camera, EventBuf* eventBuf);
TW_EXPORT std::map<int, MemFuncBase*>* GetTWMdFuncTable();
TW_EXPORT std::map<int, MemFuncBase*>* GetLiveCamDetectorFuncTable();
TW_EXPORT void ReleaseTWMotionDet(DPObjectBase*& obj);
TW_EXPORT void ReleaseLiveCamDetector(DPObjectBase*& obj);
