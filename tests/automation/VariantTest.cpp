// Variant records: initialise, clear, the setters and their flag, copies,
// the equality quirks and the size of each type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

#include "VariantTestUtil.h"

namespace {

using kvtest::describe;
using kvtest::ScopedVariant;

const uint8_t* bytesOf(const tagTVARIANT* v) {
    return reinterpret_cast<const uint8_t*>(v);
}

TEST(VariantInit, ZeroesTheWholeRecord) {
    tagTVARIANT v;
    std::memset(&v, 0xAB, sizeof v);
    variant_init(&v);
    for (size_t i = 0; i < sizeof v; ++i)
        EXPECT_EQ(bytesOf(&v)[i], 0) << "byte " << i;
}

TEST(VariantClear, StringFreesItsUnitAndTouchesOnlyTagAndValue) {
    tagTVARIANT v;
    std::memset(&v, 0xAB, sizeof v);
    v.vt = TVT_STRING;
    v.value.bstrVal = bstrunit_alloc(3); // freed by the clear, or ASan reports a leak
    variant_clear(&v);
    EXPECT_EQ(v.vt, TVT_EMPTY);
    EXPECT_EQ(v.value.bits, 0u);
    for (size_t i = sizeof v.vt; i < offsetof(tagTVARIANT, value); ++i)
        EXPECT_EQ(bytesOf(&v)[i], 0xAB) << "padding byte " << i;
}

TEST(VariantClear, OtherTagsZeroTheWholeRecord) {
    tagTVARIANT v;
    std::memset(&v, 0xAB, sizeof v);
    v.vt = TVT_INT;
    variant_clear(&v);
    for (size_t i = 0; i < sizeof v; ++i)
        EXPECT_EQ(bytesOf(&v)[i], 0) << "byte " << i;
}

struct SetterCase {
    const char* name;
    std::function<void(tagTVARIANT*, bool)> set;
    TVARTYPE tag;
    uint64_t bits; // the whole value union afterwards: the value at its width, zero above
};

const SetterCase kSetters[] = {
    {"char", [](tagTVARIANT* v, bool k) { variant_set_char(v, static_cast<char>(-1), k); }, TVT_CHAR, 0xFF},
    {"byte", [](tagTVARIANT* v, bool k) { variant_set_byte(v, 200, k); }, TVT_BYTE, 0xC8},
    {"short", [](tagTVARIANT* v, bool k) { variant_set_short(v, -2, k); }, TVT_SHORT, 0xFFFE},
    {"ushort", [](tagTVARIANT* v, bool k) { variant_set_ushort(v, 65535, k); }, TVT_USHORT, 0xFFFF},
    {"int", [](tagTVARIANT* v, bool k) { variant_set_int(v, -1, k); }, TVT_INT, 0xFFFFFFFF},
    {"uint", [](tagTVARIANT* v, bool k) { variant_set_uint(v, 0x89ABCDEF, k); }, TVT_UINT, 0x89ABCDEF},
    {"long", [](tagTVARIANT* v, bool k) { variant_set_long(v, -1, k); }, TVT_LONG, ~0ull},
    {"ulong", [](tagTVARIANT* v, bool k) { variant_set_ulong(v, 0x0123456789ABCDEFul, k); }, TVT_ULONG,
     0x0123456789ABCDEFull},
    {"longlong", [](tagTVARIANT* v, bool k) { variant_set_longlong(v, -2, k); }, TVT_LONGLONG, ~1ull},
    {"ulonglong", [](tagTVARIANT* v, bool k) { variant_set_ulonglong(v, 7, k); }, TVT_ULONGLONG, 7},
    {"float", [](tagTVARIANT* v, bool k) { variant_set_float(v, 1.5f, k); }, TVT_FLOAT, 0x3FC00000},
    {"double", [](tagTVARIANT* v, bool k) { variant_set_double(v, 1.5, k); }, TVT_DOUBLE, 0x3FF8000000000000},
    {"bool", [](tagTVARIANT* v, bool k) { variant_set_bool(v, true, k); }, TVT_BOOL, 1},
};

TEST(VariantSetters, StoreTheValueAtItsWidthWithItsOwnTag) {
    for (const SetterCase& c : kSetters) {
        ScopedVariant v;
        variant_set_string(v.get(), "replaced", true); // freed by the setter's clear
        c.set(v.get(), true);
        EXPECT_EQ(v->vt, c.tag) << c.name;
        EXPECT_EQ(v->value.bits, c.bits) << c.name;
    }
}

// Without the flag a setter converts to the tag v has after its clear, which
// is always empty: the record comes out exactly as with the flag, whatever v
// held before.
TEST(VariantSetters, FlagFalseNeverCoercesIntoThePresetType) {
    for (const SetterCase& c : kSetters) {
        ScopedVariant kept, converted;
        c.set(kept.get(), true);
        variant_set_double(converted.get(), 9.5, true);
        c.set(converted.get(), false);
        EXPECT_EQ(std::memcmp(kept.get(), converted.get(), sizeof(tagTVARIANT)), 0) << c.name;
    }
}

TEST(VariantSetString, CopiesTheTextWithItsNul) {
    for (bool keep : {true, false}) {
        ScopedVariant v;
        variant_set_int(v.get(), 3, true);
        variant_set_string(v.get(), "abc", keep);
        ASSERT_EQ(v->vt, TVT_STRING);
        EXPECT_EQ(v->value.bstrVal->length, 4);
        EXPECT_EQ(describe(*v.get()), "string:'abc'");

        variant_set_string(v.get(), "", keep);
        EXPECT_EQ(v->value.bstrVal->length, 1);
        EXPECT_EQ(bstrunit_data(v->value.bstrVal)[0], '\0');
    }
}

TEST(VariantSetString, NullTextLeavesTheVariantAsItWas) {
    ScopedVariant v;
    variant_set_string(v.get(), "kept", true);
    const bstrunit* unit = v->value.bstrVal;
    variant_set_string(v.get(), nullptr, true);
    variant_set_string(v.get(), nullptr, false);
    EXPECT_EQ(v->value.bstrVal, unit);
    EXPECT_EQ(describe(*v.get()), "string:'kept'");
}

TEST(VariantSetBstrunit, DeepCopiesOrHoldsNoUnit) {
    ScopedVariant v;
    bstrunit* unit = bstrunit_alloc(2);
    std::memcpy(bstrunit_data(unit), "a\0", 2);
    variant_set_bstrunit(v.get(), unit);
    ASSERT_EQ(v->vt, TVT_STRING);
    EXPECT_NE(v->value.bstrVal, unit);
    EXPECT_EQ(std::memcmp(v->value.bstrVal, unit, sizeof(bstrunit) + 2), 0);
    bstrunit_free(unit);

    variant_set_bstrunit(v.get(), nullptr);
    EXPECT_EQ(v->vt, TVT_STRING);
    EXPECT_EQ(v->value.bstrVal, nullptr);
    variant_clear(v.get()); // nothing to free
    EXPECT_EQ(v->vt, TVT_EMPTY);
}

TEST(VariantSetVariant, CopiesScalarsWholeAndStringsDeeply) {
    ScopedVariant source, copy;
    variant_set_ulong(source.get(), 0x0123456789ABCDEFul, true);
    variant_set_variant(copy.get(), source.get());
    EXPECT_EQ(std::memcmp(copy.get(), source.get(), sizeof(tagTVARIANT)), 0);

    variant_set_string(source.get(), "text", true);
    variant_set_variant(copy.get(), source.get());
    EXPECT_NE(copy->value.bstrVal, source->value.bstrVal);
    variant_clear(source.get()); // the copy must survive the original
    EXPECT_EQ(describe(*copy.get()), "string:'text'");

    variant_set_bstrunit(source.get(), nullptr);
    variant_set_variant(copy.get(), source.get());
    EXPECT_EQ(describe(*copy.get()), "string:null");
}

TEST(VariantSetVariant, CopyOntoItselfLeavesItEmpty) {
    ScopedVariant v;
    variant_set_int(v.get(), 5, true);
    variant_set_variant(v.get(), v.get());
    EXPECT_EQ(describe(*v.get()), "empty");
    variant_set_string(v.get(), "gone", true);
    variant_set_variant(v.get(), v.get());
    EXPECT_EQ(describe(*v.get()), "empty");
}

TEST(VariantEqual, QuirksAndRules) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    using Set = std::function<void(tagTVARIANT*)>;
    auto str = [](const char* s) { return Set([s](tagTVARIANT* v) { variant_set_string(v, s, true); }); };
    // A char relabelled from a long keeps the long's upper bytes; only the
    // value byte is compared.
    const Set relabelledChar = [](tagTVARIANT* v) {
        variant_set_long(v, 300, true);
        variant_change_type(v, TVT_CHAR);
    };
    struct Case {
        const char* what;
        Set a, b;
        bool equal;
    } const cases[] = {
        {"both empty", [](tagTVARIANT*) {}, [](tagTVARIANT*) {}, true},
        {"empty and int 0", [](tagTVARIANT*) {}, [](tagTVARIANT* v) { variant_set_int(v, 0, true); }, false},
        {"int and long of 5", [](tagTVARIANT* v) { variant_set_int(v, 5, true); },
         [](tagTVARIANT* v) { variant_set_long(v, 5, true); }, false},
        {"long 5", [](tagTVARIANT* v) { variant_set_long(v, 5, true); },
         [](tagTVARIANT* v) { variant_set_long(v, 5, true); }, true},
        {"long long 5 (never equal)", [](tagTVARIANT* v) { variant_set_longlong(v, 5, true); },
         [](tagTVARIANT* v) { variant_set_longlong(v, 5, true); }, false},
        {"unsigned long long 5 (never equal)", [](tagTVARIANT* v) { variant_set_ulonglong(v, 5, true); },
         [](tagTVARIANT* v) { variant_set_ulonglong(v, 5, true); }, false},
        {"short differs", [](tagTVARIANT* v) { variant_set_short(v, 1, true); },
         [](tagTVARIANT* v) { variant_set_short(v, 2, true); }, false},
        {"char value byte only", relabelledChar, [](tagTVARIANT* v) { variant_set_char(v, 44, true); }, true},
        {"bool true", [](tagTVARIANT* v) { variant_set_bool(v, true, true); },
         [](tagTVARIANT* v) { variant_set_bool(v, true, true); }, true},
        {"uint differs", [](tagTVARIANT* v) { variant_set_uint(v, 1, true); },
         [](tagTVARIANT* v) { variant_set_uint(v, 0x80000001u, true); }, false},
        {"float +0 and -0", [](tagTVARIANT* v) { variant_set_float(v, 0.0f, true); },
         [](tagTVARIANT* v) { variant_set_float(v, -0.0f, true); }, true},
        {"float NaN", [nan](tagTVARIANT* v) { variant_set_float(v, nan, true); },
         [nan](tagTVARIANT* v) { variant_set_float(v, nan, true); }, false},
        {"double NaN", [](tagTVARIANT* v) { variant_set_double(v, std::nan(""), true); },
         [](tagTVARIANT* v) { variant_set_double(v, std::nan(""), true); }, false},
        {"double 0.5", [](tagTVARIANT* v) { variant_set_double(v, 0.5, true); },
         [](tagTVARIANT* v) { variant_set_double(v, 0.5, true); }, true},
        {"same text", str("same"), str("same"), true},
        {"last four bytes are not compared", str("abcd"), str("abce"), true},
        {"short texts equal by length", str("abc"), str("xyz"), true},
        {"first byte differs", str("xbcde"), str("abcde"), false},
        {"lengths differ", str("abc"), str("abcd"), false},
        {"no unit on both sides", [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); },
         [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); }, true},
        {"no unit and a text", [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); }, str(""), false},
        {"a text and no unit", str(""), [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); }, false},
        {"unknown tags", [](tagTVARIANT* v) { v->vt = kvtest::kUnknownTag; },
         [](tagTVARIANT* v) { v->vt = kvtest::kUnknownTag; }, false},
    };
    for (const Case& c : cases) {
        ScopedVariant a, b;
        c.a(a.get());
        c.b(b.get());
        EXPECT_EQ(variant_equal_variant(a.get(), b.get()), c.equal) << c.what;
    }
}

TEST(VariantEqual, LongLongIsUnequalEvenToItself) {
    ScopedVariant v;
    variant_set_longlong(v.get(), 5, true);
    EXPECT_FALSE(variant_equal_variant(v.get(), v.get()));
    variant_set_long(v.get(), 5, true);
    EXPECT_TRUE(variant_equal_variant(v.get(), v.get()));
}

TEST(VariantDatatypeSize, BitsOfEveryTag) {
    const uint32_t expected[] = {0, 8, 8, 16, 16, 32, 32, 64, 64, 64, 64, 32, 64, 0, 8};
    for (TVARTYPE tag = 0; tag <= TVT_BOOL; ++tag) {
        uint32_t bits = 12345;
        EXPECT_EQ(variant_get_datatype_size(tag, &bits), expected[tag] != 0) << "tag " << tag;
        EXPECT_EQ(bits, expected[tag]) << "tag " << tag;
    }
    uint32_t bits = 12345;
    EXPECT_FALSE(variant_get_datatype_size(kvtest::kUnknownTag, &bits));
    EXPECT_EQ(bits, 0u);
}

} // namespace
