// Files and folders: the POSIX wrappers, file and folder operations by path,
// the filesystem walk, and (in the same family) the text helpers.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/resource.h>

#include <set>

#include <gtest/gtest.h>

#include "TestSupport.h" // the standard and POSIX headers the suites share
#include "korvane/korvane.hpp"

// The folder operations' command lines are recorded here instead of being run
// (whether the shell's answer is read right is tested with the system calls).
std::vector<std::string> shellCommands;
extern "C" int system(const char* command) {
    shellCommands.emplace_back(command);
    return 0;
}

// Listings without entry types, as some filesystems give them, while set.
bool hideTypes = false;
extern "C" dirent* readdir(DIR* folder) {
    static const auto real = reinterpret_cast<dirent* (*)(DIR*)>(dlsym(RTLD_NEXT, "readdir"));
    dirent* entry = real(folder);
    if (entry != nullptr && hideTypes)
        entry->d_type = DT_UNKNOWN;
    return entry;
}

namespace {

// Type and permission bits (links not followed); 0 when nothing is there.
unsigned int modeOf(const std::string& path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode : 0;
}

// Each test runs inside a fresh temporary folder with the umask at 022.
struct FilesAndFolders : ::testing::Test {
    void SetUp() override {
        umask(022);
        ASSERT_EQ(chdir(dir.path().c_str()), 0);
    }
    kvtest::TempDir dir;
};

// Only '/' is stripped from the end of a path, and links are followed.
TEST_F(FilesAndFolders, PathTestsAndBadPaths) {
    std::ofstream("file") << "x";
    ASSERT_EQ(mkdir("dir", 0700) | mkfifo("fifo", 0600) | symlink("dir", "link") | symlink("-", "dead"), 0);
    // Path, os_file_exist, os_folder_exist.
    const std::tuple<const char*, bool, bool> rows[] = {
        {"file", true, false}, {"file///", true, false}, {"file\\", false, false}, {"fifo", true, false},
        {"dir", false, true},  {"link", false, true},    {"dead", false, false}};
    for (const auto& [path, file, folder] : rows) {
        EXPECT_EQ(os_file_exist(path), file) << path;
        EXPECT_EQ(os_folder_exist(path), folder) << path;
    }
    // Refused before anything is touched.
    const auto copyFolder = +[](const char* from, const char* to) { return os_folder_copy(from, to, true); };
    for (auto call : {os_file_exist, os_file_create, os_file_remove, os_folder_exist, os_folder_create})
        EXPECT_FALSE(call(""));
    for (auto call : {os_file_move, os_file_copy, os_folder_move, copyFolder}) {
        EXPECT_FALSE(call(nullptr, "file"));
        EXPECT_FALSE(call("file", ""));
    }
    EXPECT_FALSE(os_folder_create("~/x")) << "a first '~' is literal, never created";
    ASSERT_EQ(mkdir("~", 0700), 0);
    EXPECT_TRUE(os_folder_create("~/x"));
    for (const char* root : {"/", "//"}) // stripping has no stop at "", kept for existing callers
        for (auto call : {os_file_exist, os_file_create, os_file_remove, os_folder_exist})
            EXPECT_THROW(call(root), std::out_of_range) << root;
}

TEST_F(FilesAndFolders, CreateAndCopy) {
    ASSERT_TRUE(os_file_create("new//"));
    ASSERT_TRUE(os_folder_create((dir.path() + "//a/b//").c_str())); // existing parents are kept
    EXPECT_EQ(modeOf("new"), S_IFREG | 0777u) << "the umask is cleared around the call";
    EXPECT_EQ(modeOf("a/b"), S_IFDIR | 0777u) << "the umask is cleared around the call";
    const std::string content = std::string(10000, 'a') + std::string(10000, 'b'); // more than two copy buffers
    std::ofstream("source") << content;
    ASSERT_TRUE(os_file_copy("source", "copy"));
    EXPECT_EQ(kvtest::fileText("copy"), content);
    EXPECT_EQ(modeOf("copy"), S_IFREG | 0755u) << "0777 less the caller's umask, given back by the creations";
    ASSERT_EQ(mkdir("folder", 0700), 0);
    EXPECT_TRUE(os_file_copy("folder", "copy")) << "a read error counts as end of file";
    EXPECT_EQ(kvtest::fileText("copy"), "") << "truncated first";
    // A file size limit cuts the second 8192-byte write short: the copy
    // fails and the part written stays.
    EXPECT_EQ(kvtest::runInChild([] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {10000, 10000};
        return setrlimit(RLIMIT_FSIZE, &limit) != 0 ? 2 : os_file_copy("source", "copy") ? 1 : 0;
    }).exitCode, 0);
    EXPECT_EQ(kvtest::fileText("copy"), content.substr(0, 10000));
    EXPECT_TRUE(os_file_copy("source", "source")) << "truncated before it is read, kept for existing callers";
    EXPECT_EQ(kvtest::fileText("source"), "");
}

// A move renames files and folders alike and never copies across filesystems
// (a failed rename's false is checked with the bool results).
TEST_F(FilesAndFolders, MoveRenamesOnlyWithinAFilesystem) {
    std::ofstream("old") << "content";
    ASSERT_EQ(mkdir("folder", 0700), 0);
    EXPECT_TRUE(os_file_move("old", "moved"));
    EXPECT_TRUE(os_file_move("folder", "renamed"));
    EXPECT_EQ(kvtest::fileText("moved"), "content");
    EXPECT_TRUE(S_ISDIR(modeOf("renamed")));
    struct stat here {}, there {};
    if (stat(".", &here) != 0 || stat("/dev/shm", &there) != 0 || here.st_dev == there.st_dev)
        GTEST_SKIP() << "no second filesystem at /dev/shm";
    const std::string elsewhere = "/dev/shm/" + kvtest::uniqueName("move");
    EXPECT_FALSE(os_file_move("moved", elsewhere.c_str()));
    EXPECT_EQ(modeOf(elsewhere), 0u);
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
}

// Through the C++ layer's walk, which hands each call of the flat walk's
// callback, with its path and root, to one callable.
TEST_F(FilesAndFolders, WalkPathsRootsAndDepthLimits) {
    // The root "w\\" holds "sub" and "g", and the folder "w\\g" beside it holds "x".
    for (const char* folder : {"data", "data/sub", "w\\", "w\\/sub", "w\\g"})
        ASSERT_EQ(mkdir(folder, 0700), 0);
    for (const char* name : {"data/a", "data/sub/b", "w\\/g", "w\\g/x"})
        std::ofstream(name) << name;
    ASSERT_EQ(symlink("sub", "data/to-sub"), 0); // a file: links are never followed
    // Start, root, depth limit, calls.
    const std::tuple<const char*, const char*, unsigned int, std::set<std::string>> rows[] = {
        {"", "data/", 0xFFFFFFFF, {"F |data/", "F sub|data/", "f a|data/", "f sub/b|data/", "f to-sub|data/"}},
        {"", "data", 1, {"F |data/", "F sub|data/", "f a|data/", "f to-sub|data/"}},
        {"data/sub", "", 0, {"F data/sub|"}},
        {"data/a", "", 3, {"F data/a|"}}, // reported, not listed
        // No '/' after a '\\', and entries are examined at root + relative path.
        {"", "w\\", 5, {"F |w\\", "f sub|w\\", "F g|w\\", "f g/x|w\\"}},
    };
    for (const auto& [start, root, maxDepth, expected] : rows) {
        for (bool hidden : {false, true}) { // types from the listing, or asked for
            std::set<std::string> calls; // "F path|root" for a folder, "f path|root" for anything else
            hideTypes = hidden;
            korvane::walk(root, start, [&calls](const korvane::WalkEntry& entry) {
                calls.insert((entry.folder ? "F " : "f ") + std::string(entry.path) + "|" + std::string(entry.root));
            }, maxDepth);
            hideTypes = false;
            EXPECT_EQ(calls, expected) << "'" << start << "' in '" << root << "', types hidden " << hidden;
        }
    }
}

// greater(a, b) for each row (less is greater with its arguments swapped, as
// the fuzzer checks).
// Digit runs are re-read from their start, digits sort before other bytes,
// bytes are unsigned without case folding, equal values decide nothing.
// Values are strtol's (LONG_MAX on overflow) cut to 32 bits.
TEST(NaturalOrder, Table) {
    const std::tuple<const char*, const char*, bool> rows[] = {
        {"file10", "file9", true}, {"x19y", "x123y", false}, {"a12", "a123", false}, {"abcd", "abc", true},
        {"", "", false}, {nullptr, "a", false}, {"a1", "ab", false}, {"ab", "a1", true}, {"Z", "a", false},
        {"\xe9", "e", true}, {"07", "7", false}, {"img007b", "img7a", false}, {"4294967301", "4", true},
        {"4294967301", "6", false}, {"99999999999999999999", "0", false}, {"0", "9223372036854775808", true},
        {"1000000000000000000", "999999999999999999", true}};
    for (const auto& [a, b, aAfterB] : rows)
        EXPECT_EQ(os_clibrary_string_intelligent_greater(a, b), aAfterB) << (a ? a : "(null)") << " vs " << b;
}

} // namespace
