/// @file
/// Synchronisation objects with the standard library's shapes: mutexes that
/// std::lock_guard, std::unique_lock and std::shared_lock accept, waits that
/// take std::chrono values, and owners for shared memory and the sync manager.
#ifndef KORVANE_CPP_SYNC_HPP
#define KORVANE_CPP_SYNC_HPP

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <system_error>

#include "korvane/cpp/owner.hpp"
#include "korvane/sync.h"

namespace korvane {

/// Runs this process's sync manager for as long as it lives, so named
/// objects can be created by every process of the machine.
class SyncManager {
public:
    /// Starts the manager, ready for creations when it returns; running()
    /// tells whether it started (another manager, or a crashed one's
    /// leftovers, keep it from starting).
    SyncManager() : m_running(os_sync_environment_initialize(false)) {}
    /// Stops the manager and removes the named memories it still holds.
    ~SyncManager() {
        if (m_running)
            os_sync_environment_uninitialize();
    }
    SyncManager(const SyncManager&) = delete;
    SyncManager& operator=(const SyncManager&) = delete;
    /// True when this object started the manager.
    bool running() const noexcept { return m_running; }

private:
    bool m_running;
};

/// A shared memory segment, mapped while the object lives. Destruction unmaps
/// but never removes the name; close(true) does.
class SharedMemory : public Owner<sharememory_handle, os_sharememory_destroy> {
public:
    /// Creates (or takes over and resets) the zero-filled segment `name`;
    /// empty on failure.
    static std::optional<SharedMemory> create(const std::string& name, uint32_t size) {
        return adopt(os_sharememory_create(name.c_str(), size));
    }
    /// Maps an existing segment; empty when there is none.
    static std::optional<SharedMemory> open(const std::string& name) {
        return adopt(os_sharememory_open(name.c_str()));
    }
    /// Start of the mapping.
    void* data() const noexcept { return os_sharememory_get_buffer(native_handle()); }
    /// Unmaps now; with `unlink` also removes the name.
    void close(bool unlink) noexcept { os_sharememory_close(native_handle(), unlink); }

private:
    using Owner::Owner;
    static std::optional<SharedMemory> adopt(sharememory_handle* handle) {
        if (handle == nullptr)
            return std::nullopt;
        return SharedMemory(handle);
    }
};

/// Base of the named objects: remembers whether the handle is usable.
template <class Handle, void (*Destroy)(Handle**)>
class NamedOwner : public Owner<Handle, Destroy> {
public:
    /// False for a named object whose creation failed (no sync manager, or
    /// none answered): its locks throw and its waits return false at once.
    bool usable() const noexcept { return m_usable; }

protected:
    /// Takes over `handle`, created under `name` (null for a private object).
    NamedOwner(Handle* handle, const std::string* name)
        : Owner<Handle, Destroy>(handle), m_usable(name == nullptr || detail::named_memory_exists(*name)) {}
    /// Throws std::system_error on an unusable handle, as a standard lock
    /// that cannot be taken does, instead of returning without the lock.
    void require_usable() const {
        if (!m_usable)
            detail::throw_unusable("korvane: lock on an unusable named object");
    }

private:
    bool m_usable;
};

/// A lock over one kind of mutex handle: private to the process when made
/// without a name, shared by every process under a name. Meets BasicLockable.
template <class Handle, Handle* (*Create)(const char*), void (*Destroy)(Handle**), void (*Lock)(Handle*),
          void (*Unlock)(Handle*)>
class BasicMutex : public NamedOwner<Handle, Destroy> {
public:
    /// A lock private to the process.
    BasicMutex() : NamedOwner<Handle, Destroy>(Create(nullptr), nullptr) {}
    /// The named lock `name` (needs a running sync manager).
    explicit BasicMutex(const std::string& name) : NamedOwner<Handle, Destroy>(Create(name.c_str()), &name) {}
    /// Returns holding the lock (alone, for a reader-writer lock);
    /// std::system_error on an unusable handle.
    void lock() {
        this->require_usable();
        Lock(this->native_handle());
    }
    /// Releases the lock (one level of it, for a recursive mutex).
    void unlock() noexcept { Unlock(this->native_handle()); }
};

/// A mutex private to the process, or a robust one shared under a name by
/// every process (a holder's death hands the next locker a repaired mutex).
using Mutex = BasicMutex<mutex_handle, os_mutex_create, os_mutex_destroy, os_mutex_lock, os_mutex_unlock>;

/// A mutex its holder may lock again (one unlock per lock), private or named
/// as Mutex.
using RecursiveMutex = BasicMutex<recursive_mutex_handle, os_recursive_mutex_create, os_recursive_mutex_destroy,
                                  os_recursive_mutex_lock, os_recursive_mutex_unlock>;

/// The reader-writer lock (readers preferred), private or named: lock() and
/// unlock() for the writer, lock_shared() and unlock_shared() for readers,
/// so std::unique_lock and std::shared_lock both work on it.
class SharedMutex
    : public BasicMutex<rw_mutex_handle, os_rw_mutex_create, os_rw_mutex_destroy, os_rw_mutex_lock_wr,
                        os_rw_mutex_unlock> {
public:
    using BasicMutex::BasicMutex;
    /// Returns holding the lock with other readers; std::system_error on an
    /// unusable handle.
    void lock_shared() {
        require_usable();
        os_rw_mutex_lock_rd(native_handle());
    }
    /// Releases one reader's hold.
    void unlock_shared() noexcept { os_rw_mutex_unlock(native_handle()); }
};

/// Waits on an event or a semaphore, shared by both: `Wait` takes the
/// object, `TimedWait` the object and a monotonic deadline.
template <class Handle, void (*Destroy)(Handle**), bool (*Wait)(Handle*), bool (*TimedWait)(Handle*, timespec)>
class Waitable : public NamedOwner<Handle, Destroy> {
public:
    /// Waits without a time limit; true when the wait succeeded.
    bool wait() noexcept { return Wait(this->native_handle()); }
    /// Waits at most `span`: a span of zero or less only looks.
    template <class Rep, class Period>
    bool wait_for(std::chrono::duration<Rep, Period> span) noexcept {
        return TimedWait(this->native_handle(), detail::deadline_after(span));
    }
    /// Waits until `instant`: one already past only looks.
    template <class Duration>
    bool wait_until(std::chrono::time_point<std::chrono::steady_clock, Duration> instant) noexcept {
        return TimedWait(this->native_handle(), detail::deadline_at(instant));
    }

protected:
    using NamedOwner<Handle, Destroy>::NamedOwner;
};

/// An event with manual or automatic reset, private or named. A wait is true
/// when the event was set (an automatic one is then consumed).
class Event : public Waitable<event_handle, os_event_destroy, os_event_wait, os_event_wait_timeout> {
public:
    /// A private event.
    explicit Event(bool manual_reset = false, bool initially_set = false)
        : Waitable(os_event_create(manual_reset, initially_set, nullptr), nullptr) {}
    /// The named event `name`; its first creator's arguments hold.
    Event(const std::string& name, bool manual_reset, bool initially_set)
        : Waitable(os_event_create(manual_reset, initially_set, name.c_str()), &name) {}
    /// Sets the event, waking its waiters.
    void set() noexcept { os_event_set_event(native_handle()); }
    /// Clears the event.
    void reset() noexcept { os_event_reset_event(native_handle()); }
};

/// A counting semaphore, private or named. A wait is true when it took a unit.
class Semaphore : public Waitable<semaphore_handle, os_semaphore_destroy, os_semaphore_wait, os_semaphore_wait_timeout> {
public:
    /// A private semaphore holding `initial_count` units.
    explicit Semaphore(int initial_count = 0) : Waitable(os_semaphore_create(initial_count, nullptr), nullptr) {}
    /// The named semaphore `name`; its first creator's count holds.
    Semaphore(const std::string& name, int initial_count)
        : Waitable(os_semaphore_create(initial_count, name.c_str()), &name) {}
    /// Takes a free unit without waiting; false when there is none.
    bool try_acquire() noexcept { return os_semaphore_wait_timeout(native_handle(), timespec{0, 0}); }
    /// Adds a unit, waking one waiter.
    void release() noexcept { os_semaphore_release(native_handle()); }
};

/// The private condition variable with its own mutex: lock it (it is
/// BasicLockable, so through std::unique_lock<ConditionVariable>), then wait.
/// Wake-ups may be spurious: the predicate overloads loop as the standard
/// ones do.
class ConditionVariable : public Owner<condition_handle, os_condition_destroy> {
public:
    using Lock = std::unique_lock<ConditionVariable>; ///< The lock the waits take.

    ConditionVariable() : Owner(os_condition_create()) {}
    /// Takes the condition's own mutex.
    void lock() noexcept { os_condition_lock(native_handle()); }
    /// Releases the condition's own mutex.
    void unlock() noexcept { os_condition_unlock(native_handle()); }
    /// Wakes at most one waiter; with none waiting the signal is lost.
    void notify_one() noexcept { os_condition_signal(native_handle()); }

    /// Releases `lock` (on this condition) while waiting; holds it again on
    /// return. Throws std::system_error when `lock` does not hold this
    /// condition.
    void wait(Lock& lock) { waited(lock, nullptr); }
    /// Waits until `done()` holds.
    template <class Predicate>
    void wait(Lock& lock, Predicate done) {
        while (!done())
            wait(lock);
    }
    /// Waits until `instant` at the latest.
    template <class Duration>
    std::cv_status wait_until(Lock& lock, std::chrono::time_point<std::chrono::steady_clock, Duration> instant) {
        const timespec deadline = detail::deadline_at(instant);
        return waited(lock, &deadline);
    }
    /// Waits until `done()` holds or `instant` passes; the last `done()`.
    template <class Duration, class Predicate>
    bool wait_until(Lock& lock, std::chrono::time_point<std::chrono::steady_clock, Duration> instant,
                    Predicate done) {
        return waited_for(lock, detail::deadline_at(instant), done);
    }
    /// Waits at most `span`.
    template <class Rep, class Period>
    std::cv_status wait_for(Lock& lock, std::chrono::duration<Rep, Period> span) {
        const timespec deadline = detail::deadline_after(span);
        return waited(lock, &deadline);
    }
    /// Waits until `done()` holds, at most `span`; the last `done()`.
    template <class Rep, class Period, class Predicate>
    bool wait_for(Lock& lock, std::chrono::duration<Rep, Period> span, Predicate done) {
        return waited_for(lock, detail::deadline_after(span), done);
    }

private:
    /// One wait, until `deadline` when given. A lock that does not hold this
    /// condition, or a failed wait, throws as the standard's waits do.
    std::cv_status waited(Lock& lock, const timespec* deadline) {
        if (lock.mutex() != this || !lock.owns_lock())
            throw std::system_error(std::make_error_code(std::errc::operation_not_permitted),
                                    "korvane: condition wait without its lock");
        const int result = deadline == nullptr ? os_condition_wait(native_handle())
                                               : os_condition_wait_timeout(native_handle(), *deadline);
        if (result == 2)
            throw std::system_error(std::make_error_code(std::errc::invalid_argument), "korvane: condition wait");
        return result == 1 ? std::cv_status::timeout : std::cv_status::no_timeout;
    }
    template <class Predicate>
    bool waited_for(Lock& lock, const timespec& deadline, Predicate& done) {
        while (!done())
            if (waited(lock, &deadline) == std::cv_status::timeout)
                return done();
        return true;
    }
};

} // namespace korvane

#endif
