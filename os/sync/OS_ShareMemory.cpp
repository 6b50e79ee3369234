// POSIX shared memory segments behind a handle. Every named synchronisation
// object lives in one: the sync manager creates it, each user maps it. The
// segment's descriptor is closed as soon as the mapping exists.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "korvane/sync.h"
#include "common/HandleFrame.h"

class sharememory_handle {
public:
    sharememory_handle() = default;
    virtual ~sharememory_handle() { sharememory_close(); }

    sharememory_handle(const sharememory_handle&) = delete;
    sharememory_handle& operator=(const sharememory_handle&) = delete;

    // Creates, or takes over and resets, the segment and maps it zero-filled.
    bool sharememory_create(const char* name, unsigned int size);
    // Maps an existing segment at its current size.
    bool sharememory_open(const char* name);
    // Closes the descriptor if open and unmaps if mapped.
    void sharememory_close();
    // The same, then removes the name: shm_unlink's result.
    int sharememory_destroy();

    void* buffer() const { return m_buffer; }

private:
    bool openSegment(const char* name, int flags);
    bool map(uint32_t size);
    bool reserve(uint32_t size);
    void closeDescriptor();

    int32_t m_fd = -1;
    uint64_t m_size = 0;
    std::string m_name;
    void* m_buffer = MAP_FAILED;
};

namespace {

// Keeps errno across clean-up, so that a caller printing errno after a failed
// create or open sees the cause rather than what the clean-up left.
class PreserveErrno {
public:
    ~PreserveErrno() { errno = m_saved; }

private:
    int m_saved = errno;
};

} // namespace

bool sharememory_handle::openSegment(const char* name, int flags) {
    sharememory_close();
    if (name == nullptr) {
        errno = EINVAL;
        return false;
    }
    m_fd = shm_open(name, flags, 0777);
    if (m_fd == -1)
        return false;
    m_name = name;
    return true;
}

bool sharememory_handle::map(uint32_t size) {
    m_size = size;
    // Locked pages keep the real-time users of these objects free of page
    // faults; where the memory-lock limit refuses that, the unlocked mapping
    // works the same (silently, as callers expect).
    m_buffer = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_LOCKED | MAP_POPULATE, m_fd, 0);
    if (m_buffer == MAP_FAILED)
        m_buffer = mmap(nullptr, m_size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_POPULATE, m_fd, 0);
    if (m_buffer == MAP_FAILED)
        m_size = 0;
    return m_buffer != MAP_FAILED;
}

bool sharememory_handle::reserve(uint32_t size) {
    const int result = size == 0 ? 0 : posix_fallocate(m_fd, 0, size);
    if (result != 0)
        errno = result;
    return result == 0;
}

void sharememory_handle::closeDescriptor() {
    if (m_fd != -1) {
        PreserveErrno keep;
        close(m_fd);
        m_fd = -1;
    }
}

bool sharememory_handle::sharememory_create(const char* name, unsigned int size) {
    if (!openSegment(name, O_RDWR | O_CREAT))
        return false;
    // A failed create never removes the name: a segment made here stays,
    // possibly resized. Existing callers rely on this; keep it.
    // The pages are reserved before they are touched: where the memory
    // cannot hold the size asked for, the create fails here instead of the
    // first write into the mapping raising SIGBUS.
    const bool mapped = ftruncate(m_fd, size) == 0 && reserve(size) && map(size);
    if (mapped)
        std::memset(m_buffer, 0, size); // creating always resets the contents
    closeDescriptor();
    return mapped;
}

bool sharememory_handle::sharememory_open(const char* name) {
    if (!openSegment(name, O_RDWR))
        return false;
    struct stat status;
    // The size is kept as a 32-bit value, as on create.
    const bool mapped = fstat(m_fd, &status) == 0 && map(static_cast<uint32_t>(status.st_size));
    closeDescriptor();
    return mapped;
}

void sharememory_handle::sharememory_close() {
    closeDescriptor();
    if (m_buffer != MAP_FAILED) {
        PreserveErrno keep;
        munmap(m_buffer, m_size);
        m_size = 0;
        m_buffer = MAP_FAILED;
    }
}

int sharememory_handle::sharememory_destroy() {
    sharememory_close();
    return shm_unlink(m_name.c_str());
}

namespace {

// A fresh handle set up by `setup`, or null (errno kept) when that failed.
template <class Setup>
sharememory_handle* makeHandle(Setup setup) {
    sharememory_handle* handle = new sharememory_handle;
    if (setup(*handle))
        return handle;
    PreserveErrno keep;
    delete handle;
    return nullptr;
}

} // namespace

sharememory_handle* os_sharememory_create(const char* name, uint32_t size) {
    return makeHandle([&](sharememory_handle& handle) { return handle.sharememory_create(name, size); });
}

sharememory_handle* os_sharememory_open(const char* name) {
    return makeHandle([&](sharememory_handle& handle) { return handle.sharememory_open(name); });
}

void* os_sharememory_get_buffer(sharememory_handle* handle) {
    return handle == nullptr ? nullptr : handle->buffer();
}

void os_sharememory_close(sharememory_handle* handle, bool unlink) {
    if (handle == nullptr)
        return;
    // shm_unlink runs even when nothing was mapped; its result is ignored.
    if (unlink)
        handle->sharememory_destroy();
    else
        handle->sharememory_close();
}

void os_sharememory_destroy(sharememory_handle** handle) {
    korvane::destroyHandle(handle); // unmaps; never removes the name
}
