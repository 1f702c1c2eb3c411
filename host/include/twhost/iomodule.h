// The host's side of network I/O modules: the modules themselves (an in-process emulator,
// or a real device over Modbus/TCP), the recorder's web API that switches their digital
// outputs, the I/O-module daemon's commands, the audio pattern store, and a journal of
// every request so that tests and `twhost ioaction` see exactly what was asked.
//
// The web API methods and daemon commands (tw/iomodule.h) find a module's backend by the
// module id in the registry below. Nothing is registered by default: a module without a
// backend is an error of every request that names it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <json/json.h>

#include "tw/iomodule.h"

namespace tw::host {

// One I/O module as the host drives it. Implementations are thread-safe: the plug-in's
// executor threads, host threads and tests may call them at once.
class IOModuleBackend {
public:
    virtual ~IOModuleBackend() = default;
    // Puts digital output idx into state. false with error set when the module refused or
    // could not be reached.
    virtual bool SetDigitalOutput(int idx, bool state, std::string& error) = 0;
    // Starts playing an audio file on the module's audio output.
    virtual bool StartFileAudioOut(const std::string& filePath, bool isManual, std::string& error) = 0;
    // One line for people: what this module is ("emulator with 4 digital outputs").
    virtual std::string Describe() const = 0;
    // Reads the state of digital output idx back from the module itself, so that a host
    // can see what a request really left behind. The default: the module cannot tell.
    virtual bool GetDigitalOutput(int idx, bool& state, std::string& error);
    // Reaches the module once (a network module connects); false with error when it cannot
    // be reached. The default: nothing to reach.
    virtual bool CheckReachable(std::string& error);
};

// A module in this process: it keeps its port states and everything it was asked to do,
// stamped with the host clock (GetClock()), so a manual clock gives exact times.
class IOModuleEmulator : public IOModuleBackend {
public:
    struct PortEvent {
        int64_t timeUs;
        int idx;
        bool state;
    };
    struct AudioPlay {
        int64_t timeUs;
        std::string filePath;
        bool isManual;
    };

    // Digital outputs 0 .. doCount - 1, all off. A negative count means none.
    explicit IOModuleEmulator(int doCount);

    bool SetDigitalOutput(int idx, bool state, std::string& error) override;
    // Refuses a file that cannot be opened for reading (or is no regular file), as a module
    // daemon that cannot play it would.
    bool StartFileAudioOut(const std::string& filePath, bool isManual, std::string& error) override;
    std::string Describe() const override;
    bool GetDigitalOutput(int idx, bool& state, std::string& error) override;

    int GetDOCount() const { return m_DOCount; }
    // Every digital-output request carried out, in order (a repeated state is recorded too).
    std::vector<PortEvent> PortHistory() const;
    // The current state of an output; false for an index out of range.
    bool PortState(int idx) const;
    std::vector<AudioPlay> AudioPlays() const;

    // Fault switches: while set, every request of that kind is refused with an error.
    void SetRefuseDigitalOutput(bool blRefuse);
    void SetRefuseAudioOut(bool blRefuse);

private:
    const int m_DOCount;
    mutable std::mutex m_Mutex;
    std::vector<bool> m_PortStates;
    std::vector<PortEvent> m_PortHistory;
    std::vector<AudioPlay> m_AudioPlays;
    bool m_blRefuseDO = false;
    bool m_blRefuseAudio = false;
};

// A real network I/O module speaking Modbus/TCP (libmodbus). Digital output idx is coil idx
// of the unit. The connection is opened on first use and kept; when a write fails on a
// connection the module dropped, it is reopened once and the write repeated. Each request
// waits about a second for the module's answer. The module has no audio output.
class ModbusIOModule : public IOModuleBackend {
public:
    ModbusIOModule(std::string host, int port, int unitId = 1);
    ~ModbusIOModule() override;
    ModbusIOModule(const ModbusIOModule&) = delete;
    ModbusIOModule& operator=(const ModbusIOModule&) = delete;

    // Errors name "host:port" and carry libmodbus's description of the failure.
    bool SetDigitalOutput(int idx, bool state, std::string& error) override;
    bool StartFileAudioOut(const std::string& filePath, bool isManual, std::string& error) override;
    std::string Describe() const override;
    // Reads coil idx of the unit.
    bool GetDigitalOutput(int idx, bool& state, std::string& error) override;
    // Opens the connection (kept for the requests that follow).
    bool CheckReachable(std::string& error) override;

    // "host:port", as errors name the module.
    std::string Address() const;

private:
    struct Link;
    bool ConnectLocked(std::string& error);
    void DisconnectLocked();

    const std::string m_strHost;
    const int m_Port;
    const int m_UnitId;
    mutable std::mutex m_Mutex;
    std::unique_ptr<Link> m_pLink;
};

// Splits "host:port" (an IPv6 address in brackets: "[::1]:502"); port 1..65535.
bool ParseModbusAddress(const std::string& text, std::string& host, int& port, std::string& error);

// Backend registry, process-wide. A null backend removes the module.
void SetIOModuleBackend(int moduleId, std::shared_ptr<IOModuleBackend> backend);
std::shared_ptr<IOModuleBackend> GetIOModuleBackend(int moduleId);
void ClearIOModuleBackends();

// One request of the plug-in (or of anyone) to the web API or the I/O-module daemon.
struct IORequest {
    int64_t timeUs;      // host clock when the request was made
    std::string target;  // "ORVA.Korvane.IOModule/1/PortSetting" or "iomoduled/6"
    int moduleId;        // the daemon command's module, or the web request's integer "id"; -1 if none
    std::string json;    // the request, CompactJson
    int result;          // what Exec or SendCmd returned
    std::string error;   // why it failed, as the method or the module said; empty on success
};

// Returns the journal and empties it. The journal keeps the newest kIORequestJournalMax
// requests, so a long run without a reader does not grow without bound.
constexpr size_t kIORequestJournalMax = 65536;
std::vector<IORequest> TakeIORequests();
// Called after each request, on the requesting thread, with no lock of the journal held.
// Null removes the listener.
void SetIORequestListener(std::function<void(const IORequest&)> listener);

// JsonCpp's compact form: no white space, object keys in JsonCpp's (sorted) order.
std::string CompactJson(const Json::Value& value);

// Web API methods run by ORVA::APIRunner::Exec. A method reads request, may fill data
// (sent back as "data" when not null), and returns false with error set on failure.
using WebApiMethod = std::function<bool(const Json::Value& request, const std::string& user,
                                        Json::Value& data, std::string& error)>;
// Registers (or replaces) a method; a null fn removes it. The built-in methods are present
// before the first registration or call, so registering one of them replaces it.
void RegisterWebApi(const std::string& api, int version, const std::string& method, WebApiMethod fn);
// Back to the built-in methods alone (tests that registered their own).
void ResetWebApis();

// Error codes of a failed Exec ({"success":false,"error":{"code":N,"message":"..."}}).
constexpr int kWebApiErrBadCall = 101;       // null or empty api, method or user
constexpr int kWebApiErrUnknownApi = 102;    // no method of that API is registered
constexpr int kWebApiErrUnknownVersion = 103;  // the API exists, not in that version
constexpr int kWebApiErrUnknownMethod = 104;   // the API version has no such method
constexpr int kWebApiErrMethodFailed = 105;    // the method refused the request or failed

// The built-in I/O-module API: "ORVA.Korvane.IOModule" version 1, method "PortSetting".
// Request: {"id": module (int), "DIOdata": [{"idx": int, "trigger_state": bool}, ...]
// (non-empty), "blActRule": bool (optional)}. The whole request is checked before any port
// is touched; the entries are then applied in order and the first failure ends the request
// (earlier entries stay applied).
constexpr const char* kIOModuleWebApi = "ORVA.Korvane.IOModule";
constexpr const char* kPortSettingMethod = "PortSetting";

// Results of IOModuledApi::SendCmd other than 0.
constexpr int kIOModuledErrUnknownModule = -1;   // no backend for the module id
constexpr int kIOModuledErrUnknownCommand = -2;  // a command the daemon does not know
constexpr int kIOModuledErrBadRequest = -3;      // a request member missing or of the wrong type
constexpr int kIOModuledErrRefused = -4;         // the module refused (e.g. the file cannot be played)

// The audio pattern store behind AudioPattern::Load. A pattern's length is in seconds.
// Returns false (error set when given) for an empty path or a negative length.
bool SetAudioPattern(int id, const std::string& filePath, int lengthSec, std::string* error = nullptr);
void RemoveAudioPattern(int id);
void ClearAudioPatterns();

}  // namespace tw::host
