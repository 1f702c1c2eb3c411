#include "camera/livecamdetector.h"

#include <errno.h>
#include <poll.h>
#include <stdint.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <list>

#include <json/json.h>

#include "interface/detectorhandler.h"
#include "interface/handlerutils.h"
#include "interface/jsonanswer.h"
#include "interface/twlog.h"
#include "tw/mobiled.h"
#include "tw/util.h"

#define TW_LOG_CATEG LOG_CATEG_LIVECAM

namespace {

constexpr int kPollMs = 1000;
constexpr double kTimeoutSec = 10.0;
constexpr int kBacklog = 5;
constexpr int kCyclePauseSec = 3;
constexpr int kRecvFillLimit = TW_LIVECAM_RECV_BUF_SIZE - 1;   // one byte stays for the NUL
constexpr int kOverflowLimit = TW_LIVECAM_RECV_BUF_SIZE - 2;
constexpr unsigned long kSunPathSize = 108;
const char kStreamKind[] = "event";
const char kSocketPrefix[] = "tw_livecam_detector_";

// Complete once the module is loaded.
TWFuncTable* const g_pLiveCamFuncTable = RegisterDetectorFuncTable<LiveCamDetector>();

}  // namespace

std::map<int, MemFuncBase*>* GetLiveCamDetectorFuncTable() {
    return g_pLiveCamFuncTable;
}

// ---------------------------------------------------------------------------------------
// Object and lifecycle

LiveCamDetector::LiveCamDetector(Camera* camera, EventBuf* events)
    : m_blRunning(false), m_Thread(0), m_pCamera(camera), m_pEventBuf(events), m_ParseOffset(0), m_BufferedLen(0),
      m_RefusedPeers(0) {
    pthread_mutex_init(&m_Mutex, nullptr);
}

LiveCamDetector::~LiveCamDetector() {
    Stop();
    if (pthread_mutex_trylock(&m_Mutex) != 0) pthread_mutex_lock(&m_Mutex);
    pthread_mutex_unlock(&m_Mutex);
    pthread_mutex_destroy(&m_Mutex);
}

int LiveCamDetector::Start() {
    if (IsActivated()) return -1;
    pthread_mutex_lock(&m_Mutex);
    __atomic_store_n(&m_blRunning, true, __ATOMIC_RELAXED);
    if (pthread_create(&m_Thread, nullptr, ThreadFunc, this) != 0) {
        // The flag stays set: a later Start answers -1 and Stop has nothing to join.
        m_Thread = 0;
        TWLOG(1, "Failed to create thread.\n");
    }
    pthread_mutex_unlock(&m_Mutex);
    return 0;
}

int LiveCamDetector::Stop() {
    if (!IsActivated()) return -1;
    pthread_mutex_lock(&m_Mutex);
    __atomic_store_n(&m_blRunning, false, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&m_Mutex);
    if (m_Thread != 0) {
        pthread_join(m_Thread, nullptr);
        m_Thread = 0;
    }
    return 0;
}

bool LiveCamDetector::IsActivated() {
    pthread_mutex_lock(&m_Mutex);
    const bool running = __atomic_load_n(&m_blRunning, __ATOMIC_RELAXED);
    pthread_mutex_unlock(&m_Mutex);
    return running;
}

bool LiveCamDetector::IsShareEnabled() { return false; }

void LiveCamDetector::SetDetParam(int, const std::map<int, std::string>&, int) {
    TWLOG(3, "Live Cam has no parameter to set.\n");
}

void* LiveCamDetector::ThreadFunc(void* self) {
    LiveCamDetector* det = static_cast<LiveCamDetector*>(self);
    if (det->m_pCamera == nullptr || det->m_pEventBuf == nullptr) {
        TWLOG(4, "Cam Wrong parameters.\n");
        return nullptr;
    }
    return reinterpret_cast<void*>(static_cast<intptr_t>(det->DetMain()));
}

// The worker reads the flag without the lock: the lock only orders the host's calls.
#define TW_LIVECAM_RUNNING() __atomic_load_n(&m_blRunning, __ATOMIC_RELAXED)

int LiveCamDetector::DetMain() {
    if (!TW_LIVECAM_RUNNING()) return 0;
    do {
        DetEventByLocalSocketStream();
        sleep(kCyclePauseSec);
    } while (TW_LIVECAM_RUNNING());
    return 0;
}

// ---------------------------------------------------------------------------------------
// Daemon control

int LiveCamDetector::NotifyDaemonStartStm(const std::string& socketName) {
    Json::Value answer;
    if (MobiledApi::StartStream(m_pCamera->id, kStreamKind, socketName, &answer) != 0) {
        TWLOG(3, "Failed to send commad to mobiled.\n");
        return -1;
    }
    if (AnswerSucceeded(answer)) return 0;
    // A refused start is routine for a phone that is away; only tracing shows it.
    TWLOG(6, "Mobile start event stream failed: %s\n", AnswerString(answer, "errorMsg").c_str());
    return -1;
}

int LiveCamDetector::NotifyDaemonStopStm() {
    Json::Value answer;
    if (MobiledApi::StopStream(m_pCamera->id, kStreamKind, &answer) != 0) {
        TWLOG(3, "Failed to send commad to mobiled.\n");
        return -1;
    }
    if (AnswerSucceeded(answer)) return 0;
    TWLOG(3, "Mobile stop event stream failed: %s\n", AnswerString(answer, "errorMsg").c_str());
    return -1;
}

// ---------------------------------------------------------------------------------------
// Local socket server

int LiveCamDetector::BuildEventSocketServer(const std::string& path, int& listenFd) {
    unlink(path.c_str());
    listenFd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (listenFd < 0) {
        TWLOG(3, "Failed to create a unix socket.\n");
        return -1;
    }
    // The value 1 goes where FIONBIO expects a pointer, so the request fails and the socket
    // stays blocking. That is harmless: accept only ever follows a readable poll.
    ioctl(listenFd, FIONBIO, 1);

    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    Strncpy(addr.sun_path, path.c_str(), kSunPathSize);
    if (bind(listenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) < 0) {
        TWLOG(3, "Failed to bind ListenFd[%d] to SocketPath[%s]\n", listenFd, path.c_str());
        return -1;
    }
    // The file is made with the host process's umask in a directory every user can reach:
    // only its owner may connect, so that no other user of the machine can feed events.
    if (chmod(path.c_str(), S_IRUSR | S_IWUSR) < 0) {
        TWLOG(3, "Failed to restrict SocketPath[%s] to its owner: %s\n", path.c_str(), strerror(errno));
        return -1;
    }
    if (listen(listenFd, kBacklog) < 0) {
        TWLOG(3, "Failed to listen socket[%d].\n", listenFd);
        return -1;
    }
    return 0;
}

int LiveCamDetector::AcceptSocketFromClient(int listenFd) {
    const time_t start = time(nullptr);
    for (;;) {
        for (;;) {
            if (!TW_LIVECAM_RUNNING()) return -1;
            if (GetAbsTimeDiffBySec(time(nullptr), start) > kTimeoutSec) return -1;
            pollfd pfd;
            pfd.fd = listenFd;
            pfd.events = POLLIN;
            pfd.revents = 0;
            const int ready = poll(&pfd, 1, kPollMs);
            if (ready < 0) {
                TWLOG(3, "Failed to poll ListenFd[%d] for accepting ReadFd.\n", listenFd);
                return -1;
            }
            if (ready > 0 && (pfd.revents & POLLIN)) break;
        }
        const int readFd = accept(listenFd, nullptr, nullptr);
        if (readFd < 0) {
            TWLOG(3, "Failed to accept ReadFd from ListenFd[%d].\n", listenFd);
            return -1;
        }
        // The daemon runs as root or as the same user as the host process.
        const int camId = m_pCamera != nullptr ? m_pCamera->id : -1;
        ucred cred;
        memset(&cred, 0, sizeof(cred));
        socklen_t credLen = sizeof(cred);
        if (getsockopt(readFd, SOL_SOCKET, SO_PEERCRED, &cred, &credLen) < 0) {
            TWLOG(3, "CamDet[%d]: Failed to get the credentials of ReadFd[%d]: %s\n", camId, readFd,
                  strerror(errno));
        } else if (cred.uid == 0 || cred.uid == geteuid()) {
            return readFd;
        } else {
            __atomic_add_fetch(&m_RefusedPeers, 1, __ATOMIC_RELAXED);
            TWLOG(4, "CamDet[%d]: Refused a connection from uid[%u].\n", camId,
                  static_cast<unsigned>(cred.uid));
        }
        // Not a byte of a stranger's is read; the daemon may still connect in this window.
        close(readFd);
    }
}

int LiveCamDetector::GetRefusedPeerCount() {
    return __atomic_load_n(&m_RefusedPeers, __ATOMIC_RELAXED);
}

int LiveCamDetector::DoRecvSocketLoop(int readFd) {
    time_t lastData = time(nullptr);
    m_BufferedLen = 0;
    for (;;) {
        if (!TW_LIVECAM_RUNNING() || GetAbsTimeDiffBySec(time(nullptr), lastData) > kTimeoutSec) break;
        pollfd pfd;
        pfd.fd = readFd;
        pfd.events = POLLIN;
        pfd.revents = 0;
        const int ready = poll(&pfd, 1, kPollMs);
        if (ready < 0) {
            TWLOG(3, "Failed to poll ReadFd[%d] for writing data to unix socket.\n", readFd);
            close(readFd);
            return -1;
        }
        // A hang-up or error makes the read return at once, so it counts as readable.
        if (ready == 0 || (pfd.revents & (POLLIN | POLLHUP | POLLERR)) == 0) continue;

        lastData = time(nullptr);
        const ssize_t count = read(readFd, m_RecvBuf + m_BufferedLen, kRecvFillLimit - m_BufferedLen);
        if (count < 0) {
            TWLOG(3, "ReadFd[%d] read data failed: %s\n", readFd, strerror(errno));
            close(readFd);
            return -1;
        }
        if (count == 0) {
            TWLOG(5, "ReadFd[%d] read end of data.\n", readFd);
            close(readFd);
            return -1;
        }
        TWLOG(6, "ReadFd[%d] read data len[%d].\n", readFd, static_cast<int>(count));
        m_BufferedLen += static_cast<int>(count);
        ParseSocketStream();
        if (m_BufferedLen > kOverflowLimit) {
            TWLOG(3, "ReadBuf[%d] is not enough for recving a frame.\n", kRecvFillLimit);
            close(readFd);
            return -1;
        }
    }
    if (GetAbsTimeDiffBySec(time(nullptr), lastData) > kTimeoutSec) {
        TWLOG(3, "Recv data timeout[10]: ReadFd[%d]\n", readFd);
    }
    if (readFd != -1) close(readFd);
    return 0;
}

// ---------------------------------------------------------------------------------------
// Stream parsing

bool LiveCamDetector::ParseSocketStream() {
    // The offset is not reset between connections, so one left behind by a bad header of an
    // earlier connection can lie beyond what this connection has sent so far. Parsing then
    // starts at the front: nothing outside the bytes the buffer holds is ever addressed.
    if (m_ParseOffset < 0 || m_ParseOffset > m_BufferedLen) m_ParseOffset = 0;
    m_RecvBuf[m_BufferedLen] = '\0';
    int start = m_ParseOffset;
    for (;;) {
        // The search stops at the first NUL: a header that failed before leaves one behind,
        // and the stream then only recovers with a new connection or an overflow.
        char* headerEnd = strstr(m_RecvBuf + m_ParseOffset, "\r\n\r\n");
        if (headerEnd == nullptr) {
            start = m_ParseOffset;
            break;
        }
        *headerEnd = '\0';
        std::string type;
        int length = 0;
        const std::list<std::string> lines = String2StrList(m_RecvBuf + m_ParseOffset, "\r\n");
        for (const std::string& line : lines) {
            const std::list<std::string> fields = String2StrList(line, ": ");
            if (fields.size() < 2) continue;
            std::list<std::string>::const_iterator field = fields.begin();
            const std::string& key = *field++;
            if (key == "Content-Type") {
                type = *field;
            } else if (key == "Content-Length") {
                length = static_cast<int>(strtol(field->c_str(), nullptr, 10));
            }
        }
        // A negative length is as unusable as none.
        if (type.empty() || length <= 0) {
            TWLOG(3, "Parse Payload Header failed: DetType[%s] Length[%d].\n", type.c_str(), length);
            return false;
        }
        const int payloadStart = static_cast<int>(headerEnd - m_RecvBuf) + 4;
        m_ParseOffset = payloadStart;
        // A frame is decoded only when its header and its whole payload are here together:
        // otherwise the header is dropped and the next parse starts at the payload.
        if (m_BufferedLen - payloadStart < length) {
            start = payloadStart;
            break;
        }
        const std::string payload(m_RecvBuf + payloadStart, static_cast<size_t>(length));
        ParseData(type, payload);
        m_ParseOffset += length;
    }
    const int remaining = m_BufferedLen - start;
    if (remaining >= 1 && start != 0) memmove(m_RecvBuf, m_RecvBuf + start, static_cast<size_t>(remaining));
    m_ParseOffset = 0;
    m_BufferedLen = remaining;
    return true;
}

void LiveCamDetector::ParseData(const std::string& type, const std::string& payload) {
    if (type == "motion") ParseMotionData(payload);
}

void LiveCamDetector::ParseMotionData(const std::string& payload) {
    static const char kTrig[] = "IsTrig:";
    static const char kLevel[] = "Level:";
    const std::list<std::string> pieces = String2StrList(payload, " ");
    bool triggered = false;
    int level = 0;
    for (const std::string& piece : pieces) {
        size_t at = piece.find(kTrig);
        if (at != std::string::npos) {
            triggered = static_cast<int>(strtol(piece.c_str() + at + sizeof(kTrig) - 1, nullptr, 10)) != 0;
        }
        at = piece.find(kLevel);
        if (at != std::string::npos) {
            level = static_cast<int>(strtol(piece.c_str() + at + sizeof(kLevel) - 1, nullptr, 10));
        }
    }
    m_pEventBuf->SetStatus(triggered, level);
}

// ---------------------------------------------------------------------------------------
// Detection cycle

int LiveCamDetector::DetEventByLocalSocketStream() {
    char id[16];
    snprintf(id, sizeof(id), "%d", m_pCamera->id);
    const std::string socketName = std::string(kSocketPrefix) + id;
    const std::string path = "/tmp/" + socketName + ".sock";
    int listenFd = -1;

    if (BuildEventSocketServer(path, listenFd) != 0) {
        TWLOG(3, "Failed to build event socket server.\n");
    } else if (NotifyDaemonStartStm(socketName) != 0) {
        TWLOG(6, "Start event stream failed.\n");
    } else {
        const int readFd = AcceptSocketFromClient(listenFd);
        if (readFd != -1) DoRecvSocketLoop(readFd);
        NotifyDaemonStopStm();
    }

    // Between cycles nothing is held and no stale motion is left behind.
    if (listenFd != -1) {
        close(listenFd);
        listenFd = -1;
    }
    if (!path.empty()) unlink(path.c_str());
    m_pEventBuf->SetStatus(false, 0);
    return 0;
}
