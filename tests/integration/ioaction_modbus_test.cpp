// The executor driving a real Modbus/TCP I/O module: the coils of a unit that the test runs
// on loopback follow the executor's requests, pass by pass on the manual clock.
#include "plugin/actionrule/ioaction_testutil.h"
#include "support/modbusserver.h"

namespace tw::test {
namespace {

class ExecutorOverModbus : public ExecutorTest {
protected:
    void SetUp() override {
        ExecutorTest::SetUp();
        ASSERT_EQ(m_Server.Error(), "");
        m_Server.Start();
        tw::host::SetIOModuleBackend(
            kModuleId, std::make_shared<tw::host::ModbusIOModule>("127.0.0.1", m_Server.Port()));
    }
    void TearDown() override {
        ExecutorTest::TearDown();   // the executor and the module's connection go first
        m_Server.Stop();
    }
    LoopbackModbusServer m_Server{16};
};

TEST_F(ExecutorOverModbus, CoilsFollowATimedOutputAndAHeldOne) {
    Start(8);
    Act(0x400, {}, {{2, DOCond(false, 3, 0)}, {5, DOCond(false, -2, 0)}});
    EXPECT_TRUE(m_Server.Coil(2));
    EXPECT_TRUE(m_Server.Coil(5));
    EXPECT_FALSE(m_Server.Coil(3));
    Seconds(4);   // port 2's hold ends at 4 s ...
    EXPECT_TRUE(m_Server.Coil(2));
    Tick();       // ... and it is switched back at 5 s
    EXPECT_FALSE(m_Server.Coil(2));
    EXPECT_TRUE(m_Server.Coil(5));
    EXPECT_EQ(PortStatus(2), 0);
    EXPECT_EQ(PortStatus(5), 1);
    m_pExec->Terminate();
    EXPECT_FALSE(m_Server.Coil(5));
    EXPECT_EQ(m_Server.Requests(), 4);
    EXPECT_EQ(m_Server.Connections(), 1);
}

TEST_F(ExecutorOverModbus, OutputStartedFalseDrivesItsCoilOffAndItsNormalStateOn) {
    Start(8);
    Act(0x4000, {}, {{1, DOCond(false, 1, 0)}});
    EXPECT_FALSE(m_Server.Coil(1));
    Seconds(3);
    EXPECT_TRUE(m_Server.Coil(1));
}

TEST_F(ExecutorOverModbus, UnreachableModuleGivesStatus3) {
    m_Server.Stop();
    Start(8);
    Act(0x400, {}, {{0, DOCond(false, 5, 0)}});
    EXPECT_EQ(PortStatus(0), 3);
}

}  // namespace
}  // namespace tw::test
