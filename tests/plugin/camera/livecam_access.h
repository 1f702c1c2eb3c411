// White-box access to a live-cam detector's receive state, for checks that its public
// operations cannot show: what the buffer holds, where parsing resumes, how much is buffered.
#pragma once

#include <cstring>
#include <string>

#include "camera/livecamdetector.h"

struct LiveCamDetectorAccess {
    static char* RecvBuf(LiveCamDetector& d) { return d.m_RecvBuf; }
    static int& ParseOffset(LiveCamDetector& d) { return d.m_ParseOffset; }
    static int& BufferedLen(LiveCamDetector& d) { return d.m_BufferedLen; }
    static Camera* GetCamera(LiveCamDetector& d) { return d.m_pCamera; }
    static EventBuf* GetEventBuf(LiveCamDetector& d) { return d.m_pEventBuf; }

    // What the buffered bytes are, as the parser sees them (NULs included).
    static std::string Buffered(LiveCamDetector& d) {
        return d.m_BufferedLen > 0 ? std::string(d.m_RecvBuf, static_cast<size_t>(d.m_BufferedLen)) : std::string();
    }

    // Appends bytes as one read of the receive loop would: at the buffered length, and never
    // more than the loop's fill limit of 2047. Returns false (and appends nothing) when the
    // bytes would not fit, so a test cannot write past the buffer by mistake.
    static bool Append(LiveCamDetector& d, const std::string& bytes) {
        if (d.m_BufferedLen < 0 || d.m_BufferedLen + bytes.size() > TW_LIVECAM_RECV_BUF_SIZE - 1) return false;
        memcpy(d.m_RecvBuf + d.m_BufferedLen, bytes.data(), bytes.size());
        d.m_BufferedLen += static_cast<int>(bytes.size());
        return true;
    }

    // The worker reads the flag with atomic loads; a test that drives one cycle or one
    // receive loop on a thread of its own sets and clears it the same way.
    static void SetRunning(LiveCamDetector& d, bool running) {
        __atomic_store_n(&d.m_blRunning, running, __ATOMIC_RELAXED);
    }
};
