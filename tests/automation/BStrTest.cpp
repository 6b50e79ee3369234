// BSTR handles: null handles, copies as they stand, self-assignment, ownership
// of attached and detached units, and the equality rules.
#include <gtest/gtest.h>

#include <new>
#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

struct BstrDestroyer {
    void operator()(bstr_handle* handle) const { bstr_destroy(&handle); }
};
using Bstr = std::unique_ptr<bstr_handle, BstrDestroyer>;
Bstr bstr(const char* text = nullptr) {
    Bstr handle(bstr_create());
    bstr_set_string(handle.get(), text);
    return handle;
}

TEST(BStrSetters, CopyTheSourceAsItStandsAndNullLeavesNoString) {
    // The copies' bytes (the NUL counted, embedded NULs kept) are checked
    // with the variant's setters and the safe_array fuzz target.
    const Bstr h = bstr(), source = bstr("text"), none = bstr();
    // A null handle reports whether there was nothing to set (the null-source
    // results are in BoolResultTest).
    EXPECT_TRUE(bstr_set_bstr(nullptr, none.get())) << "a source holding no string counts as null";
    EXPECT_FALSE(bstr_set_bstr(nullptr, source.get()));
    EXPECT_TRUE(bstr_set_bstr(h.get(), source.get()));
    EXPECT_NE(bstr_get_string(h.get()), bstr_get_string(source.get()));
    EXPECT_STREQ(bstr_get_string(h.get()), "text");
    // A source inside the handle's own unit is read before that unit is freed.
    const char* const longText = "a text longer than any allocator header";
    bstr_set_string(h.get(), longText);
    EXPECT_TRUE(bstr_set_string(h.get(), bstr_get_string(h.get())));
    EXPECT_STREQ(bstr_get_string(h.get()), longText);
    const std::function<bool()> nullSources[] = {
        [&] { return bstr_set_string(h.get(), nullptr); }, [&] { return bstr_set_bstrunit(h.get(), nullptr); },
        [&] { return bstr_set_bstr(h.get(), none.get()); },
        [&] { return bstr_set_bstr(h.get(), h.get()); }}; // self-assignment empties, on purpose
    for (const auto& setNull : nullSources) {
        bstr_set_string(h.get(), "old"); // freed by the setter, or the leak checker complains
        EXPECT_TRUE(setNull());
        EXPECT_EQ(bstr_get_string(h.get()), nullptr);
    }
    alignas(bstrunit) char block[sizeof(bstrunit)];
    EXPECT_THROW(bstr_set_bstrunit(h.get(), new (block) bstrunit{-1}), std::bad_array_new_length);
}

// Units move in and out without copies; the leak checker sees a lost one.
TEST(BStrOwnership, AttachAndDetachMoveTheUnitItself) {
    const Bstr h = bstr("old");
    bstrunit* unit = rawUnit(std::string("new", 4)).release();
    bstr_attach_bstrunit(nullptr, unit); // takes nothing
    bstr_attach_bstrunit(h.get(), unit);
    bstr_attach_bstrunit(h.get(), unit); // its own unit again: kept, not freed
    EXPECT_EQ(bstr_get_string(h.get()), bstrunit_data(unit));
    const Unit detached(bstr_detach_bstrunit(h.get()));
    EXPECT_EQ(detached.get(), unit);
    bstr_attach_bstrunit(h.get(), bstrunit_alloc(0));
    bstr_attach_bstrunit(h.get(), nullptr); // frees it
    EXPECT_EQ(bstr_get_string(h.get()), nullptr);
}

TEST(BStrEqual, NullAndEmptyStatesThenLengthAndBytes) {
    const Bstr abc = bstr("abc"), abc2 = bstr("abc"), abd = bstr("abd"), ab = bstr("ab"), none = bstr();
    const Bstr none2 = bstr(), empty = bstr();
    bstr_attach_bstrunit(empty.get(), bstrunit_alloc(0));
    const Unit withNul = rawUnit(std::string("ab", 3)), other = rawUnit(std::string("ax", 3)), noNul = rawUnit("ab");
    const std::tuple<bstr_handle*, bstr_handle*, bool> handles[] = {
        {nullptr, none.get(), false},    {none.get(), nullptr, false},     {none.get(), none2.get(), true},
        {none.get(), empty.get(), false}, {empty.get(), none.get(), false}, {abc.get(), abc2.get(), true},
        {abc.get(), abd.get(), false},   {abc.get(), ab.get(), false}};
    int row = 0;
    for (const auto& [a, b, equal] : handles)
        EXPECT_EQ(bstr_equal_bstr(a, b), equal) << "handles row " << row++;
    const std::tuple<bstr_handle*, const bstrunit*, bool> units[] = {
        {nullptr, withNul.get(), false}, {none.get(), nullptr, true},     {none.get(), withNul.get(), false},
        {ab.get(), nullptr, false},      {ab.get(), withNul.get(), true}, {ab.get(), noNul.get(), false},
        {ab.get(), other.get(), false}};
    for (const auto& [a, b, equal] : units)
        EXPECT_EQ(bstr_equal_bstrunit(a, b), equal) << "units row " << row++;
}

} // namespace
