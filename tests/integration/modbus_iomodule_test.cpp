// A network I/O module over Modbus/TCP, driven through the web API's PortSetting as the
// plug-in drives it, against a Modbus/TCP server that the test runs on loopback.
#include <gtest/gtest.h>

#include <string>

#include "support/modbusserver.h"
#include "support/portsetting.h"
#include "tw/iomodule.h"
#include "twhost/iomodule.h"

namespace {

using tw::host::CompactJson;
using tw::host::ModbusIOModule;
using tw::test::LoopbackModbusServer;
using tw::test::PortRequest;
using tw::test::PortSetting;

class ModbusModule : public ::testing::Test {
protected:
    void SetUp() override {
        tw::host::ClearIOModuleBackends();
        tw::host::TakeIORequests();
    }
    void TearDown() override {
        // The module closes its connection before the server goes.
        tw::host::ClearIOModuleBackends();
        tw::host::TakeIORequests();
    }

    std::string Message(const Json::Value& response) { return response["error"]["message"].asString(); }
};

TEST_F(ModbusModule, PortSettingTurnsCoilsOnAndOffOverOneConnection) {
    LoopbackModbusServer server;
    ASSERT_EQ(server.Error(), "");
    server.Start();
    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", server.Port()));
    // The module is reached only when there is something to write.
    EXPECT_EQ(server.Connections(), 0);

    Json::Value response;
    ASSERT_EQ(PortSetting(response, PortRequest(4, {{0, true}, {3, true}})), 0) << CompactJson(response);
    EXPECT_EQ(CompactJson(response), "{\"success\":true}");
    EXPECT_TRUE(server.Coil(0));
    EXPECT_FALSE(server.Coil(1));
    EXPECT_FALSE(server.Coil(2));
    EXPECT_TRUE(server.Coil(3));

    ASSERT_EQ(PortSetting(response, PortRequest(4, {{0, false}})), 0) << CompactJson(response);
    EXPECT_FALSE(server.Coil(0));
    EXPECT_TRUE(server.Coil(3));
    EXPECT_EQ(server.Requests(), 3);
    EXPECT_EQ(server.Connections(), 1);
}

TEST_F(ModbusModule, RequestsCarryTheModulesUnitId) {
    LoopbackModbusServer server;
    ASSERT_EQ(server.Error(), "");
    server.Start();
    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", server.Port(), 17));
    Json::Value response;
    ASSERT_EQ(PortSetting(response, PortRequest(4, {{5, true}})), 0) << CompactJson(response);
    EXPECT_EQ(server.LastUnitId(), 17);
    EXPECT_TRUE(server.Coil(5));
}

TEST_F(ModbusModule, DroppedConnectionIsReopenedAndTheWriteRepeated) {
    LoopbackModbusServer server;
    ASSERT_EQ(server.Error(), "");
    server.Start(LoopbackModbusServer::After::DropConnection, 1);
    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", server.Port()));

    Json::Value response;
    ASSERT_EQ(PortSetting(response, PortRequest(4, {{1, true}})), 0) << CompactJson(response);
    // The server hangs up after its answer; the next write finds the connection gone.
    ASSERT_EQ(PortSetting(response, PortRequest(4, {{2, true}})), 0) << CompactJson(response);
    EXPECT_TRUE(server.Coil(1));
    EXPECT_TRUE(server.Coil(2));
    EXPECT_EQ(server.Connections(), 2);
    EXPECT_EQ(server.Requests(), 2);
}

TEST_F(ModbusModule, ModuleThatWentAwayGivesSuccessFalseNamingHostAndPort) {
    LoopbackModbusServer server;
    ASSERT_EQ(server.Error(), "");
    server.Start(LoopbackModbusServer::After::GoAway, 1);
    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", server.Port()));

    Json::Value response;
    ASSERT_EQ(PortSetting(response, PortRequest(4, {{1, true}})), 0) << CompactJson(response);
    server.Join();
    EXPECT_EQ(PortSetting(response, PortRequest(4, {{1, false}})), -1);
    EXPECT_FALSE(response["success"].asBool());
    const std::string address = "127.0.0.1:" + std::to_string(server.Port());
    EXPECT_NE(Message(response).find("digital output 1 of I/O module 4"), std::string::npos) << Message(response);
    EXPECT_NE(Message(response).find(address), std::string::npos) << Message(response);
    EXPECT_NE(Message(response).find("Connection refused"), std::string::npos) << Message(response);
    EXPECT_TRUE(server.Coil(1));
    EXPECT_EQ(server.Requests(), 1);
}

TEST_F(ModbusModule, RefusedConnectionGivesSuccessFalseNamingHostAndPort) {
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
    const int port = ntohs(addr.sin_port);

    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", port));
    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(4, {{0, true}})), -1);
    EXPECT_FALSE(response["success"].asBool());
    EXPECT_EQ(response["error"]["code"].asInt(), tw::host::kWebApiErrMethodFailed);
    EXPECT_EQ(Message(response), "digital output 0 of I/O module 4: Modbus/TCP I/O module 127.0.0.1:" +
                                     std::to_string(port) + ": cannot connect: Connection refused");
    close(fd);
}

TEST_F(ModbusModule, CoilOutsideTheUnitsMapIsRefusedAndTheConnectionKept) {
    LoopbackModbusServer server(8);
    ASSERT_EQ(server.Error(), "");
    server.Start();
    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", server.Port()));

    Json::Value response;
    EXPECT_EQ(PortSetting(response, PortRequest(4, {{20, true}})), -1);
    EXPECT_NE(Message(response).find("127.0.0.1:" + std::to_string(server.Port()) + ": cannot set coil 20 to on: " +
                                     modbus_strerror(EMBXILADD)),
              std::string::npos)
        << Message(response);
    ASSERT_EQ(PortSetting(response, PortRequest(4, {{7, true}})), 0) << CompactJson(response);
    EXPECT_TRUE(server.Coil(7));
    EXPECT_EQ(server.Connections(), 1);
}

TEST_F(ModbusModule, NegativeOutputIsRefusedWithoutReachingTheModule) {
    LoopbackModbusServer server;
    ASSERT_EQ(server.Error(), "");
    server.Start();
    ModbusIOModule module("127.0.0.1", server.Port());
    std::string error;
    EXPECT_FALSE(module.SetDigitalOutput(-1, true, error));
    EXPECT_NE(error.find("digital output -1 is no coil address"), std::string::npos) << error;
    EXPECT_EQ(server.Connections(), 0);
}

TEST_F(ModbusModule, AudioOutIsRefusedByAModbusModule) {
    tw::host::SetIOModuleBackend(4, std::make_shared<ModbusIOModule>("127.0.0.1", 1502));
    Json::Value request(Json::objectValue);
    request["filePath"] = "/tmp";
    request["isManual"] = false;
    Json::Value response;
    EXPECT_EQ(IOModuledApi::SendCmd(4, IOMODULED_CMD_FILE_AUDIO_OUT_START, request, &response),
              tw::host::kIOModuledErrRefused);
    EXPECT_FALSE(response["success"].asBool());
    EXPECT_EQ(response["errorMsg"].asString(),
              "I/O module 4: Modbus/TCP I/O module has no audio output (127.0.0.1:1502)");
}

TEST_F(ModbusModule, ModuleDescribesItsAddressAndUnit) {
    EXPECT_EQ(ModbusIOModule("10.0.0.8", 502).Describe(), "Modbus/TCP I/O module at 10.0.0.8:502, unit 1");
    EXPECT_EQ(ModbusIOModule("::1", 1502, 3).Address(), "[::1]:1502");
}

TEST_F(ModbusModule, BadPortIsRefusedNamingIt) {
    ModbusIOModule module("127.0.0.1", 70000);
    std::string error;
    EXPECT_FALSE(module.SetDigitalOutput(0, true, error));
    EXPECT_EQ(error, "Modbus/TCP I/O module 127.0.0.1:70000: port 70000 out of range 1..65535");
}

TEST(ModbusAddress, HostAndPortAreSplit) {
    std::string host, error;
    int port = 0;
    ASSERT_TRUE(tw::host::ParseModbusAddress("192.168.1.20:502", host, port, error)) << error;
    EXPECT_EQ(host, "192.168.1.20");
    EXPECT_EQ(port, 502);
    ASSERT_TRUE(tw::host::ParseModbusAddress("iomodule.local:1502", host, port, error)) << error;
    EXPECT_EQ(host, "iomodule.local");
    EXPECT_EQ(port, 1502);
    ASSERT_TRUE(tw::host::ParseModbusAddress("[fe80::1]:65535", host, port, error)) << error;
    EXPECT_EQ(host, "fe80::1");
    EXPECT_EQ(port, 65535);
}

TEST(ModbusAddress, BadAddressesAreRefusedNamingThem) {
    std::string host, error;
    int port = 0;
    for (const char* text : {"192.168.1.20", ":502", "host:", "host:0", "host:65536", "host:5o2", "fe80::1:502",
                             "[fe80::1]502", "[fe80::1"}) {
        error.clear();
        EXPECT_FALSE(tw::host::ParseModbusAddress(text, host, port, error)) << text;
        EXPECT_NE(error.find(std::string("'") + text + "'"), std::string::npos) << error;
    }
}

TEST_F(ModbusModule, CoilsAreReadBackFromTheUnit) {
    LoopbackModbusServer server;
    ASSERT_EQ(server.Error(), "");
    server.Start();
    ModbusIOModule module("127.0.0.1", server.Port());
    std::string error;
    ASSERT_TRUE(module.CheckReachable(error)) << error;
    ASSERT_TRUE(module.SetDigitalOutput(5, true, error)) << error;
    bool state = false;
    ASSERT_TRUE(module.GetDigitalOutput(5, state, error)) << error;
    EXPECT_TRUE(state);
    ASSERT_TRUE(module.GetDigitalOutput(4, state, error)) << error;
    EXPECT_FALSE(state);
    EXPECT_FALSE(module.GetDigitalOutput(-1, state, error));
    EXPECT_NE(error.find("is no coil address"), std::string::npos) << error;
    // The connection opened by CheckReachable served every request.
    EXPECT_EQ(server.Connections(), 1);
}

TEST_F(ModbusModule, UnreachableUnitIsToldByCheckReachable) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_GE(fd, 0) << strerror(errno);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)), 0) << strerror(errno);
    socklen_t len = sizeof(addr);
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len), 0) << strerror(errno);
    const int port = ntohs(addr.sin_port);
    ModbusIOModule module("127.0.0.1", port);
    std::string error;
    EXPECT_FALSE(module.CheckReachable(error));
    EXPECT_EQ(error, "Modbus/TCP I/O module 127.0.0.1:" + std::to_string(port) + ": cannot connect: Connection refused");
    close(fd);
}

}  // namespace
