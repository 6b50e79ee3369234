// The path of the running executable.
#include <unistd.h>

#include <cerrno>

#include "korvane/system.h"

ssize_t os_environment_get_application_path(char* buffer, size_t size) {
    // readlink is declared nonnull: a null buffer gets the kernel's answer
    // for a bad address instead of undefined behaviour.
    if (buffer == nullptr) {
        errno = EFAULT;
        return -1;
    }
    // readlink writes no terminating NUL and silently truncates a path that
    // does not fit; callers terminate the text themselves.
    return readlink("/proc/self/exe", buffer, size);
}
