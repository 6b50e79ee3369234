#include "Channel.h"

#include <fcntl.h>
#include <semaphore.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <ctime>
#include <memory>

#include "korvane/sync.h"
#include "korvane/system.h"

namespace korvane_tools {
namespace {

constexpr size_t kChannelMemorySize = 1029;

const char* const kSemaphoreNames[] = {KORVANE_SYNC_LOCK_SEMAPHORE, KORVANE_SYNC_REQUEST_SEMAPHORE,
                                       KORVANE_SYNC_FINISH_SEMAPHORE};

struct SemaphoreCloser {
    void operator()(sem_t* semaphore) const { sem_close(semaphore); }
};
using Semaphore = std::unique_ptr<sem_t, SemaphoreCloser>;

Semaphore openSemaphore(const char* name) {
    sem_t* semaphore = sem_open(name, 0);
    return Semaphore(semaphore == SEM_FAILED ? nullptr : semaphore);
}

// The channel memory mapped for the length of one probe.
class ChannelMapping {
public:
    ChannelMapping() {
        const int fd = shm_open(KORVANE_SYNC_CHANNEL_MEMORY, O_RDWR, 0);
        if (fd < 0)
            return;
        void* address = mmap(nullptr, kChannelMemorySize, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (address != MAP_FAILED)
            m_address = static_cast<uint8_t*>(address);
    }
    ~ChannelMapping() {
        if (m_address != nullptr)
            munmap(m_address, kChannelMemorySize);
    }
    ChannelMapping(const ChannelMapping&) = delete;
    ChannelMapping& operator=(const ChannelMapping&) = delete;
    uint8_t* address() const { return m_address; }

private:
    uint8_t* m_address = nullptr;
};

struct timespec realtimeDeadline(std::chrono::milliseconds timeout) {
    struct timespec deadline;
    os_clock_get_time(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout.count() / 1000);
    deadline.tv_nsec += static_cast<long>(timeout.count() % 1000) * 1000000L;
    os_clock_adjust_clock_time(&deadline);
    return deadline;
}

bool timedWait(sem_t* semaphore, std::chrono::milliseconds timeout) {
    const struct timespec deadline = realtimeDeadline(timeout);
    while (sem_timedwait(semaphore, &deadline) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

} // namespace

std::vector<ChannelResource> channelResources() {
    std::vector<ChannelResource> resources;
    resources.push_back({KORVANE_SYNC_CHANNEL_MEMORY, std::string("/dev/shm/") + KORVANE_SYNC_CHANNEL_MEMORY, false,
                         false});
    for (const char* name : kSemaphoreNames)
        resources.push_back({name, std::string("/dev/shm/sem.") + name, true, false});
    for (ChannelResource& resource : resources)
        resource.present = access(resource.path.c_str(), F_OK) == 0;
    return resources;
}

bool anyChannelResourcePresent() {
    for (const ChannelResource& resource : channelResources()) {
        if (resource.present)
            return true;
    }
    return false;
}

const char* describe(ProbeResult result) {
    switch (result) {
    case ProbeResult::Answering: return "answering";
    case ProbeResult::NotAnswering: return "not answering";
    case ProbeResult::Busy: return "busy";
    case ProbeResult::NoChannel: return "no channel";
    }
    return "unknown";
}

ProbeResult probeManager(std::chrono::milliseconds timeout) {
    Semaphore lock = openSemaphore(KORVANE_SYNC_LOCK_SEMAPHORE);
    Semaphore request = openSemaphore(KORVANE_SYNC_REQUEST_SEMAPHORE);
    Semaphore finish = openSemaphore(KORVANE_SYNC_FINISH_SEMAPHORE);
    ChannelMapping channel;
    if (!lock || !request || !finish || channel.address() == nullptr)
        return ProbeResult::NoChannel;
    if (!timedWait(lock.get(), timeout))
        return ProbeResult::Busy;
    // Operation code 0 is ignored by the manager, which answers it all the same.
    const uint32_t noOperation = 0;
    std::memcpy(channel.address(), &noOperation, sizeof noOperation);
    sem_post(request.get());
    const bool answered = timedWait(finish.get(), timeout);
    sem_post(lock.get());
    return answered ? ProbeResult::Answering : ProbeResult::NotAnswering;
}

std::vector<std::string> removeChannelResources() {
    std::vector<std::string> removed;
    for (const ChannelResource& resource : channelResources()) {
        if (!resource.present)
            continue;
        const int result = resource.semaphore ? sem_unlink(resource.name.c_str()) : shm_unlink(resource.name.c_str());
        if (result == 0)
            removed.push_back(resource.name);
    }
    return removed;
}

} // namespace korvane_tools
