// The shared memory segments named objects are built on: create takes over
// and resets, close unlinks only when asked, destroy and failures never
// unlink (that open maps what exists every test reading a named object's
// memory shows). What every named kind shares (the tools' listing checks
// each kind's memory size): one object for all creators of a name in all
// processes, counted in its memory, removed by the last destroy or when the
// manager stops; a mutex its dead holder left, repaired; and unusable handles
// that return at once. Then what mutexes, recursive mutexes and reader-writer
// mutexes add, named or not.
#include <fcntl.h>
#include <linux/futex.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstring>
#include <shared_mutex>

#include "SyncTestSupport.h"

namespace {

using namespace kvtest;

// Of the fixture only its names are used: it removes them whatever the test did.
class ShareMemory : public SyncTest {};

TEST_F(ShareMemory, CreateTakesOverAndResetsCloseUnlinksOnlyWhenAskedAndFailuresNeverUnlink) {
    const std::string segment = name("segment");
    sharememory_handle* first = os_sharememory_create(segment.c_str(), 64);
    ASSERT_NE(first, nullptr);
    char* firstBuffer = static_cast<char*>(os_sharememory_get_buffer(first));
    std::memset(firstBuffer, 0x5A, 64);
    sharememory_handle* second = os_sharememory_create(segment.c_str(), 5000);
    // Resetting a crashed run's memory is checked for every named kind.
    EXPECT_EQ(std::string(firstBuffer, 64), std::string(64, '\0')) << "both handles map the one segment";
    os_sharememory_destroy(&first);
    os_sharememory_close(second, false);
    EXPECT_EQ(os_sharememory_get_buffer(second), MAP_FAILED);
    EXPECT_EQ(segmentSize(segment), 5000) << "neither destroy nor a close without unlink removes the name";
    os_sharememory_close(second, true); // unlinks even with nothing mapped
    errno = 0;
    EXPECT_EQ(os_sharememory_open(segment.c_str()), nullptr);
    EXPECT_EQ(errno, ENOENT) << "a failed open keeps errno for its callers' messages";
    os_sharememory_destroy(&second);
    EXPECT_EQ(os_sharememory_create(segment.c_str(), 0), nullptr);
    EXPECT_EQ(segmentSize(segment), 0) << "a failed create leaves the segment it made";
    EXPECT_EQ(os_sharememory_create(nullptr, 16), nullptr);
    EXPECT_EQ(os_sharememory_open(nullptr), nullptr);
    EXPECT_EQ(os_sharememory_get_buffer(nullptr), nullptr);
    os_sharememory_close(nullptr, true);
    // A size the folder cannot hold fails here, not as SIGBUS on first use
    // (where the folder holds 4 GiB, no 32-bit size is too big).
    struct statvfs folder;
    if (statvfs("/dev/shm", &folder) == 0 && uint64_t{folder.f_blocks} * folder.f_frsize < UINT32_MAX - 4096) {
        EXPECT_EQ(os_sharememory_create(segment.c_str(), folder.f_blocks * folder.f_frsize + 4096), nullptr);
    }
    // Where pages cannot be locked, create maps them unlocked (root may lock
    // regardless of the limit, so the child gives up root).
    const std::string unlockable = name("unlockable");
    EXPECT_EQ(runInChild([&] {
        const struct rlimit none = {0, 0};
        if (setrlimit(RLIMIT_MEMLOCK, &none) != 0 || (geteuid() == 0 && setuid(65534) != 0))
            return 2;
        const auto memory = korvane::SharedMemory::create(unlockable, 256);
        return memory && static_cast<char*>(memory->data())[255] == 0 ? 0 : 1;
    }).exitCode, 0);
}

class NamedKinds : public SyncTest {};

TEST_F(NamedKinds, CreatorsInAnyProcessShareOneCountedMemoryThatTheLastDestroyRemoves) {
    const std::vector<NamedKind>& kinds = namedKinds();
    for (size_t index = 0; index < kinds.size(); ++index) {
        const NamedKind& kind = kinds[index];
        // A kind of another size on the same name gets an unusable handle,
        // which the memory does not count.
        const NamedKind& stranger = kinds[(index + 2) % kinds.size()];
        SCOPED_TRACE(kind.label);
        const std::string shared = name(kind.label);
        // A memory left under the name by a crashed run is taken over and reset.
        std::memset(korvane::SharedMemory::create(shared, 16).value().data(), 0xFF, 16);
        void* first = kind.create(shared.c_str());
        EXPECT_EQ(openCountOf(shared), 1); // the kinds' sizes: see the tools' listing of each kind
        const ChildResult second = runInChild(
            [&] {
                void* other = kind.create(shared.c_str());
                void* unusable = stranger.create(shared.c_str());
                const int64_t count = openCountOf(shared);
                stranger.destroy(unusable);
                kind.destroy(other);
                return count == 2 ? 0 : 1;
            },
            kDefaultTimeout, true);
        EXPECT_EQ(second.exitCode, 0);
        EXPECT_EQ(std::count(second.output.begin(), second.output.end(), '\n'), 1) << second.output;
        EXPECT_EQ(openCountOf(shared), 1) << "a destroy counts its handle out";
        kind.destroy(first);
        EXPECT_EQ(first, nullptr);
        EXPECT_EQ(segmentSize(shared), -1) << "the last destroy removes the memory";
        // The variable a destroy nulled is ignored by every function (the
        // results of the waits are checked with every bool result).
        kind.take(first);
        kind.give(first);
        kind.destroy(first);
    }
    os_event_reset_event(nullptr);
    os_rw_mutex_lock_rd(nullptr);
    os_event_destroy(nullptr); // a null address too, for every family alike
}

// A process dies holding a named object's robust mutex; the next user, in
// another process (so that a fault cannot hang the test), repairs it
// silently, and it is free and consistent afterwards.
TEST_F(NamedKinds, OwnerDeathOfTheirMutexIsRepairedSilentlyByTheNextUserWhoWakesAnEventsWaiters) {
    for (const NamedKind& kind : namedKinds()) {
        if (kind.mutexOffset == 0)
            continue;
        SCOPED_TRACE(kind.label);
        const std::string shared = name(kind.label);
        void* survivor = kind.create(shared.c_str());
        const MappedObject memory(shared);
        pthread_mutex_t* mutex = reinterpret_cast<pthread_mutex_t*>(memory.bytes + kind.mutexOffset);
        const auto tryLock = [&] {
            const int result = pthread_mutex_trylock(mutex);
            if (result == 0)
                pthread_mutex_unlock(mutex);
            return result;
        };
        // It exits with the memory still mapped: the kernel marks the mutex
        // as its owner's death.
        runInChild([&] { return pthread_mutex_lock(mutex); });
        // Give first, so that an event is set before it is waited for. A
        // mutex (the kinds of request size 52) is held once taken, as another
        // process sees.
        const ChildResult user = runInChild(
            [&] {
                kind.give(survivor);
                kind.take(survivor);
                const int seen = runInChild(tryLock).exitCode;
                kind.give(survivor);
                return seen == (kind.requestSize == 52 ? EBUSY : 0) ? 0 : 1;
            },
            kDefaultTimeout, true);
        EXPECT_EQ(user.exitCode, 0);
        EXPECT_EQ(user.output, "");
        EXPECT_EQ(tryLock(), 0) << "left held or inconsistent";
        kind.destroy(survivor); // the dead process's count keeps the memory until the manager stops
    }
    // An event's setter that repairs the mutex wakes the waiters of a setter
    // that died before waking them.
    const std::string shared = name("event");
    korvane::Event event(shared, false, false);
    Child waiter([&] { return event.wait() ? 0 : 1; }); // the handle maps the memory shared
    const MappedObject memory(shared);
    constexpr size_t kWaitersOffset = 56, kMutexOffset = 4, kStateOffset = 101;
    ASSERT_TRUE(eventually([&] { return __atomic_load_n(memory.bytes + kWaitersOffset, __ATOMIC_SEQ_CST) == 1; }));
    // The setter stores the state and dies before it wakes anyone.
    runInChild([&] {
        pthread_mutex_lock(reinterpret_cast<pthread_mutex_t*>(memory.bytes + kMutexOffset));
        memory.bytes[kStateOffset] = 1;
        return 0;
    });
    event.set();
    EXPECT_EQ(waiter.wait().exitCode, 0);
}

// Creates every kind on `name` in a child and takes each twice, which blocks
// on a real object; on an unusable handle it returns at once (a hang fails
// through the child's time limit). Returns what the creations printed.
std::string takeTwiceOnEveryKind(const std::string& name) {
    const ChildResult child = runInChild(
        [&] {
            for (const NamedKind& kind : namedKinds()) {
                void* handle = kind.create(name.c_str());
                kind.take(handle);
                kind.take(handle);
                kind.destroy(handle);
            }
            return 0;
        },
        5s, true);
    EXPECT_EQ(child.exitCode, 0) << "name of " << name.size() << " characters";
    return child.output;
}

TEST_F(NamedKinds, EmptyOverlongRefusedAndUnservedNamesGiveHandlesThatReturnAtOnce) {
    // Refused: the channel's own names, another program's semaphore, names
    // with a slash, which could alias either.
    const std::string otherApp = name("otherapp");
    sem_close(sem_open(otherApp.c_str(), O_CREAT, 0600, 0)); // its name stays until unlinked
    const std::string plain = name("plain");
    for (const std::string& refused : {std::string(), kChannelEntries[0], kChannelEntries[1], "sem." + otherApp,
                                       "/" + plain, plain + "/x"})
        EXPECT_EQ(takeTwiceOnEveryKind(refused), "") << refused;
    EXPECT_EQ(segmentSize(plain), -1);
    sem_unlink(otherApp.c_str());
    // 1023 characters reach the manager, which cannot make such a file.
    EXPECT_EQ(takeTwiceOnEveryKind(std::string(1023, 'n')),
              "can't access memory file[(null)], create event failed\n"
              "can't access memory file[(null)], create semaphore failed\n");
    // A handle released after the manager stopped (which removed its memory)
    // is unmapped all the same, the message saying why the count stays.
    const std::string held = name("held");
    mutex_handle* mutex = os_mutex_create(held.c_str());
    os_sync_environment_uninitialize();
    EXPECT_EQ(segmentSize(held), -1) << "stop removes every memory still held";
    EXPECT_EQ(captureStdout([&] { os_mutex_destroy(&mutex); }), kNoChannelOutput);
    EXPECT_EQ(mappingsOf(held), 0);
    const std::string& none = kNoChannelOutput; // once for each of the five kinds
    EXPECT_EQ(takeTwiceOnEveryKind(name("nomanager")), none + none + none + none + none);
    EXPECT_EQ(takeTwiceOnEveryKind(std::string(1024, 'n')), "") << "refused before the channel is tried";
}

class Mutexes : public SyncTest {};

// Threads add to a counter under an unnamed mutex, yielding inside: a broken
// lock loses updates. (They run here: the emulator fails threads started in
// a child of a process that already has threads.) A named one has its first
// creator's type, and a second creator, in another process, neither takes nor
// reinitialises it while it is held.
TEST_F(Mutexes, UnnamedOnesExcludeThreadsAndNamedOnesKeepTheFirstCreatorsType) {
    for (const NamedKind& kind : {namedKinds()[0], namedKinds()[1]}) {
        SCOPED_TRACE(kind.label);
        void* local = kind.create(nullptr);
        long counter = 0;
        const auto add = [&] {
            for (int i = 0; i < 1000; ++i) {
                kind.take(local);
                const long seen = counter;
                std::this_thread::yield();
                counter = seen + 1;
                kind.give(local);
            }
        };
        std::thread other(add);
        add();
        other.join();
        EXPECT_EQ(counter, 2000);
        kind.destroy(local);
        const std::string shared = name(kind.label);
        void* first = openMapped(shared, [&] { return kind.create(shared.c_str()); });
        kind.take(first);
        const MappedObject memory(shared);
        pthread_mutex_t* mutex = reinterpret_cast<pthread_mutex_t*>(memory.bytes + kind.mutexOffset);
        EXPECT_EQ(runInChild([&] {
            kind.create(shared.c_str()); // left open: the test's end removes the memory
            return pthread_mutex_trylock(mutex);
        }).exitCode, EBUSY);
        const int again = pthread_mutex_trylock(mutex); // the holder's own attempt tells the type
        EXPECT_EQ(again, kind.label == std::string("recursive") ? 0 : EBUSY);
        if (again == 0)
            pthread_mutex_unlock(mutex); // through the mapping that took it, as the thread sanitizer tracks addresses
        kind.give(first);
        kind.destroy(first);
    }
}

// The first entry of this thread's list of robust mutexes it holds, as the
// kernel has it; null where the list cannot be read (an emulator).
const void* firstRobustEntry() {
    robust_list_head* head = nullptr;
    size_t length = 0;
    if (syscall(SYS_get_robust_list, 0, &head, &length) != 0 || head == nullptr)
        return nullptr;
    return head->list.next;
}

// The parameter: a named lock (true) or a thread-local one.
class RWMutex : public SyncTest, public ::testing::WithParamInterface<bool> {};

// This thread reads first and leaves first: a named lock's hold mutex refuses
// an unlock by a reader that did not take it, so the lock must stay usable
// when the last reader is not the first, and this thread must not keep the
// hold mutex on its list of robust mutexes once the lock's memory is unmapped
// (glibc writes into that list's entries on every later robust lock).
TEST_P(RWMutex, ReadersShareAWriterWaitsForAllOfThemAndKeepsLaterReadersOut) {
    const std::string shared = GetParam() ? name("rw") : "";
    // Through the C++ layer, whose reader side std::shared_lock takes.
    auto lock = openMapped(shared, [&] {
        return GetParam() ? std::make_unique<korvane::SharedMutex>(shared) : std::make_unique<korvane::SharedMutex>();
    });
    // Threads 0, 2 and 3 read, 1 writes; each sets its `in` once it holds the
    // lock and unlocks once its `go` is set.
    std::atomic<bool> in[4]{}, go[4]{};
    std::vector<std::thread> threads;
    const auto start = [&](int i) {
        threads.emplace_back([&, i] {
            i == 1 ? lock->lock() : lock->lock_shared();
            in[i] = true;
            eventually([&] { return go[i].load(); });
            i == 1 ? lock->unlock() : lock->unlock_shared();
        });
    };
    const void* robustEntry = firstRobustEntry();
    std::shared_lock<korvane::SharedMutex> reader(*lock);
    start(0);
    EXPECT_TRUE(eventually([&] { return in[0].load(); })) << "readers share the lock";
    start(1);
    EXPECT_FALSE(eventually([&] { return in[1].load(); }, 50ms));
    start(2);
    EXPECT_TRUE(eventually([&] { return in[2].load(); })) << "a reader arriving while a writer waits is admitted";
    reader.unlock(); // the first reader leaves first
    go[0] = true;
    EXPECT_FALSE(eventually([&] { return in[1].load(); }, 50ms)) << "a reader still reads";
    go[2] = true;
    EXPECT_TRUE(eventually([&] { return in[1].load(); })) << "the writer enters once every reader has left";
    start(3);
    EXPECT_FALSE(eventually([&] { return in[3].load(); }, 50ms)) << "a reader waits for the writer";
    go[1] = true;
    EXPECT_TRUE(eventually([&] { return in[3].load(); }));
    go[3] = true;
    for (std::thread& thread : threads)
        thread.join();
    lock.reset();
    EXPECT_EQ(firstRobustEntry(), robustEntry) << "the first reader still holds the hold mutex";
}

INSTANTIATE_TEST_SUITE_P(Kinds, RWMutex, ::testing::Bool(), [](const ::testing::TestParamInfo<bool>& info) {
    return info.param ? "Named" : "ThreadLocal";
});

} // namespace
