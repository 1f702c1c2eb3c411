// Output of "twhost detect": JSON lines for scripts, or a readable account on a terminal.
#ifndef TWHOST_DETECTOUTPUT_H
#define TWHOST_DETECTOUTPUT_H

#include <cstdint>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "twhost/eventlog.h"

class DetectPrinter {
public:
    DetectPrinter(bool json, int64_t epochUs, bool terminal);
    void Begin(const std::string& input, const std::string& codec, bool virtualTime,
               const std::vector<std::pair<double, double>>& expectedMotion);
    // One SetStatus of the detector; called on the detector's thread.
    void Event(const tw::host::EventRecord& record);
    void End(int64_t endUs, double wallSeconds, uint64_t frames);

    // Motion intervals [start, end) in seconds from a status history; an interval still open
    // at the end closes at endSec.
    static std::vector<std::pair<double, double>> Intervals(const std::vector<tw::host::EventRecord>& events,
                                                            int64_t epochUs, double endSec);

private:
    double Seconds(int64_t us) const { return static_cast<double>(us - m_EpochUs) / 1e6; }
    bool m_blJson;
    int64_t m_EpochUs;
    bool m_blTerminal;
    std::mutex m_Mutex;
    std::vector<tw::host::EventRecord> m_Events;
    bool m_blMotion = false;
    int m_MaxValue = 0;
};

#endif
