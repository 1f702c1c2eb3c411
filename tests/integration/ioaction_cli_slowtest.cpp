// twhost ioaction in real time: actions run their course before the executor is terminated,
// from the command line and from standard input alike; held outputs run until their stop;
// outputs are left in their normal state on the module after the end, SIGINT or SIGTERM;
// a failed request names the module's error.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "support/childprocess.h"
#include "support/jsonlines.h"
#include "support/modbusserver.h"

namespace {

// Each run drives a module of its own: a module's status record belongs to one process.
using tw::test::ChildResult;

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
    return n;
}

std::vector<Json::Value> CheckedLines(const ChildResult& r) {
    std::vector<Json::Value> lines;
    std::string error;
    EXPECT_TRUE(tw::test::ParseJsonLines(r.out, lines, error)) << error;
    EXPECT_EQ(tw::test::CheckJsonLines("twhost ioaction", lines), std::vector<std::string>()) << r.out;
    return lines;
}

struct PortRequest {
    int port;
    bool state;
    bool beforeTerminate;
    bool ok;
};

// The digital-output requests the executor made, in order; beforeTerminate: made before
// twhost terminated the executor (by the actions themselves).
std::vector<PortRequest> PortRequests(const std::vector<Json::Value>& lines) {
    std::vector<PortRequest> out;
    bool terminated = false;
    for (const Json::Value& v : lines) {
        if (v["type"].asString() == "terminate") terminated = true;
        if (v["type"].asString() != "request") continue;
        for (const Json::Value& p : v["ports"]) {
            out.push_back(PortRequest{p["port"].asInt(), p["state"].asBool(), !terminated, v["ok"].asBool()});
        }
    }
    return out;
}

std::vector<std::pair<int, bool>> PortStates(const std::vector<PortRequest>& requests) {
    std::vector<std::pair<int, bool>> out;
    for (const PortRequest& r : requests) out.emplace_back(r.port, r.state);
    return out;
}

Json::Value Summary(const std::vector<Json::Value>& lines) {
    const std::vector<Json::Value> s = tw::test::LinesOfType(lines, "summary");
    EXPECT_EQ(s.size(), 1u);
    return s.empty() ? Json::Value() : s.back();
}

// A timed hold is switched back by the executor itself, the hold's length after it was
// switched on; only then does the run end.
void ExpectTimedHoldRanItsCourse(const ChildResult& r, const std::string& input) {
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::vector<Json::Value> lines = CheckedLines(r);
    const std::vector<PortRequest> requests = PortRequests(lines);
    ASSERT_EQ(PortStates(requests), (std::vector<std::pair<int, bool>>{{0, true}, {2, true}, {0, false}, {2, false}}))
        << r.out;
    // Switched back by the executor's own timing, before the run terminated it.
    for (const PortRequest& p : requests) EXPECT_TRUE(p.beforeTerminate) << r.out;
    EXPECT_EQ(tw::test::LinesOfType(lines, "terminate").size(), 1u);
    const Json::Value summary = Summary(lines);
    EXPECT_EQ(summary["endReason"].asString(), "completed");
    EXPECT_EQ(summary["input"].asString(), input);
    EXPECT_EQ(summary["requests"].asInt(), 4);
    EXPECT_EQ(summary["failedRequests"].asInt(), 0);
    EXPECT_FALSE(summary["moduleOutputs"]["0"].asBool()) << r.out;
    EXPECT_FALSE(summary["moduleOutputs"]["2"].asBool()) << r.out;
    EXPECT_EQ(summary["restored"].size(), 0u);
}

TEST(IOActionCli, TimedHoldRunsItsCourseFromArgumentsAndFromStandardInputAlike) {
    const std::string request = "{\"do\":\"start\",\"ports\":[0,2],\"hold\":3}";
    ExpectTimedHoldRanItsCourse(
        tw::test::RunChild({TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "15", request}), "arguments");
    ExpectTimedHoldRanItsCourse(
        tw::test::RunChild({"/bin/sh", "-c",
                            "printf '%s\\n' '" + request + "' | " + std::string(TW_TWHOST_BIN) +
                                " ioaction --json --module-id 16"}),
        "standard input");
}

TEST(IOActionCli, HeldOutputsRunUntilTheirStopRequest) {
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "11", "--outputs",
                                              "3", "{\"do\":\"start\",\"ports\":[0,2],\"hold\":-2}", "{\"wait\":1.5}",
                                              "{\"do\":\"stop\",\"ports\":[0,2]}"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::vector<Json::Value> lines = CheckedLines(r);
    const std::vector<PortRequest> requests = PortRequests(lines);
    EXPECT_EQ(PortStates(requests), (std::vector<std::pair<int, bool>>{{0, true}, {2, true}, {0, false}, {2, false}}));
    // Switched back by the stop request, before the run terminated the executor.
    for (const PortRequest& p : requests) EXPECT_TRUE(p.beforeTerminate) << r.out;
    const std::vector<Json::Value> statuses = tw::test::LinesOfType(lines, "status");
    ASSERT_FALSE(statuses.empty());
    EXPECT_EQ(statuses.front()["outputs"].size(), 3u);
    bool sawActive = false;
    for (const Json::Value& v : statuses) {
        if (v["outputs"]["0"].asString() == "active" && v["outputs"]["2"].asString() == "active") sawActive = true;
    }
    EXPECT_TRUE(sawActive) << r.out;
    EXPECT_EQ(statuses.back()["outputs"]["0"].asString(), "idle");
    const Json::Value summary = Summary(lines);
    EXPECT_EQ(summary["endReason"].asString(), "completed");
    EXPECT_FALSE(summary["moduleOutputs"]["0"].asBool());
    EXPECT_FALSE(summary["moduleOutputs"]["2"].asBool());
}

TEST(IOActionCli, ScriptOnStandardInputRunsInOrderAndABadLineIsReportedAndSkipped) {
    const std::string script =
        "printf '%s\\n' '{\"do\":\"start\",\"ports\":[1],\"hold\":-2}' 'nonsense' "
        "'{\"wait\":0.3}' '{\"manual_do\":1}' | " +
        std::string(TW_TWHOST_BIN) + " ioaction --module-id 12";
    const ChildResult r = tw::test::RunChild({"/bin/sh", "-c", script});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "twhost ioaction: bad request 'nonsense': not JSON")) << r.err;
    // The manual command takes the output over, which ends the held action: the executor
    // puts it back to normal and the run completes.
    EXPECT_TRUE(Contains(r.out, "outputs 0:idle 1:active 2:idle 3:idle")) << r.out;
    EXPECT_TRUE(Contains(r.out, "outputs 0:idle 1:manual 2:idle 3:idle")) << r.out;
    EXPECT_TRUE(Contains(r.out, "{\"DIOdata\":[{\"idx\":1,\"trigger_state\":false}],\"blActRule\":true,\"id\":12} -> ok"))
        << r.out;
    EXPECT_TRUE(Contains(r.out, "twhost ioaction: completed after")) << r.out;
    EXPECT_TRUE(Contains(r.out, "outputs on the module: 1:off")) << r.out;
}

// SIGINT right after a start request: whether the executor carried the start out before
// Terminate or in its last pass after it, the coil is off on the module when twhost exits.
TEST(IOActionCli, SigintRightAfterAStartLeavesTheModbusCoilOff) {
    tw::test::LoopbackModbusServer server(8);
    ASSERT_EQ(server.Error(), "");
    server.Start();
    tw::test::ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "ioaction", "--module-id", "13", "--modbus",
                             "127.0.0.1:" + std::to_string(server.Port()), "{\"do\":\"start\",\"ports\":[3],\"hold\":-2}"},
                            error))
        << error;
    // The first line is printed once the signals are taken: from then on SIGINT is the
    // command's to handle.
    for (int i = 0; i < 3000 && !Contains(child.PeekOut(), "requests from the command line"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(Contains(child.PeekOut(), "requests from the command line")) << child.PeekOut();
    child.Signal(SIGINT);
    const ChildResult r = child.Wait();
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 130) << r.err;
    EXPECT_TRUE(Contains(r.out, "twhost ioaction: interrupted after")) << r.out;
    EXPECT_FALSE(server.Coil(3)) << r.out;
    server.Stop();
}

// An output started in the state false is held off; its normal state is on. Terminate
// switches it off regardless; twhost reads the module back and puts it on again.
TEST(IOActionCli, SigtermPutsAnOutputStartedFalseBackToItsNormalStateOnTheModule) {
    tw::test::ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "14",
                             "{\"do\":\"start\",\"ports\":[2],\"hold\":-2,\"state\":false}"},
                            error))
        << error;
    for (int i = 0; i < 3000 && !Contains(child.PeekOut(), "\"2\":\"active\""); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(Contains(child.PeekOut(), "\"2\":\"active\"")) << child.PeekOut();
    child.Signal(SIGTERM);
    const ChildResult r = child.Wait();
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 143) << r.err;
    const std::vector<Json::Value> lines = CheckedLines(r);
    const std::vector<Json::Value> restores = tw::test::LinesOfType(lines, "restore");
    ASSERT_EQ(restores.size(), 1u) << r.out;
    EXPECT_EQ(restores[0]["port"].asInt(), 2);
    EXPECT_TRUE(restores[0]["state"].asBool());
    const Json::Value summary = Summary(lines);
    EXPECT_EQ(summary["endReason"].asString(), "terminated");
    EXPECT_TRUE(summary["moduleOutputs"]["2"].asBool()) << r.out;
    // The summary is the last line: printed before the exit.
    EXPECT_EQ(lines.back()["type"].asString(), "summary");
}

TEST(IOActionCli, FailedRequestNamesTheModulesErrorInItsLineAndOnceOnStderr) {
    tw::test::LoopbackModbusServer server(8);
    ASSERT_EQ(server.Error(), "");
    // The switch-on is answered; then the module goes away.
    server.Start(tw::test::LoopbackModbusServer::After::GoAway, 1);
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "17", "--modbus",
                                              "127.0.0.1:" + std::to_string(server.Port()),
                                              "{\"do\":\"start\",\"ports\":[1],\"hold\":0}"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    const std::vector<Json::Value> lines = CheckedLines(r);
    const std::vector<PortRequest> requests = PortRequests(lines);
    ASSERT_EQ(PortStates(requests), (std::vector<std::pair<int, bool>>{{1, true}, {1, false}})) << r.out;
    EXPECT_TRUE(requests[0].ok);
    EXPECT_FALSE(requests[1].ok);
    const std::vector<Json::Value> sent = tw::test::LinesOfType(lines, "request");
    EXPECT_TRUE(Contains(sent[1]["error"].asString(), "127.0.0.1:" + std::to_string(server.Port())))
        << sent[1]["error"];
    EXPECT_TRUE(Contains(sent[1]["error"].asString(), "Connection refused")) << sent[1]["error"];
    EXPECT_EQ(Count(r.err, "failed: "), 1u) << r.err;
    EXPECT_TRUE(Contains(r.err, "Connection refused")) << r.err;
    EXPECT_EQ(Summary(lines)["failedRequests"].asInt(), 1);
    server.Stop();
}

// Counted plays of an audio pattern all go out before the run ends.
TEST(IOActionCli, AudioPlaysRunTheirCourse) {
    tw::test::ScopedTempDir dir;
    ASSERT_TRUE(dir.Ok());
    const std::string chime = dir.File("chime.wav");
    std::ofstream(chime) << "RIFF";
    const ChildResult r = tw::test::RunChild({TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "18", "--pattern",
                                              "1=" + chime + ":1", "{\"audio\":\"start\",\"pattern\":1,\"times\":3}"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::vector<Json::Value> lines = CheckedLines(r);
    int plays = 0;
    for (const Json::Value& v : tw::test::LinesOfType(lines, "request")) {
        if (v["file"].asString() == chime && v["ok"].asBool()) ++plays;
    }
    EXPECT_EQ(plays, 3) << r.out;
    // The executor itself reported the action over before the end.
    const std::vector<Json::Value> statuses = tw::test::LinesOfType(lines, "status");
    bool sawActive = false, idleAfter = false;
    for (const Json::Value& v : statuses) {
        if (v["audio"].asString() == "active") sawActive = true;
        if (sawActive && v["audio"].asString() == "idle") idleAfter = true;
    }
    EXPECT_TRUE(idleAfter) << r.out;
    EXPECT_EQ(Summary(lines)["endReason"].asString(), "completed");
}

}  // namespace
