// Variant records: initialise, clear, the setters and their flag, copies,
// the equality quirks and the size of each type.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

std::string recordBytes(const tagTVARIANT& v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}

TEST(VariantInitAndClear, ZeroTheRecordButAStringKeepsItsPadding) {
    for (TVARTYPE tag : {TVARTYPE{kUnknownTag}, TVARTYPE{TVT_DOUBLE}, TVARTYPE{TVT_STRING}}) {
        tagTVARIANT v;
        std::memset(&v, 0xAB, sizeof v);
        v.vt = tag;
        if (tag == TVT_STRING)
            v.value.bstrVal = bstrunit_alloc(3); // freed by the clear, or the leak checker complains
        tag == kUnknownTag ? variant_init(&v) : variant_clear(&v);
        const std::string padding(6, tag == TVT_STRING ? '\xAB' : '\0');
        EXPECT_EQ(recordBytes(v), std::string(2, '\0') + padding + std::string(8, '\0')) << tag;
    }
}

template <class T>
std::function<void(tagTVARIANT*, bool)> with(void (*set)(tagTVARIANT*, T, bool), T value) {
    return [set, value](tagTVARIANT* v, bool keep) { set(v, value, keep); };
}

// Without the flag the value is converted to the tag v has after its clear,
// always empty: on purpose, a preset type never coerces the value.
TEST(VariantSetters, StoreAtTheirWidthWhateverTheFlagOrThePresetType) {
    const std::tuple<std::function<void(tagTVARIANT*, bool)>, TVARTYPE, uint64_t> cases[] = {
        {with(variant_set_char, char(-1)), TVT_CHAR, 0xFF}, {with(variant_set_short, short(-2)), TVT_SHORT, 0xFFFE},
        {with<unsigned char>(variant_set_byte, 200), TVT_BYTE, 0xC8}, {with(variant_set_bool, true), TVT_BOOL, 1},
        {with<unsigned short>(variant_set_ushort, 65535), TVT_USHORT, 0xFFFF},
        {with(variant_set_int, -1), TVT_INT, ~0u},
        {with(variant_set_uint, 0x89ABCDEFu), TVT_UINT, 0x89ABCDEF}, {with(variant_set_long, -1L), TVT_LONG, ~0ull},
        {with(variant_set_ulong, 1UL << 63), TVT_ULONG, 1ull << 63},
        {with(variant_set_float, 1.5f), TVT_FLOAT, 0x3FC00000},
        {with(variant_set_longlong, -2LL), TVT_LONGLONG, ~1ull}, {with(variant_set_ulonglong, 7ULL), TVT_ULONGLONG, 7},
        {with(variant_set_double, 1.5), TVT_DOUBLE, 0x3FF8000000000000},
    };
    for (const auto& [set, tag, bits] : cases) {
        for (const Filler& preset : {text("freed by the setter"), setTo(variant_set_double, 9.5)}) {
            for (bool keep : {true, false}) {
                Variant v;
                preset(v.get());
                set(v.get(), keep);
                EXPECT_EQ(v->vt, tag) << describe(v.get()) << " keep " << keep;
                EXPECT_EQ(v->value.bits, bits) << describe(v.get()) << " keep " << keep;
            }
        }
    }
}

TEST(VariantStrings, SettersCopyTheTextAndCopiesAreDeep) {
    const std::string longText = "a text longer than any allocator header";
    for (bool keep : {true, false}) {
        Variant v;
        variant_set_string(v.get(), "", keep);
        EXPECT_EQ(bytesOf(v->value.bstrVal), std::string(1, '\0'));
        variant_set_string(v.get(), longText.c_str(), keep);
        const bstrunit* unit = v->value.bstrVal;
        variant_set_string(v.get(), nullptr, keep);
        ASSERT_EQ(v->value.bstrVal, unit) << "a null text changes nothing at all";
        // A source inside the variant's own unit is read before it is freed.
        variant_set_string(v.get(), bstrunit_data(v->value.bstrVal), keep);
        variant_set_bstrunit(v.get(), v->value.bstrVal);
        EXPECT_EQ(describe(v.get()), "string:'" + longText + "'");
    }
    Variant source, copy;
    const Unit unit = rawUnit(std::string("a\0", 2));
    variant_set_bstrunit(copy.get(), unit.get());
    EXPECT_NE(copy->value.bstrVal, unit.get());
    EXPECT_EQ(bytesOf(copy->value.bstrVal), bytesOf(unit.get()));
    const Filler noUnit = [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); };
    for (const Filler& fill : {setTo(variant_set_ulong, 0x0123456789ABCDEF), text("text"), noUnit}) {
        fill(source.get());
        variant_set_variant(copy.get(), source.get());
        const std::string expected = describe(source.get());
        variant_clear(source.get()); // the copy must not share the original's unit
        EXPECT_EQ(describe(copy.get()), expected);
    }
    for (const Filler& fill : {setTo(variant_set_int, 5), text("gone")}) {
        fill(copy.get());
        variant_set_variant(copy.get(), copy.get()); // empties, on purpose
        EXPECT_EQ(describe(copy.get()), "empty");
    }
}

TEST(VariantEqual, TagAndValueWithTheLongLongAndStringQuirks) {
    const Filler empty = [](tagTVARIANT*) {}, noUnit = [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); };
    const Filler int0 = setTo(variant_set_int, 0), long5 = setTo(variant_set_long, 5);
    const Filler ll5 = setTo(variant_set_longlong, 5), ull5 = setTo(variant_set_ulonglong, 5);
    const Filler floatNan = setTo(variant_set_float, NAN), doubleNan = setTo(variant_set_double, NAN);
    const std::tuple<Filler, Filler, bool> cases[] = {
        {empty, empty, true}, {empty, int0, false}, {setTo(variant_set_int, 5), long5, false}, {long5, long5, true},
        {ll5, ll5, false}, {ull5, ull5, false}, // never equal, on purpose
        {setTo(variant_set_uint, 1), setTo(variant_set_uint, 0x80000001u), false},
        {raw(TVT_CHAR, 0x12C), setTo(variant_set_char, 44), true}, // only the value's own width counts
        {raw(TVT_SHORT, 0x10001), setTo(variant_set_short, 1), true},
        {setTo(variant_set_float, 0.0f), setTo(variant_set_float, -0.0f), true}, {floatNan, floatNan, false},
        {doubleNan, doubleNan, false}, {setTo(variant_set_double, 0.5), setTo(variant_set_double, 0.5), true},
        {text("abcd"), text("abce"), true}, {text("abc"), text("xyz"), true}, // the last four bytes are skipped
        {text("xbcde"), text("abcde"), false}, {text("abc"), text("abcd"), false},
        {noUnit, noUnit, true}, {noUnit, text(""), false}, {text(""), noUnit, false},
        {raw(kUnknownTag, 1), raw(kUnknownTag, 1), false},
    };
    for (const auto& [fillA, fillB, equal] : cases) {
        Variant a, b;
        fillA(a.get()), fillB(b.get());
        EXPECT_EQ(variant_equal_variant(a.get(), b.get()), equal) << describe(a.get()) << " " << describe(b.get());
    }
    Variant v;
    ll5(v.get());
    EXPECT_FALSE(variant_equal_variant(v.get(), v.get())) << "not even with itself";
}

TEST(VariantDatatypeSize, BitsOfEveryTag) {
    const uint32_t expectedBits[] = {0, 8, 8, 16, 16, 32, 32, 64, 64, 64, 64, 32, 64, 0, 8, 0};
    for (TVARTYPE tag = 0; tag <= 15; ++tag) {
        uint32_t bits = 12345;
        EXPECT_EQ(variant_get_datatype_size(tag == 15 ? kUnknownTag : tag, &bits), expectedBits[tag] != 0) << tag;
        EXPECT_EQ(bits, expectedBits[tag]) << tag;
    }
}

} // namespace
