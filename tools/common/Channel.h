// What the operator tools know of the sync channel: which of its resources
// exist, a client that speaks the channel's protocol, and whether a manager
// answers on it.
#ifndef KORVANE_TOOLS_CHANNEL_H
#define KORVANE_TOOLS_CHANNEL_H

#include <semaphore.h>
#include <signal.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace korvane_tools {

enum class Presence { Missing, Present, NotAccessible };

struct ChannelResource {
    std::string name;  // the machine-wide name
    std::string path;  // where it appears under /dev/shm
    bool semaphore;    // a named semaphore (else the channel memory)
    Presence presence;
};

// The four channel resources, in the order the manager creates them.
std::vector<ChannelResource> channelResources();
bool anyChannelResourcePresent();
const char* describe(Presence presence);

enum class ProbeResult {
    Answering,     // a manager served a no-op request
    NotAnswering,  // the channel exists but nobody answered: stale or hung
    Busy,          // the channel's lock stayed taken for the whole wait
    NoChannel,     // at least one channel resource is missing
    NotAccessible, // the resources exist but this user may not open them
};
const char* describe(ProbeResult result);

// One client of the sync channel, speaking the protocol the library's
// clients speak. While it holds the lock it keeps SIGINT, SIGTERM and SIGHUP
// blocked and records its process in the channel page, so neither a signal
// nor its death leaves the lock taken for good.
class ChannelClient {
public:
    ChannelClient() = default;
    ~ChannelClient();
    ChannelClient(const ChannelClient&) = delete;
    ChannelClient& operator=(const ChannelClient&) = delete;

    // Opens the four resources (again, when open): Answering when all opened
    // (nothing is sent), else NoChannel or NotAccessible.
    ProbeResult open();
    void close();
    bool lock(std::chrono::milliseconds timeout);
    void unlock();
    // With the lock held: writes the request, posts it and waits for the
    // manager's answer to it. `operation` 1 creates, 2 destroys, 0 asks nothing.
    bool request(uint32_t operation, const std::string& name, uint32_t size,
                 std::chrono::milliseconds timeout = std::chrono::seconds(2));

private:
    sem_t* m_lock = nullptr;
    sem_t* m_request = nullptr;
    sem_t* m_finish = nullptr;
    uint8_t* m_page = nullptr;
    bool m_locked = false;
    sigset_t m_savedMask;
};

// Sends the manager a request it ignores and waits for its answer.
ProbeResult probeManager(std::chrono::milliseconds timeout = std::chrono::milliseconds(500));

// Removes every channel resource that exists. Returns the names removed;
// `failed` receives those that could not be.
std::vector<std::string> removeChannelResources(std::vector<std::string>& failed);

} // namespace korvane_tools

#endif
