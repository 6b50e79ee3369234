// Variant records: initialise, clear, the setters and their flag, copies,
// the equality quirks and the size of each type.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "VariantTestUtil.h"

namespace {

using kvtest::describe;
using kvtest::Filler;
using kvtest::ScopedVariant;
using kvtest::setTo;
using kvtest::setToText;

// Fills all 16 bytes of v with 0xAB, then gives it `tag` (and `unit`). Done
// in place: a copy of the record need not carry its padding.
void scribble(tagTVARIANT& v, TVARTYPE tag, bstrunit* unit = nullptr) {
    std::memset(&v, 0xAB, sizeof v);
    v.vt = tag;
    if (unit != nullptr)
        v.value.bstrVal = unit;
}

std::string bytesOf(const tagTVARIANT& v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

TEST(VariantInitAndClear, ZeroTheRecordButAStringKeepsItsPadding) {
    tagTVARIANT v;
    scribble(v, TVT_INT);
    variant_init(&v);
    EXPECT_EQ(bytesOf(v), std::string(16, '\0'));

    scribble(v, TVT_DOUBLE);
    variant_clear(&v);
    EXPECT_EQ(bytesOf(v), std::string(16, '\0'));

    scribble(v, TVT_STRING, bstrunit_alloc(3)); // freed by the clear, or ASan reports a leak
    variant_clear(&v);
    EXPECT_EQ(bytesOf(v), std::string(2, '\0') + std::string(6, '\xAB') + std::string(8, '\0'));
}

struct SetterCase {
    Filler set;
    Filler setWithoutFlag;
    TVARTYPE tag;
    uint64_t bits; // the whole value union: the value at its width, zero above
};

template <class T, class Value>
SetterCase setter(void (*set)(tagTVARIANT*, T, bool), Value value, TVARTYPE tag, uint64_t bits) {
    return {setTo(set, value), [set, value](tagTVARIANT* v) { set(v, static_cast<T>(value), false); }, tag, bits};
}

TEST(VariantSetters, StoreAtTheirWidthAndIgnoreTheFlag) {
    const SetterCase cases[] = {
        setter(variant_set_char, -1, TVT_CHAR, 0xFF),
        setter(variant_set_byte, 200, TVT_BYTE, 0xC8),
        setter(variant_set_short, -2, TVT_SHORT, 0xFFFE),
        setter(variant_set_ushort, 65535, TVT_USHORT, 0xFFFF),
        setter(variant_set_int, -1, TVT_INT, 0xFFFFFFFF),
        setter(variant_set_uint, 0x89ABCDEF, TVT_UINT, 0x89ABCDEF),
        setter(variant_set_long, -1, TVT_LONG, ~0ull),
        setter(variant_set_ulong, 0x0123456789ABCDEF, TVT_ULONG, 0x0123456789ABCDEF),
        setter(variant_set_longlong, -2, TVT_LONGLONG, ~1ull),
        setter(variant_set_ulonglong, 7, TVT_ULONGLONG, 7),
        setter(variant_set_float, 1.5f, TVT_FLOAT, 0x3FC00000),
        setter(variant_set_double, 1.5, TVT_DOUBLE, 0x3FF8000000000000),
        setter(variant_set_bool, true, TVT_BOOL, 1),
    };
    for (const SetterCase& c : cases) {
        SCOPED_TRACE("tag " + std::to_string(c.tag));
        ScopedVariant kept, converted;
        setToText("replaced")(kept.get()); // the setter's clear frees it
        c.set(kept.get());
        EXPECT_EQ(kept->vt, c.tag);
        EXPECT_EQ(kept->value.bits, c.bits);
        // Without the flag the value is converted to the tag v has after its
        // clear, always empty: a preset double must not coerce it.
        setTo(variant_set_double, 9.5)(converted.get());
        c.setWithoutFlag(converted.get());
        EXPECT_EQ(bytesOf(*converted.get()), bytesOf(*kept.get()));
    }
}

TEST(VariantSetString, CopiesTheTextWithItsNulOrLeavesVAloneForNull) {
    for (bool keep : {true, false}) {
        ScopedVariant v;
        variant_set_string(v.get(), "", keep);
        ASSERT_EQ(v->vt, TVT_STRING);
        EXPECT_EQ(v->value.bstrVal->length, 1);
        variant_set_string(v.get(), "abc", keep);
        EXPECT_EQ(v->value.bstrVal->length, 4);

        const bstrunit* unit = v->value.bstrVal;
        variant_set_string(v.get(), nullptr, keep);
        EXPECT_EQ(v->value.bstrVal, unit);
        EXPECT_EQ(describe(*v.get()), "string:'abc'");
    }
}

TEST(VariantSetBstrunit, DeepCopiesTheUnitOrHoldsNone) {
    ScopedVariant v;
    bstrunit* unit = bstrunit_alloc(2);
    std::memcpy(bstrunit_data(unit), "a\0", 2);
    variant_set_bstrunit(v.get(), unit);
    ASSERT_EQ(v->vt, TVT_STRING);
    EXPECT_NE(v->value.bstrVal, unit);
    EXPECT_EQ(std::memcmp(v->value.bstrVal, unit, sizeof(bstrunit) + 2), 0);
    bstrunit_free(unit);

    variant_set_bstrunit(v.get(), nullptr);
    EXPECT_EQ(describe(*v.get()), "string:null");
}

TEST(VariantSetVariant, CopiesDeeplyAndEmptiesASelfCopy) {
    ScopedVariant source, copy;
    setTo(variant_set_ulong, 0x0123456789ABCDEF)(source.get());
    variant_set_variant(copy.get(), source.get());
    EXPECT_EQ(bytesOf(*copy.get()), bytesOf(*source.get()));

    for (const Filler& fill : {setToText("text"), Filler([](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); })}) {
        fill(source.get());
        variant_set_variant(copy.get(), source.get());
        const std::string expected = describe(*source.get());
        EXPECT_TRUE(copy->value.bstrVal == nullptr || copy->value.bstrVal != source->value.bstrVal);
        variant_clear(source.get()); // the copy must outlive the original
        EXPECT_EQ(describe(*copy.get()), expected);
    }

    for (const Filler& fill : {setTo(variant_set_int, 5), setToText("gone")}) {
        fill(copy.get());
        variant_set_variant(copy.get(), copy.get());
        EXPECT_EQ(describe(*copy.get()), "empty");
    }
}

TEST(VariantEqual, QuirksAndRules) {
    const Filler empty = [](tagTVARIANT*) {};
    const Filler noUnit = [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); };
    const Filler unknown = [](tagTVARIANT* v) { v->vt = kvtest::kUnknownTag; };
    // A char relabelled from a long keeps the long's upper bytes; only the
    // value byte counts.
    const Filler charFromLong = [](tagTVARIANT* v) {
        variant_set_long(v, 300, true);
        variant_change_type(v, TVT_CHAR);
    };
    struct Case {
        const char* what;
        Filler a, b;
        bool equal;
    } const cases[] = {
        {"both empty", empty, empty, true},
        {"empty and int 0", empty, setTo(variant_set_int, 0), false},
        {"int and long of 5", setTo(variant_set_int, 5), setTo(variant_set_long, 5), false},
        {"long 5", setTo(variant_set_long, 5), setTo(variant_set_long, 5), true},
        {"long long 5 is never equal", setTo(variant_set_longlong, 5), setTo(variant_set_longlong, 5), false},
        {"ulonglong 5 is never equal", setTo(variant_set_ulonglong, 5), setTo(variant_set_ulonglong, 5), false},
        {"short differs", setTo(variant_set_short, 1), setTo(variant_set_short, 2), false},
        {"uint high bit differs", setTo(variant_set_uint, 1), setTo(variant_set_uint, 0x80000001u), false},
        {"char value byte only", charFromLong, setTo(variant_set_char, 44), true},
        {"bool", setTo(variant_set_bool, true), setTo(variant_set_bool, true), true},
        {"float +0 and -0", setTo(variant_set_float, 0.0f), setTo(variant_set_float, -0.0f), true},
        {"float NaN", setTo(variant_set_float, std::nanf("")), setTo(variant_set_float, std::nanf("")), false},
        {"double NaN", setTo(variant_set_double, std::nan("")), setTo(variant_set_double, std::nan("")), false},
        {"double 0.5", setTo(variant_set_double, 0.5), setTo(variant_set_double, 0.5), true},
        {"same text", setToText("same"), setToText("same"), true},
        {"last four bytes not compared", setToText("abcd"), setToText("abce"), true},
        {"short texts equal by length", setToText("abc"), setToText("xyz"), true},
        {"first byte differs", setToText("xbcde"), setToText("abcde"), false},
        {"lengths differ", setToText("abc"), setToText("abcd"), false},
        {"no unit on both sides", noUnit, noUnit, true},
        {"no unit and a text", noUnit, setToText(""), false},
        {"a text and no unit", setToText(""), noUnit, false},
        {"unknown tags", unknown, unknown, false},
    };
    for (const Case& c : cases) {
        ScopedVariant a, b;
        c.a(a.get());
        c.b(b.get());
        EXPECT_EQ(variant_equal_variant(a.get(), b.get()), c.equal) << c.what;
    }
    ScopedVariant v;
    setTo(variant_set_longlong, 5)(v.get());
    EXPECT_FALSE(variant_equal_variant(v.get(), v.get())) << "not even with itself";
}

TEST(VariantDatatypeSize, BitsOfEveryTag) {
    const uint32_t expected[] = {0, 8, 8, 16, 16, 32, 32, 64, 64, 64, 64, 32, 64, 0, 8, 0};
    const TVARTYPE unknownIndex = 15;
    for (TVARTYPE i = 0; i <= unknownIndex; ++i) {
        const TVARTYPE tag = i == unknownIndex ? kvtest::kUnknownTag : i;
        uint32_t bits = 12345;
        EXPECT_EQ(variant_get_datatype_size(tag, &bits), expected[i] != 0) << "tag " << tag;
        EXPECT_EQ(bits, expected[i]) << "tag " << tag;
    }
}

} // namespace

namespace {

// A source inside the variant's own unit is read before that unit is freed.
TEST(VariantSetters, SourceInsideTheVariantsOwnUnitIsCopiedWhole) {
    const std::string text = "a text longer than any allocator header";
    for (bool keep : {true, false}) {
        ScopedVariant v;
        variant_set_string(v.get(), text.c_str(), true);
        variant_set_string(v.get(), bstrunit_data(v->value.bstrVal), keep);
        EXPECT_EQ(describe(*v.get()), "string:'" + text + "'");
        variant_set_bstrunit(v.get(), v->value.bstrVal);
        EXPECT_EQ(describe(*v.get()), "string:'" + text + "'");
    }
}

} // namespace
