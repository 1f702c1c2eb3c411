#include "detectoutput.h"

#include "cliutil.h"

using twcli::Out;

DetectPrinter::DetectPrinter(int64_t epochUs, int64_t wallOffsetUs, bool live)
    : m_EpochUs(epochUs), m_WallOffsetUs(wallOffsetUs), m_blLive(live) {}

std::string StartedAgainText(uint64_t loops) {
    return "started again " + std::to_string(loops) + (loops == 1 ? " time" : " times");
}

void DetectPrinter::SetCamera(int camId, bool label) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_CamId = camId;
    m_strLabel = label ? "[camera " + std::to_string(camId) + "] " : std::string();
}

void DetectPrinter::Begin(const std::string& input, const std::string& codec, bool virtualTime,
                          const std::vector<std::pair<double, double>>& expectedMotion, bool looping) {
    Out& out = Out::Get();
    if (out.Json()) return;
    out.Textf("%sDetecting motion in %s (%s), %s%s", m_strLabel.c_str(), input.c_str(), codec.c_str(),
              virtualTime ? "virtual time" : "real time", looping ? ", looping" : "");
    if (!expectedMotion.empty()) {
        std::string text = "The built-in sample moves during";
        char span[64];
        for (size_t i = 0; i < expectedMotion.size(); ++i) {
            snprintf(span, sizeof(span), "%s %.1f-%.1f s", i ? "," : "", expectedMotion[i].first,
                     expectedMotion[i].second);
            text += span;
        }
        if (looping) text += " of each round";
        out.Text(Label(text));
    }
}

void DetectPrinter::CutAt(int64_t endUs, bool inclusive) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (endUs < m_CutUs || (endUs == m_CutUs && !inclusive)) {
        m_CutUs = endUs;
        m_blCutInclusive = inclusive;
    }
}

bool DetectPrinter::Event(const tw::host::EventRecord& record) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (record.timeUs > m_CutUs || (record.timeUs == m_CutUs && !m_blCutInclusive)) return false;
    m_Events.push_back(record);
    if (record.value > m_MaxValue) m_MaxValue = record.value;
    const double t = Seconds(record.timeUs);
    Out& out = Out::Get();
    if (out.Json()) {
        Json::Value v = Out::Line("status", t);
        v["camera"] = m_CamId;
        v["motion"] = record.motion;
        v["value"] = record.value;
        if (m_blLive) v["wallTime"] = twcli::IsoUtc(record.timeUs + m_WallOffsetUs);
        out.Emit(v);
        return true;
    }
    // For people only the changes are worth a line.
    if (record.motion != m_blMotion) {
        const std::string wall = m_blLive ? "  " + twcli::IsoUtc(record.timeUs + m_WallOffsetUs) : std::string();
        if (record.motion) {
            out.Textf("%s%8.2f s  motion      value %d%s", m_strLabel.c_str(), t, record.value, wall.c_str());
        } else {
            out.Textf("%s%8.2f s  no motion%s", m_strLabel.c_str(), t, wall.c_str());
        }
        m_blMotion = record.motion;
    }
    return true;
}

size_t DetectPrinter::StatusCount() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Events.size();
}

std::vector<std::pair<double, double>> DetectPrinter::Intervals(const std::vector<tw::host::EventRecord>& events,
                                                                int64_t epochUs, double endSec) {
    std::vector<std::pair<double, double>> intervals;
    bool open = false;
    double start = 0;
    for (const tw::host::EventRecord& e : events) {
        const double t = static_cast<double>(e.timeUs - epochUs) / 1e6;
        if (e.motion && !open) {
            open = true;
            start = t;
        } else if (!e.motion && open) {
            open = false;
            intervals.emplace_back(start, t);
        }
    }
    if (open) intervals.emplace_back(start, endSec > start ? endSec : start);
    return intervals;
}

void DetectPrinter::End(const Summary& s) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    const double endSec = Seconds(s.endUs);
    const std::vector<std::pair<double, double>> intervals = Intervals(m_Events, m_EpochUs, endSec);
    const double speed = s.wallSeconds > 0 ? endSec / s.wallSeconds : 0;
    Out& out = Out::Get();
    if (out.Json()) {
        Json::Value v = Out::Line("summary", endSec);
        v["camera"] = m_CamId;
        v["input"] = s.input;
        v["settings"] = s.settings;
        v["endReason"] = s.endReason;
        Json::Value list(Json::arrayValue);
        for (const auto& span : intervals) {
            Json::Value item(Json::objectValue);
            item["start"] = span.first;
            item["end"] = span.second;
            list.append(item);
        }
        v["intervals"] = list;
        v["statuses"] = static_cast<Json::UInt64>(m_Events.size());
        v["maxValue"] = m_MaxValue;
        if (s.snapshots >= 0) v["snapshots"] = s.snapshots;
        if (s.loops >= 0) v["loops"] = static_cast<Json::Int64>(s.loops);
        if (s.framesKnown) v["frames"] = static_cast<Json::UInt64>(s.frames);
        v["wallSeconds"] = s.wallSeconds;
        if (s.file) {
            v["speed"] = speed;
            if (s.dataEndSec >= 0) v["dataEnd"] = s.dataEndSec;
            if (s.announcedSec >= 0) v["announcedDuration"] = s.announcedSec;
        }
        if (m_blLive) {
            v["watchStart"] = twcli::IsoUtc(s.watchStartWallUs);
            if (s.connectSec >= 0) v["connectSeconds"] = s.connectSec;
            if (s.probeSec >= 0) v["probeSeconds"] = s.probeSec;
        }
        if (s.latenessKnown) {
            Json::Value late(Json::objectValue);
            late["turns"] = static_cast<Json::UInt64>(s.turns);
            late["meanMs"] = s.lateMeanMs;
            late["p99Ms"] = s.lateP99Ms;
            late["maxMs"] = s.lateMaxMs;
            late["over100Ms"] = static_cast<Json::UInt64>(s.lateOver100Ms);
            v["lateness"] = late;
        }
        out.Emit(v);
        return;
    }
    std::string text = "Motion in " + std::to_string(intervals.size()) + " interval" + (intervals.size() == 1 ? "" : "s");
    char span[64];
    for (size_t i = 0; i < intervals.size(); ++i) {
        snprintf(span, sizeof(span), "%s %.2f-%.2f s", i ? "," : ":", intervals[i].first, intervals[i].second);
        text += span;
    }
    out.Text(Label(text));
    if (s.file) {
        std::string looped;
        if (s.loops >= 0) {
            looped = ", the file " + StartedAgainText(static_cast<uint64_t>(s.loops));
        }
        out.Textf("%s%zu statuses, highest value %d, %.1f s of video in %.2f s (%.1fx)%s; %s", m_strLabel.c_str(),
                  m_Events.size(), m_MaxValue, endSec, s.wallSeconds, speed, looped.c_str(), s.endReason.c_str());
    } else {
        out.Textf("%s%zu statuses, highest value %d, watched %.1f s from %s (connecting %.2f s, probing %.2f s); %s",
                  m_strLabel.c_str(), m_Events.size(), m_MaxValue, endSec, twcli::IsoUtc(s.watchStartWallUs).c_str(),
                  s.connectSec > 0 ? s.connectSec : 0.0, s.probeSec > 0 ? s.probeSec : 0.0, s.endReason.c_str());
    }
    if (s.latenessKnown) {
        out.Textf("%s%llu paced turns started late by %.1f ms on average, %.1f ms at the 99th percentile, "
                  "%.1f ms at most (%llu more than 100 ms)",
                  m_strLabel.c_str(), static_cast<unsigned long long>(s.turns), s.lateMeanMs, s.lateP99Ms,
                  s.lateMaxMs, static_cast<unsigned long long>(s.lateOver100Ms));
    }
}
