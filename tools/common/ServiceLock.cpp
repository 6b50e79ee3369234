#include "ServiceLock.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace korvane_tools {
namespace {

const char kLockFile[] = "/korvane-syncd.lock";

std::string environmentDirectory(const char* variable, const char* below) {
    const char* value = std::getenv(variable);
    return value == nullptr || *value == '\0' ? std::string() : std::string(value) + below;
}

// Where the lock lives: $KORVANE_RUNTIME_DIR when set (tests, private
// setups); else the service's runtime directory /run/korvane, or for a user
// who is not root, the korvane folder of their own runtime directory.
std::vector<std::string> lockDirectories() {
    const std::string chosen = environmentDirectory("KORVANE_RUNTIME_DIR", "");
    if (!chosen.empty())
        return {chosen};
    std::vector<std::string> directories;
    const std::string user = environmentDirectory("XDG_RUNTIME_DIR", "/korvane");
    if (geteuid() != 0 && !user.empty())
        directories.push_back(user);
    directories.push_back("/run/korvane");
    return directories;
}

// fcntl locks name their holder (F_GETLK), which flock locks cannot.
struct flock wholeFile(short type) {
    struct flock region;
    std::memset(&region, 0, sizeof region);
    region.l_type = type;
    region.l_whence = SEEK_SET;
    return region;
}

pid_t holderOf(int fd) {
    struct flock region = wholeFile(F_WRLCK);
    if (fcntl(fd, F_GETLK, &region) != 0 || region.l_type == F_UNLCK)
        return 0;
    return region.l_pid;
}

} // namespace

bool takeServiceLock(pid_t& holder, std::string& error) {
    holder = 0;
    const std::string directory = lockDirectories().front();
    mkdir(directory.c_str(), 0755);
    const std::string path = directory + kLockFile;
    const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = path + ": " + std::strerror(errno);
        return false;
    }
    struct flock region = wholeFile(F_WRLCK);
    if (fcntl(fd, F_SETLK, &region) == 0) {
        const std::string pid = std::to_string(getpid()) + "\n";
        if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) < 0) {
            // The pid in the file is for people only; the lock is what counts.
        }
        return true; // the descriptor stays open, and the lock held, until exit
    }
    holder = holderOf(fd);
    close(fd);
    if (holder == 0)
        error = path + ": " + std::strerror(errno);
    return false;
}

pid_t serviceLockHolder() {
    for (const std::string& directory : lockDirectories()) {
        const int fd = open((directory + kLockFile).c_str(), O_RDONLY | O_CLOEXEC);
        if (fd < 0)
            continue;
        const pid_t holder = holderOf(fd);
        close(fd);
        if (holder != 0)
            return holder;
    }
    return 0;
}

} // namespace korvane_tools
