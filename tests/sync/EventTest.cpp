// Events through their class, for each wake-up mechanism: unnamed (a private
// condition) and named with a shared condition (what os_event_create
// selects), a shared semaphore or a System V semaphore; and the semaphore's
// System V mode, which only its class constructor reaches.
#include <sys/sem.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SyncTestSupport.h"
#include "korvane/system.h"
#include "os/sync/SyncObjects.h"

namespace {

using namespace kvtest;

struct Mechanism {
    const char* title;
    bool named, systemV, useCondition;
    int64_t requestSize;
    uint8_t systemVFlag, conditionFlag;
};

const Mechanism kMechanisms[] = {
    {"Unnamed", false, false, true, -1, 0, 1},
    {"Condition", true, false, true, 104, 0, 1},
    {"Semaphore", true, false, false, 88, 0, 0},
    {"SystemV", true, true, false, 60, 1, 0},
};
// System V asked for together with the condition: the condition is dropped.
const Mechanism kSystemVWithCondition{"SystemVWithCondition", true, true, true, 60, 1, 0};

std::unique_ptr<event_handle> openEvent(const Mechanism& how, bool manualReset, bool initialState,
                                        const std::string& name) {
    return std::make_unique<event_handle>(manualReset, initialState, how.named ? name.c_str() : nullptr, how.systemV,
                                          how.useCondition);
}

class EventMechanisms : public SyncTest, public ::testing::WithParamInterface<Mechanism> {};

// 'S' set, 'R' reset, '1' a wait past its deadline that must succeed, '0' one
// that must fail.
TEST_P(EventMechanisms, ResetRulesHold) {
    struct Steps {
        bool manualReset;
        bool initialState;
        const char* steps;
    };
    for (const Steps& run : {Steps{false, true, "10"}, Steps{false, false, "SS10"}, Steps{false, false, "SR0S10"},
                             Steps{true, true, "111R0"}, Steps{true, false, "S111R00S1"},
                             Steps{true, false, "SS11R0S1"}}) {
        const auto event = openEvent(GetParam(), run.manualReset, run.initialState, name("ev"));
        for (const char* step = run.steps; *step != '\0'; ++step) {
            if (*step == 'S')
                event->set();
            else if (*step == 'R')
                event->reset();
            else
                EXPECT_EQ(event->waitUntil(pastDeadline()), *step == '1') << run.steps << " step " << step - run.steps;
        }
    }
}

// A deadline whose nanoseconds are out of range cannot be waited for: the
// wait answers at once, as past its deadline, instead of spinning with the
// event's mutex held until the deadline's seconds come round.
TEST_P(EventMechanisms, MalformedDeadlineCountsAsPassed) {
    const auto event = openEvent(GetParam(), false, false, name("ev"));
    timespec malformed{};
    os_clock_get_time(CLOCK_MONOTONIC, &malformed);
    malformed.tv_sec += 60;
    malformed.tv_nsec = 1000000000L;
    const ChildResult waiter =
        runInChild([&] { return event->waitUntil(malformed) ? 1 : 0; }, std::chrono::seconds(10));
    EXPECT_FALSE(waiter.timedOut) << "the wait spun until its malformed deadline";
    EXPECT_EQ(waiter.exitCode, 0);
    event->set();
    EXPECT_TRUE(event->waitUntil(malformed)) << "a set event is still taken";
}

// Waiters block (threads on an unnamed event, processes opening a named one),
// then sets release them: a manual-reset set every waiter, an automatic-reset
// set exactly one.
TEST_P(EventMechanisms, SetsReleaseBlockedWaitersByTheResetRule) {
    for (const bool manualReset : {true, false}) {
        const std::string shared = name("ev");
        const auto make = [&] { return openEvent(GetParam(), manualReset, false, shared); };
        const auto event = GetParam().named ? openMapped(shared, make) : make();
        const int waiters = manualReset ? 3 : 2;
        Signal ready, released;
        std::vector<std::unique_ptr<Worker>> workers;
        for (int i = 0; i < waiters; ++i) {
            workers.push_back(std::make_unique<Worker>(GetParam().named, [&, i] {
                std::unique_ptr<event_handle> own;
                if (GetParam().named)
                    own = openMapped(shared, [&] { return openEvent(GetParam(), false, false, shared); });
                event_handle* mine = GetParam().named ? own.get() : event.get();
                ready.notify();
                // Waits outlast the test's wait for their release: a missed
                // wake-up must not pass as a release at the deadline.
                const bool untimed = i == 0 && GetParam().named; // a process is killed if it hangs
                if (!(untimed ? mine->wait() : mine->waitUntil(monotonicDeadline(2 * kDefaultTimeout))))
                    return 1;
                released.notify();
                return 0;
            }));
            ASSERT_TRUE(ready.waitFor());
        }
        std::this_thread::sleep_for(30ms); // let them block
        for (int set = 0, freed = 0; freed < waiters; ++set) {
            event->set();
            for (int each = 0; each < (manualReset ? waiters : 1); ++each, ++freed)
                EXPECT_TRUE(released.waitFor()) << (manualReset ? "manual" : "automatic") << " set " << set;
            EXPECT_FALSE(released.waitFor(50ms)) << "one set released too many waiters";
        }
        for (auto& worker : workers)
            EXPECT_EQ(worker->result(), 0);
        EXPECT_EQ(event->waitUntil(pastDeadline()), manualReset) << "a manual-reset event stays set";
    }
}

INSTANTIATE_TEST_SUITE_P(All, EventMechanisms, ::testing::ValuesIn(kMechanisms),
                         [](const ::testing::TestParamInfo<Mechanism>& info) { return info.param.title; });

class NamedEvent : public SyncTest {};

TEST_F(NamedEvent, MemoryHasTheMechanismsLayoutAndTheFirstCreatorsArgumentsUntilTheLastHandle) {
    for (const Mechanism& how : {kMechanisms[1], kMechanisms[2], kMechanisms[3], kSystemVWithCondition}) {
        const std::string shared = name("ev");
        std::unique_ptr<event_handle> first;
        const std::string warning = how.systemV && how.useCondition
                                        ? "warning: can not use condition because semaphore is managed by OS, it "
                                          "should be system V semaphore.\n"
                                        : "";
        EXPECT_EQ(captureStdout([&] { first = openEvent(how, true, true, shared); }), warning);
        EXPECT_EQ(segmentSize(shared), how.requestSize) << how.title;
        const key_t key = memoryFileKey(shared);
        EXPECT_EQ(systemVSemaphoreExists(key), how.systemV) << how.title;
        {
            const MappedObject memory(shared);
            ASSERT_NE(memory.bytes, nullptr);
            const uint8_t* flags = memory.bytes + how.requestSize - 4;
            const std::vector<uint8_t> expected = {1, 1, how.systemVFlag, how.conditionFlag};
            EXPECT_EQ(std::vector<uint8_t>(flags, flags + 4), expected)
                << how.title << ": manual reset, state, System V flag, condition flag";
        }
        auto second = openEvent(how, false, false, shared);
        first.reset();
        EXPECT_EQ(systemVSemaphoreExists(key), how.systemV) << how.title << ": only the last release removes it";
        EXPECT_TRUE(second->waitUntil(pastDeadline())) << how.title << ": the first creator's state holds";
        EXPECT_TRUE(second->waitUntil(pastDeadline())) << how.title << ": the first creator's manual reset holds";
        second.reset();
        EXPECT_EQ(segmentSize(shared), -1) << how.title;
        EXPECT_FALSE(systemVSemaphoreExists(key)) << how.title << ": the last release removes the System V semaphore";
    }
}

// The System V mode makes its keyed set, but nothing writes the flag byte, so
// the operations keep the POSIX path and the last release leaves the set.
TEST_F(NamedEvent, SemaphoreSystemVModeMakesItsSetBehindAClearFlagByte) {
    const std::string shared = name("sem");
    auto semaphore = std::make_unique<semaphore_handle>(3, shared.c_str(), true);
    EXPECT_EQ(segmentSize(shared), 9);
    const int id = semget(memoryFileKey(shared), 1, 0);
    ASSERT_NE(id, -1);
    EXPECT_EQ(semctl(id, 0, GETVAL), 3);
    {
        const MappedObject memory(shared);
        int stored = -1;
        std::memcpy(&stored, memory.bytes + 4, sizeof stored);
        EXPECT_EQ(stored, id);
        EXPECT_EQ(memory.bytes[8], 0);
    }
    semaphore.reset();
    EXPECT_EQ(segmentSize(shared), -1);
    EXPECT_EQ(semctl(id, 0, IPC_RMID), 0) << "the set outlives the semaphore";
}

} // namespace
