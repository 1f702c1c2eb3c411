// Where TWPrintf's lines go, and the debug-log configuration record of the process.
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "tw/log.h"

namespace tw::host {

struct LogRecord {
    int type;
    std::string category;   // "(null)" when the caller passed no category text
    std::string level;      // likewise
    bool blNullCategory;
    bool blNullLevel;
    std::string file;
    int line;
    std::string function;
    std::string message;    // formatted, exactly as produced (trailing newline kept)
};

class LogSink {
public:
    virtual ~LogSink() = default;
    virtual void Write(const LogRecord& record) = 0;
};

// One line per message on stderr: "[category][level] file:line function: message".
class StderrLogSink : public LogSink {
public:
    void Write(const LogRecord& record) override;
};

// Keeps every record; for tests.
class CaptureLogSink : public LogSink {
public:
    void Write(const LogRecord& record) override;
    std::vector<LogRecord> Records();
    void Clear();
    // Records whose message equals text exactly.
    std::vector<LogRecord> Find(const std::string& message);
    size_t Count(const std::string& message);

private:
    std::mutex m_Mutex;
    std::vector<LogRecord> m_Records;
};

// SetLogSink(nullptr) restores the stderr sink.
void SetLogSink(std::shared_ptr<LogSink> sink);
std::shared_ptr<LogSink> GetLogSink();

// Owns the configuration record that g_pDbgLogCfg points at while it is installed.
class DbgLogConfig {
public:
    DbgLogConfig();            // every threshold 0, no entries
    ~DbgLogConfig();           // uninstalls itself if installed
    void Install();            // g_pDbgLogCfg = this record
    static void Uninstall();   // g_pDbgLogCfg = nullptr
    void SetCategoryLevel(int category, int level);
    void SetAllCategoryLevels(int level);
    void AddPidEntry(int pid, int level);
    void SetPidEntryCount(int count);
    DBG_LOG_CFG& Raw() { return *m_pCfg; }

private:
    std::unique_ptr<DBG_LOG_CFG> m_pCfg;
};

// Names of the host's log categories and levels (the TWEnum2StrMap texts).
const char* LogCategoryText(int category);
const char* LogLevelText(int level);

}  // namespace tw::host
