// Helpers of the files-and-folders suite: file contents and modes, and guards
// that give back the process umask and working folder a test changed.
#ifndef KORVANE_FS_TEST_SUPPORT_H
#define KORVANE_FS_TEST_SUPPORT_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

namespace fstest {

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

inline bool isFolder(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

inline bool exists(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0;
}

inline unsigned int permissionsOf(const std::string& path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        throw std::runtime_error("stat failed: " + path);
    return status.st_mode & 07777;
}

// The lowest free descriptor: unchanged after a call that closed what it opened.
inline int lowestFreeDescriptor() {
    const int fd = dup(STDIN_FILENO);
    close(fd);
    return fd;
}

// Sets the umask for the scope and restores the previous one.
class UmaskScope {
public:
    explicit UmaskScope(mode_t mask) : m_saved(umask(mask)) {}
    ~UmaskScope() { umask(m_saved); }
    UmaskScope(const UmaskScope&) = delete;
    UmaskScope& operator=(const UmaskScope&) = delete;

private:
    mode_t m_saved;
};

inline mode_t currentUmask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

// Changes the working folder for the scope and changes back.
class WorkingFolderScope {
public:
    explicit WorkingFolderScope(const std::string& folder) {
        char saved[4096];
        if (getcwd(saved, sizeof saved) == nullptr || chdir(folder.c_str()) != 0)
            throw std::runtime_error("cannot enter " + folder);
        m_saved = saved;
    }
    ~WorkingFolderScope() {
        if (chdir(m_saved.c_str()) != 0)
            std::abort(); // every later test would run in the wrong place
    }
    WorkingFolderScope(const WorkingFolderScope&) = delete;
    WorkingFolderScope& operator=(const WorkingFolderScope&) = delete;

private:
    std::string m_saved;
};

} // namespace fstest

#endif
