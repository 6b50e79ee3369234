// The filesystem walk: pre-order, depth-first, in the order the directory
// gives its entries, reporting through the caller's IWalkThroughCallback.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "korvane/fs.h"
#include "korvane/interfaces.h"
#include "common/SystemInternal.h"

namespace {

constexpr unsigned int kNoDepthLimit = 0xFFFFFFFF;

// An open directory stream, closed on scope exit.
class DirectoryStream {
public:
    explicit DirectoryStream(const char* path) : m_dir(opendir(path)) {}
    ~DirectoryStream() {
        if (m_dir != nullptr)
            closedir(m_dir);
    }
    DirectoryStream(const DirectoryStream&) = delete;
    DirectoryStream& operator=(const DirectoryStream&) = delete;

    bool isOpen() const { return m_dir != nullptr; }
    const dirent* next() { return readdir(m_dir); }

    // Whether `entry` of this folder is a folder, links not followed, or
    // false when it cannot be examined. The type the listing gives is used
    // where the file system fills it in; otherwise the entry is asked for
    // relative to the open folder, so the kernel does not resolve the whole
    // path again (that keeps the walk well ahead of nftw).
    bool holdsFolder(const dirent& entry) const {
        if (entry.d_type != DT_UNKNOWN)
            return entry.d_type == DT_DIR;
        struct stat status {};
        return fstatat(dirfd(m_dir), entry.d_name, &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(status.st_mode);
    }

private:
    DIR* m_dir;
};

bool isDotOrDotDot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

// One walk. Every entry's full path is root + relative path, so a single
// buffer holds both: `m_path` is the root followed by the relative path of
// the entry at hand, extended and cut back as the walk goes down and up. No
// string is built per entry.
class Walk {
public:
    Walk(const std::string& root, unsigned int maxDepth, IWalkThroughCallback* callback)
        : m_root(root), m_maxDepth(maxDepth), m_callback(callback) {
        // The root given to the callback ends in a separator unless it is empty.
        if (!m_root.empty() && m_root.back() != '/' && m_root.back() != '\\')
            m_root += '/';
        m_path = m_root;
    }

    void run(const char* folder) {
        m_path += folder;
        walkFolder(0);
    }

private:
    // Valid until m_path changes.
    const char* relativePath() const { return m_path.c_str() + m_root.length(); }

    // m_path holds root + relative path of the folder.
    void walkFolder(unsigned int depth) {
        if (m_callback != nullptr)
            m_callback->onFolder(relativePath(), m_root.c_str());
        if (m_maxDepth != kNoDepthLimit && m_maxDepth <= depth)
            return; // reported but not listed
        DirectoryStream folder(m_path.c_str());
        if (!folder.isOpen())
            return;
        const size_t folderLength = m_path.length();
        // The children of a folder whose relative path is empty are just their names.
        const bool needsSlash = folderLength > m_root.length();
        // Each entry is examined at root + relative path. That is the listed
        // entry itself unless the relative path is empty and the root ends
        // in a backslash: root "w\" with entry "sub" names the sibling
        // "w\sub", not the "sub" inside the folder.
        const bool inPlace = needsSlash || (!m_root.empty() && m_root.back() == '/');
        while (const dirent* entry = folder.next()) {
            if (isDotOrDotDot(entry->d_name))
                continue;
            if (needsSlash)
                m_path += '/';
            m_path += entry->d_name;
            visitEntry(inPlace ? isFolderInPlace(folder, *entry) : isFolderAtFullPath(), depth);
            m_path.resize(folderLength);
        }
    }

    // A full path lstat would refuse as too long counts as a file wherever
    // the entry is examined.
    bool isFolderInPlace(const DirectoryStream& folder, const dirent& entry) const {
        return m_path.length() < PATH_MAX && folder.holdsFolder(entry);
    }

    bool isFolderAtFullPath() const {
        struct stat status {};
        return lstat(m_path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
    }

    // m_path holds root + relative path of the entry. Links are never
    // followed, so a link to a folder is a file and a link loop cannot trap
    // the walk; an entry that could not be examined is a file too.
    void visitEntry(bool isFolder, unsigned int depth) {
        if (isFolder)
            walkFolder(depth + 1);
        else if (m_callback != nullptr)
            m_callback->onFile(relativePath(), m_root.c_str());
    }

    std::string m_root;
    std::string m_path;
    const unsigned int m_maxDepth;
    IWalkThroughCallback* const m_callback;
};

void os_filesystem_walk_through_ex_p(const char* folder, const char* root, unsigned int max_depth,
                                     IWalkThroughCallback* callback) {
    // A null root raises the standard library's logic error before anything
    // is reported (existing callers expect it).
    const std::string rootText = korvane::stringFromNonNull(root);
    if (folder == nullptr)
        return; // no starting folder: nothing to report
    Walk walk(rootText, max_depth, callback);
    walk.run(folder);
}

} // namespace

void os_filesystem_walk_through(const char* folder, const char* root, IWalkThroughCallback* callback) {
    os_filesystem_walk_through_ex_p(folder, root, kNoDepthLimit, callback);
}

void os_filesystem_walk_through_ex(const char* folder, const char* root, unsigned int max_depth,
                                   IWalkThroughCallback* callback) {
    os_filesystem_walk_through_ex_p(folder, root, max_depth, callback);
}

void os_filesystem_sync(void) {
    sync();
}
