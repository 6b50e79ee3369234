#include "SyncCoreSupport.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstring>

#include "TestSupport.h"
#include "korvane/sync.h"

namespace kvtest {

std::vector<std::string> channelEntries() {
    return {"os_mutex_manage_enabled_sharemomory", "sem.os_mutex_manage_enabled_semaphore",
            "sem.os_mutex_manage_request_semaphore", "sem.os_mutex_manage_finish_semaphore"};
}

std::vector<std::string> presentChannelEntries() {
    std::vector<std::string> present;
    for (const std::string& entry : channelEntries()) {
        if (shmExists(entry))
            present.push_back(entry);
    }
    return present;
}

bool shmExists(const std::string& name) {
    return access(("/dev/shm/" + name).c_str(), F_OK) == 0;
}

std::vector<uint8_t> segmentBytes(const std::string& name, size_t offset, size_t size) {
    std::vector<uint8_t> bytes;
    sharememory_handle* memory = os_sharememory_open(name.c_str());
    if (memory == nullptr)
        return bytes;
    const uint8_t* buffer = static_cast<const uint8_t*>(os_sharememory_get_buffer(memory));
    bytes.assign(buffer + offset, buffer + offset + size);
    os_sharememory_destroy(&memory);
    return bytes;
}

int64_t openCountOf(const std::string& name) {
    const std::vector<uint8_t> bytes = segmentBytes(name, 0, sizeof(uint32_t));
    if (bytes.empty())
        return -1;
    uint32_t count = 0;
    std::memcpy(&count, bytes.data(), sizeof count);
    return count;
}

void SyncManagerFixture::SetUp() {
    ASSERT_TRUE(presentChannelEntries().empty())
        << "a sync manager runs already, or a crashed one left its names in /dev/shm";
    ASSERT_TRUE(os_sync_environment_initialize(false));
    m_running = true;
    // The manager thread creates the request and finish semaphores after
    // initialise has returned; clients need them.
    ASSERT_TRUE(eventually([] { return presentChannelEntries().size() == 4; }));
}

void SyncManagerFixture::TearDown() {
    stopManager();
    for (const std::string& leftover : m_names)
        shm_unlink(leftover.c_str());
}

std::string SyncManagerFixture::name(const std::string& tag) {
    m_names.push_back(uniqueName(tag));
    return m_names.back();
}

void SyncManagerFixture::stopManager() {
    if (m_running)
        os_sync_environment_uninitialize();
    m_running = false;
}

} // namespace kvtest
