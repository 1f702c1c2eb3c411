#include "interface/twlog.h"

bool ChkPidLevel(LOG_LEVEL level) {
    const DBG_LOG_CFG* cfg = g_pDbgLogCfg;
    if (cfg == nullptr) return false;
    const int pid = TWLogOwnPid();
    const int count = cfg->pidEntryCount;
    if (count >= 1) {
        for (int i = 0; i < count; ++i) {
            if (cfg->pidEntries[i].pid == pid) return level <= cfg->pidEntries[i].level;
        }
    }
    return level < 1;
}
