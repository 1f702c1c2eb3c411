// twhost audioout: one audio output of the plug-in, playing a WAV file to a device or
// relaying the device's live shared-memory FIFO (filled by "twhost audiofeed"), into a
// sink that stands for the device: a WAV file, or an HTTP endpoint as IP cameras and
// speakers take audio. Progress is printed in seconds of audio sent.
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

#include "audioconvert.h"
#include "cliutil.h"
#include "commands.h"
#include "stopsignals.h"
#include "tw/camera.h"
#include "twhost/audiosink.h"
#include "twhost/clock.h"
#include "twhost/devices.h"
#include "twhost/devstatus.h"
#include "twhost/logsink.h"
#include "twhost/plugin.h"
#include "twhost/stores.h"
#include "twhost/wavfile.h"

namespace tw::host {
namespace {

const char* const kCmd = "twhost audioout";

struct AudioOutOptions {
    int m_DevId = 0;
    std::string m_strType = "camera";
    std::string m_strFile;
    bool m_blLive = false;
    bool m_blManual = false;
    std::string m_strSink;
    std::string m_strFormat;
    double m_DurationSec = 0.0;
    bool m_blJson = false;
    bool m_blAsIs = false;
    bool m_blOverwrite = false;
    std::string m_strPlugin;
    int m_LogLevel = 3;
};

int LevelNumber(const std::string& text) {
    static const char* const kLevels[] = {"CRIT", "ERR", "WARN", "NOTICE", "INFO", "DEBUG", "TRACE"};
    for (int i = 0; i < 7; ++i) {
        if (text == kLevels[i]) return i + 1;
    }
    return 0;
}

// Passes the messages the user asked for on to stderr, and watches the output's own
// messages for its end: the plug-in tells its host no other way that an automatic output
// has finished.
class WatchingLogSink : public LogSink {
public:
    WatchingLogSink(int devId, int userLevel) : m_DevId(devId), m_UserLevel(userLevel) {}

    void Write(const LogRecord& record) override {
        if (LevelNumber(record.level) <= m_UserLevel || record.blNullLevel) m_Stderr.Write(record);
        if (record.category != "audioout") return;
        const std::string dev = "Device[" + std::to_string(m_DevId) + "]: ";
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (record.message == dev + "Stop audio out thread done.\n") {
            m_blEnded = true;
        } else if (record.message == dev + "Can not attach audio out shared memory.\n") {
            m_blEnded = true;
            m_strProblem = "the device has no live audio FIFO (start 'twhost audiofeed' first)";
        } else if (record.message == dev + "Connect failed.\n") {
            m_strProblem = "the output gave up connecting to the device";
        } else if (record.message == "Failed to send audio data.\n") {
            m_strProblem = "the output gave up sending to the device";
        } else if (record.message.rfind("Open file [", 0) == 0) {
            m_strProblem = "the file could not be opened";
        } else if (record.message == dev + "No audio data in share memory.\n") {
            m_strNote = "the live FIFO ran dry";
        }
    }

    bool Ended() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_blEnded;
    }
    std::string Problem() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_strProblem;
    }
    std::string Note() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_strNote;
    }

private:
    int m_DevId;
    int m_UserLevel;
    StderrLogSink m_Stderr;
    std::mutex m_Mutex;
    bool m_blEnded = false;
    std::string m_strProblem;
    std::string m_strNote;
};

// "CODEC:RATE:BITS:CHANNELS".
bool ParseFormat(const std::string& text, CAM_CAP_AUDIO_OUT_FORMAT& format, std::string& error) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        const size_t colon = text.find(':', start);
        parts.push_back(text.substr(start, colon == std::string::npos ? std::string::npos : colon - start));
        if (colon == std::string::npos) break;
        start = colon + 1;
    }
    if (parts.size() != 4 || parts[0].empty()) {
        error = "bad --format '" + text + "': expected CODEC:RATE:BITS:CHANNELS, e.g. PCM:8000:16:1";
        return false;
    }
    int numbers[3] = {0, 0, 0};
    for (int i = 0; i < 3; ++i) {
        try {
            size_t used = 0;
            numbers[i] = std::stoi(parts[i + 1], &used);
            if (used != parts[i + 1].size() || numbers[i] <= 0) throw std::invalid_argument("n");
        } catch (const std::exception&) {
            error = "bad --format '" + text + "': rate, bits and channels must be positive integers";
            return false;
        }
    }
    format = CAM_CAP_AUDIO_OUT_FORMAT{parts[0], numbers[0], numbers[1], numbers[2]};
    return true;
}

// The path of a file: sink ("file:PATH#faults"), empty for other sinks.
std::string SinkFilePath(const std::string& address) {
    if (address.rfind("file:", 0) != 0) return std::string();
    const size_t hash = address.find('#');
    return address.substr(5, hash == std::string::npos ? std::string::npos : hash - 5);
}

// Removes the temporary file of the converted audio when the run ends, however it ends.
struct TempFile {
    std::string path;
    ~TempFile() {
        if (!path.empty()) std::remove(path.c_str());
    }
};

Json::Value FormatJson(const CAM_CAP_AUDIO_OUT_FORMAT& format) {
    Json::Value v(Json::objectValue);
    v["codec"] = format.strCodec;
    v["rate"] = format.sampleRate;
    v["bits"] = format.bitsPerSample;
    v["channels"] = format.channels;
    return v;
}

int RunAudioOut(const AudioOutOptions& opt) {
    twcli::Out& out = twcli::Out::Get();
    out.SetJson(opt.m_blJson);
    DeviceKind kind = DeviceKind::Camera;
    int devType = DEV_TYPE_CAMERA;
    if (opt.m_strType == "speaker") {
        kind = DeviceKind::Speaker;
        devType = DEV_TYPE_SPEAKER;
    } else if (opt.m_strType == "iomodule") {
        kind = DeviceKind::IOModule;
        devType = DEV_TYPE_IOMODULE;
    } else if (opt.m_strType != "camera") {
        std::fprintf(stderr, "%s: bad --type '%s' (camera, speaker or iomodule)\n", kCmd, opt.m_strType.c_str());
        return twcli::kExitUsage;
    }
    if (opt.m_blLive == !opt.m_strFile.empty()) {
        std::fprintf(stderr, "%s: give exactly one of --file WAV and --live\n", kCmd);
        return twcli::kExitUsage;
    }
    if (opt.m_blAsIs && opt.m_blLive) {
        std::fprintf(stderr, "%s: --as-is applies to --file only\n", kCmd);
        return twcli::kExitUsage;
    }

    // The device's format: as given, or the file's own, or 8 kHz 16-bit mono for live audio.
    CAM_CAP_AUDIO_OUT_FORMAT format{"PCM", 8000, 16, 1};
    std::string error;
    if (!opt.m_strFormat.empty()) {
        if (!ParseFormat(opt.m_strFormat, format, error)) {
            std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitUsage;
        }
    }
    if (!opt.m_strFile.empty()) {
        WavInfo info;
        if (!ReadWavInfo(opt.m_strFile, info, error)) {
            std::fprintf(stderr, "%s: bad --file: %s\n", kCmd, error.c_str());
            return twcli::kExitUsage;
        }
        if (opt.m_strFormat.empty()) {
            const char* codec = info.formatTag == WAV_FORMAT_MULAW ? "G711U"
                                : info.formatTag == WAV_FORMAT_ALAW ? "G711A"
                                                                    : "PCM";
            format = CAM_CAP_AUDIO_OUT_FORMAT{codec, static_cast<int>(info.sampleRate),
                                              static_cast<int>(info.bitsPerSample), static_cast<int>(info.channels)};
        }
    }
    // A device format twhost cannot produce is refused before anything plays: the device
    // would get bytes it reads as something else.
    if (!opt.m_strFile.empty() && !opt.m_blAsIs && !CanConvertTo(format, error)) {
        std::fprintf(stderr, "%s: bad --format %s:%d:%d:%d: %s\n", kCmd, format.strCodec.c_str(), format.sampleRate,
                     format.bitsPerSample, format.channels, error.c_str());
        return twcli::kExitUsage;
    }
    const std::string sinkPath = SinkFilePath(opt.m_strSink);
    if (!sinkPath.empty() &&
        !twcli::CheckOutputFile(sinkPath, opt.m_blOverwrite, {opt.m_strFile}, error)) {
        std::fprintf(stderr, "%s: --sink: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }
    std::shared_ptr<AudioSink> sink = MakeAudioSink(opt.m_strSink, format, error);
    if (!sink) {
        std::fprintf(stderr, "%s: bad --sink: %s\n", kCmd, error.c_str());
        return twcli::kExitUsage;
    }
    const auto wavSink = std::dynamic_pointer_cast<WavFileAudioSink>(sink);

    // What the plug-in reads: the user's audio in the device's format, or the file itself.
    TempFile converted;
    std::string playPath = opt.m_strFile;
    if (!opt.m_strFile.empty() && !opt.m_blAsIs) {
        std::vector<uint8_t> bytes;
        if (!ConvertAudioFile(opt.m_strFile, format, bytes, error) ||
            !WriteDeviceWav(bytes, format, converted.path, error)) {
            std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
        playPath = converted.path;
    }

    std::unique_ptr<PluginModule> module =
        PluginModule::Load(opt.m_strPlugin.empty() ? PluginModule::DefaultPath() : opt.m_strPlugin, error);
    if (!module) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }

    AudioDeviceRecord record;
    record.strName = opt.m_strType + " " + std::to_string(opt.m_DevId);
    record.blAudioOut = true;
    record.format = format;
    record.pSink = sink;
    if (kind == DeviceKind::Camera) CameraStore::Instance().Put(MakeCamera(opt.m_DevId, VIDEO_CODEC_UNKNOWN));
    DeviceStore::Instance().Put(kind, opt.m_DevId, record);

    // A manual output is a user's: the device's manual audio-out trigger is set while it
    // plays, and handed back by the output when it ends by itself.
    DevStatusRecord status(opt.m_DevId);
    const bool haveStatus = status.Open(error);
    if (!haveStatus && opt.m_blManual) {
        std::fprintf(stderr, "%s: warning: %s; the manual trigger is not shown\n", kCmd, error.c_str());
    }
    if (haveStatus && opt.m_blManual) status.Get()->SetManualAOTrig(true);

    auto logs = std::make_shared<WatchingLogSink>(opt.m_DevId, opt.m_LogLevel);
    SetLogSink(logs);
    DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(std::max(opt.m_LogLevel, 4));
    logConfig.Install();

    StopSignals stopSignals;

    Clock& clock = GetClock();
    const int64_t epochUs = clock.NowUs();
    std::unique_ptr<AudioOutProxy> output = module->NewAudioOut(opt.m_DevId, devType);
    int rc = twcli::kExitOk;
    int signal = 0;
    const char* why = "completed";
    std::string sinkError;
    // Seconds of audio at the device's own byte rate, which is how the output paces itself.
    const double bytesPerSecond =
        static_cast<double>(format.sampleRate) * format.bitsPerSample * format.channels / 8;
    const std::string input = opt.m_blLive ? std::string("live") : opt.m_strFile;
    if (output->Init() != 0) {
        std::fprintf(stderr, "%s: the %s %d could not be set up for audio out\n", kCmd, opt.m_strType.c_str(),
                     opt.m_DevId);
        rc = twcli::kExitFailure;
        why = "failed";
    } else if ((opt.m_blLive ? output->Start(opt.m_blManual) : output->Start(playPath, opt.m_blManual)) != 0) {
        std::fprintf(stderr, "%s: the output did not start\n", kCmd);
        rc = twcli::kExitFailure;
        why = "failed";
    } else {
        if (!out.Json()) {
            out.Textf("%s: %s to %s %d (%s %d Hz, %d bit, %d channel%s%s) into %s%s", kCmd,
                      opt.m_blLive ? "live audio" : ("'" + opt.m_strFile + "'").c_str(), opt.m_strType.c_str(),
                      opt.m_DevId, format.strCodec.c_str(), format.sampleRate, format.bitsPerSample, format.channels,
                      format.channels == 1 ? "" : "s",
                      opt.m_blLive ? "" : (opt.m_blAsIs ? ", the file's bytes as they are" : ", converted"),
                      sink->Describe().c_str(), opt.m_blManual ? ", manual" : "");
        }
        int64_t lastBytes = -1;
        int lastFailedConnects = 0;
        const int64_t stopAtUs = opt.m_DurationSec > 0 ? epochUs + static_cast<int64_t>(opt.m_DurationSec * 1e6) : -1;
        for (;;) {
            const int64_t now = clock.NowUs();
            const AudioSinkCounters c = sink->GetCounters();
            const bool ended = logs->Ended();
            if (c.bytes != lastBytes || ended) {
                lastBytes = c.bytes;
                const double t = static_cast<double>(now - epochUs) / 1e6;
                const double sec = static_cast<double>(c.bytes) / bytesPerSecond;
                if (out.Json()) {
                    Json::Value v = twcli::Out::Line("progress", t);
                    v["bytes"] = static_cast<Json::Int64>(c.bytes);
                    v["seconds"] = sec;
                    out.Emit(v);
                } else {
                    out.Textf("%8.3f s  sent %.2f s of audio (%lld bytes)", t, sec, static_cast<long long>(c.bytes));
                }
            }
            // A connection the sink refused is told at once, in the sink's own words. A
            // file that cannot be written will not become writable by retrying: the run
            // ends there.
            // Failures as the sink counted them: attempts minus successes would also count
            // a connect that the output's thread has begun and not yet finished.
            const int failedConnects = c.connectFailures;
            if (failedConnects > lastFailedConnects) {
                lastFailedConnects = failedConnects;
                const std::string text = sink->GetLastError();
                if (text != sinkError) {
                    sinkError = text;
                    std::fprintf(stderr, "%s: %s\n", kCmd, text.c_str());
                }
                if (!sinkPath.empty() && c.connects == 0) {
                    why = "sink failed";
                    rc = twcli::kExitFailure;
                    break;
                }
            }
            // A write that failed (a full disk, a quota) fails again on a retry, and the
            // plug-in would go on reading audio that never lands: the run ends there, and
            // the file keeps the audio written before.
            if (wavSink != nullptr) {
                const std::string text = wavSink->GetWriteError();
                if (!text.empty()) {
                    if (text != sinkError) std::fprintf(stderr, "%s: %s\n", kCmd, text.c_str());
                    sinkError = text;
                    why = "sink failed";
                    rc = twcli::kExitFailure;
                    break;
                }
            }
            if (ended) break;
            if (out.Failed()) {
                why = "standard output failed";
                break;
            }
            if (stopAtUs >= 0 && now >= stopAtUs) {
                why = "duration";
                break;
            }
            if ((signal = stopSignals.Wait(100)) != 0) {
                why = StopSignals::Why(signal);
                break;
            }
        }
        output->Stop();
        const AudioSinkCounters c = sink->GetCounters();
        // The last audio or the header written as the output stopped.
        const std::string writeError = wavSink != nullptr ? wavSink->GetWriteError() : std::string();
        if (rc == twcli::kExitOk && !writeError.empty()) {
            std::fprintf(stderr, "%s: %s\n", kCmd, writeError.c_str());
            sinkError = writeError;
            rc = twcli::kExitFailure;
            why = "sink failed";
        } else if (rc == twcli::kExitOk && !logs->Problem().empty()) {
            // The plug-in gave up; why is the sink's to say when it was the sink.
            const std::string text = sink->GetLastError();
            std::fprintf(stderr, "%s: %s%s%s\n", kCmd, logs->Problem().c_str(), text.empty() ? "" : ": ",
                         text.c_str());
            if (!text.empty()) sinkError = text;
            rc = twcli::kExitFailure;
            why = "failed";
        } else if (rc == twcli::kExitOk && c.disconnectFailures > 0) {
            // The sink could not close the audio: a server that stopped taking it gave no
            // answer, so the device never confirmed what it got.
            sinkError = sink->GetLastError();
            std::fprintf(stderr, "%s: %s\n", kCmd, sinkError.c_str());
            rc = twcli::kExitFailure;
        } else if (rc == twcli::kExitOk && c.connectAttempts > 0 && c.connects == 0) {
            sinkError = sink->GetLastError();
            rc = twcli::kExitFailure;
            why = "sink failed";
        }
    }
    output.reset();
    SetLogSink(nullptr);

    const AudioSinkCounters c = sink->GetCounters();
    const double seconds = static_cast<double>(c.bytes) / bytesPerSecond;
    const double elapsed = static_cast<double>(clock.NowUs() - epochUs) / 1e6;
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("summary", elapsed);
        v["endReason"] = why;
        v["input"] = input;
        Json::Value settings(Json::objectValue);
        settings["deviceId"] = opt.m_DevId;
        settings["type"] = opt.m_strType;
        settings["format"] = FormatJson(format);
        settings["sink"] = opt.m_strSink;
        settings["asIs"] = opt.m_blAsIs;
        settings["manual"] = opt.m_blManual;
        settings["duration"] = opt.m_DurationSec;
        settings["overwrite"] = opt.m_blOverwrite;
        settings["logLevel"] = opt.m_LogLevel;
        v["settings"] = settings;
        v["bytes"] = static_cast<Json::Int64>(c.bytes);
        v["seconds"] = seconds;
        v["connects"] = c.connects;
        v["sendFailures"] = c.sendCalls - c.sends;
        if (!sinkError.empty()) v["sinkError"] = sinkError;
        if (!logs->Note().empty()) v["note"] = logs->Note();
        if (haveStatus && opt.m_blManual) v["manualTrigger"] = status.Get()->IsManualAOTrig();
        out.Emit(v);
    } else {
        out.Textf("%s: %s; %.2f s of audio, %lld bytes sent over %d connection%s, %d failed send%s%s%s", kCmd, why,
                  seconds, static_cast<long long>(c.bytes), c.connects, c.connects == 1 ? "" : "s",
                  c.sendCalls - c.sends, c.sendCalls - c.sends == 1 ? "" : "s", logs->Note().empty() ? "" : "; ",
                  logs->Note().c_str());
        if (haveStatus && opt.m_blManual) {
            out.Textf("%s: manual audio-out trigger of the device: %s", kCmd,
                      status.Get()->IsManualAOTrig() ? "still set" : "handed back");
        }
    }
    DeviceStore::Instance().Remove(kind, opt.m_DevId);
    if (signal != 0) return twcli::ExitForSignal(signal);
    return rc;
}

}  // namespace
}  // namespace tw::host

void RegisterAudioOutCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<tw::host::AudioOutOptions>();
    CLI::App* sub = app.add_subcommand(
        "audioout",
        "Play a WAV file, or the device's live audio FIFO, to a device through the plug-in's audio "
        "output, into a sink that stands for the device (a WAV file or an HTTP endpoint)");
    sub->add_option("--device-id", opt->m_DevId, "id of the device")->required()->check(twcli::IntIn(1, 65535));
    sub->add_option("--type", opt->m_strType, "kind of device: camera, speaker or iomodule")->capture_default_str();
    sub->add_option("--file", opt->m_strFile, "play this WAV file once");
    sub->add_flag("--live", opt->m_blLive, "relay the device's live audio FIFO (see 'twhost audiofeed')");
    sub->add_flag("--manual", opt->m_blManual, "a user's manual output: not replaced by later automatic ones");
    sub->add_option("--sink", opt->m_strSink,
                    "where the device's audio goes: file:OUT.wav, or http://HOST:PORT/PATH (a POST stream); "
                    "'#refuse-connect', '#fail-send-after=N,fail-sends=M' inject faults")
        ->required();
    sub->add_option("--format", opt->m_strFormat,
                    "the device's audio-out format CODEC:RATE:BITS:CHANNELS, CODEC PCM, G711U or G711A "
                    "(default: the file's own; PCM:8000:16:1 for live audio). The file is converted to it "
                    "(resampled, channels mixed, G.711-encoded) before it plays");
    sub->add_flag("--as-is", opt->m_blAsIs,
                  "play the file's bytes unchanged, as the plug-in reads them (no conversion; a one-channel "
                  "device then gets every other byte)");
    sub->add_flag("-y,--overwrite", opt->m_blOverwrite, "replace an existing file: sink");
    sub->add_option("--duration", opt->m_DurationSec, "stop after this many seconds")->check(twcli::Seconds(true));
    sub->add_flag("--json", opt->m_blJson, "print JSON lines instead of text");
    sub->add_option("--plugin", opt->m_strPlugin, "path of libtwdevplugin.so");
    sub->add_option("--log-level", opt->m_LogLevel,
                    "plug-in messages up to this level are printed (1 critical .. 7 trace; 3: errors)")
        ->check(twcli::IntIn(0, 7))
        ->capture_default_str();
    sub->callback([opt, &exitCode] { exitCode = tw::host::RunAudioOut(*opt); });
}
