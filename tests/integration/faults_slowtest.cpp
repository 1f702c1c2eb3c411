// Faults from outside, each with the twhost command as a user runs it: a publisher killed
// under a detector, the mobile daemon killed mid-stream, a Modbus module that goes away and
// comes back, an HTTP audio sink that stops reading, and a disk that fills under a WAV sink.
// The processes must survive, say what went wrong, and carry on when the fault is gone.
// They run on real time: a few seconds each.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include <json/json.h>

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/jsonlines.h"
#include "support/livefifo.h"
#include "support/modbusserver.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"
#include "twhost/wavfile.h"

namespace {

using tw::test::ChildProcess;
using tw::test::ChildResult;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Stops a child as a user's SIGTERM does, and collects it.
ChildResult Terminated(ChildProcess& child) {
    child.Signal(SIGTERM);
    return child.Wait();
}

// Every line checked against the command's README table.
std::vector<Json::Value> CheckedLines(const std::string& command, const std::string& out) {
    std::vector<Json::Value> lines;
    std::string error;
    EXPECT_TRUE(tw::test::ParseJsonLines(out, lines, error)) << error;
    EXPECT_EQ(tw::test::CheckJsonLines(command, lines), std::vector<std::string>()) << out;
    return lines;
}

Json::Value Summary(const std::vector<Json::Value>& lines) {
    const std::vector<Json::Value> s = tw::test::LinesOfType(lines, "summary");
    EXPECT_EQ(s.size(), 1u);
    return s.empty() ? Json::Value() : s.back();
}

// The complete JSON lines a running child has written so far (a last line still being
// written is left for later).
std::vector<Json::Value> LinesSoFar(const ChildProcess& child) {
    std::string out = child.PeekOut();
    const size_t end = out.rfind('\n');
    out = end == std::string::npos ? std::string() : out.substr(0, end + 1);
    std::vector<Json::Value> lines;
    std::string error;
    tw::test::ParseJsonLines(out, lines, error);
    return lines;
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------------------
// Audio sinks

// A 16-bit stereo WAV of the given seconds at 48 kHz: 192,000 bytes a second, so that a
// sink's limits are met within a fraction of a second of real time.
void WriteStereoWav(const std::string& path, double seconds) {
    const int rate = 48000;
    std::vector<unsigned char> data(static_cast<size_t>(seconds * rate) * 4);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>((i * 7) & 0xff);
    std::vector<unsigned char> file =
        tw::host::MakeWavHeader(tw::host::WAV_FORMAT_PCM, 2, rate, 16, static_cast<uint32_t>(data.size()));
    file.insert(file.end(), data.begin(), data.end());
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(file.data()), static_cast<std::streamsize>(file.size()));
}

std::vector<unsigned char> ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

uint32_t Le32(const std::vector<unsigned char>& b, size_t at) {
    if (at + 4 > b.size()) return 0;
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

// A disk that fills up under the sink, as a quota or a full partition would: the child may
// write no file beyond limitBlocks blocks of the shell's `ulimit -f`, and SIGXFSZ is ignored,
// so that a write past it fails with EFBIG, as ENOSPC would, instead of killing the process.
ChildResult RunWithFileSizeLimit(const std::vector<std::string>& args, int limitBlocks) {
    std::string command = "ulimit -f " + std::to_string(limitBlocks) + " && trap '' XFSZ && exec";
    for (const std::string& a : args) command += " '" + a + "'";
    return tw::test::RunChild({"/bin/sh", "-c", command});
}

TEST(Faults, WavSinkOnAFullDiskSaysSoNamingTheFileAndKeepsWhatItWroteAValidWav) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string in = dir.File("in.wav");
    const std::string out = dir.File("out.wav");
    WriteStereoWav(in, 1.0);
    // 150 KiB: room for the first half second the plug-in hands over (96,000 bytes) and not
    // for the second; far more than the lines on standard output.
    const ChildResult r = RunWithFileSizeLimit(
        {TW_TWHOST_BIN, "audioout", "--device-id", "61", "--type", "speaker", "--file", in, "--as-is", "--json",
         "--sink", "file:" + out},
        300);
    ASSERT_TRUE(r.exited) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_TRUE(Contains(r.err, out)) << "the message does not name the file:\n" << r.err;
    EXPECT_TRUE(Contains(r.err, "File too large")) << r.err;
    const Json::Value summary = Summary(CheckedLines("twhost audioout", r.out));
    EXPECT_TRUE(Contains(summary["sinkError"].asString(), "File too large")) << r.out;

    // What reached the disk before it filled is a WAV of the device's format whose header
    // counts exactly the audio in it: a player gets the first part of the audio.
    tw::host::WavInfo info;
    std::string error;
    ASSERT_TRUE(tw::host::ReadWavInfo(out, info, error)) << error;
    EXPECT_EQ(info.channels, 2);
    EXPECT_EQ(info.sampleRate, 48000);
    EXPECT_EQ(info.bitsPerSample, 16);
    const std::vector<unsigned char> written = ReadAll(out);
    const std::vector<unsigned char> source = ReadAll(in);
    ASSERT_GE(info.dataOffset, 8);
    ASSERT_LE(static_cast<size_t>(info.dataOffset), written.size());
    // The sizes the header declares, not what a lenient reader makes of them.
    const size_t riffSize = Le32(written, 4);
    const size_t dataSize = Le32(written, static_cast<size_t>(info.dataOffset) - 4);
    ASSERT_GT(dataSize, 0u) << "nothing was written before the disk filled";
    EXPECT_EQ(static_cast<size_t>(info.dataOffset) + dataSize, written.size());
    EXPECT_EQ(riffSize + 8, written.size());
    ASSERT_LT(written.size(), source.size());
    EXPECT_TRUE(std::equal(written.begin() + info.dataOffset, written.end(), source.begin() + 44))
        << "the audio in the file is not the start of the input";
    EXPECT_EQ(summary["bytes"].asInt64(), static_cast<Json::Int64>(dataSize)) << r.out;
    EXPECT_EQ(summary["endReason"].asString(), "sink failed") << r.out;
}

TEST(Faults, WavSinkOnDevFullFailsAtOnceNamingTheFile) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string in = dir.File("in.wav");
    WriteStereoWav(in, 0.5);
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "audioout", "--device-id", "62", "--file", in,
                                              "--as-is", "--json", "-y", "--sink", "file:/dev/full"});
    ASSERT_TRUE(r.exited) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_TRUE(Contains(r.err, "/dev/full")) << r.err;
    EXPECT_TRUE(Contains(r.err, "No space left on device")) << r.err;
    const Json::Value summary = Summary(CheckedLines("twhost audioout", r.out));
    EXPECT_EQ(summary["endReason"].asString(), "sink failed") << r.out;
    EXPECT_EQ(summary["bytes"].asInt64(), 0) << r.out;
}

}  // namespace

namespace {

// An HTTP server on loopback that accepts every connection and then never reads from it nor
// answers: a device whose audio task hangs. Its receive buffer is small, so that what the
// sender writes piles up in the sender's own buffers; the request is never answered.
class StalledHttpServer {
public:
    StalledHttpServer() {
        m_ListenFd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const int small = 4096;
        setsockopt(m_ListenFd, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small));
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof(addr);
        if (m_ListenFd < 0 || bind(m_ListenFd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(m_ListenFd, 8) != 0 || getsockname(m_ListenFd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
            m_strError = std::string("cannot listen: ") + std::strerror(errno);
            return;
        }
        m_Port = ntohs(addr.sin_port);
        m_Thread = std::thread([this] {
            for (;;) {
                const int fd = accept4(m_ListenFd, nullptr, nullptr, SOCK_CLOEXEC);
                if (fd < 0) return;   // shut down
                std::lock_guard<std::mutex> lock(m_Mutex);
                m_Clients.push_back(fd);
            }
        });
    }
    ~StalledHttpServer() {
        if (m_ListenFd >= 0) shutdown(m_ListenFd, SHUT_RDWR);
        if (m_Thread.joinable()) m_Thread.join();
        if (m_ListenFd >= 0) close(m_ListenFd);
        for (const int fd : m_Clients) close(fd);
    }
    const std::string& Error() const { return m_strError; }
    int Port() const { return m_Port; }
    size_t Connections() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Clients.size();
    }

private:
    int m_ListenFd = -1;
    int m_Port = 0;
    std::string m_strError;
    std::thread m_Thread;
    std::mutex m_Mutex;
    std::vector<int> m_Clients;
};

TEST(Faults, HttpSinkThatStopsReadingLetsTheOutputStopAndSaysTheAudioWasNotConfirmed) {
    StalledHttpServer server;
    ASSERT_EQ(server.Error(), "");
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string in = dir.File("in.wav");
    // Far more audio than the connection's buffers hold.
    WriteStereoWav(in, 30.0);
    ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "audioout", "--device-id", "63", "--type", "speaker", "--file", in,
                             "--as-is", "--json", "--sink",
                             "http://127.0.0.1:" + std::to_string(server.Port()) + "/audio"},
                            error))
        << error;
    // The user stops the output once audio has gone to the server, which has taken none of
    // it: the sink waits for the server's answer no longer than its time-out.
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        bool sent = false;
        for (const Json::Value& v : tw::test::LinesOfType(LinesSoFar(child), "progress"))
            if (v["bytes"].asInt64() > 0) sent = true;
        if (sent) break;
        ASSERT_TRUE(child.IsRunning()) << "twhost audioout ended before sending:\n" << child.Wait().err;
        ASSERT_LT(std::chrono::steady_clock::now(), guard) << "no audio sent within 60 s:\n" << child.PeekOut();
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    child.Signal(SIGTERM);
    // The guard only catches a hang: a Stop that waits for the server would never return.
    const ChildResult r = child.Wait(60);
    ASSERT_FALSE(r.hung) << "twhost audioout did not end after SIGTERM with a stalled HTTP sink\n" << r.err;
    ASSERT_TRUE(r.exited) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(r.exitCode, 143) << r.err;
    // The audio was never confirmed, and the user is told why, naming the sink.
    const std::string why = "no answer from the server within 3000 ms";
    EXPECT_TRUE(Contains(r.err, why)) << r.err;
    EXPECT_TRUE(Contains(r.err, "127.0.0.1:" + std::to_string(server.Port()))) << r.err;
    const Json::Value summary = Summary(CheckedLines("twhost audioout", r.out));
    EXPECT_EQ(summary["endReason"].asString(), "terminated") << r.out;
    EXPECT_TRUE(Contains(summary["sinkError"].asString(), why)) << r.out;
    EXPECT_GE(server.Connections(), 1u);
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------------------
// The Modbus I/O module

// Standard input of a child fed line by line by the test, through a named pipe, so that each
// request goes out when the test has seen the module in the state it wants.
class RequestPipe {
public:
    explicit RequestPipe(const std::string& path) : m_strPath(path) {
        if (mkfifo(path.c_str(), 0600) != 0) m_strError = "mkfifo '" + path + "': " + std::strerror(errno);
    }
    ~RequestPipe() { Close(); }
    const std::string& Error() const { return m_strError; }
    const std::string& Path() const { return m_strPath; }
    // Opens the writing end once the child has the reading end open.
    bool Open() {
        m_Fd = open(m_strPath.c_str(), O_WRONLY | O_CLOEXEC);
        if (m_Fd < 0) m_strError = "open '" + m_strPath + "': " + std::strerror(errno);
        return m_Fd >= 0;
    }
    bool Send(const std::string& line) {
        const std::string text = line + "\n";
        return m_Fd >= 0 && write(m_Fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }
    // The end of the input.
    void Close() {
        if (m_Fd >= 0) close(m_Fd);
        m_Fd = -1;
    }

private:
    std::string m_strPath;
    std::string m_strError;
    int m_Fd = -1;
};

// The request lines of ioaction so far.
std::vector<Json::Value> RequestsSoFar(const ChildProcess& child) {
    return tw::test::LinesOfType(LinesSoFar(child), "request");
}

// Waits until ioaction has reported a request that switches port to state, later than the
// first `after` requests, and returns it; `after` becomes the count of requests up to it.
Json::Value WaitForPortRequest(ChildProcess& child, int port, bool state, size_t& after, std::string& why) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const std::vector<Json::Value> requests = RequestsSoFar(child);
        for (size_t i = after; i < requests.size(); ++i) {
            for (const Json::Value& p : requests[i]["ports"]) {
                if (p["port"].asInt() == port && p["state"].asBool() == state) {
                    after = i + 1;
                    return requests[i];
                }
            }
        }
        if (!child.IsRunning()) {
            const ChildResult r = child.Wait();
            why = "twhost ioaction ended (" + r.Describe() + ") before switching output " + std::to_string(port) +
                  ":\n" + r.out + r.err;
            return Json::Value();
        }
        if (std::chrono::steady_clock::now() > guard) {
            why = "output " + std::to_string(port) + " not switched within 60 s:\n" + child.PeekOut();
            return Json::Value();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

TEST(Faults, ModbusModuleGoneMidHoldFailsRequestsWithTheCauseAndServesThemAgainWhenBack) {
    // twhost ioaction owns the status record of its module: in a key space of this process's
    // own, so that no other test's device of the same number (the audio-out tests have a 41)
    // can hold that record while this one runs beside it.
    tw::test::ScopedProcessKeyBase keys(tw::test::kLiveFifoKeyRegion);
    tw::test::LoopbackModbusServer server(8);
    ASSERT_EQ(server.Error(), "");
    server.Start();
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    RequestPipe input(dir.File("requests"));
    ASSERT_EQ(input.Error(), "");
    const std::string module = "127.0.0.1:" + std::to_string(server.Port());
    ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({"/bin/sh", "-c",
                             "exec '" + std::string(TW_TWHOST_BIN) + "' ioaction --json --module-id 41 --outputs 4 " +
                                 "--modbus " + module + " < '" + input.Path() + "'"},
                            error))
        << error;
    ASSERT_TRUE(input.Open()) << input.Error();

    // Output 1 held until stopped; the module goes away while it is held.
    size_t seen = 0;
    ASSERT_TRUE(input.Send("{\"do\":\"start\",\"ports\":[1],\"hold\":-2}"));
    Json::Value r = WaitForPortRequest(child, 1, true, seen, error);
    ASSERT_TRUE(r.isObject()) << error;
    EXPECT_TRUE(r["ok"].asBool()) << r;
    EXPECT_TRUE(server.Coil(1));
    server.Stop();

    // While it is gone, a request fails and says why, naming the module.
    ASSERT_TRUE(input.Send("{\"do\":\"start\",\"ports\":[2],\"hold\":-2}"));
    r = WaitForPortRequest(child, 2, true, seen, error);
    ASSERT_TRUE(r.isObject()) << error;
    EXPECT_FALSE(r["ok"].asBool()) << r;
    EXPECT_TRUE(Contains(r["error"].asString(), module)) << r;
    EXPECT_TRUE(Contains(r["error"].asString(), "Connection refused")) << r;

    // Back, with its coils as they were: the next request goes through.
    ASSERT_TRUE(server.Restart()) << server.Error();
    ASSERT_TRUE(input.Send("{\"do\":\"start\",\"ports\":[3],\"hold\":-2}"));
    r = WaitForPortRequest(child, 3, true, seen, error);
    ASSERT_TRUE(r.isObject()) << error;
    EXPECT_TRUE(r["ok"].asBool()) << r;
    EXPECT_TRUE(server.Coil(3));
    EXPECT_TRUE(server.Coil(1)) << "the held output was lost with the connection";

    // Both released, and the input ends: the run ends with every output in its normal state.
    ASSERT_TRUE(input.Send("{\"do\":\"stop\",\"ports\":[1,2,3]}"));
    input.Close();
    const ChildResult done = child.Wait();
    ASSERT_TRUE(done.exited) << done.Describe() << "\n" << done.err;
    // A failed request makes the run's exit code 1, however it ended.
    EXPECT_EQ(done.exitCode, 1) << done.err;
    EXPECT_TRUE(Contains(done.err, "Connection refused")) << done.err;
    const std::vector<Json::Value> lines = CheckedLines("twhost ioaction", done.out);
    const Json::Value summary = Summary(lines);
    EXPECT_EQ(summary["endReason"].asString(), "completed") << done.out;
    // Only what was asked while the module was gone failed.
    for (const Json::Value& v : tw::test::LinesOfType(lines, "request")) {
        if (v["ok"].asBool()) continue;
        EXPECT_TRUE(Contains(v["error"].asString(), "Connection refused")) << v;
        EXPECT_EQ(v["ports"][0]["port"].asInt(), 2) << v;
    }
    EXPECT_GE(summary["failedRequests"].asInt(), 1) << done.out;
    for (const std::string& port : summary["moduleOutputs"].getMemberNames())
        EXPECT_FALSE(summary["moduleOutputs"][port].asBool()) << "output " << port << " left on:\n" << done.out;
    for (int port = 0; port < 4; ++port) EXPECT_FALSE(server.Coil(port)) << "coil " << port << " left on";
    server.Stop();
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------------------
// The mobile daemon

// The livecam statuses so far, as (motion, value) pairs.
std::vector<std::pair<bool, int>> LiveCamStatuses(const std::vector<Json::Value>& lines) {
    std::vector<std::pair<bool, int>> out;
    for (const Json::Value& v : tw::test::LinesOfType(lines, "status"))
        out.emplace_back(v["motion"].asBool(), v["value"].asInt());
    return out;
}

std::string DescribePairs(const std::vector<std::pair<bool, int>>& statuses) {
    std::ostringstream out;
    for (const auto& [motion, value] : statuses) out << "(" << (motion ? "motion" : "none") << ", " << value << ") ";
    return out.str();
}

// Waits until livecam has reported a status with the given level; false when it ended or
// the guard ran out first.
bool WaitForLevel(ChildProcess& livecam, int value, std::string& why) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        for (const auto& status : LiveCamStatuses(LinesSoFar(livecam)))
            if (status.second == value) return true;
        if (!livecam.IsRunning()) {
            const ChildResult r = livecam.Wait();
            why = "twhost livecam ended (" + r.Describe() + ") before a status of level " + std::to_string(value) +
                  ":\n" + r.out + r.err;
            return false;
        }
        if (std::chrono::steady_clock::now() > guard) {
            why = "no status of level " + std::to_string(value) + " within 60 s:\n" + livecam.PeekOut();
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

TEST(Faults, MobileDaemonKilledMidStreamEndsTheCycleAndANewDaemonIsServedByTheNextOne) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string control = dir.File("mobiled.sock");
    // One event, then the stream is held open: the daemon dies with the stream open.
    const std::string first = dir.File("first.txt");
    std::ofstream(first) << "0.2 IsTrig:1 Level:57\n";
    const std::string second = dir.File("second.txt");
    std::ofstream(second) << "0.2 IsTrig:1 Level:80\n";
    const int camId = 13000 + static_cast<int>(getpid() % 1000);
    std::string error;

    ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({TW_TWHOST_BIN, "mobiled", "--socket", control, "--script", first, "--hold", "--json"},
                             error))
        << error;
    ASSERT_TRUE(tw::test::WaitForOutput(daemon, "\"listening\"", error)) << error;
    ChildProcess livecam;
    ASSERT_TRUE(livecam.Start({TW_TWHOST_BIN, "livecam", "--camera-id", std::to_string(camId), "--mobiled", control,
                               "--json"},
                              error))
        << error;
    ASSERT_TRUE(WaitForLevel(livecam, 57, error)) << error;
    daemon.Signal(SIGKILL);
    const ChildResult killed = daemon.Wait();
    ASSERT_EQ(killed.termSignal, SIGKILL) << killed.Describe();

    // A new daemon on the same control socket (the dead one's file is still there).
    ChildProcess again;
    ASSERT_TRUE(again.Start({TW_TWHOST_BIN, "mobiled", "--socket", control, "--script", second, "--hold", "--json"},
                            error))
        << error;
    ASSERT_TRUE(tw::test::WaitForOutput(again, "\"listening\"", error)) << error;
    ASSERT_TRUE(WaitForLevel(livecam, 80, error)) << error;

    const ChildResult r = Terminated(livecam);
    const ChildResult served = Terminated(again);
    ASSERT_TRUE(r.exited) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(r.exitCode, 143) << r.err;
    const std::vector<Json::Value> lines = CheckedLines("twhost livecam", r.out);
    const std::vector<std::pair<bool, int>> statuses = LiveCamStatuses(lines);
    // The motion of the dead daemon's stream ended with it, before the new one's began.
    size_t at57 = statuses.size(), at80 = statuses.size();
    for (size_t i = 0; i < statuses.size(); ++i) {
        if (statuses[i].second == 57 && at57 == statuses.size()) at57 = i;
        if (statuses[i].second == 80 && at80 == statuses.size()) at80 = i;
    }
    ASSERT_LT(at57, at80) << DescribePairs(statuses);
    EXPECT_TRUE(statuses[at57].first) << DescribePairs(statuses);
    EXPECT_TRUE(statuses[at80].first) << DescribePairs(statuses);
    bool clearedBetween = false;
    for (size_t i = at57 + 1; i < at80; ++i) {
        EXPECT_FALSE(statuses[i].first) << "motion while no daemon streamed: " << DescribePairs(statuses);
        if (!statuses[i].first) clearedBetween = true;
    }
    EXPECT_TRUE(clearedBetween) << "the dead stream's motion was never cleared: " << DescribePairs(statuses);
    EXPECT_EQ(Summary(lines)["endReason"].asString(), "terminated") << r.out;
    ASSERT_TRUE(served.exited) << served.Describe();
    EXPECT_EQ(served.exitCode, 143) << served.err;
    EXPECT_NE(access(control.c_str(), F_OK), 0) << "the daemon left its control socket behind";
    EXPECT_NE(access(("/tmp/tw_livecam_detector_" + std::to_string(camId) + ".sock").c_str(), F_OK), 0)
        << "the detector left its socket behind";
}

}  // namespace

namespace {

// ---------------------------------------------------------------------------------------
// The live-FIFO publisher

// The statuses of twhost detect so far.
std::vector<tw::test::DetectStatus> DetectStatusesSoFar(const ChildProcess& detect) {
    std::vector<tw::test::DetectStatus> out;
    for (const Json::Value& v : tw::test::LinesOfType(LinesSoFar(detect), "status"))
        out.push_back({v["t"].asDouble(), v["motion"].asBool(), v["value"].asInt()});
    return out;
}

// Waits until the detector has reported a status after its first `after` ones that passes
// `want`; returns its index, or -1 with why.
template <typename Want>
int WaitForStatus(ChildProcess& detect, size_t after, Want want, const std::string& what, std::string& why) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    for (;;) {
        const std::vector<tw::test::DetectStatus> statuses = DetectStatusesSoFar(detect);
        for (size_t i = after; i < statuses.size(); ++i)
            if (want(statuses[i])) return static_cast<int>(i);
        if (!detect.IsRunning()) {
            const ChildResult r = detect.Wait();
            why = "twhost detect ended (" + r.Describe() + ") before " + what + ":\n" + r.err;
            return -1;
        }
        if (std::chrono::steady_clock::now() > guard) {
            why = "no " + what + " within 60 s: " + tw::test::DescribeStatuses(statuses);
            return -1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

TEST(Faults, PublisherKilledUnderTheDetectorLeavesNoMotionAndANewPublisherIsDetected) {
    av_log_set_level(AV_LOG_ERROR);
    tw::test::ScopedProcessKeyBase keys(tw::test::kLiveFifoKeyRegion);
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    // The first publisher's object moves from 1.5 s on: it is killed mid-movement. The
    // second one's stands still for long enough that the detector settles on its picture
    // (the object stands elsewhere than in the dead one's last frame) before it moves.
    const std::string moving = dir.File("moving.mp4");
    std::string error;
    ASSERT_TRUE(tw::host::WriteClip(tw::test::SmallClip(VIDEO_CODEC_H264, 20.0, {{1.5, 20.0}}), moving, error))
        << error;
    const std::string later = dir.File("later.mp4");
    ASSERT_TRUE(tw::host::WriteClip(tw::test::SmallClip(VIDEO_CODEC_H264, 12.0, {{6.0, 12.0}}), later, error))
        << error;

    const std::string camId = "6";
    ChildProcess first;
    ASSERT_TRUE(tw::test::StartPublisher(first, {moving, "--camera-id", camId}, error)) << error;
    ChildProcess detect;
    ASSERT_TRUE(detect.Start({TW_TWHOST_BIN, "detect", "--shm", "--camera-id", camId, "--json"}, error)) << error;
    const auto motion = [](const tw::test::DetectStatus& s) { return s.motion; };
    const auto still = [](const tw::test::DetectStatus& s) { return !s.motion; };
    const int moved = WaitForStatus(detect, 0, motion, "motion from the first publisher", error);
    ASSERT_GE(moved, 0) << error;

    first.Signal(SIGKILL);
    // Reaped: a zombie would still count as a live publisher.
    const ChildResult killed = first.Wait();
    ASSERT_EQ(killed.termSignal, SIGKILL) << killed.Describe();
    const size_t atKill = DetectStatusesSoFar(detect).size();

    // The detector goes on, with nothing moving any more: once it has settled on the last
    // picture it reports no motion, and goes on doing so for as long as nobody publishes
    // (two seconds of its statuses here).
    const int settled = WaitForStatus(detect, atKill, still, "no motion after the publisher was killed", error);
    ASSERT_GE(settled, 0) << error;
    const double settledAt = DetectStatusesSoFar(detect)[static_cast<size_t>(settled)].t;
    const auto twoSecondsOn = [settledAt](const tw::test::DetectStatus& s) { return s.t >= settledAt + 2.0; };
    ASSERT_GE(WaitForStatus(detect, static_cast<size_t>(settled), twoSecondsOn,
                            "statuses over two seconds without a publisher", error),
              0)
        << error;

    // The same camera and stream from a new publisher.
    ChildProcess second;
    ASSERT_TRUE(tw::test::StartPublisher(second, {later, "--camera-id", camId}, error)) << error;
    const std::vector<tw::test::DetectStatus> gone = DetectStatusesSoFar(detect);
    for (size_t i = static_cast<size_t>(settled); i < gone.size(); ++i)
        EXPECT_FALSE(gone[i].motion) << "motion at " << gone[i].t << " s with no publisher: "
                                     << tw::test::DescribeStatuses(gone);
    // Its picture settles, and its object's movement is reported: the detector reads the
    // new publisher's frames.
    const int calm = WaitForStatus(detect, gone.size(), still, "no motion from the new publisher", error);
    ASSERT_GE(calm, 0) << error;
    ASSERT_GE(WaitForStatus(detect, static_cast<size_t>(calm), motion, "motion from the new publisher", error), 0)
        << error;

    const ChildResult r = Terminated(detect);
    const ChildResult streamed = Terminated(second);
    ASSERT_TRUE(r.exited) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(r.exitCode, 143) << r.err;
    tw::test::DetectJson json;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    EXPECT_EQ(json.summary["endReason"].asString(), "terminated");
    EXPECT_TRUE(streamed.exited && streamed.exitCode == 143) << streamed.Describe() << "\n" << streamed.err;
    EXPECT_TRUE(Contains(streamed.out, "live FIFO removed")) << streamed.out;
}

}  // namespace
