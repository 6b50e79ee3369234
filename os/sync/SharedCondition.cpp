#include "os/sync/SharedCondition.h"

#include "os/sync/Deadline.h"
#include "os/sync/Futex.h"
#include "os/sync/SyncInternal.h"

namespace korvane {
namespace sync {

void SharedCondition::initialise() {
    futex::store(&m_sequence, 0);
    futex::store(&m_waiters, 0);
}

void SharedCondition::signal() {
    futex::add(&m_sequence, 1);
    // The waiter count is raised before a waiter reads the sequence, and the
    // sequence is advanced before the count is read here: either this sees
    // the waiter, or the waiter sees the new sequence and does not sleep.
    if (futex::load(&m_waiters) != 0)
        futex::wake(&m_sequence, 1);
}

void SharedCondition::broadcast() {
    futex::add(&m_sequence, 1);
    if (futex::load(&m_waiters) != 0)
        futex::wakeAll(&m_sequence);
}

ConditionWait SharedCondition::wait(pthread_mutex_t* mutex) {
    return sleep(mutex, nullptr);
}

ConditionWait SharedCondition::waitUntil(pthread_mutex_t* mutex, const timespec& deadline) {
    if (!deadline::isValid(deadline))
        return ConditionWait::BadDeadline;
    return sleep(mutex, &deadline);
}

ConditionWait SharedCondition::sleep(pthread_mutex_t* mutex, const timespec* deadline) {
    futex::add(&m_waiters, 1);
    // Read under the mutex: a wake-up given after the caller tested its
    // predicate changes the sequence, and the futex then refuses to sleep.
    const uint32_t sequence = futex::load(&m_sequence);
    pthread_mutex_unlock(mutex);
    const int result = futex::wait(&m_sequence, sequence, deadline, futex::Clock::Monotonic);
    futex::subtract(&m_waiters, 1);
    if (!robustLock(mutex))
        return ConditionWait::LockFailed;
    // A signal arriving during the sleep is a spurious wake-up, as for
    // pthread_cond_wait.
    return result == ETIMEDOUT ? ConditionWait::TimedOut : ConditionWait::Woken;
}

} // namespace sync
} // namespace korvane
