// Audio sinks of the reference host: a WAV file, an HTTP endpoint, memory.
#include "twhost/audiosink.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <sstream>

#include "twhost/wavfile.h"

namespace tw::host {

namespace {

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return text;
}

bool StartsWith(const std::string& text, const std::string& prefix) {
    return text.compare(0, prefix.size(), prefix) == 0;
}

// A non-negative decimal int, nothing else.
bool ParseCount(const std::string& text, int& value) {
    if (text.empty() || text.size() > 9 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    value = std::stoi(text);
    return true;
}

std::string Base64(const std::string& in) {
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    while (i + 2 < in.size()) {
        const uint32_t v = (static_cast<unsigned char>(in[i]) << 16) |
                           (static_cast<unsigned char>(in[i + 1]) << 8) |
                           static_cast<unsigned char>(in[i + 2]);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += kAlphabet[v & 63];
        i += 3;
    }
    if (i + 1 == in.size()) {
        const uint32_t v = static_cast<unsigned char>(in[i]) << 16;
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += "==";
    } else if (i + 2 == in.size()) {
        const uint32_t v = (static_cast<unsigned char>(in[i]) << 16) |
                           (static_cast<unsigned char>(in[i + 1]) << 8);
        out += kAlphabet[(v >> 18) & 63];
        out += kAlphabet[(v >> 12) & 63];
        out += kAlphabet[(v >> 6) & 63];
        out += '=';
    }
    return out;
}

// The file and HTTP sinks need a format they can describe; the memory sink takes anything.
bool CheckFormat(const CAM_CAP_AUDIO_OUT_FORMAT& format, std::string& error) {
    const AudioCodec codec = ParseAudioCodec(format.strCodec);
    if (codec == AudioCodec::Unknown) {
        error = "unsupported audio codec '" + format.strCodec +
                "' (PCM, LPCM, G711U, PCMU, G711A or PCMA)";
        return false;
    }
    if (format.sampleRate <= 0 || format.channels <= 0 || format.channels > 16) {
        error = "bad audio format: " + std::to_string(format.sampleRate) + " Hz, " +
                std::to_string(format.channels) + " channels";
        return false;
    }
    const int bits = format.bitsPerSample;
    if (codec == AudioCodec::Pcm && bits != 8 && bits != 16 && bits != 24 && bits != 32) {
        error = "bad audio format: PCM of " + std::to_string(bits) +
                " bits per sample (8, 16, 24 or 32)";
        return false;
    }
    if (codec != AudioCodec::Pcm && bits != 8) {
        error = "bad audio format: " + format.strCodec + " has 8 bits per sample, not " +
                std::to_string(bits);
        return false;
    }
    return true;
}

}  // namespace

AudioCodec ParseAudioCodec(const std::string& name) {
    const std::string n = Lower(name);
    if (n == "pcm" || n == "lpcm") return AudioCodec::Pcm;
    if (n == "g711u" || n == "pcmu") return AudioCodec::MuLaw;
    if (n == "g711a" || n == "pcma") return AudioCodec::ALaw;
    return AudioCodec::Unknown;
}

// ---------------------------------------------------------------------------------------
// AudioSink

AudioSink::~AudioSink() = default;

void AudioSink::SetError(const std::string& error) {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    m_strLastError = error;
}

int AudioSink::Connect() {
    std::lock_guard<std::mutex> io(m_IoMutex);
    bool wasConnected = false;
    bool refuse = false;
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        ++m_Counters.connectAttempts;
        wasConnected = m_blConnected;
    }
    if (wasConnected) {
        // A caller that connects again without disconnecting gets a fresh connection.
        std::string ignored;
        DoDisconnect(ignored);
        std::lock_guard<std::mutex> lock(m_StateMutex);
        m_blConnected = false;
        ++m_Counters.disconnects;
    }
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        if (m_Faults.refuseConnects < 0) {
            refuse = true;
        } else if (m_Faults.refuseConnects > 0) {
            --m_Faults.refuseConnects;
            refuse = true;
        }
    }
    if (refuse) {
        SetError(Describe() + ": connect refused (fault injection)");
        return -1;
    }
    std::string error;
    if (!DoConnect(error)) {
        SetError(Describe() + ": " + error);
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_StateMutex);
    m_blConnected = true;
    ++m_Counters.connects;
    return 0;
}

int AudioSink::SendData(const char* data, int& len) {
    std::lock_guard<std::mutex> io(m_IoMutex);
    bool connected = false;
    bool fail = false;
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        ++m_Counters.sendCalls;
        connected = m_blConnected;
        const AudioSinkFaults& f = m_Faults;
        if (f.failSendAfter >= 0 && m_Counters.sends >= f.failSendAfter &&
            (f.failSends < 0 || m_FailedSends < f.failSends)) {
            fail = true;
        }
    }
    if (len <= 0 || data == nullptr) {
        SetError(Describe() + ": nothing to send (length " + std::to_string(len) + ")");
        len = 0;
        return -1;
    }
    if (!connected) {
        SetError(Describe() + ": not connected");
        len = 0;
        return -1;
    }
    if (fail) {
        {
            std::lock_guard<std::mutex> lock(m_StateMutex);
            ++m_FailedSends;
        }
        SetError(Describe() + ": send failed (fault injection)");
        len = 0;
        return -1;
    }
    std::string error;
    if (!DoSend(data, static_cast<size_t>(len), error)) {
        SetError(Describe() + ": " + error);
        len = 0;
        return -1;
    }
    std::lock_guard<std::mutex> lock(m_StateMutex);
    ++m_Counters.sends;
    m_Counters.bytes += len;
    return 0;
}

int AudioSink::Disconnect() {
    std::lock_guard<std::mutex> io(m_IoMutex);
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        ++m_Counters.disconnectCalls;
        if (!m_blConnected) return 0;
    }
    std::string error;
    const bool ok = DoDisconnect(error);
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        m_blConnected = false;
        ++m_Counters.disconnects;
    }
    if (!ok) {
        SetError(Describe() + ": " + error);
        return -1;
    }
    return 0;
}

void AudioSink::CloseOnDestruction() {
    std::lock_guard<std::mutex> io(m_IoMutex);
    bool connected = false;
    {
        std::lock_guard<std::mutex> lock(m_StateMutex);
        connected = m_blConnected;
        m_blConnected = false;
    }
    if (connected) {
        std::string ignored;
        DoDisconnect(ignored);
    }
}

void AudioSink::SetFaults(const AudioSinkFaults& faults) {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    m_Faults = faults;
    m_FailedSends = 0;
    // "After N sends" counts from now on.
    if (m_Faults.failSendAfter >= 0) m_Faults.failSendAfter += m_Counters.sends;
}

AudioSinkCounters AudioSink::GetCounters() const {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    return m_Counters;
}

std::string AudioSink::GetLastError() const {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    return m_strLastError;
}

bool AudioSink::IsConnected() const {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    return m_blConnected;
}

// ---------------------------------------------------------------------------------------
// WAV file

WavFileAudioSink::WavFileAudioSink(std::string path, const CAM_CAP_AUDIO_OUT_FORMAT& format)
    : m_strPath(std::move(path)), m_Format(format), m_FormatTag(WAV_FORMAT_PCM) {
    switch (ParseAudioCodec(format.strCodec)) {
    case AudioCodec::MuLaw: m_FormatTag = WAV_FORMAT_MULAW; break;
    case AudioCodec::ALaw: m_FormatTag = WAV_FORMAT_ALAW; break;
    default: m_FormatTag = WAV_FORMAT_PCM; break;
    }
}

WavFileAudioSink::~WavFileAudioSink() { CloseOnDestruction(); }

std::string WavFileAudioSink::Describe() const { return "WAV file '" + m_strPath + "'"; }

int64_t WavFileAudioSink::GetDataBytes() const { return m_DataBytes.load(); }

bool WavFileAudioSink::WriteHeader(std::string& error) {
    const std::vector<unsigned char> header =
        MakeWavHeader(m_FormatTag, m_Format.channels, m_Format.sampleRate,
                      m_Format.bitsPerSample, static_cast<uint32_t>(m_DataBytes.load()));
    if (std::fseek(m_pFile, 0, SEEK_SET) != 0 ||
        std::fwrite(header.data(), 1, header.size(), m_pFile) != header.size()) {
        error = std::string("cannot write the header: ") + std::strerror(errno);
        return false;
    }
    m_HeaderBytes = header.size();
    return true;
}

bool WavFileAudioSink::DoConnect(std::string& error) {
    if (!m_blCreated) {
        m_pFile = std::fopen(m_strPath.c_str(), "w+b");
        if (m_pFile == nullptr) {
            error = std::string("cannot create: ") + std::strerror(errno);
            return false;
        }
        m_DataBytes = 0;
        if (!WriteHeader(error) || std::fflush(m_pFile) != 0) {
            if (error.empty()) error = std::string("cannot write: ") + std::strerror(errno);
            std::fclose(m_pFile);
            m_pFile = nullptr;
            return false;
        }
        m_blCreated = true;
        return true;
    }
    // Later connections append to the audio already in the file.
    m_pFile = std::fopen(m_strPath.c_str(), "r+b");
    if (m_pFile == nullptr) {
        error = std::string("cannot reopen: ") + std::strerror(errno);
        return false;
    }
    const int64_t end = static_cast<int64_t>(m_HeaderBytes) + m_DataBytes.load();
    struct stat st {};
    if (fstat(fileno(m_pFile), &st) != 0 || static_cast<int64_t>(st.st_size) < end) {
        error = "the file was cut short since the last connection (" +
                std::to_string(st.st_size) + " bytes, " + std::to_string(end) + " expected)";
        std::fclose(m_pFile);
        m_pFile = nullptr;
        return false;
    }
    if (std::fseek(m_pFile, static_cast<long>(end), SEEK_SET) != 0) {
        error = std::string("cannot seek: ") + std::strerror(errno);
        std::fclose(m_pFile);
        m_pFile = nullptr;
        return false;
    }
    return true;
}

bool WavFileAudioSink::DoSend(const char* data, size_t size, std::string& error) {
    const int64_t limit = 0xffffffffLL - static_cast<int64_t>(m_HeaderBytes) - 1;
    if (m_DataBytes.load() + static_cast<int64_t>(size) > limit) {
        error = "the WAV file is full (4 GiB)";
        return false;
    }
    const size_t written = std::fwrite(data, 1, size, m_pFile);
    if (written != size || std::fflush(m_pFile) != 0) {
        error = std::string("cannot write: ") + std::strerror(errno);
        // Whatever part went out is not audio the caller was told about.
        std::clearerr(m_pFile);
        std::fseek(m_pFile, static_cast<long>(m_HeaderBytes + m_DataBytes.load()), SEEK_SET);
        return false;
    }
    m_DataBytes += static_cast<int64_t>(size);
    return true;
}

bool WavFileAudioSink::DoDisconnect(std::string& error) {
    bool ok = true;
    const int64_t data = m_DataBytes.load();
    if (data & 1) {
        // RIFF chunks are padded to even sizes; the pad is overwritten by the next connection.
        const unsigned char pad = 0;
        if (std::fseek(m_pFile, static_cast<long>(m_HeaderBytes + data), SEEK_SET) != 0 ||
            std::fwrite(&pad, 1, 1, m_pFile) != 1) {
            error = std::string("cannot write the pad byte: ") + std::strerror(errno);
            ok = false;
        }
    }
    if (ok && !WriteHeader(error)) ok = false;
    if (std::fclose(m_pFile) != 0 && ok) {
        error = std::string("cannot close: ") + std::strerror(errno);
        ok = false;
    }
    m_pFile = nullptr;
    return ok;
}

// ---------------------------------------------------------------------------------------
// HTTP

bool HttpAudioSink::ParseUrl(const std::string& url, std::string& host, int& port,
                             std::string& path, std::string& userInfo, std::string& error) {
    if (Lower(url.substr(0, 7)) != "http://") {
        error = "'" + url + "' is not an http:// URL";
        return false;
    }
    // The authority ends at the path or, without one, at the query.
    const size_t end = url.find_first_of("/?", 7);
    std::string authority = url.substr(7, end == std::string::npos ? std::string::npos : end - 7);
    path = end == std::string::npos ? "/" : url[end] == '?' ? "/" + url.substr(end) : url.substr(end);
    userInfo.clear();
    const size_t at = authority.rfind('@');
    if (at != std::string::npos) {
        userInfo = authority.substr(0, at);
        authority = authority.substr(at + 1);
    }
    std::string portText;
    if (!authority.empty() && authority[0] == '[') {
        const size_t close = authority.find(']');
        if (close == std::string::npos) {
            error = "'" + url + "': unterminated IPv6 address";
            return false;
        }
        host = authority.substr(1, close - 1);
        const std::string rest = authority.substr(close + 1);
        if (!rest.empty()) {
            if (rest[0] != ':') {
                error = "'" + url + "': junk after the IPv6 address";
                return false;
            }
            portText = rest.substr(1);
        }
    } else {
        const size_t colon = authority.find(':');
        host = authority.substr(0, colon);
        if (colon != std::string::npos) portText = authority.substr(colon + 1);
    }
    if (host.empty()) {
        error = "'" + url + "' has no host";
        return false;
    }
    port = 80;
    if (!portText.empty() || authority.find(':') != std::string::npos) {
        int value = 0;
        if (!ParseCount(portText, value) || value < 1 || value > 65535) {
            error = "'" + url + "' has a bad port '" + portText + "'";
            return false;
        }
        port = value;
    }
    return true;
}

std::string HttpAudioSink::ContentType(const CAM_CAP_AUDIO_OUT_FORMAT& format,
                                       std::string& error) {
    if (!CheckFormat(format, error)) return "";
    std::string type;
    switch (ParseAudioCodec(format.strCodec)) {
    case AudioCodec::MuLaw: type = "audio/PCMU"; break;
    case AudioCodec::ALaw: type = "audio/PCMA"; break;
    default:
        if (format.bitsPerSample == 32) {
            error = "32-bit PCM has no HTTP audio type (8, 16 or 24 bits)";
            return "";
        }
        type = "audio/L" + std::to_string(format.bitsPerSample);
        break;
    }
    return type + ";rate=" + std::to_string(format.sampleRate) +
           ";channels=" + std::to_string(format.channels);
}

HttpAudioSink::HttpAudioSink(const std::string& url, const CAM_CAP_AUDIO_OUT_FORMAT& format)
    : m_strUrl(url) {
    std::string error;
    ParseUrl(url, m_strHost, m_Port, m_strPath, m_strUserInfo, error);
    m_strContentType = ContentType(format, error);
    if (ParseAudioCodec(format.strCodec) == AudioCodec::Pcm && format.bitsPerSample > 8)
        m_SampleBytes = format.bitsPerSample / 8;
}

HttpAudioSink::~HttpAudioSink() { CloseOnDestruction(); }

std::string HttpAudioSink::Describe() const {
    // The credentials stay out of messages.
    const bool v6 = m_strHost.find(':') != std::string::npos;
    return "HTTP sink http://" + (v6 ? "[" + m_strHost + "]" : m_strHost) + ":" +
           std::to_string(m_Port) + m_strPath;
}

void HttpAudioSink::CloseSocket() {
    if (m_Fd >= 0) close(m_Fd);
    m_Fd = -1;
}

bool HttpAudioSink::DoConnect(std::string& error) {
    CloseSocket();
    m_Carry.clear();
    m_strResponse.clear();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* addrs = nullptr;
    const int gai = getaddrinfo(m_strHost.c_str(), std::to_string(m_Port).c_str(), &hints, &addrs);
    if (gai != 0) {
        error = "cannot resolve '" + m_strHost + "': " + gai_strerror(gai);
        return false;
    }
    std::string lastError = "no address";
    for (addrinfo* a = addrs; a != nullptr && m_Fd < 0; a = a->ai_next) {
        const int fd = socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK,
                              a->ai_protocol);
        if (fd < 0) {
            lastError = std::strerror(errno);
            continue;
        }
        int rc = connect(fd, a->ai_addr, a->ai_addrlen);
        if (rc != 0 && errno == EINPROGRESS) {
            pollfd p{fd, POLLOUT, 0};
            int ready = 0;
            do {
                ready = poll(&p, 1, m_TimeoutMs);
            } while (ready < 0 && errno == EINTR);
            if (ready == 0) {
                lastError = "connection timed out";
                close(fd);
                continue;
            }
            int soError = 0;
            socklen_t len = sizeof(soError);
            getsockopt(fd, SOL_SOCKET, SO_ERROR, &soError, &len);
            rc = soError == 0 ? 0 : -1;
            errno = soError;
        }
        if (rc != 0) {
            lastError = std::strerror(errno);
            close(fd);
            continue;
        }
        // Blocking from here on, bounded by the time-outs.
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
        timeval tv{m_TimeoutMs / 1000, (m_TimeoutMs % 1000) * 1000};
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        // Chunks are sent as they come; a device plays what it gets without waiting.
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
        m_Fd = fd;
    }
    freeaddrinfo(addrs);
    if (m_Fd < 0) {
        error = "cannot connect: " + lastError;
        return false;
    }
    const bool v6 = m_strHost.find(':') != std::string::npos;
    std::string hostHeader = v6 ? "[" + m_strHost + "]" : m_strHost;
    if (m_Port != 80) hostHeader += ":" + std::to_string(m_Port);
    std::string head = "POST " + m_strPath + " HTTP/1.1\r\n"
                       "Host: " + hostHeader + "\r\n"
                       "User-Agent: twhost\r\n"
                       "Content-Type: " + m_strContentType + "\r\n"
                       "Transfer-Encoding: chunked\r\n"
                       "Connection: close\r\n";
    if (!m_strUserInfo.empty()) head += "Authorization: Basic " + Base64(m_strUserInfo) + "\r\n";
    head += "\r\n";
    if (!SendAll(head.data(), head.size(), error)) {
        error = "cannot send the request: " + error;
        CloseSocket();
        return false;
    }
    return true;
}

bool HttpAudioSink::SendAll(const char* data, size_t size, std::string& error) {
    size_t done = 0;
    while (done < size) {
        const ssize_t sent = send(m_Fd, data + done, size - done, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent < 0) {
            error = (errno == EAGAIN || errno == EWOULDBLOCK) ? std::string("send timed out")
                                                              : std::strerror(errno);
            return false;
        }
        done += static_cast<size_t>(sent);
    }
    return true;
}

bool HttpAudioSink::TakeHead(int& status) {
    const size_t end = m_strResponse.find("\r\n\r\n");
    if (end == std::string::npos) return false;
    const std::string line = m_strResponse.substr(0, m_strResponse.find("\r\n"));
    m_strResponse.erase(0, end + 4);
    status = 0;
    // "HTTP/1.1 200 OK"
    const size_t sp = line.find(' ');
    if (StartsWith(line, "HTTP/") && sp != std::string::npos && line.size() >= sp + 4) {
        const std::string code = line.substr(sp + 1, 3);
        if (code.find_first_not_of("0123456789") == std::string::npos) status = std::stoi(code);
    }
    return true;
}

bool HttpAudioSink::CheckServerQuiet(std::string& error) {
    for (;;) {
        pollfd p{m_Fd, POLLIN, 0};
        if (poll(&p, 1, 0) <= 0) return true;
        char buf[1024];
        const ssize_t got = recv(m_Fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (got < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
        if (got < 0) {
            error = std::string("connection lost: ") + std::strerror(errno);
            return false;
        }
        if (got == 0) {
            error = "the server closed the connection";
            return false;
        }
        m_strResponse.append(buf, static_cast<size_t>(got));
        int status = 0;
        while (TakeHead(status)) {
            if (status >= 100 && status < 200) continue;   // interim answers are fine
            m_LastStatus = status;
            error = "the server answered " + std::to_string(status) +
                    " before the end of the audio";
            return false;
        }
    }
}

bool HttpAudioSink::DoSend(const char* data, size_t size, std::string& error) {
    if (m_Fd < 0) {
        error = "the connection was lost";
        return false;
    }
    if (!CheckServerQuiet(error)) {
        CloseSocket();
        return false;
    }
    // Little-endian samples in, network order out; a sample cut by the caller waits in
    // the carry for its other bytes.
    m_Chunk.clear();
    size_t body = size;
    if (m_SampleBytes > 1) {
        std::vector<char> all(m_Carry);
        all.insert(all.end(), data, data + size);
        const size_t whole = all.size() / static_cast<size_t>(m_SampleBytes) *
                             static_cast<size_t>(m_SampleBytes);
        for (size_t i = 0; i < whole; i += static_cast<size_t>(m_SampleBytes))
            std::reverse(all.begin() + static_cast<long>(i),
                         all.begin() + static_cast<long>(i) + m_SampleBytes);
        m_Carry.assign(all.begin() + static_cast<long>(whole), all.end());
        body = whole;
        if (body == 0) return true;   // all of it waits in the carry
        char head[32];
        const int n = std::snprintf(head, sizeof(head), "%zx\r\n", body);
        m_Chunk.insert(m_Chunk.end(), head, head + n);
        m_Chunk.insert(m_Chunk.end(), all.begin(), all.begin() + static_cast<long>(whole));
    } else {
        char head[32];
        const int n = std::snprintf(head, sizeof(head), "%zx\r\n", body);
        m_Chunk.insert(m_Chunk.end(), head, head + n);
        m_Chunk.insert(m_Chunk.end(), data, data + size);
    }
    m_Chunk.push_back('\r');
    m_Chunk.push_back('\n');
    if (!SendAll(m_Chunk.data(), m_Chunk.size(), error)) {
        CloseSocket();
        return false;
    }
    return true;
}

bool HttpAudioSink::ReadStatus(int& status, std::string& error) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_TimeoutMs);
    for (;;) {
        while (TakeHead(status)) {
            if (status < 100 || status >= 200) return true;
        }
        if (m_strResponse.size() > 16384) {
            error = "the server's answer head is too long";
            return false;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now())
                              .count();
        pollfd p{m_Fd, POLLIN, 0};
        const int ready = left > 0 ? poll(&p, 1, static_cast<int>(left)) : 0;
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) {
            error = "no answer from the server within " + std::to_string(m_TimeoutMs) + " ms";
            return false;
        }
        char buf[1024];
        const ssize_t got = recv(m_Fd, buf, sizeof(buf), 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) {
            // A server may close right after its status line.
            if (m_strResponse.find("\r\n") != std::string::npos) {
                m_strResponse += "\r\n\r\n";
                continue;
            }
            error = got == 0 ? "the server closed the connection without an answer"
                             : std::string("connection lost: ") + std::strerror(errno);
            return false;
        }
        m_strResponse.append(buf, static_cast<size_t>(got));
    }
}

bool HttpAudioSink::DoDisconnect(std::string& error) {
    if (m_Fd < 0) {
        error = "the connection was lost before the end of the audio";
        return false;
    }
    // A partial sample left in the carry cannot be played; it is dropped.
    m_Carry.clear();
    static const char kLastChunk[] = "0\r\n\r\n";
    bool ok = SendAll(kLastChunk, sizeof(kLastChunk) - 1, error);
    if (!ok) error = "cannot end the request: " + error;
    int status = 0;
    if (ok && !ReadStatus(status, error)) ok = false;
    if (ok) {
        m_LastStatus = status;
        if (status < 200 || status >= 300) {
            error = "the server answered " + std::to_string(status);
            ok = false;
        }
    }
    CloseSocket();
    return ok;
}

// ---------------------------------------------------------------------------------------
// Memory

MemoryAudioSink::~MemoryAudioSink() { CloseOnDestruction(); }

bool MemoryAudioSink::DoConnect(std::string&) {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    m_ConnectionBytes.push_back(0);
    return true;
}

bool MemoryAudioSink::DoSend(const char* data, size_t size, std::string&) {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    m_Bytes.insert(m_Bytes.end(), data, data + size);
    m_ConnectionBytes.back() += static_cast<int64_t>(size);
    return true;
}

bool MemoryAudioSink::DoDisconnect(std::string&) { return true; }

std::vector<unsigned char> MemoryAudioSink::GetBytes() const {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    return m_Bytes;
}

std::vector<int64_t> MemoryAudioSink::GetConnectionBytes() const {
    std::lock_guard<std::mutex> lock(m_DataMutex);
    return m_ConnectionBytes;
}

// ---------------------------------------------------------------------------------------
// Addresses

bool ParseAudioSinkFaults(const std::string& options, AudioSinkFaults& faults,
                          std::string& error) {
    AudioSinkFaults out;
    std::stringstream list(options);
    std::string option;
    while (std::getline(list, option, ',')) {
        if (option.empty()) continue;
        const size_t eq = option.find('=');
        const std::string name = option.substr(0, eq);
        const std::string valueText = eq == std::string::npos ? "" : option.substr(eq + 1);
        int value = 0;
        const bool hasValue = eq != std::string::npos;
        if (hasValue && !ParseCount(valueText, value)) {
            error = "bad value in sink option '" + option + "' (a count 0 or more)";
            return false;
        }
        if (name == "refuse-connect") {
            out.refuseConnects = hasValue ? value : -1;
        } else if (name == "fail-send-after" && hasValue) {
            out.failSendAfter = value;
        } else if (name == "fail-sends" && hasValue) {
            out.failSends = value;
        } else {
            error = "unknown sink option '" + option +
                    "' (refuse-connect[=N], fail-send-after=N, fail-sends=M)";
            return false;
        }
    }
    if (out.failSends >= 0 && out.failSendAfter < 0) out.failSendAfter = 0;
    faults = out;
    return true;
}

std::shared_ptr<AudioSink> MakeAudioSink(const std::string& address,
                                         const CAM_CAP_AUDIO_OUT_FORMAT& format,
                                         std::string& error) {
    const size_t hash = address.find('#');
    const std::string target = address.substr(0, hash);
    AudioSinkFaults faults;
    if (hash != std::string::npos && !ParseAudioSinkFaults(address.substr(hash + 1), faults, error)) {
        error = "audio sink '" + address + "': " + error;
        return nullptr;
    }
    std::shared_ptr<AudioSink> sink;
    std::string why;
    if (StartsWith(target, "file:")) {
        const std::string path = target.substr(5);
        if (path.empty()) {
            why = "no file name";
        } else if (CheckFormat(format, why)) {
            sink = std::make_shared<WavFileAudioSink>(path, format);
        }
    } else if (Lower(target.substr(0, 7)) == "http://") {
        std::string host, path, userInfo;
        int port = 0;
        if (HttpAudioSink::ParseUrl(target, host, port, path, userInfo, why) &&
            !HttpAudioSink::ContentType(format, why).empty()) {
            sink = std::make_shared<HttpAudioSink>(target, format);
        }
    } else if (target == "memory:" || target == "memory") {
        sink = std::make_shared<MemoryAudioSink>();
    } else {
        why = "unknown kind (file:PATH, http://HOST:PORT/PATH or memory:)";
    }
    if (!sink) {
        error = "audio sink '" + address + "': " + why;
        return nullptr;
    }
    sink->SetFaults(faults);
    return sink;
}

}  // namespace tw::host
