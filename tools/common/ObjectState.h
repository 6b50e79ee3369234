// What a named object is doing now, read from its memory: who holds a mutex
// and whether that holder lives, whether an event is set, a semaphore's count,
// a reader-writer lock's readers and writer.
#ifndef KORVANE_TOOLS_OBJECT_STATE_H
#define KORVANE_TOOLS_OBJECT_STATE_H

#include <cstdint>
#include <string>
#include <vector>

namespace korvane_tools {

struct StateField {
    std::string key;
    uint64_t value;
    bool boolean; // written as true/false rather than a number
};

struct ObjectState {
    std::string kind;               // the kind by size, a recursive mutex told from a plain one
    std::string text;               // for people: "locked by tid 41 (pid 40)", "set, manual reset"
    std::vector<StateField> fields; // for --json
};

// The state of the object in the memory file `path` of `size` bytes, a `kind`.
ObjectState readObjectState(const std::string& path, uint64_t size, const char* kind);

} // namespace korvane_tools

#endif
