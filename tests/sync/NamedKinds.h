// The exported functions of every named kind behind one shape, so that what
// all named objects share is tested once for each kind.
#ifndef KORVANE_TESTS_SYNC_NAMED_KINDS_H
#define KORVANE_TESTS_SYNC_NAMED_KINDS_H

#include <cstdint>
#include <vector>

#include "korvane/sync.h"

namespace kvtest {

struct NamedKind {
    const char* label;
    int64_t requestSize;
    size_t mutexOffset;                // of the robust mutex in the memory; 0: none
    void* (*create)(const char* name); // events clear, semaphores empty
    void (*destroy)(void*& variable);  // nulls the variable
    void (*take)(void* handle);        // lock or wait: a second take blocks (a recursive mutex aside)
    void (*give)(void* handle);        // unlock, set or release
};

template <class H, void (*Destroy)(H**)>
void destroyThrough(void*& variable) {
    H* handle = static_cast<H*>(variable);
    Destroy(&handle);
    variable = handle;
}

// One row: the kind's handle type, how it is made from a name, and its
// destroy, take and give functions.
#define KVTEST_KIND(label, size, mutexOffset, H, make, destroy, take, give)                                   \
    NamedKind {                                                                                               \
        label, size, mutexOffset, [](const char* name) -> void* { return make; }, destroyThrough<H, destroy>, \
            [](void* h) { take(static_cast<H*>(h)); }, [](void* h) { give(static_cast<H*>(h)); }              \
    }

inline const std::vector<NamedKind>& namedKinds() {
    static const std::vector<NamedKind> kinds = {
        KVTEST_KIND("mutex", 52, 4, mutex_handle, os_mutex_create(name), os_mutex_destroy, os_mutex_lock,
                    os_mutex_unlock),
        KVTEST_KIND("recursive", 52, 4, recursive_mutex_handle, os_recursive_mutex_create(name),
                    os_recursive_mutex_destroy, os_recursive_mutex_lock, os_recursive_mutex_unlock),
        KVTEST_KIND("event", 104, 4, event_handle, os_event_create(false, false, name), os_event_destroy,
                    os_event_wait, os_event_set_event),
        KVTEST_KIND("semaphore", 37, 0, semaphore_handle, os_semaphore_create(0, name), os_semaphore_destroy,
                    os_semaphore_wait, os_semaphore_release),
        KVTEST_KIND("rwmutex", 152, 12, rw_mutex_handle, os_rw_mutex_create(name), os_rw_mutex_destroy,
                    os_rw_mutex_lock_wr, os_rw_mutex_unlock),
    };
    return kinds;
}

} // namespace kvtest

#endif
