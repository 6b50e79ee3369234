#include "Channel.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <sstream>

#include "common/NamedLayouts.h"
#include "korvane/sync.h"
#include "korvane/system.h"

namespace korvane_tools {
namespace layout = korvane::layout;
namespace {

const char* const kSemaphoreNames[] = {KORVANE_SYNC_LOCK_SEMAPHORE, KORVANE_SYNC_REQUEST_SEMAPHORE,
                                       KORVANE_SYNC_FINISH_SEMAPHORE};

// This process's start time, in clock ticks since boot: with the pid it names
// the process uniquely, as pids are reused. Read from the main thread's entry:
// qemu-user rewrites /proc/self/stat with a start time of its own, which the
// manager, reading /proc/<pid>/stat from outside, would not find.
uint64_t ownStartTime() {
    const std::string pid = std::to_string(getpid());
    std::ifstream file("/proc/" + pid + "/task/" + pid + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // Field 2 (the command) may hold spaces; field 3 follows its last ')'.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    for (int number = 3; number < 22 && fields >> field; ++number) {
    }
    uint64_t start = 0;
    fields >> start;
    return start;
}

template <typename T> void store(uint8_t* page, size_t offset, T value) {
    __atomic_store_n(reinterpret_cast<T*>(page + offset), value, __ATOMIC_SEQ_CST);
}
template <typename T> T load(const uint8_t* page, size_t offset) {
    return __atomic_load_n(reinterpret_cast<const T*>(page + offset), __ATOMIC_SEQ_CST);
}

struct timespec realtimeDeadline(std::chrono::milliseconds timeout) {
    struct timespec deadline;
    os_clock_get_time(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += static_cast<time_t>(timeout.count() / 1000);
    deadline.tv_nsec += static_cast<long>(timeout.count() % 1000) * 1000000L;
    os_clock_adjust_clock_time(&deadline);
    return deadline;
}

// sem_timedwait resumed after a signal, within the same deadline.
bool waitUntil(sem_t* semaphore, const struct timespec& deadline) {
    while (sem_timedwait(semaphore, &deadline) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
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
    for (sem_t** semaphore : {&m_lock, &m_request, &m_finish}) {
        if (*semaphore != nullptr)
            sem_close(*semaphore);
        *semaphore = nullptr;
    }
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
    if (!waitUntil(m_lock, realtimeDeadline(timeout))) {
        pthread_sigmask(SIG_SETMASK, &m_savedMask, nullptr);
        return false;
    }
    m_locked = true;
    store<uint64_t>(m_page, layout::kHolderStartOffset, ownStartTime());
    store<uint32_t>(m_page, layout::kHolderPidOffset, static_cast<uint32_t>(getpid()));
    // An answer that came after its client gave up is still counted on the
    // finish semaphore; it must not pass for the answer to this holder.
    while (sem_trywait(m_finish) == 0) {
    }
    return true;
}

void ChannelClient::unlock() {
    if (!m_locked)
        return;
    store<uint32_t>(m_page, layout::kHolderPidOffset, 0);
    store<uint64_t>(m_page, layout::kHolderStartOffset, 0);
    sem_post(m_lock);
    m_locked = false;
    pthread_sigmask(SIG_SETMASK, &m_savedMask, nullptr);
}

bool ChannelClient::request(uint32_t operation, const std::string& name, uint32_t size,
                            std::chrono::milliseconds timeout) {
    // A create carries its size at 4 and its name from 8; a destroy has no
    // size and its name starts at 4.
    const size_t nameOffset = operation == 1 ? 8 : 4;
    if (!m_locked || nameOffset + name.size() + 1 > layout::kHolderPidOffset)
        return false;
    std::memcpy(m_page, &operation, sizeof operation);
    if (operation == 1)
        std::memcpy(m_page + 4, &size, sizeof size);
    std::memcpy(m_page + nameOffset, name.c_str(), name.size() + 1);
    uint32_t sequence = load<uint32_t>(m_page, layout::kRequestSequenceOffset) + 1;
    if (sequence == 0)
        sequence = 1;
    store<uint32_t>(m_page, layout::kRequestSequenceOffset, sequence);
    sem_post(m_request);
    const struct timespec deadline = realtimeDeadline(timeout);
    while (waitUntil(m_finish, deadline)) {
        // A manager that does not number its answers leaves 0 here.
        const uint32_t answered = load<uint32_t>(m_page, layout::kAnswerSequenceOffset);
        if (answered == sequence || answered == 0)
            return true;
    }
    return false;
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
