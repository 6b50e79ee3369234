// What the system services share with the folder operations: shell commands
// built from a fixed format with their one result rule, and the exception a
// string built from a null pointer raises.
#ifndef KORVANE_COMMON_SYSTEM_INTERNAL_H
#define KORVANE_COMMON_SYSTEM_INTERNAL_H

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>

namespace korvane {

// A shell command succeeded when system() ran it, it exited normally and its
// exit status is 0.
inline bool commandSucceeded(int status) {
    return status != -1 && (status & 0x7F) == 0 && (status & 0xFF00) == 0;
}

// Formats the command into a zeroed heap buffer of the texts' lengths plus
// `margin` bytes (the format's own characters and the NUL) and runs it
// through the shell. The texts go in as they are, without escaping.
template <size_t N, class... Texts>
bool runShellCommand(const char (&format)[N], size_t margin, const Texts&... texts) {
    const size_t size = (texts.length() + ... + margin);
    const std::unique_ptr<char[]> command(new char[size]());
    std::snprintf(command.get(), size, format, texts.c_str()...);
    return commandSucceeded(std::system(command.get()));
}

// The text as a string. A null pointer raises the standard library's logic
// error, as building the string from it always has; existing callers see
// that exception, so it is kept on purpose.
inline std::string stringFromNonNull(const char* text) {
    if (text == nullptr)
        throw std::logic_error("basic_string::_M_construct null not valid");
    return std::string(text);
}

} // namespace korvane

#endif
