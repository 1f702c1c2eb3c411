#include "audioconvert.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include "twhost/audiosink.h"
#include "twhost/wavfile.h"

namespace tw::host {
namespace {

std::string AvError(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    av_strerror(err, text, sizeof(text));
    return text;
}

struct InputDeleter {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct CodecDeleter {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct SwrDeleter {
    void operator()(SwrContext* p) const { swr_free(&p); }
};
struct FrameDeleter {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};

// The sample format the resampler delivers for a device format: G.711 is encoded from
// 16-bit samples, 24-bit PCM is cut from 32-bit ones.
AVSampleFormat ResampledFormat(AudioCodec codec, int bits) {
    if (codec != AudioCodec::Pcm) return AV_SAMPLE_FMT_S16;
    switch (bits) {
        case 8: return AV_SAMPLE_FMT_U8;
        case 16: return AV_SAMPLE_FMT_S16;
        default: return AV_SAMPLE_FMT_S32;
    }
}

// Resampled, interleaved samples to the device's bytes.
class DeviceEncoder {
public:
    bool Open(const CAM_CAP_AUDIO_OUT_FORMAT& format, std::string& error) {
        m_Codec = ParseAudioCodec(format.strCodec);
        m_Bits = format.bitsPerSample;
        m_Channels = format.channels;
        if (m_Codec == AudioCodec::Pcm) return true;
        const AVCodec* codec =
            avcodec_find_encoder(m_Codec == AudioCodec::MuLaw ? AV_CODEC_ID_PCM_MULAW : AV_CODEC_ID_PCM_ALAW);
        if (!codec) {
            error = "this FFmpeg has no G.711 encoder";
            return false;
        }
        m_pCtx.reset(avcodec_alloc_context3(codec));
        if (!m_pCtx) {
            error = "out of memory";
            return false;
        }
        m_pCtx->sample_fmt = AV_SAMPLE_FMT_S16;
        m_pCtx->sample_rate = format.sampleRate;
        av_channel_layout_default(&m_pCtx->ch_layout, format.channels);
        const int rc = avcodec_open2(m_pCtx.get(), codec, nullptr);
        if (rc < 0) {
            error = "cannot open the G.711 encoder: " + AvError(rc);
            return false;
        }
        m_pFrame.reset(av_frame_alloc());
        m_pPacket.reset(av_packet_alloc());
        return m_pFrame && m_pPacket;
    }

    bool Add(const uint8_t* data, int samples, std::vector<uint8_t>& out, std::string& error) {
        if (samples <= 0) return true;
        if (m_Codec == AudioCodec::Pcm) {
            if (m_Bits != 24) {
                out.insert(out.end(), data, data + static_cast<size_t>(samples) * m_Channels * (m_Bits / 8));
                return true;
            }
            // The upper three bytes of each little-endian 32-bit sample.
            for (size_t i = 0; i < static_cast<size_t>(samples) * m_Channels; ++i) {
                out.insert(out.end(), data + 4 * i + 1, data + 4 * i + 4);
            }
            return true;
        }
        m_pFrame->nb_samples = samples;
        m_pFrame->format = AV_SAMPLE_FMT_S16;
        m_pFrame->sample_rate = m_pCtx->sample_rate;
        av_channel_layout_copy(&m_pFrame->ch_layout, &m_pCtx->ch_layout);
        int rc = av_frame_get_buffer(m_pFrame.get(), 0);
        if (rc < 0) {
            error = "cannot allocate a frame: " + AvError(rc);
            return false;
        }
        std::memcpy(m_pFrame->data[0], data, static_cast<size_t>(samples) * m_Channels * 2);
        rc = avcodec_send_frame(m_pCtx.get(), m_pFrame.get());
        av_frame_unref(m_pFrame.get());
        if (rc < 0) {
            error = "G.711 encoding failed: " + AvError(rc);
            return false;
        }
        return Drain(out, error);
    }

private:
    bool Drain(std::vector<uint8_t>& out, std::string& error) {
        for (;;) {
            const int rc = avcodec_receive_packet(m_pCtx.get(), m_pPacket.get());
            if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return true;
            if (rc < 0) {
                error = "G.711 encoding failed: " + AvError(rc);
                return false;
            }
            out.insert(out.end(), m_pPacket->data, m_pPacket->data + m_pPacket->size);
            av_packet_unref(m_pPacket.get());
        }
    }

    AudioCodec m_Codec = AudioCodec::Unknown;
    int m_Bits = 0;
    int m_Channels = 0;
    std::unique_ptr<AVCodecContext, CodecDeleter> m_pCtx;
    std::unique_ptr<AVFrame, FrameDeleter> m_pFrame;
    std::unique_ptr<AVPacket, PacketDeleter> m_pPacket;
};

}  // namespace

bool CanConvertTo(const CAM_CAP_AUDIO_OUT_FORMAT& format, std::string& error) {
    const AudioCodec codec = ParseAudioCodec(format.strCodec);
    if (codec == AudioCodec::Unknown) {
        error = "codec '" + format.strCodec + "' is none twhost can produce (PCM, G711U or G711A)";
        return false;
    }
    if (codec == AudioCodec::Pcm && format.bitsPerSample != 8 && format.bitsPerSample != 16 &&
        format.bitsPerSample != 24 && format.bitsPerSample != 32) {
        error = "PCM of " + std::to_string(format.bitsPerSample) + " bits: 8, 16, 24 or 32 bits are supported";
        return false;
    }
    if (codec != AudioCodec::Pcm && format.bitsPerSample != 8) {
        error = "G.711 has 8 bits per sample, not " + std::to_string(format.bitsPerSample);
        return false;
    }
    if (format.sampleRate < 1000 || format.sampleRate > 384000) {
        error = "sample rate " + std::to_string(format.sampleRate) + " Hz is outside 1000 to 384000 Hz";
        return false;
    }
    if (format.channels < 1 || format.channels > 8) {
        error = std::to_string(format.channels) + " channels: 1 to 8 are supported";
        return false;
    }
    return true;
}

bool ConvertAudioFile(const std::string& path, const CAM_CAP_AUDIO_OUT_FORMAT& format,
                      std::vector<uint8_t>& bytes, std::string& error) {
    if (!CanConvertTo(format, error)) return false;
    const std::string name = "'" + path + "'";
    AVFormatContext* raw = nullptr;
    int rc = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
    if (rc < 0) {
        error = "cannot open " + name + ": " + AvError(rc);
        return false;
    }
    std::unique_ptr<AVFormatContext, InputDeleter> input(raw);
    rc = avformat_find_stream_info(input.get(), nullptr);
    if (rc < 0) {
        error = "cannot read " + name + ": " + AvError(rc);
        return false;
    }
    const AVCodec* decoder = nullptr;
    const int stream = av_find_best_stream(input.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &decoder, 0);
    if (stream < 0 || !decoder) {
        error = name + " has no audio that can be decoded";
        return false;
    }
    std::unique_ptr<AVCodecContext, CodecDeleter> dec(avcodec_alloc_context3(decoder));
    if (!dec || avcodec_parameters_to_context(dec.get(), input->streams[stream]->codecpar) < 0 ||
        (rc = avcodec_open2(dec.get(), decoder, nullptr)) < 0) {
        error = "cannot decode " + name + (rc < 0 ? ": " + AvError(rc) : std::string());
        return false;
    }
    if (dec->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
        const int n = dec->ch_layout.nb_channels;
        av_channel_layout_uninit(&dec->ch_layout);
        av_channel_layout_default(&dec->ch_layout, n);
    }

    const AudioCodec codec = ParseAudioCodec(format.strCodec);
    const AVSampleFormat outFormat = ResampledFormat(codec, format.bitsPerSample);
    AVChannelLayout outLayout{};
    av_channel_layout_default(&outLayout, format.channels);
    SwrContext* swrRaw = nullptr;
    rc = swr_alloc_set_opts2(&swrRaw, &outLayout, outFormat, format.sampleRate, &dec->ch_layout, dec->sample_fmt,
                             dec->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&outLayout);
    std::unique_ptr<SwrContext, SwrDeleter> swr(swrRaw);
    if (rc < 0 || (rc = swr_init(swr.get())) < 0) {
        error = "cannot set up the resampler for " + name + ": " + AvError(rc);
        return false;
    }
    DeviceEncoder encoder;
    if (!encoder.Open(format, error)) return false;

    const int sampleBytes = av_get_bytes_per_sample(outFormat) * format.channels;
    std::vector<uint8_t> converted;
    // Resamples one decoded frame (null: what the resampler still holds) and encodes it.
    const auto resample = [&](const AVFrame* frame) -> bool {
        const int inSamples = frame ? frame->nb_samples : 0;
        const int room = swr_get_out_samples(swr.get(), inSamples) + 16;
        converted.resize(static_cast<size_t>(room) * sampleBytes);
        uint8_t* outPlanes[1] = {converted.data()};
        const int got = swr_convert(swr.get(), outPlanes, room,
                                    frame ? const_cast<const uint8_t**>(frame->extended_data) : nullptr, inSamples);
        if (got < 0) {
            error = "resampling " + name + " failed: " + AvError(got);
            return false;
        }
        return encoder.Add(converted.data(), got, bytes, error);
    };

    std::unique_ptr<AVPacket, PacketDeleter> packet(av_packet_alloc());
    std::unique_ptr<AVFrame, FrameDeleter> frame(av_frame_alloc());
    if (!packet || !frame) {
        error = "out of memory";
        return false;
    }
    const auto receive = [&]() -> bool {
        for (;;) {
            const int got = avcodec_receive_frame(dec.get(), frame.get());
            if (got == AVERROR(EAGAIN) || got == AVERROR_EOF) return true;
            if (got < 0) {
                error = "decoding " + name + " failed: " + AvError(got);
                return false;
            }
            const bool ok = resample(frame.get());
            av_frame_unref(frame.get());
            if (!ok) return false;
        }
    };
    bytes.clear();
    for (;;) {
        rc = av_read_frame(input.get(), packet.get());
        if (rc == AVERROR_EOF) break;
        if (rc < 0) {
            error = "reading " + name + " failed: " + AvError(rc);
            return false;
        }
        if (packet->stream_index == stream) {
            rc = avcodec_send_packet(dec.get(), packet.get());
            av_packet_unref(packet.get());
            if (rc < 0 && rc != AVERROR(EAGAIN)) {
                error = "decoding " + name + " failed: " + AvError(rc);
                return false;
            }
            if (!receive()) return false;
        } else {
            av_packet_unref(packet.get());
        }
    }
    avcodec_send_packet(dec.get(), nullptr);
    if (!receive() || !resample(nullptr)) return false;
    if (bytes.empty()) {
        error = name + " holds no audio";
        return false;
    }
    return true;
}

bool WriteDeviceWav(const std::vector<uint8_t>& bytes, const CAM_CAP_AUDIO_OUT_FORMAT& format,
                    std::string& path, std::string& error) {
    const bool doubled = format.channels == 1;
    std::vector<uint8_t> data;
    if (doubled) {
        data.reserve(bytes.size() * 2);
        for (const uint8_t b : bytes) {
            data.push_back(b);
            data.push_back(b);
        }
    }
    const std::vector<uint8_t>& body = doubled ? data : bytes;
    const AudioCodec codec = ParseAudioCodec(format.strCodec);
    const uint16_t tag = codec == AudioCodec::MuLaw  ? WAV_FORMAT_MULAW
                         : codec == AudioCodec::ALaw ? WAV_FORMAT_ALAW
                                                     : WAV_FORMAT_PCM;
    // Two channels of the device's samples where the bytes are doubled: what the plug-in's
    // down-mix takes its one channel from.
    std::vector<unsigned char> file = MakeWavHeader(tag, doubled ? 2 : format.channels, format.sampleRate,
                                                    format.bitsPerSample, static_cast<uint32_t>(body.size()));
    file.insert(file.end(), body.begin(), body.end());

    const char* dir = getenv("TMPDIR");
    std::string templ = std::string(dir && *dir ? dir : "/tmp") + "/twhost-audioout-XXXXXX.wav";
    const int fd = mkstemps(&templ[0], 4);
    if (fd < 0) {
        error = "cannot make a temporary file in " + std::string(dir && *dir ? dir : "/tmp") + ": " + strerror(errno);
        return false;
    }
    size_t done = 0;
    while (done < file.size()) {
        const ssize_t n = write(fd, file.data() + done, file.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = "cannot write '" + templ + "': " + strerror(errno);
            close(fd);
            unlink(templ.c_str());
            return false;
        }
        done += static_cast<size_t>(n);
    }
    if (close(fd) != 0) {
        error = "cannot write '" + templ + "': " + strerror(errno);
        unlink(templ.c_str());
        return false;
    }
    path = templ;
    return true;
}

}  // namespace tw::host
