// Standard lock guards over the mutex owners, within and across processes.
#include <sched.h>

#include <korvane/korvane.hpp>
#include <shared_mutex>

#include "../sync/SyncTestSupport.h"

using namespace kvtest;
using CppLocks = SyncTest;

// Two processes add to a counter in shared memory with a yield between read
// and write: only the named mutex keeps every increment.
TEST_F(CppLocks, LockGuardOnNamedMutexExcludesAcrossProcesses) {
    const std::string memoryName = name("counter"), mutexName = name("mutex");
    auto memory = korvane::SharedMemory::create(memoryName, sizeof(int));
    ASSERT_TRUE(memory);
    auto* counter = static_cast<volatile int*>(memory->data());
    auto addMany = [&] {
        auto mutex = openMapped(mutexName, [&] { return std::make_unique<korvane::Mutex>(mutexName); });
        for (int i = 0; i < 2000; ++i) {
            std::lock_guard<korvane::Mutex> hold(*mutex);
            const int seen = *counter;
            sched_yield();
            *counter = seen + 1;
        }
        return 0;
    };
    Child other(addMany);
    addMany();
    EXPECT_EQ(other.wait().exitCode, 0);
    EXPECT_EQ(*counter, 4000);
    memory->close(true);
}

TEST_F(CppLocks, MovesHandOverTheHandleAndTheLastOwnerRemovesTheNamedMemory) {
    const std::string mutexName = name("moved");
    korvane::Mutex first(mutexName);
    korvane::Mutex second(std::move(first));
    EXPECT_EQ(first.native_handle(), nullptr);
    second = korvane::Mutex();
    EXPECT_EQ(segmentSize(mutexName), -1);
}

TEST(CppLocksLocal, SharedAndRecursiveLocksWorkWithTheStandardGuards) {
    korvane::SharedMutex lock;
    std::shared_lock<korvane::SharedMutex> reader(lock);
    std::thread([&] { std::shared_lock<korvane::SharedMutex> second(lock); }).join();
    reader.unlock();
    std::unique_lock<korvane::SharedMutex> writer(lock);
    korvane::RecursiveMutex recursive;
    std::scoped_lock<korvane::RecursiveMutex> outer(recursive), inner(recursive);
}

TEST(CppLocksLocal, LockOnUnusableNamedObjectThrowsInsteadOfReturningUnlocked) {
    korvane::Mutex mutex(uniqueName("nomanager"));
    EXPECT_THROW(std::lock_guard<korvane::Mutex>{mutex}, std::system_error);
}
