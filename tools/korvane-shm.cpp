// korvane-shm: inspect the sync channel and the named object memories in
// /dev/shm, remove the channel a dead manager left, and reclaim orphans.
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "common/Channel.h"
#include "common/Json.h"
#include "common/ServiceLock.h"
#include "common/ShmScan.h"

using namespace korvane_tools;

namespace {

void printUsage(FILE* out) {
    std::fprintf(out,
                 "usage: korvane-shm [--json] <command>\n"
                 "commands:\n"
                 "  status       whether a sync manager answers, and which channel resources exist\n"
                 "  list [NAME]  named object memories in /dev/shm (or the one named): kind, size, open\n"
                 "               count, the processes mapping it, whether it is an orphan (counted open\n"
                 "               but mapped by no live process) and what the object is doing now\n"
                 "  clean        remove the channel resources a dead manager left (refused while\n"
                 "               korvane-syncd runs or any live process still uses the channel)\n"
                 "  reclaim      remove the orphans through the sync manager, printing each name\n"
                 "example of list:\n"
                 "  NAME                             KIND              SIZE OPEN HOLDERS      ORPHAN STATE\n"
                 "  cam0                             mutex               52    2 812,840      -      locked by tid 815 (pid 812)\n"
                 "  jobs                             semaphore           37    1 -            yes    count 3\n"
                 "  settings                         rw mutex           152    1 812          -      readers 2, writer no, hold free\n");
}

std::string joinPids(const std::vector<pid_t>& pids) {
    std::string text;
    for (pid_t pid : pids)
        text += (text.empty() ? "" : ",") + std::to_string(pid);
    return text.empty() ? "-" : text;
}

// Prints {"key": reason} or the reason on stderr, and fails.
int fail(bool json, const char* key, const std::string& reason) {
    if (json) {
        JsonWriter out;
        out.beginObject().key(key).string(reason).endObject();
        std::puts(out.text().c_str());
    } else {
        std::fprintf(stderr, "korvane-shm: %s\n", reason.c_str());
    }
    return 1;
}

// Prints {"key": [names]} or one "<verb> NAME" line each ("none" when empty).
void printNames(bool json, const char* key, const char* verb, const char* none,
                const std::vector<std::string>& names) {
    if (json) {
        JsonWriter out;
        out.beginObject().key(key).stringArray(names).endObject();
        std::puts(out.text().c_str());
    } else if (names.empty()) {
        std::printf("%s\n", none);
    }
    for (const std::string& name : json ? std::vector<std::string>() : names)
        std::printf("%s %s\n", verb, name.c_str());
}

int status(bool json) {
    const ProbeResult probe = probeManager();
    const pid_t manager = findManager(Mappers::scan(), getpid());
    const std::vector<pid_t> pids = manager != 0 ? std::vector<pid_t>{manager} : std::vector<pid_t>();
    const std::vector<ChannelResource> resources = channelResources();
    if (json) {
        JsonWriter out;
        out.beginObject().key("manager").string(describe(probe)).key("pids").pidArray(pids);
        out.key("channel").beginArray();
        for (const ChannelResource& resource : resources) {
            out.beginObject().key("name").string(resource.name).key("path").string(resource.path);
            out.key("present").boolean(resource.presence != Presence::Missing);
            out.key("accessible").boolean(resource.presence == Presence::Present).endObject();
        }
        out.endArray().endObject();
        std::puts(out.text().c_str());
    } else {
        std::printf("sync manager: %s", describe(probe));
        // A stalled manager is named too: it is the one to look at.
        if (manager != 0)
            std::printf(" (pid %d)", static_cast<int>(manager));
        if (probe == ProbeResult::NotAccessible)
            std::printf(" (ask to be added to the korvane group)");
        std::printf("\nchannel resources:\n");
        for (const ChannelResource& resource : resources)
            std::printf("  %-8s %s\n", describe(resource.presence), resource.path.c_str());
    }
    return probe == ProbeResult::Answering ? 0 : 1;
}

int list(bool json, const char* only) {
    const Mappers mappers = Mappers::scan();
    std::vector<NamedObjectMemory> objects = scanNamedObjects(mappers, findManager(mappers, getpid()));
    if (only != nullptr) {
        objects.erase(std::remove_if(objects.begin(), objects.end(),
                                     [&](const NamedObjectMemory& object) { return object.name != only; }),
                      objects.end());
        if (objects.empty())
            return fail(json, "error", std::string("no named object memory '") + only + "'");
    }
    if (json) {
        JsonWriter out;
        out.beginObject().key("objects").beginArray();
        for (const NamedObjectMemory& object : objects) {
            out.beginObject().key("name").string(object.name).key("kind").string(object.state.kind);
            out.key("size").number(object.size).key("open_count").number(object.openCount);
            out.key("holders").pidArray(object.holders).key("orphan").boolean(object.orphan);
            out.key("state").beginObject();
            for (const StateField& field : object.state.fields) {
                out.key(field.key);
                field.boolean ? out.boolean(field.value != 0) : out.number(field.value);
            }
            out.endObject().endObject();
        }
        out.endArray().endObject();
        std::puts(out.text().c_str());
        return 0;
    }
    if (objects.empty()) {
        std::printf("no named object memories\n");
        return 0;
    }
    const char* const format = "%-32s %-16s %5s %4s %-12s %-6s %s\n";
    std::printf(format, "NAME", "KIND", "SIZE", "OPEN", "HOLDERS", "ORPHAN", "STATE");
    for (const NamedObjectMemory& object : objects) {
        std::printf(format, object.name.c_str(), object.state.kind.c_str(), std::to_string(object.size).c_str(),
                    std::to_string(object.openCount).c_str(), joinPids(object.holders).c_str(),
                    object.orphan ? "yes" : "-", object.state.text.c_str());
    }
    return 0;
}

int clean(bool json) {
    if (!anyChannelResourcePresent()) {
        printNames(json, "removed", "removed", "no stale channel resources", {});
        return 0;
    }
    // Only what a dead manager left goes: not while korvane-syncd runs, in
    // whatever state, nor while any live process maps the channel (a stalled
    // manager, or a client in the middle of a request).
    const pid_t service = serviceLockHolder();
    if (service != 0)
        return fail(json, "refused", "korvane-syncd (pid " + std::to_string(service) +
                                         ") is running; refusing to remove its channel");
    const Mappers mappers = Mappers::scan();
    if (!mappers.complete)
        return fail(json, "refused", "cannot inspect every process (run as root); refusing to remove the channel");
    std::vector<pid_t> users;
    for (const ChannelResource& resource : channelResources()) {
        for (pid_t pid : mappers.of(resource.path)) {
            if (std::find(users.begin(), users.end(), pid) == users.end())
                users.push_back(pid);
        }
    }
    if (!users.empty())
        return fail(json, "refused", "process " + joinPids(users) +
                                         " still uses the sync channel; refusing to remove it");
    std::vector<std::string> failed;
    printNames(json, "removed", "removed", "no stale channel resources", removeChannelResources(failed));
    for (const std::string& name : failed)
        std::fprintf(stderr, "korvane-shm: could not remove %s\n", name.c_str());
    return failed.empty() ? 0 : 1;
}

int reclaim(bool json) {
    ChannelClient client;
    const ProbeResult opened = client.open();
    if (opened != ProbeResult::Answering)
        return fail(json, "error", std::string("sync channel: ") + describe(opened));
    if (!client.lock(std::chrono::seconds(3)))
        return fail(json, "error", "the sync channel's lock stayed taken");
    if (!client.request(0, "", 0))
        return fail(json, "error", "no sync manager answers");
    bool complete = true;
    const pid_t manager = findManager(Mappers::scan(), getpid());
    const std::vector<std::string> removed = removeUnusedObjects(client, manager, true, complete);
    client.unlock();
    if (!complete)
        return fail(json, "error", "cannot inspect every process (run as root); nothing reclaimed");
    printNames(json, "reclaimed", "reclaimed", "no orphans", removed);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    bool json = false;
    std::vector<const char*> words;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (std::strcmp(argv[i], "-h") == 0 || std::strcmp(argv[i], "--help") == 0) {
            printUsage(stdout);
            return 0;
        } else {
            words.push_back(argv[i]);
        }
    }
    const std::string command = words.empty() ? "" : words.front();
    const bool takesName = command == "list";
    if (words.empty() || words.size() > (takesName ? 2u : 1u)) {
        printUsage(stderr);
        return 2;
    }
    if (command == "status")
        return status(json);
    if (command == "list")
        return list(json, words.size() == 2 ? words[1] : nullptr);
    if (command == "clean")
        return clean(json);
    if (command == "reclaim")
        return reclaim(json);
    std::fprintf(stderr, "korvane-shm: unknown command '%s'\n", command.c_str());
    printUsage(stderr);
    return 2;
}
