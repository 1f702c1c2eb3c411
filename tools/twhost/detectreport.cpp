#include "detectreport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <json/json.h>

#include "cliutil.h"
#include "tw/camera.h"

using twcli::Out;

namespace {

std::string Fmt(const char* format, double v) {
    char buf[64];
    snprintf(buf, sizeof(buf), format, v);
    return buf;
}

std::string Html(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        switch (ch) {
            case '&': out += "&amp;"; break;
            case '<': out += "&lt;"; break;
            case '>': out += "&gt;"; break;
            case '"': out += "&quot;"; break;
            default: out += ch;
        }
    }
    return out;
}

// A tick step of 1, 2 or 5 times a power of ten giving about n ticks over span.
double TickStep(double span, int n) {
    if (span <= 0) return 1;
    const double raw = span / n;
    const double p = std::pow(10.0, std::floor(std::log10(raw)));
    for (double m : {1.0, 2.0, 5.0, 10.0})
        if (raw <= m * p) return m * p;
    return 10 * p;
}

constexpr int kMaxPoints = 1500;        // the value line holds all turns up to this many
constexpr int kThinBuckets = 700;       // otherwise min and max of each of these slices

}  // namespace

DetectReport::DetectReport(const Options& options, const Settings& settings, int codec,
                           std::vector<unsigned char> extra, int64_t epochUs)
    : m_Options(options),
      m_Settings(settings),
      m_Codec(codec),
      m_EpochUs(epochUs),
      m_pDecoder(std::make_unique<twpic::FrameDecoder>(codec, std::move(extra), options.pictureWidth)) {}

void DetectReport::Handed(const tw::host::HandedFrame& frame) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Pending = frame;
    if (frame.keyFrame) {
        if (m_LastKeyId >= 0 && frame.id != m_LastKeyId) {
            const int step = (frame.id - m_LastKeyId + TW_FIFO_BLOCK_ID_MAX) % TW_FIFO_BLOCK_ID_MAX;
            if (m_MinKeyStep == 0 || step < m_MinKeyStep) {
                m_MinKeyStep = step;
                m_MinKeyStepUs = frame.ptsUs - m_LastKeyPtsUs;
            }
        }
        m_LastKeyId = frame.id;
        m_LastKeyPtsUs = frame.ptsUs;
    }
}

bool DetectReport::Picture(const Candidate& c, twpic::RgbPicture& picture, std::string& error) {
    if (!c.frame || c.frame->empty()) {
        error = "no frame was handed out for this turn";
        return false;
    }
    if (!m_pDecoder->Decode(c.frame->data(), static_cast<int>(c.frame->size()), picture, error)) return false;
    twpic::DrawRegion(picture, m_Settings.region);
    return true;
}

void DetectReport::Status(const tw::host::EventRecord& record, bool accepted) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    std::optional<tw::host::HandedFrame> handed;
    handed.swap(m_Pending);
    if (!accepted) return;
    const double t = static_cast<double>(record.timeUs - m_EpochUs) / 1e6;
    m_Turns.push_back({t, record.motion, record.value});
    Candidate now;
    now.t = t;
    now.value = record.value;
    if (handed) {
        now.frame = handed->data;
        if (m_Options.framePtsOnClock) now.frameT = static_cast<double>(handed->ptsUs - m_EpochUs) / 1e6;
    }
    // The camera's picture: the first frame that decodes (a stream may start with frames a
    // decoder cannot take alone; a few are tried, then the page says why there is none).
    if (m_CameraJpeg.empty() && handed && m_CameraAttempts < 10) {
        ++m_CameraAttempts;
        twpic::RgbPicture picture;
        std::string error;
        if (Picture(now, picture, error)) {
            m_CameraJpeg = twpic::EncodeJpeg(picture);
            m_CameraWidth = picture.width;
            m_CameraHeight = picture.height;
            m_CameraT = t;
        } else {
            m_strCameraError = error;
        }
    }
    if (record.motion) {
        if (!m_blOpen) {
            m_blOpen = true;
            m_Start = now;
            m_Peak = now;
        } else if (record.value > m_Peak.value) {
            m_Peak = now;
        }
    } else if (m_blOpen) {
        CloseInterval(t, false);
    }
}

void DetectReport::Finish(double endSec) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_EndSec = endSec;
    if (!m_Turns.empty() && m_Turns.back().t > m_EndSec) m_EndSec = m_Turns.back().t;
    if (m_blOpen) CloseInterval(std::max(endSec, m_Start.t), true);
}

void DetectReport::CloseInterval(double endSec, bool openAtEnd) {
    m_blOpen = false;
    Interval span;
    span.start = m_Start.t;
    span.end = endSec;
    span.peakValue = m_Peak.value;
    span.peakT = m_Peak.t;
    span.openAtEnd = openAtEnd;
    m_Intervals.push_back(span);
    const int index = static_cast<int>(m_Intervals.size());
    if (index <= m_Options.maxIntervals) {
        // The start and the highest turn; when they are one turn, one decode serves both.
        twpic::RgbPicture startPicture, peakPicture;
        std::string error;
        const bool startOk = Picture(m_Start, startPicture, error);
        if (!startOk) {
            fprintf(stderr, "twhost detect: no snapshot of the turn at %.2f s: %s\n", m_Start.t, error.c_str());
            ++m_SnapshotFailures;
        }
        bool peakOk = false;
        if (m_Peak.t == m_Start.t) {
            peakOk = startOk;
            peakPicture = startPicture;
        } else {
            peakOk = Picture(m_Peak, peakPicture, error);
            if (!peakOk) {
                fprintf(stderr, "twhost detect: no snapshot of the turn at %.2f s: %s\n", m_Peak.t, error.c_str());
                ++m_SnapshotFailures;
            }
        }
        const std::vector<unsigned char> startJpeg = startOk ? twpic::EncodeJpeg(startPicture) : std::vector<unsigned char>();
        const std::vector<unsigned char> peakJpeg =
            !peakOk ? std::vector<unsigned char>() : (m_Peak.t == m_Start.t ? startJpeg : twpic::EncodeJpeg(peakPicture));
        for (int k = 0; k < 2; ++k) {
            const bool ok = k == 0 ? startOk : peakOk;
            if (!ok) continue;
            const Candidate& c = k == 0 ? m_Start : m_Peak;
            Snapshot s;
            s.interval = index;
            s.kind = k == 0 ? "start" : "peak";
            s.t = c.t;
            s.value = c.value;
            s.frameT = c.frameT;
            s.jpeg = k == 0 ? startJpeg : peakJpeg;
            s.width = k == 0 ? startPicture.width : peakPicture.width;
            s.height = k == 0 ? startPicture.height : peakPicture.height;
            EmitSnapshot(s);
            // The page needs the pictures; without a page only the files do.
            if (m_Options.reportPath.empty()) s.jpeg.clear();
            m_Snapshots.push_back(std::move(s));
        }
    }
    m_Start = Candidate();
    m_Peak = Candidate();
}

void DetectReport::EmitSnapshot(Snapshot& s) {
    if (!m_Options.snapshotDir.empty()) {
        char name[96];
        snprintf(name, sizeof(name), "snapshot-%09.3f-%s.jpg", s.t, s.kind.c_str());
        const std::string path = m_Options.snapshotDir + "/" + name;
        std::string error;
        if (s.jpeg.empty()) {
            fprintf(stderr, "twhost detect: cannot encode the snapshot at %.2f s as JPEG\n", s.t);
            ++m_SnapshotFailures;
        } else if (!twpic::WriteFile(path, s.jpeg, error)) {
            fprintf(stderr, "twhost detect: %s\n", error.c_str());
            ++m_SnapshotFailures;
        } else {
            s.file = path;
        }
    }
    Out& out = Out::Get();
    if (out.Json()) {
        Json::Value v = Out::Line("snapshot", s.t);
        v["interval"] = s.interval;
        v["kind"] = s.kind;
        v["value"] = s.value;
        if (s.frameT >= 0) v["frameT"] = s.frameT;
        v["width"] = s.width;
        v["height"] = s.height;
        if (!s.file.empty()) v["file"] = s.file;
        out.Emit(v);
    } else if (!s.file.empty()) {
        out.Textf("%8.2f s  snapshot    %-5s of interval %d, value %d: %s", s.t, s.kind.c_str(), s.interval, s.value,
                  s.file.c_str());
    }
}

int DetectReport::SnapshotCount() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return static_cast<int>(m_Snapshots.size());
}

int DetectReport::SnapshotFailures() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_SnapshotFailures;
}

std::string DetectReport::KeyFramesSeen() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Codec == VIDEO_CODEC_JPEG) return "every frame (JPEG pictures)";
    if (m_MinKeyStep <= 0) return "unknown (fewer than two key frames were read)";
    std::string text = "every " + std::to_string(m_MinKeyStep) + " frames";
    if (m_MinKeyStepUs > 0) text += Fmt(" (%.2f s)", static_cast<double>(m_MinKeyStepUs) / 1e6);
    return text + ", as seen in the key frames the detector read";
}

std::string DetectReport::TimelineSvg(double endSec, std::string& note) {
    // Plot area in the SVG's own units; the browser scales the whole drawing to the page.
    const double left = 46, right = 990, top = 14, bottom = 214, width = 1000, height = 250;
    const double span = endSec > 0 ? endSec : 1;
    auto X = [&](double t) { return left + (right - left) * std::min(std::max(t, 0.0), span) / span; };
    auto Y = [&](double v) { return bottom - (bottom - top) * std::min(std::max(v, 0.0), 100.0) / 100.0; };
    const int threshold = m_Settings.threshold;

    std::string svg;
    char buf[256];
    // Points first: thinning decides how many the drawing holds.
    std::vector<std::pair<double, int>> points;
    if (m_Turns.size() <= static_cast<size_t>(kMaxPoints)) {
        for (const Turn& turn : m_Turns) points.emplace_back(turn.t, turn.value);
        note = std::to_string(m_Turns.size()) + " turns, every one drawn.";
    } else {
        // Each slice keeps its lowest and its highest turn, in time order, so no peak is
        // lost however long the input; intervals and held-back stretches are drawn whole.
        size_t i = 0;
        for (int b = 0; b < kThinBuckets && i < m_Turns.size(); ++b) {
            const double sliceEnd = span * (b + 1) / kThinBuckets;
            size_t lo = i, hi = i;
            size_t j = i;
            for (; j < m_Turns.size() && (m_Turns[j].t <= sliceEnd || b == kThinBuckets - 1); ++j) {
                if (m_Turns[j].value < m_Turns[lo].value) lo = j;
                if (m_Turns[j].value > m_Turns[hi].value) hi = j;
            }
            if (j == i) continue;
            const size_t a = std::min(lo, hi), z = std::max(lo, hi);
            points.emplace_back(m_Turns[a].t, m_Turns[a].value);
            if (z != a) points.emplace_back(m_Turns[z].t, m_Turns[z].value);
            i = j;
        }
        note = std::to_string(m_Turns.size()) + " turns, thinned to " + std::to_string(points.size()) +
               " points (the lowest and the highest turn of each of " + std::to_string(kThinBuckets) +
               " slices); intervals and held-back stretches are drawn whole.";
    }
    snprintf(buf, sizeof(buf),
             "<svg id=\"timeline\" viewBox=\"0 0 %.0f %.0f\" role=\"img\" data-turns=\"%zu\" data-points=\"%zu\" "
             "data-end=\"%.3f\" xmlns=\"http://www.w3.org/2000/svg\">\n",
             width, height, m_Turns.size(), points.size(), endSec);
    svg += buf;
    svg += "<title>Detection value of every turn against the threshold</title>\n";
    snprintf(buf, sizeof(buf), "<rect x=\"%.1f\" y=\"%.1f\" width=\"%.1f\" height=\"%.1f\" fill=\"#fafafa\" stroke=\"#bbb\"/>\n",
             left, top, right - left, bottom - top);
    svg += buf;
    // Turns at or over the threshold that were not reported: the short-live wait (or a turn
    // whose frame could not be compared). Each turn stands for the time up to the next.
    for (size_t i = 0; i < m_Turns.size();) {
        if (m_Turns[i].motion || m_Turns[i].value < threshold) {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < m_Turns.size() && !m_Turns[j].motion && m_Turns[j].value >= threshold) ++j;
        const double t0 = m_Turns[i].t;
        const double t1 = j < m_Turns.size() ? m_Turns[j].t : endSec;
        snprintf(buf, sizeof(buf),
                 "<rect class=\"held\" x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.1f\" fill=\"#f5a623\" "
                 "fill-opacity=\"0.45\" data-start=\"%.3f\" data-end=\"%.3f\"/>\n",
                 X(t0), top, std::max(X(t1) - X(t0), 1.0), bottom - top, t0, t1);
        svg += buf;
        i = j;
    }
    for (const Interval& span : m_Intervals) {
        snprintf(buf, sizeof(buf),
                 "<rect class=\"motion\" x=\"%.2f\" y=\"%.1f\" width=\"%.2f\" height=\"%.1f\" fill=\"#e0463c\" "
                 "fill-opacity=\"0.25\" data-start=\"%.3f\" data-end=\"%.3f\"/>\n",
                 X(span.start), top, std::max(X(span.end) - X(span.start), 1.0), bottom - top, span.start, span.end);
        svg += buf;
    }
    // Axes: seconds along the bottom, values 0..100 up the side.
    const double step = TickStep(span, 10);
    for (double t = 0; t <= span + 1e-9; t += step) {
        snprintf(buf, sizeof(buf),
                 "<line x1=\"%.2f\" y1=\"%.1f\" x2=\"%.2f\" y2=\"%.1f\" stroke=\"#ddd\"/>"
                 "<text x=\"%.2f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"middle\" fill=\"#444\">%g</text>\n",
                 X(t), top, X(t), bottom, X(t), bottom + 14, t);
        svg += buf;
    }
    snprintf(buf, sizeof(buf), "<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"end\" fill=\"#444\">s</text>\n",
             right, bottom + 28);
    svg += buf;
    for (int v = 0; v <= 100; v += 25) {
        snprintf(buf, sizeof(buf),
                 "<text x=\"%.1f\" y=\"%.1f\" font-size=\"11\" text-anchor=\"end\" fill=\"#444\">%d</text>\n", left - 5,
                 Y(v) + 4, v);
        svg += buf;
    }
    snprintf(buf, sizeof(buf),
             "<line id=\"threshold\" x1=\"%.1f\" y1=\"%.2f\" x2=\"%.1f\" y2=\"%.2f\" stroke=\"#c0392b\" "
             "stroke-width=\"1.5\" stroke-dasharray=\"6 4\" data-value=\"%d\"/>"
             "<text x=\"%.1f\" y=\"%.2f\" font-size=\"11\" text-anchor=\"end\" fill=\"#c0392b\">threshold %d</text>\n",
             left, Y(threshold), right, Y(threshold), threshold, right - 4, Y(threshold) - 4, threshold);
    svg += buf;
    svg += "<polyline class=\"value\" fill=\"none\" stroke=\"#1f5fbf\" stroke-width=\"1.3\" points=\"";
    for (const auto& p : points) {
        snprintf(buf, sizeof(buf), "%.2f,%.2f ", X(p.first), Y(p.second));
        svg += buf;
    }
    svg += "\"/>\n";
    for (const Snapshot& s : m_Snapshots) {
        snprintf(buf, sizeof(buf),
                 "<circle class=\"mark\" cx=\"%.2f\" cy=\"%.2f\" r=\"3.5\" fill=\"%s\" stroke=\"#fff\"><title>"
                 "interval %d, %s: %.2f s, value %d</title></circle>\n",
                 X(s.t), Y(s.value), s.kind == "start" ? "#2a9d3f" : "#7b2cbf", s.interval,
                 s.kind == "start" ? "start" : "highest value", s.t, s.value);
        svg += buf;
    }
    svg += "</svg>\n";
    return svg;
}

bool DetectReport::WriteHtml(const Input& in, const std::string& version, std::string& error) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    const double endSec = m_EndSec;
    const int S = m_Settings.sensitivity, T = m_Settings.threshold, L = m_Settings.shortLive;
    const int diff = (100 - S) * 2;
    const int n = (L * 1000) / 300;
    const int watched = static_cast<int>(std::count(m_Settings.region.begin(), m_Settings.region.end(), '1'));
    std::string h;
    h.reserve(64 * 1024 + m_Snapshots.size() * 40 * 1024);
    h += "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n";
    // The page loads nothing: no scripts at all, pictures only from data: URIs, so it can be
    // mailed, archived and opened without a network, and a browser refuses anything else.
    h += "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; img-src data:; "
         "style-src 'unsafe-inline'\">\n";
    h += "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n";
    h += "<title>Motion report: " + Html(in.described) + "</title>\n";
    h += "<style>\n"
         "body{font-family:sans-serif;margin:1.2em auto;max-width:1100px;padding:0 1em;color:#222;background:#fff}\n"
         "h1{font-size:1.5em;margin-bottom:.2em}h2{font-size:1.15em;margin-top:1.6em;border-bottom:1px solid #ddd}\n"
         "table{border-collapse:collapse;margin:.5em 0}td,th{border:1px solid #ccc;padding:.25em .6em;"
         "text-align:left;vertical-align:top}th{background:#f0f0f0}\n"
         ".num{text-align:right;font-variant-numeric:tabular-nums}.note{color:#555;font-size:.92em}\n"
         "svg{width:100%;height:auto;display:block}\n"
         ".legend span{display:inline-block;margin-right:1.4em}.sw{display:inline-block;width:1.6em;height:.8em;"
         "vertical-align:middle;margin-right:.35em;border:1px solid #999}\n"
         ".snaps{display:flex;flex-wrap:wrap;gap:1em}.snaps figure{flex:0 1 calc(50% - .5em)}figure{margin:0}"
         "figure img{display:block;width:100%;height:auto;border:1px solid #999}#camera{max-width:640px}"
         "figcaption{font-size:.9em;margin-top:.25em}\n"
         ".interval-snaps{margin:1em 0 1.4em}.interval-snaps h3{font-size:1em;margin:.2em 0 .4em}\n"
         "code{background:#f4f4f4;padding:0 .2em;word-break:break-all}\n"
         "</style>\n</head>\n<body>\n";
    h += "<h1>Motion report</h1>\n<p class=\"note\">" + Html(in.described) + " &mdash; written by " + Html(version) +
         " on " + Html(twcli::IsoUtc(twcli::WallNowUs())) + "</p>\n";

    // Summary line.
    char buf[512];
    snprintf(buf, sizeof(buf),
             "<p id=\"summary\"><strong>%zu motion interval%s</strong> in %.2f s judged, %zu turns. End: %s.</p>\n",
             m_Intervals.size(), m_Intervals.size() == 1 ? "" : "s", endSec, m_Turns.size(), Html(in.endReason).c_str());
    h += buf;

    // Settings, with what each means for the judgement.
    h += "<h2>Settings</h2>\n<table id=\"settings\">\n<tr><th>Setting</th><th>Value</th><th>What it means</th></tr>\n";
    snprintf(buf, sizeof(buf),
             "<tr><td>Sensitivity</td><td class=\"num\" data-key=\"sensitivity\">%d</td><td>A watched pixel counts as "
             "changed when its grey level differs from the background by more than (100 &minus; %d) &times; 2 = "
             "<strong>%d</strong> of 255 levels (100: any difference counts; 0: only more than 200).</td></tr>\n",
             S, S, diff);
    h += buf;
    snprintf(buf, sizeof(buf),
             "<tr><td>Threshold</td><td class=\"num\" data-key=\"threshold\">%d</td><td>The detection value of a turn "
             "is 400 &times; changed &divide; watched pixels, at most 100 (a quarter of the watched pixels changed "
             "gives 100). A turn is over the threshold when its value is at least %d, i.e. when at least %s %% of "
             "the watched pixels changed%s.</td></tr>\n",
             T, T, Fmt("%g", T / 4.0).c_str(), T == 0 ? " (0: every compared frame is motion, even with no cell watched)" : "");
    h += buf;
    if (L == 0) {
        snprintf(buf, sizeof(buf),
                 "<tr><td>Short-live</td><td class=\"num\" data-key=\"shortLive\">0 s</td><td>Every turn over the "
                 "threshold is reported as motion at once.</td></tr>\n");
    } else {
        snprintf(buf, sizeof(buf),
                 "<tr><td>Short-live</td><td class=\"num\" data-key=\"shortLive\">%d s</td><td>%d &times; 1000 "
                 "&divide; 300 = %d: a motion is reported from the %d%s turn over the threshold in a row on (about "
                 "%s s after it began); shorter motions are never reported. The wait shows as amber in the timeline."
                 "</td></tr>\n",
                 L, L, n, n + 1, (n + 1) % 10 == 1 && n + 1 != 11 ? "st" : (n + 1) % 10 == 2 && n + 1 != 12 ? "nd"
                                                                      : (n + 1) % 10 == 3 && n + 1 != 13 ? "rd" : "th",
                 Fmt("%.1f", n * 0.3).c_str());
    }
    h += buf;
    snprintf(buf, sizeof(buf),
             "<tr><td>Region</td><td class=\"num\" data-key=\"watchedCells\">%d of 1200 cells</td><td>The picture is "
             "divided into 40 &times; 30 cells; only pixels of watched cells (tinted green below) are compared. "
             "Given as <code>%s</code>.</td></tr>\n",
             watched, Html(m_Settings.regionText.size() > 80 ? m_Settings.regionText.substr(0, 80) + "..." : m_Settings.regionText).c_str());
    h += buf;
    h += "<tr><td>Turn</td><td class=\"num\">300 ms</td><td>Every turn the detector takes the newest key frame "
         "(the newest picture for JPEG), shrinks it (other codecs: to at most 120 pixels wide, then blurred 5 "
         "&times; 5; JPEG: to a sixteenth, unblurred) and compares it in grey with a background that follows each "
         "frame by a tenth of the difference, at least one level. A turn without a new frame reports nothing. The "
         "first frames after the start only set up the background.</td></tr>\n</table>\n";

    // Input.
    h += "<h2>Input</h2>\n<table id=\"input\">\n";
    h += "<tr><th>Source</th><td>" + Html(in.described) + "</td></tr>\n";
    h += "<tr><th>Codec</th><td data-key=\"codec\">" + Html(in.codec) + "</td></tr>\n";
    snprintf(buf, sizeof(buf), "<tr><th>Size</th><td data-key=\"size\">%d &times; %d</td></tr>\n", in.width, in.height);
    h += buf;
    if (in.durationSec >= 0) {
        snprintf(buf, sizeof(buf), "<tr><th>Duration</th><td data-key=\"duration\">%.2f s%s%s</td></tr>\n",
                 in.durationSec, in.durationNote.empty() ? "" : " ", Html(in.durationNote).c_str());
        h += buf;
    }
    h += "<tr><th>Key frames</th><td data-key=\"keyFrames\">" + Html(in.keyFrames) + "</td></tr>\n";
    if (in.framesKnown) {
        snprintf(buf, sizeof(buf), "<tr><th>Frames read</th><td>%llu</td></tr>\n",
                 static_cast<unsigned long long>(in.frames));
        h += buf;
    }
    h += "<tr><th>Time</th><td>" + Html(in.timeMode) +
         (in.watchStart.empty() ? std::string() : ", watching from " + Html(in.watchStart)) + "</td></tr>\n</table>\n";

    // Timeline.
    std::string thinNote;
    const std::string svg = TimelineSvg(endSec, thinNote);
    h += "<h2>Timeline</h2>\n" + svg;
    h += "<p class=\"legend\"><span><i class=\"sw\" style=\"background:#1f5fbf\"></i>detection value of each "
         "turn</span><span><i class=\"sw\" style=\"border-top:2px dashed #c0392b;height:0\"></i>threshold</span>"
         "<span><i class=\"sw\" style=\"background:rgba(224,70,60,.3)\"></i>motion reported</span>"
         "<span><i class=\"sw\" style=\"background:rgba(245,166,35,.5)\"></i>at or over the threshold, not "
         "reported (short-live wait, or a frame that could not be compared)</span>"
         "<span><i class=\"sw\" style=\"background:#2a9d3f;border-radius:50%;width:.8em\"></i>start snapshot</span>"
         "<span><i class=\"sw\" style=\"background:#7b2cbf;border-radius:50%;width:.8em\"></i>highest-value "
         "snapshot</span></p>\n";
    h += "<p class=\"note\" id=\"thinning\">" + Html(thinNote) + "</p>\n";

    // The camera.
    h += "<h2>Camera and region</h2>\n";
    if (!m_CameraJpeg.empty()) {
        snprintf(buf, sizeof(buf),
                 "<figure id=\"camera\" data-t=\"%.3f\"><img alt=\"first frame with the 40 x 30 grid\" width=\"%d\" "
                 "height=\"%d\" src=\"data:image/jpeg;base64,",
                 m_CameraT, m_CameraWidth, m_CameraHeight);
        h += buf;
        h += twpic::Base64(m_CameraJpeg);
        snprintf(buf, sizeof(buf),
                 "\"><figcaption>The first frame the detector judged that decodes (%.2f s), with the 40 &times; 30 "
                 "grid; watched cells are tinted green and outlined, the others darkened.</figcaption></figure>\n",
                 m_CameraT);
        h += buf;
    } else {
        h += "<p id=\"camera\">No picture: no frame the detector was handed could be decoded" +
             (m_strCameraError.empty() ? std::string(".") : " (" + Html(m_strCameraError) + ").") + "</p>\n";
    }

    // Intervals.
    h += "<h2>Motion intervals</h2>\n";
    if (m_Intervals.empty()) {
        h += "<p id=\"no-intervals\">No motion was reported.</p>\n";
    } else {
        h += "<table id=\"intervals\">\n<tr><th>#</th><th>Start (s)</th><th>End (s)</th><th>Length (s)</th>"
             "<th>Highest value</th><th>At (s)</th></tr>\n";
        for (size_t i = 0; i < m_Intervals.size(); ++i) {
            const Interval& s = m_Intervals[i];
            snprintf(buf, sizeof(buf),
                     "<tr class=\"interval\" data-start=\"%.3f\" data-end=\"%.3f\" data-peak=\"%d\" "
                     "data-peak-t=\"%.3f\"><td class=\"num\">%zu</td><td class=\"num\">%.2f</td><td class=\"num\">"
                     "%.2f%s</td><td class=\"num\">%.2f</td><td class=\"num\">%d</td><td class=\"num\">%.2f</td></tr>\n",
                     s.start, s.end, s.peakValue, s.peakT, i + 1, s.start, s.end, s.openAtEnd ? " (still open)" : "",
                     s.end - s.start, s.peakValue, s.peakT);
            h += buf;
        }
        h += "</table>\n";
    }

    // Snapshots.
    h += "<h2>Snapshots</h2>\n";
    snprintf(buf, sizeof(buf),
             "<p class=\"note\" id=\"snapshot-limit\" data-max-intervals=\"%d\">Two snapshots per interval (its "
             "start and its highest value), for at most the first %d intervals (--snapshot-intervals)%s. Each is the "
             "frame the detector judged at that turn, decoded by the host.</p>\n",
             m_Options.maxIntervals, m_Options.maxIntervals,
             static_cast<int>(m_Intervals.size()) > m_Options.maxIntervals
                 ? (": " + std::to_string(m_Intervals.size() - m_Options.maxIntervals) + " later intervals have none")
                       .c_str()
                 : "");
    h += buf;
    size_t k = 0;
    while (k < m_Snapshots.size()) {
        const int index = m_Snapshots[k].interval;
        snprintf(buf, sizeof(buf), "<div class=\"interval-snaps\"><h3>Interval %d</h3><div class=\"snaps\">\n", index);
        h += buf;
        for (; k < m_Snapshots.size() && m_Snapshots[k].interval == index; ++k) {
            const Snapshot& s = m_Snapshots[k];
            snprintf(buf, sizeof(buf),
                     "<figure class=\"snapshot\" data-interval=\"%d\" data-kind=\"%s\" data-t=\"%.3f\" data-value=\"%d\">"
                     "<img alt=\"%s of interval %d\" width=\"%d\" height=\"%d\" src=\"data:image/jpeg;base64,",
                     s.interval, s.kind.c_str(), s.t, s.value, s.kind == "start" ? "start" : "highest value", s.interval,
                     s.width, s.height);
            h += buf;
            h += twpic::Base64(s.jpeg);
            std::string frameNote;
            if (s.frameT >= 0) frameNote = Fmt(" (frame of %.2f s)", s.frameT);
            snprintf(buf, sizeof(buf), "\"><figcaption><strong>%s</strong> &mdash; %.2f s%s, value %d</figcaption></figure>\n",
                     s.kind == "start" ? "Start" : "Highest value", s.t, frameNote.c_str(), s.value);
            h += buf;
        }
        h += "</div></div>\n";
    }
    if (m_Snapshots.empty()) h += "<p>No snapshots.</p>\n";
    h += "<footer id=\"report-end\" class=\"note\"><p>Times count from the start of the run (for a file, the "
         "time of the video). A snapshot's time is that of the turn; the frame it shows is the newest key frame the "
         "detector was handed at that turn.</p></footer>\n</body>\n</html>\n";
    return twpic::WriteFile(m_Options.reportPath, std::vector<unsigned char>(h.begin(), h.end()), error);
}
