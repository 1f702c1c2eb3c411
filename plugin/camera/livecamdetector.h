// Live-cam event detector: for a camera that is a mobile device behind the host's mobile
// daemon. It serves a local UNIX socket, has the daemon stream the device's own motion
// events into it, and writes them into the camera's event buffer.
#pragma once

#include <pthread.h>

#include <map>
#include <string>

#include "interface/twexport.h"
#include "tw/camera.h"
#include "tw/handler.h"

constexpr int TW_LIVECAM_RECV_BUF_SIZE = 2048;

class TW_EXPORT LiveCamDetector : public DPObjectBase {
public:
    LiveCamDetector(Camera* camera, EventBuf* events);
    ~LiveCamDetector() override;

    int Start();
    int Stop();
    bool IsActivated();
    bool IsShareEnabled();
    void SetDetParam(int reserved, const std::map<int, std::string>& params, int reserved2);

    static void* ThreadFunc(void* self);
    int DetMain();

    // One cycle: socket, stream request, accept, receive, tear-down.
    int DetEventByLocalSocketStream();
    int NotifyDaemonStartStm(const std::string& socketName);
    int NotifyDaemonStopStm();
    int BuildEventSocketServer(const std::string& path, int& listenFd);
    int AcceptSocketFromClient(int listenFd);
    int DoRecvSocketLoop(int readFd);
    bool ParseSocketStream();
    void ParseData(const std::string& type, const std::string& payload);
    void ParseMotionData(const std::string& payload);
    // How many connections to the event socket were closed unread because the peer was
    // neither root nor this process's user.
    int GetRefusedPeerCount();

private:
    friend struct LiveCamDetectorAccess;   // white-box checks of the receive buffer

    bool m_blRunning;
    pthread_t m_Thread;
    pthread_mutex_t m_Mutex;
    Camera* m_pCamera;
    EventBuf* m_pEventBuf;
    char m_RecvBuf[TW_LIVECAM_RECV_BUF_SIZE];
    int m_ParseOffset;
    int m_BufferedLen;
    int m_RefusedPeers;
};
