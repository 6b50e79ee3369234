// Mutex and recursive mutex. Unnamed: a private lock word on the heap. Named:
// a robust, process-shared mutex in a named object memory:
//
//   offset 0   uint32 open count
//   offset 4   pthread_mutex_t (48 bytes); memory request size 52
//
// The two classes differ only in the mutex type.
#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <memory>

#include "korvane/sync.h"
#include "os/sync/Futex.h"
#include "os/sync/SyncInternal.h"
#include "common/HandleFrame.h"

using namespace korvane::sync;

namespace {

using korvane::layout::kMutexRequestSize;

// A private mutex takes its own lock word, so that an uncontended lock and
// unlock cost no more than the platform's: a compare-and-swap inline, the
// kernel only to sleep. It behaves as the platform's private mutex of the same
// type: the plain one may be unlocked by any thread and deadlocks when its
// holder locks it again; the recursive one counts its holder's locks, and an
// unlock by another thread is refused.
class PrivateLock {
    // A thread's identity for the recursive type: the address of a byte of
    // its own, read without a call (the library is loaded with the program,
    // so its thread-local bytes sit in the static block).
    using Owner = const char*;
    static Owner self() {
        static thread_local char marker __attribute__((tls_model("initial-exec")));
        return &marker;
    }

public:
    explicit PrivateLock(bool recursive) : m_recursive(recursive) {}

    void lock() {
        if (m_recursive && holdsIt()) {
            if (m_depth + 1 == 0)
                reportLockError(EAGAIN); // the platform's answer for a count that would wrap
            else
                ++m_depth;
            return;
        }
        uint32_t expected = kFree;
        if (!__atomic_compare_exchange_n(&m_word, &expected, kHeld, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
            lockContended();
        if (m_recursive) {
            __atomic_store_n(&m_owner, self(), __ATOMIC_RELAXED);
            m_depth = 1;
        }
    }

    void unlock() {
        if (m_recursive) {
            if (!holdsIt() || --m_depth != 0)
                return;
            __atomic_store_n(&m_owner, Owner{}, __ATOMIC_RELAXED);
        }
        if (__atomic_exchange_n(&m_word, kFree, __ATOMIC_RELEASE) == kHeldWithSleepers)
            futex::wake(&m_word, 1);
    }

    static void reportLockError(int result);

private:
    static constexpr uint32_t kFree = 0;
    static constexpr uint32_t kHeld = 1;
    static constexpr uint32_t kHeldWithSleepers = 2;

    // Only this thread can have made itself the owner, so a relaxed read is exact.
    bool holdsIt() const { return __atomic_load_n(&m_owner, __ATOMIC_RELAXED) == self(); }
    void lockContended();

    const bool m_recursive;
    uint32_t m_word = kFree;
    uint32_t m_depth = 0; // recursive: the holder's locks
    Owner m_owner{};      // recursive: the holder
};

void PrivateLock::reportLockError(int result) {
    std::printf("mutex lock error:%d.\n", result);
}

// Marks the word as slept on, so the holder's unlock wakes one sleeper; a
// woken thread takes it marked again, as it cannot know whether others sleep.
void PrivateLock::lockContended() {
    while (__atomic_exchange_n(&m_word, kHeldWithSleepers, __ATOMIC_ACQUIRE) != kFree)
        futex::wait(&m_word, kHeldWithSleepers, nullptr, futex::Clock::Monotonic);
}

// Everything a mutex handle is and does, for either type.
class MutexHandle {
public:
    MutexHandle(const char* name, int type);
    virtual ~MutexHandle();

    MutexHandle(const MutexHandle&) = delete;
    MutexHandle& operator=(const MutexHandle&) = delete;

    // Inline, so that the exported functions take a private mutex directly.
    void lock() {
        if (m_private)
            m_private->lock();
        else
            lockNamed();
    }
    void unlock() {
        if (m_private)
            m_private->unlock();
        else if (m_mutex != nullptr)
            pthread_mutex_unlock(m_mutex);
    }

private:
    void lockNamed() const;

    NamedObject m_named;                   // name, then the named object memory
    pthread_mutex_t* m_mutex = nullptr;    // named: null when the handle is unusable
    std::unique_ptr<PrivateLock> m_private; // unnamed
};

MutexHandle::MutexHandle(const char* name, int type) {
    if (name == nullptr) {
        m_private = std::make_unique<PrivateLock>(type == PTHREAD_MUTEX_RECURSIVE);
        return;
    }
    const auto initialise = [type](uint8_t* object, key_t) {
        initialiseMutex(reinterpret_cast<pthread_mutex_t*>(object), type, true);
    };
    if (createOrOpenNamedObject(m_named, name, kMutexRequestSize, nullptr, initialise))
        m_mutex = reinterpret_cast<pthread_mutex_t*>(m_named.object());
}

MutexHandle::~MutexHandle() {
    if (m_named.memory != nullptr) {
        releaseNamedObject(m_named, [](uint8_t* object) {
            pthread_mutex_destroy(reinterpret_cast<pthread_mutex_t*>(object));
        });
    }
    m_mutex = nullptr;
}

void MutexHandle::lockNamed() const {
    // The caller is told nothing: a failed repair or a lock error shows only
    // in the message robustLock prints.
    if (m_mutex != nullptr)
        robustLock(m_mutex);
}

} // namespace

class mutex_handle : public MutexHandle {
public:
    explicit mutex_handle(const char* name) : MutexHandle(name, PTHREAD_MUTEX_NORMAL) {}
};

class recursive_mutex_handle : public MutexHandle {
public:
    explicit recursive_mutex_handle(const char* name) : MutexHandle(name, PTHREAD_MUTEX_RECURSIVE) {}
};

mutex_handle* os_mutex_create(const char* name) {
    return new mutex_handle(name);
}

void os_mutex_destroy(mutex_handle** handle) {
    korvane::destroyHandle(handle);
}

void os_mutex_lock(mutex_handle* handle) {
    if (handle != nullptr)
        handle->lock();
}

void os_mutex_unlock(mutex_handle* handle) {
    if (handle != nullptr)
        handle->unlock();
}

recursive_mutex_handle* os_recursive_mutex_create(const char* name) {
    return new recursive_mutex_handle(name);
}

void os_recursive_mutex_destroy(recursive_mutex_handle** handle) {
    korvane::destroyHandle(handle);
}

void os_recursive_mutex_lock(recursive_mutex_handle* handle) {
    if (handle != nullptr)
        handle->lock();
}

void os_recursive_mutex_unlock(recursive_mutex_handle* handle) {
    if (handle != nullptr)
        handle->unlock();
}
