// The module's log gate. Every message is judged at its call site against the host's
// debug-log configuration before anything is formatted, so a suppressed message costs a
// few comparisons and no call.
#pragma once

#include <unistd.h>

#include "interface/twexport.h"
#include "tw/log.h"

// Text of a category or level from the host's tables; "unknown" for a value they lack.
template <typename T>
inline const char* Enum2String(T value) {
    static const TWEnum2StrMap<T> s_Texts;
    typename TWEnum2StrMap<T>::const_iterator it = s_Texts.find(value);
    return it == s_Texts.end() ? "unknown" : it->second;
}

inline int TWLogOwnPid() {
    if (g_DbgLogPid == 0) g_DbgLogPid = getpid();
    return g_DbgLogPid;
}

// Whether a message of level `level` in category `categ` is to be printed.
__attribute__((always_inline)) inline bool TWLogGate(int categ, int level) {
    const DBG_LOG_CFG* cfg = g_pDbgLogCfg;
    // Without a configuration only errors and worse get through.
    if (cfg == nullptr) return level <= 3;
    if (cfg->categLevel[categ] >= level) return true;
    const int pid = TWLogOwnPid();
    const int count = cfg->pidEntryCount;
    if (count < 1) return false;
    for (int i = 0; i < count; ++i) {
        if (cfg->pidEntries[i].pid == pid) return cfg->pidEntries[i].level >= level;
    }
    return false;
}

// The per-process check. Unlike the gate it fails without a configuration, and level 0
// passes it when the process has no entry; both differences are relied upon by callers.
TW_EXPORT bool ChkPidLevel(LOG_LEVEL level);

#define TW_LOG_AT(categ, level, line, func, ...)                                                  \
    do {                                                                                          \
        if (TWLogGate((categ), (level)))                                                          \
            TWPrintf(LOG_TYPE_NORMAL, Enum2String<LOG_CATEG>(static_cast<LOG_CATEG>(categ)),      \
                     Enum2String<LOG_LEVEL>(static_cast<LOG_LEVEL>(level)), __FILE__, (line),     \
                     (func), __VA_ARGS__);                                                        \
    } while (0)

// A message of this source line and function, in the category of the file (TW_LOG_CATEG,
// defined by each source file before it logs).
#define TWLOG(level, ...) TW_LOG_AT(TW_LOG_CATEG, (level), __LINE__, __func__, __VA_ARGS__)
