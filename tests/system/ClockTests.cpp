// Clocks, spans, normalisation, clock conversion and the two sleeps.
#include <pthread.h>
#include <signal.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <chrono>
#include <cstdlib>

#include "SignalHelpers.h"
#include "korvane/system.h"

namespace {

using namespace std::chrono_literals;
using sigtest::nanoseconds;

struct Normalisation {
    struct timespec in;
    struct timespec expected;
};

class ClockNormalisation : public ::testing::TestWithParam<Normalisation> {};

TEST_P(ClockNormalisation, StepsWholeSecondsIntoRange) {
    struct timespec value = GetParam().in;
    os_clock_adjust_clock_time(&value);
    EXPECT_EQ(value.tv_sec, GetParam().expected.tv_sec);
    EXPECT_EQ(value.tv_nsec, GetParam().expected.tv_nsec);
}

INSTANTIATE_TEST_SUITE_P(Table, ClockNormalisation,
                         ::testing::Values(Normalisation{{5, -1}, {4, 999999999}},
                                           Normalisation{{0, 2000000000}, {2, 0}},
                                           Normalisation{{7, 999999999}, {7, 999999999}},
                                           Normalisation{{0, -2000000000}, {-2, 0}},
                                           Normalisation{{0, 0}, {0, 0}},
                                           Normalisation{{1, 1000000000}, {2, 0}},
                                           Normalisation{{3, -1000000001}, {1, 999999999}},
                                           Normalisation{{-1, 1500000000}, {0, 500000000}}));

TEST(ClockSpan, SubtractsFieldByFieldWithoutNormalising) {
    const struct timespec start = {10, 900000000};
    const struct timespec end = {11, 100000000};
    struct timespec span = {99, 99};
    os_clock_get_clock_span(&start, &end, &span);
    EXPECT_EQ(span.tv_sec, 1);
    EXPECT_EQ(span.tv_nsec, -800000000);
    os_clock_adjust_clock_time(&span);
    EXPECT_EQ(span.tv_sec, 0);
    EXPECT_EQ(span.tv_nsec, 200000000);
}

TEST(ClockTime, PassesThePlatformFailureThrough) {
    struct timespec value = {0, 0};
    errno = 0;
    EXPECT_EQ(os_clock_get_time(0x7fff, &value), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(os_clock_get_time(1, nullptr), -1);
}

TEST(ClockConversion, RoundTripKeepsTheInstant) {
    struct timespec monotonic = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &monotonic), 0);
    monotonic.tv_nsec = 999999990; // close to a carry on purpose
    struct timespec realtime = {0, 0};
    struct timespec back = {0, 0};
    os_clock_monotonic_to_realtime(&monotonic, &realtime);
    os_clock_realtime_to_monotonic(&realtime, &back);
    EXPECT_GE(realtime.tv_nsec, 0);
    EXPECT_LE(realtime.tv_nsec, 999999999);
    EXPECT_GE(back.tv_nsec, 0);
    EXPECT_LE(back.tv_nsec, 999999999);
    // Only the time between the readings separates the two instants.
    EXPECT_LT(std::llabs(nanoseconds(back) - nanoseconds(monotonic)), 50'000'000LL);
}

TEST(ClockConversion, MapsNowOntoNowOfTheOtherClock) {
    struct timespec monotonicNow = {0, 0};
    struct timespec realtimeNow = {0, 0};
    struct timespec converted = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &monotonicNow), 0);
    os_clock_monotonic_to_realtime(&monotonicNow, &converted);
    ASSERT_EQ(os_clock_get_time(0, &realtimeNow), 0);
    EXPECT_LT(std::llabs(nanoseconds(converted) - nanoseconds(realtimeNow)), 50'000'000LL);

    os_clock_realtime_to_monotonic(&realtimeNow, &converted);
    ASSERT_EQ(os_clock_get_time(1, &monotonicNow), 0);
    EXPECT_LT(std::llabs(nanoseconds(converted) - nanoseconds(monotonicNow)), 50'000'000LL);
}

TEST(DeadlineSleep, ReachesAFutureDeadline) {
    struct timespec deadline = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &deadline), 0);
    const long long start = nanoseconds(deadline);
    deadline.tv_nsec += 30000000;
    os_clock_adjust_clock_time(&deadline);
    EXPECT_EQ(os_clock_nano_sleep(&deadline), 0);
    struct timespec now = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &now), 0);
    EXPECT_GE(nanoseconds(now) - start, 30'000'000LL);
}

TEST(DeadlineSleep, PastDeadlineReturnsAtOnce) {
    struct timespec deadline = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &deadline), 0);
    deadline.tv_sec -= 10;
    EXPECT_EQ(os_clock_nano_sleep(&deadline), 0);
}

TEST(DeadlineSleep, InvalidDeadlineReturnsTheErrorNumber) {
    const struct timespec bad = {0, 1000000000};
    EXPECT_EQ(os_clock_nano_sleep(&bad), EINVAL);
    EXPECT_EQ(os_clock_nano_sleep(nullptr), EFAULT);
}

// A signal ends the deadline sleep early with EINTR (the platform reports the
// interruption as a result, which the retry on -1 never sees).
TEST(DeadlineSleep, SignalEndsTheSleepWithEintr) {
    sigtest::SignalCatcher catcher(SIGUSR1);
    struct timespec deadline = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &deadline), 0);
    deadline.tv_sec += 5;
    sigtest::Interrupter interrupter(pthread_self(), SIGUSR1, 50ms);
    EXPECT_EQ(os_clock_nano_sleep(&deadline), EINTR);
    struct timespec now = {0, 0};
    ASSERT_EQ(os_clock_get_time(1, &now), 0);
    EXPECT_LT(nanoseconds(now), nanoseconds(deadline));
}

TEST(RelativeSleep, ZeroReturnsAtOnce) {
    EXPECT_EQ(os_thread_sleep_milliseconds(0), 0);
}

TEST(RelativeSleep, SleepsAtLeastTheWholeTime) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(os_thread_sleep_milliseconds(1500), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 1500ms);
}

TEST(RelativeSleep, SignalsDoNotShortenIt) {
    sigtest::SignalCatcher catcher(SIGUSR1);
    const auto start = std::chrono::steady_clock::now();
    {
        sigtest::Interrupter interrupter(pthread_self(), SIGUSR1, 30ms);
        EXPECT_EQ(os_thread_sleep_milliseconds(200), 0);
    }
    EXPECT_GE(catcher.count(), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 200ms);
}

// Values far out of range wrap around field by field instead of overflowing.
TEST(ClockSpan, ExtremeValuesWrapAround) {
    const struct timespec start = {INT64_MIN, LONG_MIN};
    const struct timespec end = {INT64_MAX, LONG_MAX};
    struct timespec span = {0, 0};
    os_clock_get_clock_span(&start, &end, &span);
    EXPECT_EQ(span.tv_sec, -1);
    EXPECT_EQ(span.tv_nsec, -1);
    struct timespec lowest = {INT64_MIN, -1};
    os_clock_adjust_clock_time(&lowest);
    EXPECT_EQ(lowest.tv_sec, INT64_MAX);
    EXPECT_EQ(lowest.tv_nsec, 999999999);
    struct timespec converted = {0, 0};
    const struct timespec far = {INT64_MAX, 0};
    os_clock_monotonic_to_realtime(&far, &converted);
    EXPECT_LT(converted.tv_sec, 0) << "the realtime clock is ahead of the monotonic one";
}

} // namespace
