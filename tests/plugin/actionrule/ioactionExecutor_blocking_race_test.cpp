// The executor's host calls while its worker is inside a slow web-API or daemon request:
// a module whose requests block until the test lets them go shows that GetStatus, DoAction
// and Terminate do not wait for the request, and that host code run by the request on the
// worker thread may ask for the status. Built and run under ThreadSanitizer as well.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <mutex>
#include <thread>

#include "plugin/actionrule/ioaction_testutil.h"
#include "support/waituntil.h"

namespace tw::test {
namespace {

// A module whose chosen requests block until released. Every request is recorded when it
// arrives, before it blocks, so the test can wait for a request itself.
class BlockingModule : public tw::host::IOModuleBackend {
public:
    struct PortCall {
        int idx;
        bool state;
        bool blDone;   // the call has returned to its caller
    };

    // Host code run on the calling thread by every request, before it blocks.
    void SetCallback(std::function<void()> callback) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_Callback = std::move(callback);
    }
    // The next port request for idx (any state) blocks until Release.
    void BlockPort(int idx) {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_BlockPort = idx;
    }
    // The next play command blocks until Release.
    void BlockPlay() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_blBlockPlay = true;
    }
    void Release() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        m_blReleased = true;
        m_Cond.notify_all();
    }

    // Waits until pred (called with the module's lock held) holds; a hang guard only.
    bool WaitFor(const std::function<bool()>& pred) {
        std::unique_lock<std::mutex> lock(m_Mutex);
        return m_Cond.wait_for(lock, std::chrono::seconds(60), pred);
    }
    bool WaitUntilBlocked() {
        return WaitFor([&] { return m_Blocked > 0; });
    }
    int Blocked() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Blocked;
    }
    std::vector<PortCall> PortCalls() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_PortCalls;
    }
    int Plays() {
        std::lock_guard<std::mutex> lock(m_Mutex);
        return m_Plays;
    }
    // Lets the module's lock holder check the calls inside WaitFor.
    const std::vector<PortCall>& PortCallsLocked() const { return m_PortCalls; }

    bool SetDigitalOutput(int idx, bool state, std::string& /*error*/) override {
        RunCallback();
        std::unique_lock<std::mutex> lock(m_Mutex);
        const size_t call = m_PortCalls.size();
        m_PortCalls.push_back(PortCall{idx, state, false});
        if (m_BlockPort == idx) {
            m_BlockPort = -1;
            Block(lock);
        }
        m_PortCalls[call].blDone = true;
        m_Cond.notify_all();
        return true;
    }
    bool StartFileAudioOut(const std::string& /*filePath*/, bool /*isManual*/, std::string& /*error*/) override {
        RunCallback();
        std::unique_lock<std::mutex> lock(m_Mutex);
        ++m_Plays;
        if (m_blBlockPlay) {
            m_blBlockPlay = false;
            Block(lock);
        }
        m_Cond.notify_all();
        return true;
    }
    std::string Describe() const override { return "module that blocks on request"; }

private:
    void RunCallback() {
        std::function<void()> callback;
        {
            std::lock_guard<std::mutex> lock(m_Mutex);
            callback = m_Callback;
        }
        if (callback) callback();
    }
    void Block(std::unique_lock<std::mutex>& lock) {
        ++m_Blocked;
        m_Cond.notify_all();
        m_Cond.wait(lock, [&] { return m_blReleased; });
        --m_Blocked;
    }

    std::mutex m_Mutex;
    std::condition_variable m_Cond;
    std::function<void()> m_Callback;
    std::vector<PortCall> m_PortCalls;
    int m_BlockPort = -1;
    bool m_blBlockPlay = false;
    bool m_blReleased = false;
    int m_Blocked = 0;
    int m_Plays = 0;
};

// Waits for an operation run on a thread of its own to return. A call that never returns
// fails the test and ends the process: the executor is then stuck and cannot be cleaned up.
void AwaitReturn(std::future<void>& done, const char* what) {
    if (done.wait_for(std::chrono::seconds(60)) == std::future_status::ready) {
        done.get();
        return;
    }
    ADD_FAILURE() << what << " did not return";
    std::fprintf(stderr, "%s did not return; giving up\n", what);
    std::_Exit(1);
}

// These tests run the worker on the real clock: nothing here waits for time, and a
// worker on the manual clock can miss Terminate's signal in its sliced wait (the host's
// wait then never ends), which these tests, with a thread blocked, would hit more often.
class BlockedRequestTest : public ExecutorTest {
protected:
    void SetUp() override {
        ExecutorTest::SetUp();
        tw::host::SetClock(nullptr);
        tw::host::SetIOModuleBackend(kModuleId, m_Module);
    }
    IOActExecutor& StartOnRealClock(int doCount) {
        m_pExec = std::make_unique<IOActExecutor>();
        EXPECT_EQ(m_pExec->Init(kModuleId, doCount, nullptr, &m_Status), 0);
        return *m_pExec;
    }
    void TearDown() override {
        m_Module->Release();   // whatever a failed check left blocked
        ExecutorTest::TearDown();
    }
    std::shared_ptr<BlockingModule> m_Module = std::make_shared<BlockingModule>();
};

TEST_F(BlockedRequestTest, StatusRequestsAndTerminateDoNotWaitForABlockedPortRequest) {
    IOActExecutor& exec = StartOnRealClock(4);
    // Port 1 is held active, so Terminate has a request of its own to send.
    exec.DoAction(0x400, {}, {{1, DOCond(false, -2, 0)}}, false);
    ASSERT_TRUE(WaitUntil([&] { return PortStatus(1) == 1; }, 60000));
    m_Module->BlockPort(0);
    exec.DoAction(0x400, {}, {{0, DOCond(false, -2, 0)}}, false);
    ASSERT_TRUE(m_Module->WaitUntilBlocked());

    std::map<int, int> act, outputs;
    auto status = std::async(std::launch::async, [&] { exec.GetStatus(act, outputs); });
    AwaitReturn(status, "GetStatus");
    EXPECT_EQ(m_Module->Blocked(), 1);
    EXPECT_EQ(act, (std::map<int, int>{{9, 0}}));
    // Port 0's request has not come back yet, so it is not reported active.
    EXPECT_EQ(outputs, (std::map<int, int>{{0, 0}, {1, 1}, {2, 0}, {3, 0}}));

    auto request = std::async(std::launch::async, [&] {
        exec.DoAction(0x400, {}, {{2, DOCond(true, 0, 0)}}, false);
        exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 1, 0, 0)}}, {}, false);
    });
    AwaitReturn(request, "DoAction");
    EXPECT_EQ(m_Module->Blocked(), 1);

    // Terminate sends its own request for the active port 1 at once; it then waits for the
    // worker, which is still inside port 0's request.
    auto terminate = std::async(std::launch::async, [&] { exec.Terminate(); });
    ASSERT_TRUE(m_Module->WaitFor([&] {
        for (const BlockingModule::PortCall& c : m_Module->PortCallsLocked()) {
            if (c.idx == 1 && !c.state && c.blDone) return true;
        }
        return false;
    }));
    EXPECT_EQ(m_Module->Blocked(), 1);
    m_Module->Release();
    AwaitReturn(terminate, "Terminate");

    // The output that the blocked request switched on after Terminate had run stays on and
    // active: Terminate had nothing active on port 0 to put back, and the worker does not
    // look at the port again. Putting it back is its host's business (twhost ioaction
    // reads the module back after Terminate).
    std::vector<bool> port0;
    for (const BlockingModule::PortCall& c : m_Module->PortCalls()) {
        if (c.idx == 0) port0.push_back(c.state);
    }
    EXPECT_EQ(port0, (std::vector<bool>{true}));
    EXPECT_EQ(DOStatus()[0], 1);
    EXPECT_NE(AudioStatus(), 1);
}

TEST_F(BlockedRequestTest, StatusAndRequestsDoNotWaitForABlockedPlayCommand) {
    IOActExecutor& exec = StartOnRealClock(2);
    m_Module->BlockPlay();
    exec.DoAction(0x200, {{9, AudioCond(false, kPatternId, 2, 1, 0)}}, {}, false);
    ASSERT_TRUE(m_Module->WaitUntilBlocked());

    std::map<int, int> act, outputs;
    auto status = std::async(std::launch::async, [&] { exec.GetStatus(act, outputs); });
    AwaitReturn(status, "GetStatus");
    EXPECT_EQ(m_Module->Blocked(), 1);
    EXPECT_EQ(act, (std::map<int, int>{{9, 1}}));

    auto request = std::async(std::launch::async, [&] {
        exec.DoAction(0x4000, {}, {{1, DOCond(false, 3, 0)}}, false);
    });
    AwaitReturn(request, "DoAction");
    EXPECT_EQ(m_Module->Blocked(), 1);

    m_Module->Release();
    auto terminate = std::async(std::launch::async, [&] { exec.Terminate(); });
    AwaitReturn(terminate, "Terminate");
    EXPECT_GE(m_Module->Plays(), 1);
    EXPECT_NE(AudioStatus(), 1);
    // Port 1's start may still be carried out by the worker's last pass, before or after
    // Terminate looked at the ports: which of the two, the threads decide.
}

TEST_F(BlockedRequestTest, HostCodeRunByAPortRequestMayAskForTheStatus) {
    IOActExecutor& exec = StartOnRealClock(2);
    std::mutex seenMutex;
    std::vector<std::map<int, int>> seen;   // port statuses seen from inside the requests
    std::thread::id worker;
    std::promise<void> asked;
    std::future<void> statusReturned = asked.get_future();
    m_Module->SetCallback([&] {
        std::map<int, int> act, outputs;
        exec.GetStatus(act, outputs);
        std::lock_guard<std::mutex> lock(seenMutex);
        seen.push_back(outputs);
        worker = std::this_thread::get_id();
        if (seen.size() == 1) asked.set_value();
    });
    auto request = std::async(std::launch::async, [&] {
        exec.DoAction(0x400, {}, {{0, DOCond(false, -2, 0)}}, false);
    });
    AwaitReturn(request, "DoAction");
    AwaitReturn(statusReturned, "GetStatus on the worker thread");
    // The request's own return, on the worker thread, after the callback asked for the
    // status there.
    ASSERT_TRUE(m_Module->WaitFor([&] {
        return !m_Module->PortCallsLocked().empty() && m_Module->PortCallsLocked()[0].blDone;
    }));
    {
        std::lock_guard<std::mutex> lock(seenMutex);
        ASSERT_EQ(seen.size(), 1u);
        // Asked while the port was being switched: not active yet.
        EXPECT_EQ(seen[0], (std::map<int, int>{{0, 0}, {1, 0}}));
        EXPECT_NE(worker, std::this_thread::get_id());
    }
    m_Module->SetCallback(nullptr);
    // Terminate puts back what it finds active: wait until the worker has written the
    // port's new status, which it does after the request returned.
    ASSERT_TRUE(WaitUntil([&] { return PortStatus(0) == 1; }, 60000));
    auto terminate = std::async(std::launch::async, [&] { exec.Terminate(); });
    AwaitReturn(terminate, "Terminate");
    const std::vector<BlockingModule::PortCall> calls = m_Module->PortCalls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_TRUE(calls[0].state);
    EXPECT_FALSE(calls[1].state);   // Terminate's request for the active port
    EXPECT_EQ(DOStatus(), (std::map<int, int>{{0, 0}, {1, 0}}));
}

}  // namespace
}  // namespace tw::test
