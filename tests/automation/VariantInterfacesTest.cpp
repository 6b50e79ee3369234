// The library's reader and writer, reached as applications reach them:
// through a variant wrapper bound to a variant of the test's.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>
#include <utility>

#include "VariantTestHelpers.h"

namespace {

using namespace arraystest;

// Each getter resolves its own type: a double -1.0 read as every type shows
// the signedness of the resolution used.
TEST(VariantReader, EveryGetterResolvesItsOwnType) {
    Variant v;
    variant_set_double(v.get(), -1.0, true);
    Wrapper wrapper = wrapperOver(v.get());
    Reader reader(variant_wrapper_get_variantread(wrapper.get()));
    const auto read = [&reader](auto start) {
        EXPECT_TRUE(reader->getValue(start));
        return start;
    };
    EXPECT_EQ(read(static_cast<unsigned char>(9)), 0);
    EXPECT_EQ(read('9'), 0);
    EXPECT_EQ(read(static_cast<unsigned short>(9)), 0);
    EXPECT_EQ(read(static_cast<short>(9)), -1);
    EXPECT_EQ(read(9u), 0u);
    EXPECT_EQ(read(9), -1);
    EXPECT_EQ(read(9UL), 0u);
    EXPECT_EQ(read(9L), -1);
    EXPECT_EQ(read(9ULL), 0u);
    EXPECT_EQ(read(9LL), -1);
    EXPECT_EQ(read(9.0f), -1.0f);
    EXPECT_EQ(read(9.0), -1.0);
    bool flag = false;
    ASSERT_TRUE(reader->getValue(flag));
    EXPECT_EQ(byteOf(flag), 1);
    EXPECT_EQ(v->vt, TVT_DOUBLE);

    variant_set_longlong(v.get(), 2, true);
    ASSERT_TRUE(reader->getValue(flag));
    EXPECT_EQ(byteOf(flag), 2) << "the bool getter passes the raw byte of a refused long long";
}

struct TypeAndText {
    void (*make)(tagTVARIANT*);
    const char* type;
    const char* text;
};

TEST(VariantReader, TypeNameAndValueTextLeaveTheVariantAlone) {
    const TypeAndText rows[] = {
        {[](tagTVARIANT* v) { variant_set_char(v, static_cast<char>(-1), true); }, "char", "255"},
        {[](tagTVARIANT* v) { variant_set_ushort(v, 65535, true); }, "unsigned short", "65535"},
        {[](tagTVARIANT* v) { variant_set_int(v, -7, true); }, "int", "-7"},
        {[](tagTVARIANT* v) { variant_set_ulong(v, 1UL << 63, true); }, "unsigned long", "9223372036854775808"},
        {[](tagTVARIANT* v) { variant_set_longlong(v, -2, true); }, "long long", "-2"},
        {[](tagTVARIANT* v) { variant_set_float(v, 1.5f, true); }, "float", "1.500000"},
        {[](tagTVARIANT* v) { variant_set_double(v, -0.25, true); }, "double", "-0.250000"},
        {[](tagTVARIANT* v) { variant_set_string(v, "hello", true); }, "string", "hello"},
        {[](tagTVARIANT* v) { variant_set_bstrunit(v, nullptr); }, "string", ""},
        {[](tagTVARIANT* v) { variant_set_bool(v, true, true); }, "bool", "1"},
        {[](tagTVARIANT*) {}, "", ""},
        {[](tagTVARIANT* v) { setRaw(v, 99, 0x5A5A5A5A); }, "", ""},
    };
    for (const TypeAndText& row : rows) {
        Variant v;
        row.make(v.get());
        const tagTVARIANT before = *v.get();
        Wrapper wrapper = wrapperOver(v.get());
        Reader reader(variant_wrapper_get_variantread(wrapper.get()));
        EXPECT_EQ(textFrom(reader.get(), &IVariantRead::getType), row.type);
        EXPECT_EQ(textFrom(reader.get(), &IVariantRead::getValue), row.text) << row.type;
        EXPECT_EQ(std::memcmp(&before, v.get(), sizeof before), 0) << row.type;
    }
}

TEST(VariantReader, TextProtocolRefusesSmallBuffersAndStopsAtTheUnitsEnd) {
    Variant v;
    variant_set_int(v.get(), -5, true);
    Wrapper wrapper = wrapperOver(v.get());
    Reader reader(variant_wrapper_get_variantread(wrapper.get()));
    char buffer[8] = "#######";
    unsigned long length = 2;
    EXPECT_FALSE(reader->getValue(buffer, length));
    EXPECT_FALSE(reader->getType(buffer, length)) << "\"int\" needs 4 bytes";
    EXPECT_EQ(length, 2u);
    EXPECT_STREQ(buffer, "#######");
    EXPECT_TRUE(reader->getValue(nullptr, length));
    EXPECT_EQ(length, 3u);

    bstrunit* unit = bstrunit_alloc(3); // "abc" without a NUL
    std::memcpy(bstrunit_data(unit), "abc", 3);
    variant_set_bstrunit(v.get(), unit);
    bstrunit_free(unit);
    EXPECT_EQ(textFrom(reader.get(), &IVariantRead::getValue), "abc");
}

TEST(VariantWriter, EverySetterStoresItsOwnType) {
    Variant v;
    Wrapper wrapper = wrapperOver(v.get());
    Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    using Stored = std::pair<TVARTYPE, uint64_t>;
    const auto stored = [&v](bool answered) { return answered ? Stored(v->vt, v->value.bits) : Stored(0xFFFF, 0); };
    EXPECT_EQ(stored(writer->setValue(static_cast<unsigned char>(0xC8), true)), Stored(TVT_BYTE, 0xC8));
    EXPECT_EQ(stored(writer->setValue('A', true)), Stored(TVT_CHAR, 0x41));
    EXPECT_EQ(stored(writer->setValue(static_cast<unsigned short>(0xBEEF), true)), Stored(TVT_USHORT, 0xBEEF));
    EXPECT_EQ(stored(writer->setValue(static_cast<short>(-2), true)), Stored(TVT_SHORT, 0xFFFE));
    EXPECT_EQ(stored(writer->setValue(0xDEADBEEFu, true)), Stored(TVT_UINT, 0xDEADBEEF));
    EXPECT_EQ(stored(writer->setValue(-1, false)), Stored(TVT_INT, 0xFFFFFFFF));
    EXPECT_EQ(stored(writer->setValue(5UL, true)), Stored(TVT_ULONG, 5));
    EXPECT_EQ(stored(writer->setValue(-3L, true)), Stored(TVT_LONG, 0xFFFFFFFFFFFFFFFD));
    EXPECT_EQ(stored(writer->setValue(7ULL, true)), Stored(TVT_ULONGLONG, 7));
    EXPECT_EQ(stored(writer->setValue(-4LL, true)), Stored(TVT_LONGLONG, 0xFFFFFFFFFFFFFFFC));
    EXPECT_EQ(stored(writer->setValue(1.5f, true)), Stored(TVT_FLOAT, 0x3FC00000));
    EXPECT_EQ(stored(writer->setValue(1.5, true)), Stored(TVT_DOUBLE, 0x3FF8000000000000));
    EXPECT_EQ(stored(writer->setValue(true, true)), Stored(TVT_BOOL, 1));
    ASSERT_TRUE(writer->setValue("text", true));
    EXPECT_EQ(stringOf(v.get()), "text");
    EXPECT_TRUE(writer->setValue(static_cast<const char*>(nullptr), true));
    EXPECT_EQ(stringOf(v.get()), "text") << "a null text changes nothing";
}

// setType reports true whatever the conversion answered; existing callers
// rely on it.
TEST(VariantWriter, SetTypeConvertsAndAlwaysReportsSuccess) {
    Variant v;
    variant_set_string(v.get(), "42", true);
    Wrapper wrapper = wrapperOver(v.get());
    Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    ASSERT_TRUE(writer->setType("unsigned int"));
    EXPECT_EQ(v->vt, TVT_UINT);
    EXPECT_EQ(v->value.uintVal, 42u);
    EXPECT_TRUE(writer->setType("integer"));
    EXPECT_TRUE(writer->setType(nullptr));
    EXPECT_EQ(v->vt, TVT_UINT);
    variant_set_longlong(v.get(), 5, true);
    EXPECT_TRUE(writer->setType("bool"));
    EXPECT_EQ(v->vt, TVT_LONGLONG);
}

TEST(VariantInterfaceLookup, AnswersToItsOwnNamesAndCountsReferences) {
    Variant v;
    Wrapper wrapper = wrapperOver(v.get());
    IVariantRead* reader = variant_wrapper_get_variantread(wrapper.get()); // count 2
    Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    void* found = &found;
    EXPECT_FALSE(reader->queryInterface("IVariantWrite", &found));
    EXPECT_FALSE(reader->queryInterface("ibase", &found));
    EXPECT_FALSE(writer->queryInterface("IVariantRead", &found));
    EXPECT_EQ(found, &found) << "a failed lookup leaves out untouched";
    ASSERT_TRUE(reader->queryInterface("IBase", &found)); // count 3
    EXPECT_EQ(found, static_cast<void*>(reader));
    ASSERT_TRUE(reader->queryInterface("IVariantRead", &found)); // count 4
    ASSERT_TRUE(writer->queryInterface("IVariantWrite", &found));
    EXPECT_EQ(found, static_cast<void*>(writer.get()));
    EXPECT_EQ(writer->releaseRef(), 2);
    EXPECT_EQ(reader->addRef(), 5);
    for (int64_t expected : {4, 3, 2, 1}) // the wrapper's own reference remains
        EXPECT_EQ(reader->releaseRef(), expected);
}

TEST(VariantInterfaceLookup, ConcurrentReferencesBalanceExactly) {
    Wrapper wrapper(variant_wrapper_create());
    Reader reader(variant_wrapper_get_variantread(wrapper.get())); // count 2
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&reader] {
            for (int i = 0; i < 20000; ++i) {
                reader->addRef();
                reader->releaseRef();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(reader->addRef(), 3) << "a lost update would show here";
    reader->releaseRef();
}

TEST(VariantInterfaceLookup, HeldInterfacesOutliveTheWrapperUnbound) {
    Variant v;
    variant_set_int(v.get(), 12, true);
    variant_wrapper_handle* wrapper = variant_wrapper_create();
    variant_wrapper_set_mode(wrapper, true, true);
    variant_wrapper_set_wrapper_value(wrapper, v.get(), true);
    IVariantRead* reader = variant_wrapper_get_variantread(wrapper);
    IVariantWrite* writer = variant_wrapper_get_variantwrite(wrapper);
    variant_wrapper_destroy(&wrapper);
    int value = 0;
    EXPECT_FALSE(reader->getValue(value)) << "the owned copy is gone; the reader must not reach it";
    EXPECT_FALSE(writer->setValue(3, true));
    EXPECT_EQ(writer->releaseRef(), 0);
    EXPECT_EQ(reader->releaseRef(), 0); // deleted here; the leak checker sees it
}

} // namespace
