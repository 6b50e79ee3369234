// The interfaces across the library boundary: an application's reader (built
// against the public headers only) and the library's, called through the slots.
#include <gtest/gtest.h>

#include <tuple>
#include <utility>
#include <vector>

#include "AutomationTestSupport.h"
#include "application/ApplicationReader.h"

namespace {

using application::SensorState;
using namespace autotest;

// Fills a variant that held a string (freed by the clear, or the leak
// checker complains) from an application reader answering `state`.
std::string fillFrom(SensorState&& state, std::vector<std::string> expectedCalls) {
    Variant v;
    variant_set_string(v.get(), "old", true);
    const Reader reader(application::makeSensorReader(state));
    variant_set_variantread(v.get(), reader.get());
    EXPECT_EQ(state.calls, expectedCalls) << state.typeName;
    return describe(v.get());
}
SensorState sensor(const char* typeName, double number = 1, const char* text = "") {
    SensorState state;
    state.typeName = typeName, state.number = number, state.text = text;
    return state;
}

TEST(ApplicationInterfaces, PublicHeaderLaysOutTheFixedSlots) {
    const std::vector<long> expected = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 20};
    EXPECT_EQ(application::readerSlots(), expected);
    EXPECT_EQ(application::writerSlots(), expected);
}

// The reader's getter of the named type, and only that one, writes the value.
TEST(ApplicationInterfaces, ApplicationReaderFillsAVariantThroughTheNamedGetter) {
    const std::tuple<const char*, double, const char*> rows[] = {
        {"char", 65, "char:65"},     {"unsigned char", 200, "byte:200"}, {"short", -2, "short:-2"},
        {"int", -1, "int:-1"},       {"unsigned short", 65535, "ushort:65535"}, {"long", -3, "long:-3"},
        {"unsigned int", 4e9, "uint:4000000000"}, {"unsigned long", 5, "ulong:5"}, {"long long", -4, "ll:-4"},
        {"unsigned long long", 7, "ull:7"}, {"float", 1.5, "float:1.5"}, {"double", 2.5, "double:2.5"},
        {"bool", 1, "bool:1"}};
    for (const auto& [type, number, expected] : rows)
        EXPECT_EQ(fillFrom(sensor(type, number), {type}), expected);
    EXPECT_EQ(fillFrom(sensor("string", 0, "22.5 C"), {"text", "text"}), "string:'22.5 C'") << "size, then text";
    for (const char* unknown : {"Int", ""}) // no getter for tag 0
        EXPECT_EQ(fillFrom(sensor(unknown), {}), "empty");
    SensorState unterminated = sensor("bool"); // asks for 5 bytes, writes "bool" without a NUL
    unterminated.typeWritesNul = false;
    EXPECT_EQ(fillFrom(std::move(unterminated), {"bool"}), "bool:1");
    SensorState silent = sensor("int");
    silent.typeAnswers = false;
    EXPECT_EQ(fillFrom(std::move(silent), {}), "empty");
    Variant v;
    variant_set_string(v.get(), "old", true);
    variant_set_variantread(v.get(), nullptr);
    EXPECT_EQ(describe(v.get()), "empty");
}

TEST(ApplicationInterfaces, FinalReleaseRunsOnceBeforeTheObjectIsDeleted) {
    SensorState state;
    IVariantRead* reader = application::makeSensorReader(state);
    void* found = nullptr;
    EXPECT_TRUE(reader->addRef() == 2 && reader->queryInterface("IVariantRead", &found));
    EXPECT_TRUE(reader->releaseRef() == 2 && reader->releaseRef() == 1 && state.lifecycle.empty());
    EXPECT_EQ(reader->releaseRef(), 0);
    EXPECT_EQ(state.lifecycle, (std::vector<std::string>{"final release", "destroyed"}));
}

TEST(ApplicationInterfaces, ApplicationUsesTheLibraryReaderAndWriter) {
    Variant v, copy;
    variant_set_short(v.get(), -300, true);
    const Wrapper wrapper = wrapperOver(v.get());
    const Reader reader(variant_wrapper_get_variantread(wrapper.get())); // count 2
    const application::LibraryReading reading = application::readThroughSlots(reader.get());
    EXPECT_TRUE(reading.typeName == "short" && reading.asInt == -300 && reading.text == "-300");
    EXPECT_TRUE(reading.refusedWriter && reading.countAfterQuery == 4);
    variant_set_variantread(copy.get(), reader.get());
    EXPECT_EQ(describe(copy.get()), "short:-300");
    const Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    EXPECT_TRUE(application::writeThroughSlots(writer.get(), 300, "double"));
    EXPECT_EQ(describe(v.get()), "double:300");
    variant_set_string(v.get(), "from the library", true);
    variant_set_variantread(copy.get(), reader.get());
    EXPECT_EQ(describe(copy.get()), "string:'from the library'");
}

} // namespace
