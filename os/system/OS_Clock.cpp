// Clocks, deadlines and sleeping. Every timed wait of the library builds its
// deadline from these functions.
#include <cerrno>
#include <ctime>
#include <limits>
#include <type_traits>

#include "korvane/system.h"

namespace {

constexpr long kNanosecondsPerSecond = 1000000000L;

// Field arithmetic wraps around instead of overflowing, so values far out of
// range give a wrapped result rather than undefined behaviour.
template <class T>
T wrappingAdd(T a, T b) {
    using Unsigned = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<Unsigned>(a) + static_cast<Unsigned>(b));
}

template <class T>
T wrappingSubtract(T a, T b) {
    using Unsigned = std::make_unsigned_t<T>;
    return static_cast<T>(static_cast<Unsigned>(a) - static_cast<Unsigned>(b));
}

} // namespace

int os_clock_get_time(uint32_t clock_id, struct timespec* time) {
    // The vDSO reads through the pointer without the kernel's checks.
    if (time == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return clock_gettime(static_cast<clockid_t>(clock_id), time);
}

int os_clock_nano_sleep(const struct timespec* deadline) {
    if (deadline == nullptr)
        return EFAULT;
    for (;;) {
        const int result = clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, deadline, nullptr);
        // clock_nanosleep returns its error number instead of -1, so this
        // retry never fires and a signal ends the sleep with EINTR. Callers
        // rely on being woken by their signals; keep the test on -1.
        if (result == -1) {
            if (errno == EINTR)
                continue;
            return errno;
        }
        return result;
    }
}

void os_clock_get_clock_span(const struct timespec* start, const struct timespec* end, struct timespec* span) {
    if (start == nullptr || end == nullptr || span == nullptr)
        return;
    span->tv_sec = wrappingSubtract(end->tv_sec, start->tv_sec);
    span->tv_nsec = wrappingSubtract(end->tv_nsec, start->tv_nsec);
}

void os_clock_adjust_clock_time(struct timespec* time) {
    if (time == nullptr)
        return;
    // Step by whole seconds rather than divide: callers only ever hold values
    // a few seconds out of range, and the result for negative values must
    // match the stepping rule exactly.
    if (time->tv_nsec < 0) {
        do {
            time->tv_nsec += kNanosecondsPerSecond;
            time->tv_sec = wrappingSubtract<time_t>(time->tv_sec, 1);
        } while (time->tv_nsec < 0);
    } else if (time->tv_nsec > kNanosecondsPerSecond - 1) {
        do {
            time->tv_nsec -= kNanosecondsPerSecond;
            time->tv_sec = wrappingAdd<time_t>(time->tv_sec, 1);
        } while (time->tv_nsec > kNanosecondsPerSecond - 1);
    }
}

namespace {
// Shifts `in` by (to - from) where both clocks are read now, realtime first.
// The offset is taken afresh on every call: the realtime clock may be stepped.
// An instant so far off that the shift overflows saturates at the end of the
// range: a deadline meant as "never" must not wrap round into the past.
void convertInstant(const struct timespec* in, struct timespec* out, bool toRealtime) {
    if (in == nullptr || out == nullptr)
        return;
    struct timespec realtime = {0, 0};
    struct timespec monotonic = {0, 0};
    os_clock_get_time(CLOCK_REALTIME, &realtime);
    os_clock_get_time(CLOCK_MONOTONIC, &monotonic);
    const struct timespec& from = toRealtime ? monotonic : realtime;
    const struct timespec& to = toRealtime ? realtime : monotonic;
    const struct timespec source = *in; // in and out may be the same record
    // The offset between two clock readings is small and normalised; carry
    // its nanoseconds and the input's whole seconds first, so that only the
    // last addition of seconds can overflow.
    struct timespec offset = {wrappingSubtract(to.tv_sec, from.tv_sec), wrappingSubtract(to.tv_nsec, from.tv_nsec)};
    os_clock_adjust_clock_time(&offset);
    const long nanoseconds = source.tv_nsec % kNanosecondsPerSecond + offset.tv_nsec; // (-1 s, 2 s)
    const bool borrow = nanoseconds < 0;
    const time_t carried = source.tv_nsec / kNanosecondsPerSecond + nanoseconds / kNanosecondsPerSecond -
                           (borrow ? 1 : 0) + offset.tv_sec;
    const long rest = nanoseconds % kNanosecondsPerSecond + (borrow ? kNanosecondsPerSecond : 0);
    time_t seconds = source.tv_sec;
    if (__builtin_add_overflow(seconds, carried, &seconds)) {
        const bool late = carried > 0;
        out->tv_sec = late ? std::numeric_limits<time_t>::max() : std::numeric_limits<time_t>::min();
        out->tv_nsec = late ? kNanosecondsPerSecond - 1 : 0;
        return;
    }
    out->tv_sec = seconds;
    out->tv_nsec = rest;
}
} // namespace

void os_clock_realtime_to_monotonic(const struct timespec* realtime, struct timespec* monotonic) {
    convertInstant(realtime, monotonic, false);
}

void os_clock_monotonic_to_realtime(const struct timespec* monotonic, struct timespec* realtime) {
    convertInstant(monotonic, realtime, true);
}

int os_thread_sleep_milliseconds(uint64_t milliseconds) {
    struct timespec remaining;
    remaining.tv_sec = static_cast<time_t>(milliseconds / 1000);
    remaining.tv_nsec = static_cast<long>((milliseconds % 1000) * 1000000);
    // nanosleep writes what is left back into `remaining`, so a signal only
    // pauses the sleep.
    while (nanosleep(&remaining, &remaining) == -1) {
        if (errno != EINTR)
            return errno;
    }
    return 0;
}
