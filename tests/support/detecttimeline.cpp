#include "support/detecttimeline.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <sstream>

#include "support/jsonlines.h"

namespace tw::test {
namespace {

constexpr double kPeriodSec = 0.3;

std::string Sec(double s) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.2f", s);
    return text;
}

bool ParseLine(const std::string& line, Json::Value& value, std::string& error) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(line.data(), line.data() + line.size(), &value, &error);
}

}  // namespace

bool ParseDetectJson(const std::string& out, DetectJson& json, std::string& error) {
    json = DetectJson();
    std::istringstream in(out);
    std::string line;
    int number = 0;
    bool haveSummary = false;
    while (std::getline(in, line)) {
        ++number;
        const std::string where = "line " + std::to_string(number) + " '" + line + "'";
        if (haveSummary) {
            error = where + " follows the summary";
            return false;
        }
        Json::Value value;
        std::string parseError;
        if (!ParseLine(line, value, parseError)) {
            error = where + " is not JSON: " + parseError;
            return false;
        }
        if (!value.isObject()) {
            error = where + " is not an object";
            return false;
        }
        const std::vector<std::string> problems = CheckJsonLines("twhost detect", {value});
        if (!problems.empty()) {
            error = where + ": " + problems.front();
            return false;
        }
        if (value["type"].asString() == "summary") {
            json.summary = value;
            haveSummary = true;
            continue;
        }
        if (value["type"].asString() != "status") {
            error = where + " is neither a status nor the summary";
            return false;
        }
        if (!value["t"].isDouble() || !value["motion"].isBool() || !value["value"].isInt()) {
            error = where + " lacks a number \"t\", a bool \"motion\" or an int \"value\"";
            return false;
        }
        json.statuses.push_back({value["t"].asDouble(), value["motion"].asBool(), value["value"].asInt()});
    }
    if (!haveSummary) {
        error = "no summary line in " + std::to_string(number) + " lines";
        return false;
    }
    return true;
}

std::vector<DetectStatus> StatusesFromEvents(const std::vector<tw::host::EventRecord>& events, int64_t epochUs) {
    std::vector<DetectStatus> statuses;
    statuses.reserve(events.size());
    for (const tw::host::EventRecord& e : events)
        statuses.push_back({static_cast<double>(e.timeUs - epochUs) / 1e6, e.motion, e.value});
    return statuses;
}

std::vector<std::string> CheckTimeline(const std::vector<DetectStatus>& statuses,
                                       const std::vector<std::pair<double, double>>& motion, double clipSec,
                                       const TimelineRules& rules) {
    std::vector<std::string> problems;
    std::vector<std::pair<double, double>> moving = motion;
    std::sort(moving.begin(), moving.end());
    auto clipTime = [&rules](const DetectStatus& s) { return s.t + rules.clipOffsetSec; };

    for (const auto& span : moving) {
        const double last = span.first + rules.hitWithinSec;
        const bool hit = std::any_of(statuses.begin(), statuses.end(), [&](const DetectStatus& s) {
            return s.motion && clipTime(s) >= span.first && clipTime(s) <= last;
        });
        if (!hit) {
            problems.push_back("the object moving " + Sec(span.first) + "-" + Sec(span.second) +
                               " s was not reported as motion by " + Sec(last) + " s");
        }
    }

    // Stretches in which nothing may be reported: before the first movement, and from the
    // settle time after each movement to the next one (or the end of the clip).
    std::vector<std::pair<double, double>> still;
    double from = -std::numeric_limits<double>::infinity();
    for (const auto& span : moving) {
        if (span.first > from) still.emplace_back(from, span.first);
        from = std::max(from, span.second + rules.settleSec);
    }
    still.emplace_back(from, std::numeric_limits<double>::infinity());

    for (const auto& span : still) {
        int count = 0;
        for (const DetectStatus& s : statuses) {
            const double t = clipTime(s);
            if (t < span.first || t >= span.second) continue;
            ++count;
            if (s.motion) {
                problems.push_back("motion (value " + std::to_string(s.value) + ") reported at " + Sec(t) +
                                   " s while the object stood still since " +
                                   (std::isinf(span.first) ? std::string("the start") : Sec(span.first) + " s"));
            }
        }
        // A still stretch without statuses would pass the check above for nothing.
        const double begin = std::max(span.first, 0.0);
        const double end = std::min(span.second, clipSec);
        if (end - begin >= 1.0) {
            const int expected = static_cast<int>((end - begin) / kPeriodSec);
            if (count * 2 < expected) {
                problems.push_back("only " + std::to_string(count) + " statuses in the still stretch " + Sec(begin) +
                                   "-" + Sec(end) + " s, where a 300 ms detector gives about " +
                                   std::to_string(expected));
            }
        }
    }
    return problems;
}

std::string DescribeStatuses(const std::vector<DetectStatus>& statuses) {
    std::string text;
    for (const DetectStatus& s : statuses) {
        char item[48];
        std::snprintf(item, sizeof(item), "%s%.2f:%c/%d", text.empty() ? "" : " ", s.t, s.motion ? 'M' : '-',
                      s.value);
        text += item;
    }
    return text;
}

std::string JoinProblems(const std::vector<std::string>& problems) {
    std::string text;
    for (const std::string& p : problems) text += "\n  " + p;
    return text;
}

tw::host::ClipSpec DetectClipSpec(const DetectClipCase& c) {
    tw::host::ClipSpec clip;
    clip.width = c.width;
    clip.height = c.height;
    clip.fps = 25;
    clip.codec = c.codec;
    clip.gop = 6;
    clip.bFrames = c.bFrames;
    clip.durationSec = 19.0;
    clip.motion = {{3.0, 5.0}, {10.5, 12.5}};
    return clip;
}

}  // namespace tw::test
