// Loading shared libraries at run time with a portable flag word.
#include <dlfcn.h>

#include <cstdint>

#include "korvane/system.h"

namespace {

// One row per flag bit: the dlopen mode bits it selects when set and when
// clear. Higher flag bits are ignored.
struct LoadFlag {
    uint32_t bit;
    int whenSet;
    int whenClear;
};

constexpr LoadFlag kLoadFlags[] = {
    {1u << 0, RTLD_NOW, RTLD_LAZY},
    {1u << 1, RTLD_GLOBAL, RTLD_LOCAL},
    {1u << 2, RTLD_NODELETE, 0},
    {1u << 3, RTLD_DEEPBIND, 0},
};

int dlopenMode(uint32_t flags) {
    int mode = 0;
    for (const LoadFlag& flag : kLoadFlags)
        mode |= (flags & flag.bit) != 0 ? flag.whenSet : flag.whenClear;
    return mode;
}

} // namespace

void* os_dynamic_library_loader_load_ex(const char* file, uint32_t flags) {
    // Clear an error left over from an earlier dl call, so that the check
    // below speaks only of this dlopen and never drops a library it opened.
    dlerror();
    void* library = dlopen(file, dlopenMode(flags));
    if (dlerror() != nullptr)
        return nullptr;
    return library;
}

void* os_dynamic_library_loader_load(const char* file) {
    return os_dynamic_library_loader_load_ex(file, 1);
}

void* os_dynamic_library_loader_get_proc(void* library, const char* symbol) {
    if (library == nullptr || symbol == nullptr)
        return nullptr;
    return dlsym(library, symbol);
}

int os_dynamic_library_loader_free(void* library) {
    if (library == nullptr)
        return 0;
    return dlclose(library);
}
