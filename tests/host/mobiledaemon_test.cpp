// The mobile-daemon emulator in-process, against the host's client MobiledApi: the test plays
// the detector's side of the event stream (it serves the socket the daemon connects to) and
// looks at the bytes as they arrive on the wire.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "tw/mobiled.h"
#include "twhost/mobiled.h"
#include "twhost/mobiledaemon.h"

namespace {

using tw::host::MobiledEventFrame;
using tw::host::MobiledScript;
using tw::host::MobiledScriptEvent;
using tw::host::MobileDaemon;
using tw::host::MobileDaemonOptions;

// Hang guards only: a broken daemon must not stall the suite. Nothing is timed.
constexpr int kGuardMs = 10000;

std::string UniqueSocketName() {
    static std::atomic<int> s_Counter{0};
    return "twmdtest_" + std::to_string(getpid()) + "_" + std::to_string(++s_Counter);
}

sockaddr_un Address(const std::string& path) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return addr;
}

// The detector's side: a listening socket at /tmp/<name>.sock.
class EventSocket {
public:
    EventSocket() : m_strName(UniqueSocketName()), m_strPath(tw::host::MobiledStreamSocketPath(m_strName)) {
        unlink(m_strPath.c_str());
        m_Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un addr = Address(m_strPath);
        if (m_Fd < 0 || bind(m_Fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 ||
            listen(m_Fd, 5) != 0) {
            if (m_Fd >= 0) close(m_Fd);
            m_Fd = -1;
        }
    }
    ~EventSocket() {
        if (m_Fd >= 0) close(m_Fd);
        unlink(m_strPath.c_str());
    }
    EventSocket(const EventSocket&) = delete;
    EventSocket& operator=(const EventSocket&) = delete;

    bool Ok() const { return m_Fd >= 0; }
    const std::string& Name() const { return m_strName; }

    // The daemon's connection, or -1 when none comes.
    int Accept() {
        pollfd pfd{m_Fd, POLLIN, 0};
        if (poll(&pfd, 1, kGuardMs) <= 0) return -1;
        return accept4(m_Fd, nullptr, nullptr, SOCK_CLOEXEC);
    }
    bool HasPendingConnection() {
        pollfd pfd{m_Fd, POLLIN, 0};
        return poll(&pfd, 1, 0) > 0;
    }

private:
    std::string m_strName;
    std::string m_strPath;
    int m_Fd = -1;
};

// What arrived on a connection, read as a detector reads: one read per wake-up.
struct Received {
    std::string bytes;
    std::vector<size_t> ends;   // offset after every read
    bool eof = false;
};

// Reads until the peer closes, or until at least 'want' bytes are in (want 0: until closed).
Received Read(int fd, size_t want = 0) {
    Received r;
    const auto guard = std::chrono::steady_clock::now() + std::chrono::milliseconds(kGuardMs);
    while (std::chrono::steady_clock::now() < guard) {
        if (want > 0 && r.bytes.size() >= want) break;
        pollfd pfd{fd, POLLIN, 0};
        if (poll(&pfd, 1, 100) <= 0) continue;
        char buf[4096];
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0) {
            r.eof = true;
            break;
        }
        r.bytes.append(buf, static_cast<size_t>(n));
        r.ends.push_back(r.bytes.size());
    }
    return r;
}

MobiledScriptEvent Motion(double delaySec, const std::string& payload) {
    MobiledScriptEvent e;
    e.delaySec = delaySec;
    e.type = "motion";
    e.payload = payload;
    return e;
}

class MobileDaemonTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(m_Dir.Ok());
        m_strControl = m_Dir.File("mobiled.sock");
        tw::host::SetMobiledHandler(nullptr);
        tw::host::SetMobiledSocketPath(m_strControl);
    }
    void TearDown() override {
        m_pDaemon.reset();
        tw::host::SetMobiledSocketPath(tw::host::kDefaultMobiledSocket);
        tw::host::SetMobiledHandler(nullptr);
    }
    void StartDaemon(MobileDaemonOptions options) {
        options.m_strSocketPath = m_strControl;
        m_pDaemon = std::make_unique<MobileDaemon>(std::move(options));
        std::string error;
        ASSERT_TRUE(m_pDaemon->Start(error)) << error;
    }
    static Json::Value Start(int camId, const std::string& socketName) {
        Json::Value answer;
        EXPECT_EQ(MobiledApi::StartStream(camId, "event", socketName, &answer), 0);
        return answer;
    }
    static Json::Value Stop(int camId) {
        Json::Value answer;
        EXPECT_EQ(MobiledApi::StopStream(camId, "event", &answer), 0);
        return answer;
    }

    tw::test::ScopedTempDir m_Dir;
    std::string m_strControl;
    std::unique_ptr<MobileDaemon> m_pDaemon;
};

TEST(MobiledFrame, FrameIsHeaderLinesEmptyLineAndExactPayload) {
    EXPECT_EQ(MobiledEventFrame("motion", "IsTrig:1 Level:57"),
              "Content-Type: motion\r\nContent-Length: 17\r\n\r\nIsTrig:1 Level:57");
}

TEST_F(MobileDaemonTest, StartIsAnsweredWithSuccessAndFramesArriveInScriptOrder) {
    MobileDaemonOptions options;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57"), Motion(0.05, "IsTrig:0 Level:0")};
    MobiledScriptEvent other = Motion(0.05, "Snapshot:3");
    other.type = "event";
    options.m_Script.events.push_back(other);
    options.m_Script.events.push_back(Motion(0.05, "IsTrig:1 Level:80"));
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    const Json::Value answer = Start(21, sock.Name());
    EXPECT_TRUE(answer["success"].asBool()) << answer.toStyledString();
    const int fd = sock.Accept();
    ASSERT_GE(fd, 0) << "the daemon never connected";
    const Received r = Read(fd);
    close(fd);

    EXPECT_TRUE(r.eof) << "the stream should end with the script";
    EXPECT_EQ(r.bytes, MobiledEventFrame("motion", "IsTrig:1 Level:57") + MobiledEventFrame("motion", "IsTrig:0 Level:0") +
                           MobiledEventFrame("event", "Snapshot:3") + MobiledEventFrame("motion", "IsTrig:1 Level:80"));
    EXPECT_TRUE(Stop(21)["success"].asBool());
}

TEST_F(MobileDaemonTest, CoalescedFramesArriveTogetherInOneWrite) {
    MobileDaemonOptions options;
    options.m_Coalesce = 2;
    options.m_Script.events = {Motion(0.2, "IsTrig:1 Level:10"), Motion(0.2, "IsTrig:1 Level:20"),
                               Motion(0.2, "IsTrig:0 Level:0"), Motion(0.2, "IsTrig:1 Level:40")};
    std::vector<std::string> frames;
    for (const MobiledScriptEvent& e : options.m_Script.events) frames.push_back(e.Bytes());
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    EXPECT_TRUE(Start(22, sock.Name())["success"].asBool());
    const int fd = sock.Accept();
    ASSERT_GE(fd, 0);
    const Received r = Read(fd);
    close(fd);

    ASSERT_EQ(r.bytes, frames[0] + frames[1] + frames[2] + frames[3]);
    // A write is never torn by the reader: every read ends on a group's end, and the group
    // of two frames is in the first read.
    const size_t firstGroup = frames[0].size() + frames[1].size();
    ASSERT_FALSE(r.ends.empty());
    EXPECT_GE(r.ends.front(), firstGroup);
    for (const size_t end : r.ends) {
        EXPECT_TRUE(end == firstGroup || end == r.bytes.size()) << "a read ended at " << end;
    }
}

TEST_F(MobileDaemonTest, SplitFramesArriveInPiecesCutInsideHeaderAndPayload) {
    MobileDaemonOptions options;
    options.m_blSplit = true;
    options.m_PauseMs = 200;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57"), Motion(0.0, "IsTrig:0 Level:0")};
    std::vector<std::string> frames;
    for (const MobiledScriptEvent& e : options.m_Script.events) frames.push_back(e.Bytes());
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    EXPECT_TRUE(Start(23, sock.Name())["success"].asBool());
    const int fd = sock.Accept();
    ASSERT_GE(fd, 0);
    const Received r = Read(fd);
    close(fd);
    ASSERT_EQ(r.bytes, frames[0] + frames[1]);

    // Where the pieces may end: a frame is cut in the middle of its header and in the middle
    // of its payload, and a frame's end is a write's end.
    std::vector<size_t> allowed;
    std::vector<std::pair<size_t, size_t>> headers, payloads;   // [begin, end)
    size_t base = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        const size_t header = frames[i].find("\r\n\r\n") + 4;
        const size_t payloadSize = frames[i].size() - header;
        allowed.push_back(base + header / 2);
        allowed.push_back(base + header + payloadSize / 2);
        allowed.push_back(base + frames[i].size());
        headers.push_back({base, base + header});
        payloads.push_back({base + header, base + frames[i].size()});
        base += frames[i].size();
    }
    bool cutInHeader = false;
    bool cutInPayload = false;
    for (const size_t end : r.ends) {
        EXPECT_NE(std::find(allowed.begin(), allowed.end(), end), allowed.end()) << "a read ended at " << end;
        for (const auto& h : headers) cutInHeader |= end > h.first && end < h.second;
        for (const auto& p : payloads) cutInPayload |= end > p.first && end < p.second;
    }
    EXPECT_TRUE(cutInHeader) << "no piece ended inside a header";
    EXPECT_TRUE(cutInPayload) << "no piece ended inside a payload";
}

TEST_F(MobileDaemonTest, RefusedStartAnswersSuccessFalseWithTheGivenMessage) {
    MobileDaemonOptions options;
    options.m_blRefuse = true;
    options.m_strRefuseMsg = "busy";
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57")};
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    const Json::Value answer = Start(24, sock.Name());
    EXPECT_FALSE(answer["success"].asBool());
    EXPECT_EQ(answer["errorMsg"].asString(), "busy");
    // A refused stream was never begun, so there is nothing to stop either.
    EXPECT_FALSE(Stop(24)["success"].asBool());
    EXPECT_FALSE(sock.HasPendingConnection());
}

TEST_F(MobileDaemonTest, OtherStreamIsRefusedNamingIt) {
    StartDaemon(MobileDaemonOptions());
    Json::Value answer;
    ASSERT_EQ(MobiledApi::StartStream(25, "video", "tw_livecam_detector_25", &answer), 0);
    EXPECT_FALSE(answer["success"].asBool());
    EXPECT_NE(answer["errorMsg"].asString().find("'video'"), std::string::npos) << answer["errorMsg"].asString();
}

TEST_F(MobileDaemonTest, UnknownCommandIsRefusedNamingIt) {
    StartDaemon(MobileDaemonOptions());
    Json::Value request(Json::objectValue);
    request["cmd"] = "reboot";
    request["cameraId"] = 26;
    request["stream"] = "event";
    Json::Value answer;
    std::string error;
    ASSERT_EQ(tw::host::SendMobiledRequest(m_strControl, request, answer, error), 0) << error;
    EXPECT_FALSE(answer["success"].asBool());
    EXPECT_NE(answer["errorMsg"].asString().find("'reboot'"), std::string::npos) << answer["errorMsg"].asString();
}

TEST_F(MobileDaemonTest, StopWithoutAStreamIsRefusedNamingTheCamera) {
    StartDaemon(MobileDaemonOptions());
    const Json::Value answer = Stop(27);
    EXPECT_FALSE(answer["success"].asBool());
    EXPECT_NE(answer["errorMsg"].asString().find("camera 27"), std::string::npos) << answer["errorMsg"].asString();
}

TEST_F(MobileDaemonTest, RequestThatIsNotJsonGetsAnErrorAnswerAndTheDaemonServesOn) {
    StartDaemon(MobileDaemonOptions());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0);
    const sockaddr_un addr = Address(m_strControl);
    ASSERT_EQ(connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
    const std::string garbage = "startStream please\n";
    ASSERT_EQ(send(fd, garbage.data(), garbage.size(), MSG_NOSIGNAL), static_cast<ssize_t>(garbage.size()));
    const Received r = Read(fd);
    close(fd);
    Json::Value answer;
    std::istringstream text(r.bytes);
    std::string error;
    ASSERT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &answer, &error)) << r.bytes;
    EXPECT_FALSE(answer["success"].asBool());
    EXPECT_NE(answer["errorMsg"].asString().find("not JSON"), std::string::npos) << r.bytes;

    EventSocket sock;
    ASSERT_TRUE(sock.Ok());
    EXPECT_TRUE(Start(28, sock.Name())["success"].asBool());
    const int stream = sock.Accept();
    EXPECT_GE(stream, 0);
    if (stream >= 0) close(stream);
}

TEST_F(MobileDaemonTest, StopStreamClosesTheEventConnection) {
    MobileDaemonOptions options;
    options.m_blHold = true;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57")};
    const std::string frame = options.m_Script.events[0].Bytes();
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    EXPECT_TRUE(Start(29, sock.Name())["success"].asBool());
    const int fd = sock.Accept();
    ASSERT_GE(fd, 0);
    const Received first = Read(fd, frame.size());
    EXPECT_EQ(first.bytes, frame);
    EXPECT_FALSE(first.eof) << "a held stream stays open after its script";

    EXPECT_TRUE(Stop(29)["success"].asBool());
    const Received rest = Read(fd);
    close(fd);
    EXPECT_TRUE(rest.eof);
    EXPECT_TRUE(rest.bytes.empty());
}

TEST_F(MobileDaemonTest, SecondStartForTheSameCameraReplacesTheFirstStream) {
    MobileDaemonOptions options;
    options.m_blHold = true;
    options.m_blRepeat = true;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57")};
    const std::string frame = options.m_Script.events[0].Bytes();
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    EXPECT_TRUE(Start(30, sock.Name())["success"].asBool());
    const int first = sock.Accept();
    ASSERT_GE(first, 0);
    EXPECT_EQ(Read(first, frame.size()).bytes, frame);

    EXPECT_TRUE(Start(30, sock.Name())["success"].asBool());
    const Received firstRest = Read(first);
    close(first);
    EXPECT_TRUE(firstRest.eof) << "the replaced stream must be closed";
    const int second = sock.Accept();
    ASSERT_GE(second, 0);
    EXPECT_EQ(Read(second, frame.size()).bytes, frame) << "--repeat plays the script again";
    EXPECT_TRUE(Stop(30)["success"].asBool());
    EXPECT_TRUE(Read(second).eof);
    close(second);
}

TEST_F(MobileDaemonTest, WithoutRepeatOnlyTheFirstStartPlaysTheScript) {
    MobileDaemonOptions options;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57")};
    const std::string frame = options.m_Script.events[0].Bytes();
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    EXPECT_TRUE(Start(31, sock.Name())["success"].asBool());
    int fd = sock.Accept();
    ASSERT_GE(fd, 0);
    Received r = Read(fd);
    close(fd);
    EXPECT_EQ(r.bytes, frame);
    EXPECT_TRUE(Stop(31)["success"].asBool());

    EXPECT_TRUE(Start(31, sock.Name())["success"].asBool());
    fd = sock.Accept();
    ASSERT_GE(fd, 0);
    r = Read(fd);
    close(fd);
    EXPECT_TRUE(r.eof);
    EXPECT_TRUE(r.bytes.empty());
}

TEST_F(MobileDaemonTest, NoConnectAgreesToTheStartButNeverConnects) {
    MobileDaemonOptions options;
    options.m_blNoConnect = true;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:57")};
    StartDaemon(std::move(options));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());

    EXPECT_TRUE(Start(32, sock.Name())["success"].asBool());
    EXPECT_TRUE(Stop(32)["success"].asBool());
    // Streams connect on threads that a stop joins: nothing can be on its way any more.
    EXPECT_FALSE(sock.HasPendingConnection());
}

TEST_F(MobileDaemonTest, InProcessHandlerAnswersLikeTheSocket) {
    MobileDaemonOptions options;
    options.m_Script.events = {Motion(0.0, "IsTrig:1 Level:5")};
    const std::string frame = options.m_Script.events[0].Bytes();
    MobileDaemon daemon(std::move(options));   // not serving any socket
    tw::host::SetMobiledHandler([&daemon](const Json::Value& request, Json::Value& answer) {
        daemon.HandleRequest(request, answer);
        return 0;
    });
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());
    EXPECT_TRUE(Start(33, sock.Name())["success"].asBool());
    const int fd = sock.Accept();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(Read(fd).bytes, frame);
    close(fd);
    EXPECT_TRUE(Stop(33)["success"].asBool());
    tw::host::SetMobiledHandler(nullptr);
}

TEST_F(MobileDaemonTest, NoDaemonMakesMobiledApiFail) {
    Json::Value answer;
    EXPECT_NE(MobiledApi::StartStream(34, "event", "tw_livecam_detector_34", &answer), 0);
    EXPECT_NE(MobiledApi::StopStream(34, "event", &answer), 0);
}

// A process at the control socket that answers each request with the given line.
class CannedDaemon {
public:
    CannedDaemon(const std::string& path, std::string reply) : m_strPath(path), m_strReply(std::move(reply)) {
        m_Fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_un addr = Address(path);
        if (m_Fd < 0 || bind(m_Fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) != 0 || listen(m_Fd, 5) != 0) {
            if (m_Fd >= 0) close(m_Fd);
            m_Fd = -1;
            return;
        }
        m_Thread = std::thread([this] {
            while (!m_blStop) {
                pollfd pfd{m_Fd, POLLIN, 0};
                if (poll(&pfd, 1, 50) <= 0) continue;
                const int fd = accept(m_Fd, nullptr, nullptr);
                if (fd < 0) continue;
                Read(fd, 1);
                send(fd, m_strReply.data(), m_strReply.size(), MSG_NOSIGNAL);
                close(fd);
            }
        });
    }
    ~CannedDaemon() {
        m_blStop = true;
        if (m_Thread.joinable()) m_Thread.join();
        if (m_Fd >= 0) close(m_Fd);
        unlink(m_strPath.c_str());
    }
    bool Ok() const { return m_Fd >= 0; }

private:
    std::string m_strPath;
    std::string m_strReply;
    int m_Fd = -1;
    std::atomic<bool> m_blStop{false};
    std::thread m_Thread;
};

TEST_F(MobileDaemonTest, DaemonAnsweringGarbageMakesMobiledApiFail) {
    {
        CannedDaemon garbage(m_strControl, "hello, I am not JSON\n");
        ASSERT_TRUE(garbage.Ok());
        Json::Value answer;
        EXPECT_NE(MobiledApi::StartStream(35, "event", "tw_livecam_detector_35", &answer), 0);
        EXPECT_NE(MobiledApi::StopStream(35, "event", &answer), 0);
    }
    {
        CannedDaemon notAnObject(m_strControl, "[true]\n");
        ASSERT_TRUE(notAnObject.Ok());
        Json::Value answer;
        EXPECT_NE(MobiledApi::StartStream(35, "event", "tw_livecam_detector_35", &answer), 0);
    }
}

TEST_F(MobileDaemonTest, StoppingTheDaemonRemovesItsControlSocketAndClosesStreams) {
    MobileDaemonOptions options;
    options.m_blHold = true;
    StartDaemon(std::move(options));
    struct stat st {};
    ASSERT_EQ(lstat(m_strControl.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EventSocket sock;
    ASSERT_TRUE(sock.Ok());
    EXPECT_TRUE(Start(36, sock.Name())["success"].asBool());
    const int fd = sock.Accept();
    ASSERT_GE(fd, 0);

    m_pDaemon->Stop();
    EXPECT_NE(lstat(m_strControl.c_str(), &st), 0) << "control socket file left behind";
    EXPECT_TRUE(Read(fd).eof);
    close(fd);
    Json::Value answer;
    EXPECT_NE(MobiledApi::StartStream(36, "event", sock.Name(), &answer), 0);
}

TEST_F(MobileDaemonTest, SecondDaemonOnALiveSocketIsRefusedNamingThePath) {
    StartDaemon(MobileDaemonOptions());
    MobileDaemonOptions options;
    options.m_strSocketPath = m_strControl;
    MobileDaemon second(options);
    std::string error;
    EXPECT_FALSE(second.Start(error));
    EXPECT_NE(error.find(m_strControl), std::string::npos) << error;
    // The first one still serves.
    Json::Value answer;
    EXPECT_EQ(MobiledApi::StopStream(37, "event", &answer), 0);
}

TEST_F(MobileDaemonTest, StaleSocketFileIsReplacedAndOtherFilesAreLeftAlone) {
    {
        // A socket whose daemon is gone: bound, never listened on, closed.
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        const sockaddr_un addr = Address(m_strControl);
        ASSERT_EQ(bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)), 0);
        close(fd);
    }
    StartDaemon(MobileDaemonOptions());
    Json::Value answer;
    EXPECT_EQ(MobiledApi::StopStream(38, "event", &answer), 0);
    m_pDaemon.reset();

    const std::string plain = m_Dir.File("notasocket");
    std::ofstream(plain) << "keep me\n";
    MobileDaemonOptions options;
    options.m_strSocketPath = plain;
    MobileDaemon daemon(options);
    std::string error;
    EXPECT_FALSE(daemon.Start(error));
    EXPECT_NE(error.find(plain), std::string::npos) << error;
    std::ifstream kept(plain);
    std::string line;
    std::getline(kept, line);
    EXPECT_EQ(line, "keep me");
}

// ---------------------------------------------------------------------------------------
// Scripts

TEST(MobiledScript, CommentsAndBlankLinesAreSkippedAndTypesAndRawBytesAreRead) {
    std::istringstream text(
        "# a timeline\n"
        "\n"
        "0.5 IsTrig:1 Level:57\n"
        "   \t\n"
        "1 type=event Snapshot:1  \r\n"
        "0.25 raw \"Content-Type: motion\\r\\nContent-Length: 3\\r\\n\\r\\nA\\x00\\101\"\n");
    MobiledScript script;
    std::string error;
    ASSERT_TRUE(tw::host::ParseMobiledScript(text, "t.txt", script, error)) << error;
    ASSERT_EQ(script.events.size(), 3u);
    EXPECT_DOUBLE_EQ(script.events[0].delaySec, 0.5);
    EXPECT_EQ(script.events[0].line, 3);
    EXPECT_EQ(script.events[0].Bytes(), "Content-Type: motion\r\nContent-Length: 17\r\n\r\nIsTrig:1 Level:57");
    EXPECT_DOUBLE_EQ(script.events[1].delaySec, 1.0);
    EXPECT_EQ(script.events[1].line, 5);
    EXPECT_EQ(script.events[1].Bytes(), "Content-Type: event\r\nContent-Length: 10\r\n\r\nSnapshot:1");
    EXPECT_TRUE(script.events[2].raw);
    EXPECT_EQ(script.events[2].Bytes(),
              std::string("Content-Type: motion\r\nContent-Length: 3\r\n\r\nA\0A", 46));
}

TEST(MobiledScript, ParseErrorsNameTheFileAndTheLine) {
    const std::vector<std::pair<std::string, std::string>> bad = {
        {"soon IsTrig:1", "bad delay 'soon'"},
        {"-1 IsTrig:1", "bad delay '-1'"},
        {"0.5", "no payload"},
        {"0.5 type= IsTrig:1", "empty type="},
        {"0.5 type=event", "no payload after type=event"},
        {"0.5 raw IsTrig:1", "raw needs a quoted string"},
        {"0.5 raw \"IsTrig:1", "not closed"},
        {"0.5 raw \"\\q\"", "unknown escape '\\q'"},
        {"0.5 raw \"\\x\"", "\\x needs a hexadecimal digit"},
        {"0.5 raw \"ab\" cd", "after the closing quote"},
        {"0.5 raw \"\"", "raw bytes are empty"},
        {"0.5 type=event raw \"x\"", "type= does not go with raw bytes"},
    };
    for (const auto& [line, why] : bad) {
        std::istringstream text("# first\n0 IsTrig:0\n" + line + "\n1 IsTrig:1\n");
        MobiledScript script;
        std::string error;
        EXPECT_FALSE(tw::host::ParseMobiledScript(text, "events.txt", script, error)) << line;
        EXPECT_EQ(error.rfind("events.txt:3: ", 0), 0u) << line << " -> " << error;
        EXPECT_NE(error.find(why), std::string::npos) << line << " -> " << error;
    }
}

TEST(MobiledScript, MissingScriptFileIsNamed) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    MobiledScript script;
    std::string error;
    const std::string path = dir.File("absent.txt");
    EXPECT_FALSE(tw::host::LoadMobiledScript(path, script, error));
    EXPECT_NE(error.find(path), std::string::npos) << error;
}

TEST(MobiledScript, ScriptFileIsReadWithItsNameInErrors) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string path = dir.File("timeline.txt");
    std::ofstream(path) << "0.5 IsTrig:1 Level:57\n0.1 IsTrig:0 Level:0\nbad\n";
    MobiledScript script;
    std::string error;
    EXPECT_FALSE(tw::host::LoadMobiledScript(path, script, error));
    EXPECT_EQ(error.rfind(path + ":3: ", 0), 0u) << error;
}

}  // namespace
