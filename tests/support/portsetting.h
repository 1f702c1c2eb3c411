// The web API's PortSetting request as an action rule sends it, for the tests of the web
// API runner and of the I/O-module backends.
#pragma once

#include <json/json.h>

#include <initializer_list>
#include <utility>

#include "tw/iomodule.h"

namespace tw::test {

inline Json::Value PortRequest(int moduleId, std::initializer_list<std::pair<int, bool>> ports,
                               bool withActRule = true) {
    Json::Value request(Json::objectValue);
    request["id"] = moduleId;
    request["DIOdata"] = Json::Value(Json::arrayValue);
    for (const auto& [idx, state] : ports) {
        Json::Value entry(Json::objectValue);
        entry["idx"] = idx;
        entry["trigger_state"] = state;
        request["DIOdata"].append(entry);
    }
    if (withActRule) request["blActRule"] = true;
    return request;
}

inline int PortSetting(Json::Value& response, const Json::Value& request) {
    return ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 1, "PortSetting", request, "admin");
}

}  // namespace tw::test
