// Every exported function whose result is bool, called the way a binding that
// declares the result as a 64-bit integer calls it: the whole register must
// hold 0 or 1, whatever it held before the call.
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <utility>

#include "korvane/korvane.h"

namespace {

// Leaves every bit of the result register set, so a callee that writes only
// the low byte of its result hands the rest back.
__attribute__((noinline)) uint64_t allBitsSet() {
    uint64_t bits = ~uint64_t{0};
    asm volatile("" : "+r"(bits));
    return bits;
}

// `function` called through a pointer to the same parameters and a uint64_t result.
template <class R, class... P>
auto asInteger(R (*function)(P...)) {
    return [function](P... arguments) {
        allBitsSet();
        // Through void (*)(), the one cast compilers accept between any two function types.
        return reinterpret_cast<uint64_t (*)(P...)>(reinterpret_cast<void (*)()>(function))(arguments...);
    };
}

using Row = std::pair<const char*, uint64_t>; // the function's name, its result
#define CALL(function, ...) Row{#function, asInteger(function)(__VA_ARGS__)}

TEST(BoolResults, FillTheWholeResultRegister) {
    tagTVARIANT one{}, two{}; // empty, so the setters free nothing
    variant_set_int(&one, 1, false);
    variant_set_longlong(&two, 2, false);
    size_t size = 0;
    const char* none = "/proc/none";
    const Row falses[] = {
        CALL(bstr_set_string, nullptr, "x"), CALL(variant_equal_variant, &one, &two),
        CALL(variant_change_type, &two, TVT_BOOL), CALL(safearray_set_element, nullptr, 0, nullptr),
        CALL(safearray_get_element, nullptr, 0, nullptr), CALL(safearray_access_element, nullptr, nullptr),
        CALL(safearray_unaccess_element, nullptr), CALL(safearray_resize, nullptr, 2),
        CALL(variant_resolve_type, "none", nullptr), CALL(variant_wrapper_get_type, nullptr, nullptr, nullptr),
        CALL(variant_wrapper_set_type, nullptr, "int"), CALL(os_file_create, "/proc/none/x"),
        CALL(os_file_remove, none), CALL(os_file_move, none, none), CALL(os_file_copy, none, none),
        CALL(os_folder_remove, none, false), CALL(os_folder_move, none, none), CALL(os_file_is_relative_path, "/a"),
        CALL(os_folder_copy, none, none, false), CALL(os_clibrary_string_intelligent_greater, "a2", "a10"),
        CALL(os_serial_select, -1, 0), CALL(os_socket_readable, -1, 0, nullptr),
        CALL(os_socket_writable, -1, 0, nullptr), CALL(os_socket_is_link_broken, -1),
        CALL(os_event_wait, nullptr), CALL(os_event_wait_timeout, nullptr, timespec{}),
        CALL(os_semaphore_set_undo_track, nullptr, false), CALL(os_semaphore_wait, nullptr),
        CALL(os_semaphore_wait_timeout, nullptr, timespec{}), CALL(os_thread_sched_set_affinity, -1),
        CALL(os_thread_init_rt_schedule, 0), CALL(os_thread_install_latency, nullptr),
        CALL(os_system_kill_application, none), CALL(os_system_invoke_command, "exit 3"),
        CALL(os_utf8helper_oem_from_utf8, "a", nullptr, nullptr),
    };
    // Setting the affinity of a thread to CPU -1 is refused, yet gives true.
    const Row trues[] = {
        CALL(bstr_set_bstrunit, nullptr, nullptr), CALL(bstr_set_bstr, nullptr, nullptr),
        CALL(bstr_equal_bstr, nullptr, nullptr), CALL(bstr_equal_bstrunit, nullptr, nullptr),
        CALL(variant_get_datatype_size, TVT_INT, nullptr), CALL(variant_resolve_as_bool, &one),
        CALL(variant_ajust_data_value, &one, 8), CALL(variant_resolve_display_type, TVT_INT, nullptr, &size),
        CALL(os_file_is_relative_path, "a"), CALL(os_file_exist, "/proc/self/exe"),
        CALL(os_folder_exist, "/tmp"), CALL(os_folder_create, "/tmp"),
        CALL(os_clibrary_string_intelligent_less, "a2", "a10"), CALL(os_socket_init_library),
        CALL(os_socket_clear_library), CALL(os_sync_environment_initialize, false),
        CALL(os_thread_sched_set_thread_affinity, pthread_self(), -1), CALL(os_memory_manager_munlockall),
        CALL(os_system_run_application, none, "", true),
        CALL(os_system_get_os_environmentVariable, "PATH", nullptr, &size),
        CALL(os_utf8helper_oem_to_utf8, "a", nullptr, &size),
    };
    for (const auto& [function, result] : falses)
        EXPECT_EQ(result, 0u) << function;
    for (const auto& [function, result] : trues)
        EXPECT_EQ(result, 1u) << function;
    EXPECT_EQ(asInteger(variant_resolve_as_bool)(&two), 2u); // the raw byte, kept for existing callers
    // Where the answer depends on the machine (root, a sanitizer standing in
    // for mlockall), the platform is asked for it.
    EXPECT_EQ(asInteger(os_memory_manager_mlockall)(0), uint64_t{mlockall(0) == 0});
    EXPECT_EQ(asInteger(os_system_check_root_privileges)(), uint64_t{geteuid() == 0});
    os_sync_environment_uninitialize();
}

} // namespace
