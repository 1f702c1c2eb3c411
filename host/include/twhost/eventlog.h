// What the reference host's event buffers remember: every SetStatus, with its time.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

#include "tw/camera.h"

namespace tw::host {

struct EventRecord {
    int64_t timeUs;   // host clock
    bool motion;
    int value;
};

using EventListener = std::function<void(const EventRecord&)>;

std::vector<EventRecord> GetEventHistory(const EventBuf& buf);
// Waits (real time) until the history holds at least n records; false on time-out.
bool WaitForEvents(const EventBuf& buf, size_t n, int timeoutMs);
// Called on the thread that calls SetStatus, after the record is stored.
void SetEventListener(EventBuf& buf, EventListener listener);

}  // namespace tw::host
