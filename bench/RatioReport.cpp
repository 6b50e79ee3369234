// Every library path with a platform call beneath it, timed against that call
// in one run and printed as a ratio (library time / platform time). Times
// depend on the machine and its load; the ratios are what is compared.
//
// Each side runs in alternating rounds and keeps its best round, so a burst
// of load on a shared machine spoils one round, not the figure; work in this
// thread is timed on the thread's CPU clock. Named objects
// need the sync manager, whose channel names are fixed: the program first
// moves into a private IPC and mount namespace with its own /dev/shm, when it
// may (as root), so it meets no other manager.
#include <fcntl.h>
#include <ftw.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include <benchmark/benchmark.h>

#include "FsBenchSupport.h"
#include "korvane/automation.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"
#include "korvane/sync.h"
#include "korvane/system.h"

namespace {

constexpr int kRounds = 15;

double nanosecondsOn(clockid_t clock) {
    timespec now {};
    clock_gettime(clock, &now);
    return now.tv_sec * 1e9 + now.tv_nsec;
}

// Work in this thread is timed on its CPU clock, which does not run while
// other programs have the processor; a round trip through another process
// needs the wall clock.
template <class Op>
double nanosecondsPerCall(long calls, Op& op, clockid_t clock) {
    const double start = nanosecondsOn(clock);
    for (long i = 0; i < calls; ++i)
        op();
    return (nanosecondsOn(clock) - start) / calls;
}

// Prints one row: the best round of each side and their ratio against the target (0: none).
template <class Library, class Platform>
void row(const char* path, const char* platform, double target, long calls, Library library, Platform raw,
         clockid_t clock = CLOCK_THREAD_CPUTIME_ID) {
    double best[2] = {1e30, 1e30};
    for (int round = 0; round < kRounds; ++round) {
        best[0] = std::min(best[0], nanosecondsPerCall(calls, library, clock));
        best[1] = std::min(best[1], nanosecondsPerCall(calls, raw, clock));
    }
    const double ratio = best[0] / best[1];
    char goal[32] = "";
    if (target > 0)
        std::snprintf(goal, sizeof goal, "<= %.2f %s", target, ratio <= target ? "met" : "MISSED");
    std::printf("| %-44s | %-36s | %5.2f | %-12s |\n", path, platform, ratio, goal);
    std::fflush(stdout);
}

void enterPrivateNamespace() {
    if (unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/dev/shm", "tmpfs", 0, nullptr) != 0)
        std::fprintf(stderr, "note: no private namespace (%s); named objects share the machine's\n",
                     std::strerror(errno));
}

// A zeroed shared mapping, kept for the run: it survives fork, so a child
// shares it.
template <class T>
T* sharedZeroed() {
    void* memory = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        std::abort();
    return static_cast<T*>(memory);
}

void sharedMutex(pthread_mutex_t* mutex, int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(mutex, &attributes);
}

void privateLocks() {
    mutex_handle* mutex = os_mutex_create(nullptr);
    recursive_mutex_handle* recursive = os_recursive_mutex_create(nullptr);
    rw_mutex_handle* rw = os_rw_mutex_create(nullptr);
    pthread_mutex_t rawMutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_mutex_t rawRecursive = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
    pthread_rwlock_t rawRw = PTHREAD_RWLOCK_INITIALIZER;
    const long calls = 500000;
    row("private mutex lock + unlock", "pthread_mutex", 1.15, calls,
        [&] { os_mutex_lock(mutex), os_mutex_unlock(mutex); },
        [&] { pthread_mutex_lock(&rawMutex), pthread_mutex_unlock(&rawMutex); });
    row("private recursive mutex lock + unlock", "pthread_mutex, recursive", 1.15, calls,
        [&] { os_recursive_mutex_lock(recursive), os_recursive_mutex_unlock(recursive); },
        [&] { pthread_mutex_lock(&rawRecursive), pthread_mutex_unlock(&rawRecursive); });
    row("private rw lock, read lock + unlock", "pthread_rwlock", 1.25, calls,
        [&] { os_rw_mutex_lock_rd(rw), os_rw_mutex_unlock(rw); },
        [&] { pthread_rwlock_rdlock(&rawRw), pthread_rwlock_unlock(&rawRw); });
    row("private rw lock, write lock + unlock", "pthread_rwlock", 1.25, calls,
        [&] { os_rw_mutex_lock_wr(rw), os_rw_mutex_unlock(rw); },
        [&] { pthread_rwlock_wrlock(&rawRw), pthread_rwlock_unlock(&rawRw); });
    os_mutex_destroy(&mutex);
    os_recursive_mutex_destroy(&recursive);
    os_rw_mutex_destroy(&rw);
}

void namedObjects() {
    recursive_mutex_handle* recursive = os_recursive_mutex_create("ratio-recursive");
    semaphore_handle* semaphore = os_semaphore_create(0, "ratio-semaphore");
    rw_mutex_handle* rw = os_rw_mutex_create("ratio-rw");
    event_handle* event = os_event_create(false, false, "ratio-event");
    auto* rawRecursive = sharedZeroed<pthread_mutex_t>();
    sharedMutex(rawRecursive, PTHREAD_MUTEX_RECURSIVE);
    auto* rawSemaphore = sharedZeroed<sem_t>();
    sem_init(rawSemaphore, 1, 0);
    auto* rawRw = sharedZeroed<pthread_rwlock_t>();
    pthread_rwlockattr_t attributes;
    pthread_rwlockattr_init(&attributes);
    pthread_rwlockattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_rwlock_init(rawRw, &attributes);
    const long calls = 200000;
    const auto semaphorePair = [&] { sem_post(rawSemaphore), sem_wait(rawSemaphore); };
    row("named recursive mutex lock + unlock", "robust process-shared mutex", 0, calls,
        [&] { os_recursive_mutex_lock(recursive), os_recursive_mutex_unlock(recursive); },
        [&] { pthread_mutex_lock(rawRecursive), pthread_mutex_unlock(rawRecursive); });
    row("named semaphore release + wait", "sem_post + sem_wait", 0, calls,
        [&] { os_semaphore_release(semaphore), os_semaphore_wait(semaphore); }, semaphorePair);
    row("named rw lock, read lock + unlock", "process-shared pthread_rwlock", 0, calls,
        [&] { os_rw_mutex_lock_rd(rw), os_rw_mutex_unlock(rw); },
        [&] { pthread_rwlock_rdlock(rawRw), pthread_rwlock_unlock(rawRw); });
    row("named auto-reset event set + wait", "sem_post + sem_wait", 0, calls,
        [&] { os_event_set_event(event), os_event_wait(event); }, semaphorePair);
    os_recursive_mutex_destroy(&recursive);
    os_semaphore_destroy(&semaphore);
    os_rw_mutex_destroy(&rw);
    os_event_destroy(&event);
}

// A child answers every ping with a pong; `rounds` round trips, then it exits.
template <class Wait, class Post>
pid_t answerer(long rounds, Wait wait, Post post) {
    const pid_t child = fork();
    if (child == 0) {
        for (long i = 0; i < rounds; ++i)
            wait(), post();
        _exit(0);
    }
    return child;
}

void pingPong() {
    const long calls = 1000;
    const long total = calls * kRounds;
    event_handle* ping = os_event_create(false, false, "ratio-ping");
    event_handle* pong = os_event_create(false, false, "ratio-pong");
    sem_t* semaphores = sharedZeroed<sem_t[2]>()[0];
    sem_init(&semaphores[0], 1, 0);
    sem_init(&semaphores[1], 1, 0);
    const pid_t events = answerer(total, [&] { os_event_wait(ping); }, [&] { os_event_set_event(pong); });
    const pid_t raw = answerer(total, [&] { sem_wait(&semaphores[0]); }, [&] { sem_post(&semaphores[1]); });
    row("two processes, named-event round trip", "process-shared semaphores", 1.5, calls,
        [&] { os_event_set_event(ping), os_event_wait(pong); },
        [&] { sem_post(&semaphores[0]), sem_wait(&semaphores[1]); }, CLOCK_MONOTONIC);
    waitpid(events, nullptr, 0);
    waitpid(raw, nullptr, 0);
    os_event_destroy(&ping);
    os_event_destroy(&pong);
}

void createDestroy() {
    row("named mutex create + destroy", "shm_open/ftruncate/mmap/unlink", 0, 100,
        [] {
            mutex_handle* mutex = os_mutex_create("ratio-create");
            os_mutex_destroy(&mutex);
        },
        [] {
            const int fd = shm_open("/ratio-raw", O_RDWR | O_CREAT, 0600);
            if (ftruncate(fd, 52) != 0)
                std::abort();
            void* memory = mmap(nullptr, 52, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            munmap(memory, 52);
            close(fd);
            shm_unlink("/ratio-raw");
        },
        CLOCK_MONOTONIC); // the manager thread does half the work

}

void numberText() {
    unsigned int counter = 0; // a new value each call, of every length and sign
    const auto next = [&counter] { return static_cast<int>(counter += 2654435761u); };
    char text[32];
    row("variant int -> text", "snprintf(\"%d\")", 1.0, 300000,
        [&] {
            tagTVARIANT v;
            variant_init(&v);
            variant_set_int(&v, next(), false);
            variant_change_type(&v, TVT_STRING);
            variant_clear(&v);
        },
        [&] { benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "%d", next())); });
    row("variant text -> int", "strtol", 0, 300000,
        [&] {
            tagTVARIANT v;
            variant_init(&v);
            variant_set_string(&v, "-1234567", false);
            variant_change_type(&v, TVT_INT);
            benchmark::DoNotOptimize(v.value.intVal);
        },
        [&] { benchmark::DoNotOptimize(std::strtol("-1234567", nullptr, 0)); });
}

void filesAndText() {
    const auto pairs = fsbench::namePairs();
    row("natural compare", "strverscmp", 0, 100,
        [&] {
            for (const auto& [a, b] : pairs)
                benchmark::DoNotOptimize(os_clibrary_string_intelligent_less(a.c_str(), b.c_str()));
        },
        [&] {
            for (const auto& [a, b] : pairs)
                benchmark::DoNotOptimize(strverscmp(a.c_str(), b.c_str()) < 0);
        });
    struct Counter : IWalkThroughCallback {
        void onFile(const char* relative, const char*) override { benchmark::DoNotOptimize(relative); }
        void onFolder(const char* relative, const char*) override { benchmark::DoNotOptimize(relative); }
    } counter;
    const std::string& root = fsbench::tree().root();
    row("walk of 50,440 entries", "nftw", 0.35, 1, [&] { os_filesystem_walk_through("", root.c_str(), &counter); },
        [&] {
            nftw(
                root.c_str(),
                [](const char* path, const struct stat*, int, struct FTW*) {
                    benchmark::DoNotOptimize(path);
                    return 0;
                },
                64, FTW_PHYS);
        });
}

} // namespace

int main() {
    enterPrivateNamespace();
    if (!os_sync_environment_initialize(false)) {
        std::fprintf(stderr, "the sync manager did not start\n");
        return 1;
    }
    std::printf("| %-44s | %-36s | %5s | %-12s |\n|---|---|---|---|\n", "library path", "platform", "ratio", "target");
    privateLocks();
    namedObjects();
    pingPong();
    createDestroy();
    numberText();
    filesAndText();
    os_sync_environment_uninitialize();
    return 0;
}
