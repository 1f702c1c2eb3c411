// libavformat video sources and the pump that feeds their packets into the stream FIFOs.

#include "twhost/mediasource.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>
#include <optional>
#include <thread>

#include "tw/camera.h"
#include "twhost/annexb.h"
#include "twhost/clock.h"
#include "twhost/streamfifo.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

namespace tw::host {

namespace {

// Steady time for network deadlines. Time-outs guard against dead peers, so they run on
// real time even when the host clock is a manual one.
int64_t SteadyUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string AvError(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (av_strerror(err, text, sizeof(text)) < 0) {
        return "error " + std::to_string(err);
    }
    return text;
}

bool IsUrl(const std::string& input) {
    const size_t pos = input.find("://");
    if (pos == std::string::npos || pos == 0) {
        return false;
    }
    return input.compare(0, pos, "file") != 0;
}

int HostCodecOf(AVCodecID id) {
    switch (id) {
    case AV_CODEC_ID_MJPEG:
        return VIDEO_CODEC_JPEG;
    case AV_CODEC_ID_MPEG4:
        return VIDEO_CODEC_MPEG4;
    case AV_CODEC_ID_H264:
        return VIDEO_CODEC_H264;
    case AV_CODEC_ID_HEVC:
        return VIDEO_CODEC_HEVC;
    default:
        return VIDEO_CODEC_UNKNOWN;
    }
}

// An MP4 (or MOV) file's header describes its video in full: codec set-up, size, frame
// rate, duration and start. Probing it as well decodes its first frames (seven for H.264,
// with a decoder and its picture buffers of their own), which a camera pays at every start
// and which changes nothing this source hands on. Other containers leave some of that to
// the probe (Matroska the start, AVI the frame rate and duration), and so does an MP4 whose
// header lacks any of it (MPEG-4 Part 2 streams give no size there), or that holds more
// than one video stream, where the probe helps choose: those are probed.
bool HeaderDescribesVideo(const AVFormatContext* pFormat) {
    if (pFormat->iformat == nullptr || strcmp(pFormat->iformat->name, "mov,mp4,m4a,3gp,3g2,mj2") != 0) {
        return false;
    }
    const AVStream* video = nullptr;
    for (unsigned i = 0; i < pFormat->nb_streams; ++i) {
        if (pFormat->streams[i]->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
            continue;
        }
        if (video != nullptr) {
            return false;
        }
        video = pFormat->streams[i];
    }
    if (video == nullptr || (video->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
        return false;
    }
    const AVCodecParameters* par = video->codecpar;
    // H.264 and HEVC carry their parameter sets in the header (avcC, hvcC); without them the
    // probe takes them from the stream.
    const bool needsParameterSets =
        par->codec_id == AV_CODEC_ID_H264 || par->codec_id == AV_CODEC_ID_HEVC;
    return HostCodecOf(par->codec_id) != VIDEO_CODEC_UNKNOWN && par->width > 0 &&
           par->height > 0 && video->avg_frame_rate.num > 0 && video->avg_frame_rate.den > 0 &&
           video->start_time != AV_NOPTS_VALUE && pFormat->duration != AV_NOPTS_VALUE &&
           (!needsParameterSets || (par->extradata != nullptr && par->extradata_size > 0));
}

const char* HostCodecName(int codec) {
    switch (codec) {
    case VIDEO_CODEC_JPEG:
        return "mjpeg";
    case VIDEO_CODEC_MPEG4:
        return "mpeg4";
    case VIDEO_CODEC_H264:
        return "h264";
    case VIDEO_CODEC_HEVC:
        return "hevc";
    default:
        return "unknown";
    }
}

bool IsAnnexB(const std::vector<unsigned char>& data) {
    if (data.size() >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) {
        return true;
    }
    return data.size() >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1;
}

// Calls f(nal, length) for every NAL unit of an Annex B buffer.
template <typename F>
void ForEachNal(const unsigned char* p, size_t n, F f) {
    size_t i = 0;
    size_t start = SIZE_MAX;
    while (i + 2 < n) {
        if (p[i] == 0 && p[i + 1] == 0 && p[i + 2] == 1) {
            if (start != SIZE_MAX) {
                size_t end = i;
                // The zero of a four-byte start code belongs to the next start code.
                while (end > start && p[end - 1] == 0) {
                    --end;
                }
                f(p + start, end - start);
            }
            i += 3;
            start = i;
        } else {
            ++i;
        }
    }
    if (start != SIZE_MAX && start < n) {
        f(p + start, n - start);
    }
}

bool IsParameterSet(int codec, const unsigned char* nal, size_t len) {
    if (len < 1) {
        return false;
    }
    if (codec == VIDEO_CODEC_H264) {
        const int type = nal[0] & 0x1f;
        return type == 7 || type == 8;
    }
    const int type = (nal[0] >> 1) & 0x3f;
    return type == 32 || type == 33 || type == 34;
}

// Whether a sequence parameter set comes before the first slice of the frame: only one
// there lets a decoder start at this frame. The walk ends at the first slice, so a key
// frame of a few hundred kilobytes costs a look at its first bytes instead of a scan of all
// of them; a parameter set behind a slice would come too late for it anyway.
bool HasSequenceParameterSet(int codec, const std::vector<unsigned char>& data) {
    const unsigned char* p = data.data();
    const size_t n = data.size();
    for (size_t i = 0; i + 3 < n; ++i) {
        if (p[i] != 0 || p[i + 1] != 0 || p[i + 2] != 1) {
            continue;
        }
        const unsigned char header = p[i + 3];
        if (codec == VIDEO_CODEC_H264) {
            const int type = header & 0x1f;
            if (type == 7) return true;
            if (type >= 1 && type <= 5) return false;
        } else {
            const int type = (header >> 1) & 0x3f;
            if (type == 33) return true;
            if (type <= 31) return false;
        }
        i += 2;
    }
    return false;
}

std::vector<unsigned char> ParameterSetsOf(int codec, const std::vector<unsigned char>& data) {
    std::vector<unsigned char> out;
    ForEachNal(data.data(), data.size(), [&](const unsigned char* nal, size_t len) {
        if (IsParameterSet(codec, nal, len)) {
            static const unsigned char kStartCode[4] = {0, 0, 0, 1};
            out.insert(out.end(), kStartCode, kStartCode + 4);
            out.insert(out.end(), nal, nal + len);
        }
    });
    return out;
}

// NAL length size of MP4/Matroska extra data (avcC, hvcC) as the mp4toannexb filters read
// it; 0 when the extra data is in Annex B already, too short, or gives a size the deferred
// path does not take (3 is possible in the field but invalid).
int NalLengthSizeOf(int codec, const unsigned char* extra, size_t size) {
    if (extra == nullptr || (size >= 3 && extra[0] == 0 && extra[1] == 0 &&
                             (extra[2] == 1 || (size >= 4 && extra[2] == 0 && extra[3] == 1)))) {
        return 0;
    }
    int lengthSize = 0;
    if (codec == VIDEO_CODEC_H264 && size >= 7) {
        lengthSize = (extra[4] & 0x03) + 1;
    } else if (codec == VIDEO_CODEC_HEVC && size >= 23) {
        lengthSize = (extra[21] & 0x03) + 1;
    }
    return lengthSize == 3 ? 0 : lengthSize;
}

// How many packets Open may read ahead to find the parameter sets of a stream whose
// container does not carry them (MPEG-TS, raw elementary streams).
constexpr size_t kMaxLookAheadPackets = 600;

}  // namespace

// ---------------------------------------------------------------------------------------
// MediaSource

struct MediaSource::Impl {
    std::string m_strInput;
    bool m_blNetwork = false;
    MediaSourceOptions m_Options;
    AVFormatContext* m_pFormat = nullptr;
    AVBSFContext* m_pBsf = nullptr;
    AVPacket* m_pPacket = nullptr;
    int m_StreamIndex = -1;
    AVRational m_TimeBase{1, AV_TIME_BASE};
    int m_Codec = VIDEO_CODEC_UNKNOWN;
    int m_Width = 0;
    int m_Height = 0;
    std::vector<unsigned char> m_ExtraData;
    int64_t m_DurationUs = -1;
    int64_t m_FrameIntervalUs = 0;
    double m_ConnectSec = 0.0;
    double m_ProbeSec = 0.0;
    int64_t m_LastPtsUs = AV_NOPTS_VALUE;
    bool m_blDemuxEnd = false;   // the demuxer has nothing more
    bool m_blFlushed = false;    // and the bitstream filter has been drained
    std::atomic<bool> m_blDeferAnnexB{false};
    int m_NalLengthSize = 0;     // of a length-prefixed stream that the filter converts
    // A deferred H.264 packet held a non-IDR slice since the filter last saw a packet.
    bool m_blSkippedSlice = false;
    std::deque<SourcePacket> m_Ready;
    std::string m_strError;

    std::atomic<bool> m_blAbort{false};
    std::atomic<int64_t> m_DeadlineUs{0};   // 0: none

    static int InterruptCallback(void* opaque) {
        auto* self = static_cast<Impl*>(opaque);
        if (self->m_blAbort.load()) {
            return 1;
        }
        const int64_t deadline = self->m_DeadlineUs.load();
        return deadline != 0 && SteadyUs() > deadline ? 1 : 0;
    }

    void ArmDeadline(int64_t timeoutUs) {
        m_DeadlineUs.store(m_blNetwork && timeoutUs > 0 ? SteadyUs() + timeoutUs : 0);
    }

    bool TimedOut() const {
        const int64_t deadline = m_DeadlineUs.load();
        return deadline != 0 && SteadyUs() > deadline;
    }

    void Close() {
        if (m_pBsf != nullptr) {
            av_bsf_free(&m_pBsf);
        }
        if (m_pFormat != nullptr) {
            avformat_close_input(&m_pFormat);
        }
        if (m_pPacket != nullptr) {
            av_packet_free(&m_pPacket);
        }
        m_StreamIndex = -1;
        m_Codec = VIDEO_CODEC_UNKNOWN;
        m_Width = 0;
        m_Height = 0;
        m_ExtraData.clear();
        m_DurationUs = -1;
        m_FrameIntervalUs = 0;
        m_LastPtsUs = AV_NOPTS_VALUE;
        m_blDemuxEnd = false;
        m_blFlushed = false;
        m_NalLengthSize = 0;
        m_blSkippedSlice = false;
        m_Ready.clear();
        m_DeadlineUs.store(0);
    }

    // Turns a packet of the video stream (after the bitstream filter, or deferred with its
    // NAL length size) into a SourcePacket.
    void Collect(const AVPacket* pkt, int nalLengthSize = 0) {
        SourcePacket out;
        out.nalLengthSize = nalLengthSize;
        auto data = std::make_shared<std::vector<unsigned char>>(pkt->data, pkt->data + pkt->size);
        out.keyFrame = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
        out.corrupt = (pkt->flags & AV_PKT_FLAG_CORRUPT) != 0;
        // A camera sends the parameter sets with every key frame, and the detector decodes
        // key frames alone: make sure each one is complete even when the container kept
        // the parameter sets only in its header.
        if (out.keyFrame && (m_Codec == VIDEO_CODEC_H264 || m_Codec == VIDEO_CODEC_HEVC) &&
            !m_ExtraData.empty() && !HasSequenceParameterSet(m_Codec, *data)) {
            data->insert(data->begin(), m_ExtraData.begin(), m_ExtraData.end());
        }
        out.data = std::move(data);
        int64_t ts = pkt->pts != AV_NOPTS_VALUE ? pkt->pts : pkt->dts;
        if (ts != AV_NOPTS_VALUE) {
            out.ptsUs = av_rescale_q(ts, m_TimeBase, AV_TIME_BASE_Q);
        } else if (m_LastPtsUs != AV_NOPTS_VALUE) {
            out.ptsUs = m_LastPtsUs + m_FrameIntervalUs;
        } else {
            out.ptsUs = 0;
        }
        m_LastPtsUs = out.ptsUs;
        out.durationUs = pkt->duration > 0 ? av_rescale_q(pkt->duration, m_TimeBase, AV_TIME_BASE_Q)
                                           : m_FrameIntervalUs;
        m_Ready.push_back(std::move(out));
    }

    // Drains the bitstream filter into m_Ready. Returns 0 or a negative AVERROR.
    int DrainFilter() {
        for (;;) {
            const int ret = av_bsf_receive_packet(m_pBsf, m_pPacket);
            if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
                return 0;
            }
            if (ret < 0) {
                return ret;
            }
            Collect(m_pPacket);
            av_packet_unref(m_pPacket);
        }
    }

    // One step of demuxing: reads one packet (or drains the filter at the end) and
    // converts it. 1 when the source goes on (maybe nothing new is ready yet), 0 at its end,
    // -1 on error.
    int Step() {
        if (m_blDemuxEnd) {
            if (m_pBsf != nullptr && !m_blFlushed) {
                m_blFlushed = true;
                if (av_bsf_send_packet(m_pBsf, nullptr) == 0) {
                    const int ret = DrainFilter();
                    if (ret < 0) {
                        m_strError =
                            "cannot convert a packet of '" + m_strInput + "': " + AvError(ret);
                        return -1;
                    }
                }
                return 1;
            }
            return 0;
        }
        ArmDeadline(m_Options.readTimeoutUs);
        int ret = av_read_frame(m_pFormat, m_pPacket);
        const bool timedOut = TimedOut();
        m_DeadlineUs.store(0);
        if (ret == AVERROR(EAGAIN)) {
            return 1;
        }
        if (ret < 0) {
            // A truncated file ends with a demuxer error at its end: that is an end.
            const bool atEnd =
                ret == AVERROR_EOF ||
                (!m_blNetwork && m_pFormat->pb != nullptr && avio_feof(m_pFormat->pb));
            if (atEnd && !m_blAbort.load()) {
                m_blDemuxEnd = true;
                return 1;
            }
            if (m_blAbort.load()) {
                m_strError = "reading '" + m_strInput + "' was interrupted";
            } else if (timedOut) {
                m_strError = "no data from '" + m_strInput + "' for " +
                             std::to_string(m_Options.readTimeoutUs / 1000) + " ms";
            } else {
                m_strError = "cannot read '" + m_strInput + "': " + AvError(ret);
            }
            return -1;
        }
        if (m_pPacket->stream_index != m_StreamIndex) {
            av_packet_unref(m_pPacket);
            return 1;
        }
        if (m_pBsf == nullptr) {
            Collect(m_pPacket);
            av_packet_unref(m_pPacket);
            return 1;
        }
        if (Defer(m_pPacket)) {
            Collect(m_pPacket, m_NalLengthSize);
            av_packet_unref(m_pPacket);
            return 1;
        }
        CatchUpFilter();
        ret = av_bsf_send_packet(m_pBsf, m_pPacket);
        av_packet_unref(m_pPacket);
        // A packet that the filter refuses or gives up on is skipped, as a camera's receiver
        // skips a packet it cannot parse; the next one starts afresh.
        if (ret >= 0) {
            DrainFilter();
        }
        return 1;
    }

    // Whether a packet skips the filter: a non-key frame of a length-prefixed stream that
    // the local converter turns into the very bytes the filter would give. Reads only the
    // length prefixes and the NAL headers.
    bool Defer(const AVPacket* pkt) {
        if (!m_blDeferAnnexB.load(std::memory_order_relaxed) || m_NalLengthSize == 0 ||
            (pkt->flags & AV_PKT_FLAG_KEY) != 0) {
            return false;
        }
        bool hasSlice = false;
        if (InspectLengthPrefixed(m_Codec, pkt->data, static_cast<size_t>(pkt->size),
                                  m_NalLengthSize, &hasSlice) != NalLayout::Plain) {
            return false;
        }
        m_blSkippedSlice = m_blSkippedSlice || hasSlice;
        return true;
    }

    // The H.264 filter keeps three flags between packets (a new IDR picture may follow;
    // SPS, PPS seen since) that decide where it inserts the parameter sets of the next key
    // frame. A packet that Defer lets pass holds no SPS, PPS or IDR slice, so all it could
    // have done is what a non-IDR slice does: re-arm the flags if they were disarmed, the
    // same after one slice as after many. One two-byte slice does that now, so the filter
    // treats the next packet exactly as if every deferred one had gone through it. The HEVC
    // filter keeps nothing between packets.
    void CatchUpFilter() {
        if (!m_blSkippedSlice) {
            return;
        }
        m_blSkippedSlice = false;
        AVPacket* slice = av_packet_alloc();
        if (slice == nullptr || av_new_packet(slice, m_NalLengthSize + 2) < 0) {
            av_packet_free(&slice);
            return;
        }
        std::fill(slice->data, slice->data + m_NalLengthSize, 0);
        slice->data[m_NalLengthSize - 1] = 2;
        slice->data[m_NalLengthSize] = 0x01;       // nal_ref_idc 0, type 1: non-IDR slice
        slice->data[m_NalLengthSize + 1] = 0x80;   // first_mb_in_slice 0
        if (av_bsf_send_packet(m_pBsf, slice) == 0) {
            while (av_bsf_receive_packet(m_pBsf, slice) == 0) {
                av_packet_unref(slice);
            }
        }
        av_packet_free(&slice);
    }

    // Reads until at least one packet is ready or the source ends. 1 ready, 0 end, -1 error.
    int Fill() {
        while (m_Ready.empty()) {
            const int ret = Step();
            if (ret <= 0) {
                return ret;
            }
        }
        return 1;
    }

    // The container has no parameter sets (MPEG-TS, raw streams): take them from the first
    // key frame, keeping the packets read on the way for ReadPacket. False on a read error.
    bool FindParameterSets() {
        size_t checked = 0;
        while (m_ExtraData.empty() && m_Ready.size() < kMaxLookAheadPackets) {
            for (; checked < m_Ready.size(); ++checked) {
                if (m_Ready[checked].keyFrame) {
                    m_ExtraData = ParameterSetsOf(m_Codec, *m_Ready[checked].data);
                    return true;
                }
            }
            const int ret = Step();
            if (ret < 0) {
                return false;
            }
            if (ret == 0) {
                break;
            }
        }
        return true;
    }
};

MediaSource::MediaSource() : m_pImpl(new Impl) {}

MediaSource::~MediaSource() { m_pImpl->Close(); }

bool MediaSource::Open(const std::string& input, std::string& error,
                       const MediaSourceOptions& options) {
    static std::once_flag networkInit;
    std::call_once(networkInit, [] { avformat_network_init(); });

    Impl& impl = *m_pImpl;
    impl.Close();
    impl.m_strInput = input;
    impl.m_blNetwork = IsUrl(input);
    impl.m_Options = options;
    impl.m_blAbort.store(false);
    impl.m_strError.clear();
    auto fail = [&](const std::string& message) {
        impl.Close();
        impl.m_strError = message;
        error = message;
        return false;
    };
    if (input.empty()) {
        return fail("cannot open '': no input given");
    }

    impl.m_pFormat = avformat_alloc_context();
    impl.m_pPacket = av_packet_alloc();
    if (impl.m_pFormat == nullptr || impl.m_pPacket == nullptr) {
        return fail("cannot open '" + input + "': out of memory");
    }
    impl.m_pFormat->interrupt_callback.callback = &Impl::InterruptCallback;
    impl.m_pFormat->interrupt_callback.opaque = &impl;

    AVDictionary* dict = nullptr;
    if (impl.m_blNetwork) {
        const std::string readTimeout = std::to_string(options.readTimeoutUs);
        if (input.compare(0, 7, "rtsp://") == 0 || input.compare(0, 8, "rtsps://") == 0) {
            // The RTSP demuxer's own socket time-out, in microseconds.
            av_dict_set(&dict, "timeout", readTimeout.c_str(), 0);
            if (options.rtspOverTcp) {
                av_dict_set(&dict, "rtsp_transport", "tcp", 0);
            }
        } else {
            av_dict_set(&dict, "rw_timeout", readTimeout.c_str(), 0);
        }
    }
    impl.ArmDeadline(options.openTimeoutUs);
    const int64_t openStartUs = SteadyUs();
    int ret = avformat_open_input(&impl.m_pFormat, input.c_str(), nullptr, &dict);
    av_dict_free(&dict);
    const int64_t probeStartUs = SteadyUs();
    impl.m_ConnectSec = static_cast<double>(probeStartUs - openStartUs) / 1e6;
    if (ret < 0) {
        // avformat_open_input frees the context on failure.
        impl.m_pFormat = nullptr;
        const bool timedOut = impl.TimedOut();
        return fail("cannot open '" + input + "': " +
                    (timedOut ? std::string("timed out") : AvError(ret)));
    }
    ret = HeaderDescribesVideo(impl.m_pFormat) ? 0 : avformat_find_stream_info(impl.m_pFormat, nullptr);
    impl.m_ProbeSec = static_cast<double>(SteadyUs() - probeStartUs) / 1e6;
    if (ret < 0) {
        return fail("cannot read the streams of '" + input + "': " +
                    (impl.TimedOut() ? std::string("timed out") : AvError(ret)));
    }
    impl.m_DeadlineUs.store(0);

    const int index = av_find_best_stream(impl.m_pFormat, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (index < 0 ||
        (impl.m_pFormat->streams[index]->disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
        return fail("no video stream in '" + input + "'");
    }
    AVStream* stream = impl.m_pFormat->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    impl.m_Codec = HostCodecOf(par->codec_id);
    if (impl.m_Codec == VIDEO_CODEC_UNKNOWN) {
        return fail("unsupported codec '" + std::string(avcodec_get_name(par->codec_id)) +
                    "' in '" + input + "'");
    }
    for (unsigned i = 0; i < impl.m_pFormat->nb_streams; ++i) {
        if (static_cast<int>(i) != index) {
            impl.m_pFormat->streams[i]->discard = AVDISCARD_ALL;
        }
    }
    impl.m_StreamIndex = index;
    impl.m_TimeBase = stream->time_base;
    impl.m_Width = par->width;
    impl.m_Height = par->height;
    if (impl.m_pFormat->duration != AV_NOPTS_VALUE && impl.m_pFormat->duration > 0) {
        impl.m_DurationUs = impl.m_pFormat->duration;
    } else if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0) {
        impl.m_DurationUs = av_rescale_q(stream->duration, stream->time_base, AV_TIME_BASE_Q);
    }
    AVRational rate = stream->avg_frame_rate;
    if (rate.num <= 0 || rate.den <= 0) {
        rate = stream->r_frame_rate;
    }
    if (rate.num > 0 && rate.den > 0) {
        impl.m_FrameIntervalUs = av_rescale(1000000, rate.den, rate.num);
    }

    if (impl.m_Codec == VIDEO_CODEC_H264 || impl.m_Codec == VIDEO_CODEC_HEVC) {
        const char* name =
            impl.m_Codec == VIDEO_CODEC_H264 ? "h264_mp4toannexb" : "hevc_mp4toannexb";
        const AVBitStreamFilter* filter = av_bsf_get_by_name(name);
        if (filter == nullptr) {
            return fail("cannot convert '" + input + "' to Annex B: no " + name + " filter");
        }
        ret = av_bsf_alloc(filter, &impl.m_pBsf);
        if (ret >= 0) {
            ret = avcodec_parameters_copy(impl.m_pBsf->par_in, par);
        }
        if (ret >= 0) {
            impl.m_pBsf->time_base_in = stream->time_base;
            ret = av_bsf_init(impl.m_pBsf);
        }
        if (ret < 0) {
            return fail("cannot convert '" + input + "' to Annex B: " + AvError(ret));
        }
        const AVCodecParameters* out = impl.m_pBsf->par_out;
        if (out->extradata != nullptr && out->extradata_size > 0) {
            impl.m_ExtraData.assign(out->extradata, out->extradata + out->extradata_size);
        }
        if (!IsAnnexB(impl.m_ExtraData)) {
            impl.m_ExtraData.clear();
        } else {
            // Only where the filter turned avcC/hvcC into Annex B does it convert packets.
            const size_t extraSize =
                par->extradata != nullptr ? static_cast<size_t>(par->extradata_size) : 0;
            impl.m_NalLengthSize = NalLengthSizeOf(impl.m_Codec, par->extradata, extraSize);
        }
        if (impl.m_ExtraData.empty() && !impl.FindParameterSets()) {
            return fail(impl.m_strError);
        }
    } else if (par->extradata != nullptr && par->extradata_size > 0) {
        impl.m_ExtraData.assign(par->extradata, par->extradata + par->extradata_size);
    }
    return true;
}

void MediaSource::Close() { m_pImpl->Close(); }

bool MediaSource::IsOpen() const { return m_pImpl->m_pFormat != nullptr; }

const std::string& MediaSource::GetInput() const { return m_pImpl->m_strInput; }

bool MediaSource::IsNetwork() const { return m_pImpl->m_blNetwork; }

int MediaSource::GetCodec() const { return m_pImpl->m_Codec; }

const char* MediaSource::GetCodecName() const { return HostCodecName(m_pImpl->m_Codec); }

int MediaSource::GetWidth() const { return m_pImpl->m_Width; }

int MediaSource::GetHeight() const { return m_pImpl->m_Height; }

const std::vector<unsigned char>& MediaSource::GetExtraData() const { return m_pImpl->m_ExtraData; }

int64_t MediaSource::GetDurationUs() const { return m_pImpl->m_DurationUs; }

int64_t MediaSource::GetFrameIntervalUs() const { return m_pImpl->m_FrameIntervalUs; }

double MediaSource::GetConnectSeconds() const { return m_pImpl->m_ConnectSec; }

double MediaSource::GetProbeSeconds() const { return m_pImpl->m_ProbeSec; }

int MediaSource::ReadPacket(SourcePacket& packet) {
    Impl& impl = *m_pImpl;
    if (impl.m_pFormat == nullptr) {
        impl.m_strError = impl.m_strInput.empty() ? "no input is open"
                                                  : "'" + impl.m_strInput + "' is not open";
        return -1;
    }
    const int ret = impl.Fill();
    if (ret <= 0) {
        return ret;
    }
    packet = std::move(impl.m_Ready.front());
    impl.m_Ready.pop_front();
    // Deferral was turned off after this packet was read ahead: its reader expects Annex B.
    if (packet.nalLengthSize != 0 && !impl.m_blDeferAnnexB.load()) {
        auto converted = std::make_shared<std::vector<unsigned char>>();
        LengthPrefixedToAnnexB(impl.m_Codec, packet.data->data(), packet.data->size(),
                               packet.nalLengthSize, *converted);
        packet.data = std::move(converted);
        packet.nalLengthSize = 0;
    }
    return 1;
}

const std::string& MediaSource::GetLastError() const { return m_pImpl->m_strError; }

void MediaSource::SetDeferAnnexB(bool defer) { m_pImpl->m_blDeferAnnexB.store(defer); }

bool MediaSource::GetDeferAnnexB() const { return m_pImpl->m_blDeferAnnexB.load(); }

int MediaSource::GetNalLengthSize() const { return m_pImpl->m_NalLengthSize; }

bool MediaSource::Rewind(std::string& error) {
    Impl& impl = *m_pImpl;
    if (impl.m_pFormat == nullptr) {
        error = "cannot rewind: no input is open";
        return false;
    }
    AVStream* stream = impl.m_pFormat->streams[impl.m_StreamIndex];
    const int64_t start = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
    int ret = av_seek_frame(impl.m_pFormat, impl.m_StreamIndex, start, AVSEEK_FLAG_BACKWARD);
    if (ret < 0) {
        // Some demuxers only seek by bytes.
        ret = av_seek_frame(impl.m_pFormat, -1, 0, AVSEEK_FLAG_BYTE | AVSEEK_FLAG_BACKWARD);
    }
    if (ret < 0) {
        error = "cannot rewind '" + impl.m_strInput + "': " + AvError(ret);
        impl.m_strError = error;
        return false;
    }
    if (impl.m_pBsf != nullptr) {
        av_bsf_flush(impl.m_pBsf);
    }
    impl.m_blSkippedSlice = false;   // the flush re-armed the filter
    impl.m_Ready.clear();
    impl.m_blDemuxEnd = false;
    impl.m_blFlushed = false;
    impl.m_LastPtsUs = AV_NOPTS_VALUE;
    return true;
}

void MediaSource::Interrupt() { m_pImpl->m_blAbort.store(true); }

PacketSink::~PacketSink() = default;

// ---------------------------------------------------------------------------------------
// FifoPump

namespace {

class FifoSink : public PacketSink {
public:
    explicit FifoSink(StreamFifo& fifo) : m_Fifo(fifo) {}
    void SetFormat(int codec, int width, int height,
                   const std::vector<unsigned char>& extra) override {
        SetFifoFormat(m_Fifo, codec, width, height, extra);
    }
    void Push(const SourcePacket& packet) override {
        PushFifoBlock(m_Fifo, packet.data, packet.keyFrame, packet.ptsUs, packet.nalLengthSize);
    }

private:
    StreamFifo& m_Fifo;
};

// A looping file starts its next round one frame after the last one, at this interval
// when the stream does not give its frame rate.
constexpr int64_t kDefaultFrameIntervalUs = 40000;

// A paced file feeding the in-process FIFO reads this far ahead of the clock and hands the
// packets over at once, each to become visible at its time; it sleeps until only
// kLowWaterUs of them are left. One wake-up per 0.8 s of stream instead of one per frame.
constexpr int64_t kLookAheadUs = 1000000;
constexpr int64_t kLowWaterUs = 200000;

// GetCountsBy sums up a packet only this long after its time, so that a question about a
// moment a little in the past still has every packet after it to leave out.
constexpr int64_t kCountsExactForUs = 30000000;

}  // namespace

struct FifoPump::Impl {
    MediaSource& m_Source;
    StreamFifo* m_pFifo = nullptr;
    std::unique_ptr<PacketSink> m_pOwnedSink;
    PacketSink* m_pSink = nullptr;

    enum class Mode { Idle, Virtual, RealTime } m_Mode = Mode::Idle;
    RealTimeOptions m_RealTime;

    int64_t m_EpochUs = 0;
    bool m_blHaveFirst = false;
    int64_t m_FirstPtsUs = 0;
    int64_t m_LoopOffsetUs = 0;     // added to every relative time after a loop restart
    int64_t m_RoundLastRelUs = 0;   // latest relative time in the current round
    int64_t m_LastDueUs = -1;
    std::optional<SourcePacket> m_Pending;
    int64_t m_PendingDueUs = 0;
    bool m_blAhead = false;   // real time: packets are queued into the FIFO ahead of their time
    bool m_blDeferring = false;   // this pump turned on the source's deferred conversion

    std::atomic<bool> m_blEnded{false};
    std::atomic<bool> m_blStop{false};
    std::atomic<int64_t> m_EndTimeUs{-1};
    std::atomic<uint64_t> m_Packets{0};
    std::atomic<uint64_t> m_KeyFrames{0};
    std::atomic<uint64_t> m_Corrupt{0};
    std::atomic<uint64_t> m_Errors{0};
    std::atomic<uint64_t> m_Loops{0};
    bool m_blRoundStart = false;   // the next packet handed over starts a looping file's round

    // GetCountsBy: packets well in the past are summed up; the recent ones and those handed
    // over ahead of the clock wait in m_Ahead, oldest first, each with its time.
    struct Handed {
        int64_t dueUs;
        bool keyFrame;
        bool roundStart;
    };
    mutable std::mutex m_CountMutex;
    FifoPump::Counts m_Counted;
    std::deque<Handed> m_Ahead;
    std::atomic<int64_t> m_CountLimitUs{INT64_MAX};

    mutable std::mutex m_ErrorMutex;
    std::string m_strLastError;

    std::mutex m_ListenerMutex;
    std::function<void(int64_t)> m_EndListener;

    std::thread m_Thread;
    std::mutex m_WaitMutex;
    std::condition_variable m_WaitCond;

    explicit Impl(MediaSource& source) : m_Source(source) {}

    // The detector reads key frames; converting the other frames when they are pushed
    // would be work for blocks that mostly fall out of the ring unread. The FIFO converts
    // the few that a reader takes.
    void DeferIntoFifo() {
        if (m_pFifo != nullptr && !m_Source.GetDeferAnnexB()) {
            m_Source.SetDeferAnnexB(true);
            m_blDeferring = true;
        }
    }

    // Host-clock time at which a packet is due.
    int64_t DueOf(const SourcePacket& packet) {
        if (!m_blHaveFirst) {
            m_blHaveFirst = true;
            m_FirstPtsUs = packet.ptsUs;
        }
        const int64_t rel = packet.ptsUs - m_FirstPtsUs;
        m_RoundLastRelUs = std::max(m_RoundLastRelUs, rel);
        return m_EpochUs + m_LoopOffsetUs + rel;
    }

    void Deliver(const SourcePacket& packet, int64_t dueUs) {
        // The blocks carry host-clock time: the FIFO's timestamps and the reader's clock
        // run on the same time line, virtual or real.
        if (m_blAhead) {
            QueueFifoBlock(*m_pFifo, packet.data, packet.keyFrame, dueUs, packet.nalLengthSize);
        } else {
            SourcePacket out = packet;
            out.ptsUs = dueUs;
            m_pSink->Push(out);
        }
        m_LastDueUs = std::max(m_LastDueUs, dueUs);
        ++m_Packets;
        if (packet.keyFrame) {
            ++m_KeyFrames;
        }
        if (packet.corrupt) {
            ++m_Corrupt;
        }
        Count(dueUs, packet.keyFrame);
    }

    static void Add(FifoPump::Counts& counts, const Handed& h) {
        ++counts.packets;
        if (h.keyFrame) ++counts.keyFrames;
        if (h.roundStart) ++counts.loops;
    }

    void Count(int64_t dueUs, bool keyFrame) {
        const bool roundStart = m_blRoundStart;
        m_blRoundStart = false;
        if (dueUs > m_CountLimitUs.load()) return;
        const int64_t foldUs = GetClock().NowUs() - kCountsExactForUs;
        std::lock_guard<std::mutex> lock(m_CountMutex);
        m_Ahead.push_back({dueUs, keyFrame, roundStart});
        // Only the front is looked at: a frame that B-frames reorder behind a later one waits
        // a little longer here, and CountsBy looks at every waiting packet anyway.
        while (!m_Ahead.empty() && m_Ahead.front().dueUs <= foldUs) {
            Add(m_Counted, m_Ahead.front());
            m_Ahead.pop_front();
        }
    }

    FifoPump::Counts CountsBy(int64_t timeUs) const {
        std::lock_guard<std::mutex> lock(m_CountMutex);
        FifoPump::Counts counts = m_Counted;
        for (const Handed& h : m_Ahead) {
            if (h.dueUs <= timeUs) Add(counts, h);
        }
        return counts;
    }

    void SetError(const std::string& message) {
        ++m_Errors;
        std::lock_guard<std::mutex> lock(m_ErrorMutex);
        m_strLastError = message;
    }

    void Finish() {
        const int64_t endUs = m_LastDueUs >= 0 ? m_LastDueUs : m_EpochUs;
        m_EndTimeUs.store(endUs);
        m_blEnded.store(true);
        std::function<void(int64_t)> listener;
        {
            std::lock_guard<std::mutex> lock(m_ListenerMutex);
            listener = m_EndListener;
        }
        if (listener) listener(endUs);
    }

    // Virtual time: push everything that is due now, on the reader's thread.
    void Pull() {
        if (m_blEnded.load()) {
            return;
        }
        const int64_t now = GetClock().NowUs();
        for (;;) {
            if (!m_Pending) {
                SourcePacket packet;
                const int ret = m_Source.ReadPacket(packet);
                if (ret == 0) {
                    Finish();
                    return;
                }
                if (ret < 0) {
                    SetError(m_Source.GetLastError());
                    Finish();
                    return;
                }
                m_PendingDueUs = DueOf(packet);
                m_Pending = std::move(packet);
            }
            if (m_PendingDueUs > now) {
                return;
            }
            Deliver(*m_Pending, m_PendingDueUs);
            m_Pending.reset();
        }
    }

    // Waits until the host clock reaches dueUs; false when stopped first.
    bool WaitUntil(int64_t dueUs) {
        Clock& clock = GetClock();
        if (clock.IsManual()) {
            clock.SleepUntilUs(dueUs);
            return !m_blStop.load();
        }
        // The condition variable measures the monotonic clock itself; any other clock is
        // looked at again at least every 100 ms to stay honest.
        const bool monotonic = dynamic_cast<MonotonicClock*>(&clock) != nullptr;
        std::unique_lock<std::mutex> lock(m_WaitMutex);
        for (;;) {
            if (m_blStop.load()) {
                return false;
            }
            const int64_t now = clock.NowUs();
            if (now >= dueUs) {
                return true;
            }
            const int64_t waitUs = monotonic ? dueUs - now : std::min<int64_t>(dueUs - now, 100000);
            m_WaitCond.wait_for(lock, std::chrono::microseconds(waitUs));
        }
    }

    // Ahead of the clock, the end of the source is told only once its last packet is due:
    // until then the FIFO still has packets to show. False when stopped first.
    bool WaitForLastPacket() { return !m_blAhead || m_LastDueUs < 0 || WaitUntil(m_LastDueUs); }

    void RunRealTime() {
        const bool pace = m_RealTime.pace && !m_Source.IsNetwork();
        const bool loop = m_RealTime.loop && !m_Source.IsNetwork();
        // Under a manual clock every packet is handed over at its time, so a test sees
        // exactly when it was pushed.
        m_blAhead = pace && m_pFifo != nullptr && !GetClock().IsManual();
        uint64_t roundPackets = 0;
        while (!m_blStop.load()) {
            SourcePacket packet;
            const int ret = m_Source.ReadPacket(packet);
            if (ret == 0) {
                // An empty round would loop for ever without pushing anything.
                if (!loop || roundPackets == 0) {
                    if (WaitForLastPacket()) Finish();
                    return;
                }
                std::string error;
                if (!m_Source.Rewind(error)) {
                    SetError(error);
                    if (WaitForLastPacket()) Finish();
                    return;
                }
                const int64_t interval = m_Source.GetFrameIntervalUs() > 0
                                             ? m_Source.GetFrameIntervalUs()
                                             : kDefaultFrameIntervalUs;
                m_LoopOffsetUs += m_RoundLastRelUs + interval;
                m_RoundLastRelUs = 0;
                m_blHaveFirst = false;
                roundPackets = 0;
                ++m_Loops;
                m_blRoundStart = true;
                continue;
            }
            if (ret < 0) {
                if (m_blStop.load()) {
                    return;   // interrupted by Stop: not a failure of the source
                }
                SetError(m_Source.GetLastError());
                if (WaitForLastPacket()) Finish();
                return;
            }
            ++roundPackets;
            const int64_t due = DueOf(packet);
            if (m_blAhead) {
                // Enough is queued: sleep until it runs low.
                if (m_LastDueUs >= 0 && due > GetClock().NowUs() + kLookAheadUs &&
                    !WaitUntil(m_LastDueUs - kLowWaterUs)) {
                    return;
                }
            } else if (pace && !WaitUntil(due)) {
                return;   // stopped before the packet was due
            }
            Deliver(packet, due);
        }
    }
};

FifoPump::FifoPump(MediaSource& source, StreamFifo& fifo) : m_pImpl(new Impl(source)) {
    m_pImpl->m_pFifo = &fifo;
    m_pImpl->m_pOwnedSink = std::make_unique<FifoSink>(fifo);
    m_pImpl->m_pSink = m_pImpl->m_pOwnedSink.get();
}

FifoPump::FifoPump(MediaSource& source, PacketSink& sink) : m_pImpl(new Impl(source)) {
    m_pImpl->m_pSink = &sink;
}

FifoPump::~FifoPump() { Stop(); }

bool FifoPump::StartVirtual(std::string& error) {
    Impl& impl = *m_pImpl;
    if (impl.m_pFifo == nullptr) {
        error = "a virtual-time pump needs a stream FIFO";
        return false;
    }
    if (impl.m_Mode != Impl::Mode::Idle) {
        error = "the pump of '" + impl.m_Source.GetInput() + "' is started already";
        return false;
    }
    if (!impl.m_Source.IsOpen()) {
        error = "cannot pump '" + impl.m_Source.GetInput() + "': it is not open";
        return false;
    }
    impl.m_Mode = Impl::Mode::Virtual;
    impl.m_EpochUs = GetClock().NowUs();
    impl.m_pSink->SetFormat(impl.m_Source.GetCodec(), impl.m_Source.GetWidth(),
                            impl.m_Source.GetHeight(), impl.m_Source.GetExtraData());
    impl.DeferIntoFifo();
    Impl* p = &impl;
    SetFifoPuller(*impl.m_pFifo, [p] { p->Pull(); });
    return true;
}

bool FifoPump::StartRealTime(const RealTimeOptions& options, std::string& error) {
    Impl& impl = *m_pImpl;
    if (impl.m_Mode != Impl::Mode::Idle) {
        error = "the pump of '" + impl.m_Source.GetInput() + "' is started already";
        return false;
    }
    if (!impl.m_Source.IsOpen()) {
        error = "cannot pump '" + impl.m_Source.GetInput() + "': it is not open";
        return false;
    }
    impl.m_Mode = Impl::Mode::RealTime;
    impl.m_RealTime = options;
    impl.m_EpochUs = GetClock().NowUs();
    impl.m_pSink->SetFormat(impl.m_Source.GetCodec(), impl.m_Source.GetWidth(),
                            impl.m_Source.GetHeight(), impl.m_Source.GetExtraData());
    impl.DeferIntoFifo();
    try {
        impl.m_Thread = std::thread([&impl] { impl.RunRealTime(); });
    } catch (const std::system_error& e) {
        impl.m_Mode = Impl::Mode::Idle;
        error = "cannot start the pump of '" + impl.m_Source.GetInput() + "': " + e.what();
        return false;
    }
    return true;
}

void FifoPump::Stop() {
    Impl& impl = *m_pImpl;
    if (impl.m_Mode == Impl::Mode::Virtual && impl.m_pFifo != nullptr) {
        SetFifoPuller(*impl.m_pFifo, nullptr);
    }
    if (impl.m_Thread.joinable()) {
        {
            std::lock_guard<std::mutex> lock(impl.m_WaitMutex);
            impl.m_blStop.store(true);
        }
        impl.m_WaitCond.notify_all();
        if (impl.m_Source.IsNetwork()) {
            impl.m_Source.Interrupt();
        }
        impl.m_Thread.join();
    }
    impl.m_blStop.store(true);
    // Whoever reads the source next gets Annex B again, as before the pump.
    if (impl.m_blDeferring) {
        impl.m_Source.SetDeferAnnexB(false);
        impl.m_blDeferring = false;
    }
}

bool FifoPump::Ended() const { return m_pImpl->m_blEnded.load(); }

int64_t FifoPump::GetEpochUs() const { return m_pImpl->m_EpochUs; }

int64_t FifoPump::GetEndTimeUs() const { return m_pImpl->m_EndTimeUs.load(); }

int64_t FifoPump::GetExpectedEndTimeUs() const {
    const int64_t duration = m_pImpl->m_Source.GetDurationUs();
    return duration >= 0 && m_pImpl->m_Mode != Impl::Mode::Idle ? m_pImpl->m_EpochUs + duration
                                                                 : -1;
}

uint64_t FifoPump::GetPacketCount() const { return m_pImpl->m_Packets.load(); }

uint64_t FifoPump::GetKeyFrameCount() const { return m_pImpl->m_KeyFrames.load(); }

uint64_t FifoPump::GetCorruptCount() const { return m_pImpl->m_Corrupt.load(); }

uint64_t FifoPump::GetErrorCount() const { return m_pImpl->m_Errors.load(); }

uint64_t FifoPump::GetLoopCount() const { return m_pImpl->m_Loops.load(); }

FifoPump::Counts FifoPump::GetCountsBy(int64_t timeUs) const { return m_pImpl->CountsBy(timeUs); }

void FifoPump::SetCountLimitUs(int64_t timeUs) { m_pImpl->m_CountLimitUs.store(timeUs); }

void FifoPump::SetEndListener(std::function<void(int64_t endUs)> listener) {
    std::lock_guard<std::mutex> lock(m_pImpl->m_ListenerMutex);
    m_pImpl->m_EndListener = std::move(listener);
}

std::string FifoPump::GetLastError() const {
    std::lock_guard<std::mutex> lock(m_pImpl->m_ErrorMutex);
    return m_pImpl->m_strLastError;
}

}  // namespace tw::host
