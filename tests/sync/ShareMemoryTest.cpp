// Shared memory segments: create takes over and resets, close unlinks only
// when asked, destroy and failures never unlink. That open maps what exists
// every test reading a named object's memory shows.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "SyncTestSupport.h"

namespace {

using namespace kvtest;

// A segment name, removed whatever the test did.
struct ScopedName {
    const std::string name = uniqueName("segment");
    ~ScopedName() { shm_unlink(name.c_str()); }
};

bool allZero(const void* buffer, size_t size) {
    const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
    return std::all_of(bytes, bytes + size, [](uint8_t byte) { return byte == 0; });
}

TEST(ShareMemory, CreateTakesOverAndResetsCloseUnlinksOnlyWhenAsked) {
    const ScopedName segment;
    const char* name = segment.name.c_str();
    sharememory_handle* first = os_sharememory_create(name, 64);
    ASSERT_NE(first, nullptr);
    void* firstBuffer = os_sharememory_get_buffer(first);
    std::memset(firstBuffer, 0x5A, 64);
    sharememory_handle* second = os_sharememory_create(name, 5000);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(segmentSize(name), 5000);
    EXPECT_TRUE(allZero(os_sharememory_get_buffer(second), 5000));
    EXPECT_TRUE(allZero(firstBuffer, 64)) << "both handles map the one segment";
    os_sharememory_destroy(&first);
    EXPECT_EQ(first, nullptr);
    EXPECT_EQ(segmentSize(name), 5000) << "destroy never removes the name";
    os_sharememory_close(second, false);
    EXPECT_EQ(os_sharememory_get_buffer(second), MAP_FAILED);
    EXPECT_EQ(segmentSize(name), 5000);
    os_sharememory_close(second, true); // unlinks even with nothing mapped
    errno = 0;
    EXPECT_EQ(os_sharememory_open(name), nullptr);
    EXPECT_EQ(errno, ENOENT) << "a failed open keeps errno for its callers' messages";
    os_sharememory_destroy(&second);
}

TEST(ShareMemory, FailuresGiveNullAndNeverUnlinkAndPageLockingIsOptional) {
    const ScopedName segment;
    const char* name = segment.name.c_str();
    EXPECT_EQ(os_sharememory_create(name, 0), nullptr);
    EXPECT_EQ(segmentSize(name), 0) << "a failed create leaves the segment it made";
    EXPECT_EQ(os_sharememory_open(name), nullptr);
    EXPECT_EQ(os_sharememory_create(nullptr, 16), nullptr);
    EXPECT_EQ(os_sharememory_open(nullptr), nullptr);
    EXPECT_EQ(os_sharememory_get_buffer(nullptr), nullptr);
    os_sharememory_close(nullptr, true);
    os_sharememory_destroy(nullptr);
    // A size the folder cannot hold fails here, not as SIGBUS on first use
    // (where the folder holds 4 GiB, no 32-bit size is too big).
    struct statvfs folder;
    if (statvfs("/dev/shm", &folder) == 0 && uint64_t{folder.f_blocks} * folder.f_frsize < UINT32_MAX - 4096) {
        EXPECT_EQ(os_sharememory_create(name, folder.f_blocks * folder.f_frsize + 4096), nullptr);
    }
    // Where pages cannot be locked, create maps them unlocked (root may lock
    // regardless of the limit, so the child gives up root).
    const ScopedName unlockable;
    const ChildResult unlocked = runInChild([&] {
        const struct rlimit none = {0, 0};
        if (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0))
            return 2;
        sharememory_handle* memory = os_sharememory_create(unlockable.name.c_str(), 256);
        const bool mapped = memory != nullptr && allZero(os_sharememory_get_buffer(memory), 256);
        os_sharememory_destroy(&memory);
        return mapped ? 0 : 1;
    });
    EXPECT_EQ(unlocked.exitCode, 0);
}

} // namespace
