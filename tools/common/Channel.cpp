#include "Channel.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "common/NamedLayouts.h"
#include "os/sync/SyncInternal.h"
#include "korvane/sync.h"
#include "korvane/system.h"

namespace korvane_tools {
namespace layout = korvane::layout;
namespace sync = korvane::sync;
namespace {

const char* const kSemaphoreNames[] = {KORVANE_SYNC_LOCK_SEMAPHORE, KORVANE_SYNC_REQUEST_SEMAPHORE,
                                       KORVANE_SYNC_FINISH_SEMAPHORE};

struct timespec realtimeDeadline(std::chrono::milliseconds timeout) {
    return sync::realtimeDeadlineAfter(std::chrono::nanoseconds(timeout).count());
}

sem_t* openSemaphore(const char* name) {
    sem_t* semaphore = sem_open(name, 0);
    return semaphore == SEM_FAILED ? nullptr : semaphore;
}

} // namespace

std::vector<ChannelResource> channelResources() {
    std::vector<ChannelResource> resources;
    resources.push_back({KORVANE_SYNC_CHANNEL_MEMORY, std::string("/dev/shm/") + KORVANE_SYNC_CHANNEL_MEMORY, false,
                         Presence::Missing});
    for (const char* name : kSemaphoreNames)
        resources.push_back({name, std::string("/dev/shm/sem.") + name, true, Presence::Missing});
    for (ChannelResource& resource : resources) {
        if (access(resource.path.c_str(), F_OK) == 0)
            resource.presence = access(resource.path.c_str(), R_OK | W_OK) == 0 ? Presence::Present
                                                                                 : Presence::NotAccessible;
    }
    return resources;
}

bool anyChannelResourcePresent() {
    for (const ChannelResource& resource : channelResources()) {
        if (resource.presence != Presence::Missing)
            return true;
    }
    return false;
}

const char* describe(Presence presence) {
    switch (presence) {
    case Presence::Missing: return "missing";
    case Presence::Present: return "present";
    case Presence::NotAccessible: return "present, not accessible";
    }
    return "unknown";
}

const char* describe(ProbeResult result) {
    switch (result) {
    case ProbeResult::Answering: return "answering";
    case ProbeResult::NotAnswering: return "not answering";
    case ProbeResult::Busy: return "busy";
    case ProbeResult::NoChannel: return "no channel";
    case ProbeResult::NotAccessible: return "present, not accessible";
    }
    return "unknown";
}

ChannelClient::~ChannelClient() {
    close();
}

void ChannelClient::close() {
    unlock();
    for (sem_t** semaphore : {&m_lock, &m_request, &m_finish})
        sync::closeSemaphore(*semaphore);
    if (m_page != nullptr)
        munmap(m_page, layout::kChannelTailEnd);
    m_page = nullptr;
}

ProbeResult ChannelClient::open() {
    close();
    m_lock = openSemaphore(KORVANE_SYNC_LOCK_SEMAPHORE);
    m_request = openSemaphore(KORVANE_SYNC_REQUEST_SEMAPHORE);
    m_finish = openSemaphore(KORVANE_SYNC_FINISH_SEMAPHORE);
    const int fd = shm_open(KORVANE_SYNC_CHANNEL_MEMORY, O_RDWR, 0);
    if (fd >= 0) {
        // The mapping covers the page, and with it the side band past the request.
        void* page = mmap(nullptr, layout::kChannelTailEnd, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ::close(fd);
        if (page != MAP_FAILED)
            m_page = static_cast<uint8_t*>(page);
    }
    if (m_lock != nullptr && m_request != nullptr && m_finish != nullptr && m_page != nullptr)
        return ProbeResult::Answering;
    for (const ChannelResource& resource : channelResources()) {
        if (resource.presence == Presence::NotAccessible)
            return ProbeResult::NotAccessible;
    }
    return ProbeResult::NoChannel;
}

bool ChannelClient::lock(std::chrono::milliseconds timeout) {
    if (m_lock == nullptr || m_locked)
        return m_locked;
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    for (int signal : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&stopSignals, signal);
    pthread_sigmask(SIG_BLOCK, &stopSignals, &m_savedMask);
    if (!sync::waitUntil(m_lock, realtimeDeadline(timeout))) {
        pthread_sigmask(SIG_SETMASK, &m_savedMask, nullptr);
        return false;
    }
    m_locked = true;
    sync::writeLockHolder(m_page, sync::thisProcess());
    return true;
}

void ChannelClient::unlock() {
    if (!m_locked)
        return;
    sync::storeChannelWord(m_page, layout::kRequestSequenceOffset, 0);
    sync::writeLockHolder(m_page, sync::LockHolder());
    sem_post(m_lock);
    m_locked = false;
    pthread_sigmask(SIG_SETMASK, &m_savedMask, nullptr);
}

bool ChannelClient::request(uint32_t operation, const std::string& name, uint32_t size,
                            std::chrono::milliseconds timeout) {
    // The name ends before the side band (the holder record) past the request.
    const size_t nameOffset = operation == sync::kCreateRequest ? 8 : 4;
    if (!m_locked || nameOffset + name.size() + 1 > layout::kHolderPidOffset)
        return false;
    sync::MemoryRequest memoryRequest;
    memoryRequest.operation = operation;
    memoryRequest.size = size;
    memoryRequest.name = name;
    return sync::exchangeRequest(m_page, m_request, m_finish, memoryRequest, realtimeDeadline(timeout));
}

ProbeResult probeManager(std::chrono::milliseconds timeout) {
    ChannelClient client;
    const ProbeResult opened = client.open();
    if (opened != ProbeResult::Answering)
        return opened;
    if (!client.lock(timeout))
        return ProbeResult::Busy;
    return client.request(0, "", 0, timeout) ? ProbeResult::Answering : ProbeResult::NotAnswering;
}

std::vector<std::string> removeChannelResources(std::vector<std::string>& failed) {
    std::vector<std::string> removed;
    for (const ChannelResource& resource : channelResources()) {
        if (resource.presence == Presence::Missing)
            continue;
        const int result = resource.semaphore ? sem_unlink(resource.name.c_str()) : shm_unlink(resource.name.c_str());
        (result == 0 ? removed : failed).push_back(resource.name);
    }
    return removed;
}

} // namespace korvane_tools
