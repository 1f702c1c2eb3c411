// Polling for a state that another thread brings about.
#pragma once

#include <algorithm>
#include <chrono>
#include <functional>
#include <thread>

namespace tw::test {

// Polls until pred holds, at most guardMs; a guard against a hang, not a measurement of
// time. Returns whether pred held. The pause between looks grows to 2 ms: with a hundred
// waiters at once, fixed short pauses would take the processor from the threads they
// wait for.
inline bool WaitUntil(const std::function<bool()>& pred, int guardMs = 30000) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(guardMs);
    std::chrono::microseconds pause(100);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(pause);
        pause = std::min(pause * 2, std::chrono::microseconds(2000));
    }
    return true;
}

}  // namespace tw::test
