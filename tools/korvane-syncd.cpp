// korvane-syncd: the machine's sync manager as a service. It starts the
// manager, runs until SIGTERM or SIGINT, then stops it so that no channel name
// is left behind.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "common/Channel.h"
#include "korvane/sync.h"

namespace {

void printUsage() {
    std::printf("usage: korvane-syncd\n"
                "Runs the machine's Korvane sync manager until SIGTERM or SIGINT.\n");
}

// Starting over existing channel resources would fail, and the failed start
// would also remove the channel memory of a manager that is running; so look
// first and leave everything as it is.
bool channelIsFree() {
    if (!korvane_tools::anyChannelResourcePresent())
        return true;
    const korvane_tools::ProbeResult probe = korvane_tools::probeManager();
    if (probe == korvane_tools::ProbeResult::Answering) {
        std::fprintf(stderr, "korvane-syncd: another sync manager is already running on this machine\n");
    } else {
        std::fprintf(stderr,
                     "korvane-syncd: stale sync channel resources exist (a manager ended without cleaning up);\n"
                     "  remove them with 'korvane-shm clean' and start again\n");
        for (const korvane_tools::ChannelResource& resource : korvane_tools::channelResources()) {
            if (resource.present)
                std::fprintf(stderr, "  %s\n", resource.path.c_str());
        }
    }
    return false;
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1) {
        const bool help = std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0;
        printUsage();
        return help ? 0 : 2;
    }
    // Block the stop signals before the manager's thread exists, so only
    // sigwait below receives them.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (!channelIsFree())
        return 1;
    if (!os_sync_environment_initialize(false)) {
        std::fprintf(stderr, "korvane-syncd: the sync manager could not start\n");
        return 1;
    }
    std::printf("korvane-syncd: sync manager running (pid %d)\n", static_cast<int>(getpid()));
    std::fflush(stdout);

    int signal = 0;
    while (sigwait(&stopSignals, &signal) != 0) {
    }
    os_sync_environment_uninitialize();
    std::printf("korvane-syncd: %s received, sync manager stopped\n", strsignal(signal));
    return 0;
}
