#include "ShmScan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "Channel.h"
#include "ServiceLock.h"
#include "common/NamedLayouts.h"
#include "korvane/sync.h"

namespace korvane_tools {
namespace layout = korvane::layout;
namespace {

const char kDirectory[] = "/dev/shm/";

struct KnownSize {
    uint64_t size;
    const char* kind;
};
constexpr KnownSize kKnownSizes[] = {
    {layout::kMutexRequestSize, "mutex"}, // and recursive mutex: the state tells them apart
    {layout::kEventConditionRequestSize, "event"},
    {layout::kEventSemaphoreRequestSize, "event (semaphore mode)"},
    {layout::kEventSystemVRequestSize, "event (System V mode)"},
    {layout::kSemaphoreRequestSize, "semaphore"},
    {layout::kSemaphoreSystemVRequestSize, "semaphore (System V mode)"},
    {layout::kRWMutexRequestSize, "rw mutex"},
};

bool isProcessId(const char* name) {
    return *name != '\0' && std::all_of(name, name + std::char_traits<char>::length(name),
                                        [](char c) { return c >= '0' && c <= '9'; });
}

uint32_t readOpenCount(const std::string& path) {
    uint32_t count = 0;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd >= 0 && pread(fd, &count, sizeof count, 0) != static_cast<ssize_t>(sizeof count))
        count = 0;
    if (fd >= 0)
        close(fd);
    return count;
}

bool fileId(const std::string& path, std::pair<dev_t, ino_t>& id) {
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
        return false;
    id = {status.st_dev, status.st_ino};
    return true;
}

} // namespace

Mappers Mappers::scan() {
    Mappers mappers;
    DIR* proc = opendir("/proc");
    if (proc == nullptr) {
        mappers.complete = false;
        return mappers;
    }
    while (dirent* entry = readdir(proc)) {
        if (!isProcessId(entry->d_name))
            continue;
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        FILE* maps = std::fopen((std::string("/proc/") + entry->d_name + "/maps").c_str(), "re");
        if (maps == nullptr) {
            // A process that ended meanwhile maps nothing. One we may not
            // read might map anything, unless we are root: root is refused
            // only the processes of an enclosing container's manager, which
            // never share our /dev/shm.
            if ((errno == EACCES || errno == EPERM) && geteuid() != 0)
                mappers.complete = false;
            continue;
        }
        char* text = nullptr;
        size_t capacity = 0;
        while (getline(&text, &capacity, maps) > 0) {
            // address perms offset major:minor inode path
            std::istringstream fields(text);
            std::string address, perms, offset, device;
            unsigned long long inode = 0;
            unsigned int major = 0, minor = 0;
            if (!(fields >> address >> perms >> offset >> device >> inode) || inode == 0 ||
                std::sscanf(device.c_str(), "%x:%x", &major, &minor) != 2)
                continue;
            std::vector<pid_t>& pids = mappers.byFile[{makedev(major, minor), static_cast<ino_t>(inode)}];
            if (pids.empty() || pids.back() != pid)
                pids.push_back(pid);
        }
        std::free(text);
        std::fclose(maps);
    }
    closedir(proc);
    return mappers;
}

std::vector<pid_t> Mappers::of(const std::string& path) const {
    std::pair<dev_t, ino_t> id;
    if (!fileId(path, id))
        return {};
    const auto found = byFile.find(id);
    return found == byFile.end() ? std::vector<pid_t>() : found->second;
}

pid_t findManager(const Mappers& mappers, pid_t self) {
    const pid_t service = serviceLockHolder();
    if (service != 0)
        return service;
    // A client in the middle of a request maps the channel too; only a
    // single mapper is certainly the manager.
    std::vector<pid_t> channel = mappers.of(std::string(kDirectory) + KORVANE_SYNC_CHANNEL_MEMORY);
    channel.erase(std::remove(channel.begin(), channel.end(), self), channel.end());
    return channel.size() == 1 ? channel.front() : 0;
}

const char* kindOfSize(uint64_t size) {
    for (const KnownSize& known : kKnownSizes) {
        if (known.size == size)
            return known.kind;
    }
    return nullptr;
}

std::vector<NamedObjectMemory> scanNamedObjects(const Mappers& mappers, pid_t manager) {
    std::vector<NamedObjectMemory> objects;
    DIR* dir = opendir(kDirectory);
    if (dir == nullptr)
        return objects;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        const std::string path = kDirectory + name;
        struct stat status;
        // Named semaphores are not object memories; neither is the channel.
        if (name.rfind("sem.", 0) == 0 || name == KORVANE_SYNC_CHANNEL_MEMORY || stat(path.c_str(), &status) != 0 ||
            !S_ISREG(status.st_mode))
            continue;
        const uint64_t size = static_cast<uint64_t>(status.st_size);
        const char* kind = kindOfSize(size);
        if (kind == nullptr)
            continue;
        NamedObjectMemory object{name, size, readOpenCount(path), mappers.of(path), false,
                                 readObjectState(path, size, kind)};
        object.holders.erase(std::remove(object.holders.begin(), object.holders.end(), manager),
                             object.holders.end());
        object.orphan = mappers.complete && object.openCount > 0 && object.holders.empty();
        objects.push_back(object);
    }
    closedir(dir);
    std::sort(objects.begin(), objects.end(),
              [](const NamedObjectMemory& a, const NamedObjectMemory& b) { return a.name < b.name; });
    return objects;
}

std::vector<std::string> removeUnusedObjects(ChannelClient& client, pid_t manager, bool orphansOnly, bool& complete) {
    std::vector<std::string> removed;
    const Mappers mappers = Mappers::scan();
    complete = mappers.complete;
    if (!complete)
        return removed;
    for (const NamedObjectMemory& object : scanNamedObjects(mappers, manager)) {
        if (!object.holders.empty() || (orphansOnly && !object.orphan))
            continue;
        const std::string path = kDirectory + object.name;
        std::pair<dev_t, ino_t> before, after;
        fileId(path, before);
        client.request(2, object.name, 0);
        // A manager that does not know the name (it was made under an
        // earlier one) leaves it: nobody maps it, so it goes all the same.
        if (fileId(path, after) && after == before)
            shm_unlink(object.name.c_str());
        if (!fileId(path, after) || after != before)
            removed.push_back(object.name);
    }
    return removed;
}

} // namespace korvane_tools
