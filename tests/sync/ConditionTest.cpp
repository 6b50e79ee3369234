// The private condition variable with its own mutex.
#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "SyncObjectsSupport.h"
#include "korvane/sync.h"

namespace {

TEST(Condition, NullHandleWaitsAnswerZeroAndTheRestDoNothing) {
    EXPECT_EQ(os_condition_wait(nullptr), 0);
    EXPECT_EQ(os_condition_wait_timeout(nullptr, kvtest::pastDeadline()), 0);
    os_condition_lock(nullptr);
    os_condition_unlock(nullptr);
    os_condition_signal(nullptr);
    condition_handle* none = nullptr;
    os_condition_destroy(&none);
    os_condition_destroy(nullptr);
}

TEST(Condition, HandleAddressIsItsMutex) {
    condition_handle* condition = os_condition_create();
    os_condition_lock(condition);
    EXPECT_EQ(pthread_mutex_trylock(reinterpret_cast<pthread_mutex_t*>(condition)), EBUSY);
    os_condition_unlock(condition);
    EXPECT_EQ(pthread_mutex_trylock(reinterpret_cast<pthread_mutex_t*>(condition)), 0);
    pthread_mutex_unlock(reinterpret_cast<pthread_mutex_t*>(condition));
    os_condition_destroy(&condition);
    EXPECT_EQ(condition, nullptr);
}

TEST(Condition, PassedMonotonicDeadlineTimesOutAtOnce) {
    condition_handle* condition = os_condition_create();
    os_condition_lock(condition);
    EXPECT_EQ(os_condition_wait_timeout(condition, kvtest::pastDeadline()), 1);
    os_condition_unlock(condition);
    os_condition_destroy(&condition);
}

TEST(Condition, MalformedDeadlineIsAnotherError) {
    condition_handle* condition = os_condition_create();
    timespec malformed = kvtest::boundedDeadline();
    malformed.tv_nsec = 1000000000;
    os_condition_lock(condition);
    EXPECT_EQ(os_condition_wait_timeout(condition, malformed), 2);
    os_condition_unlock(condition);
    os_condition_destroy(&condition);
}

TEST(Condition, SignalWakesAWaiterOnTheMonotonicClock) {
    condition_handle* condition = os_condition_create();
    bool ready = false;
    std::atomic<int> waiting{0};
    std::atomic<int> result{-1};
    std::thread waiter([&] {
        const timespec deadline = kvtest::boundedDeadline();
        os_condition_lock(condition);
        waiting = 1;
        int code = 0;
        while (!ready && code == 0)
            code = os_condition_wait_timeout(condition, deadline);
        result = ready ? code : 3;
        os_condition_unlock(condition);
    });
    ASSERT_TRUE(kvtest::eventually([&] { return waiting == 1; }));
    os_condition_lock(condition);
    ready = true;
    os_condition_signal(condition);
    os_condition_unlock(condition);
    waiter.join();
    EXPECT_EQ(result, 0);
    os_condition_destroy(&condition);
}

} // namespace
