// Video sources of the reference host: a file or a network stream demuxed by libavformat,
// and the pump that feeds its packets into a stream FIFO the way a camera would.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tw/stream.h"

namespace tw::host {

// One compressed video frame as the source delivers it. H.264 and HEVC are in Annex B form
// and every key frame carries the parameter sets in-band; with deferred conversion
// (MediaSource::SetDeferAnnexB) a non-key frame may come as the container stored it.
struct SourcePacket {
    std::shared_ptr<const std::vector<unsigned char>> data;
    bool keyFrame = false;
    bool corrupt = false;        // the demuxer flagged it; it is delivered all the same
    int64_t ptsUs = 0;           // presentation time on the stream's own time line
    int64_t durationUs = 0;      // 0 when the container does not say
    // 0: Annex B (or not H.264/HEVC). 1, 2 or 4: NAL units behind big-endian lengths of this
    // size, to be turned into Annex B by LengthPrefixedToAnnexB (twhost/annexb.h).
    int nalLengthSize = 0;
};

struct MediaSourceOptions {
    // Network inputs only: how long opening may take, and how long a read may wait for data.
    int64_t openTimeoutUs = 10000000;
    int64_t readTimeoutUs = 10000000;
    // RTSP over TCP by default: it passes firewalls and loses no packets.
    bool rtspOverTcp = true;
};

class MediaSource {
public:
    MediaSource();
    ~MediaSource();
    MediaSource(const MediaSource&) = delete;
    MediaSource& operator=(const MediaSource&) = delete;

    // Opens a file path or a URL (rtsp://, http://, https://, ...). On failure returns false
    // and error names the input, e.g. "cannot open 'x.mp4': No such file or directory",
    // "no video stream in 'x.wav'", "unsupported codec 'vp9' in 'x.webm'".
    bool Open(const std::string& input, std::string& error,
              const MediaSourceOptions& options = MediaSourceOptions());
    void Close();
    bool IsOpen() const;

    const std::string& GetInput() const;
    bool IsNetwork() const;
    int GetCodec() const;                  // VIDEO_CODEC_TYPE
    const char* GetCodecName() const;      // "mjpeg", "mpeg4", "h264", "hevc"
    int GetWidth() const;
    int GetHeight() const;
    // Codec extra data; for H.264 and HEVC the parameter sets in Annex B form.
    const std::vector<unsigned char>& GetExtraData() const;
    // Length of the stream in microseconds, -1 when unknown (live streams).
    int64_t GetDurationUs() const;
    // Nominal frame interval from the stream's frame rate, 0 when unknown.
    int64_t GetFrameIntervalUs() const;
    // Seconds the last Open spent connecting (opening the input) and probing its streams: a
    // live source is watched only after both, which its users need to know.
    double GetConnectSeconds() const;
    double GetProbeSeconds() const;

    // The next video packet in decoding order: 1 delivered, 0 end of the source, -1 error
    // (GetLastError says what went wrong, naming the input).
    int ReadPacket(SourcePacket& packet);
    const std::string& GetLastError() const;

    // Off by default. On: non-key H.264 and HEVC packets of an MP4 or Matroska stream skip
    // the conversion to Annex B and come with their NAL length size, for a consumer that
    // converts only the few it hands on (the in-process FIFO, whose detector reads key
    // frames). Key frames, streams already in Annex B and packets holding parameter sets or
    // random-access pictures are converted as before, and so is a packet whose lengths do
    // not fit (the converter refuses it and it is skipped). Callable at any time.
    void SetDeferAnnexB(bool defer);
    bool GetDeferAnnexB() const;
    // NAL length size of a length-prefixed H.264/HEVC stream (1, 2 or 4), 0 otherwise.
    int GetNalLengthSize() const;

    // Starts again from the beginning (files). False with error when the input cannot seek.
    bool Rewind(std::string& error);

    // Makes a blocking open or read return soon with an error; callable from any thread.
    // The source stays interrupted until the next Open.
    void Interrupt();

    struct Impl;

private:
    std::unique_ptr<Impl> m_pImpl;
};

// The receiving end of a pump: the in-process FIFO, or the shared-memory live FIFO.
class PacketSink {
public:
    virtual ~PacketSink();
    virtual void SetFormat(int codec, int width, int height,
                           const std::vector<unsigned char>& extra) = 0;
    virtual void Push(const SourcePacket& packet) = 0;
};

// Feeds a sink from a source.
//
// Virtual time (StartVirtual, StreamFifo only): the pump installs itself as the FIFO's
// puller. Each pull reads packets and pushes those whose time is due on the host clock: a
// packet is due at epoch + (its pts - the first packet's pts), the epoch being the host
// clock's time at StartVirtual. A packet that is not due yet waits for a later pull. No
// thread: under a manual clock the FIFO holds exactly what a live camera would have sent
// by then.
//
// Real time (StartRealTime): a thread reads the packets and pushes each when it is due on
// the host clock, or as soon as it is read for network inputs or with pace = false. With a
// manual clock the thread waits through the clock, so Stop() returns once the clock has
// reached the packet being waited for.
//
// A packet the demuxer marks as corrupt is pushed like any other: judging it is the
// decoder's business. A read error ends the pump.
//
// A pump into a StreamFifo defers the Annex B conversion of non-key frames while it runs
// (MediaSource::SetDeferAnnexB): the FIFO converts a block only when a reader takes it.
//
// The source and the sink (or FIFO) must outlive the pump.
class FifoPump {
public:
    struct RealTimeOptions {
        bool pace = true;    // files: push each packet at its time; false: as fast as read
        bool loop = false;   // files: start again at the end, time running on
    };

    FifoPump(MediaSource& source, StreamFifo& fifo);
    FifoPump(MediaSource& source, PacketSink& sink);
    // Stops the pump and removes the puller.
    ~FifoPump();
    FifoPump(const FifoPump&) = delete;
    FifoPump& operator=(const FifoPump&) = delete;

    // False with error when the pump has no StreamFifo or was started already.
    bool StartVirtual(std::string& error);
    bool StartRealTime(const RealTimeOptions& options, std::string& error);
    // Ends the real-time thread (joins it) or removes the virtual-time puller.
    void Stop();

    // The source is exhausted (or failed) and every packet read was pushed.
    bool Ended() const;
    // Host-clock time at the start of the pump.
    int64_t GetEpochUs() const;
    // Host-clock time of the last packet once Ended(); -1 before.
    int64_t GetEndTimeUs() const;
    // epoch + duration of the source when the container tells it; -1 otherwise.
    int64_t GetExpectedEndTimeUs() const;

    uint64_t GetPacketCount() const;     // packets pushed
    uint64_t GetKeyFrameCount() const;   // key frames pushed
    uint64_t GetCorruptCount() const;    // pushed packets that the demuxer flagged
    uint64_t GetErrorCount() const;      // read errors (the pump ends at the first)
    uint64_t GetLoopCount() const;       // times a looping file started again

    // What the camera had sent by host-clock time timeUs: the packets, key frames and
    // restarts of a looping file whose time had come. Ahead of the clock the pump hands
    // packets over before their time, so the totals above run up to a second ahead of a
    // run's end. Exact for a timeUs up to 30 s before the clock's time at the latest
    // hand-over, and for the count limit when one is set.
    struct Counts {
        uint64_t packets = 0;
        uint64_t keyFrames = 0;
        uint64_t loops = 0;
    };
    Counts GetCountsBy(int64_t timeUs) const;
    // Packets due after this host-clock time are left out of GetCountsBy: a run judged up to
    // a cut-off asks for the counts at the cut-off after the pump ran past it. Set it before
    // the pump gets there.
    void SetCountLimitUs(int64_t timeUs);
    // Called once, on the thread that found it, when the source is exhausted (or failed),
    // with the host-clock time of the last packet: in virtual time that is the reader's
    // own thread, before it can wait again, so the clock can be held at the end of data.
    void SetEndListener(std::function<void(int64_t endUs)> listener);
    std::string GetLastError() const;

    struct Impl;

private:
    std::unique_ptr<Impl> m_pImpl;
};

}  // namespace tw::host
