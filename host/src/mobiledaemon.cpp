// The mobile-daemon emulator: control socket server, event scripts and the writers that play
// them into detectors' sockets.
#include "twhost/mobiledaemon.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <system_error>

namespace tw::host {

namespace {

constexpr const char* kEventStream = "event";
constexpr const char* kCmdStart = "startStream";
constexpr const char* kCmdStop = "stopStream";
// A detector listens before it asks for the stream, so the first attempt normally connects;
// the short retry only covers a socket that is being rebuilt at that moment.
constexpr auto kConnectPatience = std::chrono::milliseconds(1000);
constexpr auto kConnectRetry = std::chrono::milliseconds(50);
// Waits are cut in slices so that a stop or a vanished detector is noticed promptly.
constexpr int kWaitSliceMs = 100;
constexpr int kRequestTimeoutMs = 2000;
constexpr size_t kMaxRequestBytes = 65536;
constexpr int kListenBacklog = 16;

bool IsBlank(char c) { return c == ' ' || c == '\t'; }

size_t SkipBlanks(const std::string& text, size_t pos) {
    while (pos < text.size() && IsBlank(text[pos])) ++pos;
    return pos;
}

size_t TokenEnd(const std::string& text, size_t pos) {
    while (pos < text.size() && !IsBlank(text[pos])) ++pos;
    return pos;
}

int HexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Decodes a C string literal that starts at text[pos] (the opening quote); nothing but blanks
// may follow the closing quote. Returns why it is not one, or nothing.
std::string DecodeQuoted(const std::string& text, size_t pos, std::string& out) {
    out.clear();
    size_t i = pos + 1;
    while (i < text.size()) {
        const char c = text[i];
        if (c == '"') {
            if (SkipBlanks(text, i + 1) != text.size()) {
                return "unexpected text after the closing quote: '" + text.substr(i + 1) + "'";
            }
            return std::string();
        }
        if (c != '\\') {
            out += c;
            ++i;
            continue;
        }
        if (++i >= text.size()) {
            return "the line ends inside an escape";
        }
        const char e = text[i];
        switch (e) {
        case 'n': out += '\n'; ++i; break;
        case 'r': out += '\r'; ++i; break;
        case 't': out += '\t'; ++i; break;
        case 'a': out += '\a'; ++i; break;
        case 'b': out += '\b'; ++i; break;
        case 'f': out += '\f'; ++i; break;
        case 'v': out += '\v'; ++i; break;
        case '\\': out += '\\'; ++i; break;
        case '"': out += '"'; ++i; break;
        case '\'': out += '\''; ++i; break;
        case '?': out += '?'; ++i; break;
        case 'x': {
            int value = 0;
            int digits = 0;
            ++i;
            while (digits < 2 && i < text.size() && HexValue(text[i]) >= 0) {
                value = value * 16 + HexValue(text[i]);
                ++digits;
                ++i;
            }
            if (digits == 0) {
                return "\\x needs a hexadecimal digit";
            }
            out += static_cast<char>(value);
            break;
        }
        default:
            if (e >= '0' && e <= '7') {
                int value = 0;
                int digits = 0;
                while (digits < 3 && i < text.size() && text[i] >= '0' && text[i] <= '7') {
                    value = value * 8 + (text[i] - '0');
                    ++digits;
                    ++i;
                }
                if (value > 0xff) {
                    return "octal escape out of range";
                }
                out += static_cast<char>(value);
                break;
            }
            return std::string("unknown escape '\\") + e + "'";
        }
    }
    return "the quoted string is not closed";
}

bool ParseDelay(const std::string& token, double& seconds) {
    if (token.empty()) return false;
    char* end = nullptr;
    errno = 0;
    const double value = std::strtod(token.c_str(), &end);
    if (errno != 0 || end != token.c_str() + token.size() || !std::isfinite(value) || value < 0.0) return false;
    // More than a day between two events is a typo, not a plan.
    if (value > 86400.0) return false;
    seconds = value;
    return true;
}

// Where a split write is cut inside one event: in the middle of a frame's header and in the
// middle of its payload (raw bytes: in their middle).
void AddCuts(const MobiledScriptEvent& event, size_t base, size_t size, std::vector<size_t>& cuts) {
    if (event.raw) {
        if (size >= 2) cuts.push_back(base + size / 2);
        return;
    }
    const size_t header = size - event.payload.size();
    cuts.push_back(base + header / 2);
    if (event.payload.size() >= 2) cuts.push_back(base + header + event.payload.size() / 2);
}

std::string ErrnoText(int err) { return std::strerror(err); }

}  // namespace

// ---------------------------------------------------------------------------------------
// Scripts

std::string MobiledEventFrame(const std::string& type, const std::string& payload) {
    return "Content-Type: " + type + "\r\nContent-Length: " + std::to_string(payload.size()) + "\r\n\r\n" + payload;
}

std::string MobiledScriptEvent::Bytes() const { return raw ? payload : MobiledEventFrame(type, payload); }

bool ParseMobiledScript(std::istream& in, const std::string& name, MobiledScript& script, std::string& error) {
    script.events.clear();
    std::string text;
    int lineNo = 0;
    while (std::getline(in, text)) {
        ++lineNo;
        if (!text.empty() && text.back() == '\r') text.pop_back();
        const auto fail = [&](const std::string& why) {
            error = name + ":" + std::to_string(lineNo) + ": " + why;
            return false;
        };
        size_t pos = SkipBlanks(text, 0);
        if (pos == text.size() || text[pos] == '#') continue;

        MobiledScriptEvent event;
        event.line = lineNo;
        event.type = "motion";
        size_t end = TokenEnd(text, pos);
        const std::string delay = text.substr(pos, end - pos);
        if (!ParseDelay(delay, event.delaySec)) {
            return fail("bad delay '" + delay + "': seconds from 0 to 86400 expected");
        }
        pos = SkipBlanks(text, end);
        if (pos == text.size()) return fail("no payload after the delay");

        end = TokenEnd(text, pos);
        std::string token = text.substr(pos, end - pos);
        bool typed = false;
        if (token.compare(0, 5, "type=") == 0) {
            event.type = token.substr(5);
            if (event.type.empty()) return fail("empty type= (say e.g. type=event)");
            typed = true;
            pos = SkipBlanks(text, end);
            if (pos == text.size()) return fail("no payload after type=" + event.type);
            end = TokenEnd(text, pos);
            token = text.substr(pos, end - pos);
        }
        const bool rawToken = token == "raw" || token.compare(0, 4, "raw\"") == 0;
        if (rawToken) {
            if (typed) return fail("type= does not go with raw bytes");
            const size_t quote = SkipBlanks(text, pos + 3);
            if (quote == text.size() || text[quote] != '"') {
                return fail("raw needs a quoted string, e.g. raw \"IsTrig:1\\r\\n\"");
            }
            const std::string why = DecodeQuoted(text, quote, event.payload);
            if (!why.empty()) return fail(why);
            if (event.payload.empty()) return fail("raw bytes are empty");
            event.raw = true;
        } else {
            size_t last = text.size();
            while (last > pos && IsBlank(text[last - 1])) --last;
            event.payload = text.substr(pos, last - pos);
        }
        script.events.push_back(std::move(event));
    }
    if (in.bad()) {
        error = name + ": read error";
        return false;
    }
    return true;
}

bool LoadMobiledScript(const std::string& path, MobiledScript& script, std::string& error) {
    if (path == "-") return ParseMobiledScript(std::cin, "stdin", script, error);
    struct stat st {};
    if (stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
        error = "cannot read script '" + path + "': it is a directory";
        return false;
    }
    std::ifstream file(path);
    if (!file) {
        error = "cannot read script '" + path + "': " + ErrnoText(errno);
        return false;
    }
    return ParseMobiledScript(file, path, script, error);
}

// ---------------------------------------------------------------------------------------
// Daemon

struct MobileDaemon::Session {
    int cameraId = -1;
    std::string socketName;
    bool blPlay = false;     // this stream plays the script
    std::thread thread;

    std::mutex mutex;        // guards what follows
    std::condition_variable cv;
    bool blGo = false;       // the request has been answered; the stream may begin
    bool blStop = false;
    std::string strStopReason;
    int fd = -1;             // the event connection, closed only by the session's thread
};

MobileDaemon::MobileDaemon(MobileDaemonOptions options)
    : m_Options(std::move(options)), m_Epoch(std::chrono::steady_clock::now()) {
    if (m_Options.m_Coalesce < 1) m_Options.m_Coalesce = 1;
    if (m_Options.m_PauseMs < 0) m_Options.m_PauseMs = 0;
}

MobileDaemon::~MobileDaemon() { Stop(); }

void MobileDaemon::SetListener(MobiledListener listener) { m_Listener = std::move(listener); }

double MobileDaemon::Seconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_Epoch).count();
}

void MobileDaemon::Report(MobiledActivity activity) {
    if (!m_Listener) return;
    activity.t = Seconds();
    m_Listener(activity);
}

bool MobileDaemon::Start(std::string& error) {
    if (m_ServeThread.joinable()) {
        error = "the mobile daemon already serves '" + m_Options.m_strSocketPath + "'";
        return false;
    }
    const std::string& path = m_Options.m_strSocketPath;
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (path.empty()) {
        error = "empty control socket path";
        return false;
    }
    if (path.size() >= sizeof(addr.sun_path)) {
        error = "control socket path too long (at most " + std::to_string(sizeof(addr.sun_path) - 1) +
                " bytes): '" + path + "'";
        return false;
    }
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    struct stat st {};
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            error = "control socket path '" + path + "' exists and is not a socket";
            return false;
        }
        // A socket file outlives a daemon that was killed; only a live one keeps it.
        const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (probe >= 0) {
            const bool alive = connect(probe, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
            close(probe);
            if (alive) {
                error = "another mobile daemon serves '" + path + "'";
                return false;
            }
        }
        unlink(path.c_str());
    }

    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        error = "cannot create the control socket: " + ErrnoText(errno);
        return false;
    }
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
        error = "cannot bind the control socket '" + path + "': " + ErrnoText(errno);
        close(fd);
        return false;
    }
    if (listen(fd, kListenBacklog) != 0) {
        error = "cannot listen on the control socket '" + path + "': " + ErrnoText(errno);
        close(fd);
        unlink(path.c_str());
        return false;
    }
    if (pipe2(m_WakeFds, O_CLOEXEC) != 0) {
        error = "cannot create a pipe: " + ErrnoText(errno);
        close(fd);
        unlink(path.c_str());
        return false;
    }
    m_ListenFd = fd;
    m_blOwnsSocketFile = true;
    try {
        m_ServeThread = std::thread(&MobileDaemon::ServeLoop, this);
    } catch (const std::system_error& e) {
        error = std::string("cannot start the control socket thread: ") + e.what();
        Stop();
        return false;
    }
    return true;
}

void MobileDaemon::Stop() {
    if (m_ServeThread.joinable()) {
        const char wake = 1;
        while (write(m_WakeFds[1], &wake, 1) < 0 && errno == EINTR) {
        }
        m_ServeThread.join();
    }
    if (m_ListenFd >= 0) {
        close(m_ListenFd);
        m_ListenFd = -1;
    }
    for (int& fd : m_WakeFds) {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    if (m_blOwnsSocketFile) {
        unlink(m_Options.m_strSocketPath.c_str());
        m_blOwnsSocketFile = false;
    }
    std::lock_guard<std::mutex> requestLock(m_RequestMutex);
    std::map<int, std::shared_ptr<Session>> sessions;
    {
        std::lock_guard<std::mutex> lock(m_SessionsMutex);
        sessions.swap(m_Sessions);
    }
    for (auto& entry : sessions) StopSession(entry.second, "daemon stopped");
}

void MobileDaemon::ServeLoop() {
    for (;;) {
        pollfd fds[2] = {{m_ListenFd, POLLIN, 0}, {m_WakeFds[0], POLLIN, 0}};
        const int ready = poll(fds, 2, -1);
        if (ready < 0) {
            if (errno == EINTR) continue;
            MobiledActivity failure;
            failure.kind = MobiledActivity::Kind::Failure;
            failure.path = m_Options.m_strSocketPath;
            failure.reason = "polling the control socket failed: " + ErrnoText(errno);
            Report(failure);
            return;
        }
        if (fds[1].revents != 0) return;
        if ((fds[0].revents & POLLIN) == 0) continue;
        const int fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        ServeConnection(fd);
        close(fd);
    }
}

void MobileDaemon::ServeConnection(int fd) {
    std::string request;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kRequestTimeoutMs);
    bool complete = false;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0) break;
        pollfd fds[2] = {{fd, POLLIN, 0}, {m_WakeFds[0], POLLIN, 0}};
        const int ready = poll(fds, 2, static_cast<int>(left));
        if (ready < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (fds[1].revents != 0) return;   // shutting down
        if (ready == 0) continue;
        char buf[1024];
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;
        }
        if (n == 0) {
            complete = true;   // the client shut its side: what came is the request
            break;
        }
        request.append(buf, static_cast<size_t>(n));
        if (request.find('\n') != std::string::npos) {
            complete = true;
            break;
        }
        if (request.size() > kMaxRequestBytes) break;
    }
    const size_t newline = request.find('\n');
    if (newline != std::string::npos) request.resize(newline);
    if (!request.empty() && request.back() == '\r') request.pop_back();
    // A connection that says nothing is someone checking whether a daemon is there.
    if (complete && request.empty()) return;

    Json::Value answer(Json::objectValue);
    Json::Value parsed;
    std::string parseError;
    const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    if (!complete) {
        answer["success"] = false;
        answer["errorMsg"] = request.size() > kMaxRequestBytes ? "request line too long"
                                                               : "request incomplete (no newline in time)";
    } else if (!reader->parse(request.data(), request.data() + request.size(), &parsed, &parseError)) {
        answer["success"] = false;
        std::string why = parseError;
        while (!why.empty() && (why.back() == '\n' || why.back() == ' ')) why.pop_back();
        answer["errorMsg"] = "request is not JSON: " + why;
    }
    if (!answer.isMember("success")) {
        HandleRequest(parsed, answer);
    } else {
        MobiledActivity activity;
        activity.kind = MobiledActivity::Kind::Request;
        activity.success = false;
        activity.errorMsg = answer["errorMsg"].asString();
        Report(activity);
    }

    Json::StreamWriterBuilder writer;
    writer["indentation"] = "";
    const std::string line = Json::writeString(writer, answer) + "\n";
    size_t sent = 0;
    while (sent < line.size()) {
        const ssize_t n = send(fd, line.data() + sent, line.size() - sent, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;   // the client has gone; nothing to tell it
        }
        sent += static_cast<size_t>(n);
    }
}

void MobileDaemon::HandleRequest(const Json::Value& request, Json::Value& answer) {
    std::lock_guard<std::mutex> requestLock(m_RequestMutex);
    answer = Json::Value(Json::objectValue);
    MobiledActivity activity;
    activity.kind = MobiledActivity::Kind::Request;
    std::string error;
    if (!request.isObject()) {
        error = "request is not a JSON object";
    } else {
        const Json::Value& cmd = request["cmd"];
        const Json::Value& cameraId = request["cameraId"];
        const Json::Value& stream = request["stream"];
        const Json::Value& socketName = request["socketName"];
        if (cmd.isString()) activity.cmd = cmd.asString();
        if (cameraId.isInt()) activity.cameraId = cameraId.asInt();
        if (stream.isString()) activity.stream = stream.asString();
        if (socketName.isString()) activity.socketName = socketName.asString();
        if (!cmd.isString()) {
            error = "request has no \"cmd\" text";
        } else if (activity.cmd != kCmdStart && activity.cmd != kCmdStop) {
            error = "unknown command '" + activity.cmd + "' (startStream or stopStream)";
        } else if (!cameraId.isInt()) {
            error = "request has no integer \"cameraId\"";
        } else if (!stream.isString()) {
            error = "request has no \"stream\" text";
        } else if (activity.stream != kEventStream) {
            error = "stream '" + activity.stream + "' is not served (only \"event\")";
        } else if (activity.cmd == kCmdStart) {
            const std::string path = MobiledStreamSocketPath(activity.socketName);
            if (!socketName.isString() || activity.socketName.empty()) {
                error = "request has no \"socketName\" text";
            } else if (activity.socketName.find('/') != std::string::npos) {
                error = "socketName '" + activity.socketName + "' must not contain '/'";
            } else if (path.size() >= sizeof(sockaddr_un{}.sun_path)) {
                error = "socketName '" + activity.socketName + "' makes a socket path that is too long";
            }
        }
    }

    std::shared_ptr<Session> started;
    if (!error.empty()) {
        answer["success"] = false;
        answer["errorMsg"] = error;
    } else if (activity.cmd == kCmdStart) {
        if (m_Options.m_blRefuse) {
            answer["success"] = false;
            answer["errorMsg"] = m_Options.m_strRefuseMsg;
        } else {
            // A second start for a camera is a new stream: the old one goes first.
            std::shared_ptr<Session> old;
            {
                std::lock_guard<std::mutex> lock(m_SessionsMutex);
                const auto found = m_Sessions.find(activity.cameraId);
                if (found != m_Sessions.end()) {
                    old = found->second;
                    m_Sessions.erase(found);
                }
            }
            if (old) StopSession(old, "replaced by a new start");
            auto session = std::make_shared<Session>();
            session->cameraId = activity.cameraId;
            session->socketName = activity.socketName;
            bool ok = true;
            if (!m_Options.m_blNoConnect) {
                session->blPlay = m_Options.m_blRepeat || !m_blScriptPlayed;
                try {
                    session->thread = std::thread(&MobileDaemon::RunSession, this, session);
                } catch (const std::system_error& e) {
                    ok = false;
                    answer["success"] = false;
                    answer["errorMsg"] = std::string("cannot start the stream: ") + e.what();
                }
                if (ok && session->blPlay) m_blScriptPlayed = true;
            }
            if (ok) {
                answer["success"] = true;
                std::lock_guard<std::mutex> lock(m_SessionsMutex);
                m_Sessions[activity.cameraId] = session;
                started = session;
            }
        }
    } else {
        std::shared_ptr<Session> session;
        {
            std::lock_guard<std::mutex> lock(m_SessionsMutex);
            const auto found = m_Sessions.find(activity.cameraId);
            if (found != m_Sessions.end()) {
                session = found->second;
                m_Sessions.erase(found);
            }
        }
        if (session) {
            StopSession(session, "stopped by stopStream");
            answer["success"] = true;
        } else {
            answer["success"] = false;
            answer["errorMsg"] = "no event stream of camera " + std::to_string(activity.cameraId) + " to stop";
        }
    }

    activity.success = answer["success"].asBool();
    if (answer.isMember("errorMsg")) activity.errorMsg = answer["errorMsg"].asString();
    Report(activity);
    // The stream begins only now, so that its activity follows the request's.
    if (started) {
        {
            std::lock_guard<std::mutex> lock(started->mutex);
            started->blGo = true;
        }
        started->cv.notify_all();
    }
}

namespace {

// Whether the detector has closed its end of the event connection.
bool PeerHungUp(int fd) {
    pollfd pfd{fd, POLLIN | POLLRDHUP, 0};
    return poll(&pfd, 1, 0) > 0 && (pfd.revents & (POLLRDHUP | POLLHUP)) != 0;
}

}  // namespace

void MobileDaemon::StopSession(const std::shared_ptr<Session>& session, const std::string& reason) {
    {
        std::lock_guard<std::mutex> lock(session->mutex);
        session->blStop = true;
        // A detector closes its connection before it asks for the stop: the stream ended
        // there, whichever of the two this daemon's threads happens to notice first.
        const bool blHungUp = session->fd >= 0 && PeerHungUp(session->fd);
        session->strStopReason = blHungUp ? "the detector closed the connection" : reason;
        // Wakes a thread blocked on the connection; the peer sees the end of the stream.
        if (session->fd >= 0) shutdown(session->fd, SHUT_RDWR);
    }
    session->cv.notify_all();
    if (session->thread.joinable()) session->thread.join();
}

void MobileDaemon::RunSession(const std::shared_ptr<Session>& session) {
    Session& s = *session;
    {
        std::unique_lock<std::mutex> lock(s.mutex);
        s.cv.wait(lock, [&s] { return s.blGo || s.blStop; });
        if (s.blStop) return;
    }
    const std::string path = MobiledStreamSocketPath(s.socketName);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);

    MobiledActivity activity;
    activity.cameraId = s.cameraId;
    activity.path = path;

    int fd = -1;
    const auto giveUp = std::chrono::steady_clock::now() + kConnectPatience;
    for (;;) {
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            activity.kind = MobiledActivity::Kind::Failure;
            activity.reason = "cannot create a socket: " + ErrnoText(errno);
            Report(activity);
            return;
        }
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0) break;
        const int err = errno;
        close(fd);
        fd = -1;
        const bool retry = (err == ENOENT || err == ECONNREFUSED || err == EINTR) &&
                           std::chrono::steady_clock::now() < giveUp;
        if (!retry) {
            activity.kind = MobiledActivity::Kind::Failure;
            activity.reason = "cannot connect to '" + path + "': " + ErrnoText(err);
            Report(activity);
            return;
        }
        std::unique_lock<std::mutex> lock(s.mutex);
        if (s.cv.wait_for(lock, kConnectRetry, [&s] { return s.blStop; })) {
            activity.kind = MobiledActivity::Kind::Failure;
            activity.reason = "stopped before connecting";
            lock.unlock();
            Report(activity);
            return;
        }
    }
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.blStop) {
            close(fd);
            return;
        }
        s.fd = fd;
    }
    activity.kind = MobiledActivity::Kind::Connected;
    Report(activity);

    std::string endReason;
    bool open = !s.blPlay || PlayScript(s, endReason);
    if (open) {
        if (m_Options.m_blHold) {
            WaitUntil(s, std::chrono::steady_clock::time_point::max(), endReason);
        } else {
            endReason = s.blPlay ? "end of script" : "nothing to play (the script is played once; see --repeat)";
        }
    }
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        s.fd = -1;
    }
    close(fd);
    activity.kind = MobiledActivity::Kind::StreamEnded;
    activity.reason = endReason;
    Report(activity);
}

bool MobileDaemon::PlayScript(Session& session, std::string& endReason) {
    const std::vector<MobiledScriptEvent>& events = m_Options.m_Script.events;
    auto due = std::chrono::steady_clock::now();
    size_t next = 0;
    while (next < events.size()) {
        const size_t groupEnd = std::min(events.size(), next + static_cast<size_t>(m_Options.m_Coalesce));
        std::string bytes;
        std::vector<size_t> cuts;
        std::vector<size_t> sizes;
        for (size_t i = next; i < groupEnd; ++i) {
            due += std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                std::chrono::duration<double>(events[i].delaySec));
            const std::string one = events[i].Bytes();
            if (m_Options.m_blSplit) AddCuts(events[i], bytes.size(), one.size(), cuts);
            bytes += one;
            sizes.push_back(one.size());
        }
        // The group goes out when its last event is due: no event arrives early.
        if (!WaitUntil(session, due, endReason)) return false;
        int writes = 0;
        if (!WriteGroup(session, bytes, cuts, writes, endReason)) return false;
        for (size_t i = next; i < groupEnd; ++i) {
            MobiledActivity activity;
            activity.kind = MobiledActivity::Kind::EventSent;
            activity.cameraId = session.cameraId;
            activity.index = static_cast<int>(i) + 1;
            activity.line = events[i].line;
            activity.raw = events[i].raw;
            activity.type = events[i].raw ? std::string() : events[i].type;
            activity.payload = events[i].payload;
            activity.bytes = sizes[i - next];
            activity.writes = writes;
            Report(activity);
        }
        next = groupEnd;
    }
    return true;
}

bool MobileDaemon::WriteGroup(Session& session, const std::string& bytes, const std::vector<size_t>& cuts,
                              int& writes, std::string& endReason) {
    std::vector<size_t> bounds{0};
    for (const size_t cut : cuts) {
        if (cut > bounds.back() && cut < bytes.size()) bounds.push_back(cut);
    }
    bounds.push_back(bytes.size());
    const int fd = session.fd;
    for (size_t piece = 0; piece + 1 < bounds.size(); ++piece) {
        if (piece > 0) {
            const auto resume = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_Options.m_PauseMs);
            if (!WaitUntil(session, resume, endReason)) return false;
        }
        size_t sent = bounds[piece];
        while (sent < bounds[piece + 1]) {
            {
                std::lock_guard<std::mutex> lock(session.mutex);
                if (session.blStop) {
                    endReason = session.strStopReason;
                    return false;
                }
            }
            pollfd pfd{fd, POLLOUT, 0};
            const int ready = poll(&pfd, 1, kWaitSliceMs);
            if (ready < 0 && errno != EINTR) {
                endReason = "polling the event connection failed: " + ErrnoText(errno);
                return false;
            }
            if (ready <= 0) continue;
            const ssize_t n = send(fd, bytes.data() + sent, bounds[piece + 1] - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
            if (n < 0) {
                const int err = errno;
                if (err == EINTR || err == EAGAIN || err == EWOULDBLOCK) continue;
                std::lock_guard<std::mutex> lock(session.mutex);
                if (session.blStop) {
                    endReason = session.strStopReason;
                } else if (err == EPIPE || err == ECONNRESET) {
                    endReason = "the detector closed the connection";
                } else {
                    endReason = "writing to the event connection failed: " + ErrnoText(err);
                }
                return false;
            }
            sent += static_cast<size_t>(n);
        }
        ++writes;
    }
    return true;
}

bool MobileDaemon::WaitUntil(Session& session, std::chrono::steady_clock::time_point when, std::string& endReason) {
    const int fd = session.fd;
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(session.mutex);
            if (session.blStop) {
                endReason = session.strStopReason;
                return false;
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (now >= when) return true;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - now).count();
        const int slice = static_cast<int>(std::min<long long>(std::max<long long>(left, 1), kWaitSliceMs));
        // Watching the connection meanwhile tells when the detector hangs up.
        pollfd pfd{fd, POLLIN, 0};
        const int ready = poll(&pfd, 1, slice);
        if (ready <= 0) continue;
        char scratch[256];
        const ssize_t n = recv(fd, scratch, sizeof(scratch), MSG_DONTWAIT);
        if (n > 0) continue;   // a detector says nothing; whatever comes is ignored
        if (n < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        std::lock_guard<std::mutex> lock(session.mutex);
        endReason = session.blStop ? session.strStopReason : "the detector closed the connection";
        return false;
    }
}

}  // namespace tw::host
