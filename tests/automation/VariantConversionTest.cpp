// variant_change_type: every target for each kind of source, then the edges
// of parsing, float truncation and long texts; bit-width narrowing and the
// type-name table. Integer text read back as the same integer, for any
// integer, is the variant_text fuzz target's.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <sstream>
#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

// One row per kind of source (the scalar types themselves are checked through
// the reader's slots; long long refusing bool, by the fuzz target): what each
// target (tags 0 to 14, then an unknown tag) makes of it, "no" for a refused
// pair. Narrow sources carry 0x5A bytes above their width, which widening
// must ignore; the values show sign extension, relabelling of the low bytes,
// truncation and saturation.
const std::pair<Filler, const char*> kMatrix[] = {
    {raw(TVT_EMPTY, 0), "empty 0 0 0 0 0 0 0 0 0 0 0 0 null 0 0x0"},
    {raw(TVT_CHAR, 0x5A5A5A5A5A5A5AC8), // -56, read as the unsigned byte 200 on purpose
     "no 200 200 200 200 200 200 200 200 200 200 200 200 '200' 1 no"},
    {raw(TVT_SHORT, 0x5A5A5A5A5A5AFFFE),
     "no 254 254 -2 65534 -2 4294967294 -2 18446744073709551614 -2 18446744073709551614 -2 -2 '-2' 1 no"},
    {setTo(variant_set_long, -4886718345l), "no 119 119 -26505 39031 -591751049 3703216247 -4886718345 "
                                            "18446744068822833271 -4886718345 18446744068822833271 "
                                            "-4.88671846e+09 -4886718345 '-4886718345' 1 no"},
    {raw(TVT_FLOAT, 0x5A5A5A5AC0300000), "no 0 0 -2 0 -2 0 -2 0 -2 0 -2.75 -2.75 '-2.750000' 1 no"},
    {setTo(variant_set_double, 70000.75),
     "no 112 112 4464 4464 70000 70000 70000 70000 70000 70000 70000.75 70000.75 '70000.750000' 1 no"},
    {text("-0x12"), "no 238 238 -18 65518 -18 4294967278 -18 18446744073709551598 -18 18446744073709551598 -18 -18 "
                    "'-0x12' 1 no"},
    {raw(TVT_BOOL, 0x5A5A5A5A5A5A5A01), "no 1 1 1 1 1 1 1 1 1 1 1 1 '1' 1 no"},
};

// A refused pair, or a conversion to the tag the variant already has, must
// leave all of the record as it was (a string keeps its very unit).
TEST(VariantConversionMatrix, EveryTargetGivesItsValueOrIsRefusedUntouched) {
    for (const auto& [make, row] : kMatrix) {
        std::istringstream targets(row);
        std::string expected;
        for (TVARTYPE target = 0; targets >> expected; target = target == TVT_BOOL ? kUnknownTag : target + 1) {
            Variant v(make);
            const tagTVARIANT before = *v.get();
            SCOPED_TRACE(describe(&before) + " to tag " + std::to_string(target));
            const bool converted = variant_change_type(v.get(), target);
            EXPECT_EQ(converted, expected != "no");
            const bool untouched = std::memcmp(&before, v.get(), sizeof before) == 0;
            EXPECT_TRUE(untouched || (converted && before.vt != target)) << "record changed";
            const std::string result = describe(v.get());
            EXPECT_EQ(v.record.vt != target ? "no" : result.substr(result.find(':') + 1), expected);
        }
    }
}

TEST(VariantConversionEdges, ParsingTruncationAndUntypedVariants) {
    const Filler noUnit = [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); };
    const Filler unterminated = [](tagTVARIANT* v) { variant_set_bstrunit(v, rawUnit("12").get()); };
    const auto number = [](double value) { return setTo(variant_set_double, value); };
    const Filler big = text("99999999999999999999");
    const std::tuple<Filler, TVARTYPE, std::string> cases[] = {
        // Base 0 parsers at the target's width; text to bool through strtol, on purpose.
        {text("017"), TVT_INT, "int:15"}, {text(" 42abc"), TVT_INT, "int:42"}, {text("true"), TVT_BOOL, "bool:0"},
        {text("1e3"), TVT_DOUBLE, "double:1000"}, {noUnit, TVT_INT, "int:0"}, {big, TVT_INT, "int:-1"},
        {big, TVT_LONG, "long:9223372036854775807"}, {big, TVT_ULONGLONG, "ull:18446744073709551615"},
        {unterminated, TVT_UINT, "uint:12"}, // never read past the unit
        // Saturating, NaN to 0; narrow targets keep the low bytes of the 32-bit result.
        {number(1e20), TVT_INT, "int:2147483647"}, {number(-1e20), TVT_LONGLONG, "ll:-9223372036854775808"},
        {number(1e10), TVT_USHORT, "ushort:65535"}, {number(std::nan("")), TVT_INT, "int:0"},
        {number(NAN), TVT_BOOL, "bool:1"}, {setTo(variant_set_float, 0.001f), TVT_BOOL, "bool:1"},
        {number(1e300), TVT_FLOAT, "float:inf"},
        // "%f" (as to_string writes it) of the largest double, far longer than a small scratch buffer.
        {number(-DBL_MAX), TVT_STRING, "string:'" + std::to_string(-DBL_MAX) + "'"},
        // Integer text is printf's for the tag's own type, the longest texts included (the
        // reader's slots catch a wrong signedness of the other types).
        {raw(TVT_BYTE, ~0ull), TVT_STRING, "string:'255'"}, {raw(TVT_BOOL, 2), TVT_STRING, "string:'2'"},
        {raw(TVT_INT, 1u << 31), TVT_STRING, "string:'-2147483648'"},
        {raw(TVT_LONGLONG, 1ull << 63), TVT_STRING, "string:'-9223372036854775808'"},
        {raw(TVT_ULONGLONG, ~0ull), TVT_STRING, "string:'18446744073709551615'"},
        // Empty and unknown variants take any tag and keep their value bits.
        {raw(kUnknownTag, 0x1234), TVT_SHORT, "short:4660"}, {raw(TVT_EMPTY, 0x1234), 77, "tag77:0x1234"},
    };
    for (const auto& [make, target, expected] : cases) {
        Variant v(make);
        EXPECT_TRUE(variant_change_type(v.get(), target)) << expected;
        EXPECT_EQ(describe(v.get()), expected) << "to tag " << target;
    }
}

TEST(VariantAjustDataValue, NarrowsIntegersToTheBitWidthAndRefusesTheRest) {
    const std::tuple<TVARTYPE, uint64_t, uint32_t, uint64_t> rows[] = { // tag, value union before, bits, after
        // Unsigned 32/64-bit keep the low bits (the shift is taken modulo the width); bytes above stay.
        {TVT_UINT, 0xABABABABFFFFFFFF, 8, 0xABABABAB000000FF}, {TVT_UINT, 0xFFFFFFFF, 0, 0xFFFFFFFF},
        {TVT_UINT, 0xFFFFFFFF, 40, 0xFF}, {TVT_ULONG, ~0ull, 12, 0xFFF}, {TVT_ULONGLONG, ~0ull, 4, 0xF},
        // Signed: a set bit (bits - 1) fills every higher bit; a clear one leaves the upper bits as they are.
        {TVT_INT, 0xABABABAB0000000F, 4, 0xABABABABFFFFFFFF}, {TVT_INT, 5, 0, 5}, {TVT_SHORT, 0x80, 8, 0xFF80},
        {TVT_CHAR, 0xABABABABABABAB08, 4, 0xABABABABABABABF8}, {TVT_LONG, 0x8000, 16, 0xFFFFFFFFFFFF8000},
        {TVT_LONGLONG, 0xF0, 4, 0xF0}, {TVT_BOOL, 0xFF, 4, 0xFF}, {kUnknownTag, 0xFF, 4, 0xFF},
        // Byte and unsigned short are never masked, on purpose; bool and unknown tags (above) are refused.
        {TVT_USHORT, 0x0180, 8, 0x0180}, {TVT_BYTE, 0x18, 4, 0x18},
    };
    for (const auto& [tag, before, bits, after] : rows) {
        Variant v(raw(tag, before));
        SCOPED_TRACE(describe(v.get()) + " to " + std::to_string(bits) + " bits");
        EXPECT_EQ(variant_ajust_data_value(v.get(), bits), tag >= TVT_CHAR && tag <= TVT_ULONGLONG);
        EXPECT_EQ(v.record.value.bits, after);
    }
}

// With each tag's width in bits (none for a string), which the safe arrays
// store each element at; the safe_array fuzz target checks that storage.
TEST(VariantTypeNames, EveryTagHasItsNameBothWaysAndItsWidthAndNothingElseMatches) {
    const char* const names[] = {"char", "unsigned char", "short", "unsigned short", "int", "unsigned int",
                                 "long", "unsigned long", "long long", "unsigned long long", "float", "double",
                                 "string", "bool"};
    const uint32_t widths[] = {8, 8, 16, 16, 32, 32, 64, 64, 64, 64, 32, 64, 0, 8};
    for (TVARTYPE tag = TVT_CHAR; tag <= TVT_BOOL; ++tag) {
        const auto display = [tag](char* t, unsigned long& n) { return variant_resolve_display_type(tag, t, &n); };
        TVARTYPE found = 0;
        uint32_t bits = 77;
        SCOPED_TRACE(names[tag - 1]);
        EXPECT_EQ(textFrom(display), names[tag - 1]);
        EXPECT_TRUE(variant_resolve_type(names[tag - 1], &found));
        EXPECT_EQ(found, tag);
        EXPECT_EQ(variant_get_datatype_size(tag, &bits), tag != TVT_STRING);
        EXPECT_EQ(bits, widths[tag - 1]);
    }
    size_t length = 77;
    EXPECT_FALSE(variant_resolve_display_type(15, nullptr, &length));
    EXPECT_EQ(length, 77u);
    TVARTYPE found = 5; // an unknown name stores tag 0: the application reader's "Int"
    EXPECT_FALSE(variant_resolve_type(nullptr, &found));
    EXPECT_EQ(found, 5) << "a null name leaves the tag alone";
}

} // namespace
