#include "ToolRunner.h"

#include "TestSupport.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <signal.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <cerrno>
#include <cstdlib>
#include <sstream>
#include <stdexcept>
#include <thread>

namespace kvtest {
namespace {

// The service lock of the tools run here lives in a folder of this run.
[[maybe_unused]] const bool kPrivateRuntimeDirectory = [] {
    char directory[] = "/tmp/kvt_runtime_XXXXXX";
    return mkdtemp(directory) != nullptr && setenv("KORVANE_RUNTIME_DIR", directory, 1) == 0;
}();

pid_t spawnTool(const std::string& tool, const std::vector<std::string>& arguments, int& out, int& err,
                bool asNobody = false) {
    std::vector<std::string> words;
    // The launcher is a list of words joined by commas.
    std::stringstream launcher(KORVANE_TOOL_LAUNCHER);
    for (std::string word; std::getline(launcher, word, ',');)
        words.push_back(word);
    words.push_back(toolPath(tool));
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);

    int outPipe[2], errPipe[2];
    if (pipe2(outPipe, O_CLOEXEC) != 0 || pipe2(errPipe, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
    // Only async-signal-safe calls between fork and exec: the test runs threads.
    const pid_t pid = fork();
    if (pid == 0) {
        const bool nobody = !asNobody || (setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0);
        if (dup2(outPipe[1], STDOUT_FILENO) >= 0 && dup2(errPipe[1], STDERR_FILENO) >= 0 && nobody)
            execv(argv[0], argv.data());
        // Say why on the tool's error stream, so a failure to start is told
        // apart from the tool's own status 127.
        char reason[] = "tool runner: cannot start the tool (errno ...)\n";
        for (int digit = 2, value = errno; digit >= 0; --digit, value /= 10)
            reason[sizeof reason - 6 + digit] = static_cast<char>('0' + value % 10);
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, reason, sizeof reason - 1);
        _exit(127);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    if (pid < 0)
        throw std::runtime_error("cannot start " + words.front());
    out = outPipe[0];
    err = errPipe[0];
    return pid;
}

// Waits for `pid` at most `timeout`, killing it when the time is up, and
// collects both outputs on helper threads so a chatty tool never blocks.
ToolResult finish(pid_t pid, int out, int err, std::chrono::milliseconds timeout) {
    ToolResult result;
    std::thread outReader([&] { result.out = readAll(out), close(out); });
    std::thread errReader([&] { result.err = readAll(err), close(err); });
    int status = 0;
    reapWithin(pid, timeout, status);
    outReader.join();
    errReader.join();
    if (WIFEXITED(status))
        result.exitCode = WEXITSTATUS(status);
    return result;
}

} // namespace

std::string toolPath(const std::string& tool) {
    const char* directory = std::getenv("KORVANE_TOOLS_DIR");
    return std::string(directory != nullptr && *directory != '\0' ? directory : KORVANE_TOOLS_DIR) + "/" + tool;
}

ToolResult runTool(const std::string& tool, const std::vector<std::string>& arguments,
                   std::chrono::milliseconds timeout, bool asNobody) {
    int out = -1, err = -1;
    const pid_t pid = spawnTool(tool, arguments, out, err, asNobody);
    return finish(pid, out, err, timeout);
}

BackgroundTool::BackgroundTool(const std::string& tool, const std::vector<std::string>& arguments) {
    m_pid = spawnTool(tool, arguments, m_out, m_err);
}

BackgroundTool::~BackgroundTool() {
    if (m_pid <= 0)
        return;
    // Only a failed test gets here. A killed manager leaves its channel
    // behind, which would fail every later test: clear it.
    stop(SIGKILL);
    runTool("korvane-shm", {"clean"});
}

ToolResult BackgroundTool::stop(int signal, std::chrono::milliseconds timeout) {
    kill(m_pid, signal);
    ToolResult result = finish(m_pid, m_out, m_err, timeout);
    m_pid = -1;
    return result;
}

Holder::Holder(const std::function<void()>& setUp) {
    void* shared = mmap(nullptr, sizeof(std::atomic<bool>), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    std::atomic<bool>* ready = new (shared) std::atomic<bool>(false);
    m_child = std::make_unique<Child>([&] {
        setUp();
        *ready = true;
        sleep(60);
        return 0;
    });
    const bool up = eventually([&] { return ready->load(); });
    munmap(shared, sizeof(std::atomic<bool>));
    if (!up)
        throw std::runtime_error("the holder did not get ready");
}

void Holder::kill() {
    ::kill(m_child->pid(), SIGKILL);
    m_child->wait();
}

bool waitForManager(std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        if (runTool("korvane-shm", {"status"}).exitCode == 0)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

} // namespace kvtest
