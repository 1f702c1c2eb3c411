#include "ioactionrequest.h"

#include <memory>

#include <json/json.h>

namespace tw::host {

static bool ReadInt(const Json::Value& v, const char* key, int& out, bool required, std::string& error) {
    const Json::Value& m = v[key];
    if (m.isNull()) {
        if (required) error = std::string("missing \"") + key + "\"";
        return !required;
    }
    if (!m.isInt()) {
        error = std::string("\"") + key + "\" must be an integer";
        return false;
    }
    out = m.asInt();
    return true;
}

bool ParseIOActionRequest(const std::string& line, IOActionRequest& req, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value v;
    std::string parseError;
    if (!reader->parse(line.data(), line.data() + line.size(), &v, &parseError)) {
        error = "not JSON: " + parseError;
        while (!error.empty() && (error.back() == '\n' || error.back() == ' ')) error.pop_back();
        return false;
    }
    if (!v.isObject()) {
        error = "a request is a JSON object";
        return false;
    }
    if (v.isMember("do")) {
        const std::string what = v["do"].isString() ? v["do"].asString() : std::string();
        if (what != "start" && what != "stop") {
            error = "\"do\" must be \"start\" or \"stop\"";
            return false;
        }
        const Json::Value& ports = v["ports"];
        if (!ports.isArray() || ports.empty()) {
            error = "\"ports\" must be a non-empty array of port numbers";
            return false;
        }
        int hold = 5, mode = 0;
        if (!ReadInt(v, "hold", hold, false, error) || !ReadInt(v, "mode", mode, false, error)) return false;
        bool state = true;
        if (v.isMember("state")) {
            if (!v["state"].isBool()) {
                error = "\"state\" must be true or false";
                return false;
            }
            state = v["state"].asBool();
        }
        req.kind = IOActionRequest::kDO;
        req.flags = state ? 0x400 : 0x4000;
        for (const Json::Value& p : ports) {
            if (!p.isInt() || p.asInt() < 0) {
                error = "\"ports\" must hold port numbers from 0";
                return false;
            }
            req.outputs[p.asInt()] = IOActExecCond{what == "stop", 0, 0, hold, mode};
        }
        return true;
    }
    if (v.isMember("audio")) {
        const std::string what = v["audio"].isString() ? v["audio"].asString() : std::string();
        if (what != "start" && what != "stop") {
            error = "\"audio\" must be \"start\" or \"stop\"";
            return false;
        }
        int pattern = 0, times = 1, gap = 0, mode = 0;
        if (!ReadInt(v, "pattern", pattern, what == "start", error) ||
            !ReadInt(v, "times", times, false, error) || !ReadInt(v, "gap", gap, false, error) ||
            !ReadInt(v, "mode", mode, false, error)) {
            return false;
        }
        req.kind = IOActionRequest::kAudio;
        req.flags = 0x200;
        req.audio[IOACT_TYPE_AUDIO_OUT] = IOActExecCond{what == "stop", pattern, times, gap, mode};
        return true;
    }
    if (v.isMember("manual_do")) {
        req.kind = IOActionRequest::kManualDO;
        return ReadInt(v, "manual_do", req.port, true, error);
    }
    if (v.isMember("manual_audio")) {
        if (!v["manual_audio"].isBool()) {
            error = "\"manual_audio\" must be true or false";
            return false;
        }
        req.kind = IOActionRequest::kManualAudio;
        req.blOn = v["manual_audio"].asBool();
        return true;
    }
    if (v.isMember("wait")) {
        // The command counts the wait in microseconds of its clock; a day is far more than
        // any run needs, and a number beyond it (1e300) would not fit that count.
        constexpr double kMaxWaitSec = 86400.0;
        if (!v["wait"].isNumeric() || !(v["wait"].asDouble() >= 0) || v["wait"].asDouble() > kMaxWaitSec) {
            error = "\"wait\" must be a number of seconds from 0 to 86400";
            return false;
        }
        req.kind = IOActionRequest::kWait;
        req.seconds = v["wait"].asDouble();
        return true;
    }
    error = "unknown request (expected \"do\", \"audio\", \"manual_do\", \"manual_audio\" or \"wait\")";
    return false;
}

}  // namespace tw::host
