// twhost livecam: one live-cam detector of the plug-in, driven through a DetectorHandler and
// function IDs as a recorder drives it. The detector serves its event socket and asks the
// mobile daemon (a "twhost mobiled" process, or anyone, with --mobiled none) to stream the
// device's motion events into it; every status it reports is printed.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <mutex>
#include <string>

#include <json/json.h>

#include "cliutil.h"
#include "commands.h"
#include "stopsignals.h"
#include "tw/camera.h"
#include "twhost/clock.h"
#include "twhost/eventlog.h"
#include "twhost/logsink.h"
#include "twhost/mobiled.h"
#include "twhost/plugin.h"
#include "twhost/stores.h"

namespace tw::host {
namespace {

const char* const kCmd = "twhost livecam";
// The live-cam detector's type in a DetectorHandler.
constexpr int kLiveCamDetType = 9;

struct LiveCamOptions {
    int m_CamId = -1;
    std::string m_strMobiled;   // control socket path, "none", or empty for the default
    bool m_blJson = false;
    double m_DurationSec = 0.0;
    std::string m_strPlugin;
    int m_LogLevel = 3;
};

// Prints statuses as they come, on the detector's thread.
class LiveCamPrinter {
public:
    LiveCamPrinter(int64_t epochUs, int64_t wallOffsetUs) : m_EpochUs(epochUs), m_WallOffsetUs(wallOffsetUs) {}

    void Status(const EventRecord& record) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        ++m_Count;
        if (record.motion) ++m_MotionCount;
        const double t = static_cast<double>(record.timeUs - m_EpochUs) / 1e6;
        twcli::Out& out = twcli::Out::Get();
        const std::string wall = twcli::IsoUtc(record.timeUs + m_WallOffsetUs);
        if (out.Json()) {
            Json::Value v = twcli::Out::Line("status", t);
            v["motion"] = record.motion;
            v["value"] = record.value;
            v["wallTime"] = wall;
            out.Emit(v);
            return;
        }
        // A readable account shows changes only: the end of every cycle repeats "no motion".
        if (m_blPrinted && record.motion == m_blLastMotion && record.value == m_LastValue) return;
        if (record.motion) {
            out.Textf("%8.3f s  motion, level %d  %s", t, record.value, wall.c_str());
        } else {
            out.Textf("%8.3f s  no motion (level %d)  %s", t, record.value, wall.c_str());
        }
        m_blPrinted = true;
        m_blLastMotion = record.motion;
        m_LastValue = record.value;
    }

    void Summary(double seconds, const Json::Value& input, const Json::Value& settings, const std::string& endReason) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        twcli::Out& out = twcli::Out::Get();
        if (out.Json()) {
            Json::Value v = twcli::Out::Line("summary", seconds);
            v["input"] = input;
            v["settings"] = settings;
            v["endReason"] = endReason;
            v["statuses"] = m_Count;
            v["motionStatuses"] = m_MotionCount;
            v["watchStart"] = twcli::IsoUtc(m_EpochUs + m_WallOffsetUs);
            out.Emit(v);
            return;
        }
        out.Textf("%s: %s after %.1f s: %d status%s, %d with motion", kCmd, endReason.c_str(), seconds, m_Count,
                  m_Count == 1 ? "" : "es", m_MotionCount);
    }

private:
    std::mutex m_Mutex;
    int64_t m_EpochUs;
    int64_t m_WallOffsetUs;
    bool m_blPrinted = false;
    bool m_blLastMotion = false;
    int m_LastValue = 0;
    int m_Count = 0;
    int m_MotionCount = 0;
};

// Whether anything accepts connections at a control socket path (a daemon answers a silent
// connection with nothing, so probing disturbs no one).
bool DaemonListens(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return false;
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

int RunLiveCam(const LiveCamOptions& opt) {
    twcli::Out::Get().SetJson(opt.m_blJson);
    const bool noDaemon = opt.m_strMobiled == "none";
    const std::string controlPath = opt.m_strMobiled.empty() ? std::string(kDefaultMobiledSocket) : opt.m_strMobiled;
    if (!noDaemon) {
        if (controlPath.size() >= sizeof(sockaddr_un{}.sun_path)) {
            std::fprintf(stderr, "%s: bad --mobiled '%s': socket path longer than %zu bytes\n", kCmd,
                         controlPath.c_str(), sizeof(sockaddr_un{}.sun_path) - 1);
            return 2;
        }
    }
    std::string error;
    std::unique_ptr<PluginModule> module =
        PluginModule::Load(opt.m_strPlugin.empty() ? PluginModule::DefaultPath() : opt.m_strPlugin, error);
    if (!module) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return 1;
    }

    if (noDaemon) {
        // Anyone may then play the daemon: the detector's socket takes the first connection.
        SetMobiledHandler(MobiledAnswersSuccess());
    } else {
        SetMobiledSocketPath(controlPath);
        if (!DaemonListens(controlPath)) {
            std::fprintf(stderr,
                         "%s: warning: no mobile daemon at '%s' yet; the detector asks again every cycle "
                         "(start 'twhost mobiled --socket %s')\n",
                         kCmd, controlPath.c_str(), controlPath.c_str());
        }
    }

    DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(opt.m_LogLevel);
    logConfig.Install();

    Camera camera = MakeCamera(opt.m_CamId, VIDEO_CODEC_UNKNOWN);
    CameraStore::Instance().Put(camera);
    EventBuf events(opt.m_CamId);

    // The signals are taken by this thread alone: the detector's thread inherits the mask.
    StopSignals stopSignals;

    Clock& clock = GetClock();
    const int64_t epochUs = clock.NowUs();
    LiveCamPrinter printer(epochUs, twcli::WallNowUs() - epochUs);
    SetEventListener(events, [&printer](const EventRecord& record) { printer.Status(record); });
    if (!opt.m_blJson) {
        twcli::Out::Get().Textf("%s: camera %d, detector socket /tmp/tw_livecam_detector_%d.sock, mobile daemon %s",
                                kCmd, opt.m_CamId, opt.m_CamId,
                                noDaemon ? "none (every request agreed; connect to the socket yourself)"
                                         : ("at '" + controlPath + "'").c_str());
    }

    DPObjectBase* det = module->LiveCamDetectorFactory(&camera, &events);
    std::unique_ptr<DetectorHandlerProxy> handler = module->NewDetectorHandler();
    handler->SetDetector(det, kLiveCamDetType);
    int rc = 0;
    const char* endReason = "duration reached";
    if (handler->Start() != 0) {
        std::fprintf(stderr, "%s: the detector of camera %d did not start\n", kCmd, opt.m_CamId);
        rc = 1;
        endReason = "the detector did not start";
    } else {
        const int64_t stopAtUs = opt.m_DurationSec > 0.0 ? epochUs + static_cast<int64_t>(opt.m_DurationSec * 1e6) : -1;
        for (;;) {
            const int64_t now = clock.NowUs();
            if (stopAtUs >= 0 && now >= stopAtUs) break;
            int64_t sliceUs = 100000;
            if (stopAtUs >= 0 && stopAtUs - now < sliceUs) sliceUs = stopAtUs - now;
            if (twcli::Out::Get().Failed()) {
                endReason = "standard output failed";
                break;
            }
            if (const int sig = stopSignals.Wait(static_cast<int>((sliceUs + 999) / 1000))) {
                endReason = StopSignals::Why(sig);
                rc = twcli::ExitForSignal(sig);
                break;
            }
        }
        // Stopping waits for the detector's thread, which may be in its pause between cycles.
        handler->Stop();
    }
    handler->Release();
    handler.reset();
    SetEventListener(events, nullptr);
    if (noDaemon) SetMobiledHandler(nullptr);
    Json::Value input(Json::objectValue);
    input["socket"] = "/tmp/tw_livecam_detector_" + std::to_string(opt.m_CamId) + ".sock";
    input["mobiled"] = noDaemon ? std::string("none") : controlPath;
    Json::Value settings(Json::objectValue);
    settings["cameraId"] = opt.m_CamId;
    if (opt.m_DurationSec > 0.0) settings["duration"] = opt.m_DurationSec;
    settings["logLevel"] = opt.m_LogLevel;
    printer.Summary(static_cast<double>(clock.NowUs() - epochUs) / 1e6, input, settings, endReason);
    return rc;
}

}  // namespace
}  // namespace tw::host

void RegisterLiveCamCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<tw::host::LiveCamOptions>();
    CLI::App* cmd = app.add_subcommand(
        "livecam", "Run one live-cam detector: it serves /tmp/tw_livecam_detector_<id>.sock, has the mobile "
                   "daemon stream events into it and prints every status, until SIGINT/SIGTERM or --duration");
    cmd->add_option("--camera-id", opt->m_CamId, "Camera id")
        ->required()
        ->check(twcli::IntIn(0, 2147483647));
    cmd->add_option("--mobiled", opt->m_strMobiled,
                    "Control socket of the mobile daemon (default " + std::string(tw::host::kDefaultMobiledSocket) +
                        "), or 'none': every request is agreed and any process may connect to the socket")
        ->check([](const std::string& text) { return text.empty() ? std::string("empty path") : std::string(); });
    cmd->add_flag("--json", opt->m_blJson, "One JSON object per line: a \"status\" line per status, then the \"summary\"");
    cmd->add_option("--duration", opt->m_DurationSec, "Stop after this many seconds")->check(twcli::Seconds(false));
    cmd->add_option("--plugin", opt->m_strPlugin, "Path of the plug-in library");
    cmd->add_option("--log-level", opt->m_LogLevel, "Plug-in log level 0..7 for every category (3: errors only)")
        ->check(twcli::IntIn(0, 7))
        ->capture_default_str();
    cmd->callback([opt, &exitCode]() { exitCode = tw::host::RunLiveCam(*opt); });
}
