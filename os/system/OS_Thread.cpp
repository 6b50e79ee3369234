// Threads with a guaranteed minimum stack, processor affinity, real-time
// scheduling, the processor latency request, and the 64-bit atomics.
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "common/BoolExport.h"
#include "korvane/system.h"

namespace {

constexpr size_t kMinimumStackSize = 131072; // 128 KiB
constexpr int kCpuSetBits = 1024;            // the platform's 128-byte cpu_set_t

// Handed from the creating thread to the new one, which frees it.
struct ThreadStart {
    void* argument;
    os_thread_function function;
};

void* os_thread_func(void* raw) {
    ThreadStart* start = static_cast<ThreadStart*>(raw);
    if (start->function != nullptr)
        start->function(start->argument);
    delete start;
    return nullptr;
}

// A set holding just `cpu`, or an empty set (which the platform rejects) when
// the index is out of range.
cpu_set_t singleCpuSet(int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (cpu >= 0 && cpu < kCpuSetBits)
        CPU_SET(static_cast<size_t>(cpu), &set);
    return set;
}

} // namespace

void os_thread_create(pthread_t* thread, os_thread_function function, void* argument, size_t stack_size) {
    if (thread == nullptr)
        return;
    ThreadStart* start = new ThreadStart{argument, function};
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    size_t size = stack_size;
    if (size == 0)
        pthread_attr_getstacksize(&attributes, &size);
    if (size < kMinimumStackSize)
        size = kMinimumStackSize;
    pthread_attr_setstacksize(&attributes, size);
    // On failure the start record stays allocated: the thread that would free
    // it never ran, and the caller is told nothing (the result is not reported).
    pthread_create(thread, &attributes, os_thread_func, start);
    pthread_attr_destroy(&attributes);
}

int os_thread_join(pthread_t thread) {
    return pthread_join(thread, nullptr);
}

KORVANE_BOOL_EXPORT(os_thread_sched_set_thread_affinity, (pthread_t thread, int cpu)) {
    const cpu_set_t set = singleCpuSet(cpu);
    // pthread_setaffinity_np reports errors as a positive number, so this is
    // true even when the set was refused. Existing callers rely on the same
    // comparison for both affinity functions; keep it.
    return pthread_setaffinity_np(thread, sizeof set, &set) != -1;
}

KORVANE_BOOL_EXPORT(os_thread_sched_set_affinity, (int cpu)) {
    const cpu_set_t set = singleCpuSet(cpu);
    return sched_setaffinity(0, sizeof set, &set) != -1;
}

// Each atomic is a read-modify-write with release ordering followed by a full
// barrier, so it orders like a sequentially consistent operation in both
// directions. The fetch functions return the new value despite their names.
// A null counter counts nothing and gives 0.
namespace {

int64_t addAndFence(int64_t* counter, int64_t step) {
    if (counter == nullptr)
        return 0;
    const int64_t value = __atomic_add_fetch(counter, step, __ATOMIC_RELEASE);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return value;
}

} // namespace

int64_t os_thread_sync_fetch_add(int64_t* counter) {
    return addAndFence(counter, 1);
}

int64_t os_thread_sync_fetch_sub(int64_t* counter) {
    return addAndFence(counter, -1);
}

int64_t os_thread_sync_compare_and_swap(int64_t* target, int64_t expected, int64_t desired) {
    // A null target stores nothing; the result differs from `expected`, so
    // the caller never believes it swapped.
    if (target == nullptr)
        return ~expected;
    int64_t found = expected;
    __atomic_compare_exchange_n(target, &found, desired, false, __ATOMIC_RELEASE, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    return found;
}

int64_t os_thread_sync_compare_and_swap_64(int64_t* target, int64_t expected, int64_t desired) {
    return os_thread_sync_compare_and_swap(target, expected, desired);
}

KORVANE_BOOL_EXPORT(os_thread_init_rt_schedule, (int priority)) {
    struct sched_param parameters;
    std::memset(&parameters, 0, sizeof parameters);
    parameters.sched_priority = priority;
    return sched_setscheduler(0, SCHED_FIFO, &parameters) != -1;
}

void os_thread_exit_rt_schedule(void) {
    // Leaving real-time scheduling is not supported; the call is kept so
    // callers can pair it with os_thread_init_rt_schedule.
}

KORVANE_BOOL_EXPORT(os_thread_install_latency, (int* latency)) {
    static const char kLatencyFile[] = "/dev/cpu_dma_latency";
    if (latency == nullptr)
        return false;
    struct stat status;
    if (stat(kLatencyFile, &status) != 0) {
        *latency = -1;
        return false;
    }
    *latency = open(kLatencyFile, O_RDWR);
    if (*latency == -1)
        return false;
    const int32_t target = 0;
    // The kernel honours the request only while this descriptor stays open.
    // Only a zero-byte write counts as failure: the message and the result
    // for -1 are what existing callers expect.
    if (write(*latency, &target, sizeof target) == 0) {
        printf("error setting cpu_dma_latency to %d!: %s\n", target, strerror(errno));
        close(*latency);
        *latency = -1;
        return false;
    }
    printf("/dev/cpu_dma_latency set to %dus\n", target);
    return true;
}

void os_thread_uninstall_latency(int latency) {
    if (latency >= 0)
        close(latency);
}
