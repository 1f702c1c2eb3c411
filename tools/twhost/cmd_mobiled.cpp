// twhost mobiled: plays the host's mobile daemon for live-cam detectors. It serves the
// control socket that MobiledApi talks to and, for every started "event" stream, connects to
// the detector's socket and plays an event script into it, in the tidy or awkward shapes a
// real daemon produces.
#include <signal.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include <json/json.h>

#include "cliutil.h"
#include "commands.h"
#include "stopsignals.h"
#include "twhost/mobiledaemon.h"

namespace tw::host {
namespace {

const char* const kCmd = "twhost mobiled";

struct MobiledOptions {
    std::string m_strSocket = kDefaultMobiledSocket;
    std::string m_strScript;
    int m_Coalesce = 1;
    bool m_blSplit = false;
    int m_PauseMs = 100;
    std::string m_strRefuse;
    bool m_blNoConnect = false;
    bool m_blRepeat = false;
    bool m_blHold = false;
    bool m_blJson = false;
};

// Payloads are text as a rule, but raw events carry any byte: shown with C escapes.
std::string Printable(const std::string& bytes) {
    std::string out;
    for (const char c : bytes) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\\') {
            out += "\\\\";
        } else if (c == '"') {
            out += "\\\"";
        } else if (u < 0x20 || u >= 0x7f) {
            char hex[8];
            std::snprintf(hex, sizeof(hex), "\\x%02x", u);
            out += hex;
        } else {
            out += c;
        }
    }
    return out;
}

const char* KindName(MobiledActivity::Kind kind) {
    switch (kind) {
    case MobiledActivity::Kind::Request: return "request";
    case MobiledActivity::Kind::Connected: return "connected";
    case MobiledActivity::Kind::EventSent: return "event";
    case MobiledActivity::Kind::StreamEnded: return "ended";
    case MobiledActivity::Kind::Failure: return "failure";
    }
    return "unknown";
}

Json::Value ActivityJson(const MobiledActivity& a) {
    Json::Value v = twcli::Out::Line(KindName(a.kind), a.t);
    if (a.cameraId >= 0 || a.kind != MobiledActivity::Kind::Request) v["cameraId"] = a.cameraId;
    switch (a.kind) {
    case MobiledActivity::Kind::Request:
        v["cmd"] = a.cmd;
        if (!a.stream.empty()) v["stream"] = a.stream;
        if (!a.socketName.empty()) v["socketName"] = a.socketName;
        v["success"] = a.success;
        if (!a.success) v["errorMsg"] = a.errorMsg;
        break;
    case MobiledActivity::Kind::EventSent:
        v["index"] = a.index;
        v["line"] = a.line;
        if (a.raw) {
            v["raw"] = Printable(a.payload);
        } else {
            v["eventType"] = a.type;
            v["payload"] = a.payload;
        }
        v["bytes"] = static_cast<Json::UInt64>(a.bytes);
        v["writes"] = a.writes;
        break;
    case MobiledActivity::Kind::Connected:
        v["path"] = a.path;
        break;
    case MobiledActivity::Kind::StreamEnded:
    case MobiledActivity::Kind::Failure:
        v["path"] = a.path;
        v["reason"] = a.reason;
        break;
    }
    return v;
}

std::string ActivityText(const MobiledActivity& a) {
    char t[32];
    std::snprintf(t, sizeof(t), "%8.3f  ", a.t);
    std::string line = t;
    const std::string cam = "camera " + std::to_string(a.cameraId);
    switch (a.kind) {
    case MobiledActivity::Kind::Request:
        line += (a.cmd.empty() ? std::string("(bad request)") : a.cmd);
        if (a.cameraId >= 0) line += " " + cam;
        if (!a.stream.empty()) line += " stream " + a.stream;
        if (!a.socketName.empty()) line += " socket " + a.socketName;
        line += a.success ? " -> success" : " -> refused: " + a.errorMsg;
        break;
    case MobiledActivity::Kind::Connected:
        line += cam + ": connected to " + a.path;
        break;
    case MobiledActivity::Kind::EventSent:
        line += cam + ": sent event " + std::to_string(a.index) + " (line " + std::to_string(a.line) + ") ";
        line += a.raw ? "raw \"" + Printable(a.payload) + "\"" : a.type + " \"" + a.payload + "\"";
        line += ", " + std::to_string(a.bytes) + " bytes";
        if (a.writes > 1) line += ", in " + std::to_string(a.writes) + " writes";
        break;
    case MobiledActivity::Kind::StreamEnded:
        line += cam + ": stream closed: " + a.reason;
        break;
    case MobiledActivity::Kind::Failure:
        line += cam + ": " + a.reason;
        break;
    }
    return line;
}

int RunMobiled(const MobiledOptions& opt) {
    MobileDaemonOptions daemonOptions;
    daemonOptions.m_strSocketPath = opt.m_strSocket;
    std::string error;
    if (!opt.m_strScript.empty() && !LoadMobiledScript(opt.m_strScript, daemonOptions.m_Script, error)) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return 2;
    }
    daemonOptions.m_Coalesce = opt.m_Coalesce;
    daemonOptions.m_blSplit = opt.m_blSplit;
    daemonOptions.m_PauseMs = opt.m_PauseMs;
    daemonOptions.m_blRefuse = !opt.m_strRefuse.empty();
    daemonOptions.m_strRefuseMsg = opt.m_strRefuse;
    daemonOptions.m_blNoConnect = opt.m_blNoConnect;
    daemonOptions.m_blRepeat = opt.m_blRepeat;
    daemonOptions.m_blHold = opt.m_blHold;
    const size_t eventCount = daemonOptions.m_Script.events.size();

    // The signals are taken by this thread alone: the daemon's threads inherit the mask.
    StopSignals stopSignals;

    twcli::Out& out = twcli::Out::Get();
    out.SetJson(opt.m_blJson);
    std::mutex countMutex;
    std::map<std::string, int> counts;
    MobileDaemon daemon(daemonOptions);
    daemon.SetListener([&](const MobiledActivity& activity) {
        {
            std::lock_guard<std::mutex> lock(countMutex);
            ++counts[KindName(activity.kind)];
        }
        if (out.Json()) {
            out.Emit(ActivityJson(activity));
        } else {
            out.Text(ActivityText(activity));
        }
    });
    if (!daemon.Start(error)) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return twcli::kExitFailure;
    }
    const auto started = std::chrono::steady_clock::now();
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("listening", 0.0);
        v["socket"] = opt.m_strSocket;
        v["events"] = static_cast<Json::UInt64>(eventCount);
        out.Emit(v);
    } else {
        out.Textf("%s: serving '%s', script of %zu event%s", kCmd, opt.m_strSocket.c_str(), eventCount,
                  eventCount == 1 ? "" : "s");
    }

    int sig = 0;
    while (sig == 0 && !out.Failed()) sig = stopSignals.Wait(500);
    daemon.Stop();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const char* endReason = sig != 0 ? StopSignals::Why(sig) : "standard output failed";
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("summary", seconds);
        Json::Value input(Json::objectValue);
        input["script"] = opt.m_strScript;
        input["events"] = static_cast<Json::UInt64>(eventCount);
        v["input"] = input;
        Json::Value settings(Json::objectValue);
        settings["socket"] = opt.m_strSocket;
        settings["coalesce"] = opt.m_Coalesce;
        settings["split"] = opt.m_blSplit;
        settings["pauseMs"] = opt.m_PauseMs;
        if (!opt.m_strRefuse.empty()) settings["refuse"] = opt.m_strRefuse;
        settings["noConnect"] = opt.m_blNoConnect;
        settings["repeat"] = opt.m_blRepeat;
        settings["hold"] = opt.m_blHold;
        v["settings"] = settings;
        v["endReason"] = endReason;
        std::lock_guard<std::mutex> lock(countMutex);
        v["requests"] = counts["request"];
        v["connections"] = counts["connected"];
        v["eventsSent"] = counts["event"];
        out.Emit(v);
    } else {
        out.Textf("%s: %s; control socket removed", kCmd, endReason);
    }
    return twcli::ExitForSignal(sig);
}

}  // namespace
}  // namespace tw::host

void RegisterMobiledCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<tw::host::MobiledOptions>();
    CLI::App* cmd = app.add_subcommand(
        "mobiled", "Emulate the mobile daemon: serve its control socket and play an event script into "
                   "live-cam detectors' sockets, until SIGINT/SIGTERM");
    cmd->add_option("--socket", opt->m_strSocket, "Control socket path")->capture_default_str();
    cmd->add_option("--script", opt->m_strScript,
                    "Event script, '-' for standard input. One event a line: 'DELAY PAYLOAD...' "
                    "(seconds after the previous event, e.g. '0.5 IsTrig:1 Level:57'), "
                    "'DELAY type=TYPE PAYLOAD...', 'DELAY raw \"C-escaped bytes\"'; '#' comments");
    cmd->add_option("--coalesce", opt->m_Coalesce, "Write N frames at a time (in one write)")
        ->check(twcli::IntIn(2, 1000));
    cmd->add_flag("--split", opt->m_blSplit, "Write every frame in pieces, cut inside its header and its payload");
    cmd->add_option("--pause-ms", opt->m_PauseMs, "Pause between the pieces of a split frame, ms")
        ->check(twcli::IntIn(0, 60000))
        ->capture_default_str();
    CLI::Option* refuse =
        cmd->add_option("--refuse", opt->m_strRefuse, "Refuse every start with this error message (e.g. busy)");
    refuse->check([](const std::string& text) { return text.empty() ? std::string("empty message") : std::string(); });
    CLI::Option* noConnect =
        cmd->add_flag("--no-connect", opt->m_blNoConnect, "Agree to starts but never connect to the detector");
    noConnect->excludes(refuse);
    cmd->add_flag("--repeat", opt->m_blRepeat, "Play the script for every start, not only the first");
    cmd->add_flag("--hold", opt->m_blHold, "Keep a stream open after its script, until stopStream");
    cmd->add_flag("--json", opt->m_blJson, "One JSON object per line for every request and event");
    cmd->callback([opt, &exitCode]() { exitCode = tw::host::RunMobiled(*opt); });
}
