// variant_change_type: every source and target pair of the conversion
// matrix, then the edges of parsing, float truncation and long texts.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstdio>
#include <random>
#include <sstream>
#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

// One row per source: what each target (tags 0 to 14, then an unknown tag)
// makes of it, "no" for a refused pair. Narrow sources carry 0x5A bytes above
// their width, which widening must ignore; the values show sign and zero
// extension, relabelling of the low bytes, truncation and saturation.
const struct {
    Filler make;
    const char* targets;
} kMatrix[] = {
    {raw(TVT_EMPTY, 0), "empty 0 0 0 0 0 0 0 0 0 0 0 0 null 0 0x0"},
    {raw(TVT_CHAR, 0x5A5A5A5A5A5A5AC8), // -56, read as the unsigned byte 200 on purpose
     "no 200 200 200 200 200 200 200 200 200 200 200 200 '200' 1 no"},
    {raw(TVT_BYTE, 0x5A5A5A5A5A5A5AFF), "no 255 255 255 255 255 255 255 255 255 255 255 255 '255' 1 no"},
    {raw(TVT_SHORT, 0x5A5A5A5A5A5AFFFE),
     "no 254 254 -2 65534 -2 4294967294 -2 18446744073709551614 -2 18446744073709551614 -2 -2 '-2' 1 no"},
    {raw(TVT_USHORT, 0x5A5A5A5A5A5AFFFE),
     "no 254 254 -2 65534 65534 65534 65534 65534 65534 65534 65534 65534 '65534' 1 no"},
    {raw(TVT_INT, 0x5A5A5A5AFFFEEE90), "no 144 144 -4464 61072 -70000 4294897296 -70000 18446744073709481616 "
                                       "-70000 18446744073709481616 -70000 -70000 '-70000' 1 no"},
    {raw(TVT_UINT, 0x5A5A5A5AFFFEEE90), "no 144 144 -4464 61072 -70000 4294897296 4294897296 4294897296 "
                                        "4294897296 4294897296 4.29489741e+09 4294897296 '4294897296' 1 no"},
    {setTo(variant_set_long, -4886718345l), "no 119 119 -26505 39031 -591751049 3703216247 -4886718345 "
                                            "18446744068822833271 -4886718345 18446744068822833271 "
                                            "-4.88671846e+09 -4886718345 '-4886718345' 1 no"},
    {setTo(variant_set_ulong, 18446744068822833271ul),
     "no 119 119 -26505 39031 -591751049 3703216247 -4886718345 18446744068822833271 -4886718345 "
     "18446744068822833271 1.84467441e+19 1.8446744068822833e+19 '18446744068822833271' 1 no"},
    {setTo(variant_set_longlong, -4886718345ll), // refuses bool, on purpose
     "no 119 119 -26505 39031 -591751049 3703216247 -4886718345 18446744068822833271 -4886718345 "
     "18446744068822833271 -4.88671846e+09 -4886718345 '-4886718345' no no"},
    {setTo(variant_set_ulonglong, 18446744068822833271ull), "no 119 119 -26505 39031 -591751049 3703216247 "
                                                            "-4886718345 18446744068822833271 -4886718345 "
                                                            "18446744068822833271 1.84467441e+19 "
                                                            "1.8446744068822833e+19 '18446744068822833271' no no"},
    {raw(TVT_FLOAT, 0x5A5A5A5AC0300000), "no 0 0 -2 0 -2 0 -2 0 -2 0 -2.75 -2.75 '-2.750000' 1 no"},
    {setTo(variant_set_double, 70000.75),
     "no 112 112 4464 4464 70000 70000 70000 70000 70000 70000 70000.75 70000.75 '70000.750000' 1 no"},
    {text("-0x12"), "no 238 238 -18 65518 -18 4294967278 -18 18446744073709551598 -18 18446744073709551598 -18 -18 "
                    "'-0x12' 1 no"},
    {raw(TVT_BOOL, 0x5A5A5A5A5A5A5A01), "no 1 1 1 1 1 1 1 1 1 1 1 1 '1' 1 no"},
    {raw(kUnknownTag, 0), "empty 0 0 0 0 0 0 0 0 0 0 0 0 null 0 0x0"},
};

// A refused pair, or a conversion to the tag the variant already has, must
// leave all of the record as it was (a string keeps its very unit).
TEST(VariantConversionMatrix, EveryTargetGivesItsValueOrIsRefusedUntouched) {
    for (const auto& row : kMatrix) {
        std::istringstream targets(row.targets);
        std::string expected;
        for (TVARTYPE target = 0; targets >> expected; target = target == TVT_BOOL ? kUnknownTag : target + 1) {
            Variant v;
            row.make(v.get());
            const tagTVARIANT before = *v.get();
            SCOPED_TRACE(describe(&before) + " to tag " + std::to_string(target));
            const bool converted = variant_change_type(v.get(), target);
            EXPECT_EQ(converted, expected != "no");
            const bool untouched = !converted || before.vt == target;
            EXPECT_FALSE(untouched && std::memcmp(&before, v.get(), sizeof before) != 0) << "record changed";
            const std::string result = describe(v.get());
            const std::string value = v->vt != target ? "wrong tag" : result.substr(result.find(':') + 1);
            EXPECT_EQ(converted ? value : "no", expected);
        }
    }
}

// Integer text is printf's, byte for byte, for every integer tag: the limits,
// one either side of each power of ten and a random sample of bit patterns.
TEST(VariantConversionEdges, IntegerTextMatchesPrintf) {
    const std::tuple<TVARTYPE, int, bool, const char*> kinds[] = {
        {TVT_CHAR, 1, false, "%d"}, {TVT_BYTE, 1, false, "%u"},  {TVT_SHORT, 2, true, "%d"},
        {TVT_USHORT, 2, false, "%u"}, {TVT_INT, 4, true, "%d"},   {TVT_UINT, 4, false, "%u"},
        {TVT_LONG, 8, true, "%ld"},   {TVT_ULONG, 8, false, "%lu"}, {TVT_LONGLONG, 8, true, "%lld"},
        {TVT_ULONGLONG, 8, false, "%llu"}, {TVT_BOOL, 1, false, "%d"}};
    std::vector<uint64_t> patterns = {0x7F, 0x80, 0xFF, 0x7FFF, 0x8000, 0xFFFF, 0x7FFFFFFF, 0x80000000, ~0u,
                                      ~0ull >> 1, 1ull << 63, ~0ull};
    for (uint64_t power = 1, step = 0; step < 20; power *= 10, ++step)
        for (uint64_t near : {power - 1, power, power + 1})
            patterns.insert(patterns.end(), {near, 0 - near});
    std::mt19937_64 random(16);
    for (int i = 0; i < 50000; ++i)
        patterns.push_back(random() >> (random() % 64));
    for (const auto& [tag, bytes, isSigned, format] : kinds)
        for (const uint64_t bits : patterns) {
            const int shift = 64 - 8 * bytes; // the value is the low `bytes` bytes
            const uint64_t value = isSigned ? static_cast<uint64_t>(static_cast<int64_t>(bits << shift) >> shift)
                                            : bits << shift >> shift;
            char expected[32];
            if (bytes == 8)
                std::snprintf(expected, sizeof expected, format, value);
            else
                std::snprintf(expected, sizeof expected, format, static_cast<int>(value));
            Variant v;
            raw(tag, bits)(v.get());
            ASSERT_TRUE(variant_change_type(v.get(), TVT_STRING));
            ASSERT_EQ(bytesOf(v.get()->value.bstrVal), std::string(expected) + '\0') << format << " of " << bits;
        }
}

TEST(VariantConversionEdges, ParsingTruncationAndUntypedVariants) {
    const Filler noUnit = [](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); };
    const Filler unterminated = [](tagTVARIANT* v) { variant_set_bstrunit(v, rawUnit("12").get()); };
    const auto number = [](double value) { return setTo(variant_set_double, value); };
    const std::tuple<Filler, TVARTYPE, const char*> cases[] = {
        // Base 0 parsers at the target's width; text to bool through strtol, on purpose.
        {text("0x1F"), TVT_INT, "int:31"}, {text("017"), TVT_INT, "int:15"}, {text(" 42abc"), TVT_INT, "int:42"},
        {text("abc"), TVT_INT, "int:0"}, {text("300"), TVT_CHAR, "char:44"}, {text("1e3"), TVT_INT, "int:1"},
        {text("1e3"), TVT_DOUBLE, "double:1000"}, {text("-99999999999999999999"), TVT_CHAR, "char:0"},
        {text("99999999999999999999"), TVT_INT, "int:-1"},
        {text("99999999999999999999"), TVT_LONG, "long:9223372036854775807"},
        {text("99999999999999999999"), TVT_ULONGLONG, "ull:18446744073709551615"}, {text("true"), TVT_BOOL, "bool:0"},
        {text("2"), TVT_BOOL, "bool:1"}, {text("0x10"), TVT_BOOL, "bool:1"}, {noUnit, TVT_INT, "int:0"},
        {unterminated, TVT_UINT, "uint:12"}, // never read past the unit
        // Toward zero, saturating, NaN to 0; narrow targets keep the low bytes of the 32-bit result.
        {number(3.99), TVT_INT, "int:3"}, {number(-3.99), TVT_INT, "int:-3"}, {number(-1.0), TVT_UINT, "uint:0"},
        {number(1e20), TVT_INT, "int:2147483647"}, {number(-1e20), TVT_LONGLONG, "ll:-9223372036854775808"},
        {number(1e20), TVT_ULONGLONG, "ull:18446744073709551615"}, {number(std::nan("")), TVT_INT, "int:0"},
        {number(300.0), TVT_CHAR, "char:44"}, {number(-1.0), TVT_CHAR, "char:0"}, {number(NAN), TVT_BOOL, "bool:1"},
        {number(1e10), TVT_USHORT, "ushort:65535"}, {number(-70000.5), TVT_SHORT, "short:-4464"},
        {setTo(variant_set_float, 0.001f), TVT_BOOL, "bool:1"}, {number(1e300), TVT_FLOAT, "float:inf"},
        // Empty and unknown variants take any tag and keep their value bits.
        {raw(kUnknownTag, 0x1234), TVT_SHORT, "short:4660"}, {raw(TVT_EMPTY, 0x1234), 77, "tag77:0x1234"},
    };
    for (const auto& [make, target, expected] : cases) {
        Variant v;
        make(v.get());
        const std::string source = describe(v.get());
        EXPECT_TRUE(variant_change_type(v.get(), target)) << source;
        EXPECT_EQ(describe(v.get()), expected) << source << " to tag " << target;
    }
    // "%f" of the largest doubles is far longer than a small scratch buffer.
    for (double value : {1e300, -DBL_MAX, double(FLT_MAX)}) {
        char expected[400];
        std::snprintf(expected, sizeof expected, "%f", value);
        Variant v;
        variant_set_double(v.get(), value, true);
        EXPECT_TRUE(variant_change_type(v.get(), TVT_STRING));
        EXPECT_EQ(bytesOf(v->value.bstrVal), std::string(expected) + '\0');
    }
}

} // namespace
