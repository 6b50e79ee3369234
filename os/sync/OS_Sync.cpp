// The sync manager: one thread per machine that creates and removes the named
// object memories on request from any process, over the sync channel.
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <map>
#include <string>

#include "common/BoolExport.h"
#include "korvane/system.h"
#include "os/sync/SyncInternal.h"

using namespace korvane::sync;
namespace layout = korvane::layout;

class os_sync_manager_handle {
public:
    os_sync_manager_handle() = default;
    // Frees the map's nodes only: stop() is what unmaps and unlinks.
    virtual ~os_sync_manager_handle() = default;

    os_sync_manager_handle(const os_sync_manager_handle&) = delete;
    os_sync_manager_handle& operator=(const os_sync_manager_handle&) = delete;

    bool start();
    void stop();
    sharememory_handle* createMemory(const char* name, unsigned int size);
    void destroyMemory(const char* name);
    static void manager_thread(void* self);

private:
    void serve(const MemoryRequest& request);
    void serveNext(uint8_t* channel, sem_t* finish);
    void recoverDeadHolder(uint8_t* channel);
    void removeChannel();

    std::atomic<bool> m_stop{false};
    bool m_started = false;
    bool m_keepObjects = false;
    pthread_t m_thread{};
    sem_t* m_lockSemaphore = nullptr;
    sharememory_handle* m_channelMemory = nullptr;
    std::map<std::string, sharememory_handle*> m_memories;
    // Told by the thread once its two semaphores exist (or could not be made).
    std::promise<void> m_ready;
    // The request number last served, so that a request is served once.
    uint32_t m_lastServed = 0;
    // The lock holder last seen while the lock was taken, and since when.
    LockHolder m_watchedHolder;
    timespec m_watchedSince{};
};

namespace {

// The manager of this process; null when it runs none. Not guarded: it is
// set and cleared by the process's initialise and uninitialise calls only.
os_sync_manager_handle* os_sync_manager = nullptr;

// korvane-syncd runs the manager as a service that may be restarted while
// processes still use their named objects, and sets this variable so that the
// objects outlive the restart: a create request for a memory that exists with
// a non-zero open count opens it as it is instead of resetting it, and stop
// leaves the memories still held in place (the service removes the unused
// ones itself beforehand). A process hosting the manager without it gets the
// manager as it has always been.
constexpr char kKeepObjectsVariable[] = "KORVANE_SYNC_KEEP_OBJECTS";

// The memory of `name` when it exists and is counted in use, else null.
sharememory_handle* openInUse(const char* name) {
    sharememory_handle* memory = os_sharememory_open(name);
    if (memory != nullptr && *static_cast<const uint32_t*>(os_sharememory_get_buffer(memory)) == 0) {
        os_sharememory_close(memory, false);
        os_sharememory_destroy(&memory);
    }
    return memory;
}

// Creates one of the manager's semaphores, refusing to adopt a leftover one.
sem_t* createSemaphore(const char* name, unsigned int value) {
    sem_t* semaphore = sem_open(name, O_CREAT | O_EXCL, 0755, value);
    if (semaphore != SEM_FAILED)
        return semaphore;
    std::printf("Error:can not create %s, errno = %d!\n", name, errno);
    return nullptr;
}

// A holder that could not read its own start time recorded 0; then only the
// pid tells, and a process that reused it is taken for the holder.
bool holderAlive(const LockHolder& holder) {
    const pid_t pid = static_cast<pid_t>(holder.pid);
    const uint64_t start = processStartTime(pid);
    if (holder.start == 0)
        return start != 0 || kill(pid, 0) == 0 || errno == EPERM;
    return start == holder.start;
}

void removeMemory(sharememory_handle*& memory) {
    os_sharememory_close(memory, true);
    os_sharememory_destroy(&memory);
}

} // namespace

void os_sync_manager_handle::removeChannel() {
    removeMemory(m_channelMemory);
    // sem_unlink with the memory's name removes nothing; it has always been
    // called here and is kept as it stands.
    sem_unlink(kChannelMemoryName);
}

bool os_sync_manager_handle::start() {
    const char* keep = std::getenv(kKeepObjectsVariable);
    m_keepObjects = keep != nullptr && std::string(keep) == "1";
    m_channelMemory = os_sharememory_create(kChannelMemoryName, kChannelMemorySize);
    if (m_channelMemory == nullptr)
        return false;
    m_lockSemaphore = createSemaphore(kLockSemaphoreName, 1);
    if (m_lockSemaphore == nullptr) {
        // This removes the channel memory's name even when another manager
        // owns it; kept as it stands.
        removeChannel();
        return false;
    }
    m_stop = false;
    m_ready = std::promise<void>();
    std::future<void> ready = m_ready.get_future();
    m_thread = pthread_t{};
    os_thread_create(&m_thread, manager_thread, this, 0);
    m_started = true;
    // A create made right after this returns must find the request and
    // finish semaphores. A thread that did not start never tells.
    if (m_thread != pthread_t{})
        ready.wait();
    return true;
}

void os_sync_manager_handle::stop() {
    m_stop = true;
    if (m_started) {
        os_thread_join(m_thread); // the thread removes its own two semaphores
        m_started = false;
    }
    if (m_lockSemaphore != nullptr) {
        closeSemaphore(m_lockSemaphore);
        sem_unlink(kLockSemaphoreName);
    }
    if (m_channelMemory != nullptr)
        removeChannel();
    // Every memory still held goes, whether or not other processes use it,
    // unless the objects are kept for the next manager.
    for (auto& entry : m_memories) {
        if (m_keepObjects)
            os_sharememory_destroy(&entry.second);
        else
            removeMemory(entry.second);
    }
    m_memories.clear();
}

sharememory_handle* os_sync_manager_handle::createMemory(const char* name, unsigned int size) {
    const auto found = m_memories.find(name);
    // An existing memory is handed out as it is: not resized, not cleared.
    if (found != m_memories.end())
        return found->second;
    sharememory_handle* memory = m_keepObjects ? openInUse(name) : nullptr;
    if (memory == nullptr)
        memory = os_sharememory_create(name, size);
    if (memory != nullptr)
        m_memories.emplace(name, memory);
    return memory;
}

void os_sync_manager_handle::destroyMemory(const char* name) {
    const auto found = m_memories.find(name);
    if (found == m_memories.end())
        return;
    removeMemory(found->second);
    m_memories.erase(found);
}

void os_sync_manager_handle::serve(const MemoryRequest& request) {
    // The channel's own names and names aliasing other memories or
    // semaphores are refused from every client, whatever library it runs.
    if (request.name.empty() || isRefusedName(request.name))
        return;
    if (request.operation == kCreateRequest && request.size != 0)
        createMemory(request.name.c_str(), request.size);
    else if (request.operation == kDestroyRequest)
        destroyMemory(request.name.c_str());
}

// Serves the request in the channel and answers it. A numbered request is
// echoed before the answer is posted, so its client can tell this answer from
// a late one; a number already served is a stale post (its client gave up
// and someone may be writing the channel now) and is answered only.
// Unnumbered requests, from clients that do not number them, are served as
// they always were.
void os_sync_manager_handle::serveNext(uint8_t* channel, sem_t* finish) {
    const uint32_t sequence = loadChannelWord(channel, layout::kRequestSequenceOffset);
    if (sequence == 0 || sequence != m_lastServed)
        serve(readMemoryRequest(channel));
    if (sequence != 0) {
        m_lastServed = sequence;
        storeChannelWord(channel, layout::kAnswerSequenceOffset, sequence);
    }
    // Every request is answered, whatever it asked and however it went.
    if (finish != nullptr)
        sem_post(finish);
}

// Gives the channel's lock back when the process recorded as holding it has
// held it for over a second and no longer exists. A holder recorded as 0 (a
// client that records nothing) is never taken from, and neither is a live
// one, however long it holds the lock.
void os_sync_manager_handle::recoverDeadHolder(uint8_t* channel) {
    constexpr time_t kHeldForSeconds = 1;
    int value = 1;
    if (m_lockSemaphore == nullptr || sem_getvalue(m_lockSemaphore, &value) != 0)
        return;
    const LockHolder holder = value == 0 ? readLockHolder(channel) : LockHolder();
    timespec now{};
    os_clock_get_time(CLOCK_MONOTONIC, &now);
    if (holder.pid == 0 || holder != m_watchedHolder) {
        m_watchedHolder = holder;
        m_watchedSince = now;
        return;
    }
    timespec held{};
    os_clock_get_clock_span(&m_watchedSince, &now, &held);
    os_clock_adjust_clock_time(&held);
    if (held.tv_sec < kHeldForSeconds || holderAlive(holder))
        return;
    storeChannelWord(channel, layout::kRequestSequenceOffset, 0);
    writeLockHolder(channel, LockHolder());
    sem_post(m_lockSemaphore);
    std::printf("sync manager: process %u died holding the channel lock; lock released\n", holder.pid);
    std::fflush(stdout);
    m_watchedHolder = LockHolder();
}

void os_sync_manager_handle::manager_thread(void* self) {
    os_sync_manager_handle* manager = static_cast<os_sync_manager_handle*>(self);
    // Without one of these the thread goes on: it still answers what it can
    // and still ends on stop.
    sem_t* request = createSemaphore(kRequestSemaphoreName, 0);
    sem_t* finish = createSemaphore(kFinishSemaphoreName, 0);
    manager->m_ready.set_value();
    uint8_t* channel = static_cast<uint8_t*>(os_sharememory_get_buffer(manager->m_channelMemory));
    while (channel != nullptr && !manager->m_stop) {
        // Polled in 100 ms slices so that stop takes effect within one, and
        // a dead lock holder is noticed within one.
        manager->recoverDeadHolder(channel);
        if (request == nullptr) {
            os_thread_sleep_milliseconds(100);
            continue;
        }
        if (waitForAnswer(request))
            manager->serveNext(channel, finish);
    }
    closeSemaphore(finish);
    closeSemaphore(request);
    sem_unlink(kFinishSemaphoreName);
    sem_unlink(kRequestSemaphoreName);
}

KORVANE_BOOL_EXPORT(os_sync_environment_initialize, (bool client_only)) {
    if (client_only) {
        OS::CSyncClient client;
        const bool running = client.create();
        client.destroy();
        return running;
    }
    // An earlier manager of this process is not looked at: the pointer is
    // replaced without stopping it. Existing callers rely on this; keep it.
    os_sync_manager = new os_sync_manager_handle;
    if (os_sync_manager->start())
        return true;
    delete os_sync_manager;
    os_sync_manager = nullptr;
    return false;
}

void os_sync_environment_uninitialize(void) {
    if (os_sync_manager == nullptr)
        return;
    os_sync_manager->stop();
    delete os_sync_manager;
    os_sync_manager = nullptr;
}
