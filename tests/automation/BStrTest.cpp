// BSTR handles: null handles, copies, self-assignment, ownership of attached
// and detached units, and the equality rules.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "korvane/automation.h"

namespace {

struct UnitDeleter {
    void operator()(bstrunit* unit) const { bstrunit_free(unit); }
};
using UnitPtr = std::unique_ptr<bstrunit, UnitDeleter>;

// A unit built by hand from raw bytes: no NUL is added.
UnitPtr rawUnit(const std::string& bytes) {
    UnitPtr unit(bstrunit_alloc(static_cast<int32_t>(bytes.size())));
    std::memcpy(bstrunit_data(unit.get()), bytes.data(), bytes.size());
    return unit;
}

std::string bytesOf(const bstrunit* unit) {
    return std::string(bstrunit_data(unit), static_cast<size_t>(unit->length));
}

class Bstr {
public:
    explicit Bstr(const char* text = nullptr) : m_handle(bstr_create()) { bstr_set_string(m_handle, text); }
    ~Bstr() { bstr_destroy(&m_handle); }
    Bstr(const Bstr&) = delete;
    Bstr& operator=(const Bstr&) = delete;
    bstr_handle* get() const { return m_handle; }

private:
    bstr_handle* m_handle;
};

TEST(BStrNullHandle, SettersReportWhetherThereWasNothingToSetAndTheRestDoNothing) {
    UnitPtr unit = rawUnit("x");
    Bstr other("x");
    EXPECT_TRUE(bstr_set_string(nullptr, nullptr));
    EXPECT_FALSE(bstr_set_string(nullptr, "x"));
    EXPECT_TRUE(bstr_set_bstrunit(nullptr, nullptr));
    EXPECT_FALSE(bstr_set_bstrunit(nullptr, unit.get()));
    EXPECT_TRUE(bstr_set_bstr(nullptr, nullptr));
    EXPECT_FALSE(bstr_set_bstr(nullptr, other.get()));

    bstr_clear(nullptr);
    bstr_attach_bstrunit(nullptr, unit.get()); // takes no ownership: the test still frees it
    EXPECT_EQ(bstr_get_string(nullptr), nullptr);
    EXPECT_EQ(bstr_detach_bstrunit(nullptr), nullptr);
    bstr_handle* handle = nullptr;
    bstr_destroy(&handle);
    EXPECT_EQ(handle, nullptr);
    bstr_destroy(nullptr);
}

TEST(BStrSetString, StoresTheTextWithItsNul) {
    Bstr h("abc");
    EXPECT_STREQ(bstr_get_string(h.get()), "abc");
    UnitPtr unit(bstr_detach_bstrunit(h.get()));
    EXPECT_EQ(bytesOf(unit.get()), std::string("abc\0", 4));

    EXPECT_TRUE(bstr_set_string(h.get(), ""));
    ASSERT_NE(bstr_get_string(h.get()), nullptr);
    unit.reset(bstr_detach_bstrunit(h.get()));
    EXPECT_EQ(bytesOf(unit.get()), std::string(1, '\0'));

    bstr_set_string(h.get(), "abc");
    EXPECT_TRUE(bstr_set_string(h.get(), nullptr));
    EXPECT_EQ(bstr_get_string(h.get()), nullptr);
}

TEST(BStrSetBstrunit, CopiesTheUnitAsItStands) {
    const std::string bytes("a\0b", 3); // embedded NUL, no terminator
    const UnitPtr unit = rawUnit(bytes);
    Bstr h;
    EXPECT_TRUE(bstr_set_bstrunit(h.get(), unit.get()));
    UnitPtr copy(bstr_detach_bstrunit(h.get()));
    EXPECT_NE(copy.get(), unit.get());
    EXPECT_EQ(bytesOf(copy.get()), bytes);

    EXPECT_TRUE(bstr_set_bstrunit(h.get(), rawUnit("").get()));
    EXPECT_NE(bstr_get_string(h.get()), nullptr); // an empty unit is still a string
}

TEST(BStrSetBstrunit, NegativeLengthThrowsAndLeavesNoString) {
    alignas(bstrunit) char block[sizeof(bstrunit)];
    const bstrunit* broken = new (block) bstrunit{-1};
    Bstr h("old");
    EXPECT_THROW(bstr_set_bstrunit(h.get(), broken), std::bad_array_new_length);
    EXPECT_EQ(bstr_get_string(h.get()), nullptr);
    EXPECT_THROW(bstrunit_alloc(-4), std::bad_array_new_length);
}

TEST(BStrSetBstr, CopiesTheSourceAndSelfAssignmentEmpties) {
    Bstr source("text"), destination("old"), none;
    EXPECT_TRUE(bstr_set_bstr(destination.get(), source.get()));
    EXPECT_STREQ(bstr_get_string(destination.get()), "text");
    EXPECT_NE(bstr_get_string(destination.get()), bstr_get_string(source.get()));

    EXPECT_TRUE(bstr_set_bstr(destination.get(), none.get()));
    EXPECT_EQ(bstr_get_string(destination.get()), nullptr);
    bstr_set_string(destination.get(), "again");
    EXPECT_TRUE(bstr_set_bstr(destination.get(), nullptr));
    EXPECT_EQ(bstr_get_string(destination.get()), nullptr);

    EXPECT_TRUE(bstr_set_bstr(source.get(), source.get()));
    EXPECT_EQ(bstr_get_string(source.get()), nullptr);
}

// Units move in and out without copies; ASan reports any leak or double free.
TEST(BStrOwnership, AttachAndDetachMoveTheUnitItself) {
    Bstr h("old");
    bstrunit* unit = rawUnit(std::string("new", 4)).release();
    bstr_attach_bstrunit(h.get(), unit);
    EXPECT_EQ(bstr_get_string(h.get()), bstrunit_data(unit));
    bstr_attach_bstrunit(h.get(), unit); // its own unit again: kept, not freed
    EXPECT_STREQ(bstr_get_string(h.get()), "new");

    UnitPtr detached(bstr_detach_bstrunit(h.get()));
    EXPECT_EQ(detached.get(), unit);
    EXPECT_EQ(bstr_detach_bstrunit(h.get()), nullptr);

    bstrunit* empty = bstrunit_alloc(0);
    bstr_attach_bstrunit(h.get(), empty);
    EXPECT_EQ(bstr_get_string(h.get()), bstrunit_data(empty)); // not null
    bstr_attach_bstrunit(h.get(), nullptr);                     // frees it
    EXPECT_EQ(bstr_get_string(h.get()), nullptr);
}

TEST(BStrEqual, HandleRules) {
    Bstr abc("abc"), abc2("abc"), abd("abd"), ab("ab"), upper("ABC"), none, none2, empty;
    bstr_attach_bstrunit(empty.get(), bstrunit_alloc(0));
    struct Case {
        const char* what;
        bstr_handle* a;
        bstr_handle* b;
        bool equal;
    } const cases[] = {
        {"both null", nullptr, nullptr, true},
        {"null and no unit", nullptr, none.get(), false},
        {"no unit and null", none.get(), nullptr, false},
        {"both without unit", none.get(), none2.get(), true},
        {"no unit and empty unit", none.get(), empty.get(), false},
        {"empty unit and no unit", empty.get(), none.get(), false},
        {"same text", abc.get(), abc2.get(), true},
        {"last byte differs", abc.get(), abd.get(), false},
        {"case differs", abc.get(), upper.get(), false},
        {"lengths differ", abc.get(), ab.get(), false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(bstr_equal_bstr(c.a, c.b), c.equal) << c.what;
}

TEST(BStrEqual, UnitRules) {
    Bstr ab("ab"), none;
    const UnitPtr withNul = rawUnit(std::string("ab", 3));
    const UnitPtr withoutNul = rawUnit("ab");
    const UnitPtr other = rawUnit(std::string("ax", 3));
    struct Case {
        const char* what;
        bstr_handle* handle;
        const bstrunit* unit;
        bool equal;
    } const cases[] = {
        {"null handle, null unit", nullptr, nullptr, true},
        {"null handle, a unit", nullptr, withNul.get(), false},
        {"no unit, null unit", none.get(), nullptr, true},
        {"no unit, a unit", none.get(), withNul.get(), false},
        {"a unit, null unit", ab.get(), nullptr, false},
        {"same bytes with the NUL", ab.get(), withNul.get(), true},
        {"stored NUL counts in the length", ab.get(), withoutNul.get(), false},
        {"bytes differ", ab.get(), other.get(), false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(bstr_equal_bstrunit(c.handle, c.unit), c.equal) << c.what;
}

} // namespace

namespace {

// A source inside the handle's own unit is read before that unit is freed.
TEST(BStrSetters, SourceInsideTheHandlesOwnUnitIsCopiedWhole) {
    Bstr h("a text longer than any allocator header");
    EXPECT_TRUE(bstr_set_string(h.get(), bstr_get_string(h.get())));
    EXPECT_STREQ(bstr_get_string(h.get()), "a text longer than any allocator header");
    bstrunit* own = bstr_detach_bstrunit(h.get());
    bstr_attach_bstrunit(h.get(), own);
    EXPECT_TRUE(bstr_set_bstrunit(h.get(), own));
    EXPECT_STREQ(bstr_get_string(h.get()), "a text longer than any allocator header");
}

} // namespace
