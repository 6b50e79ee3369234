// Counting semaphores through the exported functions: unnamed ones, and named
// ones shared with forked processes.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "SyncObjectsSupport.h"
#include "korvane/sync.h"

using namespace std::chrono_literals;

namespace {

bool takeAtOnce(semaphore_handle* semaphore) {
    return os_semaphore_wait_timeout(semaphore, kvtest::pastDeadline());
}

TEST(Semaphore, NullHandleFailsEverything) {
    EXPECT_FALSE(os_semaphore_wait(nullptr));
    EXPECT_FALSE(os_semaphore_wait_timeout(nullptr, kvtest::pastDeadline()));
    EXPECT_FALSE(os_semaphore_set_undo_track(nullptr, true));
    os_semaphore_release(nullptr);
    semaphore_handle* none = nullptr;
    os_semaphore_destroy(&none);
    os_semaphore_destroy(nullptr);
}

TEST(Semaphore, UnnamedCountsItsUnits) {
    semaphore_handle* semaphore = os_semaphore_create(2, nullptr);
    EXPECT_TRUE(os_semaphore_set_undo_track(semaphore, true));
    EXPECT_TRUE(os_semaphore_wait(semaphore));
    EXPECT_TRUE(takeAtOnce(semaphore));
    EXPECT_FALSE(takeAtOnce(semaphore)) << "the third take finds nothing";
    os_semaphore_release(semaphore);
    EXPECT_TRUE(takeAtOnce(semaphore));
    os_semaphore_destroy(&semaphore);
    EXPECT_EQ(semaphore, nullptr);
}

TEST(Semaphore, UnnamedNegativeCountStartsEmpty) {
    semaphore_handle* semaphore = os_semaphore_create(-1, nullptr);
    EXPECT_FALSE(takeAtOnce(semaphore));
    os_semaphore_release(semaphore);
    EXPECT_TRUE(takeAtOnce(semaphore));
    os_semaphore_destroy(&semaphore);
}

TEST(Semaphore, UnnamedReleaseWakesABlockedWait) {
    semaphore_handle* semaphore = os_semaphore_create(0, nullptr);
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = os_semaphore_wait_timeout(semaphore, kvtest::boundedDeadline()) ? 1 : 0; });
    std::this_thread::sleep_for(20ms);
    os_semaphore_release(semaphore);
    waiter.join();
    EXPECT_EQ(result, 1);
    os_semaphore_destroy(&semaphore);
}

class NamedSemaphore : public kvtest::SyncManagerTest {};

TEST_F(NamedSemaphore, UnusableHandlesFailEveryWait) {
    const std::string overlong(1024, 's');
    for (const std::string& name : {overlong, std::string()}) {
        semaphore_handle* semaphore = os_semaphore_create(3, name.c_str());
        EXPECT_FALSE(os_semaphore_wait(semaphore)) << "name of " << name.size() << " characters";
        EXPECT_FALSE(takeAtOnce(semaphore));
        os_semaphore_release(semaphore);
        os_semaphore_destroy(&semaphore);
    }
}

TEST_F(NamedSemaphore, ObjectMemoryHasThePosixLayoutAndGoesWithTheLastHandle) {
    const std::string shared = name("sem");
    semaphore_handle* first = os_semaphore_create(1, shared.c_str());
    EXPECT_EQ(kvtest::segmentSize(shared), 37);
    semaphore_handle* second = os_semaphore_create(1, shared.c_str());
    EXPECT_EQ(kvtest::openCountOf(shared), 2);
    {
        kvtest::MappedObject memory(shared);
        ASSERT_NE(memory.bytes, nullptr);
        EXPECT_EQ(memory.bytes[36], 0) << "the System V flag byte stays 0";
    }
    os_semaphore_destroy(&first);
    EXPECT_EQ(kvtest::openCountOf(shared), 1);
    os_semaphore_destroy(&second);
    EXPECT_EQ(kvtest::segmentSize(shared), -1);
}

TEST_F(NamedSemaphore, ProcessesShareOneCounterAndLaterCountsAreIgnored) {
    const std::string shared = name("sem");
    semaphore_handle* semaphore = os_semaphore_create(1, shared.c_str());
    const kvtest::ChildResult child = kvtest::runInChild([&] {
        semaphore_handle* other = os_semaphore_create(5, shared.c_str());
        const bool tookOne = takeAtOnce(other);
        const bool thenEmpty = !takeAtOnce(other);
        os_semaphore_release(other);
        os_semaphore_release(other);
        os_semaphore_destroy(&other);
        return tookOne && thenEmpty ? 0 : 1;
    });
    EXPECT_TRUE(child.exited && child.exitCode == 0);
    EXPECT_TRUE(takeAtOnce(semaphore));
    EXPECT_TRUE(takeAtOnce(semaphore));
    EXPECT_FALSE(takeAtOnce(semaphore));
    os_semaphore_destroy(&semaphore);
}

TEST_F(NamedSemaphore, ReleaseInOneProcessWakesAWaitBlockedInAnother) {
    const std::string shared = name("sem");
    semaphore_handle* semaphore = os_semaphore_create(0, shared.c_str());
    kvtest::Signal ready;
    kvtest::Child blocked([&] {
        semaphore_handle* other = os_semaphore_create(0, shared.c_str());
        ready.notify();
        const bool took = os_semaphore_wait(other);
        const bool timed = os_semaphore_wait_timeout(other, kvtest::boundedDeadline());
        os_semaphore_destroy(&other);
        return took && timed ? 0 : 1;
    });
    ASSERT_TRUE(ready.waitFor());
    for (int unit = 0; unit < 2; ++unit) {
        std::this_thread::sleep_for(20ms); // let the child block
        os_semaphore_release(semaphore);
    }
    const kvtest::ChildResult result = blocked.wait();
    EXPECT_TRUE(result.exited && result.exitCode == 0);
    EXPECT_FALSE(takeAtOnce(semaphore));
    os_semaphore_destroy(&semaphore);
}

} // namespace
