// The sync owners in the standard library's shapes: lock guards, chrono
// deadlines and condition waits.
#include <korvane/korvane.hpp>
#include <shared_mutex>

#include "../sync/SyncTestSupport.h"

using namespace std::chrono;
using CppLocks = kvtest::SyncTest;

// Two threads add to a counter with a yield between read and write: only a
// guard that really locks keeps every increment. The last owner of the named
// mutex, whoever it was moved to, removes its memory.
TEST_F(CppLocks, LockGuardExcludesAndTheLastOwnerRemovesTheNamedMemory) {
    const std::string mutexName = name("mutex");
    auto mutex = kvtest::openMapped(mutexName, [&] { return std::make_unique<korvane::Mutex>(mutexName); });
    ASSERT_TRUE(mutex->usable());
    int counter = 0;
    const auto addMany = [&] {
        for (int i = 0; i < 2000; ++i) {
            std::lock_guard<korvane::Mutex> hold(*mutex);
            const int seen = counter;
            std::this_thread::yield();
            counter = seen + 1;
        }
    };
    std::thread other(addMany);
    addMany();
    other.join();
    EXPECT_EQ(counter, 4000);
    korvane::Mutex moved(std::move(*mutex));
    EXPECT_EQ(mutex->native_handle(), nullptr);
    moved = korvane::Mutex();
    EXPECT_EQ(kvtest::segmentSize(mutexName), -1);
}

// Without a sync manager a named object is unusable: its lock throws rather
// than return without the lock.
TEST(CppLocksLocal, StandardGuardsWorkAndAnUnusableNamedMutexThrows) {
    korvane::SharedMutex lock;
    std::shared_lock<korvane::SharedMutex> reader(lock);
    std::thread([&] { std::shared_lock<korvane::SharedMutex> second(lock); }).join();
    reader.unlock();
    std::unique_lock<korvane::SharedMutex> writer(lock);
    korvane::RecursiveMutex recursive;
    std::scoped_lock<korvane::RecursiveMutex> outer(recursive), inner(recursive);
    korvane::Mutex unusable(kvtest::uniqueName("nomanager"));
    EXPECT_THROW(std::lock_guard<korvane::Mutex>{unusable}, std::system_error);
}

TEST(CppDeadlines, SteadyInstantsMapOntoMonotonicDeadlinesAndSaturate) {
    const time_t far = time_t{1} << 32;
    const auto at = [](steady_clock::time_point instant) {
        const timespec deadline = korvane::detail::deadline_at(instant);
        return std::make_pair(deadline.tv_sec, deadline.tv_nsec);
    };
    EXPECT_EQ(at(steady_clock::time_point(seconds(5) + nanoseconds(7))), std::make_pair(time_t{5}, 7L));
    EXPECT_EQ(at(steady_clock::time_point::min()), std::make_pair(time_t{0}, 0L));
    EXPECT_EQ(at(steady_clock::time_point::max()), std::make_pair(far, 0L));
    EXPECT_EQ(korvane::detail::deadline_after(hours::max()).tv_sec, far);
}

// A zero span only looks; the predicate wait loops until it holds; a wait
// without the condition's lock throws as the standard's waits do.
TEST(CppWaits, ConditionWaitsWithUniqueLockAndPredicates) {
    korvane::ConditionVariable condition;
    korvane::ConditionVariable::Lock lock(condition);
    EXPECT_EQ(condition.wait_for(lock, 0ms), std::cv_status::timeout);
    bool ready = false;
    std::thread setter([&] {
        std::lock_guard<korvane::ConditionVariable> hold(condition);
        ready = true;
        condition.notify_one();
    });
    EXPECT_TRUE(condition.wait_for(lock, kvtest::kDefaultTimeout, [&] { return ready; }));
    lock.unlock();
    setter.join();
    EXPECT_THROW(condition.wait(lock), std::system_error);
}
