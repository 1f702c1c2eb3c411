// twhost's wait for SIGINT/SIGTERM, which other threads can also end early with news
// (the end of a source's data), so that the main thread need not look every few ms.
#include <gtest/gtest.h>

#include <csignal>
#include <thread>

#include "stopsignals.h"

namespace {

// A Wake that comes before the wait is kept: the wait, told to wait for ever, returns at
// once with no signal. (Were the Wake lost, this test would hang until ctest's time-out.)
TEST(StopSignals, WakeBeforeTheWaitEndsItWithNoSignal) {
    StopSignals signals;
    ASSERT_TRUE(signals.Ok());
    signals.Wake();
    EXPECT_EQ(signals.Wait(-1), 0);
    // One Wake ends one wait: the next one times out.
    EXPECT_EQ(signals.Wait(0), 0);
}

TEST(StopSignals, WakeFromAnotherThreadEndsAWaitForEver) {
    StopSignals signals;
    ASSERT_TRUE(signals.Ok());
    std::thread other([&signals] { signals.Wake(); });
    EXPECT_EQ(signals.Wait(-1), 0);
    other.join();
}

// A signal that arrives with a Wake is not swallowed by it.
TEST(StopSignals, SignalTogetherWithAWakeIsStillReported) {
    StopSignals signals;
    ASSERT_TRUE(signals.Ok());
    signals.Wake();
    ASSERT_EQ(raise(SIGTERM), 0);   // blocked in this thread: it waits in the signalfd
    EXPECT_EQ(signals.Wait(-1), SIGTERM);
    EXPECT_EQ(signals.Wait(0), 0);
}

}  // namespace
