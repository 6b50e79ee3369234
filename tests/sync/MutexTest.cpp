// Mutex and recursive mutex: private and named, exclusion across threads and
// processes, recovery from a holder's death, and unusable handles.
#include <pthread.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "SyncCoreSupport.h"
#include "TestSupport.h"
#include "korvane/sync.h"
#include "os/sync/SyncInternal.h"

using namespace kvtest;

namespace {

// The exported functions of one mutex family, so each case runs for both.
struct MutexFamily {
    const char* label;
    void* (*create)(const char*);
    void (*destroy)(void*);
    void (*lock)(void*);
    void (*unlock)(void*);
    int trylockInHolder; // what a second lock attempt by the holder gets
};

template <class H, H* (*Create)(const char*), void (*Destroy)(H**), void (*Lock)(H*), void (*Unlock)(H*)>
MutexFamily family(const char* label, int trylockInHolder) {
    return {label,
            [](const char* name) -> void* { return Create(name); },
            [](void* h) {
                H* handle = static_cast<H*>(h);
                Destroy(&handle);
            },
            [](void* h) { Lock(static_cast<H*>(h)); },
            [](void* h) { Unlock(static_cast<H*>(h)); },
            trylockInHolder};
}

const std::vector<MutexFamily>& families() {
    static const std::vector<MutexFamily> all = {
        family<mutex_handle, os_mutex_create, os_mutex_destroy, os_mutex_lock, os_mutex_unlock>("mutex", EBUSY),
        family<recursive_mutex_handle, os_recursive_mutex_create, os_recursive_mutex_destroy, os_recursive_mutex_lock,
               os_recursive_mutex_unlock>("recursive", 0),
    };
    return all;
}

// The shared mutex of a named object memory, as another user maps it.
class SharedMutexView {
public:
    explicit SharedMutexView(const std::string& name) : m_memory(os_sharememory_open(name.c_str())) {}
    ~SharedMutexView() { os_sharememory_destroy(&m_memory); }
    pthread_mutex_t* mutex() const {
        return reinterpret_cast<pthread_mutex_t*>(static_cast<uint8_t*>(os_sharememory_get_buffer(m_memory)) + 4);
    }
    // What pthread_mutex_trylock gives on another thread (unlocking again).
    int trylockElsewhere() const {
        int result = -1;
        std::thread([&] {
            result = pthread_mutex_trylock(mutex());
            if (result == 0)
                pthread_mutex_unlock(mutex());
        }).join();
        return result;
    }

private:
    sharememory_handle* m_memory;
};

using NamedMutexTest = SyncManagerFixture;

TEST(PrivateMutex, ExcludesThreadsWithoutAManager) {
    for (const MutexFamily& f : families()) {
        void* handle = f.create(nullptr);
        long counter = 0;
        std::vector<std::thread> threads;
        for (int t = 0; t < 4; ++t) {
            threads.emplace_back([&] {
                for (int i = 0; i < 2000; ++i) {
                    f.lock(handle);
                    const long seen = counter;
                    if (i % 64 == 0)
                        sched_yield();
                    counter = seen + 1;
                    f.unlock(handle);
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(counter, 8000) << f.label;
        f.destroy(handle);
    }
}

TEST(PrivateMutex, RecursiveTypeTakesTwoLocksFromOneThread) {
    // A wrong type would deadlock; the child's time limit turns that into a failure.
    const ChildResult child = runInChild(
        [] {
            recursive_mutex_handle* handle = os_recursive_mutex_create(nullptr);
            os_recursive_mutex_lock(handle);
            os_recursive_mutex_lock(handle);
            os_recursive_mutex_unlock(handle);
            os_recursive_mutex_unlock(handle);
            os_recursive_mutex_destroy(&handle);
            return handle == nullptr ? 0 : 1;
        },
        5s);
    EXPECT_EQ(child.exitCode, 0);
}

TEST_F(NamedMutexTest, SecondCreatorSharesTheMutexAndCountsItselfIn) {
    for (const MutexFamily& f : families()) {
        const std::string name = this->name(f.label);
        void* first = f.create(name.c_str());
        EXPECT_EQ(openCountOf(name), 1);
        f.lock(first);
        // The second creator, in another process, must neither reinitialise
        // the held mutex nor take it. (Children start no threads: the
        // aarch64 emulator cannot start one in a child of a threaded process.)
        const ChildResult second = runInChild([&] {
            void* other = f.create(name.c_str());
            const bool counted = openCountOf(name) == 2;
            const bool held = pthread_mutex_trylock(SharedMutexView(name).mutex()) == EBUSY;
            f.destroy(other);
            return counted && held ? 0 : 1;
        });
        EXPECT_EQ(second.exitCode, 0) << f.label;
        EXPECT_EQ(openCountOf(name), 1);
        EXPECT_EQ(SharedMutexView(name).trylockElsewhere(), EBUSY);
        // The holder's own second attempt tells the type apart.
        const int again = pthread_mutex_trylock(SharedMutexView(name).mutex());
        EXPECT_EQ(again, f.trylockInHolder) << f.label;
        if (again == 0)
            f.unlock(first);
        f.unlock(first);
        EXPECT_EQ(SharedMutexView(name).trylockElsewhere(), 0) << f.label;
        f.destroy(first);
        EXPECT_FALSE(shmExists(name)) << f.label;
    }
}

TEST_F(NamedMutexTest, ProcessesLoseNoUpdateUnderTheLock) {
    const std::string counterName = this->name("counter");
    sharememory_handle* counterMemory = os_sharememory_create(counterName.c_str(), sizeof(long));
    ASSERT_NE(counterMemory, nullptr);
    volatile long* counter = static_cast<volatile long*>(os_sharememory_get_buffer(counterMemory));
    const std::string name = this->name("exclusion");
    constexpr int kProcesses = 4;
    constexpr int kRounds = 300;
    std::vector<std::unique_ptr<Child>> children;
    for (int p = 0; p < kProcesses; ++p) {
        children.push_back(std::make_unique<Child>([&] {
            mutex_handle* mutex = os_mutex_create(name.c_str());
            for (int i = 0; i < kRounds; ++i) {
                os_mutex_lock(mutex);
                const long seen = *counter;
                sched_yield(); // invites the others into a broken critical section
                *counter = seen + 1;
                os_mutex_unlock(mutex);
            }
            os_mutex_destroy(&mutex);
            return 0;
        }));
    }
    for (auto& child : children)
        EXPECT_EQ(child->wait().exitCode, 0);
    EXPECT_EQ(*counter, kProcesses * kRounds);
    os_sharememory_close(counterMemory, true);
    os_sharememory_destroy(&counterMemory);
    EXPECT_FALSE(shmExists(name));
}

TEST_F(NamedMutexTest, OwnerDeathIsRepairedByTheNextLocker) {
    for (const MutexFamily& f : families()) {
        const std::string name = this->name(f.label);
        void* survivor = f.create(name.c_str());
        const ChildResult holder = runInChild([&] {
            f.lock(f.create(name.c_str()));
            return 0; // dies holding the mutex, its handle never destroyed
        });
        ASSERT_EQ(holder.exitCode, 0);
        const std::string output = captureStdout([&] { f.lock(survivor); });
        EXPECT_EQ(output, "") << f.label;
        EXPECT_EQ(SharedMutexView(name).trylockElsewhere(), EBUSY) << f.label << ": the lock must be held";
        f.unlock(survivor);
        EXPECT_EQ(SharedMutexView(name).trylockElsewhere(), 0) << f.label << ": the mutex must be consistent";
        f.destroy(survivor); // the dead holder's count keeps the memory until the manager stops
    }
}

TEST(RobustLock, ReportsErrorsItCannotRepair) {
    pthread_mutex_t mutex;
    korvane::sync::initialiseMutex(&mutex, PTHREAD_MUTEX_ERRORCHECK, false);
    ASSERT_TRUE(korvane::sync::robustLock(&mutex));
    bool second = true;
    EXPECT_EQ(captureStdout([&] { second = korvane::sync::robustLock(&mutex); }),
              "mutex lock error:" + std::to_string(EDEADLK) + ".\n");
    EXPECT_FALSE(second);
    pthread_mutex_unlock(&mutex);
    pthread_mutex_destroy(&mutex);
    EXPECT_FALSE(korvane::sync::robustLock(nullptr));
}

TEST(RobustLock, OwnerDeathOfAThreadRepairedOrReportedUnrecoverable) {
    pthread_mutex_t mutex;
    korvane::sync::initialiseMutex(&mutex, PTHREAD_MUTEX_NORMAL, true);
    const auto dieHolding = [&] { std::thread([&] { pthread_mutex_lock(&mutex); }).join(); };
    dieHolding();
    EXPECT_EQ(captureStdout([&] { EXPECT_TRUE(korvane::sync::robustLock(&mutex)); }), "");
    pthread_mutex_unlock(&mutex);

    // A holder that unlocks without repairing leaves it unrecoverable.
    dieHolding();
    ASSERT_EQ(pthread_mutex_lock(&mutex), EOWNERDEAD);
    pthread_mutex_unlock(&mutex);
    EXPECT_EQ(captureStdout([&] { EXPECT_FALSE(korvane::sync::robustLock(&mutex)); }),
              "mutex lock error:" + std::to_string(ENOTRECOVERABLE) + ".\n");
    pthread_mutex_destroy(&mutex);
}

// Handles whose named creation failed: lock must return at once, even twice
// from one thread (a real normal mutex would deadlock, which the child's time
// limit catches). `expectedOutput` is what each creation prints.
void expectUnusable(const std::string& name, const std::string& expectedOutput) {
    const ChildResult child = runInChild(
        [&] {
            for (const MutexFamily& f : families()) {
                void* handle = f.create(name.c_str());
                if (handle == nullptr)
                    return 1;
                f.lock(handle);
                f.lock(handle);
                f.unlock(handle);
                f.destroy(handle);
            }
            return 0;
        },
        5s, true);
    EXPECT_EQ(child.exitCode, 0) << "name of " << name.size() << " characters";
    EXPECT_EQ(child.output, expectedOutput + expectedOutput);
    EXPECT_TRUE(name.empty() || !shmExists(name));
}

TEST_F(NamedMutexTest, EmptyAndOverlongNamesGiveUnusableHandles) {
    expectUnusable("", "");
    expectUnusable(std::string(1023, 'm'), ""); // reaches the manager, which cannot make it
    expectUnusable(std::string(1024, 'm'), "");
}

TEST(NamedMutexWithoutManager, HandleIsUnusableAfterFourMessages) {
    ASSERT_TRUE(presentChannelEntries().empty());
    expectUnusable(uniqueName("nomanager"),
                   "Error: Can not open os_mutex_manage_enabled_semaphore, errno = 2!\n"
                   "Error: Can not open os_mutex_manage_request_semaphore, errno = 2!\n"
                   "Error: Can not open os_mutex_manage_finish_semaphore, errno = 2!\n"
                   "Error: Can not open os_mutex_manage_enabled_sharemomory, errno = 2!\n");
    expectUnusable(std::string(1024, 'm'), ""); // refused before the channel is tried
}

TEST(MutexBadInput, NullHandlesAreIgnored) {
    os_mutex_lock(nullptr);
    os_mutex_unlock(nullptr);
    os_recursive_mutex_lock(nullptr);
    os_recursive_mutex_unlock(nullptr);
    mutex_handle* none = nullptr;
    os_mutex_destroy(&none);
    os_mutex_destroy(nullptr);
    recursive_mutex_handle* noneRecursive = nullptr;
    os_recursive_mutex_destroy(&noneRecursive);
    os_recursive_mutex_destroy(nullptr);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(noneRecursive, nullptr);
}

} // namespace
