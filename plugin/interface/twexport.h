// The export macro is part of the installed host API (tw/export.h), because the functor
// templates that a host shares with the module carry it.
#pragma once

#include "tw/export.h"
