// White-box access to a motion detector's state, for checks that its public operations
// cannot show (settings bytes, background, mask).
#pragma once

#include "camera/ssmotiondet.h"

struct TWMotionDetAccess {
    static unsigned char& Sensitivity(TWMotionDet& d) { return d.m_Sensitivity; }
    static unsigned char& Threshold(TWMotionDet& d) { return d.m_Threshold; }
    static unsigned char& ShortLiveSec(TWMotionDet& d) { return d.m_ShortLiveSec; }
    static unsigned char& MotionCnt(TWMotionDet& d) { return d.m_MotionCnt; }
    static char* Region(TWMotionDet& d) { return d.m_Region; }
    static unsigned char* Background(TWMotionDet& d) { return d.m_pBgImage; }
    static unsigned char* Mask(TWMotionDet& d) { return d.m_pDetMask; }
    static unsigned char* PrevFrame(TWMotionDet& d) { return d.m_pPrevFrame; }
    static int DetBufSize(TWMotionDet& d) { return d.m_DetBufSize; }
    static int DetWidth(TWMotionDet& d) { return d.m_DetWidth; }
    static int DetHeight(TWMotionDet& d) { return d.m_DetHeight; }
};
