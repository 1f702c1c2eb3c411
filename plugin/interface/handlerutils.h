// The functor templates are shared with every host, so they live with the host API
// (tw/handlerutils.h) and are installed with it; the module's sources keep including them
// from here.
#pragma once

#include "tw/handlerutils.h"
