// libavformat sources and the pump that feeds a stream FIFO from them, in virtual and in
// real time. Every clip is written by the test itself.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include "tw/camera.h"
#include "tw/stream.h"
#include "twhost/clipmaker.h"
#include "twhost/clock.h"
#include "twhost/mediasource.h"
#include "twhost/streamfifo.h"

namespace {

using tw::host::ClipSpec;
using tw::host::FifoPump;
using tw::host::GetFifoStats;
using tw::host::ManualClock;
using tw::host::MediaSource;
using tw::host::SourcePacket;

constexpr int kNoBlockYet = 10001;

// Upper bound for waits on a real-time pump: a guard against hanging, not a measurement.
constexpr auto kHangGuard = std::chrono::seconds(60);

ClipSpec SmallClip(int codec, double seconds, int bFrames = 0) {
    ClipSpec clipSpec;
    clipSpec.width = 320;
    clipSpec.height = 180;
    clipSpec.fps = 25;
    clipSpec.durationSec = seconds;
    clipSpec.codec = codec;
    clipSpec.gop = 12;
    clipSpec.bFrames = bFrames;
    clipSpec.motion = {{0.2, 0.6}};
    return clipSpec;
}

std::vector<SourcePacket> ReadAll(MediaSource& source) {
    std::vector<SourcePacket> packets;
    SourcePacket packet;
    int ret = 0;
    while ((ret = source.ReadPacket(packet)) == 1) {
        packets.push_back(packet);
    }
    EXPECT_EQ(ret, 0) << source.GetLastError();
    return packets;
}

// NAL unit types of an Annex B buffer, in order.
std::vector<int> NalTypes(const std::vector<unsigned char>& data, int codec) {
    std::vector<int> types;
    for (size_t i = 0; i + 3 < data.size(); ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            const unsigned char header = data[i + 3];
            types.push_back(codec == VIDEO_CODEC_H264 ? (header & 0x1f) : ((header >> 1) & 0x3f));
            i += 2;
        }
    }
    return types;
}

bool StartsWithStartCode(const std::vector<unsigned char>& data) {
    return (data.size() >= 4 && data[0] == 0 && data[1] == 0 && data[2] == 0 && data[3] == 1) ||
           (data.size() >= 3 && data[0] == 0 && data[1] == 0 && data[2] == 1);
}

bool Contains(const std::vector<int>& types, int type) {
    return std::find(types.begin(), types.end(), type) != types.end();
}

class MediaSourceTest : public ::testing::Test {
protected:
    void SetUp() override {
        // The encoders' statistics and the expected connection failure are not news.
        av_log_set_level(AV_LOG_FATAL);
        char pattern[] = "/tmp/tw_mediasource_XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        m_strDir = pattern;
    }
    void TearDown() override {
        tw::host::SetClock(nullptr);
        std::error_code ec;
        std::filesystem::remove_all(m_strDir, ec);
    }

    std::string PathOf(const std::string& name) const { return m_strDir + "/" + name; }

    std::string WriteClipFile(const ClipSpec& clipSpec, const std::string& name) {
        const std::string path = PathOf(name);
        std::string error;
        EXPECT_TRUE(tw::host::WriteClip(clipSpec, path, error)) << error;
        return path;
    }

    std::string m_strDir;
};

// ---------------------------------------------------------------------------------------
// Open errors

TEST_F(MediaSourceTest, OpeningAMissingFileNamesTheFile) {
    MediaSource source;
    std::string error;
    const std::string path = PathOf("x.mp4");
    EXPECT_FALSE(source.Open(path, error));
    EXPECT_EQ(error, "cannot open '" + path + "': No such file or directory");
    EXPECT_FALSE(source.IsOpen());
}

TEST_F(MediaSourceTest, OpeningAFileWithoutVideoNamesTheFile) {
    // One tenth of a second of 8 kHz mono 16-bit silence.
    const std::string path = PathOf("x.wav");
    const uint32_t samples = 800;
    const uint32_t dataBytes = samples * 2;
    std::vector<unsigned char> wav;
    auto put = [&](const void* p, size_t n) {
        const auto* b = static_cast<const unsigned char*>(p);
        wav.insert(wav.end(), b, b + n);
    };
    auto put32 = [&](uint32_t v) { put(&v, 4); };
    auto put16 = [&](uint16_t v) { put(&v, 2); };
    put("RIFF", 4);
    put32(36 + dataBytes);
    put("WAVEfmt ", 8);
    put32(16);
    put16(1);
    put16(1);
    put32(8000);
    put32(16000);
    put16(2);
    put16(16);
    put("data", 4);
    put32(dataBytes);
    wav.resize(wav.size() + dataBytes, 0);
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(wav.data()),
                                                static_cast<std::streamsize>(wav.size()));

    MediaSource source;
    std::string error;
    EXPECT_FALSE(source.Open(path, error));
    EXPECT_EQ(error, "no video stream in '" + path + "'");
}

TEST_F(MediaSourceTest, OpeningAnUnsupportedCodecNamesCodecAndFile) {
    // Uncompressed video: a video stream, but not one a camera would send.
    const std::string path = PathOf("x.nut");
    AVFormatContext* out = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&out, nullptr, nullptr, path.c_str()), 0);
    AVStream* stream = avformat_new_stream(out, nullptr);
    ASSERT_NE(stream, nullptr);
    stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    stream->codecpar->codec_id = AV_CODEC_ID_RAWVIDEO;
    stream->codecpar->format = AV_PIX_FMT_YUV420P;
    stream->codecpar->width = 32;
    stream->codecpar->height = 32;
    stream->time_base = AVRational{1, 25};
    ASSERT_GE(avio_open(&out->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(out, nullptr), 0);
    for (int i = 0; i < 3; ++i) {
        AVPacket* packet = av_packet_alloc();
        ASSERT_GE(av_new_packet(packet, 32 * 32 * 3 / 2), 0);
        std::memset(packet->data, 128, static_cast<size_t>(packet->size));
        packet->pts = packet->dts = i;
        packet->flags = AV_PKT_FLAG_KEY;
        packet->stream_index = 0;
        av_packet_rescale_ts(packet, AVRational{1, 25}, stream->time_base);
        ASSERT_GE(av_interleaved_write_frame(out, packet), 0);
        av_packet_free(&packet);
    }
    av_write_trailer(out);
    avio_closep(&out->pb);
    avformat_free_context(out);

    MediaSource source;
    std::string error;
    EXPECT_FALSE(source.Open(path, error));
    EXPECT_EQ(error, "unsupported codec 'rawvideo' in '" + path + "'");
}

TEST_F(MediaSourceTest, OpeningAFileThatIsNoMediaNamesTheFile) {
    const std::string path = PathOf("notes.txt");
    std::ofstream(path) << "this is not a video\n";
    MediaSource source;
    std::string error;
    EXPECT_FALSE(source.Open(path, error));
    EXPECT_EQ(error.rfind("cannot open '" + path + "': ", 0), 0u) << error;
}

TEST_F(MediaSourceTest, OpeningAnUnreachableUrlNamesTheUrl) {
    const std::string url = "http://127.0.0.1:1/clip.ts";
    MediaSource source;
    std::string error;
    EXPECT_FALSE(source.Open(url, error));
    EXPECT_EQ(error.rfind("cannot open '" + url + "': ", 0), 0u) << error;
    EXPECT_TRUE(source.IsNetwork());
}

TEST_F(MediaSourceTest, ReadingWithoutAnOpenInputIsAnError) {
    MediaSource source;
    SourcePacket packet;
    EXPECT_EQ(source.ReadPacket(packet), -1);
    EXPECT_EQ(source.GetLastError(), "no input is open");
}

// ---------------------------------------------------------------------------------------
// What the packets look like

TEST_F(MediaSourceTest, H264InMp4YieldsAnnexBKeyFramesWithInBandParameterSets) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    EXPECT_EQ(source.GetCodec(), VIDEO_CODEC_H264);
    EXPECT_STREQ(source.GetCodecName(), "h264");
    EXPECT_EQ(source.GetWidth(), 320);
    EXPECT_EQ(source.GetHeight(), 180);
    EXPECT_FALSE(source.IsNetwork());
    EXPECT_NEAR(static_cast<double>(source.GetDurationUs()), 1e6, 1e5);
    EXPECT_EQ(source.GetFrameIntervalUs(), 40000);

    // The format's extra data is the parameter sets in Annex B form.
    const std::vector<unsigned char>& extra = source.GetExtraData();
    EXPECT_TRUE(StartsWithStartCode(extra));
    const std::vector<int> extraTypes = NalTypes(extra, VIDEO_CODEC_H264);
    EXPECT_TRUE(Contains(extraTypes, 7));
    EXPECT_TRUE(Contains(extraTypes, 8));

    const std::vector<SourcePacket> packets = ReadAll(source);
    ASSERT_EQ(packets.size(), 25u);
    int keys = 0;
    for (size_t i = 0; i < packets.size(); ++i) {
        const SourcePacket& p = packets[i];
        ASSERT_TRUE(p.data);
        EXPECT_TRUE(StartsWithStartCode(*p.data)) << "packet " << i;
        EXPECT_EQ(p.keyFrame, i % 12 == 0) << "packet " << i;
        EXPECT_FALSE(p.corrupt);
        if (p.keyFrame) {
            ++keys;
            const std::vector<int> types = NalTypes(*p.data, VIDEO_CODEC_H264);
            EXPECT_TRUE(Contains(types, 7)) << "key frame " << i << " lacks its SPS";
            EXPECT_TRUE(Contains(types, 8)) << "key frame " << i << " lacks its PPS";
            EXPECT_TRUE(Contains(types, 5)) << "key frame " << i << " is no IDR picture";
        }
        if (i > 0) {
            EXPECT_EQ(p.ptsUs - packets[i - 1].ptsUs, 40000) << "packet " << i;
        }
    }
    EXPECT_EQ(keys, 3);
}

TEST_F(MediaSourceTest, HevcKeyFramesCarryVpsSpsAndPps) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_HEVC, 1.0), "clip.mkv");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    EXPECT_EQ(source.GetCodec(), VIDEO_CODEC_HEVC);
    const std::vector<int> extraTypes = NalTypes(source.GetExtraData(), VIDEO_CODEC_HEVC);
    EXPECT_TRUE(Contains(extraTypes, 32));
    EXPECT_TRUE(Contains(extraTypes, 33));
    EXPECT_TRUE(Contains(extraTypes, 34));

    const std::vector<SourcePacket> packets = ReadAll(source);
    ASSERT_EQ(packets.size(), 25u);
    int keys = 0;
    for (const SourcePacket& p : packets) {
        EXPECT_TRUE(StartsWithStartCode(*p.data));
        if (p.keyFrame) {
            ++keys;
            const std::vector<int> types = NalTypes(*p.data, VIDEO_CODEC_HEVC);
            EXPECT_TRUE(Contains(types, 32));
            EXPECT_TRUE(Contains(types, 33));
            EXPECT_TRUE(Contains(types, 34));
        }
    }
    EXPECT_EQ(keys, 3);
}

TEST_F(MediaSourceTest, H264InTransportStreamGetsAnnexBExtraData) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.ts");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    const std::vector<int> extraTypes = NalTypes(source.GetExtraData(), VIDEO_CODEC_H264);
    EXPECT_TRUE(Contains(extraTypes, 7));
    EXPECT_TRUE(Contains(extraTypes, 8));
    const std::vector<SourcePacket> packets = ReadAll(source);
    ASSERT_EQ(packets.size(), 25u);
    EXPECT_TRUE(packets[0].keyFrame);
    EXPECT_TRUE(Contains(NalTypes(*packets[0].data, VIDEO_CODEC_H264), 7));
}

TEST_F(MediaSourceTest, MjpegInAviYieldsOneJpegPicturePerPacket) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_JPEG, 0.4), "clip.avi");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    EXPECT_EQ(source.GetCodec(), VIDEO_CODEC_JPEG);
    const std::vector<SourcePacket> packets = ReadAll(source);
    ASSERT_EQ(packets.size(), 10u);
    for (const SourcePacket& p : packets) {
        EXPECT_TRUE(p.keyFrame);
        ASSERT_GE(p.data->size(), 4u);
        EXPECT_EQ((*p.data)[0], 0xff);
        EXPECT_EQ((*p.data)[1], 0xd8);
    }
}

TEST_F(MediaSourceTest, Mpeg4PartTwoIsCodecTwo) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_MPEG4, 0.5), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    EXPECT_EQ(source.GetCodec(), VIDEO_CODEC_MPEG4);
    EXPECT_STREQ(source.GetCodecName(), "mpeg4");
    const std::vector<SourcePacket> packets = ReadAll(source);
    ASSERT_EQ(packets.size(), 13u);
    EXPECT_TRUE(packets[0].keyFrame);
    EXPECT_TRUE(packets[12].keyFrame);
}

// An MP4 whose header describes its video is opened without probing the stream; what the
// source hands on must be what a probed container of the same clip gives: Matroska is
// always probed, so the two are compared, B-frames included.
TEST_F(MediaSourceTest, Mp4OpenedFromItsHeaderMatchesTheProbedMatroskaOfTheSameClip) {
    for (const int codec : {VIDEO_CODEC_H264, VIDEO_CODEC_HEVC}) {
        const ClipSpec clipSpec = SmallClip(codec, 1.0, 2);
        const std::string tag = codec == VIDEO_CODEC_H264 ? "h264" : "hevc";
        MediaSource mp4;
        MediaSource mkv;
        std::string error;
        ASSERT_TRUE(mp4.Open(WriteClipFile(clipSpec, tag + ".mp4"), error)) << error;
        ASSERT_TRUE(mkv.Open(WriteClipFile(clipSpec, tag + ".mkv"), error)) << error;
        EXPECT_EQ(mp4.GetCodec(), codec);
        EXPECT_EQ(mp4.GetCodec(), mkv.GetCodec()) << tag;
        EXPECT_EQ(mp4.GetWidth(), 320) << tag;
        EXPECT_EQ(mp4.GetHeight(), 180) << tag;
        EXPECT_EQ(mp4.GetWidth(), mkv.GetWidth()) << tag;
        EXPECT_EQ(mp4.GetHeight(), mkv.GetHeight()) << tag;
        EXPECT_EQ(mp4.GetFrameIntervalUs(), 40000) << tag;
        EXPECT_EQ(mp4.GetFrameIntervalUs(), mkv.GetFrameIntervalUs()) << tag;
        EXPECT_NEAR(static_cast<double>(mp4.GetDurationUs()), static_cast<double>(mkv.GetDurationUs()), 1e5) << tag;
        EXPECT_EQ(mp4.GetExtraData(), mkv.GetExtraData()) << tag;
        const std::vector<SourcePacket> fromMp4 = ReadAll(mp4);
        const std::vector<SourcePacket> fromMkv = ReadAll(mkv);
        ASSERT_EQ(fromMp4.size(), 25u) << tag;
        ASSERT_EQ(fromMp4.size(), fromMkv.size()) << tag;
        for (size_t i = 0; i < fromMp4.size(); ++i) {
            ASSERT_TRUE(fromMp4[i].data && fromMkv[i].data);
            EXPECT_EQ(*fromMp4[i].data, *fromMkv[i].data) << tag << " packet " << i;
            EXPECT_EQ(fromMp4[i].keyFrame, fromMkv[i].keyFrame) << tag << " packet " << i;
            EXPECT_EQ(fromMp4[i].ptsUs, fromMkv[i].ptsUs) << tag << " packet " << i;
        }
    }
}

// MPEG-4 Part 2 in MP4 gives no picture size in the header: such a file is probed, and its
// size comes from the stream.
TEST_F(MediaSourceTest, Mpeg4InMp4HasTheSizeOfItsStream) {
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(WriteClipFile(SmallClip(VIDEO_CODEC_MPEG4, 0.5), "clip.mp4"), error)) << error;
    EXPECT_EQ(source.GetWidth(), 320);
    EXPECT_EQ(source.GetHeight(), 180);
    EXPECT_EQ(source.GetFrameIntervalUs(), 40000);
}

TEST_F(MediaSourceTest, RewindStartsAgainAtTheFirstPacket) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 0.6), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    const std::vector<SourcePacket> first = ReadAll(source);
    ASSERT_TRUE(source.Rewind(error)) << error;
    const std::vector<SourcePacket> second = ReadAll(source);
    ASSERT_EQ(first.size(), second.size());
    for (size_t i = 0; i < first.size(); ++i) {
        EXPECT_EQ(*first[i].data, *second[i].data) << "packet " << i;
        EXPECT_EQ(first[i].ptsUs, second[i].ptsUs) << "packet " << i;
    }
}

TEST_F(MediaSourceTest, TruncatedTransportStreamEndsWithoutAnError) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.ts");
    const auto size = std::filesystem::file_size(path);
    std::filesystem::resize_file(path, size / 2 + 77);   // cut in the middle of a packet
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    const std::vector<SourcePacket> packets = ReadAll(source);
    EXPECT_GT(packets.size(), 0u);
    EXPECT_LT(packets.size(), 25u);
}

// ---------------------------------------------------------------------------------------
// A network source: a small HTTP server in the test serves the clip.

class TinyHttpServer {
public:
    explicit TinyHttpServer(std::vector<unsigned char> body) : m_Body(std::move(body)) {
        m_Listen = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        addr.sin_port = 0;
        if (m_Listen < 0 || bind(m_Listen, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(m_Listen, 8) != 0) {
            return;
        }
        socklen_t len = sizeof(addr);
        getsockname(m_Listen, reinterpret_cast<sockaddr*>(&addr), &len);
        m_Port = ntohs(addr.sin_port);
        m_Thread = std::thread([this] { Serve(); });
    }
    ~TinyHttpServer() {
        m_blStop.store(true);
        if (m_Thread.joinable()) {
            m_Thread.join();
        }
        for (auto& t : m_Clients) {
            t.join();
        }
        if (m_Listen >= 0) {
            close(m_Listen);
        }
    }
    int GetPort() const { return m_Port; }
    int GetRequests() const { return m_Requests.load(); }

private:
    void Serve() {
        while (!m_blStop.load()) {
            pollfd pfd{m_Listen, POLLIN, 0};
            if (poll(&pfd, 1, 50) <= 0) {
                continue;
            }
            const int fd = accept(m_Listen, nullptr, nullptr);
            if (fd >= 0) {
                ++m_Requests;
                m_Clients.emplace_back([this, fd] { Answer(fd); });
            }
        }
    }
    // Answers one request, honouring "Range: bytes=N-" so the client may seek.
    void Answer(int fd) {
        std::string request;
        char buf[1024];
        while (request.find("\r\n\r\n") == std::string::npos && !m_blStop.load()) {
            pollfd pfd{fd, POLLIN, 0};
            if (poll(&pfd, 1, 50) <= 0) {
                continue;
            }
            const ssize_t n = recv(fd, buf, sizeof(buf), 0);
            if (n <= 0) {
                close(fd);
                return;
            }
            request.append(buf, static_cast<size_t>(n));
        }
        size_t from = 0;
        const size_t range = request.find("Range: bytes=");
        if (range != std::string::npos) {
            from = std::strtoull(request.c_str() + range + 13, nullptr, 10);
        }
        from = std::min(from, m_Body.size());
        std::string head;
        if (range != std::string::npos) {
            head = "HTTP/1.1 206 Partial Content\r\nContent-Range: bytes " + std::to_string(from) +
                   "-" + std::to_string(m_Body.size() - 1) + "/" + std::to_string(m_Body.size()) +
                   "\r\n";
        } else {
            head = "HTTP/1.1 200 OK\r\n";
        }
        head += "Content-Type: video/mp2t\r\nAccept-Ranges: bytes\r\nContent-Length: " +
                std::to_string(m_Body.size() - from) + "\r\nConnection: close\r\n\r\n";
        SendAll(fd, reinterpret_cast<const unsigned char*>(head.data()), head.size());
        SendAll(fd, m_Body.data() + from, m_Body.size() - from);
        close(fd);
    }
    void SendAll(int fd, const unsigned char* p, size_t n) {
        while (n > 0 && !m_blStop.load()) {
            pollfd pfd{fd, POLLOUT, 0};
            if (poll(&pfd, 1, 50) <= 0) {
                continue;
            }
            const ssize_t sent = send(fd, p, n, MSG_NOSIGNAL);
            if (sent <= 0) {
                return;
            }
            p += sent;
            n -= static_cast<size_t>(sent);
        }
    }

    std::vector<unsigned char> m_Body;
    int m_Listen = -1;
    int m_Port = 0;
    std::atomic<bool> m_blStop{false};
    std::atomic<int> m_Requests{0};
    std::thread m_Thread;
    std::vector<std::thread> m_Clients;
};

TEST_F(MediaSourceTest, HttpUrlDeliversTheSamePacketsAsTheFile) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.ts");
    std::ifstream in(path, std::ios::binary);
    std::vector<unsigned char> body((std::istreambuf_iterator<char>(in)),
                                    std::istreambuf_iterator<char>());
    ASSERT_FALSE(body.empty());
    TinyHttpServer server(body);
    ASSERT_NE(server.GetPort(), 0);

    MediaSource file;
    std::string error;
    ASSERT_TRUE(file.Open(path, error)) << error;
    const std::vector<SourcePacket> expected = ReadAll(file);

    const std::string url = "http://127.0.0.1:" + std::to_string(server.GetPort()) + "/clip.ts";
    MediaSource net;
    ASSERT_TRUE(net.Open(url, error)) << error;
    EXPECT_TRUE(net.IsNetwork());
    EXPECT_EQ(net.GetCodec(), VIDEO_CODEC_H264);
    EXPECT_EQ(net.GetExtraData(), file.GetExtraData());
    const std::vector<SourcePacket> got = ReadAll(net);
    ASSERT_EQ(got.size(), expected.size());
    for (size_t i = 0; i < got.size(); ++i) {
        EXPECT_EQ(*got[i].data, *expected[i].data) << "packet " << i;
        EXPECT_EQ(got[i].keyFrame, expected[i].keyFrame) << "packet " << i;
    }
    EXPECT_GE(server.GetRequests(), 1);
}

// ---------------------------------------------------------------------------------------
// The pump

// How many packets, in decoding order, are due by relative time t: a packet waits for the
// one before it, so it is the longest prefix whose times are all <= t.
size_t DueCount(const std::vector<int64_t>& rel, int64_t t) {
    size_t n = 0;
    int64_t latest = INT64_MIN;
    for (; n < rel.size(); ++n) {
        latest = std::max(latest, rel[n]);
        if (latest > t) {
            break;
        }
    }
    return n;
}

void CheckVirtualPump(const std::string& path) {
    // Reference: the packets' times relative to the first one, in decoding order.
    std::vector<int64_t> rel;
    std::vector<bool> keys;
    {
        MediaSource reference;
        std::string error;
        ASSERT_TRUE(reference.Open(path, error)) << error;
        const std::vector<SourcePacket> packets = ReadAll(reference);
        ASSERT_FALSE(packets.empty());
        for (const SourcePacket& p : packets) {
            rel.push_back(p.ptsUs - packets[0].ptsUs);
            keys.push_back(p.keyFrame);
        }
    }
    const int64_t last = *std::max_element(rel.begin(), rel.end());

    auto clock = std::make_shared<ManualClock>(5000000);
    tw::host::SetClock(clock);
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    ASSERT_TRUE(pump.StartVirtual(error)) << error;
    const int64_t epoch = 5000000;
    EXPECT_EQ(pump.GetEpochUs(), epoch);
    // Nothing is read before a reader asks.
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, 0u);
    EXPECT_NE(fifo.GetTotalBufSize(), 0);

    const std::vector<int64_t> times = {0, 1, 39999, 40000, 40001, 119999, 120000, 300000,
                                        480000, 481000, last - 1, last};
    for (int64_t t : times) {
        clock->SetNowUs(epoch + t);
        std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
        const size_t due = DueCount(rel, t);
        ASSERT_EQ(GetFifoStats(fifo).blocksPushed, due) << "at +" << t << " us";
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(block->GetID(), static_cast<int>(due) - 1) << "at +" << t << " us";
        // Blocks carry host-clock time.
        EXPECT_EQ(block->GetPtsUs(), epoch + rel[due - 1]) << "at +" << t << " us";
        int newestKey = -1;
        for (size_t i = 0; i < due; ++i) {
            newestKey = keys[i] ? static_cast<int>(i) : newestKey;
        }
        std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
        ASSERT_NE(key, nullptr);
        EXPECT_EQ(key->GetID(), newestKey) << "at +" << t << " us";
        EXPECT_EQ(pump.Ended(), due == rel.size()) << "at +" << t << " us";
        EXPECT_EQ(pump.GetPacketCount(), due);
    }
    EXPECT_TRUE(pump.Ended());
    EXPECT_EQ(pump.GetEndTimeUs(), epoch + last);
    EXPECT_EQ(pump.GetErrorCount(), 0u);
    // Once ended, time moving on adds nothing.
    clock->Advance(10000000);
    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, rel.size());
}

TEST_F(MediaSourceTest, VirtualTimePumpPushesExactlyThePacketsDueAtEachTime) {
    CheckVirtualPump(WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.mp4"));
}

TEST_F(MediaSourceTest, VirtualTimePumpKeepsDecodingOrderWithBFrames) {
    CheckVirtualPump(WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0, 2), "clip.mp4"));
}

TEST_F(MediaSourceTest, VirtualTimePumpLeavesTheFifoWhenItGoes) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 0.4), "clip.mp4");
    auto clock = std::make_shared<ManualClock>(0);
    tw::host::SetClock(clock);
    StreamFifo fifo;
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    {
        FifoPump pump(source, fifo);
        ASSERT_TRUE(pump.StartVirtual(error)) << error;
        std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
        EXPECT_EQ(GetFifoStats(fifo).blocksPushed, 1u);
    }
    clock->Advance(1000000);
    std::unique_ptr<MediaBlock> block(fifo.GetLastBlock(kNoBlockYet));
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, 1u);
}

TEST_F(MediaSourceTest, PumpCannotStartTwice) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 0.4), "clip.mp4");
    tw::host::SetClock(std::make_shared<ManualClock>(0));
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    ASSERT_TRUE(pump.StartVirtual(error)) << error;
    EXPECT_FALSE(pump.StartVirtual(error));
    EXPECT_EQ(error, "the pump of '" + path + "' is started already");
}

TEST_F(MediaSourceTest, RealTimePumpDeliversEveryPacketOfAOneSecondClip) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    ASSERT_TRUE(pump.StartRealTime(FifoPump::RealTimeOptions(), error)) << error;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!pump.Ended() && std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(pump.Ended());
    pump.Stop();
    EXPECT_EQ(pump.GetPacketCount(), 25u);
    EXPECT_EQ(pump.GetKeyFrameCount(), 3u);
    EXPECT_EQ(pump.GetErrorCount(), 0u);
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, 25u);
    EXPECT_EQ(pump.GetEndTimeUs() - pump.GetEpochUs(), 24 * 40000);
    std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetID(), 24);
    std::unique_ptr<MediaBlock> key(fifo.GetLastITypeBlock(kNoBlockYet));
    ASSERT_NE(key, nullptr);
    EXPECT_EQ(key->GetID(), 24);
}

TEST_F(MediaSourceTest, RealTimePumpShowsEveryBlockOnlyOnceItsTimeHasCome) {
    // The pump hands a file's packets to the FIFO up to a second ahead; a reader must still
    // find only what a camera would have sent by the moment it reads, and the newest of it.
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    ASSERT_TRUE(pump.StartRealTime(FifoPump::RealTimeOptions(), error)) << error;
    tw::host::Clock& clock = tw::host::GetClock();
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    int reads = 0;
    int lastId = -1;
    while (!pump.Ended() && std::chrono::steady_clock::now() < guard) {
        std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
        const int64_t after = clock.NowUs();
        if (last) {
            ++reads;
            // Due by the end of the read (which blocks are held back until when is the
            // FIFO's own test, under a manual clock).
            EXPECT_LE(last->GetPtsUs(), after) << "block " << last->GetID();
            EXPECT_EQ(last->GetPtsUs(), pump.GetEpochUs() + int64_t{last->GetID()} * 40000);
            EXPECT_GE(last->GetID(), lastId);
            lastId = last->GetID();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(7));
    }
    ASSERT_TRUE(pump.Ended());
    pump.Stop();
    EXPECT_GT(reads, 10);
    // The end is told once the last packet is due, not when it was read ahead.
    EXPECT_GE(clock.NowUs(), pump.GetEndTimeUs());
    EXPECT_EQ(GetFifoStats(fifo).blocksPushed, 25u);
    std::unique_ptr<MediaBlock> last(fifo.GetLastBlock(kNoBlockYet));
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(last->GetID(), 24);
}

// Records what a pump pushes.
class RecordingSink : public tw::host::PacketSink {
public:
    void SetFormat(int codec, int, int, const std::vector<unsigned char>&) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Codec = codec;
    }
    void Push(const SourcePacket& packet) override {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Packets.push_back(packet);
    }
    std::vector<SourcePacket> Packets() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Packets;
    }
    int Codec() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Codec;
    }

private:
    std::mutex m_Mutex;
    int m_Codec = 0;
    std::vector<SourcePacket> m_Packets;
};

TEST_F(MediaSourceTest, LoopingPumpRunsTheFileAgainWithTimeGoingOn) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 0.4), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    RecordingSink sink;
    FifoPump pump(source, sink);
    FifoPump::RealTimeOptions options;
    options.pace = false;
    options.loop = true;
    ASSERT_TRUE(pump.StartRealTime(options, error)) << error;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (pump.GetLoopCount() < 2 && std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    pump.Stop();
    ASSERT_GE(pump.GetLoopCount(), 2u);
    EXPECT_FALSE(pump.Ended());   // stopped, not exhausted
    EXPECT_EQ(sink.Codec(), VIDEO_CODEC_H264);

    const std::vector<SourcePacket> packets = sink.Packets();
    ASSERT_GE(packets.size(), 20u);
    for (size_t i = 1; i < packets.size(); ++i) {
        // One frame interval apart throughout, across the restarts too.
        EXPECT_EQ(packets[i].ptsUs - packets[i - 1].ptsUs, 40000) << "packet " << i;
    }
    // The second round starts with the file's first packet again.
    EXPECT_EQ(*packets[10].data, *packets[0].data);
    EXPECT_TRUE(packets[10].keyFrame);
}

// Waits until the pump has handed over at least n packets; false after the hang guard.
bool WaitForHanded(const FifoPump& pump, uint64_t n) {
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (pump.GetPacketCount() < n) {
        if (std::chrono::steady_clock::now() >= guard) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

TEST_F(MediaSourceTest, PacedPumpCountsOnlyWhatWasDueByATime) {
    // 3 s at 25 fps, a key frame every 12 frames; a paced pump into the FIFO reads about a
    // second ahead of the clock at once.
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 3.0), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    ASSERT_TRUE(pump.StartRealTime(FifoPump::RealTimeOptions(), error)) << error;
    ASSERT_TRUE(WaitForHanded(pump, 20));
    const int64_t epoch = pump.GetEpochUs();

    // Due by +100 ms: the frames at 0, 40 and 80 ms, one of them a key frame.
    FifoPump::Counts early = pump.GetCountsBy(epoch + 100000);
    EXPECT_EQ(early.packets, 3u);
    EXPECT_EQ(early.keyFrames, 1u);
    EXPECT_EQ(early.loops, 0u);
    // By +480 ms exactly: 13 frames (0 to 480 ms), key frames at 0 and 480 ms.
    FifoPump::Counts half = pump.GetCountsBy(epoch + 480000);
    EXPECT_EQ(half.packets, 13u);
    EXPECT_EQ(half.keyFrames, 2u);
    EXPECT_EQ(pump.GetCountsBy(epoch - 1).packets, 0u);

    pump.Stop();
    // Everything handed over is counted by a time after the last of it.
    const FifoPump::Counts all = pump.GetCountsBy(INT64_MAX);
    EXPECT_EQ(all.packets, pump.GetPacketCount());
    EXPECT_EQ(all.keyFrames, pump.GetKeyFrameCount());
    EXPECT_GE(all.packets, 20u);
}

TEST_F(MediaSourceTest, PacedPumpLeavesPacketsAfterTheCountLimitOut) {
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    const int64_t limit = tw::host::GetClock().NowUs() + 200000;
    pump.SetCountLimitUs(limit);
    ASSERT_TRUE(pump.StartRealTime(FifoPump::RealTimeOptions(), error)) << error;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!pump.Ended() && std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ASSERT_TRUE(pump.Ended());
    pump.Stop();
    EXPECT_EQ(pump.GetPacketCount(), 25u);
    // The pump started after the limit was taken; the frames 40 ms apart from its epoch on
    // that are not after the limit.
    const int64_t span = limit - pump.GetEpochUs();
    ASSERT_GE(span, 0);
    const uint64_t expected = static_cast<uint64_t>(span / 40000 + 1);
    EXPECT_EQ(pump.GetCountsBy(INT64_MAX).packets, expected);
    EXPECT_EQ(pump.GetCountsBy(limit).packets, expected);
    EXPECT_EQ(pump.GetCountsBy(INT64_MAX).keyFrames, 1u);
}

TEST_F(MediaSourceTest, PacedLoopingPumpCountsTheRestartsThatWereDue) {
    // 0.4 s, ten frames: each round starts 400 ms after the one before, with a key frame.
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 0.4), "clip.mp4");
    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(path, error)) << error;
    StreamFifo fifo;
    FifoPump pump(source, fifo);
    FifoPump::RealTimeOptions options;
    options.loop = true;
    ASSERT_TRUE(pump.StartRealTime(options, error)) << error;
    ASSERT_TRUE(WaitForHanded(pump, 20));
    const int64_t epoch = pump.GetEpochUs();

    // By +500 ms: the first round's ten frames and 400, 440 and 480 ms of the second.
    const FifoPump::Counts counts = pump.GetCountsBy(epoch + 500000);
    EXPECT_EQ(counts.packets, 13u);
    EXPECT_EQ(counts.keyFrames, 2u);
    EXPECT_EQ(counts.loops, 1u);
    EXPECT_EQ(pump.GetCountsBy(epoch + 399999).loops, 0u);
    EXPECT_EQ(pump.GetCountsBy(epoch + 400000).loops, 1u);

    pump.Stop();
    const FifoPump::Counts all = pump.GetCountsBy(INT64_MAX);
    EXPECT_EQ(all.packets, pump.GetPacketCount());
    // A restart counts once its first packet is handed over.
    EXPECT_EQ(all.loops, (all.packets - 1) / 10);
    EXPECT_LE(all.loops, pump.GetLoopCount());
}

TEST_F(MediaSourceTest, PumpPushesPacketsThatTheDemuxerFlagsAsCorrupt) {
    // Dropping one transport packet from the middle breaks the continuity of the video
    // stream; the demuxer flags the picture that lost a piece.
    const std::string path = WriteClipFile(SmallClip(VIDEO_CODEC_H264, 1.0), "clip.ts");
    std::ifstream in(path, std::ios::binary);
    std::vector<char> ts((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    in.close();
    const size_t packetCount = ts.size() / 188;
    ASSERT_GT(packetCount, 40u);
    // The first video transport packet after the middle that does not start a picture.
    size_t victim = packetCount / 2;
    for (; victim < packetCount; ++victim) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(&ts[victim * 188]);
        const int pid = ((p[1] & 0x1f) << 8) | p[2];
        const bool unitStart = (p[1] & 0x40) != 0;
        if (pid == 0x100 && !unitStart) {
            break;
        }
    }
    ASSERT_LT(victim, packetCount);
    ts.erase(ts.begin() + static_cast<std::ptrdiff_t>(victim * 188),
             ts.begin() + static_cast<std::ptrdiff_t>(victim * 188 + 188));
    const std::string damaged = PathOf("damaged.ts");
    std::ofstream(damaged, std::ios::binary)
        .write(ts.data(), static_cast<std::streamsize>(ts.size()));

    MediaSource source;
    std::string error;
    ASSERT_TRUE(source.Open(damaged, error)) << error;
    RecordingSink sink;
    FifoPump pump(source, sink);
    FifoPump::RealTimeOptions options;
    options.pace = false;
    ASSERT_TRUE(pump.StartRealTime(options, error)) << error;
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (!pump.Ended() && std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(pump.Ended());
    EXPECT_EQ(pump.GetErrorCount(), 0u);
    EXPECT_GE(pump.GetCorruptCount(), 1u);
    const std::vector<SourcePacket> packets = sink.Packets();
    EXPECT_EQ(packets.size(), pump.GetPacketCount());
    EXPECT_EQ(packets.size(), 25u);
    size_t corrupt = 0;
    for (const SourcePacket& p : packets) {
        corrupt += p.corrupt ? 1 : 0;
    }
    EXPECT_EQ(corrupt, pump.GetCorruptCount());
}

}  // namespace
