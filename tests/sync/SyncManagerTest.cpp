// The sync manager (its names, a second manager, client mode), the requests
// the named-object protocol puts on its channel, the robust lock's report;
// and what one killed, stopped or signalled process, or one unlucky name,
// must not do to the machine's named objects.
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/time.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <climits>

#include "SyncTestSupport.h"
#include "korvane/system.h"
#include "os/sync/SyncInternal.h"

namespace {

using namespace korvane::sync;
using namespace kvtest;

TEST(SyncManagerLife, StartCreatesTheChannelClientModeFindsItStopRemovesIt) {
    ASSERT_TRUE(presentChannelEntries().empty());
    bool running = true;
    EXPECT_EQ(captureStdout([&] { running = os_sync_environment_initialize(true); }), kNoChannelOutput);
    EXPECT_FALSE(running);
    // A create right after a start finds the manager ready, and a stopped
    // manager does not block the next one.
    const std::string ready = uniqueName("ready");
    for (int round = 0; round < 10; ++round) {
        ASSERT_TRUE(os_sync_environment_initialize(false));
        event_handle* event = os_event_create(false, true, ready.c_str()); // set: a usable one returns at once
        EXPECT_TRUE(os_event_wait(event)) << round;
        os_event_destroy(&event);
        os_sync_environment_uninitialize();
    }
    ASSERT_TRUE(os_sync_environment_initialize(false));
    EXPECT_TRUE(eventually([] { return presentChannelEntries() == kChannelEntries; }));
    EXPECT_EQ(segmentSize(kChannelMemoryName), 1029);
    const int mapped = mappingsOf(kChannelMemoryName);
    EXPECT_EQ(captureStdout([&] { running = os_sync_environment_initialize(true); }), "");
    EXPECT_TRUE(running);
    EXPECT_EQ(mappingsOf(kChannelMemoryName), mapped) << "client mode leaves nothing open";
    // Another process finds it in client mode; as a second manager it fails
    // and takes the channel memory's name with it.
    const ChildResult other = runInChild(
        [] {
            if (!os_sync_environment_initialize(true))
                return 1;
            return os_sync_environment_initialize(false) ? 2 : 0;
        },
        kDefaultTimeout, true);
    EXPECT_EQ(other.exitCode, 0);
    EXPECT_EQ(other.output, "Error:can not create os_mutex_manage_enabled_semaphore, errno = 17!\n");
    EXPECT_EQ(presentChannelEntries(), std::vector<std::string>(kChannelEntries.begin() + 1, kChannelEntries.end()));
    os_sync_environment_uninitialize();
    EXPECT_TRUE(presentChannelEntries().empty());
    os_sync_environment_uninitialize(); // no manager: nothing to do
}

class NamedObjectProtocol : public SyncTest {};

TEST_F(NamedObjectProtocol, TheLongestNameReachesTheManagerWhole) {
    const std::string longest(kMaximumNameLength, 'L');
    NamedObject named;
    // The manager cannot make a file of that name, but it got the whole name.
    EXPECT_FALSE(createOrOpenNamedObject(named, longest.c_str(), 52, nullptr, nullptr));
    const MappedObject channel(kChannelMemoryName);
    EXPECT_EQ(channel.bytes[0], kCreateRequest);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(channel.bytes + 8)), longest);
}

TEST_F(NamedObjectProtocol, ReleaseWithoutTheManagerKeepsTheCountAndUnmaps) {
    const std::string orphan = name("orphan");
    NamedObject named;
    ASSERT_TRUE(createOrOpenNamedObject(named, orphan.c_str(), 16, nullptr, nullptr));
    stopManager();
    EXPECT_EQ(segmentSize(orphan), -1) << "stop removes every memory still held";
    bool destroyed = false;
    EXPECT_EQ(captureStdout([&] { releaseNamedObject(named, [&](uint8_t*) { destroyed = true; }); }), kNoChannelOutput);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(named.memory, nullptr);
}

TEST(RobustLock, ReportsAnErrorItCannotRepair) {
    pthread_mutex_t mutex;
    initialiseMutex(&mutex, PTHREAD_MUTEX_ERRORCHECK, false);
    ASSERT_TRUE(robustLock(&mutex));
    bool again = true;
    const std::string printed = captureStdout([&] { again = robustLock(&mutex); });
    EXPECT_EQ(printed, "mutex lock error:" + std::to_string(EDEADLK) + ".\n");
    EXPECT_FALSE(again);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    EXPECT_FALSE(robustLock(nullptr));
}

class ChannelFaults : public SyncTest {};

// A named mutex made in a fresh process maps its memory within `bound`.
bool createWorksWithin(const std::string& name, std::chrono::milliseconds bound) {
    const auto mapped = [&] {
        mutex_handle* mutex = os_mutex_create(name.c_str());
        const bool served = mappingsOf(name) == 1;
        os_mutex_destroy(&mutex);
        return served ? 0 : 1;
    };
    return runInChild(mapped, bound).exitCode == 0;
}

TEST_F(ChannelFaults, LockOfALiveHolderStaysItsLockOfAKilledOneComesBackWithinTwoSeconds) {
    Signal locked;
    Child holder([&] { // holds the channel's lock, as a client does during a create
        OS::CSyncClient client;
        if (!client.create())
            return 1;
        client.lockChannel();
        locked.notify();
        pause();
        return 0;
    });
    ASSERT_TRUE(locked.waitFor());
    const pid_t holderPid = holder.pid();
    const std::string name = uniqueName("after_holder");
    const std::string printed = captureStdout([&] {
        kill(holderPid, SIGSTOP);
        EXPECT_FALSE(createWorksWithin(name, 1500ms)) << "a stopped holder is alive";
        kill(holderPid, SIGKILL);
        holder.wait();
        EXPECT_TRUE(createWorksWithin(name, 2500ms));
    });
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
    EXPECT_NE(printed.find(std::to_string(holderPid)), std::string::npos) << printed;
}

// No handler work: the timer only interrupts whatever the process waits in.
void ignoreTick(int) {}

// The manager runs in a process of its own, as korvane-syncd runs it, stopped
// while requests come.
TEST(FrozenManager, UnansweredRequestsLeaveTheChannelFreeAndEveryLaterRequestGetsItsOwnAnswer) {
    ASSERT_TRUE(presentChannelEntries().empty());
    Signal running;
    Signal stop;
    Child manager([&] {
        if (!os_sync_environment_initialize(false))
            return 1;
        running.notify();
        stop.waitFor();
        os_sync_environment_uninitialize();
        return 0;
    });
    ASSERT_TRUE(running.waitFor());
    int status = 0;
    kill(manager.pid(), SIGSTOP);
    ASSERT_EQ(waitpid(manager.pid(), &status, WUNTRACED), manager.pid());
    const std::string name = uniqueName("in_step");
    NamedObject named;
    EXPECT_FALSE(createOrOpenNamedObject(named, name.c_str(), 52, nullptr, nullptr));
    // An answer left over on the finish semaphore is drained, not taken for
    // this request's: the memory being there changes nothing.
    sharememory_handle* made = os_sharememory_create(name.c_str(), 52);
    sem_t* finish = sem_open(kFinishSemaphoreName, 0);
    sem_post(finish);
    sem_close(finish);
    EXPECT_FALSE(createOrOpenNamedObject(named, name.c_str(), 52, nullptr, nullptr));
    EXPECT_EQ(named.memory, nullptr);
    EXPECT_EQ(openCountOf(name), 0);
    os_sharememory_close(made, true);
    os_sharememory_destroy(&made);
    // With the lock given back, none of the late answers is taken for a
    // later request's, a 1 ms timer interrupting every wait.
    kill(manager.pid(), SIGCONT);
    struct sigaction tick {};
    tick.sa_handler = ignoreTick;
    tick.sa_flags = SA_RESTART; // sem_timedwait ends at a signal all the same
    sigaction(SIGALRM, &tick, nullptr);
    const itimerval every1ms{{0, 1000}, {0, 1000}};
    setitimer(ITIMER_REAL, &every1ms, nullptr);
    int answered = 0;
    for (int round = 0; round < 30; ++round) {
        mutex_handle* mutex = os_mutex_create(name.c_str());
        answered += mappingsOf(name) == 1;
        os_mutex_destroy(&mutex);
        answered += segmentSize(name) == -1; // the destroy was served too
    }
    const itimerval off{};
    setitimer(ITIMER_REAL, &off, nullptr);
    signal(SIGALRM, SIG_DFL);
    EXPECT_EQ(answered, 60);
    stop.notify();
    EXPECT_EQ(manager.wait().exitCode, 0);
}

TEST_F(ChannelFaults, ReservedAndAliasingNamesAreRefusedByClientAndManager) {
    const std::string otherApp = uniqueName("otherapp");
    sem_t* other = sem_open(otherApp.c_str(), O_CREAT, 0600, 0);
    ASSERT_NE(other, SEM_FAILED);
    const std::string plain = uniqueName("plain");
    for (const std::string& name : {std::string(kChannelMemoryName), "sem." + std::string(kLockSemaphoreName),
                                    "sem." + otherApp, "/" + plain, plain + "/x"}) {
        event_handle* event = os_event_create(false, true, name.c_str());
        EXPECT_FALSE(os_event_wait(event)) << name << " gave a usable handle";
        os_event_destroy(&event);
        OS::CSyncClient client; // a client that does not check names
        ASSERT_TRUE(client.create());
        client.lockChannel();
        EXPECT_TRUE(client.requestCreate(name.c_str(), 52));
        EXPECT_TRUE(client.requestDestroy(name.c_str()));
        client.unlockChannel();
        EXPECT_EQ(presentChannelEntries(), kChannelEntries) << name;
        EXPECT_EQ(segmentSize(kChannelMemoryName), 1029) << name;
        EXPECT_EQ(segmentSize(plain), -1) << name;
        EXPECT_EQ(segmentSize("sem." + otherApp), 32) << name;
    }
    sem_close(other);
    sem_unlink(otherApp.c_str());
    EXPECT_TRUE(createWorksWithin(plain, kDefaultTimeout));
}

TEST_F(ChannelFaults, AnotherKindsMemoryIsLeftAloneAndGivesAnUnusableHandle) {
    const std::string name = uniqueName("kind");
    mutex_handle* mutex = os_mutex_create(name.c_str());
    os_mutex_lock(mutex);
    const ChildResult other = runInChild(
        [&] {
            event_handle* event = os_event_create(false, true, name.c_str());
            rw_mutex_handle* rw = os_rw_mutex_create(name.c_str());
            os_rw_mutex_lock_wr(rw);
            const bool unusable = !os_event_wait(event);
            os_event_destroy(&event);
            os_rw_mutex_destroy(&rw);
            return unusable ? 0 : 1;
        },
        kDefaultTimeout, true);
    EXPECT_EQ(other.exitCode, 0);
    EXPECT_EQ(std::count(other.output.begin(), other.output.end(), '\n'), 2) << other.output;
    EXPECT_EQ(openCountOf(name), 1) << "handed out as it is: neither resized nor cleared";
    os_mutex_unlock(mutex);
    os_mutex_destroy(&mutex);
}

TEST_F(ChannelFaults, EventSetAfterOwnerDeathWakesTheWaitersOfASetterThatDiedBeforeWaking) {
    const std::string name = uniqueName("event");
    event_handle* event = os_event_create(false, false, name.c_str());
    Child waiter([&] {
        event_handle* mine = os_event_create(false, false, name.c_str());
        const bool woken = os_event_wait(mine);
        os_event_destroy(&mine);
        return woken ? 0 : 1;
    });
    const MappedObject memory(name);
    ASSERT_NE(memory.bytes, nullptr);
    constexpr size_t kWaitersOffset = 56, kMutexOffset = 4, kStateOffset = 101;
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(memory.bytes + kWaitersOffset, __ATOMIC_SEQ_CST) == 1; }));
    // The setter stores the state and dies before it wakes anyone.
    runInChild([&] {
        pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(memory.bytes + kMutexOffset));
        memory.bytes[kStateOffset] = 1;
        return 0;
    });
    os_event_set_event(event);
    EXPECT_EQ(waiter.wait().exitCode, 0);
    os_event_destroy(&event);
}

TEST_F(ChannelFaults, FarDeadlinesWaitInsteadOfWrappingIntoThePast) {
    for (const timespec deadline : {timespec{LLONG_MAX, 0}, timespec{LLONG_MAX, 999999999}}) {
        for (const std::string& name : {std::string(), uniqueName("far")}) {
            const std::string eventName = name + "_event";
            semaphore_handle* semaphore = os_semaphore_create(0, name.empty() ? nullptr : name.c_str());
            event_handle* event = os_event_create(false, false, name.empty() ? nullptr : eventName.c_str());
            std::thread giver([&] {
                os_thread_sleep_milliseconds(20);
                os_semaphore_release(semaphore);
                os_event_set_event(event);
            });
            EXPECT_TRUE(os_semaphore_wait_timeout(semaphore, deadline)) << name;
            EXPECT_TRUE(os_event_wait_timeout(event, deadline)) << name;
            giver.join();
            os_semaphore_destroy(&semaphore);
            os_event_destroy(&event);
        }
    }
}

} // namespace
