// What every twhost subcommand shares: exit codes, the writer of standard output (text or
// JSON lines, one schema), flag validators whose errors read as words, and the guard that
// keeps a command from writing over its inputs.
#ifndef TWHOST_CLIUTIL_H
#define TWHOST_CLIUTIL_H

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <json/json.h>

namespace twcli {

// The outcome of a command, as ffmpeg and the GNU tools report it.
enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,      // the input or the run failed
    kExitUsage = 2,        // bad flags or arguments
    kExitInterrupted = 130,  // SIGINT, after clean-up and the summary
    kExitClosedPipe = 141,   // the reader of standard output went away (as SIGPIPE would end us)
    kExitTerminated = 143,   // SIGTERM, after clean-up and the summary
};

// 130 for SIGINT, 143 for SIGTERM, 0 for none.
int ExitForSignal(int sig);

// Standard output of a command. Every line goes through here, so that a write error is
// noticed once: a closed pipe ends the run quietly, any other error (a full disk) is one
// message and exit 1. Thread-safe: detectors report on their own threads.
class Out {
public:
    static Out& Get();

    void SetJson(bool json) { m_blJson = json; }
    bool Json() const { return m_blJson; }

    // A JSON line of the given type; "t" (seconds) is added when t is not negative.
    static Json::Value Line(const char* type, double t = -1.0);
    // Writes one JSON line (only meaningful with --json).
    void Emit(const Json::Value& line);
    // Writes one text line (a newline is added).
    void Text(const std::string& line);
    // printf into a text line.
    void Textf(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // True once a write failed; the command should wind up.
    bool Failed() const;
    // Called once, on the writing thread, when a write first fails, so that a command that
    // sleeps between its looks at Failed learns of it at once. An empty one clears it.
    void SetFailureListener(std::function<void()> onFailure);
    // Flushes and turns the command's exit code into the final one: a failed write wins over
    // success (141 quietly for a closed pipe, 1 with one message naming the error).
    int Finish(const char* cmd, int exitCode);

private:
    void Write(const std::string& text);
    mutable std::mutex m_Mutex;
    bool m_blJson = false;
    int m_Errno = 0;
    std::function<void()> m_OnFailure;
};

// Compact JSON as every --json line is written.
std::string JsonText(const Json::Value& value);

// ISO 8601 UTC with milliseconds ("2026-11-23T11:40:05.123Z") of a wall-clock time in
// microseconds since the epoch.
std::string IsoUtc(int64_t unixUs);
// The wall clock now, microseconds since the epoch.
int64_t WallNowUs();

// Validators whose errors say the range in words.
CLI::Validator IntIn(long long lo, long long hi);
// A number of seconds, greater than zero (or zero allowed).
CLI::Validator Seconds(bool zeroAllowed);

// An output file may not be one of the inputs, and an existing one is replaced only when
// overwrite is set. False with error naming the file.
bool CheckOutputFile(const std::string& output, bool overwrite, const std::vector<std::string>& inputs,
                     std::string& error);

}  // namespace twcli

#endif
