// twhost ioaction: one I/O action executor of the plug-in for one I/O module, driven as a
// recorder's action rules drive it. The module is the host's emulator, or a real network
// I/O module over Modbus/TCP. Requests come from the command line or as JSON lines on
// standard input; the executor's statuses and every request it sends to the module are
// printed as they happen. The run lasts until the actions it started have run their course
// (or a stop signal), and the outputs are left in their normal state as the module itself
// reports them.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <iostream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "cliutil.h"
#include "commands.h"
#include "ioactionrequest.h"
#include "stopsignals.h"
#include "twhost/clock.h"
#include "twhost/condwaits.h"
#include "twhost/devstatus.h"
#include "twhost/iomodule.h"
#include "twhost/logsink.h"
#include "twhost/plugin.h"

namespace tw::host {
namespace {

const char* const kCmd = "twhost ioaction";

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
    int m_LogLevel = 3;
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

const char* StatusName(int status) {
    switch (status) {
        case 0: return "idle";
        case 1: return "active";
        case 2: return "manual";
        case 3: return "failed";
        default: return "unknown";
    }
}
constexpr int kStatusActive = 1;
constexpr int kDOTriggerFlag = 0x400;

// One run of the executor: what was asked of it, what it asked of the module, and what
// is still under way. The request listener runs on the executor's worker; everything it
// shares with the main loop is under m_Mutex.
class IOActionRun {
public:
    explicit IOActionRun(int64_t epochUs) : m_EpochUs(epochUs) {}

    double Seconds(int64_t us) const { return static_cast<double>(us - m_EpochUs) / 1e6; }

    // Every request made to the module: printed, counted, and its ports remembered, so that
    // the clean-up at the end looks at each output the executor touched.
    void OnRequest(const IORequest& r) {
        Json::Value body;
        Json::CharReaderBuilder builder;
        std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
        reader->parse(r.json.data(), r.json.data() + r.json.size(), &body, nullptr);
        Json::Value ports(Json::arrayValue);
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            ++m_Requests;
            if (r.result != 0) ++m_Failed;
            if (body.isObject() && body["DIOdata"].isArray()) {
                for (const Json::Value& entry : body["DIOdata"]) {
                    if (!entry.isObject() || !entry["idx"].isInt()) continue;
                    m_Switched.insert(entry["idx"].asInt());
                    Json::Value port(Json::objectValue);
                    port["port"] = entry["idx"].asInt();
                    port["state"] = entry["trigger_state"].asBool();
                    ports.append(port);
                }
            }
        }
        twcli::Out& out = twcli::Out::Get();
        if (out.Json()) {
            Json::Value v = twcli::Out::Line("request", Seconds(r.timeUs));
            v["target"] = r.target;
            v["module"] = r.moduleId;
            v["body"] = r.json;
            if (!ports.empty()) v["ports"] = ports;
            if (body.isObject() && body["filePath"].isString()) v["file"] = body["filePath"].asString();
            v["ok"] = r.result == 0;
            v["result"] = r.result;
            if (r.result != 0) v["error"] = RequestError(r);
            out.Emit(v);
        } else {
            out.Textf("%8.3f s  %-36s %s -> %s", Seconds(r.timeUs), r.target.c_str(), r.json.c_str(),
                      r.result == 0 ? "ok" : ("failed: " + RequestError(r)).c_str());
        }
        if (r.result != 0) std::fprintf(stderr, "%s: request %s failed: %s\n", kCmd, r.json.c_str(), RequestError(r).c_str());
    }

    void Status(int64_t nowUs, const std::map<int, int>& act, const std::map<int, int>& outputs) {
        if (m_blStatusPrinted && act == m_LastAct && outputs == m_LastDO) return;
        m_blStatusPrinted = true;
        m_LastAct = act;
        m_LastDO = outputs;
        const auto audio = act.find(IOACT_TYPE_AUDIO_OUT);
        const char* audioName = StatusName(audio == act.end() ? 0 : audio->second);
        twcli::Out& out = twcli::Out::Get();
        if (out.Json()) {
            Json::Value v = twcli::Out::Line("status", Seconds(nowUs));
            v["audio"] = audioName;
            Json::Value ports(Json::objectValue);
            for (const auto& p : outputs) ports[std::to_string(p.first)] = StatusName(p.second);
            v["outputs"] = ports;
            out.Emit(v);
        } else {
            std::string text;
            for (const auto& p : outputs) text += " " + std::to_string(p.first) + ":" + StatusName(p.second);
            out.Textf("%8.3f s  status: audio %s, outputs%s", Seconds(nowUs), audioName,
                      text.empty() ? " none" : text.c_str());
        }
    }

    // A line of input that was not passed on: bad, or naming what the host does not have.
    void Refused(int64_t nowUs, const std::string& input, const std::string& error) {
        std::fprintf(stderr, "%s: bad request '%s': %s\n", kCmd, input.c_str(), error.c_str());
        ++m_Refused;
        twcli::Out& out = twcli::Out::Get();
        if (out.Json()) {
            Json::Value v = twcli::Out::Line("refused", Seconds(nowUs));
            v["input"] = input;
            v["error"] = error;
            out.Emit(v);
        }
    }

    std::set<int> Switched() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Switched;
    }
    int Requests() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Requests;
    }
    int Failed() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Failed;
    }
    int RefusedCount() const { return m_Refused; }

private:
    static std::string RequestError(const IORequest& r) {
        return r.error.empty() ? "result " + std::to_string(r.result) : r.error;
    }

    const int64_t m_EpochUs;
    std::mutex m_Mutex;
    int m_Requests = 0;
    int m_Failed = 0;
    std::set<int> m_Switched;
    int m_Refused = 0;
    bool m_blStatusPrinted = false;
    std::map<int, int> m_LastAct, m_LastDO;
};

// An action under way as the host sees it. It has run its course once the worker has
// made a whole pass after the request (two condition waits begun since it was sent) and
// the executor no longer reports it active: a timed hold switched back, counted plays done,
// a stop or a manual take-over carried out. An action held until stopped stays active.
struct Pending {
    bool blOpen = false;
    uint64_t waitsAt = 0;
};

bool Settled(Pending& p, int status, uint64_t waitsNow) {
    if (p.blOpen && waitsNow >= p.waitsAt + 2 && status != kStatusActive) p.blOpen = false;
    return !p.blOpen;
}

int RunIOAction(const IOActionOptions& opt) {
    twcli::Out& out = twcli::Out::Get();
    out.SetJson(opt.m_blJson);
    // Every request is checked before anything starts.
    std::vector<std::pair<std::string, IOActionRequest>> argRequests;
    for (const std::string& text : opt.m_Requests) {
        IOActionRequest req;
        std::string error;
        if (!ParseIOActionRequest(text, req, error)) {
            std::fprintf(stderr, "%s: bad request '%s': %s\n", kCmd, text.c_str(), error.c_str());
            return twcli::kExitUsage;
        }
        argRequests.emplace_back(text, req);
    }
    for (const std::string& text : opt.m_Patterns) {
        std::string error;
        if (!AddPattern(text, error)) {
            std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
            return twcli::kExitUsage;
        }
    }

    std::shared_ptr<IOModuleBackend> backend;
    if (!opt.m_strModbus.empty()) {
        std::string host, error;
        int port = 0;
        if (!ParseModbusAddress(opt.m_strModbus, host, port, error)) {
            std::fprintf(stderr, "%s: bad --modbus '%s': %s\n", kCmd, opt.m_strModbus.c_str(), error.c_str());
            return twcli::kExitUsage;
        }
        backend = std::make_shared<ModbusIOModule>(host, port, opt.m_ModbusUnit);
    } else {
        backend = std::make_shared<IOModuleEmulator>(opt.m_Outputs);
    }
    std::string error;
    // A module that cannot be reached fails the run before any request goes out.
    if (!backend->CheckReachable(error)) {
        std::fprintf(stderr, "%s: I/O module %d cannot be reached: %s\n", kCmd, opt.m_ModuleId, error.c_str());
        return twcli::kExitFailure;
    }
    SetIOModuleBackend(opt.m_ModuleId, backend);

    DevStatusRecord status(opt.m_ModuleId);
    if (!status.Open(error)) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        SetIOModuleBackend(opt.m_ModuleId, nullptr);
        return twcli::kExitFailure;
    }
    std::unique_ptr<PluginModule> module =
        PluginModule::Load(opt.m_strPlugin.empty() ? PluginModule::DefaultPath() : opt.m_strPlugin, error);
    if (!module) {
        std::fprintf(stderr, "%s: %s\n", kCmd, error.c_str());
        SetIOModuleBackend(opt.m_ModuleId, nullptr);
        return twcli::kExitFailure;
    }
    DbgLogConfig logConfig;
    logConfig.SetAllCategoryLevels(opt.m_LogLevel);
    logConfig.Install();

    // The signals are taken by this thread alone: the executor's worker inherits the mask.
    StopSignals stopSignals;

    Clock& clock = GetClock();
    const int64_t epochUs = clock.NowUs();
    const bool fromStdin = argRequests.empty();
    IOActionRun run(epochUs);
    SetIORequestListener([&run](const IORequest& r) { run.OnRequest(r); });
    if (!out.Json()) {
        out.Text(std::string(kCmd) + ": I/O module " + std::to_string(opt.m_ModuleId) + ", " + backend->Describe() +
                 "; requests from " + (fromStdin ? "standard input (JSON lines)" : "the command line"));
    }

    // A request signalled before the worker's first wait would be lost and wait for the
    // worker's time-out: the first request goes out once the worker sleeps.
    const uint64_t waitsBeforeInit = CondWaitsBegun();
    std::unique_ptr<IOActExecutorProxy> exec = module->NewIOActExecutor();
    exec->Init(opt.m_ModuleId, opt.m_Outputs, nullptr, status.GetIOModuleStatus());
    // Without a worker (the plug-in could not start its thread) nothing is ever carried
    // out: the run then does not wait for actions to run their course.
    const bool workerRuns = WaitForCondWaitsBegun(waitsBeforeInit + 1, 3000);
    if (!workerRuns) {
        std::fprintf(stderr, "%s: warning: the executor's worker has not started; requests are not carried out\n",
                     kCmd);
    }

    LineQueue input;
    if (fromStdin) input.Start();
    size_t nextArg = 0;
    int64_t notBeforeUs = 0;
    int64_t endAtUs = -1;
    int signal = 0;
    const char* why = "completed";
    std::map<int, Pending> portsUnderWay;
    std::map<int, bool> normalState;   // per port: the opposite of its latest start's trigger state
    Pending audioUnderWay;
    for (;;) {
        const int64_t now = clock.NowUs();
        std::map<int, int> act, outputs;
        exec->GetStatus(act, outputs);
        run.Status(now, act, outputs);
        if (out.Failed()) {
            why = "standard output failed";
            break;
        }
        const uint64_t waitsNow = CondWaitsBegun();
        bool underWay = !Settled(audioUnderWay, act[IOACT_TYPE_AUDIO_OUT], waitsNow);
        for (auto& p : portsUnderWay) {
            if (!Settled(p.second, outputs.count(p.first) ? outputs[p.first] : 0, waitsNow)) underWay = true;
        }
        if (!workerRuns) underWay = false;
        if (endAtUs >= 0 && now >= endAtUs) break;

        if (endAtUs < 0 && now >= notBeforeUs) {
            IOActionRequest req;
            std::string text;
            bool have = false, end = false;
            if (fromStdin) {
                while (!have && input.Next(text, end)) {
                    if (text.find_first_not_of(" \t\r") == std::string::npos) continue;
                    std::string why2;
                    if (!ParseIOActionRequest(text, req, why2)) {
                        // A bad line of a script is reported and skipped: the rest still runs.
                        run.Refused(now, text, why2);
                        continue;
                    }
                    have = true;
                }
            } else if (nextArg < argRequests.size()) {
                text = argRequests[nextArg].first;
                req = argRequests[nextArg].second;
                ++nextArg;
                have = true;
            } else {
                end = true;
            }
            if (have) {
                switch (req.kind) {
                    case IOActionRequest::kDO:
                        exec->DoAction(req.flags, req.audio, req.outputs, false);
                        for (const auto& p : req.outputs) {
                            portsUnderWay[p.first] = Pending{true, CondWaitsBegun()};
                            if (!p.second.blStop) normalState[p.first] = (req.flags & kDOTriggerFlag) == 0;
                        }
                        break;
                    case IOActionRequest::kAudio: {
                        const IOActExecCond& cond = req.audio.begin()->second;
                        AudioPattern pattern;
                        if (!cond.blStop && pattern.Load(cond.audioPatternId) != 0) {
                            // The executor would only log it and do nothing.
                            run.Refused(now, text,
                                        "audio pattern " + std::to_string(cond.audioPatternId) +
                                            " is not in the store (add it with --pattern " +
                                            std::to_string(cond.audioPatternId) + "=PATH:SECONDS)");
                            break;
                        }
                        exec->DoAction(req.flags, req.audio, req.outputs, false);
                        audioUnderWay = Pending{true, CondWaitsBegun()};
                        break;
                    }
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
            // Input is over: once every action has run its course, --wait more, then the end.
            if (end && !underWay) endAtUs = now + static_cast<int64_t>(opt.m_WaitSec * 1e6);
        }
        if ((signal = stopSignals.Wait(50)) != 0) {
            why = StopSignals::Why(signal);
            break;
        }
    }
    // Terminate puts active outputs back to normal; those requests are printed too, after
    // this line, so that what the actions did by themselves stays told apart. Its worker's
    // last pass may still carry out a start that was pending.
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("terminate", run.Seconds(clock.NowUs()));
        v["endReason"] = why;
        out.Emit(v);
    } else {
        out.Textf("%8.3f s  %s: terminating the executor", run.Seconds(clock.NowUs()), why);
    }
    exec->Terminate();
    {
        std::map<int, int> act, outputs;
        exec->GetStatus(act, outputs);
        run.Status(clock.NowUs(), act, outputs);
    }
    exec.reset();
    SetIORequestListener(nullptr);

    // Whatever the executor left switched (a start carried out after Terminate, or the
    // state an action started false leaves behind) is put back by the host itself, judged
    // by what the module reports.
    int rc = run.Failed() > 0 || run.RefusedCount() > 0 ? twcli::kExitFailure : twcli::kExitOk;
    Json::Value moduleOutputs(Json::objectValue);
    Json::Value restored(Json::arrayValue);
    std::string stateText;
    for (const int port : run.Switched()) {
        const bool normal = normalState.count(port) ? normalState[port] : false;
        bool state = false;
        std::string why2;
        if (!backend->GetDigitalOutput(port, state, why2)) {
            std::fprintf(stderr, "%s: cannot read back digital output %d: %s\n", kCmd, port, why2.c_str());
            rc = twcli::kExitFailure;
            continue;
        }
        if (state != normal) {
            const bool ok = backend->SetDigitalOutput(port, normal, why2);
            if (ok) state = normal;
            if (out.Json()) {
                Json::Value v = twcli::Out::Line("restore", run.Seconds(clock.NowUs()));
                v["port"] = port;
                v["state"] = normal;
                v["ok"] = ok;
                if (!ok) v["error"] = why2;
                out.Emit(v);
            } else {
                out.Textf("%8.3f s  digital output %d left %s by the executor: put back %s%s", run.Seconds(clock.NowUs()),
                          port, normal ? "off" : "on", normal ? "on" : "off", ok ? "" : (" failed: " + why2).c_str());
            }
            if (!ok) {
                std::fprintf(stderr, "%s: cannot put digital output %d back to %s: %s\n", kCmd, port,
                             normal ? "on" : "off", why2.c_str());
                rc = twcli::kExitFailure;
            } else {
                restored.append(port);
            }
        }
        moduleOutputs[std::to_string(port)] = state;
        stateText += " " + std::to_string(port) + ":" + (state ? "on" : "off");
    }
    SetIOModuleBackend(opt.m_ModuleId, nullptr);

    const double elapsed = run.Seconds(clock.NowUs());
    if (out.Json()) {
        Json::Value v = twcli::Out::Line("summary", elapsed);
        v["endReason"] = why;
        v["input"] = fromStdin ? "standard input" : "arguments";
        Json::Value settings(Json::objectValue);
        settings["moduleId"] = opt.m_ModuleId;
        settings["outputs"] = opt.m_Outputs;
        settings["module"] = backend->Describe();
        if (!opt.m_strModbus.empty()) {
            settings["modbus"] = opt.m_strModbus;
            settings["unit"] = opt.m_ModbusUnit;
        }
        settings["wait"] = opt.m_WaitSec;
        settings["logLevel"] = opt.m_LogLevel;
        Json::Value patterns(Json::arrayValue);
        for (const std::string& p : opt.m_Patterns) patterns.append(p);
        settings["patterns"] = patterns;
        v["settings"] = settings;
        v["requests"] = run.Requests();
        v["failedRequests"] = run.Failed();
        v["refused"] = run.RefusedCount();
        v["moduleOutputs"] = moduleOutputs;
        v["restored"] = restored;
        out.Emit(v);
    } else {
        out.Textf("%s: %s after %.3f s; executor terminated; %d request%s to the module, %d failed%s%s", kCmd, why,
                  elapsed, run.Requests(), run.Requests() == 1 ? "" : "s", run.Failed(),
                  stateText.empty() ? "" : "; outputs on the module:", stateText.c_str());
    }
    if (signal != 0) return twcli::ExitForSignal(signal);
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
                    "{\"audio\":\"stop\"}, {\"manual_do\":0}, {\"manual_audio\":true}, {\"wait\":1.5}. The command "
                    "runs until every action has run its course; one held until stopped keeps it running "
                    "until its stop request or SIGINT");
    sub->add_option("--module-id", opt->m_ModuleId, "id of the I/O module")
        ->check(twcli::IntIn(1, 65535))
        ->capture_default_str();
    sub->add_option("--outputs", opt->m_Outputs, "number of digital outputs of the module")
        ->check(twcli::IntIn(0, TW_DEV_MAX_DO_PORTS))
        ->capture_default_str();
    sub->add_option("--modbus", opt->m_strModbus,
                    "drive a real I/O module at HOST:PORT over Modbus/TCP (digital output N is coil N); "
                    "a module that cannot be reached fails the run before any request");
    sub->add_option("--unit", opt->m_ModbusUnit, "Modbus unit id of the device")
        ->check(twcli::IntIn(0, 255))
        ->capture_default_str();
    sub->add_option("--pattern", opt->m_Patterns,
                    "an audio pattern of the host's store: ID=PATH:SECONDS (repeatable)")
        ->allow_extra_args(false);
    sub->add_option("--wait", opt->m_WaitSec,
                    "once every action has run its course (timed holds switched back, plays done), keep "
                    "running this many seconds more before terminating the executor")
        ->check(twcli::Seconds(true));
    sub->add_flag("--json", opt->m_blJson, "print JSON lines instead of text");
    sub->add_option("--plugin", opt->m_strPlugin, "path of libtwdevplugin.so");
    sub->add_option("--log-level", opt->m_LogLevel,
                    "plug-in messages up to this level are printed (1 critical .. 7 trace; 3: errors)")
        ->check(twcli::IntIn(0, 7))
        ->capture_default_str();
    sub->callback([opt, &exitCode] { exitCode = tw::host::RunIOAction(*opt); });
}
