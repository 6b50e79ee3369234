// The sync owners in the standard library's shapes: lock guards, chrono
// deadlines and condition waits. The reader-writer lock's reader side under
// std::shared_lock is tested with the lock itself (tests/sync, RWMutex).
#include "../sync/SyncTestSupport.h" // with korvane/korvane.hpp

using namespace std::chrono;
using CppLocks = kvtest::SyncTest;

// The last owner of a named mutex, whoever it was moved to, removes its
// memory. Without a sync manager a named mutex is unusable: its lock throws
// rather than return without the lock.
TEST_F(CppLocks, MovesHandOverTheHandleAndUnusableNamedMutexesThrow) {
    const std::string mutexName = name("moved");
    auto mutex = kvtest::openMapped(mutexName, [&] { return std::make_unique<korvane::Mutex>(mutexName); });
    std::lock_guard<korvane::Mutex>{*mutex}; // a usable one locks without throwing
    korvane::Mutex moved(std::move(*mutex));
    EXPECT_EQ(mutex->native_handle(), nullptr);
    moved = korvane::Mutex();
    EXPECT_EQ(kvtest::segmentSize(mutexName), -1);
    os_sync_environment_uninitialize();
    korvane::Mutex unusable(kvtest::uniqueName("nomanager"));
    EXPECT_FALSE(unusable.usable());
    EXPECT_THROW(std::lock_guard<korvane::Mutex>{unusable}, std::system_error);
}

// Steady instants map onto monotonic deadlines and saturate. A zero span only
// looks; a predicate wait gives the last answer of the predicate; a wait
// without the condition's lock throws as the standard's do.
TEST(CppLocal, DeadlinesAndConditionWaits) {
    const time_t far = time_t{1} << 32;
    const auto at = [](steady_clock::time_point instant) {
        const timespec deadline = korvane::detail::deadline_at(instant);
        return std::make_pair(deadline.tv_sec, deadline.tv_nsec);
    };
    EXPECT_EQ(at(steady_clock::time_point(seconds(5) + nanoseconds(7))), std::make_pair(time_t{5}, 7L));
    EXPECT_EQ(at(steady_clock::time_point::min()), std::make_pair(time_t{0}, 0L));
    EXPECT_EQ(at(steady_clock::time_point::max()), std::make_pair(far, 0L));
    EXPECT_EQ(korvane::detail::deadline_after(hours::max()).tv_sec, far);
    korvane::ConditionVariable condition;
    korvane::ConditionVariable::Lock lock(condition);
    EXPECT_EQ(condition.wait_for(lock, 0ms), std::cv_status::timeout);
    EXPECT_FALSE(condition.wait_until(lock, steady_clock::now() + 1ms, [] { return false; }));
    lock.unlock();
    EXPECT_THROW(condition.wait(lock), std::system_error);
}
