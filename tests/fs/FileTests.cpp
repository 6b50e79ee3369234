// The POSIX wrappers and the file operations by path.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <csignal>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "FsTestSupport.h"
#include "TestSupport.h"
#include "korvane/fs.h"

using fstest::readFile;
using fstest::writeFile;

namespace {

TEST(CLibraryWrappers, ForwardOpenWriteSeekReadClose) {
    kvtest::TempDir dir;
    const std::string path = dir / "data.bin";
    const int fd = os_clibrary_file_open(path.c_str(), O_RDWR | O_CREAT, 0600);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(os_clibrary_file_write(fd, "hello", 5), 5);
    EXPECT_EQ(os_clibrary_file_seek(fd, 1, SEEK_SET), 1);
    char buffer[8] = {};
    EXPECT_EQ(os_clibrary_file_read(fd, buffer, sizeof buffer), 4);
    EXPECT_STREQ(buffer, "ello");
    EXPECT_EQ(os_clibrary_file_seek(fd, 0, SEEK_END), 5);
    EXPECT_EQ(os_clibrary_file_close(fd), 0);
    EXPECT_EQ(fstest::permissionsOf(path), 0600u);
}

TEST(CLibraryWrappers, FailuresGiveTheCallsResultAndErrno) {
    kvtest::TempDir dir;
    const std::string missing = dir / "missing";
    const std::string existing = dir.path();
    struct Row {
        const char* what;
        std::function<long long()> call;
        long long result;
        int error;
    };
    const std::vector<Row> rows = {
        {"open missing", [&] { return os_clibrary_file_open(missing.c_str(), O_RDONLY, 0); }, -1, ENOENT},
        {"access missing", [&] { return os_clibrary_file_access(missing.c_str(), F_OK); }, -1, ENOENT},
        {"unlink missing", [&] { return os_clibrary_file_unlink(missing.c_str()); }, -1, ENOENT},
        {"unlink folder", [&] { return os_clibrary_file_unlink(existing.c_str()); }, -1, EISDIR},
        {"mkdir existing", [&] { return os_clibrary_file_mkdir(existing.c_str(), 0777); }, -1, EEXIST},
        {"chdir missing", [&] { return os_clibrary_file_chdir(missing.c_str()); }, -1, ENOENT},
        {"close bad fd", [] { return os_clibrary_file_close(-1); }, -1, EBADF},
        {"seek bad fd", [] { return os_clibrary_file_seek(-1, 0, SEEK_SET); }, -1, EBADF},
        {"read bad fd", [] { char c; return os_clibrary_file_read(-1, &c, 1); }, -1, EBADF},
        {"write bad fd", [] { return os_clibrary_file_write(-1, "x", 1); }, -1, EBADF},
        {"open null", [] { return os_clibrary_file_open(nullptr, O_RDONLY, 0); }, -1, EFAULT},
        {"access null", [] { return os_clibrary_file_access(nullptr, F_OK); }, -1, EFAULT},
        {"unlink null", [] { return os_clibrary_file_unlink(nullptr); }, -1, EFAULT},
        {"mkdir null", [] { return os_clibrary_file_mkdir(nullptr, 0777); }, -1, EFAULT},
        {"chdir null", [] { return os_clibrary_file_chdir(nullptr); }, -1, EFAULT},
    };
    for (const Row& row : rows) {
        errno = 0;
        EXPECT_EQ(row.call(), row.result) << row.what;
        EXPECT_EQ(errno, row.error) << row.what;
    }
}

TEST(CLibraryWrappers, UmaskAndMkdirDoNotTouchTheMaskOnTheirOwn) {
    kvtest::TempDir dir;
    fstest::UmaskScope scope(022);
    EXPECT_EQ(os_clibrary_file_umask(027), 022u);
    EXPECT_EQ(os_clibrary_file_umask(022), 027u);
    ASSERT_EQ(os_clibrary_file_mkdir((dir / "sub").c_str(), 0777), 0);
    EXPECT_EQ(fstest::permissionsOf(dir / "sub"), 0755u);
}

TEST(CLibraryWrappers, ReadLengthIsZeroExtended) {
    // 0x80000000 sign-extended would be a count the kernel refuses. The buffer
    // really spans the count (reserved, never touched beyond the data read).
    constexpr unsigned int kLength = 0x80000000u;
    void* region = mmap(nullptr, kLength, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(region, MAP_FAILED);
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "abc", 3), 3);
    EXPECT_EQ(os_clibrary_file_read(fds[0], region, kLength), 3);
    EXPECT_EQ(std::string(static_cast<const char*>(region), 3), "abc");
    close(fds[0]);
    close(fds[1]);
    munmap(region, kLength);
}

TEST(CLibraryWrappers, GetcwdSizeIsSignExtended) {
    char expected[4096];
    ASSERT_NE(getcwd(expected, sizeof expected), nullptr);
    char buffer[4096] = {};
    EXPECT_EQ(os_clibrary_file_getcwd(buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, expected);
    errno = 0;
    EXPECT_EQ(os_clibrary_file_getcwd(buffer, 1), nullptr);
    EXPECT_EQ(errno, ERANGE);
    // -1 is the largest count, not an error: the wrapper answers as getcwd
    // does for SIZE_MAX (which a user-mode emulator may refuse, unlike Linux).
    volatile size_t largest = SIZE_MAX;
    char direct[4096] = {};
    const bool platformAccepts = getcwd(direct, largest) != nullptr;
    std::fill(std::begin(buffer), std::end(buffer), '\0');
    EXPECT_EQ(os_clibrary_file_getcwd(buffer, -1), platformAccepts ? buffer : nullptr);
    EXPECT_STREQ(buffer, direct);
}

// ---------------------------------------------------------------------------

TEST(FilePaths, IsRelativePathLooksOnlyAtTheFirstCharacter) {
    const std::vector<std::pair<const char*, bool>> rows = {
        {nullptr, false}, {"", false}, {"/a", false}, {"//x", false}, {"a/b", true},
        {"\\a", true},    {"~/x", true}, {"./x", true}, {"x", true},
    };
    for (const auto& [path, relative] : rows)
        EXPECT_EQ(os_file_is_relative_path(path), relative) << (path ? path : "(null)");
}

TEST(FilePaths, NullOrEmptyPathsGiveFalseAndTouchNothing) {
    kvtest::TempDir dir;
    fstest::WorkingFolderScope inside(dir.path());
    writeFile("file", "x");
    for (const char* bad : {static_cast<const char*>(nullptr), ""}) {
        EXPECT_FALSE(os_file_exist(bad));
        EXPECT_FALSE(os_file_create(bad));
        EXPECT_FALSE(os_file_remove(bad));
        EXPECT_FALSE(os_file_move(bad, "file"));
        EXPECT_FALSE(os_file_move("file", bad));
        EXPECT_FALSE(os_file_copy(bad, "file"));
        EXPECT_FALSE(os_file_copy("file", bad));
    }
    EXPECT_EQ(readFile("file"), "x");
}

TEST(FilePaths, PathOfSlashesOnlyRaisesOutOfRange) {
    for (const char* root : {"/", "//", "///"}) {
        EXPECT_THROW(os_file_exist(root), std::out_of_range) << root;
        EXPECT_THROW(os_file_create(root), std::out_of_range) << root;
        EXPECT_THROW(os_file_remove(root), std::out_of_range) << root;
    }
}

TEST(FilePaths, ExistIsTrueForEverythingButFolders) {
    kvtest::TempDir dir;
    writeFile(dir / "data.txt", "x");
    ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(symlink("data.txt", (dir / "to-file").c_str()), 0);
    ASSERT_EQ(symlink("folder", (dir / "to-folder").c_str()), 0);
    ASSERT_EQ(symlink("nowhere", (dir / "dangling").c_str()), 0);
    const std::vector<std::pair<std::string, bool>> rows = {
        {"data.txt", true},   {"data.txt///", true}, {"data.txt\\", false}, {"fifo", true},
        {"to-file", true},    {"folder", false},     {"folder/", false},    {"to-folder", false},
        {"dangling", false},  {"missing", false},
    };
    for (const auto& [name, exists] : rows)
        EXPECT_EQ(os_file_exist((dir / name).c_str()), exists) << name;
    EXPECT_TRUE(os_file_exist("/dev/null"));
}

TEST(FileCreate, NewFileGetsFullPermissionsAndTheUmaskComesBack) {
    kvtest::TempDir dir;
    fstest::UmaskScope scope(022);
    ASSERT_TRUE(os_file_create((dir / "new.txt//").c_str()));
    EXPECT_EQ(fstest::permissionsOf(dir / "new.txt"), 0777u);
    EXPECT_EQ(readFile(dir / "new.txt"), "");
    EXPECT_EQ(fstest::currentUmask(), 022u);
}

TEST(FileCreate, ExistingFileIsLeftAsItIs) {
    kvtest::TempDir dir;
    writeFile(dir / "old.txt", "content");
    ASSERT_EQ(chmod((dir / "old.txt").c_str(), 0640), 0);
    EXPECT_TRUE(os_file_create((dir / "old.txt").c_str()));
    EXPECT_EQ(readFile(dir / "old.txt"), "content");
    EXPECT_EQ(fstest::permissionsOf(dir / "old.txt"), 0640u);
}

TEST(FileCreate, FailureGivesFalseAndRestoresTheUmask) {
    kvtest::TempDir dir;
    fstest::UmaskScope scope(022);
    ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
    EXPECT_FALSE(os_file_create((dir / "missing/new.txt").c_str()));
    EXPECT_FALSE(fstest::exists(dir / "missing"));
    EXPECT_FALSE(os_file_create((dir / "folder").c_str()));
    EXPECT_EQ(fstest::currentUmask(), 022u);
}

TEST(FileRemove, UnlinksFilesButNeverFolders) {
    kvtest::TempDir dir;
    writeFile(dir / "x.txt", "x");
    ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
    EXPECT_TRUE(os_file_remove((dir / "x.txt//").c_str()));
    EXPECT_FALSE(fstest::exists(dir / "x.txt"));
    EXPECT_FALSE(os_file_remove((dir / "x.txt").c_str()));
    EXPECT_FALSE(os_file_remove((dir / "folder").c_str()));
    EXPECT_TRUE(fstest::isFolder(dir / "folder"));
}

TEST(FileMove, RenamesFilesAndFoldersWithinOneFilesystem) {
    kvtest::TempDir dir;
    writeFile(dir / "a.txt", "a");
    ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
    EXPECT_TRUE(os_file_move((dir / "a.txt").c_str(), (dir / "b.txt").c_str()));
    EXPECT_EQ(readFile(dir / "b.txt"), "a");
    EXPECT_FALSE(fstest::exists(dir / "a.txt"));
    EXPECT_TRUE(os_file_move((dir / "folder").c_str(), (dir / "renamed").c_str()));
    EXPECT_TRUE(fstest::isFolder(dir / "renamed"));
    EXPECT_FALSE(os_file_move((dir / "a.txt").c_str(), (dir / "c.txt").c_str()));
}

TEST(FileMove, DoesNotCopyAcrossFilesystems) {
    kvtest::TempDir dir;
    const std::string source = dir / "a.txt";
    const std::string elsewhere = "/dev/shm/" + kvtest::uniqueName("move");
    struct stat here {}, there {};
    ASSERT_EQ(stat(dir.path().c_str(), &here), 0);
    ASSERT_EQ(stat("/dev/shm", &there), 0);
    if (here.st_dev == there.st_dev)
        GTEST_SKIP() << "the temporary folder is on the same filesystem as /dev/shm";
    writeFile(source, "a");
    EXPECT_FALSE(os_file_move(source.c_str(), elsewhere.c_str()));
    EXPECT_EQ(readFile(source), "a");
    EXPECT_FALSE(fstest::exists(elsewhere));
}

// ---------------------------------------------------------------------------

std::string pattern(size_t length) {
    std::string text(length, '\0');
    for (size_t i = 0; i < length; ++i)
        text[i] = static_cast<char>('a' + (i * 7 + i / 8192) % 26);
    return text;
}

TEST(FileCopy, CopiesContentsInto0777LessTheUmask) {
    kvtest::TempDir dir;
    fstest::UmaskScope scope(022);
    const std::string content = pattern(3 * 8192 + 1234);
    writeFile(dir / "source", content);
    ASSERT_EQ(chmod((dir / "source").c_str(), 0600), 0);
    ASSERT_TRUE(os_file_copy((dir / "source").c_str(), (dir / "copy").c_str()));
    EXPECT_EQ(readFile(dir / "copy"), content);
    EXPECT_EQ(fstest::permissionsOf(dir / "copy"), 0755u);
    EXPECT_EQ(fstest::currentUmask(), 022u);
}

TEST(FileCopy, EmptySourceOrLongerDestination) {
    kvtest::TempDir dir;
    writeFile(dir / "empty", "");
    writeFile(dir / "short", "abc");
    writeFile(dir / "long", pattern(20000));
    EXPECT_TRUE(os_file_copy((dir / "empty").c_str(), (dir / "to-empty").c_str()));
    EXPECT_TRUE(fstest::exists(dir / "to-empty"));
    EXPECT_EQ(readFile(dir / "to-empty"), "");
    EXPECT_TRUE(os_file_copy((dir / "short").c_str(), (dir / "long").c_str()));
    EXPECT_EQ(readFile(dir / "long"), "abc");
}

TEST(FileCopy, OntoItselfTruncatesBeforeReading) {
    kvtest::TempDir dir;
    writeFile(dir / "self", "content");
    EXPECT_TRUE(os_file_copy((dir / "self").c_str(), (dir / "self").c_str()));
    EXPECT_EQ(readFile(dir / "self"), "");
}

TEST(FileCopy, ReadErrorCountsAsEndOfFile) {
    kvtest::TempDir dir;
    ASSERT_EQ(mkdir((dir / "folder").c_str(), 0700), 0);
    EXPECT_TRUE(os_file_copy((dir / "folder").c_str(), (dir / "copy").c_str()));
    EXPECT_EQ(readFile(dir / "copy"), "");
}

TEST(FileCopy, UnopenableEndsGiveFalseAndCloseWhatWasOpened) {
    kvtest::TempDir dir;
    writeFile(dir / "source", "abc");
    const int freeBefore = fstest::lowestFreeDescriptor();
    EXPECT_FALSE(os_file_copy((dir / "missing").c_str(), (dir / "copy").c_str()));
    EXPECT_FALSE(fstest::exists(dir / "copy"));
    EXPECT_FALSE(os_file_copy((dir / "source").c_str(), (dir / "missing/copy").c_str()));
    EXPECT_EQ(fstest::lowestFreeDescriptor(), freeBefore);
}

TEST(FileCopy, ShortWriteGivesFalseAndKeepsThePartialCopy) {
    kvtest::TempDir dir;
    const std::string content = pattern(20000);
    writeFile(dir / "source", content);
    constexpr rlim_t kLimit = 10000; // the second 8192-byte write is cut short
    const auto result = kvtest::runInChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {kLimit, kLimit};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0)
            return 2;
        return os_file_copy((dir / "source").c_str(), (dir / "copy").c_str()) ? 1 : 0;
    });
    ASSERT_TRUE(result.exited);
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(readFile(dir / "copy"), content.substr(0, kLimit));
}

} // namespace
