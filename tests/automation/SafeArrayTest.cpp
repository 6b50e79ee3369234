// Safe arrays: what the safe_array fuzz target's model does not see, element
// widths and snapshots that outlive changes to the array. Bounds, contents,
// resize, types without storage and string ownership are checked by that
// target against its model, with the leak checker on.
#include <gtest/gtest.h>

#include <vector>

#include "AutomationTestSupport.h"
#include "automation/SafeArrayInternal.h"

namespace {

using namespace autotest;

struct ArrayDestroyer {
    void operator()(safearray_handle* handle) const { safearray_destroy(&handle); }
};
using Array = std::unique_ptr<safearray_handle, ArrayDestroyer>;

// The snapshots still recorded. The class's type information stays inside the
// library, so this is exempt from the sanitizer's dynamic-type check.
__attribute__((no_sanitize("vptr"))) size_t snapshotsOf(const safearray_handle* h) { return h->blocks.size(); }

// Each type's width, which the variant reports too.
TEST(SafeArrayElements, GetCopiesNoMoreThanTheElementsWidth) {
    const size_t widths[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, 0, 1}; // by tag
    const unsigned char pattern[8] = {0x01, 0x82, 0x43, 0xC4, 0x25, 0xA6, 0x67, 0xE8};
    for (TVARTYPE type = TVT_CHAR; type <= TVT_BOOL; type += type == TVT_DOUBLE ? 2 : 1) {
        Array array(safearray_create(type, 3));
        std::vector<unsigned char> out(16, 0xEE);
        EXPECT_TRUE(safearray_set_element(array.get(), 1, pattern));
        EXPECT_TRUE(safearray_get_element(array.get(), 1, out.data()));
        EXPECT_EQ(std::memcmp(out.data(), pattern, widths[type]), 0) << type;
        EXPECT_EQ(out[widths[type]], 0xEE) << type;
        uint32_t bits = 0;
        EXPECT_TRUE(variant_get_datatype_size(type, &bits));
        EXPECT_EQ(bits, 8 * widths[type]) << type;
    }
    uint32_t bits = 77;
    EXPECT_FALSE(variant_get_datatype_size(TVT_STRING, &bits)) << "no scalar width";
    EXPECT_EQ(bits, 0u);
}

// Destroy releasing the snapshots still out is the fuzz target's (leak checker).
TEST(SafeArraySnapshot, CopiesKeptUntilOneUnaccessReleasesThemAll) {
    Array array(safearray_create(TVT_INT, 3));
    const int ten = 10;
    int value = 0;
    safearray_set_element(array.get(), 1, &ten);
    void *first = nullptr, *second = nullptr;
    safearray_access_element(array.get(), &first);
    safearray_access_element(array.get(), &second);
    static_cast<int*>(first)[1] = 99;
    safearray_get_element(array.get(), 1, &value);
    EXPECT_EQ(value, 10) << "writes to a snapshot do not reach the array";
    safearray_resize(array.get(), 8);
    safearray_clear(array.get());
    EXPECT_EQ(static_cast<int*>(second)[1], 10) << "resize and clear leave snapshots alone";
    EXPECT_EQ(snapshotsOf(array.get()), 2u);
    EXPECT_TRUE(safearray_unaccess_element(array.get()));
    EXPECT_EQ(snapshotsOf(array.get()), 0u);
}

} // namespace
