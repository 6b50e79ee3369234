// Safe arrays: storage widths and bounds, the refusals of types without
// storage, resize, string ownership and snapshots. Under the sanitizers the
// leak checker fails any test that leaves a unit or snapshot unreleased.
#include <gtest/gtest.h>

#include <cstring>
#include <list>
#include <memory>
#include <vector>

#include "automation/SafeArrayInternal.h"
#include "korvane/automation.h"

namespace {

struct ArrayDestroyer {
    void operator()(safearray_handle* handle) const { safearray_destroy(&handle); }
};
using Array = std::unique_ptr<safearray_handle, ArrayDestroyer>;
struct UnitFree {
    void operator()(bstrunit* unit) const { bstrunit_free(unit); }
};
using Unit = std::unique_ptr<bstrunit, UnitFree>;

// The class's type information stays inside the library, so these looks
// inside are exempt from the sanitizer's dynamic-type check, which needs it.
__attribute__((no_sanitize("vptr"))) void* dataOf(const safearray_handle* handle) { return handle->data; }
__attribute__((no_sanitize("vptr"))) const std::list<_ALLOC_DATA_BLOCK>& blocksOf(const safearray_handle* h) {
    return h->blocks;
}
bstrunit* storedUnit(const safearray_handle* handle, uint32_t index) {
    return static_cast<bstrunit**>(dataOf(handle))[index];
}

void setText(safearray_handle* handle, uint32_t index, const char* text) {
    Unit unit(bstrunit_alloc(static_cast<int32_t>(std::strlen(text) + 1)));
    std::memcpy(bstrunit_data(unit.get()), text, std::strlen(text) + 1);
    const bstrunit* pointer = unit.get();
    ASSERT_TRUE(safearray_set_element(handle, index, &pointer));
}
std::string getText(const safearray_handle* handle, uint32_t index) {
    bstrunit* copy = nullptr;
    EXPECT_TRUE(safearray_get_element(handle, index, &copy));
    Unit owned(copy);
    return copy == nullptr ? "<null>" : bstrunit_data(copy);
}
std::vector<int> intsOf(const safearray_handle* handle) {
    std::vector<int> values(safearray_get_element_count(handle));
    for (uint32_t i = 0; i < values.size(); ++i)
        EXPECT_TRUE(safearray_get_element(handle, i, &values[i]));
    return values;
}

struct StoredWidth {
    TVARTYPE type;
    size_t width;
};
const StoredWidth kScalarWidths[] = {
    {TVT_CHAR, 1}, {TVT_BYTE, 1}, {TVT_BOOL, 1},  {TVT_SHORT, 2}, {TVT_USHORT, 2}, {TVT_INT, 4},       {TVT_UINT, 4},
    {TVT_FLOAT, 4}, {TVT_LONG, 8}, {TVT_ULONG, 8}, {TVT_LONGLONG, 8}, {TVT_ULONGLONG, 8}, {TVT_DOUBLE, 8},
};

TEST(SafeArrayElements, EachTypeStoresAtItsWidthWithinBounds) {
    const unsigned char pattern[8] = {0x01, 0x82, 0x43, 0xC4, 0x25, 0xA6, 0x67, 0xE8};
    for (const StoredWidth& row : kScalarWidths) {
        SCOPED_TRACE(row.type);
        Array array(safearray_create(row.type, 3));
        ASSERT_EQ(safearray_get_element_type(array.get()), row.type);
        ASSERT_TRUE(safearray_set_element(array.get(), 1, pattern));
        EXPECT_FALSE(safearray_set_element(array.get(), 3, pattern));
        EXPECT_FALSE(safearray_set_element(array.get(), 0, nullptr));

        // Element i lies at data + i x width; the zeroed neighbours stay zero.
        std::vector<unsigned char> expected(3 * row.width, 0);
        std::memcpy(&expected[row.width], pattern, row.width);
        EXPECT_EQ(std::memcmp(dataOf(array.get()), expected.data(), expected.size()), 0);

        unsigned char out[16];
        std::memset(out, 0xEE, sizeof out);
        EXPECT_FALSE(safearray_get_element(array.get(), 3, out));
        ASSERT_TRUE(safearray_get_element(array.get(), 1, out));
        EXPECT_EQ(std::memcmp(out, pattern, row.width), 0);
        EXPECT_EQ(out[row.width], 0xEE) << "get wrote beyond the element width";
    }
}

// Type 0 and unknown types report a count yet refuse every element
// operation, and resize changes their count while reporting failure.
TEST(SafeArrayElements, TypesWithoutStorageReportACountAndRefuseElements) {
    for (TVARTYPE type : {TVARTYPE{TVT_EMPTY}, TVARTYPE{15}, TVARTYPE{0xFFFF}}) {
        SCOPED_TRACE(type);
        Array array(safearray_create(type, 5));
        EXPECT_EQ(safearray_get_element_count(array.get()), 5u);
        long long value = 7;
        void* snapshot = &value;
        EXPECT_FALSE(safearray_set_element(array.get(), 0, &value));
        EXPECT_FALSE(safearray_get_element(array.get(), 0, &value));
        EXPECT_FALSE(safearray_access_element(array.get(), &snapshot));
        EXPECT_EQ(snapshot, &value);
        EXPECT_FALSE(safearray_resize(array.get(), 9));
        EXPECT_EQ(safearray_get_element_count(array.get()), 9u);
        safearray_clear(array.get());
        EXPECT_EQ(safearray_get_element_count(array.get()), 0u);
        EXPECT_EQ(safearray_get_element_type(array.get()), type);
    }
}

TEST(SafeArrayElements, NullHandleDoesNothing) {
    int value = 3;
    void* snapshot = &value;
    EXPECT_EQ(safearray_get_element_type(nullptr), 0);
    EXPECT_EQ(safearray_get_element_count(nullptr), 0u);
    EXPECT_FALSE(safearray_set_element(nullptr, 0, &value));
    EXPECT_FALSE(safearray_get_element(nullptr, 0, &value));
    EXPECT_FALSE(safearray_access_element(nullptr, &snapshot));
    EXPECT_FALSE(safearray_unaccess_element(nullptr));
    EXPECT_FALSE(safearray_resize(nullptr, 4));
    safearray_clear(nullptr);
    safearray_handle* none = nullptr;
    safearray_destroy(&none);
    EXPECT_EQ(none, nullptr);
    safearray_destroy(nullptr);
}

TEST(SafeArrayResize, GrowsZeroFilledAndShrinksFromTheTail) {
    Array array(safearray_create(TVT_INT, 3));
    const int values[] = {1, 2, 3};
    for (uint32_t i = 0; i < 3; ++i)
        safearray_set_element(array.get(), i, &values[i]);
    ASSERT_TRUE(safearray_resize(array.get(), 5));
    EXPECT_EQ(intsOf(array.get()), (std::vector<int>{1, 2, 3, 0, 0}));
    ASSERT_TRUE(safearray_resize(array.get(), 2));
    ASSERT_TRUE(safearray_resize(array.get(), 3));
    EXPECT_EQ(intsOf(array.get()), (std::vector<int>{1, 2, 0})) << "the cut-off tail must not come back";
    ASSERT_TRUE(safearray_resize(array.get(), 0));
    EXPECT_EQ(dataOf(array.get()), nullptr);
    void* snapshot = &snapshot;
    EXPECT_TRUE(safearray_access_element(array.get(), &snapshot));
    EXPECT_EQ(snapshot, nullptr) << "an empty array hands out a null snapshot";
    EXPECT_TRUE(blocksOf(array.get()).empty());
}

TEST(SafeArrayStrings, ElementsAreDeepCopiesOwnedByTheArray) {
    Array array(safearray_create(TVT_STRING, 3));
    setText(array.get(), 0, "zero");
    setText(array.get(), 2, "two");
    EXPECT_EQ(getText(array.get(), 1), "<null>");
    bstrunit* first = nullptr;
    bstrunit* second = nullptr;
    ASSERT_TRUE(safearray_get_element(array.get(), 0, &first));
    ASSERT_TRUE(safearray_get_element(array.get(), 0, &second));
    Unit a(first), b(second);
    EXPECT_NE(first, second);
    EXPECT_NE(first, storedUnit(array.get(), 0));

    ASSERT_TRUE(safearray_resize(array.get(), 4));
    EXPECT_EQ(getText(array.get(), 2), "two");
    ASSERT_TRUE(safearray_resize(array.get(), 1)); // "two" is freed: the leak checker sees it
    EXPECT_EQ(getText(array.get(), 0), "zero");
}

// Overwriting a string element does not free the unit it held; existing
// callers rely on it staying valid. The test takes the old unit over.
TEST(SafeArrayStrings, OverwrittenUnitIsLeftToWhoeverHoldsIt) {
    Array array(safearray_create(TVT_STRING, 1));
    setText(array.get(), 0, "first");
    Unit previous(storedUnit(array.get(), 0));
    const bstrunit* none = nullptr;
    ASSERT_TRUE(safearray_set_element(array.get(), 0, &none));
    EXPECT_STREQ(bstrunit_data(previous.get()), "first"); // use-after-free under ASan had it been freed
    EXPECT_EQ(getText(array.get(), 0), "<null>");
}

TEST(SafeArraySnapshot, CopiesTrackedUntilOneUnaccessReleasesThemAll) {
    Array array(safearray_create(TVT_INT, 3));
    const int ten = 10;
    safearray_set_element(array.get(), 1, &ten);
    void* first = nullptr;
    void* second = nullptr;
    ASSERT_TRUE(safearray_access_element(array.get(), &first));
    ASSERT_TRUE(safearray_access_element(array.get(), &second));
    EXPECT_NE(first, second);
    EXPECT_EQ(static_cast<int*>(first)[1], 10);
    static_cast<int*>(first)[1] = 99;
    EXPECT_EQ(intsOf(array.get())[1], 10) << "writes to a snapshot do not reach the array";

    ASSERT_EQ(blocksOf(array.get()).size(), 2u);
    EXPECT_EQ(blocksOf(array.get()).front().data, first) << "blocks are kept in order of creation";
    EXPECT_EQ(blocksOf(array.get()).back().vt, TVT_INT);
    EXPECT_EQ(blocksOf(array.get()).back().count, 3u);
    safearray_resize(array.get(), 8);
    safearray_clear(array.get());
    EXPECT_EQ(blocksOf(array.get()).size(), 2u) << "resize and clear leave snapshots alone";
    EXPECT_EQ(static_cast<int*>(second)[1], 10);

    EXPECT_TRUE(safearray_unaccess_element(array.get()));
    EXPECT_TRUE(blocksOf(array.get()).empty());
}

// Releasing a string snapshot frees only its pointer array: the unit copies
// in it stay valid for existing callers, who free them themselves.
TEST(SafeArraySnapshot, StringUnitCopiesOutliveTheRelease) {
    Array array(safearray_create(TVT_STRING, 2));
    setText(array.get(), 0, "one");
    void* out = nullptr;
    ASSERT_TRUE(safearray_access_element(array.get(), &out));
    Unit zero(static_cast<bstrunit**>(out)[0]);
    EXPECT_EQ(static_cast<bstrunit**>(out)[1], nullptr);
    EXPECT_NE(zero.get(), storedUnit(array.get(), 0));
    ASSERT_TRUE(safearray_unaccess_element(array.get()));
    EXPECT_STREQ(bstrunit_data(zero.get()), "one");
}

TEST(SafeArraySnapshot, DestroyReleasesOutstandingSnapshotsAndNullsTheVariable) {
    safearray_handle* handle = safearray_create(TVT_DOUBLE, 16);
    void* out = nullptr;
    ASSERT_TRUE(safearray_access_element(handle, &out));
    ASSERT_TRUE(safearray_access_element(handle, &out));
    safearray_destroy(&handle); // the leak checker fails the test if a snapshot survives
    EXPECT_EQ(handle, nullptr);
}

} // namespace
