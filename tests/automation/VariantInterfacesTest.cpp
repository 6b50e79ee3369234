// The library's reader and writer, an application's own reader, and the
// variant wrapper that binds a variant to them and hands them out.
#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <thread>
#include <tuple>
#include <vector>

#include "AutomationTestSupport.h"

namespace {

using namespace autotest;
using Log = std::vector<std::string>;

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
    const auto boolByte = [&reader] {
        bool flag = false;
        unsigned char byte = 9;
        if (reader->getValue(flag))
            std::memcpy(&byte, &flag, 1);
        return int(byte);
    };
    EXPECT_EQ(boolByte(), 1);
    EXPECT_EQ(describe(v.get()), "double:-1");
    variant_set_longlong(v.get(), 2, true);
    EXPECT_EQ(boolByte(), 2) << "the raw byte, on purpose";
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

// Applications built without this header call the operations by their fixed
// slot numbers: the library's writer by its setter slots 4 to 17, each
// storing its own type (the tag it leaves), and so on for the reader below.
std::vector<int> tagsBySlot(IVariantWrite* writer, tagTVARIANT* v) {
    using Slot = bool (*)(IVariantWrite*, const char*, bool);
    void** slots = *reinterpret_cast<void***>(writer);
    alignas(256) static const char text[] = "7"; // the text setter's; a byte setter sees the low byte, 0
    std::vector<int> tags;
    for (int slot = 4; slot <= 17; ++slot) {
        reinterpret_cast<Slot>(slots[slot])(writer, text, true);
        tags.push_back(v->vt);
    }
    return tags;
}

TEST(VariantWriter, EverySlotStoresItsOwnTypeAndSetTypeAlwaysSucceeds) {
    Variant v;
    const Wrapper wrapper = wrapperOver(v.get());
    const Writer w(variant_wrapper_get_variantwrite(wrapper.get()));
    EXPECT_EQ(tagsBySlot(w.get(), v.get()), (std::vector<int>{2, 1, 4, 3, 6, 5, 8, 7, 10, 9, 11, 12, 13, 14}));
    EXPECT_TRUE(w->setValue("42", true));
    EXPECT_TRUE(w->setValue((const char*)nullptr, true));
    EXPECT_EQ(describe(v.get()), "string:'42'") << "a null text changes nothing";
    EXPECT_TRUE(w->setType("unsigned int"));
    EXPECT_EQ(describe(v.get()), "uint:42");
    for (const char* refused : {"integer", "bool", (const char*)nullptr}) { // still true, on purpose
        variant_set_longlong(v.get(), 5, true);
        EXPECT_TRUE(w->setType(refused)) << (refused ? refused : "null");
        EXPECT_EQ(describe(v.get()), "ll:5") << (refused ? refused : "null");
    }
}

TEST(VariantInterfaceLookup, AnswersToItsOwnNamesAndCountsReferences) {
    Variant v;
    const Wrapper wrapper = wrapperOver(v.get());
    IVariantRead* reader = variant_wrapper_get_variantread(wrapper.get());
    EXPECT_EQ(variant_wrapper_get_variantread(wrapper.get()), reader); // two hand-outs: count 3
    const Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    const std::tuple<IBase*, const char*, bool> names[] = {
        {reader, "IVariantWrite", false}, {reader, "ibase", false}, {writer.get(), "IVariantRead", false},
        {reader, "IBase", true}, {reader, "IVariantRead", true}, {writer.get(), "IVariantWrite", true}};
    for (const auto& [object, name, answers] : names) {
        void* found = &found;
        EXPECT_EQ(object->queryInterface(name, &found), answers) << name;
        EXPECT_EQ(found, answers ? static_cast<void*>(object) : &found) << name;
    }
    EXPECT_EQ(writer->releaseRef(), 2);
    EXPECT_EQ(reader->addRef(), 6);
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

// An application's own reader: each call is logged by the operation it
// serves; every getter answers `number` cast to its type, text gives `text`.
class AppReader : public IVariantReadStub {
public:
    AppReader(Log& log, std::string type, double number = 1) : log(log), type(std::move(type)), number(number) {}
    bool getType(char* buffer, unsigned long& length) override {
        log.push_back("type");
        if (buffer != nullptr && length >= type.size() + 1) // a name without its NUL must do too
            std::memcpy(buffer, type.c_str(), type.size() + (typeWritesNul ? 1 : 0));
        length = type.size() + 1;
        return type != "<silent>";
    }
    bool getValue(unsigned char& v) override { return answer(v, "unsigned char"); }
    bool getValue(char& v) override { return answer(v, "char"); }
    bool getValue(unsigned short& v) override { return answer(v, "unsigned short"); }
    bool getValue(short& v) override { return answer(v, "short"); }
    bool getValue(unsigned int& v) override { return answer(v, "unsigned int"); }
    bool getValue(int& v) override { return answer(v, "int"); }
    bool getValue(unsigned long& v) override { return answer(v, "unsigned long"); }
    bool getValue(long& v) override { return answer(v, "long"); }
    bool getValue(unsigned long long& v) override { return answer(v, "unsigned long long"); }
    bool getValue(long long& v) override { return answer(v, "long long"); }
    bool getValue(float& v) override { return answer(v, "float"); }
    bool getValue(double& v) override { return answer(v, "double"); }
    bool getValue(bool& v) override { return answer(v, "bool"); }
    bool getValue(char* buffer, unsigned long& length) override {
        log.push_back("text");
        if (buffer != nullptr && length >= sizeof "22.5 C")
            std::memcpy(buffer, "22.5 C", sizeof "22.5 C");
        length = sizeof "22.5 C";
        return true;
    }
    void onFinalRelease() override { log.push_back("final release"); }
    bool typeWritesNul = true;

protected:
    ~AppReader() override { log.push_back("destroyed"); }

private:
    template <class T>
    bool answer(T& value, const char* name) {
        log.push_back(name);
        value = static_cast<T>(number);
        return true;
    }
    Log& log;
    std::string type;
    double number;
};

TEST(ApplicationReader, EverySlotReachesItsOperationAndFinalReleaseRunsOnceBeforeDeletion) {
    Log log;
    IVariantRead* reader = new AppReader(log, "int");
    void** slots = *reinterpret_cast<void***>(reader);
    alignas(8) char buffer[64];
    for (int slot : {3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 20}) {
        unsigned long length = sizeof buffer;
        reinterpret_cast<bool (*)(IVariantRead*, void*, unsigned long*)>(slots[slot])(reader, buffer, &length);
    }
    EXPECT_EQ(log, (Log{"type", "unsigned char", "char", "unsigned short", "short", "unsigned int", "int",
                        "unsigned long", "long", "unsigned long long", "long long", "float", "double", "text",
                        "bool", "final release"}));
    using Count = int64_t (*)(IVariantRead*);
    void* found = nullptr;
    EXPECT_TRUE(reinterpret_cast<bool (*)(IVariantRead*, const char*, void**)>(slots[0])(reader, "IBase", &found));
    EXPECT_EQ(found, reader);
    EXPECT_EQ(reinterpret_cast<Count>(slots[1])(reader), 3) << "addRef";
    EXPECT_EQ(reinterpret_cast<Count>(slots[2])(reader), 2) << "releaseRef";
    log.clear();
    EXPECT_EQ(reader->releaseRef(), 1);
    EXPECT_EQ(log, Log{});
    EXPECT_EQ(reader->releaseRef(), 0);
    EXPECT_EQ(log, (Log{"final release", "destroyed"}));
}

// variant_set_variantread asks for the type name's size, then the name, then
// calls the getter of that type, and only that one, to write the value.
TEST(ApplicationReader, FillsAVariantThroughTheNamedGetterOnly) {
    const std::tuple<const char*, double, const char*> rows[] = {
        {"char", 65, "char:65"},     {"unsigned char", 200, "byte:200"}, {"short", -2, "short:-2"},
        {"int", -1, "int:-1"},       {"unsigned short", 65535, "ushort:65535"}, {"long", -3, "long:-3"},
        {"unsigned int", 4e9, "uint:4000000000"}, {"unsigned long", 5, "ulong:5"}, {"long long", -4, "ll:-4"},
        {"unsigned long long", 7, "ull:7"}, {"float", 1.5, "float:1.5"}, {"double", 2.5, "double:2.5"},
        {"bool", 1, "bool:1"},       {"string", 0, "string:'22.5 C'"}, // text asked twice: size, then text
        {"Int", 1, "empty"},         {"", 1, "empty"}, {"<silent>", 1, "empty"}}; // no getter for tag 0
    for (const auto& [type, number, expected] : rows) {
        for (bool withNul : {true, false}) {
            Log log;
            AppReader* app = new AppReader(log, type, number);
            app->typeWritesNul = withNul;
            const Reader reader(app);
            Variant v;
            variant_set_string(v.get(), "old", true); // freed by the fill, or the leak checker complains
            variant_set_variantread(v.get(), reader.get());
            EXPECT_EQ(describe(v.get()), expected) << type;
            Log getters;
            std::copy_if(log.begin(), log.end(), std::back_inserter(getters), [](auto& c) { return c != "type"; });
            const Log expectedGetters = std::string(expected) == "empty" ? Log{}
                                        : std::string(type) == "string" ? Log{"text", "text"} : Log{type};
            EXPECT_EQ(getters, expectedGetters) << type;
        }
    }
    Variant v;
    variant_set_string(v.get(), "old", true);
    variant_set_variantread(v.get(), nullptr);
    EXPECT_EQ(describe(v.get()), "empty");
}

TEST(VariantWrapper, NewWrapperIsReadableOnlyUnboundAndNullHandlesDoNothing) {
    const Wrapper wrapper(variant_wrapper_create());
    unsigned long length = 3;
    EXPECT_EQ(variant_wrapper_get_variantwrite(wrapper.get()), nullptr);
    EXPECT_NE(Reader(variant_wrapper_get_variantread(wrapper.get())), nullptr);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), nullptr);
    EXPECT_FALSE(variant_wrapper_set_type(wrapper.get(), "int"));
    EXPECT_FALSE(variant_wrapper_get_type(wrapper.get(), nullptr, &length));
    variant_wrapper_set_mode(wrapper.get(), false, true);
    EXPECT_EQ(variant_wrapper_get_variantread(wrapper.get()), nullptr);
    EXPECT_NE(Writer(variant_wrapper_get_variantwrite(wrapper.get())), nullptr);
    Variant v;
    variant_wrapper_set_mode(nullptr, true, true);
    variant_wrapper_set_wrapper_value(nullptr, v.get(), true);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(nullptr), nullptr); // the bool results: BoolResultTest
    EXPECT_EQ(variant_wrapper_clone(nullptr), nullptr);
    EXPECT_EQ(variant_wrapper_get_variantread(nullptr), nullptr);
    EXPECT_EQ(variant_wrapper_get_variantwrite(nullptr), nullptr);
    variant_wrapper_handle* none = nullptr;
    variant_wrapper_destroy(&none);
    EXPECT_EQ(none, nullptr);
}

TEST(VariantWrapper, BorrowedValueIsWrittenInPlaceAndCopiedValueIsPrivate) {
    Variant v;
    variant_set_string(v.get(), "42", true);
    const Wrapper wrapper = wrapperOver(v.get());
    const auto typeText = [&wrapper] {
        return textFrom([&wrapper](char* buffer, unsigned long& length) {
            return variant_wrapper_get_type(wrapper.get(), buffer, &length);
        });
    };
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), v.get());
    EXPECT_EQ(typeText(), "string");
    EXPECT_TRUE(variant_wrapper_set_type(wrapper.get(), "short"));
    EXPECT_TRUE(variant_wrapper_set_type(wrapper.get(), "?"));
    EXPECT_EQ(describe(v.get()), "short:42");
    EXPECT_EQ(typeText(), "short");
    variant_wrapper_set_wrapper_value(wrapper.get(), v.get(), true);
    tagTVARIANT* owned = variant_wrapper_get_wrapper_value(wrapper.get());
    const Writer writer(variant_wrapper_get_variantwrite(wrapper.get()));
    EXPECT_NE(owned, v.get());
    EXPECT_TRUE(writer->setValue(7, true));
    EXPECT_EQ(describe(owned), "int:7");
    EXPECT_EQ(describe(v.get()), "short:42");
    // Binding the wrapper's own copy again keeps it; a new value frees it
    // (the leak checker sees to that); null unbinds whatever the copy flag.
    variant_wrapper_set_wrapper_value(wrapper.get(), owned, true);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.get()), owned);
    EXPECT_EQ(describe(owned), "int:7");
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
    ASSERT_NE(copy, nullptr);
    EXPECT_NE(copy, v.get());
    variant_set_int(v.get(), 1, true);
    EXPECT_EQ(describe(copy), "string:'shared?'");
    EXPECT_EQ(variant_wrapper_get_variantread(clone.get()), nullptr);
    EXPECT_TRUE(Writer(variant_wrapper_get_variantwrite(clone.get()))->setValue(2.5, true));
    EXPECT_EQ(describe(copy), "double:2.5") << "the clone's writer points at the clone's copy";
    ASSERT_NE(unboundClone, nullptr);
    EXPECT_EQ(variant_wrapper_get_wrapper_value(unboundClone.get()), nullptr);
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
        EXPECT_EQ(wrapper, nullptr);
        EXPECT_FALSE(reader->getValue(number));
        EXPECT_FALSE(writer->setValue(3, true));
        EXPECT_EQ(writer->releaseRef(), 0);
        EXPECT_EQ(reader->releaseRef(), 0);
    }
    EXPECT_EQ(describe(borrowed.get()), "string:'stays'");
}

} // namespace
