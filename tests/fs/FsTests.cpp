// Files and folders: the POSIX wrappers, file and folder operations by path,
// the filesystem walk, and (in the same family) the text helpers.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdarg>
#include <fstream>
#include <functional>
#include <set>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"

// The folder operations' command lines are recorded here instead of being run
// (whether the shell's answer is read right is tested with the system calls).
std::vector<std::string> shellCommands;
extern "C" int system(const char* command) {
    shellCommands.emplace_back(command);
    return 0;
}

namespace {

using kvtest::fileText;

void writeFile(const std::string& path, const std::string& content) { std::ofstream(path) << content; }

// Type and permission bits (links not followed); 0 when nothing is there.
unsigned int modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// Each test runs inside a fresh temporary folder with the umask at 022.
class FilesAndFolders : public ::testing::Test {
protected:
    void SetUp() override {
        umask(022);
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
    }
    kvtest::TempDir dir;
};

// Only '/' is stripped from the end of a path, and links are followed.
TEST_F(FilesAndFolders, PathTestsAndBadPaths) {
    for (const auto& [path, relative] : {std::pair{"", false}, {"/a", false}, {"\\a", true}})
        EXPECT_EQ(os_file_is_relative_path(path), relative) << path;
    writeFile("file", "x");
    ASSERT_EQ(mkdir("folder", 0700) | mkfifo("fifo", 0600) | symlink("folder", "to-dir") | symlink("-", "dangling"), 0);
    // Path, os_file_exist, os_folder_exist.
    const std::tuple<const char*, bool, bool> rows[] = {
        {"file", true, false},   {"file///", true, false}, {"file\\", false, false},   {"fifo", true, false},
        {"folder", false, true}, {"to-dir", false, true},  {"dangling", false, false}};
    for (const auto& [path, file, folder] : rows) {
        EXPECT_EQ(os_file_exist(path), file) << path;
        EXPECT_EQ(os_folder_exist(path), folder) << path;
    }
    const auto copyFolder = +[](const char* from, const char* to) { return os_folder_copy(from, to, true); };
    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        for (auto call : {os_file_exist, os_file_create, os_file_remove, os_folder_exist, os_folder_create})
            EXPECT_FALSE(call(bad));
        for (auto call : {os_file_move, os_file_copy, os_folder_move, copyFolder}) {
            EXPECT_FALSE(call(bad, "file"));
            EXPECT_FALSE(call("file", bad));
        }
        EXPECT_FALSE(os_folder_remove(bad, true));
    }
    EXPECT_TRUE(shellCommands.empty());
    for (const char* root : {"/", "//"}) // stripping has no stop at "", kept for existing callers
        for (auto call : {os_file_exist, os_file_create, os_file_remove, os_folder_exist})
            EXPECT_THROW(call(root), std::out_of_range) << root;
}

TEST_F(FilesAndFolders, FileCreateMoveCopyAndRemove) {
    ASSERT_TRUE(os_file_create("new//"));
    EXPECT_EQ(modeOf("new"), S_IFREG | 0777u) << "the umask is cleared around the call";
    EXPECT_EQ(umask(022), 022u) << "the caller's umask is given back";
    const std::string content = std::string(10000, 'a') + std::string(10000, 'b'); // more than two copy buffers
    writeFile("source", content);
    EXPECT_TRUE(os_file_create("source"));
    EXPECT_TRUE(os_file_move("source", "moved"));
    ASSERT_TRUE(os_file_copy("moved", "copy"));
    EXPECT_EQ(fileText("copy"), content) << "kept by create and move, then copied whole";
    EXPECT_EQ(modeOf("copy"), S_IFREG | 0755u) << "0777 less the caller's umask";
    ASSERT_EQ(mkdir("folder", 0700), 0);
    EXPECT_TRUE(os_file_copy("folder", "copy")) << "a read error counts as end of file";
    EXPECT_EQ(fileText("copy"), "") << "truncated first";
    EXPECT_FALSE(os_file_copy("missing", "other"));
    EXPECT_TRUE(os_file_remove("copy//"));
    EXPECT_FALSE(os_file_remove("copy"));
    EXPECT_TRUE(os_file_copy("moved", "moved"));
    EXPECT_EQ(fileText("moved"), "") << "truncated before it is read";
}

// Existing folders on the way are kept; a first '~' is taken literally.
TEST_F(FilesAndFolders, FolderCreateMakesEveryParentWithFullPermissions) {
    ASSERT_TRUE(os_folder_create((dir.path() + "//a/b//c/").c_str()));
    for (const char* folder : {"a", "a/b", "a/b/c"})
        EXPECT_EQ(modeOf(folder), S_IFDIR | 0777u) << folder;
    EXPECT_FALSE(os_folder_create("~/x"));
    ASSERT_EQ(mkdir("~", 0700), 0);
    EXPECT_TRUE(os_folder_create("~/x"));
}

// The paths go into fixed formats unescaped; a copy makes its destination first.
TEST_F(FilesAndFolders, FolderCommandLines) {
    ASSERT_EQ(mkdir("existing", 0700), 0);
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
    for (const auto& [run, expected] : rows) {
        shellCommands.clear();
        EXPECT_TRUE(run());
        EXPECT_EQ(shellCommands, std::vector<std::string>{expected});
    }
    for (const char* made : {"new", "kept", "existing/src", "existing/s"})
        EXPECT_TRUE(S_ISDIR(modeOf(made))) << made;
    EXPECT_TRUE(os_folder_remove("existing/s/", false));
    EXPECT_EQ(modeOf("existing/s"), 0u) << "a plain remove is done here, not by the shell";
}

// Each call as "F path|root" (onFolder) or "f path|root" (onFile).
struct Recorder : IWalkThroughCallback {
    void onFile(const char* path, const char* at) override { calls.insert("f " + std::string(path) + "|" + at); }
    void onFolder(const char* path, const char* at) override { calls.insert("F " + std::string(path) + "|" + at); }
    std::set<std::string> calls;
};

TEST_F(FilesAndFolders, WalkPathsRootsAndDepthLimits) {
    // The root "w\\" holds "sub" and "g", and the folder "w\\g" beside it holds "x".
    for (const char* folder : {"data", "data/sub", "w\\", "w\\/sub", "w\\g"})
        ASSERT_EQ(mkdir(folder, 0700), 0);
    for (const char* name : {"data/a", "data/sub/b", "w\\/g", "w\\g/x"})
        writeFile(name, name);
    ASSERT_EQ(symlink("sub", "data/to-sub"), 0); // a file: links are never followed
    // Start, root, depth limit (none: the walk without one), calls.
    const std::tuple<const char*, const char*, unsigned int, std::set<std::string>> rows[] = {
        {"", "data/", UINT_MAX, {"F |data/", "F sub|data/", "f a|data/", "f sub/b|data/", "f to-sub|data/"}},
        {"", "data", 1, {"F |data/", "F sub|data/", "f a|data/", "f to-sub|data/"}},
        {"data/sub", "", 0, {"F data/sub|"}},
        {"data/a", "", 3, {"F data/a|"}}, // reported, not listed
        // No '/' after a '\\', and entries are examined at root + relative path.
        {"", "w\\", 5, {"F |w\\", "f sub|w\\", "F g|w\\", "f g/x|w\\"}},
    };
    for (const auto& [start, root, maxDepth, expected] : rows) {
        Recorder recorder;
        if (maxDepth == UINT_MAX)
            os_filesystem_walk_through(start, root, &recorder);
        else
            os_filesystem_walk_through_ex(start, root, maxDepth, &recorder);
        EXPECT_EQ(recorder.calls, expected) << "'" << start << "' in '" << root << "'";
    }
    EXPECT_THROW(os_filesystem_walk_through("", nullptr, nullptr), std::logic_error);
}

// The length, then formatting with the same va_list, which must be usable.
std::string formatTwice(int* length, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    *length = os_clibrary_string_get_formatted_length(format, arguments);
    char buffer[64] = {};
    vsnprintf(buffer, sizeof buffer, format, arguments);
    va_end(arguments);
    return buffer;
}

TEST(FormattedLength, CountsTheNulAndLeavesTheArgumentsUsable) {
    int length = 0;
    EXPECT_EQ(formatTwice(&length, "%d-%s", 42, "ab"), "42-ab");
    EXPECT_EQ(length, 6);
}

// greater(a, b) for each row; less must be greater with its arguments swapped.
// Digit runs are re-read from their start, digits sort before other bytes,
// bytes are unsigned without case folding, equal values decide nothing.
// Values are strtol's (LONG_MAX on overflow) cut to 32 bits.
TEST(NaturalOrder, TableInBothDirections) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"file10", "file9", true}, {"x19y", "x123y", false}, {"a12", "a123", false}, {"abcd", "abc", true},
        {"", "", false},           {nullptr, "a", false},    {"a1", "ab", false},    {"ab", "a1", true},
        {"Z", "a", false},         {"\xe9", "e", true},      {"07", "7", false},     {"img007b", "img7a", false},
        {"4294967301", "4", true}, {"4294967301", "6", false}, {"99999999999999999999", "0", false},
        {"1000000000000000000", "999999999999999999", true}, {"0", "9223372036854775808", true}};
    for (const auto& [a, b, aAfterB] : rows) {
        EXPECT_EQ(os_clibrary_string_intelligent_greater(a, b), aAfterB) << (a ? a : "(null)") << " vs " << b;
        EXPECT_EQ(os_clibrary_string_intelligent_less(b, a), aAfterB) << (a ? a : "(null)") << " vs " << b;
    }
}

} // namespace
