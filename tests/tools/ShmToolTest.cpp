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

// Leaves the channel resources a crashed manager leaves: all four names, and
// nobody to answer.
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

class ShmToolWithManager : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(kvtest::waitForManager()); }
    void TearDown() override { EXPECT_EQ(m_syncd.stop(SIGTERM).exitCode, 0); }
    BackgroundTool m_syncd{"korvane-syncd", {}};
};

TEST(KorvaneShmStatus, ReportsNoChannelWhenNoManagerRuns) {
    const kvtest::ToolResult human = runTool("korvane-shm", {"status"});
    EXPECT_EQ(human.exitCode, 1);
    EXPECT_TRUE(contains(human.out, "sync manager: no channel")) << human.out;
    EXPECT_TRUE(contains(human.out, "missing  /dev/shm/sem." KORVANE_SYNC_LOCK_SEMAPHORE)) << human.out;

    const kvtest::ToolResult json = runTool("korvane-shm", {"--json", "status"});
    EXPECT_EQ(json.exitCode, 1);
    EXPECT_TRUE(contains(json.out, "{\"manager\":\"no channel\",\"pids\":[],\"channel\":[")) << json.out;
    EXPECT_TRUE(contains(json.out, "\"present\":false")) << json.out;
}

TEST(KorvaneShmStatus, TellsAStaleChannelFromALiveManager) {
    makeStaleChannel();
    const kvtest::ToolResult stale = runTool("korvane-shm", {"status"});
    EXPECT_EQ(stale.exitCode, 1);
    EXPECT_TRUE(contains(stale.out, "sync manager: not answering")) << stale.out;
    EXPECT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);
}

TEST_F(ShmToolWithManager, StatusNamesTheAnsweringManager) {
    const kvtest::ToolResult human = runTool("korvane-shm", {"status"});
    EXPECT_EQ(human.exitCode, 0);
    EXPECT_TRUE(contains(human.out, "sync manager: answering (pid " + std::to_string(m_syncd.pid()) + ")"))
        << human.out;
    const kvtest::ToolResult json = runTool("korvane-shm", {"--json", "status"});
    EXPECT_TRUE(contains(json.out, "\"manager\":\"answering\",\"pids\":[" + std::to_string(m_syncd.pid()) + "]"))
        << json.out;
}

TEST_F(ShmToolWithManager, ListShowsNamedObjectsWithOpenCountsAndHolders) {
    const std::string mutexName = kvtest::uniqueName("listed_mutex");
    const std::string lockName = kvtest::uniqueName("listed_rw");
    mutex_handle* first = os_mutex_create(mutexName.c_str());
    mutex_handle* second = os_mutex_create(mutexName.c_str());
    rw_mutex_handle* lock = os_rw_mutex_create(lockName.c_str());
    const std::string self = std::to_string(getpid());

    const kvtest::ToolResult human = runTool("korvane-shm", {"list"});
    EXPECT_EQ(human.exitCode, 0);
    EXPECT_TRUE(contains(human.out, "NAME")) << human.out;
    const size_t row = human.out.find(mutexName);
    ASSERT_NE(row, std::string::npos) << human.out;
    const std::string line = human.out.substr(row, human.out.find('\n', row) - row);
    EXPECT_TRUE(contains(line, "mutex")) << line;
    EXPECT_TRUE(contains(line, " 52 ")) << line;
    EXPECT_TRUE(contains(line, " 2  ")) << line;
    EXPECT_TRUE(contains(line, self)) << line;

    const kvtest::ToolResult json = runTool("korvane-shm", {"--json", "list"});
    EXPECT_TRUE(contains(json.out, "{\"name\":\"" + lockName +
                                       "\",\"kind\":\"rw mutex\",\"size\":152,\"open_count\":1,\"holders\":[" +
                                       self + "]}"))
        << json.out;

    os_rw_mutex_destroy(&lock);
    os_mutex_destroy(&second);
    os_mutex_destroy(&first);
    EXPECT_FALSE(contains(runTool("korvane-shm", {"list"}).out, mutexName));
}

TEST_F(ShmToolWithManager, CleanRefusesWhileAManagerAnswers) {
    const kvtest::ToolResult human = runTool("korvane-shm", {"clean"});
    EXPECT_EQ(human.exitCode, 1);
    EXPECT_TRUE(contains(human.err, "a sync manager is answering on the channel; refusing")) << human.err;
    const kvtest::ToolResult json = runTool("korvane-shm", {"--json", "clean"});
    EXPECT_EQ(json.exitCode, 1);
    EXPECT_EQ(json.out, "{\"refused\":\"a sync manager is answering on the channel\"}\n");
    EXPECT_EQ(runTool("korvane-shm", {"status"}).exitCode, 0) << "the refusal must leave the channel intact";
}

TEST(KorvaneShmClean, RemovesStaleChannelResources) {
    makeStaleChannel();
    const kvtest::ToolResult json = runTool("korvane-shm", {"--json", "clean"});
    EXPECT_EQ(json.exitCode, 0);
    EXPECT_EQ(json.out, "{\"removed\":[\"" KORVANE_SYNC_CHANNEL_MEMORY "\",\"" KORVANE_SYNC_LOCK_SEMAPHORE
                        "\",\"" KORVANE_SYNC_REQUEST_SEMAPHORE "\",\"" KORVANE_SYNC_FINISH_SEMAPHORE "\"]}\n");
    EXPECT_TRUE(kvtest::shmEntriesContaining("os_mutex_manage_").empty());
    const kvtest::ToolResult again = runTool("korvane-shm", {"clean"});
    EXPECT_EQ(again.exitCode, 0);
    EXPECT_EQ(again.out, "no stale channel resources\n");
}

TEST(KorvaneShmUsage, RejectsMissingAndUnknownCommands) {
    EXPECT_EQ(runTool("korvane-shm", {}).exitCode, 2);
    const kvtest::ToolResult unknown = runTool("korvane-shm", {"frobnicate"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_TRUE(contains(unknown.err, "unknown command 'frobnicate'"));
    EXPECT_EQ(runTool("korvane-shm", {"--help"}).exitCode, 0);
}

} // namespace
