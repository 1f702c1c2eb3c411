// The live-cam detector's two 10-second time-outs across processes: a mobile daemon that
// agrees to a stream but never connects, and one that connects, says its piece and then stays
// silent. Each takes the detector's real seconds (about 15).
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"

namespace {

using tw::test::ChildResult;
using tw::test::SplitLines;

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

// Ids of their own per test process: the detector's socket is /tmp/tw_livecam_detector_<id>.sock.
int CameraId(int k) { return 13600 + static_cast<int>(getpid() % 1000) * 2 + k; }

std::vector<std::pair<bool, int>> Statuses(const std::string& out) {
    std::vector<std::pair<bool, int>> statuses;
    for (const std::string& line : SplitLines(out)) {
        std::istringstream text(line);
        Json::Value v;
        std::string error;
        EXPECT_TRUE(Json::parseFromStream(Json::CharReaderBuilder(), text, &v, &error)) << line;
        if (v["type"] == "status") statuses.emplace_back(v["motion"].asBool(), v["value"].asInt());
    }
    return statuses;
}

bool WaitForOutput(tw::test::ChildProcess& child, const std::string& text) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!Contains(child.PeekOut(), text)) {
        if (!child.IsRunning() || std::chrono::steady_clock::now() > guard) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

TEST(LiveCamTimeouts, DaemonThatAgreesButNeverConnectsEndsTheCycleAfterTheAcceptTimeoutAndIsToldToStop) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string control = dir.File("mobiled.sock");
    const int camId = CameraId(0);
    std::string error;
    tw::test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({TW_TWHOST_BIN, "mobiled", "--socket", control, "--no-connect"}, error)) << error;
    ASSERT_TRUE(WaitForOutput(daemon, "serving")) << daemon.Wait().err;

    // The accept gives up after 10 s; the run ends in the 3 s pause that follows.
    const ChildResult livecam = tw::test::RunChild({TW_TWHOST_BIN, "livecam", "--camera-id", std::to_string(camId),
                                                    "--mobiled", control, "--json", "--duration", "12"});
    daemon.Signal(SIGTERM);
    const ChildResult served = daemon.Wait();

    ASSERT_TRUE(livecam.exited && livecam.exitCode == 0) << livecam.Describe() << "\n" << livecam.err;
    EXPECT_EQ(Statuses(livecam.out), (std::vector<std::pair<bool, int>>{{false, 0}})) << livecam.out;
    ASSERT_TRUE(served.exited && served.exitCode == 143) << served.Describe() << "\n" << served.err;
    const std::vector<std::string> lines = SplitLines(served.out);
    ASSERT_EQ(lines.size(), 4u) << served.out;
    EXPECT_TRUE(Contains(lines[1], "startStream camera " + std::to_string(camId)) && Contains(lines[1], "success"))
        << served.out;
    EXPECT_TRUE(Contains(lines[2], "stopStream camera " + std::to_string(camId)) && Contains(lines[2], "success"))
        << served.out;
    EXPECT_FALSE(Contains(served.out, "connected")) << served.out;
}

TEST(LiveCamTimeouts, DaemonThatFallsSilentIsDroppedAfterTheIdleTimeoutWithNoMotionLeft) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string script = dir.File("timeline.txt");
    std::ofstream(script) << "0.5 IsTrig:1 Level:57\n1.0 IsTrig:1 Level:64\n";
    const std::string control = dir.File("mobiled.sock");
    const int camId = CameraId(1);
    std::string error;
    tw::test::ChildProcess daemon;
    ASSERT_TRUE(daemon.Start({TW_TWHOST_BIN, "mobiled", "--socket", control, "--script", script, "--hold"}, error))
        << error;
    ASSERT_TRUE(WaitForOutput(daemon, "serving")) << daemon.Wait().err;

    // Silence from 1.5 s on: the receive loop gives up a little after 11.5 s.
    const ChildResult livecam = tw::test::RunChild({TW_TWHOST_BIN, "livecam", "--camera-id", std::to_string(camId),
                                                    "--mobiled", control, "--json", "--duration", "14"});
    daemon.Signal(SIGTERM);
    const ChildResult served = daemon.Wait();

    ASSERT_TRUE(livecam.exited && livecam.exitCode == 0) << livecam.Describe() << "\n" << livecam.err;
    EXPECT_EQ(Statuses(livecam.out), (std::vector<std::pair<bool, int>>{{true, 57}, {true, 64}, {false, 0}}))
        << livecam.out;
    EXPECT_TRUE(Contains(livecam.err, "Recv data timeout[10]")) << livecam.err;
    ASSERT_TRUE(served.exited && served.exitCode == 143) << served.Describe() << "\n" << served.err;
    EXPECT_TRUE(Contains(served.out, "stream closed: the detector closed the connection")) << served.out;
    EXPECT_TRUE(Contains(served.out, "stopStream camera " + std::to_string(camId) + " stream event -> success"))
        << served.out;
}

}  // namespace
