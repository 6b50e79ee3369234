// The filesystem walk: order of the calls, paths and roots, depth limits,
// links and folders that cannot be listed.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FsTestSupport.h"
#include "TestSupport.h"
#include "korvane/fs.h"
#include "korvane/interfaces.h"

namespace {

struct Call {
    bool folder;
    std::string relative;
    std::string root;
    bool operator==(const Call& other) const {
        return folder == other.folder && relative == other.relative && root == other.root;
    }
    bool operator<(const Call& other) const { return relative < other.relative; }
};

std::ostream& operator<<(std::ostream& out, const Call& call) {
    return out << (call.folder ? "onFolder('" : "onFile('") << call.relative << "', '" << call.root << "')";
}

class Recorder : public IWalkThroughCallback {
public:
    void onFile(const char* relative, const char* root) override { calls.push_back({false, relative, root}); }
    void onFolder(const char* relative, const char* root) override { calls.push_back({true, relative, root}); }
    std::vector<Call> calls;
};

Call folder(const std::string& relative, const std::string& root) {
    return {true, relative, root};
}
Call file(const std::string& relative, const std::string& root) {
    return {false, relative, root};
}

void makeFolder(const std::string& path) {
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0) << path;
}

std::vector<Call> walk(const std::string& start, const std::string& root, unsigned int maxDepth = 0xFFFFFFFF) {
    Recorder recorder;
    os_filesystem_walk_through_ex(start.c_str(), root.c_str(), maxDepth, &recorder);
    return recorder.calls;
}

std::vector<Call> sorted(std::vector<Call> calls) {
    std::sort(calls.begin(), calls.end());
    return calls;
}

// The calls a pre-order walk in directory order makes, from the test's own
// listing of the tree (links not followed).
void expectedWalk(const std::string& root, const std::string& relative, std::vector<Call>& out) {
    out.push_back(folder(relative, root));
    DIR* dir = opendir((root + relative).c_str());
    ASSERT_NE(dir, nullptr);
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..")
            continue;
        const std::string child = relative.empty() ? name : relative + "/" + name;
        struct stat status {};
        ASSERT_EQ(lstat((root + child).c_str(), &status), 0);
        if (S_ISDIR(status.st_mode))
            expectedWalk(root, child, out);
        else
            out.push_back(file(child, root));
    }
    closedir(dir);
}

// data/a.txt, data/sub/b.txt
class SmallTree : public ::testing::Test {
protected:
    void SetUp() override {
        makeFolder(data);
        fstest::writeFile(data + "/a.txt", "a");
        makeFolder(data + "/sub");
        fstest::writeFile(data + "/sub/b.txt", "b");
    }
    kvtest::TempDir dir;
    const std::string data = dir / "data";
};

TEST_F(SmallTree, StartingFolderFirstThenEntriesBelowTheRoot) {
    const std::string root = data + "/";
    const std::vector<Call> calls = walk("", data);
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0], folder("", root));
    EXPECT_EQ(sorted(calls), (std::vector<Call>{folder("", root), file("a.txt", root), folder("sub", root),
                                                file("sub/b.txt", root)}));
    const auto sub = std::find(calls.begin(), calls.end(), folder("sub", root));
    ASSERT_NE(sub + 1, calls.end());
    EXPECT_EQ(sub[1], file("sub/b.txt", root)) << "a folder is walked as soon as it is met";
}

TEST_F(SmallTree, StartingSubFolderKeepsItsPrefixAndRootsKeepTheirSeparator) {
    EXPECT_EQ(walk("sub", data + "/"), (std::vector<Call>{folder("sub", data + "/"), file("sub/b.txt", data + "/")}));
    // A root ending in '\\' gets no '/'; it names another folder, so the
    // listing reports what it finds there with that root unchanged.
    makeFolder(dir / "back\\");
    fstest::writeFile(dir / "back\\/x", "x");
    const std::string backslashRoot = dir / "back\\";
    const std::vector<Call> calls = walk("", backslashRoot);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0], folder("", backslashRoot));
    EXPECT_EQ(calls[1], file("x", backslashRoot));
}

TEST_F(SmallTree, EmptyRootTakesTheStartingFolderAsThePath) {
    EXPECT_EQ(sorted(walk(data, "")),
              (std::vector<Call>{folder(data, ""), file(data + "/a.txt", ""), folder(data + "/sub", ""),
                                 file(data + "/sub/b.txt", "")}));
}

TEST_F(SmallTree, DepthLimits) {
    const std::string r = data + "/";
    const std::vector<Call> start = {folder("", r)};
    const std::vector<Call> level1 = {folder("", r), file("a.txt", r), folder("sub", r)};
    const std::vector<Call> all = {folder("", r), file("a.txt", r), folder("sub", r), file("sub/b.txt", r)};
    const std::vector<std::pair<unsigned int, std::vector<Call>>> rows = {
        {0, start}, {1, level1}, {2, all}, {0xFFFFFFFE, all}, {0xFFFFFFFF, all},
    };
    for (const auto& [maxDepth, expected] : rows)
        EXPECT_EQ(sorted(walk("", data, maxDepth)), expected) << "max_depth " << maxDepth;
    Recorder recorder;
    os_filesystem_walk_through("", data.c_str(), &recorder);
    EXPECT_EQ(sorted(recorder.calls), all);
}

TEST_F(SmallTree, LinksAreReportedAsFilesAndNeverEntered) {
    ASSERT_EQ(symlink("sub", (data + "/to-sub").c_str()), 0);
    ASSERT_EQ(symlink(".", (data + "/sub/loop").c_str()), 0);
    const std::string r = data + "/";
    EXPECT_EQ(sorted(walk("", data)), (std::vector<Call>{folder("", r), file("a.txt", r), folder("sub", r),
                                                         file("sub/b.txt", r), file("sub/loop", r),
                                                         file("to-sub", r)}));
}

TEST_F(SmallTree, MissingOrUnlistableStartingFolderIsStillReported) {
    EXPECT_EQ(walk("missing", data), (std::vector<Call>{folder("missing", data + "/")}));
    EXPECT_EQ(walk("a.txt", data), (std::vector<Call>{folder("a.txt", data + "/")}));
}

TEST_F(SmallTree, NullArguments) {
    Recorder recorder;
    EXPECT_THROW(os_filesystem_walk_through("", nullptr, &recorder), std::logic_error);
    EXPECT_THROW(os_filesystem_walk_through_ex("", nullptr, 3, &recorder), std::logic_error);
    os_filesystem_walk_through(nullptr, data.c_str(), &recorder);
    EXPECT_TRUE(recorder.calls.empty());
    os_filesystem_walk_through("", data.c_str(), nullptr); // walks, reports nothing
}

TEST_F(SmallTree, SubFolderThatCannotBeListedIsReportedAndSkipped) {
    if (geteuid() == 0)
        GTEST_SKIP() << "permissions do not stop the superuser";
    ASSERT_EQ(chmod((data + "/sub").c_str(), 0), 0);
    const std::string r = data + "/";
    EXPECT_EQ(sorted(walk("", data)), (std::vector<Call>{folder("", r), file("a.txt", r), folder("sub", r)}));
}

TEST(Walk, PreOrderInDirectoryOrderIncludingHiddenEntries) {
    kvtest::TempDir dir;
    for (const char* sub : {"t", "t/a", "t/a/x", "t/b", "t/.hidden", "t/a/x/y"})
        makeFolder(dir / sub);
    for (const char* name : {"t/1", "t/2", "t/.h", "t/a/3", "t/a/x/4", "t/a/x/y/5", "t/b/6", "t/a/7"})
        fstest::writeFile(dir / name, name);
    std::vector<Call> expected;
    expectedWalk(dir.path() + "/", "t", expected);
    ASSERT_EQ(expected.size(), 14u);
    EXPECT_EQ(walk("t", dir.path()), expected);
}

// A path over PATH_MAX makes lstat fail: the entry (a folder) is then a file.
TEST(Walk, EntryThatCannotBeExaminedIsReportedAsAFile) {
    kvtest::TempDir dir;
    const std::string segment(200, 'd');
    std::string relative = "deep";
    makeFolder(dir / relative);
    while ((dir / relative).size() + 1 + segment.size() < PATH_MAX) {
        relative += "/" + segment;
        makeFolder(dir / relative);
    }
    const std::string tooLong = relative + "/" + segment;
    // Made relative to an open folder: its full path is over the limit.
    const int parent = open((dir / relative).c_str(), O_RDONLY | O_DIRECTORY);
    ASSERT_GE(parent, 0);
    ASSERT_EQ(mkdirat(parent, segment.c_str(), 0700), 0);
    const std::vector<Call> calls = walk("deep", dir.path());
    ASSERT_FALSE(calls.empty());
    EXPECT_EQ(calls.back(), file(tooLong, dir.path() + "/"));
    EXPECT_EQ(unlinkat(parent, segment.c_str(), AT_REMOVEDIR), 0);
    close(parent);
}

} // namespace
