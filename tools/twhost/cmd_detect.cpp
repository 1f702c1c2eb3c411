// twhost detect: one motion detector of the plug-in, driven through a DetectorHandler and
// function IDs as a recorder drives it, on a file, a network stream, the shared-memory live
// FIFO of a "twhost stream" process, or the built-in sample.
#include <signal.h>
#include <sys/shm.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <thread>

extern "C" {
#include <libavutil/log.h>
}

#include "cliutil.h"
#include "commands.h"
#include "detectoutput.h"
#include "tw/decode.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/logsink.h"
#include "twhost/mediasource.h"
#include "twhost/plugin.h"
#include "twhost/shmfifo.h"
#include "twhost/stores.h"

namespace {

struct DetectOptions {
    std::string source;
    int camId = 1;
    int sensitivity = 80;
    int threshold = 10;
    int shortLive = 0;
    std::string region = "all";
    bool realtime = false;
    bool shm = false;
    int streamNo = 0;
    std::string shmCodec = "h264";
    bool json = false;
    double duration = 0;
    std::string plugin;
    int logLevel = 4;
};

std::atomic<bool> g_blInterrupted{false};

void OnSignal(int) { g_blInterrupted = true; }

int CodecFromName(const std::string& name) {
    if (name == "mjpeg" || name == "jpeg") return VIDEO_CODEC_JPEG;
    if (name == "mpeg4") return VIDEO_CODEC_MPEG4;
    if (name == "h264") return VIDEO_CODEC_H264;
    if (name == "hevc" || name == "h265") return VIDEO_CODEC_HEVC;
    return VIDEO_CODEC_UNKNOWN;
}

bool IsUrl(const std::string& s) { return s.find("://") != std::string::npos; }

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

// Decodes the first key frame the way the detector will, so that a stream nobody can decode
// is reported once, up front, instead of as a log line every 300 ms.
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
        if (source.GetCodec() == VIDEO_CODEC_JPEG) {
            unsigned char* image = nullptr;
            int size = 0, w = 0, h = 0;
            const int r = DecodeJpeg(frame.data(), static_cast<int>(frame.size()), &image, size, JCS_GRAYSCALE, 16, w, h);
            free(image);
            if (r == 0) return true;
        } else {
            FFmpegAttr attr{};
            unsigned char* image = nullptr;
            const std::vector<unsigned char>& extra = source.GetExtraData();
            int r = DoFFMpegInitVideo(attr, source.GetCodec(), extra.data(), static_cast<int>(extra.size()));
            if (r == 0) r = DoFFMpegDecode(attr, frame.data(), static_cast<int>(frame.size()));
            DoFFMpegFree(attr, image);
            if (r == 0) return true;
        }
        error = std::string("cannot decode the ") + source.GetCodecName() + " video of '" + source.GetInput() + "'";
        return false;
    }
    error = "no key frame to decode in '" + source.GetInput() + "'";
    return false;
}

int RunDetect(const DetectOptions& opt) {
    const char* kCmd = "twhost detect";
    std::string region;
    std::string error;
    if (!tw::host::ParseRegion(opt.region, region, error)) {
        fprintf(stderr, "%s: bad --region '%s': %s\n", kCmd, opt.region.c_str(), error.c_str());
        return 2;
    }

    // The built-in sample is made on the fly; nothing encoded is shipped.
    std::string input = opt.source;
    std::string tempSample;
    std::vector<std::pair<double, double>> expected;
    if (!opt.shm && input.empty()) {
        const tw::host::ClipSpec clipSpec = tw::host::SampleClipSpec();
        char path[] = "/tmp/twhost-sample-XXXXXX";
        const int fd = mkstemp(path);
        if (fd < 0) {
            fprintf(stderr, "%s: cannot create a temporary file for the sample\n", kCmd);
            return 1;
        }
        close(fd);
        unlink(path);
        tempSample = std::string(path) + ".mp4";
        if (!tw::host::WriteClip(clipSpec, tempSample, error)) {
            fprintf(stderr, "%s: cannot make the built-in sample: %s\n", kCmd, error.c_str());
            return 1;
        }
        input = tempSample;
        expected = clipSpec.motion;
    }
    struct TempRemover {
        std::string path;
        ~TempRemover() {
            if (!path.empty()) unlink(path.c_str());
        }
    } remover{tempSample};

    tw::host::MediaSource source;
    int codec = VIDEO_CODEC_UNKNOWN;
    const bool virtualTime = !opt.shm && !opt.realtime && !IsUrl(input);
    if (opt.shm) {
        codec = CodecFromName(opt.shmCodec);
        if (codec == VIDEO_CODEC_UNKNOWN) {
            fprintf(stderr, "%s: unknown --codec '%s' (mjpeg, mpeg4, h264, hevc)\n", kCmd, opt.shmCodec.c_str());
            return 2;
        }
        // Without a publisher the detector's thread gives up at once and only logs it; the
        // run would then wait for nothing, so the missing stream is reported here instead.
        key_t key = 0;
        if (!tw::host::LiveStreamShmKey(opt.camId, opt.streamNo, key, error)) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return 1;
        }
        ShmStreamFifo* live = LiveStreamFifoAt(opt.camId, opt.streamNo);
        if (live == nullptr) {
            fprintf(stderr,
                    "%s: no live stream of camera %d stream %d in shared memory (key 0x%08x); "
                    "start 'twhost stream SOURCE --camera-id %d' first\n",
                    kCmd, opt.camId, opt.streamNo, static_cast<unsigned>(key), opt.camId);
            return 1;
        }
        shmdt(live);
    } else {
        QuietFfmpegLog quiet;
        if (!source.Open(input, error)) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return 1;
        }
        if (!IsUrl(input)) {
            if (!ProbeDecode(source, error)) {
                fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
                return 1;
            }
            if (!source.Rewind(error)) {
                fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
                return 1;
            }
        }
        codec = source.GetCodec();
    }

    std::unique_ptr<tw::host::PluginModule> module =
        tw::host::PluginModule::Load(opt.plugin.empty() ? tw::host::PluginModule::DefaultPath() : opt.plugin, error);
    if (!module) {
        fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return 1;
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
    if (!opt.shm) {
        pump = std::make_unique<tw::host::FifoPump>(source, fifo);
        const bool started = virtualTime ? pump->StartVirtual(error) : pump->StartRealTime({}, error);
        if (!started) {
            fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return 1;
        }
    }
    const int64_t epochUs = pump ? pump->GetEpochUs() : clock.NowUs();

    DetectPrinter printer(opt.json, epochUs, isatty(STDOUT_FILENO) != 0);
    printer.Begin(opt.shm ? "shared memory of camera " + std::to_string(opt.camId) : input,
                  opt.shm ? opt.shmCodec : source.GetCodecName(), virtualTime, expected);
    EventBuf events(opt.camId);
    tw::host::SetEventListener(events, [&printer](const tw::host::EventRecord& r) { printer.Event(r); });

    DPObjectBase* det = module->TWMotionDetFactory(&camera, &events, opt.shm ? nullptr : &fifo, nullptr);
    std::unique_ptr<tw::host::DetectorHandlerProxy> handler = module->NewDetectorHandler();
    handler->SetDetector(det, 2);
    handler->SetDetParam({{1, std::to_string(opt.sensitivity)},
                          {3, std::to_string(opt.threshold)},
                          {9, std::to_string(opt.shortLive)}});

    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    const auto realStart = std::chrono::steady_clock::now();
    const int64_t durationUs = opt.duration > 0 ? static_cast<int64_t>(opt.duration * 1e6) : -1;
    // In virtual time the detector may not run past what the file is known to hold: the
    // clock stops at the expected end (and moves on in steps while frames keep coming), so
    // the last verdicts are stamped where they belong.
    constexpr int64_t kPeriodUs = 300000;
    int64_t limitUs = -1;
    if (virtualClock) {
        const int64_t expectedEnd = pump->GetExpectedEndTimeUs();
        limitUs = (expectedEnd > 0 ? expectedEnd : epochUs) + kPeriodUs;
        if (durationUs > 0 && epochUs + durationUs < limitUs) limitUs = epochUs + durationUs;
        virtualClock->SetAdvanceLimitUs(limitUs);
    }
    handler->Start();
    for (;;) {
        if (g_blInterrupted) break;
        if (!handler->IsActivated()) break;  // never, but a host checks
        const int64_t now = clock.NowUs();
        if (durationUs > 0 && now - epochUs >= durationUs) break;
        if (pump && pump->Ended()) {
            // Let the detector look once more after the last frame arrived.
            const int64_t stopAt = pump->GetEndTimeUs() + kPeriodUs;
            if (virtualClock && limitUs != stopAt) {
                limitUs = stopAt;
                virtualClock->SetAdvanceLimitUs(limitUs);
            }
            if (now >= stopAt) break;
        } else if (virtualClock && now >= limitUs && (durationUs < 0 || now - epochUs < durationUs)) {
            limitUs += 1000000;
            virtualClock->SetAdvanceLimitUs(limitUs);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(virtualTime ? 1 : 20));
    }
    handler->Stop();
    const double wallSec =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - realStart).count();
    const int64_t endUs = pump && pump->Ended() ? pump->GetEndTimeUs() : clock.NowUs();
    handler->Release();
    handler.reset();
    if (pump) pump->Stop();
    tw::host::SetEventListener(events, nullptr);
    printer.End(endUs, wallSec, pump ? pump->GetPacketCount() : 0);
    if (virtualClock) tw::host::SetClock(nullptr);
    return 0;
}

}  // namespace

void RegisterDetectCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<DetectOptions>();
    CLI::App* cmd = app.add_subcommand("detect", "Run one motion detector on a video file, a stream URL, "
                                                 "the shared-memory live FIFO, or the built-in sample");
    cmd->add_option("SOURCE", opt->source, "Video file or URL (rtsp://, http://); default: the built-in sample");
    cmd->add_option("--camera-id", opt->camId, "Camera id")->check(twcli::IntIn(1, 1000000));
    cmd->add_option("--sensitivity", opt->sensitivity, "Sensitivity 0..100")->check(twcli::IntIn(0, 100));
    cmd->add_option("--threshold", opt->threshold, "Detection threshold 0..100")->check(twcli::IntIn(0, 100));
    cmd->add_option("--short-live", opt->shortLive, "Seconds a motion must last before it is reported, 0..10")
        ->check(twcli::IntIn(0, 10));
    cmd->add_option("--region", opt->region,
                    "Watched cells: 'all', 'none', 1200 characters 0/1 (40 x 30, row by row), or cell "
                    "rectangles 'COL,ROW-COL,ROW;...' (columns 0..39, rows 0..29)");
    cmd->add_flag("--realtime", opt->realtime, "Run a file in real time instead of virtual time");
    cmd->add_flag("--shm", opt->shm, "Read the shared-memory live FIFO that 'twhost stream' fills");
    cmd->add_option("--stream-no", opt->streamNo, "Stream number of the live FIFO (--shm)")->check(twcli::IntIn(0, 7));
    cmd->add_option("--codec", opt->shmCodec, "Codec of the live FIFO (--shm): mjpeg, mpeg4, h264, hevc");
    cmd->add_option("--duration", opt->duration, "Stop after this many seconds of stream time")
        ->check(twcli::Seconds(false));
    cmd->add_flag("--json", opt->json, "One JSON object per line for every status, then a summary");
    cmd->add_option("--plugin", opt->plugin, "Path of the plug-in library");
    cmd->add_option("--log-level", opt->logLevel, "Plug-in log level 0..7 for every category")
        ->check(twcli::IntIn(0, 7));
    cmd->callback([opt, &exitCode]() { exitCode = RunDetect(*opt); });
}
