// Serial ports over a real pseudo-terminal pair: the slave is opened with
// os_serial_open, the master is driven by the test.
#include <dirent.h>
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "PseudoTerminal.h"
#include "TestSupport.h"
#include "korvane/io.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<unsigned char>;

const Bytes kHeader = {0xAA, 0x55};
constexpr int kFrameSize = 8;
// Generous: the reader waits this long only when the line is quiet.
constexpr int kQuietMs = 300;

int openDescriptorCount() {
    int count = 0;
    DIR* dir = opendir("/proc/self/fd");
    while (dir != nullptr && readdir(dir) != nullptr)
        ++count;
    if (dir != nullptr)
        closedir(dir);
    return count;
}

// Every asynchronous transfer of the port gets one 5 ms slice. On a loaded
// machine a slice can run out, and the call then reports -1 by contract with
// the line in an unknown state. A scenario that came out as -1 is therefore
// started afresh (line purged, fed again) a bounded number of times; an
// implementation that really gives -1 still fails every attempt.
constexpr int kAttempts = 8;

// A pseudo-terminal with its slave opened as a serial port.
class SerialLine : public ::testing::Test {
protected:
    void SetUp() override {
        m_port = os_serial_open(m_line.slavePath(), 115200, 0, 0, B115200);
        ASSERT_NE(m_port, -1);
    }
    void TearDown() override { os_serial_close(&m_port); }

    // Reads one frame; `bytes` gets what was delivered.
    int readFrame(Bytes& bytes, const Bytes& header = kHeader, int size = kFrameSize, int quietMs = kQuietMs) {
        bytes.assign(static_cast<size_t>(size), 0xEE);
        const int result = os_serial_read(m_port, bytes.data(), size, header.empty() ? nullptr : header.data(),
                                          static_cast<int>(header.size()), quietMs);
        bytes.resize(result > 0 ? static_cast<size_t>(result) : 0);
        return result;
    }

    // Runs `scenario` until it gives something other than -1, at most
    // kAttempts times; `attempt` counts from 0.
    int untilNotAbandoned(const std::function<int(int attempt)>& scenario) {
        int result = -1;
        for (int attempt = 0; attempt < kAttempts && result == -1; ++attempt) {
            os_serial_purge(m_port, 3);
            result = scenario(attempt);
        }
        return result;
    }

    // Feeds `bytes` into the line, then reads one frame.
    int feedAndRead(const Bytes& bytes, Bytes& frame, const Bytes& header = kHeader, int quietMs = kQuietMs) {
        return untilNotAbandoned([&](int) { return m_line.send(bytes) ? readFrame(frame, header, kFrameSize, quietMs) : -2; });
    }

    iotest::PseudoTerminal m_line;
    int m_port = -1;
};

TEST_F(SerialLine, HuntsTheHeaderAcrossNoise) {
    Bytes frame;
    EXPECT_EQ(feedAndRead({0x01, 0x02, 0xAA, 0x55, 1, 2, 3, 4, 5, 6}, frame), kFrameSize);
    EXPECT_EQ(frame, (Bytes{0xAA, 0x55, 1, 2, 3, 4, 5, 6}));
}

TEST_F(SerialLine, HuntsAHeaderWhoseFirstByteIsRepeated) {
    Bytes frame;
    EXPECT_EQ(feedAndRead({0xAA, 0xAA, 0xAA, 0x55, 1, 2, 3, 4, 5, 6}, frame), kFrameSize);
    EXPECT_EQ(frame, (Bytes{0xAA, 0x55, 1, 2, 3, 4, 5, 6}));
}

TEST_F(SerialLine, GathersAFrameSplitOverSeveralWrites) {
    Bytes frame;
    const int result = untilNotAbandoned([&](int) {
        std::thread sender([this] {
            for (const Bytes& chunk : {Bytes{0x11, 0xAA}, Bytes{0x55, 1, 2}, Bytes{3}, Bytes{4, 5, 6}}) {
                std::this_thread::sleep_for(20ms);
                m_line.send(chunk);
            }
        });
        const int read = readFrame(frame, kHeader, kFrameSize, 5000);
        sender.join();
        return read;
    });
    EXPECT_EQ(result, kFrameSize);
    EXPECT_EQ(frame, (Bytes{0xAA, 0x55, 1, 2, 3, 4, 5, 6}));
}

TEST_F(SerialLine, ReturnsExactlyOneFrameAndLeavesTheNext) {
    Bytes first;
    Bytes second;
    int firstResult = -1;
    int secondResult = -1;
    untilNotAbandoned([&](int) {
        if (!m_line.send({0xAA, 0x55, 1, 2, 3, 4, 5, 6, 0xAA, 0x55, 7, 8, 9, 10, 11, 12}))
            return -2;
        firstResult = readFrame(first);
        secondResult = firstResult == -1 ? -1 : readFrame(second);
        return secondResult;
    });
    EXPECT_EQ(firstResult, kFrameSize);
    EXPECT_EQ(secondResult, kFrameSize);
    EXPECT_EQ(first, (Bytes{0xAA, 0x55, 1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(second, (Bytes{0xAA, 0x55, 7, 8, 9, 10, 11, 12}));
}

TEST_F(SerialLine, NoHeaderWithinTheFrameSizeFails) {
    ASSERT_TRUE(m_line.send({1, 2, 3, 4, 5, 6, 7, 8}));
    Bytes frame;
    EXPECT_EQ(readFrame(frame), -1);
}

// The size test comes before the header comparison, so a header ending
// exactly at byte `size` is missed (kept for existing callers).
TEST_F(SerialLine, HeaderEndingAtTheLastByteIsNotRecognised) {
    ASSERT_TRUE(m_line.send({1, 2, 3, 4, 5, 6, 0xAA, 0x55}));
    Bytes frame;
    EXPECT_EQ(readFrame(frame), -1);
}

TEST_F(SerialLine, SilenceGivesZeroWithoutAMessage) {
    Bytes frame;
    int result = -2;
    const std::string printed = kvtest::captureStdout(
        [&] { result = untilNotAbandoned([&](int) { return readFrame(frame, kHeader, kFrameSize, 50); }); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(printed, "");
}

TEST_F(SerialLine, PartOfAHeaderThenSilenceIsReportedAsTruncated) {
    Bytes frame;
    int result = -2;
    const std::string printed =
        kvtest::captureStdout([&] { result = feedAndRead({0xDE, 0xAD, 0xBE}, frame, {0xDE, 0xAD, 0xBE, 0xEF}, 100); });
    EXPECT_EQ(result, 0);
    EXPECT_EQ(printed, "The frame header may be truncated.\n");
}

TEST_F(SerialLine, SilenceAfterTheHeaderGivesAShortFrame) {
    Bytes frame;
    EXPECT_EQ(feedAndRead({0x07, 0xAA, 0x55, 1, 2}, frame, kHeader, 100), 4);
    EXPECT_EQ(frame, (Bytes{0xAA, 0x55, 1, 2}));
}

TEST_F(SerialLine, WithoutAHeaderGathersTheFrameSize) {
    Bytes frame;
    Bytes rest;
    int restResult = -1;
    const int result = untilNotAbandoned([&](int) {
        std::thread sender([this] {
            m_line.send({1, 2, 3, 4, 5});
            std::this_thread::sleep_for(30ms);
            m_line.send({6, 7, 8, 9});
        });
        const int read = readFrame(frame, {}, kFrameSize, 5000);
        sender.join();
        restResult = read == -1 ? -1 : readFrame(rest, {}, kFrameSize, 100);
        return restResult == -1 ? -1 : read;
    });
    EXPECT_EQ(result, kFrameSize);
    EXPECT_EQ(frame, (Bytes{1, 2, 3, 4, 5, 6, 7, 8}));
    EXPECT_EQ(restResult, 1);
    EXPECT_EQ(rest, (Bytes{9}));
}

TEST_F(SerialLine, RefusesBadArguments) {
    unsigned char buffer[8];
    EXPECT_EQ(os_serial_read(-1, buffer, 8, nullptr, 0, 10), -1);
    EXPECT_EQ(os_serial_read(m_port, buffer, 2, kHeader.data(), 3, 10), -1);
    EXPECT_EQ(os_serial_read(m_port, nullptr, 8, nullptr, 0, 10), -1);
    EXPECT_EQ(os_serial_read(m_port, buffer, -1, nullptr, -2, 10), -1);
    EXPECT_EQ(os_serial_write(-1, "x", 1), -1);
    EXPECT_EQ(os_serial_write(m_port, nullptr, 1), -1);
}

// An abandoned write may still have reached the line, so each attempt marks
// its frame; the far end must end with the frame of the attempt that
// succeeded, whole and unchanged.
TEST_F(SerialLine, WrittenFrameArrivesAtTheFarEnd) {
    Bytes frame = {0xAA, 0x55, 0x00, 0x0A, 0x0D, 0xFF, 0x11, 0x13};
    const int written = untilNotAbandoned([&](int attempt) {
        frame[2] = static_cast<unsigned char>(attempt);
        return os_serial_write(m_port, frame.data(), static_cast<int>(frame.size()));
    });
    EXPECT_EQ(written, 8);
    // Raw mode: no newline translation, no flow-control bytes taken out.
    const Bytes received = m_line.receive(frame.size() * kAttempts, 300);
    ASSERT_GE(received.size(), frame.size());
    EXPECT_EQ(received.size() % frame.size(), 0u);
    EXPECT_EQ(Bytes(received.end() - 8, received.end()), frame);
}

TEST_F(SerialLine, SelectSeesPendingData) {
    EXPECT_FALSE(os_serial_select(m_port, 20));
    ASSERT_TRUE(m_line.send({1}));
    EXPECT_TRUE(os_serial_select(m_port, 2000));
    EXPECT_FALSE(os_serial_select(-1, 20));
}

// Bit 0 is the input queue, bit 1 the output queue; with neither bit set
// the platform refuses the request.
TEST_F(SerialLine, PurgeSelectsTheQueuesByBit) {
    EXPECT_EQ(os_serial_purge(m_port, 0), -1);
    ASSERT_TRUE(m_line.send({1, 2, 3}));
    ASSERT_TRUE(os_serial_select(m_port, 2000));
    EXPECT_EQ(os_serial_purge(m_port, 2), 0);
    EXPECT_TRUE(os_serial_select(m_port, 0));
    EXPECT_EQ(os_serial_purge(m_port, 1), 0);
    EXPECT_FALSE(os_serial_select(m_port, 20));
    ASSERT_TRUE(m_line.send({4}));
    ASSERT_TRUE(os_serial_select(m_port, 2000));
    EXPECT_EQ(os_serial_purge(m_port, 3), 0);
    EXPECT_FALSE(os_serial_select(m_port, 20));
}

TEST(SerialClose, ClosesAndForgetsThePort) {
    iotest::PseudoTerminal line;
    int port = os_serial_open(line.slavePath(), 9600, 0, 0, B9600);
    ASSERT_NE(port, -1);
    const int descriptor = port;
    os_serial_close(&port);
    EXPECT_EQ(port, -1);
    EXPECT_EQ(fcntl(descriptor, F_GETFD), -1);
    os_serial_close(&port); // -1 stays -1
    EXPECT_EQ(port, -1);
    os_serial_close(nullptr);
}

TEST(SerialOpen, MissingDeviceFailsSilently) {
    int port = 0;
    const std::string printed =
        kvtest::captureStdout([&] { port = os_serial_open("/dev/kv-no-such-tty", 9600, 0, 0, B9600); });
    EXPECT_EQ(port, -1);
    EXPECT_EQ(printed, "");
    EXPECT_EQ(os_serial_open(nullptr, 9600, 0, 0, B9600), -1);
}

TEST(SerialOpen, NonTerminalIsRefusedWithItsMessage) {
    int port = 0;
    const std::string printed =
        kvtest::captureStdout([&] { port = os_serial_open("/dev/null", 9600, 0, 0, B9600); });
    EXPECT_EQ(port, -1);
    EXPECT_EQ(printed, "tcgetattr failed\n");
}

struct Refusal {
    uint8_t parity;
    uint8_t stopbits;
    const char* message;
};

class SerialOpenRefusal : public ::testing::TestWithParam<Refusal> {};

TEST_P(SerialOpenRefusal, PrintsItsMessagesAndClosesTheDevice) {
    iotest::PseudoTerminal line;
    const int before = openDescriptorCount();
    int port = 0;
    const std::string printed = kvtest::captureStdout(
        [&] { port = os_serial_open(line.slavePath(), 9600, GetParam().parity, GetParam().stopbits, B9600); });
    EXPECT_EQ(port, -1);
    EXPECT_EQ(printed, GetParam().message);
    EXPECT_EQ(openDescriptorCount(), before);
}

INSTANTIATE_TEST_SUITE_P(Table, SerialOpenRefusal,
                         ::testing::Values(Refusal{3, 0, "Unsupported parity\n"}, Refusal{5, 1, "Unsupported parity\n"},
                                           Refusal{0, 2, "Unsupported stopbits\n"},
                                           Refusal{3, 5, "Unsupported parity\nUnsupported stopbits\n"}));

struct LineSettings {
    uint8_t parity;
    uint8_t stopbits;
    bool inputCheck;
    bool oddParity;
    bool twoStopBits;
};

class SerialOpenSettings : public ::testing::TestWithParam<LineSettings> {};

TEST_P(SerialOpenSettings, ConfiguresARawEightBitLine) {
    const LineSettings& expected = GetParam();
    iotest::PseudoTerminal line;
    int port = os_serial_open(line.slavePath(), 9600, expected.parity, expected.stopbits, B9600);
    ASSERT_NE(port, -1);
    struct termios settings;
    ASSERT_EQ(tcgetattr(port, &settings), 0);
    EXPECT_EQ((settings.c_iflag & INPCK) != 0, expected.inputCheck);
    EXPECT_EQ((settings.c_cflag & PARODD) != 0, expected.oddParity);
    EXPECT_EQ((settings.c_cflag & CSTOPB) != 0, expected.twoStopBits);
    EXPECT_EQ(settings.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(settings.c_cflag & (CREAD | CLOCAL), static_cast<tcflag_t>(CREAD | CLOCAL));
    EXPECT_EQ(settings.c_lflag & (ISIG | ICANON | ECHO | ECHOE), 0u);
    EXPECT_EQ(settings.c_iflag & (INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF), 0u);
    EXPECT_EQ(settings.c_oflag & (OPOST | ONLCR | OCRNL), 0u);
    EXPECT_EQ(settings.c_cc[VMIN], 0);
    EXPECT_EQ(settings.c_cc[VTIME], 0);
    EXPECT_EQ(cfgetospeed(&settings), static_cast<speed_t>(B9600));
    EXPECT_EQ(cfgetispeed(&settings), static_cast<speed_t>(B9600));
    // A non-blocking descriptor that is not the controlling terminal.
    EXPECT_NE(fcntl(port, F_GETFL) & O_NONBLOCK, 0);
    os_serial_close(&port);
}

// The device keeps its settings between users: even parity must clear the
// odd-parity flag an earlier user left behind.
TEST(SerialOpen, EvenParityClearsAnEarlierOddSetting) {
    iotest::PseudoTerminal line;
    int port = os_serial_open(line.slavePath(), 9600, 1, 0, B9600);
    ASSERT_NE(port, -1);
    os_serial_close(&port);
    port = os_serial_open(line.slavePath(), 9600, 4, 0, B9600);
    ASSERT_NE(port, -1);
    struct termios settings;
    ASSERT_EQ(tcgetattr(port, &settings), 0);
    EXPECT_EQ(settings.c_cflag & PARODD, 0u);
    EXPECT_NE(settings.c_iflag & INPCK, 0u);
    os_serial_close(&port);
}

// Code 2 clears the two-stop-bit flag, but the stop-bit code decides it.
INSTANTIATE_TEST_SUITE_P(Table, SerialOpenSettings,
                         ::testing::Values(LineSettings{0, 0, false, false, false}, LineSettings{1, 0, true, true, false},
                                           LineSettings{2, 0, true, false, false}, LineSettings{2, 1, true, false, true},
                                           LineSettings{4, 1, true, false, true}, LineSettings{0, 1, false, false, true}));

} // namespace
