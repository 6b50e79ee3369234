// Device and network I/O: serial ports with frame hunting, socket helpers.
// Ports and sockets are plain descriptors; -1 means none.
#ifndef KORVANE_IO_H
#define KORVANE_IO_H

#include <termios.h>

#include <cstdint>

#include "korvane/export.h"

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// Serial ports.

// Opens a device in raw 8-bit mode. parity: 0 none, 1 odd, 2 space-style, 4
// even; stopbits: 0 one, 1 two; speed: a termios constant such as B115200.
// baud is used only for a custom divisor when the driver supports one.
// Returns the port, or -1.
KORVANE_API int os_serial_open(const char* path, int baud, uint8_t parity, uint8_t stopbits, speed_t speed);
// Closes the port unless it is -1 and sets it to -1.
KORVANE_API void os_serial_close(int* port);
// queues: bit 0 input, bit 1 output; tcflush's result.
KORVANE_API int os_serial_purge(int port, int queues);
// True when the port becomes readable within `milliseconds`.
KORVANE_API bool os_serial_select(int port, int milliseconds);
// Bytes written, or -1 (also when the write takes longer than 5 ms).
KORVANE_API int os_serial_write(int port, const void* data, int size);
// Reads one frame of `size` bytes that starts with `header` (null or 0 length:
// any bytes). Returns size; a shorter count when the line goes quiet for
// `milliseconds` after part of a frame; 0 when nothing came (printing "The
// frame header may be truncated." when part of a header came); -1 on a bad
// port, when no header appears within the first `size` bytes, or when one
// transfer takes longer than 5 ms.
KORVANE_API int os_serial_read(int port, void* buffer, int size, const void* header, int header_length,
                               int milliseconds);

// ---------------------------------------------------------------------------
// Socket helpers.

// Always true: nothing to initialise on this platform.
KORVANE_API bool os_socket_init_library(void);
KORVANE_API bool os_socket_clear_library(void);
// The calling thread's errno.
KORVANE_API int os_socket_get_errno_code(void);
KORVANE_API int os_socket_ioctl(int socket, unsigned long request, void* argument);
KORVANE_API int os_socket_close(int socket);
// Does nothing on this platform.
KORVANE_API void os_socket_disable_udp_unreached_report(int socket);
// setsockopt SO_SNDTIMEO / SO_RCVTIMEO; 0 clears the time-out.
KORVANE_API int os_socket_set_send_timeout(int socket, uint64_t milliseconds);
KORVANE_API int os_socket_set_recv_timeout(int socket, uint64_t milliseconds);
// True when the socket is ready within `milliseconds`; on a select error
// stores errno in *error (may be null).
KORVANE_API bool os_socket_readable(int socket, uint64_t milliseconds, int* error);
KORVANE_API bool os_socket_writable(int socket, uint64_t milliseconds, int* error);
// True when the peer has closed the connection; pending data stays queued.
KORVANE_API bool os_socket_is_link_broken(int socket);

KORVANE_END_DECLS

#endif
