// Host threads calling DoAction and GetStatus, and manual operations on the module, all at
// once with the worker, for thousands of requests; then Terminate. Built and run under
// ThreadSanitizer as well.
#include <atomic>
#include <random>
#include <thread>

#include "plugin/actionrule/ioaction_testutil.h"

namespace tw::test {
namespace {

constexpr int kPorts = 8;
constexpr int kRequestsPerThread = 3000;

TEST_F(ExecutorTest, ConcurrentRequestsStatusReadsAndManualOperationsEndWithNoActiveAction) {
    Start(kPorts);
    std::atomic<bool> blStop{false};
    std::atomic<long> statusReads{0};

    // Time moves on all the while, so that holds end and plays repeat.
    std::thread ticker([&] {
        while (!blStop) {
            m_Clock->Advance(kSecondUs);
            std::this_thread::yield();
        }
    });
    std::thread manual([&] {
        std::mt19937 rng(7);
        while (!blStop) {
            m_Status.SetManualDOSts(static_cast<int>(rng() % kPorts), 2);
            m_Status.SetManualAOTrig(rng() % 4 == 0);
            std::this_thread::yield();
        }
    });
    std::thread reader([&] {
        std::map<int, int> act, outputs;
        while (!blStop) {
            m_pExec->GetStatus(act, outputs);
            ++statusReads;
            for (const auto& s : outputs) {
                ASSERT_GE(s.second, 0);
                ASSERT_LE(s.second, 3);
            }
            ASSERT_EQ(act.count(9), 1u);
        }
    });
    // The requests start once the reader has read the status: on a loaded machine the
    // hosts could otherwise be done before the reader first runs, and no read would meet a
    // request.
    while (statusReads.load() == 0) std::this_thread::yield();
    std::vector<std::thread> hosts;
    for (int t = 0; t < 3; ++t) {
        hosts.emplace_back([this, t] {
            std::mt19937 rng(100 + t);
            for (int i = 0; i < kRequestsPerThread; ++i) {
                const bool blStopReq = rng() % 3 == 0;
                if (rng() % 4 == 0) {
                    m_pExec->DoAction(0x200,
                                      {{9, AudioCond(blStopReq, kPatternId, static_cast<int>(rng() % 4),
                                                     static_cast<long long>(rng() % 3),
                                                     static_cast<int>(rng() % 2))}},
                                      {}, false);
                } else {
                    std::map<int, IOActExecCond> outputs;
                    const int n = 1 + static_cast<int>(rng() % 3);
                    for (int k = 0; k < n; ++k) {
                        const long long period = (rng() % 5 == 0) ? -2 : static_cast<long long>(rng() % 4);
                        outputs[static_cast<int>(rng() % kPorts)] =
                            DOCond(blStopReq, period, static_cast<int>(rng() % 3));
                    }
                    m_pExec->DoAction((rng() % 2) ? 0x400 : 0x4000, {}, outputs, false);
                }
                std::map<int, int> act, doSts;
                m_pExec->GetStatus(act, doSts);
            }
        });
    }
    for (std::thread& h : hosts) h.join();
    blStop = true;
    ticker.join();
    manual.join();
    reader.join();

    // The worker may have been between passes when the last request came: after the first
    // tick it surely waits, so the second one runs a full pass over everything pending.
    Tick();
    Tick();
    EXPECT_EQ(m_pExec->Terminate(), 0);
    std::map<int, int> act, outputs;
    m_pExec->GetStatus(act, outputs);
    for (const auto& s : outputs) EXPECT_NE(s.second, 1) << "port " << s.first;
    EXPECT_NE(act[9], 1);
    // Requests that overwrite each other before a pass are coalesced: how many reach the
    // module depends on the interleaving, but some always do.
    EXPECT_FALSE(tw::host::TakeIORequests().empty());
}

}  // namespace
}  // namespace tw::test
