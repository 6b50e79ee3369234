// What /dev/shm and /proc show of named objects, for the tests, the chaos
// run and the sync manager's fuzzer alike (no test framework needed).
#ifndef KORVANE_TESTS_SHM_VIEW_H
#define KORVANE_TESTS_SHM_VIEW_H

#include <semaphore.h>
#include <sys/stat.h>

#include <cstdint>
#include <fstream>
#include <string>

namespace kvtest {

// The size of /dev/shm/<name>, -1 when absent.
inline int64_t segmentSize(const std::string& name) {
    struct stat status {};
    return stat(("/dev/shm/" + name).c_str(), &status) == 0 ? status.st_size : -1;
}

// How many times `process` maps /dev/shm/<name>, removed segments included.
inline int mappingsOf(const std::string& name, const std::string& process = "self") {
    std::ifstream maps("/proc/" + process + "/maps");
    int count = 0;
    for (std::string line; std::getline(maps, line);) // a removed segment's line ends in " (deleted)"
        count += (line + ' ').find("/dev/shm/" + name + ' ') != std::string::npos;
    return count;
}

// A named semaphore's value as every process sees it, -1 when unreadable.
inline int semaphoreValue(sem_t* semaphore) {
    int value = -1;
    sem_getvalue(semaphore, &value);
    return value;
}

} // namespace kvtest

#endif
