// Counting semaphores: glibc's sem_t when unnamed; named ones live in a named
// object memory (offsets from the start of the memory):
//
//   mode      size  0 count  4 semaphore             flag byte
//   POSIX      37            shared semaphore (32)   36
//   System V    9            int32 semaphore id      8
//
// Nothing writes the flag byte, so it stays 0 in both modes and the
// operations take the POSIX path; the test is kept, as existing callers of
// the class rely on it.
#include <cstring>

#include "common/BoolExport.h"
#include "korvane/sync.h"
#include "korvane/system.h"
#include "os/sync/Deadline.h"
#include "os/sync/SyncObjects.h"
#include "os/sync/SysVSemaphore.h"
#include "common/HandleFrame.h"

using korvane::sync::SharedSemaphore;
namespace deadline = korvane::sync::deadline;
namespace sysv = korvane::sync::sysv;

namespace {

const char kOwner[] = "semaphore";

constexpr size_t kSemaphoreOffset = 4;

struct SemaphoreLayout {
    uint32_t requestSize;
    size_t flagOffset;
};
constexpr SemaphoreLayout kPosixLayout{korvane::layout::kSemaphoreRequestSize, 36};
constexpr SemaphoreLayout kSystemVLayout{korvane::layout::kSemaphoreSystemVRequestSize, 8};

static_assert(kSemaphoreOffset + sizeof(SharedSemaphore) <= kPosixLayout.flagOffset, "semaphore slot");
static_assert(kSemaphoreOffset + sizeof(int32_t) <= kSystemVLayout.flagOffset, "System V id slot");

} // namespace

semaphore_handle::semaphore_handle(int value, const char* name, bool systemV) {
    if (name != nullptr) {
        createNamed(value, name, systemV);
        return;
    }
    sem_t* semaphore = new sem_t;
    std::memset(semaphore, 0, sizeof *semaphore);
    // A negative count becomes a value sem_init refuses, leaving the zeroed
    // semaphore empty.
    sem_init(semaphore, 0, static_cast<unsigned int>(value));
    m_semaphore = semaphore;
    m_systemV = new uint8_t(0);
}

void semaphore_handle::createNamed(int value, const char* name, bool systemV) {
    const SemaphoreLayout& layout = systemV ? kSystemVLayout : kPosixLayout;
    const bool opened = korvane::sync::createOrOpenNamedObject(
        m_named, name, layout.requestSize, kOwner, [&](uint8_t*, key_t key) {
            uint8_t* slot = m_named.base() + kSemaphoreOffset;
            if (systemV) {
                const int id = sysv::create(key, value);
                std::memcpy(slot, &id, sizeof id);
            } else {
                reinterpret_cast<SharedSemaphore*>(slot)->initialise(static_cast<unsigned int>(value));
            }
        });
    if (!opened)
        return;
    uint8_t* memory = m_named.base();
    m_semaphore = memory + kSemaphoreOffset;
    m_systemV = memory + layout.flagOffset;
}

semaphore_handle::~semaphore_handle() {
    if (named()) {
        korvane::sync::releaseNamedObject(m_named, [this](uint8_t*) { destroyInPlace(); });
    } else if (m_semaphore != nullptr) {
        delete m_systemV;
        sem_destroy(static_cast<sem_t*>(m_semaphore));
        delete static_cast<sem_t*>(m_semaphore);
    }
    m_semaphore = nullptr;
    m_systemV = nullptr;
}

void semaphore_handle::destroyInPlace() {
    // The shared semaphore holds nothing outside its words.
    if (*m_systemV != 0)
        sysv::remove(semaphoreId());
    m_semaphore = nullptr;
}

int semaphore_handle::semaphoreId() const {
    int id = -1;
    std::memcpy(&id, m_semaphore, sizeof id);
    return id;
}

SharedSemaphore* semaphore_handle::sharedSemaphore() const {
    return static_cast<SharedSemaphore*>(m_semaphore);
}

bool semaphore_handle::wait() {
    if (m_semaphore == nullptr)
        return false;
    if (systemVMode())
        return sysv::wait(semaphoreId(), m_undo, kOwner);
    // A signal interrupting the wait is a failure; it is not retried.
    if (named())
        return sharedSemaphore()->wait() == 0;
    return sem_wait(static_cast<sem_t*>(m_semaphore)) == 0;
}

bool semaphore_handle::waitUntil(const timespec& deadline) {
    if (m_semaphore == nullptr)
        return false;
    if (systemVMode()) {
        timespec remaining = deadline::timeLeft(deadline);
        return sysv::waitFor(semaphoreId(), &remaining, m_undo, kOwner);
    }
    timespec realtimeDeadline = deadline::toRealtime(deadline);
    if (named())
        return sharedSemaphore()->waitUntil(realtimeDeadline) == 0;
    return sem_timedwait(static_cast<sem_t*>(m_semaphore), &realtimeDeadline) == 0;
}

void semaphore_handle::release() {
    if (m_semaphore == nullptr)
        return;
    if (systemVMode())
        sysv::post(semaphoreId(), m_undo, kOwner);
    else if (named())
        sharedSemaphore()->post();
    else
        sem_post(static_cast<sem_t*>(m_semaphore));
}

int semaphore_handle::destroySem(int semid) {
    return sysv::remove(semid);
}

int semaphore_handle::getSemVal(int semid) {
    return sysv::getValue(semid);
}

int semaphore_handle::setSemVal(int semid, int value) {
    return sysv::setValue(semid, value);
}

int semaphore_handle::postSem(int semid, bool undo) {
    return sysv::post(semid, undo, kOwner);
}

bool semaphore_handle::waitSem(int semid, bool undo) {
    return sysv::wait(semid, undo, kOwner);
}

bool semaphore_handle::waitSemTimeout(int semid, timespec* relative_timeout, bool undo) {
    return sysv::waitFor(semid, relative_timeout, undo, kOwner);
}

semaphore_handle* os_semaphore_create(int initial_count, const char* name) {
    return new semaphore_handle(initial_count, name, false);
}

void os_semaphore_destroy(semaphore_handle** handle) {
    korvane::destroyHandle(handle);
}

KORVANE_BOOL_EXPORT(os_semaphore_set_undo_track, (semaphore_handle* handle, bool undo)) {
    if (handle == nullptr)
        return false;
    handle->setUndo(undo);
    return true;
}

KORVANE_BOOL_EXPORT(os_semaphore_wait, (semaphore_handle* handle)) {
    return handle != nullptr && handle->wait();
}

KORVANE_BOOL_EXPORT(os_semaphore_wait_timeout, (semaphore_handle* handle, struct timespec deadline)) {
    return handle != nullptr && handle->waitUntil(deadline);
}

void os_semaphore_release(semaphore_handle* handle) {
    if (handle != nullptr)
        handle->release();
}
