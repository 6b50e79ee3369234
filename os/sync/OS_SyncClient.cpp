// The client side of the sync channel and the two sequences every named
// primitive follows: create-or-open (ask the manager for the memory, map it,
// count this handle in, the first opener building the object) and release
// (count this handle out, the last one tearing the object down and asking the
// manager to remove the memory).
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "korvane/system.h"
#include "common/UniqueDescriptor.h"
#include "os/sync/SyncInternal.h"

namespace layout = korvane::layout;

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

timespec realtimeDeadlineAfter(int64_t nanoseconds) {
    struct timespec now;
    struct timespec deadline;
    os_clock_get_time(CLOCK_MONOTONIC, &now);
    os_clock_monotonic_to_realtime(&now, &deadline);
    deadline.tv_nsec += nanoseconds;
    os_clock_adjust_clock_time(&deadline);
    return deadline;
}

timespec answerDeadline() {
    return realtimeDeadlineAfter(kAnswerTimeoutNanoseconds);
}

bool waitUntil(sem_t* semaphore, const timespec& deadline) {
    if (semaphore == nullptr)
        return false;
    // A signal must not cut the wait short: with a 1 ms interval timer the
    // answer would never be waited for.
    while (sem_timedwait(semaphore, &deadline) != 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

bool waitForAnswer(sem_t* semaphore) {
    return waitUntil(semaphore, answerDeadline());
}

bool isRefusedName(const std::string& name) {
    for (const char* reserved : {kChannelMemoryName, kLockSemaphoreName, kRequestSemaphoreName, kFinishSemaphoreName}) {
        if (name == reserved)
            return true;
    }
    return name.compare(0, 4, "sem.") == 0 || name.find('/') != std::string::npos;
}

// The side band's words are shared with other processes and read while they
// write them: each is read and written whole, never torn.
uint32_t loadChannelWord(const uint8_t* channel, size_t offset) {
    return __atomic_load_n(reinterpret_cast<const uint32_t*>(channel + offset), __ATOMIC_ACQUIRE);
}

void storeChannelWord(uint8_t* channel, size_t offset, uint32_t value) {
    __atomic_store_n(reinterpret_cast<uint32_t*>(channel + offset), value, __ATOMIC_RELEASE);
}

LockHolder readLockHolder(const uint8_t* channel) {
    LockHolder holder;
    holder.pid = loadChannelWord(channel, layout::kHolderPidOffset);
    holder.start = __atomic_load_n(reinterpret_cast<const uint64_t*>(channel + layout::kHolderStartOffset),
                                   __ATOMIC_ACQUIRE);
    return holder;
}

// The start time goes in before the pid and comes out after it, so a reader
// never pairs a pid with another process's start time.
void writeLockHolder(uint8_t* channel, const LockHolder& holder) {
    uint64_t* start = reinterpret_cast<uint64_t*>(channel + layout::kHolderStartOffset);
    if (holder.pid != 0)
        __atomic_store_n(start, holder.start, __ATOMIC_SEQ_CST);
    __atomic_store_n(reinterpret_cast<uint32_t*>(channel + layout::kHolderPidOffset), holder.pid, __ATOMIC_SEQ_CST);
    if (holder.pid == 0)
        __atomic_store_n(start, holder.start, __ATOMIC_SEQ_CST);
}

uint64_t processStartTime(pid_t pid) {
    // Read relative to /proc rather than through "/proc/<pid>/stat": an
    // emulator (qemu-user) fakes a process's own entries under that path, so
    // a client would record a start time that its manager never sees.
    const korvane::UniqueDescriptor<close> proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const korvane::UniqueDescriptor<close> file(
        proc.isOpen() ? openat(proc.get(), (std::to_string(pid) + "/stat").c_str(), O_RDONLY | O_CLOEXEC) : -1);
    char buffer[1024];
    const ssize_t length = file.isOpen() ? read(file.get(), buffer, sizeof buffer - 1) : -1;
    if (length <= 0)
        return 0;
    const std::string line(buffer, static_cast<size_t>(length));
    // The command name (field 2) may hold spaces and parentheses: the fields
    // that follow start after its last ')'.
    const size_t end = line.rfind(')');
    if (end == std::string::npos)
        return 0;
    std::istringstream fields(line.substr(end + 1));
    std::string state;
    fields >> state; // field 3
    if (state == "Z" || state == "X")
        return 0;
    std::string skipped;
    for (int field = 4; field < 22; ++field)
        fields >> skipped;
    uint64_t start = 0;
    fields >> start;
    return start;
}

LockHolder thisProcess() {
    static pid_t cachedPid = 0;
    static uint64_t cachedStart = 0;
    const pid_t pid = getpid();
    if (pid != cachedPid) {
        cachedStart = processStartTime(pid);
        cachedPid = pid;
    }
    LockHolder holder;
    holder.pid = static_cast<uint32_t>(pid);
    holder.start = cachedStart;
    return holder;
}

namespace {

// A number no other request in flight carries: never 0 (the value clients
// that do not number their requests leave), never the last one answered.
uint32_t freshSequence(const uint8_t* channel) {
    static std::atomic<uint64_t> counter{0};
    timespec now{};
    os_clock_get_time(CLOCK_MONOTONIC, &now);
    uint64_t mixed = (static_cast<uint64_t>(getpid()) << 32) ^ static_cast<uint64_t>(now.tv_nsec) ^
                     (static_cast<uint64_t>(now.tv_sec) << 20) ^ (++counter * 0x9E3779B97F4A7C15ULL);
    mixed = (mixed ^ (mixed >> 31)) * 0xBF58476D1CE4E5B9ULL;
    uint32_t sequence = static_cast<uint32_t>(mixed ^ (mixed >> 32));
    while (sequence == 0 || sequence == loadChannelWord(channel, layout::kAnswerSequenceOffset))
        ++sequence;
    return sequence;
}

} // namespace

bool exchangeRequest(uint8_t* channel, sem_t* requestSemaphore, sem_t* finishSemaphore,
                     const MemoryRequest& request, const timespec& deadline) {
    if (channel == nullptr || requestSemaphore == nullptr || finishSemaphore == nullptr)
        return false;
    // Answers that came after their clients gave up are still counted on
    // the finish semaphore; none of them is this request's.
    while (sem_trywait(finishSemaphore) == 0) {
    }
    if (!writeMemoryRequest(channel, request))
        return false;
    // Numbered last: a manager that sees the number sees the whole request.
    const uint32_t sequence = freshSequence(channel);
    storeChannelWord(channel, layout::kRequestSequenceOffset, sequence);
    sem_post(requestSemaphore);
    while (waitUntil(finishSemaphore, deadline)) {
        // A manager that does not number its answers leaves 0 there: its
        // answer is taken as this request's, as it always was.
        const uint32_t answered = loadChannelWord(channel, layout::kAnswerSequenceOffset);
        if (answered == 0 || answered == sequence)
            return true;
    }
    // Taken back when the manager has not picked it up yet, so that it does
    // not serve a request whose client has gone on.
    sem_trywait(requestSemaphore);
    return false;
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

// Which file the channel's lock semaphore is now; {0, 0} when there is none.
FileIdentity lockFileIdentity() {
    struct stat status {};
    if (stat((std::string("/dev/shm/sem.") + kLockSemaphoreName).c_str(), &status) != 0)
        return FileIdentity{};
    return FileIdentity{status.st_dev, status.st_ino};
}

} // namespace

bool CSyncClient::create() {
    destroy();
    // The file is looked at before and after the open: when both agree, it
    // is the one opened. Otherwise (a manager replacing the channel just
    // now, or named semaphores kept elsewhere) the identity stays unknown.
    const FileIdentity before = lockFileIdentity();
    lockSemaphore = openSemaphore(kLockSemaphoreName, 1);
    lockFile = before == lockFileIdentity() ? before : FileIdentity{};
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

namespace {

uint8_t* channelOf(const CSyncClient& client) {
    return static_cast<uint8_t*>(os_sharememory_get_buffer(client.channelMemory));
}

} // namespace

bool CSyncClient::lockChannel() {
    if (lockSemaphore == nullptr)
        return false;
    // Going on without the lock would let two clients share the channel and
    // an open count, so the wait has no time limit and a signal does not
    // end it. It ends without the lock only when the lock's name has come to
    // name another file, or none: the manager that made this lock has
    // stopped, and a holder that died with it would never give it back (the
    // manager that gives back dead holders' locks watches its own). Where
    // the lock's file is not known, the wait is as it always was.
    constexpr int64_t kSliceNanoseconds = 200000000;
    while (!waitUntil(lockSemaphore, realtimeDeadlineAfter(kSliceNanoseconds))) {
        if (lockFile.inode != 0 && !(lockFileIdentity() == lockFile))
            return false;
    }
    if (uint8_t* channel = channelOf(*this))
        writeLockHolder(channel, thisProcess());
    return true;
}

void CSyncClient::unlockChannel() {
    if (lockSemaphore == nullptr)
        return;
    // Cleared before the lock goes back: once posted, the record would name
    // a process that no longer holds it.
    if (uint8_t* channel = channelOf(*this)) {
        storeChannelWord(channel, layout::kRequestSequenceOffset, 0);
        writeLockHolder(channel, LockHolder());
    }
    sem_post(lockSemaphore);
}

bool CSyncClient::requestCreate(const char* name, uint32_t size) {
    MemoryRequest request;
    request.operation = kCreateRequest;
    request.size = size;
    request.name = name;
    return exchangeRequest(channelOf(*this), requestSemaphore, finishSemaphore, request, answerDeadline());
}

bool CSyncClient::requestDestroy(const char* name) {
    MemoryRequest request;
    request.operation = kDestroyRequest;
    request.name = name;
    return exchangeRequest(channelOf(*this), requestSemaphore, finishSemaphore, request, answerDeadline());
}

} // namespace OS

namespace korvane {
namespace sync {

uint8_t* NamedObject::base() const {
    return static_cast<uint8_t*>(os_sharememory_get_buffer(memory));
}

uint8_t* NamedObject::object() const {
    uint8_t* buffer = base();
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

// False, with a message, when the memory of `name` is not `requestSize`
// bytes long: an object of another kind already has the name.
bool hasRequestSize(const std::string& name, uint32_t requestSize) {
    struct stat status {};
    if (stat(("/dev/shm/" + name).c_str(), &status) != 0 || status.st_size == requestSize)
        return true;
    std::printf("Error: %s holds another kind of object (%lld bytes, not %u)!\n", name.c_str(),
                static_cast<long long>(status.st_size), requestSize);
    return false;
}

} // namespace

bool createOrOpenNamedObject(NamedObject& named, const char* name, uint32_t requestSize, const char* ftokFamily,
                             const InitialiseInPlace& initialise) {
    if (name == nullptr || std::strlen(name) > kMaximumNameLength || isRefusedName(name))
        return false;
    OS::CSyncClient client;
    if (!client.create())
        return false;
    if (!client.lockChannel())
        return false;
    named.name = name;
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
    if (named.memory != nullptr && !hasRequestSize(named.name, requestSize))
        os_sharememory_destroy(&named.memory); // another kind's object: not ours to count or build
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
        // Without a channel, or with one whose manager has gone, the count is
        // left as it stands; the mapping goes.
        if (client.create() && client.lockChannel()) {
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
