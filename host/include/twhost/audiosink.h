// Audio sinks: where the reference host sends the audio that the plug-in streams to a
// device through the device API handler's AudioOutConnect / AudioOutSendData /
// AudioOutDisconnect records.
//
// A device's sink is described by its sink address (see twhost/devices.h):
//
//   file:PATH                    a WAV file (WavFileAudioSink)
//   http://[USER:PASS@]HOST[:PORT]/PATH
//   https://[USER:PASS@]HOST[:PORT]/PATH
//                                an HTTP endpoint as IP cameras and speakers take audio
//                                (HttpAudioSink, through libcurl)
//   memory:                      keeps the bytes in memory (MemoryAudioSink), for tests
//
// followed optionally by "#" and fault options separated by commas. The fragment never
// goes on the wire, so an HTTP URL keeps its own query string:
//
//   refuse-connect               every Connect fails
//   refuse-connect=N             the first N Connects fail, later ones work
//   fail-send-after=N            once N sends have succeeded, sends fail ...
//   fail-sends=M                 ... M of them (default: all), then work again; alone,
//                                the first M sends fail
//
// e.g. "file:/tmp/out.wav#fail-send-after=4,fail-sends=2". The same faults can be set on
// a sink object with SetFaults. A fault is a failure like any other: the sink's counters
// and last error show it.
//
// Codec names of CAM_CAP_AUDIO_OUT_FORMAT (case does not matter): "PCM" or "LPCM" for
// linear PCM (8-bit unsigned, or 16/24/32-bit signed little-endian, as WAV stores it),
// "G711U" or "PCMU" for G.711 mu-law, "G711A" or "PCMA" for G.711 A-law (8 bits per
// sample). The file and HTTP sinks refuse other codecs when they are made.
//
// Every sink serialises its operations; the counters and the last error may be read from
// any thread at any time.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tw/audio.h"

namespace tw::host {

struct AudioSinkCounters {
    int connectAttempts = 0;      // Connect calls
    int connects = 0;             // ... that succeeded
    int disconnectCalls = 0;      // Disconnect calls
    int disconnects = 0;          // connections closed (by Disconnect, or by a Connect
                                  // while still connected)
    int sendCalls = 0;            // SendData calls
    int sends = 0;                // ... that sent (accepted) at least one byte
    int64_t bytes = 0;            // bytes accepted by successful sends
    int disconnectFailures = 0;   // connections whose close failed: the end of the audio
                                  // was not confirmed (no answer, a full disk)
    int connectFailures = 0;      // Connect calls that failed; attempts - connects also
                                  // counts a connect still under way on another thread
};

struct AudioSinkFaults {
    int refuseConnects = 0;       // -1: every connect; N > 0: the first N
    int failSendAfter = -1;       // -1: never; N >= 0: after N successful sends
    int failSends = -1;           // how many sends fail from then on; -1: all
};

// The codec families the sinks know.
enum class AudioCodec { Unknown, Pcm, MuLaw, ALaw };
AudioCodec ParseAudioCodec(const std::string& name);

class AudioSink {
public:
    virtual ~AudioSink();
    AudioSink(const AudioSink&) = delete;
    AudioSink& operator=(const AudioSink&) = delete;

    // Opens the connection (closing one that is still open first); 0 or -1.
    int Connect();
    // Sends len bytes; len becomes the count accepted, 0 on failure or when len <= 0
    // (nothing to send). Returns 0 when bytes were accepted, -1 otherwise.
    int SendData(const char* data, int& len);
    // Closes the connection; 0, or -1 when the device reported a failure on closing.
    // Without an open connection there is nothing to do and the result is 0.
    int Disconnect();

    // Replaces the faults; "after N sends" counts the sends from this call on.
    void SetFaults(const AudioSinkFaults& faults);
    AudioSinkCounters GetCounters() const;
    std::string GetLastError() const;
    bool IsConnected() const;
    // Kind and target, e.g. "WAV file '/tmp/a.wav'".
    virtual std::string Describe() const = 0;

protected:
    AudioSink() = default;
    virtual bool DoConnect(std::string& error) = 0;
    // Accepts size bytes (size > 0) or fails.
    virtual bool DoSend(const char* data, size_t size, std::string& error) = 0;
    // Closes what DoConnect opened; false with error when closing showed a failure.
    virtual bool DoDisconnect(std::string& error) = 0;
    // For destructors of derived sinks: close an open connection, ignoring failures.
    void CloseOnDestruction();

private:
    void SetError(const std::string& error);
    // Counted after SetError, so that whoever sees the failure also finds its text.
    void CountConnectFailure();

    mutable std::mutex m_IoMutex;       // one operation at a time
    mutable std::mutex m_StateMutex;    // counters, faults, error, connected flag
    AudioSinkCounters m_Counters;
    AudioSinkFaults m_Faults;
    int m_FailedSends = 0;              // sends failed by the fault so far
    bool m_blConnected = false;
    std::string m_strLastError;
};

// Writes a WAV file of the device's format. The first Connect creates (truncates) the file
// and writes the header; SendData appends exactly the bytes given; Disconnect writes the
// RIFF, fact and data sizes (and a pad byte after an odd data size) and closes, so the file
// is a valid WAV after every Disconnect. Later Connects of the same sink reopen the file and
// append to its data: a device that the plug-in reconnects after failures gets one file of
// all the audio it accepted, not just the last connection's.
class WavFileAudioSink : public AudioSink {
public:
    WavFileAudioSink(std::string path, const CAM_CAP_AUDIO_OUT_FORMAT& format);
    ~WavFileAudioSink() override;
    std::string Describe() const override;
    const std::string& GetPath() const { return m_strPath; }
    // Sample bytes in the file so far.
    int64_t GetDataBytes() const;
    // The first write to the file that failed (a full disk, a quota), with the sink's
    // description; empty while every write went through. Retrying does not make a disk
    // writable, so a caller may end the output at once.
    std::string GetWriteError() const;

protected:
    bool DoConnect(std::string& error) override;
    bool DoSend(const char* data, size_t size, std::string& error) override;
    bool DoDisconnect(std::string& error) override;

private:
    bool WriteHeader(std::string& error);
    void NoteWriteError(const std::string& error);

    std::string m_strPath;
    CAM_CAP_AUDIO_OUT_FORMAT m_Format;
    uint16_t m_FormatTag;
    FILE* m_pFile = nullptr;
    bool m_blCreated = false;
    size_t m_HeaderBytes = 0;
    std::atomic<int64_t> m_DataBytes{0};
    mutable std::mutex m_WriteErrorMutex;
    std::string m_strWriteError;
};

// Sends audio to an HTTP or HTTPS endpoint in one POST per connection, with
// "Transfer-Encoding: chunked", through libcurl: Connect opens the connection and sends the
// request head, SendData sends one chunk, Disconnect sends the last chunk and waits for the
// server's status (2xx is success). Content types: "audio/L8", "audio/L16" or "audio/L24"
// with ";rate=R;channels=C" for PCM, "audio/PCMU" and "audio/PCMA" (same parameters) for
// G.711. L16 and L24 are big-endian on the wire: the sink turns the little-endian samples
// it is given around, carrying a sample split between two sends over to the next one.
//
// Credentials in the URL go out as Basic authentication with the request head, which then
// waits for the server's "100 Continue" (at most a second) before the audio; a server that
// answers with a Digest challenge instead gets Digest, at once and on every later
// connection. HTTPS checks the server's certificate against the system's CAs, or the file
// given with SetCaFile.
//
// Connecting (libcurl's connect time-out), handing over a chunk and waiting for the status
// each give up after the time-out (3 s unless set). A server that answers or closes before
// the end of the body fails the next send. The last error is libcurl's message where it
// has one ("Failed to connect to 127.0.0.1 port 1 ...: Connection refused").
class HttpAudioSink : public AudioSink {
public:
    // url: "http[s]://[USER:PASS@]HOST[:PORT]/PATH"; false with error for anything else.
    static bool ParseUrl(const std::string& url, std::string& host, int& port,
                         std::string& path, std::string& userInfo, std::string& error);
    // The Content-Type for a format; empty with error when the sink cannot carry it.
    static std::string ContentType(const CAM_CAP_AUDIO_OUT_FORMAT& format, std::string& error);

    // The URL must have been checked with ParseUrl and the format with ContentType.
    HttpAudioSink(const std::string& url, const CAM_CAP_AUDIO_OUT_FORMAT& format);
    ~HttpAudioSink() override;
    std::string Describe() const override;
    // Set before Connect.
    void SetTimeoutMs(int timeoutMs) { m_TimeoutMs = timeoutMs; }
    // PEM file of the CAs that an HTTPS server's certificate must chain to (default: the
    // system's).
    void SetCaFile(const std::string& path);
    // Status code of the last finished request; 0 before the first.
    int GetLastStatus() const { return m_LastStatus.load(); }
    // Whether the server asked for Digest authentication (and gets it).
    bool UsesDigest() const { return m_blDigest.load(); }

protected:
    bool DoConnect(std::string& error) override;
    bool DoSend(const char* data, size_t size, std::string& error) override;
    bool DoDisconnect(std::string& error) override;

private:
    struct Transfer;
    // A new request, up to libcurl's taking it over.
    bool Start(std::string& error);
    // The request ended early: error says how, and the request is dropped.
    bool Fail(const std::string& what, std::string& error);

    std::string m_strWireUrl;           // without credentials and fragment
    std::string m_strShown;             // for messages
    std::string m_strUser;
    std::string m_strPassword;
    bool m_blCredentials = false;
    std::atomic<bool> m_blDigest{false};
    std::string m_strContentType;
    int m_SampleBytes = 1;              // bytes turned around per sample (1: none)
    int m_TimeoutMs = 3000;
    std::mutex m_ConfigMutex;
    std::string m_strCaFile;
    std::vector<char> m_Carry;          // start of a sample split by the caller
    std::unique_ptr<Transfer> m_pTransfer;
    std::atomic<int> m_LastStatus{0};
};

// Keeps every byte it accepts, in order, and the byte count of each connection.
class MemoryAudioSink : public AudioSink {
public:
    MemoryAudioSink() = default;
    ~MemoryAudioSink() override;
    std::string Describe() const override { return "memory sink"; }
    std::vector<unsigned char> GetBytes() const;
    // Bytes accepted per connection, in order of the connections.
    std::vector<int64_t> GetConnectionBytes() const;

protected:
    bool DoConnect(std::string& error) override;
    bool DoSend(const char* data, size_t size, std::string& error) override;
    bool DoDisconnect(std::string& error) override;

private:
    mutable std::mutex m_DataMutex;
    std::vector<unsigned char> m_Bytes;
    std::vector<int64_t> m_ConnectionBytes;
};

// Makes the sink of an address for a device of format. Null with error naming the address (or
// the option, or the codec) when it is not usable.
std::shared_ptr<AudioSink> MakeAudioSink(const std::string& address,
                                         const CAM_CAP_AUDIO_OUT_FORMAT& format,
                                         std::string& error);

// The fault options of an address's fragment ("refuse-connect=2,fail-send-after=3").
bool ParseAudioSinkFaults(const std::string& options, AudioSinkFaults& faults,
                          std::string& error);

}  // namespace tw::host
