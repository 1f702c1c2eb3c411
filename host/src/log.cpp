// The host's logger: TWPrintf formats one message and hands it to the installed sink.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "twhost/logsink.h"

DBG_LOG_CFG* g_pDbgLogCfg = nullptr;
int g_DbgLogPid = 0;

namespace {

struct NamedValue {
    int value;
    const char* text;
};

constexpr NamedValue kCategories[] = {
    {LOG_CATEG_SYSTEM, "system"},     {LOG_CATEG_RECORDER, "recorder"},
    {LOG_CATEG_EVENT, "event"},       {LOG_CATEG_IOACTION, "ioaction"},
    {LOG_CATEG_STREAM, "stream"},     {LOG_CATEG_MOTIONDET, "motiondet"},
    {LOG_CATEG_LIVECAM, "livecam"},   {LOG_CATEG_AUDIOOUT, "audioout"},
};

constexpr NamedValue kLevels[] = {
    {LOG_LEVEL_NONE, "NONE"},     {LOG_LEVEL_CRIT, "CRIT"},   {LOG_LEVEL_ERR, "ERR"},
    {LOG_LEVEL_WARN, "WARN"},     {LOG_LEVEL_NOTICE, "NOTICE"}, {LOG_LEVEL_INFO, "INFO"},
    {LOG_LEVEL_DEBUG, "DEBUG"},   {LOG_LEVEL_TRACE, "TRACE"},
};

std::mutex g_SinkMutex;
std::shared_ptr<tw::host::LogSink>& SinkSlot() {
    static std::shared_ptr<tw::host::LogSink> sink = std::make_shared<tw::host::StderrLogSink>();
    return sink;
}

}  // namespace

template <>
TWEnum2StrMap<LOG_CATEG>::TWEnum2StrMap() {
    for (const NamedValue& c : kCategories) (*this)[static_cast<LOG_CATEG>(c.value)] = c.text;
}

template <>
TWEnum2StrMap<LOG_LEVEL>::TWEnum2StrMap() {
    for (const NamedValue& l : kLevels) (*this)[static_cast<LOG_LEVEL>(l.value)] = l.text;
}

void TWPrintf(LOG_TYPE type, const char* category, const char* level, const char* file, int line,
              const char* function, const char* format, ...) {
    tw::host::LogRecord record;
    record.type = type;
    record.blNullCategory = category == nullptr;
    record.blNullLevel = level == nullptr;
    record.category = category ? category : "(null)";
    record.level = level ? level : "(null)";
    record.file = file ? file : "";
    record.line = line;
    record.function = function ? function : "";
    if (format) {
        va_list args;
        va_start(args, format);
        va_list copy;
        va_copy(copy, args);
        char small[512];
        const int n = vsnprintf(small, sizeof(small), format, args);
        if (n >= 0 && static_cast<size_t>(n) < sizeof(small)) {
            record.message.assign(small, static_cast<size_t>(n));
        } else if (n > 0) {
            record.message.resize(static_cast<size_t>(n) + 1);
            vsnprintf(&record.message[0], record.message.size(), format, copy);
            record.message.resize(static_cast<size_t>(n));
        }
        va_end(copy);
        va_end(args);
    }
    tw::host::GetLogSink()->Write(record);
}

namespace tw::host {

void StderrLogSink::Write(const LogRecord& r) {
    std::string msg = r.message;
    if (!msg.empty() && msg.back() == '\n') msg.pop_back();
    // One fprintf per line so lines of concurrent threads do not interleave.
    fprintf(stderr, "[%s][%s] %s:%d %s: %s\n", r.category.c_str(), r.level.c_str(), r.file.c_str(),
            r.line, r.function.c_str(), msg.c_str());
}

void CaptureLogSink::Write(const LogRecord& record) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records.push_back(record);
}

std::vector<LogRecord> CaptureLogSink::Records() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Records;
}

void CaptureLogSink::Clear() {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_Records.clear();
}

std::vector<LogRecord> CaptureLogSink::Find(const std::string& message) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    std::vector<LogRecord> found;
    for (const LogRecord& r : m_Records)
        if (r.message == message) found.push_back(r);
    return found;
}

size_t CaptureLogSink::Count(const std::string& message) { return Find(message).size(); }

void SetLogSink(std::shared_ptr<LogSink> sink) {
    std::lock_guard<std::mutex> lock(g_SinkMutex);
    SinkSlot() = sink ? std::move(sink) : std::make_shared<StderrLogSink>();
}

std::shared_ptr<LogSink> GetLogSink() {
    std::lock_guard<std::mutex> lock(g_SinkMutex);
    return SinkSlot();
}

DbgLogConfig::DbgLogConfig() : m_pCfg(new DBG_LOG_CFG()) { memset(m_pCfg.get(), 0, sizeof(DBG_LOG_CFG)); }

DbgLogConfig::~DbgLogConfig() {
    if (g_pDbgLogCfg == m_pCfg.get()) g_pDbgLogCfg = nullptr;
}

void DbgLogConfig::Install() { g_pDbgLogCfg = m_pCfg.get(); }

void DbgLogConfig::Uninstall() { g_pDbgLogCfg = nullptr; }

void DbgLogConfig::SetCategoryLevel(int category, int level) {
    if (category >= 0 && category < LOG_CATEG_MAX) m_pCfg->categLevel[category] = level;
}

void DbgLogConfig::SetAllCategoryLevels(int level) {
    for (int& l : m_pCfg->categLevel) l = level;
}

void DbgLogConfig::AddPidEntry(int pid, int level) {
    const int i = m_pCfg->pidEntryCount;
    if (i < 0 || i >= TW_DBG_LOG_PID_MAX) return;
    m_pCfg->pidEntries[i].pid = pid;
    m_pCfg->pidEntries[i].level = level;
    m_pCfg->pidEntryCount = i + 1;
}

void DbgLogConfig::SetPidEntryCount(int count) { m_pCfg->pidEntryCount = count; }

const char* LogCategoryText(int category) {
    for (const NamedValue& c : kCategories)
        if (c.value == category) return c.text;
    return "unknown";
}

const char* LogLevelText(int level) {
    for (const NamedValue& l : kLevels)
        if (l.value == level) return l.text;
    return "unknown";
}

}  // namespace tw::host
