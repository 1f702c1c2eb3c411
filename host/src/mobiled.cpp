// MobiledApi: the client of the mobile daemon's control socket.
#include "twhost/mobiled.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <mutex>

#include "tw/mobiled.h"

namespace tw::host {

namespace {

std::mutex g_MobiledMutex;
std::string g_strMobiledSocket = kDefaultMobiledSocket;
MobiledHandler g_MobiledHandler;

struct FdCloser {
    int fd;
    ~FdCloser() {
        if (fd >= 0) close(fd);
    }
};

}  // namespace

void SetMobiledSocketPath(const std::string& path) {
    std::lock_guard<std::mutex> lock(g_MobiledMutex);
    g_strMobiledSocket = path;
}

std::string GetMobiledSocketPath() {
    std::lock_guard<std::mutex> lock(g_MobiledMutex);
    return g_strMobiledSocket;
}

void SetMobiledHandler(MobiledHandler handler) {
    std::lock_guard<std::mutex> lock(g_MobiledMutex);
    g_MobiledHandler = std::move(handler);
}

MobiledHandler MobiledAnswersSuccess() {
    return [](const Json::Value&, Json::Value& answer) {
        answer = Json::Value(Json::objectValue);
        answer["success"] = true;
        return 0;
    };
}

std::string MobiledStreamSocketPath(const std::string& socketName) { return "/tmp/" + socketName + ".sock"; }

int SendMobiledRequest(const std::string& socketPath, const Json::Value& request, Json::Value& answer,
                       std::string& error, int timeoutMs) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (socketPath.size() >= sizeof(addr.sun_path)) {
        error = "control socket path too long: '" + socketPath + "'";
        return -1;
    }
    memcpy(addr.sun_path, socketPath.c_str(), socketPath.size() + 1);
    FdCloser fd{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    if (fd.fd < 0) {
        error = std::string("socket: ") + strerror(errno);
        return -1;
    }
    if (connect(fd.fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        error = "no mobile daemon at '" + socketPath + "': " + strerror(errno);
        return -1;
    }
    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    const std::string line = Json::writeString(writer, request) + "\n";
    size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t n = send(fd.fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = "cannot send to the mobile daemon at '" + socketPath + "': " + strerror(errno);
            return -1;
        }
        sent += static_cast<size_t>(n);
    }
    // One line of answer, within the time limit.
    std::string reply;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            error = "the mobile daemon at '" + socketPath + "' did not answer in time";
            return -1;
        }
        pollfd pfd{fd.fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) continue;
        char buf[1024];
        const ssize_t n = recv(fd.fd, buf, sizeof(buf), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            error = "cannot read the mobile daemon's answer: " + std::string(strerror(errno));
            return -1;
        }
        if (n == 0) break;
        reply.append(buf, static_cast<size_t>(n));
        if (reply.find('\n') != std::string::npos || reply.size() > 65536) break;
    }
    Json::CharReaderBuilder reader;
    std::string parseError;
    Json::Value parsed;
    const std::unique_ptr<Json::CharReader> parser(reader.newCharReader());
    const std::string text = reply.substr(0, reply.find('\n'));
    if (text.empty() || !parser->parse(text.data(), text.data() + text.size(), &parsed, &parseError) ||
        !parsed.isObject()) {
        error = "the mobile daemon at '" + socketPath + "' gave no JSON answer" +
                (parseError.empty() ? std::string() : ": " + parseError);
        return -1;
    }
    answer = parsed;
    return 0;
}

namespace {

int Deliver(const Json::Value& request, Json::Value* answer) {
    MobiledHandler handler;
    std::string path;
    {
        std::lock_guard<std::mutex> lock(g_MobiledMutex);
        handler = g_MobiledHandler;
        path = g_strMobiledSocket;
    }
    Json::Value reply;
    int rc = 0;
    if (handler) {
        rc = handler(request, reply);
    } else {
        std::string error;
        rc = SendMobiledRequest(path, request, reply, error);
    }
    if (rc == 0 && answer) *answer = reply;
    return rc;
}

}  // namespace

}  // namespace tw::host

int MobiledApi::StartStream(int cameraId, std::string streamKind, std::string socketName, Json::Value* answer) {
    Json::Value request(Json::objectValue);
    request["cmd"] = "startStream";
    request["cameraId"] = cameraId;
    request["stream"] = streamKind;
    request["socketName"] = socketName;
    return tw::host::Deliver(request, answer);
}

int MobiledApi::StopStream(int cameraId, std::string streamKind, Json::Value* answer) {
    Json::Value request(Json::objectValue);
    request["cmd"] = "stopStream";
    request["cameraId"] = cameraId;
    request["stream"] = streamKind;
    return tw::host::Deliver(request, answer);
}
