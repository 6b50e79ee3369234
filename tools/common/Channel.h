// What the operator tools know of the sync channel: which of its resources
// exist, whether a manager answers on it, and how to remove stale ones.
#ifndef KORVANE_TOOLS_CHANNEL_H
#define KORVANE_TOOLS_CHANNEL_H

#include <chrono>
#include <string>
#include <vector>

namespace korvane_tools {

struct ChannelResource {
    std::string name;  // the machine-wide name
    std::string path;  // where it appears under /dev/shm
    bool semaphore;    // a named semaphore (else the channel memory)
    bool present;
};

// The four channel resources, in the order the manager creates them.
std::vector<ChannelResource> channelResources();
bool anyChannelResourcePresent();

enum class ProbeResult {
    Answering,    // a manager served a no-op request
    NotAnswering, // the channel exists but nobody answered: stale or hung
    Busy,         // the channel's lock stayed taken for the whole wait
    NoChannel,    // at least one channel resource is missing
};
const char* describe(ProbeResult result);

// Sends the manager a request it ignores (operation code 0) through the
// channel, exactly as a client would, and waits for its answer.
ProbeResult probeManager(std::chrono::milliseconds timeout = std::chrono::milliseconds(500));

// Removes every channel resource that exists. Returns the names removed.
std::vector<std::string> removeChannelResources();

} // namespace korvane_tools

#endif
