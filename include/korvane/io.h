/// @file
/// Device and network I/O: serial ports with frame hunting, socket helpers.
/// Ports and sockets are plain descriptors; -1 means none.
#ifndef KORVANE_IO_H
#define KORVANE_IO_H

#include <termios.h>

#include <cstdint>

#include "korvane/export.h"

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// Serial ports. Transfers go through POSIX asynchronous I/O, and each one gets
// a single 5 ms slice: a transfer still running after it is cancelled and the
// call returns -1. One thread at a time per port.

/// Opens a device non-blocking, without making it the controlling terminal, in
/// raw 8-bit mode. parity: 0 none, 1 odd, 2 space-style, 4 even; stopbits: 0
/// one, 1 two; speed: a termios constant such as B115200. baud is used only for
/// a custom divisor when the driver offers one (and its base rate is higher).
/// Returns the port, or -1: silently for a null path or a device that cannot
/// be opened, otherwise after printing one of "tcgetattr failed",
/// "Unsupported parity" (the stop bits are still checked, so "Unsupported
/// stopbits" may follow), "Unsupported stopbits", "tcsetattr failed".
KORVANE_API int os_serial_open(const char* path, int baud, uint8_t parity, uint8_t stopbits, speed_t speed);
/// Closes *port unless it is -1, then sets it to -1. Ignores a null pointer.
KORVANE_API void os_serial_close(int* port);
/// Discards queued data. queues: bit 0 input, bit 1 output. Returns tcflush's
/// result: 0, or -1 for a bad port or when neither bit is set.
KORVANE_API int os_serial_purge(int port, int queues);
/// True when the port becomes readable within `milliseconds`; false on
/// time-out, on error and for a port that is -1 or too large for select.
KORVANE_API bool os_serial_select(int port, int milliseconds);
/// Bytes written, or -1: port -1, negative size, null data with a positive size,
/// or a write that does not finish within its 5 ms slice.
KORVANE_API int os_serial_write(int port, const void* data, int size);
/// Reads one frame of `size` bytes that starts with `header` (null or 0 length:
/// any `size` bytes), waiting up to `milliseconds` each time the line is quiet.
/// Returns size; a shorter count when the line goes quiet after part of a
/// frame (those bytes delivered); 0 when no frame started, printing
/// "The frame header may be truncated." when bytes came but no header;
/// -1 for port -1, a header longer than the frame, negative lengths, a null
/// buffer, no header within the first `size` bytes (a header ending exactly
/// at byte `size` is not recognised) or a transfer that overruns its slice.
KORVANE_API int os_serial_read(int port, void* buffer, int size, const void* header, int header_length,
                               int milliseconds);

// ---------------------------------------------------------------------------
// Socket helpers. Sockets are created by the caller; nothing here prints.

///@{
/// Always true: nothing to start or stop on this platform.
KORVANE_API bool os_socket_init_library(void);
KORVANE_API bool os_socket_clear_library(void);
///@}
/// The calling thread's errno.
KORVANE_API int os_socket_get_errno_code(void);
///@{
/// ioctl's and close's results as they stand (-1 with errno for a bad socket).
KORVANE_API int os_socket_ioctl(int socket, unsigned long request, void* argument);
KORVANE_API int os_socket_close(int socket);
///@}
/// Does nothing on this platform.
KORVANE_API void os_socket_disable_udp_unreached_report(int socket);
///@{
/// setsockopt SO_SNDTIMEO / SO_RCVTIMEO as whole seconds and microseconds; 0
/// clears the time-out. setsockopt's result: 0, or -1 for a bad socket.
KORVANE_API int os_socket_set_send_timeout(int socket, uint64_t milliseconds);
KORVANE_API int os_socket_set_recv_timeout(int socket, uint64_t milliseconds);
///@}
///@{
/// True when the socket is readable (writable) within `milliseconds`; a signal
/// does not end the wait early. False on time-out, on a select error (errno
/// then stored in *error unless it is null) and, with *error untouched, for a
/// socket that is -1 or too large for select.
KORVANE_API bool os_socket_readable(int socket, uint64_t milliseconds, int* error);
KORVANE_API bool os_socket_writable(int socket, uint64_t milliseconds, int* error);
///@}
/// True only when the peer has shut the connection down and nothing is left to
/// read; pending data stays queued. False for a live, quiet or bad socket.
KORVANE_API bool os_socket_is_link_broken(int socket);

KORVANE_END_DECLS

#endif
