// Reading the answers of the host's daemons and web API. Their shape is the host's: a
// member of an unexpected type must read as a failure, never throw inside the host's
// process.
#pragma once

#include <json/value.h>

#include <string>

// "success" of an answer as a boolean; false when it is missing or not a boolean-like value.
inline bool AnswerSucceeded(const Json::Value& answer) {
    if (!answer.isObject()) return false;
    const Json::Value& success = answer["success"];
    return success.isConvertibleTo(Json::booleanValue) && success.asBool();
}

// A string member of an answer, or the empty string.
inline std::string AnswerString(const Json::Value& answer, const char* key) {
    if (!answer.isObject()) return std::string();
    const Json::Value& value = answer[key];
    return value.isConvertibleTo(Json::stringValue) ? value.asString() : std::string();
}
