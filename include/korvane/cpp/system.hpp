/// @file
/// Files, processes, loading, text and serial ports: results come back as
/// std::string or std::optional instead of through caller buffers, the
/// filesystem walk takes a callable, libraries and ports have owners.
#ifndef KORVANE_CPP_SYSTEM_HPP
#define KORVANE_CPP_SYSTEM_HPP

#include <sys/types.h>
#include <termios.h>

#include <climits>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "korvane/automation.h"
#include "korvane/cpp/owner.hpp"
#include "korvane/fs.h"
#include "korvane/interfaces.h"
#include "korvane/io.h"
#include "korvane/system.h"

namespace korvane {

/// The environment variable `name`; empty when it is not set.
inline std::optional<std::string> environment_variable(const std::string& name) {
    return detail::buffer_text<size_t>([&](char* buffer, size_t* size) {
        return os_system_get_os_environmentVariable(name.c_str(), buffer, size);
    });
}

/// The type name of a variant tag ("int", ...); empty for TVT_EMPTY and
/// unknown tags.
inline std::optional<std::string> type_name(TVARTYPE type) {
    return detail::buffer_text<size_t>(
        [&](char* buffer, size_t* size) { return variant_resolve_display_type(type, buffer, size); });
}

/// The text in the OEM code page (UTF-8 here, so a copy).
inline std::optional<std::string> oem_from_utf8(const std::string& text) {
    return detail::buffer_text<size_t>(
        [&](char* buffer, size_t* size) { return os_utf8helper_oem_from_utf8(text.c_str(), buffer, size); });
}

/// The OEM text in UTF-8 (a copy here).
inline std::optional<std::string> oem_to_utf8(const std::string& text) {
    return detail::buffer_text<size_t>(
        [&](char* buffer, size_t* size) { return os_utf8helper_oem_to_utf8(text.c_str(), buffer, size); });
}

/// The working directory; empty when it cannot be read.
inline std::optional<std::string> current_directory() {
    // With no buffer the platform allocates one of the right size.
    std::unique_ptr<char, decltype(&std::free)> path(os_clibrary_file_getcwd(nullptr, 0), &std::free);
    if (path == nullptr)
        return std::nullopt;
    return std::string(path.get());
}

/// The running program's path; empty when it cannot be read.
inline std::optional<std::string> application_path() {
    // The call truncates silently, so a result filling the buffer may be cut.
    for (std::string path(256, '\0');; path.resize(path.size() * 2)) {
        const ssize_t length = os_environment_get_application_path(path.data(), path.size());
        if (length < 0)
            return std::nullopt;
        if (static_cast<size_t>(length) < path.size()) {
            path.resize(static_cast<size_t>(length));
            return path;
        }
    }
}

/// Natural order ("file9" before "file10"), usable with std::sort.
struct NaturalLess {
    /// True when `a` sorts before `b`.
    bool operator()(const std::string& a, const std::string& b) const noexcept {
        return os_clibrary_string_intelligent_less(a.c_str(), b.c_str());
    }
};

/// One entry the walk reports.
struct WalkEntry {
    std::string_view path; ///< Relative to root.
    std::string_view root; ///< The root as given, with '/' appended.
    bool folder;           ///< A folder (the starting one included), else anything else.
};

/// Walks `folder` (relative to `root`) pre-order, calling `visit(const
/// WalkEntry&)` for the folder itself and every entry below it, at most
/// `max_depth` levels down (0 only the folder). The entry's strings are valid
/// during the call only.
template <class Visit>
void walk(const std::string& root, const std::string& folder, Visit&& visit, unsigned int max_depth = UINT_MAX) {
    struct Callback final : IWalkThroughCallback {
        explicit Callback(Visit& visit) : m_visit(visit) {}
        void onFile(const char* path, const char* root) override { m_visit(WalkEntry{path, root, false}); }
        void onFolder(const char* path, const char* root) override { m_visit(WalkEntry{path, root, true}); }
        Visit& m_visit;
    } callback(visit);
    os_filesystem_walk_through_ex(folder.c_str(), root.c_str(), max_depth, &callback);
}

/// A dynamic library, unloaded when the owner goes.
class Library {
public:
    /// Loads `file` (flags: 1 bind now, 2 global, 4 no-delete, 8 deep-bind);
    /// empty when the loader refuses it.
    static std::optional<Library> load(const std::string& file, uint32_t flags = 1) {
        void* handle = os_dynamic_library_loader_load_ex(file.c_str(), flags);
        if (handle == nullptr)
            return std::nullopt;
        return Library(handle);
    }
    /// Takes the other's library.
    Library(Library&& other) noexcept : m_handle(std::exchange(other.m_handle, nullptr)) {}
    /// Unloads the library held, then takes the other's.
    Library& operator=(Library&& other) noexcept {
        if (this != &other) {
            os_dynamic_library_loader_free(m_handle);
            m_handle = std::exchange(other.m_handle, nullptr);
        }
        return *this;
    }
    /// Unloads the library.
    ~Library() { os_dynamic_library_loader_free(m_handle); }
    /// The address of `name` as a T (a function or object type); null when absent.
    template <class T>
    T* symbol(const std::string& name) const noexcept {
        return reinterpret_cast<T*>(os_dynamic_library_loader_get_proc(m_handle, name.c_str()));
    }
    /// The loader's handle.
    void* native_handle() const noexcept { return m_handle; }

private:
    explicit Library(void* handle) noexcept : m_handle(handle) {}
    void* m_handle;
};

/// An open serial port, closed when the owner goes.
class SerialPort {
public:
    /// Opens `path` in raw 8-bit mode at `speed` (a termios constant such as
    /// B115200); is_open() tells whether it worked. parity: 0 none, 1 odd,
    /// 4 even; stopbits: 0 one, 1 two.
    explicit SerialPort(const std::string& path, speed_t speed, uint8_t parity = 0, uint8_t stopbits = 0,
                        int baud = 0)
        : m_port(os_serial_open(path.c_str(), baud, parity, stopbits, speed)) {}
    /// Takes the other's port.
    SerialPort(SerialPort&& other) noexcept : m_port(std::exchange(other.m_port, -1)) {}
    /// Closes the port held, then takes the other's.
    SerialPort& operator=(SerialPort&& other) noexcept {
        if (this != &other) {
            os_serial_close(&m_port);
            m_port = std::exchange(other.m_port, -1);
        }
        return *this;
    }
    /// Closes the port.
    ~SerialPort() { os_serial_close(&m_port); }
    /// True when the device was opened.
    bool is_open() const noexcept { return m_port != -1; }
    /// The descriptor (-1 when not open).
    int native_handle() const noexcept { return m_port; }
    /// Writes `data`: the bytes written, or -1.
    int write(std::string_view data) noexcept {
        return os_serial_write(m_port, data.data(), static_cast<int>(data.size()));
    }
    /// One frame of `size` bytes starting with `header` (empty: any bytes),
    /// waiting up to `milliseconds` whenever the line is quiet. The frame, a
    /// shorter tail when the line went quiet inside it, "" when none started;
    /// empty on error.
    std::optional<std::string> read_frame(int size, std::string_view header, int milliseconds) {
        std::string frame(static_cast<size_t>(size > 0 ? size : 0), '\0');
        const int count = os_serial_read(m_port, frame.data(), size, header.data(),
                                         static_cast<int>(header.size()), milliseconds);
        if (count < 0)
            return std::nullopt;
        frame.resize(static_cast<size_t>(count));
        return frame;
    }

private:
    int m_port;
};

} // namespace korvane

#endif
