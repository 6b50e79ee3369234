#include "ObjectState.h"

#include <fcntl.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "common/NamedLayouts.h"

namespace korvane_tools {
namespace layout = korvane::layout;
namespace {

// The head of glibc's pthread_mutex_t, alike on x86-64 (40 bytes) and aarch64
// (48 bytes): int __lock; unsigned __count; int __owner; unsigned __nusers;
// int __kind. A robust mutex keeps its owner's thread id in __lock, where the
// kernel sets FUTEX_OWNER_DIED when that thread dies; __count is a recursive
// mutex's depth; the low two bits of __kind are the mutex type.
struct MutexHead {
    int32_t lock;
    uint32_t count;
    int32_t owner;
    uint32_t users;
    int32_t kind;
};
constexpr uint32_t kOwnerTidMask = 0x3fffffff; // FUTEX_TID_MASK
constexpr uint32_t kOwnerDied = 0x40000000;    // FUTEX_OWNER_DIED
constexpr int32_t kRecursiveType = 1;          // PTHREAD_MUTEX_RECURSIVE
constexpr int32_t kTypeMask = 3;

// Offsets inside the memories (the open count at 0).
constexpr size_t kMutexOffset = 4;
constexpr size_t kSemaphoreCountOffset = 4; // the shared semaphore's count, or a System V id
constexpr size_t kReadersOffset = 4;
constexpr size_t kWriterOffset = 8;
constexpr size_t kHoldMutexOffset = 60;
struct EventFlags {
    uint32_t size;
    size_t manualReset; // the state byte follows
};
constexpr EventFlags kEventFlags[] = {{layout::kEventConditionRequestSize, 100},
                                      {layout::kEventSemaphoreRequestSize, 84},
                                      {layout::kEventSystemVRequestSize, 56}};

template <typename T> T at(const uint8_t* memory, size_t offset) {
    T value;
    std::memcpy(&value, memory + offset, sizeof value);
    return value;
}

// The process a live thread belongs to, 0 when the thread is gone.
pid_t processOfThread(uint32_t tid) {
    std::ifstream status("/proc/" + std::to_string(tid) + "/status");
    std::string word;
    while (status >> word) {
        pid_t pid = 0;
        if (word == "Tgid:" && status >> pid)
            return pid;
    }
    return 0;
}

// Describes who holds the mutex at `offset`; the JSON keys start with `prefix`.
std::string describeMutex(const uint8_t* memory, size_t offset, const std::string& prefix, ObjectState& state) {
    const MutexHead head = at<MutexHead>(memory, offset);
    const uint32_t word = static_cast<uint32_t>(head.lock);
    uint32_t tid = word & kOwnerTidMask;
    if (tid == 0 && (word & kOwnerDied) != 0)
        tid = static_cast<uint32_t>(head.owner);
    state.fields.push_back({prefix + "locked", tid != 0, true});
    if (tid == 0)
        return "free";
    const pid_t pid = (word & kOwnerDied) != 0 ? 0 : processOfThread(tid);
    state.fields.push_back({prefix + "owner_tid", tid, false});
    if (pid != 0)
        state.fields.push_back({prefix + "owner_pid", static_cast<uint64_t>(pid), false});
    state.fields.push_back({prefix + "owner_alive", pid != 0, true});
    return "locked by tid " + std::to_string(tid) +
           (pid != 0 ? " (pid " + std::to_string(pid) + ")" : " (dead: the next locker repairs it)");
}

} // namespace

ObjectState readObjectState(const std::string& path, uint64_t size, const char* kind) {
    ObjectState state{kind, "", {}};
    uint8_t memory[layout::kRWMutexRequestSize] = {};
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool readable = fd >= 0 && pread(fd, memory, sizeof memory, 0) == static_cast<ssize_t>(size);
    if (fd >= 0)
        close(fd);
    if (!readable) {
        state.text = "not accessible";
        return state;
    }
    if (size == layout::kMutexRequestSize) {
        const bool recursive = (at<MutexHead>(memory, kMutexOffset).kind & kTypeMask) == kRecursiveType;
        state.kind = recursive ? "recursive mutex" : "mutex";
        state.text = describeMutex(memory, kMutexOffset, "", state);
        if (recursive) {
            const uint32_t depth = at<MutexHead>(memory, kMutexOffset).count;
            state.fields.push_back({"depth", depth, false});
            state.text += ", depth " + std::to_string(depth);
        }
    } else if (size == layout::kSemaphoreRequestSize || size == layout::kSemaphoreSystemVRequestSize) {
        int count = static_cast<int>(at<uint32_t>(memory, kSemaphoreCountOffset));
        if (size == layout::kSemaphoreSystemVRequestSize)
            count = semctl(at<int32_t>(memory, kSemaphoreCountOffset), 0, GETVAL);
        state.fields.push_back({"count", static_cast<uint64_t>(count < 0 ? 0 : count), false});
        state.text = "count " + std::to_string(count);
    } else if (size == layout::kRWMutexRequestSize) {
        const uint32_t readers = at<uint32_t>(memory, kReadersOffset);
        const bool writer = at<uint32_t>(memory, kWriterOffset) != 0;
        state.fields.push_back({"readers", readers, false});
        state.fields.push_back({"writer", writer, true});
        state.text = "readers " + std::to_string(readers) + ", writer " + (writer ? "yes" : "no") + ", hold " +
                     describeMutex(memory, kHoldMutexOffset, "hold_", state);
    } else {
        for (const EventFlags& flags : kEventFlags) {
            if (flags.size != size)
                continue;
            const bool manual = memory[flags.manualReset] != 0;
            const bool set = memory[flags.manualReset + 1] != 0;
            state.fields.push_back({"set", set, true});
            state.fields.push_back({"manual_reset", manual, true});
            state.text = std::string(set ? "set" : "reset") + (manual ? ", manual reset" : ", auto reset");
        }
    }
    return state;
}

} // namespace korvane_tools
