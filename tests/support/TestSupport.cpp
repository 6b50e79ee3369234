#include "TestSupport.h"

#include <dirent.h>
#include <ftw.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <thread>

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
    lseek(fileno(file), 0, SEEK_SET);
    std::string text = readAll(fileno(file));
    fclose(file);
    return text;
}

} // namespace

std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0)
            text.append(buffer, static_cast<size_t>(n));
        else if (n == 0 || errno != EINTR)
            return text;
    }
}

bool reapWithin(pid_t pid, std::chrono::milliseconds timeout, int& status) {
    status = 0;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const pid_t done = waitpid(pid, &status, WNOHANG);
        if (done == pid || (done < 0 && errno != EINTR))
            return false;
        if (std::chrono::steady_clock::now() >= deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &status, 0);
            return true;
        }
        std::this_thread::sleep_for(1ms);
    }
}

Child::Child(std::function<int()> body, bool captureStdout) : m_output(captureStdout ? openCaptureFile() : nullptr) {
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

Child::~Child() {
    if (m_pid > 0)
        wait(0ms);
}

ChildResult Child::wait(std::chrono::milliseconds timeout) {
    ChildResult result;
    if (m_pid <= 0)
        return result;
    int status = 0;
    result.timedOut = reapWithin(m_pid, timeout, status);
    m_pid = -1;
    if (m_output != nullptr)
        result.output = readBack(m_output);
    m_output = nullptr;
    result.exited = WIFEXITED(status);
    result.exitCode = result.exited ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
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
    if (DIR* dir = opendir("/dev/shm")) {
        while (dirent* entry = readdir(dir)) {
            if (std::string(entry->d_name).find(fragment) != std::string::npos)
                names.emplace_back(entry->d_name);
        }
        closedir(dir);
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

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/korvane-test-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("mkdtemp failed");
    m_path = pattern;
}

TempDir::~TempDir() {
    nftw(
        m_path.c_str(),
        [](const char* path, const struct stat*, int type, struct FTW*) {
            // So a test that removed permissions cannot leave debris. Never
            // through a link: chmod follows it, and a link to /bin/sh made
            // the machine's shell root's alone.
            if (type != FTW_SL && type != FTW_SLN)
                chmod(path, 0700);
            return remove(path);
        },
        16, FTW_DEPTH | FTW_PHYS);
}

std::string captureStdout(const std::function<void()>& body) {
    FILE* output = openCaptureFile();
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    dup2(fileno(output), STDOUT_FILENO);
    // Restores stdout on every way out of the body, exceptions included.
    struct Restore {
        int saved;
        ~Restore() {
            fflush(stdout);
            dup2(saved, STDOUT_FILENO);
            close(saved);
        }
    };
    {
        const Restore restore{saved};
        body();
    }
    return readBack(output);
}

} // namespace kvtest
