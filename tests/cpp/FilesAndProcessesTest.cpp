// Results returned as strings and optionals, the walk's callable, the
// library and serial-port owners.
#include <gtest/gtest.h>
#include <unistd.h>

#include <korvane/korvane.hpp>
#include <set>

#include "../io/PseudoTerminal.h"
#include "TestSupport.h"

TEST(CppProcesses, TextResultsComeBackWholeOrEmpty) {
    const std::string longValue(1000, 'v');
    setenv("KORVANE_CPP_TEST", longValue.c_str(), 1);
    EXPECT_EQ(korvane::environment_variable("KORVANE_CPP_TEST"), longValue);
    EXPECT_EQ(korvane::environment_variable("KORVANE_CPP_TEST_UNSET"), std::nullopt);
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self);
    EXPECT_EQ(korvane::application_path(), std::string(self, static_cast<size_t>(length)));
}

TEST(CppFiles, WalkCallsTheCallableForEveryEntry) {
    kvtest::TempDir root;
    ASSERT_TRUE(os_folder_create((root / "top/sub").c_str()) && os_file_create((root / "top/sub/f").c_str()));
    std::set<std::pair<std::string, bool>> seen;
    korvane::walk(root.path(), "top", [&](const korvane::WalkEntry& entry) { seen.emplace(entry.path, entry.folder); });
    EXPECT_EQ(seen, (std::set<std::pair<std::string, bool>>{{"top", true}, {"top/sub", true}, {"top/sub/f", false}}));
}

TEST(CppLoading, LibraryLoadsAndFindsSymbolsOrIsEmpty) {
    auto libc = korvane::Library::load("libc.so.6");
    ASSERT_TRUE(libc);
    EXPECT_EQ(libc->symbol<size_t(const char*)>("strlen")("four"), 4u);
    EXPECT_FALSE(korvane::Library::load("libno-such-library.so"));
}

TEST(CppSerial, FrameReadsComeBackAsStrings) {
    iotest::PseudoTerminal line;
    korvane::SerialPort port(line.slavePath(), B115200);
    std::optional<std::string> frame;
    for (int attempt = 0; attempt < 8 && !frame; ++attempt) { // a busy machine may overrun a 5 ms slice
        os_serial_purge(port.native_handle(), 3);
        ASSERT_TRUE(line.send({'x', 0xAA, 0x55, '1', '2'}));
        frame = port.read_frame(4, "\xAA\x55", 1000);
    }
    EXPECT_EQ(frame, "\xAA\x55" "12");
}
