// The live-cam detector: object and lifecycle, its requests to the mobile daemon (with the
// test as the daemon), and the parser of the event stream, fed through the receive buffer.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
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
using tw::test::livecam::Frame;
using tw::test::livecam::IsLiveCamRecord;
using tw::test::livecam::MobiledRequest;
using tw::test::livecam::PathExists;
using tw::test::livecam::SocketPath;

using tw::test::livecam::Event;
using tw::test::livecam::Events;

Camera LiveCamera(int id) { return tw::host::MakeCamera(id, VIDEO_CODEC_H264); }

// Waits (real time) for a message that a worker thread prints.
bool WaitForMessage(ScopedLogCapture& log, const std::string& text, int timeoutMs) {
    for (int waited = 0; waited < timeoutMs; waited += 10) {
        if (log->Count(text) > 0) return true;
        usleep(10000);
    }
    return log->Count(text) > 0;
}

// ---------------------------------------------------------------------------------------
// Object and lifecycle

class LiveCamObject : public ::testing::Test {
protected:
    void SetUp() override { tw::host::DbgLogConfig::Uninstall(); }
    ScopedLogCapture m_Log;
};

TEST_F(LiveCamObject, NewDetectorIsStoppedWithAnEmptyReceiveState) {
    Camera camera = LiveCamera(9100);
    EventBuf events(9100);
    LiveCamDetector det(&camera, &events);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_EQ(A::GetCamera(det), &camera);
    EXPECT_EQ(A::GetEventBuf(det), &events);
    EXPECT_EQ(A::BufferedLen(det), 0);
    EXPECT_EQ(A::ParseOffset(det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
    EXPECT_TRUE(Events(events).empty());
}

TEST_F(LiveCamObject, StartTwiceReturnsZeroThenMinusOneAndStopTwiceZeroThenMinusOne) {
    // Without a camera the thread ends at once, so no socket or daemon is involved.
    EventBuf events(9102);
    LiveCamDetector det(nullptr, &events);
    EXPECT_EQ(det.Stop(), -1);
    EXPECT_EQ(det.Start(), 0);
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Start(), -1);
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_EQ(det.Stop(), -1);
    // And it can be started again after a stop.
    EXPECT_EQ(det.Start(), 0);
    EXPECT_EQ(det.Stop(), 0);
}

TEST_F(LiveCamObject, ShareIsNeverEnabledInAnyState) {
    EventBuf events(9103);
    LiveCamDetector det(nullptr, &events);
    EXPECT_FALSE(det.IsShareEnabled());
    ASSERT_EQ(det.Start(), 0);
    EXPECT_FALSE(det.IsShareEnabled());
    ASSERT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsShareEnabled());
}

TEST_F(LiveCamObject, NullCameraThreadReportsWrongParametersAndStaysActivated) {
    ScopedVerboseLog verbose;
    FakeMobiled daemon;
    EventBuf events(9104);
    LiveCamDetector det(nullptr, &events);
    EXPECT_EQ(det.Start(), 0);
    ASSERT_TRUE(WaitForMessage(m_Log, "Cam Wrong parameters.\n", 5000));
    std::vector<LogRecord> r = m_Log->Find("Cam Wrong parameters.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "NOTICE", "ThreadFunc"));
    // The thread has ended, yet the flag stays until Stop.
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_FALSE(det.IsActivated());
    // It ran no cycle: no request, no event.
    EXPECT_TRUE(daemon.Requests().empty());
    EXPECT_TRUE(Events(events).empty());
    EXPECT_EQ(m_Log->Records().size(), 1u);
}

TEST_F(LiveCamObject, NullEventBufferThreadReportsWrongParameters) {
    ScopedVerboseLog verbose;
    FakeMobiled daemon;
    Camera camera = LiveCamera(9105);
    LiveCamDetector det(&camera, nullptr);
    EXPECT_EQ(det.Start(), 0);
    ASSERT_TRUE(WaitForMessage(m_Log, "Cam Wrong parameters.\n", 5000));
    EXPECT_TRUE(IsLiveCamRecord(m_Log->Find("Cam Wrong parameters.\n").at(0), "NOTICE", "ThreadFunc"));
    EXPECT_TRUE(det.IsActivated());
    EXPECT_EQ(det.Stop(), 0);
    EXPECT_TRUE(daemon.Requests().empty());
    EXPECT_FALSE(PathExists(SocketPath(9105)));
}

TEST_F(LiveCamObject, WrongParametersNoticeIsNotPrintedWithoutLogConfiguration) {
    EventBuf events(9106);
    LiveCamDetector det(nullptr, &events);
    EXPECT_EQ(det.Start(), 0);
    EXPECT_EQ(det.Stop(), 0);   // joins: the thread has said all it would say
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamObject, SetDetParamOnlyReportsThatThereIsNothingToSet) {
    Camera camera = LiveCamera(9107);
    EventBuf events(9107);
    LiveCamDetector det(&camera, &events);
    det.SetDetParam(0, {{1, "50"}, {3, "20"}, {9, "2"}}, 0);
    std::vector<LogRecord> r = m_Log->Find("Live Cam has no parameter to set.\n");
    ASSERT_EQ(r.size(), 1u);   // an error level: printed without a configuration
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "SetDetParam"));
    EXPECT_EQ(m_Log->Records().size(), 1u);
    EXPECT_FALSE(det.IsActivated());
    EXPECT_TRUE(Events(events).empty());
}

TEST_F(LiveCamObject, DestroyingARunningDetectorStopsAndJoinsItsThreadFirst) {
    FakeMobiled daemon;   // agrees to stream; nobody ever connects
    Camera camera = LiveCamera(9108);
    EventBuf events(9108);
    auto det = std::make_unique<LiveCamDetector>(&camera, &events);
    ASSERT_EQ(det->Start(), 0);
    ASSERT_TRUE(daemon.WaitFor("startStream", 1, 5000));
    EXPECT_TRUE(PathExists(SocketPath(9108)));
    det.reset();
    // Everything the cycle does after noticing the stop has happened by the time the
    // destructor returns: the thread was joined, not abandoned.
    EXPECT_EQ(daemon.Commands(), (std::vector<std::string>{"startStream", "stopStream"}));
    EXPECT_EQ(Events(events), (std::vector<Event>{{false, 0}}));
    EXPECT_FALSE(PathExists(SocketPath(9108)));
}

// ---------------------------------------------------------------------------------------
// Requests to the mobile daemon

class LiveCamDaemonControl : public ::testing::Test {
protected:
    void SetUp() override { tw::host::DbgLogConfig::Uninstall(); }
    ScopedLogCapture m_Log;
    FakeMobiled m_Daemon;
    Camera m_Camera = LiveCamera(9110);
    EventBuf m_Events{9110};
    LiveCamDetector m_Det{&m_Camera, &m_Events};
};

TEST_F(LiveCamDaemonControl, StartRequestNamesTheCameraTheEventStreamAndTheSocket) {
    EXPECT_EQ(m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110"), 0);
    std::vector<MobiledRequest> r = m_Daemon.Requests();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].cmd, "startStream");
    EXPECT_EQ(r[0].cameraId, 9110);
    EXPECT_EQ(r[0].stream, "event");
    EXPECT_TRUE(r[0].blHasSocketName);
    EXPECT_EQ(r[0].socketName, "tw_livecam_detector_9110");
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamDaemonControl, StartRefusedAsBusyYieldsMinusOneAndATraceWithTheReason) {
    ScopedVerboseLog verbose;
    m_Daemon.SetStartAnswer(0, Answer(false, "busy"));
    EXPECT_EQ(m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110"), -1);
    std::vector<LogRecord> r = m_Log->Find("Mobile start event stream failed: busy\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "DEBUG", "NotifyDaemonStartStm"));
    EXPECT_EQ(m_Log->Records().size(), 1u);
}

TEST_F(LiveCamDaemonControl, StartRefusalIsNotPrintedWithoutLogConfiguration) {
    m_Daemon.SetStartAnswer(0, Answer(false, "busy"));
    EXPECT_EQ(m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110"), -1);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamDaemonControl, StartAnswerWithoutSuccessCountsAsRefusal) {
    ScopedVerboseLog verbose;
    m_Daemon.SetStartAnswer(0, Json::Value(Json::objectValue));
    EXPECT_EQ(m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110"), -1);
    // No "errorMsg" either: the reason prints empty.
    EXPECT_EQ(m_Log->Count("Mobile start event stream failed: \n"), 1u);

    Json::Value onlyReason(Json::objectValue);
    onlyReason["errorMsg"] = "offline";
    m_Daemon.SetStartAnswer(0, onlyReason);
    EXPECT_EQ(m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110"), -1);
    EXPECT_EQ(m_Log->Count("Mobile start event stream failed: offline\n"), 1u);
}

TEST_F(LiveCamDaemonControl, UndeliveredStartRequestIsAnError) {
    m_Daemon.SetStartAnswer(-1, Answer(true));   // the answer is never seen
    EXPECT_EQ(m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110"), -1);
    std::vector<LogRecord> r = m_Log->Find("Failed to send commad to mobiled.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "NotifyDaemonStartStm"));
    EXPECT_EQ(m_Log->Records().size(), 1u);
}

TEST_F(LiveCamDaemonControl, StopRequestNamesTheCameraAndTheEventStream) {
    EXPECT_EQ(m_Det.NotifyDaemonStopStm(), 0);
    std::vector<MobiledRequest> r = m_Daemon.Requests();
    ASSERT_EQ(r.size(), 1u);
    EXPECT_EQ(r[0].cmd, "stopStream");
    EXPECT_EQ(r[0].cameraId, 9110);
    EXPECT_EQ(r[0].stream, "event");
    EXPECT_FALSE(r[0].blHasSocketName);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamDaemonControl, StopRefusalIsAnErrorPrintedWithoutConfiguration) {
    // Unlike a refused start, a refused stop is reported at the error level.
    m_Daemon.SetStopAnswer(0, Answer(false, "gone"));
    EXPECT_EQ(m_Det.NotifyDaemonStopStm(), -1);
    std::vector<LogRecord> r = m_Log->Find("Mobile stop event stream failed: gone\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "NotifyDaemonStopStm"));
}

TEST_F(LiveCamDaemonControl, StopAnswerWithoutSuccessCountsAsRefusal) {
    m_Daemon.SetStopAnswer(0, Json::Value(Json::objectValue));
    EXPECT_EQ(m_Det.NotifyDaemonStopStm(), -1);
    EXPECT_EQ(m_Log->Count("Mobile stop event stream failed: \n"), 1u);
}

TEST_F(LiveCamDaemonControl, UndeliveredStopRequestIsAnError) {
    m_Daemon.SetStopAnswer(-1, Answer(true));
    EXPECT_EQ(m_Det.NotifyDaemonStopStm(), -1);
    std::vector<LogRecord> r = m_Log->Find("Failed to send commad to mobiled.\n");
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "NotifyDaemonStopStm"));
}

TEST_F(LiveCamDaemonControl, AnswersOfAnotherShapeAreRefusalsAndNothingThrows) {
    ScopedVerboseLog verbose;
    Json::Value stringSuccess(Json::objectValue);
    stringSuccess["success"] = "yes";
    Json::Value objectSuccess(Json::objectValue);
    objectSuccess["success"] = Json::Value(Json::objectValue);
    Json::Value arrayReason = Answer(false);
    arrayReason["errorMsg"] = Json::Value(Json::arrayValue);
    const std::vector<Json::Value> answers = {Json::Value(), Json::Value(Json::arrayValue), Json::Value("success"),
                                              Json::Value(true), stringSuccess, objectSuccess, arrayReason};
    for (const Json::Value& answer : answers) {
        m_Daemon.SetStartAnswer(0, answer);
        m_Daemon.SetStopAnswer(0, answer);
        int start = 0;
        int stop = 0;
        EXPECT_NO_THROW(start = m_Det.NotifyDaemonStartStm("tw_livecam_detector_9110")) << answer.toStyledString();
        EXPECT_NO_THROW(stop = m_Det.NotifyDaemonStopStm()) << answer.toStyledString();
        EXPECT_EQ(start, -1) << answer.toStyledString();
        EXPECT_EQ(stop, -1) << answer.toStyledString();
    }
    EXPECT_EQ(m_Log->Find("Mobile start event stream failed: \n").size(), answers.size());
    EXPECT_EQ(m_Log->Find("Mobile stop event stream failed: \n").size(), answers.size());
}

TEST(LiveCamDaemonAbsent, NoDaemonAtTheControlSocketIsADeliveryFailure) {
    ScopedLogCapture log;
    tw::host::DbgLogConfig::Uninstall();
    tw::host::SetMobiledHandler(nullptr);
    const std::string saved = tw::host::GetMobiledSocketPath();
    tw::host::SetMobiledSocketPath("/tmp/tw_livecam_test_no_daemon_" + std::to_string(getpid()) + ".sock");
    Camera camera = LiveCamera(9111);
    EventBuf events(9111);
    LiveCamDetector det(&camera, &events);
    EXPECT_EQ(det.NotifyDaemonStartStm("tw_livecam_detector_9111"), -1);
    EXPECT_EQ(det.NotifyDaemonStopStm(), -1);
    tw::host::SetMobiledSocketPath(saved);
    std::vector<LogRecord> r = log->Find("Failed to send commad to mobiled.\n");
    ASSERT_EQ(r.size(), 2u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "NotifyDaemonStartStm"));
    EXPECT_TRUE(IsLiveCamRecord(r[1], "WARN", "NotifyDaemonStopStm"));
}

// ---------------------------------------------------------------------------------------
// Stream parser, fed the way the receive loop feeds it

const std::string kTrig57 = "IsTrig:1 Level:57";
const char kBadHeaderFmt[] = "Parse Payload Header failed: DetType[%s] Length[%s].\n";

std::string BadHeader(const std::string& type, const std::string& length) {
    char text[256];
    snprintf(text, sizeof(text), kBadHeaderFmt, type.c_str(), length.c_str());
    return text;
}

class LiveCamParser : public ::testing::Test {
protected:
    void SetUp() override { tw::host::DbgLogConfig::Uninstall(); }

    // One read of the receive loop: the bytes join the buffer, then the parser runs.
    bool Feed(const std::string& bytes) {
        EXPECT_TRUE(A::Append(m_Det, bytes)) << "the test overfilled the buffer";
        return m_Det.ParseSocketStream();
    }
    std::vector<Event> Seen() { return Events(m_Events); }

    ScopedLogCapture m_Log;
    Camera m_Camera = LiveCamera(9120);
    EventBuf m_Events{9120};
    LiveCamDetector m_Det{&m_Camera, &m_Events};
};

TEST_F(LiveCamParser, OneFrameBecomesOneEventAndEmptiesTheBuffer) {
    const std::string frame =
        "Content-Type: motion\r\nContent-Length: 17\r\n\r\nIsTrig:1 Level:57";
    ASSERT_EQ(frame, Frame("motion", kTrig57));
    EXPECT_TRUE(Feed(frame));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamParser, TwoFramesInOneReadAreDecodedInOrderAndTheBufferEndsEmpty) {
    EXPECT_TRUE(Feed(Frame("motion", kTrig57) + Frame("motion", "IsTrig:0 Level:80")));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}, {false, 80}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamParser, IncompleteSecondFrameIsKeptAtTheFrontOfTheBuffer) {
    const std::string second = Frame("motion", "IsTrig:0 Level:3");
    EXPECT_TRUE(Feed(Frame("motion", kTrig57) + second.substr(0, 10)));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(A::Buffered(m_Det), second.substr(0, 10));
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_TRUE(Feed(second.substr(10)));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}, {false, 3}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
}

TEST_F(LiveCamParser, FrameSplitInsideItsHeaderIsDecodedWhenTheRestArrives) {
    const std::string frame = Frame("motion", kTrig57);
    const std::string first = "Content-Type: motion\r\nContent-Len";
    ASSERT_EQ(frame.compare(0, first.size(), first), 0);
    EXPECT_TRUE(Feed(first));
    EXPECT_TRUE(Seen().empty());
    EXPECT_EQ(A::Buffered(m_Det), first);
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_TRUE(Feed(frame.substr(first.size())));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamParser, FrameSplitInsideItsPayloadLosesItsHeader) {
    const std::string header = "Content-Type: motion\r\nContent-Length: 17\r\n\r\n";
    EXPECT_TRUE(Feed(header + "IsTrig:1 Le"));
    // The header is dropped; the payload's first bytes move to the front.
    EXPECT_TRUE(Seen().empty());
    EXPECT_EQ(A::Buffered(m_Det), "IsTrig:1 Le");
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_TRUE(Feed("vel:57"));
    EXPECT_TRUE(Seen().empty());
    EXPECT_EQ(A::Buffered(m_Det), kTrig57);
    EXPECT_TRUE(m_Log->Records().empty());
    // The orphaned payload runs into the next frame's first header line, which then no
    // longer starts with a key: that frame's header has no type.
    EXPECT_FALSE(Feed(Frame("motion", "IsTrig:0 Level:12")));
    EXPECT_TRUE(Seen().empty());
    std::vector<LogRecord> r = m_Log->Find(BadHeader("", "17"));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "ParseSocketStream"));
}

TEST_F(LiveCamParser, PayloadOfAFrameSplitAfterItsHeaderIsSearchedForANewHeader) {
    // An "event" frame whose payload happens to be a whole motion frame.
    const std::string inner = Frame("motion", kTrig57);
    const std::string outerHeader = "Content-Type: event\r\nContent-Length: " + std::to_string(inner.size()) + "\r\n\r\n";

    // Whole in one read, it is one frame of a type that is ignored.
    {
        EventBuf events(9121);
        LiveCamDetector det(&m_Camera, &events);
        ASSERT_TRUE(A::Append(det, outerHeader + inner));
        EXPECT_TRUE(det.ParseSocketStream());
        EXPECT_TRUE(Events(events).empty());
        EXPECT_EQ(A::BufferedLen(det), 0);
    }
    // Split right after the header, the header is lost and the payload is parsed as frames.
    EXPECT_TRUE(Feed(outerHeader));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_TRUE(Feed(inner));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

// A bad header leaves everything where it was, its NUL included.
void ExpectUntouchedAfterBadHeader(LiveCamDetector& det, const std::string& fed) {
    const size_t end = fed.find("\r\n\r\n");
    ASSERT_NE(end, std::string::npos);
    EXPECT_EQ(A::BufferedLen(det), static_cast<int>(fed.size()));
    EXPECT_EQ(A::ParseOffset(det), 0);
    std::string expected = fed;
    expected[end] = '\0';
    EXPECT_EQ(A::Buffered(det), expected);
}

TEST_F(LiveCamParser, ContentLengthZeroIsABadHeaderThatLeavesTheBufferAsItIs) {
    const std::string fed = "Content-Type: motion\r\nContent-Length: 0\r\n\r\n" + kTrig57;
    EXPECT_FALSE(Feed(fed));
    std::vector<LogRecord> r = m_Log->Find(BadHeader("motion", "0"));
    ASSERT_EQ(r.size(), 1u);   // an error level: printed without a configuration
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "ParseSocketStream"));
    EXPECT_TRUE(Seen().empty());
    ExpectUntouchedAfterBadHeader(m_Det, fed);
}

TEST_F(LiveCamParser, NegativeContentLengthIsABadHeaderLikeZero) {
    const std::string fed = "Content-Type: motion\r\nContent-Length: -5\r\n\r\n" + kTrig57;
    EXPECT_FALSE(Feed(fed));
    std::vector<LogRecord> r = m_Log->Find(BadHeader("motion", "-5"));
    ASSERT_EQ(r.size(), 1u);
    EXPECT_TRUE(IsLiveCamRecord(r[0], "WARN", "ParseSocketStream"));
    EXPECT_TRUE(Seen().empty());
    ExpectUntouchedAfterBadHeader(m_Det, fed);
}

TEST_F(LiveCamParser, ContentLengthThatIsNegativeInThirtyTwoBitsIsABadHeader) {
    // Read as a long, then kept as 32 bits: 2^32 - 1 becomes -1 and 2^31 becomes -2^31.
    // A value beyond a long saturates, which also comes out as -1.
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"4294967295", "-1"}, {"2147483648", "-2147483648"}, {"99999999999999999999999", "-1"}};
    for (const auto& c : cases) {
        m_Log->Clear();
        EventBuf events(9122);
        LiveCamDetector det(&m_Camera, &events);
        const std::string fed = "Content-Type: motion\r\nContent-Length: " + c.first + "\r\n\r\n" + kTrig57;
        ASSERT_TRUE(A::Append(det, fed));
        EXPECT_FALSE(det.ParseSocketStream()) << c.first;
        EXPECT_EQ(m_Log->Count(BadHeader("motion", c.second)), 1u) << c.first;
        EXPECT_TRUE(Events(events).empty());
        ExpectUntouchedAfterBadHeader(det, fed);
    }
}

TEST_F(LiveCamParser, HugeContentLengthDropsTheHeaderAndWaitsForThePayload) {
    // 99999999999 kept as 32 bits is 1215752191: positive, so the header is good and the
    // frame simply has not arrived yet.
    const std::string header = "Content-Type: motion\r\nContent-Length: 99999999999\r\n\r\n";
    EXPECT_TRUE(Feed(header + kTrig57));
    EXPECT_TRUE(Seen().empty());
    EXPECT_TRUE(m_Log->Records().empty());
    EXPECT_EQ(A::Buffered(m_Det), kTrig57);
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
}

TEST_F(LiveCamParser, ContentLengthLargerThanTheBufferFillsItWithoutEscaping) {
    const std::string header = "Content-Type: motion\r\nContent-Length: 3000\r\n\r\n";
    EXPECT_TRUE(Feed(header + std::string(1000, 'x')));
    EXPECT_EQ(A::BufferedLen(m_Det), 1000);
    // Fill to the receive loop's limit; the parser still finds nothing and writes nothing.
    EXPECT_TRUE(Feed(std::string(1047, 'y')));
    EXPECT_EQ(A::BufferedLen(m_Det), 2047);
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_EQ(A::RecvBuf(m_Det)[2047], '\0');
    EXPECT_TRUE(Seen().empty());
    EXPECT_TRUE(m_Log->Records().empty());
    EXPECT_EQ(A::GetCamera(m_Det), &m_Camera);
    EXPECT_EQ(A::GetEventBuf(m_Det), &m_Events);
}

TEST_F(LiveCamParser, HeaderWithoutContentTypeIsABadHeader) {
    EXPECT_FALSE(Feed("Content-Length: 17\r\n\r\n" + kTrig57));
    EXPECT_EQ(m_Log->Count(BadHeader("", "17")), 1u);
    EXPECT_TRUE(Seen().empty());
}

TEST_F(LiveCamParser, KeysWithoutValuesCountAsMissing) {
    EXPECT_FALSE(Feed("Content-Type:\r\nContent-Length: 17\r\n\r\n" + kTrig57));
    EXPECT_EQ(m_Log->Count(BadHeader("", "17")), 1u);
    LiveCamDetector det(&m_Camera, &m_Events);
    ASSERT_TRUE(A::Append(det, "Content-Type: motion\r\nContent-Length\r\n\r\n" + kTrig57));
    EXPECT_FALSE(det.ParseSocketStream());
    EXPECT_EQ(m_Log->Count(BadHeader("motion", "0")), 1u);
    EXPECT_TRUE(Seen().empty());
}

TEST_F(LiveCamParser, HeaderKeysAreCaseSensitive) {
    EXPECT_FALSE(Feed("content-type: motion\r\nContent-Length: 17\r\n\r\n" + kTrig57));
    EXPECT_EQ(m_Log->Count(BadHeader("", "17")), 1u);
    EXPECT_TRUE(Seen().empty());
}

TEST_F(LiveCamParser, MalformedLengthConvertsLikeStrtol) {
    // Leading digits count; "17abc" is 17. No digits at all is 0, a bad header.
    EXPECT_TRUE(Feed("Content-Type: motion\r\nContent-Length: 17abc\r\n\r\n" + kTrig57));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    LiveCamDetector det(&m_Camera, &m_Events);
    ASSERT_TRUE(A::Append(det, "Content-Type: motion\r\nContent-Length: abc\r\n\r\n" + kTrig57));
    EXPECT_FALSE(det.ParseSocketStream());
    EXPECT_EQ(m_Log->Count(BadHeader("motion", "0")), 1u);
}

TEST_F(LiveCamParser, SeparatorsAreRunsAndOtherHeaderLinesAreIgnored) {
    // Runs of ':' and ' ' split fields, runs of CR and LF split lines; unknown keys and
    // a stray line before the header do no harm.
    EXPECT_TRUE(Feed("junk\r\nX-Seq: 4\r\nContent-Type:motion\n\r\nContent-Length:::  17\r\n\r\n" + kTrig57));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamParser, RepeatedHeaderKeyOverwritesTheEarlierValue) {
    EXPECT_TRUE(Feed("Content-Type: event\r\nContent-Length: 99\r\nContent-Type: motion\r\nContent-Length: 17\r\n\r\n" +
                     kTrig57));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    // And the later zero wins over an earlier good length.
    LiveCamDetector det(&m_Camera, &m_Events);
    ASSERT_TRUE(A::Append(det, "Content-Type: motion\r\nContent-Length: 17\r\nContent-Length: 0\r\n\r\n" + kTrig57));
    EXPECT_FALSE(det.ParseSocketStream());
    EXPECT_EQ(m_Log->Count(BadHeader("motion", "0")), 1u);
}

TEST_F(LiveCamParser, FramesOfUnknownTypesAreConsumedSilently) {
    EXPECT_TRUE(Feed(Frame("event", "IsTrig:1 Level:99") + Frame("Motion", kTrig57) + Frame("motion", "Level:5")));
    EXPECT_EQ(Seen(), (std::vector<Event>{{false, 5}}));
    EXPECT_EQ(A::BufferedLen(m_Det), 0);
    EXPECT_TRUE(m_Log->Records().empty());
}

TEST_F(LiveCamParser, BadHeaderAfterAGoodFrameStopsRightThere) {
    const std::string good = Frame("motion", kTrig57);
    const std::string bad = "Content-Type: motion\r\nContent-Length: 0\r\n\r\n";
    const std::string fed = good + bad + Frame("motion", "IsTrig:0 Level:1");
    EXPECT_FALSE(Feed(fed));
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
    EXPECT_EQ(m_Log->Count(BadHeader("motion", "0")), 1u);
    // Nothing is compacted: the offset stays at the bad header.
    EXPECT_EQ(A::ParseOffset(m_Det), static_cast<int>(good.size()));
    EXPECT_EQ(A::BufferedLen(m_Det), static_cast<int>(fed.size()));
    EXPECT_EQ(A::RecvBuf(m_Det)[good.size() + bad.size() - 4], '\0');
}

TEST_F(LiveCamParser, NulLeftByABadHeaderStopsLaterParses) {
    const std::string bad = "Content-Type: motion\r\nContent-Length: 0\r\n\r\n";
    EXPECT_FALSE(Feed(bad));
    int buffered = A::BufferedLen(m_Det);
    for (int i = 0; i < 3; ++i) {
        const std::string good = Frame("motion", kTrig57);
        EXPECT_TRUE(Feed(good));
        buffered += static_cast<int>(good.size());
        EXPECT_EQ(A::BufferedLen(m_Det), buffered);
        EXPECT_EQ(A::ParseOffset(m_Det), 0);
    }
    // The parses stop at the NUL: no frame after it is decoded and the header is not
    // even looked at again.
    EXPECT_TRUE(Seen().empty());
    EXPECT_EQ(m_Log->Records().size(), 1u);
}

TEST_F(LiveCamParser, NulLeftAfterAGoodFrameMovesToTheFrontAndStillStops) {
    const std::string good = Frame("motion", kTrig57);
    const std::string bad = "Content-Type: motion\r\nContent-Length: 0\r\n\r\n";
    EXPECT_FALSE(Feed(good + bad));
    EXPECT_TRUE(Feed(Frame("motion", "IsTrig:1 Level:2")));
    // The next parse compacts from the bad header onwards; the NUL goes with it.
    EXPECT_EQ(A::ParseOffset(m_Det), 0);
    EXPECT_EQ(A::RecvBuf(m_Det)[bad.size() - 4], '\0');
    EXPECT_EQ(Seen(), (std::vector<Event>{{true, 57}}));
}

TEST_F(LiveCamParser, NoByteSequenceLeavesTheBufferOrThrows) {
    // Streams built from the pieces a parser trips over, cut at random places, as one
    // connection delivers them: every parse must keep its state inside the buffer.
    const std::vector<std::string> pieces = {
        "\r\n", "\r\n\r\n", "\r", "\n", ": ", ":", " ", "Content-Type", "Content-Length", "motion", "event",
        "0", "17", "-1", "99999999999", "2147483648", "4294967295", "IsTrig:", "Level:", "1", "57",
        std::string(1, '\0'), "\xff", "x", Frame("motion", kTrig57), std::string(300, 'z')};
    std::mt19937 rng(20240611);
    for (int round = 0; round < 300; ++round) {
        std::string stream;
        while (stream.size() < 2600) stream += pieces[rng() % pieces.size()];
        EventBuf events(9123);
        LiveCamDetector det(&m_Camera, &events);
        size_t pos = 0;
        while (pos < stream.size()) {
            const int room = 2047 - A::BufferedLen(det);
            ASSERT_GE(room, 0) << "round " << round;
            const size_t take = std::min<size_t>({stream.size() - pos, 1 + rng() % 200, static_cast<size_t>(room)});
            ASSERT_TRUE(A::Append(det, stream.substr(pos, take)));
            pos += take;
            bool ok = false;
            ASSERT_NO_THROW(ok = det.ParseSocketStream()) << "round " << round;
            ASSERT_GE(A::ParseOffset(det), 0) << "round " << round;
            ASSERT_LE(A::ParseOffset(det), A::BufferedLen(det)) << "round " << round;
            ASSERT_GE(A::BufferedLen(det), 0) << "round " << round;
            ASSERT_LE(A::BufferedLen(det), 2047) << "round " << round;
            if (ok) {
                ASSERT_EQ(A::ParseOffset(det), 0);
            }
            ASSERT_EQ(A::GetCamera(det), &m_Camera);
            ASSERT_EQ(A::GetEventBuf(det), &events);
            // The receive loop gives up on a full buffer; so does this connection.
            if (A::BufferedLen(det) > 2046) break;
        }
    }
}

// ---------------------------------------------------------------------------------------
// Motion payloads

struct PayloadCase {
    const char* payload;
    bool triggered;
    int level;
};

class LiveCamMotionPayload : public ::testing::TestWithParam<PayloadCase> {};

TEST_P(LiveCamMotionPayload, WritesTheDecodedStateOnce) {
    ScopedLogCapture log;
    tw::host::DbgLogConfig::Uninstall();
    Camera camera = LiveCamera(9130);
    EventBuf events(9130);
    LiveCamDetector det(&camera, &events);
    det.ParseMotionData(GetParam().payload);
    EXPECT_EQ(Events(events), (std::vector<Event>{{GetParam().triggered, GetParam().level}}));
    EXPECT_TRUE(log->Records().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Tokens, LiveCamMotionPayload,
    ::testing::Values(
        PayloadCase{"IsTrig:1 Level:57", true, 57},
        PayloadCase{"IsTrig:0 Level:80", false, 80},
        PayloadCase{"Level:5", false, 5},
        PayloadCase{"Level:33 IsTrig:1", true, 33},   // any order
        PayloadCase{"IsTrig:1", true, 0},
        PayloadCase{"", false, 0},
        PayloadCase{"   ", false, 0},
        PayloadCase{"IsTrig:1  Level:5", true, 5},    // runs of spaces are one separator
        PayloadCase{"Seq:4 IsTrig:1 Zoom:2 Level:9", true, 9},   // other tokens are ignored
        PayloadCase{"IsTrig:-1", true, 0},            // any non-zero value triggers
        PayloadCase{"IsTrig:4294967296", false, 0},   // truncated to 32 bits before the test
        PayloadCase{"Level:4294967353", false, 57},   // kept as 32 bits
        PayloadCase{"IsTrig:12abc Level:7xyz", true, 7},   // leading digits count
        PayloadCase{"IsTrig:abc Level:xyz", false, 0},      // no digits: 0
        PayloadCase{"IsTrig: 1 Level: 5", false, 0},        // the value is its own token
        PayloadCase{"Level:+12", false, 12},
        PayloadCase{"Level:-3", false, -3},
        PayloadCase{"IsTrig:1 IsTrig:0", false, 0},   // a later token overwrites
        PayloadCase{"Level:10 Level:20", false, 20},
        PayloadCase{"IsTrig:1Level:9", true, 9},      // one token may carry both
        PayloadCase{"xIsTrig:1 yLevel:3", true, 3},   // tokens need only contain the key
        PayloadCase{"istrig:1 level:3", false, 0},    // keys are case-sensitive
        PayloadCase{"IsTrig:IsTrig:1", false, 0},     // the text after the first key counts
        PayloadCase{"Level:57\r\n", false, 57}));

}  // namespace
