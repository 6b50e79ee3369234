// Sizes and offsets of the shared memories that every process on the machine
// reads: the sync channel memory and the named object memories. The library
// and the operator tools both include this file, so a layout is written once.
// Other processes, built from other sources, rely on every number here.
#ifndef KORVANE_COMMON_NAMED_LAYOUTS_H
#define KORVANE_COMMON_NAMED_LAYOUTS_H

#include <cstddef>
#include <cstdint>

namespace korvane {
namespace layout {

// The channel memory: the memory request occupies its first 1029 bytes.
constexpr uint32_t kChannelMemorySize = 1029;

// The rest of the channel memory's first page. The file is 1029 bytes long,
// but every process maps the whole page, and the page is shared, so the bytes
// past the request are a side band that managers and clients written without
// it never touch: they read zeros there and write nothing. Our client records
// who holds the channel lock (so a manager can give the lock back when that
// process died) and numbers its requests (so an answer that comes late can be
// told from the answer to the request that follows it).
constexpr size_t kHolderPidOffset = 1032;       // uint32: pid holding the lock, 0 when none recorded
constexpr size_t kHolderStartOffset = 1040;     // uint64: that process's start time, in clock ticks
                                                //         since boot (/proc/<pid>/stat, field 22)
constexpr size_t kRequestSequenceOffset = 1048; // uint32: number of the request written, never 0
constexpr size_t kAnswerSequenceOffset = 1052;  // uint32: number of the request last answered
constexpr size_t kChannelTailEnd = 1056;

// Every named object memory starts with its open count.
constexpr uint32_t kOpenCountSize = 4;

// The memory request size of each kind of named object: the open count plus
// the object. Each size belongs to exactly one kind.
constexpr uint32_t kMutexRequestSize = 52;            // mutex and recursive mutex alike
constexpr uint32_t kEventConditionRequestSize = 104;  // event, condition wake-ups
constexpr uint32_t kEventSemaphoreRequestSize = 88;   // event, semaphore wake-ups
constexpr uint32_t kEventSystemVRequestSize = 60;     // event, System V wake-ups
constexpr uint32_t kSemaphoreRequestSize = 37;        // semaphore
constexpr uint32_t kSemaphoreSystemVRequestSize = 9;  // semaphore, System V
constexpr uint32_t kRWMutexRequestSize = 152;         // reader-writer mutex

} // namespace layout
} // namespace korvane

#endif
