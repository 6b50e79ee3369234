// The sync manager (its names, a second manager, client mode), the robust
// lock's report, far deadlines, and what one killed, stopped or signalled
// process must not do to the channel.
#include <climits>

#include "SyncTestSupport.h"
#include "os/sync/Deadline.h"
#include "os/sync/SyncInternal.h" // with the channel's layout

namespace {

using namespace korvane::sync;
using namespace kvtest;

TEST(SyncManagerLife, StartCreatesTheChannelClientModeFindsItStopRemovesIt) {
    EXPECT_EQ(captureStdout([] { EXPECT_FALSE(os_sync_environment_initialize(true)); }), kNoChannelOutput);
    // A create right after a start finds the manager ready, and a stopped
    // manager does not block the next one.
    const std::string ready = uniqueName("ready");
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(os_sync_environment_initialize(false));
        EXPECT_TRUE(korvane::Event(ready, false, true).wait()) << round; // set: a usable one returns at once
        const int mapped = mappingsOf(kChannelMemoryName);
        EXPECT_EQ(captureStdout([] { EXPECT_TRUE(os_sync_environment_initialize(true)); }), ""); // silently
        EXPECT_EQ(mappingsOf(kChannelMemoryName), mapped) << "client mode leaves nothing open";
        os_sync_environment_uninitialize();
        EXPECT_TRUE(presentChannelEntries().empty());
    }
}

// The robust lock reports an error it cannot repair. Far deadlines stay far
// for every wait that reads them, instead of wrapping into the past.
TEST(SyncHelpers, TheRobustLockReportsWhatItCannotRepairAndFarDeadlinesSaturate) {
    pthread_mutex_t mutex;
    initialiseMutex(&mutex, PTHREAD_MUTEX_ERRORCHECK, false);
    ASSERT_TRUE(robustLock(&mutex));
    EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(robustLock(&mutex)); }),
              "mutex lock error:" + std::to_string(EDEADLK) + ".\n");
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    EXPECT_FALSE(robustLock(nullptr));
    for (const timespec far : {timespec{LLONG_MAX, 0}, timespec{LLONG_MAX, 999999999}}) {
        EXPECT_TRUE(deadline::hasTimeLeft(far));
        EXPECT_GT(deadline::toRealtime(far).tv_sec, time(nullptr));
    }
}

// The manager runs in a process of its own, as korvane-syncd runs it, so that
// it can be stopped and what it printed read.
TEST(ManagerProcess, DeadLockHoldersStallsLateAnswersSignalsAndASecondManagerAreSurvived) {
    // It stops on SIGUSR1, blocked before its thread starts, which inherits the mask.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGUSR1);
    Child manager(
        [&] {
            int received = 0;
            pthread_sigmask(SIG_BLOCK, &stop, nullptr);
            const korvane::SyncManager running;
            return running.running() ? sigwait(&stop, &received) : 1;
        },
        true);
    ASSERT_TRUE(eventually([] { return presentChannelEntries() == kChannelEntries; }));
    // The channel's lock stays with a live holder (this process) however long
    // it holds it; a dead one's (a client killed during a create) comes back
    // within two seconds, and the manager says whose it was.
    OS::CSyncClient live;
    ASSERT_TRUE(live.create());
    const auto lockValue = [&] { return semaphoreValue(live.lockSemaphore); };
    live.lockChannel();
    os_thread_sleep_milliseconds(1500);
    EXPECT_EQ(lockValue(), 0) << "a live holder's lock is taken";
    live.unlockChannel();
    Child holder([] {
        OS::CSyncClient client;
        if (!client.create())
            return 1;
        return client.lockChannel() ? 0 : 2;
    });
    const pid_t holderPid = holder.pid();
    EXPECT_EQ(holder.wait().exitCode, 0);
    ASSERT_TRUE(eventually([&] { return lockValue() == 1; }, 2500ms));
    // Stopped, the manager answers nothing.
    kill(manager.pid(), SIGSTOP);
    ASSERT_EQ(waitpid(manager.pid(), nullptr, WUNTRACED), manager.pid());
    const std::string name = uniqueName("in_step");
    // An answer left over on the finish semaphore is drained, not taken for
    // this request's, which the memory being there would show.
    korvane::SharedMemory made = korvane::SharedMemory::create(name, 52).value();
    sem_post(live.finishSemaphore);
    NamedObject named;
    EXPECT_FALSE(createOrOpenNamedObject(named, name.c_str(), 52, nullptr, nullptr));
    made.close(true);
    ASSERT_EQ(lockValue(), 1) << "the channel's lock is given back";
    // The manager goes on 30 ms into the next request. Its wait for the
    // answer outlasts a signal (sent while nothing else wakes it), and an
    // answer that comes first is known by its number as an earlier request's.
    const MappedObject channel(kChannelMemoryName);
    storeChannelWord(channel.bytes, korvane::layout::kAnswerSequenceOffset, 1); // an earlier request's number
    signal(SIGALRM, [](int) {}); // no handler work: the signal only interrupts the wait
    const pthread_t client = pthread_self();
    std::thread resume([&] {
        os_thread_sleep_milliseconds(10);
        pthread_kill(client, SIGALRM);
        os_thread_sleep_milliseconds(10);
        sem_post(live.finishSemaphore);
        os_thread_sleep_milliseconds(10);
        kill(manager.pid(), SIGCONT);
    });
    mutex_handle* mutex = os_mutex_create(name.c_str());
    EXPECT_EQ(mappingsOf(name), 1);
    resume.join();
    signal(SIGALRM, SIG_DFL);
    os_mutex_destroy(&mutex);
    // A second manager fails and takes the channel memory's name with it.
    EXPECT_EQ(captureStdout([] { EXPECT_FALSE(os_sync_environment_initialize(false)); }),
              "Error:can not create os_mutex_manage_enabled_semaphore, errno = 17!\n");
    EXPECT_EQ(presentChannelEntries(), std::vector<std::string>(kChannelEntries.begin() + 1, kChannelEntries.end()));
    kill(manager.pid(), SIGUSR1);
    const ChildResult ended = manager.wait();
    EXPECT_EQ(ended.exitCode, 0);
    EXPECT_EQ(ended.output,
              "sync manager: process " + std::to_string(holderPid) + " died holding the channel lock; lock released\n");
}

// A manager that stops while the channel's lock is held leaves that lock
// taken for good (the next manager makes a new one): a client waiting on it
// gives up, with an unusable handle, instead of waiting for ever.
using ManagerRestart = SyncTest;

TEST_F(ManagerRestart, AWaitForTheLockOfAStoppedManagerEnds) {
    OS::CSyncClient holder; // holds the lock and never gives it back
    ASSERT_TRUE(holder.create());
    ASSERT_TRUE(holder.lockChannel());
    const std::string name = uniqueName("replaced");
    Child waiter([&] { return korvane::Mutex(name).usable() ? 1 : 0; });
    // Once the waiter maps the channel memory once more than it inherited, it
    // has the old lock open (opened first) and waits on it.
    const int inherited = mappingsOf(kChannelMemoryName);
    ASSERT_TRUE(eventually([&] { return mappingsOf(kChannelMemoryName, std::to_string(waiter.pid())) > inherited; }));
    os_sync_environment_uninitialize();
    ASSERT_TRUE(os_sync_environment_initialize(false));
    EXPECT_EQ(waiter.wait().exitCode, 0);
}

// The manager refuses, whatever client asks, to create or destroy a memory
// named like the channel's memory or a named semaphore's file: serving such
// a create took the file over, truncating and clearing it, and the next
// request killed the manager.
using ManagerRefusal = SyncTest;

TEST_F(ManagerRefusal, TheChannelsAndSemaphoresFilesAreNeverTakenOver) {
    OS::CSyncClient client; // speaks to the manager directly, past the client's own refusal
    ASSERT_TRUE(client.create());
    ASSERT_TRUE(client.lockChannel());
    uint8_t* channel = static_cast<uint8_t*>(os_sharememory_get_buffer(client.channelMemory));
    const timespec deadline = realtimeDeadlineAfter(5000000000); // room for a loaded machine
    for (const std::string& file : {kChannelEntries[0], kChannelEntries[1]}) {
        for (const uint32_t operation : {kCreateRequest, kDestroyRequest}) {
            const MemoryRequest request{operation, 4096, file};
            EXPECT_TRUE(exchangeRequest(channel, client.requestSemaphore, client.finishSemaphore, request, deadline));
        }
    }
    client.unlockChannel();
    EXPECT_EQ(presentChannelEntries(), kChannelEntries);
    EXPECT_EQ(segmentSize(kChannelEntries[0]), 1029);
    EXPECT_EQ(segmentSize(kChannelEntries[1]), 32);
}

} // namespace
