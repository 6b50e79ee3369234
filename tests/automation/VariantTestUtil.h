// Helpers for the variant tests: a record that is cleared on the way out and
// a plain-text description of a variant, written independently of the
// library's own type table so that it can judge the library's results.
#ifndef KORVANE_TESTS_VARIANT_TEST_UTIL_H
#define KORVANE_TESTS_VARIANT_TEST_UTIL_H

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>

#include "korvane/automation.h"

namespace kvtest {

// Tag value no variant type uses.
constexpr TVARTYPE kUnknownTag = 99;

class ScopedVariant {
public:
    ScopedVariant() { variant_init(&m_value); }
    ~ScopedVariant() { variant_clear(&m_value); }
    ScopedVariant(const ScopedVariant&) = delete;
    ScopedVariant& operator=(const ScopedVariant&) = delete;
    tagTVARIANT* get() { return &m_value; }
    tagTVARIANT* operator->() { return &m_value; }

private:
    tagTVARIANT m_value;
};

// Fills a fresh variant for a test case.
using Filler = std::function<void(tagTVARIANT*)>;

// A filler calling one of the typed setters with `value` (flag true).
template <class T, class Value>
Filler setTo(void (*setter)(tagTVARIANT*, T, bool), Value value) {
    return [setter, value](tagTVARIANT* v) { setter(v, static_cast<T>(value), true); };
}

inline Filler setToText(const char* text) {
    return [text](tagTVARIANT* v) { variant_set_string(v, text, true); };
}

// The value union read as T, whatever the tag says.
template <class T>
T valueAs(const tagTVARIANT& v) {
    T value;
    std::memcpy(&value, &v.value, sizeof value);
    return value;
}

inline std::string unitText(const bstrunit* unit) {
    if (unit == nullptr)
        return "null";
    const char* data = bstrunit_data(unit);
    return "'" + std::string(data, strnlen(data, static_cast<size_t>(unit->length))) + "'";
}

// "int:-7", "char:200" (a char shows its unsigned byte), "float:-2.75",
// "string:'abc'", "string:null", "empty", "tag99:0x2a". Floats print with
// enough digits to tell any two apart.
inline std::string describe(const tagTVARIANT& v) {
    char text[96];
    switch (v.vt) {
    case TVT_EMPTY: return "empty";
    case TVT_CHAR: std::snprintf(text, sizeof text, "char:%u", valueAs<unsigned char>(v)); break;
    case TVT_BYTE: std::snprintf(text, sizeof text, "byte:%u", valueAs<unsigned char>(v)); break;
    case TVT_SHORT: std::snprintf(text, sizeof text, "short:%d", valueAs<int16_t>(v)); break;
    case TVT_USHORT: std::snprintf(text, sizeof text, "ushort:%u", valueAs<uint16_t>(v)); break;
    case TVT_INT: std::snprintf(text, sizeof text, "int:%d", valueAs<int32_t>(v)); break;
    case TVT_UINT: std::snprintf(text, sizeof text, "uint:%u", valueAs<uint32_t>(v)); break;
    case TVT_LONG: std::snprintf(text, sizeof text, "long:%ld", valueAs<long>(v)); break;
    case TVT_ULONG: std::snprintf(text, sizeof text, "ulong:%lu", valueAs<unsigned long>(v)); break;
    case TVT_LONGLONG: std::snprintf(text, sizeof text, "ll:%lld", valueAs<long long>(v)); break;
    case TVT_ULONGLONG: std::snprintf(text, sizeof text, "ull:%llu", valueAs<unsigned long long>(v)); break;
    case TVT_FLOAT: std::snprintf(text, sizeof text, "float:%.9g", static_cast<double>(valueAs<float>(v))); break;
    case TVT_DOUBLE: std::snprintf(text, sizeof text, "double:%.17g", valueAs<double>(v)); break;
    case TVT_STRING: return "string:" + unitText(v.value.bstrVal);
    case TVT_BOOL: std::snprintf(text, sizeof text, "bool:%u", valueAs<unsigned char>(v)); break;
    default:
        std::snprintf(text, sizeof text, "tag%u:0x%llx", v.vt, static_cast<unsigned long long>(valueAs<uint64_t>(v)));
        break;
    }
    return text;
}

} // namespace kvtest

#endif
