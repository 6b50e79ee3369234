// BSTR handles (null handles, copies as they stand, self-assignment, ownership
// of attached and detached units, equality) and variant records (initialise,
// clear, the setters and their flag, copies, the equality quirks).
#include <gtest/gtest.h>

#include <cmath>
#include <new>
#include <tuple>

#include "AutomationTestSupport.h"
#include "korvane/cpp/values.hpp"

namespace {

using namespace autotest;

TEST(BStrHandles, SettersCopyTheSourceAttachMovesTheUnitAndEqualityComparesLengthAndBytes) {
    // The copies' bytes (the NUL counted, a unit copied by its length) are
    // checked with the variant's setters and the safe_array fuzz target. The
    // handles are the C++ layer's owners; one made from a text holds it with a
    // final NUL, as bstr_set_string stores it.
    const korvane::BStr held, source("text"), none;
    const auto handle = [](const korvane::BStr& owner) { return owner.native_handle(); };
    bstr_handle* const h = handle(held);
    // A null handle reports whether there was nothing to set (the null-source
    // results are in BoolResultTest).
    EXPECT_TRUE(bstr_set_bstr(nullptr, handle(none))) << "a source holding no string counts as null";
    EXPECT_FALSE(bstr_set_bstr(nullptr, handle(source)));
    EXPECT_TRUE(bstr_set_bstr(h, handle(source)));
    EXPECT_STREQ(bstr_get_string(h), "text");
    // A source inside the handle's own unit is read before that unit is freed.
    const char* const longText = "a text longer than any allocator header";
    bstr_set_string(h, longText);
    EXPECT_TRUE(bstr_set_string(h, bstr_get_string(h)));
    EXPECT_STREQ(bstr_get_string(h), longText);
    const std::function<bool()> nullSources[] = {
        [&] { return bstr_set_string(h, nullptr); }, [&] { return bstr_set_bstrunit(h, nullptr); },
        [&] { return bstr_set_bstr(h, handle(none)); },
        [&] { return bstr_set_bstr(h, h); }}; // self-assignment empties, on purpose
    for (const auto& setNull : nullSources) {
        bstr_set_string(h, "old"); // freed by the setter, or the leak checker complains
        EXPECT_TRUE(setNull());
        EXPECT_EQ(bstr_get_string(h), nullptr);
    }
    alignas(bstrunit) char block[sizeof(bstrunit)];
    EXPECT_THROW(bstr_set_bstrunit(h, new (block) bstrunit{-1}), std::bad_array_new_length);
    // Units move in and out without copies; the leak checker sees a lost one.
    bstr_set_string(h, "old");
    bstrunit* unit = rawUnit(std::string("new", 4)).release();
    bstr_attach_bstrunit(nullptr, unit); // takes nothing
    bstr_attach_bstrunit(h, unit);
    bstr_attach_bstrunit(h, unit); // its own unit again: kept, not freed
    EXPECT_EQ(bstr_get_string(h), bstrunit_data(unit));
    EXPECT_EQ(Unit(bstr_detach_bstrunit(h), &bstrunit_free).get(), unit) << "handed back as it was";
    bstr_attach_bstrunit(h, bstrunit_alloc(0));
    bstr_attach_bstrunit(h, nullptr); // frees it
    EXPECT_EQ(bstr_get_string(h), nullptr);
    // Equality: the null and empty states (h holds no string now), then length and bytes.
    const korvane::BStr abc("abc"), abc2("abc"), abd("abd"), ab("ab"), empty;
    bstr_attach_bstrunit(handle(empty), bstrunit_alloc(0));
    const Unit withNul = rawUnit(std::string("ab", 3)), noNul = rawUnit("ab");
    const std::tuple<bstr_handle*, bstr_handle*, bool> handles[] = {
        {nullptr, handle(none), false}, {handle(none), nullptr, false}, {handle(none), h, true},
        {handle(none), handle(empty), false}, {handle(empty), handle(none), false}, {handle(abc), handle(abc2), true},
        {handle(abc), handle(abd), false}, {handle(abc), handle(ab), false}};
    for (const auto& r : handles)
        EXPECT_EQ(bstr_equal_bstr(std::get<0>(r), std::get<1>(r)), std::get<2>(r)) << "row " << &r - handles;
    const std::tuple<bstr_handle*, const bstrunit*, bool> units[] = {
        {nullptr, withNul.get(), false}, {handle(none), nullptr, true}, {handle(none), withNul.get(), false},
        {handle(ab), nullptr, false}, {handle(ab), withNul.get(), true}, {handle(ab), noNul.get(), false}};
    for (const auto& r : units)
        EXPECT_EQ(bstr_equal_bstrunit(std::get<0>(r), std::get<1>(r)), std::get<2>(r)) << "row " << &r - units;
}

TEST(VariantInitAndClear, ZeroTheRecordButAStringKeepsItsPadding) {
    for (TVARTYPE tag : {TVARTYPE{kUnknownTag}, TVARTYPE{TVT_DOUBLE}, TVARTYPE{TVT_STRING}}) {
        tagTVARIANT v;
        std::memset(&v, 0xAB, sizeof v);
        v.vt = tag;
        if (tag == TVT_STRING)
            v.value.bstrVal = bstrunit_alloc(3); // freed by the clear, or the leak checker complains
        tag == kUnknownTag ? variant_init(&v) : variant_clear(&v);
        const std::string padding(6, tag == TVT_STRING ? '\xAB' : '\0'), zeros(8, '\0');
        EXPECT_EQ(std::string(reinterpret_cast<char*>(&v), sizeof v), zeros.substr(6) + padding + zeros) << tag;
    }
}

// Without the flag the value is converted to the tag v has after its clear,
// always empty: on purpose, a preset type never coerces the value. The tag
// each setter leaves is checked through the writer's slots.
TEST(VariantSetters, APresetTypeNeverCoercesTheValueAndTextsAreCopied) {
    const std::string longText = "a text longer than any allocator header";
    Variant v(setTo(variant_set_double, 9.5));
    variant_set_char(v.get(), -1, false);
    EXPECT_EQ(v.record.value.bits, 0xFFu) << describe(v.get());
    variant_set_string(v.get(), longText.c_str(), false);
    // A source inside the variant's own unit is read before it is freed.
    variant_set_string(v.get(), bstrunit_data(v.record.value.bstrVal), true);
    variant_set_bstrunit(v.get(), v.record.value.bstrVal);
    EXPECT_EQ(std::string(bstrunit_data(v.record.value.bstrVal), v.record.value.bstrVal->length), longText + '\0');
    // Copies of a text are deep: the variant_text fuzz target copies texts,
    // reads the copies back and frees both.
    variant_set_variant(v.get(), v.get()); // empties, on purpose
    EXPECT_EQ(describe(v.get()), "empty");
}

TEST(VariantEqual, TagAndValueWithTheLongLongAndStringQuirks) {
    const Filler empty = [](tagTVARIANT*) {}, noUnit = [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); };
    const Filler long5 = setTo(variant_set_long, 5), ll5 = setTo(variant_set_longlong, 5);
    const Filler ull5 = setTo(variant_set_ulonglong, 5), nan = setTo(variant_set_double, NAN);
    const std::tuple<Filler, Filler, bool> cases[] = {
        {empty, empty, true}, {empty, setTo(variant_set_int, 0), false}, {setTo(variant_set_int, 5), long5, false},
        {long5, long5, true}, {ll5, ll5, false}, {ull5, ull5, false}, {nan, nan, false}, // never equal, on purpose
        {raw(TVT_CHAR, 0x12C), setTo(variant_set_char, 44), true}, // only the value's own width counts
        {setTo(variant_set_float, 0.0f), setTo(variant_set_float, -0.0f), true},
        {text("abc"), text("xyz"), true}, {text("xbcde"), text("abcde"), false}, // the last four bytes are skipped
        {text("abc"), text("abcd"), false}, {noUnit, noUnit, true}, {noUnit, text(""), false},
        {raw(kUnknownTag, 1), raw(kUnknownTag, 1), false},
    };
    for (const auto& [fillA, fillB, equal] : cases) {
        Variant a(fillA), b(fillB);
        EXPECT_EQ(variant_equal_variant(a.get(), b.get()), equal) << describe(a.get()) << " " << describe(b.get());
    }
}

} // namespace
