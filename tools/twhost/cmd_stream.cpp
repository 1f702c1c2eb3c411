// "twhost stream": plays the part of the recorder's stream receiver. It publishes a video
// file or a network stream, in real time, into the shared-memory live FIFO of one camera
// stream, where detectors of other processes read it, and removes the FIFO when it ends.
#include <signal.h>

#include <cerrno>
#include <cstdio>
#include <ctime>
#include <limits>
#include <memory>
#include <vector>

#include <json/json.h>
#include <string>

extern "C" {
#include <libavutil/log.h>
}

#include "cliutil.h"
#include "commands.h"
#include "stopsignals.h"
#include "twhost/clock.h"
#include "twhost/mediasource.h"
#include "twhost/shmfifo.h"

namespace tw::host {
namespace {

struct StreamOptions {
    std::string m_strSource;
    int m_CamId = -1;
    int m_StreamNo = 0;
    bool m_blLoop = false;
    double m_DurationSec = 0.0;   // 0: until the source ends or a signal
    bool m_blJson = false;
};

// Publishes what the pump reads. Frames too large for the ring are counted, not published.
class PublisherSink : public PacketSink {
public:
    explicit PublisherSink(ShmStreamPublisher& publisher) : m_Publisher(publisher) {}

    void SetFormat(int codec, int width, int height,
                   const std::vector<unsigned char>& extra) override {
        if (!m_Publisher.SetFormat(codec, width, height, extra)) {
            std::fprintf(stderr,
                         "twhost stream: codec extra data of %zu bytes exceeds %zu; "
                         "readers rely on the parameter sets of the key frames\n",
                         extra.size(), kShmMaxExtraData);
        }
    }

    void Push(const SourcePacket& packet) override {
        if (!packet.data ||
            m_Publisher.Push(packet.data->data(), packet.data->size(), packet.keyFrame,
                             packet.ptsUs) < 0) {
            ++m_Dropped;
        }
    }

    uint64_t GetDropped() const { return m_Dropped; }

private:
    ShmStreamPublisher& m_Publisher;
    uint64_t m_Dropped = 0;
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

int RunStream(const StreamOptions& options) {
    twcli::Out& out = twcli::Out::Get();
    out.SetJson(options.m_blJson);
    // Our own messages name the input and the failure; FFmpeg's would only repeat them.
    av_log_set_level(AV_LOG_FATAL);

    MediaSource source;
    std::string error;
    if (!source.Open(options.m_strSource, error)) {
        std::fprintf(stderr, "twhost stream: %s\n", error.c_str());
        return 1;
    }
    if (options.m_blLoop && source.IsNetwork()) {
        std::fprintf(stderr, "twhost stream: --loop applies to files; '%s' is a network stream\n",
                     options.m_strSource.c_str());
        return 2;
    }

    // SIGINT and SIGTERM are taken synchronously by this thread from here on, so the segment
    // is always removed; blocking them before the pump's thread starts keeps them away from it.
    StopSignals stopSignals;

    ShmStreamPublisher publisher(options.m_CamId, options.m_StreamNo);
    if (!publisher.Open(error)) {
        std::fprintf(stderr, "twhost stream: %s\n", error.c_str());
        return 1;
    }

    PublisherSink sink(publisher);
    FifoPump pump(source, sink);
    FifoPump::RealTimeOptions realTime;
    realTime.loop = options.m_blLoop;
    if (!pump.StartRealTime(realTime, error)) {
        std::fprintf(stderr, "twhost stream: %s\n", error.c_str());
        return 1;
    }
    const int64_t durationUs = source.GetDurationUs();
    const std::string length =
        durationUs >= 0 ? Seconds(static_cast<double>(durationUs) / 1e6) + " s" : "live";
    Json::Value input(Json::objectValue);
    input["source"] = options.m_strSource;
    input["codec"] = source.GetCodecName();
    input["width"] = source.GetWidth();
    input["height"] = source.GetHeight();
    if (durationUs >= 0) input["duration"] = static_cast<double>(durationUs) / 1e6;
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("publishing", 0.0);
        v["input"] = input;
        v["cameraId"] = options.m_CamId;
        v["streamNo"] = options.m_StreamNo;
        v["shmKey"] = KeyText(publisher.GetKey());
        out.Emit(v);
    } else {
        out.Textf("twhost stream: publishing '%s' (%s %dx%d, %s) as camera %d stream %d, shared-memory key %s",
                  options.m_strSource.c_str(), source.GetCodecName(), source.GetWidth(), source.GetHeight(),
                  length.c_str(), options.m_CamId, options.m_StreamNo, KeyText(publisher.GetKey()).c_str());
    }

    Clock& clock = GetClock();
    const int64_t startUs = clock.NowUs();
    const int64_t stopAtUs =
        options.m_DurationSec > 0.0 ? startUs + static_cast<int64_t>(options.m_DurationSec * 1e6)
                                    : -1;
    const char* why = "source ended";
    int sig = 0;
    for (;;) {
        if (out.Failed()) {
            why = "standard output failed";
            break;
        }
        if (pump.Ended()) {
            why = pump.GetErrorCount() > 0 ? "source failed" : "source ended";
            break;
        }
        if (stopAtUs >= 0 && clock.NowUs() >= stopAtUs) {
            why = "duration reached";
            break;
        }
        if ((sig = stopSignals.Wait(100)) != 0) {
            why = StopSignals::Why(sig);
            break;
        }
    }
    pump.Stop();
    publisher.Close();

    const double elapsedSec = static_cast<double>(clock.NowUs() - startUs) / 1e6;
    std::string loops;
    if (options.m_blLoop) {
        const uint64_t restarts = pump.GetLoopCount();
        loops = ", " + std::to_string(restarts) + (restarts == 1 ? " restart" : " restarts");
    }
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("summary", elapsedSec);
        v["input"] = input;
        Json::Value settings(Json::objectValue);
        settings["cameraId"] = options.m_CamId;
        settings["streamNo"] = options.m_StreamNo;
        settings["loop"] = options.m_blLoop;
        if (options.m_DurationSec > 0.0) settings["duration"] = options.m_DurationSec;
        v["settings"] = settings;
        v["endReason"] = why;
        v["frames"] = static_cast<Json::UInt64>(pump.GetPacketCount());
        v["keyFrames"] = static_cast<Json::UInt64>(pump.GetKeyFrameCount());
        v["corrupt"] = static_cast<Json::UInt64>(pump.GetCorruptCount());
        v["dropped"] = static_cast<Json::UInt64>(sink.GetDropped());
        if (options.m_blLoop) v["restarts"] = static_cast<Json::UInt64>(pump.GetLoopCount());
        out.Emit(v);
    } else {
        out.Textf("twhost stream: %s after %s s: %llu frames (%llu key frames, %llu corrupt, %llu dropped)%s; "
                  "live FIFO removed",
                  why, Seconds(elapsedSec).c_str(), static_cast<unsigned long long>(pump.GetPacketCount()),
                  static_cast<unsigned long long>(pump.GetKeyFrameCount()),
                  static_cast<unsigned long long>(pump.GetCorruptCount()),
                  static_cast<unsigned long long>(sink.GetDropped()), loops.c_str());
    }
    if (pump.GetErrorCount() > 0) {
        std::fprintf(stderr, "twhost stream: %s\n", pump.GetLastError().c_str());
        return twcli::kExitFailure;
    }
    return twcli::ExitForSignal(sig);
}

}  // namespace
}  // namespace tw::host

void RegisterStreamCommand(CLI::App& app, int& exitCode) {
    auto options = std::make_shared<tw::host::StreamOptions>();
    CLI::App* sub = app.add_subcommand(
        "stream", "Publish a video file or network stream in real time into the shared-memory "
                  "live FIFO of a camera stream, until it ends or SIGINT/SIGTERM");
    sub->add_option("SOURCE", options->m_strSource,
                    "Video file, or URL (rtsp://, http://, https://)")
        ->required();
    sub->add_option("--camera-id", options->m_CamId, "Camera id whose live FIFO to fill")
        ->required()
        ->check(twcli::IntIn(0, 2147483647));
    sub->add_option("--stream-no", options->m_StreamNo, "Stream number of the camera (0..7)")
        ->check(twcli::IntIn(0, tw::host::kShmStreamsPerCamera - 1))
        ->capture_default_str();
    sub->add_flag("--loop", options->m_blLoop, "Start a file again at its end, until stopped");
    sub->add_option("--duration", options->m_DurationSec, "Stop after this many seconds")
        ->check(twcli::Seconds(false));
    sub->add_flag("--json", options->m_blJson, "JSON lines: a \"publishing\" line, then the \"summary\"");
    sub->callback([options, &exitCode]() { exitCode = tw::host::RunStream(*options); });
}
