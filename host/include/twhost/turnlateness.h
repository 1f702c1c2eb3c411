// How late a paced worker's turns start: a DelayTimer knows when the next turn of its
// thread is due, and the moment it lets the thread go is when the turn really starts. A
// recorder running many cameras in one process watches this to see that it keeps up.
#pragma once

#include <cstdint>

namespace tw::host {

// Tells the calling thread's DelayTimer waits which camera they pace. The host's
// LiveStreamUpdater binds its camera on construction: every motion detector's thread makes
// one before its first turn.
void BindTurnCamera(int camId);

struct TurnLateness {
    uint64_t turns = 0;       // turns that began after a DelayTimer wait
    int64_t sumUs = 0;        // their lateness added up
    int64_t maxUs = 0;
    uint64_t over100Ms = 0;   // turns more than 100 ms late
    // The lateness that the given share of turns (0..1) does not exceed, to 1 ms (the
    // largest value counts in full); 0 without turns.
    int64_t QuantileUs(double share) const;

    static constexpr int kBuckets = 2001;   // 1 ms each; the last holds 2 s and more
    uint32_t buckets[kBuckets] = {};
};

// The turns counted so far for the camera (all zero when it has none). Process-wide.
TurnLateness GetTurnLateness(int camId);
void ResetTurnLateness(int camId);

}  // namespace tw::host
