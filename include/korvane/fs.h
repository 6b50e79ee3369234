/// @file
/// Files and folders: thin wrappers over the POSIX file calls, file and
/// folder operations by path, and the filesystem walk.
#ifndef KORVANE_FS_H
#define KORVANE_FS_H

#include <cstdint>

#include "korvane/export.h"

class IWalkThroughCallback;

KORVANE_BEGIN_DECLS

// ---------------------------------------------------------------------------
// POSIX wrappers: each forwards its arguments unchanged and returns the
// call's own result (errno as the call left it, no EINTR retry). A null path
// gives -1 with errno EFAULT, as the kernel answers a bad address. The
// descriptors are the caller's to close.

/// open(2): a new descriptor, or -1.
KORVANE_API int os_clibrary_file_open(const char* path, int flags, unsigned int mode);
/// close(2): 0, or -1 (EBADF for a descriptor that is not open).
KORVANE_API int os_clibrary_file_close(int fd);
/// access(2): 0, or -1.
KORVANE_API int os_clibrary_file_access(const char* path, int mode);
/// umask(2): sets the process mask and returns the previous one.
KORVANE_API unsigned int os_clibrary_file_umask(unsigned int mask);
/// lseek(2): the new offset, or -1.
KORVANE_API int64_t os_clibrary_file_seek(int fd, int64_t offset, int whence);
///@{
/// read(2) and write(2): the byte count is 32-bit unsigned (zero-extended) and
/// the 64-bit result is narrowed to int: bytes moved, 0 at end of file, or -1.
KORVANE_API int os_clibrary_file_read(int fd, void* buffer, unsigned int length);
KORVANE_API int os_clibrary_file_write(int fd, const void* buffer, unsigned int length);
///@}
///@{
/// unlink(2), mkdir(2), chdir(2): 0, or -1.
KORVANE_API int os_clibrary_file_unlink(const char* path);
KORVANE_API int os_clibrary_file_mkdir(const char* path, unsigned int mode);
KORVANE_API int os_clibrary_file_chdir(const char* path);
///@}
/// getcwd(3): the buffer, or null. The size is sign-extended, so a negative
/// size becomes a huge byte count. A null buffer makes the platform allocate
/// the result, which the caller then releases with free().
KORVANE_API char* os_clibrary_file_getcwd(char* buffer, int size);

// ---------------------------------------------------------------------------
// Files by path. Null or empty paths give false and touch nothing. Trailing
// '/' characters (not '\\') are stripped by exist, create and remove; a path
// made only of '/' characters makes them throw std::out_of_range (existing
// callers never pass the root). Nothing is printed.

/// True when the path does not start with '/'; false for null or "".
KORVANE_API bool os_file_is_relative_path(const char* path);
/// True when something that is not a folder exists there (links followed; a
/// dangling link gives false).
KORVANE_API bool os_file_exist(const char* path);
/// True when the file exists afterwards. A new file gets mode 0777 exactly (the
/// process umask is cleared and restored around the call, which other threads
/// see for that moment); an existing file is left untouched. False when a
/// parent folder is missing or a folder is there.
KORVANE_API bool os_file_create(const char* path);
/// True when the name was unlinked; folders are never removed (false).
KORVANE_API bool os_file_remove(const char* path);
/// rename(2): true on success. Renames folders too; no copy across
/// filesystems (false, both names unchanged).
KORVANE_API bool os_file_move(const char* from, const char* to);
/// Copies the contents into the destination, truncated first and created with
/// 0777 less the caller's umask. False when either end cannot be opened or a
/// write comes up short (the partial copy stays); a read error ends the copy
/// as end of file and gives true.
KORVANE_API bool os_file_copy(const char* source, const char* destination);

// ---------------------------------------------------------------------------
// Folders by path.
//
// WARNING: os_folder_remove (recursive), os_folder_move and os_folder_copy
// run shell commands through system(3) with the paths pasted into the
// command line unquoted and unescaped (inside double or single quotes of a
// fixed format). A path containing a quote, '$', '`' or similar characters
// changes the meaning of the command. Never pass untrusted paths.

// All of them give false for a null or empty path and print nothing.

/// True when a folder exists at the path (trailing '/' stripped, links
/// followed). Like the file tests, a path made only of '/' characters throws
/// std::out_of_range.
KORVANE_API bool os_folder_exist(const char* path);
/// Creates the folder and every missing parent with mode 0777 exactly (umask
/// cleared around each mkdir). A first component "~" is taken literally and
/// not created. True when it exists at the end; false when a component cannot
/// be made (the folders made before it stay).
KORVANE_API bool os_folder_create(const char* path);
/// Trailing '/' and '\\' are stripped (separators only name the root).
/// recursive: the shell's rm -rf (true for a missing folder); otherwise
/// rmdir(2) of an empty folder. A shell command counts as done when it exits
/// normally with status 0.
KORVANE_API bool os_folder_remove(const char* path, bool recursive);
/// The shell's mv, after the same stripping as os_folder_remove: true when it
/// exits with status 0. An existing destination folder receives the source
/// inside it.
KORVANE_API bool os_folder_move(const char* source, const char* destination);
/// A missing destination is created and receives the visible contents of the
/// source (names starting with '.' directly inside it are not copied; a source
/// with no visible entry makes the copy fail). An existing destination receives
/// the source as a sub-folder named after the source's last component; a
/// source without any separator (such as "photos") gives only its last
/// character as that name ("s"), which existing callers rely on.
/// keep_existing never overwrites files; its result is that of the awk that
/// drives the copy. A destination made only of '/' characters, or a source of
/// separators only with an existing destination, throws std::out_of_range.
KORVANE_API bool os_folder_copy(const char* source, const char* destination, bool keep_existing);

// ---------------------------------------------------------------------------
// Filesystem walk: pre-order, depth-first, in directory order; symbolic links
// and entries that cannot be examined are reported as files and never
// followed. `folder` is relative to `root`; the callback receives relative
// paths and the root with '/' appended unless it is empty or already ends in
// '/' or '\\'; the strings are valid only during the call. The callback stays
// the caller's (never stored or released) and cannot stop the walk; a null
// callback walks without reporting. A null root throws std::logic_error
// before anything is reported; a null folder reports nothing. A starting
// folder that cannot be listed is still reported through onFolder.

/// Walks the whole tree.
KORVANE_API void os_filesystem_walk_through(const char* folder, const char* root, IWalkThroughCallback* callback);
/// max_depth 0 reports only the starting folder, 1 also its entries without
/// listing sub-folders; 0xFFFFFFFF means no limit.
KORVANE_API void os_filesystem_walk_through_ex(const char* folder, const char* root, unsigned int max_depth,
                                               IWalkThroughCallback* callback);
/// sync(2): flushes every filesystem.
KORVANE_API void os_filesystem_sync(void);

KORVANE_END_DECLS

#endif
