// The host's own detector kind (detector types 0, 1 and 3 to 8): started, stopped and
// triggered through the host's detector table (ID 5 triggers, ID 6 reads the count).
#pragma once

#include "tw/handler.h"

// Released with ReleaseDetDPObj.
DPObjectBase* CreateHostDetector();

namespace tw::host {
// How many objects ReleaseDetDPObj has destroyed in this process.
int HostDetectorReleaseCount();
}  // namespace tw::host
