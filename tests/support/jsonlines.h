// The --json lines of twhost, checked against the tables of README.md ("JSON lines"): each
// command has a table of line types and their fields; a field written `name` must be there,
// `name?` may be. Every line must be a JSON object with a documented "type" and no key
// outside its row.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include <json/json.h>

namespace tw::test {

struct JsonLineType {
    std::set<std::string> required;
    std::set<std::string> optional;
};

// The table of one command ("twhost detect") from README.md; empty when it has none.
std::map<std::string, JsonLineType> ReadmeJsonTable(const std::string& command);

// Parses stdout into JSON objects, one a line. False with error naming the bad line.
bool ParseJsonLines(const std::string& out, std::vector<Json::Value>& lines, std::string& error);

// Checks every line against the command's README table; the problems, one a string (empty
// when all lines conform).
std::vector<std::string> CheckJsonLines(const std::string& command, const std::vector<Json::Value>& lines);

// The lines of one type.
std::vector<Json::Value> LinesOfType(const std::vector<Json::Value>& lines, const std::string& type);

// ParseJsonLines and CheckJsonLines together, for a test: a line that does not parse or
// does not conform fails the calling test (not fatally); the lines that parsed.
std::vector<Json::Value> ParseCheckedJsonLines(const std::string& command, const std::string& out);

}  // namespace tw::test
