#include "SyncObjectsSupport.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "korvane/sync.h"
#include "korvane/system.h"

namespace kvtest {

timespec monotonicDeadline(std::chrono::milliseconds offset) {
    timespec deadline{};
    os_clock_get_time(CLOCK_MONOTONIC, &deadline);
    const int64_t nanoseconds = static_cast<int64_t>(offset.count()) * 1000000;
    deadline.tv_sec += nanoseconds / 1000000000;
    deadline.tv_nsec += nanoseconds % 1000000000;
    os_clock_adjust_clock_time(&deadline);
    return deadline;
}

int64_t segmentSize(const std::string& name) {
    struct stat status {};
    if (stat(("/dev/shm/" + name).c_str(), &status) != 0)
        return -1;
    return status.st_size;
}

MappedObject::MappedObject(const std::string& name) {
    const int fd = shm_open(name.c_str(), O_RDWR, 0);
    if (fd < 0)
        return;
    struct stat status {};
    if (fstat(fd, &status) == 0 && status.st_size > 0) {
        void* mapping = mmap(nullptr, static_cast<size_t>(status.st_size), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (mapping != MAP_FAILED) {
            bytes = static_cast<uint8_t*>(mapping);
            length = static_cast<size_t>(status.st_size);
        }
    }
    close(fd);
}

MappedObject::~MappedObject() {
    if (bytes != nullptr)
        munmap(bytes, length);
}

int64_t openCountOf(const std::string& name) {
    MappedObject object(name);
    if (object.bytes == nullptr)
        return -1;
    uint32_t count = 0;
    std::memcpy(&count, object.bytes, sizeof count);
    return count;
}

key_t memoryFileKey(const std::string& name) {
    return ftok(("/dev/shm/" + name).c_str(), 0);
}

bool systemVSemaphoreExists(key_t key) {
    return key != -1 && semget(key, 1, 0) != -1;
}

Signal::Signal() {
    if (pipe(m_fds) != 0)
        throw std::runtime_error("pipe failed");
}

Signal::~Signal() {
    close(m_fds[0]);
    close(m_fds[1]);
}

void Signal::notify() {
    const char byte = 1;
    while (write(m_fds[1], &byte, 1) < 0 && errno == EINTR) {
    }
}

bool Signal::waitFor(std::chrono::milliseconds timeout) {
    pollfd entry{m_fds[0], POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(timeout.count())) != 1)
        return false;
    char byte = 0;
    return read(m_fds[0], &byte, 1) == 1;
}

void SyncManagerTest::SetUp() {
    ASSERT_TRUE(os_sync_environment_initialize(false))
        << "another sync manager runs, or a crashed one left its names in /dev/shm";
    m_running = true;
    // The manager thread opens the request and finish semaphores after
    // initialise has returned; clients need both.
    ASSERT_TRUE(eventually([] {
        return access("/dev/shm/sem." KORVANE_SYNC_REQUEST_SEMAPHORE, F_OK) == 0 &&
               access("/dev/shm/sem." KORVANE_SYNC_FINISH_SEMAPHORE, F_OK) == 0;
    }));
}

void SyncManagerTest::TearDown() {
    // A failing test may leave handles open; their System V semaphores are
    // keyed by memory files that only exist until the manager stops.
    for (const std::string& leftover : m_names) {
        const key_t key = memoryFileKey(leftover);
        const int id = key == -1 ? -1 : semget(key, 1, 0);
        if (id != -1)
            semctl(id, 0, IPC_RMID);
    }
    if (m_running)
        os_sync_environment_uninitialize();
    for (const std::string& leftover : m_names)
        shm_unlink(leftover.c_str());
}

std::string SyncManagerTest::name(const std::string& tag) {
    m_names.push_back(uniqueName(tag));
    return m_names.back();
}

} // namespace kvtest
