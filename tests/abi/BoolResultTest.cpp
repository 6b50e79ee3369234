// Every exported function whose result is bool, called the way a binding that
// declares the result as a 64-bit integer calls it: the whole register must
// hold 0 or 1, whatever it held before the call.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>

#include "korvane/korvane.h"

namespace {

// Leaves every bit of the result register set, so a callee that writes only
// the low byte of its result hands the rest back.
__attribute__((noinline)) uint64_t allBitsSet() {
    uint64_t bits = ~uint64_t{0};
    asm volatile("" : "+r"(bits));
    return bits;
}

template <class R, class... P>
struct AsInteger {
    R (*function)(P...);
    uint64_t operator()(P... arguments) const {
        allBitsSet();
        // Through void (*)(), the one cast compilers accept between any two function types.
        return reinterpret_cast<uint64_t (*)(P...)>(reinterpret_cast<void (*)()>(function))(arguments...);
    }
};
template <class R, class... P>
AsInteger<R, P...> asInteger(R (*function)(P...)) { return {function}; }

struct Row {
    const char* function;
    uint64_t result, expected;
};
#define CALL(function, ...) #function, asInteger(function)(__VA_ARGS__)

TEST(BoolResults, FillTheWholeResultRegister) {
    tagTVARIANT one, two;
    variant_set_int(&one, 1, false);
    variant_set_longlong(&two, 2, false);
    size_t size = 0;
    const char* none = "/proc/none";
    // Where the answer depends on the machine (root, a sanitizer standing in
    // for mlockall), the row asks the platform for it.
    const Row rows[] = {
        {CALL(bstr_set_string, nullptr, "x"), 0}, {CALL(bstr_set_bstrunit, nullptr, nullptr), 1},
        {CALL(bstr_set_bstr, nullptr, nullptr), 1}, {CALL(bstr_equal_bstr, nullptr, nullptr), 1},
        {CALL(bstr_equal_bstrunit, nullptr, nullptr), 1}, {CALL(variant_equal_variant, &one, &two), 0},
        {CALL(variant_get_datatype_size, TVT_INT, nullptr), 1}, {CALL(variant_change_type, &two, TVT_BOOL), 0},
        {CALL(safearray_set_element, nullptr, 0, nullptr), 0}, {CALL(safearray_get_element, nullptr, 0, nullptr), 0},
        {CALL(safearray_access_element, nullptr, nullptr), 0}, {CALL(safearray_unaccess_element, nullptr), 0},
        {CALL(safearray_resize, nullptr, 2), 0}, {CALL(variant_resolve_as_bool, &one), 1},
        {CALL(variant_resolve_as_bool, &two), 2}, // the raw byte, kept for existing callers
        {CALL(variant_ajust_data_value, &one, 8), 1}, {CALL(variant_resolve_display_type, TVT_INT, nullptr, &size), 1},
        {CALL(variant_resolve_type, "none", nullptr), 0},
        {CALL(variant_wrapper_get_type, nullptr, nullptr, nullptr), 0},
        {CALL(variant_wrapper_set_type, nullptr, "int"), 0}, {CALL(os_file_is_relative_path, "a"), 1},
        {CALL(os_file_exist, "/proc/self/exe"), 1}, {CALL(os_file_create, "/proc/none/x"), 0},
        {CALL(os_file_remove, none), 0}, {CALL(os_file_move, none, none), 0}, {CALL(os_file_copy, none, none), 0},
        {CALL(os_folder_exist, "/tmp"), 1}, {CALL(os_folder_create, "/tmp"), 1},
        {CALL(os_folder_remove, none, false), 0}, {CALL(os_folder_move, none, none), 0},
        {CALL(os_folder_copy, none, none, false), 0}, {CALL(os_clibrary_string_intelligent_greater, "a2", "a10"), 0},
        {CALL(os_clibrary_string_intelligent_less, "a2", "a10"), 1}, {CALL(os_serial_select, -1, 0), 0},
        {CALL(os_socket_init_library), 1}, {CALL(os_socket_clear_library), 1},
        {CALL(os_socket_readable, -1, 0, nullptr), 0}, {CALL(os_socket_writable, -1, 0, nullptr), 0},
        {CALL(os_socket_is_link_broken, -1), 0}, {CALL(os_sync_environment_initialize, false), 1},
        {CALL(os_event_wait, nullptr), 0}, {CALL(os_event_wait_timeout, nullptr, timespec{}), 0},
        {CALL(os_semaphore_set_undo_track, nullptr, false), 0}, {CALL(os_semaphore_wait, nullptr), 0},
        {CALL(os_semaphore_wait_timeout, nullptr, timespec{}), 0},
        {CALL(os_thread_sched_set_thread_affinity, pthread_self(), -1), 1}, // refused, yet true
        {CALL(os_thread_sched_set_affinity, -1), 0}, {CALL(os_thread_init_rt_schedule, 0), 0},
        {CALL(os_thread_install_latency, nullptr), 0},
        {CALL(os_memory_manager_mlockall, 0), uint64_t{mlockall(0) == 0}}, {CALL(os_memory_manager_munlockall), 1},
        {CALL(os_system_run_application, none, "", true), 1}, {CALL(os_system_kill_application, none), 0},
        {CALL(os_system_invoke_command, "exit 3"), 0},
        {CALL(os_system_get_os_environmentVariable, "PATH", nullptr, &size), 1},
        {CALL(os_system_check_root_privileges), uint64_t{geteuid() == 0}},
        {CALL(os_utf8helper_oem_from_utf8, "a", nullptr, nullptr), 0},
        {CALL(os_utf8helper_oem_to_utf8, "a", nullptr, &size), 1},
    };
    for (const Row& row : rows)
        EXPECT_EQ(row.result, row.expected) << row.function;
    os_sync_environment_uninitialize();
}

} // namespace
