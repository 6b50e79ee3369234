// Value resolution, bit-width narrowing and the type-name table.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "VariantTestHelpers.h"

unsigned char resolvedBoolByte(const tagTVARIANT* v); // RawBoolView.cpp

namespace {

using arraystest::setRaw;
using arraystest::stringOf;
using arraystest::Variant;

TEST(VariantResolveAs, ConvertsAPrivateCopyAndNeverTheVariant) {
    Variant v;
    variant_set_string(v.get(), "0x10", true);
    tagTVARIANT before = *v.get();
    EXPECT_EQ(variant_resolve_as_int(v.get()), 16);
    EXPECT_EQ(variant_resolve_as_double(v.get()), 16.0);
    EXPECT_EQ(std::memcmp(&before, v.get(), sizeof before), 0);
    EXPECT_EQ(stringOf(v.get()), "0x10") << "the conversion consumed the variant's own unit";

    variant_set_int(v.get(), -1, true);
    EXPECT_EQ(variant_resolve_as_int(v.get()), -1);
    EXPECT_EQ(variant_resolve_as_uint(v.get()), 4294967295u);
    EXPECT_EQ(variant_resolve_as_double(v.get()), -1.0);
    EXPECT_EQ(v->vt, TVT_INT);
    variant_set_char(v.get(), static_cast<char>(-1), true);
    EXPECT_EQ(variant_resolve_as_int(v.get()), 255) << "a char is read as an unsigned byte";

    variant_clear(v.get());
    EXPECT_EQ(variant_resolve_as_double(v.get()), 0.0);
    setRaw(v.get(), 99, 0x1234);
    EXPECT_EQ(variant_resolve_as_int(v.get()), 0x1234) << "unknown tags are relabelled";
    EXPECT_EQ(variant_resolve_as_int(nullptr), 0);
}

// A refused conversion (long long to bool) hands back the raw low byte.
TEST(VariantResolveAs, LongLongToBoolReturnsTheRawLowByte) {
    Variant v;
    variant_set_longlong(v.get(), 256, true);
    EXPECT_EQ(resolvedBoolByte(v.get()), 0);
    variant_set_longlong(v.get(), 2, true);
    EXPECT_EQ(resolvedBoolByte(v.get()), 2) << "not normalised to 1";
    variant_set_long(v.get(), 256, true);
    EXPECT_EQ(resolvedBoolByte(v.get()), 1) << "long converts to bool normally";
}

struct Narrowing {
    TVARTYPE tag;
    uint64_t before; // the whole value union; 0xAB bytes above a type's width must survive
    uint32_t bits;
    uint64_t after;
};

const Narrowing kNarrowings[] = {
    // Unsigned 32/64-bit keep the low bits; the shift is taken modulo the width.
    {TVT_UINT, 0x000000000000FFFF, 8, 0x00000000000000FF},
    {TVT_UINT, 0xABABABABFFFFFFFF, 1, 0xABABABAB00000001},
    {TVT_UINT, 0x00000000FFFFFFFF, 0, 0x00000000FFFFFFFF},
    {TVT_UINT, 0x00000000FFFFFFFF, 40, 0x00000000000000FF},
    {TVT_ULONG, 0xFFFFFFFFFFFFFFFF, 12, 0x0000000000000FFF},
    {TVT_ULONGLONG, 0x8000000000000003, 64, 0x8000000000000003},
    // Byte and unsigned short are deliberately never masked.
    {TVT_USHORT, 0x000000000000FFFF, 8, 0x000000000000FFFF},
    {TVT_BYTE, 0x00000000000000FF, 20, 0x00000000000000FF},
    // Signed: a set bit (bits - 1) fills every higher bit; a clear one changes nothing.
    {TVT_INT, 0xABABABAB0000000F, 4, 0xABABABABFFFFFFFF},
    {TVT_INT, 0x0000000000000017, 4, 0x0000000000000017},
    {TVT_INT, 0x0000000000000005, 0, 0x0000000000000005},
    {TVT_INT, 0x00000000FFFFFFFF, 70, 0x00000000FFFFFFFF},
    {TVT_CHAR, 0xABABABABABABAB08, 4, 0xABABABABABABABF8},
    {TVT_CHAR, 0x0000000000000080, 16, 0x0000000000000080}, // the char counts as unsigned
    {TVT_SHORT, 0x0000000000000080, 8, 0x000000000000FF80},
    {TVT_LONG, 0x0000000000008000, 16, 0xFFFFFFFFFFFF8000},
    {TVT_LONGLONG, 0x00000000000000F0, 4, 0x00000000000000F0}, // upper bits are not cleared
};

TEST(VariantAjustDataValue, NarrowsIntegersToTheBitWidth) {
    for (const Narrowing& row : kNarrowings) {
        Variant v;
        setRaw(v.get(), row.tag, row.before);
        EXPECT_TRUE(variant_ajust_data_value(v.get(), row.bits));
        EXPECT_EQ(v->value.bits, row.after) << "tag " << row.tag << " bits " << row.bits;
    }
}

TEST(VariantAjustDataValue, RefusesEverythingButIntegers) {
    for (TVARTYPE tag : {TVT_FLOAT, TVT_DOUBLE, TVT_BOOL, TVT_EMPTY, TVARENUM(99)}) {
        Variant v;
        setRaw(v.get(), tag, 0xFF);
        EXPECT_FALSE(variant_ajust_data_value(v.get(), 4)) << tag;
        EXPECT_EQ(v->value.bits, 0xFFu);
    }
    Variant text;
    variant_set_string(text.get(), "12", true);
    EXPECT_FALSE(variant_ajust_data_value(text.get(), 4));
    EXPECT_FALSE(variant_ajust_data_value(nullptr, 4));
}

const char* const kTypeNames[] = {
    nullptr, "char", "unsigned char", "short", "unsigned short", "int", "unsigned int", "long", "unsigned long",
    "long long", "unsigned long long", "float", "double", "string", "bool",
};

TEST(VariantTypeNames, EveryTagHasItsNameBothWays) {
    for (TVARTYPE tag = TVT_CHAR; tag <= TVT_BOOL; ++tag) {
        const std::string name = kTypeNames[tag];
        SCOPED_TRACE(name);
        size_t length = 0;
        ASSERT_TRUE(variant_resolve_display_type(tag, nullptr, &length));
        EXPECT_EQ(length, name.size() + 1);
        std::string buffer(length + 2, '#');
        size_t tooSmall = name.size();
        EXPECT_FALSE(variant_resolve_display_type(tag, &buffer[0], &tooSmall));
        EXPECT_EQ(tooSmall, name.size()) << "a refused size stays as the caller gave it";
        EXPECT_EQ(buffer, std::string(length + 2, '#'));
        ASSERT_TRUE(variant_resolve_display_type(tag, &buffer[0], &length));
        EXPECT_EQ(buffer, name + '\0' + '#' + '#');

        TVARTYPE found = 0;
        EXPECT_TRUE(variant_resolve_type(name.c_str(), &found));
        EXPECT_EQ(found, tag);
    }
}

TEST(VariantTypeNames, UnknownTagsAndNamesHaveNoMatch) {
    for (TVARTYPE tag : {TVARTYPE{TVT_EMPTY}, TVARTYPE{15}}) {
        size_t length = 77;
        EXPECT_FALSE(variant_resolve_display_type(tag, nullptr, &length));
        EXPECT_EQ(length, 77u);
    }
    for (const char* name : {"Int", "int ", "", "integer"}) {
        TVARTYPE found = 5;
        EXPECT_FALSE(variant_resolve_type(name, &found)) << '"' << name << '"';
        EXPECT_EQ(found, 0) << "an unknown name stores tag 0";
    }
    TVARTYPE found = 5;
    EXPECT_FALSE(variant_resolve_type(nullptr, &found));
    EXPECT_EQ(found, 5) << "a null name leaves the tag alone";
}

} // namespace
