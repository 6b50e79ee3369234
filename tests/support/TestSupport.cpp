#include "TestSupport.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <thread>
#include <utility>

namespace kvtest {

namespace {

// An unnamed temporary file; what a process writes there is read back once
// it is done, so nothing has to drain it meanwhile.
FILE* openCaptureFile() {
    FILE* file = tmpfile();
    if (file == nullptr)
        throw std::runtime_error("tmpfile failed");
    return file;
}

std::string readBack(FILE* file) {
    std::string text;
    rewind(file);
    for (int c; (c = fgetc(file)) != EOF;)
        text += static_cast<char>(c);
    fclose(file);
    return text;
}

} // namespace

Child::Child(std::function<int()> body, bool capture) : m_output(capture ? openCaptureFile() : nullptr) {
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

// A child still running when `timeout` passes is killed with SIGKILL.
ChildResult Child::wait(std::chrono::milliseconds timeout) {
    ChildResult result;
    if (m_pid <= 0)
        return result;
    const pid_t pid = std::exchange(m_pid, -1);
    int status = 0;
    const bool reaped = eventually(
        [&] {
            const pid_t done = waitpid(pid, &status, WNOHANG);
            return done == pid || (done < 0 && errno != EINTR);
        },
        timeout);
    if (!reaped) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (FILE* output = std::exchange(m_output, nullptr))
        result.output = readBack(output);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

ChildResult runInChild(std::function<int()> body, std::chrono::milliseconds timeout, bool captureStdout) {
    return Child(std::move(body), captureStdout).wait(timeout);
}

std::string namePrefix() {
    return "kvt_" + std::to_string(getpid()) + "_";
}

std::string uniqueName(const std::string& tag) {
    static std::atomic<unsigned> counter{0};
    return namePrefix() + std::to_string(counter++) + "_" + tag;
}

std::vector<std::string> shmEntriesContaining(const std::string& fragment) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
        if (std::string name = entry.path().filename(); name.find(fragment) != std::string::npos)
            names.push_back(std::move(name));
    }
    return names;
}

bool eventually(const std::function<bool()>& condition, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

TempDir::TempDir() : m_path(std::filesystem::temp_directory_path() / "korvane-test-XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
}

// Links are removed, never followed.
TempDir::~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string captureStdout(const std::function<void()>& body) {
    FILE* output = openCaptureFile();
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(output), STDOUT_FILENO);
    // Restores stdout on every way out of the body, exceptions included.
    std::unique_ptr<const int, void (*)(const int*)> restore(&saved, [](const int* fd) {
        fflush(stdout);
        dup2(*fd, STDOUT_FILENO);
        close(*fd);
    });
    body();
    restore.reset();
    return readBack(output);
}

std::string fileText(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace kvtest
