#include "SyncTestSupport.h"

#include <poll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

#include "korvane/system.h"

namespace kvtest {

timespec monotonicDeadline(std::chrono::milliseconds offset) {
    timespec deadline{};
    os_clock_get_time(CLOCK_MONOTONIC, &deadline);
    deadline.tv_nsec += static_cast<long>(offset.count()) * 1000000; // normalised a second at a time
    os_clock_adjust_clock_time(&deadline);
    return deadline;
}

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

int mappingsOf(const std::string& name) {
    const std::string path = "/dev/shm/" + name;
    std::ifstream maps("/proc/self/maps");
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

bool systemVSemaphoreExists(key_t key) {
    return key != -1 && semget(key, 1, 0) != -1;
}

Signal::Signal() {
    EXPECT_EQ(pipe(m_fds), 0);
}

Signal::~Signal() {
    close(m_fds[0]);
    close(m_fds[1]);
}

void Signal::notify() {
    while (write(m_fds[1], "", 1) < 0 && errno == EINTR) {
    }
}

bool Signal::waitFor(std::chrono::milliseconds timeout) {
    pollfd entry{m_fds[0], POLLIN, 0};
    char byte = 0;
    return poll(&entry, 1, static_cast<int>(timeout.count())) == 1 && read(m_fds[0], &byte, 1) == 1;
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
