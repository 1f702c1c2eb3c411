// twhost as a user meets it when something is off: a truncated file, a full disk, a reader
// that goes away, a signal, a bad flag, an unknown command. Each ends with a result it can
// stand behind, one message that names the cause, and the exit code that says which.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <json/json.h>

#include "support/childprocess.h"
#include "support/detecttimeline.h"
#include "support/jsonlines.h"
#include "support/testenv.h"
#include "tw/camera.h"
#include "twhost/clipmaker.h"

namespace {

using tw::test::ChildResult;
using tw::test::DetectJson;
using tw::test::DetectStatus;
using tw::test::SplitLines;

ChildResult Twhost(std::vector<std::string> args) {
    args.insert(args.begin(), TW_TWHOST_BIN);
    return tw::test::RunChild(args);
}

// A shell line, for what only a shell arranges (redirections to devices, pipelines).
ChildResult Shell(const std::string& line) { return tw::test::RunChild({"/bin/bash", "-c", line}); }

bool Contains(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

size_t Count(const std::string& text, const std::string& part) {
    size_t n = 0;
    for (size_t pos = text.find(part); pos != std::string::npos; pos = text.find(part, pos + 1)) ++n;
    return n;
}

class TwhostTruth : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(m_Dir.Ok()); }

    // A small clip (320x180, a key frame every 6 frames) of the given length.
    std::string WriteClip(const std::string& name, double seconds, std::vector<std::pair<double, double>> motion) {
        const tw::host::ClipSpec clip = tw::test::SmallClip(VIDEO_CODEC_H264, seconds, std::move(motion));
        const std::string path = m_Dir.File(name);
        std::string error;
        EXPECT_TRUE(tw::host::WriteClip(clip, path, error)) << error;
        return path;
    }

    tw::test::ScopedTempDir m_Dir;
};

// ---------------------------------------------------------------------------------------
// The command itself

TEST(TwhostCommand, VersionNamesTwhostThePluginFfmpegAndLibjpegTurbo) {
    const ChildResult r = Twhost({"--version"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    const std::vector<std::string> lines = SplitLines(r.out);
    ASSERT_EQ(lines.size(), 4u) << r.out;
    EXPECT_EQ(lines[0].rfind("twhost 1.", 0), 0u) << r.out;
    // The plug-in's version is read from the library that was loaded, not assumed.
    EXPECT_EQ(lines[1].rfind("plug-in 1.", 0), 0u) << r.out;
    EXPECT_TRUE(Contains(lines[1], "libtwdevplugin.so")) << r.out;
    EXPECT_EQ(lines[2].rfind("FFmpeg ", 0), 0u) << r.out;
    EXPECT_TRUE(Contains(lines[2], "libavcodec ")) << r.out;
    EXPECT_EQ(lines[3].rfind("libjpeg-turbo 2.", 0), 0u) << r.out;
    EXPECT_EQ(r.err, "");
}

TEST(TwhostCommand, VersionOfAFileThatIsNoPluginSaysItWasNotLoaded) {
    const ChildResult r = tw::test::RunChild({"/usr/bin/env", "TWHOST_PLUGIN=/nonexistent/libx.so", TW_TWHOST_BIN,
                                              "--version"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.err;
    EXPECT_TRUE(Contains(r.out, "plug-in not loaded: cannot load plug-in '/nonexistent/libx.so'")) << r.out;
}

TEST(TwhostCommand, HelpListsTheCommandsAndHelpOfACommandItsOptions) {
    const ChildResult all = Twhost({"help"});
    ASSERT_TRUE(all.exited && all.exitCode == 0) << all.Describe() << all.err;
    for (const char* cmd : {"detect", "sample", "stream", "mobiled", "livecam", "ioaction", "audioout", "audiofeed"}) {
        EXPECT_TRUE(Contains(all.out, cmd)) << cmd << " missing from:\n" << all.out;
    }
    const ChildResult detect = Twhost({"help", "detect"});
    ASSERT_TRUE(detect.exited && detect.exitCode == 0) << detect.Describe() << detect.err;
    EXPECT_TRUE(Contains(detect.out, "--sensitivity")) << detect.out;
    EXPECT_FALSE(Contains(detect.out, "--pattern")) << "the help of ioaction, not of detect:\n" << detect.out;
}

TEST(TwhostCommand, UnknownCommandIsBadUsageNamingIt) {
    for (const std::vector<std::string>& args : {std::vector<std::string>{"bogus"}, {"help", "bogus"}}) {
        const ChildResult r = Twhost(args);
        ASSERT_TRUE(r.exited) << r.Describe();
        EXPECT_EQ(r.exitCode, 2);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(SplitLines(r.err).at(0).rfind("twhost: unknown command 'bogus'", 0), 0u) << r.err;
    }
}

TEST(TwhostCommand, FlagErrorsNameTheFlagAndItsRangeInWords) {
    struct Case {
        std::vector<std::string> args;
        std::string words;
    };
    const std::vector<Case> cases = {
        {{"detect", "--duration", "-1"}, "--duration: '-1' is not a number of seconds greater than 0"},
        {{"detect", "--sensitivity", "300"}, "--sensitivity: '300' is not an integer from 0 to 100"},
        {{"detect", "--camera-id", "x"}, "--camera-id: 'x' is not an integer from 1 to 1000000"},
        {{"ioaction", "--wait", "-1"}, "--wait: '-1' is not a number of seconds, 0 or more"},
        {{"livecam", "--camera-id", "1", "--duration", "0"}, "--duration: '0' is not a number of seconds greater than 0"},
    };
    for (const Case& c : cases) {
        const ChildResult r = Twhost(c.args);
        ASSERT_TRUE(r.exited) << r.Describe();
        EXPECT_EQ(r.exitCode, 2) << r.err;
        EXPECT_TRUE(Contains(r.err, c.words)) << r.err;
        EXPECT_TRUE(Contains(r.err, "twhost " + c.args[0] + ": ")) << r.err;
        EXPECT_FALSE(Contains(r.err, "1797693")) << r.err;
    }
}

// ---------------------------------------------------------------------------------------
// detect

TEST_F(TwhostTruth, CleanRunOfTheSamplePrintsOnlyItsResults) {
    const ChildResult r = Twhost({"detect"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0);
    // Not a word from the plug-in (its notices need --log-level 4), FFmpeg or a progress line.
    EXPECT_EQ(r.err, "");
    EXPECT_TRUE(Contains(r.out, "Motion in 2 intervals")) << r.out;
    EXPECT_TRUE(Contains(r.out, "; end of input")) << r.out;
}

TEST_F(TwhostTruth, FileIsJudgedUpToItsLastPacketAndNoFurther) {
    const std::string path = WriteClip("whole.mp4", 6.0, {{2.0, 4.0}});
    const ChildResult r = Twhost({"detect", path, "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(r.err, "");
    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    const double dataEnd = json.summary["dataEnd"].asDouble();
    EXPECT_NEAR(dataEnd, 6.0 - 1.0 / 25, 0.05) << json.summary;
    EXPECT_DOUBLE_EQ(json.summary["t"].asDouble(), dataEnd);
    EXPECT_DOUBLE_EQ(json.summary["announcedDuration"].asDouble(), 6.0);
    EXPECT_EQ(json.summary["endReason"].asString(), "end of input");
    ASSERT_FALSE(json.statuses.empty());
    for (const DetectStatus& s : json.statuses) EXPECT_LE(s.t, dataEnd) << tw::test::DescribeStatuses(json.statuses);
    // The last turn lies within one period of the end of data.
    EXPECT_GT(json.statuses.back().t, dataEnd - 0.3 - 1e-6);
}

TEST_F(TwhostTruth, TruncatedFileEndsAtItsDataSaysSoOnceAndReportsNothingPastIt) {
    // Matroska keeps its index at the end: a file cut short still opens and still announces
    // the length it was meant to have.
    const std::string whole = WriteClip("whole.mkv", 12.0, {{2.0, 10.0}});
    const std::string cut = m_Dir.File("cut.mkv");
    {
        std::ifstream in(whole, std::ios::binary);
        const std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        std::ofstream(cut, std::ios::binary) << bytes.substr(0, bytes.size() / 3);
    }
    const ChildResult r = Twhost({"detect", cut, "--json"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    EXPECT_EQ(Count(r.err, "twhost detect: the data of '" + cut + "' ends at "), 1u) << r.err;
    EXPECT_TRUE(Contains(r.err, "before the 12.00 s its container announces")) << r.err;

    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    const double dataEnd = json.summary["dataEnd"].asDouble();
    EXPECT_GT(dataEnd, 2.5);
    EXPECT_LT(dataEnd, 8.0);
    EXPECT_DOUBLE_EQ(json.summary["announcedDuration"].asDouble(), 12.0);
    EXPECT_EQ(json.summary["endReason"].asString(), "end of data before the announced duration");
    EXPECT_DOUBLE_EQ(json.summary["t"].asDouble(), dataEnd);
    for (const DetectStatus& s : json.statuses) EXPECT_LE(s.t, dataEnd) << tw::test::DescribeStatuses(json.statuses);
    // The motion still going on at the cut closes there, not at the announced end.
    const Json::Value& intervals = json.summary["intervals"];
    ASSERT_EQ(intervals.size(), 1u) << json.summary;
    EXPECT_DOUBLE_EQ(intervals[0]["end"].asDouble(), dataEnd);
}

TEST_F(TwhostTruth, DurationEndsTheJudgementAtItsEnd) {
    const ChildResult r = Twhost({"detect", "--duration", "5", "--json", "--sensitivity", "70", "--threshold", "12",
                                  "--short-live", "1", "--region", "0,0-19,14"});
    ASSERT_TRUE(r.exited && r.exitCode == 0) << r.Describe() << "\n" << r.err;
    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error;
    for (const DetectStatus& s : json.statuses) EXPECT_LT(s.t, 5.0) << tw::test::DescribeStatuses(json.statuses);
    EXPECT_DOUBLE_EQ(json.summary["t"].asDouble(), 5.0);
    EXPECT_EQ(json.summary["endReason"].asString(), "duration reached");
    // The summary states what was judged and how.
    const Json::Value& settings = json.summary["settings"];
    EXPECT_EQ(settings["sensitivity"].asInt(), 70);
    EXPECT_EQ(settings["threshold"].asInt(), 12);
    EXPECT_EQ(settings["shortLive"].asInt(), 1);
    EXPECT_EQ(settings["region"].asString(), "0,0-19,14");
    EXPECT_EQ(settings["watchedCells"].asInt(), 20 * 15);
    EXPECT_DOUBLE_EQ(settings["duration"].asDouble(), 5.0);
    EXPECT_EQ(settings["logLevel"].asInt(), 3);
    const Json::Value& input = json.summary["input"];
    EXPECT_EQ(input["source"].asString(), "sample");
    EXPECT_EQ(input["codec"].asString(), "h264");
    EXPECT_EQ(input["width"].asInt(), 640);
    EXPECT_EQ(input["height"].asInt(), 360);
    EXPECT_EQ(input["time"].asString(), "virtual");
}

// A real-time run, stopped by a signal after its first status.
ChildResult StopAfterFirstStatus(int sig) {
    tw::test::ChildProcess child;
    std::string error;
    EXPECT_TRUE(child.Start({TW_TWHOST_BIN, "detect", "--realtime", "--json"}, error)) << error;
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!Contains(child.PeekOut(), "\"status\"") && child.IsRunning() &&
           std::chrono::steady_clock::now() < guard) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    child.Signal(sig);
    return child.Wait();
}

TEST(TwhostSignals, SigintEndsDetectWith130AfterItsSummary) {
    const ChildResult r = StopAfterFirstStatus(SIGINT);
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 130) << r.err;
    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error << "\n" << r.out;
    EXPECT_EQ(json.summary["endReason"].asString(), "interrupted");
    EXPECT_EQ(json.summary["input"]["time"].asString(), "real");
}

TEST(TwhostSignals, SigtermEndsDetectWith143AfterItsSummary) {
    const ChildResult r = StopAfterFirstStatus(SIGTERM);
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 143) << r.err;
    DetectJson json;
    std::string error;
    ASSERT_TRUE(tw::test::ParseDetectJson(r.out, json, error)) << error << "\n" << r.out;
    EXPECT_EQ(json.summary["endReason"].asString(), "terminated");
}

TEST(TwhostOutput, FullDiskOnStandardOutputIsOneMessageAndExit1) {
    const ChildResult r = Shell(std::string(TW_TWHOST_BIN) + " detect > /dev/full");
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 1);
    EXPECT_EQ(r.err, "twhost detect: cannot write to standard output: No space left on device\n");
}

TEST(TwhostOutput, ReaderThatWentAwayEndsTheRunQuietlyWith141) {
    // Standard output is a pipe whose reading end is closed before twhost starts: its first
    // write fails, whatever the timing.
    const ChildResult r = tw::test::RunChildWithClosedStdout({TW_TWHOST_BIN, "detect", "--json"});
    ASSERT_TRUE(r.exited) << r.Describe() << r.error;
    EXPECT_EQ(r.exitCode, 141);
    EXPECT_EQ(r.err, "");
}

TEST(TwhostOutput, ProgressLineShowsOnATerminalAndIsClearedAtTheEnd) {
    // script(1) gives the run a terminal; its output is what the terminal received.
    const ChildResult r = tw::test::RunChild(
        {"/usr/bin/script", "-qec", std::string(TW_TWHOST_BIN) + " detect --duration 6", "/dev/null"});
    ASSERT_TRUE(r.exited) << r.Describe();
    EXPECT_EQ(r.exitCode, 0) << r.out;
    EXPECT_TRUE(Contains(r.out, " / 20.0 s ")) << r.out;
    EXPECT_TRUE(Contains(r.out, "\r\033[K")) << r.out;
    EXPECT_TRUE(Contains(r.out, "Motion in ")) << r.out;
}

// ---------------------------------------------------------------------------------------
// sample

TEST_F(TwhostTruth, SampleReplacesAnExistingFileOnlyWithOverwrite) {
    const std::string path = m_Dir.File("sample.mp4");
    std::ofstream(path) << "precious";
    const ChildResult refused = Twhost({"sample", path, "--duration", "1"});
    ASSERT_TRUE(refused.exited) << refused.Describe();
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.err, "twhost sample: '" + path + "' exists; add -y (--overwrite) to replace it\n");
    std::ifstream in(path);
    const std::string kept((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    EXPECT_EQ(kept, "precious");

    const ChildResult replaced = Twhost({"sample", path, "--duration", "1", "-y", "--json"});
    ASSERT_TRUE(replaced.exited && replaced.exitCode == 0) << replaced.Describe() << replaced.err;
    std::vector<Json::Value> lines;
    std::string error;
    ASSERT_TRUE(tw::test::ParseJsonLines(replaced.out, lines, error)) << error;
    EXPECT_TRUE(tw::test::CheckJsonLines("twhost sample", lines).empty())
        << tw::test::JoinProblems(tw::test::CheckJsonLines("twhost sample", lines));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0]["output"].asString(), path);
    EXPECT_EQ(lines[0]["frames"].asInt(), 25);
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_GT(st.st_size, 1000);
}

}  // namespace
