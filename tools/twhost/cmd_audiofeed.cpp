// "twhost audiofeed": plays the part of the recorder's audio input. It creates the
// shared-memory audio-out FIFO of one device and fills it in real time, from the data chunk
// of a WAV file or from raw bytes on standard input, until the source ends or SIGINT /
// SIGTERM; an audio-out streamer of the plug-in (in another process) reads the FIFO and
// sends the audio to the device. The FIFO is removed at the end.
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <json/json.h>

#include "cliutil.h"
#include "commands.h"
#include "stopsignals.h"
#include "twhost/audiofifo.h"
#include "twhost/wavfile.h"

namespace tw::host {
namespace {

const char* const kCmd = "twhost audiofeed";

struct AudioFeedOptions {
    std::string m_strSource;
    int m_DevId = -1;
    bool m_blSpeaker = false;
    int m_ByteRate = 0;   // 0: from the WAV header
    bool m_blJson = false;
};

std::string Seconds(double sec) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f", sec);
    return text;
}

std::string KeyText(key_t key) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%08x", static_cast<unsigned>(key));
    return text;
}

const char* TagName(uint16_t tag) {
    switch (tag) {
    case WAV_FORMAT_PCM: return "PCM";
    case WAV_FORMAT_MULAW: return "G.711 mu-law";
    case WAV_FORMAT_ALAW: return "G.711 A-law";
    default: return "format";
    }
}

// Where the bytes come from: a WAV file's data chunk, or standard input.
class FeedSource {
public:
    ~FeedSource() {
        if (m_pFile != nullptr) std::fclose(m_pFile);
    }

    // 0, or the exit status of a failure (message printed).
    int Open(const AudioFeedOptions& options) {
        if (options.m_strSource == "-") {
            m_blStdin = true;
            if (options.m_ByteRate <= 0) {
                std::fprintf(stderr, "%s: raw input from standard input needs --byte-rate\n", kCmd);
                return 2;
            }
            m_ByteRate = options.m_ByteRate;
            m_Align = 1;
            m_strDescription = "standard input (raw)";
            return 0;
        }
        WavInfo info;
        std::string error;
        if (!ReadWavInfo(options.m_strSource, info, error)) {
            std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return 1;
        }
        m_ByteRate = options.m_ByteRate > 0 ? options.m_ByteRate
                                            : static_cast<int>(std::min<uint32_t>(info.byteRate, 1u << 30));
        if (m_ByteRate <= 0) {
            std::fprintf(stderr, "%s: '%s' declares a byte rate of 0; give --byte-rate\n", kCmd,
                         options.m_strSource.c_str());
            return 1;
        }
        m_pFile = std::fopen(options.m_strSource.c_str(), "rb");
        if (m_pFile == nullptr ||
            std::fseek(m_pFile, static_cast<long>(info.dataOffset), SEEK_SET) != 0) {
            std::fprintf(stderr, "%s: cannot read '%s': %s\n", kCmd, options.m_strSource.c_str(),
                         std::strerror(errno));
            return 1;
        }
        m_Remaining = info.dataBytes;
        m_Align = info.blockAlign > 0 ? info.blockAlign : 1;
        char text[160];
        std::snprintf(text, sizeof(text), "'%s' (%s, %u Hz, %u-bit, %u ch, %s s)",
                      options.m_strSource.c_str(), TagName(info.formatTag), info.sampleRate,
                      info.bitsPerSample, info.channels,
                      Seconds(static_cast<double>(info.dataBytes) / m_ByteRate).c_str());
        m_strDescription = text;
        return 0;
    }

    int GetByteRate() const { return m_ByteRate; }
    size_t GetAlign() const { return m_Align; }
    bool IsStdin() const { return m_blStdin; }
    const std::string& Describe() const { return m_strDescription; }

    // Up to size bytes; 0 at the end, -1 on a read error (errno set).
    ssize_t Read(unsigned char* buf, size_t size) {
        if (m_blStdin) {
            ssize_t got = 0;
            do {
                got = read(STDIN_FILENO, buf, size);
            } while (got < 0 && errno == EINTR);
            return got;
        }
        const size_t want = static_cast<size_t>(std::min<int64_t>(m_Remaining, static_cast<int64_t>(size)));
        if (want == 0) return 0;
        const size_t got = std::fread(buf, 1, want, m_pFile);
        if (got == 0 && std::ferror(m_pFile)) return -1;
        m_Remaining = got == 0 ? 0 : m_Remaining - static_cast<int64_t>(got);
        return static_cast<ssize_t>(got);
    }

private:
    bool m_blStdin = false;
    FILE* m_pFile = nullptr;
    int64_t m_Remaining = 0;
    int m_ByteRate = 0;
    size_t m_Align = 1;
    std::string m_strDescription;
};

using SteadyClock = std::chrono::steady_clock;

// Waits until when, or for a stop signal (returned), or, with waitInput, for standard input
// to become readable (returns 0 then too).
int WaitFor(StopSignals& signals, SteadyClock::time_point when, bool waitInput) {
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(when - SteadyClock::now());
        const int timeout = waitInput ? -1 : static_cast<int>(std::max<int64_t>(0, left.count()));
        if (!waitInput && left.count() <= 0) return 0;
        pollfd fds[2] = {{signals.GetFd(), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        const int ready = poll(fds, waitInput ? 2 : 1, timeout);
        if (ready < 0 && errno != EINTR) return 0;
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            const int sig = signals.Take();
            if (sig != 0) return sig;
        }
        if (waitInput && ready > 0 && fds[1].revents != 0) return 0;
    }
}

int RunAudioFeed(const AudioFeedOptions& options) {
    twcli::Out& out = twcli::Out::Get();
    out.SetJson(options.m_blJson);
    FeedSource source;
    const int openResult = source.Open(options);
    if (openResult != 0) return openResult;

    StopSignals signals;
    if (!signals.Ok()) {
        std::fprintf(stderr, "%s: cannot watch for signals: %s\n", kCmd, std::strerror(errno));
        return 1;
    }
    AudioOutFifoWriter writer(options.m_DevId, options.m_blSpeaker);
    std::string error;
    if (!writer.Open(error)) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return 1;
    }
    const int byteRate = source.GetByteRate();
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("start", 0.0);
        v["source"] = source.Describe();
        v["byteRate"] = byteRate;
        v["fifo"] = writer.Describe();
        v["key"] = KeyText(writer.GetKey());
        out.Emit(v);
    } else {
        out.Textf("%s: feeding %s at %d bytes/s into the %s, shared-memory key %s", kCmd, source.Describe().c_str(),
                  byteRate, writer.Describe().c_str(), KeyText(writer.GetKey()).c_str());
    }

    // Blocks of about 20 ms, whole sample frames, written when they are due in real time.
    size_t block = std::max<size_t>(1, static_cast<size_t>(byteRate) / 50);
    block = std::max(source.GetAlign(), block / source.GetAlign() * source.GetAlign());
    std::vector<unsigned char> buf(block);
    const auto start = SteadyClock::now();
    uint64_t fed = 0;
    uint64_t reportedSec = 0;
    const char* why = "source ended";
    const char* endReason = "completed";
    int status = 0;
    int signal = 0;
    for (;;) {
        if (out.Failed()) {
            why = endReason = "standard output failed";
            break;
        }
        const auto due = start + std::chrono::microseconds(
                                     static_cast<int64_t>(fed * 1000000ull / static_cast<uint64_t>(byteRate)));
        int sig = WaitFor(signals, due, false);
        if (sig == 0 && source.IsStdin()) sig = WaitFor(signals, due, true);
        if (sig != 0) {
            why = endReason = StopSignals::Why(sig);
            signal = sig;
            break;
        }
        const ssize_t got = source.Read(buf.data(), buf.size());
        if (got < 0) {
            std::fprintf(stderr, "%s: cannot read %s: %s\n", kCmd, source.Describe().c_str(),
                         std::strerror(errno));
            why = endReason = "read failed";
            status = twcli::kExitFailure;
            break;
        }
        if (got == 0) break;
        writer.Write(buf.data(), static_cast<size_t>(got));
        fed += static_cast<uint64_t>(got);
        // Progress every five seconds of audio.
        const uint64_t sec = fed / static_cast<uint64_t>(byteRate) / 5 * 5;
        if (sec > reportedSec) {
            reportedSec = sec;
            if (out.Json()) {
                Json::Value v = twcli::Out::Line(
                    "progress", std::chrono::duration<double>(SteadyClock::now() - start).count());
                v["seconds"] = static_cast<Json::UInt64>(sec);
                v["bytes"] = static_cast<Json::UInt64>(fed);
                v["dropped"] = static_cast<Json::UInt64>(writer.GetDroppedBytes());
                v["queued"] = static_cast<Json::UInt64>(writer.GetQueuedBytes());
                out.Emit(v);
            } else {
                out.Textf("%s: %llu s fed, %llu bytes (%llu dropped, %zu queued)", kCmd,
                          static_cast<unsigned long long>(sec), static_cast<unsigned long long>(fed),
                          static_cast<unsigned long long>(writer.GetDroppedBytes()), writer.GetQueuedBytes());
            }
        }
    }
    const double elapsedSec =
        std::chrono::duration<double>(SteadyClock::now() - start).count();
    const uint64_t dropped = writer.GetDroppedBytes();
    const size_t unread = writer.GetQueuedBytes();
    writer.Close();
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("summary", elapsedSec);
        v["endReason"] = endReason;
        v["input"] = options.m_strSource;
        Json::Value settings(Json::objectValue);
        settings["deviceId"] = options.m_DevId;
        settings["speaker"] = options.m_blSpeaker;
        settings["byteRate"] = byteRate;
        v["settings"] = settings;
        v["bytes"] = static_cast<Json::UInt64>(fed);
        v["dropped"] = static_cast<Json::UInt64>(dropped);
        v["unread"] = static_cast<Json::UInt64>(unread);
        v["fifoRemoved"] = true;
        out.Emit(v);
    } else {
        out.Textf("%s: %s after %s s: %llu bytes fed (%llu dropped, %zu unread); audio-out FIFO removed", kCmd, why,
                  Seconds(elapsedSec).c_str(), static_cast<unsigned long long>(fed),
                  static_cast<unsigned long long>(dropped), unread);
    }
    if (signal != 0) return twcli::ExitForSignal(signal);
    return status;
}

}  // namespace
}  // namespace tw::host

void RegisterAudioFeedCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<tw::host::AudioFeedOptions>();
    CLI::App* sub = app.add_subcommand(
        "audiofeed", "Fill the shared-memory audio-out FIFO of a device in real time from a WAV "
                     "file or raw standard input, until it ends or SIGINT/SIGTERM");
    sub->add_option("SOURCE", options->m_strSource,
                    "WAV file (its data chunk is fed), or - for raw bytes on standard input")
        ->required();
    sub->add_option("--device-id", options->m_DevId,
                    "Device whose FIFO to fill: camera or I/O module id, or IP speaker id with "
                    "--speaker")
        ->required()
        ->check(twcli::IntIn(1, 65535));
    sub->add_flag("--speaker", options->m_blSpeaker, "The device is an IP speaker");
    sub->add_option("--byte-rate", options->m_ByteRate,
                    "Bytes per second to feed (default: the WAV header's; required for raw input)")
        ->check(twcli::IntIn(1, 1 << 30));
    sub->add_flag("--json", options->m_blJson, "print JSON lines instead of text");
    sub->callback([options, &exitCode]() { exitCode = tw::host::RunAudioFeed(*options); });
}
