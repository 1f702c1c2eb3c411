// The process-wide line of picture decodes.
#include "twhost/decodegate.h"

#include <sched.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

namespace {

int CoresOfThisProcess() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) == 0) {
        const int n = CPU_COUNT(&set);
        if (n > 0) return n;
    }
    const unsigned hw = std::thread::hardware_concurrency();
    return hw > 0 ? static_cast<int>(hw) : 1;
}

// One waiting decode; it lives on its thread's stack until it is let in.
struct Waiter {
    std::condition_variable cv;
    bool admitted = false;
};

struct Gate {
    std::mutex mutex;
    int slots = CoresOfThisProcess();
    int running = 0;
    uint64_t waited = 0;
    std::deque<Waiter*> line;

    // With the mutex held: lets in the first of the line while there is room. The waiter
    // is told under the mutex, since it may leave (and its record with it) the moment it
    // sees that it was let in.
    void AdmitWhileRoom() {
        while (running < slots && !line.empty()) {
            Waiter* w = line.front();
            line.pop_front();
            ++running;
            w->admitted = true;
            w->cv.notify_one();
        }
    }
};

Gate& TheGate() {
    static Gate gate;
    return gate;
}

}  // namespace

namespace tw::host {

void SetDecodeSlots(int n) {
    Gate& g = TheGate();
    std::lock_guard<std::mutex> lock(g.mutex);
    g.slots = n >= 1 ? n : CoresOfThisProcess();
    g.AdmitWhileRoom();
}

int GetDecodeSlots() {
    Gate& g = TheGate();
    std::lock_guard<std::mutex> lock(g.mutex);
    return g.slots;
}

DecodeGateState GetDecodeGateState() {
    Gate& g = TheGate();
    std::lock_guard<std::mutex> lock(g.mutex);
    DecodeGateState s;
    s.running = g.running;
    s.waiting = static_cast<int>(g.line.size());
    s.waited = g.waited;
    return s;
}

DecodeSlot::DecodeSlot() {
    Gate& g = TheGate();
    std::unique_lock<std::mutex> lock(g.mutex);
    // Nobody passes those already in line.
    if (g.line.empty() && g.running < g.slots) {
        ++g.running;
        return;
    }
    Waiter self;
    g.line.push_back(&self);
    ++g.waited;
    self.cv.wait(lock, [&self] { return self.admitted; });
}

DecodeSlot::~DecodeSlot() {
    Gate& g = TheGate();
    std::lock_guard<std::mutex> lock(g.mutex);
    --g.running;
    g.AdmitWhileRoom();
}

}  // namespace tw::host
