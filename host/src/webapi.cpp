// The recorder's web API runner: methods registered by API, version and name, run in this
// process; and the built-in I/O-module method that switches digital outputs.
#include <exception>
#include <map>
#include <tuple>

#include "iojournal.h"
#include "twhost/clock.h"
#include "twhost/iomodule.h"

namespace tw::host {

namespace {

using WebApiKey = std::tuple<std::string, int, std::string>;

// Reads "DIOdata" entry i into idx and state; false with error naming the bad member.
bool ReadPortEntry(const Json::Value& entry, Json::ArrayIndex i, int& idx, bool& state, std::string& error) {
    const std::string name = "\"DIOdata\"[" + std::to_string(i) + "]";
    if (!entry.isObject()) {
        error = name + " is not an object";
        return false;
    }
    if (!entry.isMember("idx")) {
        error = name + " has no \"idx\"";
        return false;
    }
    if (!entry["idx"].isInt()) {
        error = name + ".\"idx\" is not an integer";
        return false;
    }
    if (!entry.isMember("trigger_state")) {
        error = name + " has no \"trigger_state\"";
        return false;
    }
    if (!entry["trigger_state"].isBool()) {
        error = name + ".\"trigger_state\" is not a boolean";
        return false;
    }
    idx = entry["idx"].asInt();
    state = entry["trigger_state"].asBool();
    return true;
}

bool PortSetting(const Json::Value& request, const std::string& /*user*/, Json::Value& /*data*/,
                 std::string& error) {
    if (!request.isObject()) {
        error = "the request is not a JSON object";
        return false;
    }
    if (!request.isMember("id")) {
        error = "missing \"id\"";
        return false;
    }
    if (!request["id"].isInt()) {
        error = "\"id\" is not an integer";
        return false;
    }
    if (!request.isMember("DIOdata")) {
        error = "missing \"DIOdata\"";
        return false;
    }
    const Json::Value& ports = request["DIOdata"];
    if (!ports.isArray()) {
        error = "\"DIOdata\" is not an array";
        return false;
    }
    if (ports.empty()) {
        error = "\"DIOdata\" is empty";
        return false;
    }
    if (request.isMember("blActRule") && !request["blActRule"].isBool()) {
        error = "\"blActRule\" is not a boolean";
        return false;
    }
    // Every entry is checked before the first port moves: a half-applied request that was
    // malformed would leave the module in a state nobody asked for.
    std::vector<std::pair<int, bool>> settings;
    for (Json::ArrayIndex i = 0; i < ports.size(); ++i) {
        int idx = 0;
        bool state = false;
        if (!ReadPortEntry(ports[i], i, idx, state, error)) return false;
        settings.emplace_back(idx, state);
    }
    const int moduleId = request["id"].asInt();
    const std::shared_ptr<IOModuleBackend> backend = GetIOModuleBackend(moduleId);
    if (!backend) {
        error = "no I/O module " + std::to_string(moduleId);
        return false;
    }
    for (const auto& [idx, state] : settings) {
        std::string backendError;
        if (!backend->SetDigitalOutput(idx, state, backendError)) {
            error = "digital output " + std::to_string(idx) + " of I/O module " + std::to_string(moduleId) +
                    ": " + backendError;
            return false;
        }
    }
    return true;
}

std::mutex g_WebApiMutex;

std::map<WebApiKey, WebApiMethod> BuiltInWebApis() {
    std::map<WebApiKey, WebApiMethod> builtIn;
    builtIn[WebApiKey{kIOModuleWebApi, 1, kPortSettingMethod}] = PortSetting;
    return builtIn;
}

std::map<WebApiKey, WebApiMethod>& WebApiTableLocked() {
    // The built-in methods are in the table from its first use, so that a later
    // registration replaces them rather than being replaced.
    static std::map<WebApiKey, WebApiMethod> table = BuiltInWebApis();
    return table;
}

// Finds the method; on failure sets code and message.
WebApiMethod FindWebApi(const std::string& api, int version, const std::string& method, int& code,
                        std::string& message) {
    std::lock_guard<std::mutex> lock(g_WebApiMutex);
    const std::map<WebApiKey, WebApiMethod>& table = WebApiTableLocked();
    const auto it = table.find(WebApiKey{api, version, method});
    if (it != table.end()) return it->second;
    bool apiKnown = false;
    bool versionKnown = false;
    for (const auto& entry : table) {
        if (std::get<0>(entry.first) != api) continue;
        apiKnown = true;
        if (std::get<1>(entry.first) == version) versionKnown = true;
    }
    if (!apiKnown) {
        code = kWebApiErrUnknownApi;
        message = "unknown API \"" + api + "\"";
    } else if (!versionKnown) {
        code = kWebApiErrUnknownVersion;
        message = "API \"" + api + "\" has no version " + std::to_string(version);
    } else {
        code = kWebApiErrUnknownMethod;
        message = "API \"" + api + "\" version " + std::to_string(version) + " has no method \"" + method + "\"";
    }
    return nullptr;
}

// Runs the call; fills response and returns Exec's result.
int RunWebApi(Json::Value& response, const char* api, int version, const char* method,
              const Json::Value& request, const char* user) {
    int code = 0;
    std::string message;
    Json::Value data;
    if (api == nullptr || *api == '\0') {
        code = kWebApiErrBadCall;
        message = "no API named";
    } else if (method == nullptr || *method == '\0') {
        code = kWebApiErrBadCall;
        message = "no method named";
    } else if (user == nullptr || *user == '\0') {
        code = kWebApiErrBadCall;
        message = "no user named";
    } else {
        // The method runs without the table's lock: a module may take a second to answer.
        const WebApiMethod fn = FindWebApi(api, version, method, code, message);
        if (fn) {
            std::string error;
            bool ok = false;
            try {
                ok = fn(request, user, data, error);
            } catch (const std::exception& e) {
                // A registered method that throws (JsonCpp does on a wrong type) fails its
                // call; it does not take the calling daemon down.
                error = std::string(method) + " threw: " + e.what();
            }
            if (!ok) {
                code = kWebApiErrMethodFailed;
                message = error.empty() ? std::string(method) + " failed" : error;
            }
        }
    }
    response = Json::Value(Json::objectValue);
    if (code != 0) {
        response["success"] = false;
        response["error"]["code"] = code;
        response["error"]["message"] = message;
        return -1;
    }
    response["success"] = true;
    if (!data.isNull()) response["data"] = data;
    return 0;
}

}  // namespace

void RegisterWebApi(const std::string& api, int version, const std::string& method, WebApiMethod fn) {
    std::lock_guard<std::mutex> lock(g_WebApiMutex);
    std::map<WebApiKey, WebApiMethod>& table = WebApiTableLocked();
    if (fn) {
        table[WebApiKey{api, version, method}] = std::move(fn);
    } else {
        table.erase(WebApiKey{api, version, method});
    }
}

void ResetWebApis() {
    std::lock_guard<std::mutex> lock(g_WebApiMutex);
    WebApiTableLocked() = BuiltInWebApis();
}

}  // namespace tw::host

namespace ORVA {

int APIRunner::Exec(Json::Value& response, const char* api, int version, const char* method,
                    const Json::Value& request, const char* user) {
    using namespace tw::host;
    // The request is journalled as it came in, before the method sees it.
    IORequest entry{GetClock().NowUs(),
                    std::string(api ? api : "") + "/" + std::to_string(version) + "/" + (method ? method : ""),
                    -1, CompactJson(request), 0, std::string()};
    if (request.isObject() && request["id"].isInt()) entry.moduleId = request["id"].asInt();
    const int result = RunWebApi(response, api, version, method, request, user);
    entry.result = result;
    if (result != 0) entry.error = response["error"]["message"].asString();
    RecordIORequest(std::move(entry));
    return result;
}

}  // namespace ORVA
