// Mutex and recursive mutex: exclusion between threads and between processes,
// the type of a named mutex, and repair after its holder died.
#include <pthread.h>
#include <sched.h>

#include <cerrno>
#include <thread>
#include <vector>

#include "NamedKinds.h"
#include "SyncTestSupport.h"

namespace {

using namespace kvtest;

const std::vector<NamedKind> kMutexKinds(namedKinds().begin(), namedKinds().begin() + 2);

// Adds `rounds` to `counter` under `mutex`, inviting others into a broken
// critical section.
void addUnder(const NamedKind& kind, void* mutex, volatile long* counter, int rounds) {
    for (int i = 0; i < rounds; ++i) {
        kind.take(mutex);
        const long seen = *counter;
        sched_yield();
        *counter = seen + 1;
        kind.give(mutex);
    }
}

TEST(PrivateMutex, ExcludesThreadsAndTheRecursiveTypeNests) {
    for (const NamedKind& kind : kMutexKinds) {
        void* mutex = kind.create(nullptr);
        long counter = 0;
        std::thread other([&] { addUnder(kind, mutex, &counter, 500); });
        addUnder(kind, mutex, &counter, 500);
        other.join();
        EXPECT_EQ(counter, 1000) << kind.label;
        kind.destroy(mutex);
    }
    // A wrong type deadlocks, which the child's time limit turns into a failure.
    const ChildResult nested = runInChild(
        [] {
            recursive_mutex_handle* mutex = os_recursive_mutex_create(nullptr);
            os_recursive_mutex_lock(mutex);
            os_recursive_mutex_lock(mutex);
            os_recursive_mutex_unlock(mutex);
            os_recursive_mutex_unlock(mutex);
            os_recursive_mutex_destroy(&mutex);
            return 0;
        },
        5s);
    EXPECT_EQ(nested.exitCode, 0);
}

class NamedMutex : public SyncTest {};

TEST_F(NamedMutex, SecondCreatorFindsTheMutexHeldAndOfTheFirstCreatorsType) {
    for (const NamedKind& kind : kMutexKinds) {
        const std::string shared = name(kind.label);
        void* first = kind.create(shared.c_str());
        kind.take(first);
        const MappedObject memory(shared);
        pthread_mutex_t* mutex = reinterpret_cast<pthread_mutex_t*>(memory.bytes + 4);
        // The second creator, in another process, must neither reinitialise
        // the held mutex nor take it.
        const ChildResult second = runInChild([&] {
            void* other = kind.create(shared.c_str());
            const bool held = pthread_mutex_trylock(mutex) == EBUSY;
            kind.destroy(other);
            return held ? 0 : 1;
        });
        EXPECT_EQ(second.exitCode, 0) << kind.label;
        const int again = pthread_mutex_trylock(mutex); // the holder's own attempt tells the type
        EXPECT_EQ(again, &kind == &kMutexKinds[1] ? 0 : EBUSY) << kind.label;
        if (again == 0)
            kind.give(first);
        kind.give(first);
        const ChildResult other = runInChild([&] {
            const int result = pthread_mutex_trylock(mutex);
            return result == 0 ? pthread_mutex_unlock(mutex) : result;
        });
        EXPECT_EQ(other.exitCode, 0) << kind.label << ": left held";
        kind.destroy(first);
    }
}

TEST_F(NamedMutex, ProcessesLoseNoUpdateUnderTheLock) {
    const std::string counterName = name("counter");
    sharememory_handle* counterMemory = os_sharememory_create(counterName.c_str(), sizeof(long));
    ASSERT_NE(counterMemory, nullptr);
    volatile long* counter = static_cast<volatile long*>(os_sharememory_get_buffer(counterMemory));
    const std::string shared = name("exclusion");
    std::vector<std::unique_ptr<Child>> children;
    for (int p = 0; p < 4; ++p) {
        children.push_back(std::make_unique<Child>([&] {
            using OwnedMutex = Owned<mutex_handle, os_mutex_destroy>;
            const auto mutex = openMapped(shared, [&] { return OwnedMutex(os_mutex_create(shared.c_str())); });
            addUnder(kMutexKinds[0], mutex.get(), counter, 300);
            return 0;
        }));
    }
    for (auto& child : children)
        EXPECT_EQ(child->wait().exitCode, 0);
    EXPECT_EQ(*counter, 4 * 300);
    os_sharememory_close(counterMemory, true);
    os_sharememory_destroy(&counterMemory);
}

} // namespace
