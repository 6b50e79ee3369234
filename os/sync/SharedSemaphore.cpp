#include "os/sync/SharedSemaphore.h"

#include <semaphore.h>

#include <climits>

#include "os/sync/Deadline.h"
#include "os/sync/Futex.h"

namespace korvane {
namespace sync {

int SharedSemaphore::initialise(unsigned int value) {
    futex::store(&m_waiters, 0);
    if (value > static_cast<unsigned int>(SEM_VALUE_MAX)) {
        futex::store(&m_value, 0);
        return EINVAL;
    }
    futex::store(&m_value, value);
    return 0;
}

int SharedSemaphore::post() {
    uint32_t current = futex::load(&m_value);
    do {
        if (current >= static_cast<uint32_t>(SEM_VALUE_MAX))
            return EOVERFLOW;
    } while (!futex::compareExchange(&m_value, current, current + 1));
    // The unit is published before the waiter count is read, and a sleeper
    // raises the count before the kernel re-reads the value: either this sees
    // the sleeper, or the sleeper sees the unit and does not sleep.
    if (futex::load(&m_waiters) != 0)
        futex::wake(&m_value, 1);
    return 0;
}

int SharedSemaphore::tryWait() {
    uint32_t current = futex::load(&m_value);
    while (current != 0) {
        if (futex::compareExchange(&m_value, current, current - 1))
            return 0;
    }
    return EAGAIN;
}

int SharedSemaphore::wait() {
    return sleepAndTake(nullptr);
}

int SharedSemaphore::waitUntil(const timespec& deadline) {
    // Checked first, as sem_timedwait does, even when a unit is free.
    if (!deadline::isValid(deadline))
        return EINVAL;
    return sleepAndTake(&deadline);
}

unsigned int SharedSemaphore::value() const {
    return futex::load(&m_value);
}

int SharedSemaphore::sleepAndTake(const timespec* deadline) {
    for (;;) {
        if (tryWait() == 0)
            return 0;
        futex::add(&m_waiters, 1);
        const int result = futex::wait(&m_value, 0, deadline, futex::Clock::Realtime);
        futex::subtract(&m_waiters, 1);
        if (result == ETIMEDOUT || result == EINTR || result == EINVAL) {
            // A unit that arrived together with the time-out is still taken,
            // so a post is never left unseen by the waiter it was meant for.
            if (result == ETIMEDOUT && tryWait() == 0)
                return 0;
            return result;
        }
    }
}

} // namespace sync
} // namespace korvane
