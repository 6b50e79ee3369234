// Helpers shared by the test suites: forked children with bounded waits,
// names unique to the run, and capture of what a child prints.
#ifndef KORVANE_TEST_SUPPORT_H
#define KORVANE_TEST_SUPPORT_H

#include <sys/types.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace kvtest {

using namespace std::chrono_literals;

// Every wait a test makes is bounded by this unless it says otherwise.
constexpr std::chrono::milliseconds kDefaultTimeout = 20s;

// Result of a child process.
struct ChildResult {
    int exitCode = -1;  // -1 unless it ended through exit/_exit (not when killed after the time limit)
    std::string output; // what the child wrote to stdout (when captured)
};

// A forked child running `body`; its return value becomes the exit code.
// The child leaves through _exit, so no atexit handler of the test runs twice.
// What it prints is kept when `captureStdout`.
class Child {
public:
    explicit Child(std::function<int()> body, bool captureStdout = false);
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { wait(0ms); } // kills and reaps a child that is still running

    pid_t pid() const { return m_pid; }
    // Waits at most `timeout`, then kills the child with SIGKILL.
    ChildResult wait(std::chrono::milliseconds timeout = kDefaultTimeout);

private:
    FILE* m_output;
    pid_t m_pid = -1;
};

// Runs `body` in a child and waits for it.
ChildResult runInChild(std::function<int()> body, std::chrono::milliseconds timeout = kDefaultTimeout,
                       bool captureStdout = false);

// A name no other test of any run uses: "kvt_<pid>_<counter>_<tag>".
std::string uniqueName(const std::string& tag);
// The prefix every uniqueName of this process starts with.
std::string namePrefix();
// Entries of /dev/shm whose name contains `fragment`.
std::vector<std::string> shmEntriesContaining(const std::string& fragment);

// Polls `condition` every millisecond until it holds or `timeout` passes.
bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kDefaultTimeout);

// A fresh temporary folder, removed with everything in it on destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

private:
    std::string m_path;
};

// Runs `body` with stdout redirected and returns what it printed.
std::string captureStdout(const std::function<void()>& body);

// The whole content of the file at `path` ("" when it cannot be read).
std::string fileText(const std::string& path);

} // namespace kvtest

#endif
