// Shared memory segments: create resets, open maps what exists, close
// unmaps and optionally unlinks, destroy never unlinks, failures never unlink.
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "SyncCoreSupport.h"
#include "TestSupport.h"
#include "korvane/sync.h"

using namespace kvtest;

namespace {

// Removes the segment whatever the test did.
struct ScopedName {
    std::string name;
    explicit ScopedName(const std::string& tag) : name(uniqueName(tag)) {}
    ~ScopedName() { shm_unlink(name.c_str()); }
    const char* c_str() const { return name.c_str(); }
};

off_t segmentSize(const std::string& name) {
    struct stat status;
    return stat(("/dev/shm/" + name).c_str(), &status) == 0 ? status.st_size : -1;
}

bool allBytesAre(const void* buffer, size_t size, uint8_t value) {
    const uint8_t* bytes = static_cast<const uint8_t*>(buffer);
    return std::all_of(bytes, bytes + size, [&](uint8_t b) { return b == value; });
}

TEST(ShareMemory, CreateTakesOverAnExistingSegmentResizedAndZeroed) {
    ScopedName name("create");
    sharememory_handle* first = os_sharememory_create(name.c_str(), 64);
    ASSERT_NE(first, nullptr);
    void* firstBuffer = os_sharememory_get_buffer(first);
    EXPECT_TRUE(allBytesAre(firstBuffer, 64, 0));
    std::memset(firstBuffer, 0x5A, 64);

    sharememory_handle* second = os_sharememory_create(name.c_str(), 5000);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(segmentSize(name.name), 5000);
    EXPECT_TRUE(allBytesAre(os_sharememory_get_buffer(second), 5000, 0));
    EXPECT_TRUE(allBytesAre(firstBuffer, 64, 0)) << "both handles map the one segment";
    os_sharememory_destroy(&first);
    os_sharememory_destroy(&second);
    EXPECT_EQ(first, nullptr);
    EXPECT_TRUE(shmExists(name.name)) << "destroy never removes the name";
}

TEST(ShareMemory, OpenMapsTheSegmentAnotherProcessWrites) {
    ScopedName name("open");
    sharememory_handle* created = os_sharememory_create(name.c_str(), 128);
    ASSERT_NE(created, nullptr);
    const ChildResult writer = runInChild([&] {
        sharememory_handle* opened = os_sharememory_open(name.c_str());
        if (opened == nullptr)
            return 1;
        std::strcpy(static_cast<char*>(os_sharememory_get_buffer(opened)), "written elsewhere");
        os_sharememory_close(opened, false);
        os_sharememory_destroy(&opened);
        return 0;
    });
    EXPECT_EQ(writer.exitCode, 0);
    EXPECT_STREQ(static_cast<char*>(os_sharememory_get_buffer(created)), "written elsewhere");
    os_sharememory_close(created, true);
    os_sharememory_destroy(&created);

    errno = 0;
    EXPECT_EQ(os_sharememory_open(name.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT) << "a failed open keeps the platform's errno for its callers' messages";
}

TEST(ShareMemory, ZeroSizedSegmentIsRefusedButLeftInPlace) {
    ScopedName name("empty");
    EXPECT_EQ(os_sharememory_create(name.c_str(), 0), nullptr);
    EXPECT_TRUE(shmExists(name.name)) << "a failed create never removes the name";
    EXPECT_EQ(os_sharememory_open(name.c_str()), nullptr);
}

TEST(ShareMemory, CloseUnmapsAndUnlinksOnlyWhenAsked) {
    ScopedName name("close");
    sharememory_handle* keeper = os_sharememory_create(name.c_str(), 32);
    sharememory_handle* closer = os_sharememory_open(name.c_str());
    ASSERT_NE(closer, nullptr);

    os_sharememory_close(closer, false);
    EXPECT_EQ(os_sharememory_get_buffer(closer), MAP_FAILED);
    EXPECT_TRUE(shmExists(name.name));

    os_sharememory_close(closer, true); // unlinks even with nothing mapped
    EXPECT_FALSE(shmExists(name.name));
    EXPECT_EQ(os_sharememory_open(name.c_str()), nullptr);
    // Mappings made before the unlink stay usable.
    static_cast<char*>(os_sharememory_get_buffer(keeper))[31] = 'k';
    EXPECT_EQ(static_cast<char*>(os_sharememory_get_buffer(keeper))[31], 'k');
    os_sharememory_destroy(&closer);
    os_sharememory_destroy(&keeper);
}

TEST(ShareMemory, CreateFallsBackWhenPagesCannotBeLocked) {
    ScopedName name("unlocked");
    const ChildResult child = runInChild([&] {
        const struct rlimit none = {0, 0};
        setrlimit(RLIMIT_MEMLOCK, &none);
        if (geteuid() == 0 && setuid(65534) != 0) // root may lock regardless of the limit
            return 2;
        sharememory_handle* memory = os_sharememory_create(name.c_str(), 256);
        const bool mapped = memory != nullptr && allBytesAre(os_sharememory_get_buffer(memory), 256, 0);
        os_sharememory_destroy(&memory);
        return mapped ? 0 : 1;
    });
    EXPECT_EQ(child.exitCode, 0);
}

TEST(ShareMemory, BadInputGivesNullOrNothing) {
    EXPECT_EQ(os_sharememory_get_buffer(nullptr), nullptr);
    EXPECT_EQ(os_sharememory_create(nullptr, 16), nullptr);
    EXPECT_EQ(os_sharememory_open(nullptr), nullptr);
    EXPECT_EQ(os_sharememory_create("with/slash", 16), nullptr);
    EXPECT_EQ(os_sharememory_create(std::string(300, 'n').c_str(), 16), nullptr);
    os_sharememory_close(nullptr, true);
    sharememory_handle* none = nullptr;
    os_sharememory_destroy(&none);
    os_sharememory_destroy(nullptr);
    EXPECT_EQ(none, nullptr);
}

} // namespace
