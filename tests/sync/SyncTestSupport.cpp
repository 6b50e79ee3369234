#include "SyncTestSupport.h"

#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>

#include <fstream>

namespace kvtest {

const std::vector<std::string> kChannelEntries = {KORVANE_SYNC_CHANNEL_MEMORY, "sem." KORVANE_SYNC_LOCK_SEMAPHORE,
                                                  "sem." KORVANE_SYNC_REQUEST_SEMAPHORE,
                                                  "sem." KORVANE_SYNC_FINISH_SEMAPHORE};

const std::string kNoChannelOutput = "Error: Can not open os_mutex_manage_enabled_semaphore, errno = 2!\n"
                                     "Error: Can not open os_mutex_manage_request_semaphore, errno = 2!\n"
                                     "Error: Can not open os_mutex_manage_finish_semaphore, errno = 2!\n"
                                     "Error: Can not open os_mutex_manage_enabled_sharemomory, errno = 2!\n";

std::vector<std::string> presentChannelEntries() {
    std::vector<std::string> present;
    for (const std::string& entry : kChannelEntries)
        if (segmentSize(entry) >= 0)
            present.push_back(entry);
    return present;
}

int64_t segmentSize(const std::string& name) {
    struct stat status {};
    return stat(("/dev/shm/" + name).c_str(), &status) == 0 ? status.st_size : -1;
}

int64_t openCountOf(const std::string& name) {
    const MappedObject object(name);
    return object.bytes == nullptr ? -1 : *reinterpret_cast<const uint32_t*>(object.bytes);
}

int mappingsOf(const std::string& name, const std::string& process) {
    const std::string path = "/dev/shm/" + name;
    std::ifstream maps("/proc/" + process + "/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) {
        const size_t at = line.find(path); // a removed segment's line ends in " (deleted)"
        count += at != std::string::npos && (at + path.size() == line.size() || line[at + path.size()] == ' ');
    }
    return count;
}

key_t memoryFileKey(const std::string& name) {
    return ftok(("/dev/shm/" + name).c_str(), 0);
}

void SyncTest::SetUp() {
    ASSERT_TRUE(os_sync_environment_initialize(false)) << "another manager runs, or a crashed one left its names";
    m_running = true;
    // Its thread opens the request and finish semaphores a moment later.
    ASSERT_TRUE(eventually([] { return presentChannelEntries() == kChannelEntries; }));
}

void SyncTest::TearDown() {
    for (const std::string& leftover : m_names) // keyed by memory files that go with the manager
        semctl(semget(memoryFileKey(leftover), 1, 0), 0, IPC_RMID);
    stopManager();
    for (const std::string& leftover : m_names)
        shm_unlink(leftover.c_str());
}

std::string SyncTest::name(const std::string& tag) {
    m_names.push_back(uniqueName(tag));
    return m_names.back();
}

void SyncTest::stopManager() {
    if (m_running)
        os_sync_environment_uninitialize();
    m_running = false;
}

} // namespace kvtest
