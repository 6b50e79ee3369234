/// @file
/// System services: clocks and sleeping, threads, scheduling and atomics,
/// memory locking, processes and environment, text helpers, dynamic loading.
#ifndef KORVANE_SYSTEM_H
#define KORVANE_SYSTEM_H

#include <pthread.h>
#include <sys/types.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "korvane/export.h"

/// Thread function; its return value, if any, is not used.
typedef void (*os_thread_function)(void* argument);

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// Clocks. Clock ids are the platform's (0 realtime, 1 monotonic). Arithmetic
// works field by field (wrapping around far out of range);
// os_clock_adjust_clock_time normalises. The time values are the caller's.

/// clock_gettime's result as it stands: 0, or -1 with errno (EINVAL for an
/// unknown clock, EFAULT for a null `time`).
KORVANE_API int os_clock_get_time(uint32_t clock_id, struct timespec* time);
/// Sleeps until an absolute monotonic deadline: 0 when it is reached (at once
/// for a past one), otherwise an error number: a signal ends the sleep early
/// with EINTR, an invalid deadline gives EINVAL, a null one EFAULT.
KORVANE_API int os_clock_nano_sleep(const struct timespec* deadline);
/// span = end - start, field by field, not normalised. Any null pointer: nothing.
KORVANE_API void os_clock_get_clock_span(const struct timespec* start, const struct timespec* end,
                                         struct timespec* span);
/// Brings tv_nsec into 0..999999999 by whole-second steps carried into tv_sec;
/// a normalised value is not written. Null: nothing.
KORVANE_API void os_clock_adjust_clock_time(struct timespec* time);
///@{
/// The same instant on the other clock, normalised; the clocks' offset is read
/// afresh on every call. In and out may be the same record. Null: nothing.
KORVANE_API void os_clock_realtime_to_monotonic(const struct timespec* realtime, struct timespec* monotonic);
KORVANE_API void os_clock_monotonic_to_realtime(const struct timespec* monotonic, struct timespec* realtime);
///@}
/// Relative sleep that signals never shorten: 0, or nanosleep's errno.
KORVANE_API int os_thread_sleep_milliseconds(uint64_t milliseconds);

// ---------------------------------------------------------------------------
// Threads, scheduling and atomics.

/// Starts a joinable thread running function(argument) (a null function just
/// ends) with at least 128 KiB of stack (0 = the platform default, raised to
/// that minimum); the caller joins it. Does nothing when `thread` is null.
/// pthread_create's result is not reported.
KORVANE_API void os_thread_create(pthread_t* thread, os_thread_function function, void* argument,
                                  size_t stack_size);
/// pthread_join's result (0, or an error number).
KORVANE_API int os_thread_join(pthread_t thread);
/// Pins a thread to one CPU (0..1023; any other index passes an empty set).
/// The result compares the platform's result with -1, so it is true even when
/// the platform refused the set; kept for existing callers.
KORVANE_API bool os_thread_sched_set_thread_affinity(pthread_t thread, int cpu);
/// Pins the calling process to one CPU (0..1023): true when the platform
/// accepted it; false for an index outside that range.
KORVANE_API bool os_thread_sched_set_affinity(int cpu);
///@{
/// Sequentially consistent read-modify-writes on 64-bit counters. Despite
/// their names, the fetch functions return the new value. A null counter
/// counts nothing and gives 0.
KORVANE_API int64_t os_thread_sync_fetch_add(int64_t* counter);
KORVANE_API int64_t os_thread_sync_fetch_sub(int64_t* counter);
///@}
///@{
/// Stores `desired` when *target equals `expected`; returns the value found
/// (equal to `expected` exactly when it swapped). A null target stores
/// nothing and returns a value other than `expected`. The _64 form is the same.
KORVANE_API int64_t os_thread_sync_compare_and_swap(int64_t* target, int64_t expected, int64_t desired);
KORVANE_API int64_t os_thread_sync_compare_and_swap_64(int64_t* target, int64_t expected, int64_t desired);
///@}
/// SCHED_FIFO at `priority` for the calling process: true when the platform
/// accepted it.
KORVANE_API bool os_thread_init_rt_schedule(int priority);
/// Does nothing: leaving real-time scheduling is not supported.
KORVANE_API void os_thread_exit_rt_schedule(void);
/// Holds the CPU DMA latency at 0 while the descriptor stored in *latency stays
/// open (the caller ends it with os_thread_uninstall_latency). True with
/// "/dev/cpu_dma_latency set to 0us" printed; false with *latency -1 when the
/// device is missing or cannot be opened or written; false for a null pointer.
KORVANE_API bool os_thread_install_latency(int* latency);
/// Closes the latency descriptor; a negative one is ignored.
KORVANE_API void os_thread_uninstall_latency(int latency);
/// mlockall(flags & 3): the bits beyond MCL_CURRENT and MCL_FUTURE are dropped.
/// True when the platform accepted it.
KORVANE_API bool os_memory_manager_mlockall(int flags);
/// munlockall(2): true when the platform accepted it.
KORVANE_API bool os_memory_manager_munlockall(void);

// ---------------------------------------------------------------------------
// Processes and environment.

/// Runs "./application" with `arguments` as its only argv entry, or else
/// `application` from PATH with argv {application, arguments}; a child that
/// starts neither exits with 255. The argument string is never split; null
/// strings count as "". Waits for the child only when asked (a child not
/// waited for is not reaped). True unless a waited-for child was killed by a
/// signal; false when no child could be made.
KORVANE_API bool os_system_run_application(const char* application, const char* arguments, bool wait);
/// killall -9 "name" through the shell (null name = ""); true when it exited
/// with status 0.
KORVANE_API bool os_system_kill_application(const char* name);
/// system(command); true when it exited with status 0. A null command runs
/// nothing (system(NULL) only asks for a shell) and gives false where one exists.
KORVANE_API bool os_system_invoke_command(const char* command);
/// Caller-buffer protocol: null buffer stores the needed size (length + 1);
/// a large enough buffer gets the value; too small gives false, size
/// unchanged. False when the variable is not set or name or size is null.
KORVANE_API bool os_system_get_os_environmentVariable(const char* name, char* buffer, size_t* size);
/// replace: set to value. Otherwise an unset or empty variable becomes value,
/// one that already contains value (as a substring) becomes empty, and any
/// other gets ":value" appended. A null name or value throws std::logic_error.
KORVANE_API void os_system_set_os_environmentVariable(const char* name, const char* value, bool replace);
/// Installs a do-nothing SIGPIPE handler, so writes to closed pipes fail with
/// EPIPE instead of ending the process; sigaction's result (0 or -1).
KORVANE_API int os_system_close_exception(void);
/// True when the effective user is root.
KORVANE_API bool os_system_check_root_privileges(void);
/// readlink("/proc/self/exe") into the caller's buffer: bytes written (at most
/// `size`, truncated silently and not NUL-terminated), or -1; a null buffer
/// gives -1 with errno EFAULT.
KORVANE_API ssize_t os_environment_get_application_path(char* buffer, size_t size);

// ---------------------------------------------------------------------------
// Text helpers.

/// Length that `format` would produce, plus 1; -1 when formatting fails or the
/// format is null. The caller's va_list is left usable.
KORVANE_API int os_clibrary_string_get_formatted_length(const char* format, va_list arguments);
///@{
/// Natural order: runs of digits compare by value ("file9" < "file10"; values
/// are strtol's cut to 32 bits, equal values decide nothing), other bytes by
/// unsigned value, digits before other bytes. True when a sorts after b
/// (greater) or before b (less, which is greater with the arguments swapped).
/// A null string counts as "".
KORVANE_API bool os_clibrary_string_intelligent_greater(const char* a, const char* b);
KORVANE_API bool os_clibrary_string_intelligent_less(const char* a, const char* b);
///@}
///@{
/// The OEM code page is UTF-8 here: both copy the text (caller-buffer
/// protocol). A null input counts as "" for oem_from_utf8 only; oem_to_utf8
/// refuses it (false). Both give false for a null size.
KORVANE_API bool os_utf8helper_oem_from_utf8(const char* text, char* buffer, size_t* size);
KORVANE_API bool os_utf8helper_oem_to_utf8(const char* text, char* buffer, size_t* size);
///@}

// ---------------------------------------------------------------------------
// Dynamic libraries. Flags: 1 bind now (else lazy), 2 global, 4 no-delete,
// 8 deep-bind; higher bits are ignored.

/// dlopen's handle, or null when dlopen reports an error (nothing printed).
/// A null file gives the main program. The caller releases the handle with
/// os_dynamic_library_loader_free.
KORVANE_API void* os_dynamic_library_loader_load_ex(const char* file, uint32_t flags);
/// load_ex(file, 1): bind now, local.
KORVANE_API void* os_dynamic_library_loader_load(const char* file);
/// dlsym's address, or null (also for a null library or symbol name).
KORVANE_API void* os_dynamic_library_loader_get_proc(void* library, const char* symbol);
/// dlclose's result; 0 for a null library.
KORVANE_API int os_dynamic_library_loader_free(void* library);

KORVANE_END_DECLS

#endif
