// korvane-syncd: the machine's sync manager as a service.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <semaphore.h>
#include <signal.h>

#include <string>

#include "TestSupport.h"
#include "ToolRunner.h"
#include "korvane/korvane.h"

namespace {

using kvtest::BackgroundTool;
using kvtest::runTool;

const char* const kChannelNames[] = {KORVANE_SYNC_CHANNEL_MEMORY, "sem." KORVANE_SYNC_LOCK_SEMAPHORE,
                                     "sem." KORVANE_SYNC_REQUEST_SEMAPHORE, "sem." KORVANE_SYNC_FINISH_SEMAPHORE};

bool channelLeftBehind() {
    for (const char* name : kChannelNames) {
        if (!kvtest::shmEntriesContaining(name).empty())
            return true;
    }
    return false;
}

// One client process: creates each kind of named object, uses it, destroys it.
int useEveryNamedKind(const std::string& prefix) {
    mutex_handle* mutex = os_mutex_create((prefix + "_mutex").c_str());
    os_mutex_lock(mutex);
    os_mutex_unlock(mutex);
    event_handle* event = os_event_create(true, false, (prefix + "_event").c_str());
    os_event_set_event(event);
    const bool eventSeen = os_event_wait(event);
    semaphore_handle* semaphore = os_semaphore_create(1, (prefix + "_semaphore").c_str());
    const bool unitTaken = os_semaphore_wait(semaphore);
    os_semaphore_release(semaphore);
    rw_mutex_handle* lock = os_rw_mutex_create((prefix + "_rw").c_str());
    os_rw_mutex_lock_wr(lock);
    os_rw_mutex_unlock(lock);
    const bool allNamed = kvtest::shmEntriesContaining(prefix).size() == 4;
    os_rw_mutex_destroy(&lock);
    os_semaphore_destroy(&semaphore);
    os_event_destroy(&event);
    os_mutex_destroy(&mutex);
    return eventSeen && unitTaken && allNamed ? 0 : 1;
}

TEST(KorvaneSyncd, ServesClientsAndLeavesNothingBehindWhenStopped) {
    ASSERT_FALSE(channelLeftBehind()) << "a sync manager already runs on this machine";
    BackgroundTool syncd("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());

    const std::string prefix = kvtest::uniqueName("syncd");
    kvtest::Child first([&] { return useEveryNamedKind(prefix + "a"); });
    kvtest::Child second([&] { return useEveryNamedKind(prefix + "b"); });
    const kvtest::ChildResult firstResult = first.wait();
    const kvtest::ChildResult secondResult = second.wait();
    EXPECT_TRUE(firstResult.exited && firstResult.exitCode == 0);
    EXPECT_TRUE(secondResult.exited && secondResult.exitCode == 0);

    const kvtest::ToolResult stopped = syncd.stop(SIGTERM);
    EXPECT_EQ(stopped.exitCode, 0) << stopped.err;
    EXPECT_NE(stopped.out.find("sync manager running"), std::string::npos) << stopped.out;
    EXPECT_NE(stopped.out.find("sync manager stopped"), std::string::npos) << stopped.out;
    EXPECT_FALSE(channelLeftBehind());
    EXPECT_TRUE(kvtest::shmEntriesContaining(prefix).empty());
}

TEST(KorvaneSyncd, RefusesToStartBesideARunningManagerAndLeavesItWorking) {
    BackgroundTool running("korvane-syncd", {});
    ASSERT_TRUE(kvtest::waitForManager());

    const kvtest::ToolResult second = runTool("korvane-syncd", {});
    EXPECT_EQ(second.exitCode, 1);
    EXPECT_NE(second.err.find("another sync manager is already running"), std::string::npos) << second.err;
    // The refused start must not have disturbed the running manager's channel.
    EXPECT_EQ(runTool("korvane-shm", {"status"}).exitCode, 0);
    const std::string name = kvtest::uniqueName("beside");
    mutex_handle* mutex = os_mutex_create(name.c_str());
    EXPECT_EQ(kvtest::shmEntriesContaining(name).size(), 1u) << "the manager no longer creates memories";
    os_mutex_destroy(&mutex);
    EXPECT_TRUE(kvtest::shmEntriesContaining(name).empty());

    EXPECT_EQ(running.stop(SIGTERM).exitCode, 0);
    EXPECT_FALSE(channelLeftBehind());
}

TEST(KorvaneSyncd, RefusesStaleChannelResourcesUntilTheyAreCleaned) {
    // A crashed manager leaves its lock semaphore behind.
    sem_t* stale = sem_open(KORVANE_SYNC_LOCK_SEMAPHORE, O_CREAT | O_EXCL, 0755, 1);
    ASSERT_NE(stale, SEM_FAILED);
    sem_close(stale);

    const kvtest::ToolResult refused = runTool("korvane-syncd", {});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_NE(refused.err.find("stale sync channel resources"), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("sem." KORVANE_SYNC_LOCK_SEMAPHORE), std::string::npos) << refused.err;

    EXPECT_EQ(runTool("korvane-shm", {"clean"}).exitCode, 0);
    BackgroundTool syncd("korvane-syncd", {});
    EXPECT_TRUE(kvtest::waitForManager());
    EXPECT_EQ(syncd.stop(SIGINT).exitCode, 0) << "SIGINT stops the manager as SIGTERM does";
    EXPECT_FALSE(channelLeftBehind());
}

} // namespace
