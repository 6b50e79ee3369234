#include "TestSupport.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ftw.h>
#include <stdexcept>
#include <thread>

namespace kvtest {
std::string readAll(int fd) {
    std::string text;
    char buffer[4096];
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n > 0) {
            text.append(buffer, static_cast<size_t>(n));
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return text;
        }
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

Child::Child(std::function<int()> body, bool captureStdout) {
    int pipeFds[2] = {-1, -1};
    if (captureStdout && pipe(pipeFds) != 0)
        throw std::runtime_error("pipe failed");
    fflush(stdout);
    fflush(stderr);
    m_pid = fork();
    if (m_pid < 0)
        throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        if (captureStdout) {
            close(pipeFds[0]);
            dup2(pipeFds[1], STDOUT_FILENO);
            close(pipeFds[1]);
        }
        int code = 99;
        try {
            code = body();
        } catch (...) {
            code = 98;
        }
        fflush(stdout);
        _exit(code);
    }
    if (captureStdout) {
        close(pipeFds[1]);
        m_outputFd = pipeFds[0];
    }
}

Child::~Child() {
    if (!m_reaped && m_pid > 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    if (m_outputFd >= 0)
        close(m_outputFd);
}

ChildResult Child::wait(std::chrono::milliseconds timeout) {
    ChildResult result;
    if (m_reaped)
        return result;
    // Drain the output pipe on a helper thread so a chatty child never blocks.
    std::string output;
    std::thread reader;
    if (m_outputFd >= 0)
        reader = std::thread([this, &output] { output = readAll(m_outputFd); });
    int status = 0;
    result.timedOut = reapWithin(m_pid, timeout, status);
    m_reaped = true;
    if (reader.joinable())
        reader.join();
    result.output = std::move(output);
    if (WIFEXITED(status)) {
        result.exited = true;
        result.exitCode = WEXITSTATUS(status);
    } else if (WIFSIGNALED(status)) {
        result.signal = WTERMSIG(status);
    }
    return result;
}

ChildResult runInChild(std::function<int()> body, std::chrono::milliseconds timeout, bool captureStdout) {
    Child child(std::move(body), captureStdout);
    return child.wait(timeout);
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
    DIR* dir = opendir("/dev/shm");
    if (dir == nullptr)
        return names;
    while (dirent* entry = readdir(dir)) {
        if (std::strstr(entry->d_name, fragment.c_str()) != nullptr)
            names.emplace_back(entry->d_name);
    }
    closedir(dir);
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
        [](const char* path, const struct stat*, int, struct FTW*) {
            chmod(path, 0700); // so a test that removed permissions cannot leave debris
            return remove(path);
        },
        16, FTW_DEPTH | FTW_PHYS);
}

std::string captureStdout(const std::function<void()>& body) {
    fflush(stdout);
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        throw std::runtime_error("pipe failed");
    const int saved = dup(STDOUT_FILENO);
    dup2(pipeFds[1], STDOUT_FILENO);
    close(pipeFds[1]);
    std::string output;
    std::thread reader([&] { output = readAll(pipeFds[0]); });
    // Restores stdout on every way out of the body, exceptions included.
    struct Restore {
        int saved, readEnd;
        std::thread& reader;
        ~Restore() {
            fflush(stdout);
            dup2(saved, STDOUT_FILENO);
            close(saved);
            reader.join();
            close(readEnd);
        }
    };
    {
        Restore restore{saved, pipeFds[0], reader};
        body();
    }
    return output;
}

} // namespace kvtest
