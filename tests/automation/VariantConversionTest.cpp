// variant_change_type: every source and target pair of the conversion
// matrix, then the edges of parsing, float truncation, text and ownership.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <ostream>
#include <string>

#include "VariantTestUtil.h"

namespace {

using kvtest::describe;
using kvtest::kUnknownTag;
using kvtest::Filler;
using kvtest::ScopedVariant;
using kvtest::setTo;
using kvtest::setToText;

const Filler kEmpty = [](tagTVARIANT*) {};
const Filler kUnknown = [](tagTVARIANT* v) { v->vt = kUnknownTag; };

const TVARTYPE kTargets[] = {TVT_EMPTY,    TVT_CHAR,      TVT_BYTE,  TVT_SHORT,  TVT_USHORT, TVT_INT,
                             TVT_UINT,     TVT_LONG,      TVT_ULONG, TVT_LONGLONG, TVT_ULONGLONG,
                             TVT_FLOAT,    TVT_DOUBLE,    TVT_STRING, TVT_BOOL,  kUnknownTag};
constexpr size_t kTargetCount = sizeof kTargets / sizeof kTargets[0];

// One source value and what each target in kTargets makes of it; "no" marks
// a refused conversion.
struct MatrixRow {
    const char* source;
    Filler make;
    const char* expected[kTargetCount];
};

// The samples are chosen so that sign and zero extension, relabelling of the
// low-order bytes and truncation all show in the results.
const MatrixRow kMatrix[] = {
    {"empty", kEmpty,
     {"empty", "char:0", "byte:0", "short:0", "ushort:0", "int:0", "uint:0", "long:0", "ulong:0", "ll:0", "ull:0",
      "float:0", "double:0", "string:null", "bool:0", "tag99:0x0"}},
    {"char -56", setTo(variant_set_char, static_cast<char>(-56)),
     {"no", "char:200", "byte:200", "short:200", "ushort:200", "int:200", "uint:200", "long:200", "ulong:200",
      "ll:200", "ull:200", "float:200", "double:200", "string:'200'", "bool:1", "no"}},
    {"byte 255", setTo(variant_set_byte, 255),
     {"no", "char:255", "byte:255", "short:255", "ushort:255", "int:255", "uint:255", "long:255", "ulong:255",
      "ll:255", "ull:255", "float:255", "double:255", "string:'255'", "bool:1", "no"}},
    {"short -2", setTo(variant_set_short, -2),
     {"no", "char:254", "byte:254", "short:-2", "ushort:65534", "int:-2", "uint:4294967294", "long:-2",
      "ulong:18446744073709551614", "ll:-2", "ull:18446744073709551614", "float:-2", "double:-2", "string:'-2'",
      "bool:1", "no"}},
    {"ushort 65534", setTo(variant_set_ushort, 65534),
     {"no", "char:254", "byte:254", "short:-2", "ushort:65534", "int:65534", "uint:65534", "long:65534",
      "ulong:65534", "ll:65534", "ull:65534", "float:65534", "double:65534", "string:'65534'", "bool:1", "no"}},
    {"int -70000", setTo(variant_set_int, -70000),
     {"no", "char:144", "byte:144", "short:-4464", "ushort:61072", "int:-70000", "uint:4294897296", "long:-70000",
      "ulong:18446744073709481616", "ll:-70000", "ull:18446744073709481616", "float:-70000", "double:-70000",
      "string:'-70000'", "bool:1", "no"}},
    {"uint 4294897296", setTo(variant_set_uint, 4294897296u),
     {"no", "char:144", "byte:144", "short:-4464", "ushort:61072", "int:-70000", "uint:4294897296",
      "long:4294897296", "ulong:4294897296", "ll:4294897296", "ull:4294897296", "float:4.29489741e+09",
      "double:4294897296", "string:'4294897296'", "bool:1", "no"}},
    {"long -4886718345", setTo(variant_set_long, -4886718345l),
     {"no", "char:119", "byte:119", "short:-26505", "ushort:39031", "int:-591751049", "uint:3703216247",
      "long:-4886718345", "ulong:18446744068822833271", "ll:-4886718345", "ull:18446744068822833271",
      "float:-4.88671846e+09", "double:-4886718345", "string:'-4886718345'", "bool:1", "no"}},
    {"ulong 18446744068822833271", setTo(variant_set_ulong, 18446744068822833271ul),
     {"no", "char:119", "byte:119", "short:-26505", "ushort:39031", "int:-591751049", "uint:3703216247",
      "long:-4886718345", "ulong:18446744068822833271", "ll:-4886718345", "ull:18446744068822833271",
      "float:1.84467441e+19", "double:1.8446744068822833e+19", "string:'18446744068822833271'", "bool:1", "no"}},
    {"long long -4886718345", setTo(variant_set_longlong, -4886718345ll),
     {"no", "char:119", "byte:119", "short:-26505", "ushort:39031", "int:-591751049", "uint:3703216247",
      "long:-4886718345", "ulong:18446744068822833271", "ll:-4886718345", "ull:18446744068822833271",
      "float:-4.88671846e+09", "double:-4886718345", "string:'-4886718345'", "no", "no"}},
    {"unsigned long long 18446744068822833271", setTo(variant_set_ulonglong, 18446744068822833271ull),
     {"no", "char:119", "byte:119", "short:-26505", "ushort:39031", "int:-591751049", "uint:3703216247",
      "long:-4886718345", "ulong:18446744068822833271", "ll:-4886718345", "ull:18446744068822833271",
      "float:1.84467441e+19", "double:1.8446744068822833e+19", "string:'18446744068822833271'", "no", "no"}},
    {"float -2.75", setTo(variant_set_float, -2.75f),
     {"no", "char:0", "byte:0", "short:-2", "ushort:0", "int:-2", "uint:0", "long:-2", "ulong:0", "ll:-2", "ull:0",
      "float:-2.75", "double:-2.75", "string:'-2.750000'", "bool:1", "no"}},
    {"double 70000.75", setTo(variant_set_double, 70000.75),
     {"no", "char:112", "byte:112", "short:4464", "ushort:4464", "int:70000", "uint:70000", "long:70000",
      "ulong:70000", "ll:70000", "ull:70000", "float:70000.75", "double:70000.75", "string:'70000.750000'",
      "bool:1", "no"}},
    {"string -0x12", setToText("-0x12"),
     {"no", "char:238", "byte:238", "short:-18", "ushort:65518", "int:-18", "uint:4294967278", "long:-18",
      "ulong:18446744073709551598", "ll:-18", "ull:18446744073709551598", "float:-18", "double:-18",
      "string:'-0x12'", "bool:1", "no"}},
    {"bool true", setTo(variant_set_bool, true),
     {"no", "char:1", "byte:1", "short:1", "ushort:1", "int:1", "uint:1", "long:1", "ulong:1", "ll:1", "ull:1",
      "float:1", "double:1", "string:'1'", "bool:1", "no"}},
    {"unknown tag", kUnknown,
     {"empty", "char:0", "byte:0", "short:0", "ushort:0", "int:0", "uint:0", "long:0", "ulong:0", "ll:0", "ull:0",
      "float:0", "double:0", "string:null", "bool:0", "tag99:0x0"}},
};

// Shown by GoogleTest in place of the row's bytes.
void PrintTo(const MatrixRow& row, std::ostream* out) {
    *out << row.source;
}

class VariantConversionMatrix : public ::testing::TestWithParam<MatrixRow> {};

TEST_P(VariantConversionMatrix, EveryTargetGivesItsValueOrIsRefusedUntouched) {
    const MatrixRow& row = GetParam();
    for (size_t column = 0; column < kTargetCount; ++column) {
        const TVARTYPE target = kTargets[column];
        const std::string expected = row.expected[column];
        SCOPED_TRACE(std::string(row.source) + " to tag " + std::to_string(target));
        ScopedVariant v;
        row.make(v.get());
        tagTVARIANT before;
        std::memcpy(&before, v.get(), sizeof before);
        const std::string described = describe(before);

        const bool converted = variant_change_type(v.get(), target);
        if (expected == "no") {
            EXPECT_FALSE(converted);
            EXPECT_EQ(std::memcmp(&before, v.get(), sizeof before), 0);
            EXPECT_EQ(describe(*v.get()), described);
        } else {
            EXPECT_TRUE(converted);
            EXPECT_EQ(v->vt, target);
            EXPECT_EQ(describe(*v.get()), expected);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllPairs, VariantConversionMatrix, ::testing::ValuesIn(kMatrix));

struct EdgeCase {
    Filler make;
    TVARTYPE target;
    const char* expected;
};

void expectConversions(const EdgeCase* begin, const EdgeCase* end) {
    for (const EdgeCase* c = begin; c != end; ++c) {
        ScopedVariant v;
        c->make(v.get());
        const std::string source = describe(*v.get());
        EXPECT_TRUE(variant_change_type(v.get(), c->target)) << source;
        EXPECT_EQ(describe(*v.get()), c->expected) << source << " to tag " << c->target;
    }
}

TEST(VariantConversionParse, BaseZeroStandardParsersAtTheTargetWidth) {
    const EdgeCase cases[] = {
        {setToText("0x1F"), TVT_INT, "int:31"},
        {setToText("017"), TVT_INT, "int:15"},
        {setToText(" 42abc"), TVT_INT, "int:42"},
        {setToText("abc"), TVT_INT, "int:0"},
        {setToText(""), TVT_INT, "int:0"},
        {setToText("300"), TVT_CHAR, "char:44"},
        {setToText("-200"), TVT_CHAR, "char:56"},
        {setToText("-1"), TVT_BYTE, "byte:255"},
        {setToText("  -0x10"), TVT_SHORT, "short:-16"},
        {setToText("-1"), TVT_UINT, "uint:4294967295"},
        {setToText("1e3"), TVT_INT, "int:1"},
        {setToText("1e3"), TVT_DOUBLE, "double:1000"},
        {setToText("0x10"), TVT_DOUBLE, "double:16"},
        {setToText("1.5"), TVT_FLOAT, "float:1.5"},
        {setToText("1e40"), TVT_FLOAT, "float:inf"},
        // Out of range: the parser's saturated value, then its low-order bytes.
        {setToText("99999999999999999999"), TVT_INT, "int:-1"},
        {setToText("99999999999999999999"), TVT_LONG, "long:9223372036854775807"},
        {setToText("-99999999999999999999"), TVT_LONGLONG, "ll:-9223372036854775808"},
        {setToText("99999999999999999999"), TVT_ULONGLONG, "ull:18446744073709551615"},
        // Text becomes bool through strtol.
        {setToText("true"), TVT_BOOL, "bool:0"},
        {setToText("2"), TVT_BOOL, "bool:1"},
        {setToText("0x0"), TVT_BOOL, "bool:0"},
    };
    expectConversions(std::begin(cases), std::end(cases));
}

TEST(VariantConversionFloat, TruncatesTowardZeroAndSaturates) {
    const EdgeCase cases[] = {
        {setTo(variant_set_double, 3.99), TVT_INT, "int:3"},
        {setTo(variant_set_double, -3.99), TVT_INT, "int:-3"},
        {setTo(variant_set_double, -1.0), TVT_UINT, "uint:0"},
        {setTo(variant_set_double, 1e20), TVT_INT, "int:2147483647"},
        {setTo(variant_set_double, -1e20), TVT_INT, "int:-2147483648"},
        {setTo(variant_set_double, 2147483647.5), TVT_INT, "int:2147483647"},
        {setTo(variant_set_double, 4294967295.0), TVT_UINT, "uint:4294967295"},
        {setTo(variant_set_double, 1e20), TVT_LONG, "long:9223372036854775807"},
        {setTo(variant_set_double, -1e20), TVT_LONGLONG, "ll:-9223372036854775808"},
        {setTo(variant_set_double, -1e20), TVT_ULONG, "ulong:0"},
        {setTo(variant_set_double, 1e20), TVT_ULONGLONG, "ull:18446744073709551615"},
        {setTo(variant_set_double, std::numeric_limits<double>::infinity()), TVT_UINT, "uint:4294967295"},
        {setTo(variant_set_double, -std::numeric_limits<double>::infinity()), TVT_LONG, "long:-9223372036854775808"},
        {setTo(variant_set_double, std::nan("")), TVT_INT, "int:0"},
        {setTo(variant_set_double, std::nan("")), TVT_ULONGLONG, "ull:0"},
        {setTo(variant_set_float, std::nanf("")), TVT_SHORT, "short:0"},
        // Narrow targets keep the low-order bytes of the 32-bit result.
        {setTo(variant_set_double, 300.0), TVT_CHAR, "char:44"},
        {setTo(variant_set_double, -1.0), TVT_CHAR, "char:0"},
        {setTo(variant_set_double, 1e10), TVT_USHORT, "ushort:65535"},
        {setTo(variant_set_double, -3e9), TVT_SHORT, "short:0"},
        {setTo(variant_set_double, -70000.5), TVT_SHORT, "short:-4464"},
        {setTo(variant_set_float, 3e9f), TVT_INT, "int:2147483647"},
        {setTo(variant_set_float, -0.5f), TVT_UINT, "uint:0"},
        // nz: anything that compares unequal to zero, NaN included.
        {setTo(variant_set_double, std::nan("")), TVT_BOOL, "bool:1"},
        {setTo(variant_set_double, -0.0), TVT_BOOL, "bool:0"},
        {setTo(variant_set_float, 0.001f), TVT_BOOL, "bool:1"},
        {setTo(variant_set_double, 1e300), TVT_FLOAT, "float:inf"},
    };
    expectConversions(std::begin(cases), std::end(cases));
}

TEST(VariantConversionText, NumbersFormatWithTheirPrintfFormat) {
    const EdgeCase cases[] = {
        {setTo(variant_set_float, 1.5f), TVT_STRING, "string:'1.500000'"},
        {setTo(variant_set_double, -0.25), TVT_STRING, "string:'-0.250000'"},
        {setTo(variant_set_int, -7), TVT_STRING, "string:'-7'"},
        {setTo(variant_set_char, static_cast<char>(-1)), TVT_STRING, "string:'255'"},
        {setTo(variant_set_ulonglong, 18446744073709551615ull), TVT_STRING,
         "string:'18446744073709551615'"},
        {setTo(variant_set_longlong, -9223372036854775807ll - 1), TVT_STRING,
         "string:'-9223372036854775808'"},
    };
    expectConversions(std::begin(cases), std::end(cases));
}

TEST(VariantConversionText, HugeDoublesGiveTheirWholeText) {
    for (double value : {1e300, -DBL_MAX, static_cast<double>(FLT_MAX)}) {
        char expected[400];
        std::snprintf(expected, sizeof expected, "%f", value);
        ScopedVariant v;
        variant_set_double(v.get(), value, true);
        ASSERT_TRUE(variant_change_type(v.get(), TVT_STRING));
        EXPECT_EQ(describe(*v.get()), "string:'" + std::string(expected) + "'");
        EXPECT_EQ(v->value.bstrVal->length, static_cast<int32_t>(std::strlen(expected) + 1));
    }
}

TEST(VariantConversionRelabel, NarrowingKeepsOnlyTheLowBytes) {
    ScopedVariant v;
    variant_set_long(v.get(), 300, true);
    ASSERT_TRUE(variant_change_type(v.get(), TVT_CHAR));
    EXPECT_EQ(describe(*v.get()), "char:44");
    ASSERT_TRUE(variant_change_type(v.get(), TVT_LONG));
    EXPECT_EQ(describe(*v.get()), "long:44");
}

TEST(VariantConversionRefusal, SameTagAndRefusedPairsLeaveTheVariantAlone) {
    ScopedVariant v;
    variant_set_longlong(v.get(), 5, true);
    EXPECT_TRUE(variant_change_type(v.get(), TVT_LONGLONG));
    EXPECT_EQ(describe(*v.get()), "ll:5");
    EXPECT_FALSE(variant_change_type(v.get(), TVT_BOOL));
    EXPECT_EQ(describe(*v.get()), "ll:5");

    variant_set_string(v.get(), "kept", true);
    const bstrunit* unit = v->value.bstrVal;
    EXPECT_TRUE(variant_change_type(v.get(), TVT_STRING));
    EXPECT_FALSE(variant_change_type(v.get(), TVT_EMPTY));
    EXPECT_FALSE(variant_change_type(v.get(), kUnknownTag));
    EXPECT_EQ(v->value.bstrVal, unit);
    EXPECT_EQ(describe(*v.get()), "string:'kept'");
}

TEST(VariantConversionUntyped, EmptyAndUnknownTakeAnyTagKeepingTheirBits) {
    ScopedVariant v;
    v->vt = kUnknownTag;
    v->value.bits = 0x1234;
    EXPECT_TRUE(variant_change_type(v.get(), TVT_SHORT));
    EXPECT_EQ(describe(*v.get()), "short:4660");

    variant_init(v.get());
    EXPECT_TRUE(variant_change_type(v.get(), TVT_STRING));
    EXPECT_EQ(describe(*v.get()), "string:null");
    // Now typed, it refuses an unknown tag like any string.
    EXPECT_FALSE(variant_change_type(v.get(), kUnknownTag));
    EXPECT_EQ(describe(*v.get()), "string:null");
}

TEST(VariantConversionString, ConsumesTheText) {
    ScopedVariant v;
    variant_set_string(v.get(), "123", true);
    ASSERT_TRUE(variant_change_type(v.get(), TVT_INT));
    EXPECT_EQ(describe(*v.get()), "int:123");
    // Back to text makes a fresh unit; the old one was freed (ASan checks).
    ASSERT_TRUE(variant_change_type(v.get(), TVT_STRING));
    EXPECT_EQ(describe(*v.get()), "string:'123'");
}

// A string variant holding a unit built by hand from `bytes`, no NUL added.
Filler rawString(const std::string& bytes) {
    return [bytes](tagTVARIANT* v) {
        v->vt = TVT_STRING;
        v->value.bstrVal = bstrunit_alloc(static_cast<int32_t>(bytes.size()));
        std::memcpy(bstrunit_data(v->value.bstrVal), bytes.data(), bytes.size());
    };
}

TEST(VariantConversionString, UnitsWithoutTextParseSafely) {
    // The parser must stop at the unit's end (ASan watches the last case).
    const EdgeCase cases[] = {
        {[](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); }, TVT_INT, "int:0"},
        {rawString(""), TVT_LONG, "long:0"},
        {rawString("12"), TVT_UINT, "uint:12"},
    };
    expectConversions(std::begin(cases), std::end(cases));
}

} // namespace
