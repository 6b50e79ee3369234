// The chaos run: worker processes hammer named mutexes, recursive mutexes,
// events, semaphores and reader-writer locks under a real korvane-syncd while
// the supervisor kills and stops them, and stops and restarts the manager.
// Every guarded section checks invariants kept in a mapping of this program's
// own. Ends with one line of figures; exits 0 only when the run passed.
// scripts/chaos.sh runs it with a private /dev/shm and explains the arguments:
//   korvane_chaos SYNCD SHM SECONDS WORKERS SEED
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/time.h>

#include <algorithm>
#include <new>
#include <random>
#include <sstream>

#include "TestSupport.h" // with <atomic>, <filesystem>, <functional>, <string>, <unistd.h> and <sys/wait.h>
#include "korvane/korvane.hpp"

namespace {

using namespace std::chrono_literals;

constexpr int kMaxWorkers = 32; // the last slot is the supervisor's
constexpr int kTokens = 2;      // the semaphore's count
constexpr int kKinds = 6;
const char* const kNames[kKinds] = {"chaos_mutex", "chaos_recursive", "chaos_rw", "chaos_semaphore", "chaos_manual",
                                    "chaos_auto"};

// What a worker is doing, read by the supervisor while the worker is stopped.
enum Phase : int { kIdle, kChannel, kUnaccounted, kCritical, kHoldingToken };

// Owner words are (slot << 32 | pid), 0 when nobody is inside.
struct Shared {
    std::atomic<unsigned long long> operations, violations, repaired, longestWaitNs;
    std::atomic<uint64_t> mutexOwner, recursiveOwner, writer, readers[kMaxWorkers];
    std::atomic<uint64_t> manualState; // odd while set; changes before every reset
    std::atomic<int64_t> autoSets, autoTaken, lastFaultNs;
    std::atomic<int> tokensHeld, quiet, stop;
    std::atomic<int> pid[kMaxWorkers], phase[kMaxWorkers];
};

Shared* shared = nullptr;
int mySlot = kMaxWorkers - 1;
uint64_t me = 0;
std::mt19937 rng;

// On the monotonic clock, as the library's deadlines.
int64_t nowNs() { return std::chrono::steady_clock::now().time_since_epoch() / 1ns; }

int pick(int bound) { return static_cast<int>(rng() % static_cast<unsigned>(bound)); }

// The whole of a /proc file of process `pid` ("self" for this one).
std::string proc(const std::string& pid, const char* file) { return kvtest::fileText("/proc/" + pid + "/" + file); }

void violation(const std::string& what) {
    shared->violations++;
    std::fprintf(stderr, "chaos: violation in %d: %s\n", getpid(), what.c_str());
}

// An owner word found set belongs to a holder that died inside (repaired) or
// to one still inside. The kernel releases a robust mutex of a killed holder
// before the holder turns into a zombie, so give it a moment before calling it
// alive; a pid is not reused before the supervisor reaps it and clears the slot.
void expectNobodyInside(uint64_t owner, const std::string& what) {
    const auto pid = static_cast<pid_t>(owner & 0xffffffffu);
    for (int i = 0; owner != 0 && i < 500; ++i, usleep(1000)) {
        const std::string stat = proc(std::to_string(pid), "stat");
        const size_t end = stat.rfind(") ");
        if (shared->pid[owner >> 32] != pid || end == std::string::npos || stat[end + 2] == 'Z')
            return void(shared->repaired++);
    }
    if (owner != 0)
        violation(what + " while " + std::to_string(pid) + " is inside");
}

void enter(std::atomic<uint64_t>& word, const char* what) {
    expectNobodyInside(word.load(), std::string(what) + " entered");
    word = me;
}

void leave(std::atomic<uint64_t>& word, const char* what) {
    if (word.exchange(0) != me)
        violation(std::string(what) + " changed hands while held");
}

void linger() {
    if (pick(4) == 0)
        usleep(pick(300));
}

// Keeps the longest wait that ended in the quiet spell after the last fault,
// counted from the later of its start and that fault.
template <typename Wait>
auto timed(Wait wait) {
    const int64_t start = nowNs();
    auto result = wait();
    const auto waited = static_cast<unsigned long long>(nowNs() - std::max(start, shared->lastFaultNs.load()));
    unsigned long long longest = shared->longestWaitNs;
    while (shared->quiet && waited > longest && !shared->longestWaitNs.compare_exchange_weak(longest, waited)) {
    }
    return result;
}

struct Handles {
    mutex_handle* mutex = nullptr;
    recursive_mutex_handle* recursive = nullptr;
    rw_mutex_handle* rw = nullptr;
    semaphore_handle* semaphore = nullptr;
    event_handle *manual = nullptr, *automatic = nullptr;
};

// A named creation that got no answer gives a handle whose operations return
// at once; only a usable one maps its memory, once more than the mappings a
// worker inherits from the supervisor's handles.
int inherited[kKinds] = {};

void createOrDestroy(Handles& h, int which, bool create) {
    shared->phase[mySlot] = kChannel;
    const char* name = kNames[which];
    if (which == 0)
        create ? void(h.mutex = os_mutex_create(name)) : os_mutex_destroy(&h.mutex);
    else if (which == 1)
        create ? void(h.recursive = os_recursive_mutex_create(name)) : os_recursive_mutex_destroy(&h.recursive);
    else if (which == 2)
        create ? void(h.rw = os_rw_mutex_create(name)) : os_rw_mutex_destroy(&h.rw);
    else if (which == 3)
        create ? void(h.semaphore = os_semaphore_create(kTokens, name)) : os_semaphore_destroy(&h.semaphore);
    else if (which == 4)
        create ? void(h.manual = os_event_create(true, false, name)) : os_event_destroy(&h.manual);
    else
        create ? void(h.automatic = os_event_create(false, false, name)) : os_event_destroy(&h.automatic);
    shared->phase[mySlot] = kIdle;
}

void recreate(Handles& h, int which) {
    createOrDestroy(h, which, false);
    createOrDestroy(h, which, true);
    while (kvtest::mappingsOf(kNames[which]) != inherited[which] + 1 && !shared->stop) {
        createOrDestroy(h, which, false);
        usleep(5000);
        createOrDestroy(h, which, true);
    }
}

// A section of a mutex or a recursive mutex: one process inside at a time,
// and a holder killed inside leaves a mutex the next one repairs.
template <typename Handle>
void exclusive(Handle* handle, void (*lock)(Handle*), void (*unlock)(Handle*), std::atomic<uint64_t>& owner,
               const char* what, const std::function<void()>& inside) {
    timed([&] { lock(handle); return 0; });
    shared->phase[mySlot] = kCritical;
    enter(owner, what);
    linger();
    inside();
    leave(owner, what);
    shared->phase[mySlot] = kIdle;
    unlock(handle);
}

// Set and reset run under the named mutex, so the recorded state follows the
// event's: set before recording it, record before resetting.
void setOrResetManual(Handles& h) {
    if (pick(3) == 0) {
        os_event_set_event(h.manual);
        shared->manualState |= 1;
    } else if (pick(2) == 0) {
        shared->manualState = (shared->manualState | 1) + 1;
        os_event_reset_event(h.manual);
    }
}

// A holder killed inside a reader-writer lock keeps it for ever (its count
// and flag are not robust), so these sections are never killed.
void rwSection(Handles& h, bool write) {
    shared->phase[mySlot] = kUnaccounted;
    timed([&] { (write ? os_rw_mutex_lock_wr : os_rw_mutex_lock_rd)(h.rw); return 0; });
    for (auto& reader : shared->readers)
        if (write)
            expectNobodyInside(reader, "writer entered beside a reader");
    write ? enter(shared->writer, "writer") : expectNobodyInside(shared->writer, "reader entered beside a writer");
    shared->readers[mySlot] = write ? 0 : me;
    linger();
    write ? leave(shared->writer, "writer") : void(shared->readers[mySlot] = 0);
    os_rw_mutex_unlock(h.rw);
    shared->phase[mySlot] = kIdle;
}

// A token is held from the wait's success to the release; the supervisor
// gives back the token of a worker it kills while holding one.
void semaphoreSection(Handles& h) {
    shared->phase[mySlot] = kUnaccounted;
    if (timed([&] { return os_semaphore_wait_timeout(h.semaphore, korvane::detail::deadline_after(200ms)); })) {
        if (++shared->tokensHeld > kTokens)
            violation("more semaphore tokens held than the semaphore has");
        shared->phase[mySlot] = kHoldingToken;
        linger();
        shared->phase[mySlot] = kUnaccounted;
        shared->tokensHeld--;
        os_semaphore_release(h.semaphore);
    }
    shared->phase[mySlot] = kIdle;
}

// A wait that times out on a manual event set all along lost the set; an
// automatic event releases no more waiters than it had sets.
void eventSection(Handles& h) {
    const uint64_t before = shared->manualState;
    const int64_t deadline = nowNs() + 20000000;
    if (pick(2) == 0) {
        if (!timed([&] { return os_event_wait_timeout(h.manual, {deadline / 1000000000, deadline % 1000000000}); }) &&
            (before & 1) != 0 && shared->manualState == before && nowNs() >= deadline)
            violation("a set manual event timed out");
    } else if (pick(2) == 0) {
        shared->autoSets++;
        os_event_set_event(h.automatic);
    } else if (timed([&] { return os_event_wait_timeout(h.automatic, korvane::detail::deadline_after(20ms)); })) {
        if (++shared->autoTaken > shared->autoSets)
            violation("an automatic event released more waiters than it had sets");
    }
}

int workerMain(int slot, bool timer) {
    mySlot = slot;
    shared->pid[slot] = getpid(); // before the supervisor gets to it
    me = static_cast<uint64_t>(slot) << 32 | static_cast<uint32_t>(getpid());
    rng.seed(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(nowNs()));
    if (timer) { // a busy interval timer whose handler restarts interrupted calls
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        const itimerval every1ms = {{0, 1000}, {0, 1000}};
        sigaction(SIGALRM, &action, nullptr);
        setitimer(ITIMER_REAL, &every1ms, nullptr);
    }
    Handles h;
    for (int which = 0; which < kKinds; ++which) {
        inherited[which] = kvtest::mappingsOf(kNames[which]);
        recreate(h, which);
    }
    for (; !shared->stop; shared->operations++) {
        const int choice = pick(12);
        if (choice < 2)
            exclusive(h.mutex, os_mutex_lock, os_mutex_unlock, shared->mutexOwner, "mutex",
                      [&] { setOrResetManual(h); });
        else if (choice < 4)
            exclusive(h.recursive, os_recursive_mutex_lock, os_recursive_mutex_unlock, shared->recursiveOwner,
                      "recursive mutex", [&] {
                          os_recursive_mutex_lock(h.recursive); // held twice, released once
                          os_recursive_mutex_unlock(h.recursive);
                      });
        else if (choice < 6)
            rwSection(h, pick(3) == 0);
        else if (choice < 8)
            semaphoreSection(h);
        else if (choice < 11)
            eventSection(h);
        else
            recreate(h, pick(kKinds));
    }
    for (int which = 0; which < kKinds; ++which)
        createOrDestroy(h, which, false);
    return 0;
}

// ---------------------------------------------------------------------------
// The supervisor.

struct Faults {
    int kills, inSections, inChannel, stops, managerStops, restarts, reclaims, timers;
} faults {};
std::string syncd, shm;
pid_t manager = -1;

pid_t spawn(const std::string& program, const char* argument) {
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), argument, static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// Waits at most `seconds` for `pid`, then tells `stuck` and kills it; true
// when it exited 0.
bool reap(pid_t pid, int seconds, const std::function<void()>& stuck = {}) {
    int status = 0;
    if (kvtest::eventually([&] { return waitpid(pid, &status, WNOHANG) != 0; }, std::chrono::seconds(seconds)))
        return WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (stuck)
        stuck();
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return false;
}

// Ready once its thread has made the channel's last semaphore.
bool startManager() {
    manager = spawn(syncd, nullptr);
    return kvtest::eventually([] { return kvtest::segmentSize("sem." KORVANE_SYNC_FINISH_SEMAPHORE) >= 0; }, 5s);
}

void stopManager() {
    kill(manager, SIGTERM);
    if (!reap(manager, 10))
        violation("korvane-syncd did not stop cleanly");
}

void startWorker(int slot) {
    const bool timer = pick(4) == 0;
    faults.timers += timer;
    shared->phase[slot] = kIdle;
    const pid_t pid = fork();
    if (pid == 0)
        _exit(workerMain(slot, timer));
    shared->pid[slot] = pid;
}

// Stops the worker until it is caught inside a section, or inside
// create/destroy, or the tries run out; kills it only where the figures stay
// accounted for (and outside create/destroy until the channel recovers from a
// killed client); otherwise lets it go on. A killed holder's token goes back.
void killWorker(Handles& held, int slot) {
    const pid_t pid = shared->pid[slot];
    int status = 0, phase = kIdle;
    for (int tries = 20;; --tries) {
        kill(pid, SIGSTOP);
        if (waitpid(pid, &status, WUNTRACED) != pid || !WIFSTOPPED(status)) {
            violation("worker " + std::to_string(pid) + " ended on its own");
            return startWorker(slot);
        }
        phase = shared->phase[slot];
        if (phase >= kCritical || phase == kChannel || tries == 1)
            break;
        kill(pid, SIGCONT);
        usleep(pick(2000));
    }
    if (phase == kUnaccounted) {
        faults.stops++;
        kill(pid, SIGCONT);
        return;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    faults.kills++;
    faults.inSections += phase >= kCritical;
    faults.inChannel += phase == kChannel;
    if (phase == kHoldingToken) {
        shared->tokensHeld--;
        os_semaphore_release(held.semaphore);
    }
    startWorker(slot);
}

// Stops last up to 300 ms, beyond the manager's 100 ms answer time too.
void injectFault(Handles& held, int workers) {
    const int slot = pick(workers), choice = pick(7);
    const pid_t stopped = choice == 5 ? manager : shared->pid[slot].load();
    if (choice < 2) {
        killWorker(held, slot);
    } else if (choice < 4 || choice == 5) {
        kill(stopped, SIGSTOP);
        usleep(1000 + pick(300000));
        kill(stopped, SIGCONT);
        ++(choice == 5 ? faults.managerStops : faults.stops);
    } else if (choice == 4) {
        reap(spawn(shm, "reclaim"), 10);
        faults.reclaims++;
    } else if (choice == 6) {
        stopManager();
        if (!startManager())
            violation("korvane-syncd did not restart");
        faults.restarts++;
    }
    shared->lastFaultNs = nowNs();
}

// Tells what a worker that does not finish was doing: its phase, where the
// kernel has it sleep, and which mapping (a named object or the channel's
// semaphore, at which offset) holds the word of the call it is blocked in.
void reportStuck(int slot) {
    const std::string pid = std::to_string(shared->pid[slot]), stat = proc(pid, "stat");
    std::string syscall = proc(pid, "syscall");
    syscall = syscall.substr(0, syscall.find('\n'));
    std::string where = "no mapping";
    unsigned long long word = 0, start = 0, end = 0, offset = 0;
    std::sscanf(syscall.c_str(), "%*d %llx", &word);
    std::istringstream maps(proc(pid, "maps"));
    for (std::string line; std::getline(maps, line);)
        if (std::sscanf(line.c_str(), "%llx-%llx %*s %llx", &start, &end, &offset) == 3 && word >= start && word < end)
            where = line.substr(line.find_last_of(' ') + 1) + " +" + std::to_string(word - start + offset);
    std::fprintf(stderr, "chaos: worker %d did not finish: phase %d, state %s, wchan %s, syscall %s (%s)\n",
                 shared->pid[slot].load(), shared->phase[slot].load(),
                 stat.substr(stat.rfind(") ") + 2, 1).c_str(), proc(pid, "wchan").c_str(),
                 syscall.c_str(), where.c_str());
}

int namesLeft() {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/dev/shm"))
        count += std::fprintf(stderr, "chaos: left in /dev/shm: %s\n", entry.path().c_str()) > 0;
    return count;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 6) {
        std::fprintf(stderr, "usage: korvane_chaos SYNCD SHM SECONDS WORKERS SEED\n");
        return 2;
    }
    syncd = argv[1];
    shm = argv[2];
    const long long seconds = std::atoll(argv[3]);
    const int workers = std::clamp(std::atoi(argv[4]), 1, kMaxWorkers - 1);
    rng.seed(static_cast<unsigned>(std::strtoul(argv[5], nullptr, 10)));
    if (namesLeft() != 0) {
        std::fprintf(stderr, "chaos: /dev/shm is not empty; run through scripts/chaos.sh for a private one\n");
        return 2;
    }
    shared = new (mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)) Shared();
    if (!startManager()) {
        std::fprintf(stderr, "chaos: korvane-syncd did not start\n");
        return 1;
    }
    // The supervisor's own handles keep every object alive across the run,
    // and its semaphore handle gives back the tokens of killed holders.
    Handles held;
    for (int which = 0; which < kKinds; ++which)
        recreate(held, which);
    for (int slot = 0; slot < workers; ++slot)
        startWorker(slot);
    for (const int64_t end = nowNs() + seconds * 1000000000LL; nowNs() < end;) {
        usleep(5000 + pick(100000));
        injectFault(held, workers);
    }
    shared->quiet = 1;
    sleep(3);
    shared->stop = 1;
    int unfinished = 0, tokens = 0;
    for (int slot = 0; slot < workers; ++slot)
        unfinished += !reap(shared->pid[slot], 20, [slot] { reportStuck(slot); });
    while (os_semaphore_wait_timeout(held.semaphore, korvane::detail::deadline_after(0ms)))
        ++tokens;
    if (tokens != kTokens)
        violation("the semaphore ends with " + std::to_string(tokens) + " tokens");
    for (int which = 0; which < kKinds; ++which)
        createOrDestroy(held, which, false);
    // Killed workers' handles were never released: reclaim with the manager
    // running and again once it stopped.
    reap(spawn(shm, "reclaim"), 10);
    stopManager();
    reap(spawn(shm, "reclaim"), 10);
    const int left = namesLeft();
    const bool passed = shared->violations == 0 && unfinished == 0 && left == 0;
    const Faults& f = faults;
    std::printf("chaos: %lld s, %d workers: operations %llu, faults %d (%d kills, %d of them in sections, %d in "
                "create/destroy; %d stops; %d manager stops; %d manager restarts; %d reclaims; %d timer workers), "
                "violations %llu, holders found dead %llu, longest wait after the last fault %llu ms, unfinished "
                "workers %d, names left %d: %s\n",
                seconds, workers, shared->operations.load(),
                f.kills + f.stops + f.managerStops + f.restarts + f.reclaims + f.timers, f.kills, f.inSections,
                f.inChannel, f.stops, f.managerStops, f.restarts, f.reclaims, f.timers, shared->violations.load(),
                shared->repaired.load(), shared->longestWaitNs / 1000000, unfinished, left,
                passed ? "passed" : "FAILED");
    return passed ? 0 : 1;
}
