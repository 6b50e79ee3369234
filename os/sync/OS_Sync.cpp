// The sync manager: one thread per machine that creates and removes the named
// object memories on request from any process, over the sync channel.
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <map>
#include <string>

#include "korvane/system.h"
#include "os/sync/SyncInternal.h"

using namespace korvane::sync;

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
    void removeChannel();

    std::atomic<bool> m_stop{false};
    bool m_started = false;
    pthread_t m_thread{};
    sem_t* m_lockSemaphore = nullptr;
    sharememory_handle* m_channelMemory = nullptr;
    std::map<std::string, sharememory_handle*> m_memories;
};

namespace {

// The manager of this process; null when it runs none. Not guarded: it is
// set and cleared by the process's initialise and uninitialise calls only.
os_sync_manager_handle* os_sync_manager = nullptr;

// Creates one of the manager's semaphores, refusing to adopt a leftover one.
sem_t* createSemaphore(const char* name, unsigned int value) {
    sem_t* semaphore = sem_open(name, O_CREAT | O_EXCL, 0755, value);
    if (semaphore != SEM_FAILED)
        return semaphore;
    std::printf("Error:can not create %s, errno = %d!\n", name, errno);
    return nullptr;
}

// Whether a create request may have a memory made under `name`. The channel
// memory and the files of named semaphores ("sem.<name>") share the folder
// with the object memories, and creating a memory takes over and clears a
// file of that name: the channel, or another program's semaphore, would be
// destroyed by one request. shm_open ignores leading slashes, so they are
// ignored here too.
bool mayCreate(const std::string& name) {
    const size_t start = name.find_first_not_of('/');
    return start != std::string::npos && name.compare(start, std::string::npos, kChannelMemoryName) != 0 &&
           name.compare(start, 4, "sem.") != 0;
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
    os_thread_create(&m_thread, manager_thread, this, 0);
    m_started = true;
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
    // Every memory still held goes, whether or not other processes use it.
    for (auto& entry : m_memories)
        removeMemory(entry.second);
    m_memories.clear();
}

sharememory_handle* os_sync_manager_handle::createMemory(const char* name, unsigned int size) {
    const auto found = m_memories.find(name);
    // An existing memory is handed out as it is: not resized, not cleared.
    if (found != m_memories.end())
        return found->second;
    sharememory_handle* memory = os_sharememory_create(name, size);
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
    if (request.operation == kCreateRequest && request.size != 0 && mayCreate(request.name))
        createMemory(request.name.c_str(), request.size);
    else if (request.operation == kDestroyRequest && !request.name.empty())
        destroyMemory(request.name.c_str());
}

void os_sync_manager_handle::manager_thread(void* self) {
    os_sync_manager_handle* manager = static_cast<os_sync_manager_handle*>(self);
    // Without one of these the thread goes on: it still answers what it can
    // and still ends on stop.
    sem_t* request = createSemaphore(kRequestSemaphoreName, 0);
    sem_t* finish = createSemaphore(kFinishSemaphoreName, 0);
    const uint8_t* channel = static_cast<const uint8_t*>(os_sharememory_get_buffer(manager->m_channelMemory));
    while (channel != nullptr && !manager->m_stop) {
        // Polled in 100 ms slices so that stop takes effect within one.
        if (request == nullptr) {
            os_thread_sleep_milliseconds(100);
            continue;
        }
        if (!waitForAnswer(request))
            continue;
        manager->serve(readMemoryRequest(channel));
        // Every request is answered, whatever it asked and however it went.
        if (finish != nullptr)
            sem_post(finish);
    }
    closeSemaphore(finish);
    closeSemaphore(request);
    sem_unlink(kFinishSemaphoreName);
    sem_unlink(kRequestSemaphoreName);
}

bool os_sync_environment_initialize(bool client_only) {
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
