// Child processes for the tests that run the twhost command as a user or a script would:
// arguments in, exit status and the two output streams out. Output goes to files rather
// than pipes, so a chatty child never blocks on a full pipe while the test waits for it.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tw::test {

struct ChildResult {
    bool started = false;     // false: spawning failed, error says why
    bool exited = false;      // ended by exit(); exitCode is valid
    int exitCode = -1;
    int termSignal = 0;       // signal that ended it, when not exited
    bool hung = false;        // still running at the hang guard and killed
    std::string out;          // everything it wrote on stdout
    std::string err;          // everything it wrote on stderr
    std::string error;

    // "exit 1", "signal 11", ... for failure messages.
    std::string Describe() const;
};

class ChildProcess {
public:
    ChildProcess() = default;
    // A child still running is terminated and reaped: a failed test leaves nothing behind.
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Starts args[0] (a path) with the remaining arguments and this process's environment,
    // stdin from /dev/null.
    bool Start(const std::vector<std::string>& args, std::string& error);
    bool IsRunning();
    pid_t GetPid() const { return m_Pid; }
    void Signal(int sig);
    // What the child has written to stdout so far (it may still be running).
    std::string PeekOut() const;
    // Waits for the end; after guardSec of real time the child is terminated and reported hung.
    // The guard only keeps a broken child from stalling the suite; it measures nothing.
    ChildResult Wait(int guardSec = 120);

private:
    // SIGTERM, a few seconds' grace, then SIGKILL; reaps the child.
    void Terminate();
    static void Reap(int status, ChildResult& result);
    pid_t m_Pid = -1;
    bool m_blReaped = false;
    bool m_blLost = false;
    int m_Status = 0;
    std::string m_strOutPath;
    std::string m_strErrPath;
};

// Waits until the child's standard output holds text. False, with why saying what happened
// (the child ended first, with its stderr; or the guard ran out), when it never did. The
// guard only keeps a broken child from stalling the suite.
bool WaitForOutput(ChildProcess& child, const std::string& text, std::string& why, int guardSec = 60);

// Same, for text at or after byte `from` of the output: a line that comes again later.
bool WaitForOutputAfter(ChildProcess& child, size_t from, const std::string& text, std::string& why,
                        int guardSec = 60);

// Starts, waits and collects in one call.
ChildResult RunChild(const std::vector<std::string>& args, int guardSec = 120);

// Runs args (args[0] a path) with standard output a pipe whose reading end is closed before
// the child starts, so that its first write fails with EPIPE whatever the timing: a reader
// that went away. out stays empty; err is what it wrote on stderr.
ChildResult RunChildWithClosedStdout(const std::vector<std::string>& args, int guardSec = 120);

// The lines of a text without their line ends; no empty last line for a final newline.
std::vector<std::string> SplitLines(const std::string& text);

// A fresh directory under $TMPDIR (or /tmp), removed with its files when the object goes.
class ScopedTempDir {
public:
    ScopedTempDir();
    ~ScopedTempDir();
    ScopedTempDir(const ScopedTempDir&) = delete;
    ScopedTempDir& operator=(const ScopedTempDir&) = delete;
    bool Ok() const { return !m_strPath.empty(); }
    const std::string& Path() const { return m_strPath; }
    std::string File(const std::string& name) const { return m_strPath + "/" + name; }

private:
    std::string m_strPath;
};

}  // namespace tw::test
