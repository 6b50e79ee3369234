// Locking the process's memory against paging.
#include <sys/mman.h>

#include "common/BoolExport.h"
#include "korvane/system.h"

KORVANE_BOOL_EXPORT(os_memory_manager_mlockall, (int flags)) {
    // Only MCL_CURRENT (1) and MCL_FUTURE (2) are passed on; other bits are
    // dropped so callers' extra flags never make the call fail.
    return mlockall(flags & (MCL_CURRENT | MCL_FUTURE)) != -1;
}

KORVANE_BOOL_EXPORT(os_memory_manager_munlockall, (void)) {
    return munlockall() != -1;
}
