#include "support/jsonlines.h"

#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <sstream>

namespace tw::test {

namespace {

std::vector<std::string> Backticked(const std::string& cell) {
    std::vector<std::string> names;
    size_t pos = 0;
    for (;;) {
        const size_t open = cell.find('`', pos);
        if (open == std::string::npos) break;
        const size_t close = cell.find('`', open + 1);
        if (close == std::string::npos) break;
        names.push_back(cell.substr(open + 1, close - open - 1));
        pos = close + 1;
    }
    return names;
}

}  // namespace

std::map<std::string, JsonLineType> ReadmeJsonTable(const std::string& command) {
    std::map<std::string, JsonLineType> table;
    std::ifstream in(std::string(TW_SOURCE_DIR) + "/README.md");
    std::string line;
    const std::string heading = "#### `" + command + "`";
    bool inSection = false;
    while (std::getline(in, line)) {
        if (!inSection) {
            inSection = line == heading;
            continue;
        }
        if (line.rfind("#", 0) == 0) break;  // the next heading ends the table
        if (line.rfind("| `", 0) != 0) continue;
        const size_t bar = line.find('|', 1);
        if (bar == std::string::npos) continue;
        const std::vector<std::string> type = Backticked(line.substr(1, bar - 1));
        if (type.size() != 1) continue;
        JsonLineType& row = table[type[0]];
        for (const std::string& field : Backticked(line.substr(bar + 1))) {
            if (!field.empty() && field.back() == '?') {
                row.optional.insert(field.substr(0, field.size() - 1));
            } else {
                row.required.insert(field);
            }
        }
    }
    return table;
}

bool ParseJsonLines(const std::string& out, std::vector<Json::Value>& lines, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::istringstream in(out);
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        Json::Value v;
        std::string why;
        if (!reader->parse(line.data(), line.data() + line.size(), &v, &why) || !v.isObject()) {
            error = "line " + std::to_string(number) + " is not a JSON object: '" + line + "' " + why;
            return false;
        }
        lines.push_back(v);
    }
    return true;
}

std::vector<std::string> CheckJsonLines(const std::string& command, const std::vector<Json::Value>& lines) {
    std::vector<std::string> problems;
    const std::map<std::string, JsonLineType> table = ReadmeJsonTable(command);
    if (table.empty()) {
        problems.push_back("README.md has no JSON table for " + command);
        return problems;
    }
    for (const Json::Value& v : lines) {
        const std::string text = v.toStyledString();
        if (!v["type"].isString()) {
            problems.push_back("no \"type\": " + text);
            continue;
        }
        const auto row = table.find(v["type"].asString());
        if (row == table.end()) {
            problems.push_back("undocumented type \"" + v["type"].asString() + "\"");
            continue;
        }
        for (const std::string& key : v.getMemberNames()) {
            if (!row->second.required.count(key) && !row->second.optional.count(key)) {
                problems.push_back("undocumented field \"" + key + "\" in a \"" + row->first + "\" line");
            }
        }
        for (const std::string& key : row->second.required) {
            if (!v.isMember(key)) problems.push_back("a \"" + row->first + "\" line lacks \"" + key + "\"");
        }
    }
    return problems;
}

std::vector<Json::Value> LinesOfType(const std::vector<Json::Value>& lines, const std::string& type) {
    std::vector<Json::Value> out;
    for (const Json::Value& v : lines) {
        if (v["type"].asString() == type) out.push_back(v);
    }
    return out;
}

std::vector<Json::Value> ParseCheckedJsonLines(const std::string& command, const std::string& out) {
    std::vector<Json::Value> lines;
    std::string error;
    EXPECT_TRUE(ParseJsonLines(out, lines, error)) << error;
    const std::vector<std::string> problems = CheckJsonLines(command, lines);
    EXPECT_TRUE(problems.empty()) << problems.front();
    return lines;
}

}  // namespace tw::test
