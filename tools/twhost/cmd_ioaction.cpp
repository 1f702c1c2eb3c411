// twhost ioaction: one I/O action executor of the plug-in for one I/O module, driven as a
// recorder's action rules drive it. The module is the host's emulator, or a real network
// I/O module over Modbus/TCP. Requests come from the command line or as JSON lines on
// standard input; the executor's statuses and every request it sends to the module are
// printed as they happen.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "cliutil.h"
#include "commands.h"
#include "ioactionrequest.h"
#include "stopsignals.h"
#include "twhost/clock.h"
#include "twhost/devstatus.h"
#include "twhost/iomodule.h"
#include "twhost/logsink.h"
#include "twhost/plugin.h"

namespace tw::host {
namespace {

const char* const kCmd = "twhost ioaction";
constexpr int64_t kSettleUs = 1100000;

struct IOActionOptions {
    int m_ModuleId = 1;
    int m_Outputs = 4;
    std::string m_strModbus;
    int m_ModbusUnit = 1;
    std::vector<std::string> m_Patterns;
    std::vector<std::string> m_Requests;
    double m_WaitSec = 0.0;
    bool m_blJson = false;
    std::string m_strPlugin;
    int m_LogLevel = 4;
};

// Standard input, read by a thread of its own so that signals and statuses are served
// while a line is awaited. Detached: a read blocked at exit ends with the process.
class LineQueue {
public:
    void Start() {
        std::thread([this] {
            std::string line;
            while (std::getline(std::cin, line)) {
                std::lock_guard<std::mutex> lock(m_Mutex);
                m_Lines.push_back(line);
            }
            std::lock_guard<std::mutex> lock(m_Mutex);
            m_blEnd = true;
        }).detach();
    }
    // The next line, if one is there; false with end set when input is over.
    bool Next(std::string& line, bool& end) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        end = m_blEnd && m_Lines.empty();
        if (m_Lines.empty()) return false;
        line = std::move(m_Lines.front());
        m_Lines.pop_front();
        return true;
    }

private:
    std::mutex m_Mutex;
    std::deque<std::string> m_Lines;
    bool m_blEnd = false;
};

class Printer {
public:
    Printer(bool json, int64_t epochUs) : m_blJson(json), m_EpochUs(epochUs) {
        m_Writer["indentation"] = "";
        m_Writer["precision"] = 3;
        m_Writer["precisionType"] = "decimal";
    }

    double Seconds(int64_t us) const { return static_cast<double>(us - m_EpochUs) / 1e6; }

    void Sent(const IORequest& r) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_blJson) {
            Json::Value v(Json::objectValue);
            v["t"] = Seconds(r.timeUs);
            v["request"] = r.target;
            Json::Value body;
            Json::Reader().parse(r.json, body);
            v["body"] = body;
            v["result"] = r.result;
            std::printf("%s\n", Json::writeString(m_Writer, v).c_str());
        } else {
            std::printf("%8.3f s  %-36s %s -> %s\n", Seconds(r.timeUs), r.target.c_str(), r.json.c_str(),
                        r.result == 0 ? "ok" : ("failed (" + std::to_string(r.result) + ")").c_str());
        }
        std::fflush(stdout);
    }

    void Status(int64_t nowUs, const std::map<int, int>& act, const std::map<int, int>& outputs) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (m_blPrinted && act == m_LastAct && outputs == m_LastDO) return;
        m_blPrinted = true;
        m_LastAct = act;
        m_LastDO = outputs;
        if (m_blJson) {
            Json::Value v(Json::objectValue);
            v["t"] = Seconds(nowUs);
            v["audio"] = act.count(IOACT_TYPE_AUDIO_OUT) ? act.at(IOACT_TYPE_AUDIO_OUT) : 0;
            Json::Value ports(Json::objectValue);
            for (const auto& p : outputs) ports[std::to_string(p.first)] = p.second;
            v["outputs"] = ports;
            std::printf("%s\n", Json::writeString(m_Writer, v).c_str());
        } else {
            std::string text;
            for (const auto& p : outputs) {
                text += " " + std::to_string(p.first) + ":" + Name(p.second);
            }
            std::printf("%8.3f s  status: audio %s, outputs%s\n", Seconds(nowUs),
                        Name(act.count(IOACT_TYPE_AUDIO_OUT) ? act.at(IOACT_TYPE_AUDIO_OUT) : 0),
                        text.empty() ? " none" : text.c_str());
        }
        std::fflush(stdout);
    }

    void Note(const std::string& text) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        if (!m_blJson) {
            std::printf("%s\n", text.c_str());
            std::fflush(stdout);
        }
    }

private:
    static const char* Name(int status) {
        switch (status) {
            case 0: return "idle";
            case 1: return "active";
            case 2: return "manual";
            case 3: return "failed";
            default: return "?";
        }
    }

    std::mutex m_Mutex;
    bool m_blJson;
    int64_t m_EpochUs;
    Json::StreamWriterBuilder m_Writer;
    bool m_blPrinted = false;
    std::map<int, int> m_LastAct, m_LastDO;
};

// "ID=PATH:SECONDS" into the pattern store.
bool AddPattern(const std::string& text, std::string& error) {
    const size_t eq = text.find('=');
    const size_t colon = text.rfind(':');
    if (eq == std::string::npos || colon == std::string::npos || colon < eq) {
        error = "bad --pattern '" + text + "': expected ID=PATH:SECONDS";
        return false;
    }
    int id = 0, seconds = 0;
    try {
        size_t used = 0;
        id = std::stoi(text.substr(0, eq), &used);
        if (used != eq) throw std::invalid_argument("id");
        const std::string secText = text.substr(colon + 1);
        seconds = std::stoi(secText, &used);
        if (used != secText.size()) throw std::invalid_argument("seconds");
    } catch (const std::exception&) {
        error = "bad --pattern '" + text + "': ID and SECONDS must be integers";
        return false;
    }
    const std::string path = text.substr(eq + 1, colon - eq - 1);
    if (access(path.c_str(), R_OK) != 0) {
        error = "bad --pattern '" + text + "': cannot read '" + path + "'";
        return false;
    }
    std::string why;
    if (!SetAudioPattern(id, path, seconds, &why)) {
        error = "bad --pattern '" + text + "': " + why;
        return false;
    }
    return true;
}

int RunIOAction(const IOActionOptions& opt) {
    // Every request is checked before anything starts.
    std::vector<IOActionRequest> argRequests;
    for (const std::string& text : opt.m_Requests) {
        IOActionRequest req;
        std::string error;
        if (!ParseIOActionRequest(text, req, error)) {
            std::fprintf(stderr, "%s: bad request '%s': %s\n", kCmd, text.c_str(), error.c_str());
            return 2;
        }
        argRequests.push_back(req);
    }
    for (const std::string& text : opt.m_Patterns) {
        std::string error;
        if (!AddPattern(text, error)) {
            std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return 2;
        }
    }
    if (opt.m_Outputs < 0 || opt.m_Outputs > TW_DEV_MAX_DO_PORTS) {
        std::fprintf(stderr, "%s: bad --outputs %d (0..%d)\n", kCmd, opt.m_Outputs, TW_DEV_MAX_DO_PORTS);
        return 2;
    }

    std::shared_ptr<IOModuleBackend> backend;
    if (!opt.m_strModbus.empty()) {
        std::string host, error;
        int port = 0;
        if (!ParseModbusAddress(opt.m_strModbus, host, port, error)) {
            std::fprintf(stderr, "%s: bad --modbus '%s': %s\n", kCmd, opt.m_strModbus.c_str(), error.c_str());
            return 2;
        }
        backend = std::make_shared<ModbusIOModule>(host, port, opt.m_ModbusUnit);
    } else {
        backend = std::make_shared<IOModuleEmulator>(opt.m_Outputs);
    }
    SetIOModuleBackend(opt.m_ModuleId, backend);

    std::string error;
    DevStatusRecord status(opt.m_ModuleId);
    if (!status.Open(error)) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return 1;
    }
    std::unique_ptr<PluginModule> module =
        PluginModule::Load(opt.m_strPlugin.empty() ? PluginModule::DefaultPath() : opt.m_strPlugin, error);
    if (!module) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        return 1;
    }
    DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(opt.m_LogLevel);
    logConfig.Install();

    // The signals are taken by this thread alone: the executor's worker inherits the mask.
    StopSignals stopSignals;

    Clock& clock = GetClock();
    const int64_t epochUs = clock.NowUs();
    Printer printer(opt.m_blJson, epochUs);
    SetIORequestListener([&printer](const IORequest& r) { printer.Sent(r); });
    printer.Note(std::string(kCmd) + ": I/O module " + std::to_string(opt.m_ModuleId) + ", " +
                 backend->Describe() + "; requests from " +
                 (argRequests.empty() ? "standard input (JSON lines)" : "the command line"));

    std::unique_ptr<IOActExecutorProxy> exec = module->NewIOActExecutor();
    exec->Init(opt.m_ModuleId, opt.m_Outputs, nullptr, status.GetIOModuleStatus());

    LineQueue input;
    if (argRequests.empty()) input.Start();
    size_t nextArg = 0;
    int64_t notBeforeUs = 0;
    int64_t endAtUs = -1;
    int64_t lastRequestUs = epochUs;
    int rc = 0;
    const char* why = "end of input";
    for (;;) {
        const int64_t now = clock.NowUs();
        std::map<int, int> act, outputs;
        exec->GetStatus(act, outputs);
        printer.Status(now, act, outputs);
        if (endAtUs >= 0 && now >= endAtUs) break;

        if (endAtUs < 0 && now >= notBeforeUs) {
            IOActionRequest req;
            bool have = false, end = false;
            if (argRequests.empty()) {
                std::string line;
                while (!have && input.Next(line, end)) {
                    if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
                    std::string error;
                    if (!ParseIOActionRequest(line, req, error)) {
                        // A bad line of a script is reported and skipped: the rest still runs.
                        std::fprintf(stderr, "%s: bad request '%s': %s\n", kCmd, line.c_str(), error.c_str());
                        rc = 1;
                        continue;
                    }
                    have = true;
                }
            } else if (nextArg < argRequests.size()) {
                req = argRequests[nextArg++];
                have = true;
            } else {
                end = true;
            }
            if (have) {
                switch (req.kind) {
                    case IOActionRequest::kDO:
                    case IOActionRequest::kAudio:
                        exec->DoAction(req.flags, req.audio, req.outputs, false);
                        lastRequestUs = now;
                        break;
                    case IOActionRequest::kManualDO:
                        status.Get()->SetManualDOSts(req.port, 2);
                        break;
                    case IOActionRequest::kManualAudio:
                        status.Get()->SetManualAOTrig(req.blOn);
                        break;
                    case IOActionRequest::kWait:
                        notBeforeUs = now + static_cast<int64_t>(req.seconds * 1e6);
                        break;
                }
                continue;
            }
            if (end) {
                // The worker runs at least once a second: one more second after the last
                // request lets it carry out everything pending, so that Terminate finds no
                // start still waiting (which the worker's last pass would carry out after it).
                endAtUs = std::max(now + static_cast<int64_t>(opt.m_WaitSec * 1e6),
                                   lastRequestUs + kSettleUs);
            }
        }
        if (const int sig = stopSignals.Wait(50)) {
            why = StopSignals::Why(sig);
            break;
        }
    }
    // Terminate puts active outputs back to normal; those requests are printed too.
    exec->Terminate();
    std::map<int, int> act, outputs;
    exec->GetStatus(act, outputs);
    printer.Status(clock.NowUs(), act, outputs);
    exec.reset();
    SetIORequestListener(nullptr);
    SetIOModuleBackend(opt.m_ModuleId, nullptr);
    printer.Note(std::string(kCmd) + ": " + why + " after " +
                 std::to_string(static_cast<double>(clock.NowUs() - epochUs) / 1e6).substr(0, 5) +
                 " s; executor terminated");
    return rc;
}

}  // namespace
}  // namespace tw::host

void RegisterIOActionCommand(CLI::App& app, int& exitCode) {
    auto opt = std::make_shared<tw::host::IOActionOptions>();
    CLI::App* sub = app.add_subcommand(
        "ioaction",
        "Run the plug-in's I/O action executor for one I/O module (the host's emulator, or a "
        "Modbus/TCP device): requests as JSON, on the command line or one per line on standard "
        "input; prints every request sent to the module and every change of status");
    sub->add_option("requests", opt->m_Requests,
                    "requests, each a JSON object; without any, JSON lines are read from standard "
                    "input. Forms: {\"do\":\"start\",\"ports\":[0],\"hold\":5,\"mode\":0,\"state\":true} "
                    "(hold -2: until stopped; mode 1: held, re-asserted every 600 s), "
                    "{\"do\":\"stop\",\"ports\":[0]}, "
                    "{\"audio\":\"start\",\"pattern\":1,\"times\":3,\"gap\":2,\"mode\":0}, "
                    "{\"audio\":\"stop\"}, {\"manual_do\":0}, {\"manual_audio\":true}, {\"wait\":1.5}");
    sub->add_option("--module-id", opt->m_ModuleId, "id of the I/O module")->capture_default_str();
    sub->add_option("--outputs", opt->m_Outputs, "number of digital outputs of the module")
        ->capture_default_str();
    sub->add_option("--modbus", opt->m_strModbus,
                    "drive a real I/O module at HOST:PORT over Modbus/TCP (digital output N is coil N)");
    sub->add_option("--unit", opt->m_ModbusUnit, "Modbus unit id of the device")->capture_default_str();
    sub->add_option("--pattern", opt->m_Patterns,
                    "an audio pattern of the host's store: ID=PATH:SECONDS (repeatable)");
    sub->add_option("--wait", opt->m_WaitSec,
                    "after the last request, keep running this many seconds before terminating "
                    "(at least 1.1 s, so that the executor carries out every request)")
        ->check(twcli::Seconds(true));
    sub->add_flag("--json", opt->m_blJson, "print JSON lines instead of text");
    sub->add_option("--plugin", opt->m_strPlugin, "path of libtwdevplugin.so");
    sub->add_option("--log-level", opt->m_LogLevel, "plug-in log level to print (1..7)")
        ->check(twcli::IntIn(0, 7))
        ->capture_default_str();
    sub->callback([opt, &exitCode] { exitCode = tw::host::RunIOAction(*opt); });
}
