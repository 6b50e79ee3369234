// Value resolution, bit-width narrowing and the type-name table.
#include <gtest/gtest.h>

#include <tuple>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

// Each getter's type and signedness is checked through the reader's slots.
TEST(VariantResolveAs, ConvertsAPrivateCopyAndNeverTheVariant) {
    Variant v;
    variant_set_string(v.get(), "0x10", true);
    const tagTVARIANT before = *v.get();
    EXPECT_EQ(variant_resolve_as_int(v.get()), 16);
    EXPECT_EQ(std::memcmp(&before, v.get(), sizeof before), 0);
    EXPECT_EQ(describe(v.get()), "string:'0x10'") << "the conversion consumed the variant's own unit";
}

TEST(VariantAjustDataValue, NarrowsIntegersToTheBitWidthAndRefusesTheRest) {
    const std::tuple<TVARTYPE, uint64_t, uint32_t, uint64_t> rows[] = { // tag, value union before, bits, after
        // Unsigned 32/64-bit keep the low bits (the shift is taken modulo the width); bytes above stay.
        {TVT_UINT, 0xABABABABFFFFFFFF, 8, 0xABABABAB000000FF}, {TVT_UINT, 0xFFFFFFFF, 0, 0xFFFFFFFF},
        {TVT_UINT, 0xFFFFFFFF, 40, 0xFF}, {TVT_ULONG, ~0ull, 12, 0xFFF}, {TVT_ULONGLONG, 1ull << 63, 64, 1ull << 63},
        {TVT_USHORT, 0xFFFF, 8, 0xFFFF}, {TVT_BYTE, 0xFF, 20, 0xFF}, // never masked, on purpose
        // Signed: a set bit (bits - 1) fills every higher bit; a clear one leaves the upper bits as they are.
        {TVT_INT, 0xABABABAB0000000F, 4, 0xABABABABFFFFFFFF}, {TVT_INT, 0x17, 4, 0x17}, {TVT_INT, 5, 0, 5},
        {TVT_CHAR, 0xABABABABABABAB08, 4, 0xABABABABABABABF8}, {TVT_SHORT, 0x80, 8, 0xFF80},
        {TVT_LONG, 0x8000, 16, 0xFFFFFFFFFFFF8000}, {TVT_LONGLONG, 0xF0, 4, 0xF0},
    };
    for (const auto& [tag, before, bits, after] : rows) {
        Variant v;
        raw(tag, before)(v.get());
        SCOPED_TRACE(describe(v.get()) + " to " + std::to_string(bits) + " bits");
        EXPECT_TRUE(variant_ajust_data_value(v.get(), bits));
        EXPECT_EQ(v->value.bits, after);
    }
    for (TVARTYPE tag : {TVARTYPE{TVT_FLOAT}, TVARTYPE{TVT_BOOL}, TVARTYPE{TVT_EMPTY}, kUnknownTag}) {
        Variant v;
        raw(tag, 0xFF)(v.get());
        EXPECT_FALSE(variant_ajust_data_value(v.get(), 4)) << tag;
        EXPECT_EQ(v->value.bits, 0xFFu) << tag;
    }
}

TEST(VariantTypeNames, EveryTagHasItsNameBothWaysAndNothingElseMatches) {
    const char* const names[] = {"char",         "unsigned char", "short",     "unsigned short",
                                 "int",          "unsigned int",  "long",      "unsigned long",
                                 "long long",    "unsigned long long", "float", "double", "string", "bool"};
    for (TVARTYPE tag = TVT_CHAR; tag <= TVT_BOOL; ++tag) {
        const auto display = [tag](char* buffer, unsigned long& n) { return variant_resolve_display_type(tag, buffer, &n); };
        TVARTYPE found = 0;
        EXPECT_EQ(textFrom(display), names[tag - 1]);
        EXPECT_TRUE(variant_resolve_type(names[tag - 1], &found)) << names[tag - 1];
        EXPECT_EQ(found, tag) << names[tag - 1];
    }
    size_t length = 77;
    EXPECT_FALSE(variant_resolve_display_type(15, nullptr, &length));
    EXPECT_EQ(length, 77u);
    TVARTYPE found = 5;
    EXPECT_FALSE(variant_resolve_type("int ", &found)) << "names match exactly";
    EXPECT_EQ(found, 0) << "an unknown name stores tag 0";
    found = 5;
    EXPECT_FALSE(variant_resolve_type(nullptr, &found));
    EXPECT_EQ(found, 5) << "a null name leaves the tag alone";
}

} // namespace
