// Events through the exported functions: unnamed ones, and named ones shared
// with forked processes (the condition mode os_event_create selects).
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "SyncObjectsSupport.h"
#include "korvane/sync.h"

using namespace std::chrono_literals;

namespace {

// A run of operations on one event: 'S' set, 'R' reset, '1' a wait with a
// passed deadline that must succeed, '0' one that must fail.
struct ResetScenario {
    const char* title;
    bool manualReset;
    bool initialState;
    const char* steps;
};

const ResetScenario kResetScenarios[] = {
    {"AutomaticCreatedSetReleasesOneWait", false, true, "10"},
    {"AutomaticCreatedClearReleasesNone", false, false, "0"},
    {"AutomaticTwoSetsCountOnce", false, false, "SS10"},
    {"AutomaticResetTakesTheSetBack", false, false, "SR0S10"},
    {"ManualCreatedSetReleasesEveryWaitUntilReset", true, true, "111R0"},
    {"ManualSetReleasesEveryWaitUntilReset", true, false, "S111R00S1"},
    {"ManualTwoSetsNeedOneReset", true, false, "SS11R0"},
};

void playScenario(event_handle* event, const ResetScenario& scenario) {
    int index = 0;
    for (const char* step = scenario.steps; *step != '\0'; ++step, ++index) {
        switch (*step) {
        case 'S':
            os_event_set_event(event);
            break;
        case 'R':
            os_event_reset_event(event);
            break;
        default:
            EXPECT_EQ(os_event_wait_timeout(event, kvtest::pastDeadline()), *step == '1')
                << scenario.title << ", step " << index;
        }
    }
}

class EventReset : public kvtest::SyncManagerTest, public ::testing::WithParamInterface<ResetScenario> {};

TEST_P(EventReset, Unnamed) {
    event_handle* event = os_event_create(GetParam().manualReset, GetParam().initialState, nullptr);
    playScenario(event, GetParam());
    os_event_destroy(&event);
    EXPECT_EQ(event, nullptr);
}

TEST_P(EventReset, Named) {
    event_handle* event = os_event_create(GetParam().manualReset, GetParam().initialState, name("ev").c_str());
    playScenario(event, GetParam());
    os_event_destroy(&event);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, EventReset, ::testing::ValuesIn(kResetScenarios),
                         [](const ::testing::TestParamInfo<ResetScenario>& info) { return info.param.title; });

TEST(Event, NullHandleDoesNothingAndWaitsFail) {
    EXPECT_FALSE(os_event_wait(nullptr));
    EXPECT_FALSE(os_event_wait_timeout(nullptr, kvtest::pastDeadline()));
    os_event_set_event(nullptr);
    os_event_reset_event(nullptr);
    event_handle* none = nullptr;
    os_event_destroy(&none);
    os_event_destroy(nullptr);
}

TEST(Event, NamedWithoutASyncManagerIsUnusable) {
    const std::string name = kvtest::uniqueName("nomgr");
    event_handle* event = nullptr;
    const std::string printed = kvtest::captureStdout([&] { event = os_event_create(true, true, name.c_str()); });
    EXPECT_NE(printed.find("Error: Can not open"), std::string::npos);
    ASSERT_NE(event, nullptr);
    EXPECT_FALSE(os_event_wait(event)) << "an unusable event must not block or succeed";
    os_event_set_event(event);
    EXPECT_FALSE(os_event_wait_timeout(event, kvtest::pastDeadline()));
    os_event_destroy(&event);
    EXPECT_TRUE(kvtest::shmEntriesContaining(name).empty());
}

// Waiting threads and how many of them came back with the event.
struct Waiters {
    std::atomic<int> released{0};
    std::atomic<int> failed{0};
    std::vector<std::thread> threads;
    Waiters(event_handle* event, int count) {
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this, event] {
                if (os_event_wait_timeout(event, kvtest::boundedDeadline()))
                    ++released;
                else
                    ++failed;
            });
    }
    ~Waiters() {
        for (std::thread& thread : threads)
            thread.join();
    }
};

TEST(Event, AutomaticResetReleasesOneWaiterPerSet) {
    event_handle* event = os_event_create(false, false, nullptr);
    {
        Waiters waiters(event, 3);
        for (int set = 1; set <= 3; ++set) {
            os_event_set_event(event);
            EXPECT_TRUE(kvtest::eventually([&] { return waiters.released == set; })) << "set " << set;
            std::this_thread::sleep_for(20ms);
            EXPECT_EQ(waiters.released, set) << "one set released more than one waiter";
        }
    }
    os_event_destroy(&event);
}

TEST(Event, ManualResetReleasesEveryWaiter) {
    event_handle* event = os_event_create(true, false, nullptr);
    {
        Waiters waiters(event, 4);
        std::this_thread::sleep_for(20ms);
        os_event_set_event(event);
        EXPECT_TRUE(kvtest::eventually([&] { return waiters.released == 4; }));
    }
    os_event_destroy(&event);
}

class NamedEvent : public kvtest::SyncManagerTest {};

TEST_F(NamedEvent, ObjectMemoryHasTheConditionLayoutAndGoesWithTheLastHandle) {
    const std::string shared = name("ev");
    event_handle* first = os_event_create(true, true, shared.c_str());
    EXPECT_EQ(kvtest::segmentSize(shared), 104);
    event_handle* second = os_event_create(false, false, shared.c_str());
    EXPECT_EQ(kvtest::openCountOf(shared), 2);
    {
        kvtest::MappedObject memory(shared);
        ASSERT_NE(memory.bytes, nullptr);
        const uint8_t flags[4] = {memory.bytes[100], memory.bytes[101], memory.bytes[102], memory.bytes[103]};
        EXPECT_EQ(flags[0], 1) << "manual reset";
        EXPECT_EQ(flags[1], 1) << "state";
        EXPECT_EQ(flags[2], 0) << "System V flag";
        EXPECT_EQ(flags[3], 1) << "condition flag";
    }
    os_event_destroy(&first);
    EXPECT_EQ(kvtest::openCountOf(shared), 1);
    EXPECT_TRUE(os_event_wait_timeout(second, kvtest::pastDeadline())) << "the first creator's arguments hold";
    os_event_destroy(&second);
    EXPECT_EQ(kvtest::segmentSize(shared), -1);
}

TEST_F(NamedEvent, OverlongNameGivesAnUnusableHandle) {
    const std::string overlong(1024, 'e');
    event_handle* event = os_event_create(true, true, overlong.c_str());
    EXPECT_FALSE(os_event_wait(event));
    os_event_destroy(&event);
}

TEST_F(NamedEvent, SecondProcessSharesTheStateAndItsArgumentsAreIgnored) {
    const std::string shared = name("ev");
    event_handle* event = os_event_create(false, false, shared.c_str());
    const kvtest::ChildResult child = kvtest::runInChild([&] {
        event_handle* other = os_event_create(true, true, shared.c_str());
        const bool clear = !os_event_wait_timeout(other, kvtest::pastDeadline());
        const bool counted = kvtest::openCountOf(shared) == 2;
        os_event_set_event(other);
        os_event_destroy(&other);
        return clear && counted ? 0 : 1;
    });
    EXPECT_TRUE(child.exited && child.exitCode == 0);
    EXPECT_EQ(kvtest::openCountOf(shared), 1);
    EXPECT_TRUE(os_event_wait_timeout(event, kvtest::pastDeadline())) << "the other process's set is seen here";
    EXPECT_FALSE(os_event_wait_timeout(event, kvtest::pastDeadline())) << "automatic reset, as first created";
    os_event_destroy(&event);
}

TEST_F(NamedEvent, SetInOneProcessReleasesWaitersInOthers) {
    const std::string shared = name("ev");
    event_handle* event = os_event_create(true, false, shared.c_str());
    kvtest::Signal ready;
    std::vector<std::unique_ptr<kvtest::Child>> children;
    for (int i = 0; i < 2; ++i) {
        children.push_back(std::make_unique<kvtest::Child>([&] {
            event_handle* other = os_event_create(true, false, shared.c_str());
            ready.notify();
            const bool released = os_event_wait(other);
            os_event_destroy(&other);
            return released ? 0 : 1;
        }));
    }
    ASSERT_TRUE(ready.waitFor());
    ASSERT_TRUE(ready.waitFor());
    std::this_thread::sleep_for(20ms); // let both block
    os_event_set_event(event);
    for (auto& child : children) {
        const kvtest::ChildResult result = child->wait();
        EXPECT_TRUE(result.exited && result.exitCode == 0);
    }
    EXPECT_TRUE(os_event_wait_timeout(event, kvtest::pastDeadline())) << "a manual-reset event stays set";
    os_event_reset_event(event);
    EXPECT_FALSE(os_event_wait_timeout(event, kvtest::pastDeadline()));
    os_event_destroy(&event);
}

// A process dies holding the event's mutex (offset 4 of the memory): the next
// operation repairs the mutex and goes on, silently. The repair runs in a
// child so that a fault fails the test instead of hanging it.
TEST_F(NamedEvent, OwnerDeathOfTheMutexIsRepairedByTheNextSet) {
    const std::string shared = name("ev");
    event_handle* event = os_event_create(false, false, shared.c_str());
    const kvtest::ChildResult dead = kvtest::runInChild([&] {
        kvtest::MappedObject memory(shared);
        pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(memory.bytes + 4));
        _exit(0); // still mapped: the kernel marks the mutex as its owner's death
        return 0;
    });
    ASSERT_TRUE(dead.exited);
    const kvtest::ChildResult repairer = kvtest::runInChild(
        [&] {
            os_event_set_event(event);
            return os_event_wait_timeout(event, kvtest::pastDeadline()) ? 0 : 1;
        },
        kvtest::kDefaultTimeout, true);
    EXPECT_TRUE(repairer.exited && repairer.exitCode == 0);
    EXPECT_EQ(repairer.output, "");
    os_event_set_event(event);
    EXPECT_TRUE(os_event_wait_timeout(event, kvtest::pastDeadline())) << "the mutex was left unusable";
    os_event_destroy(&event);
}

} // namespace
