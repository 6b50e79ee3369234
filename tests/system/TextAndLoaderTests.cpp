// The OEM/UTF-8 copies and the dynamic library loader.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

#include "TestSupport.h"
#include "korvane/system.h"

#if defined(__SANITIZE_ADDRESS__)
#define KV_ADDRESS_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KV_ADDRESS_SANITIZER 1
#endif
#endif

namespace {

using Conversion = bool (*)(const char*, char*, size_t*);

class CodePageCopy : public ::testing::TestWithParam<Conversion> {};

TEST_P(CodePageCopy, FollowsTheCallerBufferProtocol) {
    const Conversion convert = GetParam();
    const char* text = "h\xc3\xa9llo"; // "héllo": six bytes of UTF-8
    size_t size = 0;
    EXPECT_TRUE(convert(text, nullptr, &size));
    EXPECT_EQ(size, 7u);

    char buffer[16];
    std::memset(buffer, '#', sizeof buffer);
    size = 6;
    EXPECT_FALSE(convert(text, buffer, &size));
    EXPECT_EQ(size, 6u);
    EXPECT_EQ(buffer[0], '#');

    size = sizeof buffer;
    EXPECT_TRUE(convert(text, buffer, &size));
    EXPECT_EQ(size, 7u);
    EXPECT_STREQ(buffer, text);

    EXPECT_FALSE(convert(text, buffer, nullptr));
}

INSTANTIATE_TEST_SUITE_P(BothDirections, CodePageCopy,
                         ::testing::Values(os_utf8helper_oem_from_utf8, os_utf8helper_oem_to_utf8));

// Kept asymmetric for existing callers: only this direction reads a null
// text as the empty string.
TEST(CodePageCopy, NullTextIsEmptyOnlyWhenConvertingFromUtf8) {
    size_t size = 0;
    EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, nullptr, &size));
    EXPECT_EQ(size, 1u);
    char buffer[4] = "###";
    size = sizeof buffer;
    EXPECT_TRUE(os_utf8helper_oem_from_utf8(nullptr, buffer, &size));
    EXPECT_STREQ(buffer, "");

    size = 99;
    EXPECT_FALSE(os_utf8helper_oem_to_utf8(nullptr, nullptr, &size));
    EXPECT_EQ(size, 99u);
}

TEST(DynamicLoader, LoadsASystemLibraryAndFindsItsSymbols) {
    void* library = os_dynamic_library_loader_load("libm.so.6");
    ASSERT_NE(library, nullptr);
    using MathFunction = double (*)(double);
    const auto cosine = reinterpret_cast<MathFunction>(os_dynamic_library_loader_get_proc(library, "cos"));
    ASSERT_NE(cosine, nullptr);
    EXPECT_DOUBLE_EQ(cosine(0.0), 1.0);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(library, "kv_no_such_symbol"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(library, nullptr), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(library), 0);
}

TEST(DynamicLoader, MissingFileGivesNullSilently) {
    void* library = reinterpret_cast<void*>(1);
    const std::string printed = kvtest::captureStdout(
        [&] { library = os_dynamic_library_loader_load_ex("/nonexistent/libkv_missing.so", 1); });
    EXPECT_EQ(library, nullptr);
    EXPECT_EQ(printed, "");
}

TEST(DynamicLoader, NullFileNameGivesTheMainProgram) {
    void* program = os_dynamic_library_loader_load(nullptr);
    ASSERT_NE(program, nullptr);
    EXPECT_EQ(os_dynamic_library_loader_get_proc(program, "os_dynamic_library_loader_free"),
              reinterpret_cast<void*>(&os_dynamic_library_loader_free));
    EXPECT_EQ(os_dynamic_library_loader_free(program), 0);
}

TEST(DynamicLoader, NullLibraryDoesNothing) {
    EXPECT_EQ(os_dynamic_library_loader_get_proc(nullptr, "cos"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(nullptr), 0);
}

// A stale error from an earlier lookup must not make a good load fail.
TEST(DynamicLoader, EarlierErrorDoesNotSpoilTheNextLoad) {
    void* program = os_dynamic_library_loader_load(nullptr);
    ASSERT_NE(program, nullptr);
    EXPECT_EQ(dlsym(program, "kv_no_such_symbol"), nullptr); // leaves an error pending
    void* library = os_dynamic_library_loader_load(KV_PLUGIN_BASE);
    EXPECT_NE(library, nullptr);
    os_dynamic_library_loader_free(library);
    os_dynamic_library_loader_free(program);
}

// Flag 1: immediate binding refuses a library with an unresolvable
// reference; lazy binding (flag clear) loads it.
TEST(DynamicLoaderFlags, BindNowResolvesEverythingAtLoad) {
    void* lazy = os_dynamic_library_loader_load_ex(KV_PLUGIN_PROBE, 0);
    ASSERT_NE(lazy, nullptr);
    EXPECT_NE(os_dynamic_library_loader_get_proc(lazy, "kv_which"), nullptr);
    EXPECT_EQ(os_dynamic_library_loader_free(lazy), 0);
    const std::string printed = kvtest::captureStdout([] {
        EXPECT_EQ(os_dynamic_library_loader_load_ex(KV_PLUGIN_PROBE, 1), nullptr);
        EXPECT_EQ(os_dynamic_library_loader_load(KV_PLUGIN_PROBE), nullptr);
    });
    EXPECT_EQ(printed, "");
}

// Flag 2: global binding makes the symbols visible to everything loaded
// later; local binding keeps them private. In a child, since a symbol found
// through the global scope pins its library for the rest of the process.
TEST(DynamicLoaderFlags, GlobalFlagPublishesTheSymbols) {
    const kvtest::ChildResult result = kvtest::runInChild([] {
        void* local = os_dynamic_library_loader_load_ex(KV_PLUGIN_BASE, 1);
        if (local == nullptr)
            return 1;
        if (dlsym(RTLD_DEFAULT, "kv_identity") != nullptr)
            return 2;
        os_dynamic_library_loader_free(local);
        void* global = os_dynamic_library_loader_load_ex(KV_PLUGIN_BASE, 3);
        if (global == nullptr)
            return 3;
        void* published = dlsym(RTLD_DEFAULT, "kv_identity");
        return published != nullptr && published == os_dynamic_library_loader_get_proc(global, "kv_identity") ? 0
                                                                                                                : 4;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.exitCode, 0);
}

// Flag 4: the library stays loaded after it is freed. In a child, since
// nothing can unload it afterwards.
TEST(DynamicLoaderFlags, NoDeleteKeepsTheLibraryLoaded) {
    const kvtest::ChildResult result = kvtest::runInChild([] {
        void* plain = os_dynamic_library_loader_load_ex(KV_PLUGIN_PROBE, 0);
        if (plain == nullptr || os_dynamic_library_loader_free(plain) != 0)
            return 1;
        if (dlopen(KV_PLUGIN_PROBE, RTLD_LAZY | RTLD_NOLOAD) != nullptr)
            return 2; // unloaded when freed
        void* kept = os_dynamic_library_loader_load_ex(KV_PLUGIN_PROBE, 4);
        if (kept == nullptr || os_dynamic_library_loader_free(kept) != 0)
            return 3;
        return dlopen(KV_PLUGIN_PROBE, RTLD_LAZY | RTLD_NOLOAD) != nullptr ? 0 : 4;
    });
    EXPECT_TRUE(result.exited);
    EXPECT_EQ(result.exitCode, 0);
}

// Flag 8: the library's own definitions come before the global ones.
TEST(DynamicLoaderFlags, DeepBindPrefersTheLibrarysOwnSymbols) {
#ifdef KV_ADDRESS_SANITIZER
    GTEST_SKIP() << "the address sanitizer refuses RTLD_DEEPBIND";
#else
    void* base = os_dynamic_library_loader_load_ex(KV_PLUGIN_BASE, 3);
    ASSERT_NE(base, nullptr);
    using Which = int (*)();
    for (const auto& [flags, expected] : {std::pair<uint32_t, int>{0, 1}, {8, 2}}) {
        SCOPED_TRACE(flags);
        void* probe = os_dynamic_library_loader_load_ex(KV_PLUGIN_PROBE, flags);
        ASSERT_NE(probe, nullptr);
        const auto which = reinterpret_cast<Which>(os_dynamic_library_loader_get_proc(probe, "kv_which"));
        ASSERT_NE(which, nullptr);
        EXPECT_EQ(which(), expected);
        os_dynamic_library_loader_free(probe);
    }
    os_dynamic_library_loader_free(base);
#endif
}

} // namespace
