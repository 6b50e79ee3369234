// Helpers of the condition, event, semaphore and reader-writer mutex tests: a
// fixture that runs the sync manager, deadlines, views of named object
// memories, and a pipe to hear from forked children.
#ifndef KORVANE_TESTS_SYNC_OBJECTS_SUPPORT_H
#define KORVANE_TESTS_SYNC_OBJECTS_SUPPORT_H

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace kvtest {

// An absolute deadline on the monotonic clock, `offset` from now (negative:
// already past).
timespec monotonicDeadline(std::chrono::milliseconds offset);
// A deadline far enough away that only a fault lets a wait reach it.
inline timespec boundedDeadline() {
    return monotonicDeadline(kDefaultTimeout);
}
inline timespec pastDeadline() {
    return monotonicDeadline(std::chrono::milliseconds(-5));
}

// Size of /dev/shm/<name>; -1 when it does not exist.
int64_t segmentSize(const std::string& name);
// The open count at offset 0 of the named object memory; -1 when absent.
int64_t openCountOf(const std::string& name);
// A pointer to the named object memory, mapped for the length of the object.
struct MappedObject {
    explicit MappedObject(const std::string& name);
    ~MappedObject();
    MappedObject(const MappedObject&) = delete;
    MappedObject& operator=(const MappedObject&) = delete;
    uint8_t* bytes = nullptr;
    size_t length = 0;
};

// ftok of "/dev/shm/<name>", as the library keys its System V semaphores.
key_t memoryFileKey(const std::string& name);
bool systemVSemaphoreExists(key_t key);

// One-way signal from a forked child to the test: the child calls notify(),
// the test waits for it (bounded).
class Signal {
public:
    Signal();
    ~Signal();
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    void notify();
    // True when a notification arrived within `timeout`.
    bool waitFor(std::chrono::milliseconds timeout = kDefaultTimeout);

private:
    int m_fds[2] = {-1, -1};
};

// Runs the sync manager in the test process for each test, and removes
// afterwards what a failing test left under the names it took from name():
// object memories and System V semaphores.
class SyncManagerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    std::string name(const std::string& tag);

private:
    bool m_running = false;
    std::vector<std::string> m_names;
};

} // namespace kvtest

#endif
