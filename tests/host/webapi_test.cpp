// The recorder's web API runner and its built-in I/O-module method PortSetting.
#include <gtest/gtest.h>

#include <string>

#include "support/portsetting.h"
#include "tw/iomodule.h"
#include "twhost/clock.h"
#include "twhost/iomodule.h"

namespace {

using tw::host::CompactJson;
using tw::host::IOModuleEmulator;
using tw::host::IORequest;
using tw::host::ManualClock;
using tw::test::PortRequest;
using tw::test::PortSetting;

class WebApi : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::SetClock(m_Clock);
        tw::host::ClearIOModuleBackends();
        tw::host::TakeIORequests();
        m_Emulator = std::make_shared<IOModuleEmulator>(4);
        tw::host::SetIOModuleBackend(3, m_Emulator);
    }
    void TearDown() override {
        tw::host::ResetWebApis();
        tw::host::ClearIOModuleBackends();
        tw::host::TakeIORequests();
        tw::host::SetClock(nullptr);
    }

    // Expects a refusal with the code and a message containing text; nothing on the module.
    void ExpectRefused(const Json::Value& response, int code, const std::string& text) {
        EXPECT_FALSE(response["success"].asBool()) << CompactJson(response);
        EXPECT_EQ(response["error"]["code"].asInt(), code) << CompactJson(response);
        EXPECT_NE(response["error"]["message"].asString().find(text), std::string::npos) << CompactJson(response);
    }

    std::shared_ptr<ManualClock> m_Clock = std::make_shared<ManualClock>(2000000);
    std::shared_ptr<IOModuleEmulator> m_Emulator;
};

TEST_F(WebApi, PortSettingSwitchesTheModulesOutputsInOrder) {
    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(3, {{0, true}, {2, true}, {0, false}})), 0);
    EXPECT_EQ(CompactJson(response), "{\"success\":true}");
    EXPECT_FALSE(m_Emulator->PortState(0));
    EXPECT_FALSE(m_Emulator->PortState(1));
    EXPECT_TRUE(m_Emulator->PortState(2));
    EXPECT_FALSE(m_Emulator->PortState(3));
    const auto history = m_Emulator->PortHistory();
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[0].idx, 0);
    EXPECT_TRUE(history[0].state);
    EXPECT_EQ(history[1].idx, 2);
    EXPECT_TRUE(history[1].state);
    EXPECT_EQ(history[2].idx, 0);
    EXPECT_FALSE(history[2].state);
    EXPECT_EQ(history[2].timeUs, 2000000);
}

TEST_F(WebApi, PortSettingWithoutActRuleFlagIsAccepted) {
    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(3, {{1, true}}, false)), 0);
    EXPECT_TRUE(response["success"].asBool());
    EXPECT_TRUE(m_Emulator->PortState(1));
}

TEST_F(WebApi, UnknownApiVersionAndMethodAreRefused) {
    Json::Value response;
    const Json::Value request = PortRequest(3, {{0, true}});
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.Camera", 1, "PortSetting", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrUnknownApi, "unknown API \"ORVA.Korvane.Camera\"");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 2, "PortSetting", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrUnknownVersion, "has no version 2");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 1, "PortGetting", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrUnknownMethod, "has no method \"PortGetting\"");
    EXPECT_TRUE(m_Emulator->PortHistory().empty());
}

TEST_F(WebApi, MissingApiMethodOrUserIsRefused) {
    Json::Value response;
    const Json::Value request = PortRequest(3, {{0, true}});
    EXPECT_EQ(ORVA::APIRunner::Exec(response, nullptr, 1, "PortSetting", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrBadCall, "no API");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "", 1, "PortSetting", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrBadCall, "no API");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 1, nullptr, request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrBadCall, "no method");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 1, "", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrBadCall, "no method");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 1, "PortSetting", request, nullptr), -1);
    ExpectRefused(response, tw::host::kWebApiErrBadCall, "no user");
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 1, "PortSetting", request, ""), -1);
    ExpectRefused(response, tw::host::kWebApiErrBadCall, "no user");
    EXPECT_TRUE(m_Emulator->PortHistory().empty());
    EXPECT_EQ(tw::host::TakeIORequests().size(), 6u);
}

TEST_F(WebApi, RefusedCallAnswersWithCodeAndMessageOnly) {
    Json::Value response;
    response["stale"] = 1;  // an answer object is replaced, not merged into
    ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 2, "PortSetting", PortRequest(3, {{0, true}}), "admin");
    EXPECT_EQ(CompactJson(response),
              "{\"error\":{\"code\":103,\"message\":\"API \\\"ORVA.Korvane.IOModule\\\" has no version 2\"},"
              "\"success\":false}");
}

TEST_F(WebApi, EachMalformedPortRequestMemberIsRefusedNamingIt) {
    struct Case {
        const char* what;
        Json::Value request;
        std::string message;
    };
    std::vector<Case> cases;
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r.removeMember("id");
        cases.push_back({"no id", r, "missing \"id\""});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["id"] = "3";
        cases.push_back({"text id", r, "\"id\" is not an integer"});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r.removeMember("DIOdata");
        cases.push_back({"no DIOdata", r, "missing \"DIOdata\""});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["DIOdata"] = r["DIOdata"][0];
        cases.push_back({"DIOdata object", r, "\"DIOdata\" is not an array"});
    }
    cases.push_back({"empty DIOdata", PortRequest(3, {}), "\"DIOdata\" is empty"});
    {
        Json::Value r = PortRequest(3, {{0, true}, {1, true}});
        r["DIOdata"][1].removeMember("idx");
        cases.push_back({"entry without idx", r, "\"DIOdata\"[1] has no \"idx\""});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["DIOdata"][0]["idx"] = 1.5;
        cases.push_back({"fractional idx", r, "\"DIOdata\"[0].\"idx\" is not an integer"});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["DIOdata"][0].removeMember("trigger_state");
        cases.push_back({"entry without trigger_state", r, "\"DIOdata\"[0] has no \"trigger_state\""});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["DIOdata"][0]["trigger_state"] = 1;
        cases.push_back({"numeric trigger_state", r, "\"DIOdata\"[0].\"trigger_state\" is not a boolean"});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["DIOdata"].append(7);
        cases.push_back({"entry not an object", r, "\"DIOdata\"[1] is not an object"});
    }
    {
        Json::Value r = PortRequest(3, {{0, true}});
        r["blActRule"] = "yes";
        cases.push_back({"text blActRule", r, "\"blActRule\" is not a boolean"});
    }
    cases.push_back({"no backend", PortRequest(9, {{0, true}}), "no I/O module 9"});
    cases.push_back({"array request", Json::Value(Json::arrayValue), "not a JSON object"});

    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Json::Value response;
        EXPECT_EQ(PortSetting(response, c.request), -1);
        ExpectRefused(response, tw::host::kWebApiErrMethodFailed, c.message);
    }
    // A malformed entry anywhere stops the whole request: port 0 of the first entries never moved.
    EXPECT_TRUE(m_Emulator->PortHistory().empty());
}

TEST_F(WebApi, RefusingModuleGivesSuccessFalseNamingThePort) {
    m_Emulator->SetRefuseDigitalOutput(true);
    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(3, {{2, true}})), -1);
    ExpectRefused(response, tw::host::kWebApiErrMethodFailed, "digital output 2 of I/O module 3: ");
    EXPECT_NE(response["error"]["message"].asString().find("refuses"), std::string::npos);
    EXPECT_TRUE(m_Emulator->PortHistory().empty());
}

TEST_F(WebApi, PortOutOfRangeStopsTheRequestAtThatPort) {
    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(3, {{1, true}, {4, true}, {2, true}})), -1);
    ExpectRefused(response, tw::host::kWebApiErrMethodFailed, "digital output 4 of I/O module 3: digital output 4 out of range 0..3");
    EXPECT_TRUE(m_Emulator->PortState(1));
    EXPECT_FALSE(m_Emulator->PortState(2));
    EXPECT_EQ(m_Emulator->PortHistory().size(), 1u);
}

TEST_F(WebApi, EveryCallIsJournalledWithItsCompactRequestInOrder) {
    Json::Value response;
    PortSetting(response, PortRequest(3, {{0, true}}));
    m_Clock->Advance(1000000);
    PortSetting(response, PortRequest(5, {{1, false}}));
    m_Clock->Advance(1000000);
    ORVA::APIRunner::Exec(response, "ORVA.Korvane.IOModule", 2, "PortSetting", Json::Value(), "admin");

    const std::vector<IORequest> requests = tw::host::TakeIORequests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].timeUs, 2000000);
    EXPECT_EQ(requests[0].target, "ORVA.Korvane.IOModule/1/PortSetting");
    EXPECT_EQ(requests[0].moduleId, 3);
    EXPECT_EQ(requests[0].json, "{\"DIOdata\":[{\"idx\":0,\"trigger_state\":true}],\"blActRule\":true,\"id\":3}");
    EXPECT_EQ(requests[0].result, 0);
    EXPECT_EQ(requests[1].timeUs, 3000000);
    EXPECT_EQ(requests[1].moduleId, 5);
    EXPECT_EQ(requests[1].json, "{\"DIOdata\":[{\"idx\":1,\"trigger_state\":false}],\"blActRule\":true,\"id\":5}");
    EXPECT_EQ(requests[1].result, -1);
    EXPECT_EQ(requests[2].timeUs, 4000000);
    EXPECT_EQ(requests[2].target, "ORVA.Korvane.IOModule/2/PortSetting");
    EXPECT_EQ(requests[2].moduleId, -1);
    EXPECT_EQ(requests[2].json, "null");
    EXPECT_EQ(requests[2].result, -1);
    EXPECT_TRUE(tw::host::TakeIORequests().empty());
}

TEST_F(WebApi, WebRequestsAndDaemonCommandsShareOneJournal) {
    Json::Value response;
    PortSetting(response, PortRequest(3, {{0, true}}));
    Json::Value audio(Json::objectValue);
    audio["filePath"] = "/nonexistent/chime.wav";
    audio["isManual"] = false;
    IOModuledApi::SendCmd(3, IOMODULED_CMD_FILE_AUDIO_OUT_START, audio, nullptr);
    PortSetting(response, PortRequest(3, {{0, false}}));
    const std::vector<IORequest> requests = tw::host::TakeIORequests();
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].target, "ORVA.Korvane.IOModule/1/PortSetting");
    EXPECT_EQ(requests[1].target, "iomoduled/6");
    EXPECT_EQ(requests[1].result, tw::host::kIOModuledErrRefused);
    EXPECT_EQ(requests[2].target, "ORVA.Korvane.IOModule/1/PortSetting");
    EXPECT_EQ(requests[2].json, "{\"DIOdata\":[{\"idx\":0,\"trigger_state\":false}],\"blActRule\":true,\"id\":3}");
}

TEST_F(WebApi, RegisteredMethodRunsWithUserAndReturnsItsData) {
    std::string seenUser;
    tw::host::RegisterWebApi("ORVA.Korvane.Test", 3, "Echo",
                             [&](const Json::Value& request, const std::string& user, Json::Value& data,
                                 std::string& /*error*/) {
                                 seenUser = user;
                                 data["echo"] = request["text"];
                                 return true;
                             });
    Json::Value request(Json::objectValue);
    request["text"] = "hello";
    Json::Value response;
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.Test", 3, "Echo", request, "operator"), 0);
    EXPECT_EQ(CompactJson(response), "{\"data\":{\"echo\":\"hello\"},\"success\":true}");
    EXPECT_EQ(seenUser, "operator");

    tw::host::RegisterWebApi("ORVA.Korvane.Test", 3, "Echo", nullptr);
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.Test", 3, "Echo", request, "operator"), -1);
    ExpectRefused(response, tw::host::kWebApiErrUnknownApi, "unknown API \"ORVA.Korvane.Test\"");
}

TEST_F(WebApi, FailingOrThrowingMethodGivesSuccessFalse) {
    tw::host::RegisterWebApi("ORVA.Korvane.Test", 1, "Fail",
                             [](const Json::Value&, const std::string&, Json::Value&, std::string& error) {
                                 error = "the door is locked";
                                 return false;
                             });
    tw::host::RegisterWebApi("ORVA.Korvane.Test", 1, "Throw",
                             [](const Json::Value& request, const std::string&, Json::Value&, std::string&) {
                                 return request["n"].asInt() > 0;  // a string "n" makes JsonCpp throw
                             });
    Json::Value response;
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.Test", 1, "Fail", Json::Value(), "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrMethodFailed, "the door is locked");
    Json::Value request(Json::objectValue);
    request["n"] = "many";
    EXPECT_EQ(ORVA::APIRunner::Exec(response, "ORVA.Korvane.Test", 1, "Throw", request, "admin"), -1);
    ExpectRefused(response, tw::host::kWebApiErrMethodFailed, "Throw threw: ");
}

TEST_F(WebApi, RegisteringPortSettingReplacesTheBuiltInOne) {
    int calls = 0;
    tw::host::RegisterWebApi("ORVA.Korvane.IOModule", 1, "PortSetting",
                             [&](const Json::Value&, const std::string&, Json::Value&, std::string&) {
                                 ++calls;
                                 return true;
                             });
    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(3, {{0, true}})), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(m_Emulator->PortHistory().empty());

    tw::host::ResetWebApis();
    EXPECT_EQ(PortSetting(response, PortRequest(3, {{0, true}})), 0);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(m_Emulator->PortState(0));
}

}  // namespace
