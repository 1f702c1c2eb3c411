// twhost ioaction refuses bad input before anything runs, with one error naming it.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/childprocess.h"

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
        BadInput{"UnreadablePatternFile", {"--pattern", "5=/no/such/file.wav:3"}, "cannot read '/no/such/file.wav'"},
        BadInput{"PatternWithoutId", {"--pattern", "5:/etc/hostname"}, "bad --pattern '5:/etc/hostname': expected ID=PATH:SECONDS"},
        BadInput{"TextPatternId", {"--pattern", "x=/etc/hostname:3"}, "ID and SECONDS must be integers"},
        BadInput{"NegativePatternLength", {"--pattern", "5=/etc/hostname:-3"}, "bad --pattern '5=/etc/hostname:-3'"},
        BadInput{"ModbusWithoutPort", {"--modbus", "10.0.0.1"}, "bad --modbus '10.0.0.1'"},
        BadInput{"ModbusPortOutOfRange", {"--modbus", "10.0.0.1:70000"}, "bad --modbus '10.0.0.1:70000'"},
        BadInput{"TooManyOutputs", {"--outputs", "40"}, "bad --outputs 40"},
        BadInput{"NegativeWaitOption", {"--wait", "-2"}, "--wait"}),
    [](const ::testing::TestParamInfo<BadInput>& info) { return info.param.name; });

}  // namespace
