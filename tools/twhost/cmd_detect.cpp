// twhost detect: motion detectors of the plug-in, driven through DetectorHandlers and
// function IDs as a recorder drives them, on a file, a network stream, the shared-memory live
// FIFO of a "twhost stream" process, or the built-in sample; several files or streams run
// one detector each in this one process, as a recorder runs its cameras.
#include <dirent.h>
#include <signal.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "cliutil.h"
#include "commands.h"
#include "stopsignals.h"
#include "detectoutput.h"
#include "detectreport.h"
#include "tw/decode.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/decodetuning.h"
#include "twhost/eventlog.h"
#include "twhost/frameobserver.h"
#include "twhost/logsink.h"
#include "twhost/mediasource.h"
#include "twhost/plugin.h"
#include "twhost/shmfifo.h"
#include "twhost/stores.h"
#include "twhost/streamfifo.h"
#include "twhost/turnlateness.h"

namespace {

using twcli::Out;

struct DetectOptions {
    std::vector<std::string> sources;   // as given; several: one camera each
    std::vector<int> camIds;            // --camera-id as given: none, or one per source
    std::string source;                 // the one source of a single-camera run
    int camId = 1;
    int sensitivity = 80;
    int threshold = 10;
    int shortLive = 0;
    std::string region = "all";
    bool realtime = false;
    bool shm = false;
    int streamNo = 0;
    std::string shmCodec;   // empty: the codec the publisher recorded
    bool json = false;
    double duration = 0;
    std::string plugin;
    int logLevel = 3;
    std::string report;          // --report: the HTML page
    std::string snapshotDir;     // --snapshots: JPEG files
    int snapshotIntervals = 20;
    bool overwrite = false;
    double stagger = 0;          // several sources: seconds over which their starts spread
    bool exactDecode = false;    // --exact-decode: keep the H.264/HEVC loop filter
    bool loop = false;           // --loop: files start again at their end, time running on
};

const char* const kCmd = "twhost detect";
constexpr int64_t kPeriodUs = 300000;
// How long --shm waits for the publisher's first key frame before it gives up.
constexpr int kShmFirstFrameWaitMs = 10000;

int CodecFromName(const std::string& name) {
    if (name == "mjpeg" || name == "jpeg") return VIDEO_CODEC_JPEG;
    if (name == "mpeg4") return VIDEO_CODEC_MPEG4;
    if (name == "h264") return VIDEO_CODEC_H264;
    if (name == "hevc" || name == "h265") return VIDEO_CODEC_HEVC;
    return VIDEO_CODEC_UNKNOWN;
}

const char* CodecName(int codec) {
    switch (codec) {
        case VIDEO_CODEC_JPEG: return "mjpeg";
        case VIDEO_CODEC_MPEG4: return "mpeg4";
        case VIDEO_CODEC_H264: return "h264";
        case VIDEO_CODEC_HEVC: return "hevc";
        default: return "unknown";
    }
}

bool IsUrl(const std::string& s) { return s.find("://") != std::string::npos; }

// The directory for --snapshots: made when missing; one that holds snapshots already is
// used only with -y, whose files of the same names are then replaced.
bool PrepareSnapshotDir(const std::string& dir, bool overwrite, std::string& error) {
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0) {
        if (mkdir(dir.c_str(), 0777) != 0) {
            error = "cannot create the snapshot directory '" + dir + "': " + strerror(errno);
            return false;
        }
        return true;
    }
    if (!S_ISDIR(st.st_mode)) {
        error = "'" + dir + "' is not a directory (--snapshots)";
        return false;
    }
    if (access(dir.c_str(), W_OK) != 0) {
        error = "cannot write into '" + dir + "': " + strerror(errno);
        return false;
    }
    if (overwrite) return true;
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) {
        error = "cannot read the directory '" + dir + "': " + strerror(errno);
        return false;
    }
    bool holds = false;
    while (const dirent* e = readdir(d)) {
        const std::string name = e->d_name;
        if (name.rfind("snapshot-", 0) == 0 && name.size() > 4 && name.compare(name.size() - 4, 4, ".jpg") == 0) {
            holds = true;
            break;
        }
    }
    closedir(d);
    if (holds) {
        error = "'" + dir + "' holds snapshots already; add -y (--overwrite) to replace them";
        return false;
    }
    return true;
}

// Opening a damaged input makes libavformat and the decoders complain once per packet they
// try; that would bury the one line that says which input is unusable and why. Silenced
// while the input is opened and probed, FFmpeg speaks again for the run itself.
class QuietFfmpegLog {
public:
    QuietFfmpegLog() : m_Level(av_log_get_level()) { av_log_set_level(AV_LOG_QUIET); }
    ~QuietFfmpegLog() { av_log_set_level(m_Level); }
    QuietFfmpegLog(const QuietFfmpegLog&) = delete;
    QuietFfmpegLog& operator=(const QuietFfmpegLog&) = delete;

private:
    int m_Level;
};

// Decodes one frame the way the detector will.
bool DecodesAs(int codec, const std::vector<unsigned char>& extra, const unsigned char* frame, int size) {
    if (codec == VIDEO_CODEC_JPEG) {
        unsigned char* image = nullptr;
        int imageSize = 0, w = 0, h = 0;
        const int r = DecodeJpeg(frame, size, &image, imageSize, JCS_GRAYSCALE, 16, w, h);
        free(image);
        return r == 0;
    }
    FFmpegAttr attr{};
    unsigned char* image = nullptr;
    int r = DoFFMpegInitVideo(attr, codec, extra.data(), static_cast<int>(extra.size()));
    if (r == 0) r = DoFFMpegDecode(attr, frame, size);
    DoFFMpegFree(attr, image);
    return r == 0;
}

// Decodes the first key frame of a file, so that a stream nobody can decode is reported
// once, up front, instead of as a log line every 300 ms.
bool ProbeDecode(tw::host::MediaSource& source, std::string& error) {
    tw::host::SourcePacket packet;
    for (int read = 0; read < 600; ++read) {
        const int rc = source.ReadPacket(packet);
        if (rc < 0) {
            error = source.GetLastError();
            return false;
        }
        if (rc == 0) break;
        if (!packet.keyFrame) continue;
        const std::vector<unsigned char>& frame = *packet.data;
        if (DecodesAs(source.GetCodec(), source.GetExtraData(), frame.data(), static_cast<int>(frame.size()))) {
            return true;
        }
        error = std::string("cannot decode the ") + source.GetCodecName() + " video of '" + source.GetInput() + "'";
        return false;
    }
    error = "no key frame to decode in '" + source.GetInput() + "'";
    return false;
}

// The live FIFO's format from its publisher, and its newest key frame decoded with it. 0 on
// success; 1 with the error printed; or the stop signal that came while waiting.
// The settings of a summary that every run has, one camera's or one of many.
Json::Value DetectSettings(const DetectOptions& opt, int camId, const std::string& region) {
    Json::Value settings(Json::objectValue);
    settings["cameraId"] = camId;
    settings["sensitivity"] = opt.sensitivity;
    settings["threshold"] = opt.threshold;
    settings["shortLive"] = opt.shortLive;
    settings["region"] = opt.region;
    settings["watchedCells"] = static_cast<int>(std::count(region.begin(), region.end(), '1'));
    if (opt.duration > 0) settings["duration"] = opt.duration;
    if (opt.loop) settings["loop"] = true;
    settings["logLevel"] = opt.logLevel;
    return settings;
}

// How long the main thread of a run on the real clock sleeps between its looks: until the
// duration's end when that is near, else a second. The end of the data wakes it at once
// (StopSignals::Wake) and so does a stop signal; what is left to notice on a look is a
// standard output that failed, which a second later is as good. Looking every few
// milliseconds instead cost a live camera as much as a fifth of its key-frame decoding.
int RealTimeWaitMs(int64_t nowUs, int64_t endUs) {
    constexpr int kLookMs = 1000;
    if (endUs < 0) return kLookMs;
    const int64_t leftMs = (endUs - nowUs + 999) / 1000;
    return static_cast<int>(std::max<int64_t>(0, std::min<int64_t>(leftMs, kLookMs)));
}

int ProbeShm(const DetectOptions& opt, StopSignals& signals, int& codec, tw::host::LiveStreamFormat& format) {
    std::string error;
    key_t key = 0;
    if (!tw::host::LiveStreamShmKey(opt.camId, opt.streamNo, key, error)) {
        fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }
    if (!tw::host::ReadLiveStreamFormat(opt.camId, opt.streamNo, format, error)) {
        fprintf(stderr,
                "%s: no live stream of camera %d stream %d in shared memory (key 0x%08x); "
                "start 'twhost stream SOURCE --camera-id %d' first\n",
                kCmd, opt.camId, opt.streamNo, static_cast<unsigned>(key), opt.camId);
        return twcli::kExitFailure;
    }
    codec = opt.shmCodec.empty() ? format.codec : CodecFromName(opt.shmCodec);
    if (codec == VIDEO_CODEC_UNKNOWN) {
        fprintf(stderr,
                "%s: the publisher of camera %d stream %d has not recorded a codec I can decode; "
                "give --codec (mjpeg, mpeg4, h264, hevc)\n",
                kCmd, opt.camId, opt.streamNo);
        return twcli::kExitFailure;
    }
    ShmStreamFifo* live = LiveStreamFifoAt(opt.camId, opt.streamNo);
    if (live == nullptr) {
        fprintf(stderr, "%s: the live stream of camera %d stream %d went away\n", kCmd, opt.camId, opt.streamNo);
        return twcli::kExitFailure;
    }
    int result = twcli::kExitFailure;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kShmFirstFrameWaitMs);
    for (;;) {
        int id = 0, size = 0;
        unsigned char* frame = nullptr;
        if (codec == VIDEO_CODEC_JPEG) {
            live->ReadLatest(id, frame, size, false);
        } else {
            live->ReadLatestIFrame(id, frame, size, nullptr);
        }
        if (frame != nullptr) {
            bool ok;
            {
                QuietFfmpegLog quiet;
                ok = DecodesAs(codec, format.extra, frame, size);
            }
            delete[] frame;
            if (ok) {
                result = 0;
            } else {
                fprintf(stderr, "%s: cannot decode the live stream of camera %d stream %d as %s%s\n", kCmd,
                        opt.camId, opt.streamNo, CodecName(codec),
                        opt.shmCodec.empty() ? " (the codec its publisher recorded)" : " (--codec)");
            }
            break;
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            fprintf(stderr, "%s: the live stream of camera %d stream %d delivered no %s in %d s\n", kCmd,
                    opt.camId, opt.streamNo, codec == VIDEO_CODEC_JPEG ? "frame" : "key frame",
                    kShmFirstFrameWaitMs / 1000);
            break;
        }
        if (const int sig = signals.Wait(20)) {
            result = twcli::ExitForSignal(sig);
            break;
        }
    }
    shmdt(live);
    return result;
}

// The built-in sample, made on the fly into a temporary file; nothing encoded is shipped.
class TempSample {
public:
    ~TempSample() {
        if (!m_strPath.empty()) unlink(m_strPath.c_str());
    }
    bool Make(std::string& error) {
        char path[] = "/tmp/twhost-sample-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) {
            error = std::string("cannot create a temporary file for the sample: ") + strerror(errno);
            return false;
        }
        close(fd);
        unlink(path);
        m_strPath = std::string(path) + ".mp4";
        return tw::host::WriteClip(m_ClipSpec, m_strPath, error);
    }
    const std::string& Path() const { return m_strPath; }
    const tw::host::ClipSpec& ClipSpec() const { return m_ClipSpec; }

private:
    tw::host::ClipSpec m_ClipSpec = tw::host::SampleClipSpec();
    std::string m_strPath;
};

// A position line on a terminal's stderr, rewritten in place and cleared at the end.
// Wakes a run's main loop the moment standard output fails, for as long as it lives: the
// loop sleeps up to a second between its looks, and an offline run would go on judging a
// file nobody reads any more for that second.
class WakeOnOutputFailure {
public:
    WakeOnOutputFailure(Out& out, StopSignals& signals) : m_Out(out) {
        out.SetFailureListener([&signals] { signals.Wake(); });
    }
    ~WakeOnOutputFailure() { m_Out.SetFailureListener(nullptr); }
    WakeOnOutputFailure(const WakeOnOutputFailure&) = delete;
    WakeOnOutputFailure& operator=(const WakeOnOutputFailure&) = delete;

private:
    Out& m_Out;
};

class ProgressLine {
public:
    explicit ProgressLine(bool on) : m_blOn(on) {}
    ~ProgressLine() { Clear(); }
    bool IsOn() const { return m_blOn; }
    void Show(double position, double duration, double wallSec) {
        if (!m_blOn) return;
        const auto now = std::chrono::steady_clock::now();
        if (m_blShown && now - m_Last < std::chrono::milliseconds(250)) return;
        m_Last = now;
        m_blShown = true;
        const double speed = wallSec > 0 ? position / wallSec : 0;
        if (duration > 0) {
            fprintf(stderr, "\r%8.1f / %.1f s  %5.1fx\033[K", position, duration, speed);
        } else {
            fprintf(stderr, "\r%8.1f s  %5.1fx\033[K", position, speed);
        }
        fflush(stderr);
    }
    void Clear() {
        if (!m_blShown) return;
        fprintf(stderr, "\r\033[K");
        fflush(stderr);
        m_blShown = false;
    }

private:
    bool m_blOn;
    bool m_blShown = false;
    std::chrono::steady_clock::time_point m_Last;
};

// The lateness of the camera's paced turns, for the summary of a real-time run (in virtual
// time every turn starts exactly in its slot).
void FillLateness(int camId, DetectPrinter::Summary& summary) {
    const tw::host::TurnLateness late = tw::host::GetTurnLateness(camId);
    summary.latenessKnown = true;
    summary.turns = late.turns;
    summary.lateMeanMs = late.turns > 0 ? static_cast<double>(late.sumUs) / static_cast<double>(late.turns) / 1000.0 : 0;
    summary.lateP99Ms = static_cast<double>(late.QuantileUs(0.99)) / 1000.0;
    summary.lateMaxMs = static_cast<double>(late.maxUs) / 1000.0;
    summary.lateOver100Ms = late.over100Ms;
}

// --loop plays files; what cannot be played again is said before anything starts. 0, or the
// usage exit code with the error printed.
int CheckLoop(const DetectOptions& opt, const std::vector<std::string>& inputs) {
    if (!opt.loop) return 0;
    if (opt.shm) {
        fprintf(stderr, "%s: --loop starts a file again at its end; the live FIFO (--shm) has no end to start from\n",
                kCmd);
        return twcli::kExitUsage;
    }
    for (const std::string& input : inputs) {
        if (IsUrl(input)) {
            fprintf(stderr, "%s: --loop starts a file again at its end; '%s' is a stream\n", kCmd, input.c_str());
            return twcli::kExitUsage;
        }
    }
    if (!opt.realtime) {
        fprintf(stderr, "%s: --loop plays a file over and over as a camera would send it; add --realtime\n", kCmd);
        return twcli::kExitUsage;
    }
    return 0;
}

int RunDetect(const DetectOptions& opt) {
    Out& out = Out::Get();
    out.SetJson(opt.json);
    std::string region;
    std::string error;
    if (!tw::host::ParseRegion(opt.region, region, error)) {
        fprintf(stderr, "%s: bad --region '%s': %s\n", kCmd, opt.region.c_str(), error.c_str());
        return twcli::kExitUsage;
    }
    if (!opt.shm && !opt.shmCodec.empty()) {
        fprintf(stderr, "%s: --codec applies to --shm only; a file or URL tells its own codec\n", kCmd);
        return twcli::kExitUsage;
    }
    if (!opt.shmCodec.empty() && CodecFromName(opt.shmCodec) == VIDEO_CODEC_UNKNOWN) {
        fprintf(stderr, "%s: unknown --codec '%s' (mjpeg, mpeg4, h264, hevc)\n", kCmd, opt.shmCodec.c_str());
        return twcli::kExitUsage;
    }
    if (opt.shm && !opt.source.empty()) {
        fprintf(stderr, "%s: --shm reads the live FIFO of --camera-id; give no SOURCE with it\n", kCmd);
        return twcli::kExitUsage;
    }
    if (const int rc = CheckLoop(opt, {opt.source}); rc != 0) return rc;
    if (!opt.report.empty() && !twcli::CheckOutputFile(opt.report, opt.overwrite, {opt.source}, error)) {
        fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }
    if (!opt.report.empty()) {
        // The page is written at the end of the run; a folder it cannot go into is said now,
        // not after an hour of video.
        const size_t slash = opt.report.find_last_of('/');
        const std::string folder = slash == std::string::npos ? "." : (slash == 0 ? "/" : opt.report.substr(0, slash));
        if (access(folder.c_str(), W_OK) != 0) {
            fprintf(stderr, "%s: cannot write the report into '%s': %s\n", kCmd, folder.c_str(), strerror(errno));
            return twcli::kExitFailure;
        }
    }
    if (!opt.snapshotDir.empty() && !PrepareSnapshotDir(opt.snapshotDir, opt.overwrite, error)) {
        fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }

    // Taken by this thread alone from here on: every thread started later (the pump, the
    // detector) inherits the mask.
    StopSignals signals;

    TempSample sample;
    std::string input = opt.source;
    std::vector<std::pair<double, double>> expected;
    if (!opt.shm && input.empty()) {
        if (!sample.Make(error)) {
            fprintf(stderr, "%s: cannot make the built-in sample: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
        input = sample.Path();
        expected = sample.ClipSpec().motion;
    }

    tw::host::MediaSource source;
    tw::host::LiveStreamFormat shmFormat;
    int codec = VIDEO_CODEC_UNKNOWN;
    const bool live = opt.shm || IsUrl(input);
    const bool virtualTime = !live && !opt.realtime;
    double connectSec = -1, probeSec = -1;
    if (opt.shm) {
        const auto probeStart = std::chrono::steady_clock::now();
        const int rc = ProbeShm(opt, signals, codec, shmFormat);
        if (rc != 0) return rc;
        connectSec = 0;
        probeSec = std::chrono::duration<double>(std::chrono::steady_clock::now() - probeStart).count();
    } else {
        QuietFfmpegLog quiet;
        if (!source.Open(input, error)) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
        connectSec = source.GetConnectSeconds();
        probeSec = source.GetProbeSeconds();
        if (!IsUrl(input)) {
            if (!ProbeDecode(source, error) || !source.Rewind(error)) {
                fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
                return twcli::kExitFailure;
            }
        }
        codec = source.GetCodec();
    }

    std::unique_ptr<tw::host::PluginModule> module =
        tw::host::PluginModule::Load(opt.plugin.empty() ? tw::host::PluginModule::DefaultPath() : opt.plugin, error);
    if (!module) {
        fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }

    tw::host::DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(opt.logLevel);
    logConfig.Install();

    // Offline analysis: the detector's period and the stream's timestamps share one virtual
    // clock that jumps to whatever the detector waits for, so a file is judged exactly as
    // it would be live, as fast as decoding allows.
    std::shared_ptr<tw::host::ManualClock> virtualClock;
    if (virtualTime) {
        virtualClock = std::make_shared<tw::host::ManualClock>(0, true);
        tw::host::SetClock(virtualClock);
    }
    struct ClockRestorer {
        bool on;
        ~ClockRestorer() {
            if (on) tw::host::SetClock(nullptr);
        }
    } clockRestorer{virtualTime};
    tw::host::Clock& clock = tw::host::GetClock();

    Camera camera = tw::host::MakeCamera(opt.camId, codec);
    camera.uiStreamNo[camera.liveProfile] = opt.streamNo;
    tw::host::CameraStore::Instance().Put(camera);
    tw::host::DetSettingValues settings;
    settings.sensitivity = opt.sensitivity;
    settings.threshold = opt.threshold;
    settings.shortLiveSec = opt.shortLive;
    settings.region = region;
    tw::host::DetSettingStore::Instance().Put(opt.camId, settings);

    StreamFifo fifo;
    std::unique_ptr<tw::host::FifoPump> pump;
    if (!opt.shm) pump = std::make_unique<tw::host::FifoPump>(source, fifo);
    const int64_t epochUs = clock.NowUs();
    const int64_t durationUs = opt.duration > 0 ? static_cast<int64_t>(opt.duration * 1e6) : -1;
    const int64_t wallOffsetUs = twcli::WallNowUs() - clock.NowUs();
    DetectPrinter printer(epochUs, live ? wallOffsetUs : 0, live);
    printer.SetCamera(opt.camId, false);
    tw::host::ResetTurnLateness(opt.camId);

    // The end of data, on the thread that found it: in virtual time that is the detector's
    // own, before it waits again, so the clock is held right there and no turn is stamped
    // past what the file holds.
    std::atomic<bool> dataEnded{false};
    if (pump) {
        tw::host::ManualClock* vc = virtualClock.get();
        pump->SetEndListener([vc, &printer, &dataEnded, &signals](int64_t endUs) {
            printer.CutAt(endUs, true);
            if (vc != nullptr) vc->SetAdvanceLimitUs(endUs + kPeriodUs);
            dataEnded = true;
            signals.Wake();
        });
        // A run cut at --duration tells what the camera had sent by the cut, not what the
        // pump read ahead of it.
        if (durationUs > 0) pump->SetCountLimitUs(epochUs + durationUs);
        tw::host::FifoPump::RealTimeOptions pacing;
        pacing.loop = opt.loop;
        const bool started = virtualTime ? pump->StartVirtual(error) : pump->StartRealTime(pacing, error);
        if (!started) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitFailure;
        }
    }

    const std::string described = opt.shm ? "the live FIFO of camera " + std::to_string(opt.camId) + " stream " +
                                                std::to_string(opt.streamNo)
                                          : (expected.empty() ? input : std::string("the built-in sample"));
    printer.Begin(described, CodecName(codec), virtualTime, expected, opt.loop);

    // --report / --snapshots: the FIFO tells which frame it hands the detector, the event
    // buffer which status follows; the pair is the picture and the value of one turn.
    std::unique_ptr<DetectReport> report;
    if (!opt.report.empty() || !opt.snapshotDir.empty()) {
        DetectReport::Options reportOptions;
        reportOptions.reportPath = opt.report;
        reportOptions.snapshotDir = opt.snapshotDir;
        reportOptions.maxIntervals = opt.snapshotIntervals;
        reportOptions.framePtsOnClock = !opt.shm;
        DetectReport::Settings reportSettings;
        reportSettings.sensitivity = opt.sensitivity;
        reportSettings.threshold = opt.threshold;
        reportSettings.shortLive = opt.shortLive;
        reportSettings.regionText = opt.region;
        reportSettings.region = region;
        report = std::make_unique<DetectReport>(reportOptions, reportSettings, codec,
                                                opt.shm ? shmFormat.extra : source.GetExtraData(), epochUs);
        DetectReport* r = report.get();
        if (opt.shm) {
            tw::host::SetShmFrameObserver([r](const tw::host::HandedFrame& f) { r->Handed(f); });
        } else {
            tw::host::SetFifoFrameObserver(fifo, [r](const tw::host::HandedFrame& f) { r->Handed(f); });
        }
    }
    EventBuf events(opt.camId);
    DetectReport* reportPtr = report.get();
    tw::host::SetEventListener(events, [&printer, reportPtr](const tw::host::EventRecord& r) {
        const bool accepted = printer.Event(r);
        if (reportPtr != nullptr) reportPtr->Status(r, accepted);
    });

    DPObjectBase* det = module->TWMotionDetFactory(&camera, &events, opt.shm ? nullptr : &fifo, nullptr);
    std::unique_ptr<tw::host::DetectorHandlerProxy> handler = module->NewDetectorHandler();
    handler->SetDetector(det, 2);
    handler->SetDetParam({{1, std::to_string(opt.sensitivity)},
                          {3, std::to_string(opt.threshold)},
                          {9, std::to_string(opt.shortLive)}});

    const auto realStart = std::chrono::steady_clock::now();
    if (durationUs > 0) printer.CutAt(epochUs + durationUs, false);
    const int64_t announcedUs = pump ? pump->GetExpectedEndTimeUs() : -1;
    // In virtual time the detector may not run past what the file is known to hold: the
    // clock stops at the announced end (and moves on in steps while frames keep coming).
    int64_t limitUs = -1;
    if (virtualClock) {
        limitUs = (announcedUs > 0 ? announcedUs : epochUs) + kPeriodUs;
        if (durationUs > 0 && epochUs + durationUs < limitUs) limitUs = epochUs + durationUs;
        virtualClock->SetAdvanceLimitUs(limitUs);
    }
    ProgressLine progress(!live && isatty(STDERR_FILENO) != 0);
    const double announcedSec = announcedUs > 0 ? static_cast<double>(announcedUs - epochUs) / 1e6 : -1;
    int sig = 0;
    std::string endReason;
    WakeOnOutputFailure wakeOnFailure(out, signals);
    handler->Start();
    for (;;) {
        const int64_t now = clock.NowUs();
        if (out.Failed()) {
            endReason = "standard output failed";
            break;
        }
        if (durationUs > 0 && now - epochUs >= durationUs) {
            endReason = "duration reached";
            break;
        }
        if (dataEnded) {
            endReason = pump->GetErrorCount() > 0 ? "read error" : (IsUrl(input) ? "end of stream" : "end of input");
            break;
        }
        if (virtualClock && now >= limitUs && (durationUs < 0 || now - epochUs < durationUs)) {
            limitUs += 1000000;
            if (durationUs > 0 && epochUs + durationUs < limitUs) limitUs = epochUs + durationUs;
            virtualClock->SetAdvanceLimitUs(limitUs);
        }
        progress.Show(static_cast<double>(now - epochUs) / 1e6, announcedSec,
                      std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count());
        int waitMs = 0;
        if (virtualClock) {
            // The detector's sleeps move the virtual time; the clock wakes this loop when it
            // gets to the next point the loop acts on, the advance limit or the duration's
            // end. Looking every millisecond instead cost the run about 3 % of its CPU.
            int64_t nextUs = limitUs;
            if (durationUs > 0) nextUs = std::min(nextUs, epochUs + durationUs);
            virtualClock->WatchUs(nextUs, [&signals] { signals.Wake(); });
            waitMs = !signals.CanWake() ? 1 : (progress.IsOn() ? 250 : 1000);
        } else {
            waitMs = RealTimeWaitMs(now, durationUs > 0 ? epochUs + durationUs : -1);
        }
        if ((sig = signals.Wait(waitMs)) != 0) {
            endReason = StopSignals::Why(sig);
            break;
        }
    }
    if (virtualClock) virtualClock->WatchUs(0, nullptr);
    handler->Stop();
    progress.Clear();
    const double wallSec = std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count();
    handler->Release();
    handler.reset();
    if (pump) pump->Stop();
    tw::host::SetEventListener(events, nullptr);
    if (report) {
        if (opt.shm) {
            tw::host::SetShmFrameObserver(nullptr);
        } else {
            tw::host::SetFifoFrameObserver(fifo, nullptr);
        }
    }

    DetectPrinter::Summary summary;
    summary.endUs = dataEnded ? pump->GetEndTimeUs() : clock.NowUs();
    if (durationUs > 0 && summary.endUs > epochUs + durationUs) summary.endUs = epochUs + durationUs;
    int rc = twcli::ExitForSignal(sig);
    if (dataEnded && pump->GetErrorCount() > 0) {
        fprintf(stderr, "%s: %s\n", kCmd, pump->GetLastError().c_str());
        rc = twcli::kExitFailure;
    }
    const double dataEndSec = dataEnded ? static_cast<double>(pump->GetEndTimeUs() - epochUs) / 1e6 : -1;
    if (dataEnded && !IsUrl(input) && announcedSec > 0 && pump->GetErrorCount() == 0) {
        // The last packet starts a frame before the end; more than that missing is data that
        // the container announced and the file does not hold.
        const double frameSec = static_cast<double>(source.GetFrameIntervalUs()) / 1e6;
        const double slack = std::max(0.5, 3 * frameSec);
        if (dataEndSec + slack < announcedSec) {
            fprintf(stderr, "%s: the data of '%s' ends at %.2f s, before the %.2f s its container announces\n",
                    kCmd, input.c_str(), dataEndSec, announcedSec);
            endReason = "end of data before the announced duration";
        }
    }
    summary.input = Json::Value(Json::objectValue);
    summary.input["source"] = opt.shm ? std::string("shm") : (expected.empty() ? input : std::string("sample"));
    if (opt.shm) summary.input["streamNo"] = opt.streamNo;
    summary.input["codec"] = CodecName(codec);
    summary.input["width"] = opt.shm ? shmFormat.width : source.GetWidth();
    summary.input["height"] = opt.shm ? shmFormat.height : source.GetHeight();
    summary.input["time"] = virtualTime ? "virtual" : "real";
    summary.settings = DetectSettings(opt, opt.camId, region);
    summary.endReason = endReason;
    summary.wallSeconds = wallSec;
    const tw::host::FifoPump::Counts sent = pump ? pump->GetCountsBy(summary.endUs) : tw::host::FifoPump::Counts{};
    summary.frames = sent.packets;
    summary.framesKnown = pump != nullptr;
    summary.file = !live;
    summary.dataEndSec = !live ? dataEndSec : -1;
    summary.announcedSec = !live ? announcedSec : -1;
    summary.watchStartWallUs = epochUs + wallOffsetUs;
    summary.connectSec = connectSec;
    summary.probeSec = probeSec;
    if (opt.loop && pump) summary.loops = static_cast<int64_t>(sent.loops);
    if (!virtualTime) FillLateness(opt.camId, summary);
    if (report) {
        report->Finish(static_cast<double>(summary.endUs - epochUs) / 1e6);
        summary.snapshots = report->SnapshotCount();
        if (!opt.report.empty()) summary.settings["report"] = opt.report;
        if (!opt.snapshotDir.empty()) summary.settings["snapshotDir"] = opt.snapshotDir;
        summary.settings["snapshotIntervals"] = opt.snapshotIntervals;
    }
    if (report && !opt.report.empty()) {
        DetectReport::Input in;
        in.described = described;
        in.codec = CodecName(codec);
        in.width = opt.shm ? shmFormat.width : source.GetWidth();
        in.height = opt.shm ? shmFormat.height : source.GetHeight();
        const double judgedSec = static_cast<double>(summary.endUs - epochUs) / 1e6;
        if (!live && dataEndSec >= 0) {
            in.durationSec = dataEndSec;
            in.durationNote = "(to the last packet";
            if (announcedSec > 0) {
                char text[96];
                snprintf(text, sizeof(text), "; the container announces %.2f s", announcedSec);
                in.durationNote += text;
            }
            in.durationNote += ")";
        } else {
            in.durationSec = judgedSec;
            in.durationNote = live ? "(watched)" : "(judged)";
        }
        if (codec == VIDEO_CODEC_JPEG) {
            in.keyFrames = "every frame (JPEG pictures)";
        } else if (pump && sent.keyFrames > 0) {
            const double perKey = static_cast<double>(sent.packets) / static_cast<double>(sent.keyFrames);
            char text[160];
            snprintf(text, sizeof(text), "every %.1f frames on average (%llu key frames in %llu frames)", perKey,
                     static_cast<unsigned long long>(sent.keyFrames),
                     static_cast<unsigned long long>(sent.packets));
            in.keyFrames = text;
            const double frameSec = static_cast<double>(source.GetFrameIntervalUs()) / 1e6;
            if (frameSec > 0) {
                snprintf(text, sizeof(text), ", i.e. every %.2f s", perKey * frameSec);
                in.keyFrames += text;
            }
        } else {
            in.keyFrames = report->KeyFramesSeen();
        }
        in.timeMode = virtualTime ? "virtual time (judged as live, as fast as decoding allows)" : "real time";
        if (opt.loop) {
            in.timeMode += ", the file looping (" + StartedAgainText(sent.loops) + ")";
        }
        if (live) in.watchStart = twcli::IsoUtc(summary.watchStartWallUs);
        in.endReason = endReason;
        in.frames = summary.frames;
        in.framesKnown = summary.framesKnown;
        if (!report->WriteHtml(in, std::string("twhost ") + TW_VERSION, error)) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            if (rc == 0) rc = twcli::kExitFailure;
        }
    }
    if (report && report->SnapshotFailures() > 0 && rc == 0) rc = twcli::kExitFailure;
    printer.End(summary);
    return rc;
}


// One camera of a run with several sources: its own input, FIFO, pump, event buffer and
// detector thread, as a recorder keeps them for each of its cameras.
struct CameraRun {
    int camId = 0;
    std::string input;
    tw::host::MediaSource source;
    StreamFifo fifo;
    std::unique_ptr<tw::host::FifoPump> pump;
    std::unique_ptr<DetectPrinter> printer;
    std::unique_ptr<EventBuf> events;
    Camera camera{};
    std::unique_ptr<tw::host::DetectorHandlerProxy> handler;
    std::atomic<bool> dataEnded{false};
    double connectSec = -1;
    double probeSec = -1;
    int64_t epochUs = 0;        // host-clock time of the camera's start: its t = 0
    int64_t wallOffsetUs = 0;   // wall clock minus host clock at that start
};

// Several sources: one detector per source in this one process. Each file or stream runs in
// real time: the virtual clock of a single file jumps to whatever its one detector waits
// for, which several detectors cannot share.
int RunDetectMany(const DetectOptions& opt) {
    Out& out = Out::Get();
    out.SetJson(opt.json);
    const size_t n = opt.sources.size();
    std::string region;
    std::string error;
    if (!tw::host::ParseRegion(opt.region, region, error)) {
        fprintf(stderr, "%s: bad --region '%s': %s\n", kCmd, opt.region.c_str(), error.c_str());
        return twcli::kExitUsage;
    }
    if (opt.shm) {
        fprintf(stderr, "%s: --shm reads the live FIFO of --camera-id; give no SOURCE with it\n", kCmd);
        return twcli::kExitUsage;
    }
    if (!opt.shmCodec.empty()) {
        fprintf(stderr, "%s: --codec applies to --shm only; a file or URL tells its own codec\n", kCmd);
        return twcli::kExitUsage;
    }
    if (!opt.report.empty() || !opt.snapshotDir.empty()) {
        fprintf(stderr, "%s: %s pictures one camera; give one SOURCE with it (%zu given)\n", kCmd,
                !opt.report.empty() ? "--report" : "--snapshots", n);
        return twcli::kExitUsage;
    }
    if (!opt.camIds.empty() && opt.camIds.size() != n) {
        fprintf(stderr, "%s: --camera-id is given %zu times for %zu sources; give it once per source, or not at all\n",
                kCmd, opt.camIds.size(), n);
        return twcli::kExitUsage;
    }
    std::vector<int> ids;
    for (size_t i = 0; i < n; ++i) {
        const int id = opt.camIds.empty() ? static_cast<int>(i) + 1 : opt.camIds[i];
        if (std::find(ids.begin(), ids.end(), id) != ids.end()) {
            fprintf(stderr, "%s: camera id %d is given twice (--camera-id); every source needs its own\n", kCmd, id);
            return twcli::kExitUsage;
        }
        ids.push_back(id);
    }
    if (opt.stagger > 60) {
        fprintf(stderr, "%s: --stagger %.3g spreads the starts over more than a minute; give at most 60 s\n", kCmd,
                opt.stagger);
        return twcli::kExitUsage;
    }
    if (const int rc = CheckLoop(opt, opt.sources); rc != 0) return rc;
    if (!opt.realtime) {
        for (const std::string& input : opt.sources) {
            if (!IsUrl(input)) {
                fprintf(stderr,
                        "%s: several sources are watched in real time only, as a recorder's cameras are; "
                        "add --realtime ('%s' is a file)\n",
                        kCmd, input.c_str());
                return twcli::kExitUsage;
            }
        }
    }

    StopSignals signals;

    // Loaded before the cameras are made and so unloaded after them: their handlers hold
    // the plug-in's objects.
    std::unique_ptr<tw::host::PluginModule> module;
    std::vector<std::unique_ptr<CameraRun>> cams;
    for (size_t i = 0; i < n; ++i) {
        auto cam = std::make_unique<CameraRun>();
        cam->camId = ids[i];
        cam->input = opt.sources[i];
        QuietFfmpegLog quiet;
        if (!cam->source.Open(cam->input, error) ||
            (!IsUrl(cam->input) && (!ProbeDecode(cam->source, error) || !cam->source.Rewind(error)))) {
            fprintf(stderr, "%s: camera %d: %s\n", kCmd, cam->camId, error.c_str());
            return twcli::kExitFailure;
        }
        cam->connectSec = cam->source.GetConnectSeconds();
        cam->probeSec = cam->source.GetProbeSeconds();
        cams.push_back(std::move(cam));
    }

    module = tw::host::PluginModule::Load(opt.plugin.empty() ? tw::host::PluginModule::DefaultPath() : opt.plugin, error);
    if (!module) {
        fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }
    tw::host::DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(opt.logLevel);
    logConfig.Install();

    tw::host::Clock& clock = tw::host::GetClock();
    for (auto& cam : cams) {
        cam->camera = tw::host::MakeCamera(cam->camId, cam->source.GetCodec());
        cam->camera.uiStreamNo[cam->camera.liveProfile] = opt.streamNo;
        tw::host::CameraStore::Instance().Put(cam->camera);
        tw::host::DetSettingValues settings;
        settings.sensitivity = opt.sensitivity;
        settings.threshold = opt.threshold;
        settings.shortLiveSec = opt.shortLive;
        settings.region = region;
        tw::host::DetSettingStore::Instance().Put(cam->camId, settings);
        tw::host::ResetTurnLateness(cam->camId);
        cam->pump = std::make_unique<tw::host::FifoPump>(cam->source, cam->fifo);
        cam->events = std::make_unique<EventBuf>(cam->camId);
        DPObjectBase* det = module->TWMotionDetFactory(&cam->camera, cam->events.get(), &cam->fifo, nullptr);
        cam->handler = module->NewDetectorHandler();
        cam->handler->SetDetector(det, 2);
        cam->handler->SetDetParam({{1, std::to_string(opt.sensitivity)},
                                   {3, std::to_string(opt.threshold)},
                                   {9, std::to_string(opt.shortLive)}});
    }

    // Each camera's time counts from its own start, so that "t" stays the time of its
    // video; with --stagger camera k of n starts k/n of that span after the first.
    const auto realStart = std::chrono::steady_clock::now();
    const int64_t firstUs = clock.NowUs();
    const int64_t durationUs = opt.duration > 0 ? static_cast<int64_t>(opt.duration * 1e6) : -1;
    const int64_t staggerUs = static_cast<int64_t>(opt.stagger * 1e6);
    int sig = 0;
    int rc = 0;
    size_t started = 0;
    int64_t lastEpochUs = firstUs;
    for (size_t i = 0; i < n && sig == 0; ++i) {
        CameraRun& cam = *cams[i];
        const int64_t startUs = firstUs + staggerUs * static_cast<int64_t>(i) / static_cast<int64_t>(n);
        for (int64_t now = clock.NowUs(); now < startUs && sig == 0; now = clock.NowUs()) {
            sig = signals.Wait(static_cast<int>(std::min<int64_t>((startUs - now + 999) / 1000, 20)));
        }
        if (sig != 0) break;
        const bool live = IsUrl(cam.input);
        cam.epochUs = clock.NowUs();
        lastEpochUs = cam.epochUs;
        cam.wallOffsetUs = twcli::WallNowUs() - cam.epochUs;
        cam.printer = std::make_unique<DetectPrinter>(cam.epochUs, live ? cam.wallOffsetUs : 0, live);
        cam.printer->SetCamera(cam.camId, true);
        DetectPrinter* printer = cam.printer.get();
        std::atomic<bool>* ended = &cam.dataEnded;
        StopSignals* wake = &signals;
        cam.pump->SetEndListener([printer, ended, wake](int64_t endUs) {
            printer->CutAt(endUs, true);
            *ended = true;
            wake->Wake();
        });
        tw::host::SetEventListener(*cam.events, [printer](const tw::host::EventRecord& r) { printer->Event(r); });
        if (durationUs > 0) printer->CutAt(cam.epochUs + durationUs, false);
        printer->Begin(cam.input, CodecName(cam.source.GetCodec()), false, {}, opt.loop);
        if (durationUs > 0) cam.pump->SetCountLimitUs(cam.epochUs + durationUs);
        tw::host::FifoPump::RealTimeOptions pacing;
        pacing.loop = opt.loop;
        if (!cam.pump->StartRealTime(pacing, error)) {
            fprintf(stderr, "%s: camera %d: %s\n", kCmd, cam.camId, error.c_str());
            rc = twcli::kExitFailure;
            break;
        }
        cam.handler->Start();
        ++started;
    }
    std::string endReason;
    WakeOnOutputFailure wakeOnFailure(out, signals);
    for (; sig == 0 && rc == 0;) {
        if (out.Failed()) {
            endReason = "standard output failed";
            break;
        }
        if (durationUs > 0 && clock.NowUs() - lastEpochUs >= durationUs) {
            endReason = "duration reached";
            break;
        }
        if (std::all_of(cams.begin(), cams.end(), [](const std::unique_ptr<CameraRun>& c) { return c->dataEnded.load(); })) {
            break;   // each camera says its own end
        }
        const int64_t now = clock.NowUs();
        sig = signals.Wait(RealTimeWaitMs(now, durationUs > 0 ? lastEpochUs + durationUs : -1));
    }
    if (sig != 0) endReason = StopSignals::Why(sig);
    // Every detector is told at once: one after the other, each Stop waits up to a period
    // for its own thread, and the last camera would run on for seconds.
    {
        std::vector<std::thread> stoppers;
        for (size_t i = 0; i < started; ++i) {
            tw::host::DetectorHandlerProxy* handler = cams[i]->handler.get();
            try {
                stoppers.emplace_back([handler] { handler->Stop(); });
            } catch (const std::system_error&) {
                handler->Stop();
            }
        }
        for (std::thread& t : stoppers) t.join();
    }
    const double wallSec = std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count();
    for (auto& cam : cams) {
        cam->handler->Release();
        cam->handler.reset();
        cam->pump->Stop();
        tw::host::SetEventListener(*cam->events, nullptr);
    }

    if (rc == 0) rc = twcli::ExitForSignal(sig);
    const int64_t nowUs = clock.NowUs();
    for (size_t i = 0; i < started; ++i) {
        std::unique_ptr<CameraRun>& cam = cams[i];
        const int64_t epochUs = cam->epochUs;
        const bool live = IsUrl(cam->input);
        const bool ended = cam->dataEnded.load();
        tw::host::FifoPump& pump = *cam->pump;
        std::string reason = endReason;
        if (ended && (endReason.empty() || endReason == "duration reached")) {
            reason = pump.GetErrorCount() > 0 ? "read error" : (live ? "end of stream" : "end of input");
        }
        if (ended && pump.GetErrorCount() > 0) {
            fprintf(stderr, "%s: camera %d: %s\n", kCmd, cam->camId, pump.GetLastError().c_str());
            rc = twcli::kExitFailure;
        }
        DetectPrinter::Summary summary;
        summary.endUs = ended ? pump.GetEndTimeUs() : nowUs;
        if (durationUs > 0 && summary.endUs > epochUs + durationUs) summary.endUs = epochUs + durationUs;
        summary.input = Json::Value(Json::objectValue);
        summary.input["source"] = cam->input;
        summary.input["codec"] = CodecName(cam->source.GetCodec());
        summary.input["width"] = cam->source.GetWidth();
        summary.input["height"] = cam->source.GetHeight();
        summary.input["time"] = "real";
        summary.settings = DetectSettings(opt, cam->camId, region);
        summary.settings["cameras"] = static_cast<int>(n);
        if (opt.stagger > 0) summary.settings["stagger"] = opt.stagger;
        summary.endReason = reason;
        summary.wallSeconds = wallSec;
        const tw::host::FifoPump::Counts sent = pump.GetCountsBy(summary.endUs);
        summary.frames = sent.packets;
        summary.framesKnown = true;
        summary.file = !live;
        const double dataEndSec = ended ? static_cast<double>(pump.GetEndTimeUs() - epochUs) / 1e6 : -1;
        const int64_t announcedUs = pump.GetExpectedEndTimeUs();
        summary.dataEndSec = !live ? dataEndSec : -1;
        summary.announcedSec = !live && announcedUs > 0 ? static_cast<double>(announcedUs - epochUs) / 1e6 : -1;
        summary.watchStartWallUs = epochUs + cam->wallOffsetUs;
        summary.connectSec = cam->connectSec;
        summary.probeSec = cam->probeSec;
        if (opt.loop) summary.loops = static_cast<int64_t>(sent.loops);
        FillLateness(cam->camId, summary);
        cam->printer->End(summary);
    }
    return rc;
}
}  // namespace

void RegisterDetectCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<DetectOptions>();
    CLI::App* cmd = app.add_subcommand("detect", "Run a motion detector on a video file, a stream URL, "
                                                 "the shared-memory live FIFO, or the built-in sample; "
                                                 "several sources: one detector each, in one process");
    cmd->add_option("SOURCE", opt->sources,
                    "Video file or URL (rtsp://, http://); default: the built-in sample. Several: one camera "
                    "each, in one process, in real time");
    cmd->add_option("--camera-id", opt->camIds,
                    "Camera id (default 1); with several sources give it once per source, in their order "
                    "(default 1, 2, ...)")
        ->check(twcli::IntIn(1, 1000000))
        ->allow_extra_args(false);
    cmd->add_option("--sensitivity", opt->sensitivity, "Sensitivity 0..100")->check(twcli::IntIn(0, 100));
    cmd->add_option("--threshold", opt->threshold, "Detection threshold 0..100")->check(twcli::IntIn(0, 100));
    cmd->add_option("--short-live", opt->shortLive, "Seconds a motion must last before it is reported, 0..10")
        ->check(twcli::IntIn(0, 10));
    cmd->add_option("--region", opt->region,
                    "Watched cells: 'all', 'none', 1200 characters 0/1 (40 x 30, row by row), or cell "
                    "rectangles 'COL,ROW-COL,ROW;...' (columns 0..39, rows 0..29)");
    cmd->add_option("--stagger", opt->stagger,
                    "Several sources: start them one after another over this many seconds (camera k of n at "
                    "k/n of it) instead of all at once, as independent cameras' key frames never fall together")
        ->check(twcli::Seconds(true));
    cmd->add_flag("--realtime", opt->realtime, "Run a file in real time instead of virtual time");
    cmd->add_flag("--loop", opt->loop,
                  "Real time: start each file again at its end, its time running on, as a camera that never "
                  "stops; the run ends with --duration or a signal");
    cmd->add_flag("--shm", opt->shm, "Read the shared-memory live FIFO that 'twhost stream' fills");
    cmd->add_option("--stream-no", opt->streamNo, "Stream number of the live FIFO (--shm)")->check(twcli::IntIn(0, 7));
    cmd->add_option("--codec", opt->shmCodec,
                    "Codec of the live FIFO (--shm), overriding what its publisher recorded (for a foreign "
                    "publisher): mjpeg, mpeg4, h264, hevc");
    cmd->add_option("--duration", opt->duration, "Stop after this many seconds of stream time")
        ->check(twcli::Seconds(false));
    cmd->add_flag("--json", opt->json, "One JSON object per line for every status, then a summary");
    cmd->add_option("--plugin", opt->plugin, "Path of the plug-in library");
    cmd->add_option("--report", opt->report,
                    "Write a self-contained HTML page of the run: settings, input, the value of every turn "
                    "against the threshold, the camera with the grid, and snapshots of each motion interval");
    cmd->add_option("--snapshots", opt->snapshotDir,
                    "Write the snapshots (start and highest value of each motion interval) as JPEG files into "
                    "this directory, named by time");
    cmd->add_option("--snapshot-intervals", opt->snapshotIntervals,
                    "Motion intervals that get snapshots, from the first on (default 20)")
        ->check(twcli::IntIn(0, 1000));
    cmd->add_flag("-y,--overwrite", opt->overwrite, "Replace an existing --report file and --snapshots files");
    cmd->add_option("--log-level", opt->logLevel,
                    "Plug-in log level 0..7 for every category; the default 3 shows errors only")
        ->check(twcli::IntIn(0, 7));
    cmd->add_flag("--exact-decode", opt->exactDecode,
                  "Keep the H.264/HEVC loop filter in the detector's decodes, so its pictures are exactly "
                  "what a player shows; by default the filter is skipped, which is cheaper");
    cmd->callback([opt, &exitCode]() {
        tw::host::SetExactDetectionDecode(opt->exactDecode);
        if (opt->sources.size() > 1) {
            exitCode = RunDetectMany(*opt);
            return;
        }
        if (opt->stagger > 0) {
            fprintf(stderr, "%s: --stagger spreads the starts of several sources; give more than one SOURCE\n", kCmd);
            exitCode = twcli::kExitUsage;
            return;
        }
        if (opt->camIds.size() > 1) {
            fprintf(stderr, "%s: --camera-id is given %zu times for one camera; give it once per source\n", kCmd,
                    opt->camIds.size());
            exitCode = twcli::kExitUsage;
            return;
        }
        opt->source = opt->sources.empty() ? std::string() : opt->sources[0];
        opt->camId = opt->camIds.empty() ? 1 : opt->camIds[0];
        exitCode = RunDetect(*opt);
    });
}
