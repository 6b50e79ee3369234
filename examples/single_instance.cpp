// A single-instance guard: each instance holds a named mutex while it runs.
// The first instance is killed with SIGKILL while it holds the guard; the
// mutex is robust, so the next instance still gets it instead of hanging.
#include <signal.h>

#include <korvane/korvane.hpp>

#include <cstdio>
#include <mutex>
#include <string>

#include "child_process.hpp"

int main() {
    korvane::SyncManager manager;
    const std::string guardName = "kv_instance_" + std::to_string(getpid());
    int running[2];
    if (!manager.running() || pipe(running) != 0)
        return 1;

    const pid_t first = start_child([&] {
        korvane::Mutex guard(guardName);
        std::lock_guard<korvane::Mutex> instance(guard);
        if (write(running[1], "1", 1) != 1)
            return 1;
        pause(); // runs until killed, never unlocking
        return 0;
    });
    char started = 0;
    if (read(running[0], &started, 1) != 1)
        return 1;
    std::printf("first instance %d holds the guard; killing it with SIGKILL\n", static_cast<int>(first));
    kill(first, SIGKILL);
    waitpid(first, nullptr, 0);

    korvane::Mutex guard(guardName);
    std::lock_guard<korvane::Mutex> instance(guard); // repaired after the holder's death
    std::printf("second instance holds the guard\n");
    return 0;
}
