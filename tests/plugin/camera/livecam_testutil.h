// Helpers of the live-cam detector's tests: an in-process mobile daemon that records what it
// is asked, the daemon's stream side (a client of the detector's socket), frame texts, and
// checks of the detector's log records.
#pragma once

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <json/json.h>

#include "twhost/eventlog.h"
#include "twhost/logsink.h"
#include "twhost/mobiled.h"

namespace tw::test::livecam {

inline std::string SocketName(int camId) { return "tw_livecam_detector_" + std::to_string(camId); }
inline std::string SocketPath(int camId) { return "/tmp/" + SocketName(camId) + ".sock"; }

inline bool PathExists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// One frame as the daemon writes it: header lines, the empty line, the payload.
inline std::string Frame(const std::string& type, const std::string& payload) {
    return "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(payload.size()) + "\r\n\r\n" + payload;
}

inline Json::Value Answer(bool success, const char* errorMsg = nullptr) {
    Json::Value answer(Json::objectValue);
    answer["success"] = success;
    if (errorMsg != nullptr) answer["errorMsg"] = errorMsg;
    return answer;
}

struct MobiledRequest {
    std::string cmd;
    int cameraId = 0;
    std::string stream;
    std::string socketName;
    bool blHasSocketName = false;
    std::chrono::steady_clock::time_point when;
};

// Plays the mobile daemon inside the test process for as long as it lives. It agrees to
// everything unless told otherwise, and remembers every request in order.
class FakeMobiled {
public:
    FakeMobiled() : m_pState(std::make_shared<State>()) {
        m_pState->startAnswer = Answer(true);
        m_pState->stopAnswer = Answer(true);
        std::shared_ptr<State> state = m_pState;
        tw::host::SetMobiledHandler([state](const Json::Value& request, Json::Value& answer) {
            MobiledRequest r;
            r.cmd = request["cmd"].asString();
            r.cameraId = request["cameraId"].asInt();
            r.stream = request["stream"].asString();
            r.blHasSocketName = request.isMember("socketName");
            r.socketName = request["socketName"].asString();
            r.when = std::chrono::steady_clock::now();
            int rc = 0;
            {
                std::lock_guard<std::mutex> lock(state->mutex);
                const bool start = r.cmd == "startStream";
                answer = start ? state->startAnswer : state->stopAnswer;
                rc = start ? state->startRc : state->stopRc;
                state->requests.push_back(r);
            }
            state->cond.notify_all();
            return rc;
        });
    }
    ~FakeMobiled() { tw::host::SetMobiledHandler(nullptr); }
    FakeMobiled(const FakeMobiled&) = delete;
    FakeMobiled& operator=(const FakeMobiled&) = delete;

    // rc non-zero plays a request that never reached the daemon.
    void SetStartAnswer(int rc, const Json::Value& answer) {
        std::lock_guard<std::mutex> lock(m_pState->mutex);
        m_pState->startRc = rc;
        m_pState->startAnswer = answer;
    }
    void SetStopAnswer(int rc, const Json::Value& answer) {
        std::lock_guard<std::mutex> lock(m_pState->mutex);
        m_pState->stopRc = rc;
        m_pState->stopAnswer = answer;
    }
    std::vector<MobiledRequest> Requests() {
        std::lock_guard<std::mutex> lock(m_pState->mutex);
        return m_pState->requests;
    }
    std::vector<std::string> Commands() {
        std::vector<std::string> cmds;
        for (const MobiledRequest& r : Requests()) cmds.push_back(r.cmd);
        return cmds;
    }
    size_t Count(const std::string& cmd) {
        size_t n = 0;
        for (const MobiledRequest& r : Requests()) n += r.cmd == cmd ? 1 : 0;
        return n;
    }
    // Waits (real time) for the n-th request of a command; false when it does not come.
    bool WaitFor(const std::string& cmd, size_t n, int timeoutMs) {
        std::unique_lock<std::mutex> lock(m_pState->mutex);
        return m_pState->cond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] {
            size_t count = 0;
            for (const MobiledRequest& r : m_pState->requests) count += r.cmd == cmd ? 1 : 0;
            return count >= n;
        });
    }

private:
    struct State {
        std::mutex mutex;
        std::condition_variable cond;
        std::vector<MobiledRequest> requests;
        int startRc = 0;
        int stopRc = 0;
        Json::Value startAnswer;
        Json::Value stopAnswer;
    };
    std::shared_ptr<State> m_pState;
};

// The daemon's end of the event socket: connects to the detector and writes frames.
class StreamClient {
public:
    StreamClient() = default;
    ~StreamClient() { Close(); }
    StreamClient(const StreamClient&) = delete;
    StreamClient& operator=(const StreamClient&) = delete;

    bool Connect(const std::string& path) {
        Close();
        sockaddr_un addr;
        memset(&addr, 0, sizeof(addr));
        addr.sun_family = AF_UNIX;
        if (path.size() >= sizeof(addr.sun_path)) return false;
        memcpy(addr.sun_path, path.c_str(), path.size() + 1);
        m_Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (m_Fd < 0) return false;
        if (connect(m_Fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            Close();
            return false;
        }
        return true;
    }
    bool Send(const std::string& bytes) {
        size_t sent = 0;
        while (sent < bytes.size()) {
            const ssize_t n = send(m_Fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            sent += static_cast<size_t>(n);
        }
        return true;
    }
    // Waits until the detector has closed its end (a read that ends or fails); false when it
    // has not within the time. Whatever the detector might write is discarded.
    bool WaitClosedByDetector(int timeoutMs) {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd pfd{m_Fd, POLLIN, 0};
            const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
            if (ready < 0 && errno == EINTR) continue;
            if (ready <= 0) continue;
            char buf[256];
            const ssize_t n = recv(m_Fd, buf, sizeof(buf), 0);
            if (n <= 0) return true;
        }
    }
    void Close() {
        if (m_Fd >= 0) close(m_Fd);
        m_Fd = -1;
    }
    int Fd() const { return m_Fd; }

private:
    int m_Fd = -1;
};

// Checks that a record is one of the live-cam detector's, at the given level and from the
// given function.
inline ::testing::AssertionResult IsLiveCamRecord(const tw::host::LogRecord& r, const std::string& level,
                                                  const std::string& function) {
    if (r.type != 0) return ::testing::AssertionFailure() << "log type " << r.type;
    if (r.category != "livecam") return ::testing::AssertionFailure() << "category " << r.category;
    if (r.file != "camera/livecamdetector.cpp") return ::testing::AssertionFailure() << "file " << r.file;
    if (r.level != level) return ::testing::AssertionFailure() << "level " << r.level << ", expected " << level;
    if (r.function != function)
        return ::testing::AssertionFailure() << "function " << r.function << ", expected " << function;
    if (r.line <= 0) return ::testing::AssertionFailure() << "line " << r.line;
    return ::testing::AssertionSuccess();
}

// Whether text matches a pattern in which '#' stands for a decimal number and '*' for any
// run of characters (for texts that carry a descriptor number).
inline bool MatchesPattern(const char* text, const char* pattern) {
    for (;; ++pattern) {
        if (*pattern == '\0') return *text == '\0';
        if (*pattern == '*') {
            for (const char* t = text;; ++t) {
                if (MatchesPattern(t, pattern + 1)) return true;
                if (*t == '\0') return false;
            }
        }
        if (*pattern == '#') {
            if (*text == '-') ++text;
            if (!isdigit(static_cast<unsigned char>(*text))) return false;
            while (isdigit(static_cast<unsigned char>(*text))) ++text;
            continue;
        }
        if (*text != *pattern) return false;
        ++text;
    }
}

// Records whose whole message matches such a pattern.
inline std::vector<tw::host::LogRecord> FindMatching(tw::host::CaptureLogSink& sink, const std::string& pattern) {
    std::vector<tw::host::LogRecord> found;
    for (const tw::host::LogRecord& r : sink.Records())
        if (MatchesPattern(r.message.c_str(), pattern.c_str())) found.push_back(r);
    return found;
}

// What an event buffer was told, in order: (motion, value).
using Event = std::pair<bool, int>;

inline std::vector<Event> Events(const EventBuf& buf) {
    std::vector<Event> out;
    for (const tw::host::EventRecord& r : tw::host::GetEventHistory(buf)) out.emplace_back(r.motion, r.value);
    return out;
}

}  // namespace tw::test::livecam
