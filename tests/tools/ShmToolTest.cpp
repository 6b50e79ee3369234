// korvane-shm: status, list and clean, for people and as JSON.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "TestSupport.h"
#include "ToolRunner.h"
#include "korvane/korvane.h"

namespace {

using kvtest::BackgroundTool;
using kvtest::runTool;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Leaves what a crashed manager leaves: all four channel names, nobody to answer.
void makeStaleChannel() {
    for (const char* name : {KORVANE_SYNC_LOCK_SEMAPHORE, KORVANE_SYNC_REQUEST_SEMAPHORE,
                             KORVANE_SYNC_FINISH_SEMAPHORE}) {
        sem_t* semaphore = sem_open(name, O_CREAT, 0755, name == std::string(KORVANE_SYNC_LOCK_SEMAPHORE) ? 1 : 0);
        ASSERT_NE(semaphore, SEM_FAILED);
        sem_close(semaphore);
    }
    const int fd = shm_open(KORVANE_SYNC_CHANNEL_MEMORY, O_RDWR | O_CREAT, 0777);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, 1029), 0);
    close(fd);
}

TEST(KorvaneShm, StatusTellsNoChannelAStaleOneAndALiveManager) {
    kvtest::ToolResult result = runTool("korvane-shm", {"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out, "sync manager: no channel\n")) << result.out;
    EXPECT_TRUE(contains(result.out, "missing  /dev/shm/sem." KORVANE_SYNC_LOCK_SEMAPHORE)) << result.out;
    result = runTool("korvane-shm", {"--json", "status"});
    EXPECT_TRUE(contains(result.out, "{\"manager\":\"no channel\",\"pids\":[],\"channel\":[")) << result.out;

    makeStaleChannel();
    result = runTool("korvane-shm", {"status"});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_TRUE(contains(result.out, "sync manager: not answering\n")) << result.out;
    ASSERT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);

    BackgroundTool syncd("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());
    const std::string pid = std::to_string(syncd.pid());
    result = runTool("korvane-shm", {"status"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.out, "sync manager: answering (pid " + pid + ")")) << result.out;
    result = runTool("korvane-shm", {"--json", "status"});
    EXPECT_TRUE(contains(result.out, "\"manager\":\"answering\",\"pids\":[" + pid + "]")) << result.out;
    EXPECT_EQ(syncd.stop(SIGTERM).exitCode, 0);
}

TEST(KorvaneShm, ListShowsNamedObjectsWithOpenCountsAndClientHolders) {
    BackgroundTool syncd("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());
    const std::string mutexName = kvtest::uniqueName("listed_mutex");
    const std::string lockName = kvtest::uniqueName("listed_rw");
    mutex_handle* first = os_mutex_create(mutexName.c_str());
    mutex_handle* second = os_mutex_create(mutexName.c_str());
    rw_mutex_handle* lock = os_rw_mutex_create(lockName.c_str());
    const std::string self = std::to_string(getpid());

    const std::string human = runTool("korvane-shm", {"list"}).out;
    const size_t row = human.find(mutexName);
    ASSERT_NE(row, std::string::npos) << human;
    const std::string line = human.substr(row, human.find('\n', row) - row);
    // Name, kind, size, open count, then the holders: this process only, the
    // manager (which maps every object memory) left out.
    EXPECT_TRUE(contains(line, " mutex ") && contains(line, " 52 ") && contains(line, " 2  " + self)) << line;
    EXPECT_FALSE(contains(line, std::to_string(syncd.pid()))) << line;
    const std::string json = runTool("korvane-shm", {"--json", "list"}).out;
    EXPECT_TRUE(contains(json, "{\"name\":\"" + lockName +
                                   "\",\"kind\":\"rw mutex\",\"size\":152,\"open_count\":1,\"holders\":[" + self + "]}"))
        << json;

    os_rw_mutex_destroy(&lock);
    os_mutex_destroy(&second);
    os_mutex_destroy(&first);
    EXPECT_FALSE(contains(runTool("korvane-shm", {"list"}).out, mutexName));
    EXPECT_EQ(syncd.stop(SIGTERM).exitCode, 0);
}

TEST(KorvaneShm, CleanRemovesOnlyStaleChannelResources) {
    {
        BackgroundTool syncd("korvane-syncd", {});
        ASSERT_TRUE(kvtest::waitForManager());
        const kvtest::ToolResult refused = runTool("korvane-shm", {"clean"});
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_TRUE(contains(refused.err, "a sync manager is answering on the channel; refusing")) << refused.err;
        EXPECT_EQ(runTool("korvane-shm", {"--json", "clean"}).out,
                  "{\"refused\":\"a sync manager is answering on the channel\"}\n");
        EXPECT_EQ(runTool("korvane-shm", {"status"}).exitCode, 0) << "the refusal must leave the channel intact";
        EXPECT_EQ(syncd.stop(SIGTERM).exitCode, 0);
    }
    makeStaleChannel();
    const kvtest::ToolResult removed = runTool("korvane-shm", {"--json", "clean"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.out, "{\"removed\":[\"" KORVANE_SYNC_CHANNEL_MEMORY "\",\"" KORVANE_SYNC_LOCK_SEMAPHORE
                           "\",\"" KORVANE_SYNC_REQUEST_SEMAPHORE "\",\"" KORVANE_SYNC_FINISH_SEMAPHORE "\"]}\n");
    EXPECT_TRUE(kvtest::shmEntriesContaining("os_mutex_manage_").empty());
    EXPECT_EQ(runTool("korvane-shm", {"clean"}).out, "no stale channel resources\n");
}

TEST(KorvaneTools, RejectMissingAndUnknownArguments) {
    EXPECT_EQ(runTool("korvane-shm", {}).exitCode, 2);
    const kvtest::ToolResult unknown = runTool("korvane-shm", {"frobnicate"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(contains(unknown.err, "unknown command 'frobnicate'"));
    EXPECT_EQ(runTool("korvane-shm", {"--help"}).exitCode, 0);
    EXPECT_EQ(runTool("korvane-syncd", {"--bogus"}).exitCode, 2);
    EXPECT_EQ(runTool("korvane-syncd", {"--help"}).exitCode, 0);
}

} // namespace
