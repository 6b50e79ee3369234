// The private condition with its own mutex: wait codes, the handle as its
// mutex, null handles, and a wake-up on the monotonic clock.
#include <pthread.h>

#include <cerrno>
#include <thread>

#include "SyncTestSupport.h"

namespace {

using namespace kvtest;

TEST(Condition, WaitCodesNullHandlesAndTheHandleAsItsMutex) {
    EXPECT_EQ(os_condition_wait(nullptr), 0) << "a null handle answers as a wake-up";
    EXPECT_EQ(os_condition_wait_timeout(nullptr, pastDeadline()), 0);
    os_condition_lock(nullptr);
    os_condition_unlock(nullptr);
    os_condition_signal(nullptr);
    os_condition_destroy(nullptr);
    condition_handle* condition = os_condition_create();
    os_condition_lock(condition);
    EXPECT_EQ(pthread_mutex_trylock(reinterpret_cast<pthread_mutex_t*>(condition)), EBUSY) << "the handle is its mutex";
    EXPECT_EQ(os_condition_wait_timeout(condition, pastDeadline()), 1);
    timespec malformed = boundedDeadline();
    malformed.tv_nsec = 1000000000;
    EXPECT_EQ(os_condition_wait_timeout(condition, malformed), 2);
    os_condition_signal(condition);
    EXPECT_EQ(os_condition_wait_timeout(condition, monotonicDeadline(20ms)), 1) << "a signal with no waiter is lost";
    bool ready = false;
    std::thread signaller([&] {
        os_condition_lock(condition); // once the wait below has released it
        ready = true;
        os_condition_signal(condition);
        os_condition_unlock(condition);
    });
    const timespec deadline = boundedDeadline();
    int code = 0;
    while (!ready && code == 0)
        code = os_condition_wait_timeout(condition, deadline);
    EXPECT_EQ(code, 0) << "the signal must wake the wait before its deadline";
    os_condition_unlock(condition);
    signaller.join();
    os_condition_destroy(&condition);
    EXPECT_EQ(condition, nullptr);
}

} // namespace
