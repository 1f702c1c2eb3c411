// Output of "twhost detect": JSON lines for scripts, or a readable account for people.
#ifndef TWHOST_DETECTOUTPUT_H
#define TWHOST_DETECTOUTPUT_H

#include <cstdint>
#include <limits>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <json/json.h>

#include "twhost/eventlog.h"

// "started again N time(s)": how a looping file's restarts are told, in text and on the page.
std::string StartedAgainText(uint64_t loops);

class DetectPrinter {
public:
    // epochUs: host-clock time of t = 0. wallOffsetUs: added to a host-clock time gives the
    // wall clock, for live sources (wallTime on every line); 0 for none.
    DetectPrinter(int64_t epochUs, int64_t wallOffsetUs, bool live);
    // The camera every JSON line names; label: text lines start with it too (several
    // cameras print into one stream).
    void SetCamera(int camId, bool label);
    // looping: the file starts again at its end (--loop).
    void Begin(const std::string& input, const std::string& codec, bool virtualTime,
               const std::vector<std::pair<double, double>>& expectedMotion, bool looping = false);
    // One SetStatus of the detector; called on the detector's thread. Statuses after the
    // cut-off are not the input's and are left out (false).
    bool Event(const tw::host::EventRecord& record);
    // Statuses later than endUs (or at and after it, when inclusive is false) are left out.
    void CutAt(int64_t endUs, bool inclusive);

    struct Summary {
        int64_t endUs = 0;            // host-clock time at which the judgement ends
        Json::Value input;            // object
        Json::Value settings;         // object
        std::string endReason;
        double wallSeconds = 0;
        uint64_t frames = 0;
        bool framesKnown = false;     // the packets were read by the host (not --shm)
        bool file = false;            // speed and dataEnd apply
        double dataEndSec = -1;       // files: time of the last packet
        double announcedSec = -1;     // files: the container's duration
        int64_t watchStartWallUs = 0; // live: wall time at which watching began
        double connectSec = -1;
        double probeSec = -1;
        int snapshots = -1;           // snapshots taken (--report, --snapshots); -1 none asked
        int64_t loops = -1;           // --loop: times the file started again; -1 not looping
        // Real time: how late the detector's turns started after their 300 ms slots.
        bool latenessKnown = false;
        uint64_t turns = 0;
        double lateMeanMs = 0;
        double lateP99Ms = 0;
        double lateMaxMs = 0;
        uint64_t lateOver100Ms = 0;
    };
    void End(const Summary& summary);

    size_t StatusCount();

    // Motion intervals [start, end) in seconds from a status history; an interval still open
    // at the end closes at endSec.
    static std::vector<std::pair<double, double>> Intervals(const std::vector<tw::host::EventRecord>& events,
                                                            int64_t epochUs, double endSec);

private:
    double Seconds(int64_t us) const { return static_cast<double>(us - m_EpochUs) / 1e6; }
    std::string Label(const std::string& text) const { return m_strLabel + text; }
    int m_CamId = 1;
    std::string m_strLabel;
    int64_t m_EpochUs;
    int64_t m_WallOffsetUs;
    bool m_blLive;
    std::mutex m_Mutex;
    std::vector<tw::host::EventRecord> m_Events;
    int64_t m_CutUs = std::numeric_limits<int64_t>::max();
    bool m_blCutInclusive = true;
    bool m_blMotion = false;
    int m_MaxValue = 0;
};

#endif
