#include "SyncTestSupport.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>

namespace kvtest {

void SyncTest::SetUp() {
    ASSERT_TRUE(os_sync_environment_initialize(false)) << "another manager runs, or a crashed one left its names";
    // Its thread opens the request and finish semaphores a moment later.
    ASSERT_TRUE(eventually([] { return presentChannelEntries() == kChannelEntries; }));
}

void SyncTest::TearDown() {
    for (const std::string& leftover : m_names) // keyed by memory files that go with the manager
        semctl(semget(ftok(("/dev/shm/" + leftover).c_str(), 0), 1, 0), 0, IPC_RMID);
    os_sync_environment_uninitialize();
    for (const std::string& leftover : m_names)
        shm_unlink(leftover.c_str());
}

} // namespace kvtest
