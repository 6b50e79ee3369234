// The event's three wake-up mechanisms for named events (condition,
// semaphore, System V), reached through the class constructor, and the
// semaphore's System V mode.
#include <gtest/gtest.h>
#include <sys/sem.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "SyncObjectsSupport.h"
#include "os/sync/SyncObjects.h"

using namespace std::chrono_literals;

namespace {

struct EventMode {
    const char* title;
    bool systemV;
    bool useCondition;
    int64_t requestSize;
    uint8_t systemVFlag;
    uint8_t conditionFlag;
};

const EventMode kModes[] = {
    {"Condition", false, true, 104, 0, 1},
    {"Semaphore", false, false, 88, 0, 0},
    {"SystemV", true, false, 60, 1, 0},
};

class EventModes : public kvtest::SyncManagerTest, public ::testing::WithParamInterface<EventMode> {
protected:
    std::unique_ptr<event_handle> open(bool manualReset, bool initialState, const std::string& name) {
        return std::make_unique<event_handle>(manualReset, initialState, name.c_str(), GetParam().systemV,
                                              GetParam().useCondition);
    }
};

// 'S' set, 'R' reset, '1' a wait past its deadline that must succeed, '0' one
// that must fail. In the semaphore modes these also pin the units a set
// leaves, the pass-on of a manual-reset wait and the unit a reset takes back.
struct Steps {
    bool manualReset;
    const char* steps;
};

const Steps kSteps[] = {
    {false, "SS10"}, {false, "SR0S10"}, {true, "S111R00"}, {true, "SS11R0S1"},
};

TEST_P(EventModes, ResetRulesHoldInEveryMode) {
    for (const Steps& run : kSteps) {
        std::unique_ptr<event_handle> event = open(run.manualReset, false, name("ev"));
        int index = 0;
        for (const char* step = run.steps; *step != '\0'; ++step, ++index) {
            if (*step == 'S')
                event->set();
            else if (*step == 'R')
                event->reset();
            else
                EXPECT_EQ(event->waitUntil(kvtest::pastDeadline()), *step == '1') << run.steps << " step " << index;
        }
    }
}

TEST_P(EventModes, MemoryHasTheModesLayoutAndGoesWithTheLastHandle) {
    const std::string shared = name("ev");
    std::unique_ptr<event_handle> first = open(true, true, shared);
    EXPECT_EQ(kvtest::segmentSize(shared), GetParam().requestSize);
    const key_t key = kvtest::memoryFileKey(shared);
    EXPECT_EQ(kvtest::systemVSemaphoreExists(key), GetParam().systemV);
    {
        kvtest::MappedObject memory(shared);
        ASSERT_NE(memory.bytes, nullptr);
        const uint8_t* flags = memory.bytes + GetParam().requestSize - 4;
        EXPECT_EQ(flags[0], 1) << "manual reset";
        EXPECT_EQ(flags[1], 1) << "state";
        EXPECT_EQ(flags[2], GetParam().systemVFlag);
        EXPECT_EQ(flags[3], GetParam().conditionFlag);
    }
    std::unique_ptr<event_handle> second = open(false, false, shared);
    EXPECT_EQ(kvtest::openCountOf(shared), 2);
    first.reset();
    EXPECT_TRUE(second->waitUntil(kvtest::pastDeadline())) << "the first creator's state holds";
    second.reset();
    EXPECT_EQ(kvtest::segmentSize(shared), -1);
    EXPECT_FALSE(kvtest::systemVSemaphoreExists(key)) << "the last release removes the System V semaphore";
}

TEST_P(EventModes, ManualResetSetReleasesBlockedWaitersInOtherProcesses) {
    const std::string shared = name("ev");
    std::unique_ptr<event_handle> event = open(true, false, shared);
    kvtest::Signal ready;
    std::vector<std::unique_ptr<kvtest::Child>> children;
    for (int i = 0; i < 3; ++i) {
        children.push_back(std::make_unique<kvtest::Child>([&, i] {
            std::unique_ptr<event_handle> other = open(true, false, shared);
            ready.notify();
            const bool released = i == 0 ? other->wait() : other->waitUntil(kvtest::boundedDeadline());
            return released ? 0 : 1;
        }));
    }
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(ready.waitFor());
    std::this_thread::sleep_for(30ms); // let them block
    event->set();
    for (auto& child : children) {
        const kvtest::ChildResult result = child->wait();
        EXPECT_TRUE(result.exited && result.exitCode == 0) << "a waiter was not released";
    }
    event->reset();
    EXPECT_FALSE(event->waitUntil(kvtest::pastDeadline()));
}

TEST_P(EventModes, AutomaticResetReleasesOneBlockedWaiterPerSet) {
    const std::string shared = name("ev");
    std::unique_ptr<event_handle> event = open(false, false, shared);
    kvtest::Signal ready, released;
    std::vector<std::unique_ptr<kvtest::Child>> children;
    for (int i = 0; i < 2; ++i) {
        children.push_back(std::make_unique<kvtest::Child>([&] {
            std::unique_ptr<event_handle> other = open(false, false, shared);
            ready.notify();
            if (!other->waitUntil(kvtest::boundedDeadline()))
                return 1;
            released.notify();
            return 0;
        }));
    }
    ASSERT_TRUE(ready.waitFor());
    ASSERT_TRUE(ready.waitFor());
    std::this_thread::sleep_for(30ms);
    event->set();
    EXPECT_TRUE(released.waitFor());
    EXPECT_FALSE(released.waitFor(50ms)) << "one set released two waiters";
    event->set();
    EXPECT_TRUE(released.waitFor());
    for (auto& child : children)
        EXPECT_EQ(child->wait().exitCode, 0);
    EXPECT_FALSE(event->waitUntil(kvtest::pastDeadline()));
}

TEST(HandleClasses, AreDestroyedThroughAVirtualDestructor) {
    EXPECT_TRUE(std::has_virtual_destructor<event_handle>::value);
    EXPECT_TRUE(std::has_virtual_destructor<semaphore_handle>::value);
    EXPECT_TRUE(std::has_virtual_destructor<rw_mutex_handle>::value);
}

INSTANTIATE_TEST_SUITE_P(Modes, EventModes, ::testing::ValuesIn(kModes),
                         [](const ::testing::TestParamInfo<EventMode>& info) { return info.param.title; });

class ClassOnlyModes : public kvtest::SyncManagerTest {};

TEST_F(ClassOnlyModes, SystemVEventDropsTheConditionWithAWarning) {
    const std::string shared = name("ev");
    std::unique_ptr<event_handle> event;
    const std::string printed = kvtest::captureStdout(
        [&] { event = std::make_unique<event_handle>(false, false, shared.c_str(), true, true); });
    EXPECT_EQ(printed, "warning: can not use condition because semaphore is managed by OS, it should be system V "
                       "semaphore.\n");
    EXPECT_EQ(kvtest::segmentSize(shared), 60);
    kvtest::MappedObject memory(shared);
    ASSERT_NE(memory.bytes, nullptr);
    EXPECT_EQ(memory.bytes[58], 1);
    EXPECT_EQ(memory.bytes[59], 0);
    event->set();
    EXPECT_TRUE(event->waitUntil(kvtest::pastDeadline()));
}

// The System V semaphore mode makes its keyed set, but nothing writes the
// flag byte, so the operations keep the POSIX path and the last release
// does not remove the set (the test does).
TEST_F(ClassOnlyModes, SemaphoreSystemVModeMakesItsSetBehindAClearFlagByte) {
    const std::string shared = name("sem");
    auto semaphore = std::make_unique<semaphore_handle>(3, shared.c_str(), true);
    EXPECT_EQ(kvtest::segmentSize(shared), 9);
    const key_t key = kvtest::memoryFileKey(shared);
    const int id = semget(key, 1, 0);
    ASSERT_NE(id, -1);
    EXPECT_EQ(semctl(id, 0, GETVAL), 3);
    {
        kvtest::MappedObject memory(shared);
        ASSERT_NE(memory.bytes, nullptr);
        int stored = -1;
        std::memcpy(&stored, memory.bytes + 4, sizeof stored);
        EXPECT_EQ(stored, id);
        EXPECT_EQ(memory.bytes[8], 0);
    }
    semaphore.reset();
    EXPECT_EQ(kvtest::segmentSize(shared), -1);
    EXPECT_EQ(semctl(id, 0, IPC_RMID), 0) << "the set outlives the semaphore";
}

} // namespace
