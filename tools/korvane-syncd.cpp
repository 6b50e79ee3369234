// korvane-syncd: the machine's sync manager as a service. One runs per
// machine (it holds the service lock for its whole life). It adopts the named
// objects that processes still use from an earlier run, reclaims orphans
// periodically, and on SIGTERM or SIGINT stops, leaving in place only the
// object memories that live processes still map.
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "common/Channel.h"
#include "common/ServiceLock.h"
#include "common/ShmScan.h"
#include "korvane/sync.h"

using namespace korvane_tools;

namespace {

constexpr std::chrono::seconds kChannelWait(3);

void printUsage(FILE* out) {
    std::fprintf(out, "usage: korvane-syncd [--reclaim-interval SECONDS]\n"
                      "Runs the machine's Korvane sync manager until SIGTERM or SIGINT, reclaiming orphaned\n"
                      "named objects every SECONDS (default 60; 0 never).\n");
}

// Starting over existing channel resources would fail, and the failed start
// would also remove the channel memory of a manager that is running; so look
// first and leave everything as it is.
bool channelIsFree() {
    if (!anyChannelResourcePresent())
        return true;
    if (probeManager() == ProbeResult::Answering) {
        std::fprintf(stderr, "korvane-syncd: another sync manager is already running on this machine\n");
        return false;
    }
    std::fprintf(stderr, "korvane-syncd: stale sync channel resources exist (a manager ended without cleaning up);\n"
                         "  remove them with 'korvane-shm clean' and start again\n");
    for (const ChannelResource& resource : channelResources()) {
        if (resource.presence != Presence::Missing)
            std::fprintf(stderr, "  %s\n", resource.path.c_str());
    }
    return false;
}

// The manager's thread makes two of the channel's semaphores as it starts.
bool openChannel(ChannelClient& client) {
    const auto deadline = std::chrono::steady_clock::now() + kChannelWait;
    while (client.open() != ProbeResult::Answering) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        usleep(10000);
    }
    // Members of the service's group use the channel too; the semaphores are
    // made without group write.
    for (const ChannelResource& resource : channelResources())
        chmod(resource.path.c_str(), 0660);
    return true;
}

// Hands the manager every object memory an earlier manager left in use, by
// the create request a client would send: the manager opens such a memory as
// it is, so a later create of the name finds the object intact.
void adoptObjects(ChannelClient& client) {
    if (!client.lock(kChannelWait))
        return;
    for (const NamedObjectMemory& object : scanNamedObjects(Mappers::scan(), getpid())) {
        if (object.openCount > 0 && client.request(1, object.name, static_cast<uint32_t>(object.size)))
            std::printf("korvane-syncd: adopted %s (%s, open count %u)\n", object.name.c_str(),
                        object.state.kind.c_str(), object.openCount);
    }
    client.unlock();
}

void removeUnused(ChannelClient& client, bool orphansOnly) {
    bool complete = true;
    for (const std::string& name : removeUnusedObjects(client, getpid(), orphansOnly, complete))
        std::printf("korvane-syncd: %s %s\n", orphansOnly ? "reclaimed" : "removed", name.c_str());
    if (!complete)
        std::printf("korvane-syncd: cannot inspect every process; no object memory removed\n");
    std::fflush(stdout);
}

} // namespace

int main(int argc, char** argv) {
    long interval = 60;
    for (int i = 1; i < argc; ++i) {
        char* end = nullptr;
        if (std::strcmp(argv[i], "--reclaim-interval") == 0 && i + 1 < argc &&
            (interval = std::strtol(argv[i + 1], &end, 10)) >= 0 && *end == '\0' && end != argv[i + 1]) {
            ++i;
            continue;
        }
        const bool help = std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0;
        printUsage(help ? stdout : stderr);
        return help ? 0 : 2;
    }
    pid_t running = 0;
    std::string error;
    if (!takeServiceLock(running, error)) {
        if (running != 0)
            std::fprintf(stderr, "korvane-syncd: korvane-syncd is already running (pid %d)\n",
                         static_cast<int>(running));
        else
            std::fprintf(stderr, "korvane-syncd: cannot take the service lock: %s\n", error.c_str());
        return 1;
    }
    // Block the stop signals before the manager's thread exists, so only
    // the wait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (!channelIsFree())
        return 1;
    // Objects in use outlive this manager, and the next one adopts them.
    setenv("KORVANE_SYNC_KEEP_OBJECTS", "1", 1);
    ChannelClient client;
    if (!os_sync_environment_initialize(false) || !openChannel(client)) {
        std::fprintf(stderr, "korvane-syncd: the sync manager could not start\n");
        os_sync_environment_uninitialize();
        return 1;
    }
    adoptObjects(client);
    std::printf("korvane-syncd: sync manager running (pid %d)\n", static_cast<int>(getpid()));
    std::fflush(stdout);

    int signal = -1;
    while (signal < 0) {
        const struct timespec wait = {interval > 0 ? interval : 3600, 0};
        signal = sigtimedwait(&stopSignals, nullptr, &wait);
        if (signal < 0 && interval > 0 && errno == EAGAIN && client.lock(kChannelWait)) {
            removeUnused(client, true);
            client.unlock();
        }
    }
    // The lock stays taken through the stop, so no client is between its
    // request and its open count while the unused memories go.
    const bool locked = client.lock(kChannelWait);
    if (locked)
        removeUnused(client, false);
    os_sync_environment_uninitialize();
    client.unlock();
    std::printf("korvane-syncd: %s received, sync manager stopped\n", strsignal(signal));
    return 0;
}
