// Value semantics of Variant, BStr and SafeArray.
#include <gtest/gtest.h>

#include <korvane/korvane.hpp>
#include <numeric>

using korvane::Variant;

TEST(CppVariant, EachScalarTypeGetsItsOwnTag) {
    const std::pair<Variant, TVARTYPE> table[] = {
        {'a', TVT_CHAR}, {static_cast<unsigned char>(1), TVT_BYTE}, {static_cast<short>(1), TVT_SHORT},
        {static_cast<unsigned short>(1), TVT_USHORT}, {1, TVT_INT}, {1u, TVT_UINT}, {1l, TVT_LONG},
        {1ul, TVT_ULONG}, {1ll, TVT_LONGLONG}, {1ull, TVT_ULONGLONG}, {1.0f, TVT_FLOAT}, {1.0, TVT_DOUBLE},
        {true, TVT_BOOL}, {"text", TVT_STRING}, {std::string_view("text"), TVT_STRING}, {Variant(), TVT_EMPTY},
    };
    for (const auto& [value, tag] : table)
        EXPECT_EQ(value.type(), tag);
}

TEST(CppVariant, CopiesAreDeepAndMovesLeaveEmpty) {
    Variant text("forty-two");
    Variant copy = text;
    text = Variant(7);
    Variant moved(std::move(copy));
    EXPECT_EQ(copy.type(), TVT_EMPTY);
    copy = std::move(moved);
    EXPECT_EQ(copy.to_string(), "forty-two");
}

TEST(CppVariant, TryGetConvertsACopyOrIsEmpty) {
    const Variant hex("0x2A");
    EXPECT_EQ(hex.try_get<int>(), 42);
    EXPECT_EQ(Variant(-4886718345ll).try_get<bool>(), std::nullopt); // a refused pair
}

TEST(CppVariantWrapper, ClonesOwnTheirValueAndReferencesAreGivenBack) {
    korvane::VariantWrapper original;
    original.bind_copy(Variant(5));
    const korvane::VariantWrapper clone = original.clone();
    original = korvane::VariantWrapper();
    EXPECT_EQ(clone.type(), "int");
    auto reader = clone.reader();
    EXPECT_EQ(reader->addRef(), 3); // the wrapper's, this Ref's and this call's
    reader->releaseRef();
}

TEST(CppBStr, ConvertsToAndFromStringViewKeepingInnerNuls) {
    korvane::BStr text;
    EXPECT_FALSE(text.has_value());
    text = std::string_view("a\0b", 3);
    EXPECT_EQ(std::string_view(text), std::string_view("a\0b", 3));
}

TEST(CppSafeArray, TypedCheckedAndIterable) {
    korvane::SafeArray<double> values(3);
    for (uint32_t i = 0; i < values.size(); ++i)
        EXPECT_TRUE(values.set(i, i + 0.5));
    EXPECT_EQ(std::accumulate(values.begin(), values.end(), 0.0), 4.5);
    EXPECT_THROW(values.at(3), std::out_of_range);
}
