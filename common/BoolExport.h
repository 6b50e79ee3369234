// How every exported function with a bool result is defined.
//
// The public headers declare the result as bool, but a C++ bool result sets
// only the low byte of the result register on x86-64 and leaves the rest as it
// was. Callers that read the result as an integer (bindings whose default
// result type is int, callers built against an integer declaration) would
// then take a false for true. So each such function is defined as
//
//     KORVANE_BOOL_EXPORT(os_file_exist, (const char* path)) {
//         return ...; // any bool expression, as in a bool function
//     }
//
// which gives it a result that fills the whole register, under an internal
// C++ name that the assembler label turns into the exported symbol; the
// header's bool declaration names the same symbol without clashing with it.
#ifndef KORVANE_BOOL_EXPORT_H
#define KORVANE_BOOL_EXPORT_H

#include <cstdint>

#include "korvane/export.h"

namespace korvane {

// A bool as one register-wide word. It is made from a bool, so every return
// statement converts exactly as it would in a bool function, and a class
// holding one 64-bit integer comes back in the integer result register (rax,
// x0), every bit defined.
class BoolResult {
public:
    constexpr BoolResult(bool value) : m_word(value) {}

    // A bool's raw byte handed on without normalising it (2 stays 2), for the
    // one function whose existing callers expect that.
    static constexpr BoolResult rawByte(unsigned char byte) {
        BoolResult result(false);
        result.m_word = byte;
        return result;
    }

private:
    uint64_t m_word;
};

} // namespace korvane

// Callers, the library's own included, may reach these functions through a
// pointer of the header's bool type; Clang's function-type check would take
// that for a mismatch, so the definitions carry no type signature for it.
#if defined(__clang__)
#define KORVANE_NO_FUNCTION_TYPE_CHECK __attribute__((no_sanitize("function")))
#else
#define KORVANE_NO_FUNCTION_TYPE_CHECK
#endif

#define KORVANE_BOOL_EXPORT(name, parameters)                                                             \
    KORVANE_API KORVANE_NO_FUNCTION_TYPE_CHECK korvane::BoolResult korvane_bool_##name parameters __asm__(#name); \
    korvane::BoolResult korvane_bool_##name parameters

#endif
