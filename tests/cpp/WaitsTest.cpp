// Chrono deadlines of the event, semaphore and condition owners.
#include <gtest/gtest.h>

#include <korvane/korvane.hpp>
#include <thread>

#include "TestSupport.h"

using namespace std::chrono;

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

// Zero and past deadlines only look; an unbounded one still takes a set event.
TEST(CppWaits, ZeroAndPastDeadlinesReturnAtOnceAndFarOnesDoNotOverflow) {
    korvane::Event event(true, false);
    korvane::Semaphore units(1);
    EXPECT_FALSE(event.wait_for(0ms));
    EXPECT_FALSE(event.wait_until(steady_clock::now() - 1s));
    event.set();
    EXPECT_TRUE(event.wait_until(steady_clock::time_point::max()));
    EXPECT_TRUE(units.try_acquire());
    EXPECT_FALSE(units.try_acquire());
    units.release();
    EXPECT_TRUE(units.wait_until(steady_clock::now() - 1s));
}

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
