// The futex-based condition and counting semaphore of named object memories,
// placed as the shared layouts place them: in memory shared with forked
// children, at addresses 4-byte but not 8-byte aligned.
#include <gtest/gtest.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <sys/mman.h>


#include <atomic>
#include <memory>
#include <stdexcept>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <thread>
#include <vector>

#include "SyncObjectsSupport.h"
#include "os/sync/SharedCondition.h"
#include "os/sync/SharedSemaphore.h"
#include "korvane/system.h"
#include "os/sync/SyncInternal.h"

using korvane::sync::ConditionWait;
using korvane::sync::SharedCondition;
using korvane::sync::SharedSemaphore;
using namespace std::chrono_literals;

namespace {

timespec realtimeDeadline(std::chrono::milliseconds offset) {
    timespec deadline{};
    const timespec monotonic = kvtest::monotonicDeadline(offset);
    os_clock_monotonic_to_realtime(&monotonic, &deadline);
    return deadline;
}

// One shared page laid out like a named object memory: a robust mutex at
// offset 4, a condition at 52 and a semaphore at 108, all 4 mod 8.
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
    // Plain words guarded by the mutex.
    uint32_t& word(size_t index) { return reinterpret_cast<uint32_t*>(m_base + 256)[index]; }

private:
    static constexpr size_t kSize = 4096;
    uint8_t* m_base = nullptr;
};

TEST(SharedPrimitivesPlacement, ObjectsSitAtAddressesThatAreNotEightByteAligned) {
    SharedPage page;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(page.condition()) % 8, 4u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(page.semaphore()) % 8, 4u);
}

// ---------------------------------------------------------------------------
// Counting semaphore.

TEST(SharedSemaphore, CountsUnitsAndRefusesANonBlockingTakeWhenEmpty) {
    SharedPage page;
    SharedSemaphore* semaphore = page.semaphore();
    ASSERT_EQ(semaphore->initialise(2), 0);
    EXPECT_EQ(semaphore->tryWait(), 0);
    EXPECT_EQ(semaphore->tryWait(), 0);
    EXPECT_EQ(semaphore->tryWait(), EAGAIN);
    EXPECT_EQ(semaphore->post(), 0);
    EXPECT_EQ(semaphore->value(), 1u);
    EXPECT_EQ(semaphore->wait(), 0);
    EXPECT_EQ(semaphore->value(), 0u);
}

TEST(SharedSemaphore, KeepsWithinTheLimitsOfASemT) {
    SharedPage page;
    SharedSemaphore* semaphore = page.semaphore();
    EXPECT_EQ(semaphore->initialise(static_cast<unsigned int>(SEM_VALUE_MAX) + 1u), EINVAL);
    EXPECT_EQ(semaphore->value(), 0u);
    ASSERT_EQ(semaphore->initialise(SEM_VALUE_MAX), 0);
    EXPECT_EQ(semaphore->post(), EOVERFLOW);
    EXPECT_EQ(semaphore->value(), static_cast<unsigned int>(SEM_VALUE_MAX));
}

TEST(SharedSemaphore, DeadlinesArePassedAtOnceOrRefusedWhenMalformed) {
    SharedPage page;
    SharedSemaphore* semaphore = page.semaphore();
    EXPECT_EQ(semaphore->waitUntil(realtimeDeadline(-5ms)), ETIMEDOUT);
    semaphore->post();
    timespec malformed = realtimeDeadline(1s);
    malformed.tv_nsec = 1000000000;
    EXPECT_EQ(semaphore->waitUntil(malformed), EINVAL);
    EXPECT_EQ(semaphore->value(), 1u) << "a malformed deadline takes nothing";
    EXPECT_EQ(semaphore->waitUntil(realtimeDeadline(-5ms)), 0) << "a free unit is taken even past the deadline";
    EXPECT_EQ(semaphore->waitUntil(timespec{-1, 0}), ETIMEDOUT) << "negative seconds are a passed deadline";
}

void ignoreSignal(int) {}

TEST(SharedSemaphore, ASignalEndsTheWaitAsAFailure) {
    struct sigaction action {};
    struct sigaction previous {};
    action.sa_handler = ignoreSignal; // no SA_RESTART: the wait must see EINTR
    sigaction(SIGUSR1, &action, &previous);
    SharedPage page;
    std::atomic<int> result{-1};
    std::thread waiter([&] { result = page.semaphore()->waitUntil(realtimeDeadline(kvtest::kDefaultTimeout)); });
    // Keep signalling until the waiter has left: a signal that lands before
    // it sleeps is simply missed.
    EXPECT_TRUE(kvtest::eventually([&] {
        pthread_kill(waiter.native_handle(), SIGUSR1);
        std::this_thread::sleep_for(2ms);
        return result != -1;
    }));
    page.semaphore()->post(); // frees the waiter should the signals have failed
    waiter.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(result, EINTR);
}

TEST(SharedSemaphore, WakesOneWaiterPerUnitInOtherProcesses) {
    SharedPage page;
    constexpr int kWaiters = 4;
    std::vector<std::unique_ptr<kvtest::Child>> children;
    for (int i = 0; i < kWaiters; ++i) {
        children.push_back(std::make_unique<kvtest::Child>(
            [&] { return page.semaphore()->waitUntil(realtimeDeadline(kvtest::kDefaultTimeout)) == 0 ? 0 : 1; }));
    }
    for (int i = 0; i < kWaiters; ++i)
        EXPECT_EQ(page.semaphore()->post(), 0);
    for (auto& child : children) {
        const kvtest::ChildResult result = child->wait();
        EXPECT_TRUE(result.exited && result.exitCode == 0) << "a waiter missed its unit";
    }
    EXPECT_EQ(page.semaphore()->value(), 0u);
}

TEST(SharedSemaphore, LosesNoUnitUnderContention) {
    SharedPage page;
    constexpr int kConsumers = 4;
    constexpr int kUnitsEach = 500;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kConsumers; ++i) {
        threads.emplace_back([&] {
            for (int unit = 0; unit < kUnitsEach; ++unit) {
                if (page.semaphore()->waitUntil(realtimeDeadline(kvtest::kDefaultTimeout)) != 0)
                    ++failures;
            }
        });
    }
    for (int i = 0; i < 2; ++i) {
        threads.emplace_back([&] {
            for (int unit = 0; unit < kConsumers * kUnitsEach / 2; ++unit)
                page.semaphore()->post();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
    EXPECT_EQ(page.semaphore()->value(), 0u);
}

// ---------------------------------------------------------------------------
// Condition.

TEST(SharedCondition, PassedDeadlineTimesOutWithTheMutexHeld) {
    SharedPage page;
    ASSERT_EQ(pthread_mutex_lock(page.mutex()), 0);
    EXPECT_EQ(page.condition()->waitUntil(page.mutex(), kvtest::pastDeadline()), ConditionWait::TimedOut);
    EXPECT_EQ(page.condition()->waitUntil(page.mutex(), timespec{-1, 0}), ConditionWait::TimedOut);
    // A robust mutex refuses an unlock by anyone but its owner.
    EXPECT_EQ(pthread_mutex_unlock(page.mutex()), 0);
}

TEST(SharedCondition, MalformedDeadlineNeverReleasesTheMutex) {
    SharedPage page;
    ASSERT_EQ(pthread_mutex_lock(page.mutex()), 0);
    timespec malformed = kvtest::boundedDeadline();
    malformed.tv_nsec = -1;
    EXPECT_EQ(page.condition()->waitUntil(page.mutex(), malformed), ConditionWait::BadDeadline);
    EXPECT_EQ(pthread_mutex_unlock(page.mutex()), 0);
}

// Waiters in forked children take one ticket each; word 0 counts waiters,
// word 1 holds the tickets.
int takeTicket(SharedPage& page) {
    const timespec deadline = kvtest::boundedDeadline();
    korvane::sync::robustLock(page.mutex());
    page.word(0) += 1;
    bool timedOut = false;
    while (page.word(1) == 0 && !timedOut)
        timedOut = page.condition()->waitUntil(page.mutex(), deadline) == ConditionWait::TimedOut;
    // A waiter that slept until its deadline missed the wake-up, even if a
    // ticket is there now.
    const bool took = !timedOut && page.word(1) != 0;
    if (took)
        page.word(1) -= 1;
    pthread_mutex_unlock(page.mutex());
    return took ? 0 : 1;
}

void giveTickets(SharedPage& page, uint32_t count, bool all) {
    korvane::sync::robustLock(page.mutex());
    page.word(1) += count;
    if (all)
        page.condition()->broadcast();
    else
        page.condition()->signal();
    pthread_mutex_unlock(page.mutex());
}

bool waitersAsleep(SharedPage& page, uint32_t count) {
    return kvtest::eventually([&] {
        korvane::sync::robustLock(page.mutex());
        const bool ready = page.word(0) == count;
        pthread_mutex_unlock(page.mutex());
        return ready;
    });
}

uint32_t ticketsLeft(SharedPage& page) {
    korvane::sync::robustLock(page.mutex());
    const uint32_t left = page.word(1);
    pthread_mutex_unlock(page.mutex());
    return left;
}

TEST(SharedCondition, SignalWakesAWaiterAndBroadcastWakesEveryWaiterAcrossProcesses) {
    SharedPage page;
    constexpr uint32_t kWaiters = 5;
    std::vector<std::unique_ptr<kvtest::Child>> children;
    for (uint32_t i = 0; i < kWaiters; ++i)
        children.push_back(std::make_unique<kvtest::Child>([&] { return takeTicket(page); }));
    ASSERT_TRUE(waitersAsleep(page, kWaiters));

    giveTickets(page, 1, false);
    EXPECT_TRUE(kvtest::eventually([&] { return ticketsLeft(page) == 0; })) << "the signal woke no waiter";
    giveTickets(page, kWaiters - 1, true);
    for (auto& child : children) {
        const kvtest::ChildResult result = child->wait();
        EXPECT_TRUE(result.exited && result.exitCode == 0) << "the broadcast missed a waiter";
    }
}

// Two processes hand a turn back and forth with wake-one signals: a lost
// wake-up leaves one side asleep until its deadline.
TEST(SharedCondition, LosesNoWakeUpUnderAStressLoop) {
    SharedPage page;
    constexpr uint32_t kRounds = 1000;
    auto play = [&page](uint32_t side) {
        const timespec deadline = kvtest::boundedDeadline();
        for (uint32_t round = 0; round < kRounds; ++round) {
            korvane::sync::robustLock(page.mutex());
            while (page.word(0) % 2 != side) {
                if (page.condition()->waitUntil(page.mutex(), deadline) == ConditionWait::TimedOut) {
                    pthread_mutex_unlock(page.mutex());
                    return 1;
                }
            }
            page.word(0) += 1;
            page.condition()->signal();
            pthread_mutex_unlock(page.mutex());
        }
        return 0;
    };
    kvtest::Child other([&] { return play(1); });
    EXPECT_EQ(play(0), 0);
    const kvtest::ChildResult result = other.wait();
    EXPECT_TRUE(result.exited && result.exitCode == 0);
    EXPECT_EQ(page.word(0), 2 * kRounds);
}

TEST(SharedCondition, ManyThreadsWokenByOneBroadcast) {
    SharedPage page;
    constexpr uint32_t kWaiters = 16;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < kWaiters; ++i)
        threads.emplace_back([&] { failures += takeTicket(page); });
    ASSERT_TRUE(waitersAsleep(page, kWaiters));
    giveTickets(page, kWaiters, true);
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, 0);
}

// A process that dies holding the mutex after waking the waiter: the waiter
// takes the mutex back repaired, consistent and its own.
TEST(SharedConditionOwnerDeath, WaiterRepairsTheMutexItTakesBack) {
    SharedPage page;
    std::atomic<int> outcome{-1};
    std::thread waiter([&] {
        korvane::sync::robustLock(page.mutex());
        page.word(0) = 1;
        ConditionWait result = ConditionWait::Woken;
        while (page.word(1) == 0 && result != ConditionWait::TimedOut)
            result = page.condition()->waitUntil(page.mutex(), kvtest::boundedDeadline());
        outcome = pthread_mutex_unlock(page.mutex()) == 0 ? static_cast<int>(result) : 100;
    });
    ASSERT_TRUE(waitersAsleep(page, 1));
    const kvtest::ChildResult dead = kvtest::runInChild([&] {
        pthread_mutex_lock(page.mutex());
        page.word(1) = 1;
        page.condition()->broadcast();
        return 0; // leaves without unlocking
    });
    EXPECT_TRUE(dead.exited);
    waiter.join();
    EXPECT_EQ(outcome, static_cast<int>(ConditionWait::Woken));
    EXPECT_EQ(pthread_mutex_lock(page.mutex()), 0) << "the mutex was left inconsistent";
    pthread_mutex_unlock(page.mutex());
}

} // namespace
