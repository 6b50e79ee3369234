// The futex-based shared semaphore and condition against glibc's sem_t and
// pthread_cond_t: an uncontended post and take, and a ping-pong between two
// threads (one wake-up and one sleep per hand-over).
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <semaphore.h>

#include <thread>

#include "os/sync/SharedCondition.h"
#include "os/sync/SharedSemaphore.h"
#include "os/sync/SyncInternal.h"

using korvane::sync::SharedCondition;
using korvane::sync::SharedSemaphore;

namespace {

// The shared primitives sit 4 bytes into an 8-byte-aligned block, as in the
// named object memories.
struct alignas(8) Block {
    unsigned char bytes[128];
    template <typename T>
    T* at(size_t offset) {
        return reinterpret_cast<T*>(bytes + offset);
    }
};

void SharedSemaphorePostAndTake(benchmark::State& state) {
    Block block{};
    SharedSemaphore* semaphore = block.at<SharedSemaphore>(4);
    semaphore->initialise(0);
    for (auto _ : state) {
        semaphore->post();
        semaphore->wait();
    }
}
BENCHMARK(SharedSemaphorePostAndTake);

void GlibcSemaphorePostAndTake(benchmark::State& state) {
    sem_t semaphore;
    sem_init(&semaphore, 1, 0);
    for (auto _ : state) {
        sem_post(&semaphore);
        sem_wait(&semaphore);
    }
    sem_destroy(&semaphore);
}
BENCHMARK(GlibcSemaphorePostAndTake);

template <typename Post, typename Take>
void pingPong(benchmark::State& state, Post post, Take take) {
    const int64_t rounds = state.max_iterations;
    std::thread partner([&] {
        for (int64_t i = 0; i < rounds; ++i) {
            take(1);
            post(0);
        }
    });
    for (auto _ : state) {
        post(1);
        take(0);
    }
    partner.join();
}

void SharedSemaphorePingPong(benchmark::State& state) {
    Block block{};
    SharedSemaphore* semaphores[2] = {block.at<SharedSemaphore>(4), block.at<SharedSemaphore>(52)};
    semaphores[0]->initialise(0);
    semaphores[1]->initialise(0);
    pingPong(state, [&](int side) { semaphores[side]->post(); }, [&](int side) { semaphores[side]->wait(); });
}
BENCHMARK(SharedSemaphorePingPong)->UseRealTime();

void GlibcSemaphorePingPong(benchmark::State& state) {
    sem_t semaphores[2];
    sem_init(&semaphores[0], 1, 0);
    sem_init(&semaphores[1], 1, 0);
    pingPong(state, [&](int side) { sem_post(&semaphores[side]); }, [&](int side) { sem_wait(&semaphores[side]); });
    sem_destroy(&semaphores[0]);
    sem_destroy(&semaphores[1]);
}
BENCHMARK(GlibcSemaphorePingPong)->UseRealTime();

// A turn word handed back and forth under a robust process-shared mutex.
template <typename Wait, typename Wake>
void turnTaking(benchmark::State& state, pthread_mutex_t* mutex, Wait wait, Wake wake) {
    int turn = 0;
    const int64_t rounds = state.max_iterations;
    auto play = [&](int side) {
        korvane::sync::robustLock(mutex);
        while (turn != side)
            wait();
        turn = 1 - side;
        wake();
        pthread_mutex_unlock(mutex);
    };
    std::thread partner([&] {
        for (int64_t i = 0; i < rounds; ++i)
            play(1);
    });
    for (auto _ : state)
        play(0);
    partner.join();
}

void SharedConditionTurnTaking(benchmark::State& state) {
    Block block{};
    pthread_mutex_t mutex;
    korvane::sync::initialiseMutex(&mutex, PTHREAD_MUTEX_NORMAL, true);
    SharedCondition* condition = block.at<SharedCondition>(4);
    condition->initialise();
    turnTaking(state, &mutex, [&] { condition->wait(&mutex); }, [&] { condition->signal(); });
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(SharedConditionTurnTaking)->UseRealTime();

void GlibcConditionTurnTaking(benchmark::State& state) {
    pthread_mutex_t mutex;
    korvane::sync::initialiseMutex(&mutex, PTHREAD_MUTEX_NORMAL, true);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_cond_t condition;
    pthread_cond_init(&condition, &attributes);
    turnTaking(state, &mutex, [&] { pthread_cond_wait(&condition, &mutex); }, [&] { pthread_cond_signal(&condition); });
    pthread_cond_destroy(&condition);
    pthread_condattr_destroy(&attributes);
    pthread_mutex_destroy(&mutex);
}
BENCHMARK(GlibcConditionTurnTaking)->UseRealTime();

} // namespace
