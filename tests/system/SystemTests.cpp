// System services: clocks and sleeps, threads, affinity, atomics, memory and
// latency calls, processes, environment, code-page copies and the loader.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "korvane/system.h"

namespace systest {
// The shell commands the library runs (answered with `fakeStatus` instead of
// run in a dry run), and the mode of its last dlopen.
std::vector<std::string> commands;
bool dryRun = false;
int fakeStatus = 0;
int lastDlopenMode = -1;
} // namespace systest

extern "C" int system(const char* command) {
    systest::commands.push_back(command != nullptr ? command : "(null)");
    static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
    return systest::dryRun ? systest::fakeStatus : real(command);
}

extern "C" void* dlopen(const char* file, int mode) noexcept {
    systest::lastDlopenMode = mode;
    static const auto real = reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
    return real(file, mode);
}

namespace {

using namespace std::chrono_literals;

long long nanoseconds(const timespec& value) {
    return value.tv_sec * 1000000000LL + value.tv_nsec;
}

timespec monotonicNow() {
    timespec now {};
    EXPECT_EQ(os_clock_get_time(1, &now), 0);
    return now;
}

std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// Runs `body` in a child, which returns 0 or the code of the check that failed.
void expectChildSucceeds(const std::function<int()>& body) {
    const kvtest::ChildResult result = kvtest::runInChild(body);
    EXPECT_TRUE(result.exited && result.exitCode == 0) << "code " << result.exitCode << ", signal " << result.signal;
}

TEST(Clock, ArithmeticIsFieldByFieldAndNormalisesInWholeSeconds) {
    const std::pair<timespec, timespec> rows[] = {
        {{5, -1}, {4, 999999999}},   {{0, 2000000000}, {2, 0}},           {{7, 999999999}, {7, 999999999}},
        {{0, -2000000000}, {-2, 0}}, {{3, -1000000001}, {1, 999999999}}, {{-1, 1500000000}, {0, 500000000}},
        {{INT64_MIN, -1}, {INT64_MAX, 999999999}}}; // wraps around instead of overflowing
    for (auto [value, expected] : rows) {
        os_clock_adjust_clock_time(&value);
        EXPECT_TRUE(value.tv_sec == expected.tv_sec && value.tv_nsec == expected.tv_nsec) << expected.tv_sec;
    }
    timespec span {};
    const timespec start = {10, 900000000}, end = {11, 100000000}, lowest = {INT64_MIN, LONG_MIN};
    os_clock_get_clock_span(&start, &end, &span);
    EXPECT_TRUE(span.tv_sec == 1 && span.tv_nsec == -800000000) << "not normalised";
    os_clock_get_clock_span(&lowest, &end, &span);
    EXPECT_TRUE(span.tv_sec == INT64_MIN + 11 && span.tv_nsec == LONG_MIN + 100000000) << "wraps around";
    os_clock_adjust_clock_time(nullptr);
    os_clock_get_clock_span(nullptr, &end, &span);
    EXPECT_EQ(os_clock_get_time(1, nullptr), -1);
}

TEST(Clock, ConversionMapsAnInstantOntoTheOtherClock) {
    timespec monotonic = monotonicNow(), realtime {}, back {}, realtimeNow {};
    monotonic.tv_nsec = 999999990; // near a carry on purpose
    os_clock_monotonic_to_realtime(&monotonic, &realtime);
    os_clock_realtime_to_monotonic(&realtime, &back);
    for (const timespec& converted : {realtime, back})
        EXPECT_TRUE(converted.tv_nsec >= 0 && converted.tv_nsec <= 999999999) << "normalised";
    EXPECT_LT(std::llabs(nanoseconds(back) - nanoseconds(monotonic)), 50'000'000LL);
    monotonic = monotonicNow();
    os_clock_monotonic_to_realtime(&monotonic, &realtime);
    ASSERT_EQ(os_clock_get_time(0, &realtimeNow), 0);
    EXPECT_LT(std::llabs(nanoseconds(realtime) - nanoseconds(realtimeNow)), 50'000'000LL);
}

// A signal (SIGALRM every 20 ms, no SA_RESTART) ends the deadline sleep early
// with EINTR, since its retry only looks for -1; the relative sleep goes on.
TEST(Clock, SleepsAndSignals) {
    timespec deadline = monotonicNow();
    deadline.tv_nsec += 30000000;
    os_clock_adjust_clock_time(&deadline);
    EXPECT_EQ(os_clock_nano_sleep(&deadline), 0);
    EXPECT_GE(nanoseconds(monotonicNow()), nanoseconds(deadline));
    const timespec past = {0, 0}, invalid = {0, 1000000000}; // the clock's start: past even just after boot
    EXPECT_TRUE(os_clock_nano_sleep(&past) == 0 && os_thread_sleep_milliseconds(0) == 0);
    EXPECT_TRUE(os_clock_nano_sleep(&invalid) == EINVAL && os_clock_nano_sleep(nullptr) == EFAULT);
    expectChildSucceeds([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        const itimerval every20ms = {{0, 20000}, {0, 20000}};
        timespec later = monotonicNow();
        later.tv_sec += 5;
        if (sigaction(SIGALRM, &action, nullptr) != 0 || setitimer(ITIMER_REAL, &every20ms, nullptr) != 0)
            return 1;
        if (os_clock_nano_sleep(&later) != EINTR)
            return 2;
        const auto start = std::chrono::steady_clock::now();
        return os_thread_sleep_milliseconds(1500) == 0 && std::chrono::steady_clock::now() - start >= 1500ms ? 0 : 3;
    });
}

struct Probe {
    size_t stackSize = 0;
    void* argument = nullptr;
};

void probeThread(void* raw) {
    auto* probe = static_cast<Probe*>(raw); // null would crash: such a thread must never run
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstacksize(&attributes, &probe->stackSize);
        pthread_attr_destroy(&attributes);
    }
    probe->argument = raw;
}

TEST(Thread, StartsJoinableThreadsWithAtLeastTheMinimumStack) {
    pthread_attr_t defaults;
    size_t platform = 0;
    pthread_attr_init(&defaults);
    pthread_attr_getstacksize(&defaults, &platform);
    pthread_attr_destroy(&defaults);
    const std::pair<size_t, size_t> rows[] = {{0, std::max<size_t>(platform, 131072)}, {4096, 131072},
                                              {131071, 131072}, {131072, 131072}, {1 << 20, 1 << 20}};
    for (const auto& [requested, expected] : rows) {
        Probe probe;
        pthread_t thread;
        os_thread_create(&thread, probeThread, &probe, requested);
        ASSERT_EQ(os_thread_join(thread), 0);
        EXPECT_EQ(probe.argument, &probe);
        EXPECT_TRUE(probe.stackSize >= expected && probe.stackSize < expected + 65536) << requested;
    }
    pthread_t thread;
    os_thread_create(&thread, nullptr, nullptr, 0);
    EXPECT_EQ(os_thread_join(thread), 0);
    os_thread_create(nullptr, probeThread, nullptr, 0);
}

// An index outside 0..1023 passes an empty set, which the platform refuses:
// the process call sees -1, the thread call a positive error number that it
// still reports as success (kept for existing callers).
TEST(Thread, AffinityPinsToOneCpuAndKeepsItsEmptySetQuirk) {
    expectChildSucceeds([] {
        cpu_set_t allowed, now;
        int cpu = 0;
        sched_getaffinity(0, sizeof allowed, &allowed);
        while (!CPU_ISSET(cpu, &allowed))
            ++cpu;
        if (os_thread_sched_set_affinity(-1) || os_thread_sched_set_affinity(1024) ||
            !os_thread_sched_set_thread_affinity(pthread_self(), 1024))
            return 1;
        if (!os_thread_sched_set_affinity(cpu) || sched_getaffinity(0, sizeof now, &now) != 0 || CPU_COUNT(&now) != 1)
            return 2;
        sched_setaffinity(0, sizeof allowed, &allowed);
        if (!os_thread_sched_set_thread_affinity(pthread_self(), cpu))
            return 3;
        pthread_getaffinity_np(pthread_self(), sizeof now, &now);
        return CPU_COUNT(&now) == 1 && CPU_ISSET(cpu, &now) ? 0 : 4;
    });
}

TEST(Thread, AtomicsReturnTheNewValueOrTheValueFoundAndLoseNothing) {
    int64_t counter = 5;
    EXPECT_EQ(os_thread_sync_fetch_add(&counter), 6);
    EXPECT_EQ(os_thread_sync_fetch_sub(&counter), 5);
    EXPECT_EQ(os_thread_sync_fetch_add(nullptr) + os_thread_sync_fetch_sub(nullptr), 0);
    for (auto compareAndSwap : {os_thread_sync_compare_and_swap, os_thread_sync_compare_and_swap_64}) {
        int64_t target = 7;
        EXPECT_TRUE(compareAndSwap(&target, 8, 9) == 7 && target == 7);
        EXPECT_TRUE(compareAndSwap(&target, 7, INT64_C(1) << 40) == 7 && target == INT64_C(1) << 40);
        EXPECT_NE(compareAndSwap(nullptr, 3, 4), 3);
    }
    int64_t shared[3] = {}; // added, subtracted, swapped by four threads at once
    pthread_t threads[4];
    for (pthread_t& thread : threads) {
        os_thread_create(&thread, [](void* raw) {
            auto* counters = static_cast<int64_t*>(raw);
            for (int i = 0; i < 20000; ++i) {
                os_thread_sync_fetch_add(&counters[0]);
                os_thread_sync_fetch_sub(&counters[1]);
                int64_t seen = 0, found;
                while ((found = os_thread_sync_compare_and_swap(&counters[2], seen, seen + 1)) != seen)
                    seen = found;
            }
        }, shared, 0);
    }
    for (pthread_t thread : threads)
        ASSERT_EQ(os_thread_join(thread), 0);
    EXPECT_TRUE(shared[0] == 80000 && shared[1] == -80000 && shared[2] == 80000);
}

TEST(Thread, LatencyAndRealtimeReportThePlatform) {
    int latency = 12345;
    bool installed = false;
    const std::string printed = kvtest::captureStdout([&] { installed = os_thread_install_latency(&latency); });
    EXPECT_EQ(printed, installed ? "/dev/cpu_dma_latency set to 0us\n" : "");
    EXPECT_TRUE(installed ? fcntl(latency, F_GETFD) != -1 : latency == -1);
    os_thread_uninstall_latency(installed ? latency : -1);
    EXPECT_FALSE(installed && fcntl(latency, F_GETFD) != -1) << "the request ends when the descriptor closes";
    EXPECT_FALSE(os_thread_install_latency(nullptr) || os_thread_init_rt_schedule(-5));
}

// MCL_FUTURE alone faults nothing in; the dropped bits would make the platform refuse.
TEST(Thread, MemoryLockPassesOnlyTheTwoLowFlagBits) {
    const kvtest::ChildResult result = kvtest::runInChild([] {
        if (mlockall(MCL_FUTURE) != 0 || munlockall() != 0 || mlockall(MCL_FUTURE | 0x08) != -1)
            return 10; // not permitted here, or not checked (the address sanitizer replaces the call)
        return os_memory_manager_mlockall(MCL_FUTURE | 0x108) && os_memory_manager_munlockall() &&
                       !os_memory_manager_mlockall(0x0c)
                   ? 0
                   : 1;
    });
    if (result.exitCode == 10)
        GTEST_SKIP() << "memory locking is not permitted or not checked here";
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.exitCode;
}

// "./sh" links to the shell: run with the argument string as its only argv
// entry, it reads commands from standard input and sees that string as $0.
// Without "./sh" the shell comes from PATH with argv {"sh", arguments}.
TEST(Process, RunApplicationTriesLocalThenPathWithTheUnsplitArguments) {
    kvtest::TempDir dir;
    std::ofstream(dir / "commands") << "printf '%s|%s' \"$0\" \"$#\" > local.out\n";
    std::ofstream(dir / "my script") << "printf '%s|%s' \"$0\" \"$#\" > path.out\n";
    expectChildSucceeds([&] {
        if (chdir(dir.path().c_str()) != 0 || !os_system_run_application("sh", "my script", true))
            return 1;
        if (symlink("/bin/sh", "sh") != 0 || dup2(open("commands", O_RDONLY), STDIN_FILENO) < 0)
            return 2;
        return os_system_run_application("sh", "one two  three", true) ? 0 : 3;
    });
    EXPECT_EQ(readFile(dir / "path.out"), "my script|0");
    EXPECT_EQ(readFile(dir / "local.out"), "one two  three|0");
}

// Without waiting the call returns at once: the program waits for a file
// that only appears afterwards (a call that waited would never return).
TEST(Process, RunApplicationWaitsOnlyWhenAskedAndFailsOnlyOnSignals) {
    kvtest::TempDir dir;
    std::ofstream(dir / "gated") << "while [ ! -e go ]; do sleep 0.01; done; exit 7\n";
    std::ofstream(dir / "killed") << "kill -9 $$\n";
    expectChildSucceeds([&] {
        int status = 0;
        if (chdir(dir.path().c_str()) != 0 || !os_system_run_application("sh", "gated", false))
            return 1;
        std::ofstream("go").flush();
        if (waitpid(-1, &status, 0) <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 7)
            return 2;
        if (!os_system_run_application("sh", "gated", true) || os_system_run_application("sh", "killed", true))
            return 3;
        if (!os_system_run_application("kvt-no-such-program", nullptr, false) || waitpid(-1, &status, 0) <= 0)
            return 4;
        return WIFEXITED(status) && WEXITSTATUS(status) == 255 ? 0 : 5; // neither form could start
    });
}

TEST(Process, ShellCommandsSucceedOnlyOnExitStatusZero) {
    for (const auto& [command, succeeded] : {std::pair{"true", true}, {"exit 3", false}, {"kill -9 $$", false}})
        EXPECT_EQ(os_system_invoke_command(command), succeeded) << command;
    EXPECT_FALSE(os_system_kill_application("kvt-nothing-runs-under-this-name"));
    systest::dryRun = true;
    systest::fakeStatus = 0;
    systest::commands.clear();
    EXPECT_TRUE(os_system_kill_application("a b") && os_system_kill_application(nullptr));
    systest::dryRun = false;
    EXPECT_EQ(systest::commands, (std::vector<std::string>{"killall -9 \"a b\"", "killall -9 \"\""}));
}

// A do-nothing handler rather than SIG_IGN, so programs started later get the
// default action back.
TEST(Process, CloseExceptionTurnsSigpipeIntoEpipe) {
    const auto writeToBrokenPipe = [](bool ignore) {
        return kvtest::runInChild([ignore] {
            int fds[2];
            struct sigaction current;
            if ((ignore && os_system_close_exception() != 0) || pipe(fds) != 0 || close(fds[0]) != 0)
                return 1;
            sigaction(SIGPIPE, nullptr, &current);
            if (ignore && (current.sa_handler == SIG_IGN || current.sa_handler == SIG_DFL))
                return 2;
            return write(fds[1], "x", 1) == -1 && errno == EPIPE ? 0 : 3;
        });
    };
    EXPECT_EQ(writeToBrokenPipe(false).signal, SIGPIPE);
    const kvtest::ChildResult survived = writeToBrokenPipe(true);
    EXPECT_TRUE(survived.exited && survived.exitCode == 0) << survived.exitCode;
}

TEST(Process, RootPrivilegesAndApplicationPath) {
    EXPECT_EQ(os_system_check_root_privileges(), geteuid() == 0);
    if (geteuid() == 0)
        expectChildSucceeds([] { return seteuid(65534) == 0 && !os_system_check_root_privileges() ? 0 : 1; });
    char expected[4096], path[4096];
    std::fill(std::begin(path), std::end(path), '#');
    const ssize_t length = readlink("/proc/self/exe", expected, sizeof expected);
    ASSERT_EQ(os_environment_get_application_path(path, sizeof path), length);
    EXPECT_EQ(std::string(path, length + 1), std::string(expected, length) + "#") << "not terminated";
    EXPECT_EQ(os_environment_get_application_path(path, 5), 5) << "truncated silently";
    errno = 0;
    EXPECT_EQ(os_environment_get_application_path(nullptr, 64), -1);
    EXPECT_EQ(errno, EFAULT);
}

// The environment getter and both code-page copies share one protocol.
TEST(CallerBuffer, EnvironmentAndCodePageCopies) {
    const char* text = "h\xc3\xa9llo"; // six bytes of UTF-8
    const std::string name = kvtest::uniqueName("VAR");
    setenv(name.c_str(), text, 1);
    const std::function<bool(char*, size_t*)> getters[] = {
        [&](char* buffer, size_t* size) { return os_system_get_os_environmentVariable(name.c_str(), buffer, size); },
        [&](char* buffer, size_t* size) { return os_utf8helper_oem_from_utf8(text, buffer, size); },
        [&](char* buffer, size_t* size) { return os_utf8helper_oem_to_utf8(text, buffer, size); }};
    for (const auto& get : getters) {
        char buffer[16] = "###";
        size_t size = 0;
        EXPECT_TRUE(get(nullptr, &size) && size == 7);
        size = 6;
        EXPECT_TRUE(!get(buffer, &size) && size == 6 && buffer[0] == '#');
        size = sizeof buffer;
        EXPECT_TRUE(get(buffer, &size) && size == 7 && std::string(buffer) == text);
        EXPECT_FALSE(get(buffer, nullptr));
    }
    unsetenv(name.c_str());
    size_t size = 99;
    EXPECT_FALSE(os_system_get_os_environmentVariable(name.c_str(), nullptr, &size) ||
                 os_system_get_os_environmentVariable(nullptr, nullptr, &size) ||
                 os_utf8helper_oem_to_utf8(nullptr, nullptr, &size));
    EXPECT_EQ(size, 99u);
    // Kept asymmetric for existing callers: only this direction reads null as "".
    EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, nullptr, &size) && size == 1);
}

TEST(Environment, SetReplacesAppendsOrEmpties) {
    const std::string name = kvtest::uniqueName("VAR");
    // Initial value (null: unset), value, replace, result.
    const std::tuple<const char*, const char*, bool, const char*> rows[] = {
        {nullptr, "v", false, "v"}, {"", "v", false, "v"}, {"/usr/bin:/bin", "/opt/x", true, "/opt/x"},
        {"/usr/bin:/bin", "/opt/x", false, "/usr/bin:/bin:/opt/x"},
        {"/usr/bin:/bin:/opt/x", "/opt/x", false, ""}, // a contained value empties it, kept for existing callers
        {"/usr/bin:/bin", "/usr/b", false, ""}};       // contained as plain bytes, not as an entry
    for (const auto& [initial, value, replace, result] : rows) {
        ASSERT_EQ(initial != nullptr ? setenv(name.c_str(), initial, 1) : unsetenv(name.c_str()), 0);
        os_system_set_os_environmentVariable(name.c_str(), value, replace);
        EXPECT_STREQ(getenv(name.c_str()), result) << (initial ? initial : "(unset)") << " with " << value;
    }
    EXPECT_THROW(os_system_set_os_environmentVariable(nullptr, "v", true), std::logic_error);
    EXPECT_THROW(os_system_set_os_environmentVariable(name.c_str(), nullptr, true), std::logic_error);
    EXPECT_STREQ(getenv(name.c_str()), "");
    unsetenv(name.c_str());
}

TEST(Loader, FlagsMapOntoDlopenModes) {
    for (const auto& [flags, mode] : {std::pair<uint32_t, int>{0, 1}, {1, 2}, {3, 258}, {15, 4362}, {0xFFFFFFF0u, 1}}) {
        void* program = os_dynamic_library_loader_load_ex(nullptr, flags); // the main program
        EXPECT_TRUE(program != nullptr && systest::lastDlopenMode == mode) << flags << ": " << systest::lastDlopenMode;
        EXPECT_EQ(os_dynamic_library_loader_free(program), 0);
    }
    os_dynamic_library_loader_free(os_dynamic_library_loader_load(nullptr));
    EXPECT_EQ(systest::lastDlopenMode, RTLD_NOW);
}

TEST(Loader, LoadsFindsAndFrees) {
    void* program = os_dynamic_library_loader_load(nullptr); // the main program
    ASSERT_NE(program, nullptr);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, "os_dynamic_library_loader_free"),
              reinterpret_cast<void*>(&os_dynamic_library_loader_free));
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, "kv_no_such_symbol"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, nullptr), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(program), 0);
    const std::string printed =
        kvtest::captureStdout([] { EXPECT_EQ(os_dynamic_library_loader_load("/nonexistent/libkv.so"), nullptr); });
    EXPECT_EQ(printed, "");
    EXPECT_EQ(os_dynamic_library_loader_get_proc(nullptr, "cos"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(nullptr), 0);
}

} // namespace
