// Files by path. Everything that opens, reads, writes, tests or deletes goes
// through the os_clibrary_file_ wrappers, so the whole subsystem reaches the
// platform's file calls in one place; only rename and stat are called here.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "common/BoolExport.h"
#include "common/UniqueDescriptor.h"
#include "korvane/fs.h"
#include "os/fs/FsInternal.h"

namespace korvane {
namespace fs {

bool existingFileType(const char* path, unsigned int& fileType) {
    if (!isUsablePath(path))
        return false;
    const std::string stripped = withoutTrailingSlashes(path);
    if (os_clibrary_file_access(stripped.c_str(), F_OK) == -1)
        return false;
    // stat's result is not checked: access has just found the name. Should
    // it vanish in between, the zeroed record reads as "not a folder".
    struct stat status {};
    stat(stripped.c_str(), &status);
    fileType = status.st_mode & S_IFMT;
    return true;
}

} // namespace fs
} // namespace korvane

namespace {

using korvane::fs::isUsablePath;
using korvane::fs::kAllPermissions;

// A descriptor opened through the wrappers, closed through them on scope exit.
using Descriptor = korvane::UniqueDescriptor<os_clibrary_file_close>;

constexpr unsigned int kCopyBufferSize = 8192;

// Copies until end of file. A read error counts as end of file, so the copy
// succeeds with what was written so far; existing callers rely on this. A
// short or failed write fails the copy.
bool copyContents(int source, int destination) {
    char buffer[kCopyBufferSize];
    for (;;) {
        const int count = os_clibrary_file_read(source, buffer, sizeof buffer);
        if (count <= 0)
            return true;
        if (os_clibrary_file_write(destination, buffer, static_cast<unsigned int>(count)) != count)
            return false;
    }
}

} // namespace

KORVANE_BOOL_EXPORT(os_file_is_relative_path, (const char* path)) {
    return isUsablePath(path) && path[0] != '/';
}

KORVANE_BOOL_EXPORT(os_file_exist, (const char* path)) {
    unsigned int fileType = 0;
    return korvane::fs::existingFileType(path, fileType) && fileType != S_IFDIR;
}

KORVANE_BOOL_EXPORT(os_file_create, (const char* path)) {
    if (!isUsablePath(path))
        return false;
    const std::string stripped = korvane::fs::withoutTrailingSlashes(path);
    // Read-only O_CREAT without O_TRUNC or O_EXCL: an existing file is left
    // exactly as it is.
    const Descriptor file(korvane::fs::withClearedUmask(
        [&] { return os_clibrary_file_open(stripped.c_str(), O_CREAT, kAllPermissions); }));
    return file.isOpen();
}

KORVANE_BOOL_EXPORT(os_file_remove, (const char* path)) {
    if (!isUsablePath(path))
        return false;
    return os_clibrary_file_unlink(korvane::fs::withoutTrailingSlashes(path).c_str()) != -1;
}

KORVANE_BOOL_EXPORT(os_file_move, (const char* from, const char* to)) {
    if (!isUsablePath(from) || !isUsablePath(to))
        return false;
    return rename(from, to) == 0;
}

KORVANE_BOOL_EXPORT(os_file_copy, (const char* source, const char* destination)) {
    if (!isUsablePath(source) || !isUsablePath(destination))
        return false;
    const Descriptor input(os_clibrary_file_open(source, O_RDONLY, kAllPermissions));
    if (!input.isOpen())
        return false;
    // The umask is left alone here, unlike os_file_create: a new destination
    // gets 0777 filtered by the caller's mask.
    const Descriptor output(os_clibrary_file_open(destination, O_RDWR | O_CREAT | O_TRUNC, kAllPermissions));
    if (!output.isOpen())
        return false;
    // Declared after `input`, `output` is closed first.
    return copyContents(input.get(), output.get());
}
