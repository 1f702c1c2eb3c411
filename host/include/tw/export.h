// The one export macro of the module: everything else is hidden, so the dynamic symbol
// table holds the module's interface and nothing more.
#pragma once

#define TW_EXPORT __attribute__((visibility("default")))
