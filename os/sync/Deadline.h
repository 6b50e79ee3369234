// The one way the synchronisation families read a caller's deadline: an
// absolute time on the monotonic clock. Events, semaphores, conditions and
// the System V waits all ask here whether a deadline names an instant, how
// much time is left until it, and where it lies on the realtime clock.
#ifndef KORVANE_SYNC_DEADLINE_H
#define KORVANE_SYNC_DEADLINE_H

#include <ctime>
#include <limits>

#include "korvane/system.h"

namespace korvane {
namespace sync {
namespace deadline {

// True when the nanoseconds are in range, so that the kernel accepts it.
inline bool isValid(const timespec& deadline) {
    return deadline.tv_nsec >= 0 && deadline.tv_nsec < 1000000000L;
}

// The time left until `deadline`, normalised; zero or negative once it has
// passed (a deadline that is not valid counts as passed). A deadline so far off that the span overflows gives the largest
// span rather than a wrapped, negative one.
inline timespec timeLeft(const timespec& deadline) {
    if (!isValid(deadline))
        return timespec{0, 0};
    timespec now{};
    os_clock_get_time(CLOCK_MONOTONIC, &now);
    timespec left{};
    if (__builtin_sub_overflow(deadline.tv_sec, now.tv_sec, &left.tv_sec))
        return deadline.tv_sec < 0 ? timespec{-1, 0} : timespec{std::numeric_limits<time_t>::max(), 999999999L};
    left.tv_nsec = deadline.tv_nsec - now.tv_nsec;
    os_clock_adjust_clock_time(&left);
    return left;
}

// True while at least a whole millisecond is left: waits end once less than
// that remains rather than spin on a sliver of time.
inline bool hasTimeLeft(const timespec& deadline) {
    const timespec left = timeLeft(deadline);
    return left.tv_sec > 0 || (left.tv_sec == 0 && left.tv_nsec >= 1000000L);
}

// The same instant on the realtime clock, for the platform waits that know
// only that clock; a far deadline stays far (the conversion saturates).
inline timespec toRealtime(const timespec& deadline) {
    timespec realtime{};
    os_clock_monotonic_to_realtime(&deadline, &realtime);
    return realtime;
}

} // namespace deadline
} // namespace sync
} // namespace korvane

#endif
