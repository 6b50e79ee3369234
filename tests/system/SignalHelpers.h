// Helpers for tests of calls that signals interrupt: a handler that counts
// deliveries, and a thread that keeps signalling a target until it is
// stopped, so the signal cannot miss a call that starts late.
#ifndef KORVANE_TESTS_SIGNAL_HELPERS_H
#define KORVANE_TESTS_SIGNAL_HELPERS_H

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <ctime>
#include <mutex>
#include <thread>

namespace sigtest {

inline long long nanoseconds(const struct timespec& value) {
    return static_cast<long long>(value.tv_sec) * 1000000000LL + value.tv_nsec;
}

// Installs a counting handler without SA_RESTART for the scope's lifetime.
class SignalCatcher {
public:
    explicit SignalCatcher(int signal) : m_signal(signal) {
        counter().store(0);
        struct sigaction action;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = [](int) { counter().fetch_add(1); };
        sigemptyset(&action.sa_mask);
        sigaction(m_signal, &action, &m_previous);
    }
    ~SignalCatcher() { sigaction(m_signal, &m_previous, nullptr); }
    SignalCatcher(const SignalCatcher&) = delete;
    SignalCatcher& operator=(const SignalCatcher&) = delete;
    int count() const { return counter().load(); }

private:
    static std::atomic<int>& counter() {
        static std::atomic<int> deliveries{0};
        return deliveries;
    }
    int m_signal;
    struct sigaction m_previous;
};

// Sends `signal` to `target` every `period` until destroyed.
class Interrupter {
public:
    Interrupter(pthread_t target, int signal, std::chrono::milliseconds period)
        : m_thread([this, target, signal, period] {
              std::unique_lock<std::mutex> lock(m_mutex);
              while (!m_cv.wait_for(lock, period, [this] { return m_stop; }))
                  pthread_kill(target, signal);
          }) {}
    ~Interrupter() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_stop = true;
        }
        m_cv.notify_one();
        m_thread.join();
    }
    Interrupter(const Interrupter&) = delete;
    Interrupter& operator=(const Interrupter&) = delete;

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    bool m_stop = false;
    std::thread m_thread;
};

} // namespace sigtest

#endif
