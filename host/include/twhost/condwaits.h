// Condition waits of the plug-in's workers. CondTimedWaitNoLock is a host service, so the
// host sees every worker go to sleep: a condition signalled before its worker waits is lost,
// and a host that sends a request only after the worker's first wait has begun has it carried
// out at once instead of after the worker's time-out. The count is process-wide (every
// condition wait of every worker); a process that runs one worker reads it as that worker's.
#pragma once

#include <cstdint>

namespace tw::host {

// How many condition waits have begun in this process so far.
uint64_t CondWaitsBegun();
// Blocks until at least n condition waits have begun, or timeoutMs has passed (forever when
// negative); true when they have.
bool WaitForCondWaitsBegun(uint64_t n, int timeoutMs);

}  // namespace tw::host
