// korvane-shm: status, list, clean and reclaim, for people and as JSON.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

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
                             KORVANE_SYNC_FINISH_SEMAPHORE})
        sem_close(sem_open(name, O_CREAT, 0755, 1));
    const int fd = shm_open(KORVANE_SYNC_CHANNEL_MEMORY, O_RDWR | O_CREAT, 0755);
    ASSERT_EQ(ftruncate(fd, 1029), 0);
    close(fd);
}

TEST(KorvaneShm, StatusTellsNoChannelAStaleOneAnAnsweringManagerAndNoAccess) {
    EXPECT_EQ(runTool("korvane-shm", {"status"}).out.find("sync manager: no channel\n"), 0u);
    makeStaleChannel();
    EXPECT_TRUE(contains(runTool("korvane-shm", {"status"}).out, "sync manager: not answering\n"));
    const kvtest::ToolResult refused = runTool("korvane-shm", {"clean"}, kvtest::kDefaultTimeout, true);
    EXPECT_NE(refused.exitCode, 0) << "an unprivileged clean removes nothing: " << refused.err;
    ASSERT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);

    BackgroundTool syncd("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());
    const std::string pid = std::to_string(syncd.pid());
    kvtest::ToolResult result = runTool("korvane-shm", {"status"});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(contains(result.out, "sync manager: answering (pid " + pid + ")")) << result.out;
    EXPECT_TRUE(contains(runTool("korvane-shm", {"--json", "status"}).out,
                         "{\"manager\":\"answering\",\"pids\":[" + pid + "],\"channel\":[{\"name\":"));
    // A user outside the service's group is told why it cannot use the channel.
    result = runTool("korvane-shm", {"status"}, kvtest::kDefaultTimeout, true);
    EXPECT_EQ(result.exitCode, 1) << result.err;
    EXPECT_TRUE(contains(result.out, "sync manager: present, not accessible")) << result.out;
    EXPECT_NE(runTool("korvane-shm", {"reclaim"}, kvtest::kDefaultTimeout, true).exitCode, 0);
    EXPECT_EQ(syncd.stop(SIGTERM).exitCode, 0);
}

TEST(KorvaneShm, CleanRemovesOnlyWhatADeadManagerLeft) {
    {
        BackgroundTool syncd("korvane-syncd", {});
        ASSERT_TRUE(kvtest::waitForManager());
        // Answering or stopped, a running service keeps its channel.
        for (int signal : {0, SIGSTOP}) {
            kill(syncd.pid(), signal);
            const kvtest::ToolResult refused = runTool("korvane-shm", {"clean"});
            EXPECT_EQ(refused.exitCode, 1);
            EXPECT_TRUE(contains(refused.err, "korvane-syncd (pid " + std::to_string(syncd.pid()) + ") is running"));
        }
        kill(syncd.pid(), SIGCONT);
        EXPECT_EQ(runTool("korvane-shm", {"status"}).exitCode, 0) << "the refusals left the channel intact";
        // Any other live process using the channel, a stalled manager hosted
        // by an application for one, keeps it too.
        syncd.stop(SIGKILL);
        kvtest::Holder user([] { sem_open(KORVANE_SYNC_LOCK_SEMAPHORE, 0); });
        EXPECT_TRUE(contains(runTool("korvane-shm", {"--json", "clean"}).out,
                             "{\"refused\":\"process " + std::to_string(user.pid()) + " still uses"));
    }
    const kvtest::ToolResult removed = runTool("korvane-shm", {"--json", "clean"});
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.out, "{\"removed\":[\"" KORVANE_SYNC_CHANNEL_MEMORY "\",\"" KORVANE_SYNC_LOCK_SEMAPHORE
                           "\",\"" KORVANE_SYNC_REQUEST_SEMAPHORE "\",\"" KORVANE_SYNC_FINISH_SEMAPHORE "\"]}\n");
    EXPECT_EQ(runTool("korvane-shm", {"clean"}).out, "no stale channel resources\n");
}

std::string listed(const std::string& name) {
    return runTool("korvane-shm", {"--json", "list", name}).out;
}

TEST(KorvaneShm, ListShowsLockStateAndOrphansWhichReclaimRemoves) {
    BackgroundTool syncd("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());
    const std::string n = kvtest::uniqueName("state");
    kvtest::Holder holder([&] {
        os_mutex_lock(os_mutex_create((n + "m").c_str()));
        recursive_mutex_handle* recursive = os_recursive_mutex_create((n + "r").c_str());
        os_recursive_mutex_lock(recursive);
        os_recursive_mutex_lock(recursive);
        os_event_set_event(os_event_create(true, false, (n + "e").c_str()));
        os_semaphore_create(3, (n + "s").c_str());
        rw_mutex_handle* lock = os_rw_mutex_create((n + "w").c_str());
        os_rw_mutex_lock_rd(lock);
        os_rw_mutex_lock_rd(lock);
    });
    const std::string p = std::to_string(holder.pid());
    const std::string owner = "\"owner_tid\":" + p + ",\"owner_pid\":" + p + ",\"owner_alive\":true";
    const struct {
        const char* suffix;
        std::string json; // from the kind on
    } objects[] = {
        {"m", "mutex\",\"size\":52,\"open_count\":1,\"holders\":[" + p + "],\"orphan\":false,\"state\":{"
              "\"locked\":true," + owner + "}}"},
        {"r", "recursive mutex\",\"size\":52,\"open_count\":1,\"holders\":[" + p + "],\"orphan\":false,"
              "\"state\":{\"locked\":true," + owner + ",\"depth\":2}}"},
        {"e", "event\",\"size\":104,\"open_count\":1,\"holders\":[" + p + "],\"orphan\":false,"
              "\"state\":{\"set\":true,\"manual_reset\":true}}"},
        {"s", "semaphore\",\"size\":37,\"open_count\":1,\"holders\":[" + p + "],\"orphan\":false,"
              "\"state\":{\"count\":3}}"},
        {"w", "rw mutex\",\"size\":152,\"open_count\":1,\"holders\":[" + p + "],\"orphan\":false,\"state\":{"
              "\"readers\":2,\"writer\":false,\"hold_locked\":false}}"},
    };
    for (const auto& object : objects)
        EXPECT_EQ(listed(n + object.suffix), "{\"objects\":[{\"name\":\"" + n + object.suffix + "\",\"kind\":\"" +
                                                  object.json + "]}\n");
    const std::string table = runTool("korvane-shm", {"list"}).out;
    EXPECT_TRUE(contains(table, " ORPHAN STATE\n") && contains(table, " 52    1 " + p + " ")) << table;
    EXPECT_TRUE(contains(table, "locked by tid " + p + " (pid " + p + ")\n")) << table;

    holder.kill();
    EXPECT_TRUE(contains(listed(n + "m"), "\"holders\":[],\"orphan\":true,\"state\":{\"locked\":true,\"owner_tid\":" +
                                              p + ",\"owner_alive\":false}"));
    const kvtest::ToolResult reclaimed = runTool("korvane-shm", {"reclaim"});
    EXPECT_EQ(reclaimed.exitCode, 0);
    EXPECT_EQ(reclaimed.out, "reclaimed " + n + "e\nreclaimed " + n + "m\nreclaimed " + n + "r\nreclaimed " + n +
                                 "s\nreclaimed " + n + "w\n");
    // The name starts fresh: counted once, unlocked.
    mutex_handle* again = os_mutex_create((n + "m").c_str());
    EXPECT_TRUE(contains(listed(n + "m"), "\"open_count\":1,\"holders\":[" + std::to_string(getpid()) +
                                              "],\"orphan\":false,\"state\":{\"locked\":false}"));
    os_mutex_destroy(&again);
    EXPECT_EQ(runTool("korvane-shm", {"reclaim"}).out, "no orphans\n");
    EXPECT_EQ(syncd.stop(SIGTERM).exitCode, 0);
}

TEST(KorvaneTools, RejectMissingAndUnknownArguments) {
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {}, {"frobnicate"}, {"status", "x"}, {"list", "a", "b"}})
        EXPECT_EQ(runTool("korvane-shm", words).exitCode, 2);
    EXPECT_TRUE(contains(runTool("korvane-shm", {"frobnicate"}).err, "unknown command 'frobnicate'"));
    EXPECT_TRUE(contains(runTool("korvane-shm", {"--help"}).out, "reclaim"));
    for (const std::vector<std::string>& words : std::vector<std::vector<std::string>>{
             {"--bogus"}, {"--reclaim-interval"}, {"--reclaim-interval", "x"}})
        EXPECT_EQ(runTool("korvane-syncd", words).exitCode, 2);
    EXPECT_EQ(runTool("korvane-syncd", {"--help"}).exitCode, 0);
}

} // namespace
