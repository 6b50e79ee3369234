// The futex system call and the atomic operations on 32-bit words that the
// process-shared condition and counting semaphore are built from.
//
// Why the named objects need their own condition and semaphore: the shared
// layouts put them at offsets that are 4-byte but not 8-byte aligned, and
// other processes rely on those offsets. glibc's pthread_cond_t and sem_t
// update 64-bit words atomically, which faults on 64-bit Arm cores without
// the unaligned-atomics extension; 32-bit words need only 4-byte alignment.
//
// The futexes are shared, not private: the words live in named object
// memories mapped by several processes, and the kernel has to match a waiter
// in one process with a waker in another by the physical page.
#ifndef KORVANE_SYNC_FUTEX_H
#define KORVANE_SYNC_FUTEX_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>

namespace korvane {
namespace sync {
namespace futex {

enum class Clock { Monotonic, Realtime };

inline uint32_t load(const uint32_t* word) {
    return __atomic_load_n(word, __ATOMIC_SEQ_CST);
}

inline void store(uint32_t* word, uint32_t value) {
    __atomic_store_n(word, value, __ATOMIC_SEQ_CST);
}

// Returns the value after the addition.
inline uint32_t add(uint32_t* word, uint32_t amount) {
    return __atomic_add_fetch(word, amount, __ATOMIC_SEQ_CST);
}

inline uint32_t subtract(uint32_t* word, uint32_t amount) {
    return __atomic_sub_fetch(word, amount, __ATOMIC_SEQ_CST);
}

// Replaces `expected` by `desired`; on failure `expected` receives the value found.
inline bool compareExchange(uint32_t* word, uint32_t& expected, uint32_t desired) {
    return __atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

// Sleeps while *word holds `expected`, until woken or until the absolute
// `deadline` (null: none) on `clock` has passed. Returns 0 when woken or when
// the word no longer held `expected`, ETIMEDOUT (also at once for a deadline
// with negative seconds), EINTR (a signal arrived) or EINVAL (nanoseconds out
// of range).
inline int wait(uint32_t* word, uint32_t expected, const timespec* deadline, Clock clock) {
    // The kernel refuses a deadline with negative seconds; glibc's timed
    // waits take it as passed, and callers expect the same here.
    if (deadline != nullptr && deadline->tv_sec < 0)
        return ETIMEDOUT;
    // FUTEX_WAIT_BITSET takes an absolute deadline, on the monotonic clock
    // unless FUTEX_CLOCK_REALTIME says otherwise.
    const int operation = FUTEX_WAIT_BITSET | (clock == Clock::Realtime ? FUTEX_CLOCK_REALTIME : 0);
    if (syscall(SYS_futex, word, operation, expected, deadline, nullptr, FUTEX_BITSET_MATCH_ANY) == 0)
        return 0;
    return errno == EAGAIN ? 0 : errno;
}

// Wakes at most `count` sleepers on `word`.
inline void wake(uint32_t* word, int count) {
    syscall(SYS_futex, word, FUTEX_WAKE, count, nullptr, nullptr, 0);
}

inline void wakeAll(uint32_t* word) {
    wake(word, INT_MAX);
}

} // namespace futex
} // namespace sync
} // namespace korvane

#endif
