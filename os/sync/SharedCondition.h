// A process-shared condition variable for named object memories.
//
// It sits at 4-byte-aligned offsets (52 in an event, 108 in a reader-writer
// mutex), where glibc's condition cannot (Futex.h says why): two 32-bit
// words driven by the futex system call, fitting the 48-byte slot of a
// pthread_cond_t.
// Deadlines are absolute times on the monotonic clock. Private (unnamed)
// objects on the heap keep glibc's condition.
#ifndef KORVANE_SYNC_SHARED_CONDITION_H
#define KORVANE_SYNC_SHARED_CONDITION_H

#include <pthread.h>

#include <cstdint>
#include <ctime>
#include <type_traits>

namespace korvane {
namespace sync {

enum class ConditionWait {
    Woken,       // signalled, broadcast, or woken spuriously: re-test the predicate
    TimedOut,    // the deadline passed
    BadDeadline, // the deadline's nanoseconds are out of range; the mutex was never released
    LockFailed,  // the mutex could not be taken back (robustLock printed why)
};

class SharedCondition {
public:
    // Sets up a condition with no waiters, in place (the memory may hold anything).
    void initialise();

    // Wake one waiter, or every waiter. Callers hold the mutex the waiters
    // use, so a thread that starts waiting afterwards cannot take the wake-up.
    void signal();
    void broadcast();

    // Releases `mutex` (held by the caller), sleeps until woken, and takes the
    // mutex back through robustLock, repairing it if its owner died meanwhile.
    ConditionWait wait(pthread_mutex_t* mutex);
    // The same, giving up at the absolute monotonic `deadline`.
    ConditionWait waitUntil(pthread_mutex_t* mutex, const timespec& deadline);

private:
    ConditionWait sleep(pthread_mutex_t* mutex, const timespec* deadline);

    uint32_t m_sequence; // futex word: advanced by every signal and broadcast
    uint32_t m_waiters;  // threads between starting to wait and waking up
};

// The condition must fit the slot of the shared layouts and work at any
// 4-byte-aligned address.
static_assert(sizeof(SharedCondition) <= 48, "SharedCondition fits a 48-byte condition slot");
static_assert(alignof(SharedCondition) <= 4, "SharedCondition needs only 4-byte alignment");
static_assert(std::is_trivial<SharedCondition>::value && std::is_standard_layout<SharedCondition>::value,
              "SharedCondition lives in shared memory as plain words");

} // namespace sync
} // namespace korvane

#endif
