// The chaos run: worker processes hammer named mutexes, recursive mutexes,
// events, semaphores and reader-writer locks under a real korvane-syncd while
// the supervisor kills, stops and restarts them and the manager. Every guarded
// section checks invariants kept in a mapping of this program's own. Ends with
// one line of figures; the exit status is 0 only when the run passed.
// Run it through scripts/chaos.sh, which gives it a private /dev/shm.
#include <dirent.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <new>
#include <random>
#include <string>

#include "korvane/sync.h"
#include "korvane/system.h"

namespace {

constexpr int kMaxWorkers = 32;
constexpr int kTokens = 2; // the semaphore's count
const char* const kNames[] = {"chaos_mutex", "chaos_recursive", "chaos_rw", "chaos_semaphore", "chaos_manual",
                              "chaos_auto"};

// What a worker is doing, read by the supervisor while the worker is stopped.
enum Phase : int { kIdle, kChannel, kUnaccounted, kCritical };

struct Slot {
    std::atomic<int> pid;
    std::atomic<int> phase;
    std::atomic<int> holdsToken;
};

// Owner words are (slot << 32 | pid), 0 when nobody is inside.
struct Shared {
    std::atomic<uint64_t> operations, violations, repaired, longestWaitNs;
    std::atomic<uint64_t> mutexOwner, recursiveOwner, writer, readers[kMaxWorkers];
    std::atomic<int> tokensHeld, quiet, stop;
    std::atomic<uint64_t> manualState; // odd while set; changes before every reset
    std::atomic<int64_t> autoSets, autoTaken, lastFaultNs;
    Slot slots[kMaxWorkers];
};

Shared* shared = nullptr;
int mySlot = -1;
uint64_t me = 0;
std::mt19937 rng;

int64_t nowNs() {
    timespec now {};
    os_clock_get_time(1, &now);
    return now.tv_sec * 1000000000LL + now.tv_nsec;
}

timespec deadlineIn(int64_t ns) {
    const int64_t at = nowNs() + ns;
    return timespec {at / 1000000000, at % 1000000000};
}

int pick(int bound) { return static_cast<int>(rng() % static_cast<unsigned>(bound)); }

void violation(const char* format, ...) {
    shared->violations++;
    va_list args;
    va_start(args, format);
    std::fprintf(stderr, "chaos: violation in worker %d: ", getpid());
    std::vfprintf(stderr, format, args);
    std::fputc('\n', stderr);
    va_end(args);
}

char processState(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line) || line.rfind(") ") == std::string::npos)
        return 'X';
    return line[line.rfind(") ") + 2];
}

// The kernel releases a robust mutex of a killed holder before the holder
// turns into a zombie, so give it a moment before calling it alive. A pid is
// not reused before the supervisor reaps it and clears the slot.
bool ownerDead(uint64_t owner) {
    const int slot = static_cast<int>(owner >> 32);
    const pid_t pid = static_cast<pid_t>(owner & 0xffffffffu);
    for (int i = 0; i < 500; ++i) {
        const char state = processState(pid);
        if (shared->slots[slot].pid != pid || state == 'Z' || state == 'X')
            return true;
        usleep(1000);
    }
    return false;
}

// An owner word found set belongs to a holder that died inside (repaired) or
// to one still inside: two in the section at once.
void enter(std::atomic<uint64_t>& word, const char* what) {
    const uint64_t seen = word.load();
    if (seen != 0 && seen != me) {
        if (ownerDead(seen))
            shared->repaired++;
        else
            violation("%s entered while pid %u is inside", what, static_cast<unsigned>(seen));
    }
    word = me;
}

void leave(std::atomic<uint64_t>& word, const char* what) {
    if (word.exchange(0) != me)
        violation("%s changed hands while held", what);
}

void linger() {
    if (pick(4) == 0)
        usleep(pick(300));
}

// Counts a wait that ended in the quiet spell after the last fault, from the
// later of its start and that fault.
template <typename Wait>
auto timed(Wait wait) {
    const int64_t start = nowNs();
    auto result = wait();
    if (shared->quiet) {
        const uint64_t waited = static_cast<uint64_t>(nowNs() - std::max(start, shared->lastFaultNs.load()));
        uint64_t longest = shared->longestWaitNs;
        while (waited > longest && !shared->longestWaitNs.compare_exchange_weak(longest, waited)) {
        }
    }
    return result;
}

struct Handles {
    mutex_handle* mutex = nullptr;
    recursive_mutex_handle* recursive = nullptr;
    rw_mutex_handle* rw = nullptr;
    semaphore_handle* semaphore = nullptr;
    event_handle* manual = nullptr;
    event_handle* automatic = nullptr;
};

// A named creation that got no answer gives a handle whose operations return
// at once; only a usable one has mapped its memory.
bool mapped(const char* name) {
    std::ifstream maps("/proc/self/maps");
    const std::string suffix = std::string("/dev/shm/") + name;
    for (std::string line; std::getline(maps, line);) {
        if (line.size() >= suffix.size() && line.compare(line.size() - suffix.size(), suffix.size(), suffix) == 0)
            return true;
    }
    return false;
}

void destroyOne(Handles& h, int which) {
    shared->slots[mySlot].phase = kChannel;
    switch (which) {
    case 0: os_mutex_destroy(&h.mutex); break;
    case 1: os_recursive_mutex_destroy(&h.recursive); break;
    case 2: os_rw_mutex_destroy(&h.rw); break;
    case 3: os_semaphore_destroy(&h.semaphore); break;
    case 4: os_event_destroy(&h.manual); break;
    default: os_event_destroy(&h.automatic); break;
    }
    shared->slots[mySlot].phase = kIdle;
}

bool createOne(Handles& h, int which) {
    shared->slots[mySlot].phase = kChannel;
    switch (which) {
    case 0: h.mutex = os_mutex_create(kNames[0]); break;
    case 1: h.recursive = os_recursive_mutex_create(kNames[1]); break;
    case 2: h.rw = os_rw_mutex_create(kNames[2]); break;
    case 3: h.semaphore = os_semaphore_create(kTokens, kNames[3]); break;
    case 4: h.manual = os_event_create(true, false, kNames[4]); break;
    default: h.automatic = os_event_create(false, false, kNames[5]); break;
    }
    shared->slots[mySlot].phase = kIdle;
    if (mapped(kNames[which]))
        return true;
    destroyOne(h, which);
    return false;
}

void recreate(Handles& h, int which) {
    destroyOne(h, which);
    while (!createOne(h, which) && !shared->stop)
        usleep(5000);
}

// Set and reset run under the named mutex, so the recorded state follows the
// event's: set before recording it, record before resetting.
void mutexSection(Handles& h) {
    timed([&] { os_mutex_lock(h.mutex); return 0; });
    shared->slots[mySlot].phase = kCritical;
    enter(shared->mutexOwner, "mutex");
    linger();
    if (pick(3) == 0) {
        os_event_set_event(h.manual);
        shared->manualState |= 1;
    } else if (pick(2) == 0) {
        shared->manualState = (shared->manualState | 1) + 1;
        os_event_reset_event(h.manual);
    }
    leave(shared->mutexOwner, "mutex");
    shared->slots[mySlot].phase = kIdle;
    os_mutex_unlock(h.mutex);
}

void recursiveSection(Handles& h) {
    timed([&] { os_recursive_mutex_lock(h.recursive); return 0; });
    shared->slots[mySlot].phase = kCritical;
    enter(shared->recursiveOwner, "recursive mutex");
    os_recursive_mutex_lock(h.recursive);
    linger();
    if (shared->recursiveOwner != me)
        violation("recursive mutex entered while held again by its owner");
    os_recursive_mutex_unlock(h.recursive);
    leave(shared->recursiveOwner, "recursive mutex");
    shared->slots[mySlot].phase = kIdle;
    os_recursive_mutex_unlock(h.recursive);
}

// A holder killed inside a reader-writer lock keeps it for ever (its count
// and flag are not robust), so these sections are never killed.
void rwSection(Handles& h, bool write) {
    shared->slots[mySlot].phase = kUnaccounted;
    timed([&] { (write ? os_rw_mutex_lock_wr : os_rw_mutex_lock_rd)(h.rw); return 0; });
    if (write) {
        enter(shared->writer, "writer");
        for (auto& reader : shared->readers) {
            const uint64_t seen = reader.load();
            if (seen != 0 && !ownerDead(seen))
                violation("writer beside reader %u", static_cast<unsigned>(seen));
        }
    } else {
        const uint64_t seen = shared->writer.load();
        if (seen != 0 && !ownerDead(seen))
            violation("reader beside writer %u", static_cast<unsigned>(seen));
        shared->readers[mySlot] = me;
    }
    linger();
    if (write)
        leave(shared->writer, "writer");
    else
        shared->readers[mySlot] = 0;
    os_rw_mutex_unlock(h.rw);
    shared->slots[mySlot].phase = kIdle;
}

// A token is held from the wait's success to the release; the supervisor
// gives back the token of a worker it kills while holding one.
void semaphoreSection(Handles& h) {
    Slot& slot = shared->slots[mySlot];
    slot.phase = kUnaccounted;
    if (timed([&] { return os_semaphore_wait_timeout(h.semaphore, deadlineIn(200000000)); })) {
        if (shared->tokensHeld.fetch_add(1) + 1 > kTokens)
            violation("more than %d semaphore tokens held", kTokens);
        slot.holdsToken = 1;
        slot.phase = kCritical;
        linger();
        slot.phase = kUnaccounted;
        shared->tokensHeld--;
        slot.holdsToken = 0;
        os_semaphore_release(h.semaphore);
    }
    slot.phase = kIdle;
}

// A wait that times out on a manual event set all along lost the set; an
// automatic event releases no more waiters than it had sets.
void eventSection(Handles& h) {
    if (pick(2) == 0) {
        const uint64_t before = shared->manualState;
        const timespec deadline = deadlineIn(20000000);
        if (!timed([&] { return os_event_wait_timeout(h.manual, deadline); }) && (before & 1) &&
            shared->manualState == before && nowNs() >= deadline.tv_sec * 1000000000LL + deadline.tv_nsec)
            violation("a set manual event timed out");
    } else if (pick(2) == 0) {
        shared->autoSets++;
        os_event_set_event(h.automatic);
    } else if (timed([&] { return os_event_wait_timeout(h.automatic, deadlineIn(20000000)); })) {
        if (++shared->autoTaken > shared->autoSets)
            violation("an automatic event released more waiters than it had sets");
    }
}

int workerMain(int slot, bool timer) {
    mySlot = slot;
    me = static_cast<uint64_t>(slot) << 32 | static_cast<uint32_t>(getpid());
    rng.seed(static_cast<unsigned>(getpid()) ^ static_cast<unsigned>(nowNs()));
    if (timer) { // a busy interval timer restarting every interrupted call
        struct sigaction action {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        const itimerval every1ms = {{0, 1000}, {0, 1000}};
        sigaction(SIGALRM, &action, nullptr);
        setitimer(ITIMER_REAL, &every1ms, nullptr);
    }
    Handles h;
    for (int which = 0; which < 6; ++which)
        recreate(h, which);
    while (!shared->stop) {
        switch (pick(12)) {
        case 0: case 1: mutexSection(h); break;
        case 2: case 3: recursiveSection(h); break;
        case 4: case 5: rwSection(h, pick(3) == 0); break;
        case 6: case 7: semaphoreSection(h); break;
        case 8: case 9: case 10: eventSection(h); break;
        default: recreate(h, pick(6)); break;
        }
        shared->operations++;
    }
    for (int which = 0; which < 6; ++which)
        destroyOne(h, which);
    return 0;
}

struct Figures {
    int kills = 0, killsInSections = 0, killsInChannel = 0, stops = 0, managerStops = 0, restarts = 0, reclaims = 0,
        timers = 0, unfinished = 0, namesLeft = 0;
    int total() const { return kills + stops + managerStops + restarts + reclaims + timers; }
};

struct Options {
    int64_t seconds = 60;
    int workers = 6;
    bool hardening = false;
    unsigned seed = static_cast<unsigned>(time(nullptr));
    std::string syncd, shm;
};

Options options;
Figures figures;
pid_t manager = -1;

pid_t spawn(const std::string& program, const char* argument) {
    const pid_t pid = fork();
    if (pid == 0) {
        freopen("/dev/null", "w", stdout);
        execl(program.c_str(), program.c_str(), argument, static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

// Waits at most `seconds` for `pid`, then kills it; true when it exited 0.
bool reap(pid_t pid, int seconds) {
    int status = 0;
    for (int i = 0; i < seconds * 100 && waitpid(pid, &status, WNOHANG) == 0; ++i)
        usleep(10000);
    if (waitpid(pid, &status, WNOHANG) == 0) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        return false;
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool channelPresent() {
    for (const char* name : {"/dev/shm/" KORVANE_SYNC_CHANNEL_MEMORY, "/dev/shm/sem." KORVANE_SYNC_LOCK_SEMAPHORE,
                             "/dev/shm/sem." KORVANE_SYNC_REQUEST_SEMAPHORE, "/dev/shm/sem." KORVANE_SYNC_FINISH_SEMAPHORE})
        if (access(name, F_OK) != 0)
            return false;
    return true;
}

bool startManager() {
    manager = spawn(options.syncd, nullptr);
    for (int i = 0; i < 500 && !channelPresent(); ++i)
        usleep(10000);
    return channelPresent();
}

void stopManager() {
    kill(manager, SIGTERM);
    if (!reap(manager, 10))
        violation("korvane-syncd did not stop cleanly");
}

void startWorker(int slot) {
    const bool timer = pick(4) == 0;
    figures.timers += timer;
    shared->slots[slot].phase = kIdle;
    shared->slots[slot].holdsToken = 0;
    const pid_t pid = fork();
    if (pid == 0)
        _exit(workerMain(slot, timer));
    shared->slots[slot].pid = pid;
}

bool reclaimAvailable() {
    int fds[2];
    if (pipe(fds) != 0)
        return false;
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fds[1], STDOUT_FILENO);
        dup2(fds[1], STDERR_FILENO);
        execl(options.shm.c_str(), options.shm.c_str(), "--help", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string help;
    char buffer[512];
    for (ssize_t n; (n = read(fds[0], buffer, sizeof buffer)) > 0;)
        help.append(buffer, static_cast<size_t>(n));
    close(fds[0]);
    reap(pid, 10);
    return help.find("reclaim") != std::string::npos;
}

// Stops the worker, and kills it only where its figures stay accounted for
// (and, until the channel recovers from a killed client, outside
// create/destroy); otherwise lets it go on.
void killWorker(Handles& held, int slot) {
    const pid_t pid = shared->slots[slot].pid;
    int status = 0;
    kill(pid, SIGSTOP);
    if (waitpid(pid, &status, WUNTRACED) != pid || !WIFSTOPPED(status))
        return violation("worker %d ended on its own", pid);
    const int phase = shared->slots[slot].phase;
    if (phase == kUnaccounted || (phase == kChannel && !options.hardening)) {
        figures.stops++;
        kill(pid, SIGCONT);
        return;
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    figures.kills++;
    figures.killsInSections += phase == kCritical;
    figures.killsInChannel += phase == kChannel;
    if (shared->slots[slot].holdsToken) {
        shared->tokensHeld--;
        os_semaphore_release(held.semaphore);
    }
    shared->slots[slot].pid = 0;
    startWorker(slot);
}

void injectFault(Handles& held, bool reclaim) {
    const int slot = pick(options.workers);
    switch (pick(options.hardening ? 7 : 5)) {
    case 0: case 1: killWorker(held, slot); break;
    case 2: case 3: // stops beyond the manager's 100 ms answer time too
        kill(shared->slots[slot].pid, SIGSTOP);
        usleep(1000 + pick(300000));
        kill(shared->slots[slot].pid, SIGCONT);
        figures.stops++;
        break;
    case 4:
        if (reclaim) {
            reap(spawn(options.shm, "reclaim"), 10);
            figures.reclaims++;
        }
        break;
    case 5:
        kill(manager, SIGSTOP);
        usleep(10000 + pick(300000));
        kill(manager, SIGCONT);
        figures.managerStops++;
        break;
    default:
        stopManager();
        if (!startManager())
            violation("korvane-syncd did not restart");
        figures.restarts++;
        break;
    }
    shared->lastFaultNs = nowNs();
}

int countNames() {
    int count = 0;
    DIR* dir = opendir("/dev/shm");
    for (dirent* entry; dir != nullptr && (entry = readdir(dir)) != nullptr;) {
        if (entry->d_name[0] != '.') {
            std::fprintf(stderr, "chaos: left in /dev/shm: %s\n", entry->d_name);
            ++count;
        }
    }
    if (dir != nullptr)
        closedir(dir);
    return count;
}

bool parse(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : "";
        if (flag == "--expect-hardening") {
            options.hardening = true;
            continue;
        }
        if (flag == "--seconds")
            options.seconds = std::atoll(value);
        else if (flag == "--workers")
            options.workers = std::clamp(std::atoi(value), 1, kMaxWorkers - 1);
        else if (flag == "--seed")
            options.seed = static_cast<unsigned>(std::strtoul(value, nullptr, 10));
        else if (flag == "--syncd")
            options.syncd = value;
        else if (flag == "--shm")
            options.shm = value;
        else
            return false;
        ++i;
    }
    return !options.syncd.empty() && !options.shm.empty();
}

} // namespace

int main(int argc, char** argv) {
    if (!parse(argc, argv)) {
        std::fprintf(stderr, "usage: korvane_chaos --syncd PATH --shm PATH [--seconds N] [--workers N] "
                             "[--seed N] [--expect-hardening]\n");
        return 2;
    }
    if (countNames() != 0) {
        std::fprintf(stderr, "chaos: /dev/shm is not empty; run through scripts/chaos.sh for a private one\n");
        return 2;
    }
    void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    shared = new (memory) Shared();
    rng.seed(options.seed);
    const bool reclaim = reclaimAvailable();
    if (!startManager()) {
        std::fprintf(stderr, "chaos: korvane-syncd did not start\n");
        return 1;
    }
    // The supervisor's own handles keep every object alive across the run,
    // and its semaphore handle gives back the tokens of killed holders.
    mySlot = kMaxWorkers - 1;
    Handles held;
    for (int which = 0; which < 6; ++which)
        recreate(held, which);
    for (int slot = 0; slot < options.workers; ++slot)
        startWorker(slot);
    const int64_t end = nowNs() + options.seconds * 1000000000LL;
    while (nowNs() < end) {
        usleep(5000 + pick(100000));
        injectFault(held, reclaim);
    }
    shared->quiet = 1;
    sleep(3);
    shared->stop = 1;
    for (int slot = 0; slot < options.workers; ++slot)
        figures.unfinished += !reap(shared->slots[slot].pid, 20);
    int tokens = 0;
    while (os_semaphore_wait_timeout(held.semaphore, deadlineIn(0)))
        ++tokens;
    if (tokens != kTokens)
        violation("the semaphore holds %d tokens, not %d", tokens, kTokens);
    for (int which = 0; which < 6; ++which)
        destroyOne(held, which);
    stopManager();
    if (reclaim)
        reap(spawn(options.shm, "reclaim"), 10);
    figures.namesLeft = countNames();
    const bool passed = shared->violations == 0 && figures.unfinished == 0 && figures.namesLeft == 0;
    std::printf("chaos: %lld s, %d workers, seed %u: operations %llu, faults %d (kills %d, %d in sections, %d in "
                "create/destroy; stops %d; manager stops %d; restarts %d; reclaims %d%s; timer workers %d), "
                "violations %llu (holders found dead %llu), longest wait after the last fault %llu ms, "
                "unfinished workers %d, names left %d: %s%s\n",
                static_cast<long long>(options.seconds), options.workers, options.seed,
                static_cast<unsigned long long>(shared->operations.load()), figures.total(), figures.kills,
                figures.killsInSections, figures.killsInChannel, figures.stops, figures.managerStops,
                figures.restarts, figures.reclaims, reclaim ? "" : " (no reclaim command)", figures.timers,
                static_cast<unsigned long long>(shared->violations.load()),
                static_cast<unsigned long long>(shared->repaired.load()),
                static_cast<unsigned long long>(shared->longestWaitNs / 1000000), figures.unfinished,
                figures.namesLeft, passed ? "passed" : "FAILED",
                options.hardening ? "" : " [waiting for hardening: kills inside create/destroy, manager stops and "
                                         "restarts are off; pass --expect-hardening]");
    return passed ? 0 : 1;
}
