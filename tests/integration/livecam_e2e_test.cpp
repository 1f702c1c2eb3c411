// A live cam across processes, as on a recorder: a "twhost mobiled" process plays the mobile
// daemon and streams a scripted event timeline into the socket of a live-cam detector that a
// "twhost livecam" process runs through the plug-in. Each run takes a few real seconds: the
// script's own delays and the detector's pause between cycles.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/jsonlines.h"
#include "twhost/mobiled.h"

namespace {

using tw::test::ChildResult;
using tw::test::SplitLines;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Camera ids of their own per test process, so that parallel runs never share a detector
// socket (/tmp/tw_livecam_detector_<id>.sock).
int CameraId(int k) { return 9500 + static_cast<int>(getpid() % 1000) * 4 + k; }

struct Status {
    double t;
    bool motion;
    int value;
};

std::string Describe(const std::vector<Status>& statuses) {
    std::ostringstream out;
    for (const Status& s : statuses) out << "(" << s.t << " s, " << (s.motion ? "motion" : "none") << ", " << s.value << ") ";
    return out.str();
}

bool ParseJsonLine(const std::string& line, Json::Value& value) {
    std::istringstream text(line);
    std::string error;
    return Json::parseFromStream(Json::CharReaderBuilder(), text, &value, &error) && value.isObject();
}

// The statuses of "twhost livecam --json"; every line must be as README documents it, and
// all but the closing summary statuses.
std::vector<Status> ParseStatuses(const std::string& out) {
    std::vector<Status> statuses;
    std::vector<Json::Value> lines;
    std::string error;
    EXPECT_TRUE(tw::test::ParseJsonLines(out, lines, error)) << error;
    EXPECT_TRUE(tw::test::CheckJsonLines("twhost livecam", lines).empty())
        << tw::test::JoinProblems(tw::test::CheckJsonLines("twhost livecam", lines));
    EXPECT_TRUE(!lines.empty() && lines.back()["type"] == "summary") << out;
    for (const std::string& line : SplitLines(out)) {
        Json::Value v;
        EXPECT_TRUE(ParseJsonLine(line, v)) << "not a JSON object: " << line;
        if (v["type"] == "summary") continue;
        EXPECT_TRUE(v["t"].isNumeric() && v["motion"].isBool() && v["value"].isInt()) << line;
        if (!v["t"].isNumeric() || !v["motion"].isBool() || !v["value"].isInt()) continue;
        statuses.push_back({v["t"].asDouble(), v["motion"].asBool(), v["value"].asInt()});
    }
    return statuses;
}

void ExpectStatuses(const std::vector<Status>& got, const std::vector<std::pair<bool, int>>& want) {
    ASSERT_EQ(got.size(), want.size()) << Describe(got);
    double last = 0.0;
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(got[i].motion, want[i].first) << "status " << i << ": " << Describe(got);
        EXPECT_EQ(got[i].value, want[i].second) << "status " << i << ": " << Describe(got);
        EXPECT_GE(got[i].t, last) << "statuses out of order: " << Describe(got);
        last = got[i].t;
    }
}

// Waits until the child has printed text; false when it ended first.
bool WaitForOutput(tw::test::ChildProcess& child, const std::string& text) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!Contains(child.PeekOut(), text)) {
        if (!child.IsRunning() || std::chrono::steady_clock::now() > guard) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

ChildResult Twhost(std::vector<std::string> args) {
    args.insert(args.begin(), TW_TWHOST_BIN);
    return tw::test::RunChild(args);
}

TEST(LiveCamE2E, DetectorReportsTheDaemonsScriptedTimelineInOrderAndNoMotionWhenTheStreamEnds) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string script = dir.File("timeline.txt");
    // Delays count from the previous event: events at 0.5 s, 1.5 s and 2.0 s of the stream.
    std::ofstream(script) << "# a phone sees someone, loses them, sees them again\n"
                             "0.5 IsTrig:1 Level:57\n"
                             "\n"
                             "1.0 IsTrig:0 Level:0\n"
                             "0.5 IsTrig:1 Level:80\n";
    const std::string control = dir.File("mobiled.sock");
    const int camId = CameraId(0);
    std::string error;

    tw::test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({TW_TWHOST_BIN, "mobiled", "--socket", control, "--script", script, "--json"}, error))
        << error;
    ASSERT_TRUE(WaitForOutput(daemon, "\"listening\"")) << daemon.Wait().err;

    // The stream ends after the last event; the detector then pauses 3 s before its next
    // cycle, and the run ends within that pause.
    const ChildResult livecam = Twhost({"livecam", "--camera-id", std::to_string(camId), "--mobiled", control,
                                        "--json", "--duration", "4"});
    daemon.Signal(SIGTERM);
    const ChildResult served = daemon.Wait();

    ASSERT_TRUE(livecam.exited && livecam.exitCode == 0) << livecam.Describe() << "\n" << livecam.err;
    ExpectStatuses(ParseStatuses(livecam.out), {{true, 57}, {false, 0}, {true, 80}, {false, 0}});

    // A daemon ends on a signal; SIGTERM's exit code says so once its clean-up is done.
    ASSERT_TRUE(served.exited && served.exitCode == 143) << served.Describe() << "\n" << served.err;
    std::vector<Json::Value> lines;
    for (const std::string& line : SplitLines(served.out)) {
        Json::Value v;
        ASSERT_TRUE(ParseJsonLine(line, v)) << line;
        lines.push_back(v);
    }
    std::vector<std::string> kinds;
    for (const Json::Value& v : lines) kinds.push_back(v["type"].asString());
    const std::vector<std::string> wantKinds = {"listening", "request", "connected", "event", "event",
                                                "event",     "ended",   "request",   "summary"};
    ASSERT_EQ(kinds, wantKinds) << served.out;
    EXPECT_TRUE(tw::test::CheckJsonLines("twhost mobiled", lines).empty())
        << tw::test::JoinProblems(tw::test::CheckJsonLines("twhost mobiled", lines));
    EXPECT_EQ(lines.back()["endReason"].asString(), "terminated");
    EXPECT_EQ(lines.back()["eventsSent"].asInt(), 3);
    EXPECT_EQ(lines[1]["cmd"].asString(), "startStream");
    EXPECT_EQ(lines[1]["cameraId"].asInt(), camId);
    EXPECT_EQ(lines[1]["stream"].asString(), "event");
    EXPECT_EQ(lines[1]["socketName"].asString(), "tw_livecam_detector_" + std::to_string(camId));
    EXPECT_TRUE(lines[1]["success"].asBool());
    EXPECT_EQ(lines[2]["path"].asString(), "/tmp/tw_livecam_detector_" + std::to_string(camId) + ".sock");
    EXPECT_EQ(lines[3]["payload"].asString(), "IsTrig:1 Level:57");
    EXPECT_EQ(lines[3]["line"].asInt(), 2);
    EXPECT_EQ(lines[4]["payload"].asString(), "IsTrig:0 Level:0");
    EXPECT_EQ(lines[5]["payload"].asString(), "IsTrig:1 Level:80");
    EXPECT_EQ(lines[6]["reason"].asString(), "end of script");
    EXPECT_EQ(lines[7]["cmd"].asString(), "stopStream");
    EXPECT_TRUE(lines[7]["success"].asBool());
    EXPECT_NE(access(control.c_str(), F_OK), 0) << "the daemon left its control socket behind";
    EXPECT_NE(access(("/tmp/tw_livecam_detector_" + std::to_string(camId) + ".sock").c_str(), F_OK), 0)
        << "the detector left its socket behind";
}

TEST(LiveCamE2E, WithoutADaemonAnyProcessCanStreamIntoTheDetectorsSocket) {
    const int camId = CameraId(1);
    const std::string path = tw::host::MobiledStreamSocketPath("tw_livecam_detector_" + std::to_string(camId));
    std::string error;
    tw::test::ChildProcess livecam;
    ASSERT_TRUE(livecam.Start({TW_TWHOST_BIN, "livecam", "--camera-id", std::to_string(camId), "--mobiled", "none",
                               "--json", "--duration", "1"},
                              error))
        << error;

    // Play the daemon: connect as soon as the detector listens, write two frames at once, hang up.
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    int fd = -1;
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (fd < 0) {
        ASSERT_TRUE(livecam.IsRunning()) << livecam.Wait().err;
        ASSERT_LT(std::chrono::steady_clock::now(), guard) << "the detector never listened at " << path;
        fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_GE(fd, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0) {
            close(fd);
            fd = -1;
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    }
    const std::string frames = "Content-Type: motion\r\nContent-Length: 17\r\n\r\nIsTrig:1 Level:33"
                               "Content-Type: motion\r\nContent-Length: 16\r\n\r\nIsTrig:0 Level:7";
    EXPECT_EQ(send(fd, frames.data(), frames.size(), MSG_NOSIGNAL), static_cast<ssize_t>(frames.size()));
    close(fd);

    const ChildResult result = livecam.Wait();
    ASSERT_TRUE(result.exited && result.exitCode == 0) << result.Describe() << "\n" << result.err;
    ExpectStatuses(ParseStatuses(result.out), {{true, 33}, {false, 7}, {false, 0}});
}

TEST(LiveCamE2E, RefusedStartEndsTheCycleWithNoMotionAndTheDaemonsMessageInTheLog) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string control = dir.File("mobiled.sock");
    const int camId = CameraId(2);
    std::string error;
    tw::test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({TW_TWHOST_BIN, "mobiled", "--socket", control, "--refuse", "busy"}, error)) << error;
    ASSERT_TRUE(WaitForOutput(daemon, "serving")) << daemon.Wait().err;

    const ChildResult livecam = Twhost({"livecam", "--camera-id", std::to_string(camId), "--mobiled", control,
                                        "--json", "--duration", "1", "--log-level", "6"});
    daemon.Signal(SIGINT);
    const ChildResult served = daemon.Wait();

    ASSERT_TRUE(livecam.exited && livecam.exitCode == 0) << livecam.Describe() << "\n" << livecam.err;
    ExpectStatuses(ParseStatuses(livecam.out), {{false, 0}});
    EXPECT_TRUE(Contains(livecam.err, "Mobile start event stream failed: busy")) << livecam.err;
    // SIGINT's exit code, once the daemon's clean-up is done.
    ASSERT_TRUE(served.exited && served.exitCode == 130) << served.Describe() << "\n" << served.err;
    EXPECT_TRUE(Contains(served.out, "startStream camera " + std::to_string(camId))) << served.out;
    EXPECT_TRUE(Contains(served.out, "refused: busy")) << served.out;
}

TEST(LiveCamE2E, BadInputEndsWithAnErrorNamingIt) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string script = dir.File("broken.txt");
    std::ofstream(script) << "0.5 IsTrig:1 Level:57\nlater IsTrig:0\n";

    ChildResult r = Twhost({"mobiled", "--socket", dir.File("a.sock"), "--script", script});
    EXPECT_TRUE(r.exited && r.exitCode != 0) << r.Describe();
    EXPECT_TRUE(Contains(r.err, script + ":2:")) << r.err;
    EXPECT_TRUE(Contains(r.err, "'later'")) << r.err;

    const std::string missingScript = dir.File("absent.txt");
    r = Twhost({"mobiled", "--socket", dir.File("a.sock"), "--script", missingScript});
    EXPECT_TRUE(r.exited && r.exitCode != 0) << r.Describe();
    EXPECT_TRUE(Contains(r.err, missingScript)) << r.err;

    const std::string unreachable = dir.File("no/such/dir/mobiled.sock");
    r = Twhost({"mobiled", "--socket", unreachable});
    EXPECT_TRUE(r.exited && r.exitCode != 0) << r.Describe();
    EXPECT_TRUE(Contains(r.err, unreachable)) << r.err;

    r = Twhost({"mobiled", "--socket", dir.File("a.sock"), "--refuse", "busy", "--no-connect"});
    EXPECT_TRUE(r.exited && r.exitCode == 2) << r.Describe();

    r = Twhost({"mobiled", "--socket", dir.File("a.sock"), "--coalesce", "1"});
    EXPECT_TRUE(r.exited && r.exitCode == 2) << r.Describe();
    EXPECT_TRUE(Contains(r.err, "--coalesce")) << r.err;

    const std::string missingPlugin = dir.File("libnothing.so");
    r = Twhost({"livecam", "--camera-id", std::to_string(CameraId(3)), "--plugin", missingPlugin, "--duration", "1"});
    EXPECT_TRUE(r.exited && r.exitCode == 1) << r.Describe();
    EXPECT_TRUE(Contains(r.err, missingPlugin)) << r.err;

    r = Twhost({"livecam", "--json"});
    EXPECT_TRUE(r.exited && r.exitCode == 2) << r.Describe();
    EXPECT_TRUE(Contains(r.err, "--camera-id")) << r.err;

    const std::string longPath = "/tmp/" + std::string(120, 'x') + ".sock";
    r = Twhost({"livecam", "--camera-id", std::to_string(CameraId(3)), "--mobiled", longPath, "--duration", "1"});
    EXPECT_TRUE(r.exited && r.exitCode == 2) << r.Describe();
    EXPECT_TRUE(Contains(r.err, longPath)) << r.err;
}

}  // namespace
