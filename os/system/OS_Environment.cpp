// The path of the running executable.
#include <unistd.h>

#include "korvane/system.h"

ssize_t os_environment_get_application_path(char* buffer, size_t size) {
    // readlink writes no terminating NUL and silently truncates a path that
    // does not fit; callers terminate the text themselves.
    return readlink("/proc/self/exe", buffer, size);
}
