// Helpers of the synchronisation tests: a fixture running the sync manager,
// deadlines, views of /dev/shm and of named object memories, and the exported
// functions of every named kind behind one shape.
#ifndef KORVANE_TESTS_SYNC_TEST_SUPPORT_H
#define KORVANE_TESTS_SYNC_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/sem.h>

#include <optional>

#include "TestSupport.h" // with <atomic>, <cerrno>, <memory>, <thread>, <unistd.h> and <sys/wait.h> among others
#include "korvane/korvane.hpp"

namespace kvtest {

// A monotonic deadline already past.
inline timespec pastDeadline() {
    return korvane::detail::deadline_at(std::chrono::steady_clock::now() - 5ms);
}

// The sync channel's names as /dev/shm shows them, and those present now;
// what a client prints when none is there.
inline const std::vector<std::string> kChannelEntries = {
    KORVANE_SYNC_CHANNEL_MEMORY, "sem." KORVANE_SYNC_LOCK_SEMAPHORE, "sem." KORVANE_SYNC_REQUEST_SEMAPHORE,
    "sem." KORVANE_SYNC_FINISH_SEMAPHORE};
inline std::vector<std::string> presentChannelEntries() {
    std::vector<std::string> present;
    for (const std::string& entry : kChannelEntries)
        if (segmentSize(entry) >= 0)
            present.push_back(entry);
    return present;
}
inline const std::string kNoChannelOutput = "Error: Can not open os_mutex_manage_enabled_semaphore, errno = 2!\n"
                                            "Error: Can not open os_mutex_manage_request_semaphore, errno = 2!\n"
                                            "Error: Can not open os_mutex_manage_finish_semaphore, errno = 2!\n"
                                            "Error: Can not open os_mutex_manage_enabled_sharemomory, errno = 2!\n";

// The segment mapped whole (through the library's owner); bytes is null when absent.
struct MappedObject {
    explicit MappedObject(const std::string& name) : memory(korvane::SharedMemory::open(name)) {}
    const std::optional<korvane::SharedMemory> memory;
    uint8_t* const bytes = memory ? static_cast<uint8_t*>(memory->data()) : nullptr;
};

// The open count at offset 0 of a named object's memory, -1 when absent.
inline int64_t openCountOf(const std::string& name) {
    const MappedObject object(name);
    return object.bytes == nullptr ? -1 : *reinterpret_cast<const uint32_t*>(object.bytes);
}

// Makes a handle (an owning pointer) with `make`, again while it did not map
// the memory of its name (if any), at most five times: a sync manager starved of processor
// time (an emulated machine on a busy host) misses its 100 ms answer deadline,
// which leaves a handle unusable by design. Tests of what an object does,
// rather than of how it is made, must not fail on that.
template <class Make>
auto openMapped(const std::string& name, Make make) -> decltype(make()) {
    for (int attempt = 1;; ++attempt) {
        const int before = mappingsOf(name);
        auto handle = make();
        if (name.empty() || mappingsOf(name) > before || attempt == 5)
            return handle;
    }
}

// Runs the sync manager for each test (stopping it twice is harmless);
// removes what a failing test left under the names it took from name()
// (memories, System V semaphores).
class SyncTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(os_sync_environment_initialize(false)) << "another manager runs, or a crashed one left its names";
        // Its thread opens the request and finish semaphores a moment later.
        ASSERT_TRUE(eventually([] { return presentChannelEntries() == kChannelEntries; }));
    }
    void TearDown() override {
        for (const std::string& leftover : m_names) // keyed by memory files that go with the manager
            semctl(semget(ftok(("/dev/shm/" + leftover).c_str(), 0), 1, 0), 0, IPC_RMID);
        os_sync_environment_uninitialize();
        for (const std::string& leftover : m_names)
            shm_unlink(leftover.c_str());
    }
    std::string name(const std::string& tag) { return m_names.emplace_back(uniqueName(tag)); }

private:
    std::vector<std::string> m_names;
};

// What every named kind shares is tested once for each kind through this shape.
struct NamedKind {
    const char* label;
    int64_t requestSize;
    size_t mutexOffset;                // of the robust mutex in the memory; 0: none
    void* (*create)(const char* name); // events clear, semaphores empty
    void (*destroy)(void*& variable);  // nulls the variable
    void (*take)(void* handle);        // lock or wait: a second take blocks (a recursive mutex aside)
    void (*give)(void* handle);        // unlock, set or release
};

template <class H, void (*Destroy)(H**)>
void destroyThrough(void*& variable) {
    H* handle = static_cast<H*>(variable);
    Destroy(&handle);
    variable = handle;
}

// One row: the kind's handle type, how it is made from a name, and its
// destroy, take and give functions.
#define KVTEST_KIND(label, size, mutexOffset, H, make, destroy, take, give)                                   \
    NamedKind {                                                                                               \
        label, size, mutexOffset, [](const char* name) -> void* { return make; }, destroyThrough<H, destroy>, \
            [](void* h) { take(static_cast<H*>(h)); }, [](void* h) { give(static_cast<H*>(h)); }              \
    }

inline const std::vector<NamedKind>& namedKinds() {
    static const std::vector<NamedKind> kinds = {
        KVTEST_KIND("mutex", 52, 4, mutex_handle, os_mutex_create(name), os_mutex_destroy, os_mutex_lock,
                    os_mutex_unlock),
        KVTEST_KIND("recursive", 52, 4, recursive_mutex_handle, os_recursive_mutex_create(name),
                    os_recursive_mutex_destroy, os_recursive_mutex_lock, os_recursive_mutex_unlock),
        KVTEST_KIND("event", 104, 4, event_handle, os_event_create(false, false, name), os_event_destroy,
                    os_event_wait, os_event_set_event),
        KVTEST_KIND("semaphore", 37, 0, semaphore_handle, os_semaphore_create(0, name), os_semaphore_destroy,
                    os_semaphore_wait, os_semaphore_release),
        KVTEST_KIND("rwmutex", 152, 12, rw_mutex_handle, os_rw_mutex_create(name), os_rw_mutex_destroy,
                    os_rw_mutex_lock_wr, os_rw_mutex_unlock),
    };
    return kinds;
}

} // namespace kvtest

#endif
