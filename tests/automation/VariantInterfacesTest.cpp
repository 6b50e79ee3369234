// The library's reader and writer, and the variant wrapper that binds them to
// a variant and hands them out.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;

TEST(VariantReader, EveryGetterResolvesItsOwnTypeAndLeavesTheVariantAlone) {
    Variant v;
    variant_set_double(v.get(), -1.0, true);
    const Wrapper wrapper = wrapperOver(v.get());
    const Reader reader(variant_wrapper_get_variantread(wrapper.get()));
    const auto read = [&reader](auto start) { return reader->getValue(start) ? double(start) : 9.0; };
    const std::vector<double> values = {read((unsigned char)9), read('9'), read((unsigned short)9), read((short)9),
                                        read(9u), read(9), read(9UL), read(9L), read(9ULL), read(9LL),
                                        read(9.0f), read(9.0)};
    EXPECT_EQ(values, (std::vector<double>{0, 0, 0, -1, 0, -1, 0, -1, 0, -1, -1, -1})) << "signedness of each";
    bool flag = false;
    unsigned char byte = 0;
    EXPECT_TRUE(reader->getValue(flag) && (std::memcpy(&byte, &flag, 1), byte == 1));
    EXPECT_EQ(describe(v.get()), "double:-1");
    variant_set_longlong(v.get(), 2, true);
    EXPECT_TRUE(reader->getValue(flag) && (std::memcpy(&byte, &flag, 1), byte == 2)) << "the raw byte, on purpose";
    const std::tuple<Filler, const char*, const char*> texts[] = {
        {setTo(variant_set_int, -7), "int", "-7"}, {text("hello"), "string", "hello"},
        {[](tagTVARIANT* v) { variant_set_bstrunit(v, rawUnit("abc").get()); }, "string", "abc"}, // no NUL
        {[](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); }, "string", ""},
        {raw(TVT_EMPTY, 0), "", ""}, {raw(kUnknownTag, 0x5A5A5A5A), "", ""}};
    IVariantRead* r = reader.get();
    for (const auto& [make, type, value] : texts) {
        variant_clear(v.get());
        make(v.get());
        const tagTVARIANT before = *v.get();
        EXPECT_EQ(textFrom([r](char* buffer, unsigned long& n) { return r->getType(buffer, n); }), type);
        EXPECT_EQ(textFrom([r](char* buffer, unsigned long& n) { return r->getValue(buffer, n); }), value);
        EXPECT_EQ(std::memcmp(&before, v.get(), sizeof before), 0) << type;
    }
}

TEST(VariantWriter, EverySetterStoresItsOwnTypeAndSetTypeAlwaysSucceeds) {
    Variant v;
    const Wrapper wrapper = wrapperOver(v.get());
    const Writer w(variant_wrapper_get_variantwrite(wrapper.get()));
    std::vector<std::string> stored;
    const auto store = [&stored, &v](bool answered) { stored.push_back(answered ? describe(v.get()) : "<refused>"); };
    store(w->setValue((unsigned char)200, true)), store(w->setValue('A', true));
    store(w->setValue((unsigned short)65535, true)), store(w->setValue((short)-2, true));
    store(w->setValue(4000000000u, true)), store(w->setValue(-1, false)), store(w->setValue(5UL, true));
    store(w->setValue(-3L, true)), store(w->setValue(7ULL, true)), store(w->setValue(-4LL, true));
    store(w->setValue(1.5f, true)), store(w->setValue(2.5, true)), store(w->setValue(true, true));
    store(w->setValue("42", true)), store(w->setValue((const char*)nullptr, true)); // null: no change
    store(w->setType("unsigned int"));
    EXPECT_EQ(stored, (std::vector<std::string>{"byte:200", "char:65", "ushort:65535", "short:-2", "uint:4000000000",
                                                "int:-1", "ulong:5", "long:-3", "ull:7", "ll:-4", "float:1.5",
                                                "double:2.5", "bool:1", "string:'42'", "string:'42'", "uint:42"}));
    for (const char* refused : {"integer", "bool", (const char*)nullptr}) { // still true, on purpose
        variant_set_longlong(v.get(), 5, true);
        EXPECT_TRUE(w->setType(refused) && describe(v.get()) == "ll:5") << (refused ? refused : "null");
    }
}

TEST(VariantInterfaceLookup, AnswersToItsOwnNamesAndCountsReferences) {
    Variant v;
    const Wrapper wrapper = wrapperOver(v.get());
    IVariantRead* reader = variant_wrapper_get_variantread(wrapper.get());
    EXPECT_EQ(variant_wrapper_get_variantread(wrapper.get()), reader); // two hand-outs: count 3
    const Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    void* found = &found;
    EXPECT_FALSE(reader->queryInterface("IVariantWrite", &found) || reader->queryInterface("ibase", &found) ||
                 writer->queryInterface("IVariantRead", &found) || found != &found);
    EXPECT_TRUE(reader->queryInterface("IBase", &found) && found == reader);
    EXPECT_TRUE(reader->queryInterface("IVariantRead", &found) && found == reader);
    EXPECT_TRUE(writer->queryInterface("IVariantWrite", &found) && found == writer.get());
    EXPECT_TRUE(writer->releaseRef() == 2 && reader->addRef() == 6);
    for (int64_t expected : {5, 4, 3, 2, 1}) // the wrapper's own reference remains
        EXPECT_EQ(reader->releaseRef(), expected);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([reader] {
            for (int i = 0; i < 20000; ++i)
                reader->addRef(), reader->releaseRef();
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(reader->addRef(), 2) << "concurrent references must balance exactly";
    reader->releaseRef();
}

TEST(VariantWrapper, NewWrapperIsReadableOnlyUnboundAndNullHandlesDoNothing) {
    const Wrapper wrapper(variant_wrapper_create());
    unsigned long length = 3;
    EXPECT_EQ(variant_wrapper_get_variantwrite(wrapper.get()), nullptr);
    EXPECT_NE(Reader(variant_wrapper_get_variantread(wrapper.get())), nullptr);
    EXPECT_FALSE(variant_wrapper_get_wrapper_value(wrapper.get()) || variant_wrapper_set_type(wrapper.get(), "int") ||
                 variant_wrapper_get_type(wrapper.get(), nullptr, &length));
    variant_wrapper_set_mode(wrapper.get(), false, true);
    EXPECT_EQ(variant_wrapper_get_variantread(wrapper.get()), nullptr);
    EXPECT_NE(Writer(variant_wrapper_get_variantwrite(wrapper.get())), nullptr);
    Variant v;
    variant_wrapper_set_mode(nullptr, true, true);
    variant_wrapper_set_wrapper_value(nullptr, v.get(), true);
    EXPECT_FALSE(variant_wrapper_get_type(nullptr, nullptr, &length) || variant_wrapper_set_type(nullptr, "int") ||
                 variant_wrapper_get_wrapper_value(nullptr) || variant_wrapper_get_variantread(nullptr) ||
                 variant_wrapper_get_variantwrite(nullptr) || variant_wrapper_clone(nullptr));
    variant_wrapper_handle* none = nullptr;
    variant_wrapper_destroy(&none);
    EXPECT_EQ(none, nullptr);
}

TEST(VariantWrapper, BorrowedValueIsWrittenInPlaceAndCopiedValueIsPrivate) {
    Variant v;
    variant_set_string(v.get(), "42", true);
    const Wrapper wrapper = wrapperOver(v.get());
    const auto typeText = [&wrapper](char* buffer, unsigned long& length) {
        return variant_wrapper_get_type(wrapper.get(), buffer, &length);
    };
    EXPECT_TRUE(variant_wrapper_get_wrapper_value(wrapper.get()) == v.get() && textFrom(typeText) == "string");
    EXPECT_TRUE(variant_wrapper_set_type(wrapper.get(), "short") && variant_wrapper_set_type(wrapper.get(), "?"));
    EXPECT_TRUE(describe(v.get()) == "short:42" && textFrom(typeText) == "short");
    variant_wrapper_set_wrapper_value(wrapper.get(), v.get(), true);
    tagTVARIANT* owned = variant_wrapper_get_wrapper_value(wrapper.get());
    const Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    EXPECT_TRUE(owned != v.get() && writer->setValue(7, true));
    EXPECT_TRUE(describe(owned) == "int:7" && describe(v.get()) == "short:42");
    // Binding the wrapper's own copy again keeps it; a new value frees it
    // (the leak checker sees to that); null unbinds whatever the copy flag.
    variant_wrapper_set_wrapper_value(wrapper.get(), owned, true);
    EXPECT_TRUE(variant_wrapper_get_wrapper_value(wrapper.get()) == owned && describe(owned) == "int:7");
    variant_wrapper_set_wrapper_value(wrapper.get(), v.get(), true);
    variant_wrapper_set_wrapper_value(wrapper.get(), nullptr, true);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), nullptr);
    EXPECT_FALSE(writer->setValue(1, true)) << "the writer follows the wrapper's binding";
}

TEST(VariantWrapper, CloneOwnsACopyAndKeepsTheMode) {
    Variant v;
    variant_set_string(v.get(), "shared?", true);
    const Wrapper original(variant_wrapper_create()), unbound(variant_wrapper_create());
    variant_wrapper_set_mode(original.get(), false, true);
    variant_wrapper_set_wrapper_value(original.get(), v.get(), false);
    const Wrapper clone(variant_wrapper_clone(original.get())), unboundClone(variant_wrapper_clone(unbound.get()));
    tagTVARIANT* copy = variant_wrapper_get_wrapper_value(clone.get());
    ASSERT_TRUE(copy != nullptr && copy != v.get());
    variant_set_int(v.get(), 1, true);
    EXPECT_EQ(describe(copy), "string:'shared?'");
    EXPECT_EQ(variant_wrapper_get_variantread(clone.get()), nullptr);
    EXPECT_TRUE(Writer(variant_wrapper_get_variantwrite(clone.get()))->setValue(2.5, true));
    EXPECT_EQ(describe(copy), "double:2.5") << "the clone's writer points at the clone's copy";
    EXPECT_TRUE(unboundClone != nullptr && variant_wrapper_get_wrapper_value(unboundClone.get()) == nullptr);
}

// Interfaces still held survive the wrapper, unbound: a late call answers
// false instead of reaching a freed copy.
TEST(VariantWrapper, DestroyFreesAnOwnedCopyLeavesABorrowedValueAndUnbindsHeldInterfaces) {
    Variant borrowed, owned;
    variant_set_string(borrowed.get(), "stays", true);
    variant_set_string(owned.get(), "copied and freed", true);
    for (tagTVARIANT* value : {borrowed.get(), owned.get()}) {
        variant_wrapper_handle* wrapper = variant_wrapper_create();
        variant_wrapper_set_mode(wrapper, true, true);
        variant_wrapper_set_wrapper_value(wrapper, value, value == owned.get());
        IVariantRead* reader = variant_wrapper_get_variantread(wrapper);
        IVariantWrite* writer = variant_wrapper_get_variantwrite(wrapper);
        variant_wrapper_destroy(&wrapper);
        int number = 0;
        EXPECT_FALSE(wrapper != nullptr || reader->getValue(number) || writer->setValue(3, true));
        EXPECT_TRUE(writer->releaseRef() == 0 && reader->releaseRef() == 0);
    }
    EXPECT_EQ(describe(borrowed.get()), "string:'stays'");
}

} // namespace
