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

    // What lstat on `fullPath` gives for the entry `name` of this folder, or a
    // zeroed record when it fails. Asked relative to the open folder, so the
    // kernel does not resolve the whole path again for every entry (this keeps
    // the walk as fast as nftw). A full path lstat would refuse as too long is
    // refused here too, so such an entry is reported the same way.
    struct stat examine(const std::string& fullPath, const char* name) const {
        struct stat status {};
        if (fullPath.length() >= PATH_MAX || fstatat(dirfd(m_dir), name, &status, AT_SYMLINK_NOFOLLOW) != 0)
            status = {};
        return status;
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
        while (const dirent* entry = folder.next()) {
            if (isDotOrDotDot(entry->d_name))
                continue;
            if (needsSlash)
                m_path += '/';
            m_path += entry->d_name;
            visitEntry(folder.examine(m_path, entry->d_name), depth);
            m_path.resize(folderLength);
        }
    }

    // m_path holds root + relative path of the entry, `status` its lstat
    // record: links are never followed, so a link to a folder is a file and a
    // link loop cannot trap the walk. An entry that could not be examined has
    // mode 0 and is reported as a file.
    void visitEntry(const struct stat& status, unsigned int depth) {
        if ((status.st_mode & S_IFMT) == S_IFDIR)
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
