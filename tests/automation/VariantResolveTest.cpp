// Value resolution, bit-width narrowing and the type-name table.
#include <gtest/gtest.h>

#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

TEST(VariantResolveAs, ConvertsAPrivateCopyAndNeverTheVariant) {
    Variant v;
    variant_set_string(v.get(), "0x10", true);
    const tagTVARIANT before = *v.get();
    EXPECT_EQ(variant_resolve_as_int(v.get()), 16);
    EXPECT_EQ(variant_resolve_as_double(v.get()), 16.0);
    EXPECT_EQ(std::memcmp(&before, v.get(), sizeof before), 0);
    EXPECT_EQ(describe(v.get()), "string:'0x10'") << "the conversion consumed the variant's own unit";
    variant_set_int(v.get(), -1, true);
    EXPECT_EQ(variant_resolve_as_int(v.get()), -1);
    EXPECT_EQ(variant_resolve_as_ulonglong(v.get()), ~0ull);
    raw(kUnknownTag, 0x1234)(v.get());
    EXPECT_EQ(variant_resolve_as_short(v.get()), 0x1234) << "unknown tags are relabelled";
    EXPECT_EQ(variant_resolve_as_int(nullptr), 0);
    // Kept on purpose: a refused long long to bool hands back the raw low
    // byte (a 2 stays 2, which the bool-result test reads as an integer).
    variant_set_longlong(v.get(), 256, true);
    EXPECT_FALSE(variant_resolve_as_bool(v.get()));
    variant_set_long(v.get(), 256, true);
    EXPECT_TRUE(variant_resolve_as_bool(v.get())) << "long converts to bool normally";
}

TEST(VariantAjustDataValue, NarrowsIntegersToTheBitWidthAndRefusesTheRest) {
    const std::tuple<TVARTYPE, uint64_t, uint32_t, uint64_t> rows[] = { // tag, value union before, bits, after
        // Unsigned 32/64-bit keep the low bits (the shift is taken modulo the width); bytes above stay.
        {TVT_UINT, 0xABABABABFFFFFFFF, 8, 0xABABABAB000000FF}, {TVT_UINT, 0xFFFFFFFF, 0, 0xFFFFFFFF},
        {TVT_UINT, 0xFFFFFFFF, 40, 0xFF}, {TVT_ULONG, ~0ull, 12, 0xFFF}, {TVT_ULONGLONG, 1ull << 63, 64, 1ull << 63},
        {TVT_USHORT, 0xFFFF, 8, 0xFFFF}, {TVT_BYTE, 0xFF, 20, 0xFF}, // never masked, on purpose
        // Signed: a set bit (bits - 1) fills every higher bit; a clear one leaves the upper bits as they are.
        {TVT_INT, 0xABABABAB0000000F, 4, 0xABABABABFFFFFFFF}, {TVT_INT, 0x17, 4, 0x17}, {TVT_INT, 5, 0, 5},
        {TVT_INT, 0xFFFFFFFF, 70, 0xFFFFFFFF}, {TVT_CHAR, 0xABABABABABABAB08, 4, 0xABABABABABABABF8},
        {TVT_CHAR, 0x80, 16, 0x80}, {TVT_SHORT, 0x80, 8, 0xFF80}, {TVT_LONG, 0x8000, 16, 0xFFFFFFFFFFFF8000},
        {TVT_LONGLONG, 0xF0, 4, 0xF0},
    };
    for (const auto& [tag, before, bits, after] : rows) {
        Variant v;
        raw(tag, before)(v.get());
        SCOPED_TRACE(describe(v.get()) + " to " + std::to_string(bits) + " bits");
        EXPECT_TRUE(variant_ajust_data_value(v.get(), bits));
        EXPECT_EQ(v->value.bits, after);
    }
    for (TVARTYPE tag : {TVARTYPE{TVT_FLOAT}, TVARTYPE{TVT_DOUBLE}, TVARTYPE{TVT_BOOL}, TVARTYPE{0}, kUnknownTag}) {
        Variant v;
        raw(tag, 0xFF)(v.get());
        EXPECT_FALSE(variant_ajust_data_value(v.get(), 4)) << tag;
        EXPECT_EQ(v->value.bits, 0xFFu) << tag;
    }
    Variant text;
    variant_set_string(text.get(), "12", true);
    EXPECT_FALSE(variant_ajust_data_value(text.get(), 4));
    EXPECT_FALSE(variant_ajust_data_value(nullptr, 4));
}

TEST(VariantTypeNames, EveryTagHasItsNameBothWaysAndNothingElseMatches) {
    const char* const names[] = {"char",         "unsigned char", "short",     "unsigned short",
                                 "int",          "unsigned int",  "long",      "unsigned long",
                                 "long long",    "unsigned long long", "float", "double", "string", "bool"};
    for (TVARTYPE tag = TVT_CHAR; tag <= TVT_BOOL; ++tag) {
        const auto display = [tag](char* buffer, unsigned long& length) {
            return variant_resolve_display_type(tag, buffer, &length);
        };
        EXPECT_EQ(textFrom(display), names[tag - 1]);
        TVARTYPE found = 0;
        EXPECT_TRUE(variant_resolve_type(names[tag - 1], &found)) << names[tag - 1];
        EXPECT_EQ(found, tag) << names[tag - 1];
    }
    for (TVARTYPE tag : {TVARTYPE{TVT_EMPTY}, TVARTYPE{15}}) {
        size_t length = 77;
        EXPECT_FALSE(variant_resolve_display_type(tag, nullptr, &length)) << tag;
        EXPECT_EQ(length, 77u) << tag;
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
