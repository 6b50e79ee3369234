// Chrono deadlines of the event, semaphore and condition owners.
#include <korvane/korvane.hpp>
#include <thread>

#include "SyncTestSupport.h"

namespace {

using namespace std::chrono;
using korvane::detail::deadline_after;
using korvane::detail::deadline_at;

TEST(CppDeadlines, SteadyInstantsMapOntoMonotonicDeadlinesAndSaturate) {
    const struct {
        steady_clock::time_point instant;
        time_t seconds;
        long nanoseconds;
    } table[] = {
        {steady_clock::time_point(seconds(5) + nanoseconds(7)), 5, 7},
        {steady_clock::time_point(-seconds(3)), 0, 0},
        {steady_clock::time_point::min(), 0, 0},
        {steady_clock::time_point::max(), time_t{1} << 32, 0},
    };
    for (const auto& row : table) {
        const timespec deadline = deadline_at(row.instant);
        EXPECT_EQ(deadline.tv_sec, row.seconds);
        EXPECT_EQ(deadline.tv_nsec, row.nanoseconds);
    }
    EXPECT_EQ(deadline_at(time_point<steady_clock, hours>(hours::max())).tv_sec, time_t{1} << 32);
    EXPECT_EQ(deadline_after(hours::max()).tv_sec, time_t{1} << 32);
    const timespec before = deadline_after(-hours(1)), now = deadline_at(steady_clock::now());
    EXPECT_GE(now.tv_sec * 1000000000LL + now.tv_nsec, before.tv_sec * 1000000000LL + before.tv_nsec);
}

// Zero and past deadlines only look; an unbounded one still takes a set event.
TEST(CppWaits, ZeroAndPastDeadlinesReturnAtOnceAndFarOnesDoNotOverflow) {
    korvane::Event event(true, false);
    korvane::Semaphore units(1);
    EXPECT_FALSE(event.wait_for(0ms));
    EXPECT_FALSE(event.wait_until(steady_clock::now() - 1s));
    event.set();
    EXPECT_TRUE(event.wait_until(steady_clock::time_point::max()));
    EXPECT_TRUE(event.wait_for(hours::max()));
    EXPECT_TRUE(units.try_acquire());
    EXPECT_FALSE(units.try_acquire());
    EXPECT_FALSE(units.wait_for(0ms));
    units.release();
    EXPECT_TRUE(units.wait_until(steady_clock::now() - 1s));
}

TEST(CppWaits, ConditionWaitsWithUniqueLockAndPredicates) {
    korvane::ConditionVariable condition;
    korvane::ConditionVariable::Lock lock(condition);
    EXPECT_EQ(condition.wait_for(lock, 0ms), std::cv_status::timeout);
    EXPECT_FALSE(condition.wait_until(lock, steady_clock::now() - 1s, [] { return false; }));
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

TEST(CppWaits, OwnersMoveTheirHandles) {
    korvane::Semaphore first(1);
    korvane::Semaphore second(std::move(first));
    EXPECT_FALSE(first.try_acquire());
    EXPECT_TRUE(second.try_acquire());
    first = std::move(second);
    EXPECT_EQ(second.native_handle(), nullptr);
}

} // namespace
