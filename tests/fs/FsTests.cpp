// Files and folders: the POSIX wrappers, file and folder operations by path,
// the filesystem walk, and (in the same family) the text helpers.
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <clocale>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <stdexcept>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"
#include "korvane/system.h"

// With hideTypes set the listing gives no entry's type, as on file systems
// that do not record it.
bool hideTypes = false;
extern "C" dirent* readdir(DIR* folder) {
    static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
    dirent* entry = real(folder);
    if (entry != nullptr && hideTypes)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

namespace {


void writeFile(const std::string& path, const std::string& content) { std::ofstream(path) << content; }

std::string readFile(const std::string& path) {
    std::ostringstream content;
    content << std::ifstream(path).rdbuf();
    return content.str();
}

// Type and permission bits (links not followed); 0 when nothing is there.
unsigned int modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

bool isFolder(const std::string& path) { return S_ISDIR(modeOf(path)); }

void makeFolders(std::initializer_list<const char*> paths) {
    for (const char* path : paths)
        ASSERT_EQ(mkdir(path, 0700), 0) << path;
}

// Each test runs inside a fresh temporary folder with the umask at 022; both
// are given back afterwards.
class FilesAndFolders : public ::testing::Test {
protected:
    FilesAndFolders() : m_savedMask(umask(022)) {
        if (getcwd(m_savedFolder, sizeof m_savedFolder) == nullptr || chdir(dir.path().c_str()) != 0)
            std::abort();
    }
    ~FilesAndFolders() override {
        umask(m_savedMask);
        if (chdir(m_savedFolder) != 0)
            std::abort(); // every later test would run in the wrong place
    }
    kvtest::TempDir dir;

private:
    mode_t m_savedMask;
    char m_savedFolder[4096] = {};
};

// getcwd's size is sign-extended, so -1 is the largest count (which a
// user-mode emulator may refuse, unlike Linux, so the platform decides).
TEST_F(FilesAndFolders, WrappersForwardAndRefuseNullPaths) {
    const int fd = os_clibrary_file_open("data", O_RDWR | O_CREAT, 0600);
    EXPECT_EQ(os_clibrary_file_write(fd, "hello", 5), 5);
    EXPECT_EQ(os_clibrary_file_seek(fd, 1, SEEK_SET), 1);
    char text[8] = {};
    EXPECT_EQ(os_clibrary_file_read(fd, text, sizeof text), 4);
    EXPECT_STREQ(text, "ello");
    EXPECT_EQ(os_clibrary_file_close(fd), 0);
    char buffer[4096] = {};
    EXPECT_EQ(os_clibrary_file_getcwd(buffer, 1), nullptr);
    volatile size_t largest = SIZE_MAX;
    EXPECT_EQ(os_clibrary_file_getcwd(buffer, -1), getcwd(buffer, largest) != nullptr ? buffer : nullptr);
    for (int result : {os_clibrary_file_open(nullptr, O_RDONLY, 0), os_clibrary_file_access(nullptr, F_OK),
                       os_clibrary_file_unlink(nullptr), os_clibrary_file_mkdir(nullptr, 0777),
                       os_clibrary_file_chdir(nullptr)})
        EXPECT_EQ(result, -1);
    EXPECT_EQ(errno, EFAULT) << "the kernel's answer to a bad address";
}

TEST_F(FilesAndFolders, PathTestsAndBadPaths) {
    for (const auto& [path, relative] : std::vector<std::pair<const char*, bool>>{
             {nullptr, false}, {"", false}, {"/a", false}, {"//x", false}, {"a/b", true}, {"\\a", true}, {"~/x", true}})
        EXPECT_EQ(os_file_is_relative_path(path), relative) << (path ? path : "(null)");
    writeFile("file", "x");
    makeFolders({"folder"});
    ASSERT_EQ(mkfifo("fifo", 0600) | symlink("file", "to-file") | symlink("folder", "to-dir") | symlink("-", "dangling"),
              0);
    // Path, os_file_exist, os_folder_exist. Only '/' is stripped; links are followed.
    const std::tuple<const char*, bool, bool> rows[] = {
        {"file", true, false},  {"file///", true, false}, {"file\\", false, false}, {"fifo", true, false},
        {"to-file", true, false}, {"folder", false, true}, {"folder//", false, true}, {"to-dir", false, true},
        {"dangling", false, false}, {"missing", false, false}};
    for (const auto& [path, file, folder] : rows) {
        EXPECT_EQ(os_file_exist(path), file) << path;
        EXPECT_EQ(os_folder_exist(path), folder) << path;
    }
    kvtest::shell().commands.clear();
    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        for (auto call : {os_file_exist, os_file_create, os_file_remove, os_folder_exist, os_folder_create})
            EXPECT_FALSE(call(bad));
        for (auto call : {os_file_move, os_file_copy, os_folder_move}) {
            EXPECT_FALSE(call(bad, "file"));
            EXPECT_FALSE(call("file", bad));
        }
        for (bool flag : {false, true}) {
            EXPECT_FALSE(os_folder_remove(bad, flag));
            EXPECT_FALSE(os_folder_copy(bad, "file", flag));
            EXPECT_FALSE(os_folder_copy("file", bad, flag));
        }
    }
    EXPECT_TRUE(kvtest::shell().commands.empty());
    EXPECT_EQ(readFile("file"), "x");
    for (const char* root : {"/", "//"}) // stripping has no stop at "", kept for existing callers
        for (auto call : {os_file_exist, os_file_create, os_file_remove, os_folder_exist})
            EXPECT_THROW(call(root), std::out_of_range) << root;
}

TEST_F(FilesAndFolders, FileCreateRemoveAndMove) {
    ASSERT_TRUE(os_file_create("new//"));
    EXPECT_EQ(modeOf("new"), S_IFREG | 0777u) << "the umask is cleared around the call";
    writeFile("old", "content");
    ASSERT_EQ(chmod("old", 0640), 0);
    EXPECT_TRUE(os_file_create("old"));
    EXPECT_EQ(readFile("old"), "content");
    EXPECT_EQ(modeOf("old"), S_IFREG | 0640u);
    makeFolders({"folder"});
    EXPECT_FALSE(os_file_create("missing/new") || os_file_create("folder") || os_file_remove("folder"));
    EXPECT_EQ(umask(022), 022u) << "the caller's umask is given back";
    EXPECT_TRUE(os_file_move("old", "moved") && os_file_move("folder", "renamed") && !os_file_move("old", "x"));
    EXPECT_TRUE(readFile("moved") == "content" && isFolder("renamed"));
    EXPECT_TRUE(os_file_remove("moved//") && !os_file_remove("moved"));
    struct stat here {}, there {};
    if (stat(".", &here) != 0 || stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "no second filesystem at /dev/shm";
    const std::string elsewhere = "/dev/shm/" + kvtest::uniqueName("move");
    EXPECT_FALSE(os_file_move("new", elsewhere.c_str())) << "a move never copies across filesystems";
    EXPECT_TRUE(modeOf("new") != 0 && modeOf(elsewhere) == 0);
}

TEST_F(FilesAndFolders, FileCopy) {
    std::string content;
    for (int i = 0; i < 4000; ++i) // more than two copy buffers
        content += std::to_string(i) + ",";
    writeFile("source", content);
    ASSERT_TRUE(os_file_copy("source", "copy"));
    EXPECT_EQ(readFile("copy"), content);
    EXPECT_EQ(modeOf("copy"), S_IFREG | 0755u) << "0777 less the caller's umask";
    writeFile("empty", "");
    EXPECT_TRUE(os_file_copy("empty", "copy") && readFile("copy").empty()) << "truncated first";
    makeFolders({"folder"});
    EXPECT_TRUE(os_file_copy("folder", "from-folder") && modeOf("from-folder") == (S_IFREG | 0755u))
        << "a read error counts as end of file";
    const int freeBefore = dup(0);
    close(freeBefore);
    EXPECT_FALSE(os_file_copy("missing", "other") || os_file_copy("source", "missing/copy") || modeOf("other"));
    const int freeAfter = dup(0);
    close(freeAfter);
    EXPECT_EQ(freeAfter, freeBefore) << "a descriptor was left open";
    // A file size limit cuts the second 8192-byte write short; the partial copy stays.
    const kvtest::ChildResult result = kvtest::runInChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {10000, 10000};
        return setrlimit(RLIMIT_FSIZE, &limit) != 0 ? 2 : os_file_copy("source", "copy") ? 1 : 0;
    });
    EXPECT_TRUE(result.exited && result.exitCode == 0) << result.exitCode;
    EXPECT_EQ(readFile("copy"), content.substr(0, 10000));
    EXPECT_TRUE(os_file_copy("source", "source") && readFile("source").empty()) << "truncated before it is read";
}

TEST_F(FilesAndFolders, FolderCreateMakesEveryParentWithFullPermissions) {
    ASSERT_TRUE(os_folder_create("a/b//c/"));
    for (const char* folder : {"a", "a/b", "a/b/c"})
        EXPECT_EQ(modeOf(folder), S_IFDIR | 0777u) << folder;
    EXPECT_EQ(umask(022), 022u);
    EXPECT_TRUE(os_folder_create("a/b/c") && os_folder_create("/"));
    EXPECT_TRUE(os_folder_create((dir.path() + "//x/y").c_str()) && isFolder("x/y"));
    writeFile("a/file", "x");
    EXPECT_FALSE(os_folder_create("a/file/c"));
    EXPECT_EQ(readFile("a/file"), "x");
    EXPECT_FALSE(os_folder_create("~/x") || modeOf("~")) << "a first '~' is literal and never created";
    makeFolders({"~"});
    EXPECT_TRUE(os_folder_create("~/x") && isFolder("~/x"));
}

// The paths go into fixed formats unescaped.
TEST_F(FilesAndFolders, FolderCommandLines) {
    makeFolders({"existing"});
    const std::pair<std::function<bool()>, std::string> rows[] = {
        {[] { return os_folder_remove("a\\//", true); }, "rm \"a\" -rf"},
        {[] { return os_folder_remove("/\\", true); }, "rm \"/\" -rf"},
        {[] { return os_folder_move("a///", "b\\"); }, "mv \"a\" \"b\""},
        {[] { return os_folder_copy("src", "new", false); }, "cp -rf \"src/\"/* \"new/\""},
        {[] { return os_folder_copy("a/src\\", "kept", true); },
         "awk 'BEGIN { cmd=\"cp -ri '\\''a/src\\'\\''/* '\\''kept/'\\''/\";print \"n\"|cmd;}'"},
        // Into an existing folder under the source's name; without a separator
        // that name is the last character only, kept for existing callers.
        {[] { return os_folder_copy("a/src", "existing", false); }, "cp -rf \"a/src/\"/* \"existing/src/\""},
        {[] { return os_folder_copy("photos", "existing", false); }, "cp -rf \"photos/\"/* \"existing/s/\""},
    };
    kvtest::shell().dryRun = true;
    kvtest::shell().status = 0;
    for (const auto& [run, expected] : rows) {
        kvtest::shell().commands.clear();
        EXPECT_TRUE(run());
        EXPECT_EQ(kvtest::shell().commands, std::vector<std::string>{expected});
    }
    kvtest::shell().dryRun = false;
    EXPECT_TRUE(isFolder("new") && isFolder("kept") && isFolder("existing/src") && isFolder("existing/s"));
    EXPECT_THROW(os_folder_copy("src", "/", false), std::out_of_range);
    EXPECT_THROW(os_folder_copy("//", "existing", false), std::out_of_range);
}

// For real: the keeping copy never overwrites, the /* pattern misses hidden
// names directly inside the source, a plain remove takes only empty folders.
TEST_F(FilesAndFolders, FolderCommandsRunThroughTheShell) {
    makeFolders({"src", "src/sub", "empty", "dest", "dest/c"});
    for (const char* name : {"src/f", "src/.hidden", "src/sub/.inner", "dest/c/f"})
        writeFile(name, name);
    EXPECT_FALSE(os_folder_remove("src", false));
    EXPECT_TRUE(os_folder_remove("empty/", false) && modeOf("empty") == 0);
    ASSERT_TRUE(os_folder_copy("src", "dest", true)); // into dest/c, named after the last character
    EXPECT_EQ(readFile("dest/c/f") + readFile("dest/c/sub/.inner"), "dest/c/fsrc/sub/.inner");
    ASSERT_TRUE(os_folder_copy("src", "new", false));
    EXPECT_TRUE(readFile("new/f") == "src/f" && modeOf("new/.hidden") == 0);
    ASSERT_TRUE(os_folder_move("new/", "dest") && isFolder("dest/new"));
    EXPECT_TRUE(os_folder_remove("dest", true) && os_folder_remove("dest", true) && modeOf("dest") == 0);
}

// Each call as "F relative|root" (onFolder) or "f relative|root" (onFile).
struct Recorder : IWalkThroughCallback {
    void onFile(const char* relative, const char* root) override { record("f ", relative, root); }
    void onFolder(const char* relative, const char* root) override { record("F ", relative, root); }
    void record(const char* kind, const char* relative, const char* root) {
        calls.push_back(kind + std::string(relative) + "|" + root);
    }
    std::vector<std::string> calls;
};

std::vector<std::string> walk(const std::string& start, const char* root, unsigned int maxDepth = 0xFFFFFFFF,
                              bool sort = false) {
    Recorder recorder;
    os_filesystem_walk_through_ex(start.c_str(), root, maxDepth, &recorder);
    if (sort)
        std::sort(recorder.calls.begin(), recorder.calls.end());
    return recorder.calls;
}

TEST_F(FilesAndFolders, WalkOrderPathsRootsAndDepthLimits) {
    // The root "w\\" holds "sub" and "g", and the folder "w\\g" beside it holds "x".
    makeFolders({"data", "data/sub", "w\\", "w\\/sub", "w\\g"});
    for (const char* name : {"data/a", "data/.h", "data/sub/b", "w\\/g", "w\\g/x"})
        writeFile(name, name);
    ASSERT_EQ(symlink("sub", "data/to-sub") | symlink(".", "data/sub/loop"), 0); // files, never followed
    const std::vector<std::string> calls = walk("", "data");
    ASSERT_EQ(calls.size(), 7u);
    EXPECT_EQ(calls[0], "F |data/");
    const size_t sub = std::find(calls.begin(), calls.end(), "F sub|data/") - calls.begin();
    ASSERT_LT(sub + 2, 7u);
    EXPECT_EQ(calls[sub + 1].substr(0, 6) + calls[sub + 2].substr(0, 6), "f sub/f sub/") << "walked when met";
    Recorder recorder;
    os_filesystem_walk_through("", "data", &recorder);
    EXPECT_EQ(recorder.calls, calls);
    const std::tuple<const char*, const char*, unsigned int, std::vector<std::string>> rows[] = {
        {"", "data/", 0xFFFFFFFE, walk("", "data", 0xFFFFFFFF, true)},
        {"", "data", 0, {"F |data/"}},
        {"", "data", 1, {"F |data/", "F sub|data/", "f .h|data/", "f a|data/", "f to-sub|data/"}},
        {"sub", "data", 5, {"F sub|data/", "f sub/b|data/", "f sub/loop|data/"}},
        {"data/sub", "", 5, {"F data/sub|", "f data/sub/b|", "f data/sub/loop|"}},
        // No '/' after a '\\', and entries are examined at root + relative path.
        {"", "w\\", 5, {"F |w\\", "f sub|w\\", "F g|w\\", "f g/x|w\\"}},
        {"data/a", "", 3, {"F data/a|"}},                 // reported, not listed
    };
    for (auto [start, root, maxDepth, expected] : rows) {
        std::sort(expected.begin(), expected.end());
        for (bool hidden : {false, true}) { // types from the listing, or asked for
            hideTypes = hidden;
            EXPECT_EQ(walk(start, root, maxDepth, true), expected) << "'" << start << "' in '" << root << "'";
        }
        hideTypes = false;
    }
}

TEST_F(FilesAndFolders, WalkBadInputAndEntriesThatCannotBeExamined) {
    Recorder recorder;
    EXPECT_THROW(os_filesystem_walk_through("", nullptr, &recorder), std::logic_error);
    os_filesystem_walk_through(nullptr, ".", &recorder);
    os_filesystem_walk_through("", ".", nullptr);
    EXPECT_TRUE(recorder.calls.empty());
    // A folder whose full path is too long to examine is reported as a file.
    const std::string segment(200, 'd');
    std::string relative = "deep";
    makeFolders({"deep"});
    while ((dir / relative).size() + 1 + segment.size() < PATH_MAX)
        makeFolders({(relative += "/" + segment).c_str()});
    const int parent = open(relative.c_str(), O_RDONLY | O_DIRECTORY); // the last one fits only relative to it
    ASSERT_EQ(mkdirat(parent, segment.c_str(), 0700), 0);
    EXPECT_EQ(walk("deep", dir.path().c_str()).back(), "f " + relative + "/" + segment + "|" + dir.path() + "/");
    EXPECT_EQ(unlinkat(parent, segment.c_str(), AT_REMOVEDIR), 0);
    close(parent);
}

// The length, then formatting with the same va_list, which must be usable.
std::string formatTwice(int* length, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    *length = os_clibrary_string_get_formatted_length(format, arguments);
    char buffer[64] = {};
    if (format != nullptr)
        vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

TEST(FormattedLength, CountsTheNulAndFailsWithMinusOne) {
    int length = 0;
    EXPECT_EQ(formatTwice(&length, "%d-%s", 42, "ab"), "42-ab");
    EXPECT_EQ(length, 6);
    formatTwice(&length, nullptr);
    EXPECT_EQ(length, -1);
    const std::string saved = setlocale(LC_CTYPE, nullptr);
    setlocale(LC_CTYPE, "C"); // cannot encode the euro sign
    formatTwice(&length, "%lc", static_cast<wint_t>(0x20AC));
    setlocale(LC_CTYPE, saved.c_str());
    EXPECT_EQ(length, -1);
}

// greater(a, b) for each row; less must be greater with its arguments swapped.
// Digit runs are re-read from their start, digits sort before other bytes,
// bytes are unsigned without case folding, equal values decide nothing.
TEST(NaturalOrder, TableInBothDirections) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"file10", "file9", true}, {"file9", "file10", false}, {"v1.10", "v1.9", true}, {"x19y", "x123y", false},
        {"a12", "a123", false}, {"a123", "a12", true}, {"abc", "abcd", false}, {"abcd", "abc", true}, {"", "", false},
        {"x", "", true}, {nullptr, "a", false}, {"a1", "ab", false}, {"ab", "a1", true}, {"Z", "a", false},
        {"\xe9", "e", true}, {"07", "7", false}, {"7", "07", false}, {"img007b", "img7a", false},
        // Values are strtol's (LONG_MAX on overflow) cut to 32 bits.
        {"4294967296", "1", false}, {"4294967301", "4", true}, {"4294967301", "6", false},
        {"1000000000000000000", "999999999999999999", true}, {"99999999999999999999", "0", false},
        {"0", "9223372036854775808", true}};
    for (const auto& [a, b, aAfterB] : rows) {
        const std::string label = std::string(a ? a : "(null)") + " vs " + b;
        EXPECT_EQ(os_clibrary_string_intelligent_greater(a, b), aAfterB) << label;
        EXPECT_EQ(os_clibrary_string_intelligent_less(b, a), aAfterB) << label;
        EXPECT_EQ(os_clibrary_string_intelligent_less(a, b), os_clibrary_string_intelligent_greater(b, a)) << label;
    }
}

} // namespace
