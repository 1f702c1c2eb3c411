// What "twhost detect --report / --snapshots" keeps of a run and writes at its end: every
// turn's status, the frame each status was judged on (handed over by the host's FIFO
// observer), snapshots of each motion interval at its start and at its highest value, and
// the self-contained HTML page that shows them.
//
// Cheap by design: a turn costs a shared pointer to its compressed frame (or, from the
// shared-memory FIFO, a copy of it); only the frames that become pictures are decoded: the
// first good frame, and the start and the highest turn of each interval, when it closes.
#ifndef TWHOST_DETECTREPORT_H
#define TWHOST_DETECTREPORT_H

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "picture.h"
#include "twhost/eventlog.h"
#include "twhost/frameobserver.h"

class DetectReport {
public:
    struct Options {
        std::string reportPath;      // empty: no page
        std::string snapshotDir;     // empty: no snapshot files
        int maxIntervals = 20;       // intervals that get snapshots (two each)
        int pictureWidth = 640;      // pictures are at most this wide
        bool framePtsOnClock = true; // frame time stamps are host-clock times (in-process FIFO)
    };
    struct Settings {
        int sensitivity = 0;
        int threshold = 0;
        int shortLive = 0;
        std::string regionText;      // as given
        std::string region;          // 1200 cells
    };

    DetectReport(const Options& options, const Settings& settings, int codec, std::vector<unsigned char> extra,
                 int64_t epochUs);

    // The frame the detector was just handed (its observer, on the detector's thread).
    void Handed(const tw::host::HandedFrame& frame);
    // One SetStatus of the detector, on its thread, right after the hand-out of the frame it
    // judged; accepted is false for a status past the end of the input, which is left out.
    void Status(const tw::host::EventRecord& record, bool accepted);
    // Closes an interval still open at endSec and writes its snapshots. Call once the
    // detector has stopped.
    void Finish(double endSec);

    struct Input {
        std::string described;       // what was watched, for people
        std::string codec;
        int width = 0;
        int height = 0;
        double durationSec = -1;     // length judged
        std::string durationNote;    // where the length comes from
        std::string keyFrames;       // key-frame interval, in words
        std::string timeMode;        // "virtual time" / "real time"
        std::string watchStart;      // live sources: ISO time
        std::string endReason;
        uint64_t frames = 0;
        bool framesKnown = false;
    };
    // Key-frame interval seen in the frames the detector was handed, in words: for a source
    // whose packets twhost does not read itself (the shared-memory FIFO).
    std::string KeyFramesSeen();
    // Writes the page; false with error naming the file.
    bool WriteHtml(const Input& input, const std::string& version, std::string& error);

    int SnapshotCount();
    int SnapshotFailures();

private:
    struct Turn {
        double t;
        bool motion;
        int value;
    };
    struct Candidate {
        double t = 0;
        int value = 0;
        double frameT = -1;          // pts of the frame on the run's time line, -1 unknown
        std::shared_ptr<const std::vector<unsigned char>> frame;
    };
    struct Interval {
        double start = 0;
        double end = 0;
        int peakValue = 0;
        double peakT = 0;
        bool openAtEnd = false;
    };
    struct Snapshot {
        int interval = 0;            // 1-based
        std::string kind;            // "start" or "peak"
        double t = 0;
        int value = 0;
        double frameT = -1;
        std::string file;            // written file, when --snapshots
        std::vector<unsigned char> jpeg;
        int width = 0;
        int height = 0;
    };

    void CloseInterval(double endSec, bool openAtEnd);  // m_Mutex held
    bool Picture(const Candidate& c, twpic::RgbPicture& picture, std::string& error);
    void EmitSnapshot(Snapshot& s);
    std::string TimelineSvg(double endSec, std::string& note);

    Options m_Options;
    Settings m_Settings;
    int m_Codec;
    int64_t m_EpochUs;
    std::unique_ptr<twpic::FrameDecoder> m_pDecoder;

    std::mutex m_Mutex;
    std::optional<tw::host::HandedFrame> m_Pending;
    std::vector<Turn> m_Turns;
    std::vector<Interval> m_Intervals;
    bool m_blOpen = false;
    Candidate m_Start;
    Candidate m_Peak;
    std::vector<Snapshot> m_Snapshots;
    int m_SnapshotFailures = 0;
    double m_EndSec = 0;

    // The picture of the camera: the first frame handed out that decodes.
    std::vector<unsigned char> m_CameraJpeg;
    int m_CameraWidth = 0, m_CameraHeight = 0;
    double m_CameraT = -1;
    int m_CameraAttempts = 0;
    std::string m_strCameraError;

    // Key frames handed out: the smallest step between two successive distinct ones.
    int m_LastKeyId = -1;
    int64_t m_LastKeyPtsUs = 0;
    int m_MinKeyStep = 0;
    int64_t m_MinKeyStepUs = 0;
};

#endif
