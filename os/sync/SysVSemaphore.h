// The System V semaphore operations that events and semaphores share: a set
// of one semaphore, keyed by ftok of the object's memory file. Their messages
// differ only by the owner's prefix ("event" or "semaphore"), given by the
// caller. `undo` adds SEM_UNDO, so the kernel reverts the operation when the
// process exits.
#ifndef KORVANE_SYNC_SYSV_SEMAPHORE_H
#define KORVANE_SYNC_SYSV_SEMAPHORE_H

#include <sys/types.h>

#include <ctime>

namespace korvane {
namespace sync {
namespace sysv {

// semget(key, 1, IPC_CREAT | 0755), then the value set to `initialValue`.
// The set's id, or -1 when semget failed.
int create(key_t key, int initialValue);

// semctl IPC_RMID, GETVAL and SETVAL; the platform's result.
int remove(int id);
int getValue(int id);
int setValue(int id, int value);

// semop +1; prints "<owner>:semop[post] failed,errno=%d!!\n" on failure.
// The platform's result (0 on success).
int post(int id, bool undo, const char* owner);
// semop -1; prints "<owner>:semop[wait] failed,errno=%d!!\n" on a failure
// other than EAGAIN. True when a unit was taken.
bool wait(int id, bool undo, const char* owner);
// semtimedop -1 with a relative time-out; prints
// "<owner>:semtimedop[wait] failed,errno=%d!!\n" on a failure other than
// EAGAIN (the time-out). True when a unit was taken.
bool waitFor(int id, const timespec* relativeTimeout, bool undo, const char* owner);

} // namespace sysv
} // namespace sync
} // namespace korvane

#endif
