// The caller-buffer protocol shared by every function that returns text into
// a buffer the caller supplies (type names, values as text, environment
// variables, code-page conversions).
#ifndef KORVANE_CALLER_BUFFER_H
#define KORVANE_CALLER_BUFFER_H

#include <cstddef>
#include <cstring>

namespace korvane {

// `size` is the caller's buffer size on entry.
// - buffer null: size becomes length + 1 (room for the NUL); true.
// - size >= length + 1: the text and its NUL are copied, size becomes
//   length + 1; true.
// - otherwise: false; nothing is written and size keeps the caller's value
//   (callers learn the size by asking with a null buffer first).
inline bool copyToCallerBuffer(const char* text, size_t length, char* buffer, size_t& size) {
    const size_t needed = length + 1;
    if (buffer == nullptr) {
        size = needed;
        return true;
    }
    if (size < needed)
        return false;
    std::memcpy(buffer, text, length);
    buffer[length] = '\0';
    size = needed;
    return true;
}

} // namespace korvane

#endif
