// The library's reader and writer, an application's own reader, and the
// variant wrapper that binds a variant to them and hands them out. (Safe
// arrays are the safe_array fuzz target's: bounds, contents at each type's
// width, resize, types without storage, snapshots and string ownership,
// against its model, with the address and leak checkers on.)
#include <gtest/gtest.h>

#include <algorithm>
#include <tuple>
#include <vector>

#include "AutomationTestSupport.h"
#include "automation/VariantInterfaces.h"
#include "korvane/cpp/values.hpp"

namespace {

using namespace autotest;
using Log = std::vector<std::string>;
void* slotOf(void* object, int slot) { return (*static_cast<void***>(object))[slot]; }

// Applications built without this header call the operations by their fixed
// slot numbers. The reader's, over -1.0: how many bytes each writes and the
// last of them (0xFF for -1, 0 where an unsigned type cannot hold it, the
// float's sign byte, a text's NUL); they resolve a private copy, checked
// below with a string. The writer's setters: the tag each leaves.
TEST(VariantReaderAndWriter, EverySlotServesItsOwnTypeAndTheVariantIsOnlyWrittenByTheWriter) {
    Variant v(setTo(variant_set_double, -1.0));
    korvane::VariantWrapper wrapper;
    wrapper.set_mode(true, true);
    variant_wrapper_set_wrapper_value(wrapper.native_handle(), v.get(), false);
    const auto r = wrapper.reader();
    const auto w = wrapper.writer();
    std::vector<std::string> written;
    for (int slot = 3; slot <= 17; ++slot) {
        std::vector<unsigned char> buffer(16, 0xEE);
        unsigned long length = buffer.size();
        const auto read = reinterpret_cast<bool (*)(IVariantRead*, void*, unsigned long*)>(slotOf(r.get(), slot));
        read(r.get(), buffer.data(), &length);
        const size_t n = std::find(buffer.begin(), buffer.end(), 0xEE) - buffer.begin();
        written.push_back(std::to_string(n) + ":" + std::to_string(n ? buffer[n - 1] : 0));
    }
    EXPECT_EQ(written, (std::vector<std::string>{"7:0", "1:0", "1:0", "2:0", "2:255", "4:0", "4:255", "8:0", "8:255",
                                                 "8:0", "8:255", "4:191", "8:191", "10:0", "1:1"}));
    std::vector<int> tags;
    alignas(256) static const char text[] = "7"; // the text setter's; a byte setter sees the low byte, 0
    for (int slot = 4; slot <= 17; ++slot) {
        reinterpret_cast<bool (*)(IVariantWrite*, const char*, bool)>(slotOf(w.get(), slot))(w.get(), text, true);
        tags.push_back(v.record.vt);
    }
    EXPECT_EQ(tags, (std::vector<int>{2, 1, 4, 3, 6, 5, 8, 7, 10, 9, 11, 12, 13, 14}));
    void* found = nullptr;
    EXPECT_FALSE(r->queryInterface("IVariantWrite", &found));
    EXPECT_TRUE(r->queryInterface("IBase", &found));
    EXPECT_TRUE(w->queryInterface("IVariantWrite", &found));
    EXPECT_EQ(found, w.get());
    EXPECT_EQ(w->releaseRef(), 2) << "the wrapper's and the hand-out's remain";
    EXPECT_EQ(r->releaseRef(), 2);
    // An unknown tag has no type name and no text; the type names the writer takes.
    raw(kUnknownTag, 7)(v.get());
    EXPECT_EQ(textFrom([&r](char* buffer, unsigned long& n) { return r->getType(buffer, n); }), "");
    EXPECT_EQ(textFrom([&r](char* buffer, unsigned long& n) { return r->getValue(buffer, n); }), "");
    EXPECT_TRUE(w->setValue("7", true));
    EXPECT_TRUE(w->setValue((const char*)nullptr, true)); // changes nothing
    // The getters resolve a private copy: the variant stays a text.
    EXPECT_EQ(variant_resolve_as_int(v.get()), 7);
    EXPECT_EQ(describe(v.get()), "string:'7'");
    EXPECT_TRUE(w->setType("unsigned int"));
    EXPECT_TRUE(w->setType("integer")) << "refused, yet true, on purpose";
    EXPECT_EQ(describe(v.get()), "uint:7");
}

// An application's own reader, here the library's over a variant of the
// test's, with a type name and a last release of its own.
struct AppReader : CVariantRead {
    AppReader(Log& log, std::string type) : log(log), type(std::move(type)) {}
    bool getType(char* buffer, unsigned long& length) override {
        if (buffer != nullptr && length >= type.size() + 1) // no NUL: the name must be taken without one
            std::memcpy(buffer, type.data(), type.size());
        length = type.size() + 1;
        return type != "<silent>";
    }
    void onFinalRelease() override { log.push_back("final release"); }
    Log& log;
    std::string type;

protected:
    ~AppReader() override { log.push_back("destroyed"); }
};

// variant_set_variantread asks for the type name and calls the getter of that
// type to write the value; an unknown name leaves the variant empty. The
// stub's last release runs its hook, then deletes.
TEST(ApplicationReader, FillsAVariantThroughTheNamedGetterAndFinalReleaseRunsOnceBeforeDeletion) {
    const std::tuple<const char*, Filler, const char*> rows[] = {
        {"char", setTo(variant_set_int, 65), "char:65"}, {"string", text("22.5 C"), "string:'22.5 C'"},
        {"Int", text("1"), "empty"}, {"<silent>", text("1"), "empty"}};
    for (const auto& [type, make, expected] : rows) {
        Log log;
        Variant source(make), v(text("old")); // the old text is freed by the fill, or the leak checker complains
        AppReader* app = new AppReader(log, type);
        app->setWrapperValue(source.get());
        variant_set_variantread(v.get(), app);
        EXPECT_EQ(describe(v.get()), expected) << type;
        EXPECT_EQ(app->releaseRef(), 0);
        EXPECT_EQ(log, (Log{"final release", "destroyed"})) << type;
    }
}

// A borrowed value is written in place; a copy, a clone's included, is the
// wrapper's own and freed with it (the leak checker sees to that). The null
// handles' results are in BoolResultTest; the type name and a clone's value
// are read in the C++ wrapper's test.
TEST(VariantWrapper, BorrowedValueIsWrittenInPlaceAndCopiedValueIsPrivate) {
    Variant v(text("42"));
    korvane::VariantWrapper wrapper;
    // Readable only when new: the C++ wrapper's test takes its reader.
    EXPECT_FALSE(wrapper.writer());
    EXPECT_FALSE(wrapper.set_type("int")) << "nothing bound";
    wrapper.set_mode(false, true);
    variant_wrapper_set_wrapper_value(wrapper.native_handle(), v.get(), false);
    EXPECT_TRUE(wrapper.set_type("short"));
    EXPECT_EQ(describe(v.get()), "short:42");
    variant_wrapper_set_wrapper_value(wrapper.native_handle(), v.get(), true);
    tagTVARIANT* owned = variant_wrapper_get_wrapper_value(wrapper.native_handle());
    const auto writer = wrapper.writer();
    EXPECT_TRUE(writer->setValue(7, true));
    EXPECT_EQ(describe(owned), "int:7");
    EXPECT_EQ(describe(v.get()), "short:42");
    variant_wrapper_set_wrapper_value(wrapper.native_handle(), owned, true); // its own copy again: kept
    EXPECT_EQ(variant_wrapper_get_wrapper_value(wrapper.native_handle()), owned);
    EXPECT_FALSE(wrapper.clone().reader()) << "the clone keeps the mode";
    variant_wrapper_set_wrapper_value(wrapper.native_handle(), nullptr, true);
    EXPECT_FALSE(writer->setValue(1, true)) << "the writer follows the wrapper's binding";
    // A held interface outlives the wrapper, unbound; a borrowed value stays.
    variant_wrapper_set_wrapper_value(wrapper.native_handle(), v.get(), false);
    wrapper.reset();
    EXPECT_FALSE(writer->setValue(1, true));
    EXPECT_EQ(describe(v.get()), "short:42");
}

} // namespace
