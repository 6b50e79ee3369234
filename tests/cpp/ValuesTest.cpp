// Value semantics of Variant, BStr and SafeArray; results given back as
// strings and optionals; the walk's callable and the library owner.
#include <gtest/gtest.h>

#include <korvane/korvane.hpp>
#include <numeric>
#include <set>

#include "TestSupport.h" // with <filesystem>

using korvane::Variant;

// try_get converts a copy, and is empty where the conversion is refused; a
// wrapper's reader is given back by its Ref. The wrapper's lines are also the
// only check of the flat wrapper's type name, of its reader being handed out
// when new and of a clone's value.
TEST(CppVariant, EachScalarTypeGetsItsOwnTagCopiesAreDeepAndConversionsAreOptional) {
    const std::pair<Variant, TVARTYPE> table[] = {
        {'a', TVT_CHAR}, {static_cast<unsigned char>(1), TVT_BYTE}, {static_cast<short>(1), TVT_SHORT},
        {static_cast<unsigned short>(1), TVT_USHORT}, {1, TVT_INT}, {1u, TVT_UINT}, {1l, TVT_LONG},
        {1ul, TVT_ULONG}, {1ll, TVT_LONGLONG}, {1ull, TVT_ULONGLONG}, {1.0f, TVT_FLOAT}, {1.0, TVT_DOUBLE},
        {true, TVT_BOOL}, {"text", TVT_STRING}, {std::string_view("text"), TVT_STRING}, {Variant(), TVT_EMPTY},
    };
    for (const auto& [value, tag] : table)
        EXPECT_EQ(value.type(), tag);
    Variant text("forty-two");
    Variant copy = text;
    text = Variant(7);
    Variant moved(std::move(copy));
    EXPECT_EQ(copy.type(), TVT_EMPTY);
    copy = std::move(moved);
    EXPECT_EQ(copy.to_string(), "forty-two");
    EXPECT_EQ(Variant("0x2A").try_get<int>(), 42);
    EXPECT_EQ(Variant(-4886718345ll).try_get<bool>(), std::nullopt);
    korvane::VariantWrapper wrapper;
    wrapper.bind_copy(Variant(5)); // a temporary: the wrapper must copy it
    EXPECT_EQ(wrapper.clone().type(), "int");
    auto reader = wrapper.reader();
    ASSERT_TRUE(reader) << "readable when new";
    EXPECT_EQ(reader->addRef(), 3); // the wrapper's, this Ref's and this call's
    reader->releaseRef();
}

TEST(CppBStrAndSafeArray, KeepInnerNulsAndCheckTheirIndex) {
    korvane::BStr text;
    EXPECT_FALSE(text.has_value());
    text = std::string_view("a\0b", 3);
    EXPECT_EQ(std::string_view(text), std::string_view("a\0b", 3));
    korvane::SafeArray<double> values(3);
    for (uint32_t i = 0; i < values.size(); ++i)
        EXPECT_TRUE(values.set(i, i + 0.5));
    EXPECT_EQ(std::accumulate(values.begin(), values.end(), 0.0), 4.5);
    EXPECT_THROW(values.at(3), std::out_of_range);
}

TEST(CppProcesses, TextResultsComeBackWholeOrEmpty) {
    setenv("KORVANE_CPP_TEST", "value", 1);
    EXPECT_EQ(korvane::environment_variable("KORVANE_CPP_TEST"), "value");
    EXPECT_EQ(korvane::environment_variable("KORVANE_CPP_TEST_UNSET"), std::nullopt);
    EXPECT_EQ(korvane::application_path(), std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(CppFiles, WalkCallsTheCallableForEveryEntryAndLibrariesLoadOrAreEmpty) {
    kvtest::TempDir root;
    ASSERT_TRUE(os_folder_create((root / "top/sub").c_str()));
    ASSERT_TRUE(os_file_create((root / "top/sub/f").c_str()));
    using Seen = std::set<std::pair<std::string, bool>>; // path, and whether a folder
    Seen seen;
    korvane::walk(root.path(), "top", [&](const korvane::WalkEntry& at) { seen.emplace(at.path, at.folder); });
    EXPECT_EQ(seen, (Seen{{"top", true}, {"top/sub", true}, {"top/sub/f", false}}));
    auto libc = korvane::Library::load("libc.so.6");
    ASSERT_TRUE(libc);
    EXPECT_EQ(libc->symbol<size_t(const char*)>("strlen")("four"), 4u);
    EXPECT_FALSE(korvane::Library::load("libno-such-library.so"));
}
