// What the synchronisation families share: the sync channel client, the
// named-object protocol (create-or-open and release), and the robust lock.
//
// Every named primitive (mutex, recursive mutex, event, semaphore,
// reader-writer mutex) lives in a named object memory:
//
//   offset 0   uint32 open count: handles open on the object in all processes
//   offset 4   the object itself, laid out by its family
//
// The memory is created and removed by the sync manager on request; the open
// count, and the initialisation and destruction of the object in place, are
// changed only under the channel's lock semaphore.
#ifndef KORVANE_SYNC_INTERNAL_H
#define KORVANE_SYNC_INTERNAL_H

#include <pthread.h>
#include <semaphore.h>
#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>

#include "common/NamedLayouts.h"
#include "korvane/sync.h"

namespace OS {

// A file as the platform names it, to tell a name's file from a later one.
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    bool operator==(const FileIdentity& other) const { return device == other.device && inode == other.inode; }
};

// The client side of the sync channel, alive for one create or release.
class CSyncClient {
public:
    // Opens the lock, request and finish semaphores and the channel memory;
    // prints "Error: Can not open %s, errno = %d!\n" for each one missing.
    // False (with nothing left open) unless all four opened.
    bool create();
    // Closes what is open; never unlinks anything. Safe to call twice.
    void destroy();

    CSyncClient() = default;
    CSyncClient(const CSyncClient&) = delete;
    CSyncClient& operator=(const CSyncClient&) = delete;
    ~CSyncClient() { destroy(); }

    // The channel's lock semaphore, taken without a time limit (a signal
    // does not end the wait) and given back. While it holds the lock the
    // client records this process (pid and start time) past the request in
    // the channel page, so that a manager can give the lock back once this
    // process has died holding it. lockChannel is false, without the lock,
    // when the lock is not open or when, while waiting, its name came to
    // name another file or none than the one opened (the manager that made
    // it has stopped);
    // unlockChannel is for a client that holds the lock.
    bool lockChannel();
    void unlockChannel();
    // With the channel locked: writes a create (or destroy) request, posts
    // the request semaphore and waits for the manager's answer on the
    // finish semaphore (100 ms, signals resumed). Each request carries a
    // fresh sequence number that the manager echoes, so an answer left over
    // from an earlier client is told apart and waited past; answers still
    // pending from earlier clients are drained first. True when the manager
    // answered this request; false also when the name does not fit the
    // channel memory (nothing is sent then).
    bool requestCreate(const char* name, uint32_t size);
    bool requestDestroy(const char* name);

    sem_t* lockSemaphore = nullptr;
    sem_t* requestSemaphore = nullptr;
    sem_t* finishSemaphore = nullptr;
    sharememory_handle* channelMemory = nullptr;
    FileIdentity lockFile; // the lock semaphore's file when opened; unknown ({0, 0}): never checked
};

} // namespace OS

namespace korvane {
namespace sync {

// Machine-wide names of the sync channel (the KORVANE_SYNC_* names of the
// public header). Other processes find the manager by these exact names, the
// misspelt "sharemomory" included.
extern const char kChannelMemoryName[];     // "os_mutex_manage_enabled_sharemomory"
extern const char kLockSemaphoreName[];     // "os_mutex_manage_enabled_semaphore"
extern const char kRequestSemaphoreName[];  // "os_mutex_manage_request_semaphore"
extern const char kFinishSemaphoreName[];   // "os_mutex_manage_finish_semaphore"

using layout::kChannelMemorySize;
using layout::kOpenCountSize;               // the object starts after the open count
constexpr size_t kMaximumNameLength = 1023; // longer names never reach the manager

// Names no named synchronisation object may take, in the client and in the
// manager alike: the channel's own four names, any name that lands among the
// POSIX semaphores ("sem." prefix in /dev/shm), and any name with a '/'
// (a leading one names the same memory as the name without it, inner ones
// are refused by the platform). Creating or destroying an object under such a
// name would remove the channel or another application's semaphore.
bool isRefusedName(const std::string& name);

// The side band of the channel page (past the request; see NamedLayouts.h).
// Fields are read and written as whole atomic words.
struct LockHolder {
    uint32_t pid = 0;   // 0: nobody recorded (a client that does not record)
    uint64_t start = 0; // start time of that process, clock ticks since boot
    bool operator==(const LockHolder& other) const { return pid == other.pid && start == other.start; }
    bool operator!=(const LockHolder& other) const { return !(*this == other); }
};
LockHolder readLockHolder(const uint8_t* channel);
void writeLockHolder(uint8_t* channel, const LockHolder& holder);
uint32_t loadChannelWord(const uint8_t* channel, size_t offset);
void storeChannelWord(uint8_t* channel, size_t offset, uint32_t value);
// The start time of a running process (field 22 of /proc/<pid>/stat); 0 when
// no such process runs (a zombie has ended) or /proc cannot be read.
uint64_t processStartTime(pid_t pid);
// This process as the channel records its lock holder. Read once per
// process: a forked child has its own pid and start time.
LockHolder thisProcess();

// The memory request in the channel memory. A create request carries its
// name from byte 8 (after the size), a destroy request from byte 4 (it has no
// size). Existing clients and managers rely on this asymmetry; keep it.
constexpr uint32_t kCreateRequest = 1;
constexpr uint32_t kDestroyRequest = 2;

struct MemoryRequest {
    uint32_t operation = 0;
    uint32_t size = 0; // create requests only
    std::string name;
};

// Bytes of the channel memory that may be touched: its 1029 bytes rounded up
// to whole pages, as the mapping covers them. Names of 1021 to 1023
// characters end past byte 1028 but still inside the mapping.
size_t channelMappedBytes();
// Write a request into the channel memory; false (nothing written) when the
// name would end beyond the mapping.
bool writeMemoryRequest(uint8_t* channel, const MemoryRequest& request);
// The request exchange of every channel client, with the channel's lock
// held: drains the answers left for clients that gave up, writes the
// request, numbers it (the manager echoes the number, so an older answer is
// told apart and waited past), posts it and waits until `deadline`
// (realtime, signals resumed) for its answer. A request the manager has not
// picked up by then is taken back. True when answered; false also when the
// name does not fit the channel (nothing is sent then).
bool exchangeRequest(uint8_t* channel, sem_t* requestSemaphore, sem_t* finishSemaphore,
                     const MemoryRequest& request, const timespec& deadline);
// Reads the request as the manager sees it; the name is read no further than
// the mapping.
MemoryRequest readMemoryRequest(const uint8_t* channel);

// A realtime deadline `nanoseconds` from now, for the channel's semaphore
// waits: monotonic now, converted to realtime, plus the span.
timespec realtimeDeadlineAfter(int64_t nanoseconds);
// The sync manager's 100 ms answer deadline.
timespec answerDeadline();
// sem_timedwait until `deadline`, resumed after signals. True when the
// semaphore was taken.
bool waitUntil(sem_t* semaphore, const timespec& deadline);
// The two together: a wait for at most 100 ms.
bool waitForAnswer(sem_t* semaphore);

// The named part of a handle: its name and its named object memory.
struct NamedObject {
    std::string name;                     // set once the channel opened
    sharememory_handle* memory = nullptr; // null when unusable or unnamed

    // Start of the memory, where the family's layout offsets count from;
    // null when there is no memory.
    uint8_t* base() const;
    // Start of the object (memory + 4); null when there is no memory.
    uint8_t* object() const;
    uint32_t& openCount() const;
};

// Builds a family's object in place, once, in the first opener. `ftokKey` is
// the System V key of "/dev/shm/<name>" for families that ask for one, else -1.
using InitialiseInPlace = std::function<void(uint8_t* object, key_t ftokKey)>;
// Tears the object down in place, in the last releaser.
using DestroyInPlace = std::function<void(uint8_t* object)>;

// The create-or-open sequence. A refused name (isRefusedName) leaves the
// handle unusable without contacting the manager, as an over-long one does;
// an existing memory whose size is not `requestSize` (an object of another
// kind under that name) is left untouched and the handle unusable, with a
// message. `ftokFamily` is null for families without a
// System V key; otherwise "/dev/shm/<name>" is keyed with ftok once the
// manager answered, and a failure prints
// "can't access memory file[(null)], create <ftokFamily> failed\n".
// True when `named` ends usable (memory mapped, object initialised or
// counted); false leaves named.memory null.
bool createOrOpenNamedObject(NamedObject& named, const char* name, uint32_t requestSize, const char* ftokFamily,
                             const InitialiseInPlace& initialise);

// The release sequence: lowers the open count, and when it reaches 0
// destroys the object in place and asks the manager to remove the memory.
// Always ends with the memory handle destroyed and named.memory null.
void releaseNamedObject(NamedObject& named, const DestroyInPlace& destroy);

// Locks a mutex, repairing it when its previous owner died (EOWNERDEAD:
// pthread_mutex_consistent, unlock, lock again). Prints
// "mutex lock fixed failed!" when the repair fails and
// "mutex lock error:%d.\n" on any other error. True when the caller holds
// a consistent mutex; `repaired` (when given) tells whether it was repaired.
bool robustLock(pthread_mutex_t* mutex, bool* repaired = nullptr);
// Takes a mutex without waiting, repairing it as robustLock does when its
// previous owner died (then it is held, consistent). EBUSY is silent; any
// other error prints "[CRITICAL]: unexpected mutex trylock error:%d\n".
// True when the caller holds the mutex.
bool robustTryLock(pthread_mutex_t* mutex);

// Initialises a mutex of the given type; process-shared and robust when
// `shared` (the form every mutex inside a named object memory takes).
void initialiseMutex(pthread_mutex_t* mutex, int type, bool shared);
// Initialises a private condition on the monotonic clock, the clock of every
// caller's deadline.
void initialiseMonotonicCondition(pthread_cond_t* condition);

// Closes a named semaphore if it is open, and nulls the pointer.
void closeSemaphore(sem_t*& semaphore);

} // namespace sync
} // namespace korvane

#endif
