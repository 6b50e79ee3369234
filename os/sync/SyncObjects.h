// The classes behind the condition, event, semaphore and reader-writer mutex
// handles. The exported functions in OS_Condition.cpp, OS_Event.cpp,
// OS_Semaphore.cpp and OS_RWMutex.cpp are thin wrappers over these; the
// constructors also reach the event's and semaphore's non-default wake-up
// mechanisms, which no exported function selects. Like every handle class
// (the condition aside, see below) they are destroyed through a virtual
// destructor.
#ifndef KORVANE_SYNC_OBJECTS_H
#define KORVANE_SYNC_OBJECTS_H

#include <pthread.h>
#include <semaphore.h>

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "korvane/types.h"
#include "os/sync/SharedCondition.h"
#include "os/sync/SharedSemaphore.h"
#include "os/sync/SyncInternal.h"

// A private condition variable with its own mutex, on the monotonic clock.
// Unlike the other handle classes it has no virtual destructor: a virtual
// table would come before the mutex, and existing callers use the handle's
// address as the mutex's address.
class condition_handle {
public:
    condition_handle();
    ~condition_handle();
    condition_handle(const condition_handle&) = delete;
    condition_handle& operator=(const condition_handle&) = delete;

    void lock();
    void unlock();
    void signal();
    // 0 woken, 1 timed out, 2 any other error.
    int wait();
    int waitUntil(const timespec& deadline);

    // Existing callers treat the handle's address as the mutex's address:
    // the mutex stays the first field.
    pthread_mutex_t mutex;
    pthread_mutexattr_t mutexAttributes;
    pthread_condattr_t conditionAttributes;
    pthread_cond_t condition;
};

// An event with manual or automatic reset. Named events wake their waiters
// through a shared condition (the mode os_event_create selects), a shared
// counting semaphore, or a System V semaphore.
class event_handle {
public:
    event_handle(bool manual_reset, bool initial_state, const char* name, bool systemV, bool use_condition);
    virtual ~event_handle();
    event_handle(const event_handle&) = delete;
    event_handle& operator=(const event_handle&) = delete;

    void set();
    void reset();
    bool wait();
    // `deadline`: absolute, on the monotonic clock.
    bool waitUntil(const timespec& deadline);

    // Locks the state mutex, repairing it if its owner died; true when held.
    bool lockMutex();
    void unlockMutex();

    // System V helpers on a given semaphore id ("event:" messages).
    void destroySem(int semid);
    int getSemVal(int semid);
    void setSemVal(int semid, int value);
    void postSem(int semid, bool undo);
    bool waitSem(int semid, bool undo);
    bool waitSemTimeout(int semid, timespec* relative_timeout, bool undo);

private:
    enum class Mechanism { PrivateCondition, SharedCondition, SharedSemaphore, SystemV };

    void createPrivate(bool manualReset, bool initialState);
    void createNamed(bool manualReset, bool initialState, const char* name, bool systemV, bool useCondition);
    void pointIntoMemory(uint8_t* memory, size_t flagsOffset);
    void initialiseInPlace(bool manualReset, bool initialState, bool systemV, bool useCondition, key_t key);
    void destroyInPlace();
    bool usable() const;
    Mechanism mechanism() const;
    void wake();
    void passOn();
    bool consumeState();
    bool blockUntilWoken();
    bool blockUntil(const timespec& deadline);
    korvane::sync::SharedCondition* sharedCondition() const;
    korvane::sync::SharedSemaphore* sharedSemaphore() const;
    int semaphoreId() const;

    korvane::sync::NamedObject m_named;
    pthread_mutex_t* m_mutex = nullptr;
    pthread_cond_t* m_condition = nullptr; // unnamed events only
    // Named events: the wake-up slot at offset 52 of the memory, holding a
    // shared condition, a shared semaphore or a System V id as the flag
    // bytes say.
    uint8_t* m_wakeUp = nullptr;
    // Four flag bytes: in the memory (named) or one heap block (unnamed).
    uint8_t* m_manualReset = nullptr;
    uint8_t* m_state = nullptr;
    uint8_t* m_systemV = nullptr;
    uint8_t* m_useCondition = nullptr;
};

// A counting semaphore: private (glibc's sem_t) or named (a shared counting
// semaphore, or a System V semaphore behind the flag byte).
class semaphore_handle {
public:
    semaphore_handle(int value, const char* name, bool systemV);
    virtual ~semaphore_handle();
    semaphore_handle(const semaphore_handle&) = delete;
    semaphore_handle& operator=(const semaphore_handle&) = delete;

    void setUndo(bool undo) { m_undo = undo; }
    bool wait();
    // `deadline`: absolute, on the monotonic clock.
    bool waitUntil(const timespec& deadline);
    void release();

    // System V helpers on a given semaphore id ("semaphore:" messages).
    int destroySem(int semid);
    int getSemVal(int semid);
    int setSemVal(int semid, int value);
    int postSem(int semid, bool undo);
    bool waitSem(int semid, bool undo);
    bool waitSemTimeout(int semid, timespec* relative_timeout, bool undo);

private:
    void createNamed(int value, const char* name, bool systemV);
    void destroyInPlace();
    bool named() const { return m_named.memory != nullptr; }
    bool systemVMode() const { return named() && *m_systemV != 0; }
    int semaphoreId() const;
    korvane::sync::SharedSemaphore* sharedSemaphore() const;

    korvane::sync::NamedObject m_named;
    void* m_semaphore = nullptr; // sem_t (unnamed), SharedSemaphore or System V id (named)
    uint8_t* m_systemV = nullptr;
    bool m_undo = false;
};

// A reader-writer lock with reader preference, built from a reader count, a
// writer flag, a gate mutex guarding them, a hold mutex and a condition.
class rw_mutex_handle {
public:
    explicit rw_mutex_handle(const char* name);
    virtual ~rw_mutex_handle();
    rw_mutex_handle(const rw_mutex_handle&) = delete;
    rw_mutex_handle& operator=(const rw_mutex_handle&) = delete;

    bool createThreadRWMutexOnPosix();
    bool createProcessRWMutexOnPosix(const char* name);
    void destroyThreadRWMutexOnPosix();
    void destroyProcessRWMutexOnPosix();
    void lockRdOnPosix();
    void lockWrOnPosix();
    void unlockOnPosix();

    bool lockMutex(pthread_mutex_t* mutex);
    bool tryLockMutex(pthread_mutex_t* mutex);
    int unlockMutex(pthread_mutex_t* mutex);

private:
    bool usable() const;
    void pointIntoMemory(uint8_t* memory);
    void initialiseInPlace();
    void destroyInPlace();
    void waitForRelease();
    void releaseAndWake();
    void takeHoldMutex();

    uint32_t* m_readers = nullptr; // a thread-local lock's one word
    uint32_t* m_writer = nullptr;
    korvane::sync::NamedObject m_named;
    pthread_mutex_t* m_gate = nullptr;
    pthread_mutex_t* m_hold = nullptr;
    korvane::sync::SharedCondition* m_sharedCondition = nullptr;
};

#endif
