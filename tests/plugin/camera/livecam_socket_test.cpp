// The live-cam detector on real UNIX sockets: the test plays the mobile daemon, both its
// control side (in-process) and its stream side (a client that connects to the detector's
// socket and writes frames).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <grp.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "camera/livecamdetector.h"
#include "plugin/camera/livecam_access.h"
#include "plugin/camera/livecam_testutil.h"
#include "support/testenv.h"
#include "twhost/eventlog.h"
#include "twhost/stores.h"

namespace {

using A = LiveCamDetectorAccess;
using tw::host::LogRecord;
using tw::test::ScopedLogCapture;
using tw::test::ScopedVerboseLog;
using tw::test::livecam::Answer;
using tw::test::livecam::FakeMobiled;
using tw::test::livecam::FindMatching;
using tw::test::livecam::Frame;
using tw::test::livecam::IsLiveCamRecord;
using tw::test::livecam::MobiledRequest;
using tw::test::livecam::PathExists;
using tw::test::livecam::SocketPath;
using tw::test::livecam::StreamClient;

using tw::test::livecam::Event;
using tw::test::livecam::Events;

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// One camera's detector, with its socket path cleared before and after.
struct Rig {
    explicit Rig(int id)
        : m_Camera(tw::host::MakeCamera(id, VIDEO_CODEC_H264)),
          m_Events(id),
          m_Det(&m_Camera, &m_Events),
          m_strPath(SocketPath(id)) {
        unlink(m_strPath.c_str());
    }
    ~Rig() {
        A::SetRunning(m_Det, false);
        unlink(m_strPath.c_str());
    }
    Camera m_Camera;
    EventBuf m_Events;
    LiveCamDetector m_Det;
    std::string m_strPath;
};

// Runs one detection cycle on a thread of its own, as the worker would, with the running
// flag set; the destructor clears the flag and waits for the cycle to end.
class CycleThread {
public:
    explicit CycleThread(LiveCamDetector& det) : m_Det(det) {
        A::SetRunning(m_Det, true);
        m_Thread = std::thread([this] { m_Result = m_Det.DetEventByLocalSocketStream(); });
    }
    ~CycleThread() {
        A::SetRunning(m_Det, false);
        Join();
    }
    void Join() {
        if (m_Thread.joinable()) m_Thread.join();
    }
    int Result() const { return m_Result; }

private:
    LiveCamDetector& m_Det;
    std::thread m_Thread;
    int m_Result = -2;
};

// Runs one receive loop on a thread of its own, with the running flag set.
class RecvLoopThread {
public:
    RecvLoopThread(LiveCamDetector& det, int readFd) : m_Det(det) {
        A::SetRunning(m_Det, true);
        m_Thread = std::thread([this, readFd] { m_Result = m_Det.DoRecvSocketLoop(readFd); });
    }
    ~RecvLoopThread() {
        A::SetRunning(m_Det, false);
        Join();
    }
    void Join() {
        if (m_Thread.joinable()) m_Thread.join();
    }
    int Result() const { return m_Result; }

private:
    LiveCamDetector& m_Det;
    std::thread m_Thread;
    int m_Result = -2;
};

// Between cycles nothing is held: no socket file, and no motion left in the event buffer.
void ExpectCycleLeftNothingBehind(Rig& rig) {
    EXPECT_FALSE(PathExists(rig.m_strPath)) << rig.m_strPath;
    std::vector<Event> events = Events(rig.m_Events);
    ASSERT_FALSE(events.empty());
    EXPECT_EQ(events.back(), Event(false, 0));
}

// The sum of the lengths in the "read data len" traces of the receive loop.
int TracedReadBytes(ScopedLogCapture& log) {
    int total = 0;
    for (const LogRecord& r : log->Records()) {
        int fd = 0;
        int len = 0;
        if (sscanf(r.message.c_str(), "ReadFd[%d] read data len[%d].\n", &fd, &len) != 2) continue;
        char again[96];
        snprintf(again, sizeof(again), "ReadFd[%d] read data len[%d].\n", fd, len);
        if (r.message != again) continue;
        EXPECT_TRUE(IsLiveCamRecord(r, "DEBUG", "DoRecvSocketLoop"));
        total += len;
    }
    return total;
}

class LiveCamSocket : public ::testing::Test {
protected:
    ScopedLogCapture m_Log;
    ScopedVerboseLog m_Verbose;
    FakeMobiled m_Daemon;
};

// ---------------------------------------------------------------------------------------
// Whole cycles

TEST_F(LiveCamSocket, CycleTurnsTheDaemonsFramesIntoEventsThenTearsDown) {
    Rig rig(9200);
    CycleThread cycle(rig.m_Det);
    ASSERT_TRUE(m_Daemon.WaitFor("startStream", 1, 5000));
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    const std::string first = Frame("motion", "IsTrig:1 Level:57");
    ASSERT_TRUE(client.Send(first));
    ASSERT_TRUE(tw::host::WaitForEvents(rig.m_Events, 1, 5000));
    // Two frames in one write, the second cut in two writes.
    const std::string second = Frame("motion", "IsTrig:0 Level:12") + Frame("motion", "IsTrig:1 Level:90");
    ASSERT_TRUE(client.Send(second.substr(0, 70)));
    ASSERT_TRUE(client.Send(second.substr(70)));
    ASSERT_TRUE(tw::host::WaitForEvents(rig.m_Events, 3, 5000));
    client.Close();
    cycle.Join();

    EXPECT_EQ(cycle.Result(), 0);
    std::vector<MobiledRequest> requests = m_Daemon.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].cmd, "startStream");
    EXPECT_EQ(requests[0].cameraId, 9200);
    EXPECT_EQ(requests[0].stream, "event");
    EXPECT_EQ(requests[0].socketName, "tw_livecam_detector_9200");
    EXPECT_EQ(requests[1].cmd, "stopStream");
    EXPECT_EQ(requests[1].cameraId, 9200);
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 57}, {false, 12}, {true, 90}, {false, 0}}));
    ExpectCycleLeftNothingBehind(rig);

    std::vector<LogRecord> end = FindMatching(*m_Log, "ReadFd[#] read end of data.\n");
    ASSERT_EQ(end.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(end[0], "INFO", "DoRecvSocketLoop"));
    EXPECT_EQ(TracedReadBytes(m_Log), static_cast<int>(first.size() + second.size()));
    for (const LogRecord& r : m_Log->Records()) EXPECT_NE(r.level, "WARN") << r.message;
}

TEST_F(LiveCamSocket, StaleSocketFileIsRemovedBeforeBinding) {
    Rig rig(9201);
    // A socket file left by an earlier run: bound, then abandoned without unlinking.
    {
        sockaddr_un addr;
        memset(&addr, 0, sizeof(addr));
        addr.sun_family = AF_UNIX;
        strcpy(addr.sun_path, rig.m_strPath.c_str());
        const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
        ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0);
        close(stale);
        // Left alone, it keeps the path from being bound again.
        const int again = socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(bind(again, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), -1);
        EXPECT_EQ(errno, EADDRINUSE);
        close(again);
    }
    ASSERT_TRUE(PathExists(rig.m_strPath));

    CycleThread cycle(rig.m_Det);
    ASSERT_TRUE(m_Daemon.WaitFor("startStream", 1, 5000));
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    ASSERT_TRUE(client.Send(Frame("motion", "IsTrig:1 Level:40")));
    ASSERT_TRUE(tw::host::WaitForEvents(rig.m_Events, 1, 5000));
    client.Close();
    cycle.Join();
    EXPECT_TRUE(FindMatching(*m_Log, "Failed to bind*").empty());
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 40}, {false, 0}}));
    ExpectCycleLeftNothingBehind(rig);
}

TEST_F(LiveCamSocket, FrameLargerThanTheBufferEndsTheConnectionWithAnOverflowError) {
    Rig rig(9202);
    CycleThread cycle(rig.m_Det);
    ASSERT_TRUE(m_Daemon.WaitFor("startStream", 1, 5000));
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    ASSERT_TRUE(client.Send(Frame("motion", "IsTrig:1 Level:5 " + std::string(3000, 'x'))));
    EXPECT_TRUE(client.WaitClosedByDetector(5000));
    cycle.Join();

    std::vector<LogRecord> r = m_Log->Find("ReadBuf[2047] is not enough for recving a frame.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "DoRecvSocketLoop"));
    EXPECT_EQ(A::BufferedLen(rig.m_Det), 2047);
    EXPECT_TRUE(FindMatching(*m_Log, "ReadFd[#] read end of data.\n").empty());
    // The stream is stopped after an error just as after an orderly end.
    EXPECT_EQ(m_Daemon.Commands(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{false, 0}}));
    ExpectCycleLeftNothingBehind(rig);
}

TEST_F(LiveCamSocket, BadHeaderStallsTheStreamUntilTheBufferOverflows) {
    Rig rig(9203);
    CycleThread cycle(rig.m_Det);
    ASSERT_TRUE(m_Daemon.WaitFor("startStream", 1, 5000));
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    ASSERT_TRUE(client.Send("Content-Type: motion\r\nContent-Length: 0\r\n\r\n"));
    std::string goods;
    while (goods.size() < 2100) goods += Frame("motion", "IsTrig:1 Level:57");
    ASSERT_TRUE(client.Send(goods));
    EXPECT_TRUE(client.WaitClosedByDetector(5000));
    cycle.Join();

    // Not one of the good frames after the bad header is decoded.
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{false, 0}}));
    std::vector<LogRecord> bad = m_Log->Find("Parse Payload Header failed: DetType[motion] Length[0].\n");
    ASSERT_EQ(bad.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(bad[0], "WARN", "ParseSocketStream"));
    EXPECT_EQ(m_Log->Count("ReadBuf[2047] is not enough for recving a frame.\n"), 1u);
    ExpectCycleLeftNothingBehind(rig);
}

TEST_F(LiveCamSocket, CycleThatCannotBindItsSocketStillClearsTheMotionState) {
    Rig rig(9204);
    // A directory at the path survives the removal and blocks the bind.
    ASSERT_EQ(mkdir(rig.m_strPath.c_str(), 0700), 0) << strerror(errno);
    CycleThread cycle(rig.m_Det);
    cycle.Join();
    const bool dirStillThere = PathExists(rig.m_strPath);
    rmdir(rig.m_strPath.c_str());
    EXPECT_TRUE(dirStillThere);

    std::vector<LogRecord> bind =
        FindMatching(*m_Log, "Failed to bind ListenFd[#] to SocketPath[/tmp/tw_livecam_detector_9204.sock]\n");
    ASSERT_EQ(bind.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(bind[0], "WARN", "BuildEventSocketServer"));
    std::vector<LogRecord> build = m_Log->Find("Failed to build event socket server.\n");
    ASSERT_EQ(build.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(build[0], "WARN", "DetEventByLocalSocketStream"));
    // Nothing is asked of the daemon without a socket to stream into.
    EXPECT_TRUE(m_Daemon.Requests().empty());
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{false, 0}}));
}

TEST_F(LiveCamSocket, RefusedStartEndsTheCycleWithoutAStopRequest) {
    Rig rig(9205);
    m_Daemon.SetStartAnswer(0, Answer(false, "away"));
    CycleThread cycle(rig.m_Det);
    cycle.Join();
    EXPECT_EQ(m_Daemon.Commands(), (std::vector<std::string>{"startStream"}));
    std::vector<LogRecord> refused = m_Log->Find("Mobile start event stream failed: away\n");
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(refused[0], "DEBUG", "NotifyDaemonStartStm"));
    std::vector<LogRecord> failed = m_Log->Find("Start event stream failed.\n");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(failed[0], "DEBUG", "DetEventByLocalSocketStream"));
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{false, 0}}));
    ExpectCycleLeftNothingBehind(rig);
}

TEST_F(LiveCamSocket, StartFailureTraceIsNotPrintedWithoutLogConfiguration) {
    tw::host::DbgLogConfig::Uninstall();
    Rig rig(9206);
    m_Daemon.SetStartAnswer(-1, Answer(true));
    CycleThread cycle(rig.m_Det);
    cycle.Join();
    EXPECT_EQ(m_Log->Count("Failed to send commad to mobiled.\n"), 1u);
    EXPECT_EQ(m_Log->Count("Start event stream failed.\n"), 0u);
    EXPECT_EQ(m_Log->Records().size(), 1u);
    ExpectCycleLeftNothingBehind(rig);
}

TEST_F(LiveCamSocket, StopWhileWaitingForAConnectionEndsTheCycleAndStillStopsTheStream) {
    Rig rig(9207);
    ASSERT_EQ(rig.m_Det.Start(), 0);
    ASSERT_TRUE(m_Daemon.WaitFor("startStream", 1, 5000));
    ASSERT_TRUE(PathExists(rig.m_strPath));
    // Let the accept get into its polling, so the stop has to be noticed there.
    usleep(1500 * 1000);
    const auto stopCalled = std::chrono::steady_clock::now();
    EXPECT_EQ(rig.m_Det.Stop(), 0);   // returns once the worker, pause included, has ended
    EXPECT_FALSE(rig.m_Det.IsActivated());

    std::vector<MobiledRequest> requests = m_Daemon.Requests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[1].cmd, "stopStream");
    // The accept noticed the stop at its next poll, not at its own 10 s limit.
    EXPECT_LT(std::chrono::duration_cast<std::chrono::milliseconds>(requests[1].when - stopCalled).count(), 5000);
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{false, 0}}));
    ExpectCycleLeftNothingBehind(rig);
}

// ---------------------------------------------------------------------------------------
// Server, accept and receive loop, one at a time

TEST_F(LiveCamSocket, DaemonClosingEndsTheLoopWithEndOfDataAtInfoLevel) {
    Rig rig(9210);
    int listenFd = -1;
    ASSERT_EQ(rig.m_Det.BuildEventSocketServer(rig.m_strPath, listenFd), 0);
    ASSERT_GE(listenFd, 0);
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    A::SetRunning(rig.m_Det, true);
    const int readFd = rig.m_Det.AcceptSocketFromClient(listenFd);
    ASSERT_GE(readFd, 0);
    ASSERT_TRUE(client.Send(Frame("motion", "IsTrig:1 Level:57")));
    client.Close();
    EXPECT_EQ(rig.m_Det.DoRecvSocketLoop(readFd), -1);
    EXPECT_FALSE(IsOpen(readFd));
    close(listenFd);

    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 57}}));
    std::vector<LogRecord> r = m_Log->Find("ReadFd[" + std::to_string(readFd) + "] read end of data.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "INFO", "DoRecvSocketLoop"));
    EXPECT_EQ(m_Log->Count("ReadFd[" + std::to_string(readFd) + "] read data len[" +
                           std::to_string(Frame("motion", "IsTrig:1 Level:57").size()) + "].\n"),
              1u);
}

TEST_F(LiveCamSocket, EndOfDataIsNotPrintedWithoutLogConfiguration) {
    tw::host::DbgLogConfig::Uninstall();
    Rig rig(9211);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    close(fds[1]);
    A::SetRunning(rig.m_Det, true);
    EXPECT_EQ(rig.m_Det.DoRecvSocketLoop(fds[0]), -1);
    EXPECT_FALSE(IsOpen(fds[0]));
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamSocket, ReadErrorIsReportedWithTheSystemText) {
    Rig rig(9212);
    int listenFd = -1;
    ASSERT_EQ(rig.m_Det.BuildEventSocketServer(rig.m_strPath, listenFd), 0);
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    A::SetRunning(rig.m_Det, true);
    const int readFd = rig.m_Det.AcceptSocketFromClient(listenFd);
    ASSERT_GE(readFd, 0);
    // A peer that closes with unread bytes waiting for it resets the connection.
    ASSERT_EQ(write(readFd, "?", 1), 1);
    client.Close();
    EXPECT_EQ(rig.m_Det.DoRecvSocketLoop(readFd), -1);
    EXPECT_FALSE(IsOpen(readFd));
    close(listenFd);
    std::vector<LogRecord> r =
        m_Log->Find("ReadFd[" + std::to_string(readFd) + "] read data failed: " + strerror(ECONNRESET) + "\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "DoRecvSocketLoop"));
}

TEST_F(LiveCamSocket, StopDuringReceivingEndsTheLoopWithResultZeroAndNoMessage) {
    Rig rig(9213);
    int fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
    RecvLoopThread loop(rig.m_Det, fds[0]);
    const std::string frame = Frame("motion", "IsTrig:1 Level:3");
    ASSERT_EQ(write(fds[1], frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
    ASSERT_TRUE(tw::host::WaitForEvents(rig.m_Events, 1, 5000));
    A::SetRunning(rig.m_Det, false);
    loop.Join();
    EXPECT_EQ(loop.Result(), 0);
    char byte;
    EXPECT_EQ(read(fds[1], &byte, 1), 0);   // the detector's end is closed
    close(fds[1]);
    EXPECT_TRUE(FindMatching(*m_Log, "Recv data timeout*").empty());
    EXPECT_TRUE(FindMatching(*m_Log, "ReadFd[#] read end of data.\n").empty());
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 3}}));
}

TEST_F(LiveCamSocket, BindFailureNamesTheDescriptorAndThePathAndHandsTheDescriptorBack) {
    Rig rig(9214);
    const std::string path = "/tmp/tw_livecam_no_such_dir_" + std::to_string(getpid()) + "/x.sock";
    int listenFd = -1;
    EXPECT_EQ(rig.m_Det.BuildEventSocketServer(path, listenFd), -1);
    // The caller closes it: it is still open here.
    ASSERT_GE(listenFd, 0);
    EXPECT_TRUE(IsOpen(listenFd));
    std::vector<LogRecord> r =
        m_Log->Find("Failed to bind ListenFd[" + std::to_string(listenFd) + "] to SocketPath[" + path + "]\n");
    close(listenFd);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "BuildEventSocketServer"));
}

TEST_F(LiveCamSocket, SocketThatCannotBeCreatedIsReported) {
    Rig rig(9215);
    // Take the log path once while descriptors are plentiful: a sanitizer's first check of
    // a call may need a descriptor of its own.
    rig.m_Det.SetDetParam(0, {}, 0);
    m_Log->Clear();
    // Lower the descriptor limit to the lowest free descriptor: the next socket cannot exist.
    const int lowestFree = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lowestFree, 0);
    close(lowestFree);
    rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowestFree);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &tight), 0);
    int listenFd = 0;
    const int result = rig.m_Det.BuildEventSocketServer(rig.m_strPath, listenFd);
    setrlimit(RLIMIT_NOFILE, &saved);

    EXPECT_EQ(result, -1);
    EXPECT_EQ(listenFd, -1);
    std::vector<LogRecord> r = m_Log->Find("Failed to create a unix socket.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "BuildEventSocketServer"));
    EXPECT_FALSE(PathExists(rig.m_strPath));
}

TEST_F(LiveCamSocket, AcceptGivesUpAtOnceWhenTheDetectorIsNotRunning) {
    Rig rig(9216);
    int listenFd = -1;
    ASSERT_EQ(rig.m_Det.BuildEventSocketServer(rig.m_strPath, listenFd), 0);
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));   // waiting in the backlog
    A::SetRunning(rig.m_Det, false);
    EXPECT_EQ(rig.m_Det.AcceptSocketFromClient(listenFd), -1);
    // Once running, the same waiting client is accepted.
    A::SetRunning(rig.m_Det, true);
    const int readFd = rig.m_Det.AcceptSocketFromClient(listenFd);
    EXPECT_GE(readFd, 0);
    if (readFd >= 0) close(readFd);
    close(listenFd);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamSocket, AcceptFailureIsReported) {
    Rig rig(9217);
    // Always readable, never acceptable.
    const int notASocket = open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(notASocket, 0);
    A::SetRunning(rig.m_Det, true);
    EXPECT_EQ(rig.m_Det.AcceptSocketFromClient(notASocket), -1);
    std::vector<LogRecord> r =
        m_Log->Find("Failed to accept ReadFd from ListenFd[" + std::to_string(notASocket) + "].\n");
    close(notASocket);
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "AcceptSocketFromClient"));
}

TEST_F(LiveCamSocket, ParseOffsetLeftByABadHeaderDoesNotReachIntoTheNextConnection) {
    Rig rig(9218);
    const std::string good = Frame("motion", "IsTrig:1 Level:57");
    // First connection: a good frame and a bad header in one read, then the daemon leaves.
    int first[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, first), 0);
    const std::string bytes = good + "Content-Type: motion\r\nContent-Length: 0\r\n\r\n";
    ASSERT_EQ(write(first[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(first[1]);
    A::SetRunning(rig.m_Det, true);
    EXPECT_EQ(rig.m_Det.DoRecvSocketLoop(first[0]), -1);
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 57}}));
    // Second connection: a first read shorter than the offset left behind, then more.
    int second[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, second), 0);
    {
        RecvLoopThread loop(rig.m_Det, second[0]);
        ASSERT_EQ(write(second[1], "IsTrig:1 L", 10), 10);
        const std::string traced = "ReadFd[" + std::to_string(second[0]) + "] read data len[10].\n";
        for (int i = 0; i < 500 && m_Log->Count(traced) == 0; ++i) usleep(10000);
        ASSERT_EQ(m_Log->Count(traced), 1u);
        // The next read lands behind those ten bytes, and the connection goes on working.
        const std::string rest = "evel:5\r\n" + Frame("motion", "IsTrig:0 Level:9");
        ASSERT_EQ(write(second[1], rest.data(), rest.size()), static_cast<ssize_t>(rest.size()));
        EXPECT_TRUE(tw::host::WaitForEvents(rig.m_Events, 2, 5000));
        close(second[1]);
        loop.Join();
        EXPECT_EQ(loop.Result(), -1);
    }
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 57}, {false, 9}}));
    // Whatever was left behind, the state stays inside the buffer and its neighbours intact.
    EXPECT_EQ(A::GetCamera(rig.m_Det), &rig.m_Camera);
    EXPECT_EQ(A::GetEventBuf(rig.m_Det), &rig.m_Events);
    EXPECT_GE(A::BufferedLen(rig.m_Det), 0);
    EXPECT_LE(A::BufferedLen(rig.m_Det), 2047);
    EXPECT_GE(A::ParseOffset(rig.m_Det), 0);
    EXPECT_LE(A::ParseOffset(rig.m_Det), A::BufferedLen(rig.m_Det));
}

// ---------------------------------------------------------------------------------------
// Who may connect

TEST_F(LiveCamSocket, SocketFileIsReadableAndWritableByItsOwnerOnlyWhateverTheUmask) {
    Rig rig(9230);
    const mode_t saved = umask(0);   // the host process's umask would let everyone in
    int listenFd = -1;
    const int result = rig.m_Det.BuildEventSocketServer(rig.m_strPath, listenFd);
    umask(saved);
    ASSERT_EQ(result, 0);
    struct stat st;
    ASSERT_EQ(lstat(rig.m_strPath.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_EQ(st.st_mode & 07777, 0600u);
    EXPECT_EQ(st.st_uid, geteuid());
    close(listenFd);
}

// Connects to path as uid/gid 65534 from a child process, sends a frame, and waits until
// the detector closes the connection. The child's exit status: 0 when it was connected and
// then closed by the detector, 2 when the user could not be changed, 3 when the connection
// failed, 4 when the frame could not be sent, 5 when the detector wrote to it; -1 when the
// child did not exit normally.
int ConnectAsStranger(const std::string& path, const std::string& frame) {
    sockaddr_un addr;
    memset(&addr, 0, sizeof(addr));
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    const pid_t child = fork();
    if (child == 0) {
        // Only async-signal-safe calls here: the parent has threads.
        if (setgroups(0, nullptr) != 0 || setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
        const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
        if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) _exit(3);
        // The detector may have closed the connection already: that is no failure.
        const ssize_t sent = send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
        if (sent < 0 && (errno == EPIPE || errno == ECONNRESET)) _exit(0);
        if (sent != static_cast<ssize_t>(frame.size())) _exit(4);
        char buf[64];
        for (;;) {
            const ssize_t n = read(fd, buf, sizeof(buf));
            if (n == 0 || (n < 0 && errno != EINTR)) _exit(0);
            if (n > 0) _exit(5);
        }
    }
    if (child < 0) return -1;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST_F(LiveCamSocket, StrangerIsClosedUnreadCountedAndLoggedAndTheDaemonIsStillServed) {
    if (geteuid() != 0) GTEST_SKIP() << "connecting as another user needs root";
    Rig rig(9231);
    CycleThread cycle(rig.m_Det);
    ASSERT_TRUE(m_Daemon.WaitFor("startStream", 1, 5000));
    // The file mode keeps other users out; opened up here, as during the moment between
    // bind and chmod, so that the credentials check is what stands in the way.
    ASSERT_EQ(chmod(rig.m_strPath.c_str(), 0666), 0);
    EXPECT_EQ(ConnectAsStranger(rig.m_strPath, Frame("motion", "IsTrig:1 Level:13")), 0);
    EXPECT_EQ(rig.m_Det.GetRefusedPeerCount(), 1);
    EXPECT_TRUE(Events(rig.m_Events).empty());

    // The daemon connects afterwards within the same accept and is served.
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    ASSERT_TRUE(client.Send(Frame("motion", "IsTrig:1 Level:57")));
    ASSERT_TRUE(tw::host::WaitForEvents(rig.m_Events, 1, 5000));
    client.Close();
    cycle.Join();

    EXPECT_EQ(cycle.Result(), 0);
    EXPECT_EQ(Events(rig.m_Events), (std::vector<Event>{{true, 57}, {false, 0}}));
    EXPECT_EQ(m_Daemon.Commands(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_EQ(rig.m_Det.GetRefusedPeerCount(), 1);
    std::vector<LogRecord> r = m_Log->Find("CamDet[9231]: Refused a connection from uid[65534].\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "NOTICE", "AcceptSocketFromClient"));
    // Only the daemon's bytes were read.
    EXPECT_EQ(TracedReadBytes(m_Log), static_cast<int>(Frame("motion", "IsTrig:1 Level:57").size()));
    ExpectCycleLeftNothingBehind(rig);
}

TEST_F(LiveCamSocket, PeersOfRootAndOfTheDetectorsOwnUserAreNotCounted) {
    Rig rig(9232);
    int listenFd = -1;
    ASSERT_EQ(rig.m_Det.BuildEventSocketServer(rig.m_strPath, listenFd), 0);
    StreamClient client;
    ASSERT_TRUE(client.Connect(rig.m_strPath));
    A::SetRunning(rig.m_Det, true);
    const int readFd = rig.m_Det.AcceptSocketFromClient(listenFd);
    EXPECT_GE(readFd, 0);
    if (readFd >= 0) close(readFd);
    close(listenFd);
    EXPECT_EQ(rig.m_Det.GetRefusedPeerCount(), 0);
    EXPECT_TRUE(FindMatching(*m_Log, "CamDet[#]: Refused*").empty());
}

}  // namespace
