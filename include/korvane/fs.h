// Files and folders: thin wrappers over the POSIX file calls, file and
// folder operations by path, and the filesystem walk.
#ifndef KORVANE_FS_H
#define KORVANE_FS_H

#include <cstdint>

#include "korvane/export.h"

class IWalkThroughCallback;

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// POSIX wrappers: each forwards its arguments unchanged and returns the
// call's own result (errno as the call left it, no EINTR retry). A null path
// gives -1 with errno EFAULT, as the kernel answers a bad address.

KORVANE_API int os_clibrary_file_open(const char* path, int flags, unsigned int mode);
KORVANE_API int os_clibrary_file_close(int fd);
KORVANE_API int os_clibrary_file_access(const char* path, int mode);
// Returns the previous mask.
KORVANE_API unsigned int os_clibrary_file_umask(unsigned int mask);
KORVANE_API int64_t os_clibrary_file_seek(int fd, int64_t offset, int whence);
// The byte count is 32-bit; the 64-bit result is narrowed to int.
KORVANE_API int os_clibrary_file_read(int fd, void* buffer, unsigned int length);
KORVANE_API int os_clibrary_file_write(int fd, const void* buffer, unsigned int length);
KORVANE_API int os_clibrary_file_unlink(const char* path);
KORVANE_API int os_clibrary_file_mkdir(const char* path, unsigned int mode);
KORVANE_API int os_clibrary_file_chdir(const char* path);
// The size is sign-extended: a negative size becomes a huge byte count.
KORVANE_API char* os_clibrary_file_getcwd(char* buffer, int size);

// ---------------------------------------------------------------------------
// Files by path. Null or empty paths give false. Trailing '/' characters are
// stripped by exist, create and remove; a path made only of '/' characters
// makes them throw std::out_of_range (existing callers never pass the root).

// True when the path does not start with '/'.
KORVANE_API bool os_file_is_relative_path(const char* path);
// True when something that is not a folder exists there (links followed).
KORVANE_API bool os_file_exist(const char* path);
// Creates the file with mode 0777 exactly (the process umask is cleared and
// restored around the call, which other threads see for that moment). An
// existing file is left untouched and gives true.
KORVANE_API bool os_file_create(const char* path);
// Unlinks the path (never a folder).
KORVANE_API bool os_file_remove(const char* path);
// rename(2): no copy across filesystems.
KORVANE_API bool os_file_move(const char* from, const char* to);
// Copies contents (destination truncated, created with 0777 less the umask).
// A read error ends the copy as end of file; a short write gives false.
KORVANE_API bool os_file_copy(const char* source, const char* destination);

// ---------------------------------------------------------------------------
// Folders by path.
//
// WARNING: os_folder_remove (recursive), os_folder_move and os_folder_copy
// run shell commands through system(3) with the paths pasted into the
// command line unquoted and unescaped (inside double or single quotes of a
// fixed format). A path containing a quote, '$', '`' or similar characters
// changes the meaning of the command. Never pass untrusted paths.

// True when a folder exists at the path (trailing '/' stripped, links
// followed). Like the file tests, a path made only of '/' characters throws
// std::out_of_range.
KORVANE_API bool os_folder_exist(const char* path);
// Creates the folder and every missing parent with mode 0777 exactly. A first
// component "~" is taken literally and not created. True when it exists at
// the end.
KORVANE_API bool os_folder_create(const char* path);
// Trailing '/' and '\\' are stripped (separators only name the root).
// recursive: the shell's rm -rf (true for a missing folder); otherwise
// rmdir(2) of an empty folder. A shell command counts as done when it exits
// normally with status 0.
KORVANE_API bool os_folder_remove(const char* path, bool recursive);
// The shell's mv, after the same stripping as os_folder_remove: an existing
// destination folder receives the source inside it.
KORVANE_API bool os_folder_move(const char* source, const char* destination);
// A missing destination is created and receives the visible contents of the
// source (names starting with '.' directly inside it are not copied; a source
// with no visible entry makes the copy fail). An existing destination receives
// the source as a sub-folder named after the source's last component; a
// source without any separator (such as "photos") gives only its last
// character as that name ("s"), which existing callers rely on.
// keep_existing never overwrites files; its result is that of the awk that
// drives the copy. A destination made only of '/' characters, or a source of
// separators only with an existing destination, throws std::out_of_range.
KORVANE_API bool os_folder_copy(const char* source, const char* destination, bool keep_existing);

// ---------------------------------------------------------------------------
// Filesystem walk: pre-order, depth-first, in directory order; symbolic links
// are reported as files and never followed. `folder` is relative to `root`;
// the callback (may be null) receives relative paths and the root with a
// '/' appended. A null root throws std::logic_error; a null folder reports
// nothing. The callback cannot stop the walk.

KORVANE_API void os_filesystem_walk_through(const char* folder, const char* root, IWalkThroughCallback* callback);
// max_depth 0 reports only the starting folder; 0xFFFFFFFF means no limit.
KORVANE_API void os_filesystem_walk_through_ex(const char* folder, const char* root, unsigned int max_depth,
                                               IWalkThroughCallback* callback);
// sync(2).
KORVANE_API void os_filesystem_sync(void);

KORVANE_END_DECLS

#endif
