// twhost ioaction in real time: requests from the command line and from a script on
// standard input, the printed requests and statuses, a real Modbus/TCP unit, and SIGINT.
#include <gtest/gtest.h>
#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/childprocess.h"
#include "support/modbusserver.h"

namespace {

// Each run drives a module of its own: a module's status record belongs to one process.
using tw::test::ChildResult;

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

std::vector<Json::Value> JsonLines(const std::string& out) {
    std::vector<Json::Value> lines;
    size_t start = 0;
    while (start < out.size()) {
        size_t end = out.find('\n', start);
        if (end == std::string::npos) end = out.size();
        Json::Value v;
        EXPECT_TRUE(Json::Reader().parse(out.substr(start, end - start), v)) << out.substr(start, end - start);
        lines.push_back(v);
        start = end + 1;
    }
    return lines;
}

// The port requests in the JSON output: (port, state) in order.
std::vector<std::pair<int, bool>> PortRequests(const std::vector<Json::Value>& lines) {
    std::vector<std::pair<int, bool>> out;
    for (const Json::Value& v : lines) {
        if (v.get("request", "").asString() != "ORVA.Korvane.IOModule/1/PortSetting") continue;
        EXPECT_EQ(v["result"].asInt(), 0);
        const Json::Value& port = v["body"]["DIOdata"][0];
        out.emplace_back(port["idx"].asInt(), port["trigger_state"].asBool());
    }
    return out;
}

TEST(IOActionCli, HeldOutputsAreSwitchedOnAndPutBackToNormalAtTheEnd) {
    const ChildResult r = tw::test::RunChild(
        {TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "11", "--outputs", "3", "{\"do\":\"start\",\"ports\":[0,2],\"hold\":-2}"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::vector<Json::Value> lines = JsonLines(r.out);
    EXPECT_EQ(PortRequests(lines),
              (std::vector<std::pair<int, bool>>{{0, true}, {2, true}, {0, false}, {2, false}}));
    // The first status shows three idle outputs, a later one both held, the last all idle.
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front()["outputs"].size(), 3u);
    bool sawActive = false;
    for (const Json::Value& v : lines) {
        if (v.isMember("outputs") && v["outputs"]["0"].asInt() == 1 && v["outputs"]["2"].asInt() == 1) sawActive = true;
    }
    EXPECT_TRUE(sawActive) << r.out;
    EXPECT_EQ(lines.back()["outputs"]["0"].asInt(), 0);
    EXPECT_EQ(lines.back()["outputs"]["2"].asInt(), 0);
}

TEST(IOActionCli, ScriptOnStandardInputRunsInOrderAndABadLineIsReportedAndSkipped) {
    const std::string script =
        "printf '%s\\n' '{\"do\":\"start\",\"ports\":[1],\"hold\":-2}' 'nonsense' "
        "'{\"wait\":0.3}' '{\"manual_do\":1}' '{\"wait\":1.2}' | " +
        std::string(TW_TWHOST_BIN) + " ioaction --module-id 12";
    const ChildResult r = tw::test::RunChild({"/bin/sh", "-c", script});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_TRUE(Contains(r.err, "twhost ioaction: bad request 'nonsense': not JSON")) << r.err;
    // The manual command takes the output over and puts it back to normal.
    EXPECT_TRUE(Contains(r.out, "outputs 0:idle 1:active 2:idle 3:idle")) << r.out;
    EXPECT_TRUE(Contains(r.out, "outputs 0:idle 1:manual 2:idle 3:idle")) << r.out;
    EXPECT_TRUE(Contains(r.out, "{\"DIOdata\":[{\"idx\":1,\"trigger_state\":false}],\"blActRule\":true,\"id\":12} -> ok"))
        << r.out;
    EXPECT_TRUE(Contains(r.out, "twhost ioaction: end of input after")) << r.out;
}

TEST(IOActionCli, RealModbusUnitHasItsCoilSwitchedOnAndBack) {
    tw::test::LoopbackModbusServer server(8);
    ASSERT_EQ(server.Error(), "");
    server.Start();
    const ChildResult r = tw::test::RunChild(
        {TW_TWHOST_BIN, "ioaction", "--json", "--module-id", "13", "--modbus", "127.0.0.1:" + std::to_string(server.Port()),
         "{\"do\":\"start\",\"ports\":[3],\"hold\":-2}"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_EQ(PortRequests(JsonLines(r.out)), (std::vector<std::pair<int, bool>>{{3, true}, {3, false}}));
    EXPECT_EQ(server.Requests(), 2);
    EXPECT_FALSE(server.Coil(3));
    server.Stop();
}

TEST(IOActionCli, SigintTerminatesTheExecutorCleanly) {
    tw::test::ChildProcess child;
    std::string error;
    ASSERT_TRUE(child.Start({TW_TWHOST_BIN, "ioaction", "--module-id", "14", "--wait", "60", "{\"do\":\"start\",\"ports\":[2],\"hold\":-2}"},
                            error))
        << error;
    // Wait (bounded) until the output is reported held.
    for (int i = 0; i < 600 && !Contains(child.PeekOut(), "2:active"); ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    ASSERT_TRUE(Contains(child.PeekOut(), "2:active")) << child.PeekOut();
    child.Signal(SIGINT);
    const ChildResult r = child.Wait();
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "{\"DIOdata\":[{\"idx\":2,\"trigger_state\":false}],\"blActRule\":true,\"id\":14} -> ok"))
        << r.out;
    EXPECT_TRUE(Contains(r.out, "twhost ioaction: interrupted after")) << r.out;
}

}  // namespace
