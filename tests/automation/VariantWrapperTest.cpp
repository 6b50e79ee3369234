// The variant wrapper: borrowed and owned values, the mode, the type text and
// change, cloning and destruction.
#include <gtest/gtest.h>

#include <string>

#include "VariantTestHelpers.h"

namespace {

using namespace arraystest;

std::string typeOf(variant_wrapper_handle* wrapper) {
    unsigned long length = 0;
    if (!variant_wrapper_get_type(wrapper, nullptr, &length))
        return "<refused>";
    std::string text(length, '#');
    return variant_wrapper_get_type(wrapper, &text[0], &length) ? text.c_str() : "<refused>";
}

TEST(VariantWrapper, NewWrapperIsReadableOnlyAndUnbound) {
    Wrapper wrapper(variant_wrapper_create());
    EXPECT_EQ(variant_wrapper_get_variantwrite(wrapper.get()), nullptr);
    IVariantRead* first = variant_wrapper_get_variantread(wrapper.get());
    IVariantRead* second = variant_wrapper_get_variantread(wrapper.get());
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->addRef(), 4) << "two hand-outs raise the count from 1 to 3";
    for (int64_t expected : {3, 2, 1})
        EXPECT_EQ(first->releaseRef(), expected);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), nullptr);
    EXPECT_EQ(typeOf(wrapper.get()), "<refused>");
    EXPECT_FALSE(variant_wrapper_set_type(wrapper.get(), "int"));

    variant_wrapper_set_mode(wrapper.get(), false, true);
    EXPECT_EQ(variant_wrapper_get_variantread(wrapper.get()), nullptr);
    Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    EXPECT_NE(writer, nullptr);
}

TEST(VariantWrapper, NullHandleDoesNothing) {
    Variant v;
    unsigned long length = 3;
    variant_wrapper_set_mode(nullptr, true, true);
    variant_wrapper_set_wrapper_value(nullptr, v.get(), true);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(nullptr), nullptr);
    EXPECT_FALSE(variant_wrapper_get_type(nullptr, nullptr, &length));
    EXPECT_FALSE(variant_wrapper_set_type(nullptr, "int"));
    EXPECT_EQ(variant_wrapper_get_variantread(nullptr), nullptr);
    EXPECT_EQ(variant_wrapper_get_variantwrite(nullptr), nullptr);
    EXPECT_EQ(variant_wrapper_clone(nullptr), nullptr);
    variant_wrapper_handle* none = nullptr;
    variant_wrapper_destroy(&none);
    EXPECT_EQ(none, nullptr);
    variant_wrapper_destroy(nullptr);
}

TEST(VariantWrapper, BorrowedValueIsWrittenInPlaceAndCopiedValueIsPrivate) {
    Variant v;
    variant_set_string(v.get(), "original", true);
    Wrapper wrapper = wrapperOver(v.get());
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), v.get());
    Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    ASSERT_TRUE(writer->setValue("written", true));
    EXPECT_EQ(stringOf(v.get()), "written");

    variant_wrapper_set_wrapper_value(wrapper.get(), v.get(), true);
    tagTVARIANT* owned = variant_wrapper_get_wrapper_value(wrapper.get());
    ASSERT_NE(owned, v.get());
    ASSERT_TRUE(writer->setValue(7, true));
    EXPECT_EQ(owned->value.intVal, 7);
    EXPECT_EQ(stringOf(v.get()), "written");

    // Binding the wrapper's own copy again keeps it; a new value frees it
    // (the leak checker sees to that); null unbinds whatever the copy flag.
    variant_wrapper_set_wrapper_value(wrapper.get(), owned, true);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), owned);
    EXPECT_EQ(owned->value.intVal, 7);
    variant_wrapper_set_wrapper_value(wrapper.get(), v.get(), true);
    variant_wrapper_set_wrapper_value(wrapper.get(), nullptr, true);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), nullptr);
    EXPECT_FALSE(writer->setValue(1, true)) << "the writer follows the wrapper's binding";
}

TEST(VariantWrapper, TypeTextAndChangeGoThroughTheBoundVariant) {
    Variant v;
    variant_set_string(v.get(), "17", true);
    Wrapper wrapper = wrapperOver(v.get());
    EXPECT_EQ(typeOf(wrapper.get()), "string");
    EXPECT_TRUE(variant_wrapper_set_type(wrapper.get(), "short"));
    EXPECT_EQ(v->value.shortVal, 17);
    EXPECT_EQ(typeOf(wrapper.get()), "short");
    char small[4] = "###";
    unsigned long length = sizeof small;
    EXPECT_FALSE(variant_wrapper_get_type(wrapper.get(), small, &length));
    EXPECT_EQ(length, sizeof small);
    EXPECT_STREQ(small, "###");
}

TEST(VariantWrapper, CloneOwnsACopyAndKeepsTheMode) {
    Variant v;
    variant_set_string(v.get(), "shared?", true);
    Wrapper original(variant_wrapper_create());
    variant_wrapper_set_mode(original.get(), false, true);
    variant_wrapper_set_wrapper_value(original.get(), v.get(), false);
    Wrapper clone(variant_wrapper_clone(original.get()));
    tagTVARIANT* copy = variant_wrapper_get_wrapper_value(clone.get());
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, v.get());
    variant_set_int(v.get(), 1, true);
    EXPECT_EQ(stringOf(copy), "shared?");
    EXPECT_EQ(variant_wrapper_get_variantread(clone.get()), nullptr);
    Writer writer(variant_wrapper_get_variantwrite(clone.get()));
    ASSERT_TRUE(writer->setValue(2.5, true));
    EXPECT_EQ(copy->vt, TVT_DOUBLE) << "the clone's writer points at the clone's copy";

    Wrapper unbound(variant_wrapper_create());
    Wrapper unboundClone(variant_wrapper_clone(unbound.get()));
    ASSERT_NE(unboundClone, nullptr);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(unboundClone.get()), nullptr);
}

TEST(VariantWrapper, DestroyFreesAnOwnedCopyAndLeavesABorrowedValue) {
    Variant borrowed, owned;
    variant_set_string(borrowed.get(), "stays", true);
    variant_set_string(owned.get(), "copied and freed", true);
    variant_wrapper_handle* borrowing = variant_wrapper_create();
    variant_wrapper_handle* owning = variant_wrapper_create();
    variant_wrapper_set_wrapper_value(borrowing, borrowed.get(), false);
    variant_wrapper_set_wrapper_value(owning, owned.get(), true);
    variant_wrapper_destroy(&borrowing);
    variant_wrapper_destroy(&owning);
    EXPECT_EQ(borrowing, nullptr);
    EXPECT_EQ(owning, nullptr);
    EXPECT_EQ(stringOf(borrowed.get()), "stays");
}

} // namespace
