// korvane-demo: a short tour of the library, one function per scene.
//
// The synchronisation scenes run with this process as the machine's sync
// manager; their workers are forked processes that share named objects. Every
// wait is bounded, so the demo ends even when a worker misbehaves.
#include <fcntl.h>
#include <poll.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "korvane/korvane.h"

namespace {

constexpr int kWorkerTimeoutMs = 10000;

// One line of output from `who`, flushed at once so that the lines of
// several processes appear in the order they were written.
void say(const char* who, const char* format, ...) {
    std::printf("  %s: ", who);
    va_list arguments;
    va_start(arguments, format);
    std::vprintf(format, arguments);
    va_end(arguments);
    std::printf("\n");
    std::fflush(stdout);
}

// A forked worker process running `body`.
pid_t startWorker(const std::function<void()>& body) {
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        body();
        std::fflush(stdout);
        _exit(0);
    }
    return pid;
}

// Waits for every worker for at most kWorkerTimeoutMs in all, then kills
// those still running. True when all ended by themselves.
bool awaitWorkers(const std::vector<pid_t>& workers) {
    bool allEnded = true;
    int waitedMs = 0;
    for (const pid_t pid : workers) {
        if (pid < 0) {
            allEnded = false;
            continue;
        }
        while (waitpid(pid, nullptr, WNOHANG) == 0) {
            if (waitedMs >= kWorkerTimeoutMs) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
                allEnded = false;
                break;
            }
            os_thread_sleep_milliseconds(10);
            waitedMs += 10;
        }
    }
    return allEnded;
}

// A one-way signal from one worker to another, with a bounded wait.
class Signal {
public:
    Signal() {
        if (pipe(m_fds) != 0)
            m_fds[0] = m_fds[1] = -1;
    }
    ~Signal() {
        for (const int fd : m_fds) {
            if (fd >= 0)
                close(fd);
        }
    }
    void raise() const {
        const char byte = 1;
        if (write(m_fds[1], &byte, 1) != 1)
            std::perror("signal");
    }
    bool await(int timeoutMs) const {
        struct pollfd ready = {m_fds[0], POLLIN, 0};
        return poll(&ready, 1, timeoutMs) == 1;
    }

private:
    int m_fds[2];
};

void showStrings() {
    std::printf("BSTR strings\n");
    bstr_handle* text = bstr_create();
    bstr_set_string(text, "hello from libKorvane");
    say("bstr", "\"%s\"", bstr_get_string(text));
    bstr_destroy(&text);
}

void showClock() {
    std::printf("Clock\n");
    struct timespec now;
    os_clock_get_time(1, &now);
    say("monotonic clock", "%lld.%09ld s", static_cast<long long>(now.tv_sec), now.tv_nsec);
}

// Two processes take turns on one named mutex: B blocks while A holds it.
void showNamedMutex() {
    const std::string name = "korvane_demo_mutex_" + std::to_string(getpid());
    std::printf("Named mutex \"%s\" shared by two processes\n", name.c_str());
    const Signal aHoldsTheMutex;
    const pid_t a = startWorker([&] {
        mutex_handle* mutex = os_mutex_create(name.c_str());
        os_mutex_lock(mutex);
        say("worker A", "holding the mutex");
        aHoldsTheMutex.raise();
        os_thread_sleep_milliseconds(300);
        say("worker A", "releasing the mutex");
        os_mutex_unlock(mutex);
        os_mutex_destroy(&mutex);
    });
    const pid_t b = startWorker([&] {
        mutex_handle* mutex = os_mutex_create(name.c_str());
        if (!aHoldsTheMutex.await(kWorkerTimeoutMs))
            say("worker B", "worker A never took the mutex");
        say("worker B", "waiting for the mutex");
        os_mutex_lock(mutex);
        say("worker B", "got the mutex after A released it");
        os_mutex_unlock(mutex);
        os_mutex_destroy(&mutex);
    });
    if (!awaitWorkers({a, b}))
        say("demo", "a worker did not finish in time and was stopped");
    say("demo", "memory of the mutex %s", access(("/dev/shm/" + name).c_str(), F_OK) == 0 ? "still present" : "removed");
}

// An event set by one process releases a waiter in another. The waiter's
// wait has a deadline, so the scene ends even if the set never comes.
void showNamedEvent() {
    const std::string name = "korvane_demo_event_" + std::to_string(getpid());
    std::printf("Named event \"%s\" set by one process, awaited by another\n", name.c_str());
    const Signal waiterReady;
    const pid_t waiter = startWorker([&] {
        event_handle* event = os_event_create(false, false, name.c_str());
        struct timespec deadline;
        os_clock_get_time(1, &deadline);
        deadline.tv_sec += kWorkerTimeoutMs / 1000 / 2;
        say("worker A", "waiting for the event");
        waiterReady.raise();
        if (os_event_wait_timeout(event, deadline))
            say("worker A", "released by the event");
        else
            say("worker A", "gave up waiting");
        os_event_destroy(&event);
    });
    const pid_t setter = startWorker([&] {
        event_handle* event = os_event_create(false, false, name.c_str());
        if (!waiterReady.await(kWorkerTimeoutMs))
            say("worker B", "worker A never started waiting");
        os_thread_sleep_milliseconds(200);
        say("worker B", "setting the event");
        os_event_set_event(event);
        os_event_destroy(&event);
    });
    if (!awaitWorkers({waiter, setter}))
        say("demo", "a worker did not finish in time and was stopped");
}

// Scenes that use named objects; each runs with the sync manager up.
const std::vector<std::function<void()>> kSyncScenes = {showNamedMutex, showNamedEvent};

// The manager's thread creates the channel's request and finish semaphores
// just after it starts; clients need them.
bool managerReady() {
    for (int attempt = 0; attempt < 100; ++attempt) {
        sem_t* finish = sem_open(KORVANE_SYNC_FINISH_SEMAPHORE, 0);
        if (finish != SEM_FAILED) {
            sem_close(finish);
            return true;
        }
        os_thread_sleep_milliseconds(10);
    }
    return false;
}

void runSyncScenes() {
    std::printf("Sync manager\n");
    if (!os_sync_environment_initialize(false)) {
        say("demo", "could not start: another manager runs, or a crashed one left its names in /dev/shm");
        return;
    }
    say("manager", "running in process %d", static_cast<int>(getpid()));
    if (managerReady()) {
        for (const auto& scene : kSyncScenes)
            scene();
    } else {
        say("demo", "the manager's thread did not open the channel in time");
    }
    os_sync_environment_uninitialize();
    std::printf("Sync manager\n");
    say("manager", "stopped, channel removed");
}

} // namespace

int main() {
    showStrings();
    showClock();
    runSyncScenes();
    return 0;
}
