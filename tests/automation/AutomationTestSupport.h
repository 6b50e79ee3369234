// What the automation tests share: records and units that clean up after
// themselves, and a variant's value as text, worked out independently of the
// library's own tables so that it can judge the library's results.
#ifndef KORVANE_TESTS_AUTOMATION_TEST_SUPPORT_H
#define KORVANE_TESTS_AUTOMATION_TEST_SUPPORT_H

#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "korvane/automation.h"

namespace autotest {

constexpr TVARTYPE kUnknownTag = 99; // no variant type uses it
// The bytes a value of each tag takes, the string's unit pointer included.
constexpr unsigned kWidth[] = {0, 1, 1, 2, 2, 4, 4, 8, 8, 8, 8, 4, 8, 8, 1};

// Fills a fresh variant for a table row.
using Filler = std::function<void(tagTVARIANT*)>;

// A record that is cleared when it goes, filled by a Filler if given one.
struct Variant {
    Variant() { variant_init(&record); }
    explicit Variant(const Filler& fill) : Variant() { fill(&record); }
    ~Variant() { variant_clear(&record); }
    tagTVARIANT* get() { return &record; }
    tagTVARIANT record;
};

template <class T, class Value>
Filler setTo(void (*setter)(tagTVARIANT*, T, bool), Value value) {
    return [setter, value](tagTVARIANT* v) { setter(v, static_cast<T>(value), true); };
}
inline Filler text(const char* t) { return [t](tagTVARIANT* v) { variant_set_string(v, t, true); }; }
// A record built by hand: any tag over any 64-bit value.
inline Filler raw(TVARTYPE tag, uint64_t bits) { return [=](tagTVARIANT* v) { v->vt = tag, v->value.bits = bits; }; }

using Unit = std::unique_ptr<bstrunit, decltype(&bstrunit_free)>;
// A unit built by hand from raw bytes: no NUL is added.
inline Unit rawUnit(const std::string& bytes) {
    Unit unit(bstrunit_alloc(static_cast<int32_t>(bytes.size())), &bstrunit_free);
    std::memcpy(bstrunit_data(unit.get()), bytes.data(), bytes.size());
    return unit;
}

// "int:-7", "char:200" (a char shows its unsigned byte), "float:-2.75",
// "string:'abc'" (up to the first NUL), "string:null", "empty", "tag99:0x2a".
inline std::string describe(const tagTVARIANT* v) {
    static const char* const names[] = {"empty", "char", "byte", "short",  "ushort", "int",    "uint", "long",
                                        "ulong", "ll",   "ull",  "float",  "double", "string", "bool"};
    const bstrunit* unit = v->value.bstrVal;
    char value[400] = "null";
    if (v->vt == TVT_EMPTY || v->vt > TVT_BOOL)
        std::snprintf(value, sizeof value, v->vt ? "tag%u:0x%llx" : "empty", v->vt, (unsigned long long)v->value.bits);
    if (v->vt == TVT_EMPTY || v->vt > TVT_BOOL)
        return value;
    if (v->vt == TVT_STRING && unit != nullptr)
        return "string:'" + std::string(bstrunit_data(unit), strnlen(bstrunit_data(unit), unit->length)) + "'";
    const unsigned shift = 64 - 8 * kWidth[v->vt];
    const bool isSigned = v->vt == TVT_SHORT || v->vt == TVT_INT || v->vt == TVT_LONG || v->vt == TVT_LONGLONG;
    if (v->vt == TVT_FLOAT || v->vt == TVT_DOUBLE)
        std::snprintf(value, sizeof value, "%.*g", v->vt == TVT_FLOAT ? 9 : 17,
                      v->vt == TVT_FLOAT ? double(v->value.floatVal) : v->value.doubleVal);
    else if (v->vt != TVT_STRING && isSigned)
        std::snprintf(value, sizeof value, "%lld", (long long)(int64_t(v->value.bits << shift) >> shift));
    else if (v->vt != TVT_STRING)
        std::snprintf(value, sizeof value, "%llu", (unsigned long long)((v->value.bits << shift) >> shift));
    return std::string(names[v->vt]) + ":" + value;
}

// Text through the caller-buffer protocol, into a buffer large enough. The
// size query and the refusals are the shared protocol's, tested once with the
// environment getter.
inline std::string textFrom(const std::function<bool(char*, unsigned long&)>& get) {
    char text[64] = "<not written>";
    unsigned long length = sizeof text;
    return get(text, length) ? text : "<refused>";
}

} // namespace autotest

#endif
