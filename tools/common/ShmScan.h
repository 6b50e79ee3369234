// Named object memories as they appear in /dev/shm: recognised by the sizes
// the sync objects request, with their open counts, the processes that map
// them and what their object is doing now.
#ifndef KORVANE_TOOLS_SHM_SCAN_H
#define KORVANE_TOOLS_SHM_SCAN_H

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "ObjectState.h"

namespace korvane_tools {

class ChannelClient;

// Which live processes map which files, read from /proc/<pid>/maps. Files are
// told apart by device and inode, so a process in another mount namespace,
// with a /dev/shm of its own, never counts for a file of ours.
struct Mappers {
    std::map<std::pair<dev_t, ino_t>, std::vector<pid_t>> byFile;
    bool complete = true; // false when some process could not be inspected

    static Mappers scan();
    std::vector<pid_t> of(const std::string& path) const;
};

// The process running the sync manager: the korvane-syncd holding the
// service lock, else the one process (`self` aside) mapping the channel
// memory; 0 when that is not certain.
pid_t findManager(const Mappers& mappers, pid_t self);

struct NamedObjectMemory {
    std::string name;
    uint64_t size;              // bytes
    uint32_t openCount;         // handles open on it in all processes
    std::vector<pid_t> holders; // processes that map it now, the sync manager aside
    bool orphan;                // counted open, yet no live process maps it
    ObjectState state;
};

// The kind of named object whose memory has `size` bytes, or null.
const char* kindOfSize(uint64_t size);

// Every segment of /dev/shm whose size is that of a named object memory,
// sorted by name. `manager` is left out of the holders (0: nobody).
std::vector<NamedObjectMemory> scanNamedObjects(const Mappers& mappers, pid_t manager);

// With `client` holding the channel lock: removes through the manager each
// named object memory that no live process but the manager maps (only the
// orphans among them when `orphansOnly`), looking again at each one under the
// lock. Returns the names removed; `complete` is false when not every process
// could be inspected, and then nothing is removed.
std::vector<std::string> removeUnusedObjects(ChannelClient& client, pid_t manager, bool orphansOnly, bool& complete);

} // namespace korvane_tools

#endif
