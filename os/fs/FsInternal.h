// What the file and folder families share: the test for a usable path, the
// trailing-'/' stripping of the path tests, the existence test itself, and
// creation with full permissions under a cleared umask.
#ifndef KORVANE_FS_INTERNAL_H
#define KORVANE_FS_INTERNAL_H

#include <string>

#include "korvane/fs.h"

namespace korvane {
namespace fs {

// New files and folders get exactly this mode (see withClearedUmask).
constexpr unsigned int kAllPermissions = 0777;

// Null and empty paths are refused by every file and folder operation.
inline bool isUsablePath(const char* path) {
    return path != nullptr && *path != '\0';
}

// The path without its trailing '/' characters ('\\' is kept). There is no
// stop at the empty string: a path made only of '/' ends in std::out_of_range
// from the substring test. Kept on purpose: existing callers never pass the
// root and the behaviour of these functions on it is part of the interface.
inline std::string withoutTrailingSlashes(const char* path) {
    std::string working(path);
    while (working.substr(working.length() - 1, 1) == "/")
        working.pop_back();
    return working;
}

// Shared by os_file_exist and os_folder_exist: false for a null or empty path
// or when nothing is there; otherwise true with the file type bits
// (mode & S_IFMT) of what the path names, links followed.
bool existingFileType(const char* path, unsigned int& fileType);

// Runs `create` with the process umask cleared so the new object gets exactly
// the mode it asks for, then restores the caller's mask whatever happened.
// Other threads see the cleared mask for that moment.
template <class Create>
int withClearedUmask(Create create) {
    const unsigned int saved = os_clibrary_file_umask(0);
    const int result = create();
    os_clibrary_file_umask(saved);
    return result;
}

} // namespace fs
} // namespace korvane

#endif
