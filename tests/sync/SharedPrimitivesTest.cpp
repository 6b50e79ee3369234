// Timed waits and the reset rules of events, for each of an event's wake-up
// mechanisms (unnamed: a private condition; named: a shared condition, what
// os_event_create selects, a shared semaphore or a System V semaphore) with
// the layout each leaves in a named event's memory, and of semaphores and
// conditions.
#include "SyncTestSupport.h" // with <sys/mman.h> and <sys/sem.h>
#include "os/sync/SyncObjects.h"

namespace {

using namespace kvtest;

struct Mechanism {
    const char* title;
    bool named, systemV, useCondition;
    int64_t requestSize;
    uint8_t systemVFlag, conditionFlag;
};

// The last: System V asked for together with the condition, which is dropped.
const Mechanism kMechanisms[] = {
    {"unnamed", false, false, true, -1, 0, 1},   {"condition", true, false, true, 104, 0, 1},
    {"semaphore", true, false, false, 88, 0, 0}, {"System V", true, true, false, 60, 1, 0},
    {"System V with condition", true, true, true, 60, 1, 0},
};

std::unique_ptr<event_handle> openEvent(const Mechanism& how, bool manualReset, bool initialState,
                                        const std::string& name) {
    return openMapped(how.named ? name : "", [&] {
        return std::make_unique<event_handle>(manualReset, initialState, how.named ? name.c_str() : nullptr,
                                              how.systemV, how.useCondition);
    });
}

// A waitable and the steps it must show: 'G' gives (set, release, signal),
// 'R' resets; a wait answers the digit after it (0 taken or woken, 1 timed
// out, 2 deadline refused), its deadline 'p' past, 'n' with negative seconds,
// 'm' with nanoseconds out of range.
struct Waitable {
    std::string title;
    const char* steps;
    std::function<void(char)> act;
    std::function<int(const timespec&)> wait;
};

class Waits : public SyncTest {};

// Every timed wait reads a deadline alike, and takes what was given even past
// it. A deadline naming no instant is refused by a condition, answered as
// passed by an event, and normalised by a semaphore as it converts it to the
// realtime clock. A later creator's arguments leave an event as it is. A named
// event's memory has its mechanism's size and, in the last four bytes, manual
// reset, state, System V flag and condition flag; its System V semaphore lives
// until the last handle goes.
TEST_F(Waits, DeadlinesResetRulesAndTheNamedEventsLayout) {
    const struct {
        bool manualReset, initialState, second; // second: waits through a later creator's handle
        const char* steps;
    } kEventRuns[] = {{false, true, false, "p0p1"}, {false, false, false, "p1n1m1Gm0p1GGp0p1GRp1Gp0"},
                      {true, true, false, "p0p0p0Rp1"}, {true, false, false, "Gm0p0p0Rp1p1Gp0GGp0p0Rp1"},
                      {true, true, true, "p0p0Rp1"}};
    std::vector<Waitable> rows; // whose actions own the handles
    std::vector<key_t> keys;    // of the named events' System V semaphores, as the library makes them
    for (const Mechanism& how : kMechanisms) {
        SCOPED_TRACE(how.title);
        for (const auto& run : kEventRuns) {
            const std::string shared = name("ev");
            std::shared_ptr<event_handle> event;
            EXPECT_EQ(captureStdout([&] { event = openEvent(how, run.manualReset, run.initialState, shared); }),
                      how.systemV && how.useCondition ? "warning: can not use condition because semaphore is "
                                                        "managed by OS, it should be system V semaphore.\n"
                                                      : "");
            if (how.named) {
                const MappedObject memory(shared);
                EXPECT_EQ(segmentSize(shared), how.requestSize);
                const std::vector<uint8_t> flags{run.manualReset, run.initialState, how.systemVFlag, how.conditionFlag};
                EXPECT_EQ(std::vector<uint8_t>(memory.bytes + how.requestSize - 4, memory.bytes + how.requestSize),
                          flags);
                keys.push_back(ftok(("/dev/shm/" + shared).c_str(), 0));
            }
            if (run.second && how.named) { // an unnamed one has no later creator
                event = openEvent(how, false, false, shared); // made before the first one goes
                EXPECT_EQ(semget(keys.back(), 1, 0) != -1, how.systemV) << "only the last release removes it";
            }
            rows.push_back({how.title, run.steps,
                            [=](char step) { step == 'G' ? event->set() : event->reset(); },
                            [=](const timespec& d) { return event->waitUntil(d) ? 0 : 1; }});
        }
    }
    // Semaphores given a negative count start empty.
    for (const std::string& shared : {std::string(), name("sem")}) {
        std::shared_ptr<semaphore_handle> semaphore = openMapped(shared, [&] {
            return std::make_unique<semaphore_handle>(-1, shared.empty() ? nullptr : shared.c_str(), false);
        });
        rows.push_back({"semaphore " + shared, "p1n1m1Gm0p1GGp0p0p1", [=](char) { semaphore->release(); },
                        [=](const timespec& d) { return semaphore->waitUntil(d) ? 0 : 1; }});
    }
    condition_handle condition;
    rows.push_back({"condition", "p1n1m2", nullptr, [&](const timespec& d) { return condition.waitUntil(d); }});
    condition.lock();
    const timespec malformed{pastDeadline().tv_sec - 2, 1000000000};
    for (const Waitable& row : rows) {
        SCOPED_TRACE(row.title + " " + row.steps);
        for (const char* step = row.steps; *step != '\0'; ++step) {
            const timespec deadline = *step == 'n' ? timespec{-1, 0} : *step == 'm' ? malformed : pastDeadline();
            if (*step == 'G' || *step == 'R')
                row.act(*step);
            else // the answer is the next character
                EXPECT_EQ(row.wait(deadline), *++step - '0') << "at step " << step - row.steps;
        }
    }
    condition.unlock();
    rows.clear();
    for (const key_t key : keys)
        EXPECT_EQ(semget(key, 1, 0), -1);
    // A null handle answers as a wake-up, kept for existing callers.
    EXPECT_EQ(os_condition_wait(nullptr), 0);
    EXPECT_EQ(os_condition_wait_timeout(nullptr, pastDeadline()), 0);
}

// Two processes hand a turn back and forth through named automatic-reset
// events (a shared condition each) and named semaphores (a futex each): a
// lost wake-up leaves one side asleep past the child's time limit.
TEST_F(Waits, NamedEventsAndSemaphoresLoseNoWakeUpBetweenProcesses) {
    const std::string names[] = {name("ev"), name("ev"), name("sem"), name("sem")};
    const timespec late = korvane::detail::deadline_after(2 * kDefaultTimeout); // past the children's time limit
    const auto play = [&](int side) {
        std::unique_ptr<event_handle> events[2];
        std::unique_ptr<semaphore_handle> units[2];
        for (int i = 0; i < 2; ++i) {
            events[i] = openEvent(kMechanisms[1], false, false, names[i]);
            const char* unit = names[2 + i].c_str();
            units[i] = openMapped(unit, [&] { return std::make_unique<semaphore_handle>(0, unit, false); });
        }
        const auto take = [&] { return events[1 - side]->waitUntil(late) && units[1 - side]->waitUntil(late); };
        for (int round = 0; round < 1000; ++round) { // side 0 gives first, then takes
            if (side == 1 && !take())
                return 1;
            events[side]->set();
            units[side]->release();
            if (side == 0 && !take())
                return 1;
        }
        return 0;
    };
    Child first([&] { return play(0); }), second([&] { return play(1); });
    EXPECT_EQ(first.wait().exitCode, 0);
    EXPECT_EQ(second.wait().exitCode, 0);
}

// A process that dies holding the mutex right after waking a shared
// condition's waiter: the waiter (a child, so that a fault cannot hang the
// test) takes the mutex back repaired, consistent and its own.
TEST(SharedConditionOwnerDeath, TheWaiterRepairsTheMutexItTakesBack) {
    using korvane::sync::ConditionWait;
    struct Page {
        pthread_mutex_t mutex;
        korvane::sync::SharedCondition condition;
        int waiting, woken;
    };
    constexpr int kSharedWithChildren = MAP_SHARED | MAP_ANONYMOUS;
    auto* page = static_cast<Page*>(mmap(nullptr, sizeof(Page), PROT_READ | PROT_WRITE, kSharedWithChildren, -1, 0));
    korvane::sync::initialiseMutex(&page->mutex, PTHREAD_MUTEX_NORMAL, true);
    page->condition.initialise();
    Child waiter([&] {
        korvane::sync::robustLock(&page->mutex);
        __atomic_store_n(&page->waiting, 1, __ATOMIC_SEQ_CST);
        ConditionWait result = ConditionWait::Woken;
        const timespec deadline = korvane::detail::deadline_after(kDefaultTimeout);
        while (page->woken == 0 && result != ConditionWait::TimedOut)
            result = page->condition.waitUntil(&page->mutex, deadline);
        // 1: not woken; 2: the mutex it took back is not its own, consistent one.
        return result != ConditionWait::Woken ? 1 : pthread_mutex_unlock(&page->mutex) == 0 ? 0 : 2;
    });
    // The killer's lock waits for the waiter to let the mutex go in its wait.
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(&page->waiting, __ATOMIC_SEQ_CST) == 1; }));
    EXPECT_EQ(runInChild([&] {
        pthread_mutex_lock(&page->mutex);
        page->woken = 1;
        page->condition.broadcast();
        return 0; // leaves holding the mutex
    }).exitCode, 0);
    EXPECT_EQ(waiter.wait().exitCode, 0);
    EXPECT_EQ(pthread_mutex_trylock(&page->mutex), 0) << "the mutex was left inconsistent";
    pthread_mutex_unlock(&page->mutex);
    munmap(page, sizeof(Page));
}

} // namespace
