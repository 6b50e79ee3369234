// Reader-writer mutexes: a reader count and a writer flag guarded by the gate
// mutex, a hold mutex taken by the first reader or the writer (only checked,
// not kept, in a named lock), and a condition broadcast whenever the lock
// becomes free. Readers are admitted whenever no writer holds the lock, even
// while a writer waits.
//
// Named object memory (offsets from the start of the memory), request size
// 152. Other processes rely on these offsets, although 12, 60 and 108 are
// not 8-byte aligned; the condition's 48-byte slot ends at byte 156, inside
// the mapped page.
//
//   0 open count   4 reader count   8 writer flag   12 gate mutex
//   60 hold mutex   108 condition (a shared condition)
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "korvane/sync.h"
#include "os/sync/SyncObjects.h"
#include "common/HandleFrame.h"

using korvane::sync::SharedCondition;

namespace {

constexpr uint32_t kRequestSize = korvane::layout::kRWMutexRequestSize;
constexpr size_t kReadersOffset = 4;
constexpr size_t kWriterOffset = 8;
constexpr size_t kGateOffset = 12;
constexpr size_t kHoldOffset = 60;
constexpr size_t kConditionOffset = 108;
constexpr size_t kConditionSlot = 48;

static_assert(kGateOffset + sizeof(pthread_mutex_t) <= kHoldOffset, "the gate mutex fits its slot");
static_assert(kHoldOffset + sizeof(pthread_mutex_t) <= kConditionOffset, "the hold mutex fits its slot");
static_assert(sizeof(SharedCondition) <= kConditionSlot, "the condition fits its slot");

template <typename T>
T* at(uint8_t* memory, size_t offset) {
    return reinterpret_cast<T*>(memory + offset);
}

} // namespace

rw_mutex_handle::rw_mutex_handle(const char* name) {
    if (name == nullptr)
        createThreadRWMutexOnPosix();
    else
        createProcessRWMutexOnPosix(name);
}

rw_mutex_handle::~rw_mutex_handle() {
    if (m_named.memory != nullptr)
        destroyProcessRWMutexOnPosix();
    else if (m_gate != nullptr)
        destroyThreadRWMutexOnPosix();
}

bool rw_mutex_handle::createThreadRWMutexOnPosix() {
    m_readers = new uint32_t(0);
    m_writer = new uint32_t(0);
    m_gate = new pthread_mutex_t;
    m_hold = new pthread_mutex_t;
    korvane::sync::initialiseMutex(m_gate, PTHREAD_MUTEX_NORMAL, false);
    korvane::sync::initialiseMutex(m_hold, PTHREAD_MUTEX_NORMAL, false);
    m_condition = new pthread_cond_t;
    korvane::sync::initialiseMonotonicCondition(m_condition);
    return true;
}

bool rw_mutex_handle::createProcessRWMutexOnPosix(const char* name) {
    const bool opened = korvane::sync::createOrOpenNamedObject(
        m_named, name, kRequestSize, nullptr, [this](uint8_t* object, key_t) {
            pointIntoMemory(object - korvane::sync::kOpenCountSize);
            initialiseInPlace();
        });
    if (opened)
        pointIntoMemory(m_named.object() - korvane::sync::kOpenCountSize);
    return opened;
}

void rw_mutex_handle::pointIntoMemory(uint8_t* memory) {
    m_readers = at<uint32_t>(memory, kReadersOffset);
    m_writer = at<uint32_t>(memory, kWriterOffset);
    m_gate = at<pthread_mutex_t>(memory, kGateOffset);
    m_hold = at<pthread_mutex_t>(memory, kHoldOffset);
    m_sharedCondition = at<SharedCondition>(memory, kConditionOffset);
}

void rw_mutex_handle::initialiseInPlace() {
    // The count and the flag are cleared together (bytes 4 to 11).
    std::memset(m_readers, 0, kGateOffset - kReadersOffset);
    korvane::sync::initialiseMutex(m_gate, PTHREAD_MUTEX_NORMAL, true);
    korvane::sync::initialiseMutex(m_hold, PTHREAD_MUTEX_NORMAL, true);
    m_sharedCondition->initialise();
}

void rw_mutex_handle::destroyInPlace() {
    // The shared condition holds nothing outside its words.
    pthread_mutex_destroy(m_hold);
    pthread_mutex_destroy(m_gate);
    *m_readers = 0;
    *m_writer = 0;
}

void rw_mutex_handle::destroyThreadRWMutexOnPosix() {
    pthread_cond_destroy(m_condition);
    delete m_condition;
    pthread_mutex_destroy(m_hold);
    delete m_hold;
    pthread_mutex_destroy(m_gate);
    delete m_gate;
    delete m_readers;
    delete m_writer;
    m_readers = m_writer = nullptr;
    m_gate = m_hold = nullptr;
    m_condition = nullptr;
}

void rw_mutex_handle::destroyProcessRWMutexOnPosix() {
    korvane::sync::releaseNamedObject(m_named, [this](uint8_t*) { destroyInPlace(); });
    m_readers = m_writer = nullptr;
    m_gate = m_hold = nullptr;
    m_sharedCondition = nullptr;
}

bool rw_mutex_handle::usable() const {
    return m_gate != nullptr && m_hold != nullptr && (m_condition != nullptr || m_sharedCondition != nullptr);
}

void rw_mutex_handle::waitForRelease() {
    if (m_sharedCondition != nullptr)
        m_sharedCondition->wait(m_gate);
    else
        pthread_cond_wait(m_condition, m_gate);
}

// Frees the lock and wakes every waiter, with the gate held; releases the gate.
void rw_mutex_handle::releaseAndWake() {
    *m_readers = 0;
    *m_writer = 0;
    if (m_sharedCondition != nullptr)
        m_sharedCondition->broadcast();
    else
        pthread_cond_broadcast(m_condition);
    // A named lock does not keep its hold (see takeHoldMutex), so there the
    // platform refuses this unlock; the result is ignored on purpose.
    unlockMutex(m_hold);
    unlockMutex(m_gate);
}

// Lock results are ignored: a failure has been printed, and the operation
// goes on as the existing callers expect.
void rw_mutex_handle::lockRdOnPosix() {
    if (!usable())
        return;
    lockMutex(m_gate);
    while (*m_writer == 1)
        waitForRelease();
    *m_readers += 1;
    if (*m_readers == 1)
        takeHoldMutex();
    unlockMutex(m_gate);
}

void rw_mutex_handle::lockWrOnPosix() {
    if (!usable())
        return;
    lockMutex(m_gate);
    while (*m_readers != 0 || *m_writer != 0)
        waitForRelease();
    *m_writer = 1;
    takeHoldMutex();
    unlockMutex(m_gate);
}

void rw_mutex_handle::unlockOnPosix() {
    // A handle whose named creation failed has no gate: nothing to release.
    if (!usable())
        return;
    lockMutex(m_gate);
    if (*m_readers != 0) {
        *m_readers -= 1;
        if (*m_readers == 0) {
            releaseAndWake();
            return;
        }
    } else if (*m_writer == 1) {
        releaseAndWake();
        return;
    }
    unlockMutex(m_gate);
}

namespace {

// A trylock's result: true when taken; EBUSY is silent, anything else is
// reported.
bool acceptTrylock(int result) {
    if (result == 0)
        return true;
    if (result != EBUSY)
        printf("[CRITICAL]: unexpected mutex trylock error:%d\n", result);
    return false;
}

} // namespace

// Takes the hold mutex without waiting for it. The count and the flag say the
// lock is free here, so a thread-local hold is always free. A named hold is a
// robust mutex, and a robust mutex can be released only by the thread that
// owns it, while the last reader out is often not the first one in. Kept by
// the first reader, it would block the next writer for ever (holding the
// gate, so every process sharing the lock would stop), and it would stay on
// that reader's list of robust mutexes after the memory is unmapped, where
// glibc writes into it on the thread's next robust lock. So a named lock only
// checks its hold: a hold left by a process that died is repaired, and the
// hold is let go at once. Exclusion rests on the count, the flag and the
// condition either way.
void rw_mutex_handle::takeHoldMutex() {
    const int result = pthread_mutex_trylock(m_hold);
    if (result != EOWNERDEAD)
        acceptTrylock(result);
    else if (pthread_mutex_consistent(m_hold) != 0)
        std::puts("mutex lock fixed failed!");
    const bool taken = result == 0 || result == EOWNERDEAD;
    if (taken && m_named.memory != nullptr)
        unlockMutex(m_hold);
}

// After repairing a mutex whose owner died, robustLock takes it back with a
// blocking lock rather than a try: a try could lose the mutex to another
// waiter in between, and the caller would then go on as if it held the gate.
bool rw_mutex_handle::lockMutex(pthread_mutex_t* mutex) {
    return korvane::sync::robustLock(mutex);
}

bool rw_mutex_handle::tryLockMutex(pthread_mutex_t* mutex) {
    return acceptTrylock(pthread_mutex_trylock(mutex));
}

int rw_mutex_handle::unlockMutex(pthread_mutex_t* mutex) {
    return pthread_mutex_unlock(mutex);
}

rw_mutex_handle* os_rw_mutex_create(const char* name) {
    return new rw_mutex_handle(name);
}

void os_rw_mutex_destroy(rw_mutex_handle** handle) {
    korvane::destroyHandle(handle);
}

void os_rw_mutex_lock_rd(rw_mutex_handle* handle) {
    if (handle != nullptr)
        handle->lockRdOnPosix();
}

void os_rw_mutex_lock_wr(rw_mutex_handle* handle) {
    if (handle != nullptr)
        handle->lockWrOnPosix();
}

void os_rw_mutex_unlock(rw_mutex_handle* handle) {
    if (handle != nullptr)
        handle->unlockOnPosix();
}
