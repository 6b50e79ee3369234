// Folder operations: existence, creation with parents, and the shell-driven
// remove, move and copy.
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FsTestSupport.h"
#include "TestSupport.h"
#include "korvane/fs.h"

using fstest::exists;
using fstest::isFolder;
using fstest::readFile;
using fstest::writeFile;

namespace {

void makeFolder(const std::string& path) {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
}

TEST(FolderPaths, NullOrEmptyPathsGiveFalseAndRunNothing) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    makeFolder("keep");
    writeFile("keep/file", "x");
    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_FALSE(os_folder_exist(bad));
        EXPECT_FALSE(os_folder_create(bad));
        EXPECT_FALSE(os_folder_remove(bad, true));
        EXPECT_FALSE(os_folder_remove(bad, false));
        EXPECT_FALSE(os_folder_move(bad, "keep"));
        EXPECT_FALSE(os_folder_move("keep", bad));
        EXPECT_FALSE(os_folder_copy(bad, "keep", false));
        EXPECT_FALSE(os_folder_copy("keep", bad, true));
    }
    EXPECT_EQ(readFile("keep/file"), "x");
}

TEST(FolderPaths, ExistIsTrueOnlyForFolders) {
    kvtest::TempDir dir;
    makeFolder(dir / "dir");
    writeFile(dir / "file", "x");
    ASSERT_EQ(symlink("dir", (dir / "link").c_str()), 0);
    const std::vector<std::pair<std::string, bool>> rows = {
        {"dir", true}, {"dir/", true}, {"dir///", true}, {"link", true},
        {"file", false}, {"file/", false}, {"missing", false},
    };
    for (const auto& [name, expected] : rows)
        EXPECT_EQ(os_folder_exist((dir / name).c_str()), expected) << name;
}

TEST(FolderPaths, SlashesOnlyRaiseOutOfRange) {
    kvtest::TempDir dir;
    makeFolder(dir / "src");
    writeFile(dir / "src/file", "x");
    EXPECT_THROW(os_folder_exist("/"), std::out_of_range);
    EXPECT_THROW(os_folder_exist("//"), std::out_of_range);
    EXPECT_THROW(os_folder_copy((dir / "src").c_str(), "/", false), std::out_of_range);
    // The destination exists, so the source's name is looked for: there is none.
    EXPECT_THROW(os_folder_copy("//", dir.path().c_str(), false), std::out_of_range);
}

// ---------------------------------------------------------------------------

TEST(FolderCreate, CreatesEveryParentWithFullPermissions) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    fstest::UmaskScope scope(022);
    ASSERT_TRUE(os_folder_create("a/b/c"));
    for (const char* folder : {"a", "a/b", "a/b/c"})
        EXPECT_EQ(fstest::permissionsOf(folder), 0777u) << folder;
    EXPECT_EQ(fstest::currentUmask(), 022u);
    // Existing folders are not made again (mkdir on them would fail).
    EXPECT_TRUE(os_folder_create("a/b/c"));
}

TEST(FolderCreate, AbsoluteDoubledAndTrailingSlashes) {
    kvtest::TempDir dir;
    EXPECT_TRUE(os_folder_create("/"));
    ASSERT_TRUE(os_folder_create((dir.path() + "//x//y/").c_str()));
    EXPECT_TRUE(isFolder(dir / "x/y"));
}

TEST(FolderCreate, StopsAtAComponentThatIsAFile) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    fstest::UmaskScope scope(022);
    makeFolder("a");
    writeFile("a/file.txt", "x");
    EXPECT_FALSE(os_folder_create("a/file.txt/c"));
    EXPECT_TRUE(isFolder("a"));
    EXPECT_EQ(readFile("a/file.txt"), "x");
    EXPECT_EQ(fstest::currentUmask(), 022u);
}

TEST(FolderCreate, TildeIsALiteralFirstComponentThatIsNeverCreated) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    EXPECT_FALSE(os_folder_create("~/x"));
    EXPECT_FALSE(exists("~"));
    makeFolder("~");
    EXPECT_TRUE(os_folder_create("~/x"));
    EXPECT_TRUE(isFolder("~/x"));
}

// ---------------------------------------------------------------------------

TEST(FolderRemove, WithoutRecursionOnlyEmptyFolders) {
    kvtest::TempDir dir;
    makeFolder(dir / "x");
    makeFolder(dir / "full");
    writeFile(dir / "full/file", "x");
    EXPECT_TRUE(os_folder_remove((dir / "x/").c_str(), false));
    EXPECT_FALSE(exists(dir / "x"));
    EXPECT_FALSE(os_folder_remove((dir / "full").c_str(), false));
    EXPECT_EQ(readFile(dir / "full/file"), "x");
    EXPECT_FALSE(os_folder_remove((dir / "missing").c_str(), false));
}

TEST(FolderRemove, RecursiveRemovesTheWholeTreeAndAcceptsMissingFolders) {
    kvtest::TempDir dir;
    makeFolder(dir / "tree");
    makeFolder(dir / "tree/sub");
    writeFile(dir / "tree/sub/.hidden", "x");
    EXPECT_TRUE(os_folder_remove((dir / "tree\\/").c_str(), true));
    EXPECT_FALSE(exists(dir / "tree"));
    EXPECT_TRUE(os_folder_remove((dir / "missing").c_str(), true));
}

// The status rule, seen through paths that end the quoted argument early:
// the library does not escape what it puts into the command line.
TEST(FolderRemove, CommandStatusRule) {
    kvtest::TempDir dir;
    const std::vector<std::pair<std::string, bool>> rows = {
        {"\"; exit 0; : \"", true},
        {"\"; exit 3; : \"", false},
        {"\"; kill -9 $$; : \"", false},
    };
    for (const auto& [tail, expected] : rows)
        EXPECT_EQ(os_folder_remove((dir / "x" + tail).c_str(), true), expected) << tail;
}

TEST(FolderMove, StripsSeparatorsAndMovesThroughTheShell) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    makeFolder("a");
    writeFile("a/file", "x");
    ASSERT_TRUE(os_folder_move("a///", "b\\"));
    EXPECT_EQ(readFile("b/file"), "x");
    EXPECT_FALSE(exists("a"));
    // An existing destination receives the source inside it.
    makeFolder("c");
    ASSERT_TRUE(os_folder_move("c", "b"));
    EXPECT_TRUE(isFolder("b/c"));
    EXPECT_FALSE(os_folder_move("missing", "b"));
}

// ---------------------------------------------------------------------------

// src/ with a file, a hidden file, and a folder holding a hidden file.
void makeSource(const std::string& src) {
    makeFolder(src);
    writeFile(src + "/f.txt", "new");
    writeFile(src + "/.hidden", "h");
    makeFolder(src + "/sub");
    writeFile(src + "/sub/.inner", "i");
}

TEST(FolderCopy, MissingDestinationIsCreatedAndGetsTheVisibleContents) {
    kvtest::TempDir dir;
    makeSource(dir / "src");
    for (bool keepExisting : {false, true}) {
        const std::string target = dir / (keepExisting ? "keeping" : "overwriting");
        ASSERT_TRUE(os_folder_copy((dir / "src").c_str(), target.c_str(), keepExisting));
        EXPECT_EQ(readFile(target + "/f.txt"), "new");
        EXPECT_EQ(readFile(target + "/sub/.inner"), "i");
        EXPECT_FALSE(exists(target + "/.hidden")) << "the /* pattern does not match hidden names";
    }
}

TEST(FolderCopy, ExistingDestinationGetsTheSourceAsASubFolder) {
    kvtest::TempDir dir;
    makeSource(dir / "src");
    makeFolder(dir / "existing");
    ASSERT_TRUE(os_folder_copy((dir / "src/").c_str(), (dir / "existing").c_str(), false));
    EXPECT_EQ(readFile(dir / "existing/src/f.txt"), "new");
    EXPECT_TRUE(isFolder(dir / "existing/src/sub"));
}

TEST(FolderCopy, SingleComponentSourceIsNamedAfterItsLastCharacter) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    makeFolder("photos");
    writeFile("photos/p.jpg", "p");
    makeFolder("existing");
    ASSERT_TRUE(os_folder_copy("photos", "existing", false));
    EXPECT_EQ(readFile("existing/s/p.jpg"), "p");
    EXPECT_FALSE(exists("existing/photos"));
}

TEST(FolderCopy, KeepingFormNeverOverwritesButOverwritingFormDoes) {
    kvtest::TempDir dir;
    makeSource(dir / "src");
    writeFile(dir / "src/g.txt", "g");
    makeFolder(dir / "dest");
    makeFolder(dir / "dest/src");
    writeFile(dir / "dest/src/f.txt", "old");
    ASSERT_TRUE(os_folder_copy((dir / "src").c_str(), (dir / "dest").c_str(), true));
    EXPECT_EQ(readFile(dir / "dest/src/f.txt"), "old");
    EXPECT_EQ(readFile(dir / "dest/src/g.txt"), "g");
    ASSERT_TRUE(os_folder_copy((dir / "src").c_str(), (dir / "dest").c_str(), false));
    EXPECT_EQ(readFile(dir / "dest/src/f.txt"), "new");
}

TEST(FolderCopy, FailingCommandGivesFalse) {
    kvtest::TempDir dir;
    makeFolder(dir / "empty");
    writeFile(dir / "empty/.only-hidden", "x");
    EXPECT_FALSE(os_folder_copy((dir / "empty").c_str(), (dir / "new").c_str(), false));
    EXPECT_TRUE(isFolder(dir / "new")) << "the destination is created before the copy runs";
    // The destination cannot be created below a file: ignored, the copy fails.
    makeSource(dir / "src");
    writeFile(dir / "file", "x");
    EXPECT_FALSE(os_folder_copy((dir / "src").c_str(), (dir / "file/sub").c_str(), false));
    EXPECT_FALSE(os_folder_copy((dir / "missing").c_str(), (dir / "other").c_str(), false));
}

} // namespace
