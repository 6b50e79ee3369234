// Serial ports: raw 8-bit configuration, and reads and writes through POSIX
// asynchronous I/O with short internal time-outs. The reader can hunt the
// byte stream for a frame header and return exactly one frame.
#include <aio.h>
#include <fcntl.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "common/BoolExport.h"
#include "common/UniqueDescriptor.h"
#include "os/io/FrameReader.h"
#include "korvane/io.h"

namespace {

// The port being opened: closed on a refusal, handed to the caller on success.
using PortGuard = korvane::UniqueDescriptor<close>;

// Parity codes as existing callers pass them. Code 2 clears the stop-bit
// flag too, but the stop-bit code is applied afterwards and decides it.
bool applyParity(struct termios& settings, uint8_t parity) {
    switch (parity) {
    case 0:
        settings.c_cflag &= ~PARENB;
        settings.c_iflag &= ~INPCK;
        return true;
    case 1:
        settings.c_cflag |= PARENB | PARODD;
        settings.c_iflag |= INPCK;
        return true;
    case 2:
        settings.c_cflag &= ~(PARENB | CSTOPB);
        settings.c_iflag |= INPCK;
        return true;
    case 4:
        settings.c_cflag |= PARENB;
        settings.c_cflag &= ~PARODD;
        settings.c_iflag |= INPCK;
        return true;
    default:
        return false;
    }
}

bool applyStopBits(struct termios& settings, uint8_t stopbits) {
    switch (stopbits) {
    case 0:
        settings.c_cflag &= ~CSTOPB;
        return true;
    case 1:
        settings.c_cflag |= CSTOPB;
        return true;
    default:
        return false;
    }
}

// No line editing, signals, echo, flow control or output processing; reads
// return at once with whatever is there. Other bits keep the device's values.
void applyRawMode(struct termios& settings) {
    settings.c_lflag &= ~(ISIG | ICANON | ECHO | ECHOE);
    settings.c_cc[VTIME] = 0;
    settings.c_cc[VMIN] = 0;
    settings.c_iflag &= ~(INLCR | IGNCR | ICRNL | IXON | IXANY | IXOFF);
    settings.c_oflag &= ~(OPOST | ONLCR | OCRNL);
}

// Rates the termios constants cannot express are reached through the
// driver's custom divisor, where the driver offers one.
void applyCustomDivisor(int port, int baud) {
    struct serial_struct serial;
    std::memset(&serial, 0, sizeof serial);
    // A zero rate has no divisor: the driver is left as it is rather than
    // divided by zero.
    if (baud == 0 || ioctl(port, TIOCGSERIAL, &serial) != 0)
        return;
    if (serial.baud_base > baud) {
        serial.flags = ASYNC_SPD_CUST | ASYNC_LOW_LATENCY; // replaces the old flags
        serial.custom_divisor = static_cast<int>(static_cast<unsigned>(serial.baud_base) / static_cast<unsigned>(baud));
        ioctl(port, TIOCSSERIAL, &serial);
    }
}

// Each asynchronous transfer gets one 5 ms slice to complete.
constexpr struct timespec kTransferSlice = {0, 5000000};

// Cancels a request and waits, without a time limit, for one the cancel did
// not stop (already begun, or the cancel itself failed): its buffer and
// control block must outlive it. A cancelled request no longer reads as in
// progress, so it ends the wait at once.
void cancelAndAwait(int port, struct aiocb& request) {
    aio_cancel(port, &request);
    const struct aiocb* const list[] = {&request};
    while (aio_error(&request) == EINPROGRESS)
        aio_suspend(list, 1, nullptr);
    aio_return(&request);
}

using korvane::io::Transfer;

// Starts one asynchronous read or write of `length` bytes at `buffer` and
// waits for it in 5 ms slices. A slice that ends without completion (time-out
// or signal) abandons the request: it is cancelled, and the caller reports
// failure. Existing callers expect this tight limit of the port.
Transfer transferInSlices(int port, int opcode, void* buffer, size_t length) {
    struct aiocb request;
    std::memset(&request, 0, sizeof request);
    request.aio_fildes = port;
    request.aio_lio_opcode = opcode;
    request.aio_buf = buffer;
    request.aio_nbytes = length;
    request.aio_offset = 0;
    request.aio_sigevent.sigev_notify = SIGEV_NONE;
    const int started = opcode == LIO_READ ? aio_read(&request) : aio_write(&request);
    if (started != 0)
        return Transfer{false, -1};
    const struct aiocb* const list[] = {&request};
    while (aio_error(&request) == EINPROGRESS) {
        if (aio_suspend(list, 1, &kTransferSlice) == -1) {
            cancelAndAwait(port, request);
            return Transfer{true, -1};
        }
    }
    return Transfer{false, aio_return(&request)};
}

} // namespace

int os_serial_open(const char* path, int baud, uint8_t parity, uint8_t stopbits, speed_t speed) {
    if (path == nullptr)
        return -1;
    PortGuard port(open(path, O_RDWR | O_NOCTTY | O_APPEND | O_NONBLOCK));
    if (port.get() == -1)
        return -1;
    struct termios settings;
    std::memset(&settings, 0, sizeof settings);
    if (tcgetattr(port.get(), &settings) != 0) {
        puts("tcgetattr failed");
        return -1;
    }
    settings.c_cflag &= ~CSIZE;
    settings.c_cflag |= CS8 | CREAD | CLOCAL;
    // An unsupported parity is reported first but refused only after the
    // stop bits, so a caller with both wrong sees both messages.
    const bool parityAccepted = applyParity(settings, parity);
    if (!parityAccepted)
        puts("Unsupported parity");
    if (!applyStopBits(settings, stopbits)) {
        puts("Unsupported stopbits");
        return -1;
    }
    if (!parityAccepted)
        return -1;
    applyRawMode(settings);
    cfsetispeed(&settings, speed);
    cfsetospeed(&settings, speed);
    if (tcsetattr(port.get(), TCSANOW, &settings) != 0) {
        puts("tcsetattr failed");
        return -1;
    }
    applyCustomDivisor(port.get(), baud);
    tcflush(port.get(), TCIOFLUSH);
    return port.release();
}

void os_serial_close(int* port) {
    if (port == nullptr)
        return;
    if (*port != -1)
        close(*port);
    *port = -1;
}

int os_serial_purge(int port, int queues) {
    // Indexed by the two queue bits; neither bit gives a selector the
    // platform rejects, so the caller sees tcflush's failure.
    static const int kSelectors[] = {-1, TCIFLUSH, TCOFLUSH, TCIOFLUSH};
    return tcflush(port, kSelectors[queues & 3]);
}

KORVANE_BOOL_EXPORT(os_serial_select, (int port, int milliseconds)) {
    if (port < 0 || port >= FD_SETSIZE)
        return false;
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(port, &readable);
    struct timeval timeout;
    timeout.tv_sec = milliseconds / 1000;
    timeout.tv_usec = (milliseconds % 1000) * 1000;
    if (select(port + 1, &readable, nullptr, nullptr, &timeout) < 1)
        return false;
    return FD_ISSET(port, &readable) != 0;
}

int os_serial_write(int port, const void* data, int size) {
    if (port == -1 || size < 0 || (data == nullptr && size > 0))
        return -1;
    // The request works on a private copy, so the caller's data may change
    // as soon as the call returns.
    std::unique_ptr<unsigned char[]> copy(new (std::nothrow) unsigned char[static_cast<size_t>(size) + 1]);
    if (!copy)
        return -1;
    if (size > 0)
        std::memcpy(copy.get(), data, static_cast<size_t>(size));
    const Transfer written = transferInSlices(port, LIO_WRITE, copy.get(), static_cast<size_t>(size));
    return written.abandoned ? -1 : static_cast<int>(written.result);
}

namespace {

// The port's bytes, received in asynchronous transfers of one slice each.
class PortSource : public korvane::io::ByteSource {
public:
    explicit PortSource(int port) : m_port(port) {}
    Transfer receive(unsigned char* buffer, size_t length) override {
        return transferInSlices(m_port, LIO_READ, buffer, length);
    }
    bool readable(int milliseconds) override { return os_serial_select(m_port, milliseconds); }

private:
    const int m_port;
};

} // namespace

int os_serial_read(int port, void* buffer, int size, const void* header, int header_length, int milliseconds) {
    if (port == -1 || header_length > size)
        return -1;
    if (size < 0 || header_length < 0 || (buffer == nullptr && size > 0))
        return -1;
    PortSource source(port);
    korvane::io::FrameReader reader(source, size, static_cast<const unsigned char*>(header), header_length);
    if (!reader.usable())
        return -1;
    return reader.read(static_cast<unsigned char*>(buffer), milliseconds);
}
