// The exported functions of every named kind behind one shape, so that what
// all named objects share is tested once for each kind.
#ifndef KORVANE_TESTS_SYNC_NAMED_KINDS_H
#define KORVANE_TESTS_SYNC_NAMED_KINDS_H

#include <cstdint>
#include <memory>
#include <vector>

#include "korvane/sync.h"

namespace kvtest {

// A handle of the exported interface that destroys itself.
template <class H, void (*Destroy)(H**)>
struct Destroyer {
    void operator()(H* handle) const { Destroy(&handle); }
};
template <class H, void (*Destroy)(H**)>
using Owned = std::unique_ptr<H, Destroyer<H, Destroy>>;

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

template <class H>
H* as(void* handle) {
    return static_cast<H*>(handle);
}

inline const std::vector<NamedKind>& namedKinds() {
    static const std::vector<NamedKind> kinds = {
        {"mutex", 52, 4, [](const char* name) -> void* { return os_mutex_create(name); },
         destroyThrough<mutex_handle, os_mutex_destroy>, [](void* h) { os_mutex_lock(as<mutex_handle>(h)); },
         [](void* h) { os_mutex_unlock(as<mutex_handle>(h)); }},
        {"recursive", 52, 4, [](const char* name) -> void* { return os_recursive_mutex_create(name); },
         destroyThrough<recursive_mutex_handle, os_recursive_mutex_destroy>,
         [](void* h) { os_recursive_mutex_lock(as<recursive_mutex_handle>(h)); },
         [](void* h) { os_recursive_mutex_unlock(as<recursive_mutex_handle>(h)); }},
        {"event", 104, 4, [](const char* name) -> void* { return os_event_create(false, false, name); },
         destroyThrough<event_handle, os_event_destroy>, [](void* h) { os_event_wait(as<event_handle>(h)); },
         [](void* h) { os_event_set_event(as<event_handle>(h)); }},
        {"semaphore", 37, 0, [](const char* name) -> void* { return os_semaphore_create(0, name); },
         destroyThrough<semaphore_handle, os_semaphore_destroy>,
         [](void* h) { os_semaphore_wait(as<semaphore_handle>(h)); },
         [](void* h) { os_semaphore_release(as<semaphore_handle>(h)); }},
        {"rwmutex", 152, 12, [](const char* name) -> void* { return os_rw_mutex_create(name); },
         destroyThrough<rw_mutex_handle, os_rw_mutex_destroy>,
         [](void* h) { os_rw_mutex_lock_wr(as<rw_mutex_handle>(h)); },
         [](void* h) { os_rw_mutex_unlock(as<rw_mutex_handle>(h)); }},
    };
    return kinds;
}

} // namespace kvtest

#endif
