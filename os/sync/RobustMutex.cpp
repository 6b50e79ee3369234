// The one robust lock (blocking and trying) of the synchronisation families, and the one way they
// initialise a mutex and a private condition. A mutex inside a named object
// memory is robust, so a process that dies holding it does not block the
// others for ever.
#include <cerrno>
#include <cstdio>

#include "os/sync/SyncInternal.h"

namespace korvane {
namespace sync {

namespace {

// Makes a mutex whose owner died consistent again (the caller holds it).
bool repairAfterOwnerDeath(pthread_mutex_t* mutex) {
    if (pthread_mutex_consistent(mutex) == 0)
        return true;
    std::puts("mutex lock fixed failed!");
    return false;
}

} // namespace

bool robustLock(pthread_mutex_t* mutex, bool* repaired) {
    if (repaired != nullptr)
        *repaired = false;
    if (mutex == nullptr)
        return false;
    const int result = pthread_mutex_lock(mutex);
    if (result == 0)
        return true;
    if (result == EOWNERDEAD) {
        if (!repairAfterOwnerDeath(mutex))
            return false;
        // Callers have always received the repaired mutex through a fresh
        // lock rather than the one that reported the death.
        pthread_mutex_unlock(mutex);
        pthread_mutex_lock(mutex);
        if (repaired != nullptr)
            *repaired = true;
        return true;
    }
    std::printf("mutex lock error:%d.\n", result);
    return false;
}

bool robustTryLock(pthread_mutex_t* mutex) {
    const int result = pthread_mutex_trylock(mutex);
    if (result == 0)
        return true;
    if (result == EOWNERDEAD)
        return repairAfterOwnerDeath(mutex);
    if (result != EBUSY)
        std::printf("[CRITICAL]: unexpected mutex trylock error:%d\n", result);
    return false;
}

void initialiseMutex(pthread_mutex_t* mutex, int type, bool shared) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    if (shared) {
        pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
        pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    }
    pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void initialiseMonotonicCondition(pthread_cond_t* condition) {
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(condition, &attributes);
    pthread_condattr_destroy(&attributes);
}

} // namespace sync
} // namespace korvane
