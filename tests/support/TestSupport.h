// Helpers shared by the test suites, the chaos run and the fuzz targets (no
// test framework needed): forked children with bounded waits, names unique to
// the run, what /dev/shm and /proc show of named objects, temporary folders
// and capture of what a process prints. The standard and POSIX headers below
// are the suites' common ones: a suite includes only what it needs beyond them.
#ifndef KORVANE_TEST_SUPPORT_H
#define KORVANE_TEST_SUPPORT_H

#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace kvtest {

using namespace std::chrono_literals;

// Every wait a test makes is bounded by this unless it says otherwise.
constexpr std::chrono::milliseconds kDefaultTimeout = 20s;

// Polls `condition` every millisecond until it holds or `timeout` passes.
inline bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout = kDefaultTimeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

// An unnamed temporary file for what a process prints; it is read back once
// the process is done, so nothing has to drain it meanwhile.
inline FILE* openCaptureFile() {
    FILE* file = tmpfile();
    if (file == nullptr)
        throw std::runtime_error("tmpfile failed");
    return file;
}

inline std::string readBack(FILE* file) {
    std::string text;
    rewind(file);
    for (int c; (c = fgetc(file)) != EOF;)
        text += static_cast<char>(c);
    fclose(file);
    return text;
}

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
    explicit Child(std::function<int()> body, bool captureStdout = false)
        : m_output(captureStdout ? openCaptureFile() : nullptr) {
        fflush(nullptr);
        m_pid = fork();
        if (m_pid < 0)
            throw std::runtime_error("fork failed");
        if (m_pid == 0) {
            if (m_output != nullptr)
                dup2(fileno(m_output), STDOUT_FILENO);
            int code = 98; // the body threw
            try {
                code = body();
            } catch (...) {
            }
            fflush(stdout);
            _exit(code);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child() { wait(0ms); } // kills and reaps a child that is still running

    pid_t pid() const { return m_pid; }

    // Waits at most `timeout`, then kills the child with SIGKILL.
    ChildResult wait(std::chrono::milliseconds timeout = kDefaultTimeout) {
        ChildResult result;
        if (m_pid <= 0)
            return result;
        const pid_t pid = std::exchange(m_pid, -1);
        int status = 0;
        const auto reaped = [&] {
            const pid_t done = waitpid(pid, &status, WNOHANG);
            return done == pid || (done < 0 && errno != EINTR);
        };
        if (!eventually(reaped, timeout)) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
        }
        if (FILE* output = std::exchange(m_output, nullptr))
            result.output = readBack(output);
        result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return result;
    }

private:
    FILE* m_output;
    pid_t m_pid = -1;
};

// Runs `body` in a child and waits for it.
inline ChildResult runInChild(std::function<int()> body, std::chrono::milliseconds timeout = kDefaultTimeout,
                              bool captureStdout = false) {
    return Child(std::move(body), captureStdout).wait(timeout);
}

// The prefix every uniqueName of this process starts with.
inline std::string namePrefix() { return "kvt_" + std::to_string(getpid()) + "_"; }

// A name no other test of any run uses: "kvt_<pid>_<counter>_<tag>".
inline std::string uniqueName(const std::string& tag) {
    static std::atomic<unsigned> counter{0};
    return namePrefix() + std::to_string(counter++) + "_" + tag;
}

// Entries of /dev/shm whose name contains `fragment`.
inline std::vector<std::string> shmEntriesContaining(const std::string& fragment) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
        if (std::string name = entry.path().filename(); name.find(fragment) != std::string::npos)
            names.push_back(std::move(name));
    }
    return names;
}

// The size of /dev/shm/<name>, -1 when absent.
inline int64_t segmentSize(const std::string& name) {
    struct stat status {};
    return stat(("/dev/shm/" + name).c_str(), &status) == 0 ? status.st_size : -1;
}

// How many times `process` maps /dev/shm/<name>, removed segments included.
inline int mappingsOf(const std::string& name, const std::string& process = "self") {
    std::ifstream maps("/proc/" + process + "/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) // a removed segment's line ends in " (deleted)"
        count += (line + ' ').find("/dev/shm/" + name + ' ') != std::string::npos;
    return count;
}

// A named semaphore's value as every process sees it, -1 when unreadable.
inline int semaphoreValue(sem_t* semaphore) {
    int value = -1;
    sem_getvalue(semaphore, &value);
    return value;
}

// A fresh temporary folder, removed with everything in it (links are
// removed, never followed) on destruction.
class TempDir {
public:
    TempDir() : m_path(std::filesystem::temp_directory_path() / "korvane-test-XXXXXX") {
        if (mkdtemp(m_path.data()) == nullptr)
            throw std::runtime_error("mkdtemp failed");
    }
    ~TempDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& relative) const { return m_path + "/" + relative; }

private:
    std::string m_path;
};

// Runs `body` with stdout redirected and returns what it printed; stdout is
// restored on every way out of the body, exceptions included.
inline std::string captureStdout(const std::function<void()>& body) {
    FILE* output = openCaptureFile();
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(output), STDOUT_FILENO);
    std::unique_ptr<const int, void (*)(const int*)> restore(&saved, [](const int* fd) {
        fflush(stdout);
        dup2(*fd, STDOUT_FILENO);
        close(*fd);
    });
    body();
    restore.reset();
    return readBack(output);
}

// The whole content of the file at `path` ("" when it cannot be read).
inline std::string fileText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace kvtest

#endif
