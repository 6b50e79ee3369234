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

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "korvane/system.h"

// The mode of the library's last dlopen: its flags are a mapping that no
// loaded library would show in full.
static int lastDlopenMode = -1;
extern "C" void* dlopen(const char* file, int mode) noexcept {
    lastDlopenMode = mode;
    static const auto real = reinterpret_cast<void* (*)(const char*, int)>(dlsym(RTLD_NEXT, "dlopen"));
    return real(file, mode);
}

namespace {

std::pair<long long, long> fields(const timespec& value) { return {value.tv_sec, value.tv_nsec}; }
long long nanoseconds(const timespec& value) { return value.tv_sec * 1000000000LL + value.tv_nsec; }

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

// Runs `body` in a child, which returns 0 or the number of the check that failed.
void expectChildSucceeds(const std::function<int()>& body) {
    const kvtest::ChildResult result = kvtest::runInChild(body);
    EXPECT_EQ(result.signal, 0);
    EXPECT_EQ(result.exitCode, 0);
}

TEST(Clock, ArithmeticIsFieldByFieldAndNormalisesInWholeSeconds) {
    const std::pair<timespec, timespec> rows[] = {
        {{5, -1}, {4, 999999999}},   {{0, 2000000000}, {2, 0}},           {{7, 999999999}, {7, 999999999}},
        {{0, -2000000000}, {-2, 0}}, {{3, -1000000001}, {1, 999999999}}, {{-1, 1500000000}, {0, 500000000}},
        {{INT64_MIN, -1}, {INT64_MAX, 999999999}}}; // wraps around instead of overflowing
    for (auto [value, expected] : rows) {
        os_clock_adjust_clock_time(&value);
        EXPECT_EQ(fields(value), fields(expected));
    }
    timespec span {};
    const timespec start = {10, 900000000}, end = {11, 100000000}, lowest = {INT64_MIN, LONG_MIN};
    os_clock_get_clock_span(&start, &end, &span);
    EXPECT_EQ(fields(span), fields({1, -800000000})) << "not normalised";
    os_clock_get_clock_span(&lowest, &end, &span);
    EXPECT_EQ(fields(span), fields({INT64_MIN + 11, LONG_MIN + 100000000})) << "wraps around";
    os_clock_adjust_clock_time(nullptr);
    os_clock_get_clock_span(nullptr, &end, &span);
    EXPECT_EQ(os_clock_get_time(1, nullptr), -1);
}

TEST(Clock, ConversionMapsAnInstantOntoTheOtherClock) {
    timespec monotonic = monotonicNow(), realtime {}, back {}, realtimeNow {};
    monotonic.tv_nsec = 999999990; // near a carry on purpose
    os_clock_monotonic_to_realtime(&monotonic, &realtime);
    os_clock_realtime_to_monotonic(&realtime, &back);
    for (const timespec& converted : {realtime, back}) {
        EXPECT_GE(converted.tv_nsec, 0) << "not normalised";
        EXPECT_LE(converted.tv_nsec, 999999999) << "not normalised";
    }
    EXPECT_NEAR(nanoseconds(back), nanoseconds(monotonic), 50e6);
    monotonic = monotonicNow();
    os_clock_monotonic_to_realtime(&monotonic, &realtime);
    ASSERT_EQ(os_clock_get_time(0, &realtimeNow), 0);
    EXPECT_NEAR(nanoseconds(realtime), nanoseconds(realtimeNow), 50e6);
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
    EXPECT_EQ(os_clock_nano_sleep(&past), 0);
    EXPECT_EQ(os_thread_sleep_milliseconds(0), 0);
    EXPECT_EQ(os_clock_nano_sleep(&invalid), EINVAL);
    EXPECT_EQ(os_clock_nano_sleep(nullptr), EFAULT);
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
        const timespec start = monotonicNow();
        if (os_thread_sleep_milliseconds(1500) != 0)
            return 3;
        return nanoseconds(monotonicNow()) - nanoseconds(start) >= 1500000000LL ? 0 : 4;
    });
}

TEST(Thread, StartsJoinableThreadsWithAtLeastTheMinimumStack) {
    pthread_attr_t attributes;
    size_t platform = 0;
    pthread_attr_init(&attributes);
    pthread_attr_getstacksize(&attributes, &platform);
    pthread_attr_destroy(&attributes);
    const std::pair<size_t, size_t> rows[] = {{0, std::max<size_t>(platform, 131072)}, {4096, 131072},
                                              {131071, 131072}, {131072, 131072}, {1 << 20, 1 << 20}};
    for (const auto& [requested, expected] : rows) {
        std::pair<size_t, void*> probe; // the stack size seen by the thread, and its argument
        pthread_t thread;
        os_thread_create(&thread, [](void* raw) {
            auto* seen = static_cast<std::pair<size_t, void*>*>(raw); // null would crash: such a thread must never run
            pthread_attr_t own;
            pthread_getattr_np(pthread_self(), &own);
            pthread_attr_getstacksize(&own, &seen->first);
            pthread_attr_destroy(&own);
            seen->second = raw;
        }, &probe, requested);
        ASSERT_EQ(os_thread_join(thread), 0);
        EXPECT_EQ(probe.second, &probe);
        EXPECT_GE(probe.first, expected) << requested;
        EXPECT_LT(probe.first, expected + 65536) << requested;
    }
    pthread_t thread;
    os_thread_create(&thread, nullptr, nullptr, 0);
    EXPECT_EQ(os_thread_join(thread), 0);
    os_thread_create(nullptr, [](void*) {}, nullptr, 0);
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
        if (os_thread_sched_set_affinity(-1) || os_thread_sched_set_affinity(1024))
            return 1;
        if (!os_thread_sched_set_thread_affinity(pthread_self(), 1024))
            return 2;
        if (!os_thread_sched_set_affinity(cpu) || sched_getaffinity(0, sizeof now, &now) != 0 || CPU_COUNT(&now) != 1)
            return 3;
        sched_setaffinity(0, sizeof allowed, &allowed);
        if (!os_thread_sched_set_thread_affinity(pthread_self(), cpu))
            return 4;
        pthread_getaffinity_np(pthread_self(), sizeof now, &now);
        return CPU_COUNT(&now) == 1 && CPU_ISSET(cpu, &now) ? 0 : 5;
    });
}

TEST(Thread, AtomicsReturnTheNewValueOrTheValueFoundAndLoseNothing) {
    int64_t counter = 5;
    EXPECT_EQ(os_thread_sync_fetch_add(&counter), 6);
    EXPECT_EQ(os_thread_sync_fetch_sub(&counter), 5);
    EXPECT_EQ(os_thread_sync_fetch_add(nullptr), 0);
    EXPECT_EQ(os_thread_sync_fetch_sub(nullptr), 0);
    for (auto compareAndSwap : {os_thread_sync_compare_and_swap, os_thread_sync_compare_and_swap_64}) {
        int64_t target = 7;
        EXPECT_EQ(compareAndSwap(&target, 8, 9), 7);
        EXPECT_EQ(compareAndSwap(&target, 7, INT64_C(1) << 40), 7);
        EXPECT_EQ(target, INT64_C(1) << 40);
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
    EXPECT_EQ(shared[0], 80000);
    EXPECT_EQ(shared[1], -80000);
    EXPECT_EQ(shared[2], 80000);
}

// The request lasts while the descriptor stays open.
TEST(Thread, LatencyRequestLastsUntilUninstalled) {
    EXPECT_FALSE(os_thread_install_latency(nullptr));
    EXPECT_FALSE(os_thread_init_rt_schedule(-5));
    os_thread_uninstall_latency(-1);
    int latency = 12345;
    bool installed = false;
    const std::string printed = kvtest::captureStdout([&] { installed = os_thread_install_latency(&latency); });
    if (!installed) {
        EXPECT_EQ(latency, -1);
        GTEST_SKIP() << "no latency device can be opened here";
    }
    EXPECT_EQ(printed, "/dev/cpu_dma_latency set to 0us\n");
    EXPECT_NE(fcntl(latency, F_GETFD), -1) << "the request ended at once";
    os_thread_uninstall_latency(latency);
    EXPECT_EQ(fcntl(latency, F_GETFD), -1);
}

// MCL_FUTURE alone faults nothing in; the dropped bits would make the platform refuse.
TEST(Thread, MemoryLockPassesOnlyTheTwoLowFlagBits) {
    const kvtest::ChildResult result = kvtest::runInChild([] {
        if (mlockall(MCL_FUTURE) != 0 || munlockall() != 0 || mlockall(MCL_FUTURE | 0x08) != -1)
            return 10; // not permitted here, or not checked (the address sanitizer replaces the call)
        if (!os_memory_manager_mlockall(MCL_FUTURE | 0x108) || !os_memory_manager_munlockall())
            return 1;
        return os_memory_manager_mlockall(0x0c) ? 2 : 0;
    });
    if (result.exitCode == 10)
        GTEST_SKIP() << "memory locking is not permitted or not checked here";
    EXPECT_EQ(result.exitCode, 0);
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
        // A child that ended before the call looked is reaped by the call: try
        // until this side gets to see the status.
        for (int tries = 0, reaped = 0; tries < 50 && reaped <= 0; ++tries) {
            if (!os_system_run_application("kvt-no-such-program", nullptr, false))
                return 4;
            reaped = waitpid(-1, &status, 0);
        }
        return WIFEXITED(status) && WEXITSTATUS(status) == 255 ? 0 : 5; // neither form could start
    });
}

// The one home of the shell exit-status rule: a command succeeds only when
// it exits with status 0. The kill goes through a stand-in killall found
// first on PATH, which records its arguments.
TEST(Process, ShellCommandsSucceedOnlyOnExitStatusZero) {
    for (const auto& [command, succeeded] : {std::pair{"true", true}, {"exit 3", false}, {"kill -9 $$", false}})
        EXPECT_EQ(os_system_invoke_command(command), succeeded) << command;
    kvtest::TempDir dir;
    std::ofstream(dir / "killall") << "printf '%s|' \"$@\" >> " << (dir / "arguments") << "\n[ \"$2\" = ok ]\n";
    expectChildSucceeds([&] {
        chmod((dir / "killall").c_str(), 0755);
        setenv("PATH", (dir.path() + ":" + getenv("PATH")).c_str(), 1);
        if (!os_system_kill_application("ok") || os_system_kill_application("a b"))
            return 1;
        return os_system_kill_application(nullptr) ? 2 : 0;
    });
    EXPECT_EQ(readFile(dir / "arguments"), "-9|ok|-9|a b|-9||");
}

// A do-nothing handler rather than SIG_IGN, so programs started later get the
// default action back.
TEST(Process, CloseExceptionTurnsSigpipeIntoEpipe) {
    for (const bool handled : {false, true}) {
        const kvtest::ChildResult result = kvtest::runInChild([handled] {
            int fds[2];
            struct sigaction current;
            if ((handled && os_system_close_exception() != 0) || pipe(fds) != 0 || close(fds[0]) != 0)
                return 1;
            sigaction(SIGPIPE, nullptr, &current);
            if (handled && (current.sa_handler == SIG_IGN || current.sa_handler == SIG_DFL))
                return 2;
            return write(fds[1], "x", 1) == -1 && errno == EPIPE ? 0 : 3;
        });
        EXPECT_EQ(result.signal, handled ? 0 : SIGPIPE);
        EXPECT_EQ(result.exitCode, handled ? 0 : -1);
    }
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

// The caller-buffer protocol, through the environment getter; the code-page
// copies, which share it, are checked for the text they hand over.
TEST(CallerBuffer, SizeQueryShortBufferAndCopy) {
    const char* text = "h\xc3\xa9llo"; // six bytes of UTF-8
    const std::string name = kvtest::uniqueName("VAR");
    setenv(name.c_str(), text, 1);
    char buffer[16] = "###";
    size_t size = 0;
    EXPECT_TRUE(os_system_get_os_environmentVariable(name.c_str(), nullptr, &size));
    EXPECT_EQ(size, 7u) << "the size asked for";
    size = 6;
    EXPECT_FALSE(os_system_get_os_environmentVariable(name.c_str(), buffer, &size));
    EXPECT_EQ(size, 6u) << "a short buffer keeps the caller's size";
    EXPECT_EQ(buffer[0], '#') << "a short buffer is untouched";
    EXPECT_FALSE(os_system_get_os_environmentVariable(name.c_str(), buffer, nullptr));
    const std::pair<bool (*)(const char*, char*, size_t*), const char*> copies[] = {
        {os_system_get_os_environmentVariable, name.c_str()}, {os_utf8helper_oem_from_utf8, text},
        {os_utf8helper_oem_to_utf8, text}};
    for (const auto& [copy, argument] : copies) {
        size = sizeof buffer;
        EXPECT_TRUE(copy(argument, buffer, &size));
        EXPECT_EQ(std::string(buffer, size), std::string(text, 7));
    }
    unsetenv(name.c_str());
    size = 99;
    EXPECT_FALSE(os_system_get_os_environmentVariable(name.c_str(), nullptr, &size));
    EXPECT_FALSE(os_system_get_os_environmentVariable(nullptr, nullptr, &size));
    EXPECT_FALSE(os_utf8helper_oem_to_utf8(nullptr, nullptr, &size));
    EXPECT_EQ(size, 99u);
    // Kept asymmetric for existing callers: only this direction reads null as "".
    EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, nullptr, &size));
    EXPECT_EQ(size, 1u);
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

TEST(Loader, FlagsMapOntoDlopenModesAndTheMainProgramIsFound) {
    for (const auto& [flags, mode] : {std::pair<uint32_t, int>{0, 1}, {1, 2}, {3, 258}, {15, 4362}, {0xFFFFFFF0u, 1}}) {
        void* program = os_dynamic_library_loader_load_ex(nullptr, flags); // the main program
        ASSERT_NE(program, nullptr);
        EXPECT_EQ(lastDlopenMode, mode) << flags;
        EXPECT_EQ(os_dynamic_library_loader_free(program), 0);
    }
    void* program = os_dynamic_library_loader_load(nullptr);
    EXPECT_EQ(lastDlopenMode, RTLD_NOW);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, "os_dynamic_library_loader_free"),
              reinterpret_cast<void*>(&os_dynamic_library_loader_free));
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, "kv_no_such_symbol"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, nullptr), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(program), 0);
    const auto loadMissing = [] { EXPECT_EQ(os_dynamic_library_loader_load("/nonexistent/libkv.so"), nullptr); };
    EXPECT_EQ(kvtest::captureStdout(loadMissing), "") << "a failed load prints nothing";
    EXPECT_EQ(os_dynamic_library_loader_get_proc(nullptr, "cos"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(nullptr), 0);
}

} // namespace
