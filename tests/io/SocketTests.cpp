// Socket helpers over real sockets: socketpairs and loopback TCP.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "SignalHelpers.h"
#include "korvane/io.h"

namespace {

using namespace std::chrono_literals;

// Owns a descriptor for the length of a test.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : m_fd(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return m_fd; }
    void reset() {
        if (m_fd >= 0)
            close(m_fd);
        m_fd = -1;
    }

private:
    int m_fd;
};

// A connected pair of local stream sockets.
struct StreamPair {
    StreamPair() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0)
            throw std::runtime_error("socketpair failed");
        a = fds[0];
        b = fds[1];
    }
    ~StreamPair() {
        close(a);
        close(b);
    }
    StreamPair(const StreamPair&) = delete;
    StreamPair& operator=(const StreamPair&) = delete;
    int a;
    int b;
};

// A TCP connection over the loopback interface: client and accepted server.
class LoopbackConnection : public ::testing::Test {
protected:
    void SetUp() override {
        Descriptor listener(socket(AF_INET, SOCK_STREAM, 0));
        ASSERT_GE(listener.get(), 0);
        struct sockaddr_in address;
        std::memset(&address, 0, sizeof address);
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        address.sin_port = 0;
        ASSERT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(listen(listener.get(), 1), 0);
        socklen_t length = sizeof address;
        ASSERT_EQ(getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
        m_client = socket(AF_INET, SOCK_STREAM, 0);
        ASSERT_GE(m_client, 0);
        ASSERT_EQ(connect(m_client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        m_server = accept(listener.get(), nullptr, nullptr);
        ASSERT_GE(m_server, 0);
    }
    void TearDown() override {
        closeServer();
        if (m_client >= 0)
            close(m_client);
    }
    void closeServer() {
        if (m_server >= 0)
            close(m_server);
        m_server = -1;
    }

    int m_client = -1;
    int m_server = -1;
};

TEST(SocketLibrary, StartAndStopAlwaysSucceed) {
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(os_socket_init_library());
        EXPECT_TRUE(os_socket_clear_library());
    }
}

TEST(SocketPassThrough, ReportsErrnoIoctlAndClose) {
    StreamPair pair;
    ASSERT_EQ(write(pair.a, "hello", 5), 5);
    int pending = 0;
    EXPECT_EQ(os_socket_ioctl(pair.b, FIONREAD, &pending), 0);
    EXPECT_EQ(pending, 5);
    EXPECT_EQ(os_socket_ioctl(-1, FIONREAD, &pending), -1);
    EXPECT_EQ(os_socket_get_errno_code(), EBADF);

    const int descriptor = dup(pair.a);
    ASSERT_GE(descriptor, 0);
    EXPECT_EQ(os_socket_close(descriptor), 0);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    EXPECT_EQ(os_socket_close(-1), -1);
    os_socket_disable_udp_unreached_report(pair.a); // nothing to do here
}

TEST(SocketReadiness, NoSocketIsNeverReadyAndLeavesTheErrorAlone) {
    int error = 1234;
    EXPECT_FALSE(os_socket_readable(-1, 100, &error));
    EXPECT_FALSE(os_socket_writable(-1, 100, &error));
    EXPECT_EQ(error, 1234);
}

TEST(SocketReadiness, ReadableOnlyOnceDataArrives) {
    StreamPair pair;
    int error = 1234;
    EXPECT_FALSE(os_socket_readable(pair.b, 30, &error));
    EXPECT_EQ(error, 1234); // a time-out is not an error
    ASSERT_EQ(write(pair.a, "x", 1), 1);
    EXPECT_TRUE(os_socket_readable(pair.b, 2000, &error));
    EXPECT_TRUE(os_socket_readable(pair.b, 0, nullptr));
}

TEST(SocketReadiness, WaitsForDataSentLater) {
    StreamPair pair;
    std::thread sender([&] {
        std::this_thread::sleep_for(50ms);
        write(pair.a, "x", 1);
    });
    EXPECT_TRUE(os_socket_readable(pair.b, 5000, nullptr));
    sender.join();
}

TEST(SocketReadiness, WritableUntilTheSendBufferIsFull) {
    StreamPair pair;
    EXPECT_TRUE(os_socket_writable(pair.a, 100, nullptr));
    ASSERT_EQ(fcntl(pair.a, F_SETFL, O_NONBLOCK), 0);
    char block[4096] = {};
    while (write(pair.a, block, sizeof block) > 0) {
    }
    ASSERT_EQ(errno, EAGAIN);
    int error = 1234;
    EXPECT_FALSE(os_socket_writable(pair.a, 30, &error));
    EXPECT_EQ(error, 1234);
}

TEST(SocketReadiness, SelectFailureIsReportedThroughTheErrorOutput) {
    const int descriptor = dup(STDIN_FILENO);
    ASSERT_GE(descriptor, 0);
    close(descriptor); // a number that is now no descriptor at all
    int error = 0;
    EXPECT_FALSE(os_socket_readable(descriptor, 10, &error));
    EXPECT_EQ(error, EBADF);
    error = 0;
    EXPECT_FALSE(os_socket_writable(descriptor, 10, &error));
    EXPECT_EQ(error, EBADF);
    EXPECT_FALSE(os_socket_readable(descriptor, 10, nullptr));
}

// Signals keep arriving while the test waits for data sent later: each
// interrupted select must be resumed, not reported as "not readable".
TEST(SocketReadiness, InterruptedWaitIsResumed) {
    StreamPair pair;
    sigtest::SignalCatcher catcher(SIGUSR1);
    std::thread sender([&] {
        std::this_thread::sleep_for(200ms);
        write(pair.a, "x", 1);
    });
    bool readable = false;
    int error = 0;
    {
        sigtest::Interrupter interrupter(pthread_self(), SIGUSR1, 20ms);
        readable = os_socket_readable(pair.b, 10000, &error);
    }
    sender.join();
    EXPECT_TRUE(readable);
    EXPECT_EQ(error, 0);
    EXPECT_GE(catcher.count(), 1);
}

TEST_F(LoopbackConnection, LiveQuietPeerIsNotBroken) {
    EXPECT_FALSE(os_socket_is_link_broken(m_client));
    EXPECT_FALSE(os_socket_readable(m_client, 20, nullptr));
}

TEST_F(LoopbackConnection, ClosedPeerIsReadableAndBroken) {
    closeServer();
    EXPECT_TRUE(os_socket_readable(m_client, 2000, nullptr));
    EXPECT_TRUE(os_socket_is_link_broken(m_client));
}

TEST_F(LoopbackConnection, PendingDataFromALivePeerIsNotBrokenAndStaysQueued) {
    ASSERT_EQ(send(m_server, "abcdef", 6, 0), 6);
    ASSERT_TRUE(os_socket_readable(m_client, 2000, nullptr));
    EXPECT_FALSE(os_socket_is_link_broken(m_client));
    char received[8] = {};
    EXPECT_EQ(recv(m_client, received, sizeof received, MSG_DONTWAIT), 6);
    EXPECT_STREQ(received, "abcdef");
}

// Data still queued hides the shutdown until it has been read.
TEST_F(LoopbackConnection, ClosedPeerWithPendingDataIsNotYetBroken) {
    ASSERT_EQ(send(m_server, "xy", 2, 0), 2);
    closeServer();
    ASSERT_TRUE(os_socket_readable(m_client, 2000, nullptr));
    EXPECT_FALSE(os_socket_is_link_broken(m_client));
    char received[4] = {};
    EXPECT_EQ(recv(m_client, received, sizeof received, 0), 2);
    EXPECT_TRUE(os_socket_is_link_broken(m_client));
}

struct TimeoutCase {
    uint64_t milliseconds;
    time_t seconds;
    suseconds_t microseconds;
};

class SocketTimeouts : public ::testing::TestWithParam<TimeoutCase> {};

TEST_P(SocketTimeouts, AreStoredAsSecondsAndMicroseconds) {
    StreamPair pair;
    EXPECT_EQ(os_socket_set_recv_timeout(pair.a, 777), 0); // so 0 has something to clear
    EXPECT_EQ(os_socket_set_send_timeout(pair.a, 777), 0);
    EXPECT_EQ(os_socket_set_recv_timeout(pair.a, GetParam().milliseconds), 0);
    EXPECT_EQ(os_socket_set_send_timeout(pair.a, GetParam().milliseconds), 0);
    for (int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
        struct timeval value = {-1, -1};
        socklen_t length = sizeof value;
        ASSERT_EQ(getsockopt(pair.a, SOL_SOCKET, option, &value, &length), 0);
        EXPECT_EQ(value.tv_sec, GetParam().seconds);
        EXPECT_EQ(value.tv_usec, GetParam().microseconds);
    }
}

INSTANTIATE_TEST_SUITE_P(Table, SocketTimeouts,
                         ::testing::Values(TimeoutCase{1500, 1, 500000}, TimeoutCase{0, 0, 0},
                                           TimeoutCase{2240, 2, 240000}, TimeoutCase{60000, 60, 0}));

TEST(SocketTimeouts, ReceiveGivesUpWithEagain) {
    StreamPair pair;
    ASSERT_EQ(os_socket_set_recv_timeout(pair.b, 100), 0);
    const auto start = std::chrono::steady_clock::now();
    char byte;
    EXPECT_EQ(recv(pair.b, &byte, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 90ms);
}

TEST(SocketTimeouts, BadSocketIsRefused) {
    EXPECT_EQ(os_socket_set_recv_timeout(-1, 10), -1);
    EXPECT_EQ(os_socket_set_send_timeout(-1, 10), -1);
}

} // namespace
