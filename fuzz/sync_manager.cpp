// The sync manager reading arbitrary bytes from the request memory, over the
// real channel in a private /dev/shm (scripts/fuzz.sh provides one). After
// each request: the manager has answered, the channel's semaphores are back
// at rest, the names it does not manage (the channel's own, another
// program's named semaphore) are untouched, and every memory it created goes
// again on a destroy request.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/statvfs.h>

#include <cstring>
#include <set>

#include "FuzzCheck.h"
#include "TestSupport.h" // the standard and POSIX headers the suites share
#include "common/NamedLayouts.h"
#include "korvane/sync.h"
#include "korvane/system.h"

namespace {

using kvtest::segmentSize;
using kvtest::semaphoreValue;

const std::set<std::string> kUntouched = {KORVANE_SYNC_CHANNEL_MEMORY, "sem." KORVANE_SYNC_LOCK_SEMAPHORE,
                                          "sem." KORVANE_SYNC_REQUEST_SEMAPHORE,
                                          "sem." KORVANE_SYNC_FINISH_SEMAPHORE, "sem.fuzz_bystander"};

struct Channel {
    Channel() {
        if (getenv("KORVANE_PRIVATE_SHM") == nullptr || std::strcmp(getenv("KORVANE_PRIVATE_SHM"), "1") != 0) {
            std::fprintf(stderr, "sync_manager: needs a private /dev/shm; run it through scripts/fuzz.sh\n");
            std::exit(2);
        }
        FUZZ_CHECK(os_sync_environment_initialize(false));
        // The manager thread creates these two as it starts.
        while ((request = sem_open(KORVANE_SYNC_REQUEST_SEMAPHORE, 0)) == SEM_FAILED ||
               (finish = sem_open(KORVANE_SYNC_FINISH_SEMAPHORE, 0)) == SEM_FAILED)
            os_thread_sleep_milliseconds(1);
        lock = sem_open(KORVANE_SYNC_LOCK_SEMAPHORE, 0);
        memory = os_sharememory_open(KORVANE_SYNC_CHANNEL_MEMORY);
        bytes = static_cast<uint8_t*>(os_sharememory_get_buffer(memory));
        bystander = sem_open("fuzz_bystander", O_CREAT | O_EXCL, 0600, 3);
        FUZZ_CHECK(lock != SEM_FAILED && bytes != nullptr && bystander != SEM_FAILED);
    }

    // One request as a client sends it, under the lock. The answer comes
    // within 5 s even on a busy machine, or the channel is stuck.
    void send(const uint8_t* data, size_t size) {
        FUZZ_CHECK(sem_trywait(lock) == 0);
        std::memset(bytes, 0, korvane::layout::kChannelTailEnd);
        std::memcpy(bytes, data, std::min(size, korvane::layout::kChannelTailEnd));
        sem_post(request);
        struct timespec deadline;
        clock_gettime(CLOCK_REALTIME, &deadline);
        deadline.tv_sec += 5;
        int waited;
        while ((waited = sem_timedwait(finish, &deadline)) != 0 && errno == EINTR) {
        } // libFuzzer's timer signal ends a wait early
        FUZZ_CHECK(waited == 0);
        sem_post(lock);
        FUZZ_CHECK(semaphoreValue(lock) == 1 && semaphoreValue(request) == 0 && semaphoreValue(finish) == 0);
    }

    sem_t *lock, *request, *finish, *bystander;
    sharememory_handle* memory;
    uint8_t* bytes;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Channel channel;
    channel.send(data, size);
    FUZZ_CHECK(segmentSize(KORVANE_SYNC_CHANNEL_MEMORY) == korvane::layout::kChannelMemorySize);
    FUZZ_CHECK(semaphoreValue(channel.bystander) == 3);
    for (const std::string& name : kUntouched)
        FUZZ_CHECK(segmentSize(name) >= 0);
    // A create request's memory is removed by a destroy request with its name.
    const size_t end = std::min(size, korvane::layout::kChannelTailEnd);
    if (end > 8 && std::memcmp(data, "\1\0\0\0", 4) == 0) {
        uint8_t destroy[korvane::layout::kChannelTailEnd] = {2};
        std::memcpy(destroy + 4, data + 8, end - 8);
        channel.send(destroy, end - 4);
    }
    DIR* dir = opendir("/dev/shm");
    while (dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        // Only a create that failed for want of room leaves its file behind
        // (a failed create never unlinks).
        struct statvfs shm;
        FUZZ_CHECK(name[0] == '.' || kUntouched.count(name) != 0 ||
                   (statvfs("/dev/shm", &shm) == 0 && static_cast<uint64_t>(segmentSize(name)) > shm.f_bavail * shm.f_frsize));
        if (kUntouched.count(name) == 0)
            shm_unlink(name.c_str());
    }
    closedir(dir);
    return 0;
}
