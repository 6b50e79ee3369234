// Variant records: initialise, clear, the setters and their flag, copies,
// the equality quirks.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

TEST(VariantInitAndClear, ZeroTheRecordButAStringKeepsItsPadding) {
    for (TVARTYPE tag : {TVARTYPE{kUnknownTag}, TVARTYPE{TVT_DOUBLE}, TVARTYPE{TVT_STRING}}) {
        tagTVARIANT v;
        std::memset(&v, 0xAB, sizeof v);
        v.vt = tag;
        if (tag == TVT_STRING)
            v.value.bstrVal = bstrunit_alloc(3); // freed by the clear, or the leak checker complains
        tag == kUnknownTag ? variant_init(&v) : variant_clear(&v);
        const std::string padding(6, tag == TVT_STRING ? '\xAB' : '\0');
        const std::string zeros(8, '\0');
        EXPECT_EQ(std::string(reinterpret_cast<const char*>(&v), sizeof v), zeros.substr(6) + padding + zeros) << tag;
    }
}

// Without the flag the value is converted to the tag v has after its clear,
// always empty: on purpose, a preset type never coerces the value. The tag
// each setter leaves is checked through the writer's slots.
TEST(VariantSetters, APresetTypeNeverCoercesTheValue) {
    Variant v;
    variant_set_double(v.get(), 9.5, true);
    variant_set_char(v.get(), -1, false);
    EXPECT_EQ(v->value.bits, 0xFFu) << describe(v.get());
    variant_set_float(v.get(), 1.5f, false);
    EXPECT_EQ(describe(v.get()), "float:1.5");
}

TEST(VariantStrings, SettersCopyTheTextAndCopiesAreDeep) {
    const std::string longText = "a text longer than any allocator header";
    Variant v, copy;
    variant_set_string(v.get(), longText.c_str(), false);
    // A source inside the variant's own unit is read before it is freed.
    variant_set_string(v.get(), bstrunit_data(v->value.bstrVal), true);
    variant_set_bstrunit(v.get(), v->value.bstrVal);
    EXPECT_EQ(bytesOf(v->value.bstrVal), longText + '\0');
    // Copies of a text are deep: the variant_text fuzz target frees both.
    variant_set_variant(copy.get(), v.get());
    EXPECT_EQ(describe(copy.get()), "string:'" + longText + "'");
    variant_set_variant(copy.get(), copy.get()); // empties, on purpose
    EXPECT_EQ(describe(copy.get()), "empty");
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
        Variant a, b;
        fillA(a.get()), fillB(b.get());
        EXPECT_EQ(variant_equal_variant(a.get(), b.get()), equal) << describe(a.get()) << " " << describe(b.get());
    }
}

} // namespace
