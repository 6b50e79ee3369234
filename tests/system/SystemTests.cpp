// System services: clocks and sleeps, processes, environment and the
// code-page copies.
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <gtest/gtest.h>

#include "TestSupport.h" // the standard and POSIX headers the suites share
#include "korvane/system.h"

namespace {

std::pair<long long, long> fields(const timespec& value) { return {value.tv_sec, value.tv_nsec}; }

// Clock arithmetic is field by field and normalises in whole seconds.
TEST(Clock, ArithmeticSleepsAndSignals) {
    const std::pair<timespec, timespec> rows[] = {
        {{5, -1}, {4, 999999999}}, {{0, 2000000000}, {2, 0}}, {{7, 999999999}, {7, 999999999}},
        {{0, -2000000000}, {-2, 0}}, {{3, -1000000001}, {1, 999999999}},
        {{INT64_MIN, -1}, {INT64_MAX, 999999999}}}; // wraps around instead of overflowing
    for (auto [value, expected] : rows) {
        os_clock_adjust_clock_time(&value);
        EXPECT_EQ(fields(value), fields(expected));
    }
    timespec span {}, start = {10, 900000000}, end = {11, 100000000};
    os_clock_get_clock_span(&start, &end, &span);
    EXPECT_EQ(fields(span), fields({1, -800000000})) << "not normalised";
    // A signal (SIGALRM every 20 ms, no SA_RESTART) ends the deadline sleep
    // early with EINTR, since its retry only looks for -1; the relative sleep
    // goes on. A deadline just passed ends the sleep at once: it is not read
    // as a span. The child returns 0 or the number of the check that failed.
    EXPECT_EQ(kvtest::runInChild([] {
        struct sigaction action {};
        action.sa_handler = [](int) {};
        const itimerval every20ms = {{0, 20000}, {0, 20000}};
        timespec now {};
        os_clock_get_time(CLOCK_MONOTONIC, &now);
        if (sigaction(SIGALRM, &action, nullptr) != 0 || setitimer(ITIMER_REAL, &every20ms, nullptr) != 0)
            return 1;
        const timespec later = {now.tv_sec + 5, now.tv_nsec};
        if (os_clock_nano_sleep(&now) != 0 || os_clock_nano_sleep(&later) != EINTR)
            return 2;
        return os_thread_sleep_milliseconds(100); // 0 unless a signal ended it
    }).exitCode, 0);
}

// The fetch functions return the new value, despite their names (kept for
// existing callers); compare-and-swap returns the value it found. The
// interfaces' reference counts are built on the fetch functions: their last
// release reads fetch_sub's result, which the application reader's test checks.
// A requested stack below 128 KiB is raised to it; 0 takes the platform's
// own size, when that is larger. The threads run together, counting a shared
// pair up and down: the atomics must lose no update.
TEST(Thread, AtomicsAndStackFloor) {
    int64_t counter = 5;
    EXPECT_EQ(os_thread_sync_fetch_add(&counter), 6);
    EXPECT_EQ(os_thread_sync_compare_and_swap_64(&counter, 8, 9), 6);
    EXPECT_EQ(os_thread_sync_compare_and_swap(&counter, 6, INT64_C(1) << 40), 6);
    EXPECT_EQ(counter, INT64_C(1) << 40);
    static int64_t shared[2];
    static std::atomic<int> started{0}; // the counting starts once all four run
    const std::pair<size_t, size_t> rows[] = {{0, 131072}, {4096, 131072}, {1 << 20, 1 << 20}, {1 << 20, 1 << 20}};
    size_t seen[4] = {};
    pthread_t threads[4];
    for (int i = 0; i < 4; ++i) {
        os_thread_create(&threads[i], [](void* size) {
            pthread_attr_t own;
            pthread_getattr_np(pthread_self(), &own);
            pthread_attr_getstacksize(&own, static_cast<size_t*>(size));
            pthread_attr_destroy(&own);
            for (++started; started < 4;)
                sched_yield();
            for (int n = 0; n < 100000; ++n) {
                os_thread_sync_fetch_add(&shared[0]);
                os_thread_sync_fetch_sub(&shared[1]);
            }
        }, &seen[i], rows[i].first);
    }
    for (int i = 0; i < 4; ++i) {
        ASSERT_EQ(os_thread_join(threads[i]), 0);
        const auto [requested, least] = rows[i];
        EXPECT_GE(seen[i], least) << requested;
        EXPECT_TRUE(requested == 0 || seen[i] < least + 65536) << requested << " gave " << seen[i];
    }
    EXPECT_EQ(shared[0], 400000);
    EXPECT_EQ(shared[1], -400000);
}

// Only the two low flag bits reach the platform, which refuses the others.
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
// Only a death by signal is a failure; without waiting the call returns at
// once, before the program it started can end.
// The one home of the shell exit-status rule (the folder commands share it):
// a command succeeds only when it exits with status 0. The kill goes through
// a stand-in killall found first on PATH, which records its arguments.
TEST(Process, RunApplicationAndShellCommandsFailOnlyOnSignalsOrNonZeroStatus) {
    for (const auto& [command, succeeded] : {std::pair{"true", true}, {"exit 3", false}, {"kill -9 $$", false}})
        EXPECT_EQ(os_system_invoke_command(command), succeeded) << command;
    kvtest::TempDir dir;
    std::ofstream(dir / "in") << "printf '%s|%s' \"$0\" \"$#\" > local.out\n";
    std::ofstream(dir / "my script") << "printf '%s|%s' \"$0\" \"$#\" > path.out\n";
    std::ofstream(dir / "gated") << "while [ ! -e go ]; do sleep 0.01; done; exit 7\n";
    std::ofstream(dir / "killed") << "kill -9 $$\n";
    std::ofstream(dir / "killall") << "printf '%s|' \"$@\" >> arguments\n[ \"$2\" = ok ]\n";
    EXPECT_EQ(kvtest::runInChild([&] {
        if (chdir(dir.path().c_str()) != 0 || !os_system_run_application("sh", "my script", true))
            return 1;
        if (!os_system_run_application("sh", "gated", false) || !std::ofstream("go") || wait(nullptr) <= 0)
            return 2;
        if (!os_system_run_application("sh", "gated", true) || os_system_run_application("sh", "killed", true))
            return 3;
        if (!os_system_run_application("kvt-no-such-program", nullptr, true) || symlink("/bin/sh", "sh") != 0)
            return 4;
        if (dup2(open("in", O_RDONLY), 0) != 0 || !os_system_run_application("sh", "a  b", true))
            return 5;
        chmod("killall", 0755);
        setenv("PATH", (dir.path() + ":" + getenv("PATH")).c_str(), 1);
        return os_system_kill_application("ok") && !os_system_kill_application("a b") ? 0 : 6;
    }).exitCode, 0);
    EXPECT_EQ(kvtest::fileText(dir / "path.out"), "my script|0");
    EXPECT_EQ(kvtest::fileText(dir / "local.out"), "a  b|0");
    EXPECT_EQ(kvtest::fileText(dir / "arguments"), "-9|ok|-9|a b|");
}

// A short buffer under the caller-buffer protocol, through the environment
// getter (what a buffer large enough receives is checked with the C++ layer
// and the variant type names); the code-page copies share it and differ only
// in how they take a null text. Setting may replace, append or empty.
TEST(Environment, ShortBufferCopiesAndSetting) {
    const std::string name = kvtest::uniqueName("VAR");
    setenv(name.c_str(), "hello", 1);
    char buffer[8] = "###";
    size_t size = 5;
    EXPECT_FALSE(os_system_get_os_environmentVariable(name.c_str(), buffer, &size));
    EXPECT_EQ(size, 5u) << "a short buffer keeps the caller's size";
    EXPECT_EQ(buffer[0], '#') << "a short buffer is untouched";
    EXPECT_FALSE(os_utf8helper_oem_to_utf8(nullptr, nullptr, &size));
    // Kept asymmetric for existing callers: only this direction reads null as "".
    EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, nullptr, &size));
    EXPECT_EQ(size, 1u);
    // Initial value (null: unset), value, replace, result.
    const std::tuple<const char*, const char*, bool, const char*> rows[] = {
        {nullptr, "v", false, "v"}, {"/usr/bin:/bin", "/opt/x", true, "/opt/x"},
        {"/usr/bin:/bin", "/opt/x", false, "/usr/bin:/bin:/opt/x"},
        {"/usr/bin:/bin", "/usr/b", false, ""}}; // contained, even as plain bytes: emptied for existing callers
    for (const auto& [initial, value, replace, result] : rows) {
        ASSERT_EQ(initial != nullptr ? setenv(name.c_str(), initial, 1) : unsetenv(name.c_str()), 0);
        os_system_set_os_environmentVariable(name.c_str(), value, replace);
        EXPECT_STREQ(getenv(name.c_str()), result) << (initial ? initial : "(unset)") << " with " << value;
    }
    EXPECT_THROW(os_system_set_os_environmentVariable(name.c_str(), nullptr, true), std::logic_error);
}

} // namespace
