// korvane-shm: inspect the sync channel and the named object memories in
// /dev/shm, and remove stale channel resources left by a crashed manager.
#include <sys/types.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/Channel.h"
#include "common/Json.h"
#include "common/ShmScan.h"
#include "korvane/sync.h"

using namespace korvane_tools;

namespace {

void printUsage(FILE* out) {
    std::fprintf(out,
                 "usage: korvane-shm [--json] <command>\n"
                 "commands:\n"
                 "  status   whether a sync manager answers, and which channel resources exist\n"
                 "  list     named object memories in /dev/shm with sizes, open counts and holders\n"
                 "  clean    remove stale channel resources (refused while a manager answers)\n");
}

std::string joinPids(const std::vector<pid_t>& pids) {
    std::string text;
    for (pid_t pid : pids)
        text += (text.empty() ? "" : ",") + std::to_string(pid);
    return text.empty() ? "-" : text;
}

std::vector<pid_t> channelHolders() {
    const auto holders = mappingProcesses();
    const auto found = holders.find(KORVANE_SYNC_CHANNEL_MEMORY);
    return found == holders.end() ? std::vector<pid_t>() : found->second;
}

int status(bool json) {
    const ProbeResult probe = probeManager();
    const std::vector<pid_t> holders = channelHolders();
    const std::vector<ChannelResource> resources = channelResources();
    if (json) {
        JsonWriter out;
        out.beginObject();
        out.key("manager").string(describe(probe));
        out.key("pids").pidArray(holders);
        out.key("channel").beginArray();
        for (const ChannelResource& resource : resources) {
            out.beginObject();
            out.key("name").string(resource.name);
            out.key("path").string(resource.path);
            out.key("present").boolean(resource.present);
            out.endObject();
        }
        out.endArray();
        out.endObject();
        std::puts(out.text().c_str());
    } else {
        std::printf("sync manager: %s", describe(probe));
        if (probe == ProbeResult::Answering && !holders.empty())
            std::printf(" (pid %s)", joinPids(holders).c_str());
        std::printf("\nchannel resources:\n");
        for (const ChannelResource& resource : resources)
            std::printf("  %-8s %s\n", resource.present ? "present" : "missing", resource.path.c_str());
    }
    return probe == ProbeResult::Answering ? 0 : 1;
}

int list(bool json) {
    const std::vector<NamedObjectMemory> objects = scanNamedObjects();
    if (json) {
        JsonWriter out;
        out.beginObject();
        out.key("objects").beginArray();
        for (const NamedObjectMemory& object : objects) {
            out.beginObject();
            out.key("name").string(object.name);
            out.key("kind").string(object.kind);
            out.key("size").number(object.size);
            out.key("open_count").number(object.openCount);
            out.key("holders").pidArray(object.holders);
            out.endObject();
        }
        out.endArray();
        out.endObject();
        std::puts(out.text().c_str());
        return 0;
    }
    if (objects.empty()) {
        std::printf("no named object memories\n");
        return 0;
    }
    std::printf("%-32s %-26s %6s %5s  %s\n", "NAME", "KIND", "SIZE", "OPEN", "HOLDERS");
    for (const NamedObjectMemory& object : objects) {
        std::printf("%-32s %-26s %6llu %5u  %s\n", object.name.c_str(), object.kind,
                    static_cast<unsigned long long>(object.size), object.openCount,
                    joinPids(object.holders).c_str());
    }
    return 0;
}

int clean(bool json) {
    const ProbeResult probe = probeManager();
    // Only a channel nobody answers on is stale. A busy lock may belong to a
    // live manager's client in the middle of a request: leave it alone too.
    const bool refuse = probe == ProbeResult::Answering || probe == ProbeResult::Busy;
    if (refuse) {
        const char* reason = probe == ProbeResult::Answering
                                 ? "a sync manager is answering on the channel"
                                 : "the channel's lock is held by a client";
        if (json) {
            JsonWriter out;
            out.beginObject();
            out.key("refused").string(reason);
            out.endObject();
            std::puts(out.text().c_str());
        } else {
            std::fprintf(stderr, "korvane-shm: %s; refusing to remove its resources\n", reason);
        }
        return 1;
    }
    const std::vector<std::string> removed = removeChannelResources();
    if (json) {
        JsonWriter out;
        out.beginObject();
        out.key("removed").beginArray();
        for (const std::string& name : removed)
            out.string(name);
        out.endArray();
        out.endObject();
        std::puts(out.text().c_str());
    } else if (removed.empty()) {
        std::printf("no stale channel resources\n");
    } else {
        for (const std::string& name : removed)
            std::printf("removed %s\n", name.c_str());
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    bool json = false;
    const char* command = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
            printUsage(stdout);
            return 0;
        } else if (command == nullptr) {
            command = argv[i];
        } else {
            printUsage(stderr);
            return 2;
        }
    }
    if (command == nullptr) {
        printUsage(stderr);
        return 2;
    }
    if (std::strcmp(command, "status") == 0)
        return status(json);
    if (std::strcmp(command, "list") == 0)
        return list(json);
    if (std::strcmp(command, "clean") == 0)
        return clean(json);
    std::fprintf(stderr, "korvane-shm: unknown command '%s'\n", command);
    printUsage(stderr);
    return 2;
}
