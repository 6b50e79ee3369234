// The system() stand-in: linked into a suite only when it uses the names
// below, and then it replaces system() for the library too.
#include <dlfcn.h>

#include "TestSupport.h"

namespace kvtest {
std::vector<std::string> systemCommands;
bool systemDryRun = false;
int systemFakeStatus = 0;
} // namespace kvtest

extern "C" int system(const char* command) {
    kvtest::systemCommands.push_back(command != nullptr ? command : "(null)");
    if (kvtest::systemDryRun)
        return kvtest::systemFakeStatus;
    static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
    return real(command);
}
