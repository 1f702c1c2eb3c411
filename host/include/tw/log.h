// Logging services of the host: the logger, the debug-log configuration and the
// enumeration texts. The plug-in decides itself whether a message is wanted (it reads
// g_pDbgLogCfg) and only then calls TWPrintf.
#pragma once

#include <cstddef>
#include <map>

enum LOG_TYPE : int { LOG_TYPE_NORMAL = 0 };

// Category numbers; the plug-in uses one per source file. The enumerations have a fixed
// underlying type: configurations and callers carry values they do not list.
enum LOG_CATEG : int {
    LOG_CATEG_SYSTEM = 0,
    LOG_CATEG_RECORDER = 1,
    LOG_CATEG_EVENT = 2,
    LOG_CATEG_IOACTION = 7,
    LOG_CATEG_STREAM = 20,
    LOG_CATEG_MOTIONDET = 59,
    LOG_CATEG_LIVECAM = 70,
    LOG_CATEG_AUDIOOUT = 100,
    LOG_CATEG_MAX = 512,
};

// A higher number is a more detailed message.
enum LOG_LEVEL : int {
    LOG_LEVEL_NONE = 0,
    LOG_LEVEL_CRIT = 1,
    LOG_LEVEL_ERR = 2,
    LOG_LEVEL_WARN = 3,
    LOG_LEVEL_NOTICE = 4,
    LOG_LEVEL_INFO = 5,
    LOG_LEVEL_DEBUG = 6,
    LOG_LEVEL_TRACE = 7,
};

// The debug-log configuration is read as an array of 32-bit ints:
//   [0] unused, [1 + C] threshold of category C (C < 512), [513] number of
//   per-process entries, then (pid, threshold) pairs from index 514.
constexpr int TW_DBG_LOG_PID_MAX = 64;
struct DBG_LOG_PID_ENTRY {
    int pid;
    int level;
};
struct DBG_LOG_CFG {
    int reserved;
    int categLevel[LOG_CATEG_MAX];
    int pidEntryCount;
    DBG_LOG_PID_ENTRY pidEntries[TW_DBG_LOG_PID_MAX];
};
static_assert(sizeof(int) == 4, "the configuration is an array of 32-bit ints");
static_assert(offsetof(DBG_LOG_CFG, categLevel) == 1 * sizeof(int), "category thresholds start at index 1");
static_assert(offsetof(DBG_LOG_CFG, pidEntryCount) == 513 * sizeof(int), "entry count at index 513");
static_assert(offsetof(DBG_LOG_CFG, pidEntries) == 514 * sizeof(int), "entries start at index 514");

// Null when the host has no configuration.
extern DBG_LOG_CFG* g_pDbgLogCfg;
// Cached process id; 0 until someone fills it with getpid().
extern int g_DbgLogPid;

// Texts of an enumeration, filled by the host's constructor specialisations.
template <typename T>
class TWEnum2StrMap : public std::map<T, const char*> {
public:
    TWEnum2StrMap();
};
template <> TWEnum2StrMap<LOG_CATEG>::TWEnum2StrMap();
template <> TWEnum2StrMap<LOG_LEVEL>::TWEnum2StrMap();

void TWPrintf(LOG_TYPE type, const char* category, const char* level, const char* file, int line,
              const char* function, const char* format, ...) __attribute__((format(printf, 7, 8)));
