// Socket helpers over BSD sockets: time-outs, readiness tests with a
// time-out, and the test whether the peer has closed the connection.
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>

#include "common/BoolExport.h"
#include "korvane/io.h"

namespace {

struct timeval timevalFromMilliseconds(uint64_t milliseconds) {
    struct timeval value;
    value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    value.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
    return value;
}

int setTimeout(int socket, int option, uint64_t milliseconds) {
    const struct timeval value = timevalFromMilliseconds(milliseconds);
    return setsockopt(socket, SOL_SOCKET, option, &value, sizeof value);
}

enum class Readiness { Readable, Writable };

// The one readiness test behind os_socket_readable and os_socket_writable.
bool waitUntilReady(int socket, Readiness readiness, uint64_t milliseconds, int* error) {
    // select is given socket + 2 descriptors, so the set must hold that many
    // bits; descriptors beyond it cannot be watched this way.
    if (socket < 0 || socket + 2 > FD_SETSIZE)
        return false;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(socket, &set);
    fd_set* const readSet = readiness == Readiness::Readable ? &set : nullptr;
    fd_set* const writeSet = readiness == Readiness::Writable ? &set : nullptr;
    struct timeval timeout = timevalFromMilliseconds(milliseconds);
    int result;
    // One more descriptor than needed, as existing callers have always had.
    // After a signal Linux leaves the remaining time in `timeout`, so the
    // retry waits only for what is left.
    do {
        result = select(socket + 2, readSet, writeSet, nullptr, &timeout);
    } while (result == -1 && errno == EINTR);
    if (result == 0)
        return false;
    if (result < 0) {
        if (error != nullptr)
            *error = errno;
        return false;
    }
    return FD_ISSET(socket, &set) != 0;
}

} // namespace

KORVANE_BOOL_EXPORT(os_socket_init_library, (void)) {
    return true;
}

KORVANE_BOOL_EXPORT(os_socket_clear_library, (void)) {
    return true;
}

int os_socket_get_errno_code(void) {
    return errno;
}

int os_socket_ioctl(int socket, unsigned long request, void* argument) {
    return ioctl(socket, request, argument);
}

int os_socket_close(int socket) {
    return close(socket);
}

void os_socket_disable_udp_unreached_report(int) {
    // Only some platforms report unreachable UDP peers on later calls; on
    // this one there is nothing to switch off.
}

int os_socket_set_send_timeout(int socket, uint64_t milliseconds) {
    return setTimeout(socket, SO_SNDTIMEO, milliseconds);
}

int os_socket_set_recv_timeout(int socket, uint64_t milliseconds) {
    return setTimeout(socket, SO_RCVTIMEO, milliseconds);
}

KORVANE_BOOL_EXPORT(os_socket_readable, (int socket, uint64_t milliseconds, int* error)) {
    return waitUntilReady(socket, Readiness::Readable, milliseconds, error);
}

KORVANE_BOOL_EXPORT(os_socket_writable, (int socket, uint64_t milliseconds, int* error)) {
    return waitUntilReady(socket, Readiness::Writable, milliseconds, error);
}

KORVANE_BOOL_EXPORT(os_socket_is_link_broken, (int socket)) {
    // Nothing pending means nothing is known to be broken.
    if (!os_socket_readable(socket, 0, nullptr))
        return false;
    // Peek, so data that is waiting stays queued for the caller; only an
    // orderly shutdown by the peer reads as 0.
    char probe[4];
    return recv(socket, probe, sizeof probe, MSG_PEEK) == 0;
}
