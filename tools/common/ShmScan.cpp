#include "ShmScan.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "korvane/sync.h"

namespace korvane_tools {
namespace {

// The memory request sizes of the named objects: the open count plus the
// object. Each size belongs to exactly one kind.
struct KnownSize {
    uint64_t size;
    const char* kind;
};
constexpr KnownSize kKnownSizes[] = {
    {52, "mutex"},                      // mutex and recursive mutex alike
    {104, "event"},                     // condition wake-ups
    {88, "event (semaphore mode)"},     //
    {60, "event (System V mode)"},      //
    {37, "semaphore"},                  //
    {9, "semaphore (System V mode)"},   //
    {152, "rw mutex"},                  //
};

bool isProcessId(const char* name) {
    if (*name == '\0')
        return false;
    for (const char* c = name; *c != '\0'; ++c) {
        if (*c < '0' || *c > '9')
            return false;
    }
    return true;
}

uint32_t readOpenCount(const std::string& path) {
    uint32_t count = 0;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return 0;
    if (pread(fd, &count, sizeof count, 0) != static_cast<ssize_t>(sizeof count))
        count = 0;
    close(fd);
    return count;
}

// Whether a line of /proc/<pid>/maps maps `file`. The path alone does not
// tell: a process in another mount namespace (a container, a test with its
// own /dev/shm) maps a different file under the same path. The device and
// inode numbers of the mapping do.
bool mapsFile(const std::string& line, const struct stat& file) {
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned long inode = 0;
    return std::sscanf(line.c_str(), "%*s %*s %*s %x:%x %lu", &major, &minor, &inode) == 3 &&
           makedev(major, minor) == file.st_dev && inode == file.st_ino;
}

} // namespace

const char* kindOfSize(uint64_t size) {
    for (const KnownSize& known : kKnownSizes) {
        if (known.size == size)
            return known.kind;
    }
    return nullptr;
}

std::map<std::string, std::vector<pid_t>> mappingProcesses(const std::string& directory) {
    std::map<std::string, std::vector<pid_t>> holders;
    const std::string prefix = directory + "/";
    DIR* proc = opendir("/proc");
    if (proc == nullptr)
        return holders;
    while (dirent* entry = readdir(proc)) {
        if (!isProcessId(entry->d_name))
            continue;
        const pid_t pid = static_cast<pid_t>(std::atoi(entry->d_name));
        std::ifstream maps(std::string("/proc/") + entry->d_name + "/maps");
        std::string line;
        std::vector<std::string> seen;
        while (std::getline(maps, line)) {
            const size_t at = line.find(prefix);
            if (at == std::string::npos)
                continue;
            std::string name = line.substr(at + prefix.size());
            if (std::find(seen.begin(), seen.end(), name) != seen.end())
                continue; // one process may map the same file more than once
            struct stat file;
            if (stat(line.substr(at).c_str(), &file) != 0 || !mapsFile(line, file))
                continue;
            seen.push_back(name);
            holders[name].push_back(pid);
        }
    }
    closedir(proc);
    return holders;
}

std::vector<NamedObjectMemory> scanNamedObjects(const std::string& directory) {
    std::vector<NamedObjectMemory> objects;
    DIR* dir = opendir(directory.c_str());
    if (dir == nullptr)
        return objects;
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == ".." || name.rfind("sem.", 0) == 0)
            continue; // named semaphores are not object memories
        const std::string path = directory + "/" + name;
        struct stat status;
        if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
            continue;
        const char* kind = kindOfSize(static_cast<uint64_t>(status.st_size));
        if (kind == nullptr)
            continue;
        objects.push_back({name, kind, static_cast<uint64_t>(status.st_size), readOpenCount(path), {}});
    }
    closedir(dir);
    // The manager maps every memory it creates; it is no holder of the
    // objects. It is the process that keeps the channel memory mapped.
    const auto holders = mappingProcesses(directory);
    const auto channel = holders.find(KORVANE_SYNC_CHANNEL_MEMORY);
    const std::vector<pid_t> managers = channel == holders.end() ? std::vector<pid_t>() : channel->second;
    for (NamedObjectMemory& object : objects) {
        const auto found = holders.find(object.name);
        if (found == holders.end())
            continue;
        for (pid_t pid : found->second) {
            if (std::find(managers.begin(), managers.end(), pid) == managers.end())
                object.holders.push_back(pid);
        }
    }
    std::sort(objects.begin(), objects.end(),
              [](const NamedObjectMemory& a, const NamedObjectMemory& b) { return a.name < b.name; });
    return objects;
}

} // namespace korvane_tools
