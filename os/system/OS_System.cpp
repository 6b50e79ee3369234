// Starting and killing programs, shell commands, environment variables,
// SIGPIPE and the root test.
#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "common/BoolExport.h"
#include "common/CallerBuffer.h"
#include "korvane/system.h"
#include "common/SystemInternal.h"

namespace {

// Exit status of a child that could start neither form of the program
// (_exit(-1) as seen by the parent).
constexpr int kExecFailedStatus = 255;

std::string stringOrEmpty(const char* text) {
    return text != nullptr ? std::string(text) : std::string();
}

// The kill command and the room its buffer gets beyond the name.
constexpr char kKillFormat[] = "killall -9 \"%s\"";
constexpr size_t kKillMargin = 64;

// The two ways a program is tried, prepared in the parent so the child only
// calls exec: "./application" with the argument string alone as argv[0], then
// `application` along PATH with argv {application, arguments}. The two forms
// pass their arguments differently on purpose; existing callers depend on
// both. The argument string is never split into words.
struct LaunchPlan {
    std::string localPath;
    std::string application;
    std::string arguments;

    [[noreturn]] void execInChild() {
        char* localArgv[] = {arguments.data(), nullptr};
        execv(localPath.c_str(), localArgv);
        char* searchArgv[] = {application.data(), arguments.data(), nullptr};
        execvp(application.c_str(), searchArgv);
        _exit(kExecFailedStatus);
    }
};

} // namespace

KORVANE_BOOL_EXPORT(os_system_run_application, (const char* application, const char* arguments, bool wait)) {
    LaunchPlan plan{"./" + stringOrEmpty(application), stringOrEmpty(application), stringOrEmpty(arguments)};
    // fork rather than vfork: the child runs nothing but exec and _exit, so
    // the result is the same, and it stays safe under instrumented builds.
    const pid_t child = fork();
    if (child == -1)
        return false;
    if (child == 0)
        plan.execInChild();
    int status = 0;
    waitpid(child, &status, wait ? 0 : WNOHANG);
    // Only a death by signal counts as failure: a child not waited for, or one
    // that exited with any code (the exec failure's 255 included), is success.
    return (status & 0x7f) == 0;
}

KORVANE_BOOL_EXPORT(os_system_kill_application, (const char* name)) {
    return korvane::runShellCommand(kKillFormat, kKillMargin, stringOrEmpty(name));
}

KORVANE_BOOL_EXPORT(os_system_invoke_command, (const char* command)) {
    return korvane::commandSucceeded(std::system(command));
}

KORVANE_BOOL_EXPORT(os_system_get_os_environmentVariable, (const char* name, char* buffer, size_t* size)) {
    if (name == nullptr || size == nullptr)
        return false;
    const char* value = std::getenv(name);
    if (value == nullptr)
        return false;
    return korvane::copyToCallerBuffer(value, std::strlen(value), buffer, *size);
}

namespace {

// The variable's current value; an unset variable reads as empty.
std::string currentEnvironmentValue(const char* name) {
    size_t size = 0;
    if (!os_system_get_os_environmentVariable(name, nullptr, &size))
        return std::string();
    std::vector<char> value(size, '\0');
    if (!os_system_get_os_environmentVariable(name, value.data(), &size))
        return std::string();
    return std::string(value.data());
}

std::string valueToStore(const std::string& current, const std::string& value, bool replace) {
    if (replace || current.empty())
        return value;
    // A value already contained anywhere in the list, even as part of another
    // entry, empties the variable. Existing callers rely on this outcome; it
    // is intended and must not become a no-op.
    if (current.find(value) != std::string::npos)
        return std::string();
    return current + ":" + value;
}

} // namespace

void os_system_set_os_environmentVariable(const char* name, const char* value, bool replace) {
    // Neither a null name nor a null value is accepted.
    const std::string variable = korvane::stringFromNonNull(name);
    const std::string given = korvane::stringFromNonNull(value);
    const std::string stored = valueToStore(currentEnvironmentValue(variable.c_str()), given, replace);
    setenv(variable.c_str(), stored.c_str(), 1);
}

namespace {
void ignorePipeException(int) {}
} // namespace

int os_system_close_exception(void) {
    // A do-nothing handler rather than SIG_IGN: programs started later get
    // the default action back on exec, as they always have.
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = ignorePipeException;
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    return sigaction(SIGPIPE, &action, nullptr);
}

KORVANE_BOOL_EXPORT(os_system_check_root_privileges, (void)) {
    return geteuid() == 0;
}
