// Audio sinks of the reference host: a WAV file, an HTTP endpoint, memory.
#include "twhost/audiosink.h"

#include <curl/curl.h>
#include <fcntl.h>
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

#include "twhost/version.h"
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

void AudioSink::CountConnectFailure() {
    std::lock_guard<std::mutex> lock(m_StateMutex);
    ++m_Counters.connectFailures;
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
        CountConnectFailure();
        return -1;
    }
    std::string error;
    if (!DoConnect(error)) {
        SetError(Describe() + ": " + error);
        CountConnectFailure();
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
        if (!ok) ++m_Counters.disconnectFailures;
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

std::string WavFileAudioSink::GetWriteError() const {
    std::lock_guard<std::mutex> lock(m_WriteErrorMutex);
    return m_strWriteError;
}

void WavFileAudioSink::NoteWriteError(const std::string& error) {
    std::lock_guard<std::mutex> lock(m_WriteErrorMutex);
    if (m_strWriteError.empty()) m_strWriteError = Describe() + ": " + error;
}

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
        NoteWriteError(error);
        // Whatever part went out is not audio the caller was told about: it is cut off, so
        // that the file stays a WAV whose header counts all of its audio.
        std::clearerr(m_pFile);
        const int64_t end = static_cast<int64_t>(m_HeaderBytes) + m_DataBytes.load();
        std::fseek(m_pFile, static_cast<long>(end), SEEK_SET);
        if (ftruncate(fileno(m_pFile), static_cast<off_t>(end)) != 0) {
            // A device such as /dev/full cannot be cut; it holds no file to keep valid.
        }
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
    if (!ok) NoteWriteError(error);
    return ok;
}

// ---------------------------------------------------------------------------------------
// HTTP, through libcurl

namespace {

std::once_flag g_CurlInitOnce;

// libcurl's URL parser, released with the handle.
struct UrlHandle {
    CURLU* h = curl_url();
    ~UrlHandle() { curl_url_cleanup(h); }
    std::string Get(CURLUPart part, unsigned flags = 0) const {
        char* text = nullptr;
        if (curl_url_get(h, part, &text, flags) != CURLUE_OK || text == nullptr) return "";
        std::string out(text);
        curl_free(text);
        return out;
    }
};

}  // namespace

// One POST on its way: libcurl drives it through a multi handle, which lets SendData hand a
// chunk over and come back as soon as libcurl has taken it, instead of libcurl pulling the
// whole body in one blocking call. The read callback pauses the upload whenever it has
// nothing to give.
struct HttpAudioSink::Transfer {
    CURL* easy = nullptr;
    CURLM* multi = nullptr;
    curl_slist* headers = nullptr;
    char errorBuffer[CURL_ERROR_SIZE] = {};
    bool attached = false;   // the easy handle is in the multi handle
    // The body: what SendData handed over and how much of it libcurl took.
    std::vector<char> pending;
    size_t taken = 0;
    bool handedOut = false;  // libcurl took some of the body of this request
    bool end = false;        // Disconnect: no more body, send the last chunk
    bool asked = false;      // libcurl asked for body (the request head is out)
    bool paused = false;     // ... and found none: the upload is paused
    bool done = false;       // the request is over (answer, failure or close)
    curl_socket_t socket = CURL_SOCKET_BAD;
    CURLcode result = CURLE_OK;

    static size_t Read(char* buffer, size_t size, size_t count, void* user) {
        auto* t = static_cast<Transfer*>(user);
        t->asked = true;
        const size_t room = size * count;
        if (t->taken < t->pending.size()) {
            const size_t n = std::min(room, t->pending.size() - t->taken);
            std::memcpy(buffer, t->pending.data() + t->taken, n);
            t->taken += n;
            t->handedOut = true;
            t->paused = false;
            return n;
        }
        if (t->end) return 0;
        t->paused = true;
        return CURL_READFUNC_PAUSE;
    }
    // A request that libcurl repeats (to answer an authentication challenge) may start its
    // body again only while none of it went out.
    static int Seek(void* user, curl_off_t offset, int origin) {
        auto* t = static_cast<Transfer*>(user);
        if (offset == 0 && origin == SEEK_SET && !t->handedOut) return CURL_SEEKFUNC_OK;
        return CURL_SEEKFUNC_CANTSEEK;
    }
    // The socket of the request, as libcurl opens and closes it.
    static int SocketOpened(void* user, curl_socket_t fd, curlsocktype purpose) {
        if (purpose == CURLSOCKTYPE_IPCXN) static_cast<Transfer*>(user)->socket = fd;
        return CURL_SOCKOPT_OK;
    }
    static int CloseSocket(void* user, curl_socket_t fd) {
        auto* t = static_cast<Transfer*>(user);
        if (t->socket == fd) t->socket = CURL_SOCKET_BAD;
        return close(fd);
    }
    // The answer's body means nothing to an audio sink.
    static size_t Discard(char*, size_t size, size_t count, void*) { return size * count; }

    ~Transfer() {
        Detach();
        if (multi) curl_multi_cleanup(multi);
        if (easy) curl_easy_cleanup(easy);
        curl_slist_free_all(headers);
    }
    void Detach() {
        if (attached) curl_multi_remove_handle(multi, easy);
        attached = false;
    }
    // Runs libcurl until pred holds, the request ends or the deadline passes; true when
    // pred holds.
    template <typename Pred>
    bool Drive(Pred pred, std::chrono::steady_clock::time_point deadline) {
        for (;;) {
            int running = 0;
            curl_multi_perform(multi, &running);
            int queued = 0;
            while (CURLMsg* msg = curl_multi_info_read(multi, &queued)) {
                if (msg->msg == CURLMSG_DONE) {
                    done = true;
                    result = msg->data.result;
                }
            }
            if (pred()) return true;
            if (done) return false;
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                                  deadline - std::chrono::steady_clock::now()).count();
            if (left <= 0) return false;
            curl_multi_poll(multi, nullptr, 0, static_cast<int>(std::min<long long>(left, 100)), nullptr);
        }
    }
    long Status() const {
        long code = 0;
        curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &code);
        return code;
    }
    // libcurl's own words for a failure, with the system's reason when it has one.
    std::string Why() const {
        std::string why = errorBuffer[0] ? errorBuffer : curl_easy_strerror(result);
        long osErrno = 0;
        if (curl_easy_getinfo(easy, CURLINFO_OS_ERRNO, &osErrno) == CURLE_OK && osErrno != 0) {
            const std::string sys = std::strerror(static_cast<int>(osErrno));
            if (why.find(sys) == std::string::npos) why += " (" + sys + ")";
        }
        return why;
    }
    // Whether the server has closed its side while the body is still on its way; libcurl
    // notices that only when it next writes.
    bool PeerClosed() const {
        if (socket == CURL_SOCKET_BAD) return false;
        const curl_socket_t fd = socket;
        pollfd p{fd, POLLIN | POLLRDHUP, 0};
        if (poll(&p, 1, 0) <= 0) return false;
        if (p.revents & (POLLRDHUP | POLLHUP | POLLERR)) return true;
        char byte = 0;
        return recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT) == 0;
    }
};

bool HttpAudioSink::ParseUrl(const std::string& url, std::string& host, int& port,
                             std::string& path, std::string& userInfo, std::string& error) {
    UrlHandle u;
    if (u.h == nullptr) {
        error = "out of memory";
        return false;
    }
    const CURLUcode rc = curl_url_set(u.h, CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME);
    if (rc != CURLUE_OK) {
        switch (rc) {
        case CURLUE_NO_HOST: error = "'" + url + "' has no host"; break;
        case CURLUE_BAD_PORT_NUMBER: error = "'" + url + "' has a bad port (1 to 65535)"; break;
        default: error = "'" + url + "' is not a valid URL: " + curl_url_strerror(rc); break;
        }
        return false;
    }
    const std::string scheme = u.Get(CURLUPART_SCHEME);
    if (scheme != "http" && scheme != "https") {
        error = "'" + url + "' is not an http:// or https:// URL";
        return false;
    }
    host = u.Get(CURLUPART_HOST);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
    if (host.empty()) {
        error = "'" + url + "' has no host";
        return false;
    }
    port = std::atoi(u.Get(CURLUPART_PORT, CURLU_DEFAULT_PORT).c_str());
    if (port < 1 || port > 65535) {
        error = "'" + url + "' has a bad port (1 to 65535)";
        return false;
    }
    path = u.Get(CURLUPART_PATH);
    if (path.empty()) path = "/";
    const std::string query = u.Get(CURLUPART_QUERY);
    if (!query.empty()) path += "?" + query;
    // "user:password" as written in the URL, or "user", or empty.
    userInfo = u.Get(CURLUPART_USER);
    char* password = nullptr;
    if (curl_url_get(u.h, CURLUPART_PASSWORD, &password, 0) == CURLUE_OK && password != nullptr) {
        userInfo += ":" + std::string(password);
        curl_free(password);
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

HttpAudioSink::HttpAudioSink(const std::string& url, const CAM_CAP_AUDIO_OUT_FORMAT& format) {
    std::call_once(g_CurlInitOnce, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    std::string error;
    m_strContentType = ContentType(format, error);
    if (ParseAudioCodec(format.strCodec) == AudioCodec::Pcm && format.bitsPerSample > 8)
        m_SampleBytes = format.bitsPerSample / 8;
    // What goes on the wire: the URL without its credentials (libcurl sends those as the
    // server asks for them) and without a fragment.
    UrlHandle u;
    if (u.h != nullptr && curl_url_set(u.h, CURLUPART_URL, url.c_str(), 0) == CURLUE_OK) {
        m_strUser = u.Get(CURLUPART_USER, CURLU_URLDECODE);
        m_strPassword = u.Get(CURLUPART_PASSWORD, CURLU_URLDECODE);
        m_blCredentials = !m_strUser.empty() || !m_strPassword.empty();
        curl_url_set(u.h, CURLUPART_USER, nullptr, 0);
        curl_url_set(u.h, CURLUPART_PASSWORD, nullptr, 0);
        curl_url_set(u.h, CURLUPART_FRAGMENT, nullptr, 0);
        m_strWireUrl = u.Get(CURLUPART_URL);
        std::string host = u.Get(CURLUPART_HOST);
        m_strShown = u.Get(CURLUPART_SCHEME) + "://" + host + ":" +
                     u.Get(CURLUPART_PORT, CURLU_DEFAULT_PORT) + u.Get(CURLUPART_PATH);
        const std::string query = u.Get(CURLUPART_QUERY);
        if (!query.empty()) m_strShown += "?" + query;
    } else {
        m_strWireUrl = url;
        m_strShown = url;
    }
}

HttpAudioSink::~HttpAudioSink() { CloseOnDestruction(); }

std::string HttpAudioSink::Describe() const {
    // The credentials stay out of messages.
    return "HTTP sink " + m_strShown;
}

void HttpAudioSink::SetCaFile(const std::string& path) {
    std::lock_guard<std::mutex> lock(m_ConfigMutex);
    m_strCaFile = path;
}

bool HttpAudioSink::Start(std::string& error) {
    m_pTransfer.reset();
    auto t = std::make_unique<Transfer>();
    t->easy = curl_easy_init();
    t->multi = curl_multi_init();
    if (t->easy == nullptr || t->multi == nullptr) {
        error = "cannot set up libcurl";
        return false;
    }
    CURL* e = t->easy;
    std::string caFile;
    {
        std::lock_guard<std::mutex> lock(m_ConfigMutex);
        caFile = m_strCaFile;
    }
    t->headers = curl_slist_append(t->headers, ("Content-Type: " + m_strContentType).c_str());
    t->headers = curl_slist_append(t->headers, "Transfer-Encoding: chunked");
    t->headers = curl_slist_append(t->headers, "Connection: close");
    // With credentials the head goes first and the body only once the server has accepted
    // it, so that a server asking for Digest (or refusing) says so before any audio is
    // spent. Without, nothing is to be negotiated and the audio follows at once.
    if (!m_blCredentials) t->headers = curl_slist_append(t->headers, "Expect:");
    else t->headers = curl_slist_append(t->headers, "Expect: 100-continue");
    curl_easy_setopt(e, CURLOPT_URL, m_strWireUrl.c_str());
    curl_easy_setopt(e, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(e, CURLOPT_HTTP_VERSION, CURL_HTTP_VERSION_1_1);
    curl_easy_setopt(e, CURLOPT_POST, 1L);
    curl_easy_setopt(e, CURLOPT_HTTPHEADER, t->headers);
    curl_easy_setopt(e, CURLOPT_USERAGENT, "twhost/" TW_VERSION);
    curl_easy_setopt(e, CURLOPT_READFUNCTION, &Transfer::Read);
    curl_easy_setopt(e, CURLOPT_READDATA, t.get());
    curl_easy_setopt(e, CURLOPT_SEEKFUNCTION, &Transfer::Seek);
    curl_easy_setopt(e, CURLOPT_SEEKDATA, t.get());
    curl_easy_setopt(e, CURLOPT_WRITEFUNCTION, &Transfer::Discard);
    curl_easy_setopt(e, CURLOPT_SOCKOPTFUNCTION, &Transfer::SocketOpened);
    curl_easy_setopt(e, CURLOPT_SOCKOPTDATA, t.get());
    curl_easy_setopt(e, CURLOPT_CLOSESOCKETFUNCTION, &Transfer::CloseSocket);
    curl_easy_setopt(e, CURLOPT_CLOSESOCKETDATA, t.get());
    curl_easy_setopt(e, CURLOPT_ERRORBUFFER, t->errorBuffer);
    curl_easy_setopt(e, CURLOPT_NOSIGNAL, 1L);
    // Chunks go out as they come; a device plays what it gets without waiting.
    curl_easy_setopt(e, CURLOPT_TCP_NODELAY, 1L);
    curl_easy_setopt(e, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_TimeoutMs));
    curl_easy_setopt(e, CURLOPT_EXPECT_100_TIMEOUT_MS, static_cast<long>(std::min(m_TimeoutMs, 1000)));
    if (!caFile.empty()) curl_easy_setopt(e, CURLOPT_CAINFO, caFile.c_str());
    if (m_blCredentials) {
        curl_easy_setopt(e, CURLOPT_USERNAME, m_strUser.c_str());
        curl_easy_setopt(e, CURLOPT_PASSWORD, m_strPassword.c_str());
        // Basic goes with the first request, as most devices take it; a server that asks
        // for Digest gets Digest from then on.
        curl_easy_setopt(e, CURLOPT_HTTPAUTH, m_blDigest ? CURLAUTH_DIGEST : CURLAUTH_BASIC);
    }
    if (curl_multi_add_handle(t->multi, e) != CURLM_OK) {
        error = "cannot set up libcurl";
        return false;
    }
    t->attached = true;
    m_pTransfer = std::move(t);
    return true;
}

bool HttpAudioSink::DoConnect(std::string& error) {
    m_Carry.clear();
    for (int attempt = 0;; ++attempt) {
        if (!Start(error)) return false;
        Transfer& t = *m_pTransfer;
        // Connected once libcurl wants the body: the request head is out (and, with
        // credentials, accepted).
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_TimeoutMs) +
                              std::chrono::milliseconds(std::min(m_TimeoutMs, 1000));
        if (t.Drive([&] { return t.asked; }, deadline)) return true;
        if (!t.done) {
            error = "no answer from the server within " + std::to_string(m_TimeoutMs) + " ms";
        } else if (t.result == CURLE_COULDNT_CONNECT || t.result == CURLE_COULDNT_RESOLVE_HOST ||
                   t.result == CURLE_OPERATION_TIMEDOUT) {
            error = "cannot connect: " + t.Why();
        } else if (t.result != CURLE_OK) {
            error = t.Why();
        } else if (!m_blCredentials) {
            // The head went out and the server has answered already; as with any server
            // that answers before the end of the body, the next send tells.
            return true;
        } else {
            const long status = t.Status();
            m_LastStatus = static_cast<int>(status);
            long offered = 0;
            curl_easy_getinfo(t.easy, CURLINFO_HTTPAUTH_AVAIL, &offered);
            if (status == 401 && m_blCredentials && !m_blDigest && (offered & CURLAUTH_DIGEST) && attempt == 0) {
                m_blDigest = true;
                continue;
            }
            error = status == 401 && m_blCredentials
                        ? "the server refused the credentials (401)"
                        : "the server answered " + std::to_string(status) + " before the audio";
        }
        m_pTransfer.reset();
        return false;
    }
}

bool HttpAudioSink::Fail(const std::string& what, std::string& error) {
    Transfer& t = *m_pTransfer;
    if (t.done && t.result == CURLE_OK) {
        m_LastStatus = static_cast<int>(t.Status());
        error = "the server answered " + std::to_string(m_LastStatus.load()) + " " + what;
    } else if (t.done && t.result != CURLE_OK) {
        error = t.result == CURLE_SEND_ERROR || t.result == CURLE_RECV_ERROR || t.result == CURLE_GOT_NOTHING
                    ? "the server closed the connection: " + t.Why()
                    : t.Why();
    } else {
        error = "the server closed the connection";
    }
    m_pTransfer.reset();
    return false;
}

bool HttpAudioSink::DoSend(const char* data, size_t size, std::string& error) {
    if (!m_pTransfer) {
        error = "the connection was lost";
        return false;
    }
    Transfer& t = *m_pTransfer;
    // Whatever the server said or did since the last send comes first.
    t.Drive([] { return false; }, std::chrono::steady_clock::now());
    if (t.done || t.PeerClosed()) return Fail("before the end of the audio", error);
    // Little-endian samples in, network order out; a sample cut by the caller waits in
    // the carry for its other bytes.
    t.pending.clear();
    t.taken = 0;
    if (m_SampleBytes > 1) {
        std::vector<char> all(m_Carry);
        all.insert(all.end(), data, data + size);
        const size_t sample = static_cast<size_t>(m_SampleBytes);
        const size_t whole = all.size() / sample * sample;
        for (size_t i = 0; i < whole; i += sample)
            std::reverse(all.begin() + static_cast<long>(i), all.begin() + static_cast<long>(i + sample));
        m_Carry.assign(all.begin() + static_cast<long>(whole), all.end());
        all.resize(whole);
        t.pending.swap(all);
    } else {
        t.pending.assign(data, data + size);
    }
    if (t.pending.empty()) return true;   // all of it waits in the carry
    // Sent once libcurl has taken all of it and come back for more.
    t.paused = false;
    curl_easy_pause(t.easy, CURLPAUSE_CONT);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_TimeoutMs);
    if (t.Drive([&] { return t.taken == t.pending.size() && t.paused; }, deadline)) return true;
    if (t.done) return Fail("before the end of the audio", error);
    error = "the server took no audio within " + std::to_string(m_TimeoutMs) + " ms";
    m_pTransfer.reset();
    return false;
}

bool HttpAudioSink::DoDisconnect(std::string& error) {
    // A partial sample left in the carry cannot be played; it is dropped.
    m_Carry.clear();
    if (!m_pTransfer) {
        error = "the connection was lost before the end of the audio";
        return false;
    }
    Transfer& t = *m_pTransfer;
    t.pending.clear();
    t.taken = 0;
    t.end = true;
    curl_easy_pause(t.easy, CURLPAUSE_CONT);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(m_TimeoutMs);
    t.Drive([] { return false; }, deadline);
    bool ok = true;
    if (!t.done) {
        error = "no answer from the server within " + std::to_string(m_TimeoutMs) + " ms";
        ok = false;
    } else if (t.result != CURLE_OK) {
        error = t.result == CURLE_GOT_NOTHING || t.result == CURLE_RECV_ERROR
                    ? "the server closed the connection without an answer: " + t.Why()
                    : t.Why();
        ok = false;
    } else {
        m_LastStatus = static_cast<int>(t.Status());
        if (m_LastStatus < 200 || m_LastStatus >= 300) {
            error = "the server answered " + std::to_string(m_LastStatus.load());
            ok = false;
        }
    }
    m_pTransfer.reset();
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
    } else if (Lower(target.substr(0, 7)) == "http://" || Lower(target.substr(0, 8)) == "https://") {
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
