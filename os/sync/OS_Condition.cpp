#include <cerrno>
#include <cstddef>

#include "korvane/sync.h"
#include "os/sync/SyncObjects.h"
#include "common/HandleFrame.h"

static_assert(offsetof(condition_handle, mutex) == 0, "the mutex leads the condition handle");

namespace {

int waitCode(int result) {
    if (result == 0)
        return 0;
    return result == ETIMEDOUT ? 1 : 2;
}

} // namespace

condition_handle::condition_handle() {
    pthread_mutexattr_init(&mutexAttributes);
    pthread_mutexattr_settype(&mutexAttributes, PTHREAD_MUTEX_NORMAL);
    pthread_mutex_init(&mutex, &mutexAttributes);
    pthread_condattr_init(&conditionAttributes);
    pthread_condattr_setclock(&conditionAttributes, CLOCK_MONOTONIC);
    pthread_cond_init(&condition, &conditionAttributes);
}

// The mutex attributes are kept in the object and never destroyed; they hold
// no resources on this platform.
condition_handle::~condition_handle() {
    pthread_cond_destroy(&condition);
    pthread_condattr_destroy(&conditionAttributes);
    pthread_mutex_destroy(&mutex);
}

void condition_handle::lock() {
    pthread_mutex_lock(&mutex);
}

void condition_handle::unlock() {
    pthread_mutex_unlock(&mutex);
}

void condition_handle::signal() {
    pthread_cond_signal(&condition);
}

int condition_handle::wait() {
    return waitCode(pthread_cond_wait(&condition, &mutex));
}

int condition_handle::waitUntil(const timespec& deadline) {
    return waitCode(pthread_cond_timedwait(&condition, &mutex, &deadline));
}

condition_handle* os_condition_create(void) {
    return new condition_handle();
}

void os_condition_destroy(condition_handle** handle) {
    korvane::destroyHandle(handle);
}

void os_condition_lock(condition_handle* handle) {
    if (handle != nullptr)
        handle->lock();
}

void os_condition_unlock(condition_handle* handle) {
    if (handle != nullptr)
        handle->unlock();
}

void os_condition_signal(condition_handle* handle) {
    if (handle != nullptr)
        handle->signal();
}

// A null handle answers 0, the code of a real wake-up; kept on purpose for
// existing callers.
int os_condition_wait(condition_handle* handle) {
    return handle != nullptr ? handle->wait() : 0;
}

int os_condition_wait_timeout(condition_handle* handle, struct timespec deadline) {
    return handle != nullptr ? handle->waitUntil(deadline) : 0;
}
