// The futex-based condition and counting semaphore of named object memories,
// placed as the shared layouts place them: in memory shared with forked
// children, at addresses 4-byte but not 8-byte aligned.
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "SyncTestSupport.h"
#include "korvane/system.h"
#include "os/sync/SharedCondition.h"
#include "os/sync/SharedSemaphore.h"
#include "os/sync/SyncInternal.h"

namespace {

using korvane::sync::ConditionWait;
using korvane::sync::SharedCondition;
using korvane::sync::SharedSemaphore;
using namespace kvtest;

timespec realtimeDeadline(std::chrono::milliseconds offset) {
    timespec deadline{};
    const timespec monotonic = monotonicDeadline(offset);
    os_clock_monotonic_to_realtime(&monotonic, &deadline);
    return deadline;
}

// One shared page laid out like a named object memory: a robust mutex at
// offset 4, a condition at 52 and a semaphore at 108 (all 4 mod 8), and
// plain words guarded by the mutex from offset 256.
class SharedPage {
public:
    SharedPage() {
        void* page = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED)
            throw std::runtime_error("mmap failed");
        m_base = static_cast<uint8_t*>(page);
        korvane::sync::initialiseMutex(mutex(), PTHREAD_MUTEX_NORMAL, true);
        condition()->initialise();
        semaphore()->initialise(0);
    }
    ~SharedPage() { munmap(m_base, kSize); }
    SharedPage(const SharedPage&) = delete;
    SharedPage& operator=(const SharedPage&) = delete;

    pthread_mutex_t* mutex() { return reinterpret_cast<pthread_mutex_t*>(m_base + 4); }
    SharedCondition* condition() { return reinterpret_cast<SharedCondition*>(m_base + 52); }
    SharedSemaphore* semaphore() { return reinterpret_cast<SharedSemaphore*>(m_base + 108); }
    uint32_t& word(size_t index) { return reinterpret_cast<uint32_t*>(m_base + 256)[index]; }
    void lock() { korvane::sync::robustLock(mutex()); }
    void unlock() { pthread_mutex_unlock(mutex()); }

private:
    static constexpr size_t kSize = 4096;
    uint8_t* m_base = nullptr;
};

TEST(SharedSemaphore, CountsWithinTheLimitsOfASemTAndTakesDeadlinesAsItDoes) {
    SharedPage page;
    SharedSemaphore* semaphore = page.semaphore();
    ASSERT_EQ(reinterpret_cast<uintptr_t>(semaphore) % 8, 4u);
    ASSERT_EQ(semaphore->initialise(2), 0);
    EXPECT_EQ(semaphore->tryWait(), 0);
    EXPECT_EQ(semaphore->wait(), 0);
    EXPECT_EQ(semaphore->tryWait(), EAGAIN);
    EXPECT_EQ(semaphore->waitUntil(realtimeDeadline(-5ms)), ETIMEDOUT);
    EXPECT_EQ(semaphore->waitUntil(timespec{-1, 0}), ETIMEDOUT) << "negative seconds are a passed deadline";
    EXPECT_EQ(semaphore->post(), 0);
    timespec malformed = realtimeDeadline(1s);
    malformed.tv_nsec = 1000000000;
    EXPECT_EQ(semaphore->waitUntil(malformed), EINVAL);
    EXPECT_EQ(semaphore->value(), 1u) << "a malformed deadline takes nothing";
    EXPECT_EQ(semaphore->waitUntil(realtimeDeadline(-5ms)), 0) << "a free unit is taken even past the deadline";
    EXPECT_EQ(semaphore->initialise(static_cast<unsigned int>(SEM_VALUE_MAX) + 1u), EINVAL);
    EXPECT_EQ(semaphore->value(), 0u);
    ASSERT_EQ(semaphore->initialise(SEM_VALUE_MAX), 0);
    EXPECT_EQ(semaphore->post(), EOVERFLOW);
}

void ignoreSignal(int) {}

TEST(SharedSemaphore, ASignalEndsTheWaitAsAFailure) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = ignoreSignal; // no SA_RESTART: the wait must see EINTR
    sigaction(SIGUSR1, &action, &previous);
    SharedPage page;
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = page.semaphore()->waitUntil(realtimeDeadline(kDefaultTimeout)); });
    // Signal until the waiter has left: a signal landing before it sleeps is missed.
    EXPECT_TRUE(eventually([&] {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(2ms);
        return result != -1;
    }));
    page.semaphore()->post(); // frees the waiter should the signals have failed
    waiter.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(result, EINTR);
}

TEST(SharedSemaphore, LosesNoUnitAndWakesWaitersInOtherProcesses) {
    SharedPage page;
    constexpr int kConsumers = 3;
    constexpr int kUnitsEach = 300;
    std::vector<std::unique_ptr<Child>> consumers;
    for (int i = 0; i < kConsumers; ++i) {
        // A timed wait takes a unit it finds at its deadline, so a missed
        // wake-up would pass unseen: these deadlines outlast the children's
        // time limit.
        consumers.push_back(std::make_unique<Child>([&] {
            for (int unit = 0; unit < kUnitsEach; ++unit) {
                if (page.semaphore()->waitUntil(realtimeDeadline(2 * kDefaultTimeout)) != 0)
                    return 1;
            }
            return 0;
        }));
    }
    std::vector<std::thread> producers;
    for (int i = 0; i < 2; ++i) {
        producers.emplace_back([&] {
            for (int unit = 0; unit < kConsumers * kUnitsEach / 2; ++unit)
                page.semaphore()->post();
        });
    }
    for (std::thread& producer : producers)
        producer.join();
    for (auto& consumer : consumers)
        EXPECT_EQ(consumer->wait().exitCode, 0) << "a consumer missed a unit";
    EXPECT_EQ(page.semaphore()->value(), 0u);
}

TEST(SharedCondition, DeadlinesTimeOutWithTheMutexHeldAndAMalformedOneNeverReleasesIt) {
    SharedPage page;
    ASSERT_EQ(reinterpret_cast<uintptr_t>(page.condition()) % 8, 4u);
    page.lock();
    EXPECT_EQ(page.condition()->waitUntil(page.mutex(), pastDeadline()), ConditionWait::TimedOut);
    EXPECT_EQ(page.condition()->waitUntil(page.mutex(), timespec{-1, 0}), ConditionWait::TimedOut);
    timespec malformed = boundedDeadline();
    malformed.tv_nsec = -1;
    EXPECT_EQ(page.condition()->waitUntil(page.mutex(), malformed), ConditionWait::BadDeadline);
    // A robust mutex refuses an unlock by anyone but its owner.
    EXPECT_EQ(pthread_mutex_unlock(page.mutex()), 0);
}

// Two processes hand a turn back and forth with wake-one signals: a lost
// wake-up leaves one side asleep until its deadline.
TEST(SharedCondition, LosesNoWakeUpUnderAStressLoop) {
    SharedPage page;
    constexpr uint32_t kRounds = 1000;
    auto play = [&page](uint32_t side) {
        const timespec deadline = boundedDeadline();
        for (uint32_t round = 0; round < kRounds; ++round) {
            page.lock();
            while (page.word(0) % 2 != side) {
                if (page.condition()->waitUntil(page.mutex(), deadline) == ConditionWait::TimedOut) {
                    page.unlock();
                    return 1;
                }
            }
            page.word(0) += 1;
            page.condition()->signal();
            page.unlock();
        }
        return 0;
    };
    Child other([&] { return play(1); });
    EXPECT_EQ(play(0), 0);
    EXPECT_EQ(other.wait().exitCode, 0);
    EXPECT_EQ(page.word(0), 2 * kRounds);
}

// A process that dies holding the mutex after waking the waiter: the waiter
// (a child, so that a fault cannot hang the test) takes the mutex back
// repaired, consistent and its own.
TEST(SharedConditionOwnerDeath, WaiterRepairsTheMutexItTakesBack) {
    SharedPage page;
    Child waiter([&] {
        page.lock();
        page.word(0) = 1;
        ConditionWait result = ConditionWait::Woken;
        while (page.word(1) == 0 && result != ConditionWait::TimedOut)
            result = page.condition()->waitUntil(page.mutex(), boundedDeadline());
        // Exit codes: 1 not woken, 2 the mutex taken back is not the waiter's.
        return result != ConditionWait::Woken ? 1 : pthread_mutex_unlock(page.mutex()) == 0 ? 0 : 2;
    });
    ASSERT_TRUE(eventually([&] {
        page.lock();
        const bool waiting = page.word(0) == 1;
        page.unlock();
        return waiting;
    }));
    const ChildResult dead = runInChild([&] {
        pthread_mutex_lock(page.mutex());
        page.word(1) = 1;
        page.condition()->broadcast();
        return 0; // leaves without unlocking
    });
    EXPECT_TRUE(dead.exited);
    EXPECT_EQ(waiter.wait().exitCode, 0);
    EXPECT_EQ(pthread_mutex_trylock(page.mutex()), 0) << "the mutex was left inconsistent";
    pthread_mutex_unlock(page.mutex());
}

} // namespace
