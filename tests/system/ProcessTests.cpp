// Starting and killing programs, shell commands, SIGPIPE, the root test and
// the application path. Every test that starts programs runs in a forked
// child, so its working directory, standard input and children stay its own.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include "TestSupport.h"
#include "korvane/system.h"

namespace {

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path) << text;
}

bool exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

// Runs `body` in a child and expects it to return 0.
void expectChildSucceeds(const std::function<int()>& body) {
    const kvtest::ChildResult result = kvtest::runInChild(body);
    EXPECT_FALSE(result.timedOut);
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.exitCode, 0);
}

// "./sh" is a link to the shell here, so the local attempt wins. Run with the
// argument string as its only argv entry, the shell reads its commands from
// standard input and sees that string as $0, spaces and all.
TEST(RunApplication, LocalProgramGetsTheWholeArgumentStringAsArgv0) {
    kvtest::TempDir dir;
    writeFile(dir / "commands", "printf '%s|%s' \"$0\" \"$#\" > local.out\n");
    expectChildSucceeds([&] {
        if (chdir(dir.path().c_str()) != 0 || symlink("/bin/sh", "sh") != 0)
            return 1;
        const int commands = open("commands", O_RDONLY);
        if (commands < 0 || dup2(commands, STDIN_FILENO) < 0)
            return 2;
        return os_system_run_application("sh", "one two  three", true) ? 0 : 3;
    });
    EXPECT_EQ(readFile(dir / "local.out"), "one two  three|0");
}

// No "./sh" here: the shell comes from PATH with argv {"sh", arguments}, and
// the argument string names a script whose path contains a space.
TEST(RunApplication, PathProgramGetsApplicationThenTheUnsplitArgumentString) {
    kvtest::TempDir dir;
    const std::string script = dir / "my script.sh";
    writeFile(script, "printf '%s|%s' \"$0\" \"$#\" > \"$(dirname \"$0\")/path.out\"\n");
    expectChildSucceeds([&] {
        if (chdir(dir.path().c_str()) != 0)
            return 1;
        return os_system_run_application("sh", script.c_str(), true) ? 0 : 2;
    });
    EXPECT_EQ(readFile(dir / "path.out"), script + "|0");
}

TEST(RunApplication, WaitsForTheProgramWhenAsked) {
    kvtest::TempDir dir;
    const std::string script = dir / "slow.sh";
    writeFile(script, "sleep 0.2\necho done > \"$(dirname \"$0\")/waited.out\"\n");
    expectChildSucceeds([&] {
        if (!os_system_run_application("sh", script.c_str(), true))
            return 1;
        return exists(dir / "waited.out") ? 0 : 2;
    });
}

// The program waits for a file that only appears after the call returned, so
// a call that waited would never return (the child's time limit ends it).
TEST(RunApplication, ReturnsAtOnceWithoutWaiting) {
    kvtest::TempDir dir;
    const std::string script = dir / "gated.sh";
    writeFile(script, "cd \"$(dirname \"$0\")\"\nwhile [ ! -e go ]; do sleep 0.01; done\necho done > late.out\n");
    expectChildSucceeds([&] {
        if (!os_system_run_application("sh", script.c_str(), false))
            return 1;
        writeFile(dir / "go", "");
        if (!kvtest::eventually([&] { return exists(dir / "late.out"); }))
            return 2;
        int status = 0;
        return waitpid(-1, &status, 0) > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 3;
    });
}

TEST(RunApplication, OnlyDeathBySignalIsFailure) {
    kvtest::TempDir dir;
    writeFile(dir / "exit7.sh", "exit 7\n");
    writeFile(dir / "killed.sh", "kill -9 $$\n");
    expectChildSucceeds([&] {
        if (!os_system_run_application("sh", (dir / "exit7.sh").c_str(), true))
            return 1;
        return os_system_run_application("sh", (dir / "killed.sh").c_str(), true) ? 2 : 0;
    });
}

// A program found neither locally nor along PATH leaves a child that exits
// with 255; the call still reports success, waited for or not.
TEST(RunApplication, ChildWhoseExecFailsExitsWith255) {
    expectChildSucceeds([] {
        const char* missing = "kvt-no-such-program-anywhere";
        if (!os_system_run_application(missing, "x", true))
            return 1;
        int status = 0;
        if (waitpid(-1, &status, WNOHANG) != -1 || errno != ECHILD)
            return 2; // the waited-for child was reaped
        if (!os_system_run_application(missing, nullptr, false))
            return 3;
        if (waitpid(-1, &status, 0) <= 0)
            return 4;
        return WIFEXITED(status) && WEXITSTATUS(status) == 255 ? 0 : 5;
    });
}

TEST(RunApplication, ChildSeesTheEnvironmentSetBeforeIt) {
    kvtest::TempDir dir;
    const std::string variable = kvtest::uniqueName("ENV");
    const std::string script = dir / "env.sh";
    writeFile(script, "printenv " + variable + " > \"$(dirname \"$0\")/env.out\"\n");
    expectChildSucceeds([&] {
        os_system_set_os_environmentVariable(variable.c_str(), "first", true);
        os_system_set_os_environmentVariable(variable.c_str(), "second", false);
        return os_system_run_application("sh", script.c_str(), true) ? 0 : 1;
    });
    EXPECT_EQ(readFile(dir / "env.out"), "first:second\n");
}

struct CommandCase {
    const char* command;
    bool expected;
};

class InvokeCommand : public ::testing::TestWithParam<CommandCase> {};

TEST_P(InvokeCommand, SucceedsOnlyOnExitStatusZero) {
    EXPECT_EQ(os_system_invoke_command(GetParam().command), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Table, InvokeCommand,
                         ::testing::Values(CommandCase{"true", true}, CommandCase{"exit 0", true},
                                           CommandCase{"exit 3", false}, CommandCase{"kill -9 $$", false},
                                           CommandCase{"kvt-no-such-command-anywhere 2>/dev/null", false}));

TEST(KillApplication, KillsEveryProcessOfThatName) {
    kvtest::TempDir dir;
    // A private copy of sleep with a name no other process has (process
    // names are cut at 15 characters).
    const std::string name = "kvk" + std::to_string(getpid() % 1000000);
    const std::string program = dir / name;
    ASSERT_EQ(os_system_invoke_command(("cp \"$(command -v sleep)\" \"" + program + "\"").c_str()), true);
    const pid_t sleeper = fork();
    ASSERT_NE(sleeper, -1);
    if (sleeper == 0) {
        execl(program.c_str(), name.c_str(), "30", static_cast<char*>(nullptr));
        _exit(127);
    }
    // Wait until the exec has given the process its new name.
    const std::string comm = "/proc/" + std::to_string(sleeper) + "/comm";
    EXPECT_TRUE(kvtest::eventually([&] { return readFile(comm) == name + "\n"; }));
    EXPECT_TRUE(os_system_kill_application(name.c_str()));
    int status = 0;
    const bool reaped = kvtest::eventually([&] { return waitpid(sleeper, &status, WNOHANG) == sleeper; });
    if (!reaped) {
        kill(sleeper, SIGKILL);
        waitpid(sleeper, nullptr, 0);
    }
    ASSERT_TRUE(reaped);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGKILL);
    // Nothing of that name is left.
    EXPECT_FALSE(os_system_kill_application(name.c_str()));
}

TEST(CloseException, BrokenPipeFailsWithEpipeInsteadOfKilling) {
    const auto writeToBrokenPipe = [](bool ignore) {
        return kvtest::runInChild([ignore] {
            if (ignore && os_system_close_exception() != 0)
                return 1;
            int fds[2];
            if (pipe(fds) != 0)
                return 2;
            close(fds[0]);
            const ssize_t written = write(fds[1], "x", 1);
            return written == -1 && errno == EPIPE ? 0 : 3;
        });
    };
    const kvtest::ChildResult unprotected = writeToBrokenPipe(false);
    EXPECT_FALSE(unprotected.exited);
    EXPECT_EQ(unprotected.signal, SIGPIPE);
    const kvtest::ChildResult protectedChild = writeToBrokenPipe(true);
    EXPECT_TRUE(protectedChild.exited);
    EXPECT_EQ(protectedChild.exitCode, 0);
}

TEST(CloseException, InstallsAHandlerRatherThanIgnoring) {
    expectChildSucceeds([] {
        os_system_close_exception();
        struct sigaction current;
        sigaction(SIGPIPE, nullptr, &current);
        return current.sa_handler != SIG_IGN && current.sa_handler != SIG_DFL ? 0 : 1;
    });
}

TEST(RootPrivileges, FollowTheEffectiveUser) {
    EXPECT_EQ(os_system_check_root_privileges(), geteuid() == 0);
    if (geteuid() != 0)
        return;
    expectChildSucceeds([] { return seteuid(65534) == 0 && !os_system_check_root_privileges() ? 0 : 1; });
}

TEST(ApplicationPath, IsTheRunningExecutableUnterminated) {
    char expected[4096];
    const ssize_t length = readlink("/proc/self/exe", expected, sizeof expected);
    ASSERT_GT(length, 0);
    char path[4096];
    std::memset(path, '#', sizeof path);
    ASSERT_EQ(os_environment_get_application_path(path, sizeof path), length);
    EXPECT_EQ(std::string(path, static_cast<size_t>(length)), std::string(expected, static_cast<size_t>(length)));
    EXPECT_EQ(path[length], '#');
    EXPECT_NE(std::string(path, static_cast<size_t>(length)).find("korvane_system_tests"), std::string::npos);
}

TEST(ApplicationPath, TooSmallBufferGetsATruncatedPath) {
    char expected[4096];
    ASSERT_GT(readlink("/proc/self/exe", expected, sizeof expected), 5);
    char path[8];
    std::memset(path, '#', sizeof path);
    EXPECT_EQ(os_environment_get_application_path(path, 5), 5);
    EXPECT_EQ(std::string(path, 5), std::string(expected, 5));
    EXPECT_EQ(path[5], '#');
}

TEST(ApplicationPath, NullBufferIsRefusedWithEfault) {
    errno = 0;
    EXPECT_EQ(os_environment_get_application_path(nullptr, 64), -1);
    EXPECT_EQ(errno, EFAULT);
}

} // namespace
