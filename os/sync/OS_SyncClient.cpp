// The client side of the sync channel and the two sequences every named
// primitive follows: create-or-open (ask the manager for the memory, map it,
// count this handle in, the first opener building the object) and release
// (count this handle out, the last one tearing the object down and asking the
// manager to remove the memory).
#include <fcntl.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "korvane/system.h"
#include "os/sync/SyncInternal.h"

namespace korvane {
namespace sync {

const char kChannelMemoryName[] = KORVANE_SYNC_CHANNEL_MEMORY;
const char kLockSemaphoreName[] = KORVANE_SYNC_LOCK_SEMAPHORE;
const char kRequestSemaphoreName[] = KORVANE_SYNC_REQUEST_SEMAPHORE;
const char kFinishSemaphoreName[] = KORVANE_SYNC_FINISH_SEMAPHORE;

namespace {

constexpr size_t kOperationOffset = 0;
constexpr size_t kSizeOffset = 4;
constexpr size_t kCreateNameOffset = 8;
constexpr size_t kDestroyNameOffset = 4;
constexpr long kAnswerTimeoutNanoseconds = 100000000; // 100 ms

size_t nameOffset(uint32_t operation) {
    return operation == kCreateRequest ? kCreateNameOffset : kDestroyNameOffset;
}

} // namespace

size_t channelMappedBytes() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return (kChannelMemorySize + page - 1) / page * page;
}

bool writeMemoryRequest(uint8_t* channel, const MemoryRequest& request) {
    const size_t offset = nameOffset(request.operation);
    if (offset + request.name.size() + 1 > channelMappedBytes())
        return false;
    std::memcpy(channel + kOperationOffset, &request.operation, sizeof request.operation);
    if (request.operation == kCreateRequest)
        std::memcpy(channel + kSizeOffset, &request.size, sizeof request.size);
    std::memcpy(channel + offset, request.name.c_str(), request.name.size() + 1);
    return true;
}

MemoryRequest readMemoryRequest(const uint8_t* channel) {
    MemoryRequest request;
    std::memcpy(&request.operation, channel + kOperationOffset, sizeof request.operation);
    if (request.operation != kCreateRequest && request.operation != kDestroyRequest)
        return request;
    if (request.operation == kCreateRequest)
        std::memcpy(&request.size, channel + kSizeOffset, sizeof request.size);
    const size_t offset = nameOffset(request.operation);
    const char* name = reinterpret_cast<const char*>(channel + offset);
    request.name.assign(name, strnlen(name, channelMappedBytes() - offset));
    return request;
}

void closeSemaphore(sem_t*& semaphore) {
    if (semaphore != nullptr) {
        sem_close(semaphore);
        semaphore = nullptr;
    }
}

bool waitForAnswer(sem_t* semaphore) {
    if (semaphore == nullptr)
        return false;
    struct timespec now;
    struct timespec deadline;
    os_clock_get_time(CLOCK_MONOTONIC, &now);
    os_clock_monotonic_to_realtime(&now, &deadline);
    deadline.tv_nsec += kAnswerTimeoutNanoseconds;
    os_clock_adjust_clock_time(&deadline);
    // A signal (an interval timer of the caller's, even with SA_RESTART)
    // ends sem_timedwait early; the answer may still come before the
    // deadline, and a create given up for nothing leaves an unusable handle.
    int result;
    while ((result = sem_timedwait(semaphore, &deadline)) != 0 && errno == EINTR) {
    }
    return result == 0;
}

} // namespace sync
} // namespace korvane

namespace OS {

using namespace korvane::sync;

namespace {

sem_t* openSemaphore(const char* name, unsigned int value) {
    // Open only: the mode and value are ignored without O_CREAT.
    sem_t* semaphore = sem_open(name, 0, 0755, value);
    if (semaphore != SEM_FAILED)
        return semaphore;
    std::printf("Error: Can not open %s, errno = %d!\n", name, errno);
    return nullptr;
}

} // namespace

bool CSyncClient::create() {
    destroy();
    lockSemaphore = openSemaphore(kLockSemaphoreName, 1);
    requestSemaphore = openSemaphore(kRequestSemaphoreName, 0);
    finishSemaphore = openSemaphore(kFinishSemaphoreName, 0);
    channelMemory = os_sharememory_open(kChannelMemoryName);
    if (channelMemory == nullptr)
        std::printf("Error: Can not open %s, errno = %d!\n", kChannelMemoryName, errno);
    if (lockSemaphore != nullptr && requestSemaphore != nullptr && finishSemaphore != nullptr &&
        channelMemory != nullptr)
        return true;
    destroy();
    return false;
}

void CSyncClient::destroy() {
    closeSemaphore(lockSemaphore);
    closeSemaphore(requestSemaphore);
    closeSemaphore(finishSemaphore);
    if (channelMemory != nullptr) {
        os_sharememory_close(channelMemory, false);
        os_sharememory_destroy(&channelMemory);
    }
}

void CSyncClient::lockChannel() {
    if (lockSemaphore == nullptr)
        return;
    // Going on without the lock would let two clients share the channel and
    // an open count; a signal must not end this wait.
    while (sem_wait(lockSemaphore) != 0 && errno == EINTR) {
    }
}

void CSyncClient::unlockChannel() {
    if (lockSemaphore != nullptr)
        sem_post(lockSemaphore);
}

namespace {

bool sendRequest(CSyncClient& client, const MemoryRequest& request) {
    uint8_t* channel = static_cast<uint8_t*>(os_sharememory_get_buffer(client.channelMemory));
    if (channel == nullptr || client.requestSemaphore == nullptr || !writeMemoryRequest(channel, request))
        return false;
    sem_post(client.requestSemaphore);
    return waitForAnswer(client.finishSemaphore);
}

} // namespace

bool CSyncClient::requestCreate(const char* name, uint32_t size) {
    MemoryRequest request;
    request.operation = kCreateRequest;
    request.size = size;
    request.name = name;
    return sendRequest(*this, request);
}

bool CSyncClient::requestDestroy(const char* name) {
    MemoryRequest request;
    request.operation = kDestroyRequest;
    request.name = name;
    return sendRequest(*this, request);
}

} // namespace OS

namespace korvane {
namespace sync {

uint8_t* NamedObject::object() const {
    uint8_t* buffer = static_cast<uint8_t*>(os_sharememory_get_buffer(memory));
    return buffer == nullptr ? nullptr : buffer + kOpenCountSize;
}

uint32_t& NamedObject::openCount() const {
    return *static_cast<uint32_t*>(os_sharememory_get_buffer(memory));
}

namespace {

// The System V key of the memory file "/dev/shm/<name>", printing the
// family's message when the file cannot be keyed.
key_t memoryFileKey(const std::string& name, const char* family) {
    const std::string path = "/dev/shm/" + name;
    const key_t key = ftok(path.c_str(), 0);
    // The message has always shown "(null)" where the file name was meant to
    // be; existing log readers match it as it stands.
    if (key == -1)
        std::printf("can't access memory file[%s], create %s failed\n", "(null)", family);
    return key;
}

} // namespace

bool createOrOpenNamedObject(NamedObject& named, const char* name, uint32_t requestSize, const char* ftokFamily,
                             const InitialiseInPlace& initialise) {
    if (name == nullptr || std::strlen(name) > kMaximumNameLength)
        return false;
    OS::CSyncClient client;
    if (!client.create())
        return false;
    named.name = name;
    client.lockChannel();
    key_t key = -1;
    bool usable = client.requestCreate(name, requestSize);
    if (usable && ftokFamily != nullptr) {
        key = memoryFileKey(named.name, ftokFamily);
        usable = key != -1;
    }
    // The manager answers even when it could not make the memory (an empty
    // name, a name the platform refuses); the open then finds nothing and
    // the handle stays unusable.
    if (usable)
        named.memory = os_sharememory_open(name);
    if (named.memory != nullptr) {
        uint32_t& count = named.openCount();
        if (count == 0) {
            if (initialise)
                initialise(named.object(), key);
            count = 1;
        } else {
            count += 1;
        }
    }
    client.unlockChannel();
    client.destroy();
    return named.memory != nullptr;
}

void releaseNamedObject(NamedObject& named, const DestroyInPlace& destroy) {
    if (named.memory != nullptr) {
        OS::CSyncClient client;
        // Without a channel the count is left as it stands; the mapping goes.
        if (client.create()) {
            client.lockChannel();
            uint32_t& count = named.openCount();
            count -= 1;
            if (count == 0) {
                if (destroy)
                    destroy(named.object());
                // The manager removes the name; when it does not answer, the
                // memory stays mapped until the handle is destroyed below.
                if (client.requestDestroy(named.name.c_str()))
                    os_sharememory_close(named.memory, true);
            } else {
                os_sharememory_close(named.memory, false);
            }
            client.unlockChannel();
            client.destroy();
        }
        os_sharememory_destroy(&named.memory);
    }
    named.name.clear();
}

} // namespace sync
} // namespace korvane
