#include "cliutil.h"

#include <signal.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace twcli {

int ExitForSignal(int sig) {
    if (sig == SIGINT) return kExitInterrupted;
    if (sig == SIGTERM) return kExitTerminated;
    return kExitOk;
}

Out& Out::Get() {
    static Out out;
    return out;
}

Json::Value Out::Line(const char* type, double t) {
    Json::Value v(Json::objectValue);
    v["type"] = type;
    if (t >= 0) v["t"] = t;
    return v;
}

std::string JsonText(const Json::Value& value) {
    static const Json::StreamWriterBuilder kWriter = [] {
        Json::StreamWriterBuilder b;
        b["indentation"] = "";
        b["precision"] = 3;
        b["precisionType"] = "decimal";
        b["emitUTF8"] = true;
        return b;
    }();
    return Json::writeString(kWriter, value);
}

void Out::Emit(const Json::Value& line) { Write(JsonText(line) + "\n"); }

void Out::Text(const std::string& line) { Write(line + "\n"); }

void Out::Textf(const char* format, ...) {
    char small[512];
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int n = vsnprintf(small, sizeof(small), format, args);
    va_end(args);
    std::string text;
    if (n >= 0 && static_cast<size_t>(n) < sizeof(small)) {
        text.assign(small, static_cast<size_t>(n));
    } else if (n > 0) {
        text.resize(static_cast<size_t>(n) + 1);
        vsnprintf(&text[0], text.size(), format, copy);
        text.resize(static_cast<size_t>(n));
    }
    va_end(copy);
    Write(text + "\n");
}

void Out::Write(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    if (m_Errno != 0) return;  // the first failure is the one that counts
    if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0) {
        m_Errno = errno != 0 ? errno : EIO;
        clearerr(stdout);
        if (m_OnFailure) m_OnFailure();
    }
}

void Out::SetFailureListener(std::function<void()> onFailure) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    m_OnFailure = std::move(onFailure);
}

bool Out::Failed() const {
    std::lock_guard<std::mutex> lock(m_Mutex);
    return m_Errno != 0;
}

int Out::Finish(const char* cmd, int exitCode) {
    std::lock_guard<std::mutex> lock(m_Mutex);
    // Text printed past this writer (CLI11's help) must reach its reader too.
    if (m_Errno == 0 && (fflush(stdout) != 0 || ferror(stdout))) m_Errno = errno != 0 ? errno : EIO;
    if (m_Errno == 0) return exitCode;
    if (m_Errno == EPIPE) return exitCode != kExitOk ? exitCode : kExitClosedPipe;
    fprintf(stderr, "%s: cannot write to standard output: %s\n", cmd, strerror(m_Errno));
    return exitCode != kExitOk ? exitCode : kExitFailure;
}

std::string IsoUtc(int64_t unixUs) {
    const time_t sec = static_cast<time_t>(unixUs / 1000000);
    const int ms = static_cast<int>((unixUs % 1000000) / 1000);
    struct tm tm {};
    gmtime_r(&sec, &tm);
    char text[80];
    snprintf(text, sizeof(text), "%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", tm.tm_year + 1900, tm.tm_mon + 1,
             tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, ms);
    return text;
}

int64_t WallNowUs() {
    return std::chrono::duration_cast<std::chrono::microseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

namespace {

bool ParseInteger(const std::string& text, long long& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = strtoll(text.c_str(), &end, 10);
    return errno == 0 && end != nullptr && *end == '\0';
}

}  // namespace

CLI::Validator IntIn(long long lo, long long hi) {
    const std::string words = "an integer from " + std::to_string(lo) + " to " + std::to_string(hi);
    return CLI::Validator(
        [lo, hi, words](std::string& text) -> std::string {
            long long v = 0;
            if (!ParseInteger(text, v) || v < lo || v > hi) return "'" + text + "' is not " + words;
            return std::string();
        },
        "INT " + std::to_string(lo) + ".." + std::to_string(hi));
}

CLI::Validator Seconds(bool zeroAllowed) {
    const std::string words =
        zeroAllowed ? "a number of seconds, 0 or more" : "a number of seconds greater than 0";
    return CLI::Validator(
        [zeroAllowed, words](std::string& text) -> std::string {
            errno = 0;
            char* end = nullptr;
            const double v = strtod(text.c_str(), &end);
            const bool number = !text.empty() && errno == 0 && end != nullptr && *end == '\0' && v == v &&
                                v < 1e9;
            if (!number || v < 0 || (!zeroAllowed && v == 0)) return "'" + text + "' is not " + words;
            return std::string();
        },
        zeroAllowed ? "SECONDS >= 0" : "SECONDS > 0");
}

bool CheckOutputFile(const std::string& output, bool overwrite, const std::vector<std::string>& inputs,
                     std::string& error) {
    struct stat out {};
    if (stat(output.c_str(), &out) != 0) return true;  // nothing there to lose
    for (const std::string& input : inputs) {
        struct stat in {};
        if (!input.empty() && stat(input.c_str(), &in) == 0 && in.st_dev == out.st_dev && in.st_ino == out.st_ino) {
            error = "'" + output + "' is also an input of this command; write to another file";
            return false;
        }
    }
    if (S_ISDIR(out.st_mode)) {
        error = "'" + output + "' is a directory";
        return false;
    }
    // A device or a pipe (/dev/null, a FIFO) is written to, not replaced.
    if (!S_ISREG(out.st_mode)) return true;
    if (!overwrite) {
        error = "'" + output + "' exists; add -y (--overwrite) to replace it";
        return false;
    }
    return true;
}

}  // namespace twcli
