// Runs a piece of an example in a child process, as a second program would.
#ifndef KORVANE_EXAMPLES_CHILD_PROCESS_HPP
#define KORVANE_EXAMPLES_CHILD_PROCESS_HPP

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

// Forks a child that runs `body` and leaves with its result as exit code.
template <class Body>
pid_t start_child(Body body) {
    std::fflush(stdout); // the child must not print the parent's buffer again
    const pid_t pid = fork();
    if (pid == 0)
        _exit(body());
    return pid;
}

// True when the child exited with status 0.
inline bool child_succeeded(pid_t pid) {
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

#endif
