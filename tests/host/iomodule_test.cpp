// The I/O-module emulator, the I/O-module daemon's file audio-out command, the audio pattern
// store and the request journal.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tw/iomodule.h"
#include "twhost/clock.h"
#include "twhost/iomodule.h"

namespace {

using tw::host::IOModuleEmulator;
using tw::host::IORequest;
using tw::host::ManualClock;

// A file a module can play: its contents do not matter to the daemon's command.
class TempAudioFile {
public:
    TempAudioFile() {
        char name[] = "/tmp/tw_iomodule_test_XXXXXX";
        const int fd = mkstemp(name);
        if (fd >= 0) {
            const char bytes[] = "RIFF";
            EXPECT_EQ(write(fd, bytes, 4), 4);
            close(fd);
            m_strPath = name;
        }
    }
    ~TempAudioFile() {
        if (!m_strPath.empty()) unlink(m_strPath.c_str());
    }
    const std::string& Path() const { return m_strPath; }

private:
    std::string m_strPath;
};

class IOModuleHost : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::SetClock(m_Clock);
        tw::host::ClearIOModuleBackends();
        tw::host::ClearAudioPatterns();
        tw::host::TakeIORequests();
        ASSERT_FALSE(m_File.Path().empty()) << "cannot make a temporary file in /tmp";
    }
    void TearDown() override {
        tw::host::SetIORequestListener(nullptr);
        tw::host::ClearIOModuleBackends();
        tw::host::ClearAudioPatterns();
        tw::host::TakeIORequests();
        tw::host::SetClock(nullptr);
    }

    std::shared_ptr<IOModuleEmulator> AddEmulator(int moduleId, int doCount) {
        auto emulator = std::make_shared<IOModuleEmulator>(doCount);
        tw::host::SetIOModuleBackend(moduleId, emulator);
        return emulator;
    }

    static Json::Value AudioRequest(const std::string& path, bool isManual) {
        Json::Value request(Json::objectValue);
        request["filePath"] = path;
        request["isManual"] = isManual;
        return request;
    }

    std::shared_ptr<ManualClock> m_Clock = std::make_shared<ManualClock>(5000000);
    TempAudioFile m_File;
};

TEST_F(IOModuleHost, EmulatorKeepsEveryPortRequestWithTheClockTime) {
    IOModuleEmulator emulator(4);
    std::string error;
    ASSERT_TRUE(emulator.SetDigitalOutput(0, true, error)) << error;
    m_Clock->Advance(250000);
    ASSERT_TRUE(emulator.SetDigitalOutput(3, true, error)) << error;
    m_Clock->Advance(1000000);
    ASSERT_TRUE(emulator.SetDigitalOutput(0, false, error)) << error;
    ASSERT_TRUE(emulator.SetDigitalOutput(0, false, error)) << error;

    const auto history = emulator.PortHistory();
    ASSERT_EQ(history.size(), 4u);
    EXPECT_EQ(history[0].timeUs, 5000000);
    EXPECT_EQ(history[0].idx, 0);
    EXPECT_TRUE(history[0].state);
    EXPECT_EQ(history[1].timeUs, 5250000);
    EXPECT_EQ(history[1].idx, 3);
    EXPECT_TRUE(history[1].state);
    EXPECT_EQ(history[2].timeUs, 6250000);
    EXPECT_EQ(history[2].idx, 0);
    EXPECT_FALSE(history[2].state);
    EXPECT_EQ(history[3].timeUs, 6250000);
    EXPECT_FALSE(emulator.PortState(0));
    EXPECT_FALSE(emulator.PortState(1));
    EXPECT_FALSE(emulator.PortState(2));
    EXPECT_TRUE(emulator.PortState(3));
}

TEST_F(IOModuleHost, EmulatorRefusesAnOutputOutOfRangeNamingIt) {
    IOModuleEmulator emulator(4);
    std::string error;
    EXPECT_FALSE(emulator.SetDigitalOutput(4, true, error));
    EXPECT_NE(error.find("digital output 4"), std::string::npos) << error;
    EXPECT_NE(error.find("0..3"), std::string::npos) << error;
    error.clear();
    EXPECT_FALSE(emulator.SetDigitalOutput(-1, true, error));
    EXPECT_NE(error.find("digital output -1"), std::string::npos) << error;
    EXPECT_TRUE(emulator.PortHistory().empty());
    EXPECT_FALSE(emulator.PortState(4));

    IOModuleEmulator none(0);
    error.clear();
    EXPECT_FALSE(none.SetDigitalOutput(0, true, error));
    EXPECT_NE(error.find("no digital outputs"), std::string::npos) << error;
}

TEST_F(IOModuleHost, EmulatorSwitchedToRefuseRefusesEveryRequestUntilSwitchedBack) {
    IOModuleEmulator emulator(2);
    std::string error;
    emulator.SetRefuseDigitalOutput(true);
    EXPECT_FALSE(emulator.SetDigitalOutput(1, true, error));
    EXPECT_NE(error.find("refuses"), std::string::npos) << error;
    EXPECT_FALSE(emulator.PortState(1));
    emulator.SetRefuseDigitalOutput(false);
    EXPECT_TRUE(emulator.SetDigitalOutput(1, true, error)) << error;
    EXPECT_TRUE(emulator.PortState(1));

    emulator.SetRefuseAudioOut(true);
    error.clear();
    EXPECT_FALSE(emulator.StartFileAudioOut(m_File.Path(), false, error));
    EXPECT_NE(error.find("refuses"), std::string::npos) << error;
    emulator.SetRefuseAudioOut(false);
    EXPECT_TRUE(emulator.StartFileAudioOut(m_File.Path(), false, error)) << error;
    EXPECT_EQ(emulator.AudioPlays().size(), 1u);
    EXPECT_EQ(emulator.PortHistory().size(), 1u);
}

TEST_F(IOModuleHost, EmulatorDescribesItsOutputs) {
    EXPECT_EQ(IOModuleEmulator(4).Describe(), "I/O module emulator with 4 digital outputs");
    EXPECT_EQ(IOModuleEmulator(1).Describe(), "I/O module emulator with 1 digital output");
    EXPECT_EQ(IOModuleEmulator(-3).GetDOCount(), 0);
}

TEST_F(IOModuleHost, FileAudioOutCommandPlaysOnTheModuleWithTimePathAndManualFlag) {
    auto emulator = AddEmulator(7, 2);
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false),
                                    &response),
              0);
    EXPECT_EQ(tw::host::CompactJson(response), "{\"success\":true}");
    m_Clock->Advance(3000000);
    Json::Value manual(Json::objectValue);
    manual["filePath"] = m_File.Path();
    manual["isManual"] = true;
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, manual, nullptr), 0);
    m_Clock->Advance(500000);
    Json::Value noFlag(Json::objectValue);
    noFlag["filePath"] = m_File.Path();
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, noFlag, nullptr), 0);

    const auto plays = emulator->AudioPlays();
    ASSERT_EQ(plays.size(), 3u);
    EXPECT_EQ(plays[0].timeUs, 5000000);
    EXPECT_EQ(plays[0].filePath, m_File.Path());
    EXPECT_FALSE(plays[0].isManual);
    EXPECT_EQ(plays[1].timeUs, 8000000);
    EXPECT_TRUE(plays[1].isManual);
    EXPECT_EQ(plays[2].timeUs, 8500000);
    EXPECT_FALSE(plays[2].isManual);
    EXPECT_TRUE(emulator->PortHistory().empty());
}

TEST_F(IOModuleHost, FileAudioOutCommandIsJournalledInCompactForm) {
    AddEmulator(7, 2);
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false),
                                    nullptr),
              0);
    m_Clock->Advance(1000000);
    EXPECT_EQ(IOModuledApi::SendCmd(8, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), true),
                                    nullptr),
              tw::host::kIOModuledErrUnknownModule);

    const std::vector<IORequest> requests = tw::host::TakeIORequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].timeUs, 5000000);
    EXPECT_EQ(requests[0].target, "iomoduled/6");
    EXPECT_EQ(requests[0].moduleId, 7);
    EXPECT_EQ(requests[0].json, "{\"filePath\":\"" + m_File.Path() + "\",\"isManual\":false}");
    EXPECT_EQ(requests[0].result, 0);
    EXPECT_EQ(requests[1].timeUs, 6000000);
    EXPECT_EQ(requests[1].moduleId, 8);
    EXPECT_EQ(requests[1].json, "{\"filePath\":\"" + m_File.Path() + "\",\"isManual\":true}");
    EXPECT_EQ(requests[1].result, tw::host::kIOModuledErrUnknownModule);
    EXPECT_TRUE(tw::host::TakeIORequests().empty());
}

TEST_F(IOModuleHost, FileThatCannotBeOpenedIsRefusedNamingThePath) {
    auto emulator = AddEmulator(7, 2);
    const std::string missing = "/nonexistent/tw_iomodule_test/alarm.wav";
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(missing, false),
                                    &response),
              tw::host::kIOModuledErrRefused);
    EXPECT_FALSE(response["success"].asBool());
    EXPECT_NE(response["errorMsg"].asString().find(missing), std::string::npos) << response["errorMsg"];
    EXPECT_NE(response["errorMsg"].asString().find("I/O module 7"), std::string::npos) << response["errorMsg"];

    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest("/tmp", false),
                                    &response),
              tw::host::kIOModuledErrRefused);
    EXPECT_NE(response["errorMsg"].asString().find("'/tmp' is not a regular file"), std::string::npos)
        << response["errorMsg"];
    EXPECT_TRUE(emulator->AudioPlays().empty());
}

TEST_F(IOModuleHost, RefusingModuleFailsTheAudioCommand) {
    auto emulator = AddEmulator(7, 2);
    emulator->SetRefuseAudioOut(true);
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false),
                                    &response),
              tw::host::kIOModuledErrRefused);
    EXPECT_FALSE(response["success"].asBool());
    EXPECT_NE(response["errorMsg"].asString().find("refuses"), std::string::npos) << response["errorMsg"];
    EXPECT_TRUE(emulator->AudioPlays().empty());
}

TEST_F(IOModuleHost, CommandForAnUnknownModuleFailsNamingIt) {
    AddEmulator(7, 2);
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(12, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false),
                                    &response),
              tw::host::kIOModuledErrUnknownModule);
    EXPECT_EQ(tw::host::CompactJson(response), "{\"errorMsg\":\"no I/O module 12\",\"success\":false}");
}

TEST_F(IOModuleHost, UnknownCommandFails) {
    auto emulator = AddEmulator(7, 2);
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(7, static_cast<IOMODULED_CMD_TYPE>(7), AudioRequest(m_File.Path(), false),
                                    &response),
              tw::host::kIOModuledErrUnknownCommand);
    EXPECT_FALSE(response["success"].asBool());
    EXPECT_NE(response["errorMsg"].asString().find("command 7"), std::string::npos) << response["errorMsg"];
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_NONE, AudioRequest(m_File.Path(), false), nullptr),
              tw::host::kIOModuledErrUnknownCommand);
    EXPECT_TRUE(emulator->AudioPlays().empty());
    const std::vector<IORequest> requests = tw::host::TakeIORequests();
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].target, "iomoduled/7");
    EXPECT_EQ(requests[1].target, "iomoduled/0");
}

TEST_F(IOModuleHost, MalformedAudioRequestsAreRefusedNamingTheMember) {
    auto emulator = AddEmulator(7, 2);
    struct Case {
        Json::Value request;
        std::string message;
    };
    Json::Value noPath(Json::objectValue);
    noPath["isManual"] = false;
    Json::Value numberPath(Json::objectValue);
    numberPath["filePath"] = 5;
    Json::Value emptyPath(Json::objectValue);
    emptyPath["filePath"] = "";
    Json::Value textFlag = AudioRequest(m_File.Path(), false);
    textFlag["isManual"] = "yes";
    const Case cases[] = {
        {noPath, "missing \"filePath\""},
        {numberPath, "\"filePath\" is not a string"},
        {emptyPath, "\"filePath\" is empty"},
        {textFlag, "\"isManual\" is not a boolean"},
        {Json::Value(Json::arrayValue), "is not a JSON object"},
    };
    for (const Case& c : cases) {
        Json::Value response;
        EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, c.request, &response),
                  tw::host::kIOModuledErrBadRequest)
            << c.message;
        EXPECT_FALSE(response["success"].asBool());
        EXPECT_NE(response["errorMsg"].asString().find(c.message), std::string::npos) << response["errorMsg"];
    }
    EXPECT_TRUE(emulator->AudioPlays().empty());
}

TEST_F(IOModuleHost, ListenerSeesEachRequestAfterItWasMade) {
    AddEmulator(7, 2);
    std::vector<IORequest> seen;
    tw::host::SetIORequestListener([&](const IORequest& request) {
        // The journal already holds the request when the listener runs.
        const std::vector<IORequest> journal = tw::host::TakeIORequests();
        EXPECT_EQ(journal.size(), 1u);
        seen.push_back(request);
    });
    IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false), nullptr);
    IOModuledApi::SendCmd(9, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false), nullptr);
    tw::host::SetIORequestListener(nullptr);
    IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false), nullptr);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].moduleId, 7);
    EXPECT_EQ(seen[0].result, 0);
    EXPECT_EQ(seen[1].moduleId, 9);
    EXPECT_EQ(seen[1].result, tw::host::kIOModuledErrUnknownModule);
    EXPECT_EQ(tw::host::TakeIORequests().size(), 1u);
}

TEST_F(IOModuleHost, BackendRegistryReplacesAndRemovesModules) {
    auto first = AddEmulator(3, 1);
    EXPECT_EQ(tw::host::GetIOModuleBackend(3), first);
    auto second = AddEmulator(3, 2);
    EXPECT_EQ(tw::host::GetIOModuleBackend(3), second);
    tw::host::SetIOModuleBackend(3, nullptr);
    EXPECT_EQ(tw::host::GetIOModuleBackend(3), nullptr);
    AddEmulator(4, 1);
    AddEmulator(5, 1);
    tw::host::ClearIOModuleBackends();
    EXPECT_EQ(tw::host::GetIOModuleBackend(4), nullptr);
    EXPECT_EQ(tw::host::GetIOModuleBackend(5), nullptr);
}

TEST_F(IOModuleHost, StoredAudioPatternLoadsWithLengthAndPath) {
    ASSERT_TRUE(tw::host::SetAudioPattern(3, "/var/patterns/chime.wav", 7));
    ASSERT_TRUE(tw::host::SetAudioPattern(4, "/var/patterns/siren.wav", 12));
    AudioPattern pattern;
    EXPECT_EQ(pattern.GetLength(), 0);
    EXPECT_EQ(pattern.GetFilePath(), "");
    EXPECT_EQ(pattern.Load(4), 0);
    EXPECT_EQ(pattern.GetLength(), 12);
    EXPECT_EQ(pattern.GetFilePath(), "/var/patterns/siren.wav");
    EXPECT_EQ(pattern.Load(3), 0);
    EXPECT_EQ(pattern.GetLength(), 7);
    EXPECT_EQ(pattern.GetFilePath(), "/var/patterns/chime.wav");
}

TEST_F(IOModuleHost, MissingAudioPatternFailsToLoadAndLeavesNothing) {
    AudioPattern fresh;
    EXPECT_EQ(fresh.Load(3), -1);
    EXPECT_EQ(fresh.GetLength(), 0);
    EXPECT_EQ(fresh.GetFilePath(), "");

    ASSERT_TRUE(tw::host::SetAudioPattern(3, "/var/patterns/chime.wav", 7));
    AudioPattern pattern;
    ASSERT_EQ(pattern.Load(3), 0);
    tw::host::RemoveAudioPattern(3);
    EXPECT_EQ(pattern.Load(3), -1);
    EXPECT_EQ(pattern.GetLength(), 0);
    EXPECT_EQ(pattern.GetFilePath(), "");

    ASSERT_TRUE(tw::host::SetAudioPattern(5, "/var/patterns/bell.wav", 2));
    tw::host::ClearAudioPatterns();
    EXPECT_EQ(pattern.Load(5), -1);
}

TEST_F(IOModuleHost, AudioPatternWithoutPathOrWithNegativeLengthIsRefused) {
    std::string error;
    EXPECT_FALSE(tw::host::SetAudioPattern(3, "", 7, &error));
    EXPECT_NE(error.find("audio pattern 3"), std::string::npos) << error;
    EXPECT_FALSE(tw::host::SetAudioPattern(4, "/var/patterns/chime.wav", -1, &error));
    EXPECT_NE(error.find("negative length -1"), std::string::npos) << error;
    AudioPattern pattern;
    EXPECT_EQ(pattern.Load(3), -1);
    EXPECT_EQ(pattern.Load(4), -1);
}

TEST_F(IOModuleHost, JournalCarriesTheErrorOfAFailedRequest) {
    auto emulator = AddEmulator(7, 2);
    tw::host::TakeIORequests();
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(12, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false),
                                    &response),
              tw::host::kIOModuledErrUnknownModule);
    EXPECT_EQ(IOModuledApi::SendCmd(7, IOMODULED_CMD_FILE_AUDIO_OUT_START, AudioRequest(m_File.Path(), false),
                                    &response),
              0);
    const std::vector<tw::host::IORequest> journal = tw::host::TakeIORequests();
    ASSERT_EQ(journal.size(), 2u);
    EXPECT_EQ(journal[0].error, "no I/O module 12");
    EXPECT_EQ(journal[1].error, "");
}

TEST_F(IOModuleHost, EmulatorReportsItsOwnOutputStates) {
    auto emulator = AddEmulator(7, 2);
    std::string error;
    ASSERT_TRUE(emulator->SetDigitalOutput(1, true, error)) << error;
    bool state = false;
    ASSERT_TRUE(emulator->GetDigitalOutput(1, state, error)) << error;
    EXPECT_TRUE(state);
    ASSERT_TRUE(emulator->GetDigitalOutput(0, state, error)) << error;
    EXPECT_FALSE(state);
    EXPECT_FALSE(emulator->GetDigitalOutput(2, state, error));
    EXPECT_EQ(error, "digital output 2 out of range 0..1");
    EXPECT_TRUE(emulator->CheckReachable(error));
}

}  // namespace
