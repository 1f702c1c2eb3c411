// The statuses of one motion-detection run and the checks of them against a clip whose
// moving intervals are known: "twhost detect --json" output parsed with JsonCpp, or the
// event history of an in-process detector.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include <ostream>

#include "twhost/clipmaker.h"
#include "twhost/eventlog.h"

namespace tw::test {

struct DetectStatus {
    double t = 0;         // seconds from the start of the run
    bool motion = false;
    int value = 0;
};

struct DetectJson {
    std::vector<DetectStatus> statuses;
    Json::Value summary;  // the last line
};

// Parses the lines of "twhost detect --json": one "status" line per status with "t"
// (number), "motion" (bool) and "value" (int), then one "summary" line as the last; every
// line as README.md documents it. False with error naming the first line that does not fit.
bool ParseDetectJson(const std::string& out, DetectJson& json, std::string& error);

// The event history of a detector as statuses, times taken from epochUs.
std::vector<DetectStatus> StatusesFromEvents(const std::vector<tw::host::EventRecord>& events, int64_t epochUs);

struct TimelineRules {
    // A motion must be reported no later than this after the object starts moving.
    double hitWithinSec = 1.0;
    // After the object stops, the slowly adapting background may still differ for a while;
    // from this long after the end until the next start no motion may be reported.
    double settleSec = 4.5;
    // Times of the statuses are shifted by this before they are compared with the clip's
    // intervals (a live run that started after the clip did).
    double clipOffsetSec = 0.0;
};

// Everything wrong with a status history against a clip of clipSec seconds moving during
// motion ([start, end) seconds): a moving interval without a motion reported in
// [start, start + hitWithinSec]; a motion reported before the first start or in
// [end + settleSec, next start) (the clip's end for the last one); a still stretch of a
// second or more that got fewer than half the statuses a 300 ms detector gives it. Empty
// when the history is right.
std::vector<std::string> CheckTimeline(const std::vector<DetectStatus>& statuses,
                                       const std::vector<std::pair<double, double>>& motion, double clipSec,
                                       const TimelineRules& rules = TimelineRules());

// The statuses as "t:m/v" items on one line, for failure messages.
std::string DescribeStatuses(const std::vector<DetectStatus>& statuses);

// Joined problems for a failure message.
std::string JoinProblems(const std::vector<std::string>& problems);

// A clip of the detection tests, by codec, container and size.
struct DetectClipCase {
    const char* name;
    int codec;        // VIDEO_CODEC_TYPE
    const char* ext;  // the container, by file extension
    int width;
    int height;
    int bFrames;
};

inline std::ostream& operator<<(std::ostream& os, const DetectClipCase& c) { return os << c.name; }

// Short and small, so the suites stay quick, yet long enough for two movements (3-5 s and
// 10.5-12.5 s of 19 s) with a still stretch between them that outlasts the background's
// settling. A key frame every 6 frames gives the detector a fresh picture at nearly every
// 300 ms turn.
tw::host::ClipSpec DetectClipSpec(const DetectClipCase& c);

}  // namespace tw::test
