// Named object memories as they appear in /dev/shm: recognised by the sizes
// the sync objects request, with their open counts and the processes that
// map them.
#ifndef KORVANE_TOOLS_SHM_SCAN_H
#define KORVANE_TOOLS_SHM_SCAN_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace korvane_tools {

struct NamedObjectMemory {
    std::string name;
    const char* kind;        // "mutex", "event", "semaphore", "rw mutex", ...
    uint64_t size;           // bytes
    uint32_t openCount;      // handles open on it in all processes
    std::vector<pid_t> holders; // processes that map it now, the sync manager aside
};

// The kind of named object whose memory has `size` bytes, or null.
const char* kindOfSize(uint64_t size);

// Every segment of /dev/shm (`directory` for tests) whose size is that of a
// named object memory, sorted by name.
std::vector<NamedObjectMemory> scanNamedObjects(const std::string& directory = "/dev/shm");

// For each file under `directory` that some process maps, the processes that
// map it (read from /proc/<pid>/maps; processes we may not inspect are skipped).
std::map<std::string, std::vector<pid_t>> mappingProcesses(const std::string& directory = "/dev/shm");

} // namespace korvane_tools

#endif
