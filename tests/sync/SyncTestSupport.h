// Helpers of the synchronisation tests: a fixture running the sync manager,
// deadlines, and views of /dev/shm and of named object memories.
#ifndef KORVANE_TESTS_SYNC_TEST_SUPPORT_H
#define KORVANE_TESTS_SYNC_TEST_SUPPORT_H

#include <gtest/gtest.h>

#include <memory>

#include "TestSupport.h" // with <chrono>, <functional>, <string>, <vector> and <sys/types.h>
#include "korvane/korvane.hpp"

namespace kvtest {

// A monotonic deadline already past.
inline timespec pastDeadline() {
    return korvane::detail::deadline_at(std::chrono::steady_clock::now() - 5ms);
}

// The sync channel's names as /dev/shm shows them, and those present now;
// what a client prints when none is there.
extern const std::vector<std::string> kChannelEntries;
std::vector<std::string> presentChannelEntries();
extern const std::string kNoChannelOutput;

// Of /dev/shm/<name>: the size, the open count at offset 0 (-1 when absent),
// and how many times `process` maps it.
int64_t segmentSize(const std::string& name);
int64_t openCountOf(const std::string& name);
int mappingsOf(const std::string& name, const std::string& process = "self");
// The segment mapped whole (through the library); bytes is null when absent.
struct MappedObject {
    explicit MappedObject(const std::string& name) : memory(os_sharememory_open(name.c_str())) {}
    ~MappedObject() { os_sharememory_destroy(&memory); }
    MappedObject(const MappedObject&) = delete;
    MappedObject& operator=(const MappedObject&) = delete;
    sharememory_handle* memory;
    uint8_t* const bytes = static_cast<uint8_t*>(os_sharememory_get_buffer(memory));
};

// ftok of "/dev/shm/<name>", as the library keys its System V semaphores.
key_t memoryFileKey(const std::string& name);

// Makes a named handle (an owning pointer) with `make`, again while it did not
// map its memory, at most five times: a sync manager starved of processor
// time (an emulated machine on a busy host) misses its 100 ms answer deadline,
// which leaves a handle unusable by design. Tests of what an object does,
// rather than of how it is made, must not fail on that.
template <class Make>
auto openMapped(const std::string& name, Make make) -> decltype(make()) {
    for (int attempt = 1;; ++attempt) {
        const int before = mappingsOf(name);
        auto handle = make();
        if (mappingsOf(name) > before || attempt == 5)
            return handle;
    }
}

// Runs the sync manager for each test; removes what a failing test left under
// the names it took from name() (memories, System V semaphores).
class SyncTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string name(const std::string& tag);
    void stopManager();

private:
    bool m_running = false;
    std::vector<std::string> m_names;
};

} // namespace kvtest

#endif
