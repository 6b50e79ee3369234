// The sync manager (its names, a second manager, client mode, how it serves
// requests), the named-object protocol every named kind follows, and the
// robust lock's report.
#include <fcntl.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "SyncTestSupport.h"
#include "os/sync/SyncInternal.h"

namespace {

using namespace korvane::sync;
using namespace kvtest;

TEST(SyncManagerLife, StartCreatesTheChannelClientModeFindsItStopRemovesIt) {
    ASSERT_TRUE(presentChannelEntries().empty());
    bool running = true;
    EXPECT_EQ(captureStdout([&] { running = os_sync_environment_initialize(true); }), kNoChannelOutput);
    EXPECT_FALSE(running);
    ASSERT_TRUE(os_sync_environment_initialize(false));
    EXPECT_TRUE(eventually([] { return presentChannelEntries() == kChannelEntries; }));
    EXPECT_EQ(segmentSize(kChannelMemoryName), 1029);
    const int mapped = mappingsOf(kChannelMemoryName);
    EXPECT_EQ(captureStdout([&] { running = os_sync_environment_initialize(true); }), "");
    EXPECT_TRUE(running);
    EXPECT_EQ(mappingsOf(kChannelMemoryName), mapped) << "client mode leaves nothing open";
    EXPECT_EQ(runInChild([] { return os_sync_environment_initialize(true) ? 0 : 1; }).exitCode, 0);
    os_sync_environment_uninitialize();
    EXPECT_TRUE(presentChannelEntries().empty());
    os_sync_environment_uninitialize(); // no manager: nothing to do
    ASSERT_TRUE(os_sync_environment_initialize(false)) << "a stopped manager must not block the next";
    os_sync_environment_uninitialize();
}

TEST(SyncManagerLife, SecondManagerFailsAndRemovesTheChannelMemoryName) {
    ASSERT_TRUE(presentChannelEntries().empty());
    const ChildResult child = runInChild(
        [] {
            if (!os_sync_environment_initialize(false) ||
                !eventually([] { return presentChannelEntries() == kChannelEntries; }))
                return 1;
            const bool second = os_sync_environment_initialize(false);
            std::fflush(stdout);
            // The first manager's thread runs on, unreachable: its channel
            // memory's name is gone, its semaphores stay.
            const bool semaphoresLeft = presentChannelEntries() ==
                                        std::vector<std::string>(kChannelEntries.begin() + 1, kChannelEntries.end());
            os_sync_environment_uninitialize(); // the global is null: nothing happens
            return second ? 2 : semaphoresLeft ? 0 : 3;
        },
        10s, true);
    EXPECT_EQ(child.exitCode, 0);
    EXPECT_EQ(child.output, "Error:can not create os_mutex_manage_enabled_semaphore, errno = 17!\n");
    for (const char* name : {kLockSemaphoreName, kRequestSemaphoreName, kFinishSemaphoreName})
        sem_unlink(name);
}

// Sends one request as a client does; true when the manager answered.
bool ask(uint32_t operation, const std::string& name, uint32_t size = 0) {
    OS::CSyncClient client;
    if (!client.create())
        return false;
    client.lockChannel();
    bool answered = false;
    if (operation == kCreateRequest) {
        answered = client.requestCreate(name.c_str(), size);
    } else if (operation == kDestroyRequest) {
        answered = client.requestDestroy(name.c_str());
    } else {
        writeMemoryRequest(static_cast<uint8_t*>(os_sharememory_get_buffer(client.channelMemory)),
                           MemoryRequest{operation, size, name});
        sem_post(client.requestSemaphore);
        answered = waitForAnswer(client.finishSemaphore);
    }
    client.unlockChannel();
    return answered;
}

class SyncManager : public SyncTest {};

TEST_F(SyncManager, ServesEachRequestAndStopRemovesWhatItHolds) {
    const std::string stale = name("stale");
    sharememory_handle* leftover = os_sharememory_create(stale.c_str(), 16);
    std::memset(os_sharememory_get_buffer(leftover), 0xFF, 16);
    os_sharememory_destroy(&leftover);
    ASSERT_TRUE(ask(kCreateRequest, stale, 52));
    EXPECT_EQ(segmentSize(stale), 52);
    const MappedObject taken(stale);
    EXPECT_EQ(std::count(taken.bytes, taken.bytes + 52, 0), 52) << "a leftover segment is taken over and reset";
    const std::string served = name("served");
    ASSERT_TRUE(ask(kCreateRequest, served, 64));
    MappedObject(served).bytes[0] = 0x5A;
    ASSERT_TRUE(ask(kCreateRequest, served, 4096));
    EXPECT_EQ(segmentSize(served), 64) << "an existing memory is handed out as it is";
    EXPECT_EQ(openCountOf(served), 0x5A) << "and is not cleared";
    struct Unservable {
        uint32_t operation;
        std::string name;
        uint32_t size;
    };
    const std::string sizeless = name("sizeless");
    for (const Unservable& request :
         {Unservable{kDestroyRequest, name("unknown"), 0}, Unservable{kDestroyRequest, "", 0},
          Unservable{kCreateRequest, sizeless, 0}, Unservable{kCreateRequest, "", 52}, Unservable{7, served, 0}}) {
        EXPECT_TRUE(ask(request.operation, request.name, request.size)) << "every request is answered";
        EXPECT_EQ(segmentSize(served), 64) << "operation " << request.operation << " on '" << request.name << "'";
    }
    EXPECT_EQ(segmentSize(sizeless), -1);
    // A create must not take over the channel memory or a named semaphore's
    // file: one request would break the channel or another program.
    const std::string semaphore = name("semaphore");
    sem_t* other = sem_open(semaphore.c_str(), O_CREAT | O_EXCL, 0600, 3);
    for (const std::string& taken : {std::string(kChannelMemoryName), "//" + std::string(kChannelMemoryName),
                                     "sem." + semaphore})
        EXPECT_TRUE(ask(kCreateRequest, taken, 16)) << taken;
    EXPECT_EQ(segmentSize(kChannelMemoryName), 1029);
    int value = 0;
    EXPECT_TRUE(sem_getvalue(other, &value) == 0 && value == 3);
    sem_close(other);
    sem_unlink(semaphore.c_str());
    ASSERT_TRUE(ask(kDestroyRequest, served));
    EXPECT_EQ(segmentSize(served), -1);
    stopManager();
    EXPECT_EQ(segmentSize(stale), -1) << "stop removes every memory still held";
}

class NamedObjectProtocol : public SyncTest {};

TEST_F(NamedObjectProtocol, LongestNameReachesTheManagerWithinTheMappingOneMoreNeverDoes) {
    const std::string longest(kMaximumNameLength, 'L');
    NamedObject named;
    // The manager cannot make a file of that name, but it got the whole name.
    EXPECT_FALSE(createOrOpenNamedObject(named, longest.c_str(), 52, nullptr, nullptr));
    const MappedObject channel(kChannelMemoryName);
    const std::vector<uint8_t> request(channel.bytes, channel.bytes + 8 + longest.size() + 1);
    EXPECT_EQ(request[0], kCreateRequest);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(request.data() + 8)), longest);
    EXPECT_FALSE(createOrOpenNamedObject(named, (longest + "T").c_str(), 60, nullptr, nullptr));
    EXPECT_EQ(std::vector<uint8_t>(channel.bytes, channel.bytes + request.size()), request)
        << "a longer name never reaches the channel";
    // Requests are written and read no further than the mapping.
    std::vector<uint8_t> buffer(channelMappedBytes(), 'z');
    const MemoryRequest tooLong{kDestroyRequest, 0, std::string(channelMappedBytes() - 4, 'x')};
    EXPECT_FALSE(writeMemoryRequest(buffer.data(), tooLong));
    EXPECT_EQ(std::count(buffer.begin(), buffer.end(), 'z'), static_cast<long>(buffer.size()));
    std::memcpy(buffer.data(), &tooLong.operation, sizeof tooLong.operation);
    EXPECT_EQ(readMemoryRequest(buffer.data()).name.size(), channelMappedBytes() - 4) << "a name without NUL";
}

TEST_F(NamedObjectProtocol, ReleaseWithoutTheManagerKeepsTheCountAndUnmaps) {
    NamedObject named;
    ASSERT_TRUE(createOrOpenNamedObject(named, name("orphan").c_str(), 16, nullptr, nullptr));
    stopManager();
    bool destroyed = false;
    EXPECT_EQ(captureStdout([&] { releaseNamedObject(named, [&](uint8_t*) { destroyed = true; }); }), kNoChannelOutput);
    EXPECT_FALSE(destroyed);
    EXPECT_EQ(named.memory, nullptr);
}

// The lock semaphore's value, as any process sees it.
int lockValue() {
    sem_t* lock = sem_open(kLockSemaphoreName, 0);
    int value = -1;
    sem_getvalue(lock, &value);
    sem_close(lock);
    return value;
}

TEST(AnswerWait, OutlastsSignals) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART; // sem_timedwait ends at a signal all the same
    sigaction(SIGUSR1, &action, &previous);
    sem_t answer;
    sem_init(&answer, 0, 0);
    std::atomic<bool> answered{false};
    std::thread waiter([&] { answered = waitForAnswer(&answer); });
    for (int i = 0; i < 5; ++i) {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    sem_post(&answer);
    waiter.join();
    sigaction(SIGUSR1, &previous, nullptr);
    sem_destroy(&answer);
    EXPECT_TRUE(answered);
}

// A manager that does not answer: the process running it is stopped.
TEST(FrozenManager, UnansweredRequestsLeaveTheChannelFreeAndRemoveNothing) {
    ASSERT_TRUE(presentChannelEntries().empty());
    Signal running;
    Child manager([&] {
        const auto channelReady = [] { return presentChannelEntries() == kChannelEntries; };
        if (!os_sync_environment_initialize(false) || !eventually(channelReady))
            return 1;
        running.notify();
        raise(SIGSTOP);
        os_sync_environment_uninitialize();
        return 0;
    });
    int status = 0;
    ASSERT_TRUE(running.waitFor());
    ASSERT_EQ(waitpid(manager.pid(), &status, WUNTRACED), manager.pid());
    const std::string unanswered = uniqueName("unanswered");
    NamedObject named;
    bool initialised = false;
    EXPECT_FALSE(createOrOpenNamedObject(named, unanswered.c_str(), 52, nullptr,
                                         [&](uint8_t*, key_t) { initialised = true; }));
    EXPECT_FALSE(initialised);
    EXPECT_EQ(named.memory, nullptr);
    EXPECT_EQ(lockValue(), 1) << "the lock semaphore must be given back";
    // An answer left over on the finish semaphore is drained, not taken for
    // this request's: the memory being there changes nothing.
    sharememory_handle* made = os_sharememory_create(unanswered.c_str(), 52);
    sem_t* finish = sem_open(kFinishSemaphoreName, 0);
    sem_post(finish);
    sem_close(finish);
    EXPECT_FALSE(createOrOpenNamedObject(named, unanswered.c_str(), 52, nullptr, nullptr));
    EXPECT_EQ(lockValue(), 1);
    EXPECT_EQ(openCountOf(unanswered), 0);
    os_sharememory_close(made, true);
    os_sharememory_destroy(&made);
    kill(manager.pid(), SIGCONT);
    EXPECT_EQ(manager.wait().exitCode, 0);
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

} // namespace
