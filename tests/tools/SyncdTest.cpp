// korvane-syncd: the machine's sync manager as a service.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>

#include <memory>
#include <string>

#include "ToolRunner.h"
#include "korvane/korvane.h"

namespace {

using kvtest::BackgroundTool;
using kvtest::runTool;

bool channelLeftBehind() {
    return !kvtest::shmEntriesContaining("os_mutex_manage_").empty();
}

// One client process: creates each kind of named object, uses it, destroys it.
int useEveryNamedKind(const std::string& p) {
    mutex_handle* mutex = os_mutex_create((p + "m").c_str());
    event_handle* event = os_event_create(true, true, (p + "e").c_str());
    semaphore_handle* semaphore = os_semaphore_create(1, (p + "s").c_str());
    rw_mutex_handle* lock = os_rw_mutex_create((p + "w").c_str());
    const bool served = os_event_wait(event) && os_semaphore_wait(semaphore) &&
                        kvtest::shmEntriesContaining(p).size() == 4;
    os_rw_mutex_destroy(&lock);
    os_semaphore_destroy(&semaphore);
    os_event_destroy(&event);
    os_mutex_destroy(&mutex);
    return served ? 0 : 1;
}

TEST(KorvaneSyncd, ServesClientsAndLeavesNothingBehindWhenStopped) {
    BackgroundTool syncd("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());
    const std::string prefix = kvtest::uniqueName("syncd");
    kvtest::Child first([&] { return useEveryNamedKind(prefix + "a"); });
    kvtest::Child second([&] { return useEveryNamedKind(prefix + "b"); });
    EXPECT_EQ(first.wait().exitCode, 0);
    EXPECT_EQ(second.wait().exitCode, 0);
    const kvtest::ToolResult stopped = syncd.stop(SIGINT);
    EXPECT_EQ(stopped.exitCode, 0) << stopped.err;
    EXPECT_NE(stopped.out.find("Interrupt received, sync manager stopped"), std::string::npos) << stopped.out;
    EXPECT_FALSE(channelLeftBehind());
    EXPECT_TRUE(kvtest::shmEntriesContaining(prefix).empty());
}

TEST(KorvaneSyncd, OneRunsPerMachineEvenWhenTwoStartAtOnce) {
    // A crashed manager's channel stops a start until it is cleaned.
    sem_close(sem_open(KORVANE_SYNC_LOCK_SEMAPHORE, O_CREAT | O_EXCL, 0755, 1));
    const kvtest::ToolResult refused = runTool("korvane-syncd", {});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("stale sync channel resources"), std::string::npos) << refused.err;
    ASSERT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);

    auto first = std::make_unique<BackgroundTool>("korvane-syncd", std::vector<std::string>());
    auto second = std::make_unique<BackgroundTool>("korvane-syncd", std::vector<std::string>());
    ASSERT_TRUE(kvtest::waitForManager());
    // The one that lost exits by itself, naming the winner.
    if (runTool("korvane-shm", {"status"}).out.find("(pid " + std::to_string(first->pid()) + ")") == std::string::npos)
        std::swap(first, second);
    const kvtest::ToolResult lost = second->stop(0);
    EXPECT_EQ(lost.exitCode, 1);
    EXPECT_NE(lost.err.find("already running (pid " + std::to_string(first->pid()) + ")"), std::string::npos)
        << lost.err;
    const std::string name = kvtest::uniqueName("beside");
    mutex_handle* mutex = os_mutex_create(name.c_str());
    EXPECT_EQ(kvtest::shmEntriesContaining(name).size(), 1u) << "the winner no longer serves";
    os_mutex_destroy(&mutex);
    EXPECT_EQ(first->stop(SIGTERM).exitCode, 0);
    EXPECT_FALSE(channelLeftBehind());
}

class KorvaneSyncdRestart : public testing::TestWithParam<int> {};

// A process holds a mutex locked while the manager restarts, after a stop
// (SIGTERM) or a crash (SIGKILL, then the unit's clean). The next manager
// adopts the object: a second create opens it, still locked by its owner.
TEST_P(KorvaneSyncdRestart, KeepsObjectsInUseAndRemovesTheRest) {
    const std::string held = kvtest::uniqueName("held"), dropped = kvtest::uniqueName("dropped");
    auto syncd = std::make_unique<BackgroundTool>("korvane-syncd", std::vector<std::string>());
    ASSERT_TRUE(kvtest::waitForManager());
    kvtest::Holder owner([&] { os_mutex_lock(os_mutex_create(held.c_str())); });
    kvtest::Holder orphanMaker([&] { os_mutex_create(dropped.c_str()); });
    orphanMaker.kill();
    syncd->stop(GetParam());
    if (GetParam() == SIGKILL) {
        ASSERT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);
    }
    EXPECT_EQ(kvtest::shmEntriesContaining(held).size(), 1u);
    EXPECT_EQ(kvtest::shmEntriesContaining(dropped).size(), GetParam() == SIGKILL ? 1u : 0u);

    // The next manager reclaims the crash's orphan on its own.
    syncd = std::make_unique<BackgroundTool>("korvane-syncd", std::vector<std::string>{"--reclaim-interval", "1"});
    ASSERT_TRUE(kvtest::waitForManager());
    mutex_handle* second = os_mutex_create(held.c_str());
    const std::string state = runTool("korvane-shm", {"--json", "list", held}).out;
    EXPECT_NE(state.find("\"open_count\":2,"), std::string::npos) << state;
    EXPECT_NE(state.find("\"owner_pid\":" + std::to_string(owner.pid())), std::string::npos) << state;
    EXPECT_TRUE(kvtest::eventually([&] { return kvtest::shmEntriesContaining(dropped).empty(); }));
    os_mutex_destroy(&second);
    owner.kill();
    EXPECT_EQ(syncd->stop(SIGTERM).exitCode, 0);
    EXPECT_TRUE(kvtest::shmEntriesContaining(kvtest::namePrefix()).empty());
}

INSTANTIATE_TEST_SUITE_P(StopOrCrash, KorvaneSyncdRestart, testing::Values(SIGTERM, SIGKILL));

} // namespace
