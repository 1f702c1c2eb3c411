// twhost ioaction refuses bad input before anything runs, with one error naming it.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "support/childprocess.h"
#include "support/jsonlines.h"

namespace {

using tw::test::ChildResult;

ChildResult IOAction(std::vector<std::string> args) {
    args.insert(args.begin(), {TW_TWHOST_BIN, "ioaction"});
    return tw::test::RunChild(args);
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

struct BadInput {
    std::string name;
    std::vector<std::string> args;
    std::string expected;   // a part of the one error line
};

class IOActionBadInput : public ::testing::TestWithParam<BadInput> {};

TEST_P(IOActionBadInput, IsRefusedAsBadUsageNamingIt) {
    const ChildResult r = IOAction(GetParam().args);
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 2) << r.err;
    EXPECT_TRUE(Contains(r.err, GetParam().expected)) << r.err;
    EXPECT_EQ(r.out, "");
}

INSTANTIATE_TEST_SUITE_P(
    Requests, IOActionBadInput,
    ::testing::Values(
        BadInput{"TruncatedJson", {"{\"do\":\"start\""}, "bad request '{\"do\":\"start\"': not JSON"},
        BadInput{"NonObject", {"42"}, "bad request '42': a request is a JSON object"},
        BadInput{"UnknownOutputVerb", {"{\"do\":\"flip\",\"ports\":[0]}"}, "\"do\" must be \"start\" or \"stop\""},
        BadInput{"EmptyPorts", {"{\"do\":\"start\",\"ports\":[]}"}, "\"ports\" must be a non-empty array"},
        BadInput{"NegativePort", {"{\"do\":\"start\",\"ports\":[-1]}"}, "\"ports\" must hold port numbers from 0"},
        BadInput{"TextHold", {"{\"do\":\"start\",\"ports\":[0],\"hold\":\"long\"}"}, "\"hold\" must be an integer"},
        BadInput{"NumericState", {"{\"do\":\"start\",\"ports\":[0],\"state\":1}"}, "\"state\" must be true or false"},
        BadInput{"AudioWithoutPattern", {"{\"audio\":\"start\"}"}, "missing \"pattern\""},
        BadInput{"NegativeWait", {"{\"wait\":-1}"}, "\"wait\" must be a number of seconds"},
        BadInput{"WaitBeyondADay", {"{\"wait\":1e300}"}, "\"wait\" must be a number of seconds from 0 to 86400"},
        BadInput{"UnknownRequest", {"{\"blink\":1}"}, "unknown request"},
        // The first request is good: nothing runs when any is bad.
        BadInput{"OneBadAmongGood", {"{\"do\":\"start\",\"ports\":[0]}", "{\"audio\":\"play\"}"},
                 "\"audio\" must be \"start\" or \"stop\""}),
    [](const ::testing::TestParamInfo<BadInput>& info) { return info.param.name; });

INSTANTIATE_TEST_SUITE_P(
    Options, IOActionBadInput,
    ::testing::Values(
        BadInput{"OutputsOutOfRange", {"--outputs", "99", "{\"do\":\"stop\",\"ports\":[0]}"}, "--outputs"},
        BadInput{"UnitOutOfRange", {"--unit", "300", "{\"do\":\"stop\",\"ports\":[0]}"}, "--unit"},
        BadInput{"UnreadablePatternFile", {"--pattern", "5=/no/such/file.wav:3"}, "cannot read '/no/such/file.wav'"},
        BadInput{"PatternWithoutId", {"--pattern", "5:/etc/hostname"}, "bad --pattern '5:/etc/hostname': expected ID=PATH:SECONDS"},
        BadInput{"TextPatternId", {"--pattern", "x=/etc/hostname:3"}, "ID and SECONDS must be integers"},
        BadInput{"NegativePatternLength", {"--pattern", "5=/etc/hostname:-3"}, "bad --pattern '5=/etc/hostname:-3'"},
        BadInput{"ModbusWithoutPort", {"--modbus", "10.0.0.1"}, "bad --modbus '10.0.0.1'"},
        BadInput{"ModbusPortOutOfRange", {"--modbus", "10.0.0.1:70000"}, "bad --modbus '10.0.0.1:70000'"},
        BadInput{"TooManyOutputs", {"--outputs", "40"}, "--outputs: '40' is not an integer from 0 to 32"},
        BadInput{"NegativeWaitOption", {"--wait", "-2"}, "--wait"}),
    [](const ::testing::TestParamInfo<BadInput>& info) { return info.param.name; });

// A module that cannot be reached is an error before any request goes out.
TEST(IOActionCli, UnreachableModbusModuleFailsBeforeAnyRequest) {
    // A bound socket that does not listen: connecting to its port is refused, and no other
    // program can take the port while the test runs.
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0) << strerror(errno);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << strerror(errno);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0) << strerror(errno);
    const std::string address = "127.0.0.1:" + std::to_string(ntohs(addr.sin_port));
    const ChildResult r = IOAction({"--modbus", address, "{\"do\":\"start\",\"ports\":[0],\"hold\":3}"});
    close(fd);
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_EQ(r.err, "twhost ioaction: I/O module 1 cannot be reached: Modbus/TCP I/O module " + address +
                         ": cannot connect: Connection refused\n");
    EXPECT_EQ(r.out, "");
}

// An audio pattern the host's store does not have is refused (the executor would only log
// it and do nothing); the lines follow the README's table.
TEST(IOActionCli, AudioPatternNotInTheStoreIsRefusedAndTheRunFails) {
    const ChildResult r = tw::test::RunChild(
        {"/bin/sh", "-c",
         "printf '%s\\n' '{\"audio\":\"start\",\"pattern\":4}' | " + std::string(TW_TWHOST_BIN) +
             " ioaction --json --module-id 31"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.err;
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_TRUE(Contains(r.err, "audio pattern 4 is not in the store")) << r.err;
    std::vector<Json::Value> lines;
    std::string error;
    ASSERT_TRUE(tw::test::ParseJsonLines(r.out, lines, error)) << error;
    EXPECT_EQ(tw::test::CheckJsonLines("twhost ioaction", lines), std::vector<std::string>()) << r.out;
    ASSERT_EQ(tw::test::LinesOfType(lines, "refused").size(), 1u) << r.out;
    const std::vector<Json::Value> summary = tw::test::LinesOfType(lines, "summary");
    ASSERT_EQ(summary.size(), 1u);
    EXPECT_EQ(summary[0]["endReason"].asString(), "completed");
    EXPECT_EQ(summary[0]["input"].asString(), "standard input");
    EXPECT_EQ(summary[0]["refused"].asInt(), 1);
    EXPECT_EQ(summary[0]["requests"].asInt(), 0);
    EXPECT_EQ(summary[0]["settings"]["moduleId"].asInt(), 31);
}

TEST(IOActionCli, WriteErrorOnStandardOutputIsOneMessageAndExitOne) {
    const ChildResult r = tw::test::RunChild(
        {"/bin/sh", "-c", std::string(TW_TWHOST_BIN) + " ioaction --module-id 32 '{\"wait\":0.1}' > /dev/full"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1) << r.err;
    EXPECT_EQ(r.err, "twhost ioaction: cannot write to standard output: No space left on device\n");
}

// Standard output has no reader from the start: the first line written finds the pipe closed.
TEST(IOActionCli, ClosedPipeEndsQuietly) {
    const ChildResult r = tw::test::RunChildWithClosedStdout(
        {TW_TWHOST_BIN, "ioaction", "--module-id", "33", "{\"wait\":1}"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 141) << r.err;
    EXPECT_EQ(r.err, "");
}

}  // namespace
