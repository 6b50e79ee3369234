// Socket helpers over a real local stream connection. What the bool functions
// give for a bad descriptor is checked with their results (tests/abi).
#include <fcntl.h>
#include <pthread.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "TestSupport.h" // the standard and POSIX headers the suites share
#include "korvane/io.h"

namespace {

TEST(Socket, ReadinessThroughSignalsLinkStateAndTimeOuts) {
    int ends[2] = {-1, -1}; // a connected local pair, closed at the end
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    const int near = ends[0], far = ends[1];
    int error = 1234;
    EXPECT_FALSE(os_socket_readable(near, 30, &error));
    EXPECT_EQ(error, 1234); // a time-out is not an error
    // Live and quiet: not broken, answered at once, never by a receive that would block.
    const auto quiet = [&] { return int(os_socket_is_link_broken(near)); };
    EXPECT_EQ(kvtest::runInChild(quiet, std::chrono::seconds(10)).exitCode, 0) << "killed when a receive waits";
    EXPECT_TRUE(os_socket_writable(far, 100, &error));
    // Signals keep arriving before the data does: each interrupted select must
    // be resumed, not reported as "not readable".
    static std::atomic<int> interruptions{0};
    struct sigaction action = {}, previous;
    action.sa_handler = [](int) { ++interruptions; }; // without SA_RESTART
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);
    std::thread sender([&, waiter = pthread_self()] {
        for (int i = 0; i < 10; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            pthread_kill(waiter, SIGUSR1);
        }
        EXPECT_EQ(send(far, "abc", 3, 0), 3);
    });
    EXPECT_TRUE(os_socket_readable(near, 10000, &error));
    sender.join();
    sigaction(SIGUSR1, &previous, nullptr);
    EXPECT_GE(interruptions.load(), 1);
    ASSERT_EQ(shutdown(far, SHUT_WR), 0);
    EXPECT_FALSE(os_socket_is_link_broken(near)); // shut down, but data still to read: peeked, not taken
    char received[4];
    EXPECT_EQ(recv(near, received, sizeof received, MSG_DONTWAIT), 3);
    EXPECT_TRUE(os_socket_is_link_broken(near));
    ASSERT_EQ(fcntl(near, F_SETFL, O_NONBLOCK), 0);
    for (char block[4096] = {}; write(near, block, sizeof block) > 0;) {
    }
    EXPECT_FALSE(os_socket_writable(near, 30, &error)); // full
    const int closed = dup(far);
    EXPECT_EQ(os_socket_close(closed), 0); // now a number that is no descriptor: select fails
    EXPECT_FALSE(os_socket_writable(closed, 10, &error)); // one readiness test serves both
    EXPECT_EQ(error, EBADF);
    EXPECT_FALSE(os_socket_readable(closed, 10, nullptr));
    EXPECT_EQ(os_socket_close(closed), -1);
    EXPECT_EQ(os_socket_get_errno_code(), EBADF);
    const auto stored = [&](int option) {
        timeval value = {-1, -1};
        socklen_t length = sizeof value;
        EXPECT_EQ(getsockopt(near, SOL_SOCKET, option, &value, &length), 0);
        return uint64_t(value.tv_sec) * 1000000 + uint64_t(value.tv_usec);
    };
    // The send time-out is a second longer, so the two options cannot be
    // mixed up; 0 comes last, as it must clear what was set before.
    for (const uint64_t milliseconds : {2240, 0}) {
        EXPECT_EQ(os_socket_set_recv_timeout(near, milliseconds), 0);
        EXPECT_EQ(os_socket_set_send_timeout(near, milliseconds + 1000), 0);
        EXPECT_EQ(stored(SO_RCVTIMEO), milliseconds * 1000);
        EXPECT_EQ(stored(SO_SNDTIMEO), milliseconds * 1000 + 1000000);
    }
    close(near);
    close(far);
}

} // namespace
