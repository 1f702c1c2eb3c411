// Inside the host library: how the web API runner and the daemon client add to the
// request journal of twhost/iomodule.h.
#pragma once

#include "twhost/iomodule.h"

namespace tw::host {

// Appends the request and then calls the listener, if any, outside the journal's lock.
void RecordIORequest(IORequest request);

}  // namespace tw::host
