// The sync manager's life (the names it creates and removes, a second
// manager), client mode, and how the manager serves memory requests.
#include <semaphore.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>

#include "SyncCoreSupport.h"
#include "TestSupport.h"
#include "korvane/sync.h"
#include "os/sync/SyncInternal.h"

using namespace kvtest;
using korvane::sync::kChannelMemoryName;

namespace {

const char kNoChannelOutput[] = "Error: Can not open os_mutex_manage_enabled_semaphore, errno = 2!\n"
                                "Error: Can not open os_mutex_manage_request_semaphore, errno = 2!\n"
                                "Error: Can not open os_mutex_manage_finish_semaphore, errno = 2!\n"
                                "Error: Can not open os_mutex_manage_enabled_sharemomory, errno = 2!\n";

size_t mappingsOfTheChannel() {
    std::ifstream maps("/proc/self/maps");
    size_t count = 0;
    for (std::string line; std::getline(maps, line);)
        count += line.find("os_mutex_manage_") != std::string::npos;
    return count;
}

TEST(SyncManagerLife, StartCreatesTheChannelAndStopRemovesIt) {
    ASSERT_TRUE(presentChannelEntries().empty());
    EXPECT_FALSE(os_sync_environment_initialize(true));
    ASSERT_TRUE(os_sync_environment_initialize(false));
    EXPECT_TRUE(eventually([] { return presentChannelEntries() == channelEntries(); }));
    struct stat status;
    ASSERT_EQ(stat("/dev/shm/os_mutex_manage_enabled_sharemomory", &status), 0);
    EXPECT_EQ(status.st_size, 1029);
    os_sync_environment_uninitialize();
    EXPECT_TRUE(presentChannelEntries().empty());
    os_sync_environment_uninitialize(); // no manager: nothing to do

    // A stopped manager leaves nothing that blocks the next one.
    ASSERT_TRUE(os_sync_environment_initialize(false));
    os_sync_environment_uninitialize();
    EXPECT_TRUE(presentChannelEntries().empty());
}

TEST(SyncManagerLife, SecondManagerFailsAndRemovesTheChannelMemoryName) {
    ASSERT_TRUE(presentChannelEntries().empty());
    const ChildResult child = runInChild(
        [] {
            if (!os_sync_environment_initialize(false) || !eventually([] { return presentChannelEntries().size() == 4; }))
                return 1;
            const bool second = os_sync_environment_initialize(false);
            std::fflush(stdout);
            // The first manager's thread runs on, unreachable: its channel
            // memory name is gone, its semaphores stay.
            std::vector<std::string> expected = channelEntries();
            expected.erase(expected.begin()); // the channel memory's name
            const bool semaphoresLeft = presentChannelEntries() == expected;
            os_sync_environment_uninitialize(); // the global is null: nothing happens
            return !second && semaphoresLeft ? 0 : 2;
        },
        10s, true);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.output, "Error:can not create os_mutex_manage_enabled_semaphore, errno = 17!\n");
    for (const char* name : {"os_mutex_manage_enabled_semaphore", "os_mutex_manage_request_semaphore",
                             "os_mutex_manage_finish_semaphore"})
        sem_unlink(name);
    EXPECT_TRUE(presentChannelEntries().empty());
}

TEST(SyncManagerLife, ClientModeWithoutManagerNamesEachMissingResource) {
    ASSERT_TRUE(presentChannelEntries().empty());
    bool running = true;
    EXPECT_EQ(captureStdout([&] { running = os_sync_environment_initialize(true); }), kNoChannelOutput);
    EXPECT_FALSE(running);
}

using SyncManagerTest = SyncManagerFixture;

TEST_F(SyncManagerTest, ClientModeFindsTheManagerAndLeavesNothingOpen) {
    const size_t before = mappingsOfTheChannel();
    bool running = false;
    EXPECT_EQ(captureStdout([&] { running = os_sync_environment_initialize(true); }), "");
    EXPECT_TRUE(running);
    EXPECT_EQ(mappingsOfTheChannel(), before);
    const ChildResult other = runInChild([] { return os_sync_environment_initialize(true) ? 0 : 1; });
    EXPECT_EQ(other.exitCode, 0);
}

// Sends one request as any client would; true when the manager answered.
bool ask(bool create, const std::string& name, uint32_t size = 0) {
    OS::CSyncClient client;
    if (!client.create())
        return false;
    client.lockChannel();
    const bool answered = create ? client.requestCreate(name.c_str(), size) : client.requestDestroy(name.c_str());
    client.unlockChannel();
    return answered;
}

TEST_F(SyncManagerTest, CreateRequestMakesTheMemoryOnceAndDestroyRemovesIt) {
    const std::string name = this->name("served");
    ASSERT_TRUE(ask(true, name, 64));
    ASSERT_TRUE(shmExists(name));
    const std::vector<uint8_t> marker = {1, 2, 3, 4};
    {
        sharememory_handle* memory = os_sharememory_open(name.c_str());
        std::memcpy(os_sharememory_get_buffer(memory), marker.data(), marker.size());
        os_sharememory_destroy(&memory);
    }
    // Asked again (even with another size), the manager hands out what it has.
    ASSERT_TRUE(ask(true, name, 4096));
    EXPECT_EQ(segmentBytes(name, 0, 4), marker);
    struct stat status;
    ASSERT_EQ(stat(("/dev/shm/" + name).c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 64);

    ASSERT_TRUE(ask(false, name));
    EXPECT_FALSE(shmExists(name));
}

TEST_F(SyncManagerTest, RequestsItCannotServeAreAnsweredAndChangeNothing) {
    const std::string kept = this->name("kept");
    ASSERT_TRUE(ask(true, kept, 52));
    struct Case {
        const char* what;
        bool create;
        std::string name;
        uint32_t size;
    };
    const std::string sizeless = this->name("sizeless");
    for (const Case& c : {Case{"destroy of an unknown name", false, this->name("unknown"), 0},
                          Case{"destroy of an empty name", false, "", 0},
                          Case{"create of size 0", true, sizeless, 0}, Case{"create of an empty name", true, "", 52}}) {
        EXPECT_TRUE(ask(c.create, c.name, c.size)) << c.what;
        EXPECT_TRUE(shmExists(kept)) << c.what;
    }
    EXPECT_FALSE(shmExists(sizeless));

    // An unknown operation code is answered too.
    OS::CSyncClient client;
    ASSERT_TRUE(client.create());
    client.lockChannel();
    const uint32_t unknown = 7;
    std::memcpy(os_sharememory_get_buffer(client.channelMemory), &unknown, sizeof unknown);
    sem_post(client.requestSemaphore);
    EXPECT_TRUE(korvane::sync::waitForAnswer(client.finishSemaphore));
    client.unlockChannel();
    EXPECT_TRUE(shmExists(kept));
}

TEST_F(SyncManagerTest, StaleSegmentIsTakenOverAndStopRemovesWhatIsHeld) {
    const std::string name = this->name("stale");
    sharememory_handle* stale = os_sharememory_create(name.c_str(), 16);
    std::memset(os_sharememory_get_buffer(stale), 0xFF, 16);
    os_sharememory_destroy(&stale);
    ASSERT_TRUE(ask(true, name, 52));
    const std::vector<uint8_t> bytes = segmentBytes(name, 0, 52);
    EXPECT_EQ(std::count(bytes.begin(), bytes.end(), 0), 52) << "a leftover segment is reset";
    stopManager();
    EXPECT_FALSE(shmExists(name));
    EXPECT_TRUE(presentChannelEntries().empty());
}

TEST_F(SyncManagerTest, FullLifeLeavesNothingInDevShm) {
    const std::string name = this->name("tidy");
    mutex_handle* mine = os_mutex_create(name.c_str());
    recursive_mutex_handle* recursive = os_recursive_mutex_create(this->name("tidy_recursive").c_str());
    const ChildResult child = runInChild([&] {
        mutex_handle* theirs = os_mutex_create(name.c_str());
        os_mutex_lock(theirs);
        os_mutex_unlock(theirs);
        os_mutex_destroy(&theirs);
        return 0;
    });
    EXPECT_EQ(child.exitCode, 0);
    os_mutex_destroy(&mine);
    os_recursive_mutex_destroy(&recursive);
    EXPECT_TRUE(shmEntriesContaining(namePrefix()).empty());
    stopManager();
    EXPECT_TRUE(presentChannelEntries().empty());
}

} // namespace
