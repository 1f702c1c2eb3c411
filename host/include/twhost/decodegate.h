// How many picture decodes the host runs at once, process-wide.
//
// A recorder decodes the key frames of all its cameras in one process, one detector thread
// a camera. Left to the kernel's fair share, eighty threads that each want 20 ms of decode
// in the same second all advance together and each finishes only near the end of that
// second: every one of their turns overruns its 300 ms slot. Let in as many decodes as
// there are cores, in the order they asked, and the same second's work is done one decode
// after another at full speed: a decode waits for those ahead of it, not for all of them.
#pragma once

#include <cstdint>

namespace tw::host {

// Decodes that may run at once: the cores this process may use (its CPU affinity) unless
// set otherwise. n < 1 restores that default. Waiting decodes keep their place in line.
void SetDecodeSlots(int n);
int GetDecodeSlots();

// For tests: how many decodes are running and waiting right now, and how many have ever
// had to wait for a slot.
struct DecodeGateState {
    int running = 0;
    int waiting = 0;
    uint64_t waited = 0;
};
DecodeGateState GetDecodeGateState();

// Holds one decode slot for its lifetime; waits, first come first served, for one to free.
class DecodeSlot {
public:
    DecodeSlot();
    ~DecodeSlot();
    DecodeSlot(const DecodeSlot&) = delete;
    DecodeSlot& operator=(const DecodeSlot&) = delete;
};

}  // namespace tw::host
