// Events: a state byte guarded by a mutex, and a wake-up mechanism.
//
// Named object memory (offsets from the start of the memory); the request
// size tells the three layouts apart:
//
//   mode        size  0 count  4 mutex  52 wake-up          flags (manual, state, System V, condition)
//   condition   104                     shared condition   100..103
//   semaphore    88                     shared semaphore    84..87
//   System V     60                     int32 semaphore id  56..59
#include <cstdio>
#include <cstring>

#include "common/BoolExport.h"
#include "korvane/sync.h"
#include "korvane/system.h"
#include "os/sync/Deadline.h"
#include "os/sync/SyncObjects.h"
#include "os/sync/SysVSemaphore.h"
#include "common/HandleFrame.h"

using korvane::sync::ConditionWait;
using korvane::sync::SharedCondition;
using korvane::sync::SharedSemaphore;
namespace deadline = korvane::sync::deadline;
namespace sysv = korvane::sync::sysv;

namespace {

const char kOwner[] = "event";

constexpr size_t kMutexOffset = 4;
constexpr size_t kWakeUpOffset = 52;
constexpr size_t kFlagCount = 4;

struct EventLayout {
    uint32_t requestSize;
    size_t flagsOffset;
};
namespace layout = korvane::layout;
constexpr EventLayout kConditionLayout{layout::kEventConditionRequestSize, 100};
constexpr EventLayout kSemaphoreLayout{layout::kEventSemaphoreRequestSize, 84};
constexpr EventLayout kSystemVLayout{layout::kEventSystemVRequestSize, 56};

static_assert(kMutexOffset + sizeof(pthread_mutex_t) <= kWakeUpOffset, "the mutex fits its 48-byte slot");
static_assert(kWakeUpOffset + sizeof(SharedCondition) <= kConditionLayout.flagsOffset, "condition slot");
static_assert(kWakeUpOffset + sizeof(SharedSemaphore) <= kSemaphoreLayout.flagsOffset, "semaphore slot");
static_assert(kWakeUpOffset + sizeof(int32_t) <= kSystemVLayout.flagsOffset, "System V id slot");
static_assert(kConditionLayout.flagsOffset + kFlagCount == kConditionLayout.requestSize &&
                  kSemaphoreLayout.flagsOffset + kFlagCount == kSemaphoreLayout.requestSize &&
                  kSystemVLayout.flagsOffset + kFlagCount == kSystemVLayout.requestSize,
              "the flag bytes end each layout");

const EventLayout& layoutFor(bool systemV, bool useCondition) {
    if (systemV)
        return kSystemVLayout;
    return useCondition ? kConditionLayout : kSemaphoreLayout;
}

} // namespace

event_handle::event_handle(bool manual_reset, bool initial_state, const char* name, bool systemV,
                           bool use_condition) {
    if (name == nullptr)
        createPrivate(manual_reset, initial_state);
    else
        createNamed(manual_reset, initial_state, name, systemV, use_condition);
}

event_handle::~event_handle() {
    if (m_named.memory != nullptr) {
        korvane::sync::releaseNamedObject(m_named, [this](uint8_t*) { destroyInPlace(); });
    } else if (m_mutex != nullptr) {
        delete[] m_manualReset;
        pthread_cond_destroy(m_condition);
        delete m_condition;
        pthread_mutex_destroy(m_mutex);
        delete m_mutex;
    }
    m_mutex = nullptr;
    m_condition = nullptr;
    m_wakeUp = m_manualReset = m_state = m_systemV = m_useCondition = nullptr;
}

void event_handle::createPrivate(bool manualReset, bool initialState) {
    m_mutex = new pthread_mutex_t;
    korvane::sync::initialiseMutex(m_mutex, PTHREAD_MUTEX_NORMAL, false);
    m_condition = new pthread_cond_t;
    korvane::sync::initialiseMonotonicCondition(m_condition);
    // An unnamed event always wakes through its condition.
    uint8_t* flags = new uint8_t[kFlagCount]{manualReset, initialState, 0, 1};
    m_manualReset = flags;
    m_state = flags + 1;
    m_systemV = flags + 2;
    m_useCondition = flags + 3;
}

void event_handle::createNamed(bool manualReset, bool initialState, const char* name, bool systemV,
                               bool useCondition) {
    const EventLayout& layout = layoutFor(systemV, useCondition);
    const bool opened = korvane::sync::createOrOpenNamedObject(
        m_named, name, layout.requestSize, kOwner, [&](uint8_t*, key_t key) {
            pointIntoMemory(m_named.base(), layout.flagsOffset);
            initialiseInPlace(manualReset, initialState, systemV, useCondition, key);
        });
    // A later opener finds the object as the first one built it; its own
    // reset mode and initial state are ignored.
    if (opened)
        pointIntoMemory(m_named.base(), layout.flagsOffset);
}

void event_handle::pointIntoMemory(uint8_t* memory, size_t flagsOffset) {
    uint8_t* flags = memory + flagsOffset;
    m_mutex = reinterpret_cast<pthread_mutex_t*>(memory + kMutexOffset);
    m_wakeUp = memory + kWakeUpOffset;
    m_manualReset = flags;
    m_state = flags + 1;
    m_systemV = flags + 2;
    m_useCondition = flags + 3;
}

void event_handle::initialiseInPlace(bool manualReset, bool initialState, bool systemV, bool useCondition,
                                     key_t key) {
    korvane::sync::initialiseMutex(m_mutex, PTHREAD_MUTEX_NORMAL, true);
    if (systemV) {
        if (useCondition) {
            puts("warning: can not use condition because semaphore is managed by OS, it should be system V "
                 "semaphore.");
            useCondition = false;
        }
        const int id = sysv::create(key, 0);
        std::memcpy(m_wakeUp, &id, sizeof id);
    } else if (useCondition) {
        sharedCondition()->initialise();
    } else {
        sharedSemaphore()->initialise(0);
    }
    *m_manualReset = manualReset;
    *m_state = initialState;
    *m_systemV = systemV;
    *m_useCondition = useCondition;
}

void event_handle::destroyInPlace() {
    // The shared condition and semaphore hold nothing outside their words.
    if (*m_systemV != 0)
        sysv::remove(semaphoreId());
    pthread_mutex_destroy(m_mutex);
}

bool event_handle::usable() const {
    return m_mutex != nullptr && (m_condition != nullptr || m_wakeUp != nullptr) && m_manualReset != nullptr &&
           m_state != nullptr;
}

event_handle::Mechanism event_handle::mechanism() const {
    if (m_named.memory == nullptr)
        return Mechanism::PrivateCondition;
    if (*m_systemV != 0)
        return Mechanism::SystemV;
    return *m_useCondition != 0 ? Mechanism::SharedCondition : Mechanism::SharedSemaphore;
}

SharedCondition* event_handle::sharedCondition() const {
    return reinterpret_cast<SharedCondition*>(m_wakeUp);
}

SharedSemaphore* event_handle::sharedSemaphore() const {
    return reinterpret_cast<SharedSemaphore*>(m_wakeUp);
}

int event_handle::semaphoreId() const {
    int id = -1;
    std::memcpy(&id, m_wakeUp, sizeof id);
    return id;
}

bool event_handle::lockMutex() {
    return korvane::sync::robustLock(m_mutex);
}

void event_handle::unlockMutex() {
    pthread_mutex_unlock(m_mutex);
}

void event_handle::set() {
    bool repaired = false;
    if (!usable() || !korvane::sync::robustLock(m_mutex, &repaired))
        return;
    // A second set without a wait between posts nothing: the sets count once.
    // But a setter that died holding the mutex may have stored the state
    // without waking anyone: after a repair the waiters are woken regardless.
    if (*m_state == 0 || repaired) {
        *m_state = 1;
        wake();
    }
    unlockMutex();
}

void event_handle::reset() {
    if (!usable() || !lockMutex())
        return;
    if (*m_state != 0) {
        *m_state = 0;
        const Mechanism how = mechanism();
        if (how == Mechanism::SystemV) {
            sysv::setValue(semaphoreId(), 0);
        } else if (how == Mechanism::SharedSemaphore) {
            // Takes back the unit a set left, without blocking.
            timespec now{};
            os_clock_get_time(CLOCK_REALTIME, &now);
            sharedSemaphore()->waitUntil(now);
        }
    }
    unlockMutex();
}

bool event_handle::wait() {
    if (!usable() || !lockMutex())
        return false;
    while (*m_state == 0 && blockUntilWoken()) {
    }
    const bool result = consumeState();
    unlockMutex();
    return result;
}

bool event_handle::waitUntil(const timespec& deadline) {
    if (!usable() || !lockMutex())
        return false;
    // A deadline whose nanoseconds are out of range names no instant: the
    // condition waits refuse it at once, so the loop would spin with the
    // mutex held (keeping every setter out) until its seconds came round. It
    // counts as passed, in every mode alike.
    const bool waitable = korvane::sync::deadline::isValid(deadline);
    while (waitable && *m_state == 0 && blockUntil(deadline)) {
    }
    const bool result = consumeState();
    unlockMutex();
    return result;
}

void event_handle::wake() {
    switch (mechanism()) {
    case Mechanism::PrivateCondition:
        pthread_cond_broadcast(m_condition);
        break;
    case Mechanism::SharedCondition:
        sharedCondition()->broadcast();
        break;
    case Mechanism::SharedSemaphore:
        sharedSemaphore()->post();
        break;
    case Mechanism::SystemV:
        sysv::post(semaphoreId(), false, kOwner);
        break;
    }
}

// A manual-reset event woken through a semaphore puts the unit back for the
// next waiter, so one set releases every waiter until the reset takes it.
void event_handle::passOn() {
    const Mechanism how = mechanism();
    if (how == Mechanism::SystemV)
        sysv::post(semaphoreId(), false, kOwner);
    else if (how == Mechanism::SharedSemaphore)
        sharedSemaphore()->post();
}

// Takes the state as found, with the mutex held: an automatic-reset event is
// cleared, a set manual-reset event passes the wake-up on.
bool event_handle::consumeState() {
    const bool wasSet = *m_state != 0;
    if (*m_manualReset == 0)
        *m_state = 0;
    else if (wasSet)
        passOn();
    return wasSet;
}

// One blocking step of a wait; false when the mutex could not be taken back.
bool event_handle::blockUntilWoken() {
    switch (mechanism()) {
    case Mechanism::PrivateCondition:
        pthread_cond_wait(m_condition, m_mutex);
        return true;
    case Mechanism::SharedCondition:
        return sharedCondition()->wait(m_mutex) != ConditionWait::LockFailed;
    case Mechanism::SharedSemaphore:
        unlockMutex();
        sharedSemaphore()->wait();
        return lockMutex();
    case Mechanism::SystemV:
        unlockMutex();
        sysv::wait(semaphoreId(), false, kOwner);
        return lockMutex();
    }
    return false;
}

// One blocking step of a timed wait; false when the deadline has passed or
// the mutex could not be taken back.
bool event_handle::blockUntil(const timespec& deadline) {
    const Mechanism how = mechanism();
    if (how == Mechanism::PrivateCondition) {
        pthread_cond_timedwait(m_condition, m_mutex, &deadline);
        return deadline::hasTimeLeft(deadline);
    }
    timespec remaining = deadline::timeLeft(deadline);
    if (remaining.tv_sec < 0 || (remaining.tv_sec == 0 && remaining.tv_nsec == 0))
        return false;
    switch (how) {
    case Mechanism::SystemV:
        unlockMutex();
        sysv::waitFor(semaphoreId(), &remaining, false, kOwner);
        return lockMutex();
    case Mechanism::SharedSemaphore: {
        const timespec realtimeDeadline = deadline::toRealtime(deadline);
        unlockMutex();
        sharedSemaphore()->waitUntil(realtimeDeadline);
        return lockMutex();
    }
    default:
        if (sharedCondition()->waitUntil(m_mutex, deadline) == ConditionWait::LockFailed)
            return false;
        return deadline::hasTimeLeft(deadline);
    }
}

void event_handle::destroySem(int semid) {
    sysv::remove(semid);
}

int event_handle::getSemVal(int semid) {
    return sysv::getValue(semid);
}

void event_handle::setSemVal(int semid, int value) {
    sysv::setValue(semid, value);
}

void event_handle::postSem(int semid, bool undo) {
    sysv::post(semid, undo, kOwner);
}

bool event_handle::waitSem(int semid, bool undo) {
    return sysv::wait(semid, undo, kOwner);
}

bool event_handle::waitSemTimeout(int semid, timespec* relative_timeout, bool undo) {
    return sysv::waitFor(semid, relative_timeout, undo, kOwner);
}

event_handle* os_event_create(bool manual_reset, bool initial_state, const char* name) {
    return new event_handle(manual_reset, initial_state, name, false, true);
}

void os_event_destroy(event_handle** handle) {
    korvane::destroyHandle(handle);
}

void os_event_set_event(event_handle* handle) {
    if (handle != nullptr)
        handle->set();
}

void os_event_reset_event(event_handle* handle) {
    if (handle != nullptr)
        handle->reset();
}

KORVANE_BOOL_EXPORT(os_event_wait, (event_handle* handle)) {
    return handle != nullptr && handle->wait();
}

KORVANE_BOOL_EXPORT(os_event_wait_timeout, (event_handle* handle, struct timespec deadline)) {
    return handle != nullptr && handle->waitUntil(deadline);
}
