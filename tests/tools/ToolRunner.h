// Starts the built tools as separate processes, with bounded waits.
#ifndef KORVANE_TOOL_RUNNER_H
#define KORVANE_TOOL_RUNNER_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace kvtest {

struct ToolResult {
    int exitCode = -1; // -1 when the tool did not exit normally
    std::string out;
    std::string err;
};

// Path of a built tool (korvane-syncd, korvane-shm).
std::string toolPath(const std::string& tool);

// Runs a tool to completion (at most `timeout`), capturing its output; as
// the unprivileged user nobody when `asNobody`.
ToolResult runTool(const std::string& tool, const std::vector<std::string>& arguments,
                   std::chrono::milliseconds timeout = std::chrono::seconds(20), bool asNobody = false);

// A tool left running in the background, killed if still alive at the end.
class BackgroundTool {
public:
    BackgroundTool(const std::string& tool, const std::vector<std::string>& arguments);
    ~BackgroundTool();
    BackgroundTool(const BackgroundTool&) = delete;
    BackgroundTool& operator=(const BackgroundTool&) = delete;

    pid_t pid() const { return m_pid; }
    // Sends `signal` and waits for the exit; the result holds what it printed.
    ToolResult stop(int signal, std::chrono::milliseconds timeout = std::chrono::seconds(20));

private:
    pid_t m_pid = -1;
    int m_out = -1;
    int m_err = -1;
};

// A child process that runs `setUp` (making named objects) and then stays
// alive holding them until it is killed or the test ends.
class Holder {
public:
    explicit Holder(const std::function<void()>& setUp);
    pid_t pid() const { return m_child->pid(); }
    void kill(); // SIGKILL, reaped

private:
    std::unique_ptr<Child> m_child;
};

// True once a sync manager answers on the channel (korvane-shm status).
bool waitForManager(std::chrono::milliseconds timeout = std::chrono::seconds(20));

} // namespace kvtest

#endif
