// Socket helpers over real sockets: local socketpairs and loopback TCP.
#include <arpa/inet.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <thread>

#include "TestSupport.h"
#include "korvane/io.h"

namespace {

// A loopback TCP connection, closed at the end of the test.
struct Connection {
    int near = socket(AF_INET, SOCK_STREAM, 0), far = -1;
    Connection() {
        sockaddr_in address {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        const int listener = socket(AF_INET, SOCK_STREAM, 0);
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(listener, 1), 0);
        EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
        EXPECT_EQ(connect(near, reinterpret_cast<sockaddr*>(&address), length), 0);
        far = accept(listener, nullptr, nullptr);
        close(listener);
    }
    ~Connection() {
        close(near);
        close(far);
    }
};

TEST(SocketReadiness, ReadyWithinTheTimeOutOnlyAndErrorsReported) {
    Connection pair;
    int error = 1234;
    EXPECT_FALSE(os_socket_readable(-1, 100, &error));
    EXPECT_FALSE(os_socket_writable(-1, 100, &error));
    EXPECT_FALSE(os_socket_readable(pair.near, 30, &error)); // a time-out is not an error
    EXPECT_TRUE(os_socket_writable(pair.far, 100, &error));
    ASSERT_EQ(write(pair.far, "x", 1), 1);
    EXPECT_TRUE(os_socket_readable(pair.near, 2000, &error));
    ASSERT_EQ(fcntl(pair.far, F_SETFL, O_NONBLOCK), 0);
    for (char block[4096] = {}; write(pair.far, block, sizeof block) > 0;) {
    }
    EXPECT_FALSE(os_socket_writable(pair.far, 30, &error));
    EXPECT_EQ(error, 1234);
    const int closed = dup(pair.far);
    close(closed); // now a number that is no descriptor: select fails
    for (auto ready : {os_socket_readable, os_socket_writable}) {
        EXPECT_FALSE(ready(closed, 10, &error));
        EXPECT_EQ(error, EBADF);
        error = 0;
    }
    EXPECT_FALSE(os_socket_readable(closed, 10, nullptr));
}

// Signals keep arriving before the data does: each interrupted select must
// be resumed, not reported as "not readable".
TEST(SocketReadiness, InterruptedWaitIsResumed) {
    Connection pair;
    static std::atomic<int> interruptions{0};
    struct sigaction action = {}, previous;
    action.sa_handler = [](int) { ++interruptions; }; // without SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    std::thread signaller([&, waiter = pthread_self()] {
        for (int i = 0; i < 10; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            pthread_kill(waiter, SIGUSR1);
        }
        EXPECT_EQ(write(pair.far, "x", 1), 1);
    });
    int error = 0;
    EXPECT_TRUE(os_socket_readable(pair.near, 10000, &error));
    signaller.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_EQ(error, 0);
    EXPECT_GE(interruptions.load(), 1);
}

TEST(SocketLink, BrokenOnlyOnceThePeerShutDownAndEverythingWasRead) {
    Connection tcp;
    // Live and quiet: answered at once, never by a receive that would block.
    const kvtest::ChildResult quiet =
        kvtest::runInChild([&] { return os_socket_is_link_broken(tcp.near) ? 1 : 0; }, std::chrono::seconds(10));
    EXPECT_FALSE(quiet.timedOut) << "a receive waited for data";
    EXPECT_EQ(quiet.exitCode, 0);
    ASSERT_EQ(send(tcp.far, "abcdef", 6, 0), 6);
    ASSERT_TRUE(os_socket_readable(tcp.near, 2000, nullptr));
    EXPECT_FALSE(os_socket_is_link_broken(tcp.near)); // live with data
    ASSERT_EQ(shutdown(tcp.far, SHUT_WR), 0);
    EXPECT_FALSE(os_socket_is_link_broken(tcp.near)); // shut down, data still to read
    char received[8] = {};
    EXPECT_EQ(recv(tcp.near, received, sizeof received, MSG_DONTWAIT), 6);
    EXPECT_STREQ(received, "abcdef");
    EXPECT_TRUE(os_socket_readable(tcp.near, 2000, nullptr));
    EXPECT_TRUE(os_socket_is_link_broken(tcp.near));
}

TEST(SocketTimeouts, AreStoredAsSecondsAndMicroseconds) {
    Connection pair;
    auto stored = [&](int option) {
        timeval value = {-1, -1};
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(pair.near, SOL_SOCKET, option, &value, &length), 0);
        return static_cast<uint64_t>(value.tv_sec) * 1000000 + static_cast<uint64_t>(value.tv_usec);
    };
    // The send time-out is a second longer, so the two options cannot be
    // mixed up; 0 comes last, as it must clear what was set before.
    for (const uint64_t milliseconds : {1500, 2240, 60000, 0}) {
        EXPECT_EQ(os_socket_set_recv_timeout(pair.near, milliseconds), 0);
        EXPECT_EQ(os_socket_set_send_timeout(pair.near, milliseconds + 1000), 0);
        EXPECT_EQ(stored(SO_RCVTIMEO), milliseconds * 1000);
        EXPECT_EQ(stored(SO_SNDTIMEO), milliseconds * 1000 + 1000000);
    }
    EXPECT_EQ(os_socket_set_recv_timeout(-1, 10), -1);
    EXPECT_EQ(os_socket_set_send_timeout(-1, 10), -1);
}

TEST(SocketPassThrough, GiveThePlatformResults) {
    EXPECT_TRUE(os_socket_init_library());
    EXPECT_TRUE(os_socket_clear_library());
    Connection pair;
    ASSERT_EQ(write(pair.far, "hello", 5), 5);
    int pending = 0;
    EXPECT_EQ(os_socket_ioctl(pair.near, FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 5);
    EXPECT_EQ(os_socket_close(-1), -1);
    EXPECT_EQ(os_socket_get_errno_code(), EBADF);
    const int copy = dup(pair.near);
    EXPECT_EQ(os_socket_close(copy), 0);
    EXPECT_EQ(os_socket_close(copy), -1);
    os_socket_disable_udp_unreached_report(pair.near);
}

} // namespace
