// Mutexes, recursive mutexes and reader-writer mutexes. Exclusion between
// processes and nesting are tested through the C++ lock guards.
#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

#include "SyncTestSupport.h"

namespace {

using namespace kvtest;

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
        const ChildResult second = runInChild([&] {
            kind.create(shared.c_str()); // left open: the test's end removes the memory
            return pthread_mutex_trylock(mutex);
        });
        EXPECT_EQ(second.exitCode, EBUSY);
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
    const auto make = [&] {
        const auto destroy = [](rw_mutex_handle* handle) { os_rw_mutex_destroy(&handle); };
        return std::shared_ptr<rw_mutex_handle>(os_rw_mutex_create(GetParam() ? shared.c_str() : nullptr), destroy);
    };
    std::shared_ptr<rw_mutex_handle> lock = openMapped(shared, make);
    // Threads 0, 2 and 3 read, 1 writes; each sets its `in` once it holds the
    // lock and unlocks once its `go` is set.
    std::atomic<bool> in[4]{}, go[4]{};
    const auto holds = [&](int i, std::chrono::milliseconds within = kDefaultTimeout) {
        return eventually([&] { return in[i].load(); }, within);
    };
    std::vector<std::thread> threads;
    const auto start = [&](int i) {
        threads.emplace_back([&, i] {
            i == 1 ? os_rw_mutex_lock_wr(lock.get()) : os_rw_mutex_lock_rd(lock.get());
            in[i] = true;
            eventually([&] { return go[i].load(); });
            os_rw_mutex_unlock(lock.get());
        });
    };
    const void* robustEntry = firstRobustEntry();
    os_rw_mutex_lock_rd(lock.get());
    start(0);
    EXPECT_TRUE(holds(0)) << "readers share the lock";
    start(1);
    EXPECT_FALSE(holds(1, 50ms));
    start(2);
    EXPECT_TRUE(holds(2)) << "a reader arriving while a writer waits is admitted";
    os_rw_mutex_unlock(lock.get()); // the first reader leaves first
    go[0] = true;
    EXPECT_FALSE(holds(1, 50ms)) << "a reader still reads";
    go[2] = true;
    EXPECT_TRUE(holds(1)) << "a writer must get the lock once every reader has left";
    start(3);
    EXPECT_FALSE(holds(3, 50ms)) << "a reader waits for the writer";
    go[1] = true;
    EXPECT_TRUE(holds(3));
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
