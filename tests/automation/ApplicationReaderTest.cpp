// The interfaces across the library boundary: a reader implemented by the
// application (compiled against the public headers only) filling a variant
// through variant_set_variantread, and the application calling the
// library's reader and writer through the public header's slots.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "VariantTestHelpers.h"
#include "application/ApplicationReader.h"

namespace {

using application::SensorState;
using namespace arraystest;

void fillFrom(tagTVARIANT* v, SensorState& state) {
    Reader reader(application::makeSensorReader(state));
    variant_set_variantread(v, reader.get());
}

TEST(ApplicationInterfaces, PublicHeaderLaysOutTheFixedSlots) {
    const std::vector<long> expected = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 20};
    EXPECT_EQ(application::readerSlots(), expected);
    EXPECT_EQ(application::writerSlots(), expected);
}

struct ScalarFill {
    const char* typeName;
    double number;
    TVARTYPE tag;
    uint64_t bits;
};

// The reader's getter of the named type writes straight into the value.
TEST(ApplicationInterfaces, ApplicationReaderFillsAVariantThroughTheNamedGetter) {
    const ScalarFill rows[] = {
        {"char", 65, TVT_CHAR, 0x41},
        {"unsigned char", 200, TVT_BYTE, 0xC8},
        {"short", -2, TVT_SHORT, 0xFFFE},
        {"unsigned short", 65535, TVT_USHORT, 0xFFFF},
        {"int", -1, TVT_INT, 0xFFFFFFFF},
        {"unsigned int", 4000000000.0, TVT_UINT, 4000000000u},
        {"long", -3, TVT_LONG, 0xFFFFFFFFFFFFFFFD},
        {"unsigned long", 5, TVT_ULONG, 5},
        {"long long", -4, TVT_LONGLONG, 0xFFFFFFFFFFFFFFFC},
        {"unsigned long long", 7, TVT_ULONGLONG, 7},
        {"float", 1.5, TVT_FLOAT, 0x3FC00000},
        {"double", 2.5, TVT_DOUBLE, 0x4004000000000000},
        {"bool", 1, TVT_BOOL, 1},
    };
    for (const ScalarFill& row : rows) {
        SensorState state;
        state.typeName = row.typeName;
        state.number = row.number;
        Variant v;
        variant_set_string(v.get(), "old", true); // cleared, and freed, first
        fillFrom(v.get(), state);
        EXPECT_EQ(v->vt, row.tag) << row.typeName;
        EXPECT_EQ(v->value.bits, row.bits) << row.typeName;
        EXPECT_EQ(state.calls, std::vector<std::string>{row.typeName});
    }
}

TEST(ApplicationInterfaces, ApplicationReaderStringsAndUnknownTypes) {
    SensorState text;
    text.typeName = "string";
    text.text = "22.5 C";
    Variant v;
    fillFrom(v.get(), text);
    EXPECT_EQ(stringOf(v.get()), "22.5 C");
    EXPECT_EQ(text.calls, (std::vector<std::string>{"text", "text"})) << "size first, then the text";

    SensorState unterminated; // asks for 5 bytes, writes "bool" without a NUL
    unterminated.typeName = "bool";
    unterminated.typeWritesNul = false;
    unterminated.number = 1;
    fillFrom(v.get(), unterminated);
    EXPECT_EQ(v->vt, TVT_BOOL);

    for (const char* name : {"Int", "", "integer"}) {
        SensorState unknown;
        unknown.typeName = name;
        fillFrom(v.get(), unknown);
        EXPECT_EQ(v->vt, TVT_EMPTY) << '"' << name << '"';
        EXPECT_TRUE(unknown.calls.empty()) << "no getter is called for tag 0";
    }
    SensorState silent;
    silent.typeName = "int";
    silent.typeAnswers = false;
    variant_set_int(v.get(), 3, true);
    fillFrom(v.get(), silent);
    EXPECT_EQ(v->vt, TVT_EMPTY);
    variant_set_int(v.get(), 3, true);
    variant_set_variantread(v.get(), nullptr);
    EXPECT_EQ(v->vt, TVT_EMPTY);
}

TEST(ApplicationInterfaces, FinalReleaseRunsOnceBeforeTheObjectIsDeleted) {
    SensorState state;
    IVariantRead* reader = application::makeSensorReader(state);
    EXPECT_EQ(reader->addRef(), 2);
    void* found = nullptr;
    ASSERT_TRUE(reader->queryInterface("IVariantRead", &found));
    EXPECT_EQ(reader->releaseRef(), 2);
    EXPECT_EQ(reader->releaseRef(), 1);
    EXPECT_TRUE(state.lifecycle.empty());
    EXPECT_EQ(reader->releaseRef(), 0);
    EXPECT_EQ(state.lifecycle, (std::vector<std::string>{"final release", "destroyed"}));
}

TEST(ApplicationInterfaces, ApplicationUsesTheLibraryReaderAndWriter) {
    Variant v;
    variant_set_short(v.get(), -300, true);
    Wrapper wrapper = wrapperOver(v.get());
    Reader reader(variant_wrapper_get_variantread(wrapper.get())); // count 2
    const application::LibraryReading reading = application::readThroughSlots(reader.get());
    EXPECT_EQ(reading.typeName, "short");
    EXPECT_EQ(reading.asInt, -300);
    EXPECT_EQ(reading.text, "-300");
    EXPECT_TRUE(reading.refusedWriter);
    EXPECT_EQ(reading.countAfterQuery, 4);

    Variant copy;
    variant_set_variantread(copy.get(), reader.get());
    EXPECT_EQ(copy->vt, TVT_SHORT);
    EXPECT_EQ(copy->value.shortVal, -300);

    Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    EXPECT_TRUE(application::writeThroughSlots(writer.get(), 300, "double"));
    EXPECT_EQ(v->vt, TVT_DOUBLE);
    EXPECT_EQ(v->value.doubleVal, 300.0);
    variant_set_string(v.get(), "from the library", true);
    variant_set_variantread(copy.get(), reader.get());
    EXPECT_EQ(stringOf(copy.get()), "from the library");
}

} // namespace
