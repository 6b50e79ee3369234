/// @file
/// Synchronisation: shared memory, the sync environment, and mutexes,
/// conditions, events, semaphores and reader-writer mutexes.
///
/// Named objects live in POSIX shared memory under the caller's name (visible
/// in /dev/shm) and are shared by every process that creates the same name.
/// They need one process of the machine to run the sync manager
/// (os_sync_environment_initialize(false)). A named creation never returns
/// null: when the name is longer than 1023 characters, no manager runs or it
/// does not answer within 100 ms, the handle is unusable and its operations
/// return at once (waits return false). Timed waits take an absolute deadline
/// on the monotonic clock (os_clock_get_time(1, ...)); a deadline too far off
/// to convert waits as long as it says instead of wrapping into the past.
///
/// Names refused for named objects (the handle is unusable, nothing is sent
/// and the manager refuses them too): the four channel names below, names
/// starting with "sem." (they would reach the POSIX semaphores in /dev/shm)
/// and names containing '/'. A create whose name already holds an object of
/// another kind (another memory size) gives an unusable handle and one line
/// of output, and leaves that object as it is.
///
/// A process killed while it holds the channel's lock in the middle of a
/// create or destroy does not block the machine: the manager gives the lock
/// back within 2 s. A late answer from the manager never reaches a later
/// request, and a signal does not cut a create's answer wait short.
///
/// Every create returns a heap object the caller owns and releases with the
/// family's destroy, which takes the address of the caller's variable, ignores
/// a variable holding null and sets it to null. Every other function accepts a
/// null handle and then does nothing (results: false, 0 or null, as stated).
#ifndef KORVANE_SYNC_H
#define KORVANE_SYNC_H

#include <cstdint>
#include <ctime>

#include "korvane/export.h"
#include "korvane/types.h"

// Machine-wide names of the sync channel, by which every process finds the
// machine's sync manager. They are fixed, the misspelt "sharemomory"
// included: managers and clients of every version must agree on them.
#define KORVANE_SYNC_CHANNEL_MEMORY "os_mutex_manage_enabled_sharemomory"  ///< 1029 bytes
#define KORVANE_SYNC_LOCK_SEMAPHORE "os_mutex_manage_enabled_semaphore"    ///< one client at a time
#define KORVANE_SYNC_REQUEST_SEMAPHORE "os_mutex_manage_request_semaphore" ///< posted per request
#define KORVANE_SYNC_FINISH_SEMAPHORE "os_mutex_manage_finish_semaphore"   ///< posted per answer

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// Shared memory segments.

/// Creates (or takes over and resets) the segment `name` of `size` bytes,
/// zero-filled and mapped. Null on any failure (a null name, a size of 0); a
/// failed create never removes the name.
KORVANE_API sharememory_handle* os_sharememory_create(const char* name, uint32_t size);
/// Maps an existing segment at its current size; null when it does not exist
/// or cannot be mapped (errno tells why).
KORVANE_API sharememory_handle* os_sharememory_open(const char* name);
/// Start of the mapping; null for a null handle; the all-ones pointer after
/// os_sharememory_close.
KORVANE_API void* os_sharememory_get_buffer(sharememory_handle* handle);
/// Unmaps; with `unlink` also removes the name (even when nothing was
/// mapped). The handle stays allocated: destroy it next. Null: nothing.
KORVANE_API void os_sharememory_close(sharememory_handle* handle, bool unlink);
/// Unmaps if mapped and frees the handle, nulling *handle. Never removes the
/// name: other processes' mappings and later opens are unaffected.
KORVANE_API void os_sharememory_destroy(sharememory_handle** handle);

// ---------------------------------------------------------------------------
// Sync environment.

/// client_only false: become the machine's sync manager (true when started;
/// false, with a message, when another manager or a crashed one's leftovers
/// hold the channel's names). On return the manager is ready: a named create
/// made right after it is answered. The manager gives the channel's lock back
/// (within 2 s, printing one line) from a process that died holding it. A
/// second call in one process replaces the running manager without stopping
/// it.
/// client_only true: true when a sync manager's channel can be opened; prints
/// one "Error: Can not open ..." line per missing channel resource otherwise.
KORVANE_API bool os_sync_environment_initialize(bool client_only);
/// Stops this process's sync manager, if any, and removes the channel and
/// every named object memory it still holds.
KORVANE_API void os_sync_environment_uninitialize(void);

// ---------------------------------------------------------------------------
// Mutex and recursive mutex. Null name: private to the process. Named: a
// robust process-shared mutex; a lock whose previous holder died returns
// holding the repaired mutex.

/// Never null; a failed named creation gives an unusable handle (also for a
/// refused name, or a name holding another kind of object).
KORVANE_API mutex_handle* os_mutex_create(const char* name);
/// The last handle on a named mutex, in any process, removes its memory.
KORVANE_API void os_mutex_destroy(mutex_handle** handle);
/// Returns holding the mutex, or at once on a null or unusable handle. Lock
/// errors are only printed ("mutex lock error:%d.").
KORVANE_API void os_mutex_lock(mutex_handle* handle);
/// Releases the mutex.
KORVANE_API void os_mutex_unlock(mutex_handle* handle);

///@{
/// The same for a mutex its holder may lock again (one unlock per lock).
KORVANE_API recursive_mutex_handle* os_recursive_mutex_create(const char* name);
KORVANE_API void os_recursive_mutex_destroy(recursive_mutex_handle** handle);
KORVANE_API void os_recursive_mutex_lock(recursive_mutex_handle* handle);
KORVANE_API void os_recursive_mutex_unlock(recursive_mutex_handle* handle);
///@}

// ---------------------------------------------------------------------------
// Condition variable with its own mutex, private to the process, on the
// monotonic clock. Waits return 0 when woken (spurious wake-ups included),
// 1 on time-out, 2 on any other error; a null handle returns 0.

/// Never null. The handle's address is the address of its mutex.
KORVANE_API condition_handle* os_condition_create(void);
/// Frees the condition and nulls *handle; a null *handle is ignored.
KORVANE_API void os_condition_destroy(condition_handle** handle);
///@{
/// The handle's own (normal, non-recursive) mutex.
KORVANE_API void os_condition_lock(condition_handle* handle);
KORVANE_API void os_condition_unlock(condition_handle* handle);
///@}
/// Wakes at most one waiter; a signal with no waiter is lost.
KORVANE_API void os_condition_signal(condition_handle* handle);
/// The caller holds the handle's lock; the wait releases it and takes it back.
KORVANE_API int os_condition_wait(condition_handle* handle);
/// A deadline already past answers 1 at once; a malformed one answers 2.
KORVANE_API int os_condition_wait_timeout(condition_handle* handle, struct timespec deadline);

// ---------------------------------------------------------------------------
// Event: manual or automatic reset. An automatic-reset event releases one
// waiter per set; a manual-reset event stays set until reset.

/// Never null. A named event is created by the first creator; later creators
/// (in any process) share its state and their arguments are ignored.
KORVANE_API event_handle* os_event_create(bool manual_reset, bool initial_state, const char* name);
/// The last handle on a named event, in any process, removes its memory.
KORVANE_API void os_event_destroy(event_handle** handle);
/// Sets the event and wakes its waiters; setting a set event changes nothing,
/// except after a setter died holding the event's lock: then the waiters are
/// woken again, in case it died before waking them.
KORVANE_API void os_event_set_event(event_handle* handle);
/// Clears the event.
KORVANE_API void os_event_reset_event(event_handle* handle);
/// True when the event was set and this wait consumed or passed it; false at
/// once for a null or unusable handle.
KORVANE_API bool os_event_wait(event_handle* handle);
/// True when the event was set before the deadline (a deadline already past,
/// or one whose nanoseconds are out of range, still takes a set event); false
/// on time-out, null or unusable handle.
KORVANE_API bool os_event_wait_timeout(event_handle* handle, struct timespec deadline);

// ---------------------------------------------------------------------------
// Counting semaphore.

/// Never null. A named semaphore's count is set by its first creator; later
/// creators' counts are ignored. A negative count starts empty.
KORVANE_API semaphore_handle* os_semaphore_create(int initial_count, const char* name);
/// The last handle on a named semaphore, in any process, removes its memory.
KORVANE_API void os_semaphore_destroy(semaphore_handle** handle);
/// Sets the undo flag used by System V semaphores; false for a null handle.
KORVANE_API bool os_semaphore_set_undo_track(semaphore_handle* handle, bool undo);
/// True when a unit was taken (a signal interrupting the wait is a failure).
KORVANE_API bool os_semaphore_wait(semaphore_handle* handle);
/// True when a unit was taken before the deadline (a free unit is taken even
/// when the deadline has passed); false on time-out, null or unusable handle.
/// A far deadline, up to {INT64_MAX, 999999999}, waits rather than failing.
KORVANE_API bool os_semaphore_wait_timeout(semaphore_handle* handle, struct timespec deadline);
/// Adds a unit, waking one waiter.
KORVANE_API void os_semaphore_release(semaphore_handle* handle);

// ---------------------------------------------------------------------------
// Reader-writer mutex with reader preference: a reader is admitted whenever
// no writer holds the lock, even while a writer waits. Unlock releases one
// reader or the writer; on a handle whose named creation failed every
// operation returns at once.

/// Never null; a null name gives a lock shared by the threads of this process.
KORVANE_API rw_mutex_handle* os_rw_mutex_create(const char* name);
/// The last handle on a named lock, in any process, removes its memory.
KORVANE_API void os_rw_mutex_destroy(rw_mutex_handle** handle);
///@{
/// Return holding the lock for reading (shared) or writing (exclusive).
KORVANE_API void os_rw_mutex_lock_rd(rw_mutex_handle* handle);
KORVANE_API void os_rw_mutex_lock_wr(rw_mutex_handle* handle);
///@}
/// Releases one reader's hold or the writer's.
KORVANE_API void os_rw_mutex_unlock(rw_mutex_handle* handle);

KORVANE_END_DECLS

#endif
