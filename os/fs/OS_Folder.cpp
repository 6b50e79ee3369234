// Folders by path. Testing and creating use system calls through the
// os_clibrary_file_ wrappers; removing a tree, moving and copying hand a
// command line to the shell. The paths go into those command lines as they
// are, without escaping: the public header warns callers about it.
#include <sys/stat.h>
#include <unistd.h>

#include <list>
#include <string>

#include "common/BoolExport.h"
#include "korvane/fs.h"
#include "os/fs/FsInternal.h"
#include "common/SystemInternal.h"

namespace {

using korvane::runShellCommand;
using korvane::fs::isUsablePath;
using korvane::fs::kAllPermissions;

constexpr const char* kSeparators = "/\\";

// The command formats and the room each buffer gets beyond the lengths of the
// paths pasted into it; the formats are part of the interface as they stand.
constexpr char kRemoveTreeFormat[] = "rm \"%s\" -rf";
constexpr char kMoveFormat[] = "mv \"%s\" \"%s\"";
constexpr char kCopyOverwritingFormat[] = "cp -rf \"%s\"/* \"%s\"";
// awk starts the interactive copy and answers its first question with "n";
// later questions read end of file, which cp also takes as "no".
constexpr char kCopyKeepingFormat[] =
    "awk 'BEGIN { cmd=\"cp -ri '\\''%s'\\''/* '\\''%s'\\''/\";print \"n\"|cmd;}'";
constexpr size_t kShortMargin = 32;
constexpr size_t kCopyMargin = 64;

// Fixed characters of a format (its "%s" pairs removed) plus the NUL.
template <size_t N>
constexpr size_t fixedLength(const char (&)[N], size_t pathCount) {
    return N - 2 * pathCount;
}
static_assert(fixedLength(kRemoveTreeFormat, 1) <= kShortMargin);
static_assert(fixedLength(kMoveFormat, 2) <= kShortMargin);
static_assert(fixedLength(kCopyOverwritingFormat, 2) <= kCopyMargin);
static_assert(fixedLength(kCopyKeepingFormat, 2) == kCopyMargin, "the keeping form needs the whole margin");

bool isSeparator(char c) {
    return c == '/' || c == '\\';
}

// Strips trailing '/' and '\\' for remove and move; a path of separators only
// names the root.
std::string withoutTrailingSeparators(const char* path) {
    std::string working(path);
    while (!working.empty() && isSeparator(working.back()))
        working.pop_back();
    return working.empty() ? std::string("/") : working;
}

std::string withTrailingSeparator(const char* path) {
    std::string working(path);
    if (!isSeparator(working.back()))
        working += '/';
    return working;
}

// "a//b/" gives a, "", b, "": every '/' ends one component.
std::list<std::string> componentsOf(const std::string& path) {
    std::list<std::string> components;
    size_t start = 0;
    for (size_t slash = path.find('/'); slash != std::string::npos; slash = path.find('/', start)) {
        components.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    components.push_back(path.substr(start));
    return components;
}

bool makeFolder(const std::string& path) {
    return korvane::fs::withClearedUmask(
               [&] { return os_clibrary_file_mkdir(path.c_str(), kAllPermissions); }) != -1;
}

// Name of the source's last component, taken from the end of `source`.
// Without a separator before that component only its last character is
// taken ('photos/' gives 's'); existing callers rely on it, keep it. A source
// of separators only ends in std::out_of_range from the substring.
std::string lastComponentName(const std::string& source) {
    const size_t last = source.find_last_not_of(kSeparators);
    const size_t before = last == std::string::npos ? std::string::npos : source.find_last_of(kSeparators, last);
    if (before != std::string::npos)
        return source.substr(before + 1, last - before);
    return source.substr(last, 1);
}

// into_subfolder exists only inside the library; os_folder_copy always
// passes true.
bool os_folder_copyinner(const char* source, const char* destination, bool keep_existing, bool into_subfolder) {
    if (!isUsablePath(source) || !isUsablePath(destination))
        return false;
    const std::string from = withTrailingSeparator(source);
    std::string to = withTrailingSeparator(destination);
    // A destination that cannot be created is not an error here: the copy
    // command then fails and says so.
    if (!os_folder_exist(to.c_str())) {
        os_folder_create(to.c_str());
    } else if (into_subfolder) {
        to += lastComponentName(from) + "/";
        if (!os_folder_exist(to.c_str()))
            os_folder_create(to.c_str());
    }
    if (keep_existing)
        return runShellCommand(kCopyKeepingFormat, kCopyMargin, from, to);
    return runShellCommand(kCopyOverwritingFormat, kCopyMargin, from, to);
}

} // namespace

KORVANE_BOOL_EXPORT(os_folder_exist, (const char* path)) {
    unsigned int fileType = 0;
    return korvane::fs::existingFileType(path, fileType) && fileType == S_IFDIR;
}

KORVANE_BOOL_EXPORT(os_folder_create, (const char* path)) {
    if (!isUsablePath(path))
        return false;
    std::string current;
    for (const std::string& component : componentsOf(path)) {
        if (component.empty()) {
            // A leading '/' makes the path absolute; doubled and trailing
            // ones are ignored.
            if (current.empty())
                current = "/";
            continue;
        }
        if (current.empty()) {
            current = component;
            if (current == "~")
                continue; // taken as given: neither expanded, tested nor created
        } else {
            // After the leading "/" this gives "//a": the system reads it as
            // "/a", and existing callers see exactly these calls. Kept on purpose.
            current += "/" + component;
        }
        if (!os_folder_exist(current.c_str()) && !makeFolder(current))
            return false; // folders made so far stay
    }
    return true;
}

KORVANE_BOOL_EXPORT(os_folder_remove, (const char* path, bool recursive)) {
    if (!isUsablePath(path))
        return false;
    const std::string folder = withoutTrailingSeparators(path);
    if (recursive)
        return runShellCommand(kRemoveTreeFormat, kShortMargin, folder);
    return rmdir(folder.c_str()) == 0;
}

KORVANE_BOOL_EXPORT(os_folder_move, (const char* source, const char* destination)) {
    if (!isUsablePath(source) || !isUsablePath(destination))
        return false;
    const std::string from = withoutTrailingSeparators(source);
    const std::string to = withoutTrailingSeparators(destination);
    return runShellCommand(kMoveFormat, kShortMargin, from, to);
}

KORVANE_BOOL_EXPORT(os_folder_copy, (const char* source, const char* destination, bool keep_existing)) {
    return os_folder_copyinner(source, destination, keep_existing, true);
}
