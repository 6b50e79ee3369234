// Helpers of the sync core tests: a fixture that runs the sync manager in the
// test process, and views of /dev/shm and of named object memories.
#ifndef KORVANE_TESTS_SYNC_CORE_SUPPORT_H
#define KORVANE_TESTS_SYNC_CORE_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

namespace kvtest {

// The four machine-wide names of the sync channel as they appear in /dev/shm
// (named semaphores carry the platform's "sem." prefix there).
std::vector<std::string> channelEntries();
// Those of channelEntries() that exist now.
std::vector<std::string> presentChannelEntries();

bool shmExists(const std::string& name);
// The open count (offset 0) of the named object memory `name`; -1 when it
// cannot be mapped.
int64_t openCountOf(const std::string& name);
// Reads `size` bytes at `offset` of the segment `name` (empty if unmappable).
std::vector<uint8_t> segmentBytes(const std::string& name, size_t offset, size_t size);

// Runs the sync manager in the test process for the length of each test and
// removes the objects the test names through name() afterwards.
class SyncManagerFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // A name unique to the run; removed from /dev/shm by TearDown if a
    // failing test left it behind.
    std::string name(const std::string& tag);
    void stopManager();

private:
    bool m_running = false;
    std::vector<std::string> m_names;
};

} // namespace kvtest

#endif
