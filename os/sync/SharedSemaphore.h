// A process-shared counting semaphore for named object memories.
//
// It sits at 4-byte-aligned offsets (4 in a semaphore, 52 in an event), where
// glibc's sem_t cannot (Futex.h says why): two 32-bit words driven by the
// futex system call, fitting the 32-byte slot of a sem_t. It answers like
// sem_post, sem_wait, sem_trywait and sem_timedwait, returning the error
// number instead of setting errno.
// Private (unnamed) semaphores on the heap keep glibc's sem_t.
#ifndef KORVANE_SYNC_SHARED_SEMAPHORE_H
#define KORVANE_SYNC_SHARED_SEMAPHORE_H

#include <cstdint>
#include <ctime>
#include <type_traits>

namespace korvane {
namespace sync {

class SharedSemaphore {
public:
    // Sets the count in place (the memory may hold anything). A value above
    // SEM_VALUE_MAX is refused with EINVAL and leaves a count of 0, as
    // sem_init leaves a zeroed sem_t.
    int initialise(unsigned int value);

    // Adds a unit and wakes one waiter: 0, or EOVERFLOW at SEM_VALUE_MAX.
    int post();
    // Takes a unit, sleeping while there is none: 0, or EINTR when a signal
    // interrupts the sleep (not retried).
    int wait();
    // Takes a unit without sleeping: 0 or EAGAIN.
    int tryWait();
    // Takes a unit before the absolute `deadline` on the realtime clock: 0,
    // ETIMEDOUT, EINTR, or EINVAL for nanoseconds out of range.
    int waitUntil(const timespec& deadline);

    unsigned int value() const;

private:
    int sleepAndTake(const timespec* deadline);

    uint32_t m_value;   // futex word: the units available
    uint32_t m_waiters; // threads sleeping or about to sleep on m_value
};

static_assert(sizeof(SharedSemaphore) <= 32, "SharedSemaphore fits the 32-byte slot of a sem_t");
static_assert(alignof(SharedSemaphore) <= 4, "SharedSemaphore needs only 4-byte alignment");
static_assert(std::is_trivial<SharedSemaphore>::value && std::is_standard_layout<SharedSemaphore>::value,
              "SharedSemaphore lives in shared memory as plain words");

} // namespace sync
} // namespace korvane

#endif
