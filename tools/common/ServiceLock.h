// The lock korvane-syncd holds for its whole life, so that one runs per
// machine and the tools can tell a running one from one that died, whatever
// state its channel is in.
#ifndef KORVANE_TOOLS_SERVICE_LOCK_H
#define KORVANE_TOOLS_SERVICE_LOCK_H

#include <sys/types.h>

#include <string>

namespace korvane_tools {

// Takes the lock for the life of the process: true when taken. Otherwise
// `holder` is the running korvane-syncd's pid (0 when the lock file could
// not be made; `error` then says why).
bool takeServiceLock(pid_t& holder, std::string& error);

// The pid of the korvane-syncd holding the lock, 0 when none does.
pid_t serviceLockHolder();

} // namespace korvane_tools

#endif
