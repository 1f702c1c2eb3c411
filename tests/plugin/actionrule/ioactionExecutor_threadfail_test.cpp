// An executor whose worker cannot be created, and the worker's stack.
#include "plugin/actionrule/ioaction_testutil.h"
#include "support/failing_pthread_create.h"

namespace tw::test {
namespace {

using Access = IOActExecutorAccess;

TEST_F(ExecutorTest, WorkerAsksForA512KiBStack) {
    g_LastStackSize = 0;
    Start();
    EXPECT_EQ(g_LastStackSize.load(), 524288u);
}

TEST_F(ExecutorTest, ThreadFailureIsOnlyLoggedAndRequestsAreNeverCarriedOut) {
    ScopedLogCapture logs;
    g_FailThreads = true;
    IOActExecutor exec;
    EXPECT_EQ(exec.Init(kModuleId, 2, nullptr, &m_Status), 0);
    g_FailThreads = false;
    const auto found = logs->Find("Failed to create thread.\n");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].level, "CRIT");
    EXPECT_EQ(found[0].category, "ioaction");
    EXPECT_EQ(found[0].file, "actionrule/ioactionExecutor.cpp");
    EXPECT_EQ(found[0].line, 94);
    EXPECT_EQ(found[0].function, "Init");

    std::map<int, int> act, outputs;
    exec.GetStatus(act, outputs);
    EXPECT_EQ(outputs, (std::map<int, int>{{0, 0}, {1, 0}}));
    exec.DoAction(0x400, {}, {{1, DOCond(false, 5, 0)}}, false);
    EXPECT_EQ(Access::DOCmd(exec)[1], 1);
    m_Clock->Advance(10 * kSecondUs);
    EXPECT_TRUE(tw::host::TakeIORequests().empty());
    EXPECT_EQ(m_Clock->WaitsBegun(), 0u);
    // Terminate has no worker to join and returns.
    EXPECT_EQ(exec.Terminate(), 0);
}

}  // namespace
}  // namespace tw::test
