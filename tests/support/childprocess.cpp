#include "support/childprocess.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace tw::test {
namespace {

std::string TempBase() {
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

// A new empty file for one output stream of a child.
bool MakeOutputFile(const char* tag, std::string& path, std::string& error) {
    std::string name = TempBase() + "/twtest-" + tag + "-XXXXXX";
    std::vector<char> buf(name.begin(), name.end());
    buf.push_back('\0');
    const int fd = mkstemp(buf.data());
    if (fd < 0) {
        error = "cannot create a file for the child's " + std::string(tag) + " in " + TempBase() + ": " +
                std::strerror(errno);
        return false;
    }
    close(fd);
    path = buf.data();
    return true;
}

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

}  // namespace

std::string ChildResult::Describe() const {
    if (!started) return "not started: " + error;
    if (hung) return "hung and was killed";
    if (exited) return "exit " + std::to_string(exitCode);
    return "signal " + std::to_string(termSignal);
}

ChildProcess::~ChildProcess() {
    if (m_Pid > 0 && !m_blReaped) Terminate();
    if (!m_strOutPath.empty()) unlink(m_strOutPath.c_str());
    if (!m_strErrPath.empty()) unlink(m_strErrPath.c_str());
}

bool ChildProcess::Start(const std::vector<std::string>& args, std::string& error) {
    if (m_Pid > 0) {
        error = "child already started";
        return false;
    }
    if (args.empty()) {
        error = "no program to run";
        return false;
    }
    if (!MakeOutputFile("out", m_strOutPath, error) || !MakeOutputFile("err", m_strErrPath, error)) return false;

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, m_strOutPath.c_str(), O_WRONLY | O_TRUNC, 0);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, m_strErrPath.c_str(), O_WRONLY | O_TRUNC, 0);

    std::vector<char*> argv;
    argv.reserve(args.size() + 1);
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);

    pid_t pid = -1;
    const int rc = posix_spawn(&pid, args[0].c_str(), &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (rc != 0) {
        error = "cannot run '" + args[0] + "': " + std::strerror(rc);
        return false;
    }
    m_Pid = pid;
    m_blReaped = false;
    return true;
}

bool ChildProcess::IsRunning() {
    if (m_Pid <= 0 || m_blReaped) return false;
    int status = 0;
    const pid_t rc = waitpid(m_Pid, &status, WNOHANG);
    if (rc == m_Pid) {
        m_blReaped = true;
        m_Status = status;
        return false;
    }
    if (rc < 0) {
        // Someone else reaped it; its status is lost.
        m_blReaped = true;
        m_blLost = true;
        return false;
    }
    return true;
}

void ChildProcess::Signal(int sig) {
    if (m_Pid > 0 && !m_blReaped) kill(m_Pid, sig);
}

std::string ChildProcess::PeekOut() const { return m_strOutPath.empty() ? std::string() : ReadWhole(m_strOutPath); }

void ChildProcess::Terminate() {
    // SIGTERM first: a child that owns shared memory or files removes them on its way out.
    kill(m_Pid, SIGTERM);
    const auto grace = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (IsRunning() && std::chrono::steady_clock::now() < grace)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    if (m_blReaped) return;
    kill(m_Pid, SIGKILL);
    int status = 0;
    waitpid(m_Pid, &status, 0);
    m_blReaped = true;
    m_Status = status;
}

void ChildProcess::Reap(int status, ChildResult& result) {
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.termSignal = WTERMSIG(status);
    }
}

ChildResult ChildProcess::Wait(int guardSec) {
    ChildResult result;
    if (m_Pid <= 0) {
        result.error = "child not started";
        return result;
    }
    result.started = true;
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(guardSec);
    while (IsRunning()) {
        if (std::chrono::steady_clock::now() > guard) {
            result.hung = true;
            Terminate();
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (m_blLost) {
        result.error = "the child's exit status was lost";
    } else {
        Reap(m_Status, result);
    }
    result.out = ReadWhole(m_strOutPath);
    result.err = ReadWhole(m_strErrPath);
    return result;
}

bool WaitForOutput(ChildProcess& child, const std::string& text, std::string& why, int guardSec) {
    return WaitForOutputAfter(child, 0, text, why, guardSec);
}

bool WaitForOutputAfter(ChildProcess& child, size_t from, const std::string& text, std::string& why,
                        int guardSec) {
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(guardSec);
    for (;;) {
        const std::string out = child.PeekOut();
        if (out.size() > from && out.find(text, from) != std::string::npos) return true;
        if (!child.IsRunning()) {
            // One last look: it may have written the text just before it ended.
            const ChildResult r = child.Wait();
            if (r.out.size() > from && r.out.find(text, from) != std::string::npos) return true;
            why = "the child ended (" + r.Describe() + ") before printing '" + text + "':\n" + r.err;
            return false;
        }
        if (std::chrono::steady_clock::now() > guard) {
            why = "the child printed no '" + text + "' within " + std::to_string(guardSec) + " s";
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

ChildResult RunChild(const std::vector<std::string>& args, int guardSec) {
    ChildProcess child;
    ChildResult result;
    if (!child.Start(args, result.error)) return result;
    return child.Wait(guardSec);
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

ScopedTempDir::ScopedTempDir() {
    std::string name = TempBase() + "/twtest-XXXXXX";
    std::vector<char> buf(name.begin(), name.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data()) != nullptr) m_strPath = buf.data();
}

ScopedTempDir::~ScopedTempDir() {
    if (m_strPath.empty()) return;
    std::error_code ec;
    std::filesystem::remove_all(m_strPath, ec);
}

}  // namespace tw::test

namespace tw::test {

ChildResult RunChildWithClosedStdout(const std::vector<std::string>& args, int guardSec) {
    ChildResult result;
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) {
        result.error = std::string("pipe: ") + strerror(errno);
        return result;
    }
    char errPath[] = "/tmp/tw-child-err-XXXXXX";
    const int errFd = mkstemp(errPath);
    if (errFd < 0) {
        close(fds[0]);
        close(fds[1]);
        result.error = std::string("mkstemp: ") + strerror(errno);
        return result;
    }
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, errFd, STDERR_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    // No reader ever: the reading end is gone before the child runs a line of its own.
    close(fds[0]);
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(errFd);
        unlink(errPath);
        result.error = std::string("posix_spawn: ") + strerror(rc);
        return result;
    }
    result.started = true;
    const auto guard = std::chrono::steady_clock::now() + std::chrono::seconds(guardSec);
    int status = 0;
    for (;;) {
        const pid_t w = waitpid(pid, &status, WNOHANG);
        if (w == pid) break;
        if (std::chrono::steady_clock::now() > guard) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            result.hung = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (!result.hung && WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (!result.hung && WIFSIGNALED(status)) {
        result.termSignal = WTERMSIG(status);
    }
    std::ifstream in(errPath);
    result.err.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    close(errFd);
    unlink(errPath);
    return result;
}

}  // namespace tw::test
