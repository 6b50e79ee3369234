// Safe arrays: widths and bounds, types without storage, resize, string
// ownership and snapshots; the leak checker catches anything left unreleased.
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

// Looks inside: the unit a string element holds, and the snapshots still
// recorded. The class's type information stays inside the library, so these
// are exempt from the sanitizer's dynamic-type check.
__attribute__((no_sanitize("vptr"))) bstrunit* storedUnit(const safearray_handle* h, uint32_t index) {
    return static_cast<bstrunit**>(h->data)[index];
}
__attribute__((no_sanitize("vptr"))) size_t snapshotsOf(const safearray_handle* h) { return h->blocks.size(); }
void setText(safearray_handle* h, uint32_t index, const char* text) {
    const Unit unit = rawUnit(std::string(text, std::strlen(text) + 1));
    const bstrunit* pointer = unit.get();
    EXPECT_TRUE(safearray_set_element(h, index, &pointer));
}
std::string getText(const safearray_handle* h, uint32_t index) {
    bstrunit* copy = nullptr;
    EXPECT_TRUE(safearray_get_element(h, index, &copy));
    const Unit owned(copy); // the caller's: were it the array's own unit, it would be freed twice
    return copy == nullptr ? "<null>" : bstrunit_data(copy);
}
std::vector<int> intsOf(const safearray_handle* h) {
    std::vector<int> values(safearray_get_element_count(h));
    for (uint32_t i = 0; i < values.size(); ++i)
        EXPECT_TRUE(safearray_get_element(h, i, &values[i]));
    return values;
}

// Element i lies at i x width in the storage, which a snapshot copies whole.
TEST(SafeArrayElements, EachTypeStoresAtItsWidthWithinBounds) {
    const size_t widths[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, 0, 1}; // by tag
    const unsigned char pattern[8] = {0x01, 0x82, 0x43, 0xC4, 0x25, 0xA6, 0x67, 0xE8};
    for (TVARTYPE type = TVT_CHAR; type <= TVT_BOOL; type += type == TVT_DOUBLE ? 2 : 1) {
        SCOPED_TRACE(type);
        const size_t width = widths[type];
        Array array(safearray_create(type, 3));
        EXPECT_EQ(safearray_get_element_type(array.get()), type);
        EXPECT_TRUE(safearray_set_element(array.get(), 1, pattern));
        EXPECT_FALSE(safearray_set_element(array.get(), 3, pattern));
        EXPECT_FALSE(safearray_set_element(array.get(), 0, nullptr));
        std::vector<unsigned char> expected(3 * width, 0), out(16, 0xEE);
        std::memcpy(&expected[width], pattern, width);
        void* snapshot = nullptr;
        EXPECT_TRUE(safearray_access_element(array.get(), &snapshot));
        EXPECT_EQ(std::memcmp(snapshot, expected.data(), expected.size()), 0);
        EXPECT_FALSE(safearray_get_element(array.get(), 3, out.data()));
        EXPECT_TRUE(safearray_get_element(array.get(), 1, out.data()));
        EXPECT_EQ(std::memcmp(out.data(), pattern, width), 0);
        EXPECT_EQ(out[width], 0xEE) << "no more than the element's width";
    }
}

// Kept on purpose: type 0 and unknown types report a count yet refuse every
// element operation, and resize changes their count while reporting failure.
// Null handles: the bool results are in BoolResultTest.
TEST(SafeArrayElements, TypesWithoutStorageAndNullHandlesRefuseElements) {
    long long value = 7;
    void* snapshot = &value;
    for (TVARTYPE type : {TVARTYPE{TVT_EMPTY}, TVARTYPE{15}, TVARTYPE{0xFFFF}}) {
        SCOPED_TRACE(type);
        Array array(safearray_create(type, 5));
        EXPECT_EQ(safearray_get_element_count(array.get()), 5u);
        EXPECT_FALSE(safearray_set_element(array.get(), 0, &value));
        EXPECT_FALSE(safearray_get_element(array.get(), 0, &value));
        EXPECT_FALSE(safearray_access_element(array.get(), &snapshot));
        EXPECT_FALSE(safearray_resize(array.get(), 9));
        EXPECT_EQ(safearray_get_element_count(array.get()), 9u);
        safearray_clear(array.get());
        EXPECT_EQ(safearray_get_element_count(array.get()), 0u);
        EXPECT_EQ(safearray_get_element_type(array.get()), type);
    }
    EXPECT_EQ(snapshot, &value);
    EXPECT_EQ(safearray_get_element_type(nullptr), 0);
    EXPECT_EQ(safearray_get_element_count(nullptr), 0u);
    safearray_clear(nullptr);
    safearray_handle* none = nullptr;
    safearray_destroy(&none);
    EXPECT_EQ(none, nullptr);
}

TEST(SafeArrayResize, GrowsZeroFilledAndShrinksFromTheTail) {
    Array array(safearray_create(TVT_INT, 3));
    const int values[] = {1, 2, 3};
    for (uint32_t i = 0; i < 3; ++i)
        safearray_set_element(array.get(), i, &values[i]);
    EXPECT_TRUE(safearray_resize(array.get(), 5));
    EXPECT_EQ(intsOf(array.get()), (std::vector<int>{1, 2, 3, 0, 0}));
    safearray_resize(array.get(), 2);
    safearray_resize(array.get(), 3);
    EXPECT_EQ(intsOf(array.get()), (std::vector<int>{1, 2, 0})) << "the cut-off tail must not come back";
    EXPECT_TRUE(safearray_resize(array.get(), 0));
    EXPECT_EQ(safearray_get_element_count(array.get()), 0u);
    void* snapshot = &snapshot;
    EXPECT_TRUE(safearray_access_element(array.get(), &snapshot));
    EXPECT_EQ(snapshot, nullptr);
    EXPECT_EQ(snapshotsOf(array.get()), 0u) << "an empty array records no snapshot";
}

TEST(SafeArrayStrings, ElementsAreDeepCopiesOwnedByTheArray) {
    Array array(safearray_create(TVT_STRING, 3));
    setText(array.get(), 0, "zero");
    setText(array.get(), 2, "two");
    EXPECT_EQ(getText(array.get(), 1), "<null>");
    safearray_resize(array.get(), 4);
    EXPECT_EQ(getText(array.get(), 2), "two");
    safearray_resize(array.get(), 1); // frees "two" and the old units
    EXPECT_EQ(getText(array.get(), 0), "zero");
    // Overwriting an element leaves the unit it held to whoever holds it (kept
    // on purpose): had it been freed, this read would be a use after free.
    const Unit previous(storedUnit(array.get(), 0));
    const bstrunit* none = nullptr;
    EXPECT_TRUE(safearray_set_element(array.get(), 0, &none));
    EXPECT_STREQ(bstrunit_data(previous.get()), "zero");
    EXPECT_EQ(getText(array.get(), 0), "<null>");
}

TEST(SafeArraySnapshot, CopiesKeptUntilOneUnaccessOrDestroyReleasesThemAll) {
    Array array(safearray_create(TVT_INT, 3));
    const int ten = 10;
    safearray_set_element(array.get(), 1, &ten);
    void *first = nullptr, *second = nullptr;
    safearray_access_element(array.get(), &first);
    safearray_access_element(array.get(), &second);
    ASSERT_NE(first, second);
    static_cast<int*>(first)[1] = 99;
    EXPECT_EQ(intsOf(array.get())[1], 10) << "writes to a snapshot do not reach the array";
    safearray_resize(array.get(), 8);
    safearray_clear(array.get());
    EXPECT_EQ(static_cast<int*>(second)[1], 10) << "resize and clear leave snapshots alone";
    EXPECT_EQ(snapshotsOf(array.get()), 2u);
    EXPECT_TRUE(safearray_unaccess_element(array.get()));
    EXPECT_EQ(snapshotsOf(array.get()), 0u);
    // A string snapshot's release frees only its pointer array: the unit
    // copies in it stay valid for the caller to free (kept on purpose).
    Array strings(safearray_create(TVT_STRING, 2));
    setText(strings.get(), 0, "one");
    ASSERT_TRUE(safearray_access_element(strings.get(), &first));
    const Unit zero(static_cast<bstrunit**>(first)[0]);
    EXPECT_NE(zero.get(), storedUnit(strings.get(), 0));
    EXPECT_EQ(static_cast<bstrunit**>(first)[1], nullptr);
    safearray_unaccess_element(strings.get());
    EXPECT_STREQ(bstrunit_data(zero.get()), "one");
    safearray_resize(array.get(), 16);
    safearray_access_element(array.get(), &first);
    safearray_access_element(array.get(), &second);
    safearray_handle* handle = array.release();
    safearray_destroy(&handle); // releases the outstanding snapshots, or the leak checker complains
    EXPECT_EQ(handle, nullptr);
}

} // namespace
