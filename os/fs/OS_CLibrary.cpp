// The one place where callers and the rest of the files subsystem reach the
// platform's file calls, and (in the same family) the printf-length and
// natural-order string helpers.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "common/BoolExport.h"
#include "korvane/fs.h"
#include "korvane/system.h"

namespace {

// The path calls are declared nonnull by the C library. A null path gets the
// answer the kernel itself gives for a bad address (-1, EFAULT) instead of
// undefined behaviour.
template <class Call>
int withPath(const char* path, Call call) {
    if (path == nullptr) {
        errno = EFAULT;
        return -1;
    }
    return call();
}

} // namespace

int os_clibrary_file_open(const char* path, int flags, unsigned int mode) {
    return withPath(path, [&] { return open(path, flags, static_cast<mode_t>(mode)); });
}

int os_clibrary_file_close(int fd) {
    return close(fd);
}

int os_clibrary_file_access(const char* path, int mode) {
    return withPath(path, [&] { return access(path, mode); });
}

unsigned int os_clibrary_file_umask(unsigned int mask) {
    return umask(static_cast<mode_t>(mask));
}

int64_t os_clibrary_file_seek(int fd, int64_t offset, int whence) {
    return lseek(fd, static_cast<off_t>(offset), whence);
}

// The 32-bit count is zero-extended and the 64-bit result narrowed to int:
// existing callers compare the result with the int they asked for.
int os_clibrary_file_read(int fd, void* buffer, unsigned int length) {
    return static_cast<int>(read(fd, buffer, static_cast<size_t>(length)));
}

int os_clibrary_file_write(int fd, const void* buffer, unsigned int length) {
    return static_cast<int>(write(fd, buffer, static_cast<size_t>(length)));
}

int os_clibrary_file_unlink(const char* path) {
    return withPath(path, [&] { return unlink(path); });
}

int os_clibrary_file_mkdir(const char* path, unsigned int mode) {
    return withPath(path, [&] { return mkdir(path, static_cast<mode_t>(mode)); });
}

int os_clibrary_file_chdir(const char* path) {
    return withPath(path, [&] { return chdir(path); });
}

// The size is sign-extended, so a negative size becomes a huge byte count;
// kept as it stands for existing callers.
char* os_clibrary_file_getcwd(char* buffer, int size) {
    return getcwd(buffer, static_cast<size_t>(static_cast<int64_t>(size)));
}

// ---------------------------------------------------------------------------
// Text helpers

int os_clibrary_string_get_formatted_length(const char* format, va_list arguments) {
    if (format == nullptr)
        return -1;
    // Format from a copy so the caller can still pass `arguments` on.
    va_list copy;
    va_copy(copy, arguments);
    const int length = vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    return length < 0 ? -1 : length + 1;
}

namespace {

bool isDigit(unsigned char c) {
    return c >= '0' && c <= '9';
}

// The number at the start of `text`, as existing callers have always read
// it: strtol's value (LONG_MAX on overflow) cut to 32 bits. Runs of up to 18
// digits cannot overflow a 64-bit long, so they are read here directly, with
// the same value and errno untouched as strtol would leave them; longer runs
// go to strtol itself.
int32_t numberAt(const unsigned char* text) {
    static_assert(sizeof(long) == 8, "the short-run reading assumes a 64-bit long");
    constexpr int kDigitsThatCannotOverflow = 18;
    long value = 0;
    int length = 0;
    for (; length < kDigitsThatCannotOverflow && isDigit(text[length]); ++length)
        value = value * 10 + (text[length] - '0');
    if (isDigit(text[length]))
        return static_cast<int32_t>(std::strtol(reinterpret_cast<const char*>(text), nullptr, 10));
    return static_cast<int32_t>(value);
}

// True when `a` sorts after `b` in natural order. A null string counts as "".
bool naturalGreater(const char* a, const char* b) {
    const auto* x = reinterpret_cast<const unsigned char*>(a != nullptr ? a : "");
    const auto* y = reinterpret_cast<const unsigned char*>(b != nullptr ? b : "");

    // Walk the common prefix. The decision is taken at the start of the digit
    // run the first difference falls into, so 'a12' and 'a123' compare as 12
    // against 123 rather than as '' against '3'.
    size_t position = 0;
    size_t digitRun = 0;
    while (x[position] == y[position] && x[position] != '\0') {
        digitRun = isDigit(x[position]) ? digitRun + 1 : 0;
        ++position;
    }
    position -= digitRun;

    const unsigned char left = x[position];
    const unsigned char right = y[position];
    if (left == '\0')
        return false;
    if (right == '\0')
        return true;
    if (isDigit(left)) {
        if (!isDigit(right))
            return false; // digits sort before every other byte
        return numberAt(x + position) > numberAt(y + position);
    }
    if (isDigit(right))
        return true;
    return left > right;
}

} // namespace

KORVANE_BOOL_EXPORT(os_clibrary_string_intelligent_greater, (const char* a, const char* b)) {
    return naturalGreater(a, b);
}

KORVANE_BOOL_EXPORT(os_clibrary_string_intelligent_less, (const char* a, const char* b)) {
    return naturalGreater(b, a);
}
