/// @file
/// The pieces every family of the C++ layer shares: the move-only owner of a
/// library handle and the conversion of std::chrono values into the absolute
/// monotonic deadlines the timed waits take.
#ifndef KORVANE_CPP_OWNER_HPP
#define KORVANE_CPP_OWNER_HPP

#include <unistd.h>

#include <chrono>
#include <ctime>
#include <optional>
#include <string>
#include <system_error>
#include <utility>

#include "korvane/fs.h"
#include "korvane/system.h"

/// The C++ layer over the flat interface: header-only, it adds no symbol to
/// the library.
namespace korvane {

/// Owns one handle of a family and gives it back with the family's destroy
/// when it goes out of scope. Move-only: a moved-from owner holds null, on
/// which every flat function does nothing.
template <class Handle, void (*Destroy)(Handle**)>
class Owner {
public:
    /// Holds no handle.
    Owner() noexcept = default;
    /// Takes over `handle` (may be null).
    explicit Owner(Handle* handle) noexcept : m_handle(handle) {}
    /// Takes the other's handle, leaving it null.
    Owner(Owner&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    /// Destroys the handle held, then takes the other's.
    Owner& operator=(Owner&& other) noexcept {
        if (this != &other) {
            reset();
            m_handle = std::exchange(other.m_handle, nullptr);
        }
        return *this;
    }
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    /// Destroys the handle held.
    ~Owner() { reset(); }

    /// The flat handle, for the functions this layer does not wrap.
    Handle* native_handle() const noexcept { return m_handle; }
    /// True while a handle is held.
    explicit operator bool() const noexcept { return m_handle != nullptr; }
    /// Gives the handle up without destroying it.
    Handle* release() noexcept { return std::exchange(m_handle, nullptr); }
    /// Destroys the handle held (destroy ignores null and nulls the variable).
    void reset() noexcept { Destroy(&m_handle); }

private:
    Handle* m_handle = nullptr;
};

/// Implementation details; not part of the interface.
namespace detail {

/// Deadlines are saturated this far past the clock's origin (about 136
/// years): the library adds clock offsets to a deadline and counts the time
/// left in milliseconds, which would overflow near the limits of time_t.
constexpr std::chrono::seconds kFarFuture{std::chrono::seconds::rep{1} << 32};

/// A span since the monotonic clock's origin as a timespec: negative spans
/// give the origin (long past), far-future ones kFarFuture.
template <class Rep, class Period>
timespec to_timespec(std::chrono::duration<Rep, Period> span) {
    using namespace std::chrono;
    if (span <= duration<Rep, Period>::zero())
        return timespec{0, 0};
    if (duration<long double>(span) >= duration<long double>(kFarFuture))
        return timespec{static_cast<time_t>(kFarFuture.count()), 0};
    const auto whole = duration_cast<seconds>(span);
    return timespec{static_cast<time_t>(whole.count()),
                    static_cast<long>(duration_cast<nanoseconds>(span - whole).count())};
}

/// The library's deadline for a steady_clock instant: both clocks are
/// CLOCK_MONOTONIC, so the time since the epoch maps over unchanged.
template <class Duration>
timespec deadline_at(std::chrono::time_point<std::chrono::steady_clock, Duration> instant) {
    return to_timespec(instant.time_since_epoch());
}

/// The library's deadline `span` from now, read on the library's own clock.
template <class Rep, class Period>
timespec deadline_after(std::chrono::duration<Rep, Period> span) {
    using namespace std::chrono;
    timespec now{};
    os_clock_get_time(1, &now);
    const nanoseconds since_origin = seconds(now.tv_sec) + nanoseconds(now.tv_nsec);
    if (span <= duration<Rep, Period>::zero())
        return to_timespec(since_origin);
    if (duration<long double>(span) >= duration<long double>(kFarFuture))
        return to_timespec(kFarFuture);
    return to_timespec(since_origin + duration_cast<nanoseconds>(span));
}

/// Whether a named object's memory exists, as it does for as long as a
/// usable handle on it lives: a named creation that failed (no sync manager,
/// or no answer within 100 ms) gives an unusable handle that cannot say so
/// itself. Named objects live under /dev/shm by their names.
inline bool named_memory_exists(const std::string& name) {
    const std::string::size_type start = name.find_first_not_of('/');
    const std::string path = "/dev/shm/" + name.substr(start == std::string::npos ? name.size() : start);
    return os_clibrary_file_access(path.c_str(), F_OK) == 0;
}

/// Runs a function of the caller-buffer protocol twice: once for the size,
/// once for the text. `call(buffer, size)` is the flat call.
template <class Size, class Call>
std::optional<std::string> buffer_text(Call call) {
    Size size = 0;
    if (!call(nullptr, &size) || size == 0)
        return std::nullopt;
    std::string text(size, '\0');
    if (!call(text.data(), &size))
        return std::nullopt;
    text.resize(size - 1); // the size counts the NUL
    return text;
}

/// What a lock on an unusable handle throws, as std::mutex::lock would on a
/// mutex it cannot take.
[[noreturn]] inline void throw_unusable(const char* what) {
    throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again), what);
}

} // namespace detail
} // namespace korvane

#endif
