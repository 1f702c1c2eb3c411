#include "detectoutput.h"

#include <cstdio>

DetectPrinter::DetectPrinter(bool json, int64_t epochUs, bool terminal)
    : m_blJson(json), m_EpochUs(epochUs), m_blTerminal(terminal) {}

void DetectPrinter::Begin(const std::string& input, const std::string& codec, bool virtualTime,
                          const std::vector<std::pair<double, double>>& expectedMotion) {
    if (m_blJson) return;
    printf("Detecting motion in %s (%s), %s\n", input.c_str(), codec.c_str(),
           virtualTime ? "virtual time" : "real time");
    if (!expectedMotion.empty()) {
        printf("The built-in sample moves during");
        for (size_t i = 0; i < expectedMotion.size(); ++i)
            printf("%s %.1f-%.1f s", i ? "," : "", expectedMotion[i].first, expectedMotion[i].second);
        printf("\n");
    }
    fflush(stdout);
}

void DetectPrinter::Event(const tw::host::EventRecord& record) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Events.push_back(record);
    if (record.value > m_MaxValue) m_MaxValue = record.value;
    const double t = Seconds(record.timeUs);
    if (m_blJson) {
        printf("{\"t\":%.3f,\"motion\":%s,\"value\":%d}\n", t, record.motion ? "true" : "false", record.value);
        fflush(stdout);
        return;
    }
    // On a terminal only the changes are worth a line.
    if (record.motion != m_blMotion) {
        if (record.motion) {
            printf("%8.2f s  motion      value %d\n", t, record.value);
        } else {
            printf("%8.2f s  no motion\n", t);
        }
        fflush(stdout);
        m_blMotion = record.motion;
    }
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

void DetectPrinter::End(int64_t endUs, double wallSeconds, uint64_t frames) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    const double endSec = Seconds(endUs);
    const std::vector<std::pair<double, double>> intervals = Intervals(m_Events, m_EpochUs, endSec);
    const double speed = wallSeconds > 0 ? endSec / wallSeconds : 0;
    if (m_blJson) {
        printf("{\"summary\":true,\"intervals\":[");
        for (size_t i = 0; i < intervals.size(); ++i)
            printf("%s{\"start\":%.3f,\"end\":%.3f}", i ? "," : "", intervals[i].first, intervals[i].second);
        printf("],\"statuses\":%zu,\"max_value\":%d,\"frames\":%llu,\"stream_seconds\":%.3f,"
               "\"wall_seconds\":%.3f,\"speed\":%.2f}\n",
               m_Events.size(), m_MaxValue, static_cast<unsigned long long>(frames), endSec, wallSeconds, speed);
        fflush(stdout);
        return;
    }
    printf("Motion in %zu interval%s", intervals.size(), intervals.size() == 1 ? "" : "s");
    for (size_t i = 0; i < intervals.size(); ++i)
        printf("%s %.2f-%.2f s", i ? "," : ":", intervals[i].first, intervals[i].second);
    printf("\n%zu statuses, highest value %d, %.1f s of video in %.2f s (%.1fx)\n", m_Events.size(), m_MaxValue,
           endSec, wallSeconds, speed);
    (void)m_blTerminal;
    fflush(stdout);
}
