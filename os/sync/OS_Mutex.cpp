// Mutex and recursive mutex. Unnamed: a private mutex on the heap. Named: a
// robust, process-shared mutex in a named object memory:
//
//   offset 0   uint32 open count
//   offset 4   pthread_mutex_t (48 bytes); memory request size 52
//
// The two classes differ only in the mutex type.
#include <pthread.h>

#include "korvane/sync.h"
#include "os/sync/SyncInternal.h"
#include "common/HandleFrame.h"

using namespace korvane::sync;

namespace {

using korvane::layout::kMutexRequestSize;

// Everything a mutex handle is and does, for either type.
class MutexHandle {
public:
    MutexHandle(const char* name, int type);
    virtual ~MutexHandle();

    MutexHandle(const MutexHandle&) = delete;
    MutexHandle& operator=(const MutexHandle&) = delete;

    void lock() const;
    void unlock() const;

private:
    NamedObject m_named;                // name, then the named object memory
    pthread_mutex_t* m_mutex = nullptr; // null when the handle is unusable
};

MutexHandle::MutexHandle(const char* name, int type) {
    if (name == nullptr) {
        m_mutex = new pthread_mutex_t{};
        initialiseMutex(m_mutex, type, false);
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
    } else if (m_mutex != nullptr) {
        pthread_mutex_destroy(m_mutex);
        delete m_mutex;
    }
    m_mutex = nullptr;
}

void MutexHandle::lock() const {
    // The caller is told nothing: a failed repair or a lock error shows only
    // in the message robustLock prints.
    if (m_mutex != nullptr)
        robustLock(m_mutex);
}

void MutexHandle::unlock() const {
    if (m_mutex != nullptr)
        pthread_mutex_unlock(m_mutex);
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
