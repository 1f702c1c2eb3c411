// The live FIFO of a camera as the shared-memory tests set it up: keys of the test's own and
// a "twhost stream" process that publishes into it.
#pragma once

#include <string>
#include <vector>

#include "support/childprocess.h"
#include "support/testenv.h"

namespace tw::test {

// The region of shared-memory keys the live-FIFO tests share; each test process gets a slot
// of its own in it (ScopedProcessKeyBase), which publisher and readers inherit.
constexpr unsigned kLiveFifoKeyRegion = 0x40000000u;

// Starts "twhost stream" with args (what follows "stream") and waits until it announces that
// the segment exists and its clock runs. False, with error saying why, when it never did.
bool StartPublisher(ChildProcess& stream, const std::vector<std::string>& args, std::string& error);

}  // namespace tw::test
