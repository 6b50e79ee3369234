// The test programs' system(): records every command the library hands to
// the shell, and in a dry run answers with a chosen status instead of running
// it. Kept in its own object so that only the programs that use it (through
// kvtest::shell()) take it from the support library.
#include <dlfcn.h>

#include "TestSupport.h"

namespace kvtest {

ShellRecord& shell() {
    static ShellRecord record;
    return record;
}

} // namespace kvtest

extern "C" int system(const char* command) {
    kvtest::ShellRecord& record = kvtest::shell();
    record.commands.push_back(command != nullptr ? command : "(null)");
    if (record.dryRun)
        return record.status;
    static const auto real = reinterpret_cast<int (*)(const char*)>(dlsym(RTLD_NEXT, "system"));
    return real(command);
}
