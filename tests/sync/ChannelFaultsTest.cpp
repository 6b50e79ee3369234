// What one killed, stopped or signalled process, or one unlucky name, must not
// do to the machine's named objects: every scenario runs the sync manager in
// a process of its own, as korvane-syncd does.
#include <semaphore.h>
#include <signal.h>
#include <fcntl.h>
#include <sys/time.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <fstream>
#include <iterator>

#include "SyncTestSupport.h"
#include "korvane/system.h"
#include "os/sync/SyncInternal.h"

namespace {

using namespace korvane::sync;
using namespace kvtest;

class ChannelFaults : public ::testing::Test {
protected:
    void SetUp() override {
        manager = std::make_unique<Child>(
            [this] {
                if (!os_sync_environment_initialize(false))
                    return 1;
                ready.notify();
                stop.waitFor();
                os_sync_environment_uninitialize();
                return 0;
            },
            true);
        ASSERT_TRUE(ready.waitFor());
    }
    void TearDown() override { stopManager(); }
    // What the manager printed; it removes every memory it held.
    std::string stopManager() {
        if (manager == nullptr)
            return "";
        kill(manager->pid(), SIGCONT);
        stop.notify();
        const ChildResult ended = manager->wait();
        manager.reset();
        EXPECT_EQ(ended.exitCode, 0);
        return ended.output;
    }
    // A named mutex made in a fresh process maps its memory within `bound`.
    static bool createWorksWithin(const std::string& name, std::chrono::milliseconds bound) {
        return runInChild(
                   [&] {
                       mutex_handle* mutex = os_mutex_create(name.c_str());
                       const bool mapped = mappingsOf(name) == 1;
                       os_mutex_destroy(&mutex);
                       return mapped ? 0 : 1;
                   },
                   bound)
                   .exitCode == 0;
    }
    Signal ready;
    Signal stop;
    std::unique_ptr<Child> manager;
};

// A process holding the channel's lock, as a client does during a create.
std::unique_ptr<Child> lockHolder() {
    Signal locked;
    auto holder = std::make_unique<Child>([&] {
        OS::CSyncClient client;
        if (!client.create())
            return 1;
        client.lockChannel();
        locked.notify();
        pause();
        return 0;
    });
    EXPECT_TRUE(locked.waitFor());
    return holder;
}

TEST_F(ChannelFaults, LockOfALiveHolderStaysItsLockOfAKilledOneComesBackWithinTwoSeconds) {
    const std::string name = uniqueName("after_holder");
    std::unique_ptr<Child> holder = lockHolder();
    const pid_t holderPid = holder->pid();
    kill(holderPid, SIGSTOP);
    EXPECT_FALSE(createWorksWithin(name, std::chrono::milliseconds(1500))) << "a stopped holder is alive";
    kill(holderPid, SIGKILL);
    holder->wait();
    EXPECT_TRUE(createWorksWithin(name, std::chrono::milliseconds(2500)));
    const std::string printed = stopManager();
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
    EXPECT_NE(printed.find(std::to_string(holderPid)), std::string::npos) << printed;
}

// No handler work: the timer only interrupts whatever the process waits in.
void ignoreTick(int) {}

TEST_F(ChannelFaults, AfterAStalledManagerAndUnderA1msTimerEveryRequestGetsItsOwnAnswer) {
    const std::string name = uniqueName("in_step");
    kill(manager->pid(), SIGSTOP);
    mutex_handle* unanswered = os_mutex_create(name.c_str());
    os_mutex_destroy(&unanswered);
    kill(manager->pid(), SIGCONT);
    struct sigaction tick {};
    tick.sa_handler = ignoreTick;
    tick.sa_flags = SA_RESTART;
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
    EXPECT_EQ(openCountOf(name), 1);
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
        condition_handle* condition = os_condition_create();
        os_condition_lock(condition);
        std::thread signaller([&] {
            os_condition_lock(condition);
            os_condition_signal(condition);
            os_condition_unlock(condition);
        });
        EXPECT_EQ(os_condition_wait_timeout(condition, deadline), 0);
        os_condition_unlock(condition);
        signaller.join();
        os_condition_destroy(&condition);
    }
}

TEST(ChannelStart, ACreateRightAfterInitializeFindsTheManagerReady) {
    const std::string name = uniqueName("ready");
    const ChildResult started = runInChild([&] {
        int mapped = 0;
        for (int round = 0; round < 10; ++round) {
            if (!os_sync_environment_initialize(false))
                return 2;
            event_handle* event = os_event_create(false, true, name.c_str()); // set: usable ones return at once
            mapped += os_event_wait(event);
            os_event_destroy(&event);
            os_sync_environment_uninitialize();
        }
        return mapped == 10 ? 0 : 1;
    });
    EXPECT_EQ(started.exitCode, 0);
}

} // namespace

namespace {

// A manager that stops while the channel's lock is held leaves that lock
// taken for good (the next manager makes a new one): a client waiting on it
// gives up, with an unusable handle, instead of waiting for ever.
TEST_F(ChannelFaults, AWaitForTheLockOfAStoppedManagerEnds) {
    const std::unique_ptr<Child> holder = lockHolder();
    const std::string name = uniqueName("replaced");
    Child waiter([&] {
        mutex_handle* mutex = os_mutex_create(name.c_str());
        const bool unusable = mappingsOf(name) == 0;
        os_mutex_destroy(&mutex);
        return unusable ? 0 : 1;
    });
    // Once the waiter has the old lock open, it waits on it whenever it gets there.
    ASSERT_TRUE(eventually([&] {
        std::ifstream maps("/proc/" + std::to_string(waiter.pid()) + "/maps");
        const std::string text((std::istreambuf_iterator<char>(maps)), std::istreambuf_iterator<char>());
        return text.find(KORVANE_SYNC_LOCK_SEMAPHORE) != std::string::npos;
    }));
    stopManager();
    SetUp();
    EXPECT_EQ(waiter.wait().exitCode, 0);
}

} // namespace
